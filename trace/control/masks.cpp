// Severity filter and category masks.
//
// Filtering itself happens in the entry writer; this is where the masks are
// read, changed and persisted. Neither mask change takes the trace lock: each
// is a single byte or aligned 32-bit store that every process sees at once.

#include "trace/control/masks.h"

#include <cctype>
#include <cstring>

#include "common/node_names.h"
#include "common/scoped_handles.h"
#include "common/shared_fields.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/registry.h"
#include "trace/store/startup.h"
#include "trace/store/trace_lock.h"

namespace nt {
namespace {

constexpr std::uint8_t kSeverityBits = 0xF8;
constexpr std::size_t kMaskLineLength = 80;
constexpr const char* kMaskSeparators = " \t\r\v";

}  // namespace

std::uint32_t parseHexValue(const char* text) noexcept {
  unsigned value = 0;
  return std::sscanf(text, "%x", &value) == 1 ? value : 0;
}

bool parseTraceMasks(std::FILE* file, const char* name, std::uint32_t* mask) noexcept {
  bool found = false;
  char line[kMaskLineLength];
  // A line longer than 79 characters arrives in pieces, each one examined
  // as a line of its own.
  while (std::fgets(line, sizeof line, file) != nullptr) {
    char* position = nullptr;
    const char* setName = strtok_r(line, kMaskSeparators, &position);
    if (setName == nullptr || setName[0] == '#' || setName[0] == '\n') continue;
    if (std::strncmp(setName, name, TRACE_SET_NAME_LENGTH) != 0) continue;
    const char* value = strtok_r(nullptr, kMaskSeparators, &position);
    if (value == nullptr) continue;
    if (value[0] == '0' && value[1] == 'x') value += 2;
    if (std::isxdigit(static_cast<unsigned char>(value[0])) == 0) continue;
    *mask = parseHexValue(value);
    found = true;
  }
  return found;
}

bool lookupTraceMask(const char* name, std::uint32_t* mask) noexcept {
  initTraceSystem();
  TraceLockGuard lock;
  ScopedFile file(std::fopen(nodeNames().traceMasksConf, "re"));
  if (!file) return false;
  return parseTraceMasks(file.get(), name, mask);
}

}  // namespace nt

using nt::header;
using nt::initTraceSystem;
using nt::loadShared;
using nt::storeShared;

extern "C" {

NODETRACE_API uint8_t getSeverityFilter(void) {
  initTraceSystem();
  return header() != nullptr ? loadShared(&header()->severityMask) : 0;
}

NODETRACE_API uint8_t isTraceEnabled(void) {
  initTraceSystem();
  return header() != nullptr ? static_cast<uint8_t>(loadShared(&header()->traceEnabled)) : 0;
}

NODETRACE_API int modifySeverityMask(uint8_t mask, int set) {
  initTraceSystem();
  if ((mask & nt::kSeverityBits) == 0) return TRACE_RC_BAD_ARGUMENT;
  TraceMemoryHeader* h = header();
  if (h == nullptr) return 0;
  const uint8_t old = loadShared(&h->severityMask);
  const auto updated = static_cast<uint8_t>(set == 1 ? old | mask : old & ~mask);
  if (updated == old) return 0;
  storeShared(&h->severityMask, updated);
  // The new filter is in force for every process already; a file that
  // cannot be written only loses it at the next restart of the node.
  nt::ScopedFile file(std::fopen(nt::nodeNames().severityMaskConf, "we"));
  if (file) std::fprintf(file.get(), "0x%02X\n", updated);
  return 0;
}

NODETRACE_API int setCategoryMask(int16_t id, uint32_t mask) {
  initTraceSystem();
  // The persistent sets are refused before the id is checked.
  if (nt::isSramSet(static_cast<uint16_t>(id))) return TRACE_RC_UNKNOWN_SET;
  if (isValidTraceSetId(static_cast<uint16_t>(id)) != 1) return TRACE_RC_UNKNOWN_SET;
  TraceSetStruct* descriptor = getTraceSetStruct(static_cast<uint16_t>(id));
  if (descriptor == nullptr) return TRACE_RC_NO_DESCRIPTOR;
  storeShared(&descriptor->categoryMask, mask);
  return 0;
}

NODETRACE_API int getCategoryMask(int16_t id) {
  initTraceSystem();
  // Here the id is checked first; the persistent sets pass and have all bits.
  if (isValidTraceSetId(static_cast<uint16_t>(id)) != 1) return 0;
  if (nt::isSramSet(static_cast<uint16_t>(id))) return -1;
  const TraceSetStruct* descriptor = getTraceSetStruct(static_cast<uint16_t>(id));
  return descriptor != nullptr ? static_cast<int>(loadShared(&descriptor->categoryMask)) : 0;
}

}  // extern "C"
