// The entry writer: what a slot of a user set holds after addTraceEntry and
// tracePrintf (every header field, the contents and their cut), the ring's
// counters and wrap, the node-wide sequence number and chain of entries, the
// route of error-class entries, the filters, the refusals, what is forwarded
// to the platform log service, errno, and writers of several threads and
// processes at once.
#include <arpa/inet.h>
#include <libgen.h>
#include <printf.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/shared_fields.h"
#include "common/test_points.h"
#include "nodetrace/logbridge.h"
#include "tests/support/node_test.h"
#include "tests/trace/store_fixture.h"
#include "tests/support/recording_platform.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

class WriterTest : public StoreTest {
 protected:
  std::uint16_t errorEntries() const { return readSramDescriptor(sram(), 0).curentNumberEntries; }

  // An empty text entry of the text set id ("Equip"), called from fileName
  // at line: nothing stored in the set (its first slot's contents still
  // `before`), nothing forwarded, one record in the error trace set.
  void expectEmptyEntryReported(std::int16_t id, const Bytes& before, const char* fileName, std::int32_t line) {
    EXPECT_EQ(slot(id, 0).contents, before);
    const TraceSetStruct d = descriptor(id);
    EXPECT_EQ(d.writeIndex, 0);
    EXPECT_EQ(d.curentNumberEntries, 0);
    EXPECT_EQ(d.totalNumberEntries, 0u);
    EXPECT_EQ(getTotalNumberTraceEntries(), 1u);  // the record in the error trace set

    ASSERT_EQ(errorEntries(), 1);
    const SramEntry record = readSramEntry(sram(), 0, 0);
    EXPECT_EQ(record.text(), "Equip: Trying to add empty trace entry");
    EXPECT_STREQ(record.header.fileName, fileName);
    EXPECT_EQ(record.header.line, line);
    EXPECT_EQ(record.header.severity, 0x08);
    EXPECT_EQ(record.header.category, 0x80000001u);
    EXPECT_TRUE(platformCalls("ZqSysLogPrintE").empty());  // nothing forwarded
  }
};

std::string pattern(std::size_t length) {
  std::string text;
  for (std::size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i % 26);
  return text;
}

std::uint32_t beSeconds(const TraceTimeStamp& t) { return ntohl(t.seconds); }
std::uint32_t beNanoseconds(const TraceTimeStamp& t) { return ntohl(t.nanoseconds); }

// ---- contents and their cut -------------------------------------------------

TEST_F(WriterTest, TextWithALineFeedIsStoredWithoutIt) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "src/a.c", 10, "hello\n"), 0);
  const Slot s = slot(id, 0);
  EXPECT_EQ(s.contents, textContents("hello", 128));
  EXPECT_EQ(s.header.contentsLength, 5);
}

TEST_F(WriterTest, LongTextKeepsItsFirst127Characters) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  const std::string text = pattern(200);
  EXPECT_EQ(addTraceEntry(static_cast<std::uint16_t>(id), TS_STRING, TRACE_SEVERITY_INF, 1, "a.c", 1, 0,
                          text.c_str()),
            0);
  const Slot s = slot(id, 0);
  EXPECT_EQ(s.contents, textContents(text.substr(0, 127), 128));
  EXPECT_EQ(s.header.contentsLength, 127);
}

TEST_F(WriterTest, TextOfExactly128CharactersEndingInALineFeedLosesTheLineFeedToTheTerminator) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  const std::string text = pattern(127) + "\n";
  ASSERT_EQ(text.size(), 128u);
  addTraceEntry(static_cast<std::uint16_t>(id), TS_STRING, TRACE_SEVERITY_INF, 1, "a.c", 1, 0, text.c_str());
  const Slot s = slot(id, 0);
  EXPECT_EQ(s.contents, textContents(pattern(127), 128));
  EXPECT_EQ(s.header.contentsLength, 127);
}

TEST_F(WriterTest, TheTextLengthArgumentIsIgnoredForTextSets) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  addTraceEntry(static_cast<std::uint16_t>(id), TS_STRING, TRACE_SEVERITY_INF, 1, "a.c", 1, 3, "abcdefgh");
  EXPECT_EQ(slot(id, 0).header.contentsLength, 8);
  EXPECT_EQ(slot(id, 0).text(), "abcdefgh");
}

TEST_F(WriterTest, TextSetWithASmallerMaximumForcesItsTerminator) {
  const std::int16_t id = createSet("Equip", TS_STRING, 2, 10);
  addTraceEntry(static_cast<std::uint16_t>(id), TS_STRING, TRACE_SEVERITY_INF, 1, "a.c", 1, 0, "abcdefghijklmn");
  const Slot s = slot(id, 0);
  EXPECT_EQ(s.contents, textContents("abcdefghi", 12));
  EXPECT_EQ(s.header.contentsLength, 9);
}

TEST_F(WriterTest, DumpOfTheMaximumLengthKeepsEveryByteAndRecordsOneLess) {
  const std::int16_t id = createSet("Dumps", TS_DUMP, 2, 1600);
  Bytes data(1600);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i * 7 + 1);
  EXPECT_EQ(addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_INF, 1, "d.c", 5, 1600,
                          data.data()),
            0);
  const Slot s = slot(id, 0);
  EXPECT_EQ(s.contents, data);
  EXPECT_EQ(s.header.contentsLength, 1599);
}

TEST_F(WriterTest, DumpIsCutToTheMaximumAndBytesBeyondItsLengthAreLeftAlone) {
  const std::int16_t id = createSet("Dumps", TS_DUMP, 2, 16);
  const Bytes first(16, 0xEE);
  addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_INF, 1, "d.c", 5, 40, first.data());
  EXPECT_EQ(slot(id, 0).contents, first);
  EXPECT_EQ(slot(id, 0).header.contentsLength, 15);
  // A short dump into the next slot, then the ring comes back to slot 0 with
  // 5 bytes: the rest of the slot keeps what it held.
  const Bytes shortDump = {1, 2, 3, 4, 5};
  addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_INF, 1, "d.c", 5, 5, shortDump.data());
  addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_INF, 1, "d.c", 5, 5, shortDump.data());
  Bytes expected(16, 0xEE);
  std::copy(shortDump.begin(), shortDump.end(), expected.begin());
  EXPECT_EQ(slot(id, 0).contents, expected);
  EXPECT_EQ(slot(id, 0).header.contentsLength, 5);
}

