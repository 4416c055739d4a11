// Start-up of the trace system, the creation of the shared-memory object and
// the (re)writing of the SRAM file's descriptors.

#include "trace/store/startup.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/message_source.h"
#include "common/node_names.h"
#include "common/scoped_handles.h"
#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "common/test_points.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/lock_holder.h"
#include "trace/store/trace_lock.h"

namespace nt {

ProcessState g_process;

namespace {

// Makes the opening of the semaphore once-only among the threads of a process.
pthread_mutex_t initMutex = PTHREAD_MUTEX_INITIALIZER;

constexpr std::uint8_t kInitialSeverityMask = 0xE8;
constexpr std::uint16_t kNoTraceSet = 0xFFFF;
constexpr mode_t kShmMode = 0664;
constexpr mode_t kSemaphoreMode = 0664;
constexpr mode_t kSramCreateMode = 0666;
constexpr mode_t kSramMode = 0664;
constexpr unsigned kSemaphoreOpenLine = 511;
constexpr unsigned kShmCreateLine = 201;
constexpr unsigned kShmOpenLine = 212;
constexpr unsigned kShmResizeLine = 224;
constexpr unsigned kShmMapLine = 239;
constexpr unsigned kSramCreateLine = 299;
constexpr unsigned kSramSeekLine = 313;
constexpr unsigned kVersionWriteLine = 345;
constexpr unsigned kSystemDescriptorWriteLine = 352;
constexpr unsigned kRemoteDescriptorWriteLine = 367;
constexpr unsigned kSramChmodLine = 382;

// The version goes last: a header with a version is complete, one without
// was left by a creator that died, and the next process to hold the lock
// initialises it (see startTraceSystem).
void initialiseHeader(TraceMemoryHeader* h) noexcept {
  storeShared(&h->totalNumberTraceEntries, 0u);
  storeShared(&h->currentNumberTraceSets, 0u);
  storeShared(&h->severityMask, kInitialSeverityMask);
  storeShared(&h->traceEnabled, 1u);
  storeShared(&h->nextFreeOffset, g_process.entryAreaOffset);
  storeShared(&h->lastTraceSetId, kNoTraceSet);
  storeShared(&h->lastEntryIndex, 0u);
  static constexpr char kVersion[] = TRACE_VERSION;
  for (std::size_t i = 0; i + 1 < sizeof kVersion; ++i) storeShared(&h->version[i], kVersion[i]);
  // The fourth byte is already zero.
}

// The creator of the object takes the severity filter from severityMask.conf
// when it holds "0x" and up to two hex digits; anything else keeps 0xE8.
void readSeverityMaskFile(TraceMemoryHeader* h) noexcept {
  ScopedFile file(std::fopen(nodeNames().severityMaskConf, "re"));
  if (!file) return;
  unsigned value = 0;
  if (std::fscanf(file.get(), "0x%02X", &value) == 1) storeShared(&h->severityMask, value & 0xFFu);
}

void blockAllSignals(sigset_t* previous) noexcept {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, previous);
}

}  // namespace

std::uint32_t mappingSizeFor(long pageSize) noexcept {
  const auto page = static_cast<std::uint32_t>(pageSize);
  return (TRACE_MEMORY_NOMINAL_SIZE + page - 1) & ~(page - 1);
}

