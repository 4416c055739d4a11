// The commands that change the trace system or add to it: severity, mask,
// enable, disable, clear and write.

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "nodetrace/nodetrace.h"
#include "tool/arguments.h"
#include "tool/commands.h"

namespace nodetrace_tool {

namespace {

// What the records of the tool name as their source: the tool itself, for
// the records of enable and disable and for entries of write without --file.
constexpr const char* kToolSourceName = "nodetrace";

std::string joinWords(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    if (!text.empty()) text += ' ';
    text += word;
  }
  return text;
}

bool isSramSet(std::int16_t id) { return id == SYSTEM_TRACE_SET_ID || id == REMOTE_SYSTEM_TRACE_SET_ID; }

void printSeverityFilter() {
  const std::uint8_t filter = getSeverityFilter();
  std::printf("%s (0x%02X)\n", severityNames(filter).c_str(), filter);
}

// The changes are checked as a whole before the first one is made.
void severity(const std::vector<std::string>& changes) {
  std::vector<std::pair<std::uint8_t, int>> steps;
  for (const std::string& change : changes) {
    if (change.empty() || (change[0] != '+' && change[0] != '-')) {
      throw ToolError("'" + change + "': write +NAME to let a severity through or -NAME to filter it out");
    }
    steps.emplace_back(severityBit(std::string_view(change).substr(1)), change[0] == '+' ? 1 : 0);
  }
  for (const auto& [bit, set] : steps) {
    const int result = modifySeverityMask(bit, set);
    if (result != 0) throw ToolError("the severity filter was not changed: " + describeResult(result));
  }
  printSeverityFilter();
}

void mask(const std::string& setName, const std::string& maskText) {
  const std::int16_t id = traceSetId(setName);
  if (!maskText.empty()) {
    const std::uint32_t value = parseCategoryMask(maskText);
    if (isSramSet(id)) {
      throw ToolError("the category mask of " + setName + " cannot be changed: the sets of the SRAM file keep every category");
    }
    const int result = setCategoryMask(id, value);
    if (result != 0) throw ToolError("the category mask of " + setName + " was not changed: " + describeResult(result));
  }
  std::printf("0x%08X\n", static_cast<std::uint32_t>(getCategoryMask(id)));
}

void clear(const std::string& setName) {
  const std::int16_t id = traceSetId(setName);
  if (isSramSet(id)) {
    throw ToolError("the trace set " + setName + " cannot be cleared: the sets of the SRAM file are kept across resets");
  }
  const int32_t result = clearTraceSet(id);
  if (result != 0) throw ToolError("the trace set " + setName + " was not cleared: " + describeResult(result));
}

struct WriteOptions {
  std::string set;
  std::string severity;
  std::vector<std::string> words;
  std::string category = "0xFFFFFFFF";
  std::string file = kToolSourceName;
  int line = 0;
  bool hex = false;
};

std::string bytesOfHex(const std::string& text) {
  std::string bytes;
  int high = -1;
  for (char c : text) {
    int value = -1;
    if (c >= '0' && c <= '9') value = c - '0';
    if (c >= 'a' && c <= 'f') value = c - 'a' + 10;
    if (c >= 'A' && c <= 'F') value = c - 'A' + 10;
    if (value < 0) {
      if (c == ' ' || c == ':' || c == '\t') continue;
      throw ToolError("'" + text + "' is not a row of hexadecimal bytes (such as \"41 42 0a\")");
    }
    if (high < 0) {
      high = value;
    } else {
      bytes += static_cast<char>(high << 4 | value);
      high = -1;
    }
  }
  if (high >= 0) throw ToolError("'" + text + "' ends in half a byte");
  return bytes;
}

// Explains on standard error why an entry that the library accepted was not
// stored: the library drops filtered entries silently, as any trace call.
// Only ERR entries and entries for System pass without the filters.
void noteFiltered(std::int16_t id, std::uint8_t severityBit, std::uint32_t category) {
  const char* reason = nullptr;
  if (isTraceEnabled() == 0) {
    reason = "the trace system is disabled";
  } else if (severityBit != TRACE_SEVERITY_ERR && id != SYSTEM_TRACE_SET_ID) {
    if ((getSeverityFilter() & severityBit) == 0) {
      reason = "the severity filter lets no entry of this severity through";
    } else if ((static_cast<std::uint32_t>(getCategoryMask(id)) & category) == 0) {
      reason = "the category shares no bit with the set's category mask";
    }
  }
  if (reason != nullptr) std::fprintf(stderr, "nodetrace: note: the entry was not stored: %s\n", reason);
}

void write(const WriteOptions& options) {
  const std::int16_t id = traceSetId(options.set);
  const std::uint8_t bit = severityBit(options.severity);
  const std::uint32_t category = parseCategoryMask(options.category);
  const std::string text = joinWords(options.words);
  if (id == REMOTE_SYSTEM_TRACE_SET_ID) {
    throw ToolError("NVJ_System keeps the entries of the remote unit; the tool does not write there");
  }
  if (id == SYSTEM_TRACE_SET_ID && (bit & TRACE_SEVERITY_ERROR_CLASS) == 0) {
    throw ToolError("System keeps only entries of severity ERR, WAR and NOT");
  }
  const TraceSetStruct* descriptor = getTraceSetStruct(static_cast<std::uint16_t>(id));
  const bool dumpSet = descriptor != nullptr && descriptor->type != TS_STRING && !isSramSet(id);
  if (options.hex && !dumpSet) throw ToolError("--hex needs a trace set of dump entries; " + options.set + " keeps text");
  if (dumpSet && (bit & TRACE_SEVERITY_ERROR_CLASS) != 0) {
    throw ToolError("entries of ERR, WAR and NOT go to System, which keeps text; " + options.set + " keeps dump entries");
  }
  int result = 0;
  if (dumpSet) {
    const std::string bytes = options.hex ? bytesOfHex(text) : text;
    if (bytes.empty()) throw ToolError("nothing to write");
    result = addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, bit, category, options.file.c_str(), options.line,
                           static_cast<int>(bytes.size()), bytes.data());
  } else {
    if (text.empty()) throw ToolError("nothing to write");
    result = tracePrintf(static_cast<std::uint16_t>(id), bit, category, options.file.c_str(), options.line, "%s",
                         text.c_str());
  }
  if (result != 0) throw ToolError("the entry was not written: " + describeResult(result));
  noteFiltered(id, bit, category);
}

}  // namespace

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
      "  the filter in force afterwards is printed.");
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
  enableCommand->callback([enableReason] { enableTraceSystem(kToolSourceName, 0, joinWords(*enableReason).c_str()); });

  auto disableReason = std::make_shared<std::vector<std::string>>();
  CLI::App* disableCommand = app.add_subcommand(
      "disable", "Switch tracing off for every process of the node; the reason is recorded in System");
  disableCommand->add_option("REASON", *disableReason, "Why (words are joined by blanks)")->required()
      ->type_name("");
  disableCommand->callback(
      [disableReason] { disableTraceSystem(kToolSourceName, 0, joinWords(*disableReason).c_str()); });

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
  writeCommand->callback([writeOptions] { write(*writeOptions); });
}

}  // namespace nodetrace_tool
