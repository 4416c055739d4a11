// The error trace writer: the text it stores (set name prefix, cut, trailing
// newlines), every field of the entry header, the ring of 738 slots in the
// SRAM file, every failure with its message and result, the lock released on
// every path, and writers of several processes and threads at once.
#include <arpa/inet.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "tests/support/node_test.h"
#include "trace/persistent/error_trace.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

using sys::Call;

constexpr std::uint32_t kSramFileSize = 153648;  // both descriptors, nothing after
constexpr std::uint32_t kMaxSramFileSize = 524288;

// The whole SRAM file right after it was created: version, two descriptors
// with zero counts, zeros elsewhere.
Bytes freshSramFile() {
  Bytes file(kSramFileSize, 0);
  std::memcpy(file.data(), "1.4", 4);
  const TraceSetStruct system = freshSramDescriptor("System", 52);
  const TraceSetStruct remote = freshSramDescriptor("NVJ_System", 153648);
  std::memcpy(file.data() + 4, &system, sizeof system);
  std::memcpy(file.data() + 153600, &remote, sizeof remote);
  return file;
}

struct TimePoint {
  timespec monotonic{};
  timespec real{};
};

TimePoint now() {
  TimePoint t;
  clock_gettime(CLOCK_MONOTONIC, &t.monotonic);
  clock_gettime(CLOCK_REALTIME, &t.real);
  return t;
}

std::tuple<std::uint64_t, std::uint64_t> asTuple(const timespec& t) {
  return {static_cast<std::uint32_t>(t.tv_sec), static_cast<std::uint64_t>(t.tv_nsec)};
}

// A stored big-endian time stamp lies between two clock readings.
void expectStampBetween(const TraceTimeStamp& stamp, const timespec& before, const timespec& after,
                        const char* clock) {
  SCOPED_TRACE(clock);
  const std::uint32_t seconds = ntohl(stamp.seconds);
  const std::uint32_t nanoseconds = ntohl(stamp.nanoseconds);
  EXPECT_LT(nanoseconds, 1000000000u);
  const std::tuple<std::uint64_t, std::uint64_t> stored{seconds, nanoseconds};
  EXPECT_LE(asTuple(before), stored);
  EXPECT_LE(stored, asTuple(after));
}

// What an entry header must hold, apart from the two time stamps.
struct Expected {
  const char* fileName = "radio.c";
  std::int32_t line = 0;
  std::uint8_t severity = 0x80;
  std::uint32_t category = 0;
  std::uint32_t sequenceNumber = 0;
  std::uint16_t contentsLength = 0;
  std::uint16_t prevTraceSetId = 0xFFFF;
  std::uint16_t prevEntryIndex = 0;
  std::uint32_t pid = static_cast<std::uint32_t>(getpid());
  std::uint32_t tid = static_cast<std::uint32_t>(gettid());
};

class ErrorTraceTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    getCurrentNumberTraceSets();  // start the trace system: header and SRAM file
    // A mask that is not empty, so that its restoration shows.
    sigset_t marker;
    sigemptyset(&marker);
    sigaddset(&marker, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &marker, nullptr);
    pthread_sigmask(SIG_SETMASK, nullptr, &mask_);
  }

  Bytes sramFile() const { return readFileBytes(sram()); }

  // The lock is free, nobody is recorded as its holder, and the caller's
  // signal mask is back.
  void expectLockReleased() const {
    expectTraceLockReleased(mask_);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0);
  }

  void expectDescriptor(std::uint16_t writeIndex, std::uint16_t current, std::uint32_t total) const {
    TraceSetStruct expected = freshSramDescriptor("System", 52);
    expected.writeIndex = writeIndex;
    expected.curentNumberEntries = current;
    expected.totalNumberEntries = total;
    const TraceSetStruct stored = readSramDescriptor(sram(), 0);
    EXPECT_EQ(bytesOf(&stored, sizeof stored), bytesOf(&expected, sizeof expected));
  }

  // Every byte of a slot: the header as expected, its time stamps between
  // the two readings, and all 128 contents bytes.
  void expectSlot(unsigned slot, const Expected& e, std::string_view text, const TimePoint& before,
                  const TimePoint& after) const {
    SCOPED_TRACE("slot " + std::to_string(slot));
    const SramEntry entry = readSramEntry(sram(), 0, slot);
    TraceEntryHeader expected{};
    if (e.fileName != nullptr) std::strncpy(expected.fileName, e.fileName, 29);
    expected.line = e.line;
    expected.pid = e.pid;
    expected.severity = e.severity;
    expected.category = e.category;
    expected.sequenceNumber = e.sequenceNumber;
    expected.tid = e.tid;
    expected.contentsLength = e.contentsLength;
    expected.prevTraceSetId = e.prevTraceSetId;
    expected.prevEntryIndex = e.prevEntryIndex;
    expectStampBetween(entry.header.monotonicTime, before.monotonic, after.monotonic, "monotonic");
    expectStampBetween(entry.header.realTime, before.real, after.real, "real");
    expected.monotonicTime = entry.header.monotonicTime;
    expected.realTime = entry.header.realTime;
    EXPECT_EQ(bytesOf(&entry.header, sizeof entry.header), bytesOf(&expected, sizeof expected));
    EXPECT_EQ(entry.contents, textContents(text));
  }

  // Just the text and the fields that tell entries apart.
  void expectText(unsigned slot, std::string_view text, std::uint8_t severity, std::uint16_t length) const {
    SCOPED_TRACE("slot " + std::to_string(slot));
    const SramEntry entry = readSramEntry(sram(), 0, slot);
    EXPECT_EQ(entry.contents, textContents(text));
    EXPECT_EQ(entry.header.severity, severity);
    EXPECT_EQ(entry.header.contentsLength, length);
  }

  void writeSramBytes(std::size_t offset, const void* data, std::size_t size) const {
    std::fstream file(sram(), std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  }

  // Fills one slot with a pattern, as an older entry would.
  void fillSlot(unsigned slot, std::uint8_t value) const {
    const Bytes pattern(208, value);
    writeSramBytes(52 + slot * 208u, pattern.data(), pattern.size());
  }

  sigset_t mask_{};
};

