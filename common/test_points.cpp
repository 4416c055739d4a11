// The hook behind the test points and the shortened lock deadline; see
// common/test_points.h. Empty in the shipped library.

#include "common/test_points.h"

#include <atomic>

#if defined(NODETRACE_TEST_POINTS)

namespace nt {

const char* testPointName(TestPoint point) noexcept {
  switch (point) {
    case TestPoint::kStartupSemaphoreTaken: return "startup-semaphore-taken";
    case TestPoint::kStartupObjectMapped: return "startup-object-mapped";
    case TestPoint::kStartupHolderRecorded: return "startup-holder-recorded";
    case TestPoint::kStartupHeaderWritten: return "startup-header-written";
    case TestPoint::kStartupSramWritten: return "startup-sram-written";
    case TestPoint::kLockSemaphoreTaken: return "lock-semaphore-taken";
    case TestPoint::kLockHolderRecorded: return "lock-holder-recorded";
    case TestPoint::kUnlockHolderCleared: return "unlock-holder-cleared";
    case TestPoint::kLockDeadlinePassed: return "lock-deadline-passed";
    case TestPoint::kSramDescriptorRead: return "sram-descriptor-read";
    case TestPoint::kSramSequenceTaken: return "sram-sequence-taken";
    case TestPoint::kSramSlotHeaderWritten: return "sram-slot-header-written";
    case TestPoint::kSramSlotWritten: return "sram-slot-written";
    case TestPoint::kSramDescriptorWritten: return "sram-descriptor-written";
    case TestPoint::kUserSlotClaimed: return "user-slot-claimed";
    case TestPoint::kUserContentsWritten: return "user-contents-written";
    case TestPoint::kUserHeaderWritten: return "user-header-written";
    case TestPoint::kRemoteSlotClaimed: return "remote-slot-claimed";
    case TestPoint::kRemoteContentsWritten: return "remote-contents-written";
    case TestPoint::kClearLocked: return "clear-locked";
    case TestPoint::kClearCountsReset: return "clear-counts-reset";
    case TestPoint::kCount: break;
  }
  return "?";
}

namespace {
std::atomic<TestPointHook> g_hook{nullptr};
constexpr long kRealDeadlineMilliseconds = 5000;
std::atomic<long> g_deadlineMilliseconds{kRealDeadlineMilliseconds};
}  // namespace

void setTestPointHook(TestPointHook hook) noexcept { g_hook.store(hook, std::memory_order_release); }

void passTestPoint(TestPoint point) noexcept {
  if (TestPointHook hook = g_hook.load(std::memory_order_acquire); hook != nullptr) hook(point);
}

void setLockDeadlineMillisecondsForTests(long milliseconds) noexcept {
  g_deadlineMilliseconds.store(milliseconds > 0 ? milliseconds : kRealDeadlineMilliseconds,
                               std::memory_order_relaxed);
}

long lockDeadlineMilliseconds() noexcept { return g_deadlineMilliseconds.load(std::memory_order_relaxed); }

}  // namespace nt

#endif
