// The benchmarks' log service: prints nothing, or hands each call on to the
// host platform library (libnodeplatform) as it is, so that one run can set
// the two side by side.
#pragma once

namespace nt::bench {

// false (the start): the print calls do nothing. true: they go on to the
// host platform library's print calls.
void useHostPlatformLogService(bool on);

}  // namespace nt::bench
