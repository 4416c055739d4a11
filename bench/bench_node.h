// A private node for a benchmark run: node names relocated under a temporary
// root, removed again at exit.
#pragma once

#include <cstdarg>
#include <cstdio>

namespace nt::bench {

// Relocates the node names once per process; safe to call from every
// benchmark.
void useTemporaryNode();

// The floor of a formatted entry: vsnprintf into a 128-byte buffer, as the
// library did before it formatted entries itself.
__attribute__((format(printf, 2, 3))) inline int formatInto(char* buffer, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(buffer, 128, format, args);
  va_end(args);
  return n;
}

}  // namespace nt::bench
