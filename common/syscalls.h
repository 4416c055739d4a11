// The system calls of the library, behind one seam.
//
// Production code calls these instead of the libc functions. Tests use the
// seam to make the nth call of one kind fail with a chosen errno, so that
// every failure message and result can be checked exactly. Without a planned
// failure each wrapper costs one relaxed atomic load.
//
// syslog and openlog go through the seam too: a test can capture what the
// library sends to the system log instead of reading the machine's log.
#pragma once

#include <semaphore.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

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
  kLstat,
  kFopen,
  kSnprintf,
  kSystem,
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
int lstat(const char* path, struct stat* status) noexcept;
std::FILE* fopen(const char* path, const char* mode) noexcept;
// A planned failure returns -1 and writes nothing, as a failing formatter.
int snprintf(char* buffer, std::size_t size, const char* format, ...) noexcept
    __attribute__((format(printf, 3, 4)));

// The shell commands of the library (copies of dump files, the journal).
// A planned failure returns -1 as a shell that cannot be started does.
int system(const char* command) noexcept;
// Test hook: while on, every shell command fails as one that cannot start
// (-1), and nothing is run. For fuzz targets, where a process per command
// would set the pace.
void refuseShellCommands(bool on) noexcept;

void syslog(int priority, const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));
void openlog(const char* ident, int option, int facility) noexcept;

// Test hook: while capture is on, syslog and openlog are recorded here
// instead of reaching the system log. Off by default.
struct SyslogRecord {
  int priority;
  std::string text;
  bool operator==(const SyslogRecord&) const = default;
};
struct OpenlogRecord {
  std::string ident;
  int option;
  int facility;
  bool operator==(const OpenlogRecord&) const = default;
};
// Switching capture on starts with no records.
void captureSyslog(bool on) noexcept;
// Capture off, records forgotten.
void resetSyslogCapture() noexcept;
std::vector<SyslogRecord> capturedSyslog();
std::vector<OpenlogRecord> capturedOpenlog();

}  // namespace nt::sys
