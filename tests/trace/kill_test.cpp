// A process killed at every test point of start-up, of the lock, of the
// writers and of clearing: a child runs one operation, stops at the point,
// and is killed there with SIGKILL. Then the survivors are checked:
// - the next writer of another process proceeds within one deadline,
// - a process starting afresh starts within one deadline,
// - the header, every descriptor and every ring, in shared memory and in
//   the SRAM file, satisfy the layout invariants,
// - no entry is lost but the one in flight.
// "Within one deadline" is checked as "reached no more than one deadline",
// counted at a test point rather than timed, so that a loaded machine does
// not make it flaky.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "common/test_points.h"
#include "tests/trace/layout_check.h"
#include "tests/trace/store_fixture.h"
#include "trace/store/lock_holder.h"
#include "trace/store/startup.h"
#include "trace/store/trace_lock.h"

namespace nt::test {
namespace {


// What the child does until it reaches the point.
enum class Action {
  kStartFresh,   // the first process of the node: start-up creates the object
  kStartJoin,    // a process starting on a node that is up
  kWarning,      // an error-class entry: the lock and the "System" ring
  kRemoteSystem, // a remote system record: the lock and the "NVJ_System" ring
  kUserText,     // a text entry into a user set
  kRemoteUser,   // a remote record into a user set
  kClear         // clearing the user set
};

struct KillCase {
  TestPoint point;
  Action action;
};

// The child's end of the pipe to the parent, and the point to stop at.
int g_reportFd = -1;
TestPoint g_stopAt = TestPoint::kCount;

void stopHere(TestPoint point) {
  if (point != g_stopAt) return;
  const char byte = 'P';
  if (write(g_reportFd, &byte, 1) != 1) _exit(3);
  // Signals may be blocked here (the point may lie under the lock): only
  // SIGKILL ends the wait, as it should.
  for (;;) pause();
}

constexpr char kInFlight[] = "in flight";
constexpr char kSurvivor[] = "survivor";
constexpr std::uint32_t kRemoteLineBefore = 10;
constexpr std::uint32_t kRemoteLineInFlight = 11;

int remoteSystem(std::uint32_t line) {
  const std::uint32_t time[2] = {1, 2};
  return addRemoteSystemEntry(REMOTE_SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_WAR, 1, "remote.c", line, "remote", 4242,
                              4243, time, time);
}

int warning(const char* text) {
  return tracePrintf(SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_WAR, 1, "kill.c", 1, "%s", text);
}

// The texts of the counted slots of a user set, oldest first, as any
// process sees them.
std::vector<std::string> userTexts(const Bytes& object, std::int16_t id) {
  TraceSetStruct d;
  std::memcpy(&d, object.data() + TRACE_DESCRIPTOR_TABLE_OFFSET + id * sizeof d, sizeof d);
  std::vector<std::string> texts;
  const std::uint32_t slotSize = getTraceEntrySize(d.traceEntryContentsLength);
  const unsigned oldest = d.curentNumberEntries < d.maxNumberEntries ? 0u : d.writeIndex;
  for (unsigned n = 0; n < d.curentNumberEntries; ++n) {
    const unsigned slot = (oldest + n) % d.maxNumberEntries;
    const char* text = reinterpret_cast<const char*>(object.data() + d.dataOffset + slot * slotSize + 80);
    texts.emplace_back(text, strnlen(text, d.traceEntryContentsLength));
  }
  return texts;
}

class KillTest : public StoreTest, public ::testing::WithParamInterface<KillCase> {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    set_ = createSet("Killed", TS_STRING, 8, 32);
    text(set_, TRACE_SEVERITY_INF, "u1");
    text(set_, TRACE_SEVERITY_INF, "u2");
    ASSERT_EQ(warning("w1"), 0);
    ASSERT_EQ(warning("w2"), 0);
    ASSERT_EQ(remoteSystem(kRemoteLineBefore), 0);
  }

  std::vector<std::string> errorTexts() const {
    std::vector<std::string> texts;
    const TraceSetStruct d = readSramDescriptor(sram(), 0);
    for (unsigned slot = 0; slot < d.curentNumberEntries; ++slot) texts.push_back(readSramEntry(sram(), 0, slot).text());
    return texts;
  }

