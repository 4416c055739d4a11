// The trace dump file: every byte of the files it writes (header,
// descriptor table, every entry) decoded independently and compared with
// the store, for small stores and a full one with both SRAM sets; the file
// positions and links of the SRAM sets, the temporary raise of the header
// and its restoration, debugMode 0/1/2 with the offset and count
// corrections, the temporary file and its copy, every failure with its
// message, and rings with damaged descriptors.
#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
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

constexpr std::uint16_t kNone = 0xFFFF;


class DumpFileTest : public StoreTest {
 protected:
  std::string temporary() const { return path("/tmp/traceDump.tmp"); }
  std::string output() const { return logs("trace.dump"); }
  int dumpTo(std::uint32_t withSramSets, std::uint32_t debugMode) const {
    return dumpTracesToFile(output().c_str(), withSramSets, debugMode);
  }
  DumpFile decoded(EntryCount count = EntryCount::kDescriptor) const {
    return decodeDump(readFileBytes(output()), StampOrder::kBigEndian, count);
  }

  // The slots of a user set that hold entries, oldest first.
  static std::vector<unsigned> ringOrder(std::int16_t id) {
    const TraceSetStruct d = descriptor(id);
    std::vector<unsigned> order;
    const unsigned start = d.curentNumberEntries >= d.maxNumberEntries ? d.writeIndex : 0;
    for (unsigned k = 0; k < d.curentNumberEntries; ++k) order.push_back((start + k) % d.maxNumberEntries);
    return order;
  }

  // A descriptor as the dump writes it for a set with `entries` entries at
  // `offset`.
  static void expectDescriptor(const DumpDescriptor& dumped, const TraceSetStruct& set, std::uint16_t entries,
                               std::uint32_t offset) {
    EXPECT_EQ(dumped.nameBytes, Bytes(set.name, set.name + sizeof set.name));
    EXPECT_EQ(dumped.type, set.type);
    EXPECT_EQ(dumped.categoryMask, set.categoryMask);
    EXPECT_EQ(dumped.maxNumberEntries, entries);
    EXPECT_EQ(dumped.traceEntryContentsLength, set.traceEntryContentsLength);
    EXPECT_EQ(dumped.creatorPid, set.creatorPid);
    EXPECT_EQ(dumped.dataOffset, offset);
    EXPECT_EQ(dumped.writeIndex, 0);
    EXPECT_EQ(dumped.curentNumberEntries, entries);
    EXPECT_EQ(dumped.totalNumberEntries, set.totalNumberEntries);
  }

  // Link as the file shows it: 255 and 254 replaced.
  static std::uint16_t fileLink(std::uint16_t link, std::uint16_t remotePosition, std::uint16_t systemPosition) {
    if (link == SYSTEM_TRACE_SET_ID) return systemPosition;
    if (link == REMOTE_SYSTEM_TRACE_SET_ID) return remotePosition;
    return link;
  }

  void plantLastSet(std::uint16_t id, std::uint16_t index = 0) const {
    storeShared(&header()->lastTraceSetId, id);
    storeShared(&header()->lastEntryIndex, index);
  }

  // Two sets for the failure tests: "A", text, 4 slots of 96 bytes with
  // a0, a1 (DBG), a2; "B", dump, 2 slots of 88 bytes with one entry.
  void failureStore() {
    allowDebug();
    a_ = createSet("A", TS_STRING, 4, 16);
    b_ = createSet("B", TS_DUMP, 2, 8);
    text(a_, TRACE_SEVERITY_INF, "a0");
    text(a_, TRACE_SEVERITY_DBG, "a1");
    text(a_, TRACE_SEVERITY_INF, "a2");
    dump(b_, TRACE_SEVERITY_INF, Bytes{1, 2, 3});
  }

  // A failed dump: -6, one record with the message, the temporary file
  // closed and gone, what was written copied to the output.
  void expectFailure(int result, const TraceSetStruct& before, std::int32_t line, const std::string& message) {
    EXPECT_EQ(result, TRACE_RC_FILE_ERROR);
    expectOneLibraryRecordSince(before, line, recorded(message));
    EXPECT_EQ(platformCalls("omluCloseFile").size(), 1u);
    EXPECT_FALSE(fileExists(temporary()));
    EXPECT_TRUE(fileExists(output()));
  }

  std::int16_t a_ = -1;
  std::int16_t b_ = -1;
};

// ---- a small store, byte by byte -----------------------------------------------------

