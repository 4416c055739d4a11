// Move-only owners of a descriptor and of a stream. They close through the
// node platform's close-without-logging wrappers, as every file of the
// library is closed, and never retry a close on EINTR.
#pragma once

#include <cstdio>
#include <utility>

#include "nodeplatform/nodeplatform.h"

namespace nt {

class ScopedFd {
 public:
  ScopedFd() noexcept = default;
  explicit ScopedFd(int fd) noexcept : fd_(fd) {}
  ScopedFd(ScopedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  ~ScopedFd() { reset(); }

  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ >= 0; }
  void reset() noexcept {
    if (fd_ >= 0) omluCloseNoLog(&fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

class ScopedFile {
 public:
  explicit ScopedFile(std::FILE* file) noexcept : file_(file) {}
  ScopedFile(const ScopedFile&) = delete;
  ScopedFile& operator=(const ScopedFile&) = delete;
  ~ScopedFile() {
    if (file_ != nullptr) omluFcloseNoLog(file_);
  }

  std::FILE* get() const noexcept { return file_; }
  explicit operator bool() const noexcept { return file_ != nullptr; }

 private:
  std::FILE* file_;
};

}  // namespace nt