  std::vector<std::uint32_t> remoteLines() const {
    std::vector<std::uint32_t> lines;
    const TraceSetStruct d = readSramDescriptor(sram(), 1);
    for (unsigned slot = 0; slot < d.curentNumberEntries; ++slot) {
      lines.push_back(static_cast<std::uint32_t>(readSramEntry(sram(), 1, slot).header.line));
    }
    return lines;
  }

  // Runs the case's action in a child that stops at the case's point, and
  // kills it there. False when the child never reached the point.
  bool killAtPoint(const KillCase& c) {
    int fds[2];
    if (pipe(fds) != 0) return false;
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      close(fds[0]);
      g_reportFd = fds[1];
      g_stopAt = c.point;
      setTestPointHook(stopHere);
      const std::uint32_t time[2] = {1, 2};
      switch (c.action) {
        case Action::kStartFresh:
        case Action::kStartJoin:
          resetProcessStateForTests();
          getCurrentNumberTraceSets();
          break;
        case Action::kWarning: warning(kInFlight); break;
        case Action::kRemoteSystem: remoteSystem(kRemoteLineInFlight); break;
        case Action::kUserText: tracePrintf(set_, TRACE_SEVERITY_INF, 1, "kill.c", 2, "%s", kInFlight); break;
        case Action::kRemoteUser:
          addRemoteEntry(set_, TRACE_SEVERITY_INF, 1, "remote.c", 3, 0, kInFlight, 1, 2, time, time);
          break;
        case Action::kClear: clearTraceSet(set_); break;
      }
      const char byte = 'N';  // finished without passing the point
      if (write(fds[1], &byte, 1) != 1) _exit(2);
      _exit(0);
    }
    close(fds[1]);
    char byte = 0;
    if (read(fds[0], &byte, 1) != 1) byte = 0;
    close(fds[0]);
    killAndReap(child);
    return byte == 'P';
  }

  std::int16_t set_ = -1;
};

TEST_P(KillTest, SurvivorsGoOnWithinOneDeadlineAndFindEveryRingConsistent) {
  const KillCase c = GetParam();
  const bool fresh = c.action == Action::kStartFresh;
  if (fresh) {
    // The node restarts: no object; the SRAM file stays.
    resetProcessStateForTests();
    shm_unlink(shmName().c_str());
  }
  const std::vector<std::string> errorsBefore = errorTexts();
  const std::vector<std::uint32_t> remoteBefore = remoteLines();
  const std::vector<std::string> userBefore = fresh ? std::vector<std::string>{} : userTexts(readSharedObject(shmName()), set_);

  ASSERT_TRUE(killAtPoint(c)) << "the child never passed " << testPointName(c.point);

  // Right after the kill: the persistent rings are consistent.
  EXPECT_EQ(sramProblems(sram()), std::vector<std::string>{}) << "right after the kill";

  StderrCapture err;
  // The next writer of another process.
  const int writer = runInChild([this, fresh] {
    countDeadlines();
    if (warning(kSurvivor) != 0) return 1;
    if (!fresh && tracePrintf(set_, TRACE_SEVERITY_INF, 1, "kill.c", 4, "%s", kSurvivor) != 0) return 2;
    return deadlinesPassed() <= 1 ? 0 : 3;
  });
  // A process starting afresh.
  const int starter = runInChild([] {
    resetProcessStateForTests();
    countDeadlines();
    getCurrentNumberTraceSets();
    if (header() == nullptr) return 1;
    return deadlinesPassed() <= 1 ? 0 : 2;
  });
  EXPECT_EQ(writer, 0) << "the next writer";
  EXPECT_EQ(starter, 0) << "a fresh process";
  EXPECT_EQ(err.take(), "");

  // Nothing held, nothing inconsistent.
  const Bytes object = readSharedObject(shmName());
  EXPECT_EQ(layoutProblems(object, sram()), "");
  sem_t* semaphore = sem_open(semaphoreName().c_str(), 0);
  ASSERT_NE(semaphore, SEM_FAILED);
  EXPECT_EQ(semaphoreValue(semaphore), 1);
  sem_close(semaphore);

  // No entry lost but the one in flight.
  const std::vector<std::string> errors = errorTexts();
  ASSERT_FALSE(errors.empty());
  EXPECT_EQ(errors.back(), kSurvivor);
  if (!fresh) {
    std::vector<std::string> expected = errorsBefore;
    // Committed once its descriptor is written.
    const bool committed = c.point == TestPoint::kSramDescriptorWritten || c.point == TestPoint::kUnlockHolderCleared;
    if (c.action == Action::kWarning && committed) expected.push_back(kInFlight);
    expected.push_back(kSurvivor);
    EXPECT_EQ(errors, expected);

    std::vector<std::uint32_t> expectedLines = remoteBefore;
    if (c.action == Action::kRemoteSystem && committed) {
      expectedLines.push_back(kRemoteLineInFlight);
    }
    EXPECT_EQ(remoteLines(), expectedLines);

    std::vector<std::string> user = userTexts(object, set_);
    ASSERT_FALSE(user.empty());
    EXPECT_EQ(user.back(), kSurvivor);
    user.pop_back();
    if (c.action == Action::kClear) {
      // Cleared, or not yet: never half.
      if (c.point == TestPoint::kClearCountsReset) {
        EXPECT_TRUE(user.empty());
      } else {
        EXPECT_EQ(user, userBefore);
      }
    } else {
      // The entry in flight of a user set is counted as soon as its slot is
      // claimed and may be left half written; every other entry is intact.
      if (user.size() == userBefore.size() + 1) user.pop_back();
      EXPECT_EQ(user, userBefore);
    }
  }
}

