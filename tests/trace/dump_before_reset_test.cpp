// The dump before reset: which entries the four severity streams select
// within 972800 bytes (warnings first, the first entry that does not fit
// ends the selection), the merge of a set's streams by sequence number, the
// byte order of the two time stamps, every byte of the files for a small and
// a full store, the severity filter during the dump, the removal of the old
// files of the reused slot, the 39-character name, the variant via the
// temporary file, and every failure with its message.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "tests/support/recording_platform.h"
#include "tests/trace/dump_decoder.h"
#include "tests/trace/store_fixture.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

using sys::Call;

constexpr std::uint32_t kLimit = 972800;
constexpr std::uint8_t kStreamSeverities[] = {TRACE_SEVERITY_WAR, TRACE_SEVERITY_NOT, TRACE_SEVERITY_INF,
                                              TRACE_SEVERITY_DBG};


class ResetDumpTest : public StoreTest {
 protected:
  // The dump before reset writes at most 39 characters of its file name:
  // the tests work in the logs directory and give short relative names.
  void SetUp() override {
    StoreTest::SetUp();
    char cwd[PATH_MAX];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    savedCwd_ = cwd;
    ASSERT_EQ(chdir(logs().c_str()), 0);
  }
  void TearDown() override {
    EXPECT_EQ(chdir(savedCwd_.c_str()), 0);
    StoreTest::TearDown();
  }

  int dumpNow(const char* name = "TraceLog.3") const { return dumpTracesBeforeReset(name, 0); }
  DumpFile decoded(const std::string& name = "TraceLog.3") const {
    return decodeDump(readFileBytes(logs(name)), StampOrder::kNodeOrder);
  }
  std::string oldTrace() const { return path("/tmp/oldTrace"); }
  std::string temporary() const { return path("/tmp/tmpTraceDump.bin"); }

  static void setSeverity(std::int16_t id, unsigned slot, std::uint8_t severity) {
    storeShared(&sharedSlot(id, slot)->severity, severity);
  }

  static std::vector<unsigned> ringOrder(std::int16_t id) {
    const TraceSetStruct d = descriptor(id);
    std::vector<unsigned> order;
    const unsigned start = d.curentNumberEntries >= d.maxNumberEntries ? d.writeIndex : 0;
    for (unsigned k = 0; k < d.curentNumberEntries; ++k) order.push_back((start + k) % d.maxNumberEntries);
    return order;
  }

  // The selection as the streams make it, worked out independently: per
  // stream, all entries of its severity newest first, each taken while the
  // running size plus its slot stays below the limit; the first that does
  // not fit ends everything. Per set, the chosen slots oldest first.
  static std::vector<std::vector<unsigned>> expectedSelection(const std::vector<std::int16_t>& ids) {
    struct Candidate {
      std::size_t set;
      unsigned slot;
      std::uint32_t sequence;
      std::uint32_t size;
    };
    std::vector<std::vector<unsigned>> chosen(ids.size());
    std::uint64_t running = 28 + 48 * ids.size();
    bool full = false;
    for (std::uint8_t severity : kStreamSeverities) {
      if (full) break;
      std::vector<Candidate> candidates;
      for (std::size_t i = 0; i < ids.size(); ++i) {
        const std::uint32_t size = getTraceEntrySize(descriptor(ids[i]).traceEntryContentsLength);
        for (unsigned s : ringOrder(ids[i])) {
          const TraceEntryHeader* e = sharedSlot(ids[i], s);
          if ((e->severity & severity) != 0) candidates.push_back({i, s, e->sequenceNumber, size});
        }
      }
      std::sort(candidates.begin(), candidates.end(),
                [](const Candidate& x, const Candidate& y) { return x.sequence > y.sequence; });
      for (const Candidate& c : candidates) {
        if (running + c.size >= kLimit) {
          full = true;
          break;
        }
        running += c.size;
        chosen[c.set].push_back(c.slot);
      }
    }
    for (std::size_t i = 0; i < ids.size(); ++i) {
      std::sort(chosen[i].begin(), chosen[i].end(), [&](unsigned x, unsigned y) {
        return sharedSlot(ids[i], x)->sequenceNumber < sharedSlot(ids[i], y)->sequenceNumber;
      });
    }
    return chosen;
  }

