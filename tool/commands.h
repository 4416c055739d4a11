// The commands of the tool: what each one is given from the command line and
// the function that does its work. The command line itself (tool/main.cpp)
// fills the options and calls these; nothing here knows the parser, so the
// sources of the commands compile without it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "show_format.h"

namespace nodetrace_tool {

// What the records of the tool name as their source: the tool itself, for
// the records of enable and disable and for entries of write without --file.
inline constexpr const char* kToolSourceName = "nodetrace";

// nodetrace sets [-v] [--report]
struct SetsOptions {
  bool verbose = false;
  bool report = false;
};
void listSets(const SetsOptions& options);

// nodetrace show [SET...] [-s NAME...] [-c MASK] [-n N] [-f FORMAT] [-P]
struct ShowOptions {
  std::vector<std::string> sets;
  std::vector<std::string> severities;
  std::string category;
  std::uint32_t lines = 0;
  bool lastLinesOnly = false;  // -n was given
  bool previousRun = false;
  std::string format = kDefaultShowFormat;
};
void show(const ShowOptions& options);

// nodetrace follow [SET...] [-s NAME...] [-c MASK] [-n N] [-f FORMAT] [-i MS]
struct FollowOptions {
  std::vector<std::string> sets;
  std::vector<std::string> severities;
  std::string category;
  std::uint32_t lines = 10;
  unsigned interval = 250;
  std::string format = kDefaultShowFormat;
};
void follow(const FollowOptions& options);

// nodetrace dump FILE [--with-sram] [--debug] [--force] and
// nodetrace dump-before-reset FILE [--direct]
struct DumpOptions {
  std::string file;
  bool withSram = false;
  bool debug = false;
  bool direct = false;
  bool force = false;
};
void dump(const DumpOptions& options);
void dumpBeforeReset(const DumpOptions& options);

// nodetrace severity [+NAME|-NAME]...
void severity(const std::vector<std::string>& changes);

// nodetrace mask SET [MASK]; an empty maskText shows the mask.
void mask(const std::string& setName, const std::string& maskText);

// nodetrace enable REASON... and nodetrace disable REASON...
void enableTracing(const std::vector<std::string>& reason);
void disableTracing(const std::vector<std::string>& reason);

// nodetrace clear SET
void clear(const std::string& setName);

// The shape of a set that create and write --create ask for.
struct SetShape {
  bool dump = false;
  std::int64_t entries = -1;  // -1: the default of the type
  std::int64_t length = -1;   // -1: the default of the type
  std::string mask = "0xFFFFFFFF";
};

// nodetrace create SET [--dump] [--entries N] [--length N] [-m MASK]
void create(const std::string& name, const SetShape& shape);

// nodetrace write SET SEVERITY TEXT... [options]
struct WriteOptions {
  std::string set;
  std::string severity;
  std::vector<std::string> words;
  std::string category = "0xFFFFFFFF";
  std::string file = kToolSourceName;
  int line = 0;
  bool hex = false;
  bool create = false;
  SetShape shape;
};
void writeEntry(const WriteOptions& options);

// The text of write may begin with '-': the arguments (without the program's
// name) get a "--" before the first word after SET and SEVERITY that is not
// an option of write.
void separateWriteText(std::vector<std::string>& arguments);

}  // namespace nodetrace_tool
