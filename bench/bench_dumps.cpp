// The search and both dump writers over a full store, each beside a
// baseline in the same run.
//
// The store: 200 user sets that fill the 10 MiB entry area, every ring
// wrapped, entries mostly INF with some DBG and WAR. It is filled by
// writing the slots directly (the writer's own cost is measured in
// bench_writer.cpp), once per process.
//
// Baselines: for the dump writers, the same synchronous writes of the same
// sizes into a file of the same directory (the least any writer of that file
// must do); for the search, a copy of the slots it selects.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bench_node.h"
#include "common/node_names.h"
#include "common/shared_fields.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/startup.h"

namespace {

constexpr std::uint32_t kLimit = 972800;

// The write sizes of one dump file, in order.
struct DumpShape {
  std::uint32_t descriptors = 0;
  std::vector<std::uint32_t> contentsSizes;  // one per entry
  std::uint64_t bytes = 0;
};

void fillRing(std::uint16_t id, unsigned written, unsigned round, std::uint32_t sequence) {
  TraceSetStruct* d = getTraceSetStruct(id);
  const unsigned capacity = d->maxNumberEntries;
  const std::uint32_t slotSize = getTraceEntrySize(d->traceEntryContentsLength);
  const unsigned slot = round % capacity;
  TraceEntryHeader e{};
  std::snprintf(e.fileName, sizeof e.fileName, "bench_dumps.cpp");
  e.line = static_cast<std::int32_t>(round);
  e.pid = 100;
  e.severity = round % 5 == 0 ? TRACE_SEVERITY_DBG : round % 11 == 0 ? TRACE_SEVERITY_WAR : TRACE_SEVERITY_INF;
  e.category = 1;
  e.sequenceNumber = sequence;
  e.tid = 101;
  e.monotonicTime = {htonl(round), htonl(sequence)};
  e.realTime = {htonl(1700000000u + round), htonl(sequence)};
  char text[TRACE_MAX_DUMP_LENGTH] = {};
  const int length = std::snprintf(text, sizeof text, "set %u entry %u of the full store", id, round);
  e.contentsLength = static_cast<std::uint16_t>(std::min<int>(length, d->traceEntryContentsLength - 1));
  e.prevTraceSetId = static_cast<std::uint16_t>(id);
  e.prevEntryIndex = static_cast<std::uint16_t>(slot);
  std::uint8_t* at = nt::g_process.base + d->dataOffset + static_cast<std::size_t>(slotSize) * slot;
  std::memcpy(at, &e, sizeof e);
  std::memcpy(at + sizeof e, text, d->traceEntryContentsLength);
  nt::storeShared(&d->writeIndex, (slot + 1) % capacity);
  nt::storeShared(&d->curentNumberEntries, std::min(written, capacity));
  nt::storeShared(&d->totalNumberEntries, written);
}

// Creates the missing sets of a full table in the free rest of the entry
// area and fills every ring until it has wrapped.
void fullStore() {
  static const bool filled = [] {
    nt::bench::useTemporaryNode();
    getCurrentNumberTraceSets();
    TraceMemoryHeader* h = nt::header();
    const unsigned existing = getCurrentNumberTraceSets();
    const std::uint32_t free = TRACE_ENTRY_AREA_OFFSET + TRACE_ENTRY_AREA_SIZE - h->nextFreeOffset;
    const unsigned missing = TRACE_MAX_TRACE_SETS - existing;
    const auto capacity = static_cast<std::uint16_t>(free / missing / getTraceEntrySize(128));
    for (unsigned i = existing; i < TRACE_MAX_TRACE_SETS; ++i) {
      std::int16_t id = -1;
      const std::string name = "Dump" + std::to_string(i);
      if (initTraceSet(name.c_str(), TS_STRING, capacity, 128, 1, &id) != 0) std::abort();
    }
    std::uint32_t sequence = h->totalNumberTraceEntries;
    unsigned rounds = 0;
    for (unsigned i = 0; i < TRACE_MAX_TRACE_SETS; ++i) {
      rounds = std::max<unsigned>(rounds, getTraceSetStruct(static_cast<std::uint16_t>(i))->maxNumberEntries + 7u);
    }
    for (unsigned round = 0; round < rounds; ++round) {
      for (unsigned i = 0; i < TRACE_MAX_TRACE_SETS; ++i) {
        const unsigned capacity_i = getTraceSetStruct(static_cast<std::uint16_t>(i))->maxNumberEntries;
        // Every ring gets capacity + 7 entries: the last ones overwrite the
        // oldest.
        if (round >= capacity_i + 7u) continue;
        fillRing(static_cast<std::uint16_t>(i), round + 1, round, sequence++);
      }
    }
    nt::storeShared(&h->totalNumberTraceEntries, sequence);
    nt::storeShared(&h->lastTraceSetId, TRACE_MAX_TRACE_SETS - 1);
    nt::storeShared(&h->severityMask, nt::loadShared(&h->severityMask) | TRACE_SEVERITY_DBG);
    return true;
  }();
  benchmark::DoNotOptimize(filled);
}

// The shape of a dump file, read back from its descriptors.
DumpShape shapeOf(const std::string& path) {
  DumpShape shape;
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) std::abort();
  std::uint8_t header[28];
  if (std::fread(header, 1, sizeof header, file) != sizeof header) std::abort();
  shape.descriptors = header[8];
  for (std::uint32_t p = 0; p < shape.descriptors; ++p) {
    std::uint8_t d[48];
    if (std::fread(d, 1, sizeof d, file) != sizeof d) std::abort();
    std::uint16_t count, length;
    std::memcpy(&count, d + 42, 2);
    std::memcpy(&length, d + 30, 2);
    shape.contentsSizes.insert(shape.contentsSizes.end(), ntohs(count), align32(ntohs(length)));
  }
  std::fseek(file, 0, SEEK_END);
  shape.bytes = static_cast<std::uint64_t>(std::ftell(file));
  std::fclose(file);
  return shape;
}