  // Decodes the dump and checks every byte of it against the store and
  // the expected selection.
  void expectDumpOf(const std::vector<std::int16_t>& ids, const std::string& name, std::uint8_t severityMask) {
    const std::vector<std::vector<unsigned>> chosen = expectedSelection(ids);
    const Bytes file = readFileBytes(logs(name));
    const DumpFile dumped = decodeDump(file, StampOrder::kNodeOrder);
    ASSERT_EQ(dumped.descriptors.size(), ids.size());
    const TraceMemoryHeader& h = *header();
    EXPECT_EQ(dumped.header.version, (Bytes{'1', '.', '4', 0}));
    EXPECT_EQ(dumped.header.totalNumberTraceEntries, h.totalNumberTraceEntries);
    EXPECT_EQ(dumped.header.currentNumberTraceSets, ids.size());
    EXPECT_EQ(dumped.header.severityMask, severityMask);
    EXPECT_EQ(dumped.header.traceEnabled, 1u);
    EXPECT_EQ(dumped.header.nextFreeOffset, h.nextFreeOffset);
    EXPECT_EQ(dumped.header.lastTraceSetId, h.lastTraceSetId);
    EXPECT_EQ(dumped.header.lastEntryIndex, h.lastEntryIndex);
    EXPECT_EQ(dumped.header.lockHolderTid, 0);
    std::uint32_t offset = 28 + 48 * static_cast<std::uint32_t>(ids.size());
    // The writer's contents buffer: each entry clears its set's maximum
    // length and copies its own bytes in; the file takes the maximum
    // rounded up to 4, so up to three bytes of the entry before may follow.
    Bytes buffer(1600, 0);
    for (std::size_t i = 0; i < ids.size(); ++i) {
      SCOPED_TRACE("set " + std::to_string(i));
      const TraceSetStruct set = descriptor(ids[i]);
      const DumpDescriptor& d = dumped.descriptors[i];
      EXPECT_EQ(d.nameBytes, Bytes(set.name, set.name + sizeof set.name));
      EXPECT_EQ(d.type, set.type);
      EXPECT_EQ(d.categoryMask, set.categoryMask);
      EXPECT_EQ(d.maxNumberEntries, chosen[i].size());
      EXPECT_EQ(d.traceEntryContentsLength, set.traceEntryContentsLength);
      EXPECT_EQ(d.creatorPid, set.creatorPid);
      EXPECT_EQ(d.dataOffset, offset);
      EXPECT_EQ(d.curentNumberEntries, chosen[i].size());
      EXPECT_EQ(d.totalNumberEntries, set.totalNumberEntries);
      offset += getTraceEntrySize(set.traceEntryContentsLength) * static_cast<std::uint32_t>(chosen[i].size());
      ASSERT_EQ(dumped.entries[i].size(), chosen[i].size());
      for (std::size_t k = 0; k < chosen[i].size(); ++k) {
        const Slot s = slot(ids[i], chosen[i][k]);
        expectDumpedHeaderFrom(dumped.entries[i][k], s.header, s.header.prevTraceSetId);
        std::fill_n(buffer.begin(), set.traceEntryContentsLength, 0);
        std::copy_n(s.contents.begin(), s.header.contentsLength, buffer.begin());
        EXPECT_EQ(dumped.entries[i][k].contents, Bytes(buffer.begin(), buffer.begin() + align32(set.traceEntryContentsLength)));
        if (::testing::Test::HasFailure()) return;
      }
    }
    EXPECT_EQ(file.size(), offset);
  }

  // Two sets for the failure tests: "A" with a0 and a1, "B" (dump) with b0.
  void failureStore() {
    a_ = createSet("A", TS_STRING, 4, 16);
    b_ = createSet("B", TS_DUMP, 2, 8);
    text(a_, TRACE_SEVERITY_INF, "a0");
    text(a_, TRACE_SEVERITY_INF, "a1");
    dump(b_, TRACE_SEVERITY_INF, Bytes{1, 2, 3});
  }

  void expectFailure(int result, const TraceSetStruct& before, std::int32_t line, const std::string& message) {
    EXPECT_EQ(result, TRACE_RC_FILE_ERROR);
    expectOneLibraryRecordSince(before, line, recorded(message));
    EXPECT_EQ(header()->severityMask, 0xE8);
  }

  // "Odd" holds a warning numbered 0xFFFFFFFF, which is selected but never
  // delivered: its set writes nothing, and the entries of "Next" begin
  // earlier than computed, which the dump reports.
  void offsetMismatchStore() {
    const std::int16_t odd = createSet("Odd", TS_STRING, 4, 16);
    const std::int16_t next = createSet("Next", TS_STRING, 4, 16);
    text(odd, TRACE_SEVERITY_INF, "odd");
    text(next, TRACE_SEVERITY_INF, "next");
    setSeverity(odd, 0, TRACE_SEVERITY_WAR);
    storeShared(&sharedSlot(odd, 0)->sequenceNumber, 0xFFFFFFFFu);
  }
  static std::string offsetMismatchMessage() {
    return "TS 1: offset mismatch (computed: " + std::to_string(htonl(124u + 96u)) + ", real: 124), updating\n";
  }

