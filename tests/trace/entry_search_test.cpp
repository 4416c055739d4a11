// The entry search: the backward walk through one ring (the order of the
// slots it visits, where it stops, the firstStep rule and its complaints),
// the merge of several sets newest first within a budget of entries or
// bytes (ties, category masks, the SRAM sets, an entry that cannot be read),
// the forward step of findNextMatch, and rings whose descriptors are damaged.
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "tests/trace/store_fixture.h"
#include "trace/reading/entry_search.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

using sys::Call;

constexpr std::uint8_t kEverySeverity = 0xFF;

class SearchTest : public StoreTest {
 protected:
  // Slot s of a four-slot ring gets category 1 << s, so that a category
  // mask picks out exactly the slots a test wants to match.
  std::int16_t ringOfFour(unsigned entries) {
    const std::int16_t id = createSet("Ring", TS_STRING, 4, 16);
    for (unsigned k = 0; k < entries; ++k) text(id, TRACE_SEVERITY_INF, "entry " + std::to_string(k), 1, 1u << (k % 4));
    return id;
  }

  static std::uint32_t walk(std::int16_t id, std::uint16_t from, std::uint32_t categoryMask,
                            bool* firstStep = nullptr) {
    bool ownFirstStep = true;
    return findPrevMatchingEntry(sharedDescriptor(id), from, kEverySeverity, categoryMask,
                                 firstStep != nullptr ? firstStep : &ownFirstStep, 0);
  }
};

// ---- findPrevMatchingEntry ------------------------------------------------------

TEST_F(SearchTest, BackwardWalkOfAWrappedRingVisitsEverySlotFromTheNewestToTheOldest) {
  // Six entries in four slots: writeIndex 2, the newest entry in slot 1.
  const std::int16_t id = ringOfFour(6);
  ASSERT_EQ(descriptor(id).writeIndex, 2);
  // Each slot alone is found ...
  for (unsigned s : {1u, 0u, 3u, 2u}) EXPECT_EQ(walk(id, 1, 1u << s), s) << "slot " << s;
  // ... and of two matching slots the one visited first wins: 1, 0, 3, 2.
  EXPECT_EQ(walk(id, 1, (1u << 0) | (1u << 3)), 0u);
  EXPECT_EQ(walk(id, 1, (1u << 3) | (1u << 2)), 3u);
  EXPECT_EQ(walk(id, 1, (1u << 2) | (1u << 1)), 1u);
  // After slot 2 the walk would come back to slot 1: it stops there.
  bool firstStep = true;
  EXPECT_EQ(walk(id, 1, 1u << 8, &firstStep), kNoSlot);
  EXPECT_FALSE(firstStep);
}

TEST_F(SearchTest, BackwardWalkOfARingThatNeverWrappedStopsAfterSlot0) {
  const std::int16_t id = ringOfFour(2);
  // Slot 3 holds a matching entry left from an earlier life; the walk from
  // slot 1 visits 1 and 0 and stops before it.
  TraceEntryHeader* stale = sharedSlot(id, 3);
  std::memcpy(stale, sharedSlot(id, 0), sizeof *stale);
  storeShared(&stale->category, 1u << 3);
  EXPECT_EQ(walk(id, 1, 1u << 3), kNoSlot);
  EXPECT_EQ(walk(id, 1, 1u << 0), 0u);
  EXPECT_EQ(walk(id, 1, 1u << 1), 1u);
}

TEST_F(SearchTest, FirstMatchIsTheStartSlotItselfAndLeavesFirstStepAsItWas) {
  const std::int16_t id = ringOfFour(6);
  bool firstStep = true;
  EXPECT_EQ(walk(id, 1, 1u << 1, &firstStep), 1u);
  EXPECT_TRUE(firstStep);
}

