// A translation unit built with the assertions compiled out.
#pragma once

namespace nt::test {

// Runs failing TRACE_ASSERTs whose conditions count their evaluations and
// returns the count: 0 when the assertions are compiled out.
int evaluationsOfCompiledOutAssertions();

}  // namespace nt::test
