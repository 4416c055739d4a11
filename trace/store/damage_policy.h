// Damaged shared memory and SRAM files: what every operation does with them.
//
// The trace store is writable by every process of the node's group and lives
// as long as the node; the SRAM file survives resets, and flash can return
// garbage. Neither carries a checksum, so every offset, index and length the
// library takes from them is hostile input. The rule for all of it:
//
//   read the shared field ONCE into a local, check the local against what
//   it will reach into (the mapping, the set's region of the SRAM file, or
//   the buffer it is copied into), then use only the local.
//
// A concurrent writer can then change the field between check and use
// without effect on this call. For valid data every check passes, so every
// result, byte and message stays as it is; only what would reach outside
// the mapping, the file region or a caller's buffer is refused.
//
// What counts as reachable:
//
//   shared memory   a user set's slot  [dataOffset + i * slotSize, + slotSize)
//                   must lie wholly inside the entry area of this process's
//                   mapping, [9848, mapping size), and start on a 4-byte
//                   boundary (every record field is read whole, at its
//                   natural alignment). The header and the descriptor table
//                   are never taken for a slot.
//   SRAM file       a slot of "System" (255) must lie inside the first
//                   region after its descriptor, [52, 153600); a slot of
//                   "NVJ_System" (254) inside the second, [153648, 307200).
//   contents        at most min(contentsLength, traceEntryContentsLength,
//                   the buffer) bytes are copied; readers' buffers hold 1600,
//                   text of a text set is held to 128.
//
// Walks are bounded: a backward walk of the entry search reads at most
// maxNumberEntries + 1 slot headers (a writeIndex beyond the ring counts as 0
// for it, so that it still comes full circle), a forward step at most
// maxNumberEntries, a dump of a set at most its (capacity-bounded) count of
// entries, and a search takes no more entries of a set than it holds and
// walks each set at most twice round in all (the 16-bit walk position of
// the backward walk wraps for rings of more than 32768 slots and would
// otherwise send every walk round the whole ring again). Counts are
// held to the table: currentNumberTraceSets above 200 counts as 200 wherever
// ids are walked or validated. maxNumberEntries 0 never divides: a set
// created with maxEntries 0 keeps its writeIndex and writes at its
// dataOffset as documented; readers find nothing to walk in it.
//
// The refusal chosen per operation, each one a result the operation already
// has for a missing or unreadable set:
//
//   addTraceEntry, tracePrintf   slot not reachable, or a writeIndex beyond
//                                the ring (until clearTraceSet starts the
//                                ring again): the entry is dropped
//                                before any counter moves (or, when another
//                                writer moved writeIndex meanwhile, after),
//                                nothing is forwarded, result -10
//                                (TRACE_RC_NO_DESCRIPTOR).
//   addRemoteEntry               as the entry writer: the record is dropped
//                                before any counter moves, no syslog line,
//                                result 0 (the writer reports nothing on its
//                                failures).
//   addErrorTrace                slot outside the first SRAM region (damaged
//                                dataOffset or writeIndex): nothing written,
//                                -6. A wrong traceEntryContentsLength keeps
//                                its re-creation of the file.
//   addRemoteSystemEntry         slot outside the second region: nothing
//                                written, -6; the syslog line is written.
//   getTraceEntry                slot not reachable, an index beyond the
//                                capacity, or a header unreadable:
//                                null entry. A contentsLength beyond the
//                                maximum is cut (and announced) as always.
//   getRecentEntry               a (lastTraceSetId, lastEntryIndex) that names
//                                no set, or a slot beyond that user set's
//                                ring, is handed out as stored; the readers
//                                that follow it refuse it.
//   printTraceEntry              lengths held to the buffers as above; a null
//                                entry prints nothing (like a null
//                                descriptor), null contents print as empty.
//   printTraceSetInfo            a null descriptor prints nothing.
//   printTraceSetsInfo           a count above 200: the 200 lines, then -10.
//                                Numbers are printed as stored.
//   findPrevMatchingEntry,       a slot not reachable has no header: the walk
//   findNextMatch                of that set ends (0xFFFFFFFF, index kept);
//                                capacity 0 has nothing to walk.
//   findMatchingTraceEntries     a set whose walk ends so is exhausted; no
//                                set gives more entries than it holds
//                                (curentNumberEntries, at most the capacity).
//   dumpTracesToFile             a slot not reachable is left out like a
//                                missing entry (the counts of debugMode 0
//                                follow); the descriptor is still written.
//                                An entry count is held to the capacity and
//                                to the slots the mapping (for a SRAM set: its
//                                region of the file) holds for the set;
//                                once no next entry is found the index stays
//                                (the same slot is fetched again) without
//                                further walks; so it does once the steps
//                                through a user set have passed more slots
//                                than the ring holds (every entry of an intact
//                                user set matches the step, so only damage
//                                gets there). A maximum length beyond the
//                                buffer is padded with zeros.
//   dumpTracesBeforeReset        a stream whose slot is not reachable, or
//                                whose next entry is not found, ends.
//   both dumps                   a count above 200: the header of the file
//                                counts the descriptors it holds (200 user
//                                sets, and the SRAM sets appended).
//   both dumps                   links (prevTraceSetId, lastTraceSetId) are
//                                copied as stored: nothing in the library
//                                follows them, so a link naming nothing
//                                reaches nothing.
//   clearTraceSet                ids beyond a damaged count: -5; the counters
//                                of a damaged descriptor are reset all the
//                                same (nothing is read from it).
//   initTraceSet                 nextFreeOffset outside the entry area: -4.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "nodetrace/trace_layout.h"

