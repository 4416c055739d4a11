// The decoded entries of several dump files as one trace in the Common
// Trace Format 1.8, for the readers and viewers of that format:
//
//   DIR/metadata     the trace's description in the text metadata language
//   DIR/stream_0     the entries of the first dump file, oldest first
//   DIR/stream_1     the entries of the second dump file ...
//
// Each dump file is one data stream (its packets carry the file's name and
// kind), so a reader merges the files by time just as the other formats do.
// Every entry is one event: its clock value is the entry's real time (a
// clock "realtime" of 1 GHz whose origin is the Unix epoch); the event
// class is the entry's set and severity, with the severity as the class's
// log level; the payload holds every field of the entry.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "decode/dump_reader.h"

namespace nodetrace_tool::decode {

// Writes the trace of these files into directory, which is created when
// missing. An existing directory may hold only an earlier trace of this
// writer ("metadata" and "stream_<n>" files), which is replaced. Returns
// the reason when the trace could not be written ("cannot create the
// directory: Permission denied").
std::optional<std::string> writeCtfTrace(const std::string& directory, const std::vector<DecodedFile>& files);

// The text of the metadata file for these files, and the bytes of the data
// stream of one of them: the pieces of writeCtfTrace, for tests and the
// fuzzer.
std::string ctfMetadata(const std::vector<DecodedFile>& files);
std::vector<std::uint8_t> ctfStream(const std::vector<DecodedFile>& files, std::size_t file);

}  // namespace nodetrace_tool::decode
