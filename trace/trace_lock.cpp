// The node-wide lock "traceMutex" and the emergency exit of its holder.

#include "trace/trace_lock.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "nodetrace/nodetrace.h"
#include "trace/node_names.h"
#include "trace/trace_system.h"

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

int traceLock(sem_t* semaphore, const char* semaphoreName, sigset_t* savedMask) noexcept {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, savedMask);

  // A process whose semaphore could not be opened has nothing to wait for.
  if (semaphore == nullptr) return -1;

  const HolderIdentity me = selfIdentity();
  const timespec start = now(CLOCK_REALTIME);
  timespec deadline = start;
  deadline.tv_sec += kLockDeadlineSeconds;
  TraceMemoryHeader* h = header();

  timespec sliceEnd = later(start, kHolderCheckMilliseconds);
  for (;;) {
    const bool lastSlice = !before(sliceEnd, deadline);
    if (waitUntil(semaphore, lastSlice ? deadline : sliceEnd) == 0) {
      if (h != nullptr) recordHolder(h, me);
      return 0;
    }
    // After a release on behalf of a dead holder the semaphore is free:
    // one more try, even when the deadline has passed meanwhile.
    const bool released = h != nullptr && releaseDeadHolder(semaphore, h);
    if (lastSlice && !released) break;
    sliceEnd = later(now(CLOCK_REALTIME), kHolderCheckMilliseconds);
  }

  reportStarvation(semaphoreName, start, h != nullptr ? holderTid(loadHolder(h)) : 0);
  return -1;
}

StartupLock waitForStartUp(sem_t* semaphore, const char* semaphoreName, HolderIdentity me) noexcept {
  const timespec start = now(CLOCK_REALTIME);
  HeaderPeek peek;
  bool unrecorded = false;  // nobody recorded at every look since unrecordedSince
  timespec unrecordedSince{};
  bool claimed = false;     // the holder word holds me, not yet confirmed

  for (;;) {
    if (waitUntil(semaphore, later(now(CLOCK_REALTIME), kHolderCheckMilliseconds)) == 0) {
      return StartupLock::kTaken;
    }
    // A view of its own: another thread of this process may be mapping the
    // object right now.
    TraceMemoryHeader* h = peek.find();
    const HolderIdentity holder = h != nullptr ? loadHolder(h) : 0;

    if (claimed) {
      // A live holder that took the semaphore just before the claim records
      // itself over it within a slice; a dead one never does.
      if (holder == me) return StartupLock::kInherited;
      claimed = false;
      unrecorded = false;
      continue;
    }
    if (holderTid(holder) != 0) {
      unrecorded = false;
      releaseDeadHolder(semaphore, h);
      continue;
    }
    if (!unrecorded) {
      unrecorded = true;
      unrecordedSince = now(CLOCK_MONOTONIC);
      continue;
    }
    if (before(now(CLOCK_MONOTONIC), later(unrecordedSince, kLockDeadlineSeconds * 1000L))) continue;

    if (h == nullptr || headerNeverInitialised(h)) {
      // The creator died between taking the semaphore and recording
      // itself. Claim its hold; of several waiters one succeeds, the others
      // then see a live holder.
      TraceMemoryHeader* own = h != nullptr ? h : peek.create();
      if (own != nullptr) {
        claimed = claimUnrecordedHold(own, own == h ? holder : loadHolder(own), me);
        unrecorded = false;
        continue;
      }
    }
    reportStarvation(semaphoreName, start, h != nullptr ? holderTid(loadHolder(h)) : 0);
    return StartupLock::kNotTaken;
  }
}

void traceUnlock(int locked, sem_t* semaphore, const sigset_t* savedMask) noexcept {
  if (locked != 0 && semaphore != nullptr) {
    if (TraceMemoryHeader* h = header(); h != nullptr) clearHolder(h);
    sem_post(semaphore);
  }
  if (savedMask != nullptr) pthread_sigmask(SIG_SETMASK, savedMask, nullptr);
}

TraceLockGuard::TraceLockGuard() noexcept
    : locked_(traceLock(g_process.semaphore, nodeNames().semaphore, &savedMask_) != -1 ? 1 : 0) {}

TraceLockGuard::~TraceLockGuard() { traceUnlock(locked_, g_process.semaphore, &savedMask_); }

}  // namespace nt

extern "C" NODETRACE_API void giveUpTraceSemaphoreAndExit(void) {
  // It neither checks that the caller holds the semaphore nor restores the
  // signal mask: the process ends here.
  if (TraceMemoryHeader* h = nt::header(); h != nullptr) nt::clearHolder(h);
  if (nt::g_process.semaphore != nullptr) sem_post(nt::g_process.semaphore);
  std::exit(0);
}
