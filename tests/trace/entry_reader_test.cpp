// The entry reader: slots of user sets straight out of the shared memory,
// entries of the two SRAM sets out of the file, every refusal, the cleared
// contents buffer, the cut of a too-long contents length (repaired in shared
// memory, never in the file), and where the newest entry of the node is.
#include <arpa/inet.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "common/syscalls.h"
#include "tests/support/node_test.h"
#include "tests/support/recording_platform.h"
#include "trace/persistent/error_trace.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

using sys::Call;

constexpr std::size_t kBufferSize = 1700;  // 1600 the reader owns, 100 it must not touch
constexpr std::uint8_t kUntouched = 0xAA;

Bytes textBytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

// The whole caller buffer after a successful read: the copied bytes, zeros
// up to 1600, and the caller's own bytes beyond.
Bytes expectedBuffer(const Bytes& copied) {
  Bytes buffer(kBufferSize, kUntouched);
  std::fill(buffer.begin(), buffer.begin() + 1600, 0);
  std::copy(copied.begin(), copied.end(), buffer.begin());
  return buffer;
}

// A pattern that shows a shifted or cut copy.
Bytes pattern(std::size_t size, std::uint8_t seed) {
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(seed + i * 7);
  return bytes;
}

// One entry as the entry writer would leave it in a user set.
struct Planted {
  Bytes contents;                 // bytes written to the slot's contents
  std::uint16_t contentsLength;   // stored length, may differ from contents.size()
  const char* fileName = "radio.c";
  std::int32_t line = 10;
  std::uint8_t severity = 0x20;
  std::uint32_t category = 0x1;
};

class EntryReaderTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    getCurrentNumberTraceSets();  // start the trace system: header and SRAM file
    buffer_.assign(kBufferSize, kUntouched);
  }

  static std::uint32_t slotOffset(std::int16_t id, unsigned index) {
    const TraceSetStruct* d = getTraceSetStruct(static_cast<std::uint16_t>(id));
    return d->dataOffset + getTraceEntrySize(d->traceEntryContentsLength) * index;
  }
  static std::uint8_t* slotAddress(std::int16_t id, unsigned index) {
    return g_process.base + slotOffset(id, index);
  }

  // Writes e into the next slot of set id and advances the set and the
  // header as the entry writer does. Returns the slot index.
  static unsigned plant(std::int16_t id, const Planted& e) {
    TraceSetStruct* d = getTraceSetStruct(static_cast<std::uint16_t>(id));
    TraceMemoryHeader* h = header();
    const unsigned slot = d->writeIndex;
    TraceEntryHeader entry{};
    std::strncpy(entry.fileName, e.fileName, 29);
    entry.line = e.line;
    entry.pid = static_cast<std::uint32_t>(getpid());
    entry.severity = e.severity;
    entry.category = e.category;
    entry.sequenceNumber = h->totalNumberTraceEntries;
    entry.tid = static_cast<std::uint32_t>(gettid());
    entry.monotonicTime = {htonl(1000), htonl(5)};
    entry.contentsLength = e.contentsLength;
    entry.prevTraceSetId = h->lastTraceSetId;
    entry.prevEntryIndex = h->lastEntryIndex;
    entry.realTime = {htonl(1700000000), htonl(7)};
    std::uint8_t* address = slotAddress(id, slot);
    std::memcpy(address, &entry, sizeof entry);
    std::memcpy(address + 80, e.contents.data(), e.contents.size());
    d->writeIndex = static_cast<std::uint16_t>((slot + 1) % d->maxNumberEntries);
    d->curentNumberEntries = static_cast<std::uint16_t>(std::min<unsigned>(d->curentNumberEntries + 1u, d->maxNumberEntries));
    ++d->totalNumberEntries;
    ++h->totalNumberTraceEntries;
    h->lastTraceSetId = static_cast<std::uint16_t>(id);
    h->lastEntryIndex = static_cast<std::uint16_t>(slot);
    return slot;
  }

  static unsigned plantText(std::int16_t id, std::string_view text) {
    Bytes contents = textBytes(text);
    contents.push_back(0);
    return plant(id, {contents, static_cast<std::uint16_t>(contents.size())});
  }

  TraceEntryHeader* read(std::int16_t id, std::uint16_t index) {
    TraceEntryHeader* entry = &sramHeader_;
    getTraceEntry(id, index, &entry, buffer_.data());
    return entry;
  }

  void writeSramBytes(std::size_t offset, const void* data, std::size_t size) const {
    std::fstream file(sram(), std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  }

  // Puts one entry into slot 0 of an SRAM region by hand and counts it in
  // the region's descriptor.
  void writeSramEntry(int region, const TraceEntryHeader& entry, const Bytes& contents) const {
    TraceSetStruct d = readSramDescriptor(sram(), region);
    d.curentNumberEntries = 1;
    d.writeIndex = 1;
    d.totalNumberEntries = 1;
    writeSramBytes(region == 0 ? 4 : 153600, &d, sizeof d);
    writeSramBytes(d.dataOffset, &entry, sizeof entry);
    writeSramBytes(d.dataOffset + 80, contents.data(), contents.size());
  }

  static TraceEntryHeader sramHeader(std::uint16_t contentsLength) {
    TraceEntryHeader entry{};
    std::strncpy(entry.fileName, "remote.c", 29);
    entry.line = 77;
    entry.pid = 4242;
    entry.severity = 0x40;
    entry.category = 0x8;
    entry.sequenceNumber = 9;
    entry.tid = 4243;
    entry.contentsLength = contentsLength;
    entry.prevTraceSetId = 0xFFFF;
    return entry;
  }

  Bytes buffer_;
  TraceEntryHeader sramHeader_{};
};

