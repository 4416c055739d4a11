// The nodetrace tool: its command line and its entry point. Every command
// registers here, with its options, help texts and the function of
// tool/commands.h that does its work; this is the one source of the tool
// that sees the command-line parser.

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

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

// The filter options of the entry listings (show, follow): -s/--severity
// NAME... into severities, -c/--category MASK into category.
void addEntryFilterOptions(CLI::App& command, std::vector<std::string>& severities, std::string& category) {
  command
      .add_option("-s,--severity", severities,
                  "Only entries of these severities: ERR, WAR, INF, DBG, NOT (repeat the option or "
                  "separate them by commas)")
      ->type_name("NAME");
  command
      .add_option("-c,--category", category,
                  "Only entries sharing a bit with this category mask (hexadecimal, e.g. 0x0000000F)")
      ->type_name("MASK")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

// The -f/--format option of the entry listings, into format (which holds the
// default shown in the help).
void addLineFormatOption(CLI::App& command, std::string& format) {
  command.add_option("-f,--format", format, "Line layout in the directives of the library's entry formatter")
      ->type_name("FORMAT")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->capture_default_str();
}

// --entries and --length of create and write --create.
void addShapeOptions(CLI::App& command, SetShape& shape) {
  command.add_option("--entries", shape.entries, "Capacity of a new set (default: 256 text or 64 dump entries)")
      ->type_name("N")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  command
      .add_option("--length", shape.length,
                  "Longest entry of a new set in bytes (default and most: 128 for text, 1600 for dump entries)")
      ->type_name("N")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

void addSetsCommand(CLI::App& app) {
  auto options = std::make_shared<SetsOptions>();
  CLI::App* command = app.add_subcommand(
      "sets", "Report all trace sets: entries held, capacity, entries written and type of each, and the use of "
              "shared memory");
  command->add_flag("-v,--verbose", options->verbose, "Also show the category mask of each set");
  command->add_flag("--report", options->report, "The library's own report (printTraceSetsInfo) instead of the table");
  command->callback([options] { listSets(*options); });
}

void addShowCommand(CLI::App& app) {
  auto options = std::make_shared<ShowOptions>();
  CLI::App* command = app.add_subcommand(
      "show",
      "Print the entries of trace sets, merged into one stream in the order in which they were "
      "written (by sequence number), oldest first");
  command->add_option("SET", options->sets,
                      "Trace sets by name or id (default: every user set, System and NVJ_System)")
      ->type_name("");
  addEntryFilterOptions(*command, options->severities, options->category);
  command->add_option("-n,--lines", options->lines, "Only the last N entries of the stream")
      ->type_name("N")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  addLineFormatOption(*command, options->format);
  command->add_flag("-P,--previous-run,--last-boot", options->previousRun,
                    "The entries of the run before the node's last reset instead: the newest TraceLog.<n> and "
                    "ErrorTrace.<n> dump files of the logs directory, merged by time (SET names the sets in them)");
  command->callback([options, command] {
    options->lastLinesOnly = command->count("--lines") > 0;
    show(*options);
  });
}

void addFollowCommand(CLI::App& app) {
  auto options = std::make_shared<FollowOptions>();
  CLI::App* command = app.add_subcommand(
      "follow",
      "Print the last entries of trace sets, then every new entry as it is written, in order, until "
      "interrupted (like tail -f)");
  command->add_option("SET", options->sets,
                      "Trace sets by name or id (default: every user set, also those created later, "
                      "System and NVJ_System)")
      ->type_name("");
  addEntryFilterOptions(*command, options->severities, options->category);
  command->add_option("-n,--lines", options->lines, "Entries printed at the start")
      ->type_name("N")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->capture_default_str();
  addLineFormatOption(*command, options->format);
  command->add_option("-i,--interval", options->interval, "Milliseconds between two looks at the trace sets")
      ->type_name("MS")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->capture_default_str();
  command->callback([options] { follow(*options); });
}

void addDumpCommands(CLI::App& app) {
  auto options = std::make_shared<DumpOptions>();
  CLI::App* command = app.add_subcommand(
      "dump", "Write every user trace set, entries oldest first, into a dump file (network byte order)");
  command->add_option("FILE", options->file, "The dump file to write")->required()
      ->type_name("");
  command->add_flag("--with-sram", options->withSram, "Also dump the sets of the SRAM file, NVJ_System and System");
  command->add_flag("--debug", options->debug, "Also dump entries of severity DBG, which are left out otherwise");
  command->add_flag("--force", options->force,
                    "Remove a temporary dump file left over from a dump that did not finish, then dump");
  command->callback([options] { dump(*options); });

  auto resetOptions = std::make_shared<DumpOptions>();
  CLI::App* beforeReset = app.add_subcommand(
      "dump-before-reset",
      "Write the newest WAR, NOT, INF and DBG entries of the user trace sets that fit into 950 KiB, as the "
      "reset handling does, into a dump file");
  beforeReset->add_option("FILE", resetOptions->file, "The dump file to write")->required()
      ->type_name("");
  beforeReset->add_flag("--direct", resetOptions->direct,
                        "Write FILE directly as the reset handling does: only ERR entries are traced while the "
                        "dump runs, and the old dump files of the slot named in /tmp/oldTrace are removed "
                        "(FILE at most 39 characters)");
  beforeReset->callback([resetOptions] { dumpBeforeReset(*resetOptions); });
}

void addControlCommands(CLI::App& app) {
  CLI::App* severityCommand = app.add_subcommand(
      "severity",
      "Show the node-wide severity filter, or let severities through (+NAME) or filter them out (-NAME); "
      "NAME is ERR, WAR, INF, DBG or NOT");
  // -DBG is a change, not an option: the arguments are taken as they come.
  severityCommand->allow_extras();
  severityCommand->footer(
      "Arguments: [+NAME|-NAME]...\n"
      "  +NAME lets entries of severity NAME through the node-wide filter, -NAME filters them out;\n"
      "  the filter in force afterwards is printed. Entries of ERR, WAR and NOT always go to System:\n"
      "  the filter holds back only INF and DBG entries.");
  severityCommand->callback([severityCommand] { severity(severityCommand->remaining()); });

  auto maskSet = std::make_shared<std::string>();
  auto maskValue = std::make_shared<std::string>();
  CLI::App* maskCommand =
      app.add_subcommand("mask", "Show the category mask of a trace set, or replace it until the node restarts");
  maskCommand->add_option("SET", *maskSet, "Trace set by name or id")->required()
      ->type_name("");
  maskCommand->add_option("MASK", *maskValue, "New category mask (hexadecimal, e.g. 0x0000000F)")
      ->type_name("");
  maskCommand->callback([maskSet, maskValue] { mask(*maskSet, *maskValue); });

  auto enableReason = std::make_shared<std::vector<std::string>>();
  CLI::App* enableCommand = app.add_subcommand(
      "enable", "Switch tracing on for every process of the node; the reason is recorded in System");
  enableCommand->add_option("REASON", *enableReason, "Why (words are joined by blanks)")->required()
      ->type_name("");
  enableCommand->callback([enableReason] { enableTracing(*enableReason); });

  auto disableReason = std::make_shared<std::vector<std::string>>();
  CLI::App* disableCommand = app.add_subcommand(
      "disable", "Switch tracing off for every process of the node; the reason is recorded in System");
  disableCommand->add_option("REASON", *disableReason, "Why (words are joined by blanks)")->required()
      ->type_name("");
  disableCommand->callback([disableReason] { disableTracing(*disableReason); });

  auto clearSet = std::make_shared<std::string>();
  CLI::App* clearCommand = app.add_subcommand("clear", "Empty a user trace set");
  clearCommand->add_option("SET", *clearSet, "Trace set by name or id")->required()
      ->type_name("");
  clearCommand->callback([clearSet] { clear(*clearSet); });

  auto writeOptions = std::make_shared<WriteOptions>();
  CLI::App* writeCommand = app.add_subcommand(
      "write", "Write an entry into a trace set, as an application does (ERR, WAR and NOT go to System)");
  writeCommand->add_option("SET", writeOptions->set, "Trace set by name or id")->required()
      ->type_name("");
  writeCommand->add_option("SEVERITY", writeOptions->severity, "ERR, WAR, INF, DBG or NOT")->required()
      ->type_name("");
  writeCommand->add_option("TEXT", writeOptions->words, "The entry (words are joined by blanks)")->required()
      ->type_name("");
  writeCommand->add_option("-c,--category", writeOptions->category, "Category bits of the entry (hexadecimal)")
      ->type_name("MASK")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->capture_default_str();
  writeCommand->add_option("--file", writeOptions->file, "Source file named in the entry")
      ->type_name("NAME")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->capture_default_str();
  writeCommand->add_option("--line", writeOptions->line, "Source line named in the entry")
      ->type_name("N")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->capture_default_str();
  writeCommand->add_flag("--hex", writeOptions->hex, "TEXT is hexadecimal bytes for a set of dump entries (\"41 42 0a\")");
  writeCommand->add_flag("--create", writeOptions->create,
                         "Create SET first when the node has none of that name: a text set, or a dump set with --hex");
  addShapeOptions(*writeCommand, writeOptions->shape);
  writeCommand->footer(
      "TEXT starts at the first word after SET and SEVERITY that is not an option of write, so it may begin\n"
      "with '-'; options after it are part of the text.");
  writeCommand->callback([writeOptions] { writeEntry(*writeOptions); });

  auto createName = std::make_shared<std::string>();
  auto createShape = std::make_shared<SetShape>();
  CLI::App* createCommand = app.add_subcommand(
      "create",
      "Create a trace set, as an application does; a set of that name that exists with the same type and at least "
      "that room is used as it is. Sets stay until the node restarts");
  createCommand->add_option("SET", *createName, "Name of the set (at most 19 characters, not starting with a digit)")
      ->required()
      ->type_name("");
  createCommand->add_flag("--dump", createShape->dump, "A set of dump entries (byte buffers) instead of text");
  addShapeOptions(*createCommand, *createShape);
  createCommand->add_option("-m,--mask", createShape->mask, "Category mask of the set (hexadecimal)")
      ->type_name("MASK")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->capture_default_str();
  createCommand->callback([createName, createShape] { create(*createName, *createShape); });
}

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

// Parses the command line and runs the chosen command; returns the exit
// status.
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

}  // namespace

}  // namespace nodetrace_tool

int main(int argc, char** argv) { return nodetrace_tool::runTool(argc, argv); }
