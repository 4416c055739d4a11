// The identity of the holder of "traceMutex", the test whether it still
// lives, and the release of the semaphore on behalf of a dead holder.

#include "trace/store/lock_holder.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "common/node_names.h"
#include "common/shared_fields.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/startup.h"

namespace nt {
namespace {

// The holder word spans lockHolderTid and the first four bytes of the
// reserved area; the header sits at the start of a page-aligned mapping.
constexpr std::size_t kHolderWordOffset = offsetof(TraceMemoryHeader, lockHolderTid);
constexpr std::size_t kHolderWordEnd = kHolderWordOffset + sizeof(HolderIdentity);
static_assert(kHolderWordOffset % alignof(HolderIdentity) == 0);
static_assert(kHolderWordOffset + sizeof(std::int32_t) == TRACE_RESERVED_AREA_OFFSET);
static_assert(std::atomic_ref<HolderIdentity>::is_always_lock_free);
static_assert(std::endian::native == std::endian::little || std::endian::native == std::endian::big);

constexpr mode_t kShmMode = 0664;

// What the stamp half of the holder word held before this process's holder
// recorded itself, given back on release. Only the holder of the semaphore
// touches it.
std::atomic<HolderIdentity> g_restingWord{0};

HolderIdentity* holderWord(const TraceMemoryHeader* header) noexcept {
  auto* bytes = reinterpret_cast<std::uint8_t*>(const_cast<TraceMemoryHeader*>(header));
  return reinterpret_cast<HolderIdentity*>(bytes + kHolderWordOffset);
}

// Decimal digits of a positive value, for building /proc paths without
// stdio (the lock may be taken in a signal handler).
char* appendDecimal(char* out, std::uint32_t value) noexcept {
  char digits[10];
  int count = 0;
  do {
    digits[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (count > 0) *out++ = digits[--count];
  return out;
}

char* appendText(char* out, const char* text) noexcept {
  while (*text != '\0') *out++ = *text++;
  return out;
}

struct ThreadStat {
  char state = '?';
  unsigned long long startTicks = 0;
};

// Reads state (field 3) and start time (field 22) of thread tid from
// /proc/<tid>/task/<tid>/stat. The path through task/ reaches any thread of
// any process, and is the same for the calling thread and for others.
bool readThreadStat(std::int32_t tid, ThreadStat* stat) noexcept {
  char path[64];
  char* end = appendText(path, "/proc/");
  end = appendDecimal(end, static_cast<std::uint32_t>(tid));
  end = appendText(end, "/task/");
  end = appendDecimal(end, static_cast<std::uint32_t>(tid));
  end = appendText(end, "/stat");
  *end = '\0';

  // Not a node file: closed directly, with no retry on EINTR.
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd == -1) return false;
  char text[1024];
  ssize_t length = 0;
  while (length < static_cast<ssize_t>(sizeof text) - 1) {
    const ssize_t got = ::read(fd, text + length, sizeof text - 1 - static_cast<std::size_t>(length));
    if (got == -1 && errno == EINTR) continue;
    if (got <= 0) break;
    length += got;
  }
  ::close(fd);
  text[length] = '\0';

  // "tid (name) S ppid ...": the name may hold blanks and parentheses, so
  // the fields are counted from the last ')'.
  const char* field = std::strrchr(text, ')');
  if (field == nullptr) return false;
  ++field;
  for (int number = 3; number <= 22; ++number) {
    while (*field == ' ') ++field;
    if (*field == '\0') return false;
    if (number == 3) stat->state = *field;
    if (number == 22) {
      unsigned long long ticks = 0;
      if (*field < '0' || *field > '9') return false;
      while (*field >= '0' && *field <= '9') ticks = ticks * 10 + static_cast<unsigned>(*field++ - '0');
      stat->startTicks = ticks;
      return true;
    }
    while (*field != ' ' && *field != '\0') ++field;
  }
  return false;
}

}  // namespace

HolderIdentity makeHolderIdentity(std::int32_t tid, std::uint32_t startStamp) noexcept {
  const auto tidBits = static_cast<HolderIdentity>(static_cast<std::uint32_t>(tid));
  if constexpr (std::endian::native == std::endian::little) {
    return tidBits | static_cast<HolderIdentity>(startStamp) << 32;
  } else {
    return tidBits << 32 | startStamp;
  }
}

std::int32_t holderTid(HolderIdentity identity) noexcept {
  if constexpr (std::endian::native == std::endian::little) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(identity));
  } else {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(identity >> 32));
  }
}

std::uint32_t holderStartStamp(HolderIdentity identity) noexcept {
  if constexpr (std::endian::native == std::endian::little) {
    return static_cast<std::uint32_t>(identity >> 32);
  } else {
    return static_cast<std::uint32_t>(identity);
  }
}

std::uint32_t threadStartStamp(std::int32_t tid) noexcept {
  ThreadStat stat;
  if (tid <= 0 || !readThreadStat(tid, &stat)) return 0;
  return static_cast<std::uint32_t>(stat.startTicks);
}

HolderIdentity selfIdentity() noexcept {
  // Keyed by tid: a child forked by this thread inherits the value and must
  // not take it for its own.
  thread_local HolderIdentity cached = 0;
  const std::int32_t tid = gettid();
  if (cached == 0 || holderTid(cached) != tid) cached = makeHolderIdentity(tid, threadStartStamp(tid));
  return cached;
}

HolderIdentity loadHolder(const TraceMemoryHeader* header) noexcept {
  return std::atomic_ref<HolderIdentity>(*holderWord(header)).load(std::memory_order_acquire);
}

