// The crash diagnostics: the line of each kind of frame text (demangled, not
// demangled, unparsable), the labels from -1, a known call chain through a
// helper library (a C++ function, a C function, a function without a
// symbol), and processes ended by their signal after signal_handler, also
// with the handler of the shipped shared library.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "diag/backtrace.h"
#include "nodetrace/diag.h"
#include "tests/diag/backtrace_chain.h"
#include "tests/support/node_test.h"

#ifndef NODETRACE_SHARED_LIBRARY
#error "NODETRACE_SHARED_LIBRARY must name the built libnodetrace.so"
#endif

namespace nt::test {
namespace {

// The line printFrame writes for one frame text.
std::string frameLine(int label, const char* symbol) {
  std::FILE* out = std::tmpfile();
  EXPECT_NE(out, nullptr);
  std::string text = symbol;
  printBacktraceFrame(out, label, text.data());
  std::string line;
  std::rewind(out);
  for (int c = std::fgetc(out); c != EOF; c = std::fgetc(out)) line += static_cast<char>(c);
  std::fclose(out);
  return line;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  EXPECT_EQ(start, text.size()) << "the last line has no line end";
  return lines;
}

// Every line is a frame line, labelled -1, 0, 1, ... in order.
void expectLabelsFromMinusOne(const std::vector<std::string>& lines) {
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string prefix = "Backtrace #" + std::to_string(static_cast<int>(i) - 1) + " : ";
    EXPECT_EQ(lines[i].rfind(prefix, 0), 0u) << lines[i];
  }
}

// Sanitizer builds intercept backtrace(): the runtime's interceptor is then
// the innermost frame, labelled -1, and print_backtrace follows it. Returns
// the number of such frames at the start of lines.
std::size_t runtimeFrames(const std::vector<std::string>& lines) {
  std::size_t count = 0;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  while (count < lines.size() && (lines[count].find("/libasan.so") != std::string::npos ||
                                  lines[count].find("/libtsan.so") != std::string::npos)) {
    ++count;
  }
#else
  static_cast<void>(lines);
#endif
  return count;
}

int labelOf(std::size_t frame) { return static_cast<int>(frame) - 1; }

// The offset that a parsed frame line shows first: "...+0x1c in ...".
std::string offsetIn(const std::string& line) {
  const std::size_t in = line.find(" in ");
  const std::size_t plus = in != std::string::npos ? line.rfind('+', in) : std::string::npos;
  if (plus == std::string::npos) return {};
  return line.substr(plus + 1, in - plus - 1);
}

std::uintptr_t hexValue(const std::string& hex) { return std::stoull(hex, nullptr, 16); }

struct Module {
  std::string path;
  std::uintptr_t base;
};

// The module of address as backtrace_symbols names it.
Module moduleOf(const void* address) {
  Dl_info info{};
  EXPECT_NE(dladdr(address, &info), 0);
  return {info.dli_fname != nullptr ? info.dli_fname : "", reinterpret_cast<std::uintptr_t>(info.dli_fbase)};
}

// A frame without a symbol: "()+<offset> in <module> (+<offset>)", where
// module base + offset lies in the first bytes of function.
void expectFrameWithoutSymbol(const std::string& line, int label, const void* function) {
  SCOPED_TRACE(line);
  const Module module = moduleOf(function);
  const std::string offset = offsetIn(line);
  EXPECT_EQ(line, "Backtrace #" + std::to_string(label) + " : ()+" + offset + " in " + module.path + " (+" +
                      offset + ")");
  const std::uintptr_t address = module.base + hexValue(offset);
  const auto start = reinterpret_cast<std::uintptr_t>(function);
  EXPECT_GT(address, start);
  EXPECT_LT(address, start + 0x400);
}

// A frame of an exported function: the line shows the demangled name (or
// the name and "()" when it does not demangle), the module and the mangled
// name, and the offset leads back into that function.
void expectFrameWithSymbol(const std::string& line, int label, const void* function, const std::string& shown,
                           const std::string& mangled) {
  SCOPED_TRACE(line);
  const Module module = moduleOf(function);
  const std::string offset = offsetIn(line);
  EXPECT_EQ(line, "Backtrace #" + std::to_string(label) + " : " + shown + "+" + offset + " in " + module.path +
                      " (" + mangled + "+" + offset + ")");
  Dl_info info{};
  ASSERT_NE(dladdr(static_cast<const char*>(function) + hexValue(offset), &info), 0);
  ASSERT_NE(info.dli_sname, nullptr);
  EXPECT_EQ(std::string(info.dli_sname), mangled);
}

// ---- one frame ------------------------------------------------------------------

TEST(BacktraceFrame, NameThatIsNotMangledIsPrintedWithParentheses) {
  EXPECT_EQ(frameLine(0, "prog(main+0x1c) [0x400f3c]"), "Backtrace #0 : main()+0x1c in prog (main+0x1c)\n");
  EXPECT_EQ(frameLine(-1, "/lib/libc.so.6(__libc_start_main+0x85) [0x7f0a]"),
            "Backtrace #-1 : __libc_start_main()+0x85 in /lib/libc.so.6 (__libc_start_main+0x85)\n");
}

TEST(BacktraceFrame, MangledNameIsDemangled) {
  EXPECT_EQ(frameLine(3, "./app(_ZN2ns3runEi+0x1c) [0x55d0c2a4f1c9]"),
            "Backtrace #3 : ns::run(int)+0x1c in ./app (_ZN2ns3runEi+0x1c)\n");
  EXPECT_EQ(frameLine(12, "/usr/lib/libnodetrace.so.0(_Z14signal_handleri+0x5e) [0xb6f1e2a3]"),
            "Backtrace #12 : signal_handler(int)+0x5e in /usr/lib/libnodetrace.so.0 (_Z14signal_handleri+0x5e)\n");
}

TEST(BacktraceFrame, FrameWithoutAName) {
  EXPECT_EQ(frameLine(2, "/lib/libfoo.so(+0x1139) [0x7f3a1c2d1139]"),
            "Backtrace #2 : ()+0x1139 in /lib/libfoo.so (+0x1139)\n");
}

TEST(BacktraceFrame, TextWithoutANameAndAnOffsetIsPrintedWhole) {
  EXPECT_EQ(frameLine(1, "prog() [0x400f3c]"), "Backtrace #1 : prog() [0x400f3c]\n");
  EXPECT_EQ(frameLine(4, "[0x7ffd4c1f0000]"), "Backtrace #4 : [0x7ffd4c1f0000]\n");
  EXPECT_EQ(frameLine(5, "prog(main-0x10) [0x400f3c]"), "Backtrace #5 : prog(main-0x10) [0x400f3c]\n");
  EXPECT_EQ(frameLine(6, "prog(main+0x1c [0x400f3c]"), "Backtrace #6 : prog(main+0x1c [0x400f3c]\n");
  EXPECT_EQ(frameLine(7, ""), "Backtrace #7 : \n");
  // A plus sign before the open parenthesis does not count.
  EXPECT_EQ(frameLine(8, "a+b(c) [0x1]"), "Backtrace #8 : a+b(c) [0x1]\n");
}

TEST(BacktraceFrame, TheLastParenthesisAndPlusSignBeforeTheCloseCount) {
  // A close before any plus sign is part of the module.
  EXPECT_EQ(frameLine(0, "x(y)z(worker+0x3) [0x4]"), "Backtrace #0 : worker()+0x3 in x(y)z (worker+0x3)\n");
  EXPECT_EQ(frameLine(0, "a(b(handler+0x1) [0x2]"), "Backtrace #0 : handler()+0x1 in a(b (handler+0x1)\n");
  EXPECT_EQ(frameLine(0, "m(first+second+0x1) [0x2]"),
            "Backtrace #0 : first+second()+0x1 in m (first+second+0x1)\n");
  // The first close after a plus sign ends the scan.
  EXPECT_EQ(frameLine(0, "m(first+0x1)(second+0x2) [0x3]"), "Backtrace #0 : first()+0x1 in m (first+0x1)\n");
  // A name that the demangler reads as a type is shown demangled.
  EXPECT_EQ(frameLine(0, "m(i+0x1) [0x2]"), "Backtrace #0 : int+0x1 in m (i+0x1)\n");
}

// ---- a whole backtrace ------------------------------------------------------------

TEST(Backtrace, KnownCallChainThroughAHelperLibrary) {
  StderrCapture capture;
  backtrace_chain_enter(&print_backtrace);
  const std::vector<std::string> lines = linesOf(capture.take());
  const std::size_t k = runtimeFrames(lines);
  ASSERT_GE(lines.size(), k + 5);
  expectLabelsFromMinusOne(lines);
  // print_backtrace itself, linked into this test program without a dynamic
  // symbol; then the chain, innermost first.
  expectFrameWithoutSymbol(lines[k], labelOf(k), reinterpret_cast<const void*>(&print_backtrace));
  expectFrameWithoutSymbol(lines[k + 1], labelOf(k + 1), backtrace_chain_leaf());
  expectFrameWithSymbol(lines[k + 2], labelOf(k + 2), reinterpret_cast<const void*>(&nt_chain::middle),
                        "nt_chain::middle(void (*)(), int)", "_ZN8nt_chain6middleEPFvvEi");
  expectFrameWithSymbol(lines[k + 3], labelOf(k + 3), reinterpret_cast<const void*>(&backtrace_chain_enter),
                        "backtrace_chain_enter()", "backtrace_chain_enter");
  // Then this test, in this program.
  const std::string test = lines[k + 4];
  EXPECT_EQ(test.rfind("Backtrace #" + std::to_string(labelOf(k + 4)) + " : ()+0x", 0), 0u) << test;
  EXPECT_NE(test.find(" in " + moduleOf(reinterpret_cast<const void*>(&print_backtrace)).path + " (+0x"),
            std::string::npos)
      << test;
}

TEST(Backtrace, EveryBacktraceStartsWithLabelMinusOne) {
  StderrCapture capture;
  print_backtrace();
  print_backtrace();
  const std::vector<std::string> lines = linesOf(capture.take());
  ASSERT_EQ(lines.size() % 2, 0u);
  const std::vector<std::string> first(lines.begin(), lines.begin() + static_cast<long>(lines.size() / 2));
  const std::vector<std::string> second(lines.begin() + static_cast<long>(lines.size() / 2), lines.end());
  expectLabelsFromMinusOne(first);
  expectLabelsFromMinusOne(second);
  const std::size_t k = runtimeFrames(first);
  ASSERT_LT(k, first.size());
  expectFrameWithoutSymbol(first[k], labelOf(k), reinterpret_cast<const void*>(&print_backtrace));
}

// ---- the signal handler -------------------------------------------------------------

// The handler as an application installs it: signal_handler returns int,
// so it is cast to the type of a handler.
void installSignalHandler(int signal) {
  std::signal(signal, reinterpret_cast<void (*)(int)>(reinterpret_cast<void (*)()>(&signal_handler)));
}

void noCoreDumps() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
}