  std::string savedCwd_;
  std::int16_t a_ = -1;
  std::int16_t b_ = -1;
};

// ---- selection ------------------------------------------------------------------------

TEST_F(ResetDumpTest, SmallStoreIsDumpedCompletelyWithoutErrorEntries) {
  allowDebug();
  const std::int16_t radio = createSet("Radio", TS_STRING, 6, 64, 0xFF);
  const std::int16_t frames = createSet("Frames", TS_DUMP, 3, 24);
  const std::int16_t idle = createSet("Idle", TS_STRING, 4, 16);
  for (int k = 0; k < 8; ++k) text(radio, k % 2 == 0 ? TRACE_SEVERITY_INF : TRACE_SEVERITY_DBG, "radio " + std::to_string(k), k);
  for (std::uint8_t k = 0; k < 4; ++k) dump(frames, TRACE_SEVERITY_INF, Bytes(4u + k, k), k);
  // Warnings, notices and an error as other writers leave them in a ring.
  setSeverity(radio, 3, TRACE_SEVERITY_WAR);
  setSeverity(radio, 5, TRACE_SEVERITY_NOT);
  setSeverity(radio, 0, TRACE_SEVERITY_ERR);
  setSeverity(frames, 0, TRACE_SEVERITY_WAR);
  // Links to the SRAM sets stay as they are in this file.
  storeShared(&header()->lastTraceSetId, SYSTEM_TRACE_SET_ID);
  storeShared(&sharedSlot(radio, 2)->prevTraceSetId, REMOTE_SYSTEM_TRACE_SET_ID);

  ASSERT_EQ(dumpNow(), 0);
  expectDumpOf({radio, frames, idle}, "TraceLog.3", TRACE_SEVERITY_ERR);
  const DumpFile dumped = decoded();
  // Radio holds radio 2..7 in slots 2,3,4,5,0,1; slot 0 (radio 6) is an
  // error and stays out; the others come in the order they were written.
  std::vector<std::string> texts;
  for (const DumpEntry& e : dumped.entries[0]) texts.push_back(e.text());
  EXPECT_EQ(texts, (std::vector<std::string>{"radio 2", "radio 3", "radio 4", "radio 5", "radio 7"}));
  EXPECT_EQ(dumped.entries[1].size(), 3u);
  EXPECT_TRUE(dumped.entries[2].empty());
  EXPECT_EQ(dumped.header.lastTraceSetId, SYSTEM_TRACE_SET_ID);
  EXPECT_EQ(dumped.entries[0][0].prevTraceSetId, REMOTE_SYSTEM_TRACE_SET_ID);
}

TEST_F(ResetDumpTest, ASetsStreamsAreMergedBySequenceNumber) {
  allowDebug();
  const std::int16_t id = createSet("Mixed", TS_STRING, 8, 16);
  const std::uint8_t severities[] = {TRACE_SEVERITY_INF, TRACE_SEVERITY_WAR, TRACE_SEVERITY_DBG, TRACE_SEVERITY_NOT,
                                     TRACE_SEVERITY_INF, TRACE_SEVERITY_DBG, TRACE_SEVERITY_WAR};
  for (unsigned k = 0; k < std::size(severities); ++k) text(id, TRACE_SEVERITY_INF, "m" + std::to_string(k));
  for (unsigned k = 0; k < std::size(severities); ++k) setSeverity(id, k, severities[k]);
  ASSERT_EQ(dumpNow(), 0);
  const DumpFile dumped = decoded();
  ASSERT_EQ(dumped.entries[0].size(), std::size(severities));
  for (unsigned k = 0; k < std::size(severities); ++k) {
    EXPECT_EQ(dumped.entries[0][k].text(), "m" + std::to_string(k));
    EXPECT_EQ(dumped.entries[0][k].severity, severities[k]);
  }
}

