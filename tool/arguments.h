// What the commands of the tool share: their error type, the reading of
// severity names, category masks and trace set names from the command line,
// and plain words for the library's result codes.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace nodetrace_tool {

// Exit statuses, one rule for every command: 0 success, 1 the operation
// failed, 2 wrong use of the command line (an unknown option, a missing or
// malformed argument, a value no node could accept), as shells and other
// tools use them.
inline constexpr int kFailureExitCode = 1;
inline constexpr int kUsageExitCode = 2;

// A command that cannot do its work throws this; main prints
// "nodetrace: <message>" on standard error and ends with exitCode.
class ToolError : public std::runtime_error {
 public:
  explicit ToolError(const std::string& message, int exitCode = kFailureExitCode)
      : std::runtime_error(message), exitCode_(exitCode) {}
  int exitCode() const noexcept { return exitCode_; }

 private:
  int exitCode_;
};


// Wrong use of the command line, found by a command rather than by the
// parser: status 2.
class UsageError : public ToolError {
 public:
  explicit UsageError(const std::string& message) : ToolError(message, kUsageExitCode) {}
};

// The severity bit of a name: ERR, WAR, INF, DBG or NOT, in any case.
std::uint8_t severityBit(std::string_view name);

// The severity bits of names, each of which may itself be a comma-separated
// list ("ERR,WAR"). An empty list gives every severity.
std::uint8_t severityBits(const std::vector<std::string>& names);

// "ERR WAR INF NOT" for 0xE8; "none" for 0.
std::string severityNames(std::uint8_t bits);

// A category mask written in hexadecimal, with or without "0x" ("0x0000000F",
// "f"), as the trace mask file has them.
std::uint32_t parseCategoryMask(std::string_view text);

// The id of a trace set given by name ("Radio", "System", "NVJ_System") or by
// its number ("3", "255"). An unknown name is refused with the nearest
// names of the node as suggestions.
std::int16_t traceSetId(std::string_view nameOrNumber);

// The id of a trace set by name or number, or -1 when the node has none.
std::int16_t findTraceSetId(std::string_view nameOrNumber);

// The names of the node's sets that look like name: the same name in
// another case, or one or two typing mistakes away; nearest first, at most
// three. Empty when none is near.
std::vector<std::string> similarTraceSetNames(std::string_view name);

// "unknown trace set 'radio'; did you mean Radio?"
std::string unknownTraceSetMessage(std::string_view name);

// The sets an entry listing shows when none are named: every user set in
// creation order, then "System" and "NVJ_System".
std::vector<std::int16_t> defaultTraceSetIds();

// Plain words for a negative result of the library, with the code:
// "no trace set has that id (-5)".
std::string describeResult(int result);

}  // namespace nodetrace_tool
