// Who holds "traceMutex", and whether that thread still exists.
//
// The holder is named by the header's lockHolderTid together with the start
// time of the holding thread, kept in the first four bytes of the reserved
// area right behind the header. The two are one naturally aligned 64-bit
// word at object offset 24, written, read and compared as a whole:
//
//     24  +----------------------+
//         | lockHolderTid        |  the holder's tid, 0: nobody recorded
//     28  +----------------------+
//         | holder start stamp   |  low 32 bits of the thread's start time
//     32  +----------------------+  (clock ticks since boot), 0: unknown
//
// Both halves are zero whenever nobody holds the lock, so the reserved area
// reads as zero at rest. The stamp is what tells a new thread that the
// kernel gave the dead holder's tid from the holder itself.
//
// A holder that died while holding is released by the first waiter to
// notice: it swaps the holder word from the dead holder's identity to zero
// with one compare-and-exchange and posts the semaphore only if the swap
// succeeded, so the semaphore is posted exactly once on the dead holder's
// behalf however many waiters notice at the same time.
#pragma once

#include <semaphore.h>

#include <cstdint>

#include "nodetrace/trace_layout.h"

namespace nt {

// A holder's tid and start stamp in one word; 0 when nobody is recorded.
using HolderIdentity = std::uint64_t;

HolderIdentity makeHolderIdentity(std::int32_t tid, std::uint32_t startStamp) noexcept;
std::int32_t holderTid(HolderIdentity identity) noexcept;
std::uint32_t holderStartStamp(HolderIdentity identity) noexcept;

// Low 32 bits of the start time of thread tid (field 22 of its stat file in
// /proc), or 0 when it cannot be read.
std::uint32_t threadStartStamp(std::int32_t tid) noexcept;

// The calling thread's identity. The start stamp is read once per thread
// and kept; later calls cost a gettid.
HolderIdentity selfIdentity() noexcept;

// The holder word of a mapped header. A holder is recorded when the tid
// half is not zero; the stamp half alone means nothing.
HolderIdentity loadHolder(const TraceMemoryHeader* header) noexcept;
// Records the caller, which has just taken the semaphore, as holder.
void recordHolder(TraceMemoryHeader* header, HolderIdentity identity) noexcept;
// Clears the record when the holder lets go. The four reserved bytes get
// back what they held before the holder recorded itself (zero, unless an
// object from elsewhere had something there).
void clearHolder(TraceMemoryHeader* header) noexcept;
// Enters the hold that the caller's semaphore token stands for: records
// identity if nobody is recorded. False when a waiter has claimed the hold
// meanwhile (claimUnrecordedHold): the token the caller obtained is then
// the claimer's, and the caller waits again.
bool takeHold(TraceMemoryHeader* header, HolderIdentity identity) noexcept;
// Takes over a hold that nobody recorded: records identity if the word
// still holds seen, whose tid half must be zero.
bool claimUnrecordedHold(TraceMemoryHeader* header, HolderIdentity seen,
                         HolderIdentity identity) noexcept;

// True when the thread named by identity has ended: no task has its tid, the
// task is a zombie, or the task with that tid started at another time than
// the recorded stamp (the tid was given to a new thread). Anything that
// cannot be read counts as alive.
bool holderIsGone(HolderIdentity identity) noexcept;

// Releases "traceMutex" on behalf of the holder recorded in header if that
// holder is gone. Returns true when this call posted the semaphore; of any
// number of callers that see the same dead holder, exactly one does.
bool releaseDeadHolder(sem_t* semaphore, TraceMemoryHeader* header) noexcept;

// True when the header's version was never written: its creator died before
// it initialised the header.
bool headerNeverInitialised(const TraceMemoryHeader* header) noexcept;

// The header of the shared-memory object as a waiter at start-up sees it,
// through a mapping of its own (its process has not mapped the object yet,
// or another of its threads is mapping it right now). Maps the first page
// of the object on first use and unmaps it when destroyed.
class HeaderPeek {
 public:
  HeaderPeek() noexcept = default;
  ~HeaderPeek();
  HeaderPeek(const HeaderPeek&) = delete;
  HeaderPeek& operator=(const HeaderPeek&) = delete;

  // The header, or null while the object does not exist or is too short to
  // hold the header and the start stamp.
  TraceMemoryHeader* find() noexcept;
  // The header after creating the object, or growing it, to the size that
  // start-up gives it (mode 0664); null if that fails.
  TraceMemoryHeader* create() noexcept;

 private:
  TraceMemoryHeader* map(int fd) noexcept;

  void* mapping_ = nullptr;
  std::size_t length_ = 0;
};

}  // namespace nt
