// A holder of "traceMutex" that dies while it holds it: the release on its
// behalf, exactly once, by waiters that have started and by processes that
// are starting; holders that died before they recorded themselves; and the
// holders that must not be taken for dead (alive, stuck, stopped, or sharing
// a dead holder's tid).
#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/node_names.h"
#include "tests/support/node_test.h"
#include "trace/persistent/error_trace.h"
#include "trace/store/lock_holder.h"
#include "trace/store/startup.h"
#include "trace/store/trace_lock.h"

namespace nt::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kObjectSize = 10498048;  // with 4096-byte pages
// The shortened deadline of the tests (NodeTest sets it).
constexpr auto kDeadline = std::chrono::milliseconds(kTestLockDeadlineMilliseconds);
constexpr long kDeadlineSeconds = kTestLockDeadlineMilliseconds / 1000;

std::string starvationMessage(pid_t waiter, long seconds, pid_t holder) {
  return "Process " + std::to_string(waiter) + " (" + program_invocation_short_name +
         ") could not get trace semaphore " + nodeNames().semaphore + " in " + std::to_string(seconds) +
         " seconds, locked by tid " + std::to_string(holder) +
         "; check system for starvation/crashed processes!\n";
}

// The message of a wait of about one deadline: the whole seconds of the
// wall clock may count one or two more when the wait crossed more second
// boundaries or was slow to be scheduled.
bool isStarvationMessage(const std::string& text, pid_t waiter, pid_t holder) {
  for (long seconds = kDeadlineSeconds; seconds <= kDeadlineSeconds + 2; ++seconds) {
    if (text == starvationMessage(waiter, seconds, holder)) return true;
  }
  return false;
}

void reap(pid_t child) { waitpid(child, nullptr, 0); }

// The exit status of child (128 + signal when a signal ended it), or -2
// when it has not ended within limit: then it is killed, so that a wait
// that never ends fails the test instead of hanging it.
int waitWithin(pid_t child, std::chrono::seconds limit) {
  const auto end = Clock::now() + limit;
  int status = 0;
  pid_t done = 0;
  while ((done = waitpid(child, &status, WNOHANG)) == 0) {
    if (Clock::now() >= end) {
      killAndReap(child);
      return -2;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (done != child) return -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

// Runs body in a forked child, as runInChild does, for at most limit.
int runInChildWithin(std::chrono::seconds limit, const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const int code = body();
    std::fflush(nullptr);
    _exit(code);
  }
  return child < 0 ? -1 : waitWithin(child, limit);
}

// Long enough for any wait of this file; a child still waiting then is stuck.
constexpr auto kStuck = std::chrono::seconds(30);

// The four bytes behind lockHolderTid: the holder's start stamp.
std::uint32_t reservedWord(const Bytes& object) { return u32At(object, TRACE_RESERVED_AREA_OFFSET); }

// ---------------------------------------------------------------------------
// Processes that have started the trace system.

class LockRecoveryTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    getCurrentNumberTraceSets();  // start the trace system in this process
    ASSERT_NE(header(), nullptr);
  }

  pid_t recordedHolder() const { return holderTid(loadHolder(header())); }

  // A child that writes warnings without end, stopped and killed while it
  // holds the lock for one of them: an error-class entry in flight.
  pid_t killWriterInsideTheLock() {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      for (;;) addErrorTrace(TS_STRING, 0x10, "holder.c", 1, "in flight", SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_WAR);
    }
    const auto giveUp = Clock::now() + std::chrono::seconds(30);
    while (Clock::now() < giveUp) {
      if (recordedHolder() != child) {
        std::this_thread::yield();
        continue;
      }
      kill(child, SIGSTOP);
      int status = 0;
      waitpid(child, &status, WUNTRACED);
      if (recordedHolder() == child && semaphoreValue() == 0) {
        killAndReap(child);
        return child;
      }
      kill(child, SIGCONT);
    }
    killAndReap(child);
    ADD_FAILURE() << "the writer was never caught holding the lock";
    return -1;
  }

  // Entries of the error trace set, oldest first.
  std::vector<std::string> storedTexts() const {
    const std::string sram = path("/var/log/sram");
    const TraceSetStruct descriptor = readSramDescriptor(sram, 0);
    std::vector<std::string> texts;
    for (unsigned slot = 0; slot < descriptor.curentNumberEntries; ++slot) {
      texts.push_back(readSramEntry(sram, 0, slot).text());
    }
    return texts;
  }

  static int warn(const char* text) {
    return addErrorTrace(TS_STRING, 0x10, "radio.c", 7, text, SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_WAR);
  }
};

