// The one lock between the processes of the node: the named semaphore
// "traceMutex". While a thread holds it, all its signals are blocked, so a
// signal handler never runs in the holder. A wait gives up after 5 seconds,
// prints the starvation message and lets the operation go on without it.
//
// Waits are cut into short slices; between two slices the waiter looks at
// the recorded holder, and if that thread no longer exists it releases the
// semaphore on its behalf (trace/store/lock_holder.h). A dead holder therefore
// delays the waiters of that moment by one slice, and nobody after them.
// A holder that died before it recorded itself (or after it cleared its
// record on release) leaves the semaphore taken with nobody recorded; the
// first waiter to see that for a whole deadline claims the hold and
// releases it once when done (see trace_lock.cpp for why that is safe).
// Either way a dead holder costs at most one deadline, once.
#pragma once

#include <semaphore.h>
#include <signal.h>

#include "common/test_points.h"
#include "trace/store/lock_holder.h"

namespace nt {

// The real deadline; test builds can shorten it (common/test_points.h).
inline constexpr int kLockDeadlineSeconds = 5;
// How often a waiter looks at the holder.
inline constexpr long kHolderCheckMilliseconds = 100;

// 0 when the semaphore was obtained, -1 when the deadline passed (or this
// process has no semaphore). Blocks all signals of the calling thread and
// keeps the previous mask in savedMask, in both cases.
int traceLock(sem_t* semaphore, const char* semaphoreName, sigset_t* savedMask) noexcept;

// Releases the semaphore if locked, then restores savedMask if it is not
// null.
void traceUnlock(bool locked, sem_t* semaphore, const sigset_t* savedMask) noexcept;

// How start-up came by the semaphore.
enum class StartupLock {
  kTaken,      // obtained; the caller enters the hold with takeHold once it
               // has mapped the object, or waits again if it was claimed
  kInherited,  // claimed from a holder that never recorded itself; the
               // caller is recorded already
  kNotTaken    // the object for the claim could not be created
};

// Start-up's wait for "traceMutex": no deadline while a recorded holder
// lives. A recorded holder that is gone is released at once. When nobody is
// recorded as holder for a whole deadline, the holder died before it
// recorded itself (perhaps a creator, before the object existed): the wait
// creates or grows the object if need be and claims the hold; of several
// waiters one succeeds, the others wait for it. A start-up is thus held up
// by a dead holder for at most one deadline.
// The caller has blocked all signals; me is the caller's identity.
StartupLock waitForStartUp(sem_t* semaphore, const char* semaphoreName, HolderIdentity me) noexcept;

// Holds "traceMutex" for a scope: every path out of the scope releases what
// was taken and restores the signal mask.
class TraceLockGuard {
 public:
  TraceLockGuard() noexcept;
  ~TraceLockGuard();
  TraceLockGuard(const TraceLockGuard&) = delete;
  TraceLockGuard& operator=(const TraceLockGuard&) = delete;

  bool locked() const noexcept { return locked_; }

 private:
  sigset_t savedMask_;
  bool locked_;
};

}  // namespace nt