// ---- the empty entry ----------------------------------------------------------

TEST_F(WriterTest, EmptyTextIsReportedInTheErrorTraceSetAndWritesNothing) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  const Bytes before = slot(id, 0).contents;
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "/x/y/empty.c", 77, "%s", ""), 0);
  expectEmptyEntryReported(id, before, "empty.c", 77);
}

// A null format is an empty entry, also on the usual way of a call, that of
// a set whose filters the first look passed.
TEST_F(WriterTest, NullFormatIsAnEmptyEntryReportedInTheErrorTraceSet) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  const Bytes before = slot(id, 0).contents;
  const char* const noFormat = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "/x/y/null.c", 78, noFormat), 0);
#pragma GCC diagnostic pop
  expectEmptyEntryReported(id, before, "null.c", 78);
}

TEST_F(WriterTest, EmptyDumpIsReportedInTheErrorTraceSetAndWritesNothing) {
  const std::int16_t id = createSet("Dumps", TS_DUMP, 4, 64);
  const Bytes data(8, 0x11);
  EXPECT_EQ(addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_INF, 2, "d.c", 3, 0, data.data()),
            0);
  EXPECT_EQ(descriptor(id).totalNumberEntries, 0u);
  ASSERT_EQ(errorEntries(), 1);
  EXPECT_EQ(readSramEntry(sram(), 0, 0).text(), "Dumps: Trying to add empty trace entry");
  EXPECT_TRUE(platformCalls("ZqSysLogPrintHD").empty());
}

// ---- every field of the entry header -----------------------------------------

TEST_F(WriterTest, EveryHeaderFieldIsStamped) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  timespec monoBefore{}, realBefore{}, monoAfter{}, realAfter{};
  clock_gettime(CLOCK_MONOTONIC, &monoBefore);
  clock_gettime(CLOCK_REALTIME, &realBefore);
  tracePrintf(static_cast<std::uint16_t>(id), 0x120 | TRACE_SEVERITY_INF, 0x30, "/usr/src/node/app/main.c", 4242,
              "value %d", 17);
  clock_gettime(CLOCK_MONOTONIC, &monoAfter);
  clock_gettime(CLOCK_REALTIME, &realAfter);

  const Slot s = slot(id, 0);
  char expectedName[30] = "main.c";
  EXPECT_EQ(0, std::memcmp(s.header.fileName, expectedName, sizeof expectedName));
  EXPECT_EQ(s.header.line, 4242);
  EXPECT_EQ(s.header.pid, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(s.header.tid, static_cast<std::uint32_t>(gettid()));
  EXPECT_EQ(s.header.severity, 0x20);  // the low 8 bits
  EXPECT_EQ(s.header.category, 0x30u);
  EXPECT_EQ(s.header.sequenceNumber, 0u);
  EXPECT_EQ(s.header.contentsLength, 8);
  EXPECT_EQ(s.text(), "value 17");
  EXPECT_EQ(s.header.prevTraceSetId, 0xFFFF);
  EXPECT_EQ(s.header.prevEntryIndex, 0);
  EXPECT_GE(beSeconds(s.header.monotonicTime), static_cast<std::uint32_t>(monoBefore.tv_sec));
  EXPECT_LE(beSeconds(s.header.monotonicTime), static_cast<std::uint32_t>(monoAfter.tv_sec));
  EXPECT_LT(beNanoseconds(s.header.monotonicTime), 1000000000u);
  EXPECT_GE(beSeconds(s.header.realTime), static_cast<std::uint32_t>(realBefore.tv_sec));
  EXPECT_LE(beSeconds(s.header.realTime), static_cast<std::uint32_t>(realAfter.tv_sec));
  EXPECT_LT(beNanoseconds(s.header.realTime), 1000000000u);
}

TEST_F(WriterTest, LongFileNameKeeps29CharactersAndAZero) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  const std::string base = pattern(40);
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, ("dir/" + base).c_str(), 1, "x");
  const Slot s = slot(id, 0);
  EXPECT_EQ(std::string(s.header.fileName, 30), base.substr(0, 29) + std::string(1, '\0'));
}

TEST_F(WriterTest, FileNameIsTheBaseNameAsThePosixFunctionGivesIt) {
  const std::int16_t id = createSet("Equip", TS_STRING, 8, 128);
  const char* files[] = {"plain.c", "/abs/dir/f.c", "dir/trailing/", nullptr, ""};
  for (const char* file : files) tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, file, 1, "x");
  EXPECT_STREQ(slot(id, 0).header.fileName, "plain.c");
  EXPECT_STREQ(slot(id, 1).header.fileName, "f.c");
  EXPECT_STREQ(slot(id, 2).header.fileName, "trailing");
  EXPECT_STREQ(slot(id, 3).header.fileName, ".");
  EXPECT_STREQ(slot(id, 4).header.fileName, ".");
}

// The base name as the XPG basename gives it for the path's first 4095
// characters, which is what the writer stores (at most 29 of them) and
// forwards (all of them).
std::string xpgBaseName(const std::string& path) {
  std::vector<char> copy(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(path.size(), 4095)));
  copy.push_back('\0');
  return basename(copy.data());
}

TEST_F(WriterTest, AwkwardPathsGiveTheXpgBaseNameStoredAndForwarded) {
  const std::int16_t id = createSet("Equip", TS_STRING, 16, 128);
  const std::string longName = pattern(5000);
  const std::string longPath = "dir/" + longName;                           // cut inside the name
  const std::string cutAtSlash = std::string(4090, 'x') + "/abcd/efgh";      // cut after "abcd/"
  const std::string cutTrailing = std::string(4093, 'y') + "/z/";            // ... "/z" left after the cut
  const struct {
    std::string path;
    std::string expected;
  } paths[] = {{"a/b/", "b"},
               {"/", "/"},
               {"", "."},
               {"b.c", "b.c"},
               {"a/b.c///", "b.c"},
               {"//", "/"},
               {"///", "/"},
               {"//a", "a"},
               {"a//b", "b"},
               {"./", "."},
               {longName, longName.substr(0, 4095)},
               {longPath, longName.substr(0, 4091)},
               {cutAtSlash, "abcd"},
               {cutTrailing, "z"}};
  unsigned index = 0;
  for (const auto& p : paths) {
    SCOPED_TRACE(p.path.size() < 40 ? p.path : std::to_string(p.path.size()) + " characters");
    // The expected values are those of the XPG basename itself.
    EXPECT_EQ(xpgBaseName(p.path), p.expected);
    clearPlatformCalls();
    EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, p.path.c_str(), 7, "x"), 0);
    const std::string expected = xpgBaseName(p.path);
    char stored[30] = {};
    std::memcpy(stored, expected.data(), std::min<std::size_t>(expected.size(), 29));
    EXPECT_EQ(0, std::memcmp(slot(id, index).header.fileName, stored, sizeof stored));
    const auto lines = platformCalls("ZqSysLogPrintE");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, expected + ":7 [x]");
    ++index;
  }
}

