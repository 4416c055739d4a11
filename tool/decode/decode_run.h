// The decode command without its command line: read the files, merge their
// entries, write them, report what could not be read.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "decode/dump_reader.h"
#include "decode/entry_output.h"
#include "show_format.h"

namespace nodetrace_tool::decode {

struct DecodeOptions {
  std::vector<std::string> files;
  OutputFormat format = OutputFormat::kText;
  TimeOrder timeOrder = TimeOrder::kAuto;
  std::string output;  // empty or "-": standard output; for ctf, the trace directory
  std::string lineFormat = kDefaultShowFormat;
};

// Decodes the files and writes every entry that could be read. Each file
// that is unreadable, malformed or truncated gets one line on err,
// "nodetrace decode: FILE: MESSAGE", after the output. Returns the exit
// status: 0 when every file was read whole, 1 otherwise.
int runDecode(const DecodeOptions& options, std::ostream& out, std::ostream& err);

}  // namespace nodetrace_tool::decode
