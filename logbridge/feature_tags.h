// Feature tags of the platform log service and the routing of trace entries
// to it. Internal helpers; the exported functions are in
// include/nodetrace/logbridge.h.
#pragma once

#include <cstdint>

#include "nodetrace/trace_layout.h"

namespace nt {

// The library's log domain at the platform's configuration service.
inline constexpr std::uint32_t kHbkDomain = 26;
inline constexpr const char* kHbkDomainName = "QMB";
// Highest feature tag value announced for the domain.
inline constexpr std::uint32_t kHbkMaxTagCount = 0x1A0025;
inline constexpr std::uint32_t kSystemHbkTag = 0x1A001E;   // row 30, "System"
inline constexpr std::uint32_t kUnknownHbkTag = 0x1A001F;  // row 31, "Unknown"

// The platform log level (0..4) of a trace severity; 0 for any value that
// is not one of the five severity bits.
std::uint32_t severityToLogLevel(std::uint32_t severity) noexcept;

// Handed to the domain registration: names every feature tag of the table
// and gives it the default value 1. The arguments are not used.
void setHBKTagDefaults(std::uint32_t domain, void* context) noexcept;

// True once this process registered the log domain successfully.
bool hbkDomainRegistered() noexcept;

// Test hook: the process has not registered the domain.
void forgetHBKDomainRegistration() noexcept;

// A set's name as its descriptor holds it: 20 bytes, zero after the name
// (set creation pads them so), and a terminator after them.
struct SetName {
  char text[TRACE_SET_NAME_LENGTH + 1];
  // The name's first 20 characters, zero-padded.
  static SetName of(const char* name) noexcept;
};

// The feature tag of the trace set traceSetId called name. The row found for
// a set is kept by id for the rest of the process and checked against name
// at every use, so a set that now carries another name under that id (a
// store created afresh) is looked up again. A name that no row holds is
// never kept: it gives 0x1A001F and the "NOT FOUND" diagnostic line every
// time, as getHBKFeatureTag does. Takes no lock and allocates nothing.
std::uint32_t featureTagOfSet(std::uint16_t traceSetId, const char* name) noexcept;
// The same for a name as its descriptor holds it; a name equal to its kept
// row's name byte for byte is found without strcasecmp.
std::uint32_t featureTagOfSet(std::uint16_t traceSetId, const SetName& name) noexcept;

// Routes one entry of the trace set traceSetId to the platform log service
// as updateSyslogPrint does, by the set's name and type, with the set's tag
// from featureTagOfSet. contentsAreText tells whether the caller's contents
// are zero-terminated text; bytes (false) printed as a text line are printed
// within contentsLength, never past it. The library's writer calls this
// directly rather than through the exported symbol. errno is the caller's
// business.
int forwardEntry(std::uint16_t traceSetId, const SetName& traceSetName, std::uint32_t traceSetType,
                 std::uint32_t severity, const char* fileName, std::int32_t line,
                 std::uint16_t contentsLength, const void* contents, bool contentsAreText) noexcept;

// Test hooks: the row kept for traceSetId (-1 for none), and forgetting
// every kept row.
int cachedFeatureTagRow(std::uint16_t traceSetId) noexcept;
void forgetFeatureTagCache() noexcept;

}  // namespace nt
