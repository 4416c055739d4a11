// A private node for each test: file paths under a fresh temporary root, IPC
// names with a private suffix, a recording platform, and helpers to look at
// the shared memory and the files exactly as other processes would.
#pragma once

#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "nodetrace/nodetrace.h"

namespace nt::test {

using Bytes = std::vector<std::uint8_t>;

inline constexpr std::uint32_t kAllCategories = 0xFFFFFFFFu;

// The lock deadline of the tests: NodeTest shortens the real 5 seconds to
// this, so that a test that waits one out does not wait long. A test whose
// processes or threads contend for the lock without ever meaning to wait one
// out calls useRealLockDeadline(): on a loaded machine (sanitizers, the ARM
// build under emulation) a fair wait can pass one second, and a waiter that
// gives up goes on without the lock.
inline constexpr long kTestLockDeadlineMilliseconds = 1000;

class NodeTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The real 5-second lock deadline for the rest of the test (children
  // forked afterwards inherit it).
  static void useRealLockDeadline();

  // A user trace set made by initTraceSet, which must succeed; its id.
  static std::int16_t createSet(const char* name, std::uint32_t type = TS_STRING, std::uint16_t maxEntries = 10,
                                std::uint16_t maxLength = 128, std::uint32_t mask = kAllCategories);

  // A node path ("/var/log/sram") inside this test's root.
  std::string path(std::string_view nodePath) const { return root_ + std::string(nodePath); }
  // The SRAM file of this test's node.
  std::string sram() const { return path("/var/log/sram"); }
  const std::string& shmName() const { return shmName_; }
  const std::string& semaphoreName() const { return semaphoreName_; }
  // What the shell tool stand-ins were asked to do, one line per call.
  std::string toolLog() const;
  // The tool log line of the SRAM file's change of owner at sramPath:
  // "chown <owner> <path>\n" in builds with an owner (NODETRACE_SRAM_OWNER,
  // kvqsw:kvqsw on the node), empty in builds without one.
  static std::string sramOwnerCommand(const std::string& sramPath);

  std::string root_;
  std::string shmName_;
  std::string semaphoreName_;

 private:
  sigset_t savedMask_{};
};

// The whole shared-memory object called name, read through its own mapping
// (empty when it does not exist).
Bytes readSharedObject(const std::string& name);
// Size of the shared-memory object, -1 when it does not exist.
long long sharedObjectSize(const std::string& name);
Bytes readFileBytes(const std::string& path);
std::string readFileText(const std::string& path);
void writeFileText(const std::string& path, std::string_view text);
bool fileExists(const std::string& path);

// The SRAM file as other processes see it: region 0 is "System" (id 255),
// region 1 "NVJ_System" (id 254).
TraceSetStruct readSramDescriptor(const std::string& sramPath, int region);
struct SramEntry {
  TraceEntryHeader header;  // as stored: time stamps big-endian
  Bytes contents;           // all 128 contents bytes of the slot
  std::string text() const;  // contents up to the first zero byte
};
SramEntry readSramEntry(const std::string& sramPath, int region, unsigned slot);

// The descriptor of an SRAM set as start-up and re-creation write it, with
// zero counts.
TraceSetStruct freshSramDescriptor(const char* name, std::uint32_t dataOffset);

// The bytes of a record, to compare records byte for byte.
Bytes bytesOf(const void* record, std::size_t size);

// Little-endian field readers for byte images.
std::uint16_t u16At(const Bytes& bytes, std::size_t offset);
std::uint32_t u32At(const Bytes& bytes, std::size_t offset);

// length characters that differ from their neighbours, so that a cut at
// the wrong place shows.
std::string longText(std::size_t length);
// size contents bytes of a slot holding text, zeros after it.
Bytes textContents(std::string_view text, std::size_t size = 128);

// Redirects the file descriptor of stream (stdout or stderr; also of child
// processes) into a file until take() or destruction. take() flushes the
// stream first and returns every byte written, zero bytes included.
class StreamCapture {
 public:
  explicit StreamCapture(std::FILE* stream);
  ~StreamCapture();
  StreamCapture(const StreamCapture&) = delete;
  StreamCapture& operator=(const StreamCapture&) = delete;
  std::string take();

 private:
  std::FILE* stream_;
  int fd_;
  int savedFd_ = -1;
  int fileFd_ = -1;
};

class StderrCapture : public StreamCapture {
 public:
  StderrCapture() : StreamCapture(stderr) {}
};

class StdoutCapture : public StreamCapture {
 public:
  StdoutCapture() : StreamCapture(stdout) {}
};

// Runs body in a forked child and returns its exit status, or 128 + the
// signal that ended it. The child never returns into the test.
int runInChild(const std::function<int()>& body);

// Forks count children that wait at a common gate, then all run body(index)
// at the same instant. Returns each child's exit status (or 128 + the signal
// that ended it), in index order.
std::vector<int> runChildrenAtOnce(int count, const std::function<int(int)>& body);

// The value of a semaphore (-1 when it cannot be read); without an argument,
// of this process's trace semaphore.
int semaphoreValue(sem_t* semaphore);
int semaphoreValue();

// A child that runs body, reports its one byte through a pipe and then
// sleeps until it is killed. Returns once the byte has arrived (*reported is
// 0 when none came), or -1 when no child could be started.
pid_t startChildThatReports(const std::function<char()>& body, char* reported);

// A child that takes the trace lock and never lets go (its signals stay
// blocked: only SIGKILL ends it). Fails the test unless the child reported
// that it holds the lock.
pid_t startLockHolder();

void killAndReap(pid_t child);

// Counts, from now on, the lock waits of this process that reach their
// deadline (each start-up wait or traceLock that waits a whole deadline
// counts once, twice when it waits it out again). "Waited at most one
// deadline" is checked with this count rather than with a clock, so that a
// loaded machine does not fail it.
void countDeadlines();
int deadlinesPassed();

// The trace lock is free, nobody is recorded as its holder, and the calling
// thread's signal mask is callerMask again.
void expectTraceLockReleased(const sigset_t& callerMask);

// Children that wait at a gate until the parent opens it, so that they start
// their work at the same instant.
class StartGate {
 public:
  StartGate();
  ~StartGate();
  StartGate(const StartGate&) = delete;
  StartGate& operator=(const StartGate&) = delete;
  void wait();  // in a child
  void open();  // in the parent
 private:
  int fds_[2] = {-1, -1};
};

}  // namespace nt::test
