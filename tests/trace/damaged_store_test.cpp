// Damaged shared memory and SRAM files: for every damaged field, every
// operation that reads it gives its chosen refusal (trace/store/damage_policy.h)
// with exact results, never reaches outside the mapping, the file regions
// or the caller's buffers, and leaves what it must not change unchanged.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "nodetrace/logbridge.h"
#include "tests/support/recording_platform.h"
#include "tests/trace/dump_decoder.h"
#include "tests/trace/store_fixture.h"
#include "trace/persistent/error_trace.h"
#include "trace/reading/entry_search.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

constexpr std::uint8_t kEverySeverity = 0xFF;
constexpr std::uint32_t kNoSlot = 0xFFFFFFFFu;
constexpr std::uint8_t kCanary = 0xA5;
constexpr std::size_t kReaderBuffer = 1600;

class DamagedStoreTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    sys::captureSyslog(true);
  }
  void TearDown() override {
    sys::resetSyslogCapture();
    StoreTest::TearDown();
  }

  Bytes shm() const { return readSharedObject(shmName()); }

  static int info(std::int16_t id, const char* text) {
    return tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "d.c", 7, "%s", text);
  }
  static int remote(std::int16_t id, const char* text) {
    const std::uint32_t stamp[2] = {1, 2};
    return addRemoteEntry(id, TRACE_SEVERITY_INF, 1, "r.c", 3, 0, text, 11, 12, stamp, stamp);
  }
  static int remoteSystem(const char* text) {
    const std::uint32_t stamp[2] = {1, 2};
    return addRemoteSystemEntry(SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_ERR, 1, "r.c", 3, text, 11, 12, stamp, stamp);
  }

  // getTraceEntry into a buffer of 1600 bytes followed by canary bytes;
  // checks that the canaries survive.
  TraceEntryHeader* read(std::int16_t id, std::uint16_t index) {
    buffer_.assign(kReaderBuffer + 64, kCanary);
    TraceEntryHeader* entry = &sramHeader_;
    getTraceEntry(id, index, &entry, buffer_.data());
    for (std::size_t i = kReaderBuffer; i < buffer_.size(); ++i) EXPECT_EQ(buffer_[i], kCanary) << i;
    return entry;
  }

  int dumpFile(std::uint32_t withSramSets = 1, std::uint32_t debugMode = 0) const {
    return dumpTracesToFile(logs("trace.dump").c_str(), withSramSets, debugMode);
  }
  DumpFile dumped(EntryCount count = EntryCount::kDescriptor) const {
    return decodeDump(readFileBytes(logs("trace.dump")), StampOrder::kBigEndian, count);
  }
  // Through the temporary file: the direct path keeps only 39 characters
  // of the name.
  int resetDump() const { return dumpTracesBeforeReset(logs("TraceLog.1").c_str(), 1); }
  DumpFile resetDumped() const {
    return decodeDump(readFileBytes(logs("TraceLog.1")), StampOrder::kNodeOrder);
  }

  // Writes bytes into the SRAM file at offset.
  void patchSram(off_t offset, const void* data, std::size_t size) const {
    const int fd = open(sram().c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(pwrite(fd, data, size, offset), static_cast<ssize_t>(size));
    close(fd);
  }
  template <typename T>
  void patchSramField(int region, std::size_t fieldOffset, T value) const {
    const off_t descriptor = region == 0 ? TRACE_SRAM_SYSTEM_DESCRIPTOR_OFFSET : TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET;
    patchSram(descriptor + static_cast<off_t>(fieldOffset), &value, sizeof value);
  }

  // A text set of 4 slots with entries e0..e(count-1).
  std::int16_t filledSet(const char* name, int count, std::uint16_t slots = 4) {
    const std::int16_t id = createSet(name, TS_STRING, slots, 16);
    for (int k = 0; k < count; ++k) text(id, TRACE_SEVERITY_INF, "e" + std::to_string(k));
    return id;
  }

  Bytes buffer_;
  TraceEntryHeader sramHeader_{};
};

// ---- dataOffset: outside the mapping, over the header, not word-aligned --------------

const std::uint32_t kOverTheTable = TRACE_DESCRIPTOR_TABLE_OFFSET;
const std::uint32_t kUnaligned = TRACE_ENTRY_AREA_OFFSET + 2;

