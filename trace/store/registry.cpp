// The trace set registry: names to ids, ids to descriptors and names.
//
// User sets (0..199) live in the descriptor table of the shared memory; the
// two persistent sets, 255 "System" and 254 "NVJ_System", are read from the
// SRAM file into a per-process snapshot on every request.

#include "trace/store/registry.h"

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
#include "trace/store/startup.h"

namespace nt {
namespace {

constexpr const char* kSystemName = "System";
constexpr const char* kRemoteSystemName = "NVJ_System";
constexpr unsigned kSramOpenLine = 2249;
constexpr unsigned kSramReadLine = 2258;

// The descriptor of the SRAM set asked for last by any thread of the process.
// It is copied in word by word so that a thread reading it while another
// thread refills it sees whole fields (of one descriptor or the other).
// 8-byte aligned like the shared table, so that a writer can advance its
// counters as one word (user_ring.h).
alignas(8) TraceSetStruct g_sramSnapshot;

void storeSnapshot(const TraceSetStruct& descriptor) noexcept {
  constexpr std::size_t kWords = sizeof(TraceSetStruct) / sizeof(std::uint32_t);
  std::uint32_t words[kWords];
  std::memcpy(words, &descriptor, sizeof words);
  auto* target = reinterpret_cast<std::uint32_t*>(&g_sramSnapshot);
  for (std::size_t i = 0; i < kWords; ++i) storeShared(&target[i], words[i]);
}

TraceSetStruct* readSramDescriptor(std::uint16_t id) noexcept {
  const off_t offset = id == SYSTEM_TRACE_SET_ID ? TRACE_SRAM_SYSTEM_DESCRIPTOR_OFFSET
                                                 : TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET;
  // These two messages give the line before the operation's name.
  ScopedFd fd(sys::open(nodeNames().sram, O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) {
    const int error = errno;
    std::fprintf(stderr, "%s (%u,%s): Problems accessing error trace set: %d (%s)\n",
                 kSourceFileName, kSramOpenLine, "getTraceSetStruct", error, std::strerror(error));
    return nullptr;
  }
  sys::lseek(fd.get(), offset, SEEK_SET);
  TraceSetStruct descriptor;
  if (sys::read(fd.get(), &descriptor, sizeof descriptor) != sizeof descriptor) {
    const int error = errno;
    std::fprintf(stderr, "%s (%u,%s): Problems reading error trace set: %d (%s)\n",
                 kSourceFileName, kSramReadLine, "getTraceSetStruct", error, std::strerror(error));
    return nullptr;
  }
  storeSnapshot(descriptor);
  return &g_sramSnapshot;
}

// Number of user sets in the table; 0 without trace memory. A damaged count
// above the table's size is held to it.
unsigned userSetCount() noexcept {
  const TraceMemoryHeader* h = header();
  if (h == nullptr) return 0;
  const unsigned count = loadShared(&h->currentNumberTraceSets);
  return count < TRACE_MAX_TRACE_SETS ? count : TRACE_MAX_TRACE_SETS;
}

}  // namespace

bool sameTraceSetName(const char* a, const char* b) noexcept {
  return std::strncmp(a, b, TRACE_SET_NAME_LENGTH) == 0;
}

bool validTraceSetId(std::uint16_t id) noexcept {
  initTraceSystem();
  if (id == SYSTEM_TRACE_SET_ID) return true;
  if (id == REMOTE_SYSTEM_TRACE_SET_ID) return kRemoteTraceSupport;
  if (static_cast<std::int16_t>(id) < 0) return false;
  return id < userSetCount();
}

TraceSetStruct* traceSetStruct(std::uint16_t id) noexcept {
  initTraceSystem();
  if (id == SYSTEM_TRACE_SET_ID || (id == REMOTE_SYSTEM_TRACE_SET_ID && kRemoteTraceSupport)) {
    return readSramDescriptor(id);
  }
  if (!validTraceSetId(id)) return nullptr;
  return userDescriptor(id);
}

}  // namespace nt

using nt::initTraceSystem;

extern "C" {

NODETRACE_API int needsRemoteTraceSupport(void) { return nt::kRemoteTraceSupport ? 1 : 0; }

NODETRACE_API int isValidTraceSetId(uint16_t id) { return nt::validTraceSetId(id) ? 1 : 0; }

NODETRACE_API TraceSetStruct* getTraceSetStruct(uint16_t id) { return nt::traceSetStruct(id); }

NODETRACE_API const char* getTraceSetName(uint16_t id) {
  initTraceSystem();
  if (id == SYSTEM_TRACE_SET_ID) return nt::kSystemName;
  if (id == REMOTE_SYSTEM_TRACE_SET_ID && needsRemoteTraceSupport() == 1) return nt::kRemoteSystemName;
  if (isValidTraceSetId(id) != 1) return nullptr;
  return nt::userDescriptor(id)->name;
}

NODETRACE_API int getTraceSetId(const char* name) {
  initTraceSystem();
  if (name == nullptr) return -1;
  if (nt::sameTraceSetName(name, nt::kSystemName)) return SYSTEM_TRACE_SET_ID;
  if (needsRemoteTraceSupport() == 1 && nt::sameTraceSetName(name, nt::kRemoteSystemName)) {
    return REMOTE_SYSTEM_TRACE_SET_ID;
  }
  // The lowest id carrying the name wins.
  for (unsigned id = 0; id < nt::userSetCount(); ++id) {
    const TraceSetStruct* descriptor = getTraceSetStruct(static_cast<uint16_t>(id));
    if (descriptor != nullptr && nt::sameTraceSetName(descriptor->name, name)) {
      return static_cast<int>(id);
    }
  }
  return -1;
}

NODETRACE_API int getCurrentNumberTraceSets(void) {
  initTraceSystem();
  const TraceMemoryHeader* h = nt::header();
  return h != nullptr ? nt::loadShared(&h->currentNumberTraceSets) : 0;
}

NODETRACE_API uint32_t getTotalNumberTraceEntries(void) {
  initTraceSystem();
  const TraceMemoryHeader* h = nt::header();
  return h != nullptr ? nt::loadShared(&h->totalNumberTraceEntries) : 0;
}

}  // extern "C"
