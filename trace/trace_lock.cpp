// The node-wide lock "traceMutex" and the emergency exit of its holder.

#include "trace/trace_lock.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "nodetrace/nodetrace.h"
#include "trace/node_names.h"
#include "trace/shared_access.h"
#include "trace/trace_system.h"

namespace nt {

int traceLock(sem_t* semaphore, const char* semaphoreName, sigset_t* savedMask) noexcept {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, savedMask);

  // A process whose semaphore could not be opened has nothing to wait for.
  if (semaphore == nullptr) return -1;

  timespec start{};
  clock_gettime(CLOCK_REALTIME, &start);
  timespec deadline = start;
  deadline.tv_sec += kLockDeadlineSeconds;

  // Interruptions and any other error are retried with the same deadline.
  int rc = 0;
  while ((rc = sem_timedwait(semaphore, &deadline)) == -1 && errno != ETIMEDOUT) {
  }

  TraceMemoryHeader* h = header();
  if (rc == 0) {
    if (h != nullptr) storeShared(&h->lockHolderTid, gettid());
    return 0;
  }

  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  std::fprintf(stderr,
               "Process %u (%s) could not get trace semaphore %s in %ld seconds, locked by tid %d; "
               "check system for starvation/crashed processes!\n",
               static_cast<unsigned>(getpid()), program_invocation_short_name, semaphoreName,
               static_cast<long>(now.tv_sec - start.tv_sec),
               h != nullptr ? loadShared(&h->lockHolderTid) : 0);
  return -1;
}

void traceUnlock(int locked, sem_t* semaphore, const sigset_t* savedMask) noexcept {
  if (locked != 0 && semaphore != nullptr) {
    if (TraceMemoryHeader* h = header(); h != nullptr) storeShared(&h->lockHolderTid, 0);
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
  if (TraceMemoryHeader* h = nt::header(); h != nullptr) nt::storeShared(&h->lockHolderTid, 0);
  if (nt::g_process.semaphore != nullptr) sem_post(nt::g_process.semaphore);
  std::exit(0);
}
