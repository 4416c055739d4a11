#include "tool/arguments.h"

#include <cctype>
#include <cstdio>

#include <CLI/CLI.hpp>

#include "nodetrace/nodetrace.h"

namespace nodetrace_tool {

namespace {

struct SeverityName {
  const char* name;
  std::uint8_t bit;
};

// In the order of their bits, highest first, the order in which they are
// listed.
constexpr SeverityName kSeverities[] = {
    {"ERR", TRACE_SEVERITY_ERR}, {"WAR", TRACE_SEVERITY_WAR}, {"INF", TRACE_SEVERITY_INF},
    {"DBG", TRACE_SEVERITY_DBG}, {"NOT", TRACE_SEVERITY_NOT},
};

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

bool allDigits(std::string_view text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

}  // namespace

std::uint8_t severityBit(std::string_view name) {
  for (const SeverityName& severity : kSeverities) {
    if (equalsIgnoringCase(name, severity.name)) return severity.bit;
  }
  throw ToolError("unknown severity '" + std::string(name) + "' (use ERR, WAR, INF, DBG or NOT)");
}

std::uint8_t severityBits(const std::vector<std::string>& names) {
  if (names.empty()) return 0xFF;
  std::uint8_t bits = 0;
  for (const std::string& list : names) {
    std::string_view rest = list;
    while (true) {
      const std::size_t comma = rest.find(',');
      bits = static_cast<std::uint8_t>(bits | severityBit(rest.substr(0, comma)));
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
  }
  return bits;
}

std::string severityNames(std::uint8_t bits) {
  std::string names;
  for (const SeverityName& severity : kSeverities) {
    if ((bits & severity.bit) == 0) continue;
    if (!names.empty()) names += ' ';
    names += severity.name;
  }
  return names.empty() ? "none" : names;
}

std::uint32_t parseCategoryMask(std::string_view text) {
  std::string_view digits = text;
  if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) digits.remove_prefix(2);
  bool valid = !digits.empty() && digits.size() <= 8;
  std::uint32_t mask = 0;
  for (std::size_t i = 0; valid && i < digits.size(); ++i) {
    const char c = digits[i];
    std::uint32_t value = 0;
    if (c >= '0' && c <= '9') {
      value = static_cast<std::uint32_t>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      value = static_cast<std::uint32_t>(c - 'a' + 10);
    } else if (c >= 'A' && c <= 'F') {
      value = static_cast<std::uint32_t>(c - 'A' + 10);
    } else {
      valid = false;
    }
    mask = mask << 4 | value;
  }
  if (!valid) {
    throw ToolError("'" + std::string(text) +
                    "' is not a category mask (up to 8 hexadecimal digits, such as 0x0000000F)");
  }
  return mask;
}

std::int16_t traceSetId(std::string_view nameOrNumber) {
  // Set names never start with a digit, so a number names a set by its id.
  if (allDigits(nameOrNumber)) {
    unsigned long id = 0;
    for (char c : nameOrNumber) {
      id = id * 10 + static_cast<unsigned long>(c - '0');
      if (id > 0x7FFF) break;
    }
    if (id <= 0x7FFF && isValidTraceSetId(static_cast<std::uint16_t>(id)) == 1) {
      return static_cast<std::int16_t>(id);
    }
    throw ToolError("no trace set has the id " + std::string(nameOrNumber));
  }
  const std::string name(nameOrNumber);
  const int id = getTraceSetId(name.c_str());
  if (id < 0) throw ToolError("unknown trace set '" + name + "'");
  return static_cast<std::int16_t>(id);
}

std::vector<std::int16_t> defaultTraceSetIds() {
  std::vector<std::int16_t> ids;
  const int count = getCurrentNumberTraceSets();
  for (int id = 0; id < count; ++id) ids.push_back(static_cast<std::int16_t>(id));
  ids.push_back(SYSTEM_TRACE_SET_ID);
  if (needsRemoteTraceSupport() == 1) ids.push_back(REMOTE_SYSTEM_TRACE_SET_ID);
  return ids;
}

std::string describeResult(int result) {
  const char* words = "the library refused";
  switch (result) {
    case TRACE_RC_TABLE_FULL:
      words = "the table of trace sets is full";
      break;
    case TRACE_RC_BAD_ARGUMENT:
      words = "bad name or bad argument";
      break;
    case TRACE_RC_NO_ROOM:
      words = "no room left in the entry area";
      break;
    case TRACE_RC_UNKNOWN_SET:
      words = "unknown trace set, or one that cannot be changed";
      break;
    case TRACE_RC_FILE_ERROR:
      words = "a file could not be read or written";
      break;
    case TRACE_RC_TYPE_MISMATCH:
      words = "the trace set has the other type";
      break;
    case TRACE_RC_SET_TOO_SMALL:
      words = "the existing trace set is too small";
      break;
    case TRACE_RC_NO_DESCRIPTOR:
      words = "the descriptor of the trace set is not available";
      break;
    default:
      break;
  }
  char code[16];
  std::snprintf(code, sizeof code, " (%d)", result);
  return words + std::string(code);
}

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

void addLineFormatOption(CLI::App& command, std::string& format) {
  command.add_option("-f,--format", format, "Line layout in the directives of the library's entry formatter")
      ->type_name("FORMAT")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->capture_default_str();
}

}  // namespace nodetrace_tool