TEST_F(SearchTest, WithFirstStepClearedTheWalkEndsAtTheStopSlot) {
  // A full ring whose newest slot (the stop slot) matches: with firstStep
  // false the walk must not take it, with true it does.
  const std::int16_t id = ringOfFour(6);
  bool firstStep = false;
  EXPECT_EQ(walk(id, 1, 1u << 1, &firstStep), kNoSlot);
  firstStep = true;
  EXPECT_EQ(walk(id, 1, 1u << 1, &firstStep), 1u);
}

TEST_F(SearchTest, TooLargeIndexIsRecordedOnceAndFindsNothing) {
  const std::int16_t id = createSet("Alpha", TS_STRING, 4, 16);
  text(id, TRACE_SEVERITY_INF, "one");
  text(id, TRACE_SEVERITY_INF, "two");
  const TraceSetStruct before = errorSet();
  EXPECT_EQ(walk(id, 2, kAllCategories), kNoSlot);
  expectOneLibraryRecordSince(before, 2888, "(findPrevMatchingEntry): called with too large index (2 >= 2) for trace set Alpha");
}

TEST_F(SearchTest, TheLastSlotOfARingThatNeverWrappedIsNoComplaintAndNoMatch) {
  const std::int16_t id = ringOfFour(2);
  const TraceSetStruct before = errorSet();
  bool firstStep = true;
  EXPECT_EQ(walk(id, 3, kAllCategories, &firstStep), kNoSlot);
  EXPECT_FALSE(firstStep);
  EXPECT_TRUE(errorEntriesSince(before).empty());
}

TEST_F(SearchTest, SeverityAndCategoryMustBothMatch) {
  const std::int16_t id = createSet("Both", TS_STRING, 4, 16);
  text(id, TRACE_SEVERITY_INF, "inf", 1, 0x6);
  bool firstStep = true;
  EXPECT_EQ(findPrevMatchingEntry(sharedDescriptor(id), 0, TRACE_SEVERITY_DBG, 0x6, &firstStep, 0), kNoSlot);
  firstStep = true;
  EXPECT_EQ(findPrevMatchingEntry(sharedDescriptor(id), 0, TRACE_SEVERITY_INF, 0x1, &firstStep, 0), kNoSlot);
  firstStep = true;
  EXPECT_EQ(findPrevMatchingEntry(sharedDescriptor(id), 0, TRACE_SEVERITY_INF | TRACE_SEVERITY_DBG, 0x4,
                                  &firstStep, 0),
            0u);
}

// The page of slot headers that clearTheRingOnFirstTouch() guards, and the
// count it clears.
std::uint8_t* g_guardedPage = nullptr;
std::size_t g_pageSize = 0;
std::uint16_t* g_countToClear = nullptr;

// The first read of the guarded page stands for another process clearing
// the ring at that moment: the count becomes 0, the page readable again,
// and the read is repeated. Any other fault ends the process as it would.
void clearTheRingOnFirstTouch(int, siginfo_t* info, void*) {
  auto* address = static_cast<std::uint8_t*>(info->si_addr);
  if (g_guardedPage == nullptr || address < g_guardedPage || address >= g_guardedPage + g_pageSize) {
    signal(SIGSEGV, SIG_DFL);
    return;
  }
  mprotect(g_guardedPage, g_pageSize, PROT_READ | PROT_WRITE);
  storeShared(g_countToClear, 0);
  g_guardedPage = nullptr;
}

