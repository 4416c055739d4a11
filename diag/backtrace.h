// Internals of the backtrace printer, for its tests.
#pragma once

#include <cstdio>

namespace nt {

// Writes the line of one frame, labelled label, to out and flushes it.
// symbol is one text of backtrace_symbols, "module(name+offset) [address]";
// it is cut in place where it parses.
void printBacktraceFrame(std::FILE* out, int label, char* symbol) noexcept;

}  // namespace nt
