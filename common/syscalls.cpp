#include "common/syscalls.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <mutex>

namespace nt::sys {
namespace {

constexpr auto kCalls = static_cast<std::size_t>(Call::kCount);

struct Plan {
  std::array<std::atomic<int>, kCalls> countdown{};
  std::array<std::atomic<int>, kCalls> error{};
};
Plan g_plan;

struct Capture {
  std::atomic<bool> on{false};
  std::mutex mutex;
  std::vector<SyslogRecord> syslog;
  std::vector<OpenlogRecord> openlog;
};
Capture g_capture;

std::atomic<bool> g_shellCommandsRefused{false};

// True when this call is the one planned to fail; errno is then set.
bool plannedFailure(Call call) noexcept {
  auto& countdown = g_plan.countdown[static_cast<std::size_t>(call)];
  if (countdown.load(std::memory_order_relaxed) <= 0) return false;
  if (countdown.fetch_sub(1, std::memory_order_relaxed) != 1) return false;
  errno = g_plan.error[static_cast<std::size_t>(call)].load(std::memory_order_relaxed);
  return true;
}

}  // namespace

void refuseShellCommands(bool on) noexcept { g_shellCommandsRefused.store(on, std::memory_order_relaxed); }

void failCall(Call call, int nth, int error) noexcept {
  g_plan.error[static_cast<std::size_t>(call)].store(error, std::memory_order_relaxed);
  g_plan.countdown[static_cast<std::size_t>(call)].store(nth, std::memory_order_relaxed);
}

void clearFailures() noexcept {
  for (auto& countdown : g_plan.countdown) countdown.store(0, std::memory_order_relaxed);
}

int open(const char* path, int flags, mode_t mode) noexcept {
  if (plannedFailure(Call::kOpen)) return -1;
  return ::open(path, flags, mode);
}

ssize_t read(int fd, void* buffer, std::size_t count) noexcept {
  if (plannedFailure(Call::kRead)) return -1;
  return ::read(fd, buffer, count);
}

ssize_t write(int fd, const void* buffer, std::size_t count) noexcept {
  if (plannedFailure(Call::kWrite)) return -1;
  return ::write(fd, buffer, count);
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
  if (plannedFailure(Call::kLseek)) return -1;
  return ::lseek(fd, offset, whence);
}

int ftruncate(int fd, off_t length) noexcept {
  if (plannedFailure(Call::kFtruncate)) return -1;
  return ::ftruncate(fd, length);
}

void* mmap(std::size_t length, int fd) noexcept {
  if (plannedFailure(Call::kMmap)) return MAP_FAILED;
  return ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

int shmOpen(const char* name, int flags, mode_t mode) noexcept {
  if (plannedFailure(Call::kShmOpen)) return -1;
  return ::shm_open(name, flags, mode);
}

sem_t* semOpen(const char* name, int flags, mode_t mode, unsigned value) noexcept {
  if (plannedFailure(Call::kSemOpen)) return SEM_FAILED;
  return ::sem_open(name, flags, mode, value);
}

int chmod(const char* path, mode_t mode) noexcept {
  if (plannedFailure(Call::kChmod)) return -1;
  return ::chmod(path, mode);
}

int stat(const char* path, struct stat* status) noexcept {
  if (plannedFailure(Call::kStat)) return -1;
  return ::stat(path, status);
}

int lstat(const char* path, struct stat* status) noexcept {
  if (plannedFailure(Call::kLstat)) return -1;
  return ::lstat(path, status);
}

std::FILE* fopen(const char* path, const char* mode) noexcept {
  if (plannedFailure(Call::kFopen)) return nullptr;
  return std::fopen(path, mode);
}

int snprintf(char* buffer, std::size_t size, const char* format, ...) noexcept {
  if (plannedFailure(Call::kSnprintf)) return -1;
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(buffer, size, format, args);
  va_end(args);
  return n;
}

int system(const char* command) noexcept {
  if (plannedFailure(Call::kSystem)) return -1;
  if (g_shellCommandsRefused.load(std::memory_order_relaxed)) {
    errno = ENOMEM;
    return -1;
  }
  return std::system(command);
}

void syslog(int priority, const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  if (g_capture.on.load(std::memory_order_relaxed)) {
    // Test path only: the text is formatted into a string and kept.
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
    if (n > 0) std::vsnprintf(text.data(), text.size() + 1, format, args);
    std::lock_guard lock(g_capture.mutex);
    g_capture.syslog.push_back({priority, std::move(text)});
  } else {
    ::vsyslog(priority, format, args);
  }
  va_end(args);
}

void openlog(const char* ident, int option, int facility) noexcept {
  if (g_capture.on.load(std::memory_order_relaxed)) {
    std::lock_guard lock(g_capture.mutex);
    g_capture.openlog.push_back({ident != nullptr ? ident : "", option, facility});
    return;
  }
  ::openlog(ident, option, facility);
}

void captureSyslog(bool on) noexcept {
  std::lock_guard lock(g_capture.mutex);
  if (on) {
    g_capture.syslog.clear();
    g_capture.openlog.clear();
  }
  g_capture.on.store(on, std::memory_order_relaxed);
}

void resetSyslogCapture() noexcept {
  std::lock_guard lock(g_capture.mutex);
  g_capture.on.store(false, std::memory_order_relaxed);
  g_capture.syslog.clear();
  g_capture.openlog.clear();
}

std::vector<SyslogRecord> capturedSyslog() {
  std::lock_guard lock(g_capture.mutex);
  return g_capture.syslog;
}

std::vector<OpenlogRecord> capturedOpenlog() {
  std::lock_guard lock(g_capture.mutex);
  return g_capture.openlog;
}

}  // namespace nt::sys
