// The calling process's and thread's ids without a system call per entry.
//
// Every stored entry carries pid and tid. Asking the kernel each time would
// double the cost of a small entry, so both are cached: the tid per thread,
// the pid per process. A fork handler clears both in the child (whose only
// thread is the one that forked), so a child never writes its parent's ids.
// A process created by a raw clone() without the C library's fork handlers
// would keep the cached values; no user of the library does that.
#pragma once

#include <sys/types.h>

namespace nt {

pid_t currentPid() noexcept;
pid_t currentTid() noexcept;

}  // namespace nt