TEST_F(DamagedStoreTest, WriterRefusesASlotTheMappingCannotServeAndChangesNothing) {
  const std::int16_t id = filledSet("Radio", 2);
  const std::int16_t dumps = createSet("Frames", TS_DUMP, 4, 64);
  for (const std::uint32_t offset : {g_process.size - 100, kOverTheTable, kUnaligned, 0u}) {
    SCOPED_TRACE(offset);
    storeShared(&sharedDescriptor(id)->dataOffset, offset);
    storeShared(&sharedDescriptor(dumps)->dataOffset, offset);
    const Bytes before = shm();
    clearPlatformCalls();
    EXPECT_EQ(info(id, "lost"), TRACE_RC_NO_DESCRIPTOR);
    const Bytes frame(10, 7);
    EXPECT_EQ(addTraceEntry(static_cast<std::uint16_t>(dumps), TS_DUMP, TRACE_SEVERITY_INF, 1, "d.c", 8,
                            static_cast<int>(frame.size()), frame.data()),
              TRACE_RC_NO_DESCRIPTOR);
    EXPECT_EQ(shm(), before);
    EXPECT_TRUE(platformCalls().empty());  // nothing forwarded
  }
}

TEST_F(DamagedStoreTest, ErrorClassEntriesOfADamagedSetStillReachTheErrorTraceSet) {
  const std::int16_t id = filledSet("Radio", 1);
  storeShared(&sharedDescriptor(id)->dataOffset, g_process.size - 100);
  const TraceSetStruct before = errorSet();
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_WAR, 1, "d.c", 9, "warned"), 0);
  const auto added = errorEntriesSince(before);
  ASSERT_EQ(added.size(), 1u);
  EXPECT_EQ(added[0].text(), "Radio: warned");
}

TEST_F(DamagedStoreTest, RemoteWriterDropsTheRecordOfAnUnreachableSlot) {
  const std::int16_t id = filledSet("Radio", 1);
  for (const std::uint32_t offset : {kOverTheTable, kUnaligned, g_process.size}) {
    storeShared(&sharedDescriptor(id)->dataOffset, offset);
    const Bytes before = shm();
    EXPECT_EQ(remote(id, "lost"), 0);
    EXPECT_EQ(shm(), before);
  }
  EXPECT_TRUE(sys::capturedSyslog().empty());
}

TEST_F(DamagedStoreTest, ReaderGivesNoEntryForAnUnreachableSlot) {
  const std::int16_t id = filledSet("Radio", 2);
  // Slots of 96 bytes: slot 0 at size - 90 ends past the mapping.
  for (const std::uint32_t offset : {g_process.size - 92, kOverTheTable, kUnaligned, 0xFFFFFFFCu}) {
    storeShared(&sharedDescriptor(id)->dataOffset, offset);
    EXPECT_EQ(read(id, 0), nullptr) << offset;
    EXPECT_EQ(read(id, 1), nullptr) << offset;
  }
}

TEST_F(DamagedStoreTest, SearchesFindNothingInAnUnreachableRing) {
  const std::int16_t good = filledSet("Good", 2);
  const std::int16_t id = filledSet("Radio", 3);
  storeShared(&sharedDescriptor(id)->dataOffset, kOverTheTable);
  const TraceSetStruct before = errorSet();
  bool firstStep = true;
  EXPECT_EQ(findPrevMatchingEntry(sharedDescriptor(id), 2, kEverySeverity, kAllCategories, &firstStep, 0), kNoSlot);
  std::uint16_t index = 0;
  findNextMatch(sharedDescriptor(id), 0, &index, kEverySeverity, kAllCategories);
  EXPECT_EQ(index, 0);
  const Found found = findMatching({good, id}, 100);
  EXPECT_EQ(found.counts, (std::vector<std::uint16_t>{2, 0}));
  EXPECT_EQ(found.starts, (std::vector<std::uint16_t>{0, 0xEEEE}));
  EXPECT_EQ(found.total, 2u);
  EXPECT_TRUE(errorEntriesSince(before).empty());  // no complaints
}

TEST_F(DamagedStoreTest, BothDumpsLeaveOutTheEntriesOfAnUnreachableRing) {
  const std::int16_t id = filledSet("Radio", 3);
  const std::int16_t good = filledSet("Good", 2);
  storeShared(&sharedDescriptor(id)->dataOffset, kOverTheTable);
  const Bytes before = shm();
  ASSERT_EQ(dumpFile(0, 0), 0);
  DumpFile file = dumped();
  ASSERT_EQ(file.descriptors.size(), 2u);
  EXPECT_EQ(file.descriptors[0].curentNumberEntries, 0);
  EXPECT_TRUE(file.entries[0].empty());
  ASSERT_EQ(file.entries[1].size(), 2u);
  EXPECT_EQ(file.entries[1][1].text(), "e1");

  ASSERT_EQ(resetDump(), 0);
  file = resetDumped();
  ASSERT_EQ(file.descriptors.size(), 2u);
  EXPECT_EQ(file.descriptors[0].curentNumberEntries, 0);
  ASSERT_EQ(file.entries[1].size(), 2u);
  EXPECT_EQ(file.entries[1][0].text(), "e0");
  EXPECT_EQ(shm(), before);  // the header and the table were never taken for a slot
  static_cast<void>(good);
}

