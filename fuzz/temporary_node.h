// A private node for a fuzz target: file paths under a temporary directory
// (in memory where possible), IPC names with a private suffix, standard
// output sent to /dev/null, everything removed at exit. The trace system is
// started once; the targets then reset what they fuzz before each input.
#pragma once

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "common/node_names.h"
#include "common/syscalls.h"
#include "nodetrace/nodetrace.h"
#include "tests/support/recording_platform.h"
#include "trace/store/startup.h"

namespace nt::fuzz {

inline std::string& temporaryRoot() {
  static std::string root;
  return root;
}

inline void removeTemporaryNode() {
  resetProcessStateForTests();
  shm_unlink(nodeNames().shm);
  sem_unlink(nodeNames().semaphore);
  std::error_code ignored;
  std::filesystem::remove_all(temporaryRoot(), ignored);
}

// Sets the node up on the first call; later calls do nothing.
inline void useTemporaryNode() {
  std::string& root = temporaryRoot();
  if (!root.empty()) return;
  // The SRAM file is written synchronously: in memory (tmpfs) that costs
  // next to nothing, on a disk it would set the pace of every input.
  for (const char* base : {"/dev/shm", "/tmp"}) {
    std::string pattern = std::string(base) + "/nodetrace-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) {
      root = pattern;
      break;
    }
  }
  if (root.empty()) std::abort();
  for (const char* dir : {"/var/log", "/ffs/run/logs", "/tmp", "/opt/qmb/etc"}) {
    std::filesystem::create_directories(root + dir);
  }
  const std::string suffix = "_fuzz" + std::to_string(getpid());
  if (!relocateNodeNames(root.c_str(), suffix.c_str())) std::abort();
  std::atexit(removeTemporaryNode);
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  // No shell commands (the copies of the dumps, the ownership of a re-created
  // SRAM file): a process for each would set the pace. The targets remove the
  // dumps' temporary files themselves.
  sys::refuseShellCommands(true);
  getCurrentNumberTraceSets();  // starts the trace system: mapping and SRAM file
  if (header() == nullptr) std::abort();
}

// The two descriptors of the SRAM file as start-up writes them (zero counts),
// so that every input starts from the same file. The slots keep their bytes.
inline void freshSramDescriptors() {
  TraceSetStruct d{};
  std::strncpy(d.name, "System", sizeof d.name);
  d.type = TS_STRING;
  d.categoryMask = 0xFFFFFFFFu;
  d.maxNumberEntries = TRACE_SRAM_MAX_ENTRIES;
  d.traceEntryContentsLength = TRACE_MAX_STRING_LENGTH;
  d.dataOffset = TRACE_SRAM_SYSTEM_DATA_OFFSET;
  const int fd = ::open(nodeNames().sram, O_WRONLY | O_CLOEXEC);
  if (fd < 0) std::abort();
  bool written = pwrite(fd, TRACE_VERSION, 4, 0) == 4 &&
                 pwrite(fd, &d, sizeof d, TRACE_SRAM_SYSTEM_DESCRIPTOR_OFFSET) == static_cast<ssize_t>(sizeof d);
  std::strncpy(d.name, "NVJ_System", sizeof d.name);
  d.dataOffset = TRACE_SRAM_REMOTE_DATA_OFFSET;
  written = written &&
            pwrite(fd, &d, sizeof d, TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET) == static_cast<ssize_t>(sizeof d);
  close(fd);
  if (!written) std::abort();
}

// Forgets what the recording platform and the syslog capture gathered, so
// that a long run does not grow them without bound.
inline void forgetRecords() {
  test::clearPlatformCalls();
  sys::resetSyslogCapture();
  sys::captureSyslog(true);
}


}  // namespace nt::fuzz
