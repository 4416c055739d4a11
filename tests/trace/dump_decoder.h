// An independent reader of dump files for the tests: it assembles every
// field from its bytes (big-endian where the layout says so) without the
// library's record types, and accounts for every byte of the file.
//
// It is kept apart from the shipped reader (tool/decode/dump_reader.h) on
// purpose, as a second opinion on the format: the tests check the dumps and
// the shipped reader against it, so a mistake shared by the writer and the
// shipped reader cannot pass unseen. Do not replace it with the shipped one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "nodetrace/trace_layout.h"
#include "tests/support/node_test.h"

namespace nt::test {

std::uint16_t be16At(const Bytes& bytes, std::size_t offset);
std::uint32_t be32At(const Bytes& bytes, std::size_t offset);

struct DumpHeader {
  Bytes version;  // 4 bytes
  std::uint32_t totalNumberTraceEntries = 0;
  std::uint8_t currentNumberTraceSets = 0;
  std::uint8_t severityMask = 0;
  Bytes unused;  // 2 bytes
  std::uint32_t traceEnabled = 0;  // the node's byte order
  std::uint32_t nextFreeOffset = 0;
  std::uint16_t lastTraceSetId = 0;
  std::uint16_t lastEntryIndex = 0;
  std::int32_t lockHolderTid = 0;
};

struct DumpDescriptor {
  Bytes nameBytes;  // all 20
  std::string name;
  std::uint32_t type = 0;
  std::uint32_t categoryMask = 0;
  std::uint16_t maxNumberEntries = 0;
  std::uint16_t traceEntryContentsLength = 0;
  std::uint32_t creatorPid = 0;
  std::uint32_t dataOffset = 0;
  std::uint16_t writeIndex = 0;
  std::uint16_t curentNumberEntries = 0;
  std::uint32_t totalNumberEntries = 0;
};

struct DumpEntry {
  Bytes fileNameBytes;  // all 30
  std::string fileName;
  Bytes unused0;  // 2
  std::int32_t line = 0;
  std::uint32_t pid = 0;
  std::uint8_t severity = 0;
  Bytes unused1;  // 3
  std::uint32_t category = 0;
  std::uint32_t sequenceNumber = 0;
  std::uint32_t tid = 0;
  std::uint32_t monotonicSeconds = 0;
  std::uint32_t monotonicNanoseconds = 0;
  std::uint16_t contentsLength = 0;
  std::uint16_t prevTraceSetId = 0;
  std::uint16_t prevEntryIndex = 0;
  Bytes unused2;  // 2
  std::uint32_t realSeconds = 0;
  std::uint32_t realNanoseconds = 0;
  Bytes contents;  // align32(traceEntryContentsLength) bytes
  std::string text() const;  // contents up to the first zero byte
};

struct DumpFile {
  DumpHeader header;
  std::vector<DumpDescriptor> descriptors;
  std::vector<std::vector<DumpEntry>> entries;  // per descriptor, in file order
};

// How the time stamps of the entry headers are stored.
enum class StampOrder {
  kBigEndian,  // both words of both stamps big-endian (the trace dump file)
  kNodeOrder   // monotonic: one little-endian 64-bit value seconds:nanoseconds;
               // real: two little-endian words (the dump before reset)
};

// How many entries each descriptor owns.
enum class EntryCount {
  kDescriptor,  // curentNumberEntries, and maxNumberEntries must equal it
  kOffsets      // as many as fit between its dataOffset and the next one's
};

// Decodes a whole file. Every layout rule is checked with gtest assertions
// (the data offsets follow one another without gaps, the file ends with the
// last entry); a file that breaks one stops the decoding.
DumpFile decodeDump(const Bytes& file, StampOrder stamps, EntryCount count = EntryCount::kDescriptor);

// Checks a decoded entry against the slot it was dumped from: every header
// field (the prev link against prevTraceSetId, which the dump may have
// replaced).
void expectDumpedHeaderFrom(const DumpEntry& dumped, const TraceEntryHeader& slot, std::uint16_t prevTraceSetId);
// The header as above, then the slot's first contentsLength contents bytes
// followed by zeros.
void expectDumpedFrom(const DumpEntry& dumped, const TraceEntryHeader& slot, const Bytes& slotContents,
                      std::uint16_t prevTraceSetId);

// FNV-1a over the bytes: a fingerprint for golden files.
std::uint64_t fingerprint(const Bytes& bytes);

}  // namespace nt::test