// The writer reads a short name in whole 16-byte blocks where they stay
// inside one page. Names that end on the last byte of a page, with an
// unreadable page after it, must be stored and forwarded exactly, with
// nothing read past their page.
TEST_F(WriterTest, FileNamesEndingAtTheEndOfAPageAreStoredWithoutReadingPastIt) {
  const std::int16_t id = createSet("Equip", TS_STRING, 64, 128);
  const auto pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* map = mmap(nullptr, 2 * pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(map, MAP_FAILED);
  auto* pages = static_cast<char*>(map);
  ASSERT_EQ(mprotect(pages + pageSize, pageSize, PROT_NONE), 0);
  for (std::size_t length = 1; length <= 40; ++length) {
    SCOPED_TRACE(length);
    const std::string path = "dir/" + pattern(length);
    char* copy = pages + pageSize - (path.size() + 1);
    std::memcpy(copy, path.c_str(), path.size() + 1);
    clearPlatformCalls();
    ASSERT_EQ(tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, copy, 3, "x"), 0);
    char stored[30] = {};
    std::memcpy(stored, path.c_str() + 4, std::min<std::size_t>(length, 29));
    EXPECT_EQ(0, std::memcmp(slot(id, static_cast<unsigned>(length - 1)).header.fileName, stored, sizeof stored));
    const auto lines = platformCalls("ZqSysLogPrintE");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, pattern(length) + ":3 [x]");
  }
  munmap(map, 2 * pageSize);
}

TEST_F(WriterTest, UnusedHeaderBytesKeepWhatTheSlotHeld) {
  const std::int16_t text = createSet("Equip", TS_STRING, 4, 128);
  const std::int16_t dump = createSet("Dumps", TS_DUMP, 4, 16);
  for (const std::int16_t id : {text, dump}) {
    const TraceSetStruct d = descriptor(id);
    std::memset(g_process.base + d.dataOffset, 0xA5, getTraceEntrySize(d.traceEntryContentsLength));
  }
  tracePrintf(static_cast<std::uint16_t>(text), TRACE_SEVERITY_INF, 0x30, "dir/unused.c", 77, "value %d", 5);
  const Bytes data = {1, 2, 3};
  addTraceEntry(static_cast<std::uint16_t>(dump), TS_DUMP, TRACE_SEVERITY_DBG | TRACE_SEVERITY_INF, 0x30,
                "unused.c", 78, 3, data.data());
  for (const std::int16_t id : {text, dump}) {
    const Slot s = slot(id, 0);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&s.header);
    for (const unsigned offset : {30u, 31u, 41u, 42u, 43u, 70u, 71u}) {
      EXPECT_EQ(bytes[offset], 0xA5) << "set " << id << " byte " << offset;
    }
    // The named fields are all written: the name with its zero padding,
    // byte 29 included.
    char expectedName[30] = "unused.c";
    EXPECT_EQ(0, std::memcmp(s.header.fileName, expectedName, sizeof expectedName));
    EXPECT_EQ(s.header.category, 0x30u);
    EXPECT_EQ(s.header.prevTraceSetId, id == text ? 0xFFFF : text);
    EXPECT_EQ(s.header.prevEntryIndex, 0);
  }
  EXPECT_EQ(slot(text, 0).header.line, 77);
  EXPECT_EQ(slot(text, 0).header.contentsLength, 7);
  EXPECT_EQ(slot(text, 0).header.sequenceNumber, 0u);
  EXPECT_EQ(slot(text, 0).header.severity, 0x20);
  EXPECT_EQ(slot(dump, 0).header.line, 78);
  EXPECT_EQ(slot(dump, 0).header.contentsLength, 3);
  EXPECT_EQ(slot(dump, 0).header.sequenceNumber, 1u);
  EXPECT_EQ(slot(dump, 0).header.severity, 0x30);
  // The dump's contents beyond its length keep the pattern too.
  EXPECT_EQ(slot(dump, 0).contents, (Bytes{1, 2, 3, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5,
                                           0xA5, 0xA5, 0xA5}));
}

