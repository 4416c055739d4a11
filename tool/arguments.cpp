#include "arguments.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <utility>

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

// The number of typing mistakes (a letter left out, added, changed, or two
// neighbours swapped) between a and b, letters compared without case.
std::size_t typingDistance(std::string_view a, std::string_view b) {
  const std::size_t n = a.size();
  const std::size_t m = b.size();
  std::vector<std::vector<std::size_t>> d(n + 1, std::vector<std::size_t>(m + 1, 0));
  for (std::size_t i = 0; i <= n; ++i) d[i][0] = i;
  for (std::size_t j = 0; j <= m; ++j) d[0][j] = j;
  const auto same = [](char x, char y) {
    return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y));
  };
  for (std::size_t i = 1; i <= n; ++i) {
    for (std::size_t j = 1; j <= m; ++j) {
      const std::size_t cost = same(a[i - 1], b[j - 1]) ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
      if (i > 1 && j > 1 && same(a[i - 1], b[j - 2]) && same(a[i - 2], b[j - 1])) {
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
      }
    }
  }
  return d[n][m];
}

}  // namespace

std::uint8_t severityBit(std::string_view name) {
  for (const SeverityName& severity : kSeverities) {
    if (equalsIgnoringCase(name, severity.name)) return severity.bit;
  }
  throw UsageError("unknown severity '" + std::string(name) + "' (use ERR, WAR, INF, DBG or NOT)");
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
    throw UsageError("'" + std::string(text) +
                     "' is not a category mask (up to 8 hexadecimal digits, such as 0x0000000F)");
  }
  return mask;
}

std::int16_t findTraceSetId(std::string_view nameOrNumber) {
  // Set names never start with a digit, so a number names a set by its id.
  if (allDigits(nameOrNumber)) {
    unsigned long id = 0;
    for (char c : nameOrNumber) {
      id = id * 10 + static_cast<unsigned long>(c - '0');
      if (id > 0x7FFF) return -1;
    }
    return isValidTraceSetId(static_cast<std::uint16_t>(id)) == 1 ? static_cast<std::int16_t>(id) : -1;
  }
  const std::string name(nameOrNumber);
  const int id = getTraceSetId(name.c_str());
  return id < 0 ? -1 : static_cast<std::int16_t>(id);
}

std::int16_t traceSetId(std::string_view nameOrNumber) {
  const std::int16_t id = findTraceSetId(nameOrNumber);
  if (id >= 0) return id;
  if (allDigits(nameOrNumber)) throw ToolError("no trace set has the id " + std::string(nameOrNumber));
  throw ToolError(unknownTraceSetMessage(nameOrNumber));
}

std::vector<std::string> similarTraceSetNames(std::string_view name) {
  std::vector<std::string> names;
  const int count = getCurrentNumberTraceSets();
  for (int id = 0; id < count; ++id) {
    const char* known = getTraceSetName(static_cast<std::uint16_t>(id));
    if (known != nullptr) names.emplace_back(known, strnlen(known, TRACE_SET_NAME_LENGTH));
  }
  names.emplace_back("System");
  if (needsRemoteTraceSupport() == 1) names.emplace_back("NVJ_System");

  // Short names tolerate one mistake, longer ones two; a difference of case
  // alone counts as none.
  const std::size_t allowed = name.size() < 5 ? 1 : 2;
  std::vector<std::pair<std::size_t, std::string>> near;
  for (const std::string& known : names) {
    const std::size_t distance = typingDistance(name, known);
    if (distance <= allowed) near.emplace_back(distance, known);
  }
  std::stable_sort(near.begin(), near.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string> result;
  for (const auto& [distance, known] : near) {
    if (result.size() == 3) break;
    result.push_back(known);
  }
  return result;
}

std::string unknownTraceSetMessage(std::string_view name) {
  std::string message = "unknown trace set '" + std::string(name) + "'";
  const std::vector<std::string> near = similarTraceSetNames(name);
  for (std::size_t i = 0; i < near.size(); ++i) {
    message += i == 0 ? "; did you mean " : (i + 1 == near.size() ? " or " : ", ");
    message += near[i];
  }
  if (!near.empty()) message += "?";
  return message;
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

}  // namespace nodetrace_tool
