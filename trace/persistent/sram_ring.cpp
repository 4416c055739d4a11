// The append to a ring of the SRAM file; see trace/persistent/sram_ring.h.

#include "trace/persistent/sram_ring.h"

#include <unistd.h>

#include <cstring>

#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "common/test_points.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/damage_policy.h"

namespace nt {
namespace {

bool writeAt(int fd, off_t offset, const void* data, std::size_t size) noexcept {
  sys::lseek(fd, offset, SEEK_SET);
  return sys::write(fd, data, size) == static_cast<ssize_t>(size);
}

}  // namespace

bool planSramAppend(std::uint16_t setId, const TraceSetStruct& current, SramAppend* append) noexcept {
  const off_t slotOffset = sramSlotOffset(setId, current.dataOffset,
                                          getTraceEntrySize(current.traceEntryContentsLength), current.writeIndex);
  if (slotOffset < 0) return false;
  append->descriptor = current;
  append->descriptorOffset = setId == SYSTEM_TRACE_SET_ID ? TRACE_SRAM_SYSTEM_DESCRIPTOR_OFFSET
                                                          : TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET;
  append->slotOffset = slotOffset;
  append->slotIndex = current.writeIndex;
  TraceSetStruct& next = append->descriptor;
  if (next.curentNumberEntries < next.maxNumberEntries) ++next.curentNumberEntries;
  ++next.totalNumberEntries;
  // A damaged capacity of 0 keeps the index where it is rather than divide by it.
  if (next.maxNumberEntries != 0) {
    next.writeIndex = static_cast<std::uint16_t>((next.writeIndex + 1) % next.maxNumberEntries);
  }
  return true;
}

SramWrite commitSramAppend(int fd, const SramAppend& append, const TraceEntryHeader& entry,
                           const void* contents, std::size_t contentsSize) noexcept {
  if (!writeAt(fd, append.slotOffset, &entry, sizeof entry)) return SramWrite::kSlotHeader;
  NODETRACE_TEST_POINT(kSramSlotHeaderWritten);
  if (contentsSize != 0 &&
      !writeAt(fd, append.slotOffset + TRACE_ENTRY_HEADER_SIZE, contents, contentsSize)) {
    return SramWrite::kSlotContents;
  }
  NODETRACE_TEST_POINT(kSramSlotWritten);
  if (!writeAt(fd, append.descriptorOffset, &append.descriptor, sizeof append.descriptor)) {
    return SramWrite::kDescriptor;
  }
  NODETRACE_TEST_POINT(kSramDescriptorWritten);
  return SramWrite::kNone;
}

}  // namespace nt