TEST_F(WriterTest, ThreadsAndChildProcessesStampTheirOwnIds) {
  const std::int16_t id = createSet("Equip", TS_STRING, 8, 128);
  std::uint32_t threadTid = 0;
  std::thread([&] {
    threadTid = static_cast<std::uint32_t>(gettid());
    tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "t.c", 1, "thread");
  }).join();
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "t.c", 2, "parent");
  const int status = runInChild([&] {
    return tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "t.c", 3, "child");
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(slot(id, 0).header.tid, threadTid);
  EXPECT_EQ(slot(id, 0).header.pid, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(slot(id, 1).header.tid, static_cast<std::uint32_t>(gettid()));
  const Slot child = slot(id, 2);
  EXPECT_EQ(child.text(), "child");
  EXPECT_NE(child.header.pid, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(child.header.tid, child.header.pid);  // the child's only thread
}

// ---- the ring, the sequence number and the chain -----------------------------

TEST_F(WriterTest, TheFourthEntryOfAThreeSlotRingLandsInSlotZero) {
  const std::int16_t id = createSet("Equip", TS_STRING, 3, 128);
  for (int i = 0; i < 4; ++i) {
    tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "r.c", i, "entry %d", i);
  }
  const TraceSetStruct d = descriptor(id);
  EXPECT_EQ(d.curentNumberEntries, 3);
  EXPECT_EQ(d.totalNumberEntries, 4u);
  EXPECT_EQ(d.writeIndex, 1);
  EXPECT_EQ(slot(id, 0).text(), "entry 3");
  EXPECT_EQ(slot(id, 0).header.sequenceNumber, 3u);
  EXPECT_EQ(slot(id, 1).text(), "entry 1");
  EXPECT_EQ(slot(id, 2).text(), "entry 2");
  EXPECT_EQ(getTotalNumberTraceEntries(), 4u);
}

TEST_F(WriterTest, EachEntryLinksToTheEntryWrittenJustBeforeItAnywhere) {
  const std::int16_t a = createSet("Equip", TS_STRING, 2, 128);
  const std::int16_t b = createSet("Dumps", TS_DUMP, 3, 32);
  const Bytes data = {9, 8, 7};
  tracePrintf(static_cast<std::uint16_t>(a), TRACE_SEVERITY_INF, 1, "c.c", 1, "a0");   // a slot 0
  TRACE_DUMP(b, TRACE_SEVERITY_INF, 1, data.data(), data.size());                       // b slot 0
  tracePrintf(static_cast<std::uint16_t>(a), TRACE_SEVERITY_INF, 1, "c.c", 1, "a1");   // a slot 1
  tracePrintf(static_cast<std::uint16_t>(a), TRACE_SEVERITY_INF, 1, "c.c", 1, "a2");   // a slot 0
  TRACE_DUMP(b, TRACE_SEVERITY_INF, 1, data.data(), data.size());                       // b slot 1

  EXPECT_EQ(slot(b, 1).header.prevTraceSetId, a);
  EXPECT_EQ(slot(b, 1).header.prevEntryIndex, 0);
  EXPECT_EQ(slot(a, 0).header.prevTraceSetId, a);  // a2 after a1
  EXPECT_EQ(slot(a, 0).header.prevEntryIndex, 1);
  EXPECT_EQ(slot(a, 1).header.prevTraceSetId, b);  // a1 after the first dump
  EXPECT_EQ(slot(a, 1).header.prevEntryIndex, 0);
  EXPECT_EQ(slot(b, 0).header.prevTraceSetId, a);  // the dump after a0
  EXPECT_EQ(slot(b, 0).header.prevEntryIndex, 0);
  EXPECT_EQ(slot(b, 1).header.sequenceNumber, 4u);

  std::int16_t lastSet = 0;
  std::uint16_t lastIndex = 0;
  const TraceMemoryHeader* h = header();
  lastSet = static_cast<std::int16_t>(loadShared(&h->lastTraceSetId));
  lastIndex = loadShared(&h->lastEntryIndex);
  EXPECT_EQ(lastSet, b);
  EXPECT_EQ(lastIndex, 1);
}

TEST_F(WriterTest, ErrorTraceRecordsTakeSequenceNumbersToo) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_WAR, 1, "c.c", 1, "to the error set");
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "c.c", 2, "to the ring");
  const Slot s = slot(id, 0);
  EXPECT_EQ(s.header.sequenceNumber, 1u);
  EXPECT_EQ(s.header.prevTraceSetId, SYSTEM_TRACE_SET_ID);
  EXPECT_EQ(s.header.prevEntryIndex, 0);
}

// What the node header's counter and link hold at each step of one append.
struct AppendStep {
  TestPoint point;
  std::uint32_t totalNumberTraceEntries;
  std::uint16_t lastEntryIndex;
};
std::vector<AppendStep> g_appendSteps;

void recordAppendStep(TestPoint point) {
  if (point != TestPoint::kUserSlotClaimed && point != TestPoint::kUserContentsWritten &&
      point != TestPoint::kUserHeaderWritten) {
    return;
  }
  const TraceMemoryHeader* h = header();
  g_appendSteps.push_back({point, loadShared(&h->totalNumberTraceEntries), loadShared(&h->lastEntryIndex)});
}

TEST_F(WriterTest, TheSequenceNumberIsTakenJustBeforeTheLink) {
  // Both live in the header's first cache line: taken back to back, after
  // the slot is filled, so that another core takes that line away once.
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "c.c", 1, "first");
  g_appendSteps.clear();
  setTestPointHook(recordAppendStep);
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "c.c", 2, "second");
  setTestPointHook(nullptr);

  ASSERT_EQ(g_appendSteps.size(), 3u);
  EXPECT_EQ(g_appendSteps[0].point, TestPoint::kUserSlotClaimed);
  EXPECT_EQ(g_appendSteps[0].totalNumberTraceEntries, 1u);
  EXPECT_EQ(g_appendSteps[1].point, TestPoint::kUserContentsWritten);
  EXPECT_EQ(g_appendSteps[1].totalNumberTraceEntries, 1u);
  // Numbered with the header stamped, not yet the newest entry.
  EXPECT_EQ(g_appendSteps[2].point, TestPoint::kUserHeaderWritten);
  EXPECT_EQ(g_appendSteps[2].totalNumberTraceEntries, 2u);
  EXPECT_EQ(g_appendSteps[2].lastEntryIndex, 0);
  EXPECT_EQ(slot(id, 1).header.sequenceNumber, 1u);
  EXPECT_EQ(loadShared(&header()->lastEntryIndex), 1);
}

TEST_F(WriterTest, ErrorEntriesRacingUserEntriesNeverShareASequenceNumber) {
  useRealLockDeadline();
  constexpr unsigned kUserEntries = 3000;
  constexpr unsigned kErrorEntries = 40;
  const std::int16_t id = createSet("Equip", TS_STRING, kUserEntries, 128);
  std::thread errors([&] {
    for (unsigned i = 0; i < kErrorEntries; ++i) {
      tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_WAR, 1, "race.c", static_cast<std::int32_t>(i),
                  "error %u", i);
    }
  });
  for (unsigned i = 0; i < kUserEntries; ++i) {
    tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "race.c", static_cast<std::int32_t>(i),
                "user %u", i);
  }
  errors.join();

  std::set<std::uint32_t> numbers;
  for (unsigned i = 0; i < kUserEntries; ++i) numbers.insert(slot(id, i).header.sequenceNumber);
  ASSERT_EQ(errorEntries(), kErrorEntries);
  for (unsigned i = 0; i < kErrorEntries; ++i) numbers.insert(readSramEntry(sram(), 0, i).header.sequenceNumber);
  // Every number from 0 up was given once.
  EXPECT_EQ(numbers.size(), kUserEntries + kErrorEntries);
  EXPECT_EQ(*numbers.rbegin(), kUserEntries + kErrorEntries - 1);
  EXPECT_EQ(getTotalNumberTraceEntries(), kUserEntries + kErrorEntries);
}

