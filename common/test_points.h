// Test points: places between two steps of start-up, of the lock and of the
// writers where a test build can stop a process, so that a test can kill it
// there and look at what the survivors find.
//
// Only the test build of the library objects (tests/CMakeLists.txt compiles
// them a second time with NODETRACE_TEST_POINTS) has them. In the shipped
// library NODETRACE_TEST_POINT expands to nothing and the lock deadline is the
// constant 5 seconds, so neither costs an instruction there.
#pragma once

#include <cstdint>

namespace nt {

enum class TestPoint : std::uint8_t {
  // Start-up (initTraceSystem).
  kStartupSemaphoreTaken,  // the semaphore is held, nothing mapped, nobody recorded
  kStartupObjectMapped,    // the object is mapped, the holder not recorded yet
  kStartupHolderRecorded,  // recorded as holder, the header not yet looked at
  kStartupHeaderWritten,   // the creator initialised the header, the SRAM file not yet
  kStartupSramWritten,     // the creator rewrote the SRAM descriptors
  // The lock.
  kLockSemaphoreTaken,  // traceLock obtained the semaphore, not recorded yet
  kLockHolderRecorded,  // traceLock recorded its caller
  kUnlockHolderCleared,  // traceUnlock cleared the record, not posted yet
  kLockDeadlinePassed,   // a wait reached its deadline (counted by tests, never stopped at)
  // The append to a ring of the SRAM file (error trace and remote system writers).
  kSramDescriptorRead,     // under the lock, the descriptor read, nothing written
  kSramSequenceTaken,      // the sequence number taken, nothing written
  kSramSlotHeaderWritten,  // the slot's header is written, its contents not
  kSramSlotWritten,        // the whole slot is written, the descriptor not
  kSramDescriptorWritten,  // the descriptor is written, the newest-entry link not
  // The user-set writer and the remote writer into user sets.
  kUserSlotClaimed,       // counters advanced, nothing of the slot written
  kUserContentsWritten,   // contents written, the slot's header not
  kUserHeaderWritten,     // header written, not yet linked as the newest entry
  kRemoteSlotClaimed,     // addRemoteEntry: counters advanced, slot not written
  kRemoteContentsWritten, // addRemoteEntry: contents written, header not
  // clearTraceSet.
  kClearLocked,      // the lock is held, nothing cleared
  kClearCountsReset,  // writeIndex and the count are 0, the total not yet
  kCount
};

#if defined(NODETRACE_TEST_POINTS)

const char* testPointName(TestPoint point) noexcept;

// Called at every test point that the process passes, from any thread, with
// all signals blocked where the point lies under the lock. Null: nothing.
using TestPointHook = void (*)(TestPoint point);
void setTestPointHook(TestPointHook hook) noexcept;
void passTestPoint(TestPoint point) noexcept;

// The deadline of traceLock and of start-up's wait for a holder that never
// recorded itself; tests shorten it so that a suite does not wait the real
// 5 seconds over and over. 0 restores the real deadline.
void setLockDeadlineMillisecondsForTests(long milliseconds) noexcept;
long lockDeadlineMilliseconds() noexcept;

#define NODETRACE_TEST_POINT(point) ::nt::passTestPoint(::nt::TestPoint::point)

#else

constexpr long lockDeadlineMilliseconds() noexcept { return 5000; }

#define NODETRACE_TEST_POINT(point) static_cast<void>(0)

#endif

}  // namespace nt
