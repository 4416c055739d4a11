// Lookups of trace sets by name and id, for the library's own use.
#pragma once

#include <cstdint>

#include "nodetrace/trace_layout.h"

namespace nt {

// The persistent sets of the SRAM file.
inline bool isSramSet(std::uint16_t id) noexcept {
  return id == SYSTEM_TRACE_SET_ID || id == REMOTE_SYSTEM_TRACE_SET_ID;
}

// Remote support is built in: the id 254 and the second SRAM region exist
// (needsRemoteTraceSupport gives 1).
inline constexpr bool kRemoteTraceSupport = true;

// isValidTraceSetId and getTraceSetStruct for the library's own callers,
// which call these rather than the exported symbols.
bool validTraceSetId(std::uint16_t id) noexcept;
TraceSetStruct* traceSetStruct(std::uint16_t id) noexcept;

// Trace set names are compared over at most 20 characters.
bool sameTraceSetName(const char* a, const char* b) noexcept;

}  // namespace nt