TEST_F(WriterTest, SetWithoutSlotsWritesAtItsDataOffsetAndNeverMovesItsIndex) {
  const std::int16_t empty = createSet("Nothing", TS_STRING, 0, 128);
  const std::int16_t next = createSet("Equip", TS_STRING, 2, 128);
  ASSERT_EQ(descriptor(empty).dataOffset, descriptor(next).dataOffset);
  tracePrintf(static_cast<std::uint16_t>(empty), TRACE_SEVERITY_INF, 1, "z.c", 1, "first");
  tracePrintf(static_cast<std::uint16_t>(empty), TRACE_SEVERITY_INF, 1, "z.c", 2, "second");
  const TraceSetStruct d = descriptor(empty);
  EXPECT_EQ(d.writeIndex, 0);
  EXPECT_EQ(d.curentNumberEntries, 0);
  EXPECT_EQ(d.totalNumberEntries, 2u);
  // Both landed at the start of the following set's region.
  EXPECT_EQ(slot(next, 0).text(), "second");
  EXPECT_EQ(slot(next, 0).header.prevTraceSetId, empty);
  EXPECT_EQ(slot(next, 0).header.prevEntryIndex, 0);
  EXPECT_EQ(descriptor(next).totalNumberEntries, 0u);
}

// ---- route, filters and refusals ----------------------------------------------

TEST_F(WriterTest, ErrorEntryGoesToTheErrorTraceSetAndIsForwardedButNeverIntoTheRing) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_ERR, 1, "/s/e.c", 31, "broken %s", "link"),
            0);
  EXPECT_EQ(descriptor(id).totalNumberEntries, 0u);
  ASSERT_EQ(errorEntries(), 1);
  const SramEntry record = readSramEntry(sram(), 0, 0);
  EXPECT_EQ(record.text(), "broken link");
  EXPECT_STREQ(record.header.fileName, "e.c");
  EXPECT_EQ(record.header.line, 31);
  EXPECT_EQ(record.header.severity, 0x80);

  const auto lines = platformCalls("ZqSysLogPrintE");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "e.c:31 [broken link]");
  EXPECT_EQ(lines[0].numbers, (std::vector<long long>{4, 0x1A001E}));
}

TEST_F(WriterTest, WarningAndNoticeGoToTheErrorTraceSetWithTheSetsName) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_WAR, 1, "w.c", 1, "warn");
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_NOT, 1, "w.c", 2, "note");
  EXPECT_EQ(descriptor(id).totalNumberEntries, 0u);
  ASSERT_EQ(errorEntries(), 2);
  EXPECT_EQ(readSramEntry(sram(), 0, 0).text(), "Equip: warn");
  EXPECT_EQ(readSramEntry(sram(), 0, 1).text(), "Equip: note");
  const auto lines = platformCalls("ZqSysLogPrintE");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, "w.c:1 [warn]");
  EXPECT_EQ(lines[0].numbers, (std::vector<long long>{3, getHBKFeatureTag("Equip")}));
  EXPECT_EQ(lines[1].numbers, (std::vector<long long>{2, getHBKFeatureTag("Equip")}));
}

TEST_F(WriterTest, DebugEntryDroppedByTheSeverityFilterLeavesNoTrace) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  ASSERT_EQ(getSeverityFilter(), 0xE8);
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_DBG, 1, "f.c", 1, "debug"), 0);
  EXPECT_EQ(addTraceEntry(static_cast<std::uint16_t>(id), TS_STRING, TRACE_SEVERITY_DBG, 1, "f.c", 1, 0, "debug"),
            0);
  EXPECT_EQ(descriptor(id).totalNumberEntries, 0u);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  EXPECT_EQ(errorEntries(), 0);
  EXPECT_TRUE(platformCalls().empty());
}

TEST_F(WriterTest, EntryOutsideTheSetsCategoryMaskLeavesNoTrace) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128, 0x0F);
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 0xF0, "f.c", 1, "other"), 0);
  EXPECT_EQ(descriptor(id).totalNumberEntries, 0u);
  EXPECT_TRUE(platformCalls().empty());
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 0x18, "f.c", 1, "shares a bit"), 0);
  EXPECT_EQ(descriptor(id).totalNumberEntries, 1u);
}

// Counts how often vsnprintf expands the conversion %W.
int g_formatted = 0;
int countConversion(FILE* stream, const printf_info*, const void* const*) {
  ++g_formatted;
  return std::fprintf(stream, "W");
}
int oneArgument(const printf_info*, std::size_t, int*, int*) { return 0; }

TEST_F(WriterTest, TracePrintfFiltersBeforeItFormats) {
  ASSERT_EQ(register_printf_specifier('W', countConversion, oneArgument), 0);
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128, 0x01);
  const char* format = "%W";  // not a literal: the compiler cannot check %W
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
  g_formatted = 0;
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_DBG, 1, "f.c", 1, format);
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 2, "f.c", 1, format);
  EXPECT_EQ(g_formatted, 0);
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "f.c", 1, format);
  EXPECT_EQ(g_formatted, 1);
  // An error entry of a set is formatted whatever the masks say.
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_ERR, 2, "f.c", 1, format);
  EXPECT_EQ(g_formatted, 2);
#pragma GCC diagnostic pop
  EXPECT_EQ(slot(id, 0).text(), "W");
}

TEST_F(WriterTest, WarningOutsideTheCategoryMaskIsDroppedByTracePrintfButNotByAddTraceEntry) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128, 0x01);
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_WAR, 2, "f.c", 1, "filtered");
  EXPECT_EQ(errorEntries(), 0);
  addTraceEntry(static_cast<std::uint16_t>(id), TS_STRING, TRACE_SEVERITY_WAR, 2, "f.c", 1, 0, "kept");
  ASSERT_EQ(errorEntries(), 1);
  EXPECT_EQ(readSramEntry(sram(), 0, 0).text(), "Equip: kept");
}

TEST_F(WriterTest, DumpIntoATextSetIsATypeMismatch) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  const Bytes data(8, 0x41);
  EXPECT_EQ(addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_INF, 1, "f.c", 1, 8, data.data()),
            TRACE_RC_TYPE_MISMATCH);
  EXPECT_EQ(descriptor(id).totalNumberEntries, 0u);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  EXPECT_EQ(slot(id, 0).contents, Bytes(128, 0));
  EXPECT_TRUE(platformCalls().empty());
}

