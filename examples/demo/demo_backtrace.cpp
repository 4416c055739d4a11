// The crash diagnostics have C++ linkage; the C demo reaches them through
// this one function. The demo is linked with its symbols exported, so that
// its own frames are named in the backtrace.
#include "nodetrace/diag.h"

namespace demo {

struct Radio {
  __attribute__((noinline)) static void poll(int links);
};

void reportFault();

__attribute__((noinline)) void reportFault() {
  print_backtrace();
  asm volatile("");  // keeps this frame: no tail call
}

void Radio::poll(int links) {
  if (links > 0) reportFault();
  asm volatile("");
}

}  // namespace demo

extern "C" void demoPrintBacktrace(void);
extern "C" void demoPrintBacktrace(void) { demo::Radio::poll(2); }