// The writes of a dump of that shape: header, descriptors, then per entry
// its header and its contents, each by its own synchronous write.
void writeLikeADump(const std::string& path, const DumpShape& shape) {
  static std::uint8_t bytes[TRACE_MAX_DUMP_LENGTH] = {};
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_SYNC | O_CLOEXEC, 0664);
  if (fd < 0) std::abort();
  bool ok = write(fd, bytes, 28) == 28;
  for (std::uint32_t p = 0; p < shape.descriptors; ++p) ok = ok && write(fd, bytes, 48) == 48;
  for (std::uint32_t size : shape.contentsSizes) {
    ok = ok && write(fd, bytes, 80) == 80;
    ok = ok && write(fd, bytes, size) == static_cast<ssize_t>(size);
  }
  close(fd);
  if (!ok) std::abort();
}

std::string logsPath(const char* name) { return std::string(nt::nodeNames().logsDir) + "/" + name; }

// ---- the search ----------------------------------------------------------------------

struct Selection {
  std::uint16_t start[TRACE_MAX_TRACE_SETS];
  std::uint16_t counts[TRACE_MAX_TRACE_SETS];
  std::uint64_t bytes;
};

Selection selectInformation() {
  static std::int16_t ids[TRACE_MAX_TRACE_SETS];
  for (unsigned i = 0; i < TRACE_MAX_TRACE_SETS; ++i) ids[i] = static_cast<std::int16_t>(i);
  Selection s{};
  const std::uint32_t start = 28 + 48 * TRACE_MAX_TRACE_SETS;
  std::uint32_t total = start;
  findMatchingTraceEntries(TRACE_MAX_TRACE_SETS, ids, s.start, s.counts, &total, TRACE_SEVERITY_INF, nullptr,
                           kLimit, 0);
  for (unsigned i = 0; i < TRACE_MAX_TRACE_SETS; ++i) {
    s.bytes += static_cast<std::uint64_t>(s.counts[i]) *
               getTraceEntrySize(getTraceSetStruct(static_cast<std::uint16_t>(i))->traceEntryContentsLength);
  }
  return s;
}