TEST(SignalHandler, ReportsTheSignalPrintsTheBacktraceAndEndsTheProcessWithIt) {
  StderrCapture capture;
  const int status = runInChild([] {
    installSignalHandler(SIGUSR1);
    std::raise(SIGUSR1);
    std::fprintf(stderr, "still running\n");
    return 0;
  });
  EXPECT_EQ(status, 128 + SIGUSR1);
  const std::vector<std::string> lines = linesOf(capture.take());
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[0], "Received signal:10");
  const std::vector<std::string> frames(lines.begin() + 1, lines.end());
  expectLabelsFromMinusOne(frames);
  const std::size_t k = runtimeFrames(frames);
  ASSERT_GE(frames.size(), k + 2);
  expectFrameWithoutSymbol(frames[k], labelOf(k), reinterpret_cast<const void*>(&print_backtrace));
  expectFrameWithoutSymbol(frames[k + 1], labelOf(k + 1), reinterpret_cast<const void*>(&signal_handler));
}

TEST(SignalHandler, AFaultEndsTheProcessWithItsSignal) {
  StderrCapture capture;
  const int status = runInChild([] {
    noCoreDumps();
    installSignalHandler(SIGSEGV);
    std::raise(SIGSEGV);
    return 0;
  });
  EXPECT_EQ(status, 128 + SIGSEGV);
  const std::vector<std::string> lines = linesOf(capture.take());
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[0], "Received signal:11");
  EXPECT_EQ(lines[1].rfind("Backtrace #-1 : ", 0), 0u) << lines[1];
}

