// Small helpers that stamp entry headers, shared by every writer.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <ctime>

#include "nodetrace/trace_layout.h"

namespace nt {

// The clock now, both words in network byte order, as entries store it.
// Inline: every writer reads two clocks per entry.
inline TraceTimeStamp clockTimestamp(clockid_t clock) noexcept {
  timespec now{};
  clock_gettime(clock, &now);
  return {htonl(static_cast<std::uint32_t>(now.tv_sec)), htonl(static_cast<std::uint32_t>(now.tv_nsec))};
}
// CLOCK_MONOTONIC now.
inline TraceTimeStamp monotonicTimestamp() noexcept { return clockTimestamp(CLOCK_MONOTONIC); }
// CLOCK_REALTIME now.
inline TraceTimeStamp realTimestamp() noexcept { return clockTimestamp(CLOCK_REALTIME); }

// Copies at most 29 characters of fileName into the entry's fileName field;
// the rest of the field, byte 29 included, is zero.
void stampFileName(TraceEntryHeader& entry, const char* fileName) noexcept;

// The syslog priority of an entry's severity: ERR gives LOG_ERR, WAR
// LOG_WARNING, NOT LOG_NOTICE, INF LOG_INFO; any other value, also a
// combination of bits, LOG_DEBUG.
int severityToSyslogPriority(std::uint32_t severity) noexcept;

}  // namespace nt
