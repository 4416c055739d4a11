// Forwarding of entries to the platform log service.
//
// - The feature tag of a set: the lookup of a name through the table (row 0,
//   row 29 and a name no row holds) beside the row kept for the set's id.
// - A stored entry into a set whose name no row holds: every entry writes the
//   "NOT FOUND" diagnostic line into the local log file (one open, write and
//   close, a size check every 20 lines, and the truncation with its "tail"
//   command each time the file reaches 50 KiB), beside the same entry into a
//   set named by a row.
// - The library over the host platform library in its default forwarding
//   (only warnings and errors reach syslog) beside the log service that does
//   nothing, for a stored INF text entry and a 1600-byte dump: arguments 0
//   (no-op service) and 1 (host platform library), in the same run.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "bench/bench_node.h"
#include "bench/quiet_platform.h"
#include "logbridge/feature_tags.h"
#include "nodeplatform/host.h"
#include "nodetrace/logbridge.h"
#include "nodetrace/nodetrace.h"

namespace {

constexpr std::uint32_t kCategory = 1;
constexpr const char* kNameNoRowHolds = "NoSuchFamily";

struct ForwardingSets {
  std::uint16_t text = 0;      // named by row 15
  std::uint16_t dump = 0;      // named by row 23
  std::uint16_t notFound = 0;  // a name no row holds
};

std::uint16_t createSet(const char* name, std::uint32_t type, std::uint32_t length) {
  std::int16_t id = -1;
  if (initTraceSet(name, type, 1000, length, kCategory, &id) != 0) std::abort();
  return static_cast<std::uint16_t>(id);
}

const ForwardingSets& sets() {
  static const ForwardingSets created = [] {
    nt::bench::useTemporaryNode();
    ForwardingSets s;
    s.text = createSet(hbk_syslog_map[15].name, TS_STRING, 128);
    s.dump = createSet(hbk_syslog_map[23].name, TS_DUMP, 1600);
    s.notFound = createSet(kNameNoRowHolds, TS_STRING, 128);
    // The first entry registers the log domain; keep that out of the runs.
    tracePrintf(s.text, TRACE_SEVERITY_INF, kCategory, __FILE__, __LINE__, "warm-up");
    return s;
  }();
  return created;
}

void BM_FeatureTag_LookupRow0(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(getHBKFeatureTag(hbk_syslog_map[0].name));
}
BENCHMARK(BM_FeatureTag_LookupRow0);

void BM_FeatureTag_LookupRow29(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(getHBKFeatureTag(hbk_syslog_map[29].name));
}
BENCHMARK(BM_FeatureTag_LookupRow29);

void BM_FeatureTag_KeptRow0(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(nt::featureTagOfSet(40, hbk_syslog_map[0].name));
}
BENCHMARK(BM_FeatureTag_KeptRow0);

void BM_FeatureTag_KeptRow29(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(nt::featureTagOfSet(41, hbk_syslog_map[29].name));
}
BENCHMARK(BM_FeatureTag_KeptRow29);

void BM_FeatureTag_NameNoRowHolds(benchmark::State& state) {
  sets();  // the diagnostic lines go to the temporary node's local log
  for (auto _ : state) benchmark::DoNotOptimize(nt::featureTagOfSet(42, kNameNoRowHolds));
}
BENCHMARK(BM_FeatureTag_NameNoRowHolds);

void BM_TracePrintf_SetNamedByARow(benchmark::State& state) {
  const std::uint16_t set = sets().text;
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        tracePrintf(set, TRACE_SEVERITY_INF, kCategory, __FILE__, __LINE__, "value %d of %s", ++i, "unit"));
  }
}
BENCHMARK(BM_TracePrintf_SetNamedByARow);

void BM_TracePrintf_SetNameNoRowHolds(benchmark::State& state) {
  const std::uint16_t set = sets().notFound;
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        tracePrintf(set, TRACE_SEVERITY_INF, kCategory, __FILE__, __LINE__, "value %d of %s", ++i, "unit"));
  }
}
BENCHMARK(BM_TracePrintf_SetNameNoRowHolds);

// Argument 0: the no-op log service; 1: the host platform library's.
class PlatformChoice {
 public:
  explicit PlatformChoice(const benchmark::State& state) {
    nodeplatformSetSyslogForwarding(NODEPLATFORM_SYSLOG_WARNINGS);
    nt::bench::useHostPlatformLogService(state.range(0) == 1);
  }
  ~PlatformChoice() { nt::bench::useHostPlatformLogService(false); }
  PlatformChoice(const PlatformChoice&) = delete;
  PlatformChoice& operator=(const PlatformChoice&) = delete;
};

void BM_TracePrintf_StoredOverPlatform(benchmark::State& state) {
  const std::uint16_t set = sets().text;
  const PlatformChoice platform(state);
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        tracePrintf(set, TRACE_SEVERITY_INF, kCategory, __FILE__, __LINE__, "value %d of %s", ++i, "unit"));
  }
}
BENCHMARK(BM_TracePrintf_StoredOverPlatform)->Arg(0)->Arg(1);

void BM_AddTraceEntry_Dump1600OverPlatform(benchmark::State& state) {
  const std::uint16_t set = sets().dump;
  const PlatformChoice platform(state);
  std::vector<std::uint8_t> data(1600, 0x5A);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        addTraceEntry(set, TS_DUMP, TRACE_SEVERITY_INF, kCategory, __FILE__, __LINE__, 1600, data.data()));
  }
}
BENCHMARK(BM_AddTraceEntry_Dump1600OverPlatform)->Arg(0)->Arg(1);

}  // namespace
