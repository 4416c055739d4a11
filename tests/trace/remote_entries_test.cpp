// The writers of remote records: what a slot of a user set and a slot of
// "NVJ_System" hold afterwards (every header byte, the remote ids and clocks,
// the contents and their cut), the counters and the node-wide chain, the
// filters and refusals, the set name prefix and the 8-bit length of system
// records, the once-per-process report of a missing region, every file
// failure with its message, the syslog line of every path and its priority,
// the lock, errno, concurrent writers; and isRemoteTraceSet.
#include <arpa/inet.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "tests/support/node_test.h"
#include "tests/trace/store_fixture.h"
#include "trace/persistent/remote_entries.h"
#include "trace/store/header_stamps.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

using sys::Call;
using sys::SyslogRecord;

constexpr std::int32_t kPid = 4242;
constexpr std::int32_t kTid = 4243;
constexpr std::uint32_t kReal[2] = {0x65537A00u, 123456789u};
constexpr std::uint32_t kMono[2] = {98765u, 43210u};
constexpr std::uint32_t kSramFileSize = 153648;  // both descriptors, nothing after
constexpr std::uint32_t kMaxSramFileSize = 524288;
constexpr std::size_t kRemoteDescriptorOffset = 153600;
constexpr std::size_t kRemoteDataOffset = 153648;

SyslogRecord logged(int priority, std::string_view text) {
  return {priority, "[PID:4242][TID:4243] " + std::string(text)};
}

// What an entry header must hold. The unused bytes (and, in a slot of a user
// set, byte 29 of the file name) hold unusedByte.
struct Expected {
  const char* fileName = "remote.c";
  std::int32_t line = 12;
  std::uint8_t severity = 0x20;
  std::uint32_t category = 1;
  std::uint32_t sequenceNumber = 0;
  std::uint16_t contentsLength = 0;
  std::uint16_t prevTraceSetId = 0xFFFF;
  std::uint16_t prevEntryIndex = 0;
  std::uint32_t pid = kPid;
  std::uint32_t tid = kTid;
  std::uint32_t real[2] = {kReal[0], kReal[1]};
  std::uint32_t mono[2] = {kMono[0], kMono[1]};
  std::uint8_t unusedByte = 0;
};

Bytes headerBytes(const Expected& e) {
  TraceEntryHeader h;
  std::memset(&h, e.unusedByte, sizeof h);
  std::memset(h.fileName, 0, 29);
  if (e.fileName != nullptr) std::strncpy(h.fileName, e.fileName, 29);
  h.line = e.line;
  h.pid = e.pid;
  h.severity = e.severity;
  h.category = e.category;
  h.sequenceNumber = e.sequenceNumber;
  h.tid = e.tid;
  h.monotonicTime = {htonl(e.mono[0]), htonl(e.mono[1])};
  h.contentsLength = e.contentsLength;
  h.prevTraceSetId = e.prevTraceSetId;
  h.prevEntryIndex = e.prevEntryIndex;
  h.realTime = {htonl(e.real[0]), htonl(e.real[1])};
  return bytesOf(&h, sizeof h);
}

// A slot as bytes, to compare with the header bytes of an expected entry.
struct SlotBytes {
  Bytes header;    // all 80 bytes
  Bytes contents;  // every contents byte of the slot
};

class RemoteTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();  // starts the trace system: header and SRAM file
    forgetMissingRemoteSetReport();
    // A mask that is not empty, so that its restoration shows.
    sigset_t marker;
    sigemptyset(&marker);
    sigaddset(&marker, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &marker, nullptr);
    pthread_sigmask(SIG_SETMASK, nullptr, &mask_);
    sys::captureSyslog(true);
  }

  void TearDown() override {
    sys::clearFailures();
    sys::resetSyslogCapture();
    StoreTest::TearDown();
  }

  static std::uint8_t* slotAddress(std::int16_t id, unsigned index) {
    return reinterpret_cast<std::uint8_t*>(sharedSlot(id, index));
  }

  // A slot of a user set as another process sees it in the shared mapping.
  static SlotBytes userSlot(std::int16_t id, unsigned index) {
    const Slot s = slot(id, index);
    return {bytesOf(&s.header, sizeof s.header), s.contents};
  }

  // Fills a slot of a user set with a pattern, as an older entry would.
  static void fillUserSlot(std::int16_t id, unsigned index, std::uint8_t value) {
    const std::size_t size = getTraceEntrySize(descriptor(id).traceEntryContentsLength);
    std::memset(slotAddress(id, index), value, size);
  }

  Bytes sramFile() const { return readFileBytes(sram()); }

  void writeSramBytes(std::size_t offset, const void* data, std::size_t size) const {
    std::fstream file(sram(), std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  }

  // A slot of "NVJ_System" with its 128 contents bytes.
  SlotBytes remoteSlot(unsigned index) const {
    const SramEntry entry = readSramEntry(sram(), 1, index);
    return {bytesOf(&entry.header, sizeof entry.header), entry.contents};
  }

  void expectRemoteDescriptor(std::uint16_t writeIndex, std::uint16_t current, std::uint32_t total) const {
    TraceSetStruct expected = freshSramDescriptor("NVJ_System", kRemoteDataOffset);
    expected.writeIndex = writeIndex;
    expected.curentNumberEntries = current;
    expected.totalNumberEntries = total;
    const TraceSetStruct stored = readSramDescriptor(sram(), 1);
    EXPECT_EQ(bytesOf(&stored, sizeof stored), bytesOf(&expected, sizeof expected));
  }

  // The lock is free, nobody is recorded as its holder, and the caller's
  // signal mask is back.
  void expectLockReleased() const {
    expectTraceLockReleased(mask_);
  }

  static std::uint16_t lastSet() { return loadShared(&header()->lastTraceSetId); }
  static std::uint16_t lastIndex() { return loadShared(&header()->lastEntryIndex); }

  sigset_t mask_{};
};

int remote(std::int16_t id, std::uint32_t severity, std::uint32_t category, const void* data,
           std::uint16_t length = 0, const char* file = "remote.c", std::uint32_t line = 12) {
  return addRemoteEntry(id, severity, category, file, line, length, data, kPid, kTid, kReal, kMono);
}

int remoteSystem(std::int16_t id, std::uint32_t severity, const char* text, std::uint32_t category = 0x22,
                 const char* file = "remote.c", std::uint32_t line = 33) {
  return addRemoteSystemEntry(id, severity, category, file, line, text, kPid, kTid, kReal, kMono);
}

// ---- severityToSyslogPriority ---------------------------------------------------

TEST(SeverityToSyslogPriority, OneSeverityBitGivesItsPriorityAnythingElseDebug) {
  EXPECT_EQ(severityToSyslogPriority(0x08), 5);
  EXPECT_EQ(severityToSyslogPriority(0x20), 6);
  EXPECT_EQ(severityToSyslogPriority(0x40), 4);
  EXPECT_EQ(severityToSyslogPriority(0x80), 3);
  EXPECT_EQ(severityToSyslogPriority(0x80), LOG_ERR);
  EXPECT_EQ(severityToSyslogPriority(0x40), LOG_WARNING);
  EXPECT_EQ(severityToSyslogPriority(0x08), LOG_NOTICE);
  EXPECT_EQ(severityToSyslogPriority(0x20), LOG_INFO);
  for (const std::uint32_t other : {0x10u, 0u, 1u, 0x04u, 0xC8u, 0x28u, 0x108u, 0x180u, 0xFFFFFFFFu}) {
    EXPECT_EQ(severityToSyslogPriority(other), 7) << other;
  }
}

