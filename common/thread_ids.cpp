#include "common/thread_ids.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace nt {
namespace ids_detail {

std::atomic<pid_t> g_pid{0};
constinit thread_local pid_t t_tid [[gnu::tls_model("initial-exec")]] = 0;

namespace {

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

pid_t fetchPid() noexcept {
  registerForkHandler();
  const pid_t pid = getpid();
  g_pid.store(pid, std::memory_order_relaxed);
  return pid;
}

pid_t fetchTid() noexcept {
  registerForkHandler();
  t_tid = static_cast<pid_t>(syscall(SYS_gettid));
  return t_tid;
}

}  // namespace ids_detail
}  // namespace nt
