// The node-wide sequence number and the link to the newest entry: the one
// way every writer (user-set writer, remote writers, error trace writer)
// numbers its entry and makes it the newest of the node.
//
// Writers of user sets take no lock and the file writers take the trace
// lock only among themselves, so both fields are advanced with atomic
// read-modify-write operations: each is there because two writers, of any
// kind and in any process, may advance the field at the same moment.
//
//   header offset  4  totalNumberTraceEntries   <- one fetch_add per entry
//   header offset 20  lastTraceSetId  \  one aligned word,
//   header offset 22  lastEntryIndex  /  one exchange per published entry
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "common/shared_fields.h"
#include "nodetrace/trace_layout.h"

namespace nt {

// The address of an entry: its set and its slot.
struct EntryLink {
  std::uint16_t traceSetId;
  std::uint16_t entryIndex;
};

namespace detail {

static_assert(offsetof(TraceMemoryHeader, lastTraceSetId) % 4 == 0);
static_assert(offsetof(TraceMemoryHeader, lastEntryIndex) == offsetof(TraceMemoryHeader, lastTraceSetId) + 2);

inline std::uint32_t* linkWord(const TraceMemoryHeader* h) noexcept {
  return reinterpret_cast<std::uint32_t*>(const_cast<std::uint16_t*>(&h->lastTraceSetId));
}

inline std::uint32_t wordOf(EntryLink link) noexcept {
  const std::uint16_t halves[2] = {link.traceSetId, link.entryIndex};
  std::uint32_t word;
  std::memcpy(&word, halves, sizeof word);
  return word;
}

inline EntryLink linkOf(std::uint32_t word) noexcept {
  std::uint16_t halves[2];
  std::memcpy(halves, &word, sizeof halves);
  return {halves[0], halves[1]};
}

}  // namespace detail

// The sequence number of a new entry: totalNumberTraceEntries just before
// this entry is counted. One fetch_add, so that no two entries of the node
// ever share a number, whichever writers race for it.
inline std::uint32_t takeSequenceNumber(TraceMemoryHeader* h) noexcept {
  return sharedRef(&h->totalNumberTraceEntries).fetch_add(1u, std::memory_order_relaxed);
}

// The newest entry of the node as it stands, set and slot read together.
inline EntryLink newestLink(const TraceMemoryHeader* h) noexcept {
  return detail::linkOf(loadShared(detail::linkWord(h)));
}

// Makes `newest` the newest entry of the node and returns the entry that was
// newest before it. One exchange of the word that holds set and slot: two
// writers publishing at once each get the other's (or the older) entry as
// their predecessor, never the same one, so the chain stays one chain.
inline EntryLink linkNewest(TraceMemoryHeader* h, EntryLink newest) noexcept {
  return detail::linkOf(sharedRef(detail::linkWord(h)).exchange(detail::wordOf(newest), std::memory_order_relaxed));
}

}  // namespace nt
