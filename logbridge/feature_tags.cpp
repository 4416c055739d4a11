// Feature tags and the routing of trace entries to the platform log service.
//
// The platform files log lines under a feature tag per application family:
// (domain << 16) | row, with the library's domain 26 ("QMB"). A trace set is
// filed under the row that carries its name; error entries always go out
// under "System", whatever their set.

#include "logbridge/feature_tags.h"

#include <strings.h>

#include <atomic>
#include <cstring>

#include "common/errno_guard.h"
#include "nodeplatform/nodeplatform.h"
#include "nodetrace/logbridge.h"
#include "nodetrace/trace_layout.h"

// The feature tag table. Rows 0 to 29 are the application families of the
// node, named as their trace sets are; row 30 takes the library's own
// records and every error entry, row 31 any set whose name no row holds.
extern "C" NODETRACE_API constexpr hbk_syslog_map_entry hbk_syslog_map[HBK_SYSLOG_MAP_ROWS] = {
    {0x1A0000, "Platform"},     // start-up, process supervision, node platform services
    {0x1A0001, "Config"},       // configuration database and its transactions
    {0x1A0002, "Alarm"},        // alarm raising, clearing and the active alarm list
    {0x1A0003, "Event"},        // events and notifications to managers
    {0x1A0004, "Perf"},         // performance monitoring counters and bins
    {0x1A0005, "Equipment"},    // cards, plug-in units and their states
    {0x1A0006, "Inventory"},    // hardware and software inventory
    {0x1A0007, "Software"},     // software download, activation and rollback
    {0x1A0008, "License"},      // licence keys and capacity
    {0x1A0009, "Security"},     // users, authentication, authorisation, audit
    {0x1A000A, "Snmp"},         // SNMP agent
    {0x1A000B, "Netconf"},      // NETCONF server
    {0x1A000C, "Cli"},          // command line interface
    {0x1A000D, "Web"},          // web management interface
    {0x1A000E, "Database"},     // persistent storage of the node's data
    {0x1A000F, "Timing"},       // clock synchronisation: SyncE, PTP, time of day
    {0x1A0010, "Ethernet"},     // Ethernet ports and switching
    {0x1A0011, "Routing"},      // IP routing and forwarding
    {0x1A0012, "Mpls"},         // MPLS tunnels and pseudowires
    {0x1A0013, "Oam"},          // connectivity checks, loopbacks, link trace
    {0x1A0014, "Protection"},   // protection switching of links and paths
    {0x1A0015, "Qos"},          // classification, policing, queues and shaping
    {0x1A0016, "Radio"},        // radio links: modulation, power, receive levels
    {0x1A0017, "Optical"},      // optical interfaces and transceivers
    {0x1A0018, "Dcn"},          // data communication network of the management
    {0x1A0019, "Discovery"},    // neighbour and topology discovery
    {0x1A001A, "Power"},        // power supply, fans and temperature
    {0x1A001B, "Diagnostics"},  // self tests and fault localisation
    {0x1A001C, "Backup"},       // backup and restore of the configuration
    {0x1A001D, "RemoteUnit"},   // management of the remote unit
    {0x1A001E, "System"},       // the library's own records and all errors
    {0x1A001F, "Unknown"},      // sets whose name no row holds
};

