// Reading dump files without a node: the whole-store dump and the dump
// before reset, taken apart byte by byte on any host.
//
// Both kinds share one layout (all multi-byte fields big-endian):
//
//        0  +--------------------------------+
//           | header (28)                    |  version "1.4", counts, ...
//       28  +--------------------------------+
//           | descriptor of position 0 (48)  |  name, type, lengths, entry
//           | descriptor of position 1 ...   |  count, data offset
// 28+48*n   +--------------------------------+
//           | entries of position 0, oldest  |  80-byte header, then
//           | first; then of position 1 ...  |  align32(max length) bytes
//           +--------------------------------+
//
// They differ in the two time stamps of each entry header. The whole-store
// dump keeps them big-endian; the dump before reset turned them around once
// more on the (little-endian) node, so there the monotonic stamp reads as
// nanoseconds then seconds and the real-time stamp as seconds then
// nanoseconds, each word little-endian. The reader finds out which by the
// plausibility of the stamps, unless told.
//
// Nothing here trusts a count, length or offset of the file: every one is
// checked against the bytes that are really there before it is used, and
// the first one that does not fit stops the decoding of that file with an
// error that names the offset. What was decoded before it is kept.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace nodetrace_tool::decode {

// Byte order of the time stamps of a file's entry headers.
enum class TimeOrder {
  kAuto,     // decide by the plausibility of the stamps
  kNetwork,  // big-endian: the whole-store dump
  kLittle    // turned around on a little-endian node: the dump before reset
};

// The kind of a dump file follows from its time stamps: the whole-store
// dump keeps them in network order, the dump before reset in the node's.
enum class DumpKind { kTraceDump, kDumpBeforeReset };

const char* kindName(DumpKind kind) noexcept;  // "trace_dump", "dump_before_reset"

struct DumpHeader {
  std::array<char, 4> version{};
  std::uint32_t totalNumberTraceEntries = 0;
  std::uint8_t currentNumberTraceSets = 0;
  std::uint8_t severityMask = 0;
  std::uint32_t traceEnabled = 0;  // as stored (the writer does not convert it)
  std::uint32_t nextFreeOffset = 0;
  std::uint16_t lastTraceSetId = 0;
  std::uint16_t lastEntryIndex = 0;
  std::int32_t lockHolderTid = 0;
};

// One trace set descriptor of the file.
struct SetRecord {
  std::uint32_t position = 0;  // index in the descriptor table
  // The set's id on the node: the position for user sets; 254 and 255 for
  // "NVJ_System" and "System", which the whole-store dump appends after
  // the user sets (user sets cannot carry these names).
  std::uint16_t id = 0;
  std::array<char, 20> name{};  // as stored, not necessarily terminated
  std::uint32_t type = 0;
  std::uint32_t categoryMask = 0;
  std::uint16_t maxNumberEntries = 0;
  std::uint16_t traceEntryContentsLength = 0;
  std::uint32_t creatorPid = 0;
  std::uint32_t dataOffset = 0;
  std::uint16_t writeIndex = 0;
  std::uint16_t curentNumberEntries = 0;
  std::uint32_t totalNumberEntries = 0;

  std::string nameText() const;  // the name up to its first zero byte
};

// One entry of the file.
struct EntryRecord {
  std::uint32_t set = 0;     // index into DecodedFile::sets
  std::uint64_t offset = 0;  // file offset of its 80-byte header
  std::array<char, 30> fileName{};  // as stored
  std::int32_t line = 0;
  std::uint32_t pid = 0;
  std::uint8_t severity = 0;
  std::uint32_t category = 0;
  std::uint32_t sequenceNumber = 0;
  std::uint32_t tid = 0;
  std::uint16_t contentsLength = 0;
  std::uint16_t prevTraceSetId = 0;
  std::uint16_t prevEntryIndex = 0;
  // The time stamps in the byte order the file was decoded with.
  std::uint32_t monotonicSeconds = 0;
  std::uint32_t monotonicNanoseconds = 0;
  std::uint32_t realSeconds = 0;
  std::uint32_t realNanoseconds = 0;
  // The 16 stamp bytes as stored: offsets 56..63, then 72..79.
  std::array<std::uint8_t, 16> stampBytes{};
  // Every contents byte of the slot: align32(traceEntryContentsLength).
  std::vector<std::uint8_t> contents;

  std::string fileNameText() const;  // up to the first zero byte
};

// Where and why the decoding of a file stopped.
struct DecodeError {
  std::uint64_t offset = 0;
  std::string message;  // "truncated entry at offset 20480: 112 bytes of 208 present"
};

struct DecodedFile {
  std::string name;  // as given, for messages and output
  DumpKind kind = DumpKind::kTraceDump;
  TimeOrder timeOrder = TimeOrder::kNetwork;  // the order used (never kAuto)
  bool hasHeader = false;
  DumpHeader header;
  std::vector<SetRecord> sets;
  // In the order they were written: by sequence number (stable, so equal
  // numbers keep their file order).
  std::vector<EntryRecord> entries;
  std::optional<DecodeError> error;
};

// Decodes the bytes of one dump file. Never throws for bad input (only for
// lack of memory); a malformed file yields what could be read and an error.
DecodedFile decodeDump(std::span<const std::uint8_t> bytes, std::string name, TimeOrder order);

// Reads and decodes a file; an unreadable file yields an error at offset 0
// ("cannot read: No such file or directory").
DecodedFile readDumpFile(const std::string& path, TimeOrder order);

}  // namespace nodetrace_tool::decode
