// Hand-made dump files for the decoder's tests: every field chosen by the
// test, laid out as the node's dump writers lay them out, with the time
// stamps in either byte order.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tool/decode/dump_reader.h"

namespace nodetrace_tool::decode::test {

using Bytes = std::vector<std::uint8_t>;

struct BuiltEntry {
  std::string fileName = "main.c";
  std::int32_t line = 1;
  std::uint32_t pid = 100;
  std::uint8_t severity = 0x20;
  std::uint32_t category = 1;
  std::uint32_t sequenceNumber = 0;
  std::uint32_t tid = 101;
  std::uint32_t monotonicSeconds = 0;
  std::uint32_t monotonicNanoseconds = 0;
  std::uint16_t contentsLength = 0;
  std::uint16_t prevTraceSetId = 0xFFFF;
  std::uint16_t prevEntryIndex = 0;
  std::uint32_t realSeconds = 0;
  std::uint32_t realNanoseconds = 0;
  Bytes contents;  // padded with zeros to the slot's contents size
};

struct BuiltSet {
  std::string name = "Set";
  std::uint32_t type = 0;
  std::uint32_t categoryMask = 0xFFFFFFFF;
  std::uint16_t traceEntryContentsLength = 128;
  std::uint32_t creatorPid = 1;
  std::uint32_t totalNumberEntries = 0;
  std::vector<BuiltEntry> entries;
};

struct BuiltDump {
  std::uint32_t totalNumberTraceEntries = 0;
  std::uint8_t severityMask = 0xE8;
  std::uint32_t traceEnabled = 1;
  std::uint32_t nextFreeOffset = 9848;
  std::uint16_t lastTraceSetId = 0xFFFF;
  std::uint16_t lastEntryIndex = 0;
  std::int32_t lockHolderTid = 0;
  std::vector<BuiltSet> sets;
};

// The file; stamps kNetwork as the trace dump writes them, kLittle as the
// dump before reset does on a little-endian node.
Bytes buildDump(const BuiltDump& dump, TimeOrder stamps);

// A text entry with the text as its contents (and its terminating zero).
BuiltEntry textEntry(std::uint32_t sequence, const std::string& text, std::uint32_t realSeconds = 0,
                     std::uint32_t realNanoseconds = 0);

// A set of dump entries (type 1, slots of contentsSize bytes) from a node
// whose clock was set back once: count entries numbered from 0 and stamped a
// second apart from firstSeconds, but entry setBackAt, stamped
// setBackSeconds. Their contents are left to the caller.
BuiltSet clockSetBackOnce(const std::string& name, std::uint16_t contentsSize, std::uint32_t count,
                          std::uint32_t firstSeconds, std::uint32_t setBackAt, std::uint32_t setBackSeconds);

// Big-endian field writers.
void putBe16(Bytes& bytes, std::size_t offset, std::uint16_t value);
void putBe32(Bytes& bytes, std::size_t offset, std::uint32_t value);

// Decodes files into the CTF trace directory `directory` through the decode
// command: its exit status, and its messages in err. It must print nothing
// on its standard output.
int decodeToCtf(const std::vector<std::string>& files, const std::string& directory, std::string& err);

Bytes readBytes(const std::string& path);
void writeBytes(const std::string& path, const Bytes& bytes);

}  // namespace nodetrace_tool::decode::test
