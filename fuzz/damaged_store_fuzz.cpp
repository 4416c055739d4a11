// Fuzz target for damaged shared memory: a trace store built from the input,
// then every reader, report, search, dump and writer run on it.
//
// The input is laid over a zeroed store:
//
//   offset 0     28 bytes   trace memory header (set count, links, offsets)
//   offset 28    384 bytes  descriptors of the user sets 0..7
//   offset 412   the rest   the entry area from its start (object offset
//                           9848), at most 64 KiB: slot headers and contents
//
// Missing bytes are zero; a lock holder recorded in the header that may be
// alive is cleared (see below). Each set 0..7, 200, 254 and 255 is then read at
// several slots (the result printed), walked backwards and forwards, reported
// on, written to by the local and the remote writer, searched for across
// sets, dumped into both dump files and cleared.
//
// Beyond "no crash": pages that forbid every access are placed just before
// and after the mapping where the address space allows, so that a reach past
// either end faults; and the reserved area of the object, which no operation
// may touch and no input fills, must still be zero afterwards.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/node_names.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/temporary_node.h"
#include "nodetrace/nodetrace.h"
#include "trace/reading/entry_search.h"
#include "trace/store/lock_holder.h"
#include "trace/store/startup.h"

namespace {

constexpr std::size_t kFuzzedSets = 8;
constexpr std::size_t kDescriptorsAt = TRACE_MEMORY_HEADER_SIZE;
constexpr std::size_t kEntryAreaAt = kDescriptorsAt + kFuzzedSets * TRACE_DESCRIPTOR_SIZE;
constexpr std::size_t kMaxEntryBytes = 64 * 1024;
constexpr std::size_t kContentsSize = TRACE_MAX_DUMP_LENGTH;
constexpr std::uint32_t kAllCategories = 0xFFFFFFFFu;
constexpr std::int16_t kIds[] = {0, 1, 2, 3, 4, 5, 6, 7, 200, REMOTE_SYSTEM_TRACE_SET_ID, SYSTEM_TRACE_SET_ID};
constexpr std::size_t kIdCount = sizeof kIds / sizeof kIds[0];

// Pages without access right before and after the mapping, when nothing
// else lives there.
void guardTheMapping() {
  static bool guarded = false;
  if (guarded) return;
  guarded = true;
  const long page = sysconf(_SC_PAGESIZE);
  for (std::uint8_t* at : {nt::g_process.base - page, nt::g_process.base + nt::g_process.size}) {
    mmap(at, static_cast<std::size_t>(page), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
  }
}

std::string logsFile(const char* name) { return std::string(nt::nodeNames().logsDir) + "/" + name; }

void readAndPrint(std::int16_t id, const TraceSetStruct* descriptor, std::uint16_t index, std::uint8_t* contents) {
  TraceEntryHeader buffer{};
  TraceEntryHeader* entry = &buffer;
  getTraceEntry(id, index, &entry, contents);
  if (entry == nullptr) return;
  char format[] = "%C %I %P %S %T %c %i %l %n %p %t %dt %dz %uz %udt\n";
  printTraceEntry(id, descriptor, entry, reinterpret_cast<const char*>(contents), format);
}

void exerciseSet(std::int16_t id, std::uint8_t* contents) {
  const auto setId = static_cast<std::uint16_t>(id);
  const TraceSetStruct* shared = getTraceSetStruct(setId);
  if (shared == nullptr) return;
  // The descriptor of a SRAM set is the process's snapshot, which the next
  // lookup overwrites: work on a copy of it.
  TraceSetStruct snapshot;
  std::memcpy(&snapshot, shared, sizeof snapshot);
  const bool fromFile = setId == SYSTEM_TRACE_SET_ID || setId == REMOTE_SYSTEM_TRACE_SET_ID;
  TraceSetStruct* descriptor = fromFile ? &snapshot : const_cast<TraceSetStruct*>(shared);

  const std::uint16_t indexes[] = {0,
                                   1,
                                   snapshot.writeIndex,
                                   static_cast<std::uint16_t>(snapshot.writeIndex - 1),
                                   static_cast<std::uint16_t>(snapshot.curentNumberEntries - 1),
                                   snapshot.maxNumberEntries,
                                   0xFFFF};
  for (const std::uint16_t index : indexes) {
    readAndPrint(id, descriptor, index, contents);
    // A walk may read every slot of a ring of up to 65535 slots: three
    // starting points cover the cases and keep the pace up.
    if (index != 0 && index != snapshot.writeIndex && index != 0xFFFF) continue;
    bool firstStep = true;
    nt::findPrevMatchingEntry(descriptor, index, 0xFF, kAllCategories, &firstStep, fromFile ? 1 : 0);
    firstStep = false;
    nt::findPrevMatchingEntry(descriptor, index, TRACE_SEVERITY_INF, 0x5, &firstStep, fromFile ? 1 : 0);
    std::uint16_t next = index;
    findNextMatch(descriptor, fromFile ? 1 : 0, &next, 0xFF, kAllCategories);
    findNextMatch(descriptor, fromFile ? 1 : 0, &next, TRACE_SEVERITY_DBG, 0x3);
  }
  printTraceSetInfo(id, descriptor, 1);
  isRemoteTraceSet(id);
}

void writeTo(std::int16_t id) {
  const auto setId = static_cast<std::uint16_t>(id);
  tracePrintf(setId, TRACE_SEVERITY_INF, kAllCategories, "fuzz/store.c", 1, "entry of %d\n", id);
  std::uint8_t bytes[300];
  for (std::size_t i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<std::uint8_t>(i);
  addTraceEntry(setId, TS_DUMP, TRACE_SEVERITY_INF, kAllCategories, "fuzz/store.c", 2, 300, bytes);
  const std::uint32_t stamp[2] = {1, 2};
  addRemoteEntry(id, TRACE_SEVERITY_INF, kAllCategories, "remote.c", 3, 20, "remote record text\n", 7, 8, stamp,
                 stamp);
}

void searchAll() {
  std::uint16_t starts[kIdCount];
  std::uint16_t counts[kIdCount];
  std::uint32_t total = 0;
  findMatchingTraceEntries(kIdCount, kIds, starts, counts, &total, 0xFF, nullptr, 5000, 1);
  std::uint32_t categories[kIdCount];
  for (std::size_t i = 0; i < kIdCount; ++i) categories[i] = 1u << i;
  total = 500;
  findMatchingTraceEntries(kIdCount, kIds, starts, counts, &total, TRACE_SEVERITY_WAR | TRACE_SEVERITY_INF,
                           categories, 972800, 0);
}

void dumpAll() {
  const std::string dumpFile = logsFile("trace.dump");
  dumpTracesToFile(dumpFile.c_str(), 1, 0);
  unlink(nt::nodeNames().traceDumpTmp);
  dumpTracesToFile(dumpFile.c_str(), 0, 2);
  unlink(nt::nodeNames().traceDumpTmp);
  dumpTracesBeforeReset(logsFile("TraceLog.1").c_str(), 1);
  unlink(nt::nodeNames().tmpTraceDump);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  nt::fuzz::useTemporaryNode();
  guardTheMapping();
  nt::fuzz::forgetRecords();
  nt::fuzz::freshSramDescriptors();

  std::uint8_t* base = nt::g_process.base;
  std::memset(base, 0, nt::g_process.size);
  const std::size_t headerBytes = std::min<std::size_t>(size, kDescriptorsAt);
  std::memcpy(base, data, headerBytes);
  if (size > kDescriptorsAt) {
    std::memcpy(base + TRACE_DESCRIPTOR_TABLE_OFFSET, data + kDescriptorsAt,
                std::min<std::size_t>(size - kDescriptorsAt, kEntryAreaAt - kDescriptorsAt));
  }
  if (size > kEntryAreaAt) {
    std::memcpy(base + TRACE_ENTRY_AREA_OFFSET, data + kEntryAreaAt, std::min(size - kEntryAreaAt, kMaxEntryBytes));
  }

  // A lock holder recorded in the damaged header that the lock does not
  // take for gone (a live tid, or a value that is no tid at all) makes every
  // locked operation wait out the lock's real 5-second deadline before it
  // reports starvation. That is the lock's rule, which its own tests cover;
  // here it would stall the fuzzer for minutes per input. Such a record is
  // cleared; one the lock takes for gone is kept, and released as a dead
  // holder's.
  auto* header = reinterpret_cast<TraceMemoryHeader*>(base);
  const nt::HolderIdentity holder = nt::loadHolder(header);
  if (nt::holderTid(holder) != 0 && !nt::holderIsGone(holder)) {
    std::memset(&header->lockHolderTid, 0, sizeof header->lockHolderTid);
  }

  static std::uint8_t contents[kContentsSize];
  std::int16_t recentSet = 0;
  std::uint16_t recentIndex = 0;
  std::uint32_t total = 0;
  getRecentEntry(&recentSet, &recentIndex, &total);
  readAndPrint(recentSet, getTraceSetStruct(static_cast<std::uint16_t>(recentSet)), recentIndex, contents);

  for (const std::int16_t id : kIds) exerciseSet(id, contents);
  printTraceSetsInfo(1);
  searchAll();
  dumpAll();
  for (const std::int16_t id : kIds) writeTo(id);
  searchAll();
  dumpAll();
  clearTraceSet(1);
  printTraceSetsInfo(0);

  // The reserved area belongs to no operation.
  for (std::uint32_t i = TRACE_RESERVED_AREA_OFFSET; i < TRACE_DESCRIPTOR_TABLE_OFFSET; ++i) {
    if (base[i] != 0) {
      std::fprintf(stderr, "the reserved area was written at object offset %u\n", i);
      std::abort();
    }
  }
  return 0;
}
