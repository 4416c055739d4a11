// The write-path cases of write_cases.h as timed benchmarks, each beside its
// floor in the same run; the same cases are counted in instructions by
// bench/callgrind_costs.sh. Ratios: divide a case's time by its floor's.
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "bench/write_cases.h"
#include "nodetrace/nodetrace.h"

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

// The scaling runs: `writers` processes forked per iteration, each calling
// entry(writer, i) for kEntries entries; items are entries of all writers.
constexpr int kEntries = 200000;

template <typename Entry>
void runWriterProcesses(benchmark::State& state, int writers, Entry entry) {
  for (auto _ : state) {
    std::vector<pid_t> children;
    for (int w = 0; w < writers; ++w) {
      const pid_t child = fork();
      if (child == 0) {
        for (int i = 0; i < kEntries; ++i) entry(w, i);
        _exit(0);
      }
      children.push_back(child);
    }
    for (const pid_t child : children) waitpid(child, nullptr, 0);
  }
  state.SetItemsProcessed(state.iterations() * writers * kEntries);
}

// The scaling run for the floor: processes that each format, stamp and copy
// entries into memory of their own, sharing nothing. Two of them against one
// is the most that two writers of the library can reach on this machine.
void BM_Floor_TextProcesses(benchmark::State& state) {
  runWriterProcesses(state, static_cast<int>(state.range(0)), [](int, int i) { floorText(i); });
}
BENCHMARK(BM_Floor_TextProcesses)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// The floor of the scaling run with the one thing every writer of the node
// must share: the header's first cache line. Each entry reads the enable
// flag and the severity filter there, does the floor's work, then advances
// the sequence number and the link there, as the library does. Two of these
// against one is what the line itself lets two writers reach.
void BM_Floor_TextSharedLineProcesses(benchmark::State& state) {
  void* mapped = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) std::abort();
  // The node's own header, in a page of its own shared by the writers.
  auto* h = static_cast<TraceMemoryHeader*>(mapped);
  h->traceEnabled = 1;
  h->severityMask = 0xFF;
  auto* link = reinterpret_cast<std::uint32_t*>(&h->lastTraceSetId);  // set and slot, one word
  runWriterProcesses(state, static_cast<int>(state.range(0)), [h, link](int, int i) {
    if (__atomic_load_n(&h->traceEnabled, __ATOMIC_RELAXED) == 0 ||
        (__atomic_load_n(&h->severityMask, __ATOMIC_RELAXED) & TRACE_SEVERITY_INF) == 0) {
      return;
    }
    floorText(i);
    __atomic_fetch_add(&h->totalNumberTraceEntries, 1u, __ATOMIC_RELAXED);
    __atomic_exchange_n(link, static_cast<std::uint32_t>(i), __ATOMIC_RELAXED);
  });
  munmap(mapped, 4096);
}
BENCHMARK(BM_Floor_TextSharedLineProcesses)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// Writer processes of the library, each on its own set. Arguments: the
// number of writers, and whether the second writer's set has the next
// descriptor of the table (0) or one two places on (1). Descriptors are 48
// bytes, so the next set's name shares a cache line with this set's
// counters: a writer reads its set's name for the feature tag on every
// entry, and the other writer advances those counters on every entry.
void BM_WritePath_WriterProcesses(benchmark::State& state) {
  const int writers = static_cast<int>(state.range(0));
  const bool apart = state.range(1) != 0;
  std::vector<std::uint16_t> sets;
  for (int w = 0; w < writers; ++w) sets.push_back(createOwnSet(w == 0 ? 0 : (apart ? 2 : 1)));
  runWriterProcesses(state, writers,
                     [&sets](int w, int i) { storeIntoOwnSet(sets[static_cast<std::size_t>(w)], i); });
}
BENCHMARK(BM_WritePath_WriterProcesses)
    ->Args({1, 0})
    ->Args({2, 0})
    ->Args({2, 1})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