TEST_F(ResetDumpTest, WarningsThatReachTheLimitLeaveNoRoomForOtherSeverities) {
  // 600 warnings of 1680 bytes: 578 fit after the header and two
  // descriptors (124 + 579 * 1680 > 972800).
  const std::int16_t warnings = createSet("Warnings", TS_DUMP, 600, 1600);
  const std::int16_t others = createSet("Others", TS_STRING, 8, 16);
  for (int k = 0; k < 600; ++k) dump(warnings, TRACE_SEVERITY_INF, Bytes(100, static_cast<std::uint8_t>(k)));
  for (unsigned s = 0; s < 600; ++s) setSeverity(warnings, s, TRACE_SEVERITY_WAR);
  allowDebug();
  text(others, TRACE_SEVERITY_INF, "inf");
  text(others, TRACE_SEVERITY_DBG, "dbg");
  text(others, TRACE_SEVERITY_INF, "not");
  setSeverity(others, 2, TRACE_SEVERITY_NOT);

  ASSERT_EQ(dumpNow(), 0);
  const DumpFile dumped = decoded();
  ASSERT_EQ(dumped.entries.size(), 2u);
  EXPECT_EQ(dumped.entries[0].size(), 578u);
  EXPECT_EQ(dumped.entries[0].front().sequenceNumber, 22u);
  EXPECT_EQ(dumped.entries[0].back().sequenceNumber, 599u);
  EXPECT_TRUE(dumped.entries[1].empty());
  EXPECT_EQ(readFileBytes(logs("TraceLog.3")).size(), 124u + 578 * 1680);
}

TEST_F(ResetDumpTest, AnEntryThatWouldBringTheSizeToExactly972800IsNotTaken) {
  // 49 sets: 28 + 49 * 48 = 2380 bytes before the entries, and 605 slots
  // of 1604 bytes would end exactly at 972800.
  std::vector<std::int16_t> ids;
  for (int i = 0; i < 48; ++i) ids.push_back(createSet(("Empty" + std::to_string(i)).c_str(), TS_STRING, 1, 16));
  const std::int16_t id = createSet("Exact", TS_DUMP, 620, 1524);
  ids.push_back(id);
  ASSERT_EQ(getTraceEntrySize(1524), 1604u);
  ASSERT_EQ(2380u + 605u * 1604u, kLimit);
  for (int k = 0; k < 606; ++k) dump(id, TRACE_SEVERITY_INF, Bytes(10, static_cast<std::uint8_t>(k)));

  ASSERT_EQ(dumpNow(), 0);
  const DumpFile dumped = decoded();
  ASSERT_EQ(dumped.entries.size(), 49u);
  EXPECT_EQ(dumped.entries[48].size(), 604u);
  EXPECT_EQ(dumped.entries[48].front().sequenceNumber, 2u);
  EXPECT_EQ(dumped.entries[48].back().sequenceNumber, 605u);
  EXPECT_EQ(readFileBytes(logs("TraceLog.3")).size(), 2380u + 604 * 1604);
}

TEST_F(ResetDumpTest, FullStoreIsCutAtTheLimitAndDumpedCompletely) {
  allowDebug();
  fillSramSet(0, TRACE_SRAM_MAX_ENTRIES, 300, 1038, 900000);
  fillSramSet(1, TRACE_SRAM_MAX_ENTRIES, 0, TRACE_SRAM_MAX_ENTRIES, 800000);
  std::vector<std::int16_t> ids;
  for (unsigned i = 0; i < TRACE_MAX_TRACE_SETS; ++i) {
    const bool dumpSet = i % 4 == 1;
    const auto capacity = static_cast<std::uint16_t>(20 + i % 26);
    const auto maxLength = static_cast<std::uint16_t>(dumpSet ? 8 + (i * 13) % 200 : 16 + i % 113);
    ids.push_back(createSet(("Set" + std::to_string(i)).c_str(), dumpSet ? TS_DUMP : TS_STRING, capacity, maxLength));
  }
  for (unsigned round = 0; round < 40; ++round) {
    for (unsigned i = 0; i < ids.size(); ++i) {
      if (round >= 30u + i % 15) continue;
      const std::uint32_t severity = (i + round) % 3 == 0 ? TRACE_SEVERITY_DBG : TRACE_SEVERITY_INF;
      if (i % 4 == 1) {
        dump(ids[i], severity, Bytes(1 + (i + round) % 40, static_cast<std::uint8_t>(round)), static_cast<std::int32_t>(round));
      } else {
        text(ids[i], severity, "s" + std::to_string(i) + "r" + std::to_string(round), static_cast<std::int32_t>(round));
      }
    }
  }
  // Warnings, notices and errors among them.
  for (unsigned i = 0; i < ids.size(); ++i) {
    for (unsigned s : ringOrder(ids[i])) {
      if ((i + s) % 9 == 0) setSeverity(ids[i], s, TRACE_SEVERITY_WAR);
      if ((i + s) % 13 == 0) setSeverity(ids[i], s, TRACE_SEVERITY_NOT);
      if ((i + s) % 31 == 0) setSeverity(ids[i], s, TRACE_SEVERITY_ERR);
    }
  }

  ASSERT_EQ(dumpNow(), 0);
  expectDumpOf(ids, "TraceLog.3", TRACE_SEVERITY_ERR);
  const std::vector<std::vector<unsigned>> chosen = expectedSelection(ids);
  std::size_t entries = 0;
  for (const auto& set : chosen) entries += set.size();
  std::size_t stored = 0;
  for (std::int16_t id : ids) stored += descriptor(id).curentNumberEntries;
  // The store holds more than fits.
  EXPECT_LT(entries, stored);
  EXPECT_LT(readFileBytes(logs("TraceLog.3")).size(), kLimit);
}