TEST_F(SearchTest, AResultBeyondTheEntriesCountedAtTheEndOfTheWalkIsRecorded) {
  // Another process clears the ring while a walk runs: the walk's result,
  // found with the counts it started with, lies beyond the count it sees at
  // the end. The walk from the newest slot (2) of this full ring of 8 passes
  // every slot to the oldest (3), the only one that matches; the clearing
  // happens when it reads its first slot header.
  const std::int16_t id = createSet("Race", TS_STRING, 8, 4);
  for (int k = 0; k < 11; ++k) text(id, TRACE_SEVERITY_INF, "r");
  storeShared(&sharedSlot(id, 3)->category, 2u);
  TraceSetStruct* shared = sharedDescriptor(id);
  ASSERT_EQ(descriptor(id).writeIndex, 3);

  g_pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const auto slot2 = reinterpret_cast<std::uintptr_t>(sharedSlot(id, 2));
  auto* page = reinterpret_cast<std::uint8_t*>(slot2 - slot2 % g_pageSize);
  // The descriptor stays readable: only the slots' page is guarded.
  ASSERT_FALSE(reinterpret_cast<std::uint8_t*>(shared) >= page &&
               reinterpret_cast<std::uint8_t*>(shared) < page + g_pageSize);
  g_countToClear = &shared->curentNumberEntries;
  struct sigaction action {};
  action.sa_sigaction = clearTheRingOnFirstTouch;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  struct sigaction previous {};
  ASSERT_EQ(sigaction(SIGSEGV, &action, &previous), 0);
  g_guardedPage = page;
  ASSERT_EQ(mprotect(page, g_pageSize, PROT_NONE), 0);

  const TraceSetStruct before = errorSet();
  bool firstStep = true;
  const std::uint32_t found = findPrevMatchingEntry(shared, 2, kEverySeverity, 2u, &firstStep, 0);
  sigaction(SIGSEGV, &previous, nullptr);
  EXPECT_EQ(g_guardedPage, nullptr);  // the walk did touch the page

  EXPECT_EQ(found, 3u);  // returned all the same
  EXPECT_EQ(descriptor(id).curentNumberEntries, 0);
  expectOneLibraryRecordSince(before, 2983, "findPrevMatchingEntry: strange return value 3 (curentNumberEntries = 0)");
}

// ---- findMatchingTraceEntries ------------------------------------------------------

TEST_F(SearchTest, SetsWithoutEntriesLeaveStartIndexesAndTotalUnchanged) {
  const Found found = findMatching({createSet("A", TS_STRING, 4, 16), createSet("B", TS_DUMP, 4, 16)}, 100, 1,
                                   kEverySeverity, nullptr, Found{{0x1234, 0x5678}, {7, 7}, 5});
  EXPECT_EQ(found.counts[0], 0);
  EXPECT_EQ(found.counts[1], 0);
  EXPECT_EQ(found.starts[0], 0x1234);
  EXPECT_EQ(found.starts[1], 0x5678);
  EXPECT_EQ(found.total, 5u);
}

TEST_F(SearchTest, CountingEntriesTakesTheNewestOfAllSets) {
  const std::int16_t other = createSet("Other", TS_STRING, 4, 16);
  const std::int16_t a = createSet("A", TS_STRING, 8, 16);
  const std::int16_t b = createSet("B", TS_STRING, 8, 16);
  text(other, TRACE_SEVERITY_INF, "seq 0");
  text(a, TRACE_SEVERITY_INF, "seq 1");
  text(b, TRACE_SEVERITY_INF, "seq 2");
  text(a, TRACE_SEVERITY_INF, "seq 3");
  text(b, TRACE_SEVERITY_INF, "seq 4");
  text(a, TRACE_SEVERITY_INF, "seq 5");
  ASSERT_EQ(slot(a, 1).header.sequenceNumber, 3u);
  ASSERT_EQ(slot(b, 1).header.sequenceNumber, 4u);

  const Found found = findMatching({a, b}, 3);
  EXPECT_EQ(found.counts[0], 2);
  EXPECT_EQ(found.counts[1], 1);
  EXPECT_EQ(found.starts[0], 1);  // the slot of 3
  EXPECT_EQ(found.starts[1], 1);  // the slot of 4
  EXPECT_EQ(found.total, 3u);
}

TEST_F(SearchTest, CountingBytesTakesAnEntryOnlyWhileTheTotalStaysBelowTheLimit) {
  const std::int16_t id = createSet("Bytes", TS_STRING, 4, 128);
  text(id, TRACE_SEVERITY_INF, "first");
  text(id, TRACE_SEVERITY_INF, "second");
  const Found found = findMatching({id}, 416, 0);
  EXPECT_EQ(found.counts[0], 1);
  EXPECT_EQ(found.starts[0], 1);
  EXPECT_EQ(found.total, 416u);
}