std::string caseName(const ::testing::TestParamInfo<KillCase>& info) {
  static const char* const kActions[] = {"StartFresh", "StartJoin", "Warning", "RemoteSystem",
                                         "UserText", "RemoteUser", "Clear"};
  std::string name = std::string(kActions[static_cast<int>(info.param.action)]) + "_";
  for (const char* p = testPointName(info.param.point); *p != '\0'; ++p) name += *p == '-' ? '_' : *p;
  return name;
}

INSTANTIATE_TEST_SUITE_P(
    EveryPoint, KillTest,
    ::testing::Values(KillCase{TestPoint::kStartupSemaphoreTaken, Action::kStartFresh},
                      KillCase{TestPoint::kStartupObjectMapped, Action::kStartFresh},
                      KillCase{TestPoint::kStartupHolderRecorded, Action::kStartFresh},
                      KillCase{TestPoint::kStartupHeaderWritten, Action::kStartFresh},
                      KillCase{TestPoint::kStartupSramWritten, Action::kStartFresh},
                      KillCase{TestPoint::kStartupSemaphoreTaken, Action::kStartJoin},
                      KillCase{TestPoint::kStartupObjectMapped, Action::kStartJoin},
                      KillCase{TestPoint::kStartupHolderRecorded, Action::kStartJoin},
                      KillCase{TestPoint::kLockSemaphoreTaken, Action::kWarning},
                      KillCase{TestPoint::kLockHolderRecorded, Action::kWarning},
                      KillCase{TestPoint::kUnlockHolderCleared, Action::kWarning},
                      KillCase{TestPoint::kSramDescriptorRead, Action::kWarning},
                      KillCase{TestPoint::kSramSequenceTaken, Action::kWarning},
                      KillCase{TestPoint::kSramSlotHeaderWritten, Action::kWarning},
                      KillCase{TestPoint::kSramSlotWritten, Action::kWarning},
                      KillCase{TestPoint::kSramDescriptorWritten, Action::kWarning},
                      KillCase{TestPoint::kSramDescriptorRead, Action::kRemoteSystem},
                      KillCase{TestPoint::kSramSequenceTaken, Action::kRemoteSystem},
                      KillCase{TestPoint::kSramSlotHeaderWritten, Action::kRemoteSystem},
                      KillCase{TestPoint::kSramSlotWritten, Action::kRemoteSystem},
                      KillCase{TestPoint::kSramDescriptorWritten, Action::kRemoteSystem},
                      KillCase{TestPoint::kUnlockHolderCleared, Action::kRemoteSystem},
                      KillCase{TestPoint::kUserSlotClaimed, Action::kUserText},
                      KillCase{TestPoint::kUserContentsWritten, Action::kUserText},
                      KillCase{TestPoint::kUserHeaderWritten, Action::kUserText},
                      KillCase{TestPoint::kRemoteSlotClaimed, Action::kRemoteUser},
                      KillCase{TestPoint::kRemoteContentsWritten, Action::kRemoteUser},
                      KillCase{TestPoint::kClearLocked, Action::kClear},
                      KillCase{TestPoint::kClearCountsReset, Action::kClear}),
    caseName);

}  // namespace
}  // namespace nt::test