// ---- the file ---------------------------------------------------------------------------

TEST_F(ResetDumpTest, TimeStampsStandInTheNodesByteOrder) {
  const std::int16_t id = createSet("Clock", TS_STRING, 2, 16);
  text(id, TRACE_SEVERITY_INF, "tick");
  TraceEntryHeader* entry = sharedSlot(id, 0);
  const std::uint8_t monotonic[8] = {0x11, 0x12, 0x13, 0x14, 0x21, 0x22, 0x23, 0x24};
  const std::uint8_t real[8] = {0x31, 0x32, 0x33, 0x34, 0x41, 0x42, 0x43, 0x44};
  std::memcpy(&entry->monotonicTime, monotonic, 8);
  std::memcpy(&entry->realTime, real, 8);
  ASSERT_EQ(dumpNow(), 0);
  const Bytes file = readFileBytes(logs("TraceLog.3"));
  ASSERT_EQ(file.size(), 28u + 48 + 96);
  const std::size_t at = 28 + 48;
  // The monotonic stamp as one 64-bit value reversed, the real time stamp
  // as two words each reversed.
  EXPECT_EQ(Bytes(file.begin() + at + 56, file.begin() + at + 64), (Bytes{0x24, 0x23, 0x22, 0x21, 0x14, 0x13, 0x12, 0x11}));
  EXPECT_EQ(Bytes(file.begin() + at + 72, file.begin() + at + 80), (Bytes{0x34, 0x33, 0x32, 0x31, 0x44, 0x43, 0x42, 0x41}));
  // The other fields as in the trace dump file.
  EXPECT_EQ(be32At(file, at + 48), entry->sequenceNumber);
  EXPECT_EQ(be16At(file, at + 64), 4);
}

TEST_F(ResetDumpTest, ContentsShorterThanTheirRoundedLengthCarryTheLastBytesOfTheEntryBefore) {
  // Each entry clears its set's maximum length (18 for "Short"), the file
  // takes 20 bytes: the last two are those of the entry written before.
  const std::int16_t wide = createSet("Wide", TS_DUMP, 2, 24);
  const std::int16_t narrow = createSet("Short", TS_STRING, 2, 18);
  dump(wide, TRACE_SEVERITY_INF, Bytes(24, 0xAA));
  text(narrow, TRACE_SEVERITY_INF, "hi");
  ASSERT_EQ(dumpNow(), 0);
  const DumpFile dumped = decoded();
  ASSERT_EQ(dumped.entries[0].size(), 1u);
  Bytes wideContents(24, 0xAA);
  wideContents[23] = 0;  // an entry of the maximum length records one byte less
  EXPECT_EQ(dumped.entries[0][0].contents, wideContents);
  ASSERT_EQ(dumped.entries[1].size(), 1u);
  EXPECT_EQ(dumped.entries[1][0].contents,
            (Bytes{'h', 'i', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xAA, 0xAA}));
}

TEST_F(ResetDumpTest, TheSeverityFilterIsErrOnlyDuringTheDumpAndPutBackAfterwards) {
  const std::int16_t id = createSet("Busy", TS_STRING, 4, 16);
  text(id, TRACE_SEVERITY_INF, "before");
  int seenMask = -1;
  int writerResult = -1;
  setFileOpenObserver([&](const PlatformCall& call) {
    if (call.function != "omluOpenFileWithMode") return;
    seenMask = header()->severityMask;
    writerResult = tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "w.c", 1, "during");
  });
  ASSERT_EQ(dumpNow(), 0);
  EXPECT_EQ(seenMask, TRACE_SEVERITY_ERR);
  EXPECT_EQ(writerResult, 0);
  EXPECT_EQ(descriptor(id).totalNumberEntries, 1u);  // the writer was kept out
  EXPECT_EQ(header()->severityMask, 0xE8);
  EXPECT_EQ(decoded().header.severityMask, TRACE_SEVERITY_ERR);
}