TEST_F(SearchTest, TheBudgetGoesOnFromWhatWasSpentBefore) {
  const std::int16_t id = createSet("Spent", TS_STRING, 8, 128);
  for (int k = 0; k < 5; ++k) text(id, TRACE_SEVERITY_INF, "e");
  // 100 + 3 * 208 = 724 < 800; a fourth would make 932.
  const Found found = findMatching({id}, 800, 0, kEverySeverity, nullptr, Found{{}, {}, 100});
  EXPECT_EQ(found.counts[0], 3);
  EXPECT_EQ(found.starts[0], 2);
  EXPECT_EQ(found.total, 800u);
}

TEST_F(SearchTest, ARunOfMatchesEndsAtTheNewestAndSkipsOtherSeverities) {
  allowDebug();
  const std::int16_t id = createSet("Mixed", TS_STRING, 8, 16);
  text(id, TRACE_SEVERITY_INF, "i0");  // slot 0
  text(id, TRACE_SEVERITY_DBG, "d1");  // slot 1
  text(id, TRACE_SEVERITY_INF, "i2");  // slot 2
  text(id, TRACE_SEVERITY_DBG, "d3");  // slot 3
  const Found found = findMatching({id}, 10, 1, TRACE_SEVERITY_INF);
  EXPECT_EQ(found.counts[0], 2);
  EXPECT_EQ(found.starts[0], 0);
  EXPECT_EQ(found.total, 2u);
}

TEST_F(SearchTest, AWrappedRingIsTakenNewestFirstAcrossItsEnd) {
  const std::int16_t id = createSet("Wrapped", TS_STRING, 4, 16);
  for (int k = 0; k < 6; ++k) text(id, TRACE_SEVERITY_INF, "e" + std::to_string(k));
  const Found found = findMatching({id}, 100);
  // All four: the run begins at the oldest slot, writeIndex 2.
  EXPECT_EQ(found.counts[0], 4);
  EXPECT_EQ(found.starts[0], 2);
  EXPECT_EQ(found.total, 4u);
}

TEST_F(SearchTest, CategoryMasksApplyPerSetOfTheRequest) {
  const std::int16_t a = createSet("A", TS_STRING, 8, 16);
  const std::int16_t b = createSet("B", TS_STRING, 8, 16);
  text(a, TRACE_SEVERITY_INF, "a1", 1, 0x1);
  text(a, TRACE_SEVERITY_INF, "a2", 1, 0x2);
  text(b, TRACE_SEVERITY_INF, "b1", 1, 0x1);
  text(b, TRACE_SEVERITY_INF, "b2", 1, 0x2);
  const std::uint32_t masks[] = {0x1, 0x2};
  const Found found = findMatching({a, b}, 10, 1, kEverySeverity, masks);
  EXPECT_EQ(found.counts[0], 1);
  EXPECT_EQ(found.starts[0], 0);
  EXPECT_EQ(found.counts[1], 1);
  EXPECT_EQ(found.starts[1], 1);
  EXPECT_EQ(found.total, 2u);
}

TEST_F(SearchTest, EqualSequenceNumbersGoToTheLaterSetOfTheRequest) {
  const std::int16_t a = createSet("A", TS_STRING, 4, 16);
  text(a, TRACE_SEVERITY_INF, "a");
  fillSramSet(1, 1, 1, 1, 0);  // "NVJ_System": one entry, sequence number 0
  ASSERT_EQ(slot(a, 0).header.sequenceNumber, 0u);
  const std::int16_t remote = REMOTE_SYSTEM_TRACE_SET_ID;
  for (bool userFirst : {true, false}) {
    SCOPED_TRACE(userFirst ? "user set first" : "remote set first");
    const Found found = findMatching({userFirst ? a : remote, userFirst ? remote : a}, 1);
    EXPECT_EQ(found.counts[0], 0);
    EXPECT_EQ(found.counts[1], 1);
    EXPECT_EQ(found.total, 1u);
  }
}

