// The node-wide lock "traceMutex": exclusion between threads and processes,
// the signal mask while it is held, the 5-second deadline with its
// starvation message, and the emergency exit of the holder.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "common/node_names.h"
#include "common/shared_fields.h"
#include "tests/support/node_test.h"
#include "trace/store/startup.h"
#include "trace/store/trace_lock.h"

namespace nt::test {
namespace {

class LockTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    getCurrentNumberTraceSets();  // start the trace system in this process
  }

  std::int32_t holderTid() const { return static_cast<std::int32_t>(u32At(readSharedObject(shmName()), 24)); }
};

std::string starvationMessage(long seconds, pid_t holder) {
  return "Process " + std::to_string(getpid()) + " (" + program_invocation_short_name +
         ") could not get trace semaphore " + nodeNames().semaphore + " in " +
         std::to_string(seconds) + " seconds, locked by tid " + std::to_string(holder) +
         "; check system for starvation/crashed processes!\n";
}

TEST_F(LockTest, HolderIsRecordedAndAllSignalsAreBlockedWhileHeld) {
  sigset_t saved;
  ASSERT_EQ(traceLock(g_process.semaphore, "traceMutex", &saved), 0);
  EXPECT_EQ(holderTid(), gettid());
  EXPECT_EQ(semaphoreValue(), 0);
  sigset_t held;
  pthread_sigmask(SIG_SETMASK, nullptr, &held);
  for (int signal : {SIGINT, SIGTERM, SIGUSR1, SIGALRM, SIGCHLD, SIGSEGV, SIGRTMIN}) {
    EXPECT_EQ(sigismember(&held, signal), 1) << signal;
  }
  EXPECT_EQ(sigismember(&saved, SIGTERM), 0);

  traceUnlock(1, g_process.semaphore, &saved);
  EXPECT_EQ(holderTid(), 0);
  EXPECT_EQ(semaphoreValue(), 1);
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), 0);
}

TEST_F(LockTest, UnlockOfALockNotTakenOnlyRestoresTheMask) {
  sigset_t saved;
  pthread_sigmask(SIG_SETMASK, nullptr, &saved);
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  traceUnlock(0, g_process.semaphore, &saved);
  EXPECT_EQ(semaphoreValue(), 1);
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), 0);
}

TEST_F(LockTest, GuardReleasesOnEveryPathOutOfItsScope) {
  {
    TraceLockGuard guard;
    EXPECT_TRUE(guard.locked());
    EXPECT_EQ(semaphoreValue(), 0);
  }
  EXPECT_EQ(semaphoreValue(), 1);
  EXPECT_EQ(holderTid(), 0);
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), 0);
}

TEST_F(LockTest, StuckHolderMakesAWaiterReportStarvationAfterFiveSecondsAndGoOn) {
  // The one test that waits out the real deadline.
  setLockDeadlineMillisecondsForTests(0);
  const pid_t holder = startLockHolder();
  sigset_t saved;
  StderrCapture capture;
  const auto start = std::chrono::steady_clock::now();
  const int rc = traceLock(g_process.semaphore, nodeNames().semaphore, &saved);
  const auto waited = std::chrono::steady_clock::now() - start;
  const std::string text = capture.take();

  EXPECT_EQ(rc, -1);
  EXPECT_GE(waited, std::chrono::seconds(5));
  // Whole seconds of the wall clock: 5, or 6 when the wait crossed one more
  // second boundary.
  EXPECT_TRUE(text == starvationMessage(5, holder) || text == starvationMessage(6, holder)) << text;

  // The caller goes on unlocked; its unlock posts nothing.
  sigset_t during;
  pthread_sigmask(SIG_SETMASK, nullptr, &during);
  EXPECT_EQ(sigismember(&during, SIGTERM), 1);
  traceUnlock(rc != -1, g_process.semaphore, &saved);
  EXPECT_EQ(semaphoreValue(), 0);
  EXPECT_EQ(holderTid(), holder);
  killAndReap(holder);
}

TEST_F(LockTest, StartUpWaitsWithoutDeadline) {
  // A holder that keeps the lock past two deadlines, then lets go.
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  std::fflush(nullptr);
  const pid_t holder = fork();
  if (holder == 0) {
    sigset_t saved;
    traceLock(g_process.semaphore, "traceMutex", &saved);
    const char byte = 'L';
    if (write(ready[1], &byte, 1) != 1) _exit(2);
    std::this_thread::sleep_for(std::chrono::milliseconds(2 * kTestLockDeadlineMilliseconds + 500));
    traceUnlock(1, g_process.semaphore, &saved);
    _exit(0);
  }
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);

  // A process starting now blocks in its first call until the holder is done,
  // and prints nothing.
  StderrCapture capture;
  const int status = runInChild([] {
    resetProcessStateForTests();
    const auto start = std::chrono::steady_clock::now();
    getCurrentNumberTraceSets();
    const auto waited = std::chrono::steady_clock::now() - start;
    return waited >= std::chrono::milliseconds(2 * kTestLockDeadlineMilliseconds) && header() != nullptr ? 0 : 1;
  });
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(status, 0);
  int holderStatus = 0;
  waitpid(holder, &holderStatus, 0);
  EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(LockTest, GiveUpPostsTheSemaphoreAndExitsWithStatusZero) {
  const std::string marker = path("/tmp/exit-handler-ran");
  const int status = runInChild([&marker] {
    static std::string markerPath;
    markerPath = marker;
    std::atexit([] { writeFileText(markerPath, "yes"); });
    sigset_t saved;
    if (traceLock(g_process.semaphore, "traceMutex", &saved) != 0) return 3;
    giveUpTraceSemaphoreAndExit();
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(semaphoreValue(), 1);
  EXPECT_EQ(holderTid(), 0);
  EXPECT_EQ(readFileText(marker), "yes");  // a normal exit: handlers ran
}

TEST_F(LockTest, ExcludesThreadsOfOneProcess) {
  int counter = 0;  // guarded by the lock only
  auto work = [&counter] {
    for (int i = 0; i < 2000; ++i) {
      TraceLockGuard guard;
      const int seen = counter;
      std::this_thread::yield();
      counter = seen + 1;
    }
  };
  std::thread a(work);
  std::thread b(work);
  a.join();
  b.join();
  EXPECT_EQ(counter, 4000);
  EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(LockTest, ExcludesProcesses) {
  void* map = mmap(nullptr, sizeof(std::uint32_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(map, MAP_FAILED);
  auto* counter = static_cast<std::uint32_t*>(map);
  *counter = 0;
  StartGate gate;
  pid_t children[2];
  for (pid_t& child : children) {
    std::fflush(nullptr);
    child = fork();
    if (child == 0) {
      gate.wait();
      for (int i = 0; i < 500; ++i) {
        TraceLockGuard guard;
        const std::uint32_t seen = loadShared(counter);
        sched_yield();
        storeShared(counter, seen + 1);
      }
      _exit(0);
    }
  }
  gate.open();
  for (pid_t child : children) waitpid(child, nullptr, 0);
  EXPECT_EQ(*counter, 1000u);
  EXPECT_EQ(semaphoreValue(), 1);
  munmap(map, sizeof(std::uint32_t));
}

}  // namespace
}  // namespace nt::test