void recordHolder(TraceMemoryHeader* header, HolderIdentity identity) noexcept {
  // Normally nobody is recorded here; a start-up waiter's claim that lost to
  // this holder leaves nothing worth restoring. Such a claim may also land
  // between the load and the store: the store wins, and the claimer sees
  // that it lost.
  const HolderIdentity before = loadHolder(header);
  g_restingWord.store(holderTid(before) == 0 ? before : 0, std::memory_order_relaxed);
  std::atomic_ref<HolderIdentity>(*holderWord(header)).store(identity, std::memory_order_release);
}

void clearHolder(TraceMemoryHeader* header) noexcept {
  std::atomic_ref<HolderIdentity>(*holderWord(header))
      .store(g_restingWord.load(std::memory_order_relaxed), std::memory_order_release);
}

bool takeHold(TraceMemoryHeader* header, HolderIdentity identity) noexcept {
  HolderIdentity before = loadHolder(header);
  if (holderTid(before) != 0) return false;
  // The stamp half of an empty word keeps what a foreign object had there;
  // it is given back on release.
  if (!std::atomic_ref<HolderIdentity>(*holderWord(header))
           .compare_exchange_strong(before, identity, std::memory_order_acq_rel,
                                    std::memory_order_acquire)) {
    return false;
  }
  g_restingWord.store(before, std::memory_order_relaxed);
  return true;
}

bool claimUnrecordedHold(TraceMemoryHeader* header, HolderIdentity seen,
                         HolderIdentity identity) noexcept {
  if (holderTid(seen) != 0) return false;
  HolderIdentity expected = seen;
  if (!std::atomic_ref<HolderIdentity>(*holderWord(header))
           .compare_exchange_strong(expected, identity, std::memory_order_acq_rel,
                                    std::memory_order_acquire)) {
    return false;
  }
  g_restingWord.store(seen, std::memory_order_relaxed);
  return true;
}

bool holderIsGone(HolderIdentity identity) noexcept {
  const std::int32_t tid = holderTid(identity);
  // Not a thread id (a damaged word): nothing can be said about it. Never
  // hand 0 or a negative value to kill(), which would mean process groups.
  if (tid <= 0) return false;
  const int savedErrno = errno;
  const bool noSuchTask = kill(tid, 0) == -1 && errno == ESRCH;
  errno = savedErrno;
  if (noSuchTask) return true;

  // kill() finds zombies too: a killed holder stays one until its parent
  // reaps it.
  ThreadStat stat;
  if (!readThreadStat(tid, &stat)) return false;
  if (stat.state == 'Z' || stat.state == 'X' || stat.state == 'x') return true;
  const std::uint32_t stamp = holderStartStamp(identity);
  return stamp != 0 && static_cast<std::uint32_t>(stat.startTicks) != stamp;
}

bool releaseDeadHolder(sem_t* semaphore, TraceMemoryHeader* header) noexcept {
  const HolderIdentity holder = loadHolder(header);
  if (!holderIsGone(holder)) return false;
  // The word names a thread that no longer exists, and no live holder ever
  // stores that identity again; whoever swaps it out owns the release.
  HolderIdentity expected = holder;
  if (!std::atomic_ref<HolderIdentity>(*holderWord(header))
           .compare_exchange_strong(expected, 0, std::memory_order_acq_rel, std::memory_order_acquire)) {
    return false;
  }
  sem_post(semaphore);
  return true;
}

bool headerNeverInitialised(const TraceMemoryHeader* header) noexcept {
  for (const char& byte : header->version) {
    if (loadShared(&byte) != 0) return false;
  }
  return true;
}

HeaderPeek::~HeaderPeek() {
  if (mapping_ != nullptr) munmap(mapping_, length_);
}

TraceMemoryHeader* HeaderPeek::map(int fd) noexcept {
  struct stat status {};
  if (fstat(fd, &status) == -1 || status.st_size < static_cast<off_t>(kHolderWordEnd)) return nullptr;
  const long page = sysconf(_SC_PAGESIZE);
  const std::size_t length = page > 0 ? static_cast<std::size_t>(page) : kHolderWordEnd;
  void* mapping = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (mapping == MAP_FAILED) return nullptr;
  mapping_ = mapping;
  length_ = length;
  return static_cast<TraceMemoryHeader*>(mapping_);
}

TraceMemoryHeader* HeaderPeek::find() noexcept {
  if (mapping_ != nullptr) return static_cast<TraceMemoryHeader*>(mapping_);
  // Not a node file either: opened and closed directly.
  const int fd = shm_open(nodeNames().shm, O_RDWR | O_CLOEXEC, 0);
  if (fd == -1) return nullptr;
  TraceMemoryHeader* header = map(fd);
  ::close(fd);
  return header;
}

TraceMemoryHeader* HeaderPeek::create() noexcept {
  if (mapping_ != nullptr) return static_cast<TraceMemoryHeader*>(mapping_);
  int fd = shm_open(nodeNames().shm, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kShmMode);
  if (fd != -1) {
    // The mode as start-up creates it, whatever the process's umask.
    fchmod(fd, kShmMode);
  } else if (errno == EEXIST) {
    fd = shm_open(nodeNames().shm, O_RDWR | O_CLOEXEC, 0);
  }
  if (fd == -1) return nullptr;
  const off_t size = static_cast<off_t>(mappingSizeFor(sysconf(_SC_PAGESIZE)));
  struct stat status {};
  TraceMemoryHeader* header = nullptr;
  if (fstat(fd, &status) == 0 && (status.st_size >= size || ftruncate(fd, size) == 0)) header = map(fd);
  ::close(fd);
  return header;
}

}  // namespace nt
