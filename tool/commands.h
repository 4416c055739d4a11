// The subcommands of the tool; each adds itself, its options and the
// callback that does its work to the application.
#pragma once

#include <CLI/CLI.hpp>

namespace nodetrace_tool {

void addSetsCommand(CLI::App& app);
void addShowCommand(CLI::App& app);
void addFollowCommand(CLI::App& app);
void addDumpCommands(CLI::App& app);
void addControlCommands(CLI::App& app);

// Runs the tool: parses the command line and runs the chosen subcommand.
// Returns the exit status.
int runTool(int argc, char** argv);

}  // namespace nodetrace_tool