// ---- User sets ---------------------------------------------------------------

TEST_F(EntryReaderTest, SetWithoutEntriesYieldsNull) {
  const std::int16_t id = createSet("Radio", TS_STRING, 5, 128);
  EXPECT_EQ(read(id, 0), nullptr);
  EXPECT_EQ(buffer_, Bytes(kBufferSize, kUntouched));  // refused before the buffer is touched
}

TEST_F(EntryReaderTest, EveryIndexOfAFullRingSucceedsAndTheNextFails) {
  const std::int16_t id = createSet("Radio", TS_STRING, 5, 128);
  for (int i = 0; i < 7; ++i) plantText(id, "entry " + std::to_string(i));
  // Slots 0 and 1 were overwritten by the sixth and seventh entry.
  const char* expected[] = {"entry 5", "entry 6", "entry 2", "entry 3", "entry 4"};
  for (std::uint16_t index = 0; index < 5; ++index) {
    SCOPED_TRACE(index);
    TraceEntryHeader* entry = read(id, index);
    EXPECT_EQ(reinterpret_cast<std::uint8_t*>(entry), slotAddress(id, index));  // the slot itself
    Bytes text = textBytes(expected[index]);
    text.push_back(0);
    EXPECT_EQ(buffer_, expectedBuffer(text));
  }
  EXPECT_EQ(read(id, 5), nullptr);
}

TEST_F(EntryReaderTest, IndexBeyondTheFilledPartOfARingFails) {
  const std::int16_t id = createSet("Radio", TS_STRING, 5, 128);
  for (int i = 0; i < 3; ++i) plantText(id, "entry " + std::to_string(i));
  EXPECT_NE(read(id, 2), nullptr);
  EXPECT_EQ(read(id, 3), nullptr);
  EXPECT_EQ(read(id, 4), nullptr);
}

TEST_F(EntryReaderTest, ReturnsTheSlotHeaderAsStored) {
  const std::int16_t first = createSet("Radio", TS_STRING, 4, 128);
  const std::int16_t second = createSet("Poll", TS_STRING, 4, 64);
  plantText(first, "one");
  plant(second, {textBytes("two"), 3, "poll.c", 99, 0x10, 0x30});
  TraceEntryHeader* entry = read(second, 0);
  ASSERT_EQ(reinterpret_cast<std::uint8_t*>(entry), g_process.base + 9848 + 4 * 208);

  TraceEntryHeader expected{};
  std::strncpy(expected.fileName, "poll.c", 29);
  expected.line = 99;
  expected.pid = static_cast<std::uint32_t>(getpid());
  expected.severity = 0x10;
  expected.category = 0x30;
  expected.sequenceNumber = 1;
  expected.tid = static_cast<std::uint32_t>(gettid());
  expected.monotonicTime = {htonl(1000), htonl(5)};
  expected.contentsLength = 3;
  expected.prevTraceSetId = 0;
  expected.prevEntryIndex = 0;
  expected.realTime = {htonl(1700000000), htonl(7)};
  EXPECT_EQ(bytesOf(entry, sizeof *entry), bytesOf(&expected, sizeof expected));
  EXPECT_EQ(buffer_, expectedBuffer(textBytes("two")));
}

