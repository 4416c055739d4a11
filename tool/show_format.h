// The default line layout of the entry listings: time (UTC, ISO 8601),
// severity, set, source position, pid/tid and contents.
#pragma once
namespace nodetrace_tool {
inline constexpr const char* kDefaultShowFormat = "%dz %S %I %l %p/%P: %c";
}  // namespace nodetrace_tool