int record(const char* text, std::int16_t id = SYSTEM_TRACE_SET_ID, std::int32_t severity = 0x80) {
  return addErrorTrace(TS_STRING, 0x10, "radio.c", 7, text, id, severity);
}

// ---- The text ---------------------------------------------------------------

TEST_F(ErrorTraceTest, WarningOfAUserSetIsPrefixedWithTheSetName) {
  const std::int16_t radio = createSet("Radio");
  ASSERT_EQ(radio, 0);
  TimePoint before = now();
  EXPECT_EQ(addErrorTrace(TS_STRING, 0x10, "radio.c", 42, "link down", radio, 0x40), 0);
  TimePoint after = now();
  expectSlot(0, {.line = 42, .severity = 0x40, .category = 0x10, .sequenceNumber = 0, .contentsLength = 16},
             "Radio: link down", before, after);

  // The same text as an error carries no set name.
  before = now();
  EXPECT_EQ(addErrorTrace(TS_STRING, 0x10, "radio.c", 43, "link down", radio, 0x80), 0);
  after = now();
  expectSlot(1,
             {.line = 43, .severity = 0x80, .category = 0x10, .sequenceNumber = 1, .contentsLength = 9,
              .prevTraceSetId = 255, .prevEntryIndex = 0},
             "link down", before, after);

  // A notice is prefixed like a warning.
  EXPECT_EQ(addErrorTrace(TS_STRING, 0x10, "radio.c", 44, "link up", radio, 0x08), 0);
  expectText(2, "Radio: link up", 0x08, 14);
  expectDescriptor(3, 3, 3);
  expectLockReleased();
}

TEST_F(ErrorTraceTest, PrefixIsTheNameOfTheSetTheEntryCameFrom) {
  createSet("Radio");
  const std::int16_t poll = createSet("Poll");
  ASSERT_EQ(poll, 1);
  EXPECT_EQ(record("timeout", poll, 0x40), 0);
  expectText(0, "Poll: timeout", 0x40, 13);
}

TEST_F(ErrorTraceTest, PrefixCutsTheSetNameAtTwentyCharacters) {
  // Creation stores a 25-character name with 19 characters.
  const std::int16_t id = createSet("ABCDEFGHIJKLMNOPQRSTUVWXY");
  ASSERT_EQ(id, 0);
  EXPECT_EQ(record("x", id, 0x40), 0);
  expectText(0, "ABCDEFGHIJKLMNOPQRS: x", 0x40, 22);

  // A name that fills all 20 bytes, not terminated, followed by non-zero
  // bytes: the prefix takes 20 characters, a colon and a blank.
  TraceSetStruct* descriptor = userDescriptor(static_cast<unsigned>(id));
  std::memcpy(descriptor->name, "ABCDEFGHIJKLMNOPQRSTUVWXY", 20);
  storeShared(&descriptor->type, 0x5A5A5A5Au);
  EXPECT_EQ(record("x", id, 0x40), 0);
  expectText(1, "ABCDEFGHIJKLMNOPQRST: x", 0x40, 23);
  const std::string prefix = readSramEntry(sram(), 0, 1).text().substr(0, 22);
  EXPECT_EQ(prefix, "ABCDEFGHIJKLMNOPQRST: ");
  EXPECT_EQ(prefix.size(), 22u);
  expectLockReleased();
}

TEST_F(ErrorTraceTest, LongTextIsCutTo127Characters) {
  const std::string text = longText(200);
  const TimePoint before = now();
  EXPECT_EQ(record(text.c_str()), 0);
  const TimePoint after = now();
  expectSlot(0, {.line = 7, .severity = 0x80, .category = 0x10, .contentsLength = 127}, text.substr(0, 127),
             before, after);
  EXPECT_EQ(readSramEntry(sram(), 0, 0).contents[127], 0);
  expectDescriptor(1, 1, 1);
}

TEST_F(ErrorTraceTest, LongTextAfterAPrefixIsCutTo127CharactersInAll) {
  const std::int16_t radio = createSet("Radio");
  const std::string text = longText(200);
  EXPECT_EQ(record(text.c_str(), radio, 0x40), 0);
  expectText(0, "Radio: " + text.substr(0, 120), 0x40, 127);
  EXPECT_EQ(readSramEntry(sram(), 0, 0).contents[127], 0);
}

