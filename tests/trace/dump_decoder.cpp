#include "tests/trace/dump_decoder.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace nt::test {
namespace {

constexpr std::size_t kHeaderSize = 28;
constexpr std::size_t kDescriptorSize = 48;
constexpr std::size_t kEntryHeaderSize = 80;

Bytes slice(const Bytes& bytes, std::size_t offset, std::size_t size) {
  return Bytes(bytes.begin() + static_cast<long>(offset), bytes.begin() + static_cast<long>(offset + size));
}

std::string zeroTerminated(const Bytes& bytes) {
  const auto end = std::find(bytes.begin(), bytes.end(), 0);
  return std::string(bytes.begin(), end);
}

std::size_t roundUp4(std::size_t n) { return (n + 3) & ~std::size_t{3}; }

DumpHeader decodeHeader(const Bytes& file) {
  DumpHeader h;
  h.version = slice(file, 0, 4);
  h.totalNumberTraceEntries = be32At(file, 4);
  h.currentNumberTraceSets = file[8];
  h.severityMask = file[9];
  h.unused = slice(file, 10, 2);
  h.traceEnabled = u32At(file, 12);
  h.nextFreeOffset = be32At(file, 16);
  h.lastTraceSetId = be16At(file, 20);
  h.lastEntryIndex = be16At(file, 22);
  h.lockHolderTid = static_cast<std::int32_t>(be32At(file, 24));
  return h;
}

DumpDescriptor decodeDescriptor(const Bytes& file, std::size_t at) {
  DumpDescriptor d;
  d.nameBytes = slice(file, at, 20);
  d.name = zeroTerminated(d.nameBytes);
  d.type = be32At(file, at + 20);
  d.categoryMask = be32At(file, at + 24);
  d.maxNumberEntries = be16At(file, at + 28);
  d.traceEntryContentsLength = be16At(file, at + 30);
  d.creatorPid = be32At(file, at + 32);
  d.dataOffset = be32At(file, at + 36);
  d.writeIndex = be16At(file, at + 40);
  d.curentNumberEntries = be16At(file, at + 42);
  d.totalNumberEntries = be32At(file, at + 44);
  return d;
}

DumpEntry decodeEntry(const Bytes& file, std::size_t at, std::size_t contentsSize, StampOrder stamps) {
  DumpEntry e;
  e.fileNameBytes = slice(file, at, 30);
  e.fileName = zeroTerminated(e.fileNameBytes);
  e.unused0 = slice(file, at + 30, 2);
  e.line = static_cast<std::int32_t>(be32At(file, at + 32));
  e.pid = be32At(file, at + 36);
  e.severity = file[at + 40];
  e.unused1 = slice(file, at + 41, 3);
  e.category = be32At(file, at + 44);
  e.sequenceNumber = be32At(file, at + 48);
  e.tid = be32At(file, at + 52);
  if (stamps == StampOrder::kBigEndian) {
    e.monotonicSeconds = be32At(file, at + 56);
    e.monotonicNanoseconds = be32At(file, at + 60);
    e.realSeconds = be32At(file, at + 72);
    e.realNanoseconds = be32At(file, at + 76);
  } else {
    e.monotonicNanoseconds = u32At(file, at + 56);
    e.monotonicSeconds = u32At(file, at + 60);
    e.realSeconds = u32At(file, at + 72);
    e.realNanoseconds = u32At(file, at + 76);
  }
  e.contentsLength = be16At(file, at + 64);
  e.prevTraceSetId = be16At(file, at + 66);
  e.prevEntryIndex = be16At(file, at + 68);
  e.unused2 = slice(file, at + 70, 2);
  e.contents = slice(file, at + kEntryHeaderSize, contentsSize);
  return e;
}

}  // namespace

std::uint16_t be16At(const Bytes& bytes, std::size_t offset) {
  return static_cast<std::uint16_t>(bytes.at(offset) << 8 | bytes.at(offset + 1));
}

std::uint32_t be32At(const Bytes& bytes, std::size_t offset) {
  return static_cast<std::uint32_t>(bytes.at(offset)) << 24 | static_cast<std::uint32_t>(bytes.at(offset + 1)) << 16 |
         static_cast<std::uint32_t>(bytes.at(offset + 2)) << 8 | static_cast<std::uint32_t>(bytes.at(offset + 3));
}

std::string DumpEntry::text() const { return zeroTerminated(contents); }