// ---- addRemoteEntry: what a slot holds ------------------------------------------

TEST_F(RemoteTest, TextWithALineFeedIsStoredWithoutItAndLoggedWithIt) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  EXPECT_EQ(remote(id, 0x20, 1, "abc\n", 0, "src/remote.c", 77), 0);
  const SlotBytes s = userSlot(id, 0);
  // The file name is stored as given, path and all; the ids and clocks are
  // the remote unit's.
  EXPECT_EQ(s.header, headerBytes({.fileName = "src/remote.c", .line = 77, .contentsLength = 3}));
  EXPECT_EQ(s.contents, textContents("abc", 128));
  EXPECT_EQ(sys::capturedSyslog(), std::vector{logged(LOG_INFO, "abc\n")});

  const TraceSetStruct d = descriptor(id);
  EXPECT_EQ(d.writeIndex, 1);
  EXPECT_EQ(d.curentNumberEntries, 1);
  EXPECT_EQ(d.totalNumberEntries, 1u);
  EXPECT_EQ(getTotalNumberTraceEntries(), 1u);
  // Not the chain's newest entry.
  EXPECT_EQ(lastSet(), 0xFFFF);
  EXPECT_EQ(lastIndex(), 0);
}

TEST_F(RemoteTest, OnlyOneTrailingLineFeedIsDropped) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  EXPECT_EQ(remote(id, 0x20, 1, "ab\n\n"), 0);
  EXPECT_EQ(userSlot(id, 0).contents, textContents("ab\n", 128));
  EXPECT_EQ(userSlot(id, 0).header, headerBytes({.contentsLength = 3}));
  EXPECT_EQ(remote(id, 0x20, 1, "a\nb"), 0);
  EXPECT_EQ(userSlot(id, 1).contents, textContents("a\nb", 128));
  EXPECT_EQ(userSlot(id, 1).header[64], 3);
}

TEST_F(RemoteTest, LongTextFillsTheWholeFieldWithoutATerminator) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  const std::string text = longText(200);
  EXPECT_EQ(remote(id, 0x20, 1, text.c_str()), 0);
  const SlotBytes s = userSlot(id, 0);
  EXPECT_EQ(s.contents, textContents(text.substr(0, 128), 128));
  EXPECT_EQ(s.header, headerBytes({.contentsLength = 128}));
  // The syslog line carries the whole text as the caller gave it.
  EXPECT_EQ(sys::capturedSyslog(), std::vector{logged(LOG_INFO, text)});
}

TEST_F(RemoteTest, TextOf128CharactersEndingInALineFeedKeeps127) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  const std::string text = longText(127) + "\n";
  EXPECT_EQ(remote(id, 0x20, 1, text.c_str()), 0);
  EXPECT_EQ(userSlot(id, 0).contents, textContents(longText(127), 128));
  EXPECT_EQ(userSlot(id, 0).header, headerBytes({.contentsLength = 127}));

  // A line feed past the 128th character is not looked at.
  const std::string longer = longText(127) + "x\n";
  EXPECT_EQ(remote(id, 0x20, 1, longer.c_str()), 0);
  EXPECT_EQ(userSlot(id, 1).contents, textContents(longText(127) + "x", 128));
  EXPECT_EQ(userSlot(id, 1).header[64], 128);
}