TEST_F(ErrorTraceTest, TextsAroundTheLimit) {
  const std::string text127 = longText(127);
  EXPECT_EQ(record(text127.c_str()), 0);
  expectText(0, text127, 0x80, 127);

  const std::string text126 = longText(126);
  EXPECT_EQ(record(text126.c_str()), 0);
  expectText(1, text126, 0x80, 126);

  // The length is cut to 128 before the newlines are stripped, so a newline
  // just before the cut stays.
  const std::string text = longText(126) + "\n" + "z";
  EXPECT_EQ(record(text.c_str()), 0);
  expectText(2, longText(126) + "\n", 0x80, 127);

  // A newline at the end of a 127-character text is stripped.
  const std::string ending = longText(126) + "\n";
  EXPECT_EQ(record(ending.c_str()), 0);
  expectText(3, longText(126), 0x80, 126);
}

TEST_F(ErrorTraceTest, TrailingNewlinesAreStripped) {
  EXPECT_EQ(record("abc\n\n"), 0);
  expectText(0, "abc", 0x80, 3);
  EXPECT_EQ(record("a\nb\n"), 0);  // newlines inside stay
  expectText(1, "a\nb", 0x80, 3);
}

TEST_F(ErrorTraceTest, TextOfOnlyNewlinesIsRejectedButConsumesASequenceNumber) {
  EXPECT_EQ(record("first"), 0);
  const Bytes file = sramFile();
  const std::uint32_t total = getTotalNumberTraceEntries();
  ASSERT_EQ(total, 1u);

  StderrCapture capture;
  EXPECT_EQ(record("\n\n\n"), 0);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (addErrorTrace,799): Ignoring attempt to add empty string as trace entry\n");
  EXPECT_EQ(sramFile(), file);  // descriptor and slots unchanged
  EXPECT_EQ(getTotalNumberTraceEntries(), total + 1);
  EXPECT_EQ(loadShared(&header()->lastTraceSetId), 255);
  EXPECT_EQ(loadShared(&header()->lastEntryIndex), 0);
  expectLockReleased();

  // The next entry shows the gap in the numbering.
  EXPECT_EQ(record("second"), 0);
  EXPECT_EQ(readSramEntry(sram(), 0, 1).header.sequenceNumber, 2u);
  expectDescriptor(2, 2, 2);
}

TEST_F(ErrorTraceTest, EmptyTextIsRejected) {
  const Bytes file = sramFile();
  StderrCapture capture;
  EXPECT_EQ(record(""), 0);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (addErrorTrace,799): Ignoring attempt to add empty string as trace entry\n");
  EXPECT_EQ(sramFile(), file);
  EXPECT_EQ(getTotalNumberTraceEntries(), 1u);
  EXPECT_EQ(loadShared(&header()->lastTraceSetId), 0xFFFF);
  expectLockReleased();
}

TEST_F(ErrorTraceTest, NewlinesAfterAPrefixLeaveThePrefix) {
  const std::int16_t radio = createSet("Radio");
  StderrCapture capture;
  EXPECT_EQ(record("\n\n", radio, 0x40), 0);
  EXPECT_EQ(capture.take(), "");
  expectText(0, "Radio: ", 0x40, 7);
  expectDescriptor(1, 1, 1);
}

TEST_F(ErrorTraceTest, RejectedTextOfAnUnknownSetStillReturnsMinus5) {
  const Bytes file = sramFile();
  StderrCapture capture;
  EXPECT_EQ(record("\n", 300, 0x40), -5);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (addErrorTrace,799): Ignoring attempt to add empty string as trace entry\n");
  EXPECT_EQ(sramFile(), file);
  EXPECT_EQ(getTotalNumberTraceEntries(), 1u);
  expectLockReleased();
}

// ---- Set ids ---------------------------------------------------------------

TEST_F(ErrorTraceTest, UnknownSetIdIsWrittenAsAnErrorWithoutPrefix) {
  createSet("Radio");
  const TimePoint before = now();
  EXPECT_EQ(addErrorTrace(TS_STRING, 0x22, "radio.c", 9, "lost", 300, 0x40), -5);
  const TimePoint after = now();
  expectSlot(0, {.line = 9, .severity = 0x80, .category = 0x22, .contentsLength = 4}, "lost", before, after);
  expectDescriptor(1, 1, 1);
  expectLockReleased();
}

TEST_F(ErrorTraceTest, OnlyUserSetsAndTheSystemSetAreKnown) {
  createSet("Radio");  // id 0; id 1 does not exist
  EXPECT_EQ(record("remote", 254, 0x40), -5);
  expectText(0, "remote", 0x80, 6);
  EXPECT_EQ(record("next", 1, 0x08), -5);
  expectText(1, "next", 0x80, 4);
  EXPECT_EQ(record("negative", -1, 0x40), -5);
  expectText(2, "negative", 0x80, 8);
  EXPECT_EQ(record("top", 199, 0x08), -5);
  expectText(3, "top", 0x80, 3);

  // The system set keeps the severity and gets no prefix.
  EXPECT_EQ(record("system", 255, 0x40), 0);
  expectText(4, "system", 0x40, 6);
  EXPECT_EQ(record("notice", 255, 0x08), 0);
  expectText(5, "notice", 0x08, 6);

  // An error is not checked against the set id at all.
  EXPECT_EQ(record("error", 300, 0x80), 0);
  expectText(6, "error", 0x80, 5);
  EXPECT_EQ(record("error", 254, 0x80), 0);
  expectText(7, "error", 0x80, 5);
  expectDescriptor(8, 8, 8);
}

