// Start-up of the trace system: creation versus opening of the shared-memory
// object, the initial header, the SRAM file and the severity mask file.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <sys/wait.h>

#include <fstream>
#include <thread>

#include "common/shared_fields.h"
#include "tests/support/node_test.h"
#include "tests/support/recording_platform.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

constexpr std::size_t kObjectSize = 10498048;  // with 4096-byte pages

// The 48 bytes of a SRAM descriptor as start-up writes them.
Bytes sramDescriptor(const char* name, std::uint32_t dataOffset, std::uint32_t creatorPid) {
  Bytes bytes(48, 0);
  std::memcpy(bytes.data(), name, std::strlen(name));
  auto put32 = [&](std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(v >> (8 * i));
  };
  auto put16 = [&](std::size_t at, std::uint16_t v) {
    bytes[at] = static_cast<std::uint8_t>(v);
    bytes[at + 1] = static_cast<std::uint8_t>(v >> 8);
  };
  put32(20, 0);            // type TS_STRING
  put32(24, 0xFFFFFFFF);   // categoryMask
  put16(28, 738);          // maxNumberEntries
  put16(30, 128);          // traceEntryContentsLength
  put32(32, creatorPid);
  put32(36, dataOffset);
  put16(40, 0);            // writeIndex
  put16(42, 0);            // curentNumberEntries
  put32(44, 0);            // totalNumberEntries
  return bytes;
}

Bytes slice(const Bytes& bytes, std::size_t offset, std::size_t length) {
  return Bytes(bytes.begin() + static_cast<long>(offset), bytes.begin() + static_cast<long>(offset + length));
}

