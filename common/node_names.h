// The names the library uses on the node: the shared-memory object, the
// semaphore and every file path. They are resolved here and nowhere else.
//
// On the node they are exactly "/shmem_Trace", "traceMutex", "/var/log/sram",
// the files under "/ffs/run/logs", "/tmp" and "/opt/qmb/etc". A build may
// prepend a directory to the file paths (NODETRACE_PATH_PREFIX, for hosts
// where /var/log cannot be written) and then appends a suffix to the IPC
// names too (NODETRACE_IPC_SUFFIX), so that the build has a node of its own. Tests relocate all of them at run time:
// file paths under a private root, IPC names with a private suffix, so that
// tests run in parallel and never touch the node's names. The relocation is
// internal; it is not exported from the shared library.
#pragma once

#include <cstddef>

#ifndef NODETRACE_PATH_PREFIX
#define NODETRACE_PATH_PREFIX ""
#endif

// Appended to the shared-memory object's and the semaphore's names by a
// build of its own node (NODETRACE_IPC_SUFFIX, set with a path prefix), so
// that it shares no trace store with the node's names or another build.
#ifndef NODETRACE_IPC_SUFFIX
#define NODETRACE_IPC_SUFFIX ""
#endif

// The owner ("user:group") the SRAM file is handed to after its creation; a
// build setting (NODETRACE_SRAM_OWNER), empty on hosts: no chown is run.
#ifndef NODETRACE_SRAM_OWNER
#define NODETRACE_SRAM_OWNER "kvqsw:kvqsw"
#endif

namespace nt {

inline constexpr std::size_t kMaxNodeName = 256;

struct NodeNames {
  char shm[kMaxNodeName];               // "/shmem_Trace"
  char semaphore[kMaxNodeName];         // "traceMutex"
  char root[kMaxNodeName];              // prepended to every file path
  char sram[kMaxNodeName];              // "/var/log/sram"
  char logsDir[kMaxNodeName];           // "/ffs/run/logs"
  char severityMaskConf[kMaxNodeName];  // "/ffs/run/logs/severityMask.conf"
  char traceMasksConf[kMaxNodeName];    // "/ffs/run/logs/trace_masks.conf"
  char traceDumpTmp[kMaxNodeName];      // "/tmp/traceDump.tmp"
  char tmpTraceDump[kMaxNodeName];      // "/tmp/tmpTraceDump.bin"
  char oldTrace[kMaxNodeName];          // "/tmp/oldTrace"
  char hbkLog[kMaxNodeName];            // "/opt/qmb/etc/hbk_log.txt"
  char hbkLogTmp[kMaxNodeName];         // "/opt/qmb/etc/hbk_log.txt_tmp"
};

// The names in force. Resolved at compile time; no work at run time.
const NodeNames& nodeNames() noexcept;

// The table itself, for the constant initialisation of the log bridge's
// exported log file names (logbridge/log_file.cpp); all others read it
// through nodeNames().
extern NodeNames g_names;

// Test hook: file paths under root (which must exist), IPC names followed by
// ipcSuffix. Call before the process's first trace call, or after
// resetProcessStateForTests(). Names too long for the buffers are refused
// (false) and nothing changes.
bool relocateNodeNames(const char* root, const char* ipcSuffix) noexcept;

// Test hook: back to the compiled-in names.
void restoreNodeNames() noexcept;

}  // namespace nt