namespace nt {
namespace {

static_assert(HBK_SYSLOG_MAP_ROWS == 32);
static_assert(kSystemHbkTag == ((kHbkDomain << 16) | 30));
static_assert(kUnknownHbkTag == ((kHbkDomain << 16) | 31));

// The line numbers of the bridge's own messages in the local log file.
constexpr std::uint32_t kTagNotFoundLine = 168;
constexpr std::uint32_t kDomainRegisteredLine = 197;
constexpr std::uint32_t kDomainRefusedLine = 202;

// Plain process-wide flag; two threads forwarding their first entries at the
// same moment may both register the domain, which the platform tolerates.
std::atomic<bool> g_hbkDomainRegistered{false};

void registerDomain(const char* traceSetName) noexcept {
  const int rc = ZqConfigRadRegisterDomain(kHbkDomain, kHbkDomainName, setHBKTagDefaults);
  if (rc == 0) {
    g_hbkDomainRegistered.store(true, std::memory_order_relaxed);
    proc_printf_func("updateSyslogPrint", kDomainRegisteredLine, "QMB Domain [%s] registered", traceSetName);
  } else {
    // The flag stays 0: the next entry tries again.
    proc_printf_func("updateSyslogPrint", kDomainRefusedLine, "ZqConfigRadRegisterDomain() returned %d for [%s]",
                     rc,
                     traceSetName);
  }
}

// The row of each set's name, kept by set id: 0 for none, else row + 1.
// Ids 0 to 255 cover every user set and the two persistent sets; other ids
// are looked up every time. One byte per id, read and written with single
// relaxed atomic accesses: a stale or concurrently replaced row is harmless,
// because every use checks the row's name against the set's name before
// trusting it. Nothing here is locked, so a fork() at any moment leaves the
// child a usable cache.
constexpr std::size_t kCachedIds = 256;
std::atomic<std::uint8_t> g_rowOfSet[kCachedIds];
static_assert(std::atomic<std::uint8_t>::is_always_lock_free);

// Each row's name as a set's descriptor holds it, zero-padded to the 20
// bytes of a set name: a set whose name is a row's name exactly is checked
// against its kept row by comparing 20 bytes, without strcasecmp.
struct PaddedName {
  char bytes[TRACE_SET_NAME_LENGTH];
};
constexpr auto kPaddedRowNames = [] {
  struct Table {
    PaddedName rows[HBK_SYSLOG_MAP_ROWS] = {};
  } table;
  for (std::size_t row = 0; row < HBK_SYSLOG_MAP_ROWS; ++row) {
    const char* name = hbk_syslog_map[row].name;
    for (std::size_t i = 0; name[i] != '\0'; ++i) table.rows[row].bytes[i] = name[i];
  }
  return table;
}();
static_assert(kPaddedRowNames.rows[29].bytes[9] == 't' && kPaddedRowNames.rows[29].bytes[10] == '\0');

// Row names differ without regard to case (the table's tests check it), so
// the row whose name equals a set's name is also the first such row, the one
// the full lookup finds.

// The row of name, or -1 (with the diagnostic line) when no row holds it.
int findRow(const char* name) noexcept {
  if (name != nullptr) {
    for (std::size_t row = 0; row < HBK_SYSLOG_MAP_ROWS; ++row) {
      if (strcasecmp(name, hbk_syslog_map[row].name) == 0) return static_cast<int>(row);
    }
  }
  proc_printf_func("getHBKFeatureTag", kTagNotFoundLine, "***Error - Feature tag NOT FOUND***");
  return -1;
}

int routeEntry(std::uint32_t tag, const char* traceSetName, std::uint32_t traceSetType, std::uint32_t severity,
               const char* fileName, std::int32_t line, std::uint16_t contentsLength, const void* contents,
               bool contentsAreText) noexcept;

// The copy of a dump without a zero byte; kept out of the line printer so
// that only this rare case pays for its 1601-byte buffer on the stack.
[[gnu::noinline, gnu::cold]] int printBytesLine(std::uint32_t level, std::uint32_t tag, const char* file,
                                                std::int32_t line, const char* bytes,
                                                std::uint16_t contentsLength) noexcept {
  char copy[TRACE_MAX_DUMP_LENGTH + 1];
  const std::size_t length = contentsLength < TRACE_MAX_DUMP_LENGTH ? contentsLength : TRACE_MAX_DUMP_LENGTH;
  std::memcpy(copy, bytes, length);
  copy[length] = '\0';
  return ZqSysLogPrintE(level, tag, "%s:%d [%s]", file, line, copy);
}

// Prints contents as the text of a "%s:%d [%s]" line. Text contents (the
// writer's zero-terminated text) are printed whole: their length is not
// always known here (an error-class entry of tracePrintf arrives with the
// length 0). Bytes offered as a dump need not hold a zero byte, so they are
// printed up to their first zero byte within contentsLength, copied and
// terminated when there is none, and never read past their end.
int printLine(std::uint32_t level, std::uint32_t tag, const char* file, std::int32_t line,
              const void* contents, std::uint16_t contentsLength, bool contentsAreText) noexcept {
  const auto* bytes = static_cast<const char*>(contents);
  if (bytes == nullptr) {
    bytes = "";
  } else if (!contentsAreText && std::memchr(bytes, '\0', contentsLength) == nullptr) {
    return printBytesLine(level, tag, file, line, bytes, contentsLength);
  }
  return ZqSysLogPrintE(level, tag, "%s:%d [%s]", file, line, bytes);
}

}  // namespace

std::uint32_t severityToLogLevel(std::uint32_t severity) noexcept {
  switch (severity) {
    case TRACE_SEVERITY_NOT: return 2;
    case TRACE_SEVERITY_DBG: return 1;
    case TRACE_SEVERITY_INF: return 2;
    case TRACE_SEVERITY_WAR: return 3;
    case TRACE_SEVERITY_ERR: return 4;
    default: return 0;
  }
}

void setHBKTagDefaults(std::uint32_t /*domain*/, void* /*context*/) noexcept {
  ZqConfigRadSetMaxTagCount(kHbkDomain, kHbkMaxTagCount);
  for (const hbk_syslog_map_entry& row : hbk_syslog_map) ZqConfigRadSetDefault(row.tag, row.name, 1);
}

bool hbkDomainRegistered() noexcept { return g_hbkDomainRegistered.load(std::memory_order_relaxed); }

void forgetHBKDomainRegistration() noexcept { g_hbkDomainRegistered.store(false, std::memory_order_relaxed); }

}  // namespace nt

