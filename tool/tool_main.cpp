#include <cstdio>
#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"

#ifdef NODETRACE_TOOL_HAS_DECODE
#include "decode/decode_command.h"
#endif

#ifndef NODETRACE_TOOL_VERSION
#error "NODETRACE_TOOL_VERSION must hold the version of the tool"
#endif

namespace nodetrace_tool {

namespace {

// Parse errors read like every other error of the tool, with a pointer to
// the help of the command concerned.
std::string usageMessage(const CLI::App* app, const CLI::Error& error) {
  std::string command = "nodetrace";
  for (const CLI::App* chosen : app->get_subcommands()) command += " " + chosen->get_name();
  return "nodetrace: " + std::string(error.what()) + "\nRun '" + command + " --help' for more information.\n";
}

bool isCommand(CLI::App& app, const std::string& name) {
  return !app.get_subcommands([&name](CLI::App* command) { return command->check_name(name); }).empty();
}

}  // namespace

int runTool(int argc, char** argv) {
  CLI::App app("Read, follow, filter and dump the traces of the node, and control the trace system.", "nodetrace");
  app.set_version_flag("--version", "nodetrace " NODETRACE_TOOL_VERSION);
  app.require_subcommand(1);
  app.failure_message(usageMessage);
  addSetsCommand(app);
  addShowCommand(app);
  addFollowCommand(app);
  addDumpCommands(app);
  addControlCommands(app);
#ifdef NODETRACE_TOOL_HAS_DECODE
  addDecodeCommand(app);
#endif
  // CLI11 would first complain that a command is required.
  if (argc > 1 && argv[1][0] != '-' && !isCommand(app, argv[1])) {
    std::fprintf(stderr, "nodetrace: unknown command '%s'\nRun 'nodetrace --help' for more information.\n", argv[1]);
    return kUsageExitCode;
  }
  std::vector<std::string> arguments(argv + 1, argv + argc);
  separateWriteText(arguments);
  std::vector<char*> words{argv[0]};
  for (std::string& argument : arguments) words.push_back(argument.data());
  try {
    app.parse(static_cast<int>(words.size()), words.data());
  } catch (const ToolError& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "nodetrace: %s\n", error.what());
    return error.exitCode();
  } catch (const CLI::RuntimeError& error) {
    // A command that ended with a status of its own; a message, if any, is
    // an error message.
    std::fflush(stdout);
    const std::string message = error.what();
    if (!message.empty() && message != "Runtime error") std::fprintf(stderr, "nodetrace: %s\n", message.c_str());
    return error.get_exit_code();
  } catch (const CLI::ParseError& error) {
    std::fflush(stdout);
    const int status = app.exit(error);
    return status == 0 ? 0 : kUsageExitCode;
  }
  std::fflush(stdout);
  return 0;
}

}  // namespace nodetrace_tool