TEST_F(RemoteTest, TextIsCutToTheSetsMaximumAndThePaddingAfterItIsLeftAlone) {
  const std::int16_t id = createSet("Short", TS_STRING, 2, 10);
  fillUserSlot(id, 0, 0xA5);
  EXPECT_EQ(remote(id, 0x20, 1, "abcdefghijklmn"), 0);
  const SlotBytes s = userSlot(id, 0);
  // Ten characters, no terminator; the two bytes that round the slot up to
  // 12 keep what they held.
  EXPECT_EQ(s.contents, Bytes({'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 0xA5, 0xA5}));
  EXPECT_EQ(s.header, headerBytes({.contentsLength = 10, .unusedByte = 0xA5}));

  // A shorter text is zero-padded over the maximum.
  fillUserSlot(id, 1, 0xA5);
  EXPECT_EQ(remote(id, 0x20, 1, "xy"), 0);
  EXPECT_EQ(userSlot(id, 1).contents, Bytes({'x', 'y', 0, 0, 0, 0, 0, 0, 0, 0, 0xA5, 0xA5}));

  // A line feed at the cut is dropped.
  EXPECT_EQ(remote(id, 0x20, 1, "abcdefghi\nXYZ"), 0);
  EXPECT_EQ(userSlot(id, 0).contents, Bytes({'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 0, 0xA5, 0xA5}));
  EXPECT_EQ(userSlot(id, 0).header[64], 9);
}

TEST_F(RemoteTest, TheLengthArgumentIsIgnoredForTextSets) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  EXPECT_EQ(remote(id, 0x20, 1, "abcdefgh", 3), 0);
  EXPECT_EQ(userSlot(id, 0).contents, textContents("abcdefgh", 128));
  EXPECT_EQ(userSlot(id, 0).header[64], 8);
}

TEST_F(RemoteTest, DumpKeepsItsLengthAndLeavesTheRestOfTheSlotAlone) {
  const std::int16_t id = createSet("Frames", TS_DUMP, 2, 1600);
  fillUserSlot(id, 0, 0xA5);
  const std::uint8_t bytes[] = {'A', 'B', 0, 'C', 0x7F, 0x80, '\n'};
  EXPECT_EQ(remote(id, 0x20, 1, bytes, sizeof bytes), 0);
  const SlotBytes s = userSlot(id, 0);
  Bytes expected(1600, 0xA5);
  std::copy(std::begin(bytes), std::end(bytes), expected.begin());
  EXPECT_EQ(s.contents, expected);  // a trailing line feed stays in a dump
  EXPECT_EQ(s.header, headerBytes({.contentsLength = 7, .unusedByte = 0xA5}));
  // Logged as text: up to the first zero byte.
  EXPECT_EQ(sys::capturedSyslog(), std::vector{logged(LOG_INFO, "AB")});
}

TEST_F(RemoteTest, DumpOfTheMaximumLengthRecordsItsFullLength) {
  const std::int16_t id = createSet("Frames", TS_DUMP, 2, 1600);
  Bytes bytes(2000);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(1 + i % 200);
  EXPECT_EQ(remote(id, 0x20, 1, bytes.data(), 1600), 0);
  EXPECT_EQ(userSlot(id, 0).contents, Bytes(bytes.begin(), bytes.begin() + 1600));
  EXPECT_EQ(userSlot(id, 0).header, headerBytes({.contentsLength = 1600}));

  // A longer dump is cut to the maximum.
  EXPECT_EQ(remote(id, 0x20, 1, bytes.data(), 2000), 0);
  EXPECT_EQ(userSlot(id, 1).contents, Bytes(bytes.begin(), bytes.begin() + 1600));
  EXPECT_EQ(userSlot(id, 1).header[64] | userSlot(id, 1).header[65] << 8, 1600);

  // The syslog text of a dump without a zero byte ends with its length.
  const std::vector<SyslogRecord> lines = sys::capturedSyslog();
  ASSERT_EQ(lines.size(), 2u);
  const std::string all(bytes.begin(), bytes.end());
  EXPECT_EQ(lines[0], logged(LOG_INFO, all.substr(0, 1600)));
  EXPECT_EQ(lines[1], logged(LOG_INFO, all));
}

TEST_F(RemoteTest, EveryHeaderFieldComesFromTheCaller) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  fillUserSlot(id, 0, 0xA5);
  const char* fileName = "abcdefghijklmnopqrstuvwxyz0123456789ABCD";  // 40 characters
  const std::uint32_t real[2] = {0xFFFFFFFEu, 999999999u};
  const std::uint32_t mono[2] = {1u, 2u};
  EXPECT_EQ(addRemoteEntry(id, 0x120, 0xDEADBEEF, fileName, 0xFFFFFFFFu, 0, "fields", -7, 0x7FFFFFFF, real, mono),
            0);
  // 29 characters of the name; byte 29 and the unused bytes are not
  // written. Only the low byte of the severity is kept.
  EXPECT_EQ(userSlot(id, 0).header,
            headerBytes({.fileName = "abcdefghijklmnopqrstuvwxyz012", .line = -1, .severity = 0x20,
                         .category = 0xDEADBEEF, .contentsLength = 6, .pid = 0xFFFFFFF9u, .tid = 0x7FFFFFFF,
                         .real = {0xFFFFFFFEu, 999999999u}, .mono = {1u, 2u}, .unusedByte = 0xA5}));
  const Bytes header = userSlot(id, 0).header;
  EXPECT_EQ(header[29], 0xA5);
  EXPECT_EQ(Bytes(header.begin() + 56, header.begin() + 64), Bytes({0, 0, 0, 1, 0, 0, 0, 2}));
  EXPECT_EQ(Bytes(header.begin() + 72, header.begin() + 80), Bytes({0xFF, 0xFF, 0xFF, 0xFE, 0x3B, 0x9A, 0xC9, 0xFF}));
  // The priority comes from the whole severity, which is no single bit.
  EXPECT_EQ(sys::capturedSyslog(), (std::vector<SyslogRecord>{{LOG_DEBUG, "[PID:-7][TID:2147483647] fields"}}));
}

TEST_F(RemoteTest, MissingFileNameAndClocksAreStoredAsZeros) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  fillUserSlot(id, 0, 0xA5);
  EXPECT_EQ(addRemoteEntry(id, 0x20, 1, nullptr, 5, 0, "anonymous", kPid, kTid, nullptr, nullptr), 0);
  EXPECT_EQ(userSlot(id, 0).header, headerBytes({.fileName = nullptr, .line = 5, .contentsLength = 9,
                                                 .real = {0, 0}, .mono = {0, 0}, .unusedByte = 0xA5}));
}

// ---- addRemoteEntry: the ring, the numbering, the chain -------------------------

TEST_F(RemoteTest, TheFourthRecordOfAThreeSlotRingLandsInSlotZero) {
  const std::int16_t id = createSet("Radio", TS_STRING, 3);
  for (const char* text : {"one", "two", "three", "four"}) EXPECT_EQ(remote(id, 0x20, 1, text), 0);
  EXPECT_EQ(userSlot(id, 0).contents, textContents("four", 128));
  EXPECT_EQ(userSlot(id, 0).header, headerBytes({.sequenceNumber = 3, .contentsLength = 4}));
  EXPECT_EQ(userSlot(id, 1).contents, textContents("two", 128));
  EXPECT_EQ(userSlot(id, 2).contents, textContents("three", 128));
  const TraceSetStruct d = descriptor(id);
  EXPECT_EQ(d.writeIndex, 1);
  EXPECT_EQ(d.curentNumberEntries, 3);
  EXPECT_EQ(d.totalNumberEntries, 4u);
  EXPECT_EQ(getTotalNumberTraceEntries(), 4u);
  EXPECT_EQ(sys::capturedSyslog().size(), 4u);
}

TEST_F(RemoteTest, RemoteRecordsStayOutOfTheChainOfEntries) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), 0x20, 1, "local.c", 1, "local one"), 0);
  ASSERT_EQ(lastSet(), id);
  ASSERT_EQ(lastIndex(), 0);

  // The remote record links to the newest entry but does not become it.
  EXPECT_EQ(remote(id, 0x20, 1, "remote"), 0);
  EXPECT_EQ(userSlot(id, 1).header,
            headerBytes({.sequenceNumber = 1, .contentsLength = 6, .prevTraceSetId = 0, .prevEntryIndex = 0}));
  EXPECT_EQ(lastSet(), id);
  EXPECT_EQ(lastIndex(), 0);

  // The next local entry links past it to the previous local one.
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), 0x20, 1, "local.c", 2, "local two"), 0);
  TraceEntryHeader local;
  std::memcpy(&local, slotAddress(id, 2), sizeof local);
  EXPECT_EQ(local.sequenceNumber, 2u);
  EXPECT_EQ(local.prevTraceSetId, id);
  EXPECT_EQ(local.prevEntryIndex, 0);
  EXPECT_EQ(lastIndex(), 2);
}

// ---- addRemoteEntry: records that are not stored --------------------------------

TEST_F(RemoteTest, DebugRecordDroppedByTheSeverityFilterLeavesNoTrace) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  ASSERT_EQ(getSeverityFilter(), 0xE8);
  const Bytes before = readSharedObject(shmName());
  EXPECT_EQ(remote(id, 0x10, 1, "debug"), 0);
  EXPECT_EQ(readSharedObject(shmName()), before);
  EXPECT_TRUE(sys::capturedSyslog().empty());
}

TEST_F(RemoteTest, RecordOutsideTheSetsCategoryMaskLeavesNoTrace) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4, 128, 0x0F);
  const Bytes before = readSharedObject(shmName());
  EXPECT_EQ(remote(id, 0x20, 0x10, "other category"), 0);
  // Error severity is filtered the same way: no error trace set here.
  EXPECT_EQ(remote(id, 0x80, 0xF0, "error"), 0);
  EXPECT_EQ(readSharedObject(shmName()), before);
  EXPECT_TRUE(sys::capturedSyslog().empty());
}

TEST_F(RemoteTest, ErrorClassRecordsAreStoredInTheSetsRingAtTheirPriorities) {
  const std::int16_t id = createSet("Radio", TS_STRING, 8);
  ASSERT_EQ(modifySeverityMask(0x10, 1), 0);
  const Bytes sramBefore = sramFile();
  const std::uint8_t severities[] = {0x80, 0x40, 0x08, 0x20, 0x10};
  for (const std::uint8_t severity : severities) EXPECT_EQ(remote(id, severity, 1, "s"), 0);
  for (unsigned i = 0; i < 5; ++i) {
    EXPECT_EQ(userSlot(id, i).header[40], severities[i]) << i;
  }
  EXPECT_EQ(sramFile(), sramBefore);
  EXPECT_EQ(sys::capturedSyslog(),
            (std::vector{logged(LOG_ERR, "s"), logged(LOG_WARNING, "s"), logged(LOG_NOTICE, "s"),
                         logged(LOG_INFO, "s"), logged(LOG_DEBUG, "s")}));
}

TEST_F(RemoteTest, EmptyTextStoresTheNoticeInTheRemoteSystemSetWithTheSetsName) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  const Bytes before = Bytes(slotAddress(id, 0), slotAddress(id, 1));
  EXPECT_EQ(remote(id, 0x20, 1, "", 0, "remote.c", 12), 0);
  EXPECT_EQ(Bytes(slotAddress(id, 0), slotAddress(id, 1)), before);
  EXPECT_EQ(descriptor(id).totalNumberEntries, 0u);

  // Prefix and notice count in the length; the slot keeps the prefix.
  const SlotBytes s = remoteSlot(0);
  EXPECT_EQ(s.header, headerBytes({.line = 12, .severity = 0x08, .category = 0x80000001u, .contentsLength = 38}));
  EXPECT_EQ(s.contents, textContents("Radio: ", 128));
  expectRemoteDescriptor(1, 1, 1);
  EXPECT_EQ(lastSet(), 254);
  EXPECT_EQ(lastIndex(), 0);
  EXPECT_EQ(sys::capturedSyslog(), std::vector{logged(LOG_NOTICE, "Trying to add empty trace entry")});
  expectLockReleased();
}