TEST_F(ErrorTraceTest, OnlyTheLowByteOfTheSeverityIsStored) {
  // 0x180 is not the error severity: the set id check applies, and the
  // stored byte is 0x80.
  EXPECT_EQ(record("high bits", 255, 0x180), 0);
  expectText(0, "high bits", 0x80, 9);
  EXPECT_EQ(record("high bits", 300, 0x140), -5);
  expectText(1, "high bits", 0x80, 9);
}

// ---- The ring --------------------------------------------------------------

TEST_F(ErrorTraceTest, RingWrapsAfter738Entries) {
  for (int i = 0; i < 739; ++i) {
    const std::string text = "entry " + std::to_string(i);
    ASSERT_EQ(record(text.c_str()), 0) << i;
  }
  expectDescriptor(1, 738, 739);
  EXPECT_EQ(getTotalNumberTraceEntries(), 739u);
  EXPECT_EQ(loadShared(&header()->lastTraceSetId), 255);
  EXPECT_EQ(loadShared(&header()->lastEntryIndex), 0);

  // Slot 0 holds the 739th entry, linked to the one in the last slot.
  const SramEntry newest = readSramEntry(sram(), 0, 0);
  EXPECT_EQ(newest.contents, textContents("entry 738"));
  EXPECT_EQ(newest.header.sequenceNumber, 738u);
  EXPECT_EQ(newest.header.prevTraceSetId, 255);
  EXPECT_EQ(newest.header.prevEntryIndex, 737);
  EXPECT_EQ(newest.header.contentsLength, 9);

  const SramEntry oldest = readSramEntry(sram(), 0, 1);
  EXPECT_EQ(oldest.contents, textContents("entry 1"));
  EXPECT_EQ(oldest.header.sequenceNumber, 1u);
  EXPECT_EQ(oldest.header.prevEntryIndex, 0);

  const SramEntry last = readSramEntry(sram(), 0, 737);
  EXPECT_EQ(last.contents, textContents("entry 737"));
  EXPECT_EQ(last.header.sequenceNumber, 737u);
  EXPECT_EQ(last.header.prevEntryIndex, 736);

  // Nothing is written past the last slot: the rest of the first region and
  // the remote set are untouched.
  const Bytes file = sramFile();
  EXPECT_EQ(file.size(), kSramFileSize);
  const Bytes fresh = freshSramFile();
  EXPECT_TRUE(std::equal(file.begin() + 52 + 738 * 208, file.end(), fresh.begin() + 52 + 738 * 208));
  expectLockReleased();
}

TEST_F(ErrorTraceTest, EveryCallContinuesFromTheDescriptorInTheFile) {
  // Another writer (or the previous run of the node) left the set here.
  TraceSetStruct descriptor = freshSramDescriptor("System", 52);
  descriptor.writeIndex = 5;
  descriptor.curentNumberEntries = 5;
  descriptor.totalNumberEntries = 1000;
  writeSramBytes(4, &descriptor, sizeof descriptor);
  storeShared(&header()->totalNumberTraceEntries, 4321u);

  EXPECT_EQ(record("resumed"), 0);
  expectDescriptor(6, 6, 1001);
  const SramEntry entry = readSramEntry(sram(), 0, 5);
  EXPECT_EQ(entry.contents, textContents("resumed"));
  EXPECT_EQ(entry.header.sequenceNumber, 4321u);
  EXPECT_EQ(getTotalNumberTraceEntries(), 4322u);
  EXPECT_EQ(loadShared(&header()->lastEntryIndex), 5);
  EXPECT_EQ(readSramEntry(sram(), 0, 0).contents, Bytes(128, 0));

  // A full ring stays full and wraps at its end.
  descriptor.writeIndex = 737;
  descriptor.curentNumberEntries = 738;
  writeSramBytes(4, &descriptor, sizeof descriptor);
  EXPECT_EQ(record("at the end"), 0);
  expectDescriptor(0, 738, 1001);
  EXPECT_EQ(readSramEntry(sram(), 0, 737).contents, textContents("at the end"));
}

// ---- Entries that are not written ------------------------------------------

TEST_F(ErrorTraceTest, DisabledTraceSystemWritesNothing) {
  EXPECT_EQ(record("before"), 0);
  const Bytes file = sramFile();
  storeShared(&header()->traceEnabled, 0u);
  StderrCapture capture;
  EXPECT_EQ(record("error"), 0);
  EXPECT_EQ(record("warning", 255, 0x40), 0);
  EXPECT_EQ(record("unknown set", 300, 0x40), 0);
  EXPECT_EQ(record("\n"), 0);
  EXPECT_EQ(addErrorTrace(TS_DUMP, 0x10, "radio.c", 7, "dump", 255, 0x80), 0);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(sramFile(), file);
  EXPECT_EQ(getTotalNumberTraceEntries(), 1u);
  expectLockReleased();
}

