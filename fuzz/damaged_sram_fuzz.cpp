// Fuzz target for a damaged SRAM file: the file built from the input, then
// every reader, report, search, dump and writer of its two sets run on it.
//
// The input is laid into the file:
//
//   input 0     4 bytes    file offset 0: the version
//   input 4     48 bytes   file offset 4: descriptor of "System" (255)
//   input 52    48 bytes   file offset 153600: descriptor of "NVJ_System" (254)
//   input 100   2 bytes    the file's length in units of 16 bytes, little-
//                          endian (up to 1 MiB: beyond 524288 the writers
//                          leave the file alone); 0xFFFF: no file at all
//   input 102   the rest   its first half from file offset 52 (slots of
//                          255), its second half from 153648 (slots of 254)
//
// Missing bytes are zero; the file is zero wherever the input puts nothing.
// The shared memory holds one user set with a few entries, so that searches
// and dumps merge the SRAM sets with it.

#include <fcntl.h>
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
#include "trace/persistent/error_trace.h"
#include "trace/reading/entry_search.h"
#include "trace/store/startup.h"

namespace {

constexpr std::size_t kVersionAt = 0;
constexpr std::size_t kSystemDescriptorAt = 4;
constexpr std::size_t kRemoteDescriptorAt = 52;
constexpr std::size_t kLengthAt = 100;
constexpr std::size_t kSlotsAt = 102;
constexpr std::uint16_t kNoFile = 0xFFFF;
constexpr std::size_t kRegionSlotBytes = TRACE_SRAM_REGION_SIZE - TRACE_SRAM_SYSTEM_DATA_OFFSET;
constexpr std::uint32_t kAllCategories = 0xFFFFFFFFu;
constexpr std::int16_t kIds[] = {0, REMOTE_SYSTEM_TRACE_SET_ID, SYSTEM_TRACE_SET_ID};
constexpr std::size_t kIdCount = sizeof kIds / sizeof kIds[0];

std::string logsFile(const char* name) { return std::string(nt::nodeNames().logsDir) + "/" + name; }

void put(int fd, const std::uint8_t* data, std::size_t size, std::size_t from, std::size_t length, off_t at) {
  if (from >= size) return;
  const std::size_t n = std::min(length, size - from);
  if (pwrite(fd, data + from, n, at) != static_cast<ssize_t>(n)) std::abort();
}

void buildSramFile(const std::uint8_t* data, std::size_t size) {
  const char* path = nt::nodeNames().sram;
  std::uint16_t length = 0;
  if (size > kLengthAt + 1) length = static_cast<std::uint16_t>(data[kLengthAt] | data[kLengthAt + 1] << 8);
  unlink(path);
  if (length == kNoFile) return;
  const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) std::abort();
  put(fd, data, size, kVersionAt, 4, 0);
  put(fd, data, size, kSystemDescriptorAt, TRACE_DESCRIPTOR_SIZE, TRACE_SRAM_SYSTEM_DESCRIPTOR_OFFSET);
  put(fd, data, size, kRemoteDescriptorAt, TRACE_DESCRIPTOR_SIZE, TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET);
  if (size > kSlotsAt) {
    const std::size_t slots = size - kSlotsAt;
    const std::size_t half = (slots + 1) / 2;
    put(fd, data, size, kSlotsAt, std::min(half, kRegionSlotBytes), TRACE_SRAM_SYSTEM_DATA_OFFSET);
    put(fd, data, size, kSlotsAt + half, std::min(slots - half, kRegionSlotBytes), TRACE_SRAM_REMOTE_DATA_OFFSET);
  }
  if (ftruncate(fd, static_cast<off_t>(length) * 16) != 0) std::abort();
  close(fd);
}

// One user set with four entries of several severities.
std::int16_t userSet() {
  static std::int16_t id = -1;
  if (id < 0 && initTraceSet("Radio", TS_STRING, 4, 64, kAllCategories, &id) != 0) std::abort();
  return id;
}

void fillUserSet(std::int16_t id) {
  clearTraceSet(id);
  modifySeverityMask(TRACE_SEVERITY_DBG, 1);
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "user.c", 1, "first");
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_DBG, 2, "user.c", 2, "second");
  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 4, "user.c", 3, "third");
}

