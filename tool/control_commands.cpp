// The commands that change the trace system or add to it: severity, mask,
// enable, disable, clear and write.

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "node_check.h"
#include "nodetrace/nodetrace.h"

namespace nodetrace_tool {

namespace {

std::string joinWords(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    if (!text.empty()) text += ' ';
    text += word;
  }
  return text;
}

constexpr const char* kErrorClassNote =
    "entries of ERR, WAR and NOT always go to System; the filter holds back only INF and DBG entries";

bool isSramSet(std::int16_t id) { return id == SYSTEM_TRACE_SET_ID || id == REMOTE_SYSTEM_TRACE_SET_ID; }

void printSeverityFilter() {
  const std::uint8_t filter = getSeverityFilter();
  std::printf("%s (0x%02X)\n", severityNames(filter).c_str(), filter);
}

// Defaults for a set made from the shell: a text set keeps the longest text
// entries there are; a dump set keeps fewer entries, as each takes up to
// 1680 bytes of the entry area.
constexpr std::int64_t kDefaultTextEntries = 256;
constexpr std::int64_t kDefaultDumpEntries = 64;
constexpr std::int64_t kMaxEntries = 0xFFFF;

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
      throw UsageError("'" + text + "' is not a row of hexadecimal bytes (such as \"41 42 0a\")");
    }
    if (high < 0) {
      high = value;
    } else {
      bytes += static_cast<char>(high << 4 | value);
      high = -1;
    }
  }
  if (high >= 0) throw UsageError("'" + text + "' ends in half a byte");
  return bytes;
}

// Explains on standard error why an entry that the library accepted was not
// stored: the library drops filtered entries silently, as any trace call.
// Entries of the error class go to System without the filters.
void noteFiltered(std::int16_t id, std::uint8_t severityBit, std::uint32_t category) {
  const char* reason = nullptr;
  if (isTraceEnabled() == 0) {
    reason = "the trace system is disabled";
  } else if ((severityBit & TRACE_SEVERITY_ERROR_CLASS) == 0 && id != SYSTEM_TRACE_SET_ID) {
    if ((getSeverityFilter() & severityBit) == 0) {
      reason = "the severity filter lets no entry of this severity through";
    } else if ((static_cast<std::uint32_t>(getCategoryMask(id)) & category) == 0) {
      reason = "the category shares no bit with the set's category mask";
    }
  }
  if (reason != nullptr) std::fprintf(stderr, "nodetrace: note: the entry was not stored: %s\n", reason);
}

std::string typeWords(bool dump) { return dump ? "dump" : "text"; }

std::string shapeWords(const TraceSetStruct& descriptor) {
  return typeWords(descriptor.type != TS_STRING) + ", " + std::to_string(descriptor.maxNumberEntries) +
         " entries of up to " + std::to_string(descriptor.traceEntryContentsLength) + " bytes";
}

// What the command line asks for, checked before the node is touched: the
// library records a refused name in System, the tool says why at once.
struct CheckedShape {
  std::uint32_t type;
  std::uint16_t entries;
  std::uint16_t length;
  std::uint32_t mask;
};

CheckedShape checkShape(const std::string& name, const SetShape& shape) {
  if (name.empty()) throw UsageError("the trace set name is empty");
  if (name.size() >= TRACE_SET_NAME_LENGTH) {
    throw UsageError("the trace set name '" + name + "' is longer than " +
                     std::to_string(TRACE_SET_NAME_LENGTH - 1) + " characters");
  }
  if (name[0] >= '0' && name[0] <= '9') {
    throw UsageError("the trace set name '" + name + "' starts with a digit (numbers name sets by id)");
  }
  if (name == "System" || name == "NVJ_System") {
    throw UsageError("System and NVJ_System are the sets of the SRAM file; choose another name");
  }
  const std::int64_t maxLength = shape.dump ? TRACE_MAX_DUMP_LENGTH : TRACE_MAX_STRING_LENGTH;
  const std::int64_t entries = shape.entries != -1 ? shape.entries
                                                   : (shape.dump ? kDefaultDumpEntries : kDefaultTextEntries);
  const std::int64_t length = shape.length != -1 ? shape.length : maxLength;
  if (entries < 1 || entries > kMaxEntries) {
    throw UsageError("--entries must lie between 1 and " + std::to_string(kMaxEntries));
  }
  if (length < 1 || length > maxLength) {
    throw UsageError("--length must lie between 1 and " + std::to_string(maxLength) + " for a set of " +
                     typeWords(shape.dump) + " entries");
  }
  return {shape.dump ? TS_DUMP : TS_STRING, static_cast<std::uint16_t>(entries), static_cast<std::uint16_t>(length),
          parseCategoryMask(shape.mask)};
}