TEST_F(ErrorTraceTest, BinaryEntriesAreNeverStored) {
  const Bytes file = sramFile();
  StderrCapture capture;
  EXPECT_EQ(addErrorTrace(TS_DUMP, 0x10, "radio.c", 7, "dump", 255, 0x40), 0);
  EXPECT_EQ(addErrorTrace(TS_DUMP, 0x10, "radio.c", 7, "dump", 255, 0x08), 0);
  EXPECT_EQ(addErrorTrace(TS_DUMP, 0x10, "radio.c", 7, "dump", 255, 0x80), -7);
  EXPECT_EQ(addErrorTrace(TS_DUMP, 0x10, "radio.c", 7, "dump", 300, 0x40), 0);
  EXPECT_EQ(addErrorTrace(2, 0x10, "radio.c", 7, "dump", 255, 0x80), -7);  // any type but text
  EXPECT_EQ(addErrorTrace(2, 0x10, "radio.c", 7, "dump", 255, 0x40), 0);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(sramFile(), file);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  expectLockReleased();
}

// ---- The entry header -------------------------------------------------------

TEST_F(ErrorTraceTest, EntryHeaderFields) {
  const char* fileName = "abcdefghijklmnopqrstuvwxyz0123456789ABCD";  // 40 characters
  TimePoint before = now();
  EXPECT_EQ(addErrorTrace(TS_STRING, 0xDEADBEEF, fileName, 1234, "first", 255, 0x40), 0);
  TimePoint after = now();
  // The first entry of the node has no predecessor.
  expectSlot(0,
             {.fileName = "abcdefghijklmnopqrstuvwxyz012", .line = 1234, .severity = 0x40,
              .category = 0xDEADBEEF, .sequenceNumber = 0, .contentsLength = 5, .prevTraceSetId = 0xFFFF,
              .prevEntryIndex = 0},
             "first", before, after);
  const SramEntry first = readSramEntry(sram(), 0, 0);
  EXPECT_EQ(first.header.fileName[28], '2');
  EXPECT_EQ(first.header.fileName[29], 0);
  EXPECT_EQ(loadShared(&header()->lastTraceSetId), 255);
  EXPECT_EQ(loadShared(&header()->lastEntryIndex), 0);
  EXPECT_EQ(getTotalNumberTraceEntries(), 1u);

  // Entries of user sets in between move the header's link and count.
  storeShared(&header()->lastTraceSetId, 7u);
  storeShared(&header()->lastEntryIndex, 3u);
  storeShared(&header()->totalNumberTraceEntries, 41u);
  before = now();
  EXPECT_EQ(addErrorTrace(TS_STRING, 0x80000001u, "traceLibLocal.c", 0xFFFFFFFFu, "second", 255, 0x80), 0);
  after = now();
  expectSlot(1,
             {.fileName = "traceLibLocal.c", .line = -1, .severity = 0x80, .category = 0x80000001u,
              .sequenceNumber = 41, .contentsLength = 6, .prevTraceSetId = 7, .prevEntryIndex = 3},
             "second", before, after);
  EXPECT_EQ(loadShared(&header()->lastTraceSetId), 255);
  EXPECT_EQ(loadShared(&header()->lastEntryIndex), 1);
  EXPECT_EQ(getTotalNumberTraceEntries(), 42u);
  expectDescriptor(2, 2, 2);
  expectLockReleased();
}

TEST_F(ErrorTraceTest, FileNameIsStoredAsGiven) {
  // The name is stored as given, path and all; 29 characters fit exactly.
  EXPECT_EQ(addErrorTrace(TS_STRING, 1, "src/radio.c", 1, "path", 255, 0x80), 0);
  EXPECT_STREQ(readSramEntry(sram(), 0, 0).header.fileName, "src/radio.c");
  const char* exact = "abcdefghijklmnopqrstuvwxyz012";
  EXPECT_EQ(addErrorTrace(TS_STRING, 1, exact, 1, "exact", 255, 0x80), 0);
  const SramEntry entry = readSramEntry(sram(), 0, 1);
  EXPECT_EQ(std::string(entry.header.fileName, 30), std::string(exact) + '\0');
}

TEST_F(ErrorTraceTest, MissingFileNameLeavesTheFieldZero) {
  fillSlot(0, 0xA5);
  const TimePoint before = now();
  EXPECT_EQ(addErrorTrace(TS_STRING, 3, nullptr, 12, "anonymous", 255, 0x80), 0);
  const TimePoint after = now();
  expectSlot(0, {.fileName = nullptr, .line = 12, .severity = 0x80, .category = 3, .contentsLength = 9},
             "anonymous", before, after);
  const SramEntry entry = readSramEntry(sram(), 0, 0);
  EXPECT_EQ(bytesOf(entry.header.fileName, 30), Bytes(30, 0));
}

TEST_F(ErrorTraceTest, WholeSlotIsRewritten) {
  // An old entry in the slot leaves nothing behind: unused header bytes and
  // the contents after the text are zero.
  fillSlot(0, 0xA5);
  const TimePoint before = now();
  EXPECT_EQ(record("new"), 0);
  const TimePoint after = now();
  expectSlot(0, {.line = 7, .severity = 0x80, .category = 0x10, .contentsLength = 3}, "new", before, after);
}

// ---- Failures ---------------------------------------------------------------

