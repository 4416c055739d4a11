// libnodeplatform: the node platform's interfaces for host machines.
//
// - Log service: every line goes to syslog, at the priority of its level
//   (4 LOG_ERR, 3 LOG_WARNING, 2 LOG_INFO, 1 and 0 LOG_DEBUG), with the feature
//   tag in the text: "[tag 0x1A001E] text". Hex dumps go out as a title line
//   and rows of 16 bytes. Domain registration always succeeds and calls the
//   domain's callback at once; tag counts and defaults are accepted and kept
//   nowhere.
// - File wrappers: plain open and close; nothing is logged.
// - envInfoProductType() returns 0 on a host, so printed time stamps are UTC.
// - getResetCnt() returns 0 on a host: a host keeps no reset counter, so the
//   journal capture does nothing there.

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "nodeplatform/nodeplatform.h"

namespace {

int priorityOfLevel(uint32_t level) {
  switch (level) {
    case 4:
      return LOG_ERR;
    case 3:
      return LOG_WARNING;
    case 2:
      return LOG_INFO;
    default:
      return LOG_DEBUG;
  }
}

}  // namespace

extern "C" {

int ZqConfigRadRegisterDomain(uint32_t domain, const char* /*domainName*/,
                              ZqConfigRadDomainCallback callback) {
  if (callback != nullptr) callback(domain, nullptr);
  return 0;
}

int ZqConfigRadSetMaxTagCount(uint32_t /*domain*/, uint32_t /*value*/) { return 0; }

int ZqConfigRadSetDefault(uint32_t /*tag*/, const char* /*tagName*/, uint32_t /*value*/) { return 0; }

int ZqSysLogPrintE(uint32_t level, uint32_t tag, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  syslog(priorityOfLevel(level), "[tag 0x%06X] %s", static_cast<unsigned>(tag), text);
  return 0;
}

int ZqSysLogPrintHD(uint32_t level, const void* data, uint32_t length, const char* format, ...) {
  char title[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(title, sizeof title, format, args);
  va_end(args);
  const int priority = priorityOfLevel(level);
  syslog(priority, "%s (%u bytes)", title, static_cast<unsigned>(length));
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (uint32_t row = 0; bytes != nullptr && row < length; row += 16) {
    char line[16 * 3 + 1] = "";
    int used = 0;
    for (uint32_t column = row; column < length && column < row + 16; ++column) {
      used += std::snprintf(line + used, sizeof line - static_cast<size_t>(used), " %02X", bytes[column]);
    }
    syslog(priority, "0x%04X:%s", static_cast<unsigned>(row), line);
  }
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
