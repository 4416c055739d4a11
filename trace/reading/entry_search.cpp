// The entry search: matching entries of one or several trace sets, newest
// first, by slot index.
//
// A ring is walked by slot, never by time: backwards from a slot towards
// older entries (findPrevMatchingEntry), or forwards towards newer ones
// (findNextMatch). findMatchingTraceEntries merges the backward walks of
// several sets by the node-wide sequence number and takes entries until a
// budget of entries or bytes is spent:
//
//        full ring, writeIndex 2           ring of 4 with 2 entries
//   slot   0    1    2    3               slot   0    1    2    3
//         [e5] [e6] [e3] [e4]                    [e1] [e2] [ ]  [ ]
//               ^newest ^oldest                        ^newest
//   backward walk: 1, 0, 3, 2, stop        backward walk: 1, 0, stop
//
// Nothing here takes the trace lock: the walks run beside the writers and
// see each slot as it is when its header is read. Slot headers are read
// from the shared memory for user sets and from the SRAM file for the sets
// 255 and 254.

#include "trace/reading/entry_search.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "common/message_source.h"
#include "common/node_names.h"
#include "common/scoped_handles.h"
#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/registry.h"
#include "trace/store/ring_slots.h"
#include "trace/store/startup.h"

namespace nt {
namespace {

constexpr std::uint32_t kAllCategories = 0xFFFFFFFFu;
constexpr std::int32_t kTooLargeIndexLine = 2888;
constexpr std::int32_t kStrangeResultLine = 2983;
constexpr std::int32_t kNoEntryLine = 3079;
// Search state for every set a request can name (the count is 8 bits).
constexpr std::size_t kMaxRequestSets = 256;

// The two fields a match is decided on.
struct Match {
  std::uint8_t severity = 0;
  std::uint32_t category = 0;
};

bool matches(const Match& entry, std::uint8_t severityMask, std::uint32_t categoryMask) noexcept {
  return (severityMask & entry.severity) != 0 && (categoryMask & entry.category) != 0;
}

// Reads slot headers of one ring: straight from the shared memory for a
// user set, through one descriptor of the SRAM file, opened for the life of
// this object, for a set of the SRAM file. A slot that cannot be read (not
// reachable in the mapping or the file, damage_policy.h; a short read) has no
// header.
class SlotHeaders {
 public:
  SlotHeaders(const Ring& ring, bool fromFile) noexcept : ring_(ring), fromFile_(fromFile) {
    if (fromFile_) fd_ = ScopedFd(sys::open(nodeNames().sram, O_RDONLY | O_CLOEXEC));
  }

  // False when the SRAM file was needed and could not be opened.
  bool usable() const noexcept { return !fromFile_ || fd_.valid(); }

  bool read(std::uint16_t slot, Match& out) const noexcept {
    if (!fromFile_) {
      const std::uint8_t* address = userSlot(ring_, slot);
      if (address == nullptr) return false;
      const auto* entry = reinterpret_cast<const TraceEntryHeader*>(address);
      out.severity = loadShared(&entry->severity);
      out.category = loadShared(&entry->category);
      return true;
    }
    // A slot outside the regions of the file has no header.
    const off_t offset = sramSlotOffsetInEitherRegion(ring_.dataOffset, ring_.slotSize, slot);
    if (offset < 0) return false;
    TraceEntryHeader entry;
    if (sys::lseek(fd_.get(), offset, SEEK_SET) == -1) return false;
    if (sys::read(fd_.get(), &entry, sizeof entry) < static_cast<ssize_t>(sizeof entry)) return false;
    out.severity = entry.severity;
    out.category = entry.category;
    return true;
  }

