#include "trace/store/header_stamps.h"

#include <arpa/inet.h>
#include <syslog.h>

#include <cstring>
#include <ctime>

namespace nt {
namespace {

TraceTimeStamp timestamp(clockid_t clock) noexcept {
  timespec now{};
  clock_gettime(clock, &now);
  return {htonl(static_cast<std::uint32_t>(now.tv_sec)), htonl(static_cast<std::uint32_t>(now.tv_nsec))};
}

}  // namespace

TraceTimeStamp monotonicTimestamp() noexcept { return timestamp(CLOCK_MONOTONIC); }

TraceTimeStamp realTimestamp() noexcept { return timestamp(CLOCK_REALTIME); }

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
