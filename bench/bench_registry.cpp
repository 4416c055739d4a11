// Registry lookups against a baseline: a plain read of a header field of the
// same mapping. The lookups run on every entry written, so their cost over
// the baseline is what a trace call pays for them.
#include <benchmark/benchmark.h>

#include "bench/bench_node.h"
#include "common/shared_fields.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/startup.h"

namespace {

void BM_Baseline_HeaderFieldLoad(benchmark::State& state) {
  nt::bench::useTemporaryNode();
  getCurrentNumberTraceSets();  // starts the trace system
  const TraceMemoryHeader* h = nt::header();
  for (auto _ : state) benchmark::DoNotOptimize(nt::loadShared(&h->currentNumberTraceSets));
}
BENCHMARK(BM_Baseline_HeaderFieldLoad);

void BM_IsValidTraceSetId(benchmark::State& state) {
  nt::bench::useTemporaryNode();
  for (auto _ : state) benchmark::DoNotOptimize(isValidTraceSetId(0));
}
BENCHMARK(BM_IsValidTraceSetId);

void BM_GetTraceSetStruct_User(benchmark::State& state) {
  nt::bench::useTemporaryNode();
  for (auto _ : state) benchmark::DoNotOptimize(getTraceSetStruct(0));
}
BENCHMARK(BM_GetTraceSetStruct_User);

void BM_GetTraceSetId_System(benchmark::State& state) {
  nt::bench::useTemporaryNode();
  for (auto _ : state) benchmark::DoNotOptimize(getTraceSetId("System"));
}
BENCHMARK(BM_GetTraceSetId_System);

// Reads the SRAM file: an open, a seek, a 48-byte read and a close.
void BM_GetTraceSetStruct_Sram(benchmark::State& state) {
  nt::bench::useTemporaryNode();
  for (auto _ : state) benchmark::DoNotOptimize(getTraceSetStruct(SYSTEM_TRACE_SET_ID));
}
BENCHMARK(BM_GetTraceSetStruct_Sram);

}  // namespace
