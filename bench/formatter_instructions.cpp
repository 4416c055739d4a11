// Instructions of one entry text formatted by vsnprintf, by nt::formatText,
// and of one stored tracePrintf, counted by callgrind (deterministic, unlike
// timings on a shared machine). Each measure_* function runs its call
// kCalls times; bench/count_formatter_instructions.sh runs this program
// under callgrind once per function, collecting only inside it, and prints
// the instructions per call (a few of them are the loop's own).
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "bench/bench_node.h"
#include "nodetrace/logbridge.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/printf_format.h"

extern "C" {
void measure_vsnprintf(int calls);
void measure_formatText(int calls);
void measure_tracePrintf(int calls);
}

namespace {

constexpr int kCalls = 1000;
std::uint16_t g_set = 0;

__attribute__((format(printf, 2, 3))) int viaLibrary(char* buffer, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(buffer, 128, format, args);
  va_end(args);
  return n;
}

__attribute__((format(printf, 2, 3))) int viaFormatter(char* buffer, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = nt::formatText(buffer, 128, format, args);
  va_end(args);
  return n;
}

}  // namespace

extern "C" {

__attribute__((noinline)) void measure_vsnprintf(int calls) {
  char text[128];
  for (int i = 0; i < calls; ++i) {
    viaLibrary(text, "value %d of %s", i, "sensor");
    asm volatile("" : : "r"(text) : "memory");
  }
}

__attribute__((noinline)) void measure_formatText(int calls) {
  char text[128];
  for (int i = 0; i < calls; ++i) {
    viaFormatter(text, "value %d of %s", i, "sensor");
    asm volatile("" : : "r"(text) : "memory");
  }
}

__attribute__((noinline)) void measure_tracePrintf(int calls) {
  for (int i = 0; i < calls; ++i) {
    tracePrintf(g_set, TRACE_SEVERITY_INF, 1, __FILE__, __LINE__, "value %d of %s", i, "sensor");
  }
}

}  // extern "C"

int main() {
  nt::bench::useTemporaryNode();
  std::int16_t id = -1;
  if (initTraceSet(hbk_syslog_map[0].name, TS_STRING, 1000, 128, 1, &id) != 0) return 1;
  g_set = static_cast<std::uint16_t>(id);
  // The first calls register the log domain and fault in the pages.
  measure_vsnprintf(10);
  measure_formatText(10);
  measure_tracePrintf(10);
  measure_vsnprintf(kCalls);
  measure_formatText(kCalls);
  measure_tracePrintf(kCalls);
  std::printf("%d calls each\n", kCalls);
  return 0;
}