namespace nt {

// End of the SRAM file's second region.
inline constexpr std::uint64_t kSramFileEnd = 2ull * TRACE_SRAM_REGION_SIZE;

// Offset of a user set's slot inside a mapping of mappingSize bytes whose
// entry area starts at entryArea, or -1 when the slot is not reachable.
inline std::int64_t userSlotOffset(std::uint32_t dataOffset, std::uint32_t slotSize, std::uint32_t index,
                                   std::uint32_t entryArea, std::uint32_t mappingSize) noexcept {
  if (dataOffset % 4u != 0 || dataOffset < entryArea) return -1;
  const std::uint64_t offset = dataOffset + static_cast<std::uint64_t>(slotSize) * index;
  if (offset + slotSize > mappingSize) return -1;
  return static_cast<std::int64_t>(offset);
}

// File offset of slot index of a set of the SRAM file (255 or 254), or -1
// when the slot does not lie inside that set's region.
inline off_t sramSlotOffset(std::uint16_t setId, std::uint32_t dataOffset, std::uint32_t slotSize,
                            std::uint32_t index) noexcept {
  const std::uint64_t first = setId == SYSTEM_TRACE_SET_ID ? TRACE_SRAM_SYSTEM_DATA_OFFSET
                                                           : TRACE_SRAM_REMOTE_DATA_OFFSET;
  const std::uint64_t end = setId == SYSTEM_TRACE_SET_ID ? TRACE_SRAM_REGION_SIZE : kSramFileEnd;
  const std::uint64_t offset = dataOffset + static_cast<std::uint64_t>(slotSize) * index;
  if (offset < first || offset + slotSize > end) return -1;
  return static_cast<off_t>(offset);
}

// How many slots of a SRAM set's descriptor fit into the set's region.
inline std::uint32_t sramSlotsInRegion(std::uint16_t setId, const TraceSetStruct& descriptor) noexcept {
  const std::uint32_t slotSize = TRACE_ENTRY_HEADER_SIZE + ((descriptor.traceEntryContentsLength + 3u) & ~3u);
  std::uint32_t slots = 0;
  while (slots < descriptor.maxNumberEntries &&
         sramSlotOffset(setId, descriptor.dataOffset, slotSize, slots) >= 0) {
    ++slots;
  }
  return slots;
}

// The same for a slot whose set is known only to be one of the SRAM file
// (the searches get a descriptor and a flag): the slot must lie inside one of
// the two regions.
inline off_t sramSlotOffsetInEitherRegion(std::uint32_t dataOffset, std::uint32_t slotSize,
                                          std::uint32_t index) noexcept {
  const off_t offset = sramSlotOffset(SYSTEM_TRACE_SET_ID, dataOffset, slotSize, index);
  return offset >= 0 ? offset : sramSlotOffset(REMOTE_SYSTEM_TRACE_SET_ID, dataOffset, slotSize, index);
}

}  // namespace nt