TEST_F(LockRecoveryTest, HolderIsRecordedWithTheStartTimeOfItsThread) {
  sigset_t saved;
  ASSERT_EQ(traceLock(g_process.semaphore, "traceMutex", &saved), 0);
  const Bytes held = readSharedObject(shmName());
  const std::uint32_t stamp = threadStartStamp(gettid());
  traceUnlock(1, g_process.semaphore, &saved);
  const Bytes released = readSharedObject(shmName());

  EXPECT_EQ(static_cast<pid_t>(u32At(held, 24)), gettid());
  EXPECT_NE(stamp, 0u);
  EXPECT_EQ(reservedWord(held), stamp);
  EXPECT_EQ(u32At(released, 24), 0u);
  EXPECT_EQ(reservedWord(released), 0u);
}

TEST_F(LockRecoveryTest, WarningAfterTheHolderDiedWithAnEntryInFlightWaitsOnceAndTheNextNotAtAll) {
  const pid_t dead = killWriterInsideTheLock();
  ASSERT_GT(dead, 0);
  ASSERT_EQ(recordedHolder(), dead);
  ASSERT_EQ(semaphoreValue(), 0);

  StderrCapture capture;
  countDeadlines();
  const int first = warn("first after the crash");
  const int second = warn("second after the crash");

  EXPECT_EQ(capture.take(), "");  // no starvation: neither wait reached the deadline
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, 0);
  EXPECT_EQ(deadlinesPassed(), 0);
  EXPECT_EQ(semaphoreValue(), 1);
  EXPECT_EQ(recordedHolder(), 0);
  const std::vector<std::string> texts = storedTexts();
  ASSERT_GE(texts.size(), 2u);
  EXPECT_EQ(texts[texts.size() - 2], "first after the crash");
  EXPECT_EQ(texts.back(), "second after the crash");
}

