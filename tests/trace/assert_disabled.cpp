// TRACE_ASSERT compiled out: the header is included after
// NODETRACE_DISABLE_ASSERT, so no condition is evaluated and assertFail is
// never called, while the conditions still have to compile.
#define NODETRACE_DISABLE_ASSERT
#include "tests/trace/assert_disabled.h"

#include "nodetrace/nodetrace.h"

namespace nt::test {
namespace {

int g_evaluations = 0;

}  // namespace

int evaluationsOfCompiledOutAssertions() {
  g_evaluations = 0;
  TRACE_ASSERT(++g_evaluations < 0, "never %d", g_evaluations);
  TRACE_ASSERT(g_evaluations++ == -1, "never");
  TRACE_ASSERT(false, "a false condition without effects");
  return g_evaluations;
}

}  // namespace nt::test
