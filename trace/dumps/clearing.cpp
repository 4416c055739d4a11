// Clearing a user trace set: its ring starts again empty.
//
// Only the descriptor's counters are reset, under the trace lock: the slots
// keep their old bytes (no reader looks past curentNumberEntries), and the
// node-wide numbering of entries goes on. The two sets of the SRAM file are
// never cleared here.

#include <cstddef>

#include "common/shared_fields.h"
#include "common/test_points.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/startup.h"
#include "trace/store/trace_lock.h"

extern "C" NODETRACE_API int32_t clearTraceSet(int32_t traceSetId) {
  nt::initTraceSystem();
  // Only the low 16 bits count, as a signed id.
  const auto id = static_cast<int16_t>(static_cast<uint16_t>(traceSetId & 0xFFFF));
  if (id == SYSTEM_TRACE_SET_ID || (needsRemoteTraceSupport() == 1 && id == REMOTE_SYSTEM_TRACE_SET_ID)) {
    return TRACE_RC_UNKNOWN_SET;
  }
  if (isValidTraceSetId(static_cast<uint16_t>(id)) == 0) return TRACE_RC_UNKNOWN_SET;
  TraceSetStruct* descriptor = getTraceSetStruct(static_cast<uint16_t>(id));
  if (descriptor == nullptr) return TRACE_RC_NO_DESCRIPTOR;

  // When the lock cannot be had within its deadline the set is cleared
  // without it.
  const nt::TraceLockGuard lock;
  NODETRACE_TEST_POINT(kClearLocked);
  // writeIndex and curentNumberEntries share one aligned word and are
  // cleared together: a process killed in between would otherwise leave a
  // ring whose index and count disagree. The total follows; a kill before
  // it leaves a total above the count, which the ring allows.
  static_assert(offsetof(TraceSetStruct, curentNumberEntries) == offsetof(TraceSetStruct, writeIndex) + 2);
  static_assert(offsetof(TraceSetStruct, writeIndex) % 4 == 0);
  nt::storeShared(reinterpret_cast<uint32_t*>(&descriptor->writeIndex), 0u);
  NODETRACE_TEST_POINT(kClearCountsReset);
  nt::storeShared(&descriptor->totalNumberEntries, 0);
  return 0;
}
