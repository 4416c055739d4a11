// The local log file of the log bridge and its size check.
//
// Every line costs one open, one write and one close; no handle stays open
// between lines, so processes that share the file need no coordination and a
// removed or replaced file is picked up at the next line. Every 20th line
// takes the file's size:
//
//   counter:  1  2 ... 19  20       21 ...  39  40 ...
//                          ^ check           ^ check
//
// At 51200 bytes or more the last 200 lines go to the tail file through the
// shell's tail, and the log starts afresh with one note line naming the tail
// file. A truncation sets the counter to 0 before the same line raises it to
// 1, which keeps the checks 20 lines apart.

#include "logbridge/log_file.h"

#include <libgen.h>
#include <pthread.h>
#include <sys/stat.h>
#include <syslog.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/errno_guard.h"
#include "common/node_names.h"
#include "common/scoped_handles.h"
#include "common/syscalls.h"
#include "logbridge/feature_tags.h"
#include "nodetrace/logbridge.h"

namespace nt {
namespace {

constexpr std::uint32_t kDefaultLogMode = 1;
constexpr std::uint32_t kModeStdoutOnly = 0;
constexpr std::uint32_t kModeFileAndStdout = 2;
constexpr std::uint32_t kModeNowhere = 3;  // and every larger value

constexpr std::int32_t kLinesPerSizeCheck = 20;
constexpr off_t kMaxLogFileSize = 51200;
constexpr unsigned kLinesKept = 200;
constexpr std::size_t kCommandSize = 200;
constexpr mode_t kLogUmask = 022;

constexpr const char* kOpenFailed = "QMBW: Error opening the %s File";

// Plain process-wide values; atomics only so that concurrent writers are
// well defined. A lost update costs at most one shifted size check.
std::atomic<std::uint32_t> g_logMode{kDefaultLogMode};
std::atomic<std::int32_t> g_lineCounter{1};

// Guards the truncation, loosely: it is taken with trylock and the
// truncation goes on without it.
pthread_mutex_t g_truncationMutex = PTHREAD_MUTEX_INITIALIZER;

// A path that a process set to null is treated as one that does not open.
const char* pathOrEmpty(const char* path) noexcept { return path != nullptr ? path : ""; }

void appendToLogFile(const char* line) noexcept {
  ScopedFile file(sys::fopen(pathOrEmpty(TMGR_HBK_LOG_FILE_NAME), "a"));
  if (file) std::fprintf(file.get(), "%s\n", line);
}

// Saves the last lines of a log file that has grown too big into the tail
// file and empties the log, leaving the note.
void truncateLogFile() noexcept {
  g_lineCounter.store(0, std::memory_order_relaxed);
  const char* logPath = pathOrEmpty(TMGR_HBK_LOG_FILE_NAME);
  const char* tailPath = pathOrEmpty(TMGR_HBK_LOG_FILE_NAME_TMP);
  {
    // Creates the tail file, or empties an old one.
    ScopedFile tail(sys::fopen(tailPath, "w+"));
    if (!tail) {
      sys::syslog(LOG_ERR, kOpenFailed, tailPath);
      return;
    }
  }
  char command[kCommandSize] = {};
  const bool locked = pthread_mutex_trylock(&g_truncationMutex) == 0;
  std::snprintf(command, sizeof command, "tail -n %u %s > %s", kLinesKept, logPath, tailPath);
  // If tail fails, the log is emptied all the same.
  static_cast<void>(std::system(command));
  flushHBKLogFile(1);
  if (locked) pthread_mutex_unlock(&g_truncationMutex);
}

void checkLogFileSize() noexcept {
  struct stat status {};
  if (sys::lstat(pathOrEmpty(TMGR_HBK_LOG_FILE_NAME), &status) != 0) return;
  if (status.st_size >= kMaxLogFileSize) truncateLogFile();
}

}  // namespace

void writeHBKLogLine(const char* line) noexcept {
  umask(kLogUmask);
  const std::uint32_t mode = g_logMode.load(std::memory_order_relaxed);
  if (mode == kModeStdoutOnly) {
    std::puts(line);
    return;
  }
  if (mode >= kModeNowhere) return;

  appendToLogFile(line);
  // The check runs even when the line could not be appended.
  if (g_lineCounter.load(std::memory_order_relaxed) % kLinesPerSizeCheck == 0) checkLogFileSize();
  g_lineCounter.fetch_add(1, std::memory_order_relaxed);

  if (mode == kModeFileAndStdout) std::puts(line);
}

std::int32_t hbkLogLineCounter() noexcept { return g_lineCounter.load(std::memory_order_relaxed); }

void resetLogBridgeForTests() noexcept {
  g_logMode.store(kDefaultLogMode, std::memory_order_relaxed);
  g_lineCounter.store(1, std::memory_order_relaxed);
  TMGR_HBK_LOG_FILE_NAME = nodeNames().hbkLog;
  TMGR_HBK_LOG_FILE_NAME_TMP = nodeNames().hbkLogTmp;
  forgetHBKDomainRegistration();
}

}  // namespace nt

extern "C" NODETRACE_API void setHBKLogMode(uint32_t mode) {
  nt::g_logMode.store(mode, std::memory_order_relaxed);
}

extern "C" NODETRACE_API void flushHBKLogFile(int32_t withNote) {
  nt::ErrnoGuard errnoGuard;
  umask(nt::kLogUmask);
  const char* logPath = nt::pathOrEmpty(TMGR_HBK_LOG_FILE_NAME);
  nt::ScopedFile file(nt::sys::fopen(logPath, "w"));
  if (file) {
    if (withNote != 0) {
      std::fprintf(file.get(), "File is truncated - For OLD logs check %s\n",
                   nt::pathOrEmpty(TMGR_HBK_LOG_FILE_NAME_TMP));
    }
    return;
  }
  // basename may modify its argument, hence the copy.
  char* copy = strdup(logPath);
  if (copy == nullptr) {
    nt::sys::syslog(LOG_ERR, nt::kOpenFailed, logPath);
    return;
  }
  nt::sys::syslog(LOG_ERR, nt::kOpenFailed, basename(copy));
  std::free(copy);
}

// The paths of the local log file and of its saved tail start as the two
// node names. Pointing at the table's own buffers (constant-initialised, so
// no order of static initialisation matters) makes the build's path prefix
// and the relocation of the tests apply to them; a process may still point
// them anywhere else.
extern "C" {
NODETRACE_API constinit const char* TMGR_HBK_LOG_FILE_NAME = nt::g_names.hbkLog;
NODETRACE_API constinit const char* TMGR_HBK_LOG_FILE_NAME_TMP = nt::g_names.hbkLogTmp;
}
