// The node platform's log service for benchmarks: it accepts every line and
// prints nothing, so that a benchmark measures the library's own work and not
// the machine's syslog. These definitions in the benchmark executable take
// precedence over the host platform library's; its file wrappers, environment
// and reset counter are used as they are.

#include "nodeplatform/nodeplatform.h"

extern "C" {

int ZqConfigRadRegisterDomain(uint32_t domain, const char* /*domainName*/,
                              ZqConfigRadDomainCallback callback) {
  if (callback != nullptr) callback(domain, nullptr);
  return 0;
}

int ZqConfigRadSetMaxTagCount(uint32_t /*domain*/, uint32_t /*value*/) { return 0; }

int ZqConfigRadSetDefault(uint32_t /*tag*/, const char* /*tagName*/, uint32_t /*value*/) { return 0; }

int ZqSysLogPrintE(uint32_t /*level*/, uint32_t /*tag*/, const char* /*format*/, ...) { return 0; }

int ZqSysLogPrintHD(uint32_t /*level*/, const void* /*data*/, uint32_t /*length*/,
                    const char* /*format*/, ...) {
  return 0;
}

}  // extern "C"