TEST_F(DamagedStoreTest, ClearingResetsTheCountersOfADamagedDescriptorOnly) {
  const std::int16_t id = filledSet("Radio", 6);
  storeShared(&sharedDescriptor(id)->dataOffset, kUnaligned);
  EXPECT_EQ(clearTraceSet(id), 0);
  const TraceSetStruct d = descriptor(id);
  EXPECT_EQ(d.writeIndex, 0);
  EXPECT_EQ(d.curentNumberEntries, 0);
  EXPECT_EQ(d.totalNumberEntries, 0u);
  EXPECT_EQ(d.dataOffset, kUnaligned);
  EXPECT_EQ(d.maxNumberEntries, 4);
}

// ---- maxNumberEntries 0 ------------------------------------------------------------------

TEST_F(DamagedStoreTest, ASetCreatedWithoutSlotsStillWritesAtItsDataOffset) {
  const std::int16_t empty = createSet("Nothing", TS_STRING, 0, 16);
  const std::int16_t next = filledSet("Next", 0);
  EXPECT_EQ(info(empty, "first"), 0);
  EXPECT_EQ(info(empty, "second"), 0);
  EXPECT_EQ(descriptor(empty).writeIndex, 0);
  EXPECT_EQ(descriptor(empty).totalNumberEntries, 2u);
  EXPECT_EQ(slot(next, 0).text(), "second");
  // Readers and searches find nothing to walk in it.
  EXPECT_EQ(read(empty, 0), nullptr);
  EXPECT_EQ(findMatching({empty}, 100).counts, (std::vector<std::uint16_t>{0}));
}

TEST_F(DamagedStoreTest, ACapacityDamagedToZeroNeverDividesAndNeverLeavesSlotZero) {
  const std::int16_t id = filledSet("Radio", 3);  // writeIndex 3
  const std::int16_t good = filledSet("Good", 1);
  storeShared(&sharedDescriptor(id)->maxNumberEntries, 0);
  const Bytes before = shm();
  clearPlatformCalls();
  // writeIndex 3 lies beyond a ring without slots.
  EXPECT_EQ(info(id, "lost"), TRACE_RC_NO_DESCRIPTOR);
  EXPECT_EQ(remote(id, "lost"), 0);
  EXPECT_EQ(shm(), before);
  EXPECT_TRUE(platformCalls().empty());

  EXPECT_EQ(read(id, 0), nullptr);
  bool firstStep = true;
  EXPECT_EQ(findPrevMatchingEntry(sharedDescriptor(id), 0, kEverySeverity, kAllCategories, &firstStep, 0), kNoSlot);
  std::uint16_t index = 2;
  findNextMatch(sharedDescriptor(id), 0, &index, kEverySeverity, kAllCategories);
  EXPECT_EQ(index, 2);
  EXPECT_EQ(findMatching({id, good}, 100).counts, (std::vector<std::uint16_t>{0, 1}));

  ASSERT_EQ(dumpFile(0, 0), 0);
  EXPECT_TRUE(dumped().entries[0].empty());
  ASSERT_EQ(resetDump(), 0);
  const DumpFile file = resetDumped();
  EXPECT_TRUE(file.entries[0].empty());
  EXPECT_EQ(file.entries[1].size(), 1u);

  // Clearing starts the ring at slot 0, where a set without slots writes.
  EXPECT_EQ(clearTraceSet(id), 0);
  EXPECT_EQ(info(id, "again"), 0);
  EXPECT_EQ(slot(id, 0).text(), "again");
  EXPECT_EQ(descriptor(id).writeIndex, 0);
}

TEST_F(DamagedStoreTest, ReportsShowAZeroCapacityAsStored) {
  const std::int16_t id = filledSet("Radio", 3);
  storeShared(&sharedDescriptor(id)->maxNumberEntries, 0);
  StdoutCapture out;
  printTraceSetInfo(id, sharedDescriptor(id), 1);
  EXPECT_EQ(printTraceSetsInfo(0), 0);
  const std::string text = out.take();
  EXPECT_NE(text.find("Trace set   0 'Radio' 3 current/0 max,3 total STRING Created by "), std::string::npos) << text;
  EXPECT_NE(text.find("  0: Radio               \t     3/    0 STRING\n"), std::string::npos) << text;
}

// ---- traceEntryContentsLength beyond 1600 -----------------------------------------------

