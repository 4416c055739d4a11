// The layout invariants of a trace store as other processes rely on them:
// the header, every descriptor and every ring of the shared memory and of
// the SRAM file. Used by the kill tests and the random-kill soak to tell
// whether a process killed at some instant left anything inconsistent.
#pragma once

#include <string>
#include <vector>

#include "tests/support/node_test.h"

namespace nt::test {

// What is wrong with the shared-memory object (its bytes) and the SRAM file
// at sramPath; empty when every invariant holds. The newest counted slot of
// a user set is the one a writer killed mid-entry may have left half
// written (its entry in flight), so its contents are not judged.
std::vector<std::string> sharedMemoryProblems(const Bytes& object);
std::vector<std::string> sramProblems(const std::string& sramPath);

// The one problem a kill can leave in a full SRAM ring: its oldest slot,
// which the entry in flight was replacing, torn between that entry's header
// and its contents.
inline constexpr char kReplacedSlotTorn[] = "(the oldest, being replaced)";

// Both, joined into one text for a failure message ("" when consistent).
std::string layoutProblems(const Bytes& object, const std::string& sramPath);

}  // namespace nt::test