TEST_F(ResetDumpTest, TheSeverityFilterIsPutBackAfterAFailureToo) {
  createSet("Busy", TS_STRING, 4, 16);
  storeShared(&header()->severityMask, 0xF8);
  int seenMask = -1;
  setFileOpenObserver([&](const PlatformCall& call) {
    if (call.function == "omluOpenFileWithMode") seenMask = header()->severityMask;
  });
  EXPECT_EQ(dumpNow("missing/TraceLog.3"), TRACE_RC_FILE_ERROR);
  EXPECT_EQ(seenMask, TRACE_SEVERITY_ERR);
  EXPECT_EQ(header()->severityMask, 0xF8);
  sys::failCall(Call::kWrite, 1, ENOSPC);
  EXPECT_EQ(dumpNow(), TRACE_RC_FILE_ERROR);
  EXPECT_EQ(header()->severityMask, 0xF8);
}

TEST_F(ResetDumpTest, TheOutputIsOpenedForSynchronousWritesAndClosed) {
  failureStore();
  clearPlatformCalls();
  ASSERT_EQ(dumpNow(), 0);
  const std::vector<PlatformCall> opens = platformCalls("omluOpenFileWithMode");
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].text, "TraceLog.3");
  EXPECT_EQ(opens[0].sourceFile, "traceLibLocal.c");
  ASSERT_EQ(opens[0].numbers.size(), 4u);
  EXPECT_EQ(opens[0].numbers[0], O_RDWR | O_CREAT | O_SYNC);
  EXPECT_EQ(opens[0].numbers[1], 0666);
  EXPECT_EQ(opens[0].numbers[2], 3514);
  const std::vector<PlatformCall> closes = platformCalls("omluCloseFile");
  ASSERT_EQ(closes.size(), 1u);
  EXPECT_EQ(closes[0].text, "FILE");
  EXPECT_EQ(closes[0].numbers, (std::vector<long long>{opens[0].numbers[3], 3728}));
  // An older, longer file of the same name is replaced, not overwritten.
  writeFileText(logs("TraceLog.4"), std::string(5000, 'x'));
  ASSERT_EQ(dumpNow("TraceLog.4"), 0);
  EXPECT_EQ(readFileBytes(logs("TraceLog.4")), readFileBytes(logs("TraceLog.3")));
}

TEST_F(ResetDumpTest, AFileNameOf40OrMoreCharactersIsCutTo39) {
  failureStore();
  const std::string name = "TraceLog.3-with-a-name-longer-than-the-buffer.bin";
  ASSERT_GE(name.size(), 40u);
  ASSERT_EQ(dumpNow(name.c_str()), 0);
  EXPECT_FALSE(fileExists(logs(name)));
  EXPECT_TRUE(fileExists(logs(name.substr(0, 39))));
  const std::string exact = name.substr(0, 40);
  ASSERT_EQ(dumpNow(exact.c_str()), 0);
  EXPECT_FALSE(fileExists(logs(exact)));
}

TEST_F(ResetDumpTest, ViaTheTemporaryFileTheMaskAndTheOldFilesAreLeftAlone) {
  failureStore();
  allowDebug();
  const std::uint8_t mask = header()->severityMask;
  std::uint16_t slotNumber = 3;
  writeFileText(oldTrace(), std::string(reinterpret_cast<const char*>(&slotNumber), 2));
  writeFileText(logs("ErrorTrace.3"), "old");
  int seenMask = -1;
  std::string openedPath;
  setFileOpenObserver([&](const PlatformCall& call) {
    if (call.function != "omluOpenFileWithMode") return;
    seenMask = header()->severityMask;
    openedPath = call.text;
  });
  const std::string name = logs("TraceLog.7-written-through-the-temporary-file");
  ASSERT_EQ(dumpTracesBeforeReset(name.c_str(), 1), 0);
  EXPECT_EQ(openedPath, temporary());
  EXPECT_EQ(seenMask, mask);
  EXPECT_EQ(header()->severityMask, mask);
  EXPECT_FALSE(fileExists(temporary()));
  EXPECT_TRUE(fileExists(oldTrace()));
  EXPECT_EQ(readFileText(logs("ErrorTrace.3")), "old");
  EXPECT_TRUE(platformCalls("omluOpenFile").empty());
  const DumpFile dumped = decodeDump(readFileBytes(name), StampOrder::kNodeOrder);
  EXPECT_EQ(dumped.header.severityMask, mask);
  ASSERT_EQ(dumped.entries.size(), 2u);
  EXPECT_EQ(dumped.entries[0].size(), 2u);
  EXPECT_EQ(dumped.entries[1].size(), 1u);
}

