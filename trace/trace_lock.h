// The one lock between the processes of the node: the named semaphore
// "traceMutex". While a thread holds it, all its signals are blocked, so a
// signal handler never runs in the holder. A wait gives up after 5 seconds,
// prints the starvation message and lets the operation go on without it.
#pragma once

#include <semaphore.h>
#include <signal.h>

namespace nt {

inline constexpr int kLockDeadlineSeconds = 5;

// 0 when the semaphore was obtained, -1 when the deadline passed (or this
// process has no semaphore). Blocks all signals of the calling thread and
// keeps the previous mask in savedMask, in both cases.
int traceLock(sem_t* semaphore, const char* semaphoreName, sigset_t* savedMask) noexcept;

// Releases the semaphore if locked is non-zero, then restores savedMask if
// it is not null.
void traceUnlock(int locked, sem_t* semaphore, const sigset_t* savedMask) noexcept;

// Holds "traceMutex" for a scope: every path out of the scope releases what
// was taken and restores the signal mask.
class TraceLockGuard {
 public:
  TraceLockGuard() noexcept;
  ~TraceLockGuard();
  TraceLockGuard(const TraceLockGuard&) = delete;
  TraceLockGuard& operator=(const TraceLockGuard&) = delete;

  bool locked() const noexcept { return locked_ != 0; }

 private:
  sigset_t savedMask_;
  int locked_;
};

}  // namespace nt
