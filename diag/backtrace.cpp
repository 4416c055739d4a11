// The backtrace printer and the fatal-signal handler.
//
// backtrace_symbols gives one text per frame, "module(name+offset) [address]",
// for example
//
//   ./app(_ZN2ns3runEi+0x1c) [0x55d0c2a4f1c9]
//   ./app(main+0x2e) [0x55d0c2a4f2de]
//   /lib/libfoo.so(+0x1139) [0x7f3a1c2d1139]     (no exported symbol)
//
// and each is printed as one line, with the name demangled where it can be:
//
//   Backtrace #0 : ns::run(int)+0x1c in ./app (_ZN2ns3runEi+0x1c)
//   Backtrace #1 : main()+0x2e in ./app (main+0x2e)
//   Backtrace #2 : ()+0x1139 in /lib/libfoo.so (+0x1139)
//
// Both functions run in a crashing process and use what is at hand there:
// stdio on standard error, flushed line by line, and the allocations inside
// backtrace_symbols and the demangler. Nothing is checked or reported.

#include "diag/backtrace.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "nodetrace/diag.h"

namespace nt {
namespace {

constexpr int kMaxFrames = 512;

// The frame of print_backtrace itself is -1, its caller 0.
int frameLabel(int frame) noexcept { return frame == 0 ? -1 : frame - 1; }

}  // namespace

void printBacktraceFrame(std::FILE* out, int label, char* symbol) noexcept {
  // The last "(" and the last "+" before the first ")" that follows a "+".
  char* open = nullptr;
  char* plus = nullptr;
  char* close = nullptr;
  for (char* p = symbol; *p != '\0'; ++p) {
    if (*p == '(') {
      open = p;
    } else if (*p == '+') {
      plus = p;
    } else if (*p == ')' && plus != nullptr) {
      close = p;
      break;
    }
  }

  if (open == nullptr || plus == nullptr || close == nullptr || open > plus) {
    std::fprintf(out, "Backtrace #%d : %s\n", label, symbol);
    std::fflush(out);
    return;
  }

  *open = '\0';
  *plus = '\0';
  *close = '\0';
  const char* module = symbol;
  const char* mangled = open + 1;
  const char* offset = plus + 1;
  int status = 0;
  char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
  if (status == 0 && demangled != nullptr) {
    std::fprintf(out, "Backtrace #%d : %s+%s in %s (%s+%s)\n", label, demangled, offset, module, mangled, offset);
  } else {
    std::fprintf(out, "Backtrace #%d : %s()+%s in %s (%s+%s)\n", label, mangled, offset, module, mangled, offset);
  }
  std::fflush(out);
  std::free(demangled);
}

}  // namespace nt

// Not inlined into signal_handler: its own frame is the one labelled -1.
NODETRACE_API __attribute__((noinline)) void print_backtrace() {
  void* frames[nt::kMaxFrames];
  const int count = backtrace(frames, nt::kMaxFrames);
  char** symbols = backtrace_symbols(frames, count);
  if (symbols == nullptr) return;
  for (int i = 0; i < count; ++i) nt::printBacktraceFrame(stderr, nt::frameLabel(i), symbols[i]);
  std::free(symbols);
}

NODETRACE_API int signal_handler(int signal) {
  std::fprintf(stderr, "Received signal:%d\n", signal);
  std::fflush(stderr);
  print_backtrace();
  std::signal(signal, SIG_DFL);
  return std::raise(signal);
}
