// The node platform's log service for benchmarks: it accepts every line and
// prints nothing, so that a benchmark measures the library's own work and not
// the machine's syslog. These definitions in the benchmark executable take
// precedence over the host platform library's; its file wrappers, environment
// and reset counter are used as they are.
//
// A benchmark may switch the print calls over to the host platform library's
// own (found behind these with dlsym(RTLD_NEXT)), to measure what the
// library costs over the host platform in the same run. The calls are handed
// on with their arguments as the log bridge makes them: a line as
// "%s:%d [%s]" with a file, a line number and a text, a hex dump titled
// "QMB %s DUMP" with the set's name.

#include "bench/quiet_platform.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "nodeplatform/nodeplatform.h"

namespace {

using PrintE = int (*)(uint32_t, uint32_t, const char*, ...);
using PrintHD = int (*)(uint32_t, const void*, uint32_t, const char*, ...);

std::atomic<bool> g_useHost{false};
PrintE g_hostPrintE = nullptr;
PrintHD g_hostPrintHD = nullptr;

template <typename Function>
Function hostFunction(const char* name) {
  void* symbol = dlsym(RTLD_NEXT, name);
  if (symbol == nullptr) {
    std::fprintf(stderr, "the host platform library has no %s\n", name);
    std::abort();
  }
  return reinterpret_cast<Function>(symbol);
}

}  // namespace

namespace nt::bench {

void useHostPlatformLogService(bool on) {
  if (on && g_hostPrintE == nullptr) {
    g_hostPrintE = hostFunction<PrintE>("ZqSysLogPrintE");
    g_hostPrintHD = hostFunction<PrintHD>("ZqSysLogPrintHD");
  }
  g_useHost.store(on, std::memory_order_relaxed);
}

}  // namespace nt::bench

extern "C" {

int ZqConfigRadRegisterDomain(uint32_t domain, const char* /*domainName*/,
                              ZqConfigRadDomainCallback callback) {
  if (callback != nullptr) callback(domain, nullptr);
  return 0;
}

int ZqConfigRadSetMaxTagCount(uint32_t /*domain*/, uint32_t /*value*/) { return 0; }

int ZqConfigRadSetDefault(uint32_t /*tag*/, const char* /*tagName*/, uint32_t /*value*/) { return 0; }

int ZqSysLogPrintE(uint32_t level, uint32_t tag, const char* format, ...) {
  if (!g_useHost.load(std::memory_order_relaxed)) return 0;
  if (std::strcmp(format, "%s:%d [%s]") != 0) std::abort();
  va_list args;
  va_start(args, format);
  const char* file = va_arg(args, const char*);
  const int line = va_arg(args, int);
  const char* text = va_arg(args, const char*);
  va_end(args);
  return g_hostPrintE(level, tag, format, file, line, text);
}

int ZqSysLogPrintHD(uint32_t level, const void* data, uint32_t length, const char* format, ...) {
  if (!g_useHost.load(std::memory_order_relaxed)) return 0;
  if (std::strcmp(format, "QMB %s DUMP") != 0) std::abort();
  va_list args;
  va_start(args, format);
  const char* name = va_arg(args, const char*);
  va_end(args);
  return g_hostPrintHD(level, data, length, format, name);
}

}  // extern "C"