TEST_F(ResetDumpTest, OffsetMismatchIsReportedWithTheStoredFieldAsItLiesInTheFile) {
  offsetMismatchStore();
  StderrCapture err;
  ASSERT_EQ(dumpNow(), 0);
  EXPECT_EQ(err.take(), offsetMismatchMessage());
  const Bytes file = readFileBytes(logs("TraceLog.3"));
  ASSERT_EQ(file.size(), 124u + 96);
  EXPECT_EQ(be32At(file, 28 + 36), 124u);       // "Odd": one entry at 124, never written
  EXPECT_EQ(be16At(file, 28 + 42), 1);
  EXPECT_EQ(be32At(file, 28 + 48 + 36), 124u);  // "Next": corrected
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(file.data() + 124 + 80)), "next");
}

TEST_F(ResetDumpTest, AContentsLengthChangedAfterTheSelectionIsCutAndReported) {
  // Another process writes a damaged length into a selected slot after the
  // selection has read it: the writer of the file cuts it. The other
  // process is played by a thread.
  const std::int16_t id = createSet("Cut", TS_STRING, 4, 16);
  text(id, TRACE_SEVERITY_INF, "c0");
  text(id, TRACE_SEVERITY_INF, "c1");
  std::atomic<bool> stop{false};
  std::thread damage([&] {
    while (!stop.load()) storeShared(&sharedSlot(id, 1)->contentsLength, 300);
  });
  const std::string expected =
      "nextEntryToDump: *** Contents length of entry is 300 > max entry length of 16, cutting to prevent memory "
      "fault! ***\n";
  bool seen = false;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!seen && std::chrono::steady_clock::now() < deadline) {
    StderrCapture err;
    EXPECT_EQ(dumpNow(), 0);
    seen = err.take().find(expected) != std::string::npos;
  }
  stop = true;
  damage.join();
  EXPECT_TRUE(seen);
}

// ---- old files of the reused slot -------------------------------------------------------

TEST_F(ResetDumpTest, WithoutAnAnnouncementNothingIsRemoved) {
  failureStore();
  writeFileText(logs("ErrorTrace.3"), "old");
  writeFileText(logs("TraceLog.4"), "old");
  clearPlatformCalls();
  ASSERT_EQ(dumpNow(), 0);
  EXPECT_TRUE(fileExists(logs("ErrorTrace.3")));
  EXPECT_TRUE(fileExists(logs("TraceLog.4")));
  const std::vector<PlatformCall> opens = platformCalls("omluOpenFile");
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].text, oldTrace());
  EXPECT_EQ(opens[0].numbers, (std::vector<long long>{O_RDONLY, 3483, -1}));
}

TEST_F(ResetDumpTest, AnAnnouncementOfOneByteRemovesNothingButItself) {
  failureStore();
  writeFileText(oldTrace(), std::string(1, '\3'));
  writeFileText(logs("ErrorTrace.3"), "old");
  ASSERT_EQ(dumpNow("TraceLog.5"), 0);
  EXPECT_TRUE(fileExists(logs("ErrorTrace.3")));
  EXPECT_FALSE(fileExists(oldTrace()));
}

TEST_F(ResetDumpTest, TheFilesOfTheAnnouncedSlotAreRemoved) {
  failureStore();
  const std::uint16_t slotNumber = 3;
  writeFileText(oldTrace(), std::string(reinterpret_cast<const char*>(&slotNumber), 2) + "trailing bytes");
  const std::vector<std::string> removed = {"ErrorTrace.3", "TraceLog.3", "ErrorTrace.03", "TraceLog.3.old"};
  const std::vector<std::string> kept = {"ErrorTrace.30", "TraceLog.13", "ErrorTrace.4", "oldErrorTrace.3",
                                         "xTraceLog.3", "ErrorTrace.", "TraceLog.x3", "ErrorTrace", "Trace.3",
                                         "JournalLog.3"};
  for (const std::string& name : removed) writeFileText(logs(name), "old");
  for (const std::string& name : kept) writeFileText(logs(name), "old");
  // A directory with a matching name cannot be unlinked and stays.
  ASSERT_EQ(mkdir(logs("TraceLog.3.d").c_str(), 0755), 0);

  ASSERT_EQ(dumpNow("TraceLog.3"), 0);
  EXPECT_FALSE(fileExists(oldTrace()));
  for (const std::string& name : removed) {
    if (name == "TraceLog.3") continue;
    EXPECT_FALSE(fileExists(logs(name))) << name;
  }
  // The dump itself is written after the removal.
  EXPECT_EQ(readFileBytes(logs("TraceLog.3")).size(), 124u + 2 * 96 + 88);
  for (const std::string& name : kept) EXPECT_EQ(readFileText(logs(name)), "old") << name;
  EXPECT_TRUE(std::filesystem::is_directory(logs("TraceLog.3.d")));
}

