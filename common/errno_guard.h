// A trace call never changes the caller's errno: writers keep it in a guard
// that puts it back on every return path.
#pragma once

#include <cerrno>

namespace nt {

class ErrnoGuard {
 public:
  ErrnoGuard() noexcept : saved_(errno) {}
  ~ErrnoGuard() { errno = saved_; }
  ErrnoGuard(const ErrnoGuard&) = delete;
  ErrnoGuard& operator=(const ErrnoGuard&) = delete;

 private:
  int saved_;
};

}  // namespace nt