TEST_F(ErrorTraceTest, MissingFileIsReportedAndNotCreated) {
  ASSERT_EQ(unlink(sram().c_str()), 0);
  StderrCapture capture;
  EXPECT_EQ(record("lost"), 0);
  EXPECT_EQ(capture.take(), "'stat' failed for '" + sram() + "': No such file or directory.\n");
  EXPECT_FALSE(fileExists(sram()));
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  EXPECT_EQ(loadShared(&header()->lastTraceSetId), 0xFFFF);
  expectLockReleased();

  // An unknown set keeps its result.
  StderrCapture again;
  EXPECT_EQ(record("lost", 300, 0x40), -5);
  EXPECT_EQ(again.take(), "'stat' failed for '" + sram() + "': No such file or directory.\n");
  expectLockReleased();
}

TEST_F(ErrorTraceTest, FailedStatusQuery) {
  const Bytes file = sramFile();
  sys::failCall(Call::kStat, 1, EACCES);
  StderrCapture capture;
  EXPECT_EQ(record("lost"), 0);
  EXPECT_EQ(capture.take(), "'stat' failed for '" + sram() + "': Permission denied.\n");
  EXPECT_EQ(sramFile(), file);
  expectLockReleased();
}

TEST_F(ErrorTraceTest, FileLargerThanTheLimitIsLeftAlone) {
  ASSERT_EQ(truncate(sram().c_str(), kMaxSramFileSize + 1), 0);
  const Bytes file = sramFile();
  StderrCapture capture;
  EXPECT_EQ(record("lost"), 0);
  EXPECT_EQ(record("lost", 300, 0x40), -5);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(sramFile(), file);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  expectLockReleased();
}

TEST_F(ErrorTraceTest, FileOfExactlyTheLimitIsWritten) {
  ASSERT_EQ(truncate(sram().c_str(), kMaxSramFileSize), 0);
  EXPECT_EQ(record("kept"), 0);
  expectDescriptor(1, 1, 1);
  expectText(0, "kept", 0x80, 4);
  EXPECT_EQ(sramFile().size(), kMaxSramFileSize);
  expectLockReleased();
}

TEST_F(ErrorTraceTest, ReadOnlyOpenFailure) {
  const Bytes file = sramFile();
  sys::failCall(Call::kOpen, 1, EACCES);
  StderrCapture capture;
  EXPECT_EQ(record("lost"), -6);
  EXPECT_EQ(capture.take(),
            std::string("traceLibLocal.c (addErrorTrace,721): File access error (Permission denied) in process ") +
                program_invocation_short_name + "!\n");
  EXPECT_EQ(sramFile(), file);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  expectLockReleased();

  // -6 replaces -5.
  sys::failCall(Call::kOpen, 1, EMFILE);
  StderrCapture again;
  EXPECT_EQ(record("lost", 300, 0x40), -6);
  EXPECT_EQ(again.take(),
            std::string("traceLibLocal.c (addErrorTrace,721): File access error (Too many open files) in process ") +
                program_invocation_short_name + "!\n");
  expectLockReleased();
}

TEST_F(ErrorTraceTest, ShortVersionRead) {
  ASSERT_EQ(truncate(sram().c_str(), 3), 0);
  StderrCapture capture;
  errno = 0;  // the short read itself sets no errno
  EXPECT_EQ(record("lost"), -6);
  EXPECT_EQ(capture.take(), "traceLibLocal.c (addErrorTrace,730): File access error(Success)!\n");
  EXPECT_EQ(sramFile(), Bytes({'1', '.', '4'}));
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  expectLockReleased();
}

TEST_F(ErrorTraceTest, FailedVersionRead) {
  const Bytes file = sramFile();
  sys::failCall(Call::kRead, 1, EIO);
  StderrCapture capture;
  EXPECT_EQ(record("lost"), -6);
  EXPECT_EQ(capture.take(), "traceLibLocal.c (addErrorTrace,730): File access error(Input/output error)!\n");
  EXPECT_EQ(sramFile(), file);
  expectLockReleased();
}

TEST_F(ErrorTraceTest, ShortDescriptorRead) {
  ASSERT_EQ(truncate(sram().c_str(), 20), 0);
  const Bytes file = sramFile();
  StderrCapture capture;
  errno = 0;
  EXPECT_EQ(record("lost"), -6);
  EXPECT_EQ(capture.take(), "traceLibLocal.c (addErrorTrace,742): File access error(Success)!\n");
  EXPECT_EQ(sramFile(), file);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  expectLockReleased();
}

TEST_F(ErrorTraceTest, FailedDescriptorRead) {
  const Bytes file = sramFile();
  sys::failCall(Call::kRead, 2, EIO);
  StderrCapture capture;
  EXPECT_EQ(record("lost", 300, 0x40), -6);
  EXPECT_EQ(capture.take(), "traceLibLocal.c (addErrorTrace,742): File access error(Input/output error)!\n");
  EXPECT_EQ(sramFile(), file);
  expectLockReleased();
}