TEST_F(WriterTest, UnknownSetIsRefusedAndNotForwarded) {
  createSet("Equip", TS_STRING, 4, 128);
  EXPECT_EQ(tracePrintf(1, TRACE_SEVERITY_INF, 1, "f.c", 1, "x"), TRACE_RC_UNKNOWN_SET);
  EXPECT_EQ(addTraceEntry(199, TS_STRING, TRACE_SEVERITY_INF, 1, "f.c", 1, 0, "x"), TRACE_RC_UNKNOWN_SET);
  EXPECT_EQ(addTraceEntry(0x8000, TS_STRING, TRACE_SEVERITY_INF, 1, "f.c", 1, 0, "x"), TRACE_RC_UNKNOWN_SET);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  EXPECT_TRUE(platformCalls().empty());
}

TEST_F(WriterTest, ErrorOfAnUnknownSetIsKeptInTheErrorTraceSetAndRefused) {
  EXPECT_EQ(tracePrintf(7, TRACE_SEVERITY_ERR, 1, "f.c", 9, "lost set"), TRACE_RC_UNKNOWN_SET);
  ASSERT_EQ(errorEntries(), 1);
  EXPECT_EQ(readSramEntry(sram(), 0, 0).text(), "lost set");
  EXPECT_TRUE(platformCalls("ZqSysLogPrintE").empty());
}

TEST_F(WriterTest, InformationForTheErrorTraceSetIsOnlyForwarded) {
  EXPECT_EQ(tracePrintf(SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_INF, 1, "s.c", 4, "system info"), 0);
  EXPECT_EQ(errorEntries(), 0);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  const auto lines = platformCalls("ZqSysLogPrintE");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "s.c:4 [system info]");
  EXPECT_EQ(lines[0].numbers, (std::vector<long long>{2, 0x1A001E}));
}

TEST_F(WriterTest, InformationForTheRemoteSetIsWrittenThroughItsSnapshotInsideTheMapping) {
  const Bytes sramBefore = readFileBytes(sram());
  EXPECT_EQ(tracePrintf(REMOTE_SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_INF, 1, "n.c", 6, "remote"), 0);
  // The SRAM file is not written; the slot offset is the file offset of the
  // remote region's slot 0, taken inside the shared mapping.
  EXPECT_EQ(readFileBytes(sram()), sramBefore);
  TraceEntryHeader entry;
  std::memcpy(&entry, g_process.base + TRACE_SRAM_REMOTE_DATA_OFFSET, sizeof entry);
  EXPECT_STREQ(entry.fileName, "n.c");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(g_process.base) + TRACE_SRAM_REMOTE_DATA_OFFSET + 80), "remote");
  EXPECT_EQ(loadShared(&header()->lastTraceSetId), REMOTE_SYSTEM_TRACE_SET_ID);
  const auto lines = platformCalls("ZqSysLogPrintE");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].numbers, (std::vector<long long>{2, getHBKFeatureTag("NVJ_System")}));
}

TEST_F(WriterTest, DisabledTracingStoresAndForwardsNothing) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  storeShared(&header()->traceEnabled, 0u);
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "f.c", 1, "x"), 0);
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_ERR, 1, "f.c", 1, "x"), 0);
  EXPECT_EQ(tracePrintf(123, TRACE_SEVERITY_INF, 1, "f.c", 1, "x"), 0);  // not even -5
  EXPECT_EQ(addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_INF, 1, "f.c", 1, 1, "x"), 0);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  EXPECT_EQ(errorEntries(), 0);
  EXPECT_TRUE(platformCalls().empty());
}

// ---- forwarding ----------------------------------------------------------------

TEST_F(WriterTest, StoredTextIsForwardedAsALineUnderTheSetsFeatureTag) {
  const char* family = hbk_syslog_map[3].name;
  const std::int16_t id = createSet(family, TS_STRING, 4, 128);
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "dir/fw.c", 12, "line\n");
  const auto lines = platformCalls("ZqSysLogPrintE");
  ASSERT_EQ(lines.size(), 1u);
  // The contents as the caller gave them, line feed and all.
  EXPECT_EQ(lines[0].text, "fw.c:12 [line\n]");
  EXPECT_EQ(lines[0].numbers, (std::vector<long long>{2, 0x1A0003}));
}

TEST_F(WriterTest, StoredDumpIsForwardedAsAHexDumpOfItsCutLength) {
  const std::int16_t id = createSet("Dumps", TS_DUMP, 4, 6);
  const Bytes data = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, 0, 1, "d.c", 1, 9, data.data());
  EXPECT_TRUE(platformCalls("ZqSysLogPrintHD").empty());  // no severity bit: filtered
  addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_INF, 1, "d.c", 1, 9, data.data());
  const auto dumps = platformCalls("ZqSysLogPrintHD");
  ASSERT_EQ(dumps.size(), 1u);
  EXPECT_EQ(dumps[0].text, "QMB Dumps DUMP");
  EXPECT_EQ(dumps[0].numbers, (std::vector<long long>{2, 6}));
  EXPECT_EQ(dumps[0].data, (Bytes{1, 2, 3, 4, 5, 6}));
}

TEST_F(WriterTest, ErrorDumpIsForwardedAsATextLineUnderTheSystemTag) {
  const std::int16_t id = createSet("Dumps", TS_DUMP, 4, 16);
  const char data[] = "ABC";  // the line prints the contents as text
  EXPECT_EQ(addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_ERR, 1, "d.c", 8, 3, data),
            TRACE_RC_TYPE_MISMATCH);  // the error trace set keeps text only
  EXPECT_EQ(errorEntries(), 0);
  EXPECT_EQ(descriptor(id).totalNumberEntries, 0u);
  EXPECT_TRUE(platformCalls("ZqSysLogPrintHD").empty());
  const auto lines = platformCalls("ZqSysLogPrintE");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "d.c:8 [ABC]");
  EXPECT_EQ(lines[0].numbers, (std::vector<long long>{4, 0x1A001E}));
}

