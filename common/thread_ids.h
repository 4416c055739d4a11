// The calling process's and thread's ids without a system call per entry.
//
// Every stored entry carries pid and tid. Asking the kernel each time would
// double the cost of a small entry, so both are cached: the tid per thread,
// the pid per process. A fork handler clears both in the child (whose only
// thread is the one that forked), so a child never writes its parent's ids.
// A process created by a raw clone() without the C library's fork handlers
// would keep the cached values; no user of the library does that.
//
// The thread's cache uses the initial-exec TLS model: one load relative to
// the thread pointer, no call to the dynamic TLS resolver. The library is
// linked by the applications, not opened later with dlopen, so its few bytes
// of thread-local storage are part of the static TLS block.
#pragma once

#include <sys/types.h>

#include <atomic>

namespace nt {

namespace ids_detail {
extern std::atomic<pid_t> g_pid;
// constinit: no dynamic initialisation, so an access is one load, without
// the check for a thread-local initialiser that C++ adds otherwise.
extern constinit thread_local pid_t t_tid [[gnu::tls_model("initial-exec")]];
pid_t fetchPid() noexcept;
pid_t fetchTid() noexcept;
}  // namespace ids_detail

inline pid_t currentPid() noexcept {
  const pid_t pid = ids_detail::g_pid.load(std::memory_order_relaxed);
  return pid != 0 ? pid : ids_detail::fetchPid();
}

inline pid_t currentTid() noexcept {
  const pid_t tid = ids_detail::t_tid;
  return tid != 0 ? tid : ids_detail::fetchTid();
}

}  // namespace nt
