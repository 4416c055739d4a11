// Capture of the system journal: the journal of the current boot goes into
// "/ffs/run/logs/JournalLog.<reset counter>", and only the five newest such
// files are kept. Both steps are shell commands whose own failures (a
// missing journalctl, say) go unnoticed; only a shell that cannot be started
// is recorded in the error trace set.

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/message_source.h"
#include "common/node_names.h"
#include "common/syscalls.h"
#include "nodeplatform/nodeplatform.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/startup.h"

namespace {

constexpr std::size_t kCommandSize = 100;  // at most 99 characters
constexpr std::int32_t kJournalLine = 2296;
constexpr std::int32_t kRemovalLine = 2307;

}  // namespace

extern "C" NODETRACE_API int32_t dumpJournalLogs(void) {
  nt::initTraceSystem();
  const int resetCount = getResetCnt(0);
  if (resetCount == 0) return 0;

  const char* logsDir = nt::nodeNames().logsDir;
  char command[kCommandSize] = {};
  // A longer command is cut to the buffer. (On the node both fit; a cut of
  // the second one leaves a shell line that removes nothing.)
  int result = 0;
  if (std::snprintf(command, sizeof command, "journalctl -b > %s/JournalLog.%d", logsDir, resetCount) >= 0) {
    result = nt::sys::system(command);
  }
  if (result == -1) {
    const int error = errno;
    return tracePrintf(SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_ERR, TRACE_CATEGORY_LIBRARY, nt::kSourceFileName,
                       kJournalLine, "(%s) Writing Journal Log to a file Failed: %d (%s)", "dumpJournalLogs",
                       error, std::strerror(error));
  }

  // Lists the directory newest first and removes every journal file after
  // the fifth. The pattern is a regular expression: it matches every name
  // that contains "JournalLo".
  std::memset(command, 0, sizeof command);
  if (std::snprintf(command, sizeof command, "cd %s;rm -rf `ls -t |grep \"JournalLog*\" |tail -n +6`;cd %s",
                    logsDir, "/") >= 0) {
    result = nt::sys::system(command);
  }
  if (result == -1) {
    const int error = errno;
    result = tracePrintf(SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_ERR, TRACE_CATEGORY_LIBRARY, nt::kSourceFileName,
                         kRemovalLine, "(%s) Removing older Jounal logs Failed %d (%s)", "dumpJournalLogs",
                         error, std::strerror(error));
  }
  return result;
}
