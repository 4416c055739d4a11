// Images of the records of a dump file, in network byte order.

#include "trace/dumps/dump_records.h"

#include <arpa/inet.h>
#include <endian.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/syscalls.h"

namespace nt::dump {

static_assert(sizeof(TraceMemoryHeader) == kHeaderSize);
static_assert(sizeof(TraceSetStruct) == kDescriptorSize);
static_assert(sizeof(TraceEntryHeader) == kEntryHeaderSize);

HeaderImage headerImage(const TraceMemoryHeader& header) noexcept {
  TraceMemoryHeader copy = header;
  copy.totalNumberTraceEntries = htonl(header.totalNumberTraceEntries);
  copy.nextFreeOffset = htonl(header.nextFreeOffset);
  copy.lastTraceSetId = htons(header.lastTraceSetId);
  copy.lastEntryIndex = htons(header.lastEntryIndex);
  copy.lockHolderTid = static_cast<std::int32_t>(htonl(static_cast<std::uint32_t>(header.lockHolderTid)));
  // traceEnabled, a flag, keeps the node's byte order.
  HeaderImage image;
  std::memcpy(image.data(), &copy, image.size());
  return image;
}

DescriptorImage descriptorImage(const TraceSetStruct& descriptor) noexcept {
  TraceSetStruct copy = descriptor;
  copy.type = htonl(descriptor.type);
  copy.categoryMask = htonl(descriptor.categoryMask);
  copy.maxNumberEntries = htons(descriptor.maxNumberEntries);
  copy.traceEntryContentsLength = htons(descriptor.traceEntryContentsLength);
  copy.creatorPid = htonl(descriptor.creatorPid);
  copy.dataOffset = htonl(descriptor.dataOffset);
  copy.writeIndex = htons(descriptor.writeIndex);
  copy.curentNumberEntries = htons(descriptor.curentNumberEntries);
  copy.totalNumberEntries = htonl(descriptor.totalNumberEntries);
  DescriptorImage image;
  std::memcpy(image.data(), &copy, image.size());
  return image;
}

std::uint32_t imageRawDataOffset(const DescriptorImage& image) noexcept {
  std::uint32_t raw;
  std::memcpy(&raw, image.data() + offsetof(TraceSetStruct, dataOffset), sizeof raw);
  return raw;
}

std::uint32_t imageDataOffset(const DescriptorImage& image) noexcept { return ntohl(imageRawDataOffset(image)); }

void setImageDataOffset(DescriptorImage& image, std::uint32_t offset) noexcept {
  const std::uint32_t stored = htonl(offset);
  std::memcpy(image.data() + offsetof(TraceSetStruct, dataOffset), &stored, sizeof stored);
}

void setImageCounts(DescriptorImage& image, std::uint16_t entries) noexcept {
  const std::uint16_t stored = htons(entries);
  std::memcpy(image.data() + offsetof(TraceSetStruct, maxNumberEntries), &stored, sizeof stored);
  std::memcpy(image.data() + offsetof(TraceSetStruct, curentNumberEntries), &stored, sizeof stored);
}

EntryImage entryImage(const TraceEntryHeader& entry, TimeStamps stamps) noexcept {
  TraceEntryHeader copy = entry;
  copy.line = static_cast<std::int32_t>(htonl(static_cast<std::uint32_t>(entry.line)));
  copy.pid = htonl(entry.pid);
  copy.category = htonl(entry.category);
  copy.sequenceNumber = htonl(entry.sequenceNumber);
  copy.tid = htonl(entry.tid);
  copy.contentsLength = htons(entry.contentsLength);
  copy.prevTraceSetId = htons(entry.prevTraceSetId);
  copy.prevEntryIndex = htons(entry.prevEntryIndex);
  if (stamps == TimeStamps::kConverted) {
    // The monotonic stamp as one 64-bit value, the real time stamp as two
    // 32-bit halves: on a little-endian node the first comes out as
    // nanoseconds then seconds, each half in the node's byte order.
    std::uint64_t monotonic;
    std::memcpy(&monotonic, &entry.monotonicTime, sizeof monotonic);
    monotonic = htobe64(monotonic);
    std::memcpy(&copy.monotonicTime, &monotonic, sizeof monotonic);
    copy.realTime.seconds = htonl(entry.realTime.seconds);
    copy.realTime.nanoseconds = htonl(entry.realTime.nanoseconds);
  }
  EntryImage image;
  std::memcpy(image.data(), &copy, image.size());
  return image;
}

bool writeAll(int fd, const void* buffer, std::size_t size) noexcept {
  errno = 0;
  return sys::write(fd, buffer, size) == static_cast<ssize_t>(size);
}

bool readAll(int fd, void* buffer, std::size_t size) noexcept {
  errno = 0;
  return sys::read(fd, buffer, size) == static_cast<ssize_t>(size);
}

bool writeContents(int fd, const std::uint8_t* contents, std::uint32_t size) noexcept {
  if (size <= kContentsBufferSize) return writeAll(fd, contents, size);
  if (!writeAll(fd, contents, kContentsBufferSize)) return false;
  static constexpr std::uint8_t kZeros[kContentsBufferSize] = {};
  for (std::uint32_t left = size - kContentsBufferSize; left > 0;) {
    const std::uint32_t chunk = std::min<std::uint32_t>(left, kContentsBufferSize);
    if (!writeAll(fd, kZeros, chunk)) return false;
    left -= chunk;
  }
  return true;
}

}  // namespace nt::dump
