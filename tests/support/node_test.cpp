#include "tests/support/node_test.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/node_names.h"
#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "common/test_points.h"
#include "logbridge/log_file.h"
#include "tests/support/recording_platform.h"
#include "trace/store/startup.h"
#include "trace/store/trace_lock.h"

#ifndef NODETRACE_TEST_TOOLS_DIR
#error "NODETRACE_TEST_TOOLS_DIR must name the directory of the shell tool stand-ins"
#endif

namespace nt::test {

void NodeTest::SetUp() {
  pthread_sigmask(SIG_SETMASK, nullptr, &savedMask_);
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/nodetrace-XXXXXX";
  ASSERT_NE(mkdtemp(pattern.data()), nullptr) << std::strerror(errno);
  root_ = pattern;
  for (const char* dir : {"/var/log", "/ffs/run/logs", "/tmp", "/opt/qmb/etc"}) {
    std::filesystem::create_directories(root_ + dir);
  }
  const std::string suffix = "_" + std::filesystem::path(root_).filename().string();
  ASSERT_TRUE(relocateNodeNames(root_.c_str(), suffix.c_str()));
  shmName_ = nodeNames().shm;
  semaphoreName_ = nodeNames().semaphore;

  // The shell tools the library runs are found through PATH; the stand-ins
  // record their calls in the test root.
  const char* currentPath = std::getenv("PATH");
  const std::string tools = NODETRACE_TEST_TOOLS_DIR;
  if (currentPath == nullptr || std::string_view(currentPath).rfind(tools, 0) != 0) {
    setenv("PATH", (tools + ":" + (currentPath != nullptr ? currentPath : "/usr/bin:/bin")).c_str(), 1);
  }
  setenv("NODETRACE_TEST_TOOL_LOG", (root_ + "/tools.log").c_str(), 1);
  resetPlatformDouble();
  sys::resetSyslogCapture();
  resetLogBridgeForTests();  // its paths follow the node names just set
  setLockDeadlineMillisecondsForTests(kTestLockDeadlineMilliseconds);
}

void NodeTest::useRealLockDeadline() { setLockDeadlineMillisecondsForTests(0); }

std::int16_t NodeTest::createSet(const char* name, std::uint32_t type, std::uint16_t maxEntries,
                                 std::uint16_t maxLength, std::uint32_t mask) {
  std::int16_t id = -1;
  EXPECT_EQ(initTraceSet(name, type, maxEntries, maxLength, mask, &id), 0) << name;
  return id;
}

void NodeTest::TearDown() {
  setTestPointHook(nullptr);
  setLockDeadlineMillisecondsForTests(0);
  resetProcessStateForTests();
  shm_unlink(shmName_.c_str());
  sem_unlink(semaphoreName_.c_str());
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
  restoreNodeNames();
  resetLogBridgeForTests();
  sys::resetSyslogCapture();
  pthread_sigmask(SIG_SETMASK, &savedMask_, nullptr);
}

std::string NodeTest::sramOwnerCommand(const std::string& sramPath) {
  const std::string owner = NODETRACE_SRAM_OWNER;
  return owner.empty() ? std::string() : "chown " + owner + " " + sramPath + "\n";
}

std::string NodeTest::toolLog() const {
  return fileExists(root_ + "/tools.log") ? readFileText(root_ + "/tools.log") : std::string();
}

Bytes readSharedObject(const std::string& name) {
  const int fd = shm_open(name.c_str(), O_RDONLY, 0);
  if (fd == -1) return {};
  struct stat status {};
  fstat(fd, &status);
  Bytes bytes(static_cast<std::size_t>(status.st_size));
  if (!bytes.empty()) {
    void* map = mmap(nullptr, bytes.size(), PROT_READ, MAP_SHARED, fd, 0);
    if (map != MAP_FAILED) {
      std::memcpy(bytes.data(), map, bytes.size());
      munmap(map, bytes.size());
    }
  }
  close(fd);
  return bytes;
}

long long sharedObjectSize(const std::string& name) {
  const int fd = shm_open(name.c_str(), O_RDONLY, 0);
  if (fd == -1) return -1;
  struct stat status {};
  fstat(fd, &status);
  close(fd);
  return static_cast<long long>(status.st_size);
}

Bytes readFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string readFileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFileText(const std::string& path, std::string_view text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

bool fileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

TraceSetStruct readSramDescriptor(const std::string& sramPath, int region) {
  const Bytes file = readFileBytes(sramPath);
  const std::size_t offset = region == 0 ? TRACE_SRAM_SYSTEM_DESCRIPTOR_OFFSET : TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET;
  TraceSetStruct descriptor{};
  if (file.size() >= offset + sizeof descriptor) std::memcpy(&descriptor, file.data() + offset, sizeof descriptor);
  return descriptor;
}

std::string SramEntry::text() const {
  const auto end = std::find(contents.begin(), contents.end(), 0);
  return std::string(contents.begin(), end);
}

SramEntry readSramEntry(const std::string& sramPath, int region, unsigned slot) {
  const Bytes file = readFileBytes(sramPath);
  const std::size_t offset = (region == 0 ? TRACE_SRAM_SYSTEM_DATA_OFFSET : TRACE_SRAM_REMOTE_DATA_OFFSET) +
                             static_cast<std::size_t>(slot) * TRACE_SRAM_SLOT_SIZE;
  SramEntry entry{};
  if (file.size() >= offset + TRACE_SRAM_SLOT_SIZE) {
    std::memcpy(&entry.header, file.data() + offset, sizeof entry.header);
    entry.contents.assign(file.begin() + static_cast<long>(offset + 80),
                          file.begin() + static_cast<long>(offset + TRACE_SRAM_SLOT_SIZE));
  }
  return entry;
}

TraceSetStruct freshSramDescriptor(const char* name, std::uint32_t dataOffset) {
  TraceSetStruct d{};
  std::memcpy(d.name, name, strnlen(name, sizeof d.name));  // zero-padded by d{}
  d.type = TS_STRING;
  d.categoryMask = 0xFFFFFFFFu;
  d.maxNumberEntries = 738;
  d.traceEntryContentsLength = 128;
  d.creatorPid = static_cast<std::uint32_t>(getpid());
  d.dataOffset = dataOffset;
  return d;
}

Bytes bytesOf(const void* record, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(record);
  return Bytes(bytes, bytes + size);
}

std::uint16_t u16At(const Bytes& bytes, std::size_t offset) {
  return static_cast<std::uint16_t>(bytes.at(offset) | bytes.at(offset + 1) << 8);
}

std::uint32_t u32At(const Bytes& bytes, std::size_t offset) {
  return static_cast<std::uint32_t>(bytes.at(offset)) |
         static_cast<std::uint32_t>(bytes.at(offset + 1)) << 8 |
         static_cast<std::uint32_t>(bytes.at(offset + 2)) << 16 |
         static_cast<std::uint32_t>(bytes.at(offset + 3)) << 24;
}

std::string longText(std::size_t length) {
  static constexpr std::string_view kAlphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  std::string text;
  for (std::size_t i = 0; i < length; ++i) text += kAlphabet[i % kAlphabet.size()];
  return text;
}

Bytes textContents(std::string_view text, std::size_t size) {
  Bytes contents(size, 0);
  std::memcpy(contents.data(), text.data(), std::min(text.size(), size));
  return contents;
}

StreamCapture::StreamCapture(std::FILE* stream) : stream_(stream), fd_(fileno(stream)) {
  std::fflush(stream_);
  char name[] = "/tmp/nodetrace-capture-XXXXXX";
  fileFd_ = mkstemp(name);
  unlink(name);
  savedFd_ = dup(fd_);
  dup2(fileFd_, fd_);
}

StreamCapture::~StreamCapture() { take(); }

std::string StreamCapture::take() {
  if (savedFd_ == -1) return {};
  std::fflush(stream_);
  dup2(savedFd_, fd_);
  close(savedFd_);
  savedFd_ = -1;
  std::string text;
  lseek(fileFd_, 0, SEEK_SET);
  char buffer[4096];
  ssize_t n = 0;
  while ((n = read(fileFd_, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<std::size_t>(n));
  close(fileFd_);
  fileFd_ = -1;
  return text;
}

namespace {

[[noreturn]] void runAndExit(const std::function<int()>& body) {
  int code = 99;
  try {
    code = body();
  } catch (...) {
  }
  std::fflush(nullptr);
  _exit(code);
}

int waitForChild(pid_t pid) {
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

}  // namespace

int runInChild(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) runAndExit(body);
  return waitForChild(pid);
}

std::vector<int> runChildrenAtOnce(int count, const std::function<int(int)>& body) {
  StartGate gate;
  std::vector<pid_t> children;
  std::fflush(nullptr);
  for (int index = 0; index < count; ++index) {
    const pid_t pid = fork();
    if (pid == 0) {
      gate.wait();
      runAndExit([&] { return body(index); });
    }
    children.push_back(pid);
  }
  gate.open();
  std::vector<int> statuses;
  for (const pid_t pid : children) statuses.push_back(waitForChild(pid));
  return statuses;
}

StartGate::StartGate() {
  if (pipe(fds_) != 0) fds_[0] = fds_[1] = -1;
}

StartGate::~StartGate() {
  for (int fd : fds_) {
    if (fd >= 0) close(fd);
  }
}

void StartGate::wait() {
  close(fds_[1]);
  fds_[1] = -1;
  char byte = 0;
  // Returns at end of file, when the parent closes its end.
  while (read(fds_[0], &byte, 1) > 0) {
  }
}

void StartGate::open() {
  close(fds_[1]);
  fds_[1] = -1;
}

int semaphoreValue(sem_t* semaphore) {
  int value = -1;
  sem_getvalue(semaphore, &value);
  return value;
}

int semaphoreValue() { return semaphoreValue(g_process.semaphore); }

pid_t startChildThatReports(const std::function<char()>& body, char* reported) {
  int ready[2];
  if (pipe(ready) != 0) return -1;
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    close(ready[0]);
    const char byte = body();
    if (write(ready[1], &byte, 1) != 1) _exit(2);
    for (;;) pause();
  }
  close(ready[1]);
  if (read(ready[0], reported, 1) != 1) *reported = 0;
  close(ready[0]);
  return child;
}

pid_t startLockHolder() {
  char reported = 0;
  const pid_t child = startChildThatReports(
      [] {
        sigset_t saved;
        return traceLock(g_process.semaphore, "traceMutex", &saved) == 0 ? 'L' : 'X';
      },
      &reported);
  EXPECT_EQ(reported, 'L');
  return child;
}

namespace {
std::atomic<int> g_deadlinesPassed{0};
void countDeadline(TestPoint point) {
  if (point == TestPoint::kLockDeadlinePassed) ++g_deadlinesPassed;
}
}  // namespace

void countDeadlines() {
  g_deadlinesPassed = 0;
  setTestPointHook(countDeadline);
}

int deadlinesPassed() { return g_deadlinesPassed.load(); }

void killAndReap(pid_t child) {
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

void expectTraceLockReleased(const sigset_t& callerMask) {
  EXPECT_EQ(semaphoreValue(), 1);
  EXPECT_EQ(loadShared(&header()->lockHolderTid), 0);
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    EXPECT_EQ(sigismember(&mask, signal), sigismember(&callerMask, signal)) << "signal " << signal;
  }
}

}  // namespace nt::test
