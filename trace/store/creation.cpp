// Creating a trace set by name, or attaching to the set of that name.
//
// Creation takes the next descriptor of the shared table and a region of the
// entry area by bumping nextFreeOffset. It takes no lock: two processes
// creating at the same instant can race on the set count and the free
// offset, and nothing repairs that.

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "common/message_source.h"
#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "nodetrace/nodetrace.h"
#include "trace/control/masks.h"
#include "trace/persistent/error_trace.h"
#include "trace/store/registry.h"
#include "trace/store/startup.h"

namespace nt {
namespace {

constexpr unsigned kSystemNameLine = 961;
constexpr unsigned kDigitNameLine = 973;

// Records a refused name in the error trace set; text is already formatted.
void recordRefusedName(const char* text, unsigned line) noexcept {
  addErrorTrace(TS_STRING, TRACE_CATEGORY_LIBRARY, kSourceFileName, line, text, SYSTEM_TRACE_SET_ID,
                static_cast<std::int32_t>(TRACE_SEVERITY_ERR));
}

int attachTraceSet(std::int16_t id, const char* name, std::uint32_t type, std::uint16_t maxEntries,
                   std::uint16_t maxContentsLength, std::uint32_t categoryMask) noexcept {
  TraceSetStruct* descriptor = getTraceSetStruct(static_cast<std::uint16_t>(id));
  if (descriptor == nullptr) return TRACE_RC_NO_DESCRIPTOR;
  if (loadShared(&descriptor->type) != type) return TRACE_RC_TYPE_MISMATCH;
  // A mask from the file is the node's choice: the opener does not widen it.
  std::uint32_t fileMask = 0xFFFFFFFFu;
  if (!lookupTraceMask(name, &fileMask)) {
    storeShared(&descriptor->categoryMask, loadShared(&descriptor->categoryMask) | categoryMask);
  }
  if (maxEntries > loadShared(&descriptor->maxNumberEntries) ||
      maxContentsLength > loadShared(&descriptor->traceEntryContentsLength)) {
    return TRACE_RC_SET_TOO_SMALL;
  }
  return 0;
}

int createTraceSet(std::int16_t* id, const char* name, std::uint32_t type, std::uint16_t maxEntries,
                   std::uint16_t maxContentsLength, std::uint32_t categoryMask) noexcept {
  TraceMemoryHeader* h = header();
  if (h == nullptr) return TRACE_RC_NO_DESCRIPTOR;
  const std::uint8_t count = loadShared(&h->currentNumberTraceSets);
  if (count >= TRACE_MAX_TRACE_SETS) return TRACE_RC_TABLE_FULL;

  // The region is sized with the requested length, the descriptor keeps the
  // clamped one: a longer request than the type allows owns slack that is
  // never used. The limit is the end of the page-rounded mapping. The size is
  // computed in 64 bits: 65535 slots of 65535 bytes would wrap 32 bits into
  // a small region that its ring then overruns.
  const std::uint64_t needed =
      static_cast<std::uint64_t>(getTraceEntrySize(maxContentsLength)) * maxEntries;
  const std::uint32_t nextFree = loadShared(&h->nextFreeOffset);
  // A damaged free offset outside the entry area leaves no room to hand out:
  // a region there would overlay the header and the descriptor table, or
  // lie past the mapping.
  if (nextFree < g_process.entryAreaOffset || nextFree > g_process.size ||
      needed > g_process.size - nextFree) {
    return TRACE_RC_NO_ROOM;
  }
  const std::uint16_t limit = type != TS_STRING ? TRACE_MAX_DUMP_LENGTH : TRACE_MAX_STRING_LENGTH;

  *id = static_cast<std::int16_t>(count);
  storeShared(&h->currentNumberTraceSets, static_cast<std::uint8_t>(count + 1));
  storeShared(&h->nextFreeOffset, nextFree + static_cast<std::uint32_t>(needed));

  TraceSetStruct* descriptor = getTraceSetStruct(static_cast<std::uint16_t>(*id));
  if (descriptor == nullptr) return TRACE_RC_NO_DESCRIPTOR;
  // At most 19 characters: the twentieth byte stays zero.
  std::strncpy(descriptor->name, name, TRACE_SET_NAME_LENGTH - 1);
  storeShared(&descriptor->type, type);
  std::uint32_t fileMask = 0;
  storeShared(&descriptor->categoryMask, lookupTraceMask(name, &fileMask) ? fileMask : categoryMask);
  storeShared(&descriptor->maxNumberEntries, maxEntries);
  storeShared(&descriptor->traceEntryContentsLength, std::min(maxContentsLength, limit));
  storeShared(&descriptor->creatorPid, static_cast<std::uint32_t>(getpid()));
  storeShared(&descriptor->dataOffset, nextFree);
  storeShared(&descriptor->writeIndex, 0u);
  storeShared(&descriptor->curentNumberEntries, 0u);
  storeShared(&descriptor->totalNumberEntries, 0u);
  return 0;
}

}  // namespace
}  // namespace nt

extern "C" NODETRACE_API int initTraceSet(const char* name, uint32_t type, uint16_t maxEntries,
                                          uint16_t maxContentsLength, uint32_t categoryMask, int16_t* id) {
  nt::sys::openlog("QMB_SW", LOG_PID, LOG_USER);
  nt::initTraceSystem();
  if (name == nullptr || id == nullptr) return TRACE_RC_BAD_ARGUMENT;

  char text[100];
  if (nt::sameTraceSetName(name, "System") || nt::sameTraceSetName(name, "NVJ_System")) {
    std::snprintf(text, sizeof text, "%s: Attempting to create trace set with system trace set name",
                  "initTraceSet");
    nt::recordRefusedName(text, nt::kSystemNameLine);
    return TRACE_RC_BAD_ARGUMENT;
  }
  if (std::isdigit(static_cast<unsigned char>(name[0])) != 0) {
    std::snprintf(text, sizeof text, "%s: Trace set name must not start with a digit", "initTraceSet");
    nt::recordRefusedName(text, nt::kDigitNameLine);
    return TRACE_RC_BAD_ARGUMENT;
  }

  *id = static_cast<int16_t>(getTraceSetId(name));
  if (*id != -1) {
    return nt::attachTraceSet(*id, name, type, maxEntries, maxContentsLength, categoryMask);
  }
  return nt::createTraceSet(id, name, type, maxEntries, maxContentsLength, categoryMask);
}