void startTraceSystem() noexcept {
  int rc = 0;
  sigset_t previousMask;
  blockAllSignals(&previousMask);

  pthread_mutex_lock(&initMutex);
  const mode_t oldUmask = umask(0);
  if (g_process.semaphore == nullptr) {
    sem_t* semaphore = sys::semOpen(nodeNames().semaphore, O_CREAT, kSemaphoreMode, 1);
    if (semaphore == SEM_FAILED) {
      const int error = errno;
      std::fprintf(stderr, "%s (%s,%u): Opening internal semaphore failed (%s)!\n",
                   kSourceFileName, "initTraceSystem", kSemaphoreOpenLine, std::strerror(error));
      rc = -1;
    } else {
      g_process.semaphore = semaphore;
    }
  }
  umask(oldUmask);
  pthread_mutex_unlock(&initMutex);

  // Without the semaphore the process stays unstarted and the next call
  // tries again. The signals blocked above stay blocked in this thread.
  if (rc != 0) return;

  // No deadline at start-up while a holder lives (see waitForStartUp for
  // holders that died).
  const HolderIdentity me = selfIdentity();
  bool started = false;
  StartupLock lock = StartupLock::kNotTaken;
  for (;;) {
    lock = waitForStartUp(g_process.semaphore, nodeNames().semaphore, me);
    if (lock == StartupLock::kTaken) NODETRACE_TEST_POINT(kStartupSemaphoreTaken);
    // Another thread of the process may have completed start-up meanwhile,
    // or mapped the object before it had to wait again.
    started = g_process.initialised.load(std::memory_order_relaxed);
    if (!started && header() == nullptr) {
      rc = initSharedMemory();
      NODETRACE_TEST_POINT(kStartupObjectMapped);
    }
    // The token obtained stands for the hold only once this thread is
    // recorded; a waiter that saw nobody recorded for a whole deadline may
    // have claimed it meanwhile, and then this thread waits again.
    if (lock != StartupLock::kTaken || header() == nullptr || takeHold(header(), me)) break;
  }
  const bool locked = lock != StartupLock::kNotTaken;
  NODETRACE_TEST_POINT(kStartupHolderRecorded);

  // Under the lock a header without a version is one that nobody
  // initialised: this process created the object, or its creator died
  // before it was done. Either way this process does the creator's work.
  if (!started && rc != -1 && locked && header() != nullptr) rc = headerNeverInitialised(header()) ? 1 : 0;

  if (!started) {
    if (rc == 1) {
      initialiseHeader(header());
      NODETRACE_TEST_POINT(kStartupHeaderWritten);
      rc = createSramFile(false);
      if (rc == 0) readSeverityMaskFile(header());
      NODETRACE_TEST_POINT(kStartupSramWritten);
    }
    g_process.initialised.store(true, std::memory_order_release);
  }

  traceUnlock(locked, g_process.semaphore, &previousMask);
}

int initSharedMemory() noexcept {
  g_process.size = mappingSizeFor(sysconf(_SC_PAGESIZE));
  int rc = 0;
  const char* name = nodeNames().shm;

  const mode_t oldUmask = umask(0);
  int fd = sys::shmOpen(name, O_RDWR, kShmMode);
  if (fd == -1) {
    if (errno != ENOENT) {
      std::fprintf(stderr, "%s (%s,%u): Opening shmem failed (%s)!\n", kSourceFileName,
                   "initSharedMemory", kShmOpenLine, std::strerror(errno));
      rc = -1;
    } else {
      // No O_EXCL: the caller holds the semaphore, so no other process can be
      // creating the object at the same time.
      fd = sys::shmOpen(name, O_RDWR | O_CREAT, kShmMode);
      if (fd == -1) {
        std::fprintf(stderr, "%s (%s,%u): Creating shmem %s failed (%s)!\n", kSourceFileName,
                     "initSharedMemory", kShmCreateLine, name, std::strerror(errno));
        rc = -1;
      } else {
        rc = 1;
      }
    }
  }
  umask(oldUmask);

  // An existing object is resized too: a no-op at the same size, and it
  // grows an object left short by an older build.
  if (rc != -1 && sys::ftruncate(fd, static_cast<off_t>(g_process.size)) == -1) {
    std::fprintf(stderr, "%s (%s,%u): FD resizing failed (%s)!\n", kSourceFileName,
                 "initSharedMemory", kShmResizeLine, std::strerror(errno));
    rc = -1;
  }

  if (rc != -1) {
    void* base = sys::mmap(g_process.size, fd);
    if (base == MAP_FAILED) {
      std::fprintf(stderr, "%s (%s,%u): Mapping shmem failed(%s)!\n", kSourceFileName,
                   "initSharedMemory", kShmMapLine, std::strerror(errno));
      g_process.base = nullptr;
      rc = -1;
    } else {
      g_process.base = static_cast<std::uint8_t*>(base);
    }
  }

  if (fd != -1) omluCloseNoLog(&fd);  // the mapping stays valid
  if (rc == -1) return rc;

  g_process.header = reinterpret_cast<TraceMemoryHeader*>(g_process.base);
  g_process.reservedOffset = TRACE_RESERVED_AREA_OFFSET;
  g_process.descriptorOffset = TRACE_DESCRIPTOR_TABLE_OFFSET;
  g_process.entryAreaOffset = TRACE_ENTRY_AREA_OFFSET;
  return rc;
}

