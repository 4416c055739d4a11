// The node-wide lock "traceMutex" and the emergency exit of its holder.

#include "trace/store/trace_lock.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "common/node_names.h"
#include "common/test_points.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/startup.h"

namespace nt {
namespace {

constexpr long kNanosecondsPerSecond = 1000000000L;
constexpr long kNanosecondsPerMillisecond = 1000000L;

timespec later(timespec time, long milliseconds) noexcept {
  time.tv_sec += milliseconds / 1000;
  time.tv_nsec += (milliseconds % 1000) * kNanosecondsPerMillisecond;
  if (time.tv_nsec >= kNanosecondsPerSecond) {
    ++time.tv_sec;
    time.tv_nsec -= kNanosecondsPerSecond;
  }
  return time;
}

bool before(const timespec& a, const timespec& b) noexcept {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

timespec now(clockid_t clock) noexcept {
  timespec time{};
  clock_gettime(clock, &time);
  return time;
}

// Waits until the semaphore is obtained (0) or until (CLOCK_REALTIME) has
// passed (-1). Interruptions and any other error are retried with the same
// time.
int waitUntil(sem_t* semaphore, const timespec& until) noexcept {
  int rc = 0;
  while ((rc = sem_timedwait(semaphore, &until)) == -1 && errno != ETIMEDOUT) {
  }
  return rc;
}

void reportStarvation(const char* semaphoreName, const timespec& start, std::int32_t holder) noexcept {
  const timespec end = now(CLOCK_REALTIME);
  std::fprintf(stderr,
               "Process %u (%s) could not get trace semaphore %s in %ld seconds, locked by tid %d; "
               "check system for starvation/crashed processes!\n",
               static_cast<unsigned>(getpid()), program_invocation_short_name, semaphoreName,
               static_cast<long>(end.tv_sec - start.tv_sec), holder);
}

}  // namespace

// Why a hold that nobody recorded may be claimed after one deadline.
//
// A thread that obtains the semaphore records itself in the holder word a
// few instructions later, with all its signals blocked (start-up: once it
// has mapped the object, a few system calls later). A holder word that
// stays empty for a whole deadline while the semaphore stays taken
// therefore means a holder that died between the two steps (or between
// clearing the word and posting the semaphore on release): nobody will ever
// post for it, and nothing tells which thread it was.
//
// The claim is safe even if that reasoning were wrong, e.g. for a holder
// stopped or starved of the CPU for a whole deadline before it recorded
// itself: a holder enters only by swapping itself into an empty holder word
// (takeHold), and the claimer does the same (claimUnrecordedHold). Exactly
// one of them succeeds. A holder that finds its hold claimed goes back to
// waiting and leaves the token it obtained to the claimer, whose release
// posts it. The claimer then tries to take a token itself without waiting,
// which succeeds when the semaphore was free after all (a holder released
// it just after the last look), so that it never holds without one when
// one is to be had. At worst a claim made between a live holder's clearing
// of the word and its post leaves one token too many; the next two threads
// that obtain tokens at the same time absorb it (one enters, the other finds
// the word taken and waits again), and exclusion never depends on the
// count: it depends on the holder word.
//
// So the deadline only decides how soon a dead holder is given up; every
// waiter of the moment waits at most one deadline for it, and once the
// claim has been made and released, nobody waits for it again.

namespace {

// The claimer's token: the dead holder's (the semaphore stays at 0) or, when
// the semaphore was free after all, one of its own.
void absorbFreeToken(sem_t* semaphore) noexcept {
  while (sem_trywait(semaphore) == -1 && errno == EINTR) {
  }
}

timespec deadlineAfter(const timespec& start) noexcept { return later(start, lockDeadlineMilliseconds()); }

}  // namespace

int traceLock(sem_t* semaphore, const char* semaphoreName, sigset_t* savedMask) noexcept {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, savedMask);

  // A process whose semaphore could not be opened has nothing to wait for.
  if (semaphore == nullptr) return -1;

  const HolderIdentity me = selfIdentity();
  const timespec start = now(CLOCK_REALTIME);
  timespec deadline = deadlineAfter(start);
  TraceMemoryHeader* h = header();
  // Nobody recorded as holder at every look of this wait so far.
  bool unrecorded = true;
  // A hold that nobody had recorded was seen taken over by another waiter:
  // that claimer holds the lock for one operation and then posts, so this
  // wait is not given up next to it but extended, once.
  bool sawClaim = false;
  bool extended = false;
  bool seenEmpty = false;  // some look saw nobody recorded

