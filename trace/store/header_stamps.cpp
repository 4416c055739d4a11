#include "trace/store/header_stamps.h"

#include <syslog.h>

#include <cstring>
#include <ctime>

namespace nt {

void stampFileName(TraceEntryHeader& entry, const char* fileName) noexcept {
  std::memset(entry.fileName, 0, sizeof entry.fileName);
  if (fileName == nullptr) return;
  std::memcpy(entry.fileName, fileName, strnlen(fileName, sizeof entry.fileName - 1));
}

int severityToSyslogPriority(std::uint32_t severity) noexcept {
  switch (severity) {
    case TRACE_SEVERITY_NOT:
      return LOG_NOTICE;
    case TRACE_SEVERITY_INF:
      return LOG_INFO;
    case TRACE_SEVERITY_WAR:
      return LOG_WARNING;
    case TRACE_SEVERITY_ERR:
      return LOG_ERR;
    default:
      return LOG_DEBUG;
  }
}

}  // namespace nt