TEST_F(DumpFileTest, SmallStoreIsDumpedCompletely) {
  const std::int16_t text1 = createSet("Text", TS_STRING, 4, 128, 0x0F);
  const std::int16_t bytes = createSet("Bytes", TS_DUMP, 3, 20);
  const std::int16_t empty = createSet("Empty", TS_STRING, 5, 32);
  text(text1, TRACE_SEVERITY_INF, "first text", 11, 0x3);
  for (std::uint8_t k = 0; k < 5; ++k) dump(bytes, TRACE_SEVERITY_INF, Bytes(5u + k, static_cast<std::uint8_t>(0xA0 + k)), 20 + k);
  text(text1, TRACE_SEVERITY_INF, "second text\n", 12, 0x8);

  ASSERT_EQ(dumpTo(0, 1), 0);
  const Bytes file = readFileBytes(output());
  const DumpFile dumped = decodeDump(file, StampOrder::kBigEndian);
  ASSERT_EQ(dumped.descriptors.size(), 3u);

  const TraceMemoryHeader& h = *header();
  EXPECT_EQ(dumped.header.version, (Bytes{'1', '.', '4', 0}));
  EXPECT_EQ(dumped.header.totalNumberTraceEntries, 7u);
  EXPECT_EQ(dumped.header.currentNumberTraceSets, 3);
  EXPECT_EQ(dumped.header.severityMask, 0xE8);
  EXPECT_EQ(dumped.header.unused, (Bytes{0, 0}));
  EXPECT_EQ(dumped.header.traceEnabled, 1u);
  EXPECT_EQ(dumped.header.nextFreeOffset, h.nextFreeOffset);
  EXPECT_EQ(dumped.header.lastTraceSetId, text1);
  EXPECT_EQ(dumped.header.lastEntryIndex, 1);
  EXPECT_EQ(dumped.header.lockHolderTid, 0);

  // Text: 2 entries from slot 0; Bytes: full, from writeIndex 2; Empty: none.
  const std::uint32_t first = 28 + 3 * 48;
  expectDescriptor(dumped.descriptors[0], descriptor(text1), 2, first);
  expectDescriptor(dumped.descriptors[1], descriptor(bytes), 3, first + 2 * 208);
  expectDescriptor(dumped.descriptors[2], descriptor(empty), 0, first + 2 * 208 + 3 * 100);
  EXPECT_EQ(file.size(), first + 2 * 208 + 3 * 100);
  EXPECT_EQ(dumped.descriptors[0].categoryMask, 0x0Fu);

  const std::vector<unsigned> textOrder = {0, 1};
  const std::vector<unsigned> bytesOrder = {2, 0, 1};
  ASSERT_EQ(ringOrder(bytes), bytesOrder);
  for (std::size_t k = 0; k < textOrder.size(); ++k) {
    const Slot s = slot(text1, textOrder[k]);
    expectDumpedFrom(dumped.entries[0][k], s.header, s.contents, s.header.prevTraceSetId);
  }
  for (std::size_t k = 0; k < bytesOrder.size(); ++k) {
    const Slot s = slot(bytes, bytesOrder[k]);
    expectDumpedFrom(dumped.entries[1][k], s.header, s.contents, s.header.prevTraceSetId);
  }
  EXPECT_TRUE(dumped.entries[2].empty());
  EXPECT_EQ(dumped.entries[0][0].text(), "first text");
  EXPECT_EQ(dumped.entries[0][1].text(), "second text");
  EXPECT_EQ(dumped.entries[1][0].contents, (Bytes{0xA2, 0xA2, 0xA2, 0xA2, 0xA2, 0xA2, 0xA2, 0, 0, 0, 0, 0,
                                                  0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(dumped.entries[1][0].fileName, "store.c");
  EXPECT_EQ(dumped.entries[1][0].line, 22);
}

TEST_F(DumpFileTest, TheTemporaryFileIsCreatedExclusivelyClosedAndCopiedIntoPlace) {
  const std::int16_t id = createSet("Text", TS_STRING, 4, 16);
  text(id, TRACE_SEVERITY_INF, "t");
  clearPlatformCalls();
  ASSERT_EQ(dumpTo(0, 1), 0);

  const std::vector<PlatformCall> opens = platformCalls("omluOpenFileWithMode");
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].text, temporary());
  EXPECT_EQ(opens[0].sourceFile, "traceLibLocal.c");
  ASSERT_EQ(opens[0].numbers.size(), 4u);
  EXPECT_EQ(opens[0].numbers[0], O_RDWR | O_CREAT | O_EXCL | O_SYNC);
  EXPECT_EQ(opens[0].numbers[1], 0664);
  EXPECT_EQ(opens[0].numbers[2], 2353);
  const std::vector<PlatformCall> closes = platformCalls("omluCloseFile");
  ASSERT_EQ(closes.size(), 1u);
  EXPECT_EQ(closes[0].text, "FILE");
  EXPECT_EQ(closes[0].sourceFile, "traceLibLocal.c");
  EXPECT_EQ(closes[0].numbers, (std::vector<long long>{opens[0].numbers[3], 2688}));
  EXPECT_FALSE(fileExists(temporary()));
  EXPECT_EQ(readFileBytes(output()).size(), 28u + 48u + 96u);
}

TEST_F(DumpFileTest, AStaleTemporaryFileMakesEveryDumpFailUntilItIsRemoved) {
  const std::int16_t id = createSet("Text", TS_STRING, 4, 16);
  text(id, TRACE_SEVERITY_INF, "t");
  writeFileText(temporary(), "left by a crash");
  for (int attempt = 0; attempt < 2; ++attempt) {
    const TraceSetStruct before = errorSet();
    EXPECT_EQ(dumpTo(0, 1), TRACE_RC_FILE_ERROR);
    expectOneLibraryRecordSince(before, 2356,
                                recorded("(dumpTracesToFile) Can't create file " + temporary() + ": 17 (File exists)"));
    EXPECT_FALSE(fileExists(output()));
    EXPECT_EQ(readFileText(temporary()), "left by a crash");
  }
  EXPECT_TRUE(platformCalls("omluCloseFile").empty());
  ASSERT_EQ(unlink(temporary().c_str()), 0);
  EXPECT_EQ(dumpTo(0, 1), 0);
  EXPECT_TRUE(fileExists(output()));
}

TEST_F(DumpFileTest, ARingThatNeverWrappedStartsAtSlot0AndAFullRingAtItsWriteIndex) {
  const std::int16_t young = createSet("Young", TS_STRING, 4, 16);
  const std::int16_t full = createSet("Full", TS_STRING, 3, 16);
  text(young, TRACE_SEVERITY_INF, "y0");
  text(young, TRACE_SEVERITY_INF, "y1");
  for (int k = 0; k < 5; ++k) text(full, TRACE_SEVERITY_INF, "f" + std::to_string(k));
  ASSERT_EQ(dumpTo(0, 1), 0);
  const DumpFile dumped = decoded();
  ASSERT_EQ(dumped.entries.size(), 2u);
  ASSERT_EQ(dumped.entries[0].size(), 2u);
  EXPECT_EQ(dumped.entries[0][0].text(), "y0");
  EXPECT_EQ(dumped.entries[0][1].text(), "y1");
  ASSERT_EQ(dumped.entries[1].size(), 3u);
  EXPECT_EQ(dumped.entries[1][0].text(), "f2");
  EXPECT_EQ(dumped.entries[1][1].text(), "f3");
  EXPECT_EQ(dumped.entries[1][2].text(), "f4");
}

TEST_F(DumpFileTest, ARegisteredSetWithoutEntriesHasCountsZeroAndNoEntries) {
  const std::int16_t quiet = createSet("Quiet", TS_DUMP, 8, 64);
  const std::int16_t busy = createSet("Busy", TS_STRING, 2, 16);
  text(busy, TRACE_SEVERITY_INF, "b");
  ASSERT_EQ(dumpTo(0, 0), 0);
  const DumpFile dumped = decoded();
  ASSERT_EQ(dumped.descriptors.size(), 2u);
  expectDescriptor(dumped.descriptors[0], descriptor(quiet), 0, 28 + 2 * 48);
  expectDescriptor(dumped.descriptors[1], descriptor(busy), 1, 28 + 2 * 48);
  EXPECT_TRUE(dumped.entries[0].empty());
}

// ---- debugMode -----------------------------------------------------------------------

TEST_F(DumpFileTest, DebugMode0LeavesOutDebugEntriesAndLowersCountsAndLaterOffsets) {
  failureStore();
  ASSERT_EQ(dumpTo(0, 0), 0);
  const DumpFile dumped = decoded();
  ASSERT_EQ(dumped.entries.size(), 2u);
  expectDescriptor(dumped.descriptors[0], descriptor(a_), 2, 124);
  expectDescriptor(dumped.descriptors[1], descriptor(b_), 1, 124 + 2 * 96);
  ASSERT_EQ(dumped.entries[0].size(), 2u);
  EXPECT_EQ(dumped.entries[0][0].text(), "a0");
  EXPECT_EQ(dumped.entries[0][1].text(), "a2");
  EXPECT_EQ(readFileBytes(output()).size(), 124u + 2 * 96 + 88);
}

TEST_F(DumpFileTest, DebugMode2CorrectsOffsetsButKeepsTheCountsOfTheRing) {
  failureStore();
  ASSERT_EQ(dumpTo(0, 2), 0);
  const DumpFile dumped = decoded(EntryCount::kOffsets);
  ASSERT_EQ(dumped.entries.size(), 2u);
  // The descriptor counts the three entries of the ring, the file holds two.
  EXPECT_EQ(dumped.descriptors[0].maxNumberEntries, 3);
  EXPECT_EQ(dumped.descriptors[0].curentNumberEntries, 3);
  EXPECT_EQ(dumped.descriptors[1].dataOffset, 124u + 2 * 96);
  ASSERT_EQ(dumped.entries[0].size(), 2u);
  EXPECT_EQ(dumped.entries[0][1].text(), "a2");
  EXPECT_EQ(dumped.entries[1].size(), 1u);
}

TEST_F(DumpFileTest, DebugMode1DumpsEveryEntry) {
  failureStore();
  ASSERT_EQ(dumpTo(0, 1), 0);
  const DumpFile dumped = decoded();
  ASSERT_EQ(dumped.entries[0].size(), 3u);
  EXPECT_EQ(dumped.entries[0][1].text(), "a1");
  EXPECT_EQ(dumped.entries[0][1].severity, TRACE_SEVERITY_DBG);
  EXPECT_EQ(dumped.descriptors[1].dataOffset, 124u + 3 * 96);
}

// ---- the sets of the SRAM file and the links to them -----------------------------------

TEST_F(DumpFileTest, WithoutTheSramSetsLinksToThemBecomeNone) {
  allowDebug();
  const std::int16_t id = createSet("A", TS_STRING, 4, 16);
  plantLastSet(SYSTEM_TRACE_SET_ID, 5);
  text(id, TRACE_SEVERITY_INF, "after system");
  plantLastSet(REMOTE_SYSTEM_TRACE_SET_ID, 6);
  text(id, TRACE_SEVERITY_INF, "after remote");
  plantLastSet(SYSTEM_TRACE_SET_ID, 7);
  text(id, TRACE_SEVERITY_DBG, "debug after system");
  plantLastSet(REMOTE_SYSTEM_TRACE_SET_ID, 8);

  for (std::uint32_t withSramSets : {0u, 2u}) {
    SCOPED_TRACE(withSramSets);
    storeShared(&sharedSlot(id, 2)->prevTraceSetId, SYSTEM_TRACE_SET_ID);
    ASSERT_EQ(dumpTo(withSramSets, 0), 0);
    const DumpFile dumped = decoded();
    ASSERT_EQ(dumped.descriptors.size(), 1u);
    EXPECT_EQ(dumped.header.currentNumberTraceSets, 1);
    EXPECT_EQ(dumped.header.lastTraceSetId, REMOTE_SYSTEM_TRACE_SET_ID);  // not appended: kept
    EXPECT_EQ(dumped.header.lastEntryIndex, 8);
    ASSERT_EQ(dumped.entries[0].size(), 2u);
    EXPECT_EQ(dumped.entries[0][0].prevTraceSetId, kNone);
    EXPECT_EQ(dumped.entries[0][0].prevEntryIndex, 5);
    EXPECT_EQ(dumped.entries[0][1].prevTraceSetId, kNone);
    EXPECT_EQ(dumped.entries[0][1].prevEntryIndex, 6);
    // Written entries get their links back; the DBG entry that was left out
    // keeps the replacement.
    EXPECT_EQ(sharedSlot(id, 0)->prevTraceSetId, SYSTEM_TRACE_SET_ID);
    EXPECT_EQ(sharedSlot(id, 1)->prevTraceSetId, REMOTE_SYSTEM_TRACE_SET_ID);
    EXPECT_EQ(sharedSlot(id, 2)->prevTraceSetId, kNone);
    EXPECT_EQ(header()->currentNumberTraceSets, 1);
    EXPECT_EQ(header()->lastTraceSetId, REMOTE_SYSTEM_TRACE_SET_ID);
  }
}

TEST_F(DumpFileTest, TheSramSetsFollowTheUserSetsAndLinksNameTheirPositions) {
  allowDebug();
  const std::int16_t a = createSet("A", TS_STRING, 4, 16);
  const std::int16_t b = createSet("B", TS_STRING, 4, 16);
  fillSramSet(1, 3, 3, 3, 500);
  fillSramSet(0, 2, 2, 2, 600);
  plantLastSet(SYSTEM_TRACE_SET_ID, 1);
  text(a, TRACE_SEVERITY_INF, "after system");
  plantLastSet(REMOTE_SYSTEM_TRACE_SET_ID, 2);
  text(b, TRACE_SEVERITY_DBG, "debug after remote");
  plantLastSet(SYSTEM_TRACE_SET_ID, 1);
  const Bytes sramBefore = readFileBytes(sram());

  ASSERT_EQ(dumpTo(1, 0), 0);
  const DumpFile dumped = decoded();
  ASSERT_EQ(dumped.descriptors.size(), 4u);
  // "NVJ_System" at position 2, "System" at 3.
  EXPECT_EQ(dumped.header.currentNumberTraceSets, 4);
  EXPECT_EQ(dumped.header.lastTraceSetId, 3);
  EXPECT_EQ(dumped.header.lastEntryIndex, 1);
  const std::uint32_t first = 28 + 4 * 48;
  expectDescriptor(dumped.descriptors[0], descriptor(a), 1, first);
  expectDescriptor(dumped.descriptors[1], descriptor(b), 0, first + 96);
  expectDescriptor(dumped.descriptors[2], readSramDescriptor(sram(), 1), 3, first + 96);
  expectDescriptor(dumped.descriptors[3], readSramDescriptor(sram(), 0), 2, first + 96 + 3 * 208);
  EXPECT_EQ(dumped.descriptors[2].name, "NVJ_System");
  EXPECT_EQ(dumped.descriptors[3].name, "System");

  EXPECT_EQ(dumped.entries[0][0].prevTraceSetId, 3);
  EXPECT_EQ(dumped.entries[0][0].text(), "after system");
  for (unsigned s = 0; s < 3; ++s) {
    const SramEntry e = readSramEntry(sram(), 1, s);
    expectDumpedFrom(dumped.entries[2][s], e.header, e.contents, 2);
  }
  for (unsigned s = 0; s < 2; ++s) {
    const SramEntry e = readSramEntry(sram(), 0, s);
    expectDumpedFrom(dumped.entries[3][s], e.header, e.contents, 3);
  }

  // The header is back; the entry in shared memory has its link back; the
  // left-out DBG entry keeps the position; the SRAM file is unchanged.
  EXPECT_EQ(header()->currentNumberTraceSets, 2);
  EXPECT_EQ(header()->lastTraceSetId, SYSTEM_TRACE_SET_ID);
  EXPECT_EQ(sharedSlot(a, 0)->prevTraceSetId, SYSTEM_TRACE_SET_ID);
  EXPECT_EQ(sharedSlot(b, 0)->prevTraceSetId, 2);
  EXPECT_EQ(readFileBytes(sram()), sramBefore);
}

TEST_F(DumpFileTest, ALastEntryInTheRemoteSetNamesItsPosition) {
  const std::int16_t a = createSet("A", TS_STRING, 4, 16);
  text(a, TRACE_SEVERITY_INF, "a");
  plantLastSet(REMOTE_SYSTEM_TRACE_SET_ID, 4);
  ASSERT_EQ(dumpTo(1, 1), 0);
  const DumpFile dumped = decoded();
  EXPECT_EQ(dumped.header.lastTraceSetId, 1);
  EXPECT_EQ(dumped.header.lastEntryIndex, 4);
  EXPECT_EQ(header()->lastTraceSetId, REMOTE_SYSTEM_TRACE_SET_ID);
  EXPECT_EQ(header()->currentNumberTraceSets, 1);
}

TEST_F(DumpFileTest, ASramDescriptorThatCannotBeReadLeavesNoDescriptorAndTheNextMovesUp) {
  const std::int16_t a = createSet("A", TS_STRING, 4, 16);
  text(a, TRACE_SEVERITY_INF, "a");
  StderrCapture err;
  // The first lookup of "NVJ_System" fails: no descriptor for position 1;
  // the one of "System" is written in its place.
  sys::failCall(Call::kOpen, 1, EACCES);
  EXPECT_EQ(dumpTo(1, 1), 0);
  const std::string printed = err.take();
  EXPECT_EQ(printed, "traceLibLocal.c (2249,getTraceSetStruct): Problems accessing error trace set: 13 (Permission denied)\n");
  const Bytes file = readFileBytes(output());
  ASSERT_GE(file.size(), 28u + 2 * 48);
  EXPECT_EQ(file[8], 3);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(file.data() + 28)), "A");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(file.data() + 76)), "System");
}