TEST_F(RemoteTest, EmptyDumpAndMissingDataStoreTheNoticeToo) {
  const std::int16_t id = createSet("Frames", TS_DUMP, 2, 1600);
  const std::uint8_t bytes[] = {1, 2, 3};
  EXPECT_EQ(remote(id, 0x20, 1, bytes, 0), 0);
  EXPECT_EQ(remote(id, 0x20, 1, nullptr, 3), 0);
  EXPECT_EQ(descriptor(id).totalNumberEntries, 0u);
  expectRemoteDescriptor(2, 2, 2);
  EXPECT_EQ(remoteSlot(1).contents, textContents("Frames: ", 128));
  EXPECT_EQ(remoteSlot(1).header[64], 39);
  EXPECT_EQ(sys::capturedSyslog(), (std::vector{logged(LOG_NOTICE, "Trying to add empty trace entry"),
                                                logged(LOG_NOTICE, "Trying to add empty trace entry")}));
}

TEST_F(RemoteTest, RefusalsStoreAndLogNothing) {
  createSet("Radio", TS_STRING, 4);
  const Bytes shm = readSharedObject(shmName());
  const Bytes sramBefore = sramFile();
  StderrCapture capture;
  EXPECT_EQ(remote(1, 0x20, 1, "no set 1"), -5);
  EXPECT_EQ(remote(-1, 0x20, 1, "negative"), -5);
  EXPECT_EQ(remote(300, 0x20, 1, "too high"), -5);
  // The two sets of the SRAM file have no ring in shared memory.
  EXPECT_EQ(remote(255, 0x20, 1, "system"), -10);
  EXPECT_EQ(remote(254, 0x20, 1, "remote system"), -10);
  EXPECT_EQ(remote(254, 0x20, 1, ""), -10);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(readSharedObject(shmName()), shm);
  EXPECT_EQ(sramFile(), sramBefore);
  EXPECT_TRUE(sys::capturedSyslog().empty());
}

TEST_F(RemoteTest, DisabledTracingStoresNothing) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  storeShared(&header()->traceEnabled, 0u);
  const Bytes shm = readSharedObject(shmName());
  const Bytes sramBefore = sramFile();
  EXPECT_EQ(remote(id, 0x20, 1, "off"), 0);
  EXPECT_EQ(remote(id, 0x20, 1, ""), 0);
  EXPECT_EQ(remote(300, 0x20, 1, "unknown"), 0);
  EXPECT_EQ(readSharedObject(shmName()), shm);
  EXPECT_EQ(sramFile(), sramBefore);
  EXPECT_TRUE(sys::capturedSyslog().empty());
}

TEST_F(RemoteTest, SlotOutsideTheMappingDropsTheRecordBeforeAnythingChanges) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  TraceSetStruct* d = userDescriptor(static_cast<unsigned>(id));
  storeShared(&d->dataOffset, g_process.size - 100);
  const Bytes shm = readSharedObject(shmName());
  EXPECT_EQ(remote(id, 0x20, 1, "outside"), 0);
  storeShared(&d->dataOffset, 9850u);  // not word-aligned
  EXPECT_EQ(remote(id, 0x20, 1, "unaligned"), 0);
  storeShared(&d->dataOffset, g_process.size - 100);
  EXPECT_EQ(readSharedObject(shmName()), shm);
  EXPECT_TRUE(sys::capturedSyslog().empty());
}

TEST_F(RemoteTest, ErrnoIsTheCallersAfterEveryCall) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  errno = 1234;
  remote(id, 0x20, 1, "stored");
  EXPECT_EQ(errno, 1234);
  remote(300, 0x20, 1, "refused");
  EXPECT_EQ(errno, 1234);
  remote(id, 0x20, 1, "");
  EXPECT_EQ(errno, 1234);
  remoteSystem(id, 0x40, "system");
  EXPECT_EQ(errno, 1234);
  ASSERT_EQ(unlink(sram().c_str()), 0);
  {
    StderrCapture capture;
    remoteSystem(id, 0x40, "no file");
  }
  EXPECT_EQ(errno, 1234);
  isRemoteTraceSet(id);
  EXPECT_EQ(errno, 1234);
}

// ---- addRemoteEntry: writers at once --------------------------------------------

TEST_F(RemoteTest, ThreadsStoringIntoOneSetNeverShareASlotOrASequenceNumber) {
  useRealLockDeadline();
  constexpr int kThreads = 4;
  constexpr int kRecords = 50;
  const std::int16_t id = createSet("Radio", TS_STRING, kThreads * kRecords);
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      while (!go.load()) std::this_thread::yield();
      for (int i = 0; i < kRecords; ++i) {
        const std::string text = "thread " + std::to_string(t) + " record " + std::to_string(i);
        addRemoteEntry(id, 0x20, 1, "thread.c", static_cast<std::uint32_t>(t), 0, text.c_str(), 100 + t, 200 + t,
                       kReal, kMono);
      }
    });
  }
  go.store(true);
  for (auto& thread : threads) thread.join();

  const TraceSetStruct d = descriptor(id);
  EXPECT_EQ(d.totalNumberEntries, static_cast<std::uint32_t>(kThreads * kRecords));
  EXPECT_EQ(d.curentNumberEntries, kThreads * kRecords);
  EXPECT_EQ(d.writeIndex, 0);
  EXPECT_EQ(getTotalNumberTraceEntries(), static_cast<std::uint32_t>(kThreads * kRecords));
  std::set<std::uint32_t> sequenceNumbers;
  std::set<std::string> texts;
  for (unsigned i = 0; i < kThreads * kRecords; ++i) {
    TraceEntryHeader h;
    std::memcpy(&h, slotAddress(id, i), sizeof h);
    const SlotBytes s = userSlot(id, i);
    const std::string text(reinterpret_cast<const char*>(s.contents.data()));
    sequenceNumbers.insert(h.sequenceNumber);
    texts.insert(text);
    EXPECT_EQ(text.rfind("thread " + std::to_string(h.line) + " ", 0), 0u) << text;
    EXPECT_EQ(h.pid, 100u + static_cast<std::uint32_t>(h.line));
    EXPECT_EQ(h.tid, 200u + static_cast<std::uint32_t>(h.line));
    EXPECT_EQ(h.contentsLength, text.size());
  }
  EXPECT_EQ(sequenceNumbers.size(), static_cast<std::size_t>(kThreads * kRecords));
  EXPECT_EQ(*sequenceNumbers.rbegin(), static_cast<std::uint32_t>(kThreads * kRecords - 1));
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(kThreads * kRecords));
  EXPECT_EQ(sys::capturedSyslog().size(), static_cast<std::size_t>(kThreads * kRecords));
}

// ---- addRemoteSystemEntry: what a slot holds ------------------------------------