TEST_F(LockRecoveryTest, WaiterBlockedWhenTheHolderDiesTakesTheLockBeforeTheDeadline) {
  const pid_t holder = startLockHolder();
  std::thread killer([holder] {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    killAndReap(holder);
  });
  StderrCapture capture;
  sigset_t saved;
  countDeadlines();
  const int rc = traceLock(g_process.semaphore, "traceMutex", &saved);
  killer.join();

  EXPECT_EQ(rc, 0);
  EXPECT_EQ(deadlinesPassed(), 0);
  EXPECT_EQ(recordedHolder(), gettid());
  traceUnlock(rc != -1, g_process.semaphore, &saved);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(LockRecoveryTest, KilledHolderNotYetReapedCountsAsDead) {
  const pid_t holder = startLockHolder();
  kill(holder, SIGKILL);
  // Still a zombie: the parent has not collected it.
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(holder), &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(kill(holder, 0), 0);

  StderrCapture capture;
  EXPECT_EQ(warn("behind a zombie"), 0);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(semaphoreValue(), 1);
  reap(holder);
}

TEST_F(LockRecoveryTest, ManyThreadsSeeingTheSameDeadHolderPostItOnce) {
  // A holder that is certainly gone: a child already reaped.
  const pid_t gone = fork();
  if (gone == 0) _exit(0);
  reap(gone);
  const HolderIdentity deadHolder = makeHolderIdentity(gone, 12345);

  constexpr int kThreads = 8;
  for (int round = 0; round < 100; ++round) {
    SCOPED_TRACE(round);
    ASSERT_EQ(sem_trywait(g_process.semaphore), 0);
    recordHolder(header(), deadHolder);
    std::atomic<int> arrived{0};
    std::atomic<int> released{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        ++arrived;
        while (arrived.load() < kThreads) {
        }
        if (releaseDeadHolder(g_process.semaphore, header())) ++released;
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(released.load(), 1);
    EXPECT_EQ(semaphoreValue(), 1);
    EXPECT_EQ(loadHolder(header()), 0u);
  }
}

TEST_F(LockRecoveryTest, TwoProcessesWaitingWhenTheHolderDiesLeaveTheSemaphoreAtOne) {
  // Four waiters take the lock one after another once the holder is found
  // dead; none of them means to wait out a deadline, and on a loaded machine
  // the last one's wait may pass the short test deadline.
  useRealLockDeadline();
  const pid_t holder = startLockHolder();
  StderrCapture capture;
  StartGate gate;
  pid_t waiters[2] = {0, 0};
  for (int i = 0; i < 2; ++i) {
    std::fflush(nullptr);
    waiters[i] = fork();
    if (waiters[i] == 0) {
      gate.wait();
      // Two threads each: four waiters that notice the death together.
      std::thread other([i] { warn(i == 0 ? "waiter 0b" : "waiter 1b"); });
      const int rc = warn(i == 0 ? "waiter 0a" : "waiter 1a");
      other.join();
      _exit(rc == 0 ? 0 : 1);
    }
  }
  gate.open();
  std::this_thread::sleep_for(std::chrono::milliseconds(400));  // all four are waiting
  killAndReap(holder);
  for (pid_t waiter : waiters) EXPECT_EQ(waitWithin(waiter, kStuck), 0);

  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(semaphoreValue(), 1);
  EXPECT_EQ(recordedHolder(), 0);
  std::vector<std::string> texts = storedTexts();
  std::sort(texts.begin(), texts.end());
  EXPECT_EQ(texts, (std::vector<std::string>{"waiter 0a", "waiter 0b", "waiter 1a", "waiter 1b"}));
}

TEST_F(LockRecoveryTest, LiveStuckHolderInAnotherThreadStillStarvesTheWaiter) {
  // The lock is held by a second thread of the child, whose tid is not a
  // process id.
  char reported = 0;
  const pid_t child = startChildThatReports(
      [] {
        std::atomic<bool> held{false};
        std::thread([&held] {
          sigset_t saved;
          if (traceLock(g_process.semaphore, "traceMutex", &saved) == 0) held = true;
          for (;;) pause();
        }).detach();
        while (!held) std::this_thread::yield();
        return 'L';
      },
      &reported);
  ASSERT_EQ(reported, 'L');
  const pid_t holderThread = recordedHolder();
  ASSERT_NE(holderThread, child);
  ASSERT_NE(holderThread, 0);

  StderrCapture capture;
  sigset_t saved;
  const auto start = Clock::now();
  const int rc = traceLock(g_process.semaphore, nodeNames().semaphore, &saved);
  const auto waited = Clock::now() - start;
  const std::string text = capture.take();
  traceUnlock(rc != -1, g_process.semaphore, &saved);

  EXPECT_EQ(rc, -1);
  EXPECT_GE(waited, kDeadline);
  EXPECT_TRUE(isStarvationMessage(text, getpid(), holderThread)) << text;
  EXPECT_EQ(semaphoreValue(), 0);  // nothing was released on its behalf
  EXPECT_EQ(recordedHolder(), holderThread);
  killAndReap(child);
}

TEST_F(LockRecoveryTest, StoppedHolderIsAliveAndIsNotReleased) {
  const pid_t holder = startLockHolder();
  kill(holder, SIGSTOP);
  int status = 0;
  waitpid(holder, &status, WUNTRACED);

  StderrCapture capture;
  sigset_t saved;
  const int rc = traceLock(g_process.semaphore, nodeNames().semaphore, &saved);
  const std::string text = capture.take();
  traceUnlock(rc != -1, g_process.semaphore, &saved);

  EXPECT_EQ(rc, -1);
  EXPECT_TRUE(isStarvationMessage(text, getpid(), holder)) << text;
  EXPECT_EQ(semaphoreValue(), 0);
  EXPECT_EQ(recordedHolder(), holder);
  killAndReap(holder);
}

TEST_F(LockRecoveryTest, ATidIsTheHoldersOnlyWithTheHoldersStartTime) {
  char reported = 0;
  const pid_t live = startChildThatReports([] { return 'R'; }, &reported);
  ASSERT_EQ(reported, 'R');
  const std::uint32_t stamp = threadStartStamp(live);
  ASSERT_NE(stamp, 0u);

  EXPECT_FALSE(holderIsGone(makeHolderIdentity(live, stamp)));
  // The same tid on a thread that started at another time: the tid was
  // given to a new thread after the holder ended.
  EXPECT_TRUE(holderIsGone(makeHolderIdentity(live, stamp + 1)));
  EXPECT_TRUE(holderIsGone(makeHolderIdentity(live, stamp - 1)));
  // Without a stamp only the existence of the tid counts.
  EXPECT_FALSE(holderIsGone(makeHolderIdentity(live, 0)));
  killAndReap(live);
  EXPECT_TRUE(holderIsGone(makeHolderIdentity(live, stamp)));
  EXPECT_TRUE(holderIsGone(makeHolderIdentity(live, 0)));

  // Values that are no thread ids are never taken for dead holders.
  EXPECT_FALSE(holderIsGone(makeHolderIdentity(0, stamp)));
  EXPECT_FALSE(holderIsGone(makeHolderIdentity(-1, 0)));
  EXPECT_FALSE(holderIsGone(makeHolderIdentity(gettid(), threadStartStamp(gettid()))));
}

TEST_F(LockRecoveryTest, HolderWithTheDeadHoldersTidButAnotherStartTimeIsReleased) {
  // A live thread carries the recorded tid, but it started after the
  // recorded holder did: the holder is gone, its tid reused.
  char reported = 0;
  const pid_t impostor = startChildThatReports([] { return 'R'; }, &reported);
  ASSERT_EQ(reported, 'R');
  ASSERT_EQ(sem_trywait(g_process.semaphore), 0);
  recordHolder(header(), makeHolderIdentity(impostor, threadStartStamp(impostor) - 1));

  StderrCapture capture;
  EXPECT_EQ(warn("after a reused tid"), 0);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(semaphoreValue(), 1);
  killAndReap(impostor);
}

TEST_F(LockRecoveryTest, UnrecordedHoldIsClaimedAfterOneDeadlineAndCostsTheNextWaitNothing) {
  // A holder killed between taking the semaphore and recording itself: the
  // first wait sees nobody recorded for a whole deadline, claims the hold
  // and releases it once; the next wait does not wait at all.
  char reported = 0;
  const pid_t holder = startChildThatReports(
      [] { return sem_wait(g_process.semaphore) == 0 ? 'L' : 'X'; }, &reported);
  ASSERT_EQ(reported, 'L');
  killAndReap(holder);

  StderrCapture capture;
  sigset_t saved;
  countDeadlines();
  const auto start = Clock::now();
  int rc = traceLock(g_process.semaphore, nodeNames().semaphore, &saved);
  const auto firstWaited = Clock::now() - start;
  EXPECT_EQ(deadlinesPassed(), 1);
  EXPECT_EQ(recordedHolder(), gettid());
  EXPECT_EQ(semaphoreValue(), 0);
  traceUnlock(rc != -1, g_process.semaphore, &saved);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(semaphoreValue(), 1);

  rc = traceLock(g_process.semaphore, nodeNames().semaphore, &saved);
  traceUnlock(rc != -1, g_process.semaphore, &saved);

  EXPECT_EQ(rc, 0);
  EXPECT_EQ(capture.take(), "");
  EXPECT_GE(firstWaited, kDeadline);
  EXPECT_EQ(deadlinesPassed(), 1);  // the second wait did not wait
  EXPECT_EQ(semaphoreValue(), 1);
  EXPECT_EQ(loadHolder(header()), 0u);
}

TEST_F(LockRecoveryTest, UnrecordedHoldLeftByAReleaseThatNeverPostedIsClaimedOnce) {
  // A holder killed after clearing its record and before posting.
  char reported = 0;
  const pid_t holder = startChildThatReports(
      [] {
        sigset_t saved;
        if (traceLock(g_process.semaphore, "traceMutex", &saved) != 0) return 'X';
        clearHolder(header());
        return 'L';
      },
      &reported);
  ASSERT_EQ(reported, 'L');
  killAndReap(holder);
  ASSERT_EQ(semaphoreValue(), 0);

  // Two processes wait at once: one claims, the other waits for it; neither
  // waits two deadlines or reports starvation. The waiter gives the claimer
  // one more deadline for its operation, an error entry written with
  // synchronous writes; under a loaded disk those can take longer than the
  // tests' short deadline, so both wait the real one.
  useRealLockDeadline();
  StderrCapture capture;
  const std::vector<int> statuses = runChildrenAtOnce(2, [](int) {
    countDeadlines();
    const int rc = warn("after the dead release");
    if (rc != 0) return 1;
    return deadlinesPassed() <= 1 ? 0 : 2;
  });
  EXPECT_EQ(statuses, (std::vector<int>{0, 0}));
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(semaphoreValue(), 1);
  EXPECT_EQ(storedTexts(), (std::vector<std::string>{"after the dead release", "after the dead release"}));
}

TEST_F(LockRecoveryTest, HolderThatFindsItsUnrecordedHoldClaimedWaitsForTheClaimer) {
  // The semaphore is taken by nobody recorded; this thread claims the hold
  // as a waiter would. A second thread that then obtains a token (here: one
  // posted as if the silent holder let go) must not enter next to it.
  ASSERT_EQ(sem_wait(g_process.semaphore), 0);
  const HolderIdentity me = selfIdentity();
  ASSERT_TRUE(claimUnrecordedHold(header(), loadHolder(header()), me));
  sem_post(g_process.semaphore);

  std::atomic<bool> entered{false};
  std::thread other([&entered] {
    sigset_t saved;
    const int rc = traceLock(g_process.semaphore, nodeNames().semaphore, &saved);
    entered = true;
    traceUnlock(rc != -1, g_process.semaphore, &saved);
  });
  // The other thread obtains the posted token, finds the hold claimed and
  // waits again; it enters only after the claimer's release.
  while (semaphoreValue() != 0) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_FALSE(entered.load());
  clearHolder(header());
  sem_post(g_process.semaphore);
  other.join();
  EXPECT_TRUE(entered.load());
  EXPECT_EQ(semaphoreValue(), 1);
  EXPECT_EQ(loadHolder(header()), 0u);
}

TEST_F(LockRecoveryTest, ProcessStartingBehindAnUnrecordedHoldStartsAfterOneDeadlineWithTheLock) {
  char reported = 0;
  const pid_t holder = startChildThatReports(
      [] { return sem_wait(g_process.semaphore) == 0 ? 'L' : 'X'; }, &reported);
  ASSERT_EQ(reported, 'L');
  killAndReap(holder);

  StderrCapture capture;
  const int status = runInChildWithin(kStuck, [] {
    resetProcessStateForTests();
    countDeadlines();
    const auto start = Clock::now();
    const int sets = getCurrentNumberTraceSets();
    const auto waited = Clock::now() - start;
    if (waited < kDeadline || deadlinesPassed() != 1) return 1;
    if (header() == nullptr || sets != 0) return 2;
    if (loadHolder(header()) != 0) return 3;  // released again
    return 0;
  });

  EXPECT_EQ(status, 0);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(semaphoreValue(), 1);  // the claimed hold was released once
}

// ---------------------------------------------------------------------------
// Processes that start while a dead holder keeps the semaphore.

// A child that starts tracing, takes the lock and keeps it; it reports 'L'
// once it holds the lock.
pid_t startStartedLockHolder(char* reported) {
  return startChildThatReports(
      [] {
        getCurrentNumberTraceSets();
        sigset_t saved;
        return traceLock(g_process.semaphore, "traceMutex", &saved) == 0 ? 'L' : 'X';
      },
      reported);
}

class StartupRecoveryTest : public NodeTest {
 protected:
  // The semaphore as start-up opens it, in this process.
  sem_t* openSemaphore() {
    sem_t* semaphore = sem_open(semaphoreName().c_str(), O_CREAT, 0664, 1);
    EXPECT_NE(semaphore, SEM_FAILED);
    semaphores_.push_back(semaphore);
    return semaphore;
  }

  void TearDown() override {
    for (sem_t* semaphore : semaphores_) sem_close(semaphore);
    NodeTest::TearDown();
  }

  // A child that takes the semaphore, runs then (the point where it dies),
  // and is killed.
  pid_t killHolderAfter(const std::function<bool()>& then) {
    sem_t* semaphore = openSemaphore();
    char reported = 0;
    const pid_t holder = startChildThatReports(
        [semaphore, &then] { return sem_wait(semaphore) == 0 && then() ? 'L' : 'X'; }, &reported);
    EXPECT_EQ(reported, 'L');
    killAndReap(holder);
    return holder;
  }

  // A zero-filled object of full size, as the creator leaves it just after
  // sizing it. Returns its mapping.
  TraceMemoryHeader* createZeroObject() {
    const int fd = shm_open(shmName().c_str(), O_RDWR | O_CREAT | O_EXCL, 0664);
    EXPECT_NE(fd, -1);
    EXPECT_EQ(ftruncate(fd, kObjectSize), 0);
    void* map = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    EXPECT_NE(map, MAP_FAILED);
    return static_cast<TraceMemoryHeader*>(map);
  }

  // Runs a process's first trace call in a child: 0 when it returned
  // within limit, having mapped the object.
  // maxDeadlines: how many whole deadlines it may wait.
  static int startInChild(std::chrono::milliseconds atLeast, int maxDeadlines) {
    return runInChildWithin(kStuck, [atLeast, maxDeadlines] {
      countDeadlines();
      const auto start = Clock::now();
      getCurrentNumberTraceSets();
      const auto waited = Clock::now() - start;
      if (waited < atLeast) return 1;
      if (deadlinesPassed() > maxDeadlines) return 2;
      return header() != nullptr ? 0 : 3;
    });
  }

  // The header and SRAM file that a creator leaves.
  void expectCreatedNode(const std::string& why) {
    SCOPED_TRACE(why);
    const Bytes object = readSharedObject(shmName());
    ASSERT_EQ(object.size(), kObjectSize);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(object.data()), 4), std::string("1.4\0", 4));
    EXPECT_EQ(object.at(9), 0xE8);                 // severityMask
    EXPECT_EQ(u32At(object, 12), 1u);              // traceEnabled
    EXPECT_EQ(u32At(object, 16), 9848u);           // nextFreeOffset
    EXPECT_EQ(u16At(object, 20), 0xFFFF);          // lastTraceSetId
    EXPECT_EQ(u32At(object, 24), 0u);              // nobody holds the lock
    EXPECT_EQ(reservedWord(object), 0u);
    EXPECT_EQ(toolLog(), sramOwnerCommand(path("/var/log/sram")));
    EXPECT_EQ(readSramDescriptor(path("/var/log/sram"), 0).traceEntryContentsLength, 128);
  }

  std::vector<sem_t*> semaphores_;
};