// ---- failures --------------------------------------------------------------------------

TEST_F(DumpFileTest, HeaderWriteFailureRestoresTheSharedHeaderAndStillCopiesTheFile) {
  failureStore();
  plantLastSet(SYSTEM_TRACE_SET_ID, 3);
  const TraceSetStruct before = errorSet();
  sys::failCall(Call::kWrite, 1, ENOSPC);
  const int result = dumpTo(1, 1);
  expectFailure(result, before, 2408,
                "(dumpTracesToFile) Problems writing to file " + temporary() + ": 28 (No space left on device)");
  EXPECT_EQ(readFileBytes(output()).size(), 0u);
  EXPECT_EQ(header()->currentNumberTraceSets, 2);
  EXPECT_EQ(header()->lastTraceSetId, SYSTEM_TRACE_SET_ID);
}

TEST_F(DumpFileTest, HeaderWriteFailureWithTheRemoteSetNewestLeavesTheRecordNewest) {
  // Recording the failure writes into the error trace set, which makes it
  // the newest set: the header then names it again.
  failureStore();
  plantLastSet(REMOTE_SYSTEM_TRACE_SET_ID, 3);
  sys::failCall(Call::kWrite, 1, ENOSPC);
  EXPECT_EQ(dumpTo(1, 1), TRACE_RC_FILE_ERROR);
  EXPECT_EQ(header()->currentNumberTraceSets, 2);
  EXPECT_EQ(header()->lastTraceSetId, SYSTEM_TRACE_SET_ID);
}