TEST_F(DamagedStoreTest, ALongMaximumNeverOverrunsTheReadersBuffers) {
  const std::int16_t id = createSet("Frames", TS_DUMP, 2, 1600);
  const std::int16_t spare = createSet("Spare", TS_DUMP, 4, 1600);  // room for wider slots
  storeShared(&sharedDescriptor(id)->traceEntryContentsLength, 3000);
  Bytes frame(2000);
  for (std::size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<std::uint8_t>(i);
  ASSERT_EQ(addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_INF, 1, "d.c", 1,
                          static_cast<int>(frame.size()), frame.data()),
            0);
  EXPECT_EQ(sharedSlot(id, 0)->contentsLength, 2000);

  TraceEntryHeader* entry = read(id, 0);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->contentsLength, 2000);
  EXPECT_EQ(Bytes(buffer_.begin(), buffer_.begin() + kReaderBuffer), Bytes(frame.begin(), frame.begin() + kReaderBuffer));

  // The formatter dumps no more than the reader's buffer holds: 100 rows.
  char format[] = "%c";
  StdoutCapture out;
  printTraceEntry(id, sharedDescriptor(id), entry, reinterpret_cast<const char*>(buffer_.data()), format);
  const std::string text = out.take();
  EXPECT_EQ(text.rfind("DUMP 2000 bytes\n0x000:", 0), 0u);
  EXPECT_NE(text.find("\n0x630:"), std::string::npos);
  EXPECT_EQ(text.find("\n0x640:"), std::string::npos);

  // Both dumps write the wide slot, padded with zeros beyond the buffer.
  ASSERT_EQ(dumpFile(0, 1), 0);
  DumpFile file = dumped();
  ASSERT_EQ(file.entries[0].size(), 1u);
  EXPECT_EQ(file.entries[0][0].contents.size(), 3000u);
  EXPECT_EQ(file.entries[0][0].contents[1599], frame[1599]);
  EXPECT_EQ(file.entries[0][0].contents[1600], 0);
  ASSERT_EQ(resetDump(), 0);
  file = resetDumped();
  ASSERT_EQ(file.entries[0].size(), 1u);
  EXPECT_EQ(file.entries[0][0].contents.size(), 3000u);
  static_cast<void>(spare);
}

TEST_F(DamagedStoreTest, AMaximumReachingPastTheMappingIsRefused) {
  // The last set of a full entry area: slots of 65535 bytes end past it.
  const std::int16_t id = createSet("Frames", TS_DUMP, 2, 1600);
  storeShared(&header()->nextFreeOffset, g_process.size);
  storeShared(&sharedDescriptor(id)->dataOffset, g_process.size - 2 * 1680);
  storeShared(&sharedDescriptor(id)->traceEntryContentsLength, 65535);
  storeShared(&sharedDescriptor(id)->curentNumberEntries, 1);
  const Bytes before = shm();
  const Bytes frame(100, 1);
  EXPECT_EQ(addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_INF, 1, "d.c", 1,
                          static_cast<int>(frame.size()), frame.data()),
            TRACE_RC_NO_DESCRIPTOR);
  EXPECT_EQ(shm(), before);
  EXPECT_EQ(read(id, 0), nullptr);
  EXPECT_EQ(findMatching({id}, 100).counts, (std::vector<std::uint16_t>{0}));
}

TEST_F(DamagedStoreTest, ALongMaximumInTheSramFileNeverOverrunsTheReadersBuffer) {
  fillSramSet(1, 3, 3, 3, 10);
  ASSERT_EQ(truncate(sram().c_str(), 2 * TRACE_SRAM_REGION_SIZE), 0);  // both regions whole
  patchSramField<std::uint16_t>(1, offsetof(TraceSetStruct, traceEntryContentsLength), 3000);
  const std::uint16_t stored = 3000;  // the slot's own length, damaged too
  patchSram(TRACE_SRAM_REMOTE_DATA_OFFSET + offsetof(TraceEntryHeader, contentsLength), &stored, sizeof stored);
  TraceEntryHeader* entry = read(REMOTE_SYSTEM_TRACE_SET_ID, 0);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->contentsLength, 3000);
  // Slot 1 of 3080 bytes still lies inside the second region.
  EXPECT_NE(read(REMOTE_SYSTEM_TRACE_SET_ID, 1), nullptr);
}

// ---- currentNumberTraceSets above 200 ---------------------------------------------------

