#include "trace/thread_ids.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace nt {
namespace {

std::atomic<pid_t> g_pid{0};
thread_local pid_t t_tid = 0;

void forgetIdsInChild() noexcept {
  g_pid.store(0, std::memory_order_relaxed);
  t_tid = 0;
}

// Registered once, by the first thread that asks for an id.
void registerForkHandler() noexcept {
  static const bool registered = pthread_atfork(nullptr, nullptr, forgetIdsInChild) == 0;
  (void)registered;
}

}  // namespace

pid_t currentPid() noexcept {
  pid_t pid = g_pid.load(std::memory_order_relaxed);
  if (pid == 0) {
    registerForkHandler();
    pid = getpid();
    g_pid.store(pid, std::memory_order_relaxed);
  }
  return pid;
}

pid_t currentTid() noexcept {
  if (t_tid == 0) {
    registerForkHandler();
    t_tid = static_cast<pid_t>(syscall(SYS_gettid));
  }
  return t_tid;
}

}  // namespace nt
