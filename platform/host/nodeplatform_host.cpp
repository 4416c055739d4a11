// libnodeplatform: the node platform's interfaces for host machines.
//
// - Log service: lines go to syslog at the priority of their level
//   (4 LOG_ERR, 3 LOG_WARNING, 2 LOG_INFO, 1 and 0 LOG_DEBUG), with the feature
//   tag in the text: "[tag 0x1A001E] text". A hex dump is one record: its
//   title, "(<n> bytes)" and rows of 16 bytes, each row led by its offset.
//   By default only levels 3 and 4 (warnings and errors) reach syslog: one
//   syslog() call costs microseconds even with no syslog daemon running,
//   far more than storing a trace entry, and every stored entry is
//   forwarded. Lower levels return before any formatting, so tracing can
//   stay on. Full forwarding is switched on per process with the
//   environment variable NODEPLATFORM_SYSLOG=all, read at the first print
//   call, or with nodeplatformSetSyslogForwarding() (nodeplatform/host.h).
//   The switch lives here, in the host stand-in, because it is a property of
//   the host's log service: the trace library reads no environment, and on
//   the node the platform's own log service decides what it keeps.
//   Domain registration always succeeds and calls the domain's callback at
//   once; tag counts and defaults are accepted and kept nowhere.
// - File wrappers: plain open and close; nothing is logged.
// - envInfoProductType() returns 0 on a host, so printed time stamps are UTC.
// - getResetCnt() returns 0 on a host: a host keeps no reset counter, so the
//   journal capture does nothing there.

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "nodeplatform/host.h"
#include "nodeplatform/nodeplatform.h"
#include "syslog_sink.h"

namespace {

// The lowest level that reaches syslog by default: warnings.
constexpr uint32_t kWarningLevel = 3;

// NODEPLATFORM_SYSLOG_FROM_ENVIRONMENT until the first print call reads the
// environment; a single relaxed word, so threads and forked children may
// read it at any time.
std::atomic<int> g_forwarding{NODEPLATFORM_SYSLOG_FROM_ENVIRONMENT};

int forwardingFromEnvironment() {
  const char* value = std::getenv("NODEPLATFORM_SYSLOG");
  return value != nullptr && std::strcmp(value, "all") == 0 ? NODEPLATFORM_SYSLOG_ALL
                                                              : NODEPLATFORM_SYSLOG_WARNINGS;
}

int forwarding() {
  int mode = g_forwarding.load(std::memory_order_relaxed);
  if (mode == NODEPLATFORM_SYSLOG_FROM_ENVIRONMENT) {
    mode = forwardingFromEnvironment();
    g_forwarding.store(mode, std::memory_order_relaxed);
  }
  return mode;
}

bool reachesSyslog(uint32_t level) { return level >= kWarningLevel || forwarding() == NODEPLATFORM_SYSLOG_ALL; }

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

// "<title> (<n> bytes)", then per row of 16 bytes " 0x0000:" and " XX" per
// byte: one record, however long the dump.
std::string hexDumpRecord(const char* title, const unsigned char* bytes, uint32_t length) {
  std::string record;
  record.reserve(std::strlen(title) + 24 + (length + 15) / 16 * 8 + static_cast<size_t>(length) * 3);
  char piece[32];
  std::snprintf(piece, sizeof piece, " (%u bytes)", static_cast<unsigned>(length));
  record.append(title).append(piece);
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (uint32_t i = 0; i < length; ++i) {
    if (i % 16 == 0) {
      std::snprintf(piece, sizeof piece, " 0x%04X:", static_cast<unsigned>(i));
      record.append(piece);
    }
    const char hex[3] = {' ', kHex[bytes[i] >> 4], kHex[bytes[i] & 0xF]};
    record.append(hex, sizeof hex);
  }
  return record;
}

}  // namespace

extern "C" {

void nodeplatformSetSyslogForwarding(int mode) {
  if (mode != NODEPLATFORM_SYSLOG_ALL && mode != NODEPLATFORM_SYSLOG_FROM_ENVIRONMENT) {
    mode = NODEPLATFORM_SYSLOG_WARNINGS;
  }
  g_forwarding.store(mode, std::memory_order_relaxed);
}

int nodeplatformSyslogForwarding(void) { return forwarding(); }

int ZqConfigRadRegisterDomain(uint32_t domain, const char* /*domainName*/,
                              ZqConfigRadDomainCallback callback) {
  if (callback != nullptr) callback(domain, nullptr);
  return 0;
}

int ZqConfigRadSetMaxTagCount(uint32_t /*domain*/, uint32_t /*value*/) { return 0; }

int ZqConfigRadSetDefault(uint32_t /*tag*/, const char* /*tagName*/, uint32_t /*value*/) { return 0; }

int ZqSysLogPrintE(uint32_t level, uint32_t tag, const char* format, ...) {
  if (!reachesSyslog(level)) return 0;
  char text[1024];
  const int prefix = std::snprintf(text, sizeof text, "[tag 0x%06X] ", static_cast<unsigned>(tag));
  va_list args;
  va_start(args, format);
  std::vsnprintf(text + prefix, sizeof text - static_cast<size_t>(prefix), format != nullptr ? format : "", args);
  va_end(args);
  nodeplatform_host::writeSyslogRecord(priorityOfLevel(level), text);
  return 0;
}

int ZqSysLogPrintHD(uint32_t level, const void* data, uint32_t length, const char* format, ...) {
  if (!reachesSyslog(level)) return 0;
  char title[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(title, sizeof title, format != nullptr ? format : "", args);
  va_end(args);
  if (data == nullptr) length = 0;
  std::string record;
  try {
    record = hexDumpRecord(title, static_cast<const unsigned char*>(data), length);
  } catch (...) {
    return -1;  // no memory for the record: the dump is not printed
  }
  nodeplatform_host::writeSyslogRecord(priorityOfLevel(level), record.c_str());
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
