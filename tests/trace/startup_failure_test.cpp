// Start-up failures: every message with its line, and the state the process
// is left in. A process that is started without trace memory must refuse
// later operations instead of reaching through the missing mapping.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "common/syscalls.h"
#include "tests/support/node_test.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

using sys::Call;

class StartupFailureTest : public NodeTest {
 protected:
  // Everything an application may call must refuse quietly without memory.
  void expectRefusalsWithoutTraceMemory() {
    EXPECT_EQ(header(), nullptr);
    EXPECT_EQ(getCurrentNumberTraceSets(), 0);
    EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
    EXPECT_EQ(isValidTraceSetId(0), 0);
    EXPECT_EQ(getTraceSetStruct(0), nullptr);
    EXPECT_EQ(getTraceSetName(0), nullptr);
    EXPECT_EQ(getTraceSetId("Radio"), -1);
    EXPECT_EQ(getTraceSetId("System"), 255);
    EXPECT_EQ(isValidTraceSetId(255), 1);
  }
};

TEST_F(StartupFailureTest, SemaphoreThatCannotBeOpenedLeavesTheProcessUnstarted) {
  sys::failCall(Call::kSemOpen, 1, EACCES);
  StderrCapture capture;
  EXPECT_EQ(getCurrentNumberTraceSets(), 0);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (initTraceSystem,511): Opening internal semaphore failed "
            "(Permission denied)!\n");
  EXPECT_EQ(g_process.initialised.load(), 0);
  EXPECT_EQ(sharedObjectSize(shmName()), -1);

  // The signals blocked for start-up stay blocked on this path.
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_EQ(sigismember(&mask, SIGTERM), 1);
  EXPECT_EQ(sigismember(&mask, SIGUSR1), 1);

  // The next call tries again, and succeeds.
  EXPECT_EQ(getCurrentNumberTraceSets(), 0);
  EXPECT_EQ(g_process.initialised.load(), 1);
  EXPECT_NE(header(), nullptr);
}

TEST_F(StartupFailureTest, ObjectThatCannotBeOpened) {
  sys::failCall(Call::kShmOpen, 1, EACCES);
  StderrCapture capture;
  getCurrentNumberTraceSets();
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (initSharedMemory,212): Opening shmem failed (Permission denied)!\n");
  EXPECT_EQ(g_process.initialised.load(), 1);  // started all the same
  expectRefusalsWithoutTraceMemory();
  EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(StartupFailureTest, ObjectThatCannotBeCreated) {
  sys::failCall(Call::kShmOpen, 2, EMFILE);  // the first open fails with ENOENT
  StderrCapture capture;
  getCurrentNumberTraceSets();
  EXPECT_EQ(capture.take(), "traceLibLocal.c (initSharedMemory,201): Creating shmem " + shmName() +
                                " failed (Too many open files)!\n");
  expectRefusalsWithoutTraceMemory();
  EXPECT_FALSE(fileExists(sram()));
}

TEST_F(StartupFailureTest, ObjectThatCannotBeResized) {
  sys::failCall(Call::kFtruncate, 1, ENOSPC);
  StderrCapture capture;
  getCurrentNumberTraceSets();
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (initSharedMemory,224): FD resizing failed (No space left on device)!\n");
  expectRefusalsWithoutTraceMemory();
  EXPECT_FALSE(fileExists(sram()));
}

TEST_F(StartupFailureTest, ObjectThatCannotBeMapped) {
  sys::failCall(Call::kMmap, 1, ENOMEM);
  StderrCapture capture;
  getCurrentNumberTraceSets();
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (initSharedMemory,239): Mapping shmem failed(Cannot allocate memory)!\n");
  expectRefusalsWithoutTraceMemory();
  EXPECT_EQ(g_process.base, nullptr);
}

TEST_F(StartupFailureTest, SramFileThatCannotBeCreatedReleasesTheObject) {
  std::filesystem::remove_all(path("/var/log"));
  StderrCapture capture;
  getCurrentNumberTraceSets();
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (createSramFile,299): Error while creating error trace file "
            "(No such file or directory)!\n");
  EXPECT_EQ(sharedObjectSize(shmName()), -1);  // unlinked for the whole node
  EXPECT_EQ(toolLog(), "");                    // no permission change on this path
  expectRefusalsWithoutTraceMemory();
  EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(StartupFailureTest, SeekFailure) {
  sys::failCall(Call::kLseek, 1, EIO);
  StderrCapture capture;
  getCurrentNumberTraceSets();
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (createSramFile,313): Error while seek (Input/output error)\n"
            "retVal == -1\n");
  EXPECT_EQ(toolLog(), sramOwnerCommand(sram()));
  EXPECT_EQ(readFileBytes(sram()).size(), 0u);  // nothing written
  EXPECT_EQ(sharedObjectSize(shmName()), -1);
  expectRefusalsWithoutTraceMemory();
}

// The three writes of the SRAM file, each failing in turn. The messages are
// crossed: the version write names the error trace set, the descriptor write
// the system trace set. A failed version write still lets the descriptor
// write go on (landing at offset 0); the remote descriptor is only written
// when both succeeded.
TEST_F(StartupFailureTest, EachSramWriteFailureHasItsMessage) {
  const struct {
    int nth;
    int error;
    const char* message;
    std::size_t fileSize;
  } cases[] = {
      {1, EIO,
       "traceLibLocal.c (createSramFile,345): Error writing error trace set parameters "
       "(Input/output error)!\n",
       48},
      {2, ENOSPC,
       "traceLibLocal.c (createSramFile,352): Error writing system trace set parameters "
       "(No space left on device)!\n",
       4},
      {3, EIO,
       "traceLibLocal.c (createSramFile,367): Error writing octeon trace set parameters "
       "(Input/output error)!\n",
       52},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.nth);
    TearDown();
    SetUp();
    sys::failCall(Call::kWrite, c.nth, c.error);
    StderrCapture capture;
    getCurrentNumberTraceSets();
    EXPECT_EQ(capture.take(), c.message);
    EXPECT_EQ(readFileBytes(sram()).size(), c.fileSize);
    EXPECT_EQ(sharedObjectSize(shmName()), -1);
    expectRefusalsWithoutTraceMemory();
  }
}

TEST_F(StartupFailureTest, PermissionChangeFailureIsOnlyReported) {
  writeFileText(path("/ffs/run/logs/severityMask.conf"), "0x28\n");
  sys::failCall(Call::kChmod, 1, EPERM);
  StderrCapture capture;
  getCurrentNumberTraceSets();
  EXPECT_EQ(capture.take(),
            "(createSramFile,382): Error changing file permission! (Operation not permitted)\n");
  EXPECT_NE(header(), nullptr);
  EXPECT_EQ(sharedObjectSize(shmName()), 10498048);
  EXPECT_EQ(readSharedObject(shmName()).at(9), 0x28);  // start-up counts as successful
  struct stat status {};
  ASSERT_EQ(stat(sram().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0666u);  // as created under a zero umask
}

TEST_F(StartupFailureTest, AProcessWithoutMemoryDoesNotTouchTheNextCreator) {
  sys::failCall(Call::kMmap, 1, ENOMEM);
  StderrCapture capture;
  getCurrentNumberTraceSets();
  capture.take();
  // The object was created and sized, but its header never initialised: the
  // next process to start opens it as it is.
  const int status = runInChild([] {
    resetProcessStateForTests();
    return getCurrentNumberTraceSets() == 0 && header() != nullptr ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace nt::test