TEST_F(DumpFileTest, DescriptorWriteFailure) {
  failureStore();
  const TraceSetStruct before = errorSet();
  sys::failCall(Call::kWrite, 2, ENOSPC);
  expectFailure(dumpTo(0, 1), before, 2505,
                "(dumpTracesToFile) Problems writing to file " + temporary() + ": 28 (No space left on device)");
  EXPECT_EQ(readFileBytes(output()).size(), 28u);
}

TEST_F(DumpFileTest, ReadingADescriptorBackFails) {
  failureStore();
  const TraceSetStruct before = errorSet();
  sys::failCall(Call::kRead, 1, EIO);
  expectFailure(dumpTo(0, 1), before, 2533, "(dumpTracesToFile): Problems reading from file: 5 (Input/output error)");
  EXPECT_EQ(readFileBytes(output()).size(), 28u + 2 * 48);
}

TEST_F(DumpFileTest, RewritingACorrectedDataOffsetFails) {
  // debugMode 0: header, 2 descriptors, a0 and a2 (2 writes each), the
  // counts of A, then the corrected offset of B: write 9.
  failureStore();
  const TraceSetStruct before = errorSet();
  sys::failCall(Call::kWrite, 9, ENOSPC);
  expectFailure(dumpTo(0, 0), before, 2559, "(dumpTracesToFile): Problems writing to file: 28 (No space left on device)");
  EXPECT_EQ(readFileBytes(output()).size(), 124u + 2 * 96);
}