TEST_F(EntryReaderTest, UnknownIdsYieldNull) {
  const std::int16_t first = createSet("Radio", TS_STRING, 4, 128);
  const std::int16_t second = createSet("Poll", TS_STRING, 4, 128);
  plantText(first, "one");
  plantText(second, "two");
  ASSERT_EQ(getCurrentNumberTraceSets(), 2);
  for (const std::int16_t id : {2, 3, 199, 200, 201, 253, 256, 0x7FFF, -1, -2, -32768}) {
    SCOPED_TRACE(id);
    EXPECT_EQ(read(static_cast<std::int16_t>(id), 0), nullptr);
  }
  EXPECT_NE(read(second, 0), nullptr);
}

TEST_F(EntryReaderTest, TooLongContentsLengthIsCutAndRepairedInSharedMemory) {
  const std::int16_t id = createSet("Radio", TS_STRING, 3, 128);
  const Bytes stored = pattern(128, 1);
  plant(id, {stored, 300});
  plant(id, {pattern(128, 90), 128});  // the next slot, which a copy of 300 bytes would reach
  const std::uint32_t lengthOffset = slotOffset(id, 0) + 64;

  StderrCapture capture;
  TraceEntryHeader* entry = read(id, 0);
  EXPECT_EQ(capture.take(),
            "getTraceEntry: *** Contents length of entry is 300 > max entry length of 128, cutting to prevent "
            "memory fault! ***\n");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->contentsLength, 128);
  EXPECT_EQ(u16At(readSharedObject(shmName()), lengthOffset), 128);  // repaired for every reader
  EXPECT_EQ(buffer_, expectedBuffer(stored));

  // Repaired once: later reads are quiet.
  StderrCapture again;
  EXPECT_NE(read(id, 0), nullptr);
  EXPECT_EQ(again.take(), "");
  EXPECT_EQ(buffer_, expectedBuffer(stored));
}

TEST_F(EntryReaderTest, BufferIsClearedBeyondTheCopiedContents) {
  const std::int16_t text = createSet("Radio", TS_STRING, 3, 128);
  const std::int16_t dump = createSet("Dumps", TS_DUMP, 2, 1600);
  // A text shorter than its stored length: the stored length counts.
  Bytes contents = textBytes("abc");
  contents.push_back(0);
  for (int i = 0; i < 20; ++i) contents.push_back('x');
  plant(text, {contents, 10});
  const Bytes full = pattern(1600, 3);
  plant(dump, {full, 1600});

  EXPECT_NE(read(dump, 0), nullptr);
  EXPECT_EQ(buffer_, expectedBuffer(full));
  // The same buffer again, for a short entry: nothing of the long one stays.
  EXPECT_NE(read(text, 0), nullptr);
  EXPECT_EQ(buffer_, expectedBuffer(Bytes(contents.begin(), contents.begin() + 10)));
}

TEST_F(EntryReaderTest, EmptyEntryLeavesAClearedBuffer) {
  const std::int16_t id = createSet("Dumps", TS_DUMP, 2, 16);
  plant(id, {pattern(16, 5), 0});
  EXPECT_NE(read(id, 0), nullptr);
  EXPECT_EQ(buffer_, expectedBuffer({}));
}

TEST_F(EntryReaderTest, DamagedDescriptorBeyondTheMappingIsRefused) {
  const std::int16_t id = createSet("Radio", TS_STRING, 3, 128);
  plantText(id, "one");
  TraceSetStruct* d = getTraceSetStruct(static_cast<std::uint16_t>(id));
  d->dataOffset = g_process.size - 100;  // slot 0 would end past the mapping
  EXPECT_EQ(read(id, 0), nullptr);
}

TEST_F(EntryReaderTest, MissingArgumentsYieldNull) {
  const std::int16_t id = createSet("Radio", TS_STRING, 3, 128);
  plantText(id, "one");
  TraceEntryHeader* entry = &sramHeader_;
  getTraceEntry(id, 0, &entry, nullptr);
  EXPECT_EQ(entry, nullptr);
  getTraceEntry(id, 0, nullptr, buffer_.data());  // nowhere to answer: nothing happens
  addErrorTrace(TS_STRING, 0x1, "radio.c", 1, "stored", SYSTEM_TRACE_SET_ID, 0x80);
  entry = nullptr;  // an SRAM entry needs the caller's header buffer
  getTraceEntry(SYSTEM_TRACE_SET_ID, 0, &entry, buffer_.data());
  EXPECT_EQ(entry, nullptr);
}

