// The entry writer against a baseline in the same run.
//
// The baseline is the least any writer of a text entry must do: format into
// a 128-byte buffer, read both clocks and copy one 208-byte slot. The dump
// baseline reads both clocks and copies one 1680-byte slot. The platform's
// print calls do nothing here (see quiet_platform.cpp), so the numbers are the
// library's own cost. The sets are named after a row of the feature tag table,
// as applications' sets are, so forwarding finds its tag without a
// diagnostic line.
#include <benchmark/benchmark.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "bench/bench_node.h"
#include "common/shared_fields.h"
#include "nodetrace/logbridge.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/startup.h"

namespace {

constexpr std::uint32_t kCategory = 1;

// One text set and one dump set, created once per process.
struct Sets {
  std::uint16_t text = 0;
  std::uint16_t dump = 0;
};

const Sets& sets() {
  static const Sets created = [] {
    nt::bench::useTemporaryNode();
    Sets s;
    std::int16_t id = -1;
    if (initTraceSet(hbk_syslog_map[0].name, TS_STRING, 1000, 128, kCategory, &id) != 0) std::abort();
    s.text = static_cast<std::uint16_t>(id);
    if (initTraceSet(hbk_syslog_map[1].name, TS_DUMP, 100, 1600, kCategory, &id) != 0) std::abort();
    s.dump = static_cast<std::uint16_t>(id);
    // The first entry registers the log domain; keep that out of the runs.
    tracePrintf(s.text, TRACE_SEVERITY_INF, kCategory, __FILE__, __LINE__, "warm-up");
    return s;
  }();
  return created;
}

void BM_Baseline_FormatClocksAndCopySlot(benchmark::State& state) {
  alignas(8) static std::uint8_t slot[208];
  char text[128];
  int i = 0;
  for (auto _ : state) {
    nt::bench::formatInto(text, "value %d of %s", ++i, "unit");
    timespec mono{}, real{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    clock_gettime(CLOCK_REALTIME, &real);
    std::memcpy(slot, &mono, sizeof mono);
    std::memcpy(slot + 8, &real, sizeof real);
    std::memcpy(slot + 80, text, sizeof text);
    benchmark::DoNotOptimize(slot);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_Baseline_FormatClocksAndCopySlot);

void BM_TracePrintf_Stored(benchmark::State& state) {
  const std::uint16_t set = sets().text;
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        tracePrintf(set, TRACE_SEVERITY_INF, kCategory, __FILE__, __LINE__, "value %d of %s", ++i, "unit"));
  }
}
BENCHMARK(BM_TracePrintf_Stored);

void BM_TracePrintf_FilteredBySeverity(benchmark::State& state) {
  const std::uint16_t set = sets().text;
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        tracePrintf(set, TRACE_SEVERITY_DBG, kCategory, __FILE__, __LINE__, "value %d of %s", ++i, "unit"));
  }
}
BENCHMARK(BM_TracePrintf_FilteredBySeverity);

void BM_TracePrintf_FilteredByCategory(benchmark::State& state) {
  const std::uint16_t set = sets().text;
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        tracePrintf(set, TRACE_SEVERITY_INF, 0x100, __FILE__, __LINE__, "value %d of %s", ++i, "unit"));
  }
}
BENCHMARK(BM_TracePrintf_FilteredByCategory);

void BM_TracePrintf_Disabled(benchmark::State& state) {
  const std::uint16_t set = sets().text;
  nt::storeShared(&nt::header()->traceEnabled, 0u);
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        tracePrintf(set, TRACE_SEVERITY_INF, kCategory, __FILE__, __LINE__, "value %d of %s", ++i, "unit"));
  }
  nt::storeShared(&nt::header()->traceEnabled, 1u);
}
BENCHMARK(BM_TracePrintf_Disabled);

void BM_Baseline_ClocksAndCopyDumpSlot(benchmark::State& state) {
  static std::vector<std::uint8_t> slot(1680);
  std::vector<std::uint8_t> data(1600, 0x5A);
  for (auto _ : state) {
    timespec mono{}, real{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    clock_gettime(CLOCK_REALTIME, &real);
    std::memcpy(slot.data(), &mono, sizeof mono);
    std::memcpy(slot.data() + 8, &real, sizeof real);
    std::memcpy(slot.data() + 80, data.data(), data.size());
    benchmark::DoNotOptimize(slot.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_Baseline_ClocksAndCopyDumpSlot);

void BM_AddTraceEntry_Dump1600(benchmark::State& state) {
  const std::uint16_t set = sets().dump;
  std::vector<std::uint8_t> data(1600, 0x5A);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        addTraceEntry(set, TS_DUMP, TRACE_SEVERITY_INF, kCategory, __FILE__, __LINE__, 1600, data.data()));
  }
}
BENCHMARK(BM_AddTraceEntry_Dump1600);

}  // namespace