TEST_F(DumpFileTest, WritingTheCorrectedCountsFails) {
  failureStore();
  const TraceSetStruct before = errorSet();
  sys::failCall(Call::kWrite, 8, ENOSPC);
  expectFailure(dumpTo(0, 0), before, 2680, "(dumpTracesToFile): Problems writing to file: 28 (No space left on device)");
}

TEST_F(DumpFileTest, AnEntryHeaderWriteFailureInTheMiddleLeavesAPartialDump) {
  failureStore();
  plantLastSet(SYSTEM_TRACE_SET_ID, 0);
  text(a_, TRACE_SEVERITY_INF, "a3 after system");  // slot 3, linked to 255
  const TraceSetStruct before = errorSet();
  // debugMode 1: header, 2 descriptors, a0, a1, a2 (2 writes each), then
  // the header of a3: write 10.
  sys::failCall(Call::kWrite, 10, ENOSPC);
  expectFailure(dumpTo(0, 1), before, 2619,
                "(dumpTracesToFile) Problems writing to file " + temporary() + ": 28 (No space left on device)");
  const Bytes partial = readFileBytes(output());
  ASSERT_EQ(partial.size(), 124u + 3 * 96);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(partial.data() + 124 + 2 * 96 + 80)), "a2");
  // The link replaced for the failed write is not put back.
  EXPECT_EQ(sharedSlot(a_, 3)->prevTraceSetId, kNone);
}