TEST_F(StartupRecoveryTest, ProcessStartingAfterTheHolderDiedCompletesItsFirstCall) {
  // The node is up; a started process dies holding the lock.
  const int created = runInChild([] { return getCurrentNumberTraceSets() == 0 ? 0 : 1; });
  ASSERT_EQ(created, 0);
  sem_t* semaphore = openSemaphore();
  char reported = 0;
  const pid_t holder = startStartedLockHolder(&reported);
  ASSERT_EQ(reported, 'L');
  killAndReap(holder);
  ASSERT_EQ(static_cast<pid_t>(u32At(readSharedObject(shmName()), 24)), holder);

  StderrCapture capture;
  EXPECT_EQ(startInChild(std::chrono::seconds(0), 0), 0);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(semaphoreValue(semaphore), 1);
  EXPECT_EQ(u32At(readSharedObject(shmName()), 24), 0u);
}

TEST_F(StartupRecoveryTest, ProcessAlreadyStartingWhenTheHolderDiesCompletesItsFirstCall) {
  const int created = runInChild([] { return getCurrentNumberTraceSets() == 0 ? 0 : 1; });
  ASSERT_EQ(created, 0);
  sem_t* semaphore = openSemaphore();
  char reported = 0;
  const pid_t holder = startStartedLockHolder(&reported);
  ASSERT_EQ(reported, 'L');
  std::thread killer([holder] {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    killAndReap(holder);
  });
  StderrCapture capture;
  EXPECT_EQ(startInChild(std::chrono::seconds(0), 0), 0);
  killer.join();
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(semaphoreValue(semaphore), 1);
}