int createSramFile(bool recreating) noexcept {
  int rc = 0;
  const char* path = nodeNames().sram;

  const mode_t oldUmask = umask(0);
  ScopedFd fd(sys::open(path, O_RDWR | O_CREAT | O_SYNC | O_CLOEXEC, kSramCreateMode));
  umask(oldUmask);

  if (!fd.valid()) {
    std::fprintf(stderr, "%s (%s,%u): Error while creating error trace file (%s)!\n",
                 kSourceFileName, "createSramFile", kSramCreateLine, std::strerror(errno));
    if (!recreating) releaseSharedMemory(-1);
    return -1;
  }

  if (sys::lseek(fd.get(), 0, SEEK_SET) == -1) {
    std::fprintf(stderr, "%s (%s,%u): Error while seek (%s)\n", kSourceFileName, "createSramFile",
                 kSramSeekLine, std::strerror(errno));
    rc = -1;
  }

  if (rc != 0) {
    std::fprintf(stderr, "retVal == %d\n", rc);
  } else {
    // Only the version and the two descriptors are written: the slots keep
    // whatever the file held, and with counts of zero they are no entries.
    TraceSetStruct descriptor{};
    std::strncpy(descriptor.name, "System", sizeof descriptor.name);
    descriptor.type = TS_STRING;
    descriptor.categoryMask = 0xFFFFFFFFu;
    descriptor.maxNumberEntries = static_cast<std::uint16_t>(
        (TRACE_SRAM_REGION_SIZE - TRACE_DESCRIPTOR_SIZE) / getTraceEntrySize(TRACE_MAX_STRING_LENGTH));
    descriptor.traceEntryContentsLength = TRACE_MAX_STRING_LENGTH;
    descriptor.creatorPid = static_cast<std::uint32_t>(getpid());
    descriptor.dataOffset = TRACE_SRAM_SYSTEM_DATA_OFFSET;

    static constexpr char kVersion[4] = TRACE_VERSION;
    // The two messages are crossed: the version write names the error trace
    // set, the descriptor write the system trace set.
    if (sys::write(fd.get(), kVersion, sizeof kVersion) != sizeof kVersion) {
      std::fprintf(stderr, "%s (%s,%u): Error writing error trace set parameters (%s)!\n",
                   kSourceFileName, "createSramFile", kVersionWriteLine, std::strerror(errno));
      rc = -1;
    }
    if (sys::write(fd.get(), &descriptor, sizeof descriptor) != sizeof descriptor) {
      std::fprintf(stderr, "%s (%s,%u): Error writing system trace set parameters (%s)!\n",
                   kSourceFileName, "createSramFile", kSystemDescriptorWriteLine, std::strerror(errno));
      rc = -1;
    }
    if (needsRemoteTraceSupport() == 1 && rc == 0) {
      std::strncpy(descriptor.name, "NVJ_System", sizeof descriptor.name);
      descriptor.dataOffset = TRACE_SRAM_REMOTE_DATA_OFFSET;
      sys::lseek(fd.get(), TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET, SEEK_SET);
      if (sys::write(fd.get(), &descriptor, sizeof descriptor) != sizeof descriptor) {
        std::fprintf(stderr, "%s (%s,%u): Error writing octeon trace set parameters (%s)!\n",
                     kSourceFileName, "createSramFile", kRemoteDescriptorWriteLine, std::strerror(errno));
        rc = -1;
      }
    }
  }

  fd.reset();
  if (sys::chmod(path, kSramMode) == -1) {
    std::fprintf(stderr, "(%s,%u): Error changing file permission! (%s)\n", "createSramFile", kSramChmodLine,
                 std::strerror(errno));
  }
  char command[256];
  // The command's result is not examined: the owner is a courtesy to the
  // node's tools, the file works without it. The owner is a build setting
  // (NODETRACE_SRAM_OWNER): kvqsw:kvqsw on the node, none on a host, where
  // that user does not exist.
  if (sizeof(NODETRACE_SRAM_OWNER) > 1 &&
      std::snprintf(command, sizeof command, "chown " NODETRACE_SRAM_OWNER " %s ", path) > 0) {
    [[maybe_unused]] const int ignored = sys::system(command);
  }

  releaseSharedMemory(rc);
  return rc;
}

void releaseSharedMemory(int rc) noexcept {
  if (rc != -1) return;
  if (g_process.base != nullptr) munmap(g_process.base, g_process.size);
  g_process.base = nullptr;
  shm_unlink(nodeNames().shm);
  g_process.header = nullptr;
  g_process.reservedOffset = 0;
  g_process.descriptorOffset = 0;
  g_process.entryAreaOffset = 0;
}

void resetProcessStateForTests() noexcept {
  if (g_process.base != nullptr) munmap(g_process.base, g_process.size);
  if (g_process.semaphore != nullptr) sem_close(g_process.semaphore);
  g_process.semaphore = nullptr;
  g_process.base = nullptr;
  g_process.size = 0;
  g_process.header = nullptr;
  g_process.reservedOffset = 0;
  g_process.descriptorOffset = 0;
  g_process.entryAreaOffset = 0;
  g_process.initialised.store(false, std::memory_order_release);
  sys::clearFailures();
}

}  // namespace nt