TEST_F(DamagedStoreTest, ASetCountAbove200IsHeldToTheTable) {
  const std::int16_t id = filledSet("Radio", 2);
  storeShared(&header()->currentNumberTraceSets, 255);
  EXPECT_EQ(tracePrintf(220, TRACE_SEVERITY_INF, 1, "d.c", 1, "x"), TRACE_RC_UNKNOWN_SET);
  EXPECT_EQ(remote(220, "x"), TRACE_RC_UNKNOWN_SET);
  EXPECT_EQ(read(220, 0), nullptr);
  EXPECT_EQ(clearTraceSet(220), TRACE_RC_UNKNOWN_SET);
  EXPECT_EQ(findMatching({id, 220}, 100).counts, (std::vector<std::uint16_t>{2, 0}));
  std::int16_t newId = 7;
  EXPECT_EQ(initTraceSet("Later", TS_STRING, 4, 16, 1, &newId), TRACE_RC_TABLE_FULL);
  EXPECT_EQ(getTraceSetId("Later"), -1);

  // The report shows the 200 lines of the table, then ends with -10.
  StdoutCapture out;
  EXPECT_EQ(printTraceSetsInfo(0), TRACE_RC_NO_DESCRIPTOR);
  const std::string text = out.take();
  EXPECT_EQ(text.rfind("\nThere are 255/200 trace sets and the system trace set defined\n\n  0: Radio", 0), 0u);
  EXPECT_NE(text.find("\n199: "), std::string::npos);
  EXPECT_EQ(text.find("\n200: "), std::string::npos);
}

TEST_F(DamagedStoreTest, DumpsOfASetCountAbove200CountTheirOwnDescriptors) {
  const std::int16_t id = filledSet("Radio", 2);
  storeShared(&header()->currentNumberTraceSets, 255);
  ASSERT_EQ(dumpFile(1, 1), 0);
  EXPECT_EQ(loadShared(&header()->currentNumberTraceSets), 255);  // put back
  DumpFile file = dumped();
  EXPECT_EQ(file.header.currentNumberTraceSets, 202);
  ASSERT_EQ(file.descriptors.size(), 202u);
  EXPECT_EQ(file.entries[static_cast<std::size_t>(id)].size(), 2u);
  EXPECT_EQ(file.descriptors[200].name, "NVJ_System");
  EXPECT_EQ(file.descriptors[201].name, "System");

  ASSERT_EQ(resetDump(), 0);
  file = resetDumped();
  EXPECT_EQ(file.header.currentNumberTraceSets, 200);
  ASSERT_EQ(file.descriptors.size(), 200u);
  EXPECT_EQ(file.entries[0].size(), 2u);
}

// ---- lastTraceSetId and prev links that name nothing ------------------------------------

TEST_F(DamagedStoreTest, TheNewestEntryIsReportedAsStoredWhateverItNames) {
  const std::int16_t id = filledSet("Radio", 2);
  std::int16_t set = 0;
  std::uint16_t index = 0;
  std::uint32_t total = 0;
  // Ids that name no existing set arrive as signed 16-bit ids, the slot
  // unchanged.
  const struct {
    std::uint16_t stored;
    std::int16_t reported;
  } links[] = {{1, 1}, {150, 150}, {253, 253}, {0x8000, -32768}, {0xFFFE, -2}, {0xFFFF, -1}};
  for (const auto& link : links) {
    storeShared(&header()->lastTraceSetId, link.stored);
    storeShared(&header()->lastEntryIndex, 0x1234);
    set = 0;
    index = 0;
    total = 0;
    getRecentEntry(&set, &index, &total);
    EXPECT_EQ(set, link.reported) << link.stored;
    EXPECT_EQ(index, 0x1234) << link.stored;
    EXPECT_EQ(total, 2u) << link.stored;
  }
  // A slot beyond the set's ring.
  storeShared(&header()->lastTraceSetId, static_cast<std::uint16_t>(id));
  storeShared(&header()->lastEntryIndex, 4);
  getRecentEntry(&set, &index, &total);
  EXPECT_EQ(set, id);
  EXPECT_EQ(index, 4);
  // Following such a link finds nothing.
  TraceEntryHeader* entry = nullptr;
  std::vector<std::uint8_t> contents(TRACE_MAX_DUMP_LENGTH);
  getTraceEntry(set, index, &entry, contents.data());
  EXPECT_EQ(entry, nullptr);
  getTraceEntry(-2, 0, &entry, contents.data());
  EXPECT_EQ(entry, nullptr);
  storeShared(&header()->lastEntryIndex, 3);
  getRecentEntry(&set, &index, &total);
  EXPECT_EQ(set, id);
  EXPECT_EQ(index, 3);
  storeShared(&header()->lastTraceSetId, REMOTE_SYSTEM_TRACE_SET_ID);
  getRecentEntry(&set, &index, &total);
  EXPECT_EQ(set, static_cast<std::int16_t>(REMOTE_SYSTEM_TRACE_SET_ID));
  // Missing outputs are not written to.
  getRecentEntry(nullptr, &index, &total);
}