TEST_F(RemoteTest, SystemRecordKeepsTheSetNamePrefixAndLogsTheText) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  ASSERT_EQ(id, 0);
  const Bytes before = sramFile();
  EXPECT_EQ(remoteSystem(id, 0x40, "link down"), 0);
  // The text is counted but not copied: the slot holds the prefix alone.
  const SlotBytes s = remoteSlot(0);
  EXPECT_EQ(s.header, headerBytes({.line = 33, .severity = 0x40, .category = 0x22, .contentsLength = 16}));
  EXPECT_EQ(s.contents, textContents("Radio: ", 128));
  expectRemoteDescriptor(1, 1, 1);
  EXPECT_EQ(getTotalNumberTraceEntries(), 1u);
  EXPECT_EQ(lastSet(), 254);
  EXPECT_EQ(lastIndex(), 0);
  EXPECT_EQ(sys::capturedSyslog(), std::vector{logged(LOG_WARNING, "link down")});
  expectLockReleased();

  // Nothing else in the file changed: the error trace set is untouched.
  const Bytes file = sramFile();
  ASSERT_EQ(file.size(), kSramFileSize + 208);
  EXPECT_TRUE(std::equal(before.begin(), before.begin() + kRemoteDescriptorOffset, file.begin()));
}

TEST_F(RemoteTest, SystemRecordOfErrorSeverityCarriesNoPrefixAndNoText) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  EXPECT_EQ(remoteSystem(id, 0x80, "link down"), 0);
  EXPECT_EQ(remoteSlot(0).header, headerBytes({.line = 33, .severity = 0x80, .category = 0x22, .contentsLength = 9}));
  EXPECT_EQ(remoteSlot(0).contents, Bytes(128, 0));
  EXPECT_EQ(sys::capturedSyslog(), std::vector{logged(LOG_ERR, "link down")});
}

TEST_F(RemoteTest, SystemRecordHeaderFields) {
  const char* fileName = "abcdefghijklmnopqrstuvwxyz0123456789ABCD";
  const std::uint32_t real[2] = {1u, 2u};
  const std::uint32_t mono[2] = {0x80000000u, 3u};
  storeShared(&header()->lastTraceSetId, 7u);
  storeShared(&header()->lastEntryIndex, 3u);
  storeShared(&header()->totalNumberTraceEntries, 41u);
  EXPECT_EQ(addRemoteSystemEntry(254, 0x108, 0x80000001u, fileName, 0xFFFFFFFFu, "fields", -1, 0, real, mono), 0);
  EXPECT_EQ(remoteSlot(0).header,
            headerBytes({.fileName = "abcdefghijklmnopqrstuvwxyz012", .line = -1, .severity = 0x08,
                         .category = 0x80000001u, .sequenceNumber = 41, .contentsLength = 6, .prevTraceSetId = 7,
                         .prevEntryIndex = 3, .pid = 0xFFFFFFFFu, .tid = 0, .real = {1u, 2u},
                         .mono = {0x80000000u, 3u}}));
  EXPECT_EQ(getTotalNumberTraceEntries(), 42u);
  EXPECT_EQ(lastSet(), 254);
  EXPECT_EQ(lastIndex(), 0);
  EXPECT_EQ(sys::capturedSyslog(), (std::vector<SyslogRecord>{{LOG_DEBUG, "[PID:-1][TID:0] fields"}}));

  // A missing file name and missing clocks leave zeros.
  EXPECT_EQ(addRemoteSystemEntry(254, 0x40, 1, nullptr, 2, "anonymous", kPid, kTid, nullptr, nullptr), 0);
  EXPECT_EQ(remoteSlot(1).header,
            headerBytes({.fileName = nullptr, .line = 2, .severity = 0x40, .sequenceNumber = 42,
                         .contentsLength = 9, .prevTraceSetId = 254, .prevEntryIndex = 0, .real = {0, 0},
                         .mono = {0, 0}}));
}

TEST_F(RemoteTest, SystemRecordsAreStoredWhileTracingIsDisabledAndWhateverTheMasks) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4, 128, 0x01);
  storeShared(&header()->traceEnabled, 0u);
  EXPECT_EQ(remoteSystem(id, 0x40, "while disabled"), 0);
  EXPECT_EQ(remoteSystem(id, 0x10, "debug", 0x100), 0);
  EXPECT_EQ(remoteSystem(254, 0x20, "no category", 0), 0);
  expectRemoteDescriptor(3, 3, 3);
  EXPECT_EQ(remoteSlot(0).header[64], 21);
  EXPECT_EQ(remoteSlot(1).header[40], 0x10);
  EXPECT_EQ(remoteSlot(2).header, headerBytes({.line = 33, .severity = 0x20, .category = 0, .sequenceNumber = 2,
                                               .contentsLength = 11, .prevTraceSetId = 254, .prevEntryIndex = 1}));
  EXPECT_EQ(sys::capturedSyslog(),
            (std::vector{logged(LOG_WARNING, "while disabled"), logged(LOG_DEBUG, "debug"),
                         logged(LOG_INFO, "no category")}));
}

TEST_F(RemoteTest, OriginsOtherThanUserSetsAndTheRemoteSystemSetAreStoredAsErrors) {
  createSet("Radio", TS_STRING, 4);  // id 0; id 1 does not exist
  EXPECT_EQ(remoteSystem(254, 0x40, "remote"), 0);
  EXPECT_EQ(remoteSlot(0).header[40], 0x40);
  EXPECT_EQ(remoteSlot(0).contents, Bytes(128, 0));

  // Here 255 is not a valid origin.
  EXPECT_EQ(remoteSystem(255, 0x40, "system"), -5);
  EXPECT_EQ(remoteSlot(1).header[40], 0x80);
  EXPECT_EQ(remoteSlot(1).header[64], 6);
  EXPECT_EQ(remoteSystem(1, 0x08, "next"), -5);
  EXPECT_EQ(remoteSlot(2).header[40], 0x80);
  EXPECT_EQ(remoteSystem(300, 0x20, "high"), -5);
  EXPECT_EQ(remoteSlot(3).header[40], 0x80);

  // A negative id is below the number of sets: it keeps its severity and
  // finds no name.
  EXPECT_EQ(remoteSystem(-1, 0x40, "negative"), 0);
  EXPECT_EQ(remoteSlot(4).header[40], 0x40);
  EXPECT_EQ(remoteSlot(4).contents, Bytes(128, 0));
  EXPECT_EQ(remoteSlot(4).header[64], 8);

  // An error is not checked against its origin.
  EXPECT_EQ(remoteSystem(300, 0x80, "error"), 0);
  EXPECT_EQ(remoteSlot(5).header[40], 0x80);
  expectRemoteDescriptor(6, 6, 6);

  // A record stored as an error is logged as one.
  EXPECT_EQ(sys::capturedSyslog(),
            (std::vector{logged(LOG_WARNING, "remote"), logged(LOG_ERR, "system"), logged(LOG_ERR, "next"),
                         logged(LOG_ERR, "high"), logged(LOG_WARNING, "negative"), logged(LOG_ERR, "error")}));
}

TEST_F(RemoteTest, PrefixCutsTheSetNameAtTwentyCharacters) {
  const std::int16_t id = createSet("ABCDEFGHIJKLMNOPQRSTUVWXY", TS_STRING, 4);  // stored with 19
  EXPECT_EQ(remoteSystem(id, 0x40, "x"), 0);
  EXPECT_EQ(remoteSlot(0).contents, textContents("ABCDEFGHIJKLMNOPQRS: ", 128));
  EXPECT_EQ(remoteSlot(0).header[64], 22);

  // A name that fills all 20 bytes gives a 22-character prefix.
  std::memcpy(userDescriptor(static_cast<unsigned>(id))->name, "ABCDEFGHIJKLMNOPQRSTUVWXY", 20);
  EXPECT_EQ(remoteSystem(id, 0x40, "x"), 0);
  EXPECT_EQ(remoteSlot(1).contents, textContents("ABCDEFGHIJKLMNOPQRST: ", 128));
  EXPECT_EQ(remoteSlot(1).header[64], 23);
}