 private:
  Ring ring_;
  bool fromFile_;
  ScopedFd fd_;
};

// The ring's writeIndex for the backward walks. A damaged one beyond the ring
// counts as 0: the walk then still has a stop slot inside the ring and comes
// full circle after one round, instead of finding the same entries again.
std::uint16_t walkWriteIndex(const Ring& ring) noexcept {
  return ring.writeIndex < ring.capacity ? ring.writeIndex : 0;
}

// The newest slot of a ring that holds entries.
std::uint16_t newestSlot(const Ring& ring) noexcept {
  return static_cast<std::uint16_t>((ring.capacity + walkWriteIndex(ring) - 1) % ring.capacity);
}

std::uint16_t currentNumberTraceSets() noexcept {
  const TraceMemoryHeader* h = header();
  return h != nullptr ? loadShared(&h->currentNumberTraceSets) : 0;
}

}  // namespace

std::uint32_t findPrevMatchingEntry(const TraceSetStruct* descriptor, std::uint16_t index,
                                    std::uint8_t severityMask, std::uint32_t categoryMask,
                                    bool* firstStep, bool fromFile) noexcept {
  return findPrevMatchingEntryWithin(descriptor, index, severityMask, categoryMask, firstStep, fromFile, nullptr);
}

std::uint32_t findPrevMatchingEntryWithin(const TraceSetStruct* descriptor, std::uint16_t index,
                                          std::uint8_t severityMask, std::uint32_t categoryMask,
                                          bool* firstStep, bool fromFile,
                                          std::uint32_t* stepBudget) noexcept {
  std::uint32_t result = kNoSlot;
  if (descriptor == nullptr) return result;
  bool ownFirstStep = true;
  if (firstStep == nullptr) firstStep = &ownFirstStep;
  bool done = false;

  // The geometry is read once: a descriptor changed by another process
  // during the walk cannot make it divide by zero or leave the ring.
  const Ring ring = ringOf(descriptor);
  if (index >= ring.current && index != ring.capacity - 1) {
    char name[TRACE_SET_NAME_LENGTH + 1] = {};
    std::memcpy(name, descriptor->name, TRACE_SET_NAME_LENGTH);
    tracePrintf(SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_ERR, TRACE_CATEGORY_LIBRARY, kSourceFileName,
                kTooLargeIndexLine, "(%s): called with too large index (%d >= %d) for trace set %s",
                "findPrevMatchingEntry", index, ring.current, name);
    done = true;
  }

  const SlotHeaders headers(ring, fromFile);
  if (!headers.usable()) done = true;
  // A ring without slots has nothing to walk.
  if (ring.capacity == 0) done = true;

  // The walk position counts down in 16 bits; its slot is taken modulo the
  // capacity.
  auto position = static_cast<std::uint16_t>(index + ring.capacity);
  const bool full = ring.current >= ring.capacity;
  const std::uint32_t stop =
      full ? static_cast<std::uint32_t>((walkWriteIndex(ring) == 0 ? ring.capacity : walkWriteIndex(ring)) - 1)
           : static_cast<std::uint32_t>(ring.capacity - 1);

  // A valid ring is walked in at most capacity + 1 reads (the stop slot may
  // be examined twice); a damaged writeIndex beyond the ring, whose stop
  // slot is never met, ends there too.
  std::uint32_t reads = 0;
  std::uint32_t maxReads = static_cast<std::uint32_t>(ring.capacity) + 1u;
  // The first read of a walk is free; every further one is a step of the
  // caller's budget.
  if (stepBudget != nullptr && *stepBudget + 1u < maxReads) maxReads = *stepBudget + 1u;
  while (!done) {
    const auto slot = static_cast<std::uint16_t>(position % ring.capacity);
    Match entry;
    if (++reads > maxReads || !headers.read(slot, entry)) {
      done = true;
    } else if (!*firstStep && slot == stop) {
      done = true;  // full circle
    } else if (slot == ring.capacity - 1 && !full) {
      *firstStep = false;  // past slot 0 of a ring that never wrapped
      done = true;
    } else if (!matches(entry, severityMask, categoryMask)) {
      --position;
      *firstStep = false;
      if (position == stop) done = true;
    } else {
      result = slot;
      done = true;
    }
  }

  if (stepBudget != nullptr) *stepBudget -= std::min(*stepBudget, reads > 1 ? reads - 1 : 0u);
  if (result != kNoSlot) {
    const std::uint16_t current = loadShared(&descriptor->curentNumberEntries);
    if (result >= current) {
      tracePrintf(SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_ERR, TRACE_CATEGORY_LIBRARY, kSourceFileName,
                  kStrangeResultLine, "%s: strange return value %d (curentNumberEntries = %d)\n",
                  "findPrevMatchingEntry", static_cast<int>(result), current);
    }
  }
  return result;
}

}  // namespace nt