TEST_F(SearchTest, TheSetsOfTheSramFileAreSearchedInTheFile) {
  // "System": 738 entries, the ring wrapped at slot 100, sequence numbers
  // 1000.. in slot order; "NVJ_System": 5 entries, 2000..
  fillSramSet(0, TRACE_SRAM_MAX_ENTRIES, 100, 838, 1000);
  fillSramSet(1, 5, 5, 5, 2000);
  const Found found = findMatching({SYSTEM_TRACE_SET_ID, REMOTE_SYSTEM_TRACE_SET_ID}, 8);
  EXPECT_EQ(found.counts[1], 5);
  EXPECT_EQ(found.starts[1], 0);
  // The newest of "System" is slot 99 (sequence 1099), then 98, 97.
  EXPECT_EQ(found.counts[0], 3);
  EXPECT_EQ(found.starts[0], 97);
  EXPECT_EQ(found.total, 8u);
}

TEST_F(SearchTest, ASramFileThatCannotBeOpenedForTheWalkYieldsNothing) {
  fillSramSet(1, 5, 5, 5, 2000);
  // Opens: the descriptor at the start, the descriptor of the pass, the
  // walk's own.
  sys::failCall(Call::kOpen, 3, EACCES);
  const Found found = findMatching({REMOTE_SYSTEM_TRACE_SET_ID}, 8);
  EXPECT_EQ(found.counts[0], 0);
  EXPECT_EQ(found.starts[0], 0xEEEE);
  EXPECT_EQ(found.total, 0u);
}

TEST_F(SearchTest, AnEntryThatCannotBeReadIsRecordedAndEndsItsSet) {
  // The newest slot's header is in the SRAM file but its contents are cut
  // off: the walk finds it, the entry reader refuses it.
  fillSramSet(1, 3, 3, 3, 10);
  ASSERT_EQ(truncate(sram().c_str(), TRACE_SRAM_REMOTE_DATA_OFFSET + 2 * TRACE_SRAM_SLOT_SIZE + 80), 0);
  const TraceSetStruct before = errorSet();
  const Found found = findMatching({REMOTE_SYSTEM_TRACE_SET_ID}, 8);
  EXPECT_EQ(found.counts[0], 0);
  EXPECT_EQ(found.starts[0], 0xEEEE);
  EXPECT_EQ(found.total, 0u);
  expectOneLibraryRecordSince(before, 3079,
                              "(findMatchingTraceEntries): getTraceEntry for TS 254 (of 0), index 2 (of 3) returns 0L!");
}

TEST_F(SearchTest, UnknownSetsTakeNoPart) {
  const std::int16_t a = createSet("A", TS_STRING, 4, 16);
  text(a, TRACE_SEVERITY_INF, "a");
  const Found found = findMatching({57, a, -3}, 8, 1, kEverySeverity, nullptr, Found{{}, {9, 9, 9}, 0});
  EXPECT_EQ(found.counts[0], 0);
  EXPECT_EQ(found.counts[1], 1);
  EXPECT_EQ(found.counts[2], 0);
  EXPECT_EQ(found.starts[0], 0xEEEE);
  EXPECT_EQ(found.starts[1], 0);
  EXPECT_EQ(found.starts[2], 0xEEEE);
}

// ---- findNextMatch ----------------------------------------------------------------

TEST_F(SearchTest, NextMatchFromTheNewestSlotOfAFullRingIsTheOldest) {
  const std::int16_t id = ringOfFour(6);
  std::uint16_t index = 1;
  findNextMatch(sharedDescriptor(id), 0, &index, kEverySeverity, kAllCategories);
  EXPECT_EQ(index, 2);
}

TEST_F(SearchTest, NextMatchWithoutAFurtherMatchLeavesTheIndex) {
  const std::int16_t id = ringOfFour(3);
  std::uint16_t index = 0;
  // Slots 1 and 2 carry categories 2 and 4; slot 3 is empty.
  findNextMatch(sharedDescriptor(id), 0, &index, kEverySeverity, 1u << 0);
  EXPECT_EQ(index, 0);
}