TEST(SignalHandler, ReturnsTheResultOfRaiseAndTheSignalArrivesWhenTheHandlerReturns) {
  StderrCapture capture;
  const int status = runInChild([] {
    std::signal(SIGTERM, [](int signal) {
      const int result = signal_handler(signal);
      std::fprintf(stderr, "raise returned %d\n", result);
    });
    std::raise(SIGTERM);
    std::fprintf(stderr, "still running\n");
    return 0;
  });
  EXPECT_EQ(status, 128 + SIGTERM);
  const std::vector<std::string> lines = linesOf(capture.take());
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines.front(), "Received signal:15");
  EXPECT_EQ(lines.back(), "raise returned 0");
  const std::vector<std::string> frames(lines.begin() + 1, lines.end() - 1);
  expectLabelsFromMinusOne(frames);
  const std::size_t k = runtimeFrames(frames);
  ASSERT_GE(frames.size(), k + 2);
  expectFrameWithoutSymbol(frames[k + 1], labelOf(k + 1), reinterpret_cast<const void*>(&signal_handler));
}

TEST(SignalHandler, TheSharedLibraryExportsBothFunctionsUnderTheirMangledNames) {
  StderrCapture capture;
  const int status = runInChild([] {
    void* library = dlopen(NODETRACE_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return 2;
    void* handler = dlsym(library, "_Z14signal_handleri");
    void* printer = dlsym(library, "_Z15print_backtracev");
    if (handler == nullptr || printer == nullptr || dlsym(library, "signal_handler") != nullptr) return 3;
    // The chain through the helper library with the shipped printer.
    backtrace_chain_enter(reinterpret_cast<void (*)()>(printer));
    std::fflush(stderr);
    std::signal(SIGUSR2, reinterpret_cast<void (*)(int)>(handler));
    std::raise(SIGUSR2);
    return 0;
  });
  EXPECT_EQ(status, 128 + SIGUSR2);
  const std::vector<std::string> lines = linesOf(capture.take());
  const auto received = std::find(lines.begin(), lines.end(), "Received signal:12");
  ASSERT_NE(received, lines.end());
  const std::vector<std::string> chain(lines.begin(), received);
  const std::vector<std::string> frames(received + 1, lines.end());
  expectLabelsFromMinusOne(chain);
  expectLabelsFromMinusOne(frames);
  const std::size_t k = runtimeFrames(chain);
  ASSERT_GE(chain.size(), k + 4);
  ASSERT_GE(frames.size(), k + 2);

  // In the shared library both functions have dynamic symbols.
  void* library = dlopen(NODETRACE_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const void* printer = dlsym(library, "_Z15print_backtracev");
  const void* handler = dlsym(library, "_Z14signal_handleri");
  expectFrameWithSymbol(chain[k], labelOf(k), printer, "print_backtrace()", "_Z15print_backtracev");
  expectFrameWithoutSymbol(chain[k + 1], labelOf(k + 1), backtrace_chain_leaf());
  expectFrameWithSymbol(frames[k], labelOf(k), printer, "print_backtrace()", "_Z15print_backtracev");
  expectFrameWithSymbol(frames[k + 1], labelOf(k + 1), handler, "signal_handler(int)", "_Z14signal_handleri");
  dlclose(library);
}

}  // namespace
}  // namespace nt::test