extern "C" {

NODETRACE_API void findMatchingTraceEntries(uint8_t numberTraceSets, const int16_t* traceSetIds,
                                            uint16_t* startIndexes, uint16_t* numberEntries,
                                            uint32_t* total, uint8_t severityMask,
                                            const uint32_t* categoryMasks, uint32_t limit,
                                            int32_t countEntries) {
  nt::initTraceSystem();
  if (traceSetIds == nullptr || startIndexes == nullptr || numberEntries == nullptr || total == nullptr) {
    return;
  }

  struct SetState {
    std::uint16_t searchIndex;
    bool firstStep;
    bool exhausted;
    // A set gives at most the entries it holds: a walk that would take them
    // again (a damaged ring, or the 16-bit walk position of a ring of more
    // than 32768 slots wrapping) ends there.
    std::uint16_t left;
    // Steps of its backward walks beyond the first slot of each: a valid
    // ring is walked once over the whole search (capacity + 1 steps, the
    // stop slot perhaps twice); a walk that would go round again ends the set.
    std::uint32_t steps;
  };
  SetState state[nt::kMaxRequestSets];

  bool searching = false;
  for (unsigned i = 0; i < numberTraceSets; ++i) {
    numberEntries[i] = 0;
    state[i] = {0, true, true, 0, 0};
    const TraceSetStruct* descriptor = getTraceSetStruct(static_cast<uint16_t>(traceSetIds[i]));
    if (descriptor == nullptr) continue;
    const nt::Ring ring = nt::ringOf(descriptor);
    if (ring.current == 0 || ring.capacity == 0) continue;
    state[i] = {nt::newestSlot(ring), true, false, std::min(ring.current, ring.capacity),
                2u * (static_cast<std::uint32_t>(ring.capacity) + 1u)};
    searching = true;
  }
  if (!searching) return;

  TraceEntryHeader entryBuffer;
  std::uint8_t contents[TRACE_MAX_DUMP_LENGTH];
  for (;;) {
    // One pass: every set that can still give offers its newest matching
    // entry not taken yet; the highest sequence number wins, the later set
    // of the request on a tie.
    int best = -1;
    std::uint32_t bestSequence = 0;
    std::uint16_t bestIndex = 0;
    for (unsigned i = 0; i < numberTraceSets; ++i) {
      SetState& set = state[i];
      if (set.exhausted) continue;
      const auto id = static_cast<uint16_t>(traceSetIds[i]);
      const std::uint32_t categoryMask = categoryMasks != nullptr ? categoryMasks[i] : nt::kAllCategories;
      const TraceSetStruct* descriptor = getTraceSetStruct(id);
      if (descriptor == nullptr) continue;
      const bool fromFile = nt::isSramSet(id);
      // The descriptor of a SRAM set is the process's snapshot, which the
      // next lookup of such a set overwrites: the walk gets its own copy.
      TraceSetStruct snapshot;
      if (fromFile) {
        snapshot = nt::loadRecord(descriptor);
        descriptor = &snapshot;
      }

      const std::uint32_t found = nt::findPrevMatchingEntryWithin(
          descriptor, set.searchIndex, severityMask, categoryMask, &set.firstStep, fromFile, &set.steps);
      if (found == nt::kNoSlot) {
        set.exhausted = true;
        continue;
      }
      TraceEntryHeader* entry = &entryBuffer;
      getTraceEntry(static_cast<int16_t>(id), static_cast<uint16_t>(found), &entry, contents);
      if (entry == nullptr) {
        tracePrintf(SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_ERR, TRACE_CATEGORY_LIBRARY, nt::kSourceFileName,
                    nt::kNoEntryLine, "(%s): getTraceEntry for TS %d (of %d), index %d (of %d) returns 0L!",
                    "findMatchingTraceEntries", id, nt::currentNumberTraceSets(), static_cast<int>(found),
                    nt::loadShared(&descriptor->curentNumberEntries));
        set.exhausted = true;
        continue;
      }
      // The next pass starts at this entry again and finds it at once.
      set.searchIndex = static_cast<std::uint16_t>(found);
      const std::uint32_t sequence = nt::loadShared(&entry->sequenceNumber);
      if (bestSequence <= sequence) {
        bestSequence = sequence;
        best = static_cast<int>(i);
        bestIndex = static_cast<std::uint16_t>(found);
      }
    }
    if (best < 0) return;

    const TraceSetStruct* descriptor = getTraceSetStruct(static_cast<uint16_t>(traceSetIds[best]));
    if (descriptor == nullptr) return;
    const nt::Ring ring = nt::ringOf(descriptor);
    const bool fits = countEntries == 1
                          ? *total < limit
                          : static_cast<std::uint64_t>(*total) + ring.slotSize < limit;
    if (!fits) {
      *total = limit;
      return;
    }
    SetState& taken = state[best];
    if (--taken.left == 0) taken.exhausted = true;
    ++numberEntries[best];
    startIndexes[best] = bestIndex;
    taken.searchIndex =
        ring.capacity != 0 ? static_cast<std::uint16_t>((bestIndex + ring.capacity - 1) % ring.capacity) : 0;
    taken.firstStep = false;
    *total += countEntries == 1 ? 1u : ring.slotSize;
  }
}

NODETRACE_API void findNextMatch(const TraceSetStruct* descriptor, int32_t fromFile, uint16_t* index,
                                 uint8_t severityMask, uint32_t categoryMask) {
  nt::initTraceSystem();
  if (descriptor == nullptr || index == nullptr) return;
  const nt::Ring ring = nt::ringOf(descriptor);
  if (ring.capacity == 0) return;

  auto slot = static_cast<std::uint16_t>((*index + 1u) % ring.capacity);
  const nt::SlotHeaders headers(ring, fromFile == 1);
  if (!headers.usable()) return;

  nt::Match entry;
  bool found = headers.read(slot, entry);
  // The walk stops at writeIndex. A damaged writeIndex outside the ring is
  // never met; the walk then ends after one round.
  unsigned steps = 0;
  while (found && slot != ring.writeIndex && !nt::matches(entry, severityMask, categoryMask) &&
         ++steps < ring.capacity) {
    slot = static_cast<std::uint16_t>((slot + 1u) % ring.capacity);
    found = headers.read(slot, entry);
  }
  // The slot at writeIndex itself is tested too: in a full ring it holds
  // the oldest entry.
  if (found && nt::matches(entry, severityMask, categoryMask)) *index = slot;
}

}  // extern "C"