DumpFile decodeDump(const Bytes& file, StampOrder stamps, EntryCount count) {
  DumpFile dump;
  if (file.size() < kHeaderSize) {
    ADD_FAILURE() << "dump file of " << file.size() << " bytes has no header";
    return dump;
  }
  dump.header = decodeHeader(file);
  const std::size_t sets = dump.header.currentNumberTraceSets;
  const std::size_t tableEnd = kHeaderSize + kDescriptorSize * sets;
  if (file.size() < tableEnd) {
    ADD_FAILURE() << "dump file of " << file.size() << " bytes is too short for " << sets << " descriptors";
    return dump;
  }
  for (std::size_t p = 0; p < sets; ++p) dump.descriptors.push_back(decodeDescriptor(file, kHeaderSize + kDescriptorSize * p));

  std::size_t offset = tableEnd;
  for (std::size_t p = 0; p < sets; ++p) {
    const DumpDescriptor& d = dump.descriptors[p];
    const std::size_t slotSize = kEntryHeaderSize + roundUp4(d.traceEntryContentsLength);
    if (d.dataOffset != offset) {
      ADD_FAILURE() << "descriptor " << p << ": data offset " << d.dataOffset << ", entries begin at " << offset;
      return dump;
    }
    EXPECT_EQ(d.writeIndex, 0) << "descriptor " << p;
    std::size_t entries = d.curentNumberEntries;
    if (count == EntryCount::kDescriptor) {
      EXPECT_EQ(d.maxNumberEntries, d.curentNumberEntries) << "descriptor " << p;
    } else {
      const std::size_t end = p + 1 < sets ? dump.descriptors[p + 1].dataOffset : file.size();
      if (end < offset || (end - offset) % slotSize != 0) {
        ADD_FAILURE() << "descriptor " << p << ": " << end - offset << " bytes are no whole entries";
        return dump;
      }
      entries = (end - offset) / slotSize;
    }
    if (file.size() < offset + entries * slotSize) {
      ADD_FAILURE() << "descriptor " << p << ": " << entries << " entries reach past the end of the file";
      return dump;
    }
    std::vector<DumpEntry> decoded;
    for (std::size_t k = 0; k < entries; ++k) {
      decoded.push_back(decodeEntry(file, offset, roundUp4(d.traceEntryContentsLength), stamps));
      offset += slotSize;
    }
    dump.entries.push_back(std::move(decoded));
  }
  EXPECT_EQ(file.size(), offset) << "bytes after the last entry";
  return dump;
}

void expectDumpedHeaderFrom(const DumpEntry& dumped, const TraceEntryHeader& slot, std::uint16_t prevTraceSetId) {
  EXPECT_EQ(dumped.fileNameBytes, Bytes(slot.fileName, slot.fileName + sizeof slot.fileName));
  EXPECT_EQ(dumped.unused0, Bytes(slot.unused0, slot.unused0 + 2));
  EXPECT_EQ(dumped.line, slot.line);
  EXPECT_EQ(dumped.pid, slot.pid);
  EXPECT_EQ(dumped.severity, slot.severity);
  EXPECT_EQ(dumped.unused1, Bytes(slot.unused1, slot.unused1 + 3));
  EXPECT_EQ(dumped.category, slot.category);
  EXPECT_EQ(dumped.sequenceNumber, slot.sequenceNumber);
  EXPECT_EQ(dumped.tid, slot.tid);
  EXPECT_EQ(dumped.monotonicSeconds, ntohl(slot.monotonicTime.seconds));
  EXPECT_EQ(dumped.monotonicNanoseconds, ntohl(slot.monotonicTime.nanoseconds));
  EXPECT_EQ(dumped.contentsLength, slot.contentsLength);
  EXPECT_EQ(dumped.prevTraceSetId, prevTraceSetId);
  EXPECT_EQ(dumped.prevEntryIndex, slot.prevEntryIndex);
  EXPECT_EQ(dumped.unused2, Bytes(slot.unused2, slot.unused2 + 2));
  EXPECT_EQ(dumped.realSeconds, ntohl(slot.realTime.seconds));
  EXPECT_EQ(dumped.realNanoseconds, ntohl(slot.realTime.nanoseconds));
}

void expectDumpedFrom(const DumpEntry& dumped, const TraceEntryHeader& slot, const Bytes& slotContents,
                      std::uint16_t prevTraceSetId) {
  expectDumpedHeaderFrom(dumped, slot, prevTraceSetId);
  Bytes expected(dumped.contents.size(), 0);
  const std::size_t kept = std::min<std::size_t>({slot.contentsLength, slotContents.size(), expected.size()});
  std::copy_n(slotContents.begin(), kept, expected.begin());
  EXPECT_EQ(dumped.contents, expected);
}

std::uint64_t fingerprint(const Bytes& bytes) {
  std::uint64_t hash = 14695981039346656037ull;
  for (std::uint8_t byte : bytes) {
    hash ^= byte;
    hash *= 1099511628211ull;
  }
  return hash;
}

}  // namespace nt::test