TEST_F(StartupRecoveryTest, ThreadsOfAProcessStartingBehindADeadHolderAllComplete) {
  const int created = runInChild([] { return getCurrentNumberTraceSets() == 0 ? 0 : 1; });
  ASSERT_EQ(created, 0);
  sem_t* semaphore = openSemaphore();
  char reported = 0;
  const pid_t holder = startStartedLockHolder(&reported);
  ASSERT_EQ(reported, 'L');
  killAndReap(holder);

  StderrCapture capture;
  const int status = runInChildWithin(kStuck, [] {
    std::vector<std::thread> threads;
    std::atomic<int> done{0};
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&done] {
        if (getCurrentNumberTraceSets() == 0) ++done;
      });
    }
    for (std::thread& thread : threads) thread.join();
    return done == 4 && header() != nullptr ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(semaphoreValue(semaphore), 1);
}

TEST_F(StartupRecoveryTest, CreatorThatDiedBeforeCreatingTheObjectIsReplacedAfterOneDeadline) {
  killHolderAfter([] { return true; });
  ASSERT_EQ(sharedObjectSize(shmName()), -1);

  StderrCapture capture;
  EXPECT_EQ(startInChild(kDeadline, 1), 0);
  EXPECT_EQ(capture.take(), "");
  expectCreatedNode("object created by the process that took over");
  EXPECT_EQ(semaphoreValue(semaphores_.front()), 1);
}

