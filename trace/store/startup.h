// Start-up of the trace system in a process: the node-wide semaphore, the
// mapping of the shared-memory object and, in the process that creates the
// object, the initial header and the SRAM file.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <cstdint>

#include "nodetrace/trace_layout.h"

namespace nt {

// What one process knows about the trace system. Written only during
// start-up (under the semaphore) and published by the release store of
// `initialised`; read afterwards without a lock.
struct ProcessState {
  std::atomic<bool> initialised{false};
  sem_t* semaphore = nullptr;
  std::uint8_t* base = nullptr;  // mapping of the shared-memory object
  std::uint32_t size = 0;        // page-rounded size of the mapping
  TraceMemoryHeader* header = nullptr;
  std::uint32_t reservedOffset = 0;
  std::uint32_t descriptorOffset = 0;
  std::uint32_t entryAreaOffset = 0;
};

extern ProcessState g_process;

void startTraceSystem() noexcept;

// Idempotent start-up, called first by every exported trace operation. After
// the first call of a process it costs one acquire load.
//
// If the mapping or the SRAM file failed, the process is started all the
// same but has no trace memory: header() is null for the rest of its life,
// and every operation that needs the shared memory refuses (an unknown set,
// a null descriptor, 0) instead of reaching through the missing mapping.
inline void initTraceSystem() noexcept {
  if (g_process.initialised.load(std::memory_order_acquire)) return;
  startTraceSystem();
}

// The trace memory header, or null when this process has no mapping.
inline TraceMemoryHeader* header() noexcept { return g_process.header; }

// The descriptor of user set id (0..199) in the shared table. Only valid
// while header() is not null.
inline TraceSetStruct* userDescriptor(unsigned id) noexcept {
  return reinterpret_cast<TraceSetStruct*>(g_process.base + g_process.descriptorOffset) + id;
}

// The page-rounded size of the shared-memory object for a page size.
std::uint32_t mappingSizeFor(long pageSize) noexcept;

// 1: this process created the object; 0: it opened an existing one; -1: failed.
int initSharedMemory() noexcept;
// 0 on success, -1 on failure. recreating is true when the error trace
// writer re-creates a damaged file.
int createSramFile(bool recreating) noexcept;
// Unmaps and unlinks the shared-memory object when rc is -1.
void releaseSharedMemory(int rc) noexcept;

// Test hook: forgets this process's start-up (unmaps, closes the semaphore)
// so that a test can start again under other names.
void resetProcessStateForTests() noexcept;

}  // namespace nt
