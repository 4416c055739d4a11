// Small helpers that stamp entry headers, shared by every writer.
#pragma once

#include <cstdint>

#include "nodetrace/trace_layout.h"

namespace nt {

// CLOCK_MONOTONIC now, both words in network byte order, as entries store it.
TraceTimeStamp monotonicTimestamp() noexcept;
// CLOCK_REALTIME now, both words in network byte order.
TraceTimeStamp realTimestamp() noexcept;

// Copies at most 29 characters of fileName into the entry's fileName field;
// the rest of the field, byte 29 included, is zero.
void stampFileName(TraceEntryHeader& entry, const char* fileName) noexcept;

// The syslog priority of an entry's severity: ERR gives LOG_ERR, WAR
// LOG_WARNING, NOT LOG_NOTICE, INF LOG_INFO; any other value, also a
// combination of bits, LOG_DEBUG.
int severityToSyslogPriority(std::uint32_t severity) noexcept;

}  // namespace nt