void readAndPrint(std::int16_t id, const TraceSetStruct* descriptor, std::uint16_t index, std::uint8_t* contents) {
  TraceEntryHeader buffer{};
  TraceEntryHeader* entry = &buffer;
  getTraceEntry(id, index, &entry, contents);
  if (entry == nullptr) return;
  char format[] = "%C %I %P %S %T %c %i %l %n %p %dz %uz\n";
  printTraceEntry(id, descriptor, entry, reinterpret_cast<const char*>(contents), format);
}

void exerciseSramSet(std::uint16_t id, std::uint8_t* contents) {
  const TraceSetStruct* shared = getTraceSetStruct(id);
  if (shared == nullptr) return;
  TraceSetStruct descriptor;
  std::memcpy(&descriptor, shared, sizeof descriptor);
  const std::uint16_t indexes[] = {0,
                                   1,
                                   descriptor.writeIndex,
                                   static_cast<std::uint16_t>(descriptor.writeIndex - 1),
                                   static_cast<std::uint16_t>(descriptor.curentNumberEntries - 1),
                                   737,
                                   0xFFFF};
  for (const std::uint16_t index : indexes) {
    readAndPrint(static_cast<std::int16_t>(id), &descriptor, index, contents);
    bool firstStep = true;
    nt::findPrevMatchingEntry(&descriptor, index, 0xFF, kAllCategories, &firstStep, 1);
    std::uint16_t next = index;
    findNextMatch(&descriptor, 1, &next, 0xFF, kAllCategories);
    findNextMatch(&descriptor, 1, &next, TRACE_SEVERITY_WAR, 0x30);
  }
  printTraceSetInfo(static_cast<std::int16_t>(id), &descriptor, 1);
  isRemoteTraceSet(static_cast<std::int16_t>(id));
}

void searchAll() {
  std::uint16_t starts[kIdCount];
  std::uint16_t counts[kIdCount];
  std::uint32_t total = 0;
  // Every pass of a search reads the SRAM file's descriptors again: small
  // budgets keep the pace up (a few hundred entries, as in the byte count of
  // the dump before reset near its limit).
  findMatchingTraceEntries(kIdCount, kIds, starts, counts, &total, 0xFF, nullptr, 300, 1);
  total = 972800 - 300 * TRACE_SRAM_SLOT_SIZE;
  findMatchingTraceEntries(kIdCount, kIds, starts, counts, &total, TRACE_SEVERITY_NOT, nullptr, 972800, 0);
}

void dumpAll() {
  const std::string dumpFile = logsFile("trace.dump");
  dumpTracesToFile(dumpFile.c_str(), 1, 1);
  unlink(nt::nodeNames().traceDumpTmp);
  dumpTracesBeforeReset(logsFile("TraceLog.1").c_str(), 1);
  unlink(nt::nodeNames().tmpTraceDump);
}

void writeAll(std::int16_t user) {
  const std::uint32_t stamp[2] = {3, 4};
  tracePrintf(SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_ERR, 1, "sram.c", 1, "error %d", 1);
  tracePrintf(static_cast<std::uint16_t>(user), TRACE_SEVERITY_WAR, 1, "sram.c", 2, "warning of a user set");
  tracePrintf(REMOTE_SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_INF, 1, "sram.c", 3, "through the snapshot");
  nt::addErrorTrace(TS_STRING, 1, "sram.c", 4, "\n\n", SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_ERR);
  addRemoteSystemEntry(user, TRACE_SEVERITY_NOT, 1, "remote.c", 5, "remote system record", 9, 10, stamp, stamp);
  addRemoteSystemEntry(300, TRACE_SEVERITY_INF, 1, "remote.c", 6, "of an unknown set", 9, 10, stamp, stamp);
  addRemoteEntry(REMOTE_SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_INF, 1, "remote.c", 7, 0, "refused", 9, 10, stamp,
                 stamp);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  nt::fuzz::useTemporaryNode();
  nt::fuzz::forgetRecords();
  const std::int16_t user = userSet();
  fillUserSet(user);
  buildSramFile(data, size);

  static std::uint8_t contents[TRACE_MAX_DUMP_LENGTH];
  for (const std::uint16_t id : {REMOTE_SYSTEM_TRACE_SET_ID, SYSTEM_TRACE_SET_ID}) exerciseSramSet(id, contents);
  printTraceSetsInfo(1);
  searchAll();
  dumpAll();
  writeAll(user);
  for (const std::uint16_t id : {REMOTE_SYSTEM_TRACE_SET_ID, SYSTEM_TRACE_SET_ID}) exerciseSramSet(id, contents);
  searchAll();
  dumpAll();
  return 0;
}