// ---- failures ---------------------------------------------------------------------------

TEST_F(ResetDumpTest, AnOutputThatCannotBeCreated) {
  failureStore();
  const TraceSetStruct before = errorSet();
  expectFailure(dumpNow("missing/TraceLog.1"), before, 3517,
                "(dumpTracesBeforeReset) Can't create file missing/TraceLog.1: 2 (No such file or directory)");
  EXPECT_TRUE(platformCalls("omluCloseFile").empty());
}

TEST_F(ResetDumpTest, ATemporaryFileThatCannotBeCreatedIsReportedWithTheFileName) {
  failureStore();
  ASSERT_EQ(rmdir(path("/tmp").c_str()), 0);
  const std::string name = logs("TraceLog.8");
  const TraceSetStruct before = errorSet();
  StderrCapture err;  // the copy of the missing file complains
  expectFailure(dumpTracesBeforeReset(name.c_str(), 1), before, 3517,
                "(dumpTracesBeforeReset) Can't create file " + name + ": 2 (No such file or directory)");
  err.take();
  EXPECT_FALSE(fileExists(name));
}

TEST_F(ResetDumpTest, HeaderWriteFailure) {
  failureStore();
  const TraceSetStruct before = errorSet();
  sys::failCall(Call::kWrite, 1, ENOSPC);
  expectFailure(dumpNow(), before, 3576, "(dumpTracesBeforeReset): Problems writing to file: 28 (No space left on device)");
  EXPECT_EQ(platformCalls("omluCloseFile").size(), 1u);
  EXPECT_EQ(readFileBytes(logs("TraceLog.3")).size(), 0u);
}

TEST_F(ResetDumpTest, DescriptorWriteFailure) {
  failureStore();
  const TraceSetStruct before = errorSet();
  sys::failCall(Call::kWrite, 2, ENOSPC);
  expectFailure(dumpNow(), before, 3622, "(dumpTracesBeforeReset): Problems writing to file: 28 (No space left on device)");
  EXPECT_EQ(readFileBytes(logs("TraceLog.3")).size(), 28u);
}

TEST_F(ResetDumpTest, ReadingADescriptorBackFails) {
  failureStore();
  const TraceSetStruct before = errorSet();
  sys::failCall(Call::kRead, 1, EIO);
  expectFailure(dumpNow(), before, 3647, "(dumpTracesBeforeReset): Problems reading from file: 5 (Input/output error)");
}

TEST_F(ResetDumpTest, RewritingAnOffsetFailsWithTheReadingText) {
  offsetMismatchStore();
  const TraceSetStruct before = errorSet();
  // The header, two descriptors, then the rewritten descriptor of "Next".
  sys::failCall(Call::kWrite, 4, ENOSPC);
  StderrCapture err;
  expectFailure(dumpNow(), before, 3674, "(dumpTracesBeforeReset): Problems reading from file: 28 (No space left on device)");
  EXPECT_EQ(err.take(), offsetMismatchMessage());
}

TEST_F(ResetDumpTest, EntryHeaderWriteFailure) {
  failureStore();
  const TraceSetStruct before = errorSet();
  sys::failCall(Call::kWrite, 6, ENOSPC);
  expectFailure(dumpNow(), before, 3707, "(dumpTracesBeforeReset): Problems writing to file: 28 (No space left on device)");
  EXPECT_EQ(readFileBytes(logs("TraceLog.3")).size(), 124u + 96);
}

TEST_F(ResetDumpTest, ContentsWriteFailure) {
  failureStore();
  const TraceSetStruct before = errorSet();
  sys::failCall(Call::kWrite, 5, ENOSPC);
  expectFailure(dumpNow(), before, 3720, "(dumpTracesBeforeReset): Problems writing to file: 28 (No space left on device)");
  EXPECT_EQ(readFileBytes(logs("TraceLog.3")).size(), 124u + 80);
}

TEST_F(ResetDumpTest, WithoutAFileNameNothingIsWritten) {
  EXPECT_EQ(dumpTracesBeforeReset(nullptr, 0), TRACE_RC_FILE_ERROR);
  EXPECT_EQ(header()->severityMask, 0xE8);
}

}  // namespace
}  // namespace nt::test