TEST_F(EntryReaderTest, AnotherProcessReadsTheSameSlot) {
  const std::int16_t id = createSet("Radio", TS_STRING, 3, 128);
  plantText(id, "from the parent");
  const int status = runInChild([id] {
    Bytes buffer(1600, 0xFF);
    TraceEntryHeader* entry = nullptr;
    getTraceEntry(id, 0, &entry, buffer.data());
    if (entry == nullptr) return 1;
    if (entry->pid != static_cast<std::uint32_t>(getppid())) return 2;
    return std::string(reinterpret_cast<const char*>(buffer.data())) == "from the parent" ? 0 : 3;
  });
  EXPECT_EQ(status, 0);
}

// ---- The SRAM sets -------------------------------------------------------------

TEST_F(EntryReaderTest, ReadsErrorTraceEntriesIntoTheCallersHeader) {
  addErrorTrace(TS_STRING, 0x5, "radio.c", 41, "first record", SYSTEM_TRACE_SET_ID, 0x80);
  addErrorTrace(TS_STRING, 0x6, "radio.c", 42, "second", SYSTEM_TRACE_SET_ID, 0x80);
  clearPlatformCalls();
  for (unsigned index = 0; index < 2; ++index) {
    SCOPED_TRACE(index);
    TraceEntryHeader* entry = read(SYSTEM_TRACE_SET_ID, static_cast<std::uint16_t>(index));
    EXPECT_EQ(entry, &sramHeader_);
    const SramEntry stored = readSramEntry(sram(), 0, index);
    EXPECT_EQ(bytesOf(&sramHeader_, 80), bytesOf(&stored.header, 80));
    EXPECT_EQ(buffer_, expectedBuffer(textBytes(index == 0 ? "first record" : "second")));
  }
  EXPECT_EQ(read(SYSTEM_TRACE_SET_ID, 2), nullptr);
  EXPECT_EQ(read(SYSTEM_TRACE_SET_ID, 737), nullptr);
  // The file is closed after every read, also after the refusal.
  EXPECT_EQ(platformCalls("omluCloseNoLog").size(), 4u);
}

TEST_F(EntryReaderTest, ReadsTheRemoteSystemSet) {
  const Bytes contents = pattern(40, 9);
  const TraceEntryHeader stored = sramHeader(40);
  writeSramEntry(1, stored, contents);
  TraceEntryHeader* entry = read(REMOTE_SYSTEM_TRACE_SET_ID, 0);
  ASSERT_EQ(entry, &sramHeader_);
  EXPECT_EQ(bytesOf(entry, 80), bytesOf(&stored, 80));
  EXPECT_EQ(buffer_, expectedBuffer(contents));
  EXPECT_EQ(read(REMOTE_SYSTEM_TRACE_SET_ID, 1), nullptr);
  EXPECT_EQ(read(SYSTEM_TRACE_SET_ID, 0), nullptr);  // the other region is still empty
}

TEST_F(EntryReaderTest, MissingSramFileYieldsNullWithoutMessage) {
  addErrorTrace(TS_STRING, 0x5, "radio.c", 41, "record", SYSTEM_TRACE_SET_ID, 0x80);
  ASSERT_EQ(std::remove(sram().c_str()), 0);
  StderrCapture capture;
  EXPECT_EQ(read(SYSTEM_TRACE_SET_ID, 0), nullptr);
  EXPECT_EQ(read(REMOTE_SYSTEM_TRACE_SET_ID, 0), nullptr);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(buffer_, Bytes(kBufferSize, kUntouched));
}

