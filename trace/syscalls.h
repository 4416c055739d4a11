// The system calls of the library, behind one seam.
//
// Production code calls these instead of the libc functions. Tests use the
// seam to make the nth call of one kind fail with a chosen errno, so that
// every failure message and result can be checked exactly. Without a planned
// failure each wrapper costs one relaxed atomic load.
#pragma once

#include <semaphore.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

namespace nt::sys {

enum class Call : unsigned {
  kOpen,
  kRead,
  kWrite,
  kLseek,
  kFtruncate,
  kMmap,
  kShmOpen,
  kSemOpen,
  kChmod,
  kStat,
  kCount
};

// The nth next call (1 = the next one) of kind call fails with errno error.
void failCall(Call call, int nth, int error) noexcept;
// Forgets all planned failures.
void clearFailures() noexcept;

int open(const char* path, int flags, mode_t mode = 0) noexcept;
ssize_t read(int fd, void* buffer, std::size_t count) noexcept;
ssize_t write(int fd, const void* buffer, std::size_t count) noexcept;
off_t lseek(int fd, off_t offset, int whence) noexcept;
int ftruncate(int fd, off_t length) noexcept;
void* mmap(std::size_t length, int fd) noexcept;  // read-write, shared, offset 0
int shmOpen(const char* name, int flags, mode_t mode) noexcept;
sem_t* semOpen(const char* name, int flags, mode_t mode, unsigned value) noexcept;
int chmod(const char* path, mode_t mode) noexcept;
int stat(const char* path, struct stat* status) noexcept;

}  // namespace nt::sys