class StartupTest : public NodeTest {
 protected:
  // An object that start-up will find already there, filled with a pattern.
  void createForeignObject(std::size_t size, std::uint8_t seed) {
    const int fd = shm_open(shmName().c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_NE(fd, -1);
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
    void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(map, MAP_FAILED);
    auto* bytes = static_cast<std::uint8_t*>(map);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(seed + i * 7);
    std::memset(bytes + 24, 0, 4);  // nobody holds the lock
    munmap(map, size);
    close(fd);
  }
};

TEST_F(StartupTest, FreshObjectHasTheInitialHeaderAndIsZeroElsewhere) {
  getCurrentNumberTraceSets();  // first call of the process starts the system

  const Bytes object = readSharedObject(shmName());
  ASSERT_EQ(object.size(), kObjectSize);
  const Bytes expectedHeader = {'1', '.', '4', 0,          // version
                                0, 0, 0, 0,                // totalNumberTraceEntries
                                0,                         // currentNumberTraceSets
                                0xE8,                      // severityMask
                                0, 0,                      // unused
                                1, 0, 0, 0,                // traceEnabled
                                0x78, 0x26, 0, 0,          // nextFreeOffset 9848
                                0xFF, 0xFF,                // lastTraceSetId
                                0, 0,                      // lastEntryIndex
                                0, 0, 0, 0};               // lockHolderTid, released
  EXPECT_EQ(slice(object, 0, 28), expectedHeader);
  for (std::size_t i = 28; i < object.size(); ++i) {
    ASSERT_EQ(object[i], 0) << "byte " << i;
  }
}

TEST_F(StartupTest, FreshObjectReadsBackThroughTheRegistry) {
  EXPECT_EQ(getCurrentNumberTraceSets(), 0);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  const TraceMemoryHeader* h = header();
  ASSERT_NE(h, nullptr);
  EXPECT_STREQ(h->version, "1.4");
  EXPECT_EQ(h->severityMask, 0xE8);
  EXPECT_EQ(h->traceEnabled, 1u);
  EXPECT_EQ(h->nextFreeOffset, 9848u);
  EXPECT_EQ(h->lastTraceSetId, 0xFFFF);
  EXPECT_EQ(h->lastEntryIndex, 0);
  EXPECT_EQ(g_process.size, kObjectSize);
  EXPECT_EQ(g_process.reservedOffset, 28u);
  EXPECT_EQ(g_process.descriptorOffset, 248u);
  EXPECT_EQ(g_process.entryAreaOffset, 9848u);
}

TEST_F(StartupTest, ObjectAndSemaphoreAreCreatedWithMode0664) {
  getCurrentNumberTraceSets();
  const int fd = shm_open(shmName().c_str(), O_RDONLY, 0);
  ASSERT_NE(fd, -1);
  struct stat status {};
  ASSERT_EQ(fstat(fd, &status), 0);
  close(fd);
  EXPECT_EQ(status.st_mode & 07777, 0664u);
  // glibc keeps named semaphores as files "sem.<name>" in /dev/shm.
  ASSERT_EQ(stat(("/dev/shm/sem." + semaphoreName()).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0664u);
}

TEST_F(StartupTest, CreatorWritesVersionAndBothSramDescriptors) {
  getCurrentNumberTraceSets();

  const Bytes file = readFileBytes(path("/var/log/sram"));
  ASSERT_EQ(file.size(), 153648u);  // nothing is written past the second descriptor
  EXPECT_EQ(slice(file, 0, 4), (Bytes{'1', '.', '4', 0}));
  const auto pid = static_cast<std::uint32_t>(getpid());
  EXPECT_EQ(slice(file, 4, 48), sramDescriptor("System", 52, pid));
  EXPECT_EQ(slice(file, 153600, 48), sramDescriptor("NVJ_System", 153648, pid));
  for (std::size_t i = 52; i < 153600; ++i) ASSERT_EQ(file[i], 0) << "byte " << i;

  struct stat status {};
  ASSERT_EQ(stat(path("/var/log/sram").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0664u);
  EXPECT_EQ(toolLog(), sramOwnerCommand(path("/var/log/sram")));
}

TEST_F(StartupTest, SramRewriteKeepsOldSlotsAndLength) {
  // A file of the previous run: full regions with entries in them.
  Bytes old(2 * 153600 + 100, 0xAB);
  {
    std::ofstream out(path("/var/log/sram"), std::ios::binary);
    out.write(reinterpret_cast<const char*>(old.data()), static_cast<std::streamsize>(old.size()));
  }
  getCurrentNumberTraceSets();

  const Bytes file = readFileBytes(path("/var/log/sram"));
  ASSERT_EQ(file.size(), old.size());  // not truncated
  const auto pid = static_cast<std::uint32_t>(getpid());
  EXPECT_EQ(slice(file, 0, 4), (Bytes{'1', '.', '4', 0}));
  EXPECT_EQ(slice(file, 4, 48), sramDescriptor("System", 52, pid));
  EXPECT_EQ(slice(file, 153600, 48), sramDescriptor("NVJ_System", 153648, pid));
  EXPECT_EQ(slice(file, 52, 153600 - 52), Bytes(153600 - 52, 0xAB));
  EXPECT_EQ(slice(file, 153648, old.size() - 153648), Bytes(old.size() - 153648, 0xAB));
}

TEST_F(StartupTest, ExistingObjectIsOpenedResizedAndLeftUntouched) {
  createForeignObject(kObjectSize, 3);
  const Bytes before = readSharedObject(shmName());

  const int sets = getCurrentNumberTraceSets();

  EXPECT_EQ(sets, before[8]);
  EXPECT_EQ(readSharedObject(shmName()), before);
  EXPECT_FALSE(fileExists(path("/var/log/sram")));  // only the creator writes it
  EXPECT_EQ(toolLog(), "");
}

TEST_F(StartupTest, ShortExistingObjectIsGrownToTheMappingSize) {
  createForeignObject(4096, 9);
  const Bytes before = readSharedObject(shmName());

  getCurrentNumberTraceSets();

  const Bytes after = readSharedObject(shmName());
  ASSERT_EQ(after.size(), kObjectSize);
  EXPECT_EQ(slice(after, 0, 4096), before);
  for (std::size_t i = 4096; i < after.size(); ++i) ASSERT_EQ(after[i], 0) << "byte " << i;
}

TEST_F(StartupTest, SeverityMaskFileWithPrefixSetsTheFilter) {
  writeFileText(path("/ffs/run/logs/severityMask.conf"), "0x28\n");
  getCurrentNumberTraceSets();
  EXPECT_EQ(readSharedObject(shmName()).at(9), 0x28);
}

TEST_F(StartupTest, SeverityMaskFileIsReadWithAtMostTwoHexDigitsOfEitherCase) {
  writeFileText(path("/ffs/run/logs/severityMask.conf"), "0xf8a");
  getCurrentNumberTraceSets();
  EXPECT_EQ(readSharedObject(shmName()).at(9), 0xF8);
}

TEST_F(StartupTest, SeverityMaskFileWithoutPrefixKeepsTheDefault) {
  for (const char* text : {"40", "E8", "0x", "0X28", "", " 0x28"}) {
    SCOPED_TRACE(text);
    TearDown();
    SetUp();
    writeFileText(path("/ffs/run/logs/severityMask.conf"), text);
    getCurrentNumberTraceSets();
    EXPECT_EQ(readSharedObject(shmName()).at(9), 0xE8);
  }
}

TEST_F(StartupTest, SeverityMaskFileIsReadOnlyByTheCreator) {
  createForeignObject(kObjectSize, 0);
  const std::uint8_t before = readSharedObject(shmName()).at(9);
  writeFileText(path("/ffs/run/logs/severityMask.conf"), "0x28\n");
  getCurrentNumberTraceSets();
  EXPECT_EQ(readSharedObject(shmName()).at(9), before);
}

TEST_F(StartupTest, SeverityMaskFileIsClosedThroughThePlatform) {
  writeFileText(path("/ffs/run/logs/severityMask.conf"), "0x28\n");
  getCurrentNumberTraceSets();
  EXPECT_EQ(platformCalls("omluFcloseNoLog").size(), 1u);
}

TEST_F(StartupTest, TwoProcessesStartingAtOnceCreateExactlyOnce) {
  StartGate gate;
  pid_t children[2] = {0, 0};
  int pipes[2][2];
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(pipe(pipes[i]), 0);
    std::fflush(nullptr);
    children[i] = fork();
    ASSERT_GE(children[i], 0);
    if (children[i] == 0) {
      gate.wait();
      const int sets = getCurrentNumberTraceSets();
      const char sent = static_cast<char>(sets);
      _exit(write(pipes[i][1], &sent, 1) == 1 ? 0 : 1);
    }
    close(pipes[i][1]);
  }
  gate.open();
  for (int i = 0; i < 2; ++i) {
    int status = 0;
    ASSERT_EQ(waitpid(children[i], &status, 0), children[i]);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    char sets = 1;
    EXPECT_EQ(read(pipes[i][0], &sets, 1), 1);
    EXPECT_EQ(sets, 0);
    close(pipes[i][0]);
  }

  // One SRAM file rewrite, by one of the two, and one initialised header.
  EXPECT_EQ(toolLog(), sramOwnerCommand(path("/var/log/sram")));
  const Bytes file = readFileBytes(path("/var/log/sram"));
  const std::uint32_t creator = u32At(file, 4 + 32);
  EXPECT_TRUE(creator == static_cast<std::uint32_t>(children[0]) ||
              creator == static_cast<std::uint32_t>(children[1]))
      << creator;
  EXPECT_EQ(u32At(file, 153600 + 32), creator);
  const Bytes object = readSharedObject(shmName());
  EXPECT_EQ(u32At(object, 16), 9848u);
  EXPECT_EQ(object.at(9), 0xE8);
  EXPECT_EQ(u32At(object, 24), 0u);  // nobody holds the lock afterwards
}

TEST_F(StartupTest, ThreadsOfOneProcessStartItOnce) {
  useRealLockDeadline();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([] { getCurrentNumberTraceSets(); });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(toolLog(), sramOwnerCommand(path("/var/log/sram")));
  EXPECT_NE(header(), nullptr);
}

TEST_F(StartupTest, LaterCallsDoNotStartAgain) {
  getCurrentNumberTraceSets();
  const auto closes = platformCalls().size();
  for (int i = 0; i < 10; ++i) getTotalNumberTraceEntries();
  EXPECT_EQ(platformCalls().size(), closes);
  EXPECT_EQ(toolLog(), sramOwnerCommand(path("/var/log/sram")));
}

TEST_F(StartupTest, StartUpLeavesTheSignalMaskAsItWas) {
  sigset_t before;
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  getCurrentNumberTraceSets();
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (int signal = 1; signal < SIGRTMIN; ++signal) {
    EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
  }
}

TEST_F(StartupTest, StartUpReleasesTheSemaphore) {
  getCurrentNumberTraceSets();
  int value = -1;
  ASSERT_EQ(sem_getvalue(g_process.semaphore, &value), 0);
  EXPECT_EQ(value, 1);
}

}  // namespace
}  // namespace nt::test