TEST_F(DumpFileTest, AContentsWriteFailure) {
  failureStore();
  const TraceSetStruct before = errorSet();
  sys::failCall(Call::kWrite, 5, ENOSPC);
  expectFailure(dumpTo(0, 1), before, 2642,
                "(dumpTracesToFile) Problems writing to File " + temporary() + ": 28 (No space left on device)");
  EXPECT_EQ(readFileBytes(output()).size(), 124u + 80);
}

TEST_F(DumpFileTest, WithoutAFileNameNothingIsWritten) {
  EXPECT_EQ(dumpTracesToFile(nullptr, 1, 1), TRACE_RC_FILE_ERROR);
  EXPECT_FALSE(fileExists(temporary()));
}

// ---- a full store ----------------------------------------------------------------------

TEST_F(DumpFileTest, FullStoreWithBothSramSetsIsDumpedCompletely) {
  allowDebug();
  std::vector<std::int16_t> ids;
  std::vector<unsigned> wanted;
  for (unsigned i = 0; i < TRACE_MAX_TRACE_SETS; ++i) {
    const bool dumpSet = i % 3 == 0;
    const auto capacity = static_cast<std::uint16_t>(1 + i % 6);
    const auto maxLength = static_cast<std::uint16_t>(dumpSet ? 8 + i % 40 : 16 + i % 113);
    ids.push_back(createSet(("Set" + std::to_string(i)).c_str(), dumpSet ? TS_DUMP : TS_STRING, capacity, maxLength));
    // Some sets stay empty, some half full, most wrap.
    wanted.push_back(i % 10 == 0 ? 0 : capacity + i % 4 - 1);
  }
  ASSERT_EQ(getCurrentNumberTraceSets(), 200);
  fillSramSet(1, TRACE_SRAM_MAX_ENTRIES, 0, TRACE_SRAM_MAX_ENTRIES, 100000);
  fillSramSet(0, TRACE_SRAM_MAX_ENTRIES, 100, 838, 200000);

  for (unsigned round = 0; round < 9; ++round) {
    for (unsigned i = 0; i < ids.size(); ++i) {
      if (round >= wanted[i]) continue;
      // Now and then an entry follows one of the SRAM sets.
      if ((i + round) % 17 == 0) plantLastSet((i + round) % 2 == 0 ? SYSTEM_TRACE_SET_ID : REMOTE_SYSTEM_TRACE_SET_ID, 9);
      const std::uint32_t severity = (i + round) % 5 == 0 ? TRACE_SEVERITY_DBG : TRACE_SEVERITY_INF;
      if (i % 3 == 0) {
        Bytes data(1 + (i + round) % 30);
        for (std::size_t b = 0; b < data.size(); ++b) data[b] = static_cast<std::uint8_t>(i * 7 + round * 3 + b);
        dump(ids[i], severity, data, static_cast<std::int32_t>(round));
      } else {
        text(ids[i], severity, "set " + std::to_string(i) + " round " + std::to_string(round), static_cast<std::int32_t>(round));
      }
    }
  }
  plantLastSet(SYSTEM_TRACE_SET_ID, 99);

  // Everything the check needs from before the dump.
  struct Expected {
    TraceSetStruct set;
    std::vector<Slot> slots;  // kept entries, oldest first
    std::vector<unsigned> slotIndexes;
  };
  std::vector<Expected> expected;
  for (std::int16_t id : ids) {
    Expected e{descriptor(id), {}, {}};
    for (unsigned s : ringOrder(id)) {
      const Slot kept = slot(id, s);
      if (kept.header.severity == TRACE_SEVERITY_DBG) continue;
      e.slots.push_back(kept);
      e.slotIndexes.push_back(s);
    }
    expected.push_back(std::move(e));
  }
  const TraceMemoryHeader headerBefore = *header();
  const Bytes sharedBefore = readSharedObject(shmName());

  ASSERT_EQ(dumpTo(1, 0), 0);
  const Bytes file = readFileBytes(output());
  const DumpFile dumped = decodeDump(file, StampOrder::kBigEndian);
  ASSERT_EQ(dumped.descriptors.size(), 202u);
  EXPECT_EQ(dumped.header.currentNumberTraceSets, 202);
  EXPECT_EQ(dumped.header.lastTraceSetId, 201);
  EXPECT_EQ(dumped.header.lastEntryIndex, 99);
  EXPECT_EQ(dumped.header.totalNumberTraceEntries, headerBefore.totalNumberTraceEntries);
  EXPECT_EQ(dumped.header.nextFreeOffset, headerBefore.nextFreeOffset);
  EXPECT_EQ(dumped.header.severityMask, 0xF8);

  std::uint32_t offset = 28 + 202 * 48;
  for (unsigned p = 0; p < 200; ++p) {
    SCOPED_TRACE("position " + std::to_string(p));
    const Expected& e = expected[p];
    expectDescriptor(dumped.descriptors[p], e.set, static_cast<std::uint16_t>(e.slots.size()), offset);
    offset += getTraceEntrySize(e.set.traceEntryContentsLength) * static_cast<std::uint32_t>(e.slots.size());
    ASSERT_EQ(dumped.entries[p].size(), e.slots.size());
    for (std::size_t k = 0; k < e.slots.size(); ++k) {
      const Slot& s = e.slots[k];
      expectDumpedFrom(dumped.entries[p][k], s.header, s.contents, fileLink(s.header.prevTraceSetId, 200, 201));
    }
  }
  const Bytes sramFile = readFileBytes(sram());
  for (int region : {1, 0}) {
    SCOPED_TRACE("region " + std::to_string(region));
    const unsigned p = region == 1 ? 200 : 201;
    const TraceSetStruct set = readSramDescriptor(sram(), region);
    expectDescriptor(dumped.descriptors[p], set, TRACE_SRAM_MAX_ENTRIES, offset);
    offset += TRACE_SRAM_MAX_ENTRIES * TRACE_SRAM_SLOT_SIZE;
    ASSERT_EQ(dumped.entries[p].size(), TRACE_SRAM_MAX_ENTRIES);
    for (unsigned k = 0; k < TRACE_SRAM_MAX_ENTRIES; ++k) {
      const std::size_t at = set.dataOffset + ((set.writeIndex + k) % TRACE_SRAM_MAX_ENTRIES) * TRACE_SRAM_SLOT_SIZE;
      TraceEntryHeader stored;
      std::memcpy(&stored, sramFile.data() + at, sizeof stored);
      const Bytes contents(sramFile.begin() + static_cast<long>(at + 80),
                           sramFile.begin() + static_cast<long>(at + TRACE_SRAM_SLOT_SIZE));
      expectDumpedFrom(dumped.entries[p][k], stored, contents, fileLink(stored.prevTraceSetId, 200, 201));
      if (::testing::Test::HasFailure()) return;
    }
  }
  EXPECT_EQ(file.size(), offset);

  // The shared memory is as it was, but for the links of left-out DBG
  // entries to the SRAM sets, which keep their positions.
  Bytes sharedAfter = readSharedObject(shmName());
  ASSERT_EQ(sharedAfter.size(), sharedBefore.size());
  unsigned keptReplacements = 0;
  for (std::int16_t id : ids) {
    for (unsigned s : ringOrder(id)) {
      const TraceEntryHeader* entry = sharedSlot(id, s);
      if (entry->severity != TRACE_SEVERITY_DBG) continue;
      const std::size_t at = reinterpret_cast<const std::uint8_t*>(&entry->prevTraceSetId) - g_process.base;
      const std::uint16_t before = u16At(sharedBefore, at);
      if (before == SYSTEM_TRACE_SET_ID || before == REMOTE_SYSTEM_TRACE_SET_ID) {
        EXPECT_EQ(entry->prevTraceSetId, fileLink(before, 200, 201));
        sharedAfter[at] = sharedBefore[at];
        sharedAfter[at + 1] = sharedBefore[at + 1];
        ++keptReplacements;
      }
    }
  }
  EXPECT_GT(keptReplacements, 0u);
  EXPECT_TRUE(sharedAfter == sharedBefore);
}