TEST_F(DamagedStoreTest, LinksNamingNothingAreCopiedAsStoredAndFollowedByNothing) {
  const std::int16_t id = filledSet("Radio", 1);
  storeShared(&header()->lastTraceSetId, 150);
  storeShared(&header()->lastEntryIndex, 9);
  text(id, TRACE_SEVERITY_INF, "linked");
  EXPECT_EQ(slot(id, 1).header.prevTraceSetId, 150);
  EXPECT_EQ(slot(id, 1).header.prevEntryIndex, 9);
  storeShared(&header()->lastTraceSetId, 151);
  const TraceSetStruct before = errorSet();
  EXPECT_EQ(addErrorTrace(TS_STRING, 1, "d.c", 2, "error", SYSTEM_TRACE_SET_ID, 0x80), 0);
  const auto added = errorEntriesSince(before);
  ASSERT_EQ(added.size(), 1u);
  EXPECT_EQ(added[0].header.prevTraceSetId, 151);

  storeShared(&header()->lastTraceSetId, 152);
  ASSERT_EQ(dumpFile(1, 1), 0);
  DumpFile file = dumped();
  EXPECT_EQ(file.header.lastTraceSetId, 152);
  ASSERT_EQ(file.entries[0].size(), 2u);
  EXPECT_EQ(file.entries[0][1].prevTraceSetId, 150);
  ASSERT_EQ(resetDump(), 0);
  file = resetDumped();
  EXPECT_EQ(file.header.lastTraceSetId, 152);
  EXPECT_EQ(file.entries[0][1].prevTraceSetId, 150);
}

// ---- nextFreeOffset outside the entry area ----------------------------------------------

TEST_F(DamagedStoreTest, NoRegionIsHandedOutFromAFreeOffsetOutsideTheEntryArea) {
  for (const std::uint32_t offset : {g_process.size + 4, 0xFFFFFFF0u, 0u, TRACE_ENTRY_AREA_OFFSET - 4}) {
    storeShared(&header()->nextFreeOffset, offset);
    std::int16_t id = 7;
    EXPECT_EQ(initTraceSet("Radio", TS_STRING, 4, 16, 1, &id), TRACE_RC_NO_ROOM) << offset;
    EXPECT_EQ(getCurrentNumberTraceSets(), 0);
    EXPECT_EQ(loadShared(&header()->nextFreeOffset), offset);
  }
  // At the very end of the mapping only a set without slots fits; its
  // entries, at the end of the mapping, are refused.
  storeShared(&header()->nextFreeOffset, g_process.size);
  std::int16_t id = 7;
  ASSERT_EQ(initTraceSet("Nothing", TS_STRING, 0, 16, 1, &id), 0);
  EXPECT_EQ(info(id, "nowhere"), TRACE_RC_NO_DESCRIPTOR);
}

TEST_F(DamagedStoreTest, TheSummaryPrintsAFreeOffsetAsStored) {
  storeShared(&header()->nextFreeOffset, 0u);
  StdoutCapture out;
  EXPECT_EQ(printTraceSetsInfo(0), 0);
  const std::string text = out.take();
  const std::uint32_t used = 0u - TRACE_ENTRY_AREA_OFFSET;
  char expected[160];
  std::snprintf(expected, sizeof expected,
                "\nSummary: 0/200 user trace sets in %u/10485760 bytes (%.1f%%) shared memory\n", used,
                used * 100.0 / TRACE_ENTRY_AREA_SIZE);
  EXPECT_NE(text.find(expected), std::string::npos) << text;
}

// ---- writeIndex and curentNumberEntries beyond the ring ---------------------------------

TEST_F(DamagedStoreTest, AWriteIndexBeyondTheRingIsRefusedUntilTheSetIsCleared) {
  const std::int16_t id = filledSet("Radio", 2);
  for (const std::uint16_t index : {std::uint16_t{4}, std::uint16_t{9}, std::uint16_t{60000}}) {
    storeShared(&sharedDescriptor(id)->writeIndex, index);
    const Bytes before = shm();
    EXPECT_EQ(info(id, "lost"), TRACE_RC_NO_DESCRIPTOR) << index;
    EXPECT_EQ(remote(id, "lost"), 0);
    EXPECT_EQ(shm(), before);
  }
  EXPECT_EQ(clearTraceSet(id), 0);
  EXPECT_EQ(info(id, "again"), 0);
  EXPECT_EQ(slot(id, 0).text(), "again");
}