TEST_F(WriterTest, ErrorClassDumpIntoATextSetIsForwardedAsTheSetsTextLine) {
  const char* family = hbk_syslog_map[5].name;
  const std::int16_t id = createSet(family, TS_STRING, 4, 128);
  EXPECT_EQ(addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_WAR, 1, "t.c", 2, 4, "abcd"), 0);
  EXPECT_TRUE(platformCalls("ZqSysLogPrintHD").empty());
  auto lines = platformCalls("ZqSysLogPrintE");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "t.c:2 [abcd]");
  EXPECT_EQ(lines[0].numbers, (std::vector<long long>{3, 0x1A0005}));

  // Bytes without a zero byte are printed up to their length and never read
  // past it (the buffer holds exactly those bytes); bytes with a zero byte
  // up to it.
  clearPlatformCalls();
  const std::vector<char> bytes = {'w', 'x', 'y', 'z', 'q'};
  addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_NOT, 1, "t.c", 3, 3, bytes.data());
  const std::vector<char> zero = {'a', 'b', '\0', 'c'};
  addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_WAR, 1, "t.c", 4, 4, zero.data());
  const std::vector<char> exact = {'e', 'x', 'a', 'c', 't'};
  addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_WAR, 1, "t.c", 5, 5, exact.data());
  lines = platformCalls("ZqSysLogPrintE");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].text, "t.c:3 [wxy]");
  EXPECT_EQ(lines[0].numbers, (std::vector<long long>{2, 0x1A0005}));
  EXPECT_EQ(lines[1].text, "t.c:4 [ab]");
  EXPECT_EQ(lines[2].text, "t.c:5 [exact]");
  // None of them is stored anywhere: the error trace set keeps text only.
  EXPECT_EQ(descriptor(id).totalNumberEntries, 0u);
  EXPECT_EQ(errorEntries(), 0);
}

// ---- errno -------------------------------------------------------------------

TEST_F(WriterTest, ErrnoIsTheCallersAfterEveryCall) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  const std::int16_t dumps = createSet("Dumps", TS_DUMP, 4, 16);
  const auto set = static_cast<std::uint16_t>(id);
  const Bytes data(4, 1);
  const std::vector<std::function<int()>> calls = {
      [&] { return tracePrintf(set, TRACE_SEVERITY_INF, 1, "e.c", 1, "stored"); },
      [&] { return tracePrintf(set, TRACE_SEVERITY_DBG, 1, "e.c", 1, "filtered"); },
      [&] { return tracePrintf(set, TRACE_SEVERITY_WAR, 1, "e.c", 1, "error set"); },
      [&] { return tracePrintf(set, TRACE_SEVERITY_INF, 1, "e.c", 1, "%s", ""); },
      [&] { return tracePrintf(150, TRACE_SEVERITY_INF, 1, "e.c", 1, "unknown"); },
      [&] { return addTraceEntry(set, TS_DUMP, TRACE_SEVERITY_INF, 1, "e.c", 1, 4, data.data()); },
      [&] { return addTraceEntry(static_cast<std::uint16_t>(dumps), TS_DUMP, TRACE_SEVERITY_INF, 1, "e.c", 1, 4, data.data()); },
      [&] { return tracePrintf(SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_ERR, 1, "e.c", 1, "error"); },
  };
  for (std::size_t i = 0; i < calls.size(); ++i) {
    errno = 1000 + static_cast<int>(i);
    calls[i]();
    EXPECT_EQ(errno, 1000 + static_cast<int>(i)) << "call " << i;
  }
  // A failing error trace writer (no SRAM file) changes nothing either.
  ASSERT_EQ(::unlink(sram().c_str()), 0);
  errno = 4242;
  {
    StderrCapture quiet;
    tracePrintf(set, TRACE_SEVERITY_ERR, 1, "e.c", 1, "no file");
  }
  EXPECT_EQ(errno, 4242);
  storeShared(&header()->traceEnabled, 0u);
  errno = 4343;
  tracePrintf(set, TRACE_SEVERITY_INF, 1, "e.c", 1, "disabled");
  EXPECT_EQ(errno, 4343);
}

// tracePrintf stores its text with the zeros after it up to the set's
// length, whether the library formatted it, it ends early at a zero byte of
// %c, or vsnprintf formatted it: no byte of a slot's earlier text and no
// scratch byte of the formatter stays behind.
TEST_F(WriterTest, FormattedTextIsStoredWithZerosUpToTheSetsLength) {
  const std::int16_t id = createSet("Equip", TS_STRING, 1, 128);
  const TraceSetStruct d = descriptor(id);
  const auto set = static_cast<std::uint16_t>(id);
  const auto expectStored = [&](const std::string& text, std::uint16_t length) {
    Bytes expected(128, 0);
    std::memcpy(expected.data(), text.data(), text.size());
    const Slot s = slot(id, 0);
    EXPECT_EQ(s.contents, expected) << text;
    EXPECT_EQ(s.header.contentsLength, length) << text;
  };
  std::memset(g_process.base + d.dataOffset, 0xA5, getTraceEntrySize(d.traceEntryContentsLength));
  tracePrintf(set, TRACE_SEVERITY_INF, 1, "e.c", 1, "value %d of %s", 42, "a sensor with a long name");
  expectStored("value 42 of a sensor with a long name", 37);
  tracePrintf(set, TRACE_SEVERITY_INF, 1, "e.c", 1, "ab%cde %s", 0, "more text");
  expectStored("ab", 2);
  tracePrintf(set, TRACE_SEVERITY_INF, 1, "e.c", 1, "%s ratio %.2f", "a fairly long prefix of the text", 0.5);
  expectStored("a fairly long prefix of the text ratio 0.50", 43);
  tracePrintf(set, TRACE_SEVERITY_INF, 1, "e.c", 1, "%s", std::string(200, 'x').c_str());
  expectStored(std::string(127, 'x'), 127);
}

TEST_F(WriterTest, PercentMPrintsTheCallersErrno) {
  const std::int16_t id = createSet("Equip", TS_STRING, 4, 128);
  errno = ENOENT;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // %m is a GNU extension
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "e.c", 1, "open: %m");
#pragma GCC diagnostic pop
  EXPECT_EQ(slot(id, 0).text(), std::string("open: ") + std::strerror(ENOENT));
}

// ---- macros ------------------------------------------------------------------

