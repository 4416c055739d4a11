// Reading the entries of trace sets for the listings of show and follow:
// copies of descriptors and entries taken through the library's reader, a
// filter by severity and category, and printing with the library's
// formatter.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "nodetrace/nodetrace.h"

namespace nodetrace_tool {

// One entry, copied out of its slot: the header as the reader delivers it
// (time stamps big-endian) and the contents bytes that count.
struct ListedEntry {
  std::int16_t setId = 0;
  std::uint16_t slot = 0;
  TraceEntryHeader header{};
  std::string contents;
};

struct EntryFilter {
  std::uint8_t severities = 0xFF;
  std::uint32_t categories = 0xFFFFFFFF;
  // The rule of every search of the library: a common severity bit and a
  // common category bit.
  bool matches(const TraceEntryHeader& header) const {
    return (severities & header.severity) != 0 && (categories & header.category) != 0;
  }
};

// A copy of the descriptor of set id. The library hands out the two sets of
// the SRAM file in one buffer per process, which the next request
// overwrites, and the user sets in shared memory, which writers change; a
// listing works on its own copy. False when the set has no descriptor.
bool copyDescriptor(std::int16_t id, TraceSetStruct& descriptor);

// The descriptor's ring in numbers that can be trusted: a capacity, and a
// count of valid entries that does not exceed it.
std::uint16_t validEntries(const TraceSetStruct& descriptor);

// The slot of the k-th newest entry (k = 1 is the newest) of the ring that
// descriptor describes.
std::uint16_t slotOfNewest(const TraceSetStruct& descriptor, std::uint32_t k);

// Reads the entry in slot of set id. False when the reader has none there.
bool readEntry(std::int16_t id, std::uint16_t slot, ListedEntry& entry);

// The count newest entries of the set, oldest first, that pass filter.
// count may exceed the entries there are.
std::vector<ListedEntry> readNewestEntries(std::int16_t id, const TraceSetStruct& descriptor,
                                           std::uint32_t count, const EntryFilter& filter);

// Sorts entries of several sets into the order in which they were written,
// by sequence number; entries with equal numbers keep their order.
void sortByWriting(std::vector<ListedEntry>& entries);

// The checks a line layout must pass before it goes to the formatter.
void checkFormat(const std::string& format);

// Prints entry as one line laid out by format, with the library's
// formatter (dump entries followed by their hex rows).
void printEntry(const ListedEntry& entry, const TraceSetStruct& descriptor, const std::string& format);

}  // namespace nodetrace_tool
