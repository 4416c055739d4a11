// The entry search inside the library: the backward walk through one ring
// that findMatchingTraceEntries merges across sets.
#pragma once

#include <cstdint>

#include "nodetrace/trace_layout.h"

namespace nt {

// No slot: the result of a walk that found nothing.
inline constexpr std::uint32_t kNoSlot = 0xFFFFFFFFu;

// In one trace set, from slot index towards older entries, the first slot
// whose entry matches (severityMask & severity and categoryMask & category
// both non-zero), or kNoSlot. *firstStep is true until the walk has passed
// a non-matching entry; while it is true the walk may examine the stop slot (the
// newest slot of a full ring). fromFile is true for the two sets of the SRAM
// file, whose headers are read from the file. Complaints about the index and
// the result go to the error trace set.
std::uint32_t findPrevMatchingEntry(const TraceSetStruct* descriptor, std::uint16_t index,
                                    std::uint8_t severityMask, std::uint32_t categoryMask,
                                    bool* firstStep, bool fromFile) noexcept;

// The same walk within a budget of steps: every slot read after the first
// one takes one step of *stepBudget; a walk that runs out of steps ends
// without a match. The search across sets gives each set one budget for
// all of its walks, so that a damaged ring cannot be walked round and round.
std::uint32_t findPrevMatchingEntryWithin(const TraceSetStruct* descriptor, std::uint16_t index,
                                          std::uint8_t severityMask, std::uint32_t categoryMask,
                                          bool* firstStep, bool fromFile,
                                          std::uint32_t* stepBudget) noexcept;

}  // namespace nt
