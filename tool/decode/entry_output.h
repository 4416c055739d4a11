// The decoded entries of several dump files as one stream, merged by time,
// written as text lines, JSON lines, CSV or a Trace Event JSON document.
#pragma once

#include <cstddef>
#include <optional>
#include <ostream>
#include <string_view>
#include <vector>

#include "decode/dump_reader.h"

namespace nodetrace_tool::decode {

// kCtf is a directory, not a stream: see ctf_output.h.
enum class OutputFormat { kText, kJsonl, kCsv, kChrome, kCtf };

std::optional<OutputFormat> parseOutputFormat(std::string_view name) noexcept;  // "text", "jsonl", ...
std::optional<TimeOrder> parseTimeOrder(std::string_view name) noexcept;        // "auto", "network", "little"

// An entry of the merged stream: files[file].entries[entry].
struct EntryRef {
  std::size_t file = 0;
  std::size_t entry = 0;
};

// All entries of all files in one stream. Each file's entries keep their
// order (the order they were written); across files the entry with the
// earlier real time goes first, and of equal times the one of the file
// named first.
std::vector<EntryRef> mergeByTime(const std::vector<DecodedFile>& files);

// Writes the stream. lineFormat is the layout of the text lines (the
// node's format directives); the other formats ignore it.
void writeEntries(std::ostream& out, const std::vector<DecodedFile>& files, const std::vector<EntryRef>& stream,
                  OutputFormat format, std::string_view lineFormat);

}  // namespace nodetrace_tool::decode
