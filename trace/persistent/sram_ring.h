// The append of one entry to a ring of the SRAM file, shared by the error
// trace writer ("System", first region) and the remote system writer
// ("NVJ_System", second region). Both run it under the trace lock.
//
// The descriptor write is the commit point. The slot goes first, its
// header and then its contents, and the descriptor that counts it last:
//
//     1. slot header   (80 bytes at slot offset)        -+ not yet counted:
//     2. slot contents (at slot offset + 80)             -+ a kill or a failed
//     3. descriptor    (48 bytes, writeIndex advanced)   <- write loses only
//                                                           this entry
//
// A process killed at any instant, or a write that fails, therefore leaves
// the ring as it was or with the new entry complete; never a counted slot
// that holds zeros or a header without its contents. A failed slot write
// leaves the ring unadvanced. (Only in a full ring does the slot being
// written hold a counted entry, the oldest, which the new one replaces: a
// kill between the slot's two writes leaves that one slot with the new
// header over the old contents. See docs/lock-and-crash-safety.md.)
//
// The bytes written are the same as when the descriptor went first; only
// their order changed.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "nodetrace/trace_layout.h"

namespace nt {

// One planned append: the slot the entry goes to and the descriptor that
// counts it.
struct SramAppend {
  TraceSetStruct descriptor{};  // advanced over the slot; written last
  off_t descriptorOffset = 0;
  off_t slotOffset = 0;
  std::uint16_t slotIndex = 0;
};

// Plans the append to the set setId (SYSTEM_TRACE_SET_ID or
// REMOTE_SYSTEM_TRACE_SET_ID) whose descriptor was read from the file:
// slot writeIndex, counts and index advanced on the copy. False, with
// nothing planned, when that slot lies outside the set's region (a damaged
// dataOffset or writeIndex): nothing may be written then.
bool planSramAppend(std::uint16_t setId, const TraceSetStruct& current, SramAppend* append) noexcept;

// The write of an append that failed; kNone when all three succeeded.
enum class SramWrite { kNone, kDescriptor, kSlotHeader, kSlotContents };

// Writes the slot's header, then contentsSize bytes of contents (none when
// 0), then the descriptor, each at its offset, through fd. Stops at the
// first write that fails, with errno as it left it, and returns which one.
SramWrite commitSramAppend(int fd, const SramAppend& append, const TraceEntryHeader& entry,
                           const void* contents, std::size_t contentsSize) noexcept;

}  // namespace nt
