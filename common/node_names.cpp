#include "common/node_names.h"

#include <cstdio>
#include <initializer_list>

namespace nt {
namespace {

// Each node name once; the compiled-in table and the relocation derive from
// these.
constexpr char kShmName[] = "/shmem_Trace";
constexpr char kSemaphoreName[] = "traceMutex";
constexpr char kSramPath[] = "/var/log/sram";
constexpr char kLogsDir[] = "/ffs/run/logs";
constexpr char kSeverityMaskConf[] = "/severityMask.conf";  // in kLogsDir
constexpr char kTraceMasksConf[] = "/trace_masks.conf";     // in kLogsDir
constexpr char kTraceDumpTmp[] = "/tmp/traceDump.tmp";
constexpr char kTmpTraceDump[] = "/tmp/tmpTraceDump.bin";
constexpr char kOldTrace[] = "/tmp/oldTrace";
constexpr char kHbkLog[] = "/opt/qmb/etc/hbk_log.txt";
constexpr char kHbkLogTmp[] = "/opt/qmb/etc/hbk_log.txt_tmp";

// first, second and third one after the other. Evaluated at compile time
// only: a name too long for its buffer writes out of bounds there and so
// fails the build.
constexpr void join(char (&out)[kMaxNodeName], const char* first, const char* second,
                    const char* third = "") noexcept {
  std::size_t n = 0;
  for (const char* part : {first, second, third}) {
    for (const char* p = part; *p != '\0'; ++p) out[n++] = *p;
  }
  out[n] = '\0';
}

constexpr NodeNames compiledNames() noexcept {
  constexpr const char* prefix = NODETRACE_PATH_PREFIX;
  NodeNames names{};
  join(names.shm, kShmName, NODETRACE_IPC_SUFFIX);
  join(names.semaphore, kSemaphoreName, NODETRACE_IPC_SUFFIX);
  join(names.root, prefix, "");
  join(names.sram, prefix, kSramPath);
  join(names.logsDir, prefix, kLogsDir);
  join(names.severityMaskConf, prefix, kLogsDir, kSeverityMaskConf);
  join(names.traceMasksConf, prefix, kLogsDir, kTraceMasksConf);
  join(names.traceDumpTmp, prefix, kTraceDumpTmp);
  join(names.tmpTraceDump, prefix, kTmpTraceDump);
  join(names.oldTrace, prefix, kOldTrace);
  join(names.hbkLog, prefix, kHbkLog);
  join(names.hbkLogTmp, prefix, kHbkLogTmp);
  return names;
}

constexpr NodeNames kCompiledNames = compiledNames();

}  // namespace

// Outside the anonymous namespace: the log bridge points its exported log
// file names at two of its buffers (logbridge/log_file.cpp).
constinit NodeNames g_names = kCompiledNames;

namespace {

bool compose(char (&out)[kMaxNodeName], const char* first, const char* second, const char* third = "") noexcept {
  const int n = std::snprintf(out, sizeof out, "%s%s%s", first, second, third);
  return n >= 0 && static_cast<std::size_t>(n) < sizeof out;
}

}  // namespace

const NodeNames& nodeNames() noexcept { return g_names; }

bool relocateNodeNames(const char* root, const char* ipcSuffix) noexcept {
  NodeNames names{};
  const bool fits = compose(names.shm, kShmName, ipcSuffix) &&
                    compose(names.semaphore, kSemaphoreName, ipcSuffix) &&
                    compose(names.root, root, "") && compose(names.sram, root, kSramPath) &&
                    compose(names.logsDir, root, kLogsDir) &&
                    compose(names.severityMaskConf, root, kLogsDir, kSeverityMaskConf) &&
                    compose(names.traceMasksConf, root, kLogsDir, kTraceMasksConf) &&
                    compose(names.traceDumpTmp, root, kTraceDumpTmp) &&
                    compose(names.tmpTraceDump, root, kTmpTraceDump) &&
                    compose(names.oldTrace, root, kOldTrace) &&
                    compose(names.hbkLog, root, kHbkLog) &&
                    compose(names.hbkLogTmp, root, kHbkLogTmp);
  if (!fits) return false;
  g_names = names;
  return true;
}

void restoreNodeNames() noexcept { g_names = kCompiledNames; }

}  // namespace nt