TEST_F(ErrorTraceTest, DamagedDescriptorMakesAFreshFile) {
  EXPECT_EQ(record("old entry"), 0);
  const std::uint16_t damaged = 100;
  writeSramBytes(4 + 30, &damaged, sizeof damaged);
  ASSERT_EQ(readSramDescriptor(sram(), 0).traceEntryContentsLength, 100);

  StderrCapture capture;
  EXPECT_EQ(record("lost"), -6);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (addErrorTrace,754): createSramFile : traceEntryContentsLength:100 stroffset:0\n");
  // Deleted and created anew: the old entry is gone with the file, and the
  // entry of this call was not written.
  EXPECT_EQ(sramFile(), freshSramFile());
  EXPECT_EQ(getTotalNumberTraceEntries(), 1u);
  EXPECT_EQ(loadShared(&header()->lastTraceSetId), 255);
  EXPECT_EQ(loadShared(&header()->lastEntryIndex), 0);
  struct stat status {};
  ASSERT_EQ(stat(sram().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0664u);
  EXPECT_NE(toolLog().find(sramOwnerCommand(sram())), std::string::npos);
  expectLockReleased();

  // The next call writes into slot 0 of the fresh file.
  EXPECT_EQ(record("new entry"), 0);
  expectDescriptor(1, 1, 1);
  const SramEntry entry = readSramEntry(sram(), 0, 0);
  EXPECT_EQ(entry.contents, textContents("new entry"));
  EXPECT_EQ(entry.header.sequenceNumber, 1u);
}

TEST_F(ErrorTraceTest, DamagedDescriptorMessageNamesThePrefixLength) {
  const std::int16_t radio = createSet("Radio");
  const std::uint16_t damaged = 1600;
  writeSramBytes(4 + 30, &damaged, sizeof damaged);
  StderrCapture capture;
  EXPECT_EQ(record("lost", radio, 0x40), -6);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (addErrorTrace,754): createSramFile : traceEntryContentsLength:1600 "
            "stroffset:7\n");
  EXPECT_EQ(sramFile(), freshSramFile());
  expectLockReleased();
}

TEST_F(ErrorTraceTest, WriteOnlyOpenFailure) {
  const Bytes file = sramFile();
  sys::failCall(Call::kOpen, 2, EROFS);
  StderrCapture capture;
  EXPECT_EQ(record("lost"), -6);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (addErrorTrace,850): File access error (Read-only file system)!\n");
  EXPECT_EQ(sramFile(), file);
  // The sequence number was taken; the link was not moved.
  EXPECT_EQ(getTotalNumberTraceEntries(), 1u);
  EXPECT_EQ(loadShared(&header()->lastTraceSetId), 0xFFFF);
  expectLockReleased();
}

// The slot goes first (header, then contents) and the descriptor that counts
// it last: whichever write fails, the ring is left unadvanced and every
// counted entry intact.

TEST_F(ErrorTraceTest, FailedHeaderWriteLeavesTheRingUnadvanced) {
  fillSlot(0, 0xA5);
  const Bytes file = sramFile();
  sys::failCall(Call::kWrite, 1, EIO);
  StderrCapture capture;
  EXPECT_EQ(record("lost"), -6);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (addErrorTrace,872): Error accessing file system (Input/output error)!\n");
  EXPECT_EQ(sramFile(), file);
  EXPECT_EQ(getTotalNumberTraceEntries(), 1u);  // the sequence number is consumed
  EXPECT_EQ(loadShared(&header()->lastTraceSetId), 0xFFFF);
  expectLockReleased();

  // The next entry goes to the same slot.
  EXPECT_EQ(record("next"), 0);
  expectDescriptor(1, 1, 1);
  expectText(0, "next", 0x80, 4);
}

TEST_F(ErrorTraceTest, FailedContentsWriteLeavesTheRingUnadvanced) {
  fillSlot(0, 0xA5);
  sys::failCall(Call::kWrite, 2, EDQUOT);
  StderrCapture capture;
  EXPECT_EQ(record("lost"), -6);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (addErrorTrace,885): Error accessing file system (Disk quota exceeded)!\n");
  expectDescriptor(0, 0, 0);
  const SramEntry entry = readSramEntry(sram(), 0, 0);
  EXPECT_EQ(entry.header.sequenceNumber, 0u);  // the header was written, but is not counted
  EXPECT_EQ(entry.header.contentsLength, 4);
  EXPECT_EQ(entry.contents, Bytes(128, 0xA5));
  EXPECT_EQ(loadShared(&header()->lastTraceSetId), 0xFFFF);
  expectLockReleased();

  EXPECT_EQ(record("next"), 0);
  expectDescriptor(1, 1, 1);
  expectText(0, "next", 0x80, 4);
  EXPECT_EQ(readSramEntry(sram(), 0, 0).header.sequenceNumber, 1u);
}

TEST_F(ErrorTraceTest, FailedDescriptorWriteLeavesTheWholeSlotUncounted) {
  sys::failCall(Call::kWrite, 3, ENOSPC);
  StderrCapture capture;
  EXPECT_EQ(record("lost"), -6);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (addErrorTrace,861): Error accessing file system (No space left on device)!\n");
  expectDescriptor(0, 0, 0);
  expectText(0, "lost", 0x80, 4);  // written, not counted
  EXPECT_EQ(getTotalNumberTraceEntries(), 1u);
  EXPECT_EQ(loadShared(&header()->lastTraceSetId), 0xFFFF);
  expectLockReleased();
}

// ---- Concurrent writers -------------------------------------------------------