// Creates the set, or attaches to it when it exists with the same type and
// at least the room asked for. Returns its id; *created tells which.
std::int16_t createSet(const std::string& name, const CheckedShape& shape, bool* created) {
  const bool existed = getTraceSetId(name.c_str()) >= 0;
  std::int16_t id = -1;
  const int result = initTraceSet(name.c_str(), shape.type, shape.entries, shape.length, shape.mask, &id);
  if (result == 0 && id >= 0) {
    if (created != nullptr) *created = !existed;
    return id;
  }
  const TraceSetStruct* existing = existed ? getTraceSetStruct(static_cast<std::uint16_t>(getTraceSetId(name.c_str())))
                                           : nullptr;
  if ((result == TRACE_RC_TYPE_MISMATCH || result == TRACE_RC_SET_TOO_SMALL) && existing != nullptr) {
    throw ToolError("the trace set " + name + " exists with another shape (" + shapeWords(*existing) +
                    "); a set cannot change until the node restarts");
  }
  throw ToolError("the trace set " + name + " was not created: " + describeResult(result));
}

// The options of write, with whether they take a value.
struct WriteOptionName {
  const char* name;
  bool takesValue;
};
constexpr WriteOptionName kWriteOptionNames[] = {
    {"-c", true},        {"--category", true}, {"--file", true}, {"--line", true},   {"--entries", true},
    {"--length", true},  {"--hex", false},     {"--create", false}, {"-h", false}, {"--help", false},
};

// 1: an option without value, 2: an option whose value follows, 0: no
// option of write. "--line=3" and "-cFF" carry their value.
int writeOptionKind(const std::string& word) {
  for (const WriteOptionName& option : kWriteOptionNames) {
    if (word == option.name) return option.takesValue ? 2 : 1;
    const std::string name = option.name;
    if (option.takesValue && name.size() > 2 && word.rfind(name + "=", 0) == 0) return 1;
  }
  if (word.size() > 2 && word.rfind("-c", 0) == 0 && word[2] != '-') return 1;
  return 0;
}

}  // namespace

// The changes are checked as a whole before the first one is made.
void severity(const std::vector<std::string>& changes) {
  std::vector<std::pair<std::uint8_t, int>> steps;
  for (const std::string& change : changes) {
    if (change.empty() || (change[0] != '+' && change[0] != '-')) {
      throw UsageError("'" + change + "': write +NAME to let a severity through or -NAME to filter it out");
    }
    steps.emplace_back(severityBit(std::string_view(change).substr(1)), change[0] == '+' ? 1 : 0);
  }
  requireTraceSystem();
  bool errorClassFilteredOut = false;
  for (const auto& [bit, set] : steps) {
    errorClassFilteredOut = errorClassFilteredOut || (set == 0 && (bit & TRACE_SEVERITY_ERROR_CLASS) != 0);
    const int result = modifySeverityMask(bit, set);
    if (result != 0) throw ToolError("the severity filter was not changed: " + describeResult(result));
  }
  printSeverityFilter();
  // The writer hands every entry of the error class to System before the
  // filter is looked at; filtering them out changes nothing but the number.
  if (errorClassFilteredOut) {
    std::fflush(stdout);
    std::fprintf(stderr, "nodetrace: note: %s\n", kErrorClassNote);
  }
}

void mask(const std::string& setName, const std::string& maskText) {
  const std::uint32_t value = maskText.empty() ? 0 : parseCategoryMask(maskText);
  requireTraceSystem();
  const std::int16_t id = traceSetId(setName);
  if (!maskText.empty()) {
    if (isSramSet(id)) {
      throw UsageError("the category mask of " + setName + " cannot be changed: the sets of the SRAM file keep every category");
    }
    const int result = setCategoryMask(id, value);
    if (result != 0) throw ToolError("the category mask of " + setName + " was not changed: " + describeResult(result));
  }
  std::printf("0x%08X\n", static_cast<std::uint32_t>(getCategoryMask(id)));
}

void clear(const std::string& setName) {
  requireTraceSystem();
  const std::int16_t id = traceSetId(setName);
  if (isSramSet(id)) {
    throw UsageError("the trace set " + setName + " cannot be cleared: the sets of the SRAM file are kept across resets");
  }
  const int32_t result = clearTraceSet(id);
  if (result != 0) throw ToolError("the trace set " + setName + " was not cleared: " + describeResult(result));
}

