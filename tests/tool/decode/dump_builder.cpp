#include "tests/tool/decode/dump_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "tool/decode/decode_run.h"

namespace nodetrace_tool::decode::test {
namespace {

void putLe32(Bytes& bytes, std::size_t offset, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) {
    bytes[offset + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> (8 * i));
  }
}

void putText(Bytes& bytes, std::size_t offset, const std::string& text, std::size_t size) {
  std::memcpy(bytes.data() + offset, text.data(), std::min(text.size(), size));
}

std::uint32_t align4(std::uint32_t n) { return (n + 3u) & ~3u; }

}  // namespace

void putBe16(Bytes& bytes, std::size_t offset, std::uint16_t value) {
  bytes[offset] = static_cast<std::uint8_t>(value >> 8);
  bytes[offset + 1] = static_cast<std::uint8_t>(value);
}

void putBe32(Bytes& bytes, std::size_t offset, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) {
    bytes[offset + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
  }
}

Bytes buildDump(const BuiltDump& dump, TimeOrder stamps) {
  const std::size_t count = dump.sets.size();
  Bytes file(28 + 48 * count, 0);
  std::memcpy(file.data(), "1.4", 4);
  putBe32(file, 4, dump.totalNumberTraceEntries);
  file[8] = static_cast<std::uint8_t>(count);
  file[9] = dump.severityMask;
  std::memcpy(file.data() + 12, &dump.traceEnabled, 4);
  putBe32(file, 16, dump.nextFreeOffset);
  putBe16(file, 20, dump.lastTraceSetId);
  putBe16(file, 22, dump.lastEntryIndex);
  putBe32(file, 24, static_cast<std::uint32_t>(dump.lockHolderTid));

  for (std::size_t p = 0; p < count; ++p) {
    const BuiltSet& set = dump.sets[p];
    const std::size_t at = 28 + 48 * p;
    const auto entries = static_cast<std::uint16_t>(set.entries.size());
    putText(file, at, set.name, 20);
    putBe32(file, at + 20, set.type);
    putBe32(file, at + 24, set.categoryMask);
    putBe16(file, at + 28, entries);
    putBe16(file, at + 30, set.traceEntryContentsLength);
    putBe32(file, at + 32, set.creatorPid);
    putBe32(file, at + 36, static_cast<std::uint32_t>(file.size()));
    putBe16(file, at + 40, 0);
    putBe16(file, at + 42, entries);
    putBe32(file, at + 44, set.totalNumberEntries);

    const std::uint32_t contentsSize = align4(set.traceEntryContentsLength);
    for (const BuiltEntry& e : set.entries) {
      Bytes slot(80 + contentsSize, 0);
      putText(slot, 0, e.fileName, 29);
      putBe32(slot, 32, static_cast<std::uint32_t>(e.line));
      putBe32(slot, 36, e.pid);
      slot[40] = e.severity;
      putBe32(slot, 44, e.category);
      putBe32(slot, 48, e.sequenceNumber);
      putBe32(slot, 52, e.tid);
      putBe16(slot, 64, e.contentsLength);
      putBe16(slot, 66, e.prevTraceSetId);
      putBe16(slot, 68, e.prevEntryIndex);
      if (stamps == TimeOrder::kLittle) {
        putLe32(slot, 56, e.monotonicNanoseconds);
        putLe32(slot, 60, e.monotonicSeconds);
        putLe32(slot, 72, e.realSeconds);
        putLe32(slot, 76, e.realNanoseconds);
      } else {
        putBe32(slot, 56, e.monotonicSeconds);
        putBe32(slot, 60, e.monotonicNanoseconds);
        putBe32(slot, 72, e.realSeconds);
        putBe32(slot, 76, e.realNanoseconds);
      }
      std::copy_n(e.contents.begin(), std::min<std::size_t>(e.contents.size(), contentsSize), slot.begin() + 80);
      file.insert(file.end(), slot.begin(), slot.end());
    }
  }
  return file;
}

BuiltSet clockSetBackOnce(const std::string& name, std::uint16_t contentsSize, std::uint32_t count,
                          std::uint32_t firstSeconds, std::uint32_t setBackAt, std::uint32_t setBackSeconds) {
  BuiltSet set;
  set.name = name;
  set.type = 1;
  set.traceEntryContentsLength = contentsSize;
  for (std::uint32_t i = 0; i < count; ++i) {
    BuiltEntry entry;
    entry.sequenceNumber = i;
    entry.realSeconds = i == setBackAt ? setBackSeconds : firstSeconds + i;
    set.entries.push_back(entry);
  }
  return set;
}

BuiltEntry textEntry(std::uint32_t sequence, const std::string& text, std::uint32_t realSeconds,
                     std::uint32_t realNanoseconds) {
  BuiltEntry entry;
  entry.sequenceNumber = sequence;
  entry.contents.assign(text.begin(), text.end());
  entry.contents.push_back(0);
  entry.contentsLength = static_cast<std::uint16_t>(entry.contents.size());
  entry.realSeconds = realSeconds;
  entry.realNanoseconds = realNanoseconds;
  entry.monotonicSeconds = 100 + sequence;
  entry.monotonicNanoseconds = 1000 * sequence;
  return entry;
}

int decodeToCtf(const std::vector<std::string>& files, const std::string& directory, std::string& err) {
  DecodeOptions options;
  options.files = files;
  options.format = OutputFormat::kCtf;
  options.output = directory;
  std::ostringstream out;
  std::ostringstream messages;
  const int status = runDecode(options, out, messages);
  EXPECT_EQ(out.str(), "");
  err = messages.str();
  return status;
}

Bytes readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeBytes(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

}  // namespace nodetrace_tool::decode::test