// ---- round trip ------------------------------------------------------------------------

TEST_F(DumpFileTest, EntriesComeBackExactlyInTheOrderTheyWereWritten) {
  struct Written {
    std::int16_t set;
    std::uint32_t severity;
    std::string text;  // text sets
    Bytes data;        // dump sets
    std::int32_t line;
    std::uint32_t category;
    std::uint32_t sequence;
  };
  allowDebug();
  const std::int16_t log = createSet("Log", TS_STRING, 5, 64);
  const std::int16_t frames = createSet("Frames", TS_DUMP, 3, 40);
  const std::int16_t once = createSet("Once", TS_STRING, 2, 128);
  std::vector<Written> written;
  std::uint32_t sequence = getTotalNumberTraceEntries();
  const auto remember = [&](std::int16_t set, std::uint32_t severity, const std::string& line, const Bytes& data,
                            std::int32_t number, std::uint32_t category) {
    Written w;
    w.set = set;
    w.severity = severity;
    w.text = line;
    w.data = data;
    w.line = number;
    w.category = category;
    w.sequence = sequence++;
    written.push_back(w);
  };
  for (int k = 0; k < 11; ++k) {
    const std::uint32_t severity = k % 4 == 3 ? TRACE_SEVERITY_DBG : TRACE_SEVERITY_INF;
    const auto category = static_cast<std::uint32_t>(1u << (k % 5));
    if (k % 3 == 1) {
      Bytes data(static_cast<std::size_t>(3 + 4 * k) % 41);
      for (std::size_t b = 0; b < data.size(); ++b) data[b] = static_cast<std::uint8_t>(k * 16 + b);
      dump(frames, severity, data, 100 + k, category);
      remember(frames, severity, {}, data, 100 + k, category);
    } else {
      const std::string line = "message " + std::to_string(k) + std::string(static_cast<std::size_t>(k), '*');
      text(log, severity, line, 100 + k, category);
      remember(log, severity, line, {}, 100 + k, category);
    }
  }
  text(once, TRACE_SEVERITY_INF, "only one", 7, 1);
  remember(once, TRACE_SEVERITY_INF, "only one", {}, 7, 1);

  ASSERT_EQ(dumpTo(0, 1), 0);
  const DumpFile dumped = decoded();
  ASSERT_EQ(dumped.entries.size(), 3u);
  for (std::int16_t set : {log, frames, once}) {
    SCOPED_TRACE(set);
    // What the ring still holds: the newest `capacity` entries of the set.
    std::vector<Written> expected;
    for (const Written& w : written) {
      if (w.set == set) expected.push_back(w);
    }
    const std::size_t capacity = descriptor(set).maxNumberEntries;
    if (expected.size() > capacity) expected.erase(expected.begin(), expected.end() - static_cast<long>(capacity));
    const std::vector<DumpEntry>& entries = dumped.entries[static_cast<std::size_t>(set)];
    ASSERT_EQ(entries.size(), expected.size());
    for (std::size_t k = 0; k < expected.size(); ++k) {
      const Written& w = expected[k];
      const DumpEntry& e = entries[k];
      EXPECT_EQ(e.sequenceNumber, w.sequence);
      EXPECT_EQ(e.severity, w.severity);
      EXPECT_EQ(e.category, w.category);
      EXPECT_EQ(e.line, w.line);
      EXPECT_EQ(e.fileName, "store.c");
      EXPECT_EQ(e.pid, static_cast<std::uint32_t>(getpid()));
      EXPECT_EQ(e.tid, static_cast<std::uint32_t>(gettid()));
      if (set == frames) {
        EXPECT_EQ(e.contentsLength, w.data.size());
        EXPECT_EQ(Bytes(e.contents.begin(), e.contents.begin() + static_cast<long>(w.data.size())), w.data);
      } else {
        EXPECT_EQ(e.contentsLength, w.text.size());
        EXPECT_EQ(e.text(), w.text);
      }
    }
  }
}

