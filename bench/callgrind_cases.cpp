// Runs one write-path case of write_cases.h a given number of times with
// callgrind's instrumentation on only around the runs, so that
// bench/callgrind_costs.sh can divide the counted instructions by the count:
//   valgrind --tool=callgrind --instr-atstart=no nodetrace_callgrind_cases <case> <count>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string_view>

#include "bench/write_cases.h"

namespace {

using namespace nt::bench;

struct Case {
  const char* name;
  std::function<void(int)> run;
};

const Case kCases[] = {
    {"harness", [](int i) { harness(i); }},
    {"floor_text", [](int i) { floorText(i); }},
    {"stored_text_row0", [](int i) { storedTextRow0(i); }},
    {"stored_text_row29", [](int i) { storedTextRow29(i); }},
    {"stored_text_unknown_name", [](int i) { storedTextUnknownName(i); }},
    {"floor_dump", [](int) { floorDump(); }},
    {"stored_dump_1600", [](int) { storedDump1600(); }},
    {"filtered_tracePrintf", [](int i) { filteredTracePrintf(i); }},
    {"filtered_addTraceEntry", [](int) { filteredAddTraceEntry(); }},
    {"floor_error_file_calls", [](int) { floorErrorFileCalls(); }},
    {"error_entry", [](int i) { errorEntry(i); }},
};

// The loop itself is counted too; it costs a handful of instructions per
// call, next to nothing beside the cases.
[[gnu::noinline]] void runCounted(const Case& c, int count) {
  CALLGRIND_ZERO_STATS;
  CALLGRIND_START_INSTRUMENTATION;
  for (int i = 0; i < count; ++i) c.run(i);
  CALLGRIND_STOP_INSTRUMENTATION;
  CALLGRIND_DUMP_STATS_AT(c.name);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s <case|list> <count>\n", argv[0]);
    return 2;
  }
  const std::string_view wanted = argv[1];
  for (const Case& c : kCases) {
    if (wanted == "list") {
      std::printf("%s\n", c.name);
      continue;
    }
    if (wanted != c.name) continue;
    // Warm up: sets created, domain registered, ids cached, pages touched.
    for (int i = 0; i < 3; ++i) c.run(i);
    runCounted(c, std::atoi(argv[2]));
    return 0;
  }
  if (wanted == "list") return 0;
  std::fprintf(stderr, "unknown case %s\n", argv[1]);
  return 2;
}