TEST_F(DamagedStoreTest, BackwardWalksOfAFullRingWithAWriteIndexBeyondItEnd) {
  const std::int16_t id = filledSet("Radio", 6);
  storeShared(&sharedDescriptor(id)->writeIndex, 9);
  const TraceSetStruct before = errorSet();
  for (std::uint16_t start = 0; start < 4; ++start) {
    bool firstStep = true;
    // Nothing matches: the walk ends after one round.
    EXPECT_EQ(findPrevMatchingEntry(sharedDescriptor(id), start, kEverySeverity, 0x100, &firstStep, 0), kNoSlot);
    firstStep = true;
    EXPECT_EQ(findPrevMatchingEntry(sharedDescriptor(id), start, kEverySeverity, kAllCategories, &firstStep, 0),
              start);
  }
  EXPECT_TRUE(errorEntriesSince(before).empty());
  const Found found = findMatching({id}, 100);
  EXPECT_EQ(found.counts, (std::vector<std::uint16_t>{4}));
}

TEST_F(DamagedStoreTest, TheTraceDumpWalksADamagedRingRoundOnceAtMost) {
  // A full ring of 8 whose writeIndex lies beyond it, in which only slots 0
  // and 4 still match: each step from one to the other passes 4 slots. After
  // more than one round of steps the dump keeps fetching the slot it reached
  // instead of walking on, so its work stays within the ring's size.
  const std::int16_t id = filledSet("Radio", 8, 8);
  for (unsigned slot : {1u, 2u, 3u, 5u, 6u, 7u}) storeShared(&sharedSlot(id, slot)->category, 0u);
  storeShared(&sharedDescriptor(id)->writeIndex, 9);
  ASSERT_EQ(dumpFile(0, 1), 0);
  const DumpFile file = dumped(EntryCount::kOffsets);
  ASSERT_EQ(file.entries.size(), 1u);
  std::vector<std::string> texts;
  for (const DumpEntry& entry : file.entries[0]) texts.push_back(entry.text());
  // The walk starts at writeIndex, which no slot answers (left out); it
  // steps 3 slots to e4, 4 to e0 and 4 to e4: past 8 it stays at e4.
  EXPECT_EQ(texts, (std::vector<std::string>{"e4", "e0", "e4", "e4", "e4", "e4", "e4"}));
}

TEST_F(DamagedStoreTest, ACountBeyondTheCapacityKeepsTheReaderInsideTheRing) {
  const std::int16_t id = filledSet("Radio", 6);
  storeShared(&sharedDescriptor(id)->curentNumberEntries, 9);
  ASSERT_NE(read(id, 3), nullptr);
  EXPECT_EQ(read(id, 4), nullptr);
  EXPECT_EQ(read(id, 8), nullptr);
}

// ---- entry headers --------------------------------------------------------------------

TEST_F(DamagedStoreTest, ALongStoredLengthIsCutByEveryReader) {
  const std::int16_t id = filledSet("Radio", 2);
  sharedSlot(id, 1)->contentsLength = 65535;
  {
    StderrCapture err;
    ASSERT_NE(read(id, 1), nullptr);
    EXPECT_EQ(err.take(),
              "getTraceEntry: *** Contents length of entry is 65535 > max entry length of 16, cutting to prevent "
              "memory fault! ***\n");
  }
  EXPECT_EQ(sharedSlot(id, 1)->contentsLength, 16);
  char format[] = "%c";
  StdoutCapture out;
  printTraceEntry(id, sharedDescriptor(id), sharedSlot(id, 1), reinterpret_cast<const char*>(buffer_.data()),
                  format);
  EXPECT_EQ(out.take(), std::string("e1") + '\n');
}

// ---- the SRAM file ----------------------------------------------------------------------

TEST_F(DamagedStoreTest, SramWritersNeverWriteOutsideTheirRegion) {
  fillSramSet(0, 2, 2, 2, 1);
  fillSramSet(1, 2, 2, 2, 5);
  const struct {
    std::size_t field;
    std::uint32_t value;
    bool word;
  } damage[] = {{offsetof(TraceSetStruct, dataOffset), 307000, true},
                {offsetof(TraceSetStruct, dataOffset), 0x7FFFFFF0u, true},
                {offsetof(TraceSetStruct, writeIndex), 738, false},
                {offsetof(TraceSetStruct, writeIndex), 60000, false}};
  for (const auto& d : damage) {
    SCOPED_TRACE(d.value);
    fillSramSet(0, 2, 2, 2, 1);
    fillSramSet(1, 2, 2, 2, 5);
    for (int region = 0; region < 2; ++region) {
      if (d.word) {
        patchSramField<std::uint32_t>(region, d.field, d.value);
      } else {
        patchSramField<std::uint16_t>(region, d.field, static_cast<std::uint16_t>(d.value));
      }
    }
    const Bytes before = readFileBytes(sram());
    const std::uint32_t total = getTotalNumberTraceEntries();
    EXPECT_EQ(addErrorTrace(TS_STRING, 1, "d.c", 2, "error", SYSTEM_TRACE_SET_ID, 0x80), TRACE_RC_FILE_ERROR);
    EXPECT_EQ(remoteSystem("remote"), TRACE_RC_FILE_ERROR);
    EXPECT_EQ(readFileBytes(sram()), before);
    EXPECT_EQ(getTotalNumberTraceEntries(), total);
  }
  // The record still reached syslog.
  EXPECT_EQ(sys::capturedSyslog().size(), std::size(damage));
}

