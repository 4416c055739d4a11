#include "tests/diag/backtrace_chain.h"

namespace {

// Written after each call, so that no call can become a jump.
volatile int g_sink = 0;

__attribute__((noinline)) void leafWithoutSymbol(void (*action)()) {
  action();
  g_sink = g_sink + 1;
}

}  // namespace

namespace nt_chain {

__attribute__((noinline)) void middle(void (*action)(), int depth) {
  leafWithoutSymbol(action);
  g_sink = g_sink + depth;
}

}  // namespace nt_chain

extern "C" {

__attribute__((noinline)) void backtrace_chain_enter(void (*action)()) {
  nt_chain::middle(action, 1);
  g_sink = g_sink + 1;
}

const void* backtrace_chain_leaf() { return reinterpret_cast<const void*>(&leafWithoutSymbol); }

}  // extern "C"