void BM_Baseline_CopySelectedSlots(benchmark::State& state) {
  fullStore();
  const Selection selection = selectInformation();
  static std::uint8_t copy[TRACE_MAX_DUMP_LENGTH + 80];
  for (auto _ : state) {
    for (unsigned i = 0; i < TRACE_MAX_TRACE_SETS; ++i) {
      const TraceSetStruct* d = getTraceSetStruct(static_cast<std::uint16_t>(i));
      const std::uint32_t slotSize = getTraceEntrySize(d->traceEntryContentsLength);
      unsigned slot = selection.start[i];
      for (unsigned k = 0; k < selection.counts[i]; ++k) {
        std::memcpy(copy, nt::g_process.base + d->dataOffset + static_cast<std::size_t>(slotSize) * slot, slotSize);
        benchmark::ClobberMemory();
        slot = (slot + 1) % d->maxNumberEntries;
      }
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(selection.bytes * state.iterations()));
}
BENCHMARK(BM_Baseline_CopySelectedSlots)->Unit(benchmark::kMillisecond);

void BM_FindMatchingTraceEntries_FullStore(benchmark::State& state) {
  fullStore();
  std::uint64_t bytes = 0;
  for (auto _ : state) bytes += selectInformation().bytes;
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(BM_FindMatchingTraceEntries_FullStore)->Unit(benchmark::kMillisecond);

// ---- the trace dump file -------------------------------------------------------------------

void BM_Baseline_SyncWritesOfATraceDump(benchmark::State& state) {
  fullStore();
  const std::string path = logsPath("baseline.dump");
  if (dumpTracesToFile(path.c_str(), 1, 1) != 0) std::abort();
  const DumpShape shape = shapeOf(path);
  for (auto _ : state) writeLikeADump(path, shape);
  unlink(path.c_str());
  state.SetBytesProcessed(static_cast<std::int64_t>(shape.bytes * state.iterations()));
  state.counters["entries"] = static_cast<double>(shape.contentsSizes.size());
}
BENCHMARK(BM_Baseline_SyncWritesOfATraceDump)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

void BM_DumpTracesToFile_FullStore(benchmark::State& state) {
  fullStore();
  const std::string path = logsPath("trace.dump");
  std::uint64_t bytes = 0;
  for (auto _ : state) {
    if (dumpTracesToFile(path.c_str(), 1, 1) != 0) std::abort();
    state.PauseTiming();
    bytes += shapeOf(path).bytes;
    state.ResumeTiming();
  }
  unlink(path.c_str());
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(BM_DumpTracesToFile_FullStore)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

// ---- the dump before reset -------------------------------------------------------------------

// The dump before reset writes at most 39 characters of its name: it works
// in the logs directory with a short one.
void inLogsDirectory() {
  if (chdir(nt::nodeNames().logsDir) != 0) std::abort();
}

void BM_Baseline_SyncWritesOfAResetDump(benchmark::State& state) {
  fullStore();
  inLogsDirectory();
  if (dumpTracesBeforeReset("TraceLog.1", 0) != 0) std::abort();
  const DumpShape shape = shapeOf(logsPath("TraceLog.1"));
  const std::string path = logsPath("baseline.reset");
  for (auto _ : state) writeLikeADump(path, shape);
  unlink(path.c_str());
  state.SetBytesProcessed(static_cast<std::int64_t>(shape.bytes * state.iterations()));
  state.counters["entries"] = static_cast<double>(shape.contentsSizes.size());
}
BENCHMARK(BM_Baseline_SyncWritesOfAResetDump)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_DumpTracesBeforeReset_FullStore(benchmark::State& state) {
  fullStore();
  inLogsDirectory();
  std::uint64_t bytes = 0;
  for (auto _ : state) {
    if (dumpTracesBeforeReset("TraceLog.1", 0) != 0) std::abort();
    state.PauseTiming();
    bytes += shapeOf(logsPath("TraceLog.1")).bytes;
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(BM_DumpTracesBeforeReset_FullStore)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace
