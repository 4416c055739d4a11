#include "tests/tool/tool_test.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>

extern char** environ;

#ifndef NODETRACE_TOOL_PROGRAM
#error "NODETRACE_TOOL_PROGRAM must name the tool program built for test nodes"
#endif
#ifndef NODETRACE_TOOL_EMULATOR
#define NODETRACE_TOOL_EMULATOR ""
#endif

namespace nt::test {

namespace {

int anonymousFile() {
  char name[] = "/tmp/nodetrace-tool-XXXXXX";
  const int fd = mkstemp(name);
  if (fd != -1) unlink(name);
  return fd;
}

std::string readAll(int fd) {
  std::string text;
  lseek(fd, 0, SEEK_SET);
  char buffer[4096];
  ssize_t n = 0;
  while ((n = read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<std::size_t>(n));
  return text;
}

int statusOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// Starts the tool with stdout and stderr on the given descriptors and
// standard input from /dev/null. A tool without file privileges runs as a
// user that the permission bits of the node's files apply to: as root it
// loses the capabilities that override them (a test run as root would
// otherwise pass every permission check); as any other user it is one
// already.
pid_t spawnTool(const std::vector<std::string>& environment, const std::vector<std::string>& arguments, int outFd,
                int errFd, bool withoutFilePrivileges = false) {
  // The emulator's words first, if the tool needs one.
  std::vector<std::string> argumentStore;
  const std::string_view emulator = NODETRACE_TOOL_EMULATOR;
  for (std::size_t start = 0; start < emulator.size();) {
    const std::size_t end = std::min(emulator.find('|', start), emulator.size());
    argumentStore.emplace_back(emulator.substr(start, end - start));
    start = end + 1;
  }
  argumentStore.emplace_back(NODETRACE_TOOL_PROGRAM);
  argumentStore.insert(argumentStore.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& argument : argumentStore) argv.push_back(argument.data());
  argv.push_back(nullptr);
  std::vector<std::string> environmentStore = environment;
  std::vector<char*> envp;
  for (std::string& variable : environmentStore) envp.push_back(variable.data());
  envp.push_back(nullptr);

  if (withoutFilePrivileges) {
    const pid_t child = fork();
    if (child == 0) {
      for (const int capability : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER}) {
        prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);  // refused without the right to: nothing to drop then
      }
      const int in = open("/dev/null", O_RDONLY);
      dup2(in, 0);
      dup2(outFd, 1);
      dup2(errFd, 2);
      sigset_t none;
      sigemptyset(&none);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      execve(argv[0], argv.data(), envp.data());
      _exit(127);
    }
    EXPECT_GT(child, 0) << std::strerror(errno);
    return child;
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outFd, 1);
  posix_spawn_file_actions_adddup2(&actions, errFd, 2);
  // The tool starts with default signal handling and an empty signal mask,
  // whatever the test process has blocked.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  sigset_t all;
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), envp.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_EQ(rc, 0) << std::strerror(rc);
  return rc == 0 ? pid : -1;
}

}  // namespace

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

RunningTool::RunningTool(const std::vector<std::string>& environment, const std::vector<std::string>& arguments) {
  int fds[2] = {-1, -1};
  if (pipe2(fds, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe: " << std::strerror(errno);
    return;
  }
  errFd_ = anonymousFile();
  pid_ = spawnTool(environment, arguments, fds[1], errFd_);
  close(fds[1]);
  outFd_ = fds[0];
}

RunningTool::~RunningTool() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
  }
  if (outFd_ != -1) close(outFd_);
  if (errFd_ != -1) close(errFd_);
}

std::optional<std::string> RunningTool::readLine(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    const std::size_t end = pending_.find('\n');
    if (end != std::string::npos) {
      std::string line = pending_.substr(0, end);
      pending_.erase(0, end + 1);
      return line;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || outFd_ == -1) return std::nullopt;
    pollfd ready{outFd_, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(left.count())) <= 0) continue;
    char buffer[4096];
    const ssize_t n = read(outFd_, buffer, sizeof buffer);
    if (n <= 0) return std::nullopt;  // the tool closed its output
    pending_.append(buffer, static_cast<std::size_t>(n));
  }
}

void RunningTool::signal(int number) const {
  if (pid_ > 0) kill(pid_, number);
}

ToolResult RunningTool::finish() {
  ToolResult result;
  if (pid_ <= 0) return result;
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  result.status = statusOf(status);
  result.out = pending_;
  pending_.clear();
  char buffer[4096];
  ssize_t n = 0;
  while ((n = read(outFd_, buffer, sizeof buffer)) > 0) result.out.append(buffer, static_cast<std::size_t>(n));
  result.err = readAll(errFd_);
  return result;
}

std::vector<std::string> ToolTest::toolEnvironment() const {
  std::vector<std::string> environment;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string_view text(*variable);
    if (text.rfind("NODETRACE_TEST_ROOT=", 0) == 0 || text.rfind("NODETRACE_TEST_IPC_SUFFIX=", 0) == 0) continue;
    environment.emplace_back(text);
  }
  // The suffix the fixture gave this test's IPC names.
  environment.push_back("NODETRACE_TEST_ROOT=" + root_);
  environment.push_back("NODETRACE_TEST_IPC_SUFFIX=_" + std::filesystem::path(root_).filename().string());
  return environment;
}

ToolResult ToolTest::runTool(const std::vector<std::string>& arguments) const {
  return runTool(arguments, false);
}

ToolResult ToolTest::runToolWithoutFilePrivileges(const std::vector<std::string>& arguments) const {
  return runTool(arguments, true);
}

ToolResult ToolTest::runTool(const std::vector<std::string>& arguments, bool withoutFilePrivileges) const {
  ToolResult result;
  const int outFd = anonymousFile();
  const int errFd = anonymousFile();
  const pid_t pid = spawnTool(toolEnvironment(), arguments, outFd, errFd, withoutFilePrivileges);
  if (pid > 0) {
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = statusOf(status);
  }
  result.out = readAll(outFd);
  result.err = readAll(errFd);
  close(outFd);
  close(errFd);
  return result;
}

}  // namespace nt::test