TEST_F(SearchTest, NextMatchStepsOverOtherEntriesUpToWriteIndex) {
  const std::int16_t id = ringOfFour(6);  // slots 2, 3, 0, 1 oldest first
  std::uint16_t index = 2;
  findNextMatch(sharedDescriptor(id), 0, &index, kEverySeverity, 1u << 1);
  EXPECT_EQ(index, 1);
  index = 3;
  findNextMatch(sharedDescriptor(id), 0, &index, kEverySeverity, 1u << 2);
  // The walk stops at writeIndex (slot 2) and tests it: the oldest entry.
  EXPECT_EQ(index, 2);
}

TEST_F(SearchTest, NextMatchInTheSramFile) {
  fillSramSet(1, 5, 5, 5, 2000);
  TraceSetStruct remote = *getTraceSetStruct(REMOTE_SYSTEM_TRACE_SET_ID);
  std::uint16_t index = 1;
  // Slot s has category 0x10 << (s % 4): slot 3 carries 0x80.
  findNextMatch(&remote, 1, &index, kEverySeverity, 0x80);
  EXPECT_EQ(index, 3);
  sys::failCall(Call::kOpen, 1, EACCES);
  index = 1;
  findNextMatch(&remote, 1, &index, kEverySeverity, 0x80);
  EXPECT_EQ(index, 1);
}

TEST_F(SearchTest, NextMatchWithANullDescriptorDoesNothing) {
  std::uint16_t index = 3;
  findNextMatch(nullptr, 0, &index, kEverySeverity, kAllCategories);
  EXPECT_EQ(index, 3);
}

// ---- damaged descriptors ------------------------------------------------------------

TEST_F(SearchTest, RingsWithDamagedDescriptorsGiveNothingAndNeverCrash) {
  const std::int16_t id = ringOfFour(6);
  TraceSetStruct damaged = descriptor(id);
  const auto search = [id] { return findMatching({id}, 100).counts[0]; };

  // No slots, but entries counted.
  storeShared(&sharedDescriptor(id)->maxNumberEntries, 0);
  EXPECT_EQ(search(), 0);
  damaged.maxNumberEntries = 0;
  bool firstStep = true;
  EXPECT_EQ(findPrevMatchingEntry(&damaged, 0, kEverySeverity, kAllCategories, &firstStep, 0), kNoSlot);
  std::uint16_t index = 1;
  findNextMatch(&damaged, 0, &index, kEverySeverity, kAllCategories);
  EXPECT_EQ(index, 1);

  // Slots past the end of the mapping, or at an odd address.
  for (std::uint32_t offset : {g_process.size - 100u, 0xFFFFFF00u, 9850u}) {
    SCOPED_TRACE(offset);
    TraceSetStruct* shared = sharedDescriptor(id);
    storeShared(&shared->maxNumberEntries, 4);
    storeShared(&shared->dataOffset, offset);
    EXPECT_EQ(search(), 0);
    firstStep = true;
    EXPECT_EQ(findPrevMatchingEntry(shared, 1, kEverySeverity, kAllCategories, &firstStep, 0), kNoSlot);
    index = 1;
    findNextMatch(shared, 0, &index, kEverySeverity, kAllCategories);
    EXPECT_EQ(index, 1);
  }
}

TEST_F(SearchTest, AWriteIndexOutsideTheRingEndsTheForwardWalkAfterOneRound) {
  const std::int16_t id = ringOfFour(6);
  TraceSetStruct damaged = descriptor(id);
  damaged.writeIndex = 9;
  std::uint16_t index = 1;
  findNextMatch(&damaged, 0, &index, kEverySeverity, 1u << 7);
  EXPECT_EQ(index, 1);
  // A full ring whose writeIndex is outside it: the backward walk still ends.
  bool firstStep = true;
  EXPECT_EQ(findPrevMatchingEntry(&damaged, 1, kEverySeverity, 1u << 7, &firstStep, 0), kNoSlot);
}

}  // namespace
}  // namespace nt::test