TEST_F(StartupRecoveryTest, CreatorThatDiedBeforeSizingTheObjectIsReplacedAfterOneDeadline) {
  killHolderAfter([this] {
    const int fd = shm_open(shmName().c_str(), O_RDWR | O_CREAT, 0664);
    return fd != -1 && close(fd) == 0;
  });
  ASSERT_EQ(sharedObjectSize(shmName()), 0);

  StderrCapture capture;
  EXPECT_EQ(startInChild(kDeadline, 1), 0);
  EXPECT_EQ(capture.take(), "");
  expectCreatedNode("empty object grown and initialised");
}

TEST_F(StartupRecoveryTest, CreatorThatDiedBeforeRecordingItselfIsReplacedAfterOneDeadline) {
  TraceMemoryHeader* zero = createZeroObject();
  killHolderAfter([] { return true; });

  StderrCapture capture;
  EXPECT_EQ(startInChild(kDeadline, 1), 0);
  EXPECT_EQ(capture.take(), "");
  expectCreatedNode("zero object initialised");
  munmap(zero, 4096);
}

TEST_F(StartupRecoveryTest, CreatorThatDiedAfterRecordingItselfIsReplacedAtOnce) {
  TraceMemoryHeader* zero = createZeroObject();
  const pid_t creator = killHolderAfter([zero] {
    recordHolder(zero, selfIdentity());
    return true;
  });
  ASSERT_EQ(static_cast<pid_t>(u32At(readSharedObject(shmName()), 24)), creator);

  StderrCapture capture;
  EXPECT_EQ(startInChild(std::chrono::seconds(0), 0), 0);
  EXPECT_EQ(capture.take(), "");
  expectCreatedNode("header left without version initialised");
  munmap(zero, 4096);
}

TEST_F(StartupRecoveryTest, TwoProcessesStartingBehindADeadCreatorCreateOnce) {
  killHolderAfter([] { return true; });

  StderrCapture capture;
  StartGate gate;
  pid_t children[2] = {0, 0};
  for (pid_t& child : children) {
    std::fflush(nullptr);
    child = fork();
    if (child == 0) {
      gate.wait();
      _exit(getCurrentNumberTraceSets() == 0 && header() != nullptr ? 0 : 1);
    }
  }
  gate.open();
  for (pid_t child : children) EXPECT_EQ(waitWithin(child, kStuck), 0);
  EXPECT_EQ(capture.take(), "");
  expectCreatedNode("one of the two took over");
  EXPECT_EQ(semaphoreValue(semaphores_.front()), 1);
}

}  // namespace
}  // namespace nt::test
