// nodetrace sets: the library's report of all trace sets.

#include <cstdio>
#include <memory>

#include "nodetrace/nodetrace.h"
#include "tool/arguments.h"
#include "tool/commands.h"
#include "tool/node_check.h"

namespace nodetrace_tool {

void addSetsCommand(CLI::App& app) {
  auto verbose = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand(
      "sets", "Report all trace sets: entries written, capacity and type of each, and the use of shared memory");
  command->add_flag("-v,--verbose", *verbose, "Also show the category mask of each user set");
  command->callback([verbose] {
    requireTraceSystem();
    const int32_t result = printTraceSetsInfo(*verbose ? 1 : 0);
    std::fflush(stdout);
    if (result == TRACE_RC_FILE_ERROR) {
      throw ToolError("the report is incomplete: the SRAM file could not be read (-6)");
    }
    if (result < 0) throw ToolError("the report is incomplete: " + describeResult(result));
  });
}

}  // namespace nodetrace_tool