extern "C" NODETRACE_API uint32_t getHBKFeatureTag(const char* name) {
  const int row = nt::findRow(name);
  return row >= 0 ? hbk_syslog_map[row].tag : nt::kUnknownHbkTag;
}

extern "C" NODETRACE_API uint32_t getDefaultHBKtag(void) { return nt::kSystemHbkTag; }

namespace nt {

std::uint32_t featureTagOfSet(std::uint16_t traceSetId, const char* name) noexcept {
  if (name == nullptr) return getHBKFeatureTag(name);
  const bool cachable = traceSetId < kCachedIds;
  if (cachable) {
    const unsigned kept = g_rowOfSet[traceSetId].load(std::memory_order_relaxed);
    if (kept != 0 && strcasecmp(name, hbk_syslog_map[kept - 1].name) == 0) return hbk_syslog_map[kept - 1].tag;
  }
  const int row = findRow(name);
  if (row < 0) return kUnknownHbkTag;
  if (cachable) g_rowOfSet[traceSetId].store(static_cast<std::uint8_t>(row + 1), std::memory_order_relaxed);
  return hbk_syslog_map[row].tag;
}

std::uint32_t featureTagOfSet(std::uint16_t traceSetId, const SetName& name) noexcept {
  if (traceSetId < kCachedIds) {
    // The usual case: the name, as its descriptor holds it, is its kept
    // row's name exactly, which 20 bytes compared tell without strcasecmp.
    // Else (another case of letters, bytes after the name) the rule decides.
    const unsigned kept = g_rowOfSet[traceSetId].load(std::memory_order_relaxed);
    if (kept != 0 && std::memcmp(name.text, kPaddedRowNames.rows[kept - 1].bytes, TRACE_SET_NAME_LENGTH) == 0) {
      return hbk_syslog_map[kept - 1].tag;
    }
  }
  return featureTagOfSet(traceSetId, name.text);
}

SetName SetName::of(const char* name) noexcept {
  SetName copy{};
  if (name != nullptr) std::memcpy(copy.text, name, strnlen(name, TRACE_SET_NAME_LENGTH));
  return copy;
}

int cachedFeatureTagRow(std::uint16_t traceSetId) noexcept {
  if (traceSetId >= kCachedIds) return -1;
  return static_cast<int>(g_rowOfSet[traceSetId].load(std::memory_order_relaxed)) - 1;
}

void forgetFeatureTagCache() noexcept {
  for (std::atomic<std::uint8_t>& row : g_rowOfSet) row.store(0, std::memory_order_relaxed);
}

namespace {

// Registers the domain if needed and routes the entry, once its set's tag
// is known.
int routeEntry(std::uint32_t tag, const char* traceSetName, std::uint32_t traceSetType, std::uint32_t severity,
               const char* fileName, std::int32_t line, std::uint16_t contentsLength, const void* contents,
               bool contentsAreText) noexcept {
  const char* setName = traceSetName != nullptr ? traceSetName : "";
  const char* file = fileName != nullptr ? fileName : "";
  if (!g_hbkDomainRegistered.load(std::memory_order_relaxed)) registerDomain(setName);

  if (severity == TRACE_SEVERITY_ERR) {
    return printLine(4, kSystemHbkTag, file, line, contents, contentsLength, contentsAreText);
  }
  const std::uint32_t level = severityToLogLevel(severity);
  if (traceSetType != TS_STRING) {
    return ZqSysLogPrintHD(level, contents, contents != nullptr ? contentsLength : 0, "QMB %s DUMP", setName);
  }
  return printLine(level, tag, file, line, contents, contentsLength, contentsAreText);
}

}  // namespace

int forwardEntry(std::uint16_t traceSetId, const SetName& traceSetName, std::uint32_t traceSetType,
                 std::uint32_t severity, const char* fileName, std::int32_t line, std::uint16_t contentsLength,
                 const void* contents, bool contentsAreText) noexcept {
  const std::uint32_t tag = featureTagOfSet(traceSetId, traceSetName);
  return routeEntry(tag, traceSetName.text, traceSetType, severity, fileName, line, contentsLength, contents,
                    contentsAreText);
}

}  // namespace nt

extern "C" NODETRACE_API int updateSyslogPrint(const char* traceSetName, uint32_t traceSetType,
                                               uint32_t severity, uint32_t /*category*/,
                                               const char* fileName, int32_t line,
                                               uint16_t contentsLength, const void* contents) {
  const nt::ErrnoGuard errnoGuard;
  // No set id comes with this call, so the name is looked up every time.
  const uint32_t tag = getHBKFeatureTag(traceSetName);
  // The contents of a text set are taken for text; those of a dump set
  // (printed as a line only for an error) are bytes.
  return nt::routeEntry(tag, traceSetName, traceSetType, severity, fileName, line, contentsLength, contents,
                        traceSetType == TS_STRING);
}
