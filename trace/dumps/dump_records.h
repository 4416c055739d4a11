// The binary dump file: the records of the trace memory layout, compacted
// and with their multi-byte fields in network byte order.
//
//        0  +--------------------------------+
//           | dump file header (28)          |  the trace memory header
//       28  +--------------------------------+
//           | descriptor of position 0 (48)  |  maxNumberEntries and
//           | descriptor of position 1       |  curentNumberEntries: entries
//           | ...                            |  in the file; writeIndex 0;
//           |                                |  dataOffset: file offset
// 28+48*n   +--------------------------------+
//           | entries of position 0, oldest  |  80-byte header, then
//           | first; then of position 1 ...  |  align32(max length) bytes
//           +--------------------------------+
//
// Both dump writers use these images. They differ only in the time stamps
// of the entry headers: the trace dump file keeps them as stored (already
// big-endian), the dump before reset passes them through the host-to-network
// conversion once more.
#pragma once

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "nodetrace/nodetrace.h"
#include "nodetrace/trace_layout.h"

// A failed step of a dump writer, recorded in the error trace set: the
// writer's own kSourceFileName and kFunction, the given line, then errno and
// its text in the format's last two places.
#define NODETRACE_DUMP_FAILURE(line, format, ...)                                                   \
  do {                                                                                              \
    const int error_ = errno;                                                                       \
    tracePrintf(SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_ERR, TRACE_CATEGORY_LIBRARY, kSourceFileName,   \
                line, format, kFunction, __VA_ARGS__ __VA_OPT__(, ) error_, std::strerror(error_)); \
  } while (0)

namespace nt::dump {

inline constexpr std::uint32_t kHeaderSize = TRACE_MEMORY_HEADER_SIZE;          // 28
inline constexpr std::uint32_t kDescriptorSize = TRACE_DESCRIPTOR_SIZE;         // 48
inline constexpr std::uint32_t kEntryHeaderSize = TRACE_ENTRY_HEADER_SIZE;      // 80
inline constexpr std::size_t kContentsBufferSize = TRACE_MAX_DUMP_LENGTH;       // 1600

using HeaderImage = std::array<std::uint8_t, kHeaderSize>;
using DescriptorImage = std::array<std::uint8_t, kDescriptorSize>;
using EntryImage = std::array<std::uint8_t, kEntryHeaderSize>;

// File offset of the descriptor of a position.
constexpr std::uint32_t descriptorOffset(std::uint32_t position) noexcept {
  return kHeaderSize + kDescriptorSize * position;
}

// The trace memory header: every multi-byte field but traceEnabled in
// network byte order.
HeaderImage headerImage(const TraceMemoryHeader& header) noexcept;

// A descriptor: every field after the name in network byte order.
DescriptorImage descriptorImage(const TraceSetStruct& descriptor) noexcept;

// Reads and replaces fields of a descriptor image as the file holds them.
std::uint32_t imageDataOffset(const DescriptorImage& image) noexcept;
// The field as it lies in the file, read as a host word (still in network
// byte order).
std::uint32_t imageRawDataOffset(const DescriptorImage& image) noexcept;
void setImageDataOffset(DescriptorImage& image, std::uint32_t offset) noexcept;
void setImageCounts(DescriptorImage& image, std::uint16_t entries) noexcept;

enum class TimeStamps {
  kAsStored,  // copied as they are (they are big-endian in memory)
  kConverted  // passed through the host-to-network conversion once more
};

// An entry header: line, pid, category, sequenceNumber, tid,
// contentsLength, prevTraceSetId and prevEntryIndex in network byte order;
// the time stamps as asked; every other byte as it is.
EntryImage entryImage(const TraceEntryHeader& entry, TimeStamps stamps) noexcept;

// Writes all of buffer; false on an error or a short write. errno is 0
// after a short write that set none.
bool writeAll(int fd, const void* buffer, std::size_t size) noexcept;
// Reads exactly size bytes; false on an error or a short read (errno as
// writeAll leaves it).
bool readAll(int fd, void* buffer, std::size_t size) noexcept;

// Writes the contents of one entry: size bytes from a contents buffer of
// kContentsBufferSize bytes. A valid set needs at most the buffer; a damaged
// maximum length beyond it is padded with zeros, so the entry still occupies
// its slot size in the file.
bool writeContents(int fd, const std::uint8_t* contents, std::uint32_t size) noexcept;

}  // namespace nt::dump
