#include "common/node_names.h"

#include <cstdio>

// Each node name once; the compiled-in table and the relocation derive from
// these.
#define NT_SHM_NAME "/shmem_Trace"
#define NT_SEMAPHORE_NAME "traceMutex"
#define NT_SRAM_PATH "/var/log/sram"
#define NT_LOGS_DIR "/ffs/run/logs"
#define NT_SEVERITY_MASK_CONF NT_LOGS_DIR "/severityMask.conf"
#define NT_TRACE_MASKS_CONF NT_LOGS_DIR "/trace_masks.conf"
#define NT_TRACE_DUMP_TMP "/tmp/traceDump.tmp"
#define NT_TMP_TRACE_DUMP "/tmp/tmpTraceDump.bin"
#define NT_OLD_TRACE "/tmp/oldTrace"
#define NT_HBK_LOG "/opt/qmb/etc/hbk_log.txt"
#define NT_HBK_LOG_TMP "/opt/qmb/etc/hbk_log.txt_tmp"

namespace nt {
namespace {

#define NT_P NODETRACE_PATH_PREFIX
constexpr NodeNames kCompiledNames = {
    NT_SHM_NAME NODETRACE_IPC_SUFFIX, NT_SEMAPHORE_NAME NODETRACE_IPC_SUFFIX, NT_P,
    NT_P NT_SRAM_PATH,  NT_P NT_LOGS_DIR,           NT_P NT_SEVERITY_MASK_CONF,
    NT_P NT_TRACE_MASKS_CONF, NT_P NT_TRACE_DUMP_TMP, NT_P NT_TMP_TRACE_DUMP,
    NT_P NT_OLD_TRACE,  NT_P NT_HBK_LOG,            NT_P NT_HBK_LOG_TMP};
#undef NT_P

}  // namespace

// Outside the anonymous namespace: the log bridge points its exported log
// file names at two of its buffers (logbridge/log_file.cpp).
constinit NodeNames g_names = kCompiledNames;

namespace {

bool compose(char (&out)[kMaxNodeName], const char* first, const char* second) noexcept {
  const int n = std::snprintf(out, sizeof out, "%s%s", first, second);
  return n >= 0 && static_cast<std::size_t>(n) < sizeof out;
}

}  // namespace

const NodeNames& nodeNames() noexcept { return g_names; }

bool relocateNodeNames(const char* root, const char* ipcSuffix) noexcept {
  NodeNames names{};
  const bool fits = compose(names.shm, NT_SHM_NAME, ipcSuffix) &&
                    compose(names.semaphore, NT_SEMAPHORE_NAME, ipcSuffix) &&
                    compose(names.root, root, "") && compose(names.sram, root, NT_SRAM_PATH) &&
                    compose(names.logsDir, root, NT_LOGS_DIR) &&
                    compose(names.severityMaskConf, root, NT_SEVERITY_MASK_CONF) &&
                    compose(names.traceMasksConf, root, NT_TRACE_MASKS_CONF) &&
                    compose(names.traceDumpTmp, root, NT_TRACE_DUMP_TMP) &&
                    compose(names.tmpTraceDump, root, NT_TMP_TRACE_DUMP) &&
                    compose(names.oldTrace, root, NT_OLD_TRACE) &&
                    compose(names.hbkLog, root, NT_HBK_LOG) &&
                    compose(names.hbkLogTmp, root, NT_HBK_LOG_TMP);
  if (!fits) return false;
  g_names = names;
  return true;
}

void restoreNodeNames() noexcept { g_names = kCompiledNames; }

}  // namespace nt
