// The entry reader: one entry of one trace set, by set id and physical slot.
//
// User sets are read straight out of the shared memory (the caller gets the
// slot's own header); the two sets of the SRAM file are read from the file
// into the caller's header buffer. Neither path takes the trace lock, so a
// writer may be filling the slot while it is copied; readers accept that.
//
//   slot i of a set:  dataOffset + i * getTraceEntrySize(maxLength)
//   +0   TraceEntryHeader (80 bytes)
//   +80  contents, contentsLength bytes count (at most maxLength)

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "common/node_names.h"
#include "common/scoped_handles.h"
#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/ring_slots.h"
#include "trace/store/startup.h"

namespace nt {
namespace {

// Every reader's contents buffer holds at least this many bytes; they are
// all cleared, and never more are copied.
constexpr std::size_t kContentsBufferSize = TRACE_MAX_DUMP_LENGTH;

void reportCut(unsigned stored, unsigned maximum) noexcept {
  std::fprintf(stderr,
               "%s: *** Contents length of entry is %u > max entry length of %u, cutting to prevent "
               "memory fault! ***\n",
               "getTraceEntry", stored, maximum);
}

// A user set's slot in the shared memory, or null. The descriptor is read
// field by field into locals; a slot the mapping cannot serve (a damaged
// descriptor, damage_policy.h) is refused.
TraceEntryHeader* readUserEntry(std::int16_t traceSetId, std::uint16_t index, std::uint8_t* contents) noexcept {
  const TraceMemoryHeader* h = header();
  if (h == nullptr) return nullptr;
  if (traceSetId < 0 || traceSetId >= loadShared(&h->currentNumberTraceSets)) return nullptr;
  TraceSetStruct* descriptor = getTraceSetStruct(static_cast<std::uint16_t>(traceSetId));
  if (descriptor == nullptr) return nullptr;
  if (index >= loadShared(&descriptor->curentNumberEntries)) return nullptr;

  const Ring ring = ringOf(descriptor);
  const std::uint16_t maxLength = ring.maxLength;
  // A damaged count beyond the capacity does not lead the reader out of the
  // set's ring.
  std::uint8_t* slot = index < ring.capacity ? userSlot(ring, index) : nullptr;
  if (slot == nullptr) return nullptr;
  auto* entry = reinterpret_cast<TraceEntryHeader*>(slot);
  std::uint16_t length = loadShared(&entry->contentsLength);
  if (length > maxLength) {
    reportCut(length, maxLength);
    // Repaired in place: every later reader sees the cut length.
    storeShared(&entry->contentsLength, maxLength);
    length = maxLength;
  }
  std::memset(contents, 0, kContentsBufferSize);
  std::memcpy(contents, slot + align32(TRACE_ENTRY_HEADER_SIZE),
              std::min<std::size_t>(length, kContentsBufferSize));
  return entry;
}

// An entry of a SRAM set, read into the caller's header buffer, or null.
TraceEntryHeader* readSramEntry(std::uint16_t traceSetId, std::uint16_t index, TraceEntryHeader* entry,
                                std::uint8_t* contents) noexcept {
  // The caller's header buffer is where the entry goes; without one there
  // is nowhere to read it to.
  if (entry == nullptr) return nullptr;
  ScopedFd fd(sys::open(nodeNames().sram, O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return nullptr;

  const off_t descriptorOffset = traceSetId == SYSTEM_TRACE_SET_ID ? TRACE_SRAM_SYSTEM_DESCRIPTOR_OFFSET
                                                                   : TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET;
  TraceSetStruct descriptor{};
  sys::lseek(fd.get(), descriptorOffset, SEEK_SET);
  if (sys::read(fd.get(), &descriptor, sizeof descriptor) < static_cast<ssize_t>(sizeof descriptor)) {
    return nullptr;
  }
  if (index >= descriptor.curentNumberEntries) return nullptr;

  // A slot outside the set's region of the file is no entry.
  const off_t slotOffset = sramSlotOffset(traceSetId, descriptor.dataOffset,
                                          getTraceEntrySize(descriptor.traceEntryContentsLength), index);
  if (slotOffset < 0) return nullptr;
  sys::lseek(fd.get(), slotOffset, SEEK_SET);
  if (sys::read(fd.get(), entry, sizeof *entry) < static_cast<ssize_t>(sizeof *entry)) return nullptr;

  std::memset(contents, 0, kContentsBufferSize);
  if (entry->contentsLength > descriptor.traceEntryContentsLength) {
    reportCut(entry->contentsLength, descriptor.traceEntryContentsLength);
    entry->contentsLength = descriptor.traceEntryContentsLength;
    // The write goes through the read-only descriptor and fails: only the
    // caller's copy is repaired, a reader never changes the SRAM file.
    sys::lseek(fd.get(), slotOffset, SEEK_SET);
    static_cast<void>(sys::write(fd.get(), entry, sizeof *entry));
  }

  // A damaged descriptor of more than 1600 bytes per entry cannot overrun
  // the caller's buffer: no more than it holds is read.
  const std::size_t length = std::min<std::size_t>(entry->contentsLength, kContentsBufferSize);
  sys::lseek(fd.get(), slotOffset + static_cast<off_t>(align32(TRACE_ENTRY_HEADER_SIZE)), SEEK_SET);
  if (sys::read(fd.get(), contents, length) != static_cast<ssize_t>(length)) return nullptr;
  return entry;
}

}  // namespace
}  // namespace nt

extern "C" {

NODETRACE_API void getTraceEntry(int16_t traceSetId, uint16_t index, TraceEntryHeader** entry, void* contents) {
  nt::initTraceSystem();
  if (entry == nullptr) return;
  auto* buffer = static_cast<std::uint8_t*>(contents);
  if (buffer == nullptr) {
    *entry = nullptr;
    return;
  }
  const auto id = static_cast<uint16_t>(traceSetId);
  const bool sramSet =
      id == SYSTEM_TRACE_SET_ID || (id == REMOTE_SYSTEM_TRACE_SET_ID && needsRemoteTraceSupport() == 1);
  *entry = sramSet ? nt::readSramEntry(id, index, *entry, buffer) : nt::readUserEntry(traceSetId, index, buffer);
}

NODETRACE_API void getRecentEntry(int16_t* traceSetId, uint16_t* index, uint32_t* total) {
  nt::initTraceSystem();
  if (traceSetId == nullptr || index == nullptr || total == nullptr) return;
  const TraceMemoryHeader* h = nt::header();
  // Without trace memory the answer is that of a node without entries.
  if (h == nullptr) {
    *traceSetId = -1;
    *index = 0;
    *total = 0;
    return;
  }
  // Set and slot share one aligned word: read together, they belong to the
  // same entry. They are handed out as stored, whatever they name: the
  // readers that follow the link (getTraceEntry, the search) refuse what
  // does not exist.
  std::uint16_t link[2];
  const std::uint32_t word = nt::loadShared(reinterpret_cast<const std::uint32_t*>(&h->lastTraceSetId));
  std::memcpy(link, &word, sizeof link);
  *total = nt::loadShared(&h->totalNumberTraceEntries);
  *traceSetId = static_cast<int16_t>(link[0]);
  *index = link[1];
}

}  // extern "C"
