// The write-path cases of write_cases.h as timed benchmarks, each beside its
// floor in the same run; the same cases are counted in instructions by
// bench/callgrind_costs.sh. Ratios: divide a case's time by its floor's.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "bench/write_cases.h"

namespace {

using namespace nt::bench;

void BM_Floor_Text(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) floorText(++i);
}
BENCHMARK(BM_Floor_Text);

void BM_WritePath_StoredTextRow0(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) storedTextRow0(++i);
}
BENCHMARK(BM_WritePath_StoredTextRow0);

void BM_WritePath_StoredTextRow29(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) storedTextRow29(++i);
}
BENCHMARK(BM_WritePath_StoredTextRow29);

void BM_WritePath_StoredTextUnknownName(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) storedTextUnknownName(++i);
}
BENCHMARK(BM_WritePath_StoredTextUnknownName);

void BM_Floor_Dump(benchmark::State& state) {
  for (auto _ : state) floorDump();
}
BENCHMARK(BM_Floor_Dump);

void BM_WritePath_StoredDump1600(benchmark::State& state) {
  for (auto _ : state) storedDump1600();
}
BENCHMARK(BM_WritePath_StoredDump1600);

void BM_WritePath_FilteredTracePrintf(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) filteredTracePrintf(++i);
}
BENCHMARK(BM_WritePath_FilteredTracePrintf);

void BM_WritePath_FilteredAddTraceEntry(benchmark::State& state) {
  for (auto _ : state) filteredAddTraceEntry();
}
BENCHMARK(BM_WritePath_FilteredAddTraceEntry);

void BM_Floor_ErrorFileCalls(benchmark::State& state) {
  for (auto _ : state) floorErrorFileCalls();
}
BENCHMARK(BM_Floor_ErrorFileCalls);

void BM_WritePath_ErrorEntry(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) errorEntry(++i);
}
BENCHMARK(BM_WritePath_ErrorEntry);

// Writer processes, each on its own set, each storing kEntries entries; the
// throughput of two against one shows how the writers scale over cores
// (nothing but the node-wide sequence number and link is shared).
void BM_WritePath_WriterProcesses(benchmark::State& state) {
  constexpr int kEntries = 200000;
  const int writers = static_cast<int>(state.range(0));
  std::vector<std::uint16_t> sets;
  for (int w = 0; w < writers; ++w) sets.push_back(createOwnSet(w));
  for (auto _ : state) {
    std::vector<pid_t> children;
    for (int w = 0; w < writers; ++w) {
      const pid_t child = fork();
      if (child == 0) {
        for (int i = 0; i < kEntries; ++i) storeIntoOwnSet(sets[static_cast<std::size_t>(w)], i);
        _exit(0);
      }
      children.push_back(child);
    }
    for (const pid_t child : children) waitpid(child, nullptr, 0);
  }
  state.SetItemsProcessed(state.iterations() * writers * kEntries);
}
BENCHMARK(BM_WritePath_WriterProcesses)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