TEST_F(EntryReaderTest, TooLongContentsLengthInTheSramFileIsCutOnlyInTheCopy) {
  const Bytes contents = pattern(128, 11);
  writeSramEntry(0, sramHeader(300), contents);
  writeSramBytes(52 + 208, pattern(208, 200).data(), 208);  // slot 1, which 300 bytes would reach
  const Bytes before = readFileBytes(sram());
  ASSERT_EQ(u16At(before, 52 + 64), 300);

  const std::string line =
      "getTraceEntry: *** Contents length of entry is 300 > max entry length of 128, cutting to prevent "
      "memory fault! ***\n";
  TraceEntryHeader expected = sramHeader(128);
  for (int pass = 0; pass < 2; ++pass) {
    SCOPED_TRACE(pass);
    StderrCapture capture;
    TraceEntryHeader* entry = read(SYSTEM_TRACE_SET_ID, 0);
    EXPECT_EQ(capture.take(), line);  // on every read: the file keeps its long length
    ASSERT_EQ(entry, &sramHeader_);
    EXPECT_EQ(bytesOf(entry, 80), bytesOf(&expected, 80));
    EXPECT_EQ(buffer_, expectedBuffer(contents));
    const Bytes after = readFileBytes(sram());
    EXPECT_EQ(u16At(after, 52 + 64), 300);
    EXPECT_TRUE(after == before);
  }
}

TEST_F(EntryReaderTest, ShortSramFileYieldsNull) {
  const Bytes contents = pattern(10, 13);
  writeSramEntry(0, sramHeader(10), contents);
  const Bytes file = readFileBytes(sram());
  const auto truncateTo = [&](std::size_t size) {
    std::ofstream out(sram(), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(size));
  };
  clearPlatformCalls();

  truncateTo(4 + 40);  // half a descriptor
  EXPECT_EQ(read(SYSTEM_TRACE_SET_ID, 0), nullptr);

  truncateTo(52 + 40);  // half an entry header
  EXPECT_EQ(read(SYSTEM_TRACE_SET_ID, 0), nullptr);

  // The header arrives, five of the ten contents bytes do not.
  sramHeader_ = TraceEntryHeader{};
  truncateTo(52 + 80 + 5);
  EXPECT_EQ(read(SYSTEM_TRACE_SET_ID, 0), nullptr);
  const TraceEntryHeader stored = sramHeader(10);
  EXPECT_EQ(bytesOf(&sramHeader_, 80), bytesOf(&stored, 80));  // filled all the same

  truncateTo(52 + 80 + 10);  // just enough
  EXPECT_EQ(read(SYSTEM_TRACE_SET_ID, 0), &sramHeader_);
  EXPECT_EQ(buffer_, expectedBuffer(contents));
  EXPECT_EQ(platformCalls("omluCloseNoLog").size(), 4u);
}

TEST_F(EntryReaderTest, FailingSramReadsYieldNull) {
  writeSramEntry(0, sramHeader(10), pattern(10, 13));
  for (int nth = 1; nth <= 3; ++nth) {
    SCOPED_TRACE(nth);
    sys::failCall(Call::kRead, nth, EIO);  // descriptor, header, contents
    StderrCapture capture;
    EXPECT_EQ(read(SYSTEM_TRACE_SET_ID, 0), nullptr);
    EXPECT_EQ(capture.take(), "");
    sys::clearFailures();
  }
  sys::failCall(Call::kOpen, 1, EACCES);
  EXPECT_EQ(read(SYSTEM_TRACE_SET_ID, 0), nullptr);
  sys::clearFailures();
  EXPECT_NE(read(SYSTEM_TRACE_SET_ID, 0), nullptr);
}

// ---- The newest entry ----------------------------------------------------------

TEST_F(EntryReaderTest, RecentEntryOfAFreshSystem) {
  std::int16_t id = 5;
  std::uint16_t index = 5;
  std::uint32_t total = 5;
  getRecentEntry(&id, &index, &total);
  EXPECT_EQ(id, -1);
  EXPECT_EQ(index, 0);
  EXPECT_EQ(total, 0u);
}

TEST_F(EntryReaderTest, RecentEntryFollowsTheNewestEntryOfTheNode) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 3, 128);
  for (int i = 0; i < 5; ++i) plantText(radio, "entry");
  std::int16_t id = -1;
  std::uint16_t index = 0;
  std::uint32_t total = 0;
  getRecentEntry(&id, &index, &total);
  EXPECT_EQ(id, radio);
  EXPECT_EQ(index, 1);  // the fifth entry went to slot 1 of 3
  EXPECT_EQ(total, 5u);

  addErrorTrace(TS_STRING, 0x5, "radio.c", 41, "record", SYSTEM_TRACE_SET_ID, 0x80);
  getRecentEntry(&id, &index, &total);
  EXPECT_EQ(id, SYSTEM_TRACE_SET_ID);
  EXPECT_EQ(index, 0);
  EXPECT_EQ(total, 6u);
}

}  // namespace
}  // namespace nt::test