TEST_F(RemoteTest, TheLengthIsTheTextLengthModulo256ThenCutTo128) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  EXPECT_EQ(remoteSystem(id, 0x80, longText(200).c_str()), 0);
  EXPECT_EQ(remoteSlot(0).header[64], 128);
  EXPECT_EQ(remoteSystem(id, 0x80, longText(300).c_str()), 0);
  EXPECT_EQ(remoteSlot(1).header[64], 44);
  EXPECT_EQ(remoteSystem(id, 0x40, longText(256).c_str()), 0);
  EXPECT_EQ(remoteSlot(2).header[64], 7);  // the prefix alone
  EXPECT_EQ(remoteSystem(id, 0x40, longText(250).c_str()), 0);
  EXPECT_EQ(remoteSlot(3).header[64], 1);  // 250 + 7 wraps to 1
  expectRemoteDescriptor(4, 4, 4);
  EXPECT_EQ(sys::capturedSyslog(), (std::vector{logged(LOG_ERR, longText(200)), logged(LOG_ERR, longText(300)),
                                                logged(LOG_WARNING, longText(256)), logged(LOG_WARNING, longText(250))}));
}

TEST_F(RemoteTest, EmptyRecordIsRejectedButConsumesASequenceNumberAndIsLogged) {
  EXPECT_EQ(remoteSystem(254, 0x40, "first"), 0);
  const Bytes file = sramFile();
  for (const std::string& text : {std::string(), longText(256), longText(512)}) {
    StderrCapture capture;
    EXPECT_EQ(remoteSystem(254, 0x40, text.c_str()), 0);
    EXPECT_EQ(capture.take(),
              "traceLibLocal.c (addRemoteSystemEntry,3940): Ignoring attempt to add empty string as trace entry\n");
  }
  // An unknown origin keeps its result.
  {
    StderrCapture capture;
    EXPECT_EQ(remoteSystem(300, 0x40, ""), -5);
    EXPECT_EQ(capture.take(),
              "traceLibLocal.c (addRemoteSystemEntry,3940): Ignoring attempt to add empty string as trace entry\n");
  }
  EXPECT_EQ(sramFile(), file);
  EXPECT_EQ(getTotalNumberTraceEntries(), 5u);
  EXPECT_EQ(lastSet(), 254);
  EXPECT_EQ(lastIndex(), 0);
  EXPECT_EQ(sys::capturedSyslog(), (std::vector{logged(LOG_WARNING, "first"), logged(LOG_WARNING, ""),
                                                logged(LOG_WARNING, longText(256)), logged(LOG_WARNING, longText(512)),
                                                logged(LOG_ERR, "")}));
  expectLockReleased();

  // The next record shows the gap in the numbering.
  EXPECT_EQ(remoteSystem(254, 0x40, "second"), 0);
  EXPECT_EQ(readSramEntry(sram(), 1, 1).header.sequenceNumber, 5u);
  expectRemoteDescriptor(2, 2, 2);
}

TEST_F(RemoteTest, TrailingNewlinesCountBecauseTheTextIsNotInTheContents) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  EXPECT_EQ(remoteSystem(id, 0x80, "abc\n"), 0);
  EXPECT_EQ(remoteSlot(0).header[64], 4);
  EXPECT_EQ(remoteSystem(id, 0x40, "\n\n"), 0);
  EXPECT_EQ(remoteSlot(1).header[64], 9);
  EXPECT_EQ(remoteSlot(1).contents, textContents("Radio: ", 128));
  EXPECT_EQ(sys::capturedSyslog(), (std::vector{logged(LOG_ERR, "abc\n"), logged(LOG_WARNING, "\n\n")}));
}

TEST_F(RemoteTest, MissingTextIsAnEmptyText) {
  StderrCapture capture;
  EXPECT_EQ(addRemoteSystemEntry(254, 0x40, 1, "remote.c", 1, nullptr, kPid, kTid, kReal, kMono), 0);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (addRemoteSystemEntry,3940): Ignoring attempt to add empty string as trace entry\n");
  EXPECT_EQ(sys::capturedSyslog(), std::vector{logged(LOG_WARNING, "")});
}

TEST_F(RemoteTest, ARegionOfShorterEntriesGetsTheTextAfterThePrefix) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  TraceSetStruct d = freshSramDescriptor("NVJ_System", kRemoteDataOffset);
  d.traceEntryContentsLength = 20;
  writeSramBytes(kRemoteDescriptorOffset, &d, sizeof d);
  const Bytes pattern208(208 * 2, 0xA5);
  writeSramBytes(kRemoteDataOffset, pattern208.data(), pattern208.size());

  // At most 20 - 7 characters of the text, then the trailing newline strip
  // over the buffer as it stands.
  EXPECT_EQ(remoteSystem(id, 0x40, "link down\n"), 0);
  Bytes file = sramFile();
  Bytes contents(file.begin() + kRemoteDataOffset + 80, file.begin() + kRemoteDataOffset + 100);
  EXPECT_EQ(contents, textContents("Radio: link down", 20));
  EXPECT_EQ(file[kRemoteDataOffset + 64], 16);
  // Only the set's 20 contents bytes are written.
  EXPECT_EQ(file[kRemoteDataOffset + 100], 0xA5);

  // Slots of 100 bytes: the second one starts at 100.
  EXPECT_EQ(remoteSystem(id, 0x40, "abcdefghijklmnopqrstuvwxyz"), 0);
  file = sramFile();
  const std::size_t second = kRemoteDataOffset + 100;
  EXPECT_EQ(Bytes(file.begin() + second + 80, file.begin() + second + 100), textContents("Radio: abcdefghijklm", 20));
  EXPECT_EQ(file[second + 64], 33);  // the length counts the whole text
  const TraceSetStruct stored = readSramDescriptor(sram(), 1);
  EXPECT_EQ(stored.writeIndex, 2);
  EXPECT_EQ(stored.totalNumberEntries, 2u);
}

TEST_F(RemoteTest, ARegionOfLongerEntriesGetsNoContents) {
  TraceSetStruct d = freshSramDescriptor("NVJ_System", kRemoteDataOffset);
  d.traceEntryContentsLength = 200;
  writeSramBytes(kRemoteDescriptorOffset, &d, sizeof d);
  const Bytes filler(300, 0xA5);
  writeSramBytes(kRemoteDataOffset, filler.data(), filler.size());
  EXPECT_EQ(remoteSystem(254, 0x40, "long"), 0);
  const Bytes file = sramFile();
  EXPECT_EQ(Bytes(file.begin() + kRemoteDataOffset, file.begin() + kRemoteDataOffset + 80),
            headerBytes({.line = 33, .severity = 0x40, .category = 0x22, .contentsLength = 4}));
  EXPECT_EQ(Bytes(file.begin() + kRemoteDataOffset + 80, file.begin() + kRemoteDataOffset + 300), Bytes(220, 0xA5));
  EXPECT_EQ(readSramDescriptor(sram(), 1).writeIndex, 1);
}

// ---- addRemoteSystemEntry: the ring and the chain -------------------------------

