// Clearing a trace set: the counters of the ring and nothing else, the ids
// that may not or cannot be cleared, the low 16 bits of the id, and the
// trace lock (held while clearing, passed by after its deadline).
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include "common/node_names.h"
#include "common/shared_fields.h"
#include "tests/trace/store_fixture.h"
#include "trace/store/startup.h"
#include "trace/store/trace_lock.h"

namespace nt::test {
namespace {

class ClearingTest : public StoreTest {
 protected:
  static bool noEntryAt(std::int16_t id, std::uint16_t index) {
    TraceEntryHeader buffer;
    TraceEntryHeader* entry = &buffer;
    char contents[TRACE_MAX_DUMP_LENGTH];
    getTraceEntry(id, index, &entry, contents);
    return entry == nullptr;
  }
};

TEST_F(ClearingTest, TheSetsOfTheSramFileAreNeverCleared) {
  fillSramSet(0, 5, 5, 5, 10);
  fillSramSet(1, 7, 7, 9, 20);
  const Bytes sramBefore = readFileBytes(sram());
  const Bytes sharedBefore = readSharedObject(shmName());
  EXPECT_EQ(clearTraceSet(SYSTEM_TRACE_SET_ID), TRACE_RC_UNKNOWN_SET);
  EXPECT_EQ(clearTraceSet(REMOTE_SYSTEM_TRACE_SET_ID), TRACE_RC_UNKNOWN_SET);
  EXPECT_EQ(readFileBytes(sram()), sramBefore);
  EXPECT_EQ(readSharedObject(shmName()), sharedBefore);
}

TEST_F(ClearingTest, AClearedSetHasNoEntriesAndStartsAgainAtSlot0) {
  const std::int16_t other = createSet("Other", TS_STRING, 4, 16);
  const std::int16_t id = createSet("Busy", TS_STRING, 4, 16);
  for (int k = 0; k < 6; ++k) text(id, TRACE_SEVERITY_INF, "e" + std::to_string(k));
  text(other, TRACE_SEVERITY_INF, "other");
  const TraceSetStruct before = descriptor(id);
  const Slot slot0 = slot(id, 0);
  const std::uint32_t total = getTotalNumberTraceEntries();
  const TraceMemoryHeader headerBefore = *header();

  EXPECT_EQ(clearTraceSet(id), 0);
  const TraceSetStruct after = descriptor(id);
  EXPECT_EQ(after.writeIndex, 0);
  EXPECT_EQ(after.curentNumberEntries, 0);
  EXPECT_EQ(after.totalNumberEntries, 0u);
  // Everything else stays: capacity, region, the other fields, the slots,
  // the node's count and link.
  TraceSetStruct expected = before;
  expected.writeIndex = 0;
  expected.curentNumberEntries = 0;
  expected.totalNumberEntries = 0;
  EXPECT_EQ(std::memcmp(&after, &expected, sizeof after), 0);
  const Slot slot0After = slot(id, 0);
  EXPECT_EQ(std::memcmp(&slot0After.header, &slot0.header, sizeof slot0.header), 0);
  EXPECT_EQ(std::memcmp(header(), &headerBefore, sizeof headerBefore), 0);
  for (std::uint16_t s = 0; s < 4; ++s) EXPECT_TRUE(noEntryAt(id, s)) << s;
  EXPECT_FALSE(noEntryAt(other, 0));

  text(id, TRACE_SEVERITY_INF, "again");
  EXPECT_EQ(slot(id, 0).text(), "again");
  EXPECT_EQ(slot(id, 0).header.sequenceNumber, total);
  EXPECT_EQ(getTotalNumberTraceEntries(), total + 1);
  EXPECT_EQ(descriptor(id).curentNumberEntries, 1);
  EXPECT_EQ(descriptor(id).writeIndex, 1);
  EXPECT_EQ(descriptor(id).totalNumberEntries, 1u);
}

TEST_F(ClearingTest, UnknownIdsAreRefused) {
  const std::int16_t id = createSet("Only", TS_STRING, 4, 16);
  text(id, TRACE_SEVERITY_INF, "kept");
  for (std::int32_t unknown : {1, 199, 200, 253, -1, 0x8000, 0x7FFF}) {
    EXPECT_EQ(clearTraceSet(unknown), TRACE_RC_UNKNOWN_SET) << unknown;
  }
  EXPECT_EQ(descriptor(id).curentNumberEntries, 1);
}

TEST_F(ClearingTest, OnlyTheLow16BitsOfTheIdCount) {
  const std::int16_t id = createSet("Only", TS_STRING, 4, 16);
  text(id, TRACE_SEVERITY_INF, "gone");
  EXPECT_EQ(clearTraceSet(0x100FF), TRACE_RC_UNKNOWN_SET);
  EXPECT_EQ(clearTraceSet(0x2FFFE), TRACE_RC_UNKNOWN_SET);
  EXPECT_EQ(descriptor(id).curentNumberEntries, 1);
  EXPECT_EQ(clearTraceSet(0x30000 + id), 0);
  EXPECT_EQ(descriptor(id).curentNumberEntries, 0);
}

TEST_F(ClearingTest, TheLockIsHeldWhileClearingAndReleasedAfterwards) {
  const std::int16_t id = createSet("Locked", TS_STRING, 4, 16);
  text(id, TRACE_SEVERITY_INF, "e");
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  EXPECT_EQ(clearTraceSet(id), 0);
  EXPECT_EQ(semaphoreValue(), 1);
  EXPECT_EQ(header()->lockHolderTid, 0);
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), sigismember(&before, SIGTERM));
}

TEST_F(ClearingTest, AHolderThatNeverLetsGoDelaysTheClearingByTheDeadlineOnly) {
  const std::int16_t id = createSet("Stuck", TS_STRING, 4, 16);
  text(id, TRACE_SEVERITY_INF, "e");
  const pid_t holder = startLockHolder();
  ASSERT_FALSE(HasFailure());

  StderrCapture err;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(clearTraceSet(id), 0);
  const auto waited = std::chrono::steady_clock::now() - start;
  const std::string printed = err.take();
  killAndReap(holder);

  EXPECT_GE(waited, std::chrono::milliseconds(kTestLockDeadlineMilliseconds));
  EXPECT_NE(printed.find("could not get trace semaphore " + std::string(nodeNames().semaphore)), std::string::npos)
      << printed;
  EXPECT_EQ(descriptor(id).curentNumberEntries, 0);
  // The lock it never got is not released.
  EXPECT_EQ(semaphoreValue(), 0);
}

}  // namespace
}  // namespace nt::test