void enableTracing(const std::vector<std::string>& reason) {
  requireTraceSystem();
  enableTraceSystem(kToolSourceName, 0, joinWords(reason).c_str());
}

void disableTracing(const std::vector<std::string>& reason) {
  requireTraceSystem();
  disableTraceSystem(kToolSourceName, 0, joinWords(reason).c_str());
}

void create(const std::string& name, const SetShape& shape) {
  const CheckedShape checked = checkShape(name, shape);
  requireTraceSystem();
  bool created = false;
  const std::int16_t id = createSet(name, checked, &created);
  TraceSetStruct descriptor{};
  const TraceSetStruct* shared = getTraceSetStruct(static_cast<std::uint16_t>(id));
  if (shared != nullptr) descriptor = *shared;
  std::printf("%s %s: id %d, %s\n", name.c_str(), created ? "created" : "exists", id, shapeWords(descriptor).c_str());
}

void writeEntry(const WriteOptions& options) {
  // Everything the command line says is checked before the node is.
  const std::uint8_t bit = severityBit(options.severity);
  const std::uint32_t category = parseCategoryMask(options.category);
  const std::string text = joinWords(options.words);
  const std::string bytes = options.hex ? bytesOfHex(text) : text;
  if (bytes.empty()) throw UsageError("nothing to write");
  if (options.set == "NVJ_System" || options.set == "254") {
    throw UsageError("NVJ_System keeps the entries of the remote unit; the tool does not write there");
  }
  const bool toSystem = options.set == "System" || options.set == "255";
  if (toSystem && (bit & TRACE_SEVERITY_ERROR_CLASS) == 0) {
    throw UsageError("System keeps only entries of severity ERR, WAR and NOT");
  }
  SetShape shape = options.shape;
  shape.dump = options.hex;
  const std::optional<CheckedShape> wanted =
      options.create && !toSystem ? std::optional<CheckedShape>(checkShape(options.set, shape)) : std::nullopt;

  requireTraceSystem();
  std::int16_t id = findTraceSetId(options.set);
  if (id < 0 && wanted) id = createSet(options.set, *wanted, nullptr);
  if (id < 0) {
    std::string message = unknownTraceSetMessage(options.set);
    if (similarTraceSetNames(options.set).empty()) message += " (write with --create to create it)";
    throw ToolError(message);
  }
  // The same two refusals for the sets of the SRAM file named by another
  // spelling of their ids ("0255").
  if (id == REMOTE_SYSTEM_TRACE_SET_ID) {
    throw UsageError("NVJ_System keeps the entries of the remote unit; the tool does not write there");
  }
  if (id == SYSTEM_TRACE_SET_ID && (bit & TRACE_SEVERITY_ERROR_CLASS) == 0) {
    throw UsageError("System keeps only entries of severity ERR, WAR and NOT");
  }
  const TraceSetStruct* descriptor = getTraceSetStruct(static_cast<std::uint16_t>(id));
  const bool dumpSet = descriptor != nullptr && descriptor->type != TS_STRING && !isSramSet(id);
  if (options.hex && !dumpSet) throw ToolError("--hex needs a trace set of dump entries; " + options.set + " keeps text");
  if (dumpSet && (bit & TRACE_SEVERITY_ERROR_CLASS) != 0) {
    throw ToolError("entries of ERR, WAR and NOT go to System, which keeps text; " + options.set + " keeps dump entries");
  }
  int result = 0;
  if (dumpSet) {
    result = addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, bit, category, options.file.c_str(), options.line,
                           static_cast<int>(bytes.size()), bytes.data());
  } else {
    result = tracePrintf(static_cast<std::uint16_t>(id), bit, category, options.file.c_str(), options.line, "%s",
                         text.c_str());
  }
  if (result != 0) throw ToolError("the entry was not written: " + describeResult(result));
  noteFiltered(id, bit, category);
}

void separateWriteText(std::vector<std::string>& arguments) {
  if (arguments.empty() || arguments[0] != "write") return;
  int positionals = 0;
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    const std::string& word = arguments[i];
    if (word == "--") return;
    const bool dashed = word.size() > 1 && word[0] == '-';
    const int kind = dashed ? writeOptionKind(word) : 0;
    if (positionals >= 2 && word[0] == '-' && kind == 0) {
      arguments.insert(arguments.begin() + static_cast<std::ptrdiff_t>(i), "--");
      return;
    }
    if (dashed) {
      // An option; one before SET and SEVERITY that write does not know is
      // wrong use, which the parser reports.
      if (kind == 2) ++i;
      continue;
    }
    ++positionals;
  }
}

}  // namespace nodetrace_tool