// ---- damaged descriptors -----------------------------------------------------------------

TEST_F(DumpFileTest, RingsWithDamagedDescriptorsAreDumpedWithoutCrashing) {
  const std::int16_t noSlots = createSet("NoSlots", TS_STRING, 4, 16);
  const std::int16_t outside = createSet("Outside", TS_STRING, 4, 16);
  const std::int16_t wide = createSet("Wide", TS_DUMP, 4, 16);
  const std::int16_t lost = createSet("Lost", TS_STRING, 4, 16);
  const std::int16_t overfull = createSet("Overfull", TS_STRING, 4, 16);
  for (std::int16_t id : {noSlots, outside, lost, overfull}) {
    for (int k = 0; k < 6; ++k) text(id, TRACE_SEVERITY_INF, "e" + std::to_string(k));
  }
  for (int k = 0; k < 6; ++k) dump(wide, TRACE_SEVERITY_INF, Bytes(12, static_cast<std::uint8_t>(k)));
  storeShared(&sharedDescriptor(noSlots)->maxNumberEntries, 0);
  storeShared(&sharedDescriptor(outside)->dataOffset, g_process.size - 100);
  storeShared(&sharedDescriptor(wide)->traceEntryContentsLength, 3000);
  storeShared(&sharedDescriptor(lost)->writeIndex, 9);
  storeShared(&sharedDescriptor(overfull)->curentNumberEntries, 9);

  for (std::uint32_t debugMode : {0u, 1u}) {
    SCOPED_TRACE(debugMode);
    ASSERT_EQ(dumpTo(1, debugMode), 0);
    const DumpFile dumped = decoded(debugMode == 0 ? EntryCount::kDescriptor : EntryCount::kOffsets);
    ASSERT_EQ(dumped.entries.size(), 7u);
    EXPECT_TRUE(dumped.entries[0].empty());  // no slots: nothing to dump
    EXPECT_TRUE(dumped.entries[1].empty());  // every slot refused
    // Slots of 3080 bytes, contents padded with zeros beyond the buffer.
    ASSERT_EQ(dumped.entries[2].size(), 4u);
    EXPECT_EQ(dumped.descriptors[2].traceEntryContentsLength, 3000);
    EXPECT_EQ(dumped.entries[2][0].contents.size(), 3000u);
    // The slot at writeIndex 9 is no entry; the walk goes on at slot 2.
    ASSERT_EQ(dumped.entries[3].size(), 3u);
    EXPECT_EQ(dumped.entries[3][0].text(), "e2");
    // A count beyond the capacity is held to it.
    ASSERT_EQ(dumped.entries[4].size(), 4u);
    EXPECT_EQ(dumped.entries[4][0].text(), "e2");
    EXPECT_EQ(dumped.entries[4][3].text(), "e5");
  }
}

}  // namespace
}  // namespace nt::test
