// The subcommands of the tool; each adds itself, its options and the
// callback that does its work to the application.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace nodetrace_tool {

void addSetsCommand(CLI::App& app);
void addShowCommand(CLI::App& app);
void addFollowCommand(CLI::App& app);
void addDumpCommands(CLI::App& app);
void addControlCommands(CLI::App& app);

// The text of write may begin with '-': the arguments (without the program's
// name) get a "--" before the first word after SET and SEVERITY that is not
// an option of write.
void separateWriteText(std::vector<std::string>& arguments);

// Runs the tool: parses the command line and runs the chosen subcommand.
// Returns the exit status.
int runTool(int argc, char** argv);

}  // namespace nodetrace_tool
