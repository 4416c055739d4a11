// The write-path cases measured by the benchmarks and counted by callgrind:
// one call of each, and the floors they are compared with. Each function does
// one call; the sets are created on first use in a private node.
#pragma once

#include <cstdint>

namespace nt::bench {

// Floors: the least the work of an entry takes without the library.
void floorText(int i);        // vsnprintf into 128 bytes, two clock reads, one 208-byte slot copy
void floorDump();             // two clock reads, one 1680-byte slot copy
void floorErrorFileCalls();   // the stat/open/read/write/close calls of one error entry, O_SYNC

// The cost of calling a case: the same wrapper around a function that does
// nothing, subtracted from every count by callgrind_costs.sh.
void harness(int i);

// The library.
void storedTextRow0(int i);       // tracePrintf("value %d of %s") into a set named by row 0
void storedTextRow29(int i);      // the same into a set named by row 29
void storedTextUnknownName(int i);  // the same into a set whose name no row holds
void storedDump1600();            // addTraceEntry of 1600 bytes into a dump set
void filteredTracePrintf(int i);  // tracePrintf refused by the severity filter
void filteredAddTraceEntry();     // addTraceEntry refused by the severity filter
void errorEntry(int i);           // tracePrintf of a warning: the error trace set in the SRAM file

// Entries written into text sets of this process's own creation, for the
// scaling runs of several writer processes: kOwnSets sets whose descriptors
// follow one another in the table; `writer` picks one of them.
constexpr int kOwnSets = 3;
void storeIntoOwnSet(std::uint16_t set, int i);
std::uint16_t createOwnSet(int writer);

}  // namespace nt::bench