TEST_F(RemoteTest, SystemRecordsContinueFromTheDescriptorInTheFileAndWrap) {
  TraceSetStruct d = freshSramDescriptor("NVJ_System", kRemoteDataOffset);
  d.writeIndex = 737;
  d.curentNumberEntries = 738;
  d.totalNumberEntries = 5000;
  writeSramBytes(kRemoteDescriptorOffset, &d, sizeof d);
  EXPECT_EQ(remoteSystem(254, 0x80, "last slot"), 0);
  expectRemoteDescriptor(0, 738, 5001);
  EXPECT_EQ(remoteSlot(737).header[64], 9);
  EXPECT_EQ(lastIndex(), 737);
  EXPECT_EQ(remoteSystem(254, 0x80, "first slot"), 0);
  expectRemoteDescriptor(1, 738, 5002);
  EXPECT_EQ(remoteSlot(0).header, headerBytes({.line = 33, .severity = 0x80, .category = 0x22, .sequenceNumber = 1,
                                               .contentsLength = 10, .prevTraceSetId = 254, .prevEntryIndex = 737}));
  // Nothing past the region's last slot.
  EXPECT_EQ(sramFile().size(), static_cast<std::size_t>(kRemoteDataOffset + 738 * 208));
}

TEST_F(RemoteTest, SystemRecordsJoinTheChainOfEntries) {
  const std::int16_t id = createSet("Radio", TS_STRING, 4);
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), 0x20, 1, "local.c", 1, "local"), 0);
  EXPECT_EQ(remoteSystem(id, 0x40, "remote"), 0);
  EXPECT_EQ(remoteSlot(0).header, headerBytes({.line = 33, .severity = 0x40, .category = 0x22, .sequenceNumber = 1,
                                               .contentsLength = 13, .prevTraceSetId = 0, .prevEntryIndex = 0}));
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), 0x20, 1, "local.c", 2, "local"), 0);
  TraceEntryHeader local;
  std::memcpy(&local, slotAddress(id, 1), sizeof local);
  EXPECT_EQ(local.sequenceNumber, 2u);
  EXPECT_EQ(local.prevTraceSetId, 254);
  EXPECT_EQ(local.prevEntryIndex, 0);
}

// ---- addRemoteSystemEntry: a missing region -------------------------------------