// After n serialised error entries into a fresh node: slot k holds the entry
// with sequence number k, linked to slot k - 1.
void expectSerialisedRing(const std::string& sram, unsigned n, std::set<std::string> texts) {
  const TraceSetStruct descriptor = readSramDescriptor(sram, 0);
  EXPECT_EQ(descriptor.curentNumberEntries, n);
  EXPECT_EQ(descriptor.totalNumberEntries, n);
  EXPECT_EQ(descriptor.writeIndex, n);
  EXPECT_EQ(getTotalNumberTraceEntries(), n);
  std::set<std::uint32_t> sequenceNumbers;
  for (unsigned slot = 0; slot < n; ++slot) {
    const SramEntry entry = readSramEntry(sram, 0, slot);
    sequenceNumbers.insert(entry.header.sequenceNumber);
    EXPECT_EQ(entry.header.sequenceNumber, slot);
    EXPECT_EQ(entry.header.prevTraceSetId, slot == 0 ? 0xFFFF : 255) << slot;
    EXPECT_EQ(entry.header.prevEntryIndex, slot == 0 ? 0 : slot - 1) << slot;
    EXPECT_EQ(entry.contents, textContents(entry.text())) << slot;
    EXPECT_EQ(entry.header.contentsLength, entry.text().size()) << slot;
    EXPECT_EQ(texts.erase(entry.text()), 1u) << "slot " << slot << ": " << entry.text();
  }
  EXPECT_EQ(sequenceNumbers.size(), n);
  EXPECT_TRUE(texts.empty());
  EXPECT_EQ(readSramEntry(sram, 0, n).contents, Bytes(128, 0));
  EXPECT_EQ(loadShared(&header()->lastTraceSetId), 255);
  EXPECT_EQ(loadShared(&header()->lastEntryIndex), n - 1);
}

TEST_F(ErrorTraceTest, ProcessesAppendingAtOnce) {
  // 200 synchronous appends queue at the lock; under a loaded disk a wait
  // may pass the tests' shortened deadline, and none is meant to run out.
  useRealLockDeadline();
  constexpr int kProcesses = 4;
  constexpr int kEntries = 50;
  StartGate gate;
  std::vector<pid_t> children;
  std::fflush(nullptr);
  for (int p = 0; p < kProcesses; ++p) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      gate.wait();
      int failures = 0;
      for (int i = 0; i < kEntries; ++i) {
        const std::string text = "process " + std::to_string(p) + " entry " + std::to_string(i);
        const auto line = static_cast<std::uint32_t>(p);
        if (addErrorTrace(TS_STRING, 0x10, "child.c", line, text.c_str(), 255, 0x80) != 0) ++failures;
      }
      _exit(failures);
    }
    children.push_back(child);
  }
  gate.open();
  for (const pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }

  std::set<std::string> texts;
  for (int p = 0; p < kProcesses; ++p) {
    for (int i = 0; i < kEntries; ++i) {
      texts.insert("process " + std::to_string(p) + " entry " + std::to_string(i));
    }
  }
  expectSerialisedRing(sram(), kProcesses * kEntries, texts);

  // Each process's entries carry its pid and keep its order.
  for (int p = 0; p < kProcesses; ++p) {
    std::uint32_t previous = 0;
    bool first = true;
    for (unsigned slot = 0; slot < kProcesses * kEntries; ++slot) {
      const SramEntry entry = readSramEntry(sram(), 0, slot);
      if (entry.header.line != p) continue;
      EXPECT_EQ(entry.header.pid, static_cast<std::uint32_t>(children[static_cast<std::size_t>(p)]));
      EXPECT_EQ(entry.header.tid, entry.header.pid);
      if (!first) {
        EXPECT_GT(entry.header.sequenceNumber, previous);
      }
      previous = entry.header.sequenceNumber;
      first = false;
    }
  }
  expectLockReleased();
}

TEST_F(ErrorTraceTest, ThreadsAppendingAtOnce) {
  useRealLockDeadline();
  constexpr int kThreads = 4;
  constexpr int kEntries = 25;
  std::atomic<bool> go{false};
  std::atomic<int> failures{0};
  std::vector<std::uint32_t> tids(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      tids[static_cast<std::size_t>(t)] = static_cast<std::uint32_t>(gettid());
      while (!go.load()) std::this_thread::yield();
      for (int i = 0; i < kEntries; ++i) {
        const std::string text = "thread " + std::to_string(t) + " entry " + std::to_string(i);
        const auto line = static_cast<std::uint32_t>(t);
        if (addErrorTrace(TS_STRING, 0x10, "thread.c", line, text.c_str(), 255, 0x80) != 0) ++failures;
      }
    });
  }
  go.store(true);
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);

  std::set<std::string> texts;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kEntries; ++i) {
      texts.insert("thread " + std::to_string(t) + " entry " + std::to_string(i));
    }
  }
  expectSerialisedRing(sram(), kThreads * kEntries, texts);

  for (unsigned slot = 0; slot < kThreads * kEntries; ++slot) {
    const SramEntry entry = readSramEntry(sram(), 0, slot);
    ASSERT_GE(entry.header.line, 0);
    ASSERT_LT(entry.header.line, kThreads);
    EXPECT_EQ(entry.header.pid, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(entry.header.tid, tids[static_cast<std::size_t>(entry.header.line)]);
  }
  expectLockReleased();
}

}  // namespace
}  // namespace nt::test
