// Reports on trace sets, printed on standard output: one line about one set,
// and the table of all sets with a summary of the entry area.
//
// Nothing here takes the trace lock: the numbers are a snapshot that
// writers may change while it is printed. The one change a report makes is
// the repair of a descriptor whose type is neither text nor dump.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/message_source.h"
#include "common/node_names.h"
#include "common/scoped_handles.h"
#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "nodetrace/nodetrace.h"
#include "trace/persistent/error_trace.h"
#include "trace/store/startup.h"

namespace nt {
namespace {

constexpr unsigned kTypeRepairLine = 1706;
constexpr unsigned kSramOpenLine = 1821;
constexpr unsigned kRemoteDescriptorLine = 1833;
constexpr unsigned kSystemDescriptorLine = 1850;
constexpr std::size_t kRecordTextSize = 100;

// Both words six characters wide, so that the columns line up.
const char* typeWord(std::uint32_t type) noexcept {
  if (type == TS_STRING) return "STRING";
  if (type == TS_DUMP) return "  DUMP";
  return "??????";
}

// A descriptor's name as a terminated string, also when a damaged
// descriptor fills all 20 bytes.
struct SetName {
  char text[TRACE_SET_NAME_LENGTH + 1] = {};
  explicit SetName(const TraceSetStruct& descriptor) noexcept {
    std::memcpy(text, descriptor.name, TRACE_SET_NAME_LENGTH);
  }
};

void reportFileError(unsigned line) noexcept {
  const int error = errno;
  std::fprintf(stderr, "%s (%s,%u): Error accessing file (%s)!\n", kSourceFileName, "printTraceSetsInfo",
               line, std::strerror(error));
}

// The line of a SRAM set. Their type and category mask are not read: both
// sets are text sets that keep every category.
void printSramSet(unsigned id, const TraceSetStruct& descriptor, bool verbose) noexcept {
  const SetName name(descriptor);
  std::printf("%3u: %-20s\t%6u/%5u %sSTRING\n", id, name.text, descriptor.totalNumberEntries,
              descriptor.maxNumberEntries, verbose ? "CatMask 0xFFFFFFFF " : "");
}

bool readDescriptorAt(int fd, off_t offset, TraceSetStruct* descriptor) noexcept {
  sys::lseek(fd, offset, SEEK_SET);
  return sys::read(fd, descriptor, sizeof *descriptor) == static_cast<ssize_t>(sizeof *descriptor);
}

}  // namespace
}  // namespace nt

using nt::loadShared;

extern "C" {

NODETRACE_API void printTraceSetInfo(int16_t traceSetId, TraceSetStruct* descriptor, int32_t withMax) {
  // A missing descriptor has nothing to report.
  if (descriptor == nullptr) return;
  // A negative id prints as its unsigned 32-bit value.
  const auto id = static_cast<unsigned>(static_cast<int>(traceSetId));
  const nt::SetName name(*descriptor);
  std::printf("Trace set %3u '%s' %u current/", id, name.text, loadShared(&descriptor->curentNumberEntries));
  if (withMax == 1) std::printf("%u max,", loadShared(&descriptor->maxNumberEntries));
  std::printf("%u total ", loadShared(&descriptor->totalNumberEntries));
  const std::uint32_t type = loadShared(&descriptor->type);
  std::fputs(nt::typeWord(type), stdout);
  if (type != TS_STRING && type != TS_DUMP) {
    char text[nt::kRecordTextSize];
    std::snprintf(text, sizeof text, "%s: Trace set %u is neither TS_STRING nor TS_DUMP", "printTraceSetInfo",
                  id);
    nt::addErrorTrace(TS_STRING, TRACE_CATEGORY_LIBRARY, nt::kSourceFileName, nt::kTypeRepairLine, text,
                      SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_ERR);
    // From now on the set is a text set.
    nt::storeShared(&descriptor->type, TS_STRING);
  }
  std::printf(" Created by %u\n", loadShared(&descriptor->creatorPid));
}

NODETRACE_API int32_t printTraceSetsInfo(int16_t verbose) {
  nt::initTraceSystem();
  const TraceMemoryHeader* h = nt::header();
  // Without trace memory no user set can be described.
  if (h == nullptr) return TRACE_RC_NO_DESCRIPTOR;

  std::printf("\nThere are %u/%u trace sets and the system trace set defined\n\n",
              static_cast<unsigned>(loadShared(&h->currentNumberTraceSets)), TRACE_MAX_TRACE_SETS);
  // The count is read afresh on every pass: sets created meanwhile show.
  for (unsigned id = 0; id < loadShared(&h->currentNumberTraceSets); ++id) {
    const TraceSetStruct* descriptor = getTraceSetStruct(static_cast<uint16_t>(id));
    if (descriptor == nullptr) return TRACE_RC_NO_DESCRIPTOR;
    const nt::SetName name(*descriptor);
    std::printf("%3u: %-20s\t%6u/%5u ", id, name.text, loadShared(&descriptor->totalNumberEntries),
                static_cast<unsigned>(loadShared(&descriptor->maxNumberEntries)));
    if (verbose == 1) std::printf("CatMask 0x%08X ", loadShared(&descriptor->categoryMask));
    std::puts(nt::typeWord(loadShared(&descriptor->type)));
  }

  nt::ScopedFd fd(nt::sys::open(nt::nodeNames().sram, O_RDONLY | O_SYNC | O_CLOEXEC));
  if (!fd.valid()) {
    nt::reportFileError(nt::kSramOpenLine);
    return TRACE_RC_FILE_ERROR;
  }
  int32_t result = 0;
  TraceSetStruct descriptor{};
  if (needsRemoteTraceSupport() == 1) {
    if (nt::readDescriptorAt(fd.get(), TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET, &descriptor)) {
      nt::printSramSet(REMOTE_SYSTEM_TRACE_SET_ID, descriptor, verbose == 1);
    } else {
      nt::reportFileError(nt::kRemoteDescriptorLine);
      result = TRACE_RC_FILE_ERROR;
    }
  }
  if (nt::readDescriptorAt(fd.get(), TRACE_SRAM_SYSTEM_DESCRIPTOR_OFFSET, &descriptor)) {
    nt::printSramSet(SYSTEM_TRACE_SET_ID, descriptor, verbose == 1);
  } else {
    nt::reportFileError(nt::kSystemDescriptorLine);
    result = TRACE_RC_FILE_ERROR;
  }
  fd.reset();

  const std::uint32_t used = loadShared(&h->nextFreeOffset) - TRACE_ENTRY_AREA_OFFSET;
  std::printf("\nSummary: %u/%u user trace sets in %u/%u bytes (%.1f%%) shared memory\n",
              static_cast<unsigned>(loadShared(&h->currentNumberTraceSets)), TRACE_MAX_TRACE_SETS, used,
              TRACE_ENTRY_AREA_SIZE, used * 100.0 / TRACE_ENTRY_AREA_SIZE);
  std::printf("\t%u traces in total written to trace system\n", loadShared(&h->totalNumberTraceEntries));
  return result;
}

}  // extern "C"
