// End-to-end tests of the nodetrace tool: a relocated test node with a
// started trace system (StoreTest), the real tool program run as a child
// process on that node, and its output taken line by line.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tests/trace/store_fixture.h"

namespace nt::test {

struct ToolResult {
  int status = -1;  // exit status, or 128 + the signal that ended the tool
  std::string out;
  std::string err;
};

// The lines of text, without their line ends.
std::vector<std::string> linesOf(const std::string& text);

// The tool running in the background, its standard output read through a
// pipe as it comes, its standard error collected in a file.
class RunningTool {
 public:
  RunningTool(const std::vector<std::string>& environment, const std::vector<std::string>& arguments);
  ~RunningTool();
  RunningTool(const RunningTool&) = delete;
  RunningTool& operator=(const RunningTool&) = delete;

  // The next line of standard output, or nothing when none came in time.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  void signal(int number) const;
  // Waits for the end of the tool: its status, the rest of its standard
  // output and all of its standard error.
  ToolResult finish();

 private:
  pid_t pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  std::string pending_;
};

class ToolTest : public StoreTest {
 protected:
  // Runs the tool with arguments to its end.
  ToolResult runTool(const std::vector<std::string>& arguments) const;
  // The same as a user whom the permission bits of the node's files bind
  // (also when the test runs as root).
  ToolResult runToolWithoutFilePrivileges(const std::vector<std::string>& arguments) const;
  // The environment that moves the tool to this test's node.
  std::vector<std::string> toolEnvironment() const;
  // Where users see this node's shared-memory object and semaphore.
  std::string shmPath() const { return "/dev/shm" + shmName(); }
  std::string semaphorePath() const { return "/dev/shm/sem." + semaphoreName(); }

 private:
  ToolResult runTool(const std::vector<std::string>& arguments, bool withoutFilePrivileges) const;
};

}  // namespace nt::test