TEST_F(RemoteTest, MissingRegionIsReportedOncePerProcessAndLoggedAfterwards) {
  const char other[20] = "Other";
  writeSramBytes(kRemoteDescriptorOffset, other, sizeof other);
  const Bytes fileBefore = sramFile();
  const Bytes remoteRegion(fileBefore.begin() + kRemoteDescriptorOffset, fileBefore.end());

  EXPECT_EQ(remoteSystem(254, 0x40, "first"), -10);
  // No syslog line this time: the record goes to the error trace set.
  EXPECT_TRUE(sys::capturedSyslog().empty());
  const SramEntry report = readSramEntry(sram(), 0, 0);
  expectLibraryRecord(report, 3901, "addRemoteSystemEntry: trace set struct for NVJ_System not found");
  EXPECT_EQ(report.header.contentsLength, 63);
  EXPECT_EQ(report.header.pid, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(readSramDescriptor(sram(), 0).totalNumberEntries, 1u);
  expectLockReleased();

  // Later calls only log, whatever their origin.
  EXPECT_EQ(remoteSystem(254, 0x40, "second"), -10);
  EXPECT_EQ(remoteSystem(300, 0x40, "third"), -10);
  EXPECT_EQ(sys::capturedSyslog(), (std::vector{logged(LOG_WARNING, "second"), logged(LOG_ERR, "third")}));
  EXPECT_EQ(readSramDescriptor(sram(), 0).totalNumberEntries, 1u);
  const Bytes fileAfter = sramFile();
  EXPECT_EQ(Bytes(fileAfter.begin() + kRemoteDescriptorOffset, fileAfter.end()), remoteRegion);
  EXPECT_EQ(getTotalNumberTraceEntries(), 1u);
  expectLockReleased();

  // Another process reports it once again, once.
  const int status = runInChild([] {
    forgetMissingRemoteSetReport();  // as a process that never reported it
    sys::captureSyslog(true);
    int failures = remoteSystem(254, 0x40, "child one") != -10;
    failures += remoteSystem(254, 0x40, "child two") != -10;
    failures += sys::capturedSyslog() != std::vector{logged(LOG_WARNING, "child two")};
    return failures;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(readSramDescriptor(sram(), 0).totalNumberEntries, 2u);
}

TEST_F(RemoteTest, RegionNameIsComparedOverTwentyCharacters) {
  // Bytes after the terminator do not matter; one more character does.
  char name[20] = "NVJ_System";
  std::memset(name + 11, 'x', 9);
  writeSramBytes(kRemoteDescriptorOffset, name, sizeof name);
  EXPECT_EQ(remoteSystem(254, 0x40, "kept"), 0);
  writeSramBytes(kRemoteDescriptorOffset, "NVJ_SystemX", 12);
  EXPECT_EQ(remoteSystem(254, 0x40, "lost"), -10);
}

// ---- addRemoteSystemEntry: file failures ----------------------------------------

TEST_F(RemoteTest, MissingFileIsReportedAndLogged) {
  ASSERT_EQ(unlink(sram().c_str()), 0);
  StderrCapture capture;
  EXPECT_EQ(remoteSystem(254, 0x40, "lost"), 0);
  EXPECT_EQ(remoteSystem(300, 0x40, "lost too"), -5);
  EXPECT_EQ(capture.take(), "'stat' failed for '" + sram() + "': No such file or directory.\n" +
                                "'stat' failed for '" + sram() + "': No such file or directory.\n");
  EXPECT_FALSE(fileExists(sram()));
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  EXPECT_EQ(sys::capturedSyslog(), (std::vector{logged(LOG_WARNING, "lost"), logged(LOG_ERR, "lost too")}));
  expectLockReleased();
}

TEST_F(RemoteTest, FailedStatusQuery) {
  const Bytes file = sramFile();
  sys::failCall(Call::kStat, 1, EACCES);
  StderrCapture capture;
  EXPECT_EQ(remoteSystem(254, 0x40, "lost"), 0);
  EXPECT_EQ(capture.take(), "'stat' failed for '" + sram() + "': Permission denied.\n");
  EXPECT_EQ(sramFile(), file);
  EXPECT_EQ(sys::capturedSyslog(), std::vector{logged(LOG_WARNING, "lost")});
  expectLockReleased();
}

TEST_F(RemoteTest, FileLargerThanTheLimitIsLeftAloneSilently) {
  ASSERT_EQ(truncate(sram().c_str(), kMaxSramFileSize + 1), 0);
  const Bytes file = sramFile();
  StderrCapture capture;
  EXPECT_EQ(remoteSystem(254, 0x40, "lost"), 0);
  EXPECT_EQ(remoteSystem(255, 0x40, "lost"), -5);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(sramFile(), file);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  EXPECT_EQ(sys::capturedSyslog(), (std::vector{logged(LOG_WARNING, "lost"), logged(LOG_ERR, "lost")}));
  expectLockReleased();

  // Exactly at the limit the record is written.
  ASSERT_EQ(truncate(sram().c_str(), kMaxSramFileSize), 0);
  EXPECT_EQ(remoteSystem(254, 0x40, "kept"), 0);
  expectRemoteDescriptor(1, 1, 1);
}

TEST_F(RemoteTest, ReadOnlyOpenFailure) {
  const Bytes file = sramFile();
  sys::failCall(Call::kOpen, 1, EACCES);
  StderrCapture capture;
  EXPECT_EQ(remoteSystem(300, 0x40, "lost"), -6);  // -6 replaces -5
  EXPECT_EQ(capture.take(), "traceLibLocal.c(3870): File access error for " + sram() + ": Permission denied!\n");
  EXPECT_EQ(sramFile(), file);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  EXPECT_EQ(sys::capturedSyslog(), std::vector{logged(LOG_ERR, "lost")});
  expectLockReleased();
}

TEST_F(RemoteTest, ShortDescriptorRead) {
  ASSERT_EQ(truncate(sram().c_str(), kRemoteDescriptorOffset + 20), 0);
  const Bytes file = sramFile();
  StderrCapture capture;
  errno = 0;  // the short read itself sets no errno
  EXPECT_EQ(remoteSystem(254, 0x40, "lost"), -6);
  EXPECT_EQ(capture.take(), "traceLibLocal.c(3880): Error reading " + sram() + ": Success!\n");
  EXPECT_EQ(sramFile(), file);
  EXPECT_EQ(sys::capturedSyslog(), std::vector{logged(LOG_WARNING, "lost")});
  expectLockReleased();
}

TEST_F(RemoteTest, FailedDescriptorRead) {
  sys::failCall(Call::kRead, 1, EIO);
  StderrCapture capture;
  EXPECT_EQ(remoteSystem(254, 0x40, "lost"), -6);
  EXPECT_EQ(capture.take(), "traceLibLocal.c(3880): Error reading " + sram() + ": Input/output error!\n");
  EXPECT_EQ(sys::capturedSyslog(), std::vector{logged(LOG_WARNING, "lost")});
  expectLockReleased();
}

TEST_F(RemoteTest, WriteOnlyOpenFailure) {
  const Bytes file = sramFile();
  sys::failCall(Call::kOpen, 2, EROFS);
  StderrCapture capture;
  EXPECT_EQ(remoteSystem(254, 0x40, "lost"), -6);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c(3974): Can't open " + sram() + " for writing: Read-only file system!\n");
  EXPECT_EQ(sramFile(), file);
  // The sequence number was taken; the link was not moved.
  EXPECT_EQ(getTotalNumberTraceEntries(), 1u);
  EXPECT_EQ(lastSet(), 0xFFFF);
  EXPECT_EQ(sys::capturedSyslog(), std::vector{logged(LOG_WARNING, "lost")});
  expectLockReleased();
}

TEST_F(RemoteTest, FailedWritesNameTheirLines) {
  const struct {
    int nth;
    const char* line;
  } cases[] = {{1, "3996"}, {2, "4008"}, {3, "3985"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const TraceSetStruct fresh = freshSramDescriptor("NVJ_System", kRemoteDataOffset);
    writeSramBytes(kRemoteDescriptorOffset, &fresh, sizeof fresh);
    const Bytes filler(208, 0xA5);
    writeSramBytes(kRemoteDataOffset, filler.data(), filler.size());
    sys::captureSyslog(true);
    sys::failCall(Call::kWrite, c.nth, ENOSPC);
    StderrCapture capture;
    EXPECT_EQ(remoteSystem(254, 0x40, "lost"), -6);
    EXPECT_EQ(capture.take(),
              std::string("traceLibLocal.c(") + c.line + "): Can't write to " + sram() + ": No space left on device!\n");
    // The slot goes first, the descriptor last: a failed write leaves the
    // ring unadvanced.
    const TraceSetStruct after = readSramDescriptor(sram(), 1);
    EXPECT_EQ(bytesOf(&after, sizeof after), bytesOf(&fresh, sizeof fresh));
    const SlotBytes s = remoteSlot(0);
    // The header is there from the second write on, the contents from the
    // third.
    EXPECT_EQ(s.header[64] == 4 && s.header[40] == 0x40, c.nth > 1);
    EXPECT_EQ(s.contents, c.nth > 2 ? Bytes(128, 0) : Bytes(128, 0xA5));
    EXPECT_EQ(lastSet(), 0xFFFF);
    EXPECT_EQ(sys::capturedSyslog(), std::vector{logged(LOG_WARNING, "lost")});
    expectLockReleased();
  }
}

// ---- addRemoteSystemEntry: writers at once --------------------------------------

TEST_F(RemoteTest, ProcessesAppendingSystemRecordsAtOnceAreSerialised) {
  useRealLockDeadline();
  constexpr int kProcesses = 3;
  constexpr int kRecords = 30;
  const std::vector<int> statuses = runChildrenAtOnce(kProcesses, [](int p) {
    int failures = 0;
    for (int i = 0; i < kRecords; ++i) {
      if (addRemoteSystemEntry(254, 0x40, 1, "child.c", static_cast<std::uint32_t>(p), "record", 100 + p, i, kReal,
                               kMono) != 0) {
        ++failures;
      }
    }
    return failures;
  });
  EXPECT_EQ(statuses, std::vector<int>(kProcesses, 0));

  constexpr unsigned kTotal = kProcesses * kRecords;
  expectRemoteDescriptor(kTotal, kTotal, kTotal);
  EXPECT_EQ(getTotalNumberTraceEntries(), kTotal);
  std::vector<int> nextTid(kProcesses, 0);
  for (unsigned slot = 0; slot < kTotal; ++slot) {
    const SramEntry entry = readSramEntry(sram(), 1, slot);
    EXPECT_EQ(entry.header.sequenceNumber, slot);
    EXPECT_EQ(entry.header.prevTraceSetId, slot == 0 ? 0xFFFF : 254);
    EXPECT_EQ(entry.header.prevEntryIndex, slot == 0 ? 0 : slot - 1);
    const int p = entry.header.line;
    ASSERT_GE(p, 0);
    ASSERT_LT(p, kProcesses);
    // Each process's records keep their order.
    EXPECT_EQ(entry.header.pid, static_cast<std::uint32_t>(100 + p));
    EXPECT_EQ(entry.header.tid, static_cast<std::uint32_t>(nextTid[static_cast<std::size_t>(p)]++));
  }
  EXPECT_EQ(lastSet(), 254);
  EXPECT_EQ(lastIndex(), kTotal - 1);
}

// ---- isRemoteTraceSet ---------------------------------------------------------

TEST_F(RemoteTest, RemoteSetsHaveNVJUnderscoreAnywhereInTheirNames) {
  const std::int16_t mine = createSet("MyNVJ_Set", TS_STRING, 4);
  const std::int16_t radio = createSet("Radio", TS_STRING, 4);
  const std::int16_t prefix = createSet("NVJ_", TS_STRING, 4);
  const std::int16_t lower = createSet("nvj_set", TS_STRING, 4);
  const std::int16_t partial = createSet("NVJSet", TS_STRING, 4);
  EXPECT_EQ(isRemoteTraceSet(254), 1);
  EXPECT_EQ(isRemoteTraceSet(255), 0);
  EXPECT_EQ(isRemoteTraceSet(mine), 1);
  EXPECT_EQ(isRemoteTraceSet(radio), 0);
  EXPECT_EQ(isRemoteTraceSet(prefix), 1);
  EXPECT_EQ(isRemoteTraceSet(lower), 0);
  EXPECT_EQ(isRemoteTraceSet(partial), 0);
  EXPECT_EQ(isRemoteTraceSet(5), 0);
  EXPECT_EQ(isRemoteTraceSet(-1), 0);
  EXPECT_EQ(isRemoteTraceSet(-2), 0);
  EXPECT_EQ(isRemoteTraceSet(253), 0);

  // A name that fills all 20 bytes is searched in those 20 only.
  std::memcpy(userDescriptor(static_cast<unsigned>(radio))->name, "ABCDEFGHIJKLMNOPQNVJ", 20);
  storeShared(&userDescriptor(static_cast<unsigned>(radio))->type, 0x5F5F5F5Fu);  // "____" after it
  EXPECT_EQ(isRemoteTraceSet(radio), 0);
  std::memcpy(userDescriptor(static_cast<unsigned>(radio))->name, "ABCDEFGHIJKLMNOPNVJ_", 20);
  EXPECT_EQ(isRemoteTraceSet(radio), 1);
}

}  // namespace
}  // namespace nt::test