TEST_F(DamagedStoreTest, SramReadersFindNoEntryOutsideTheRegion) {
  fillSramSet(0, 3, 3, 3, 1);
  fillSramSet(1, 3, 3, 3, 5);
  // Slots of "System" moved over its descriptor, and those of "NVJ_System"
  // into the first region.
  patchSramField<std::uint32_t>(0, offsetof(TraceSetStruct, dataOffset), 0);
  patchSramField<std::uint32_t>(1, offsetof(TraceSetStruct, dataOffset), TRACE_SRAM_SYSTEM_DATA_OFFSET);
  EXPECT_EQ(read(SYSTEM_TRACE_SET_ID, 0), nullptr);
  EXPECT_EQ(read(REMOTE_SYSTEM_TRACE_SET_ID, 0), nullptr);
  EXPECT_EQ(findMatching({SYSTEM_TRACE_SET_ID}, 100).counts, (std::vector<std::uint16_t>{0}));
  const std::int16_t id = filledSet("Radio", 1);
  ASSERT_EQ(dumpFile(1, 1), 0);
  const DumpFile file = dumped(EntryCount::kOffsets);
  ASSERT_EQ(file.entries.size(), 3u);
  EXPECT_EQ(file.entries[static_cast<std::size_t>(id)].size(), 1u);
  EXPECT_TRUE(file.entries[1].empty());
  EXPECT_TRUE(file.entries[2].empty());
}

TEST_F(DamagedStoreTest, SramSetsWithoutCapacityOrWithHugeCountsAreWalkedSafely) {
  fillSramSet(0, 3, 3, 3, 1);
  patchSramField<std::uint16_t>(0, offsetof(TraceSetStruct, maxNumberEntries), 0);
  patchSramField<std::uint16_t>(0, offsetof(TraceSetStruct, curentNumberEntries), 60000);
  EXPECT_EQ(findMatching({SYSTEM_TRACE_SET_ID}, 100).counts, (std::vector<std::uint16_t>{0}));
  EXPECT_NE(read(SYSTEM_TRACE_SET_ID, 2), nullptr);     // inside the region
  EXPECT_EQ(read(SYSTEM_TRACE_SET_ID, 5000), nullptr);  // beyond it
  ASSERT_EQ(dumpFile(1, 1), 0);
  EXPECT_TRUE(dumped(EntryCount::kOffsets).entries[1].empty());
  StdoutCapture out;
  EXPECT_EQ(printTraceSetsInfo(0), 0);
  EXPECT_NE(out.take().find("255: System              \t     3/    0 STRING\n"), std::string::npos);
}

// ---- the type of a set ------------------------------------------------------------------

TEST_F(DamagedStoreTest, BytesOfADumpOfferedToATextSetAreForwardedWithinTheirLength) {
  // A text set: a warning dump skips the type check of the ring (it goes to
  // the error trace set) and is forwarded as the set's text line, its bytes
  // printed within their length (the buffer holds exactly those bytes).
  const std::int16_t id = filledSet("Radio", 0);
  const auto bytes = std::make_unique<std::uint8_t[]>(5);  // no terminator
  std::memset(bytes.get(), 'A', 5);
  clearPlatformCalls();
  EXPECT_EQ(addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, TRACE_SEVERITY_WAR, 1, "d.c", 1, 5, bytes.get()), 0);
  EXPECT_TRUE(platformCalls("ZqSysLogPrintHD").empty());
  const auto lines = platformCalls("ZqSysLogPrintE");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "d.c:1 [AAAAA]");
  EXPECT_EQ(lines[0].numbers, (std::vector<long long>{3, static_cast<long long>(getHBKFeatureTag("Radio"))}));
}

// ---- missing pointers -------------------------------------------------------------------

TEST_F(DamagedStoreTest, MissingRecordsPrintNothing) {
  const std::int16_t id = filledSet("Radio", 1);
  char format[] = "%S %c";
  StdoutCapture out;
  printTraceEntry(id, sharedDescriptor(id), nullptr, "x", format);
  printTraceSetInfo(id, nullptr, 1);
  printTraceEntry(id, sharedDescriptor(id), sharedSlot(id, 0), nullptr, format);
  EXPECT_EQ(out.take(), std::string("INF ") + '\n');
}

}  // namespace
}  // namespace nt::test
