// The node platform for benchmarks: the log service accepts every line and
// prints nothing, so that a benchmark measures the library's own work and
// not the machine's syslog. File wrappers are the real calls.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

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

int omluOpenFile(const char* path, int flags, const char* /*srcFile*/, int /*srcLine*/) {
  return open(path, flags);
}

int omluOpenFileWithMode(const char* path, int flags, mode_t mode, const char* /*srcFile*/,
                         int /*srcLine*/) {
  return open(path, flags, mode);
}

int omluCloseFile(int fd, const char* /*srcFile*/, const char* /*label*/, int /*srcLine*/) {
  return close(fd);
}

int omluCloseNoLog(int* fd) {
  if (fd == nullptr || *fd < 0) return -1;
  const int rc = close(*fd);
  *fd = -1;
  return rc;
}

int omluFcloseNoLog(FILE* stream) { return stream != nullptr ? std::fclose(stream) : EOF; }

int envInfoProductType(void) { return 0; }

int getResetCnt(int /*which*/) { return 0; }

}  // extern "C"