TEST_F(WriterTest, MacrosPassTheCallSiteAndTheirSeverity) {
  const std::int16_t id = createSet("Equip", TS_STRING, 8, 128);
  const int line = __LINE__ + 1;
  TRACE_INF(id, 1, "inf %d", 1);
  TRACE_DBG(id, 1, "dbg");  // filtered by 0xE8
  modifySeverityMask(TRACE_SEVERITY_DBG, 1);
  TRACE_DBG(id, 1, "dbg %s", "kept");
  TRACE_WAR(id, 1, "war");
  TRACE_NOT(id, 1, "not");
  TRACE_ERR(id, 1, "err");
  EXPECT_EQ(slot(id, 0).text(), "inf 1");
  EXPECT_EQ(slot(id, 0).header.line, line);
  EXPECT_STREQ(slot(id, 0).header.fileName, "entry_writer_test.cpp");
  EXPECT_EQ(slot(id, 0).header.severity, TRACE_SEVERITY_INF);
  EXPECT_EQ(slot(id, 1).text(), "dbg kept");
  EXPECT_EQ(slot(id, 1).header.severity, TRACE_SEVERITY_DBG);
  EXPECT_EQ(descriptor(id).totalNumberEntries, 2u);
  ASSERT_EQ(errorEntries(), 3);
  EXPECT_EQ(readSramEntry(sram(), 0, 0).header.severity, TRACE_SEVERITY_WAR);
  EXPECT_EQ(readSramEntry(sram(), 0, 1).header.severity, TRACE_SEVERITY_NOT);
  EXPECT_EQ(readSramEntry(sram(), 0, 2).header.severity, TRACE_SEVERITY_ERR);
}

// ---- concurrent writers ----------------------------------------------------------

// Entries "w<writer> n<number>" from several writers into shared sets: every
// slot holds a whole entry of one writer, the counts add up, and no sequence
// number repeats.
void checkWellFormed(std::int16_t id, unsigned writers, unsigned perWriter) {
  const TraceSetStruct d = *getTraceSetStruct(static_cast<std::uint16_t>(id));
  EXPECT_EQ(d.totalNumberEntries, writers * perWriter);
  EXPECT_EQ(d.curentNumberEntries, std::min<unsigned>(d.maxNumberEntries, writers * perWriter));
  for (unsigned i = 0; i < d.curentNumberEntries; ++i) {
    TraceEntryHeader h;
    const std::uint8_t* at = g_process.base + d.dataOffset + getTraceEntrySize(d.traceEntryContentsLength) * i;
    std::memcpy(&h, at, sizeof h);
    const std::string text(reinterpret_cast<const char*>(at + 80));
    unsigned writer = 0, number = 0;
    ASSERT_EQ(std::sscanf(text.c_str(), "w%u n%u", &writer, &number), 2) << text;
    EXPECT_LT(writer, writers);
    EXPECT_LT(number, perWriter);
    EXPECT_EQ(h.contentsLength, text.size());
    EXPECT_EQ(h.line, static_cast<std::int32_t>(number));
    EXPECT_STREQ(h.fileName, "conc.c");
  }
}

// Writes kEntries entries "w<t> n<n>" from each of kThreads threads into
// `shared`; thread 0 also writes its entries into `own`.
void writeFromThreads(std::int16_t shared, std::int16_t own, unsigned threadCount, unsigned entries) {
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < threadCount; ++t) {
    threads.emplace_back([=] {
      for (unsigned n = 0; n < entries; ++n) {
        tracePrintf(static_cast<std::uint16_t>(shared), TRACE_SEVERITY_INF, 1, "conc.c", static_cast<int>(n),
                    "w%u n%u", t, n);
        if (t == 0 && own >= 0) {
          tracePrintf(static_cast<std::uint16_t>(own), TRACE_SEVERITY_INF, 1, "conc.c", static_cast<int>(n),
                      "w%u n%u", t, n);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

// The shared ring holds every entry, so no two writers ever share a slot and
// every slot must hold one whole entry.
TEST_F(WriterTest, ThreadsWritingTheSameAndDifferentSetsAtOnce) {
  constexpr unsigned kThreads = 4, kEntries = 500;
  const std::int16_t shared = createSet("Equip", TS_STRING, kThreads * kEntries, 128);
  const std::int16_t own = createSet("Other", TS_STRING, 1000, 128);
  writeFromThreads(shared, own, kThreads, kEntries);
  checkWellFormed(shared, kThreads, kEntries);
  checkWellFormed(own, 1, kEntries);
  EXPECT_EQ(getTotalNumberTraceEntries(), kThreads * kEntries + kEntries);
}

// Threads lapping a small ring many times: the counters stay exact. (A writer
// held up for a whole lap shares its slot with the writer one lap later, so
// the slots' contents are not checked here.)
TEST_F(WriterTest, ThreadsLappingASmallRingKeepItsCountersExact) {
  constexpr unsigned kThreads = 4, kEntries = 500;
  const std::int16_t id = createSet("Equip", TS_STRING, 64, 128);
  writeFromThreads(id, -1, kThreads, kEntries);
  const TraceSetStruct d = descriptor(id);
  EXPECT_EQ(d.totalNumberEntries, kThreads * kEntries);
  EXPECT_EQ(d.curentNumberEntries, 64u);
  EXPECT_EQ(d.writeIndex, (kThreads * kEntries) % 64u);
  EXPECT_EQ(getTotalNumberTraceEntries(), kThreads * kEntries);
}

TEST_F(WriterTest, ProcessesWritingTheSameSetAtOnceNeverShareASequenceNumber) {
  const std::int16_t id = createSet("Equip", TS_STRING, 2000, 128);
  constexpr unsigned kChildren = 4, kEntries = 400;
  const std::vector<int> statuses = runChildrenAtOnce(kChildren, [id](int c) {
    for (unsigned n = 0; n < kEntries; ++n) {
      tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "conc.c", static_cast<int>(n),
                  "w%u n%u", static_cast<unsigned>(c), n);
    }
    return 0;
  });
  EXPECT_EQ(statuses, std::vector<int>(kChildren, 0));
  checkWellFormed(id, kChildren, kEntries);
  std::set<std::uint32_t> sequence;
  std::set<std::uint32_t> pids;
  const TraceSetStruct d = descriptor(id);
  for (unsigned i = 0; i < d.curentNumberEntries; ++i) {
    sequence.insert(slot(id, i).header.sequenceNumber);
    pids.insert(slot(id, i).header.pid);
  }
  EXPECT_EQ(sequence.size(), kChildren * kEntries);
  EXPECT_EQ(pids.size(), kChildren);
}

}  // namespace
}  // namespace nt::test