  timespec sliceEnd = later(start, kHolderCheckMilliseconds);
  for (;;) {
    const bool lastSlice = !before(sliceEnd, deadline);
    if (waitUntil(semaphore, lastSlice ? deadline : sliceEnd) == 0) {
      NODETRACE_TEST_POINT(kLockSemaphoreTaken);
      if (h == nullptr) return 0;
      if (takeHold(h, me)) {
        NODETRACE_TEST_POINT(kLockHolderRecorded);
        return 0;
      }
      // The token is a claimer's (see above): wait again.
      unrecorded = false;
      sawClaim = true;
      if (before(now(CLOCK_REALTIME), deadline)) {
        sliceEnd = later(now(CLOCK_REALTIME), kHolderCheckMilliseconds);
        continue;
      }
      NODETRACE_TEST_POINT(kLockDeadlinePassed);
    } else if (h != nullptr) {
      // After a release on behalf of a dead holder the semaphore is free:
      // one more try, even when the deadline has passed meanwhile.
      if (releaseDeadHolder(semaphore, h)) {
        sliceEnd = later(now(CLOCK_REALTIME), kHolderCheckMilliseconds);
        continue;
      }
      const HolderIdentity holder = loadHolder(h);
      if (holderTid(holder) != 0) {
        // Nobody at every earlier look, and now a holder: a claimer, or a
        // holder that came after a release. Either holds for one operation.
        if (unrecorded && seenEmpty) sawClaim = true;
        unrecorded = false;
      } else {
        seenEmpty = true;
      }
      if (before(now(CLOCK_REALTIME), deadline)) {
        sliceEnd = later(now(CLOCK_REALTIME), kHolderCheckMilliseconds);
        continue;
      }
      NODETRACE_TEST_POINT(kLockDeadlinePassed);
      if (unrecorded) {
        if (claimUnrecordedHold(h, holder, me)) {
          absorbFreeToken(semaphore);
          NODETRACE_TEST_POINT(kLockHolderRecorded);
          return 0;
        }
        sawClaim = true;
        unrecorded = false;
      }
    } else if (before(now(CLOCK_REALTIME), deadline)) {
      sliceEnd = later(now(CLOCK_REALTIME), kHolderCheckMilliseconds);
      continue;
    } else {
      NODETRACE_TEST_POINT(kLockDeadlinePassed);
    }
    // The deadline has passed.
    if (!sawClaim || extended) break;
    extended = true;
    deadline = deadlineAfter(now(CLOCK_REALTIME));
    sliceEnd = later(now(CLOCK_REALTIME), kHolderCheckMilliseconds);
  }

  reportStarvation(semaphoreName, start, h != nullptr ? holderTid(loadHolder(h)) : 0);
  return -1;
}

StartupLock waitForStartUp(sem_t* semaphore, const char* semaphoreName, HolderIdentity me) noexcept {
  const timespec start = now(CLOCK_REALTIME);
  HeaderPeek peek;
  // Nobody recorded as holder at every look since unrecordedSince; the wait
  // counts from its own start.
  timespec unrecordedSince = now(CLOCK_MONOTONIC);

  for (;;) {
    if (waitUntil(semaphore, later(now(CLOCK_REALTIME), kHolderCheckMilliseconds)) == 0) {
      return StartupLock::kTaken;
    }
    // A view of its own: another thread of this process may be mapping the
    // object right now.
    TraceMemoryHeader* h = peek.find();
    const HolderIdentity holder = h != nullptr ? loadHolder(h) : 0;

    if (holderTid(holder) != 0) {
      unrecordedSince = now(CLOCK_MONOTONIC);
      releaseDeadHolder(semaphore, h);
      continue;
    }
    if (before(now(CLOCK_MONOTONIC), later(unrecordedSince, lockDeadlineMilliseconds()))) continue;

    NODETRACE_TEST_POINT(kLockDeadlinePassed);
    // Nobody recorded for a whole deadline: the holder died before it
    // recorded itself (a creator, perhaps before the object even existed)
    // or after it cleared the word. Claim its hold; of several waiters one
    // succeeds, the others then see a live holder and wait for it.
    TraceMemoryHeader* own = h != nullptr ? h : peek.create();
    if (own == nullptr) {
      reportStarvation(semaphoreName, start, 0);
      return StartupLock::kNotTaken;
    }
    if (claimUnrecordedHold(own, own == h ? holder : loadHolder(own), me)) {
      absorbFreeToken(semaphore);
      return StartupLock::kInherited;
    }
    unrecordedSince = now(CLOCK_MONOTONIC);
  }
}

void traceUnlock(bool locked, sem_t* semaphore, const sigset_t* savedMask) noexcept {
  if (locked && semaphore != nullptr) {
    if (TraceMemoryHeader* h = header(); h != nullptr) clearHolder(h);
    NODETRACE_TEST_POINT(kUnlockHolderCleared);
    sem_post(semaphore);
  }
  if (savedMask != nullptr) pthread_sigmask(SIG_SETMASK, savedMask, nullptr);
}

TraceLockGuard::TraceLockGuard() noexcept
    : locked_(traceLock(g_process.semaphore, nodeNames().semaphore, &savedMask_) != -1) {}

TraceLockGuard::~TraceLockGuard() { traceUnlock(locked_, g_process.semaphore, &savedMask_); }

}  // namespace nt

extern "C" NODETRACE_API void giveUpTraceSemaphoreAndExit(void) {
  // It neither checks that the caller holds the semaphore nor restores the
  // signal mask: the process ends here.
  if (TraceMemoryHeader* h = nt::header(); h != nullptr) nt::clearHolder(h);
  if (nt::g_process.semaphore != nullptr) sem_post(nt::g_process.semaphore);
  std::exit(0);
}
