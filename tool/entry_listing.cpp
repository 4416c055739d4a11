#include "entry_listing.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "arguments.h"

namespace nodetrace_tool {

namespace {

bool isSramSet(std::int16_t id) { return id == SYSTEM_TRACE_SET_ID || id == REMOTE_SYSTEM_TRACE_SET_ID; }

// The formatter keeps an 8-bit cursor: a layout must be shorter than this.
constexpr std::size_t kFormatLimit = 256;

}  // namespace

bool copyDescriptor(std::int16_t id, TraceSetStruct& descriptor) {
  const TraceSetStruct* shared = getTraceSetStruct(static_cast<std::uint16_t>(id));
  if (shared == nullptr) return false;
  std::memcpy(&descriptor, shared, sizeof descriptor);
  return true;
}

std::uint16_t validEntries(const TraceSetStruct& descriptor) {
  return std::min(descriptor.curentNumberEntries, descriptor.maxNumberEntries);
}

std::uint16_t slotOfNewest(const TraceSetStruct& descriptor, std::uint32_t k) {
  const std::uint32_t capacity = descriptor.maxNumberEntries;
  if (capacity == 0) return 0;
  const std::uint32_t next = descriptor.writeIndex % capacity;
  return static_cast<std::uint16_t>((next + capacity - k % capacity) % capacity);
}

bool readEntry(std::int16_t id, std::uint16_t slot, ListedEntry& entry) {
  // The reader fills a header buffer of the caller for the SRAM sets and
  // hands out the slot itself for the user sets; the contents buffer must
  // hold the longest contents of any set.
  std::array<char, TRACE_MAX_DUMP_LENGTH> contents{};
  TraceEntryHeader fileHeader{};
  TraceEntryHeader* header = isSramSet(id) ? &fileHeader : nullptr;
  getTraceEntry(id, slot, &header, contents.data());
  if (header == nullptr) return false;
  entry.setId = id;
  entry.slot = slot;
  std::memcpy(&entry.header, header, sizeof entry.header);
  const std::size_t length = std::min<std::size_t>(entry.header.contentsLength, contents.size());
  entry.contents.assign(contents.data(), length);
  return true;
}

std::vector<ListedEntry> readNewestEntries(std::int16_t id, const TraceSetStruct& descriptor,
                                           std::uint32_t count, const EntryFilter& filter) {
  std::vector<ListedEntry> entries;
  const std::uint32_t available = std::min<std::uint32_t>(count, validEntries(descriptor));
  for (std::uint32_t k = available; k >= 1; --k) {
    ListedEntry entry;
    if (readEntry(id, slotOfNewest(descriptor, k), entry) && filter.matches(entry.header)) {
      entries.push_back(std::move(entry));
    }
  }
  return entries;
}

void sortByWriting(std::vector<ListedEntry>& entries) {
  std::stable_sort(entries.begin(), entries.end(), [](const ListedEntry& a, const ListedEntry& b) {
    return a.header.sequenceNumber < b.header.sequenceNumber;
  });
}

void checkFormat(const std::string& format) {
  // An empty layout would print an empty line for every entry.
  if (format.empty()) throw UsageError("the format is empty; give directives such as \"%S %c\"");
  if (format.size() >= kFormatLimit) {
    throw UsageError("the format is " + std::to_string(format.size()) + " characters long; at most " +
                    std::to_string(kFormatLimit - 1) + " are allowed");
  }
}

void printEntry(const ListedEntry& entry, const TraceSetStruct& descriptor, const std::string& format) {
  // The formatter may change the layout it is given (a trailing newline), so
  // every line gets a fresh copy; the contents it reads are zero beyond the
  // stored bytes, as the reader leaves them.
  std::array<char, kFormatLimit> layout{};
  std::memcpy(layout.data(), format.data(), std::min(format.size(), layout.size() - 1));
  std::array<char, TRACE_MAX_DUMP_LENGTH + 1> contents{};
  std::memcpy(contents.data(), entry.contents.data(), std::min(entry.contents.size(), contents.size() - 1));
  printTraceEntry(entry.setId, &descriptor, &entry.header, contents.data(), layout.data());
}

}  // namespace nodetrace_tool
