// Every command of the tool on a node whose trace system cannot start for
// the user: one line naming the object and the fix, status 1, nothing on
// standard output, and the node left as it was.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/tool/tool_test.h"

namespace nt::test {
namespace {

class StartupTest : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    createSet("Radio", TS_STRING, 16, 128);
  }

  // Each command of the tool that works on the node.
  std::vector<std::vector<std::string>> commands() const {
    return {{"sets"},
            {"show"},
            {"show", "Radio"},
            {"follow"},
            {"severity"},
            {"severity", "+DBG"},
            {"mask", "Radio"},
            {"enable", "why"},
            {"disable", "why"},
            {"clear", "Radio"},
            {"write", "Radio", "INF", "x"},
            {"write", "--create", "Other", "INF", "x"},
            {"create", "Other"},
            {"dump", root_ + "/x.dump"},
            {"dump-before-reset", root_ + "/y.dump"}};
  }

  void expectEveryCommandSays(const std::string& line) const {
    for (const std::vector<std::string>& command : commands()) {
      const ToolResult result = runToolWithoutFilePrivileges(command);
      EXPECT_EQ(result.status, 1) << command[0];
      EXPECT_EQ(result.out, "") << command[0];
      EXPECT_EQ(result.err, "nodetrace: the trace system cannot start: " + line + "\n") << command[0];
    }
    EXPECT_FALSE(fileExists(root_ + "/x.dump"));
    EXPECT_FALSE(fileExists(root_ + "/y.dump"));
  }

  // The node before its first start: no shared-memory object yet.
  void forgetTheSharedMemory() const { ASSERT_EQ(shm_unlink(shmName().c_str()), 0); }
};

TEST_F(StartupTest, ASemaphoreTheUserMayNotUse) {
  ASSERT_EQ(chmod(semaphorePath().c_str(), 0444), 0);
  expectEveryCommandSays("no permission for the trace semaphore " + semaphorePath() +
                         " (Permission denied); run nodetrace as its owner or group (ls -l " + semaphorePath() +
                         ") or as root");
  EXPECT_EQ(getSeverityFilter(), 0xE8);
}

TEST_F(StartupTest, ASharedMemoryObjectTheUserMayNotUse) {
  ASSERT_EQ(chmod(shmPath().c_str(), 0444), 0);
  expectEveryCommandSays("no permission for the shared-memory object " + shmPath() +
                         " (Permission denied); run nodetrace as its owner or group (ls -l " + shmPath() +
                         ") or as root");
  EXPECT_EQ(descriptor(0).totalNumberEntries, 0u);
}

TEST_F(StartupTest, AnSramFileTheUserMayNotUse) {
  ASSERT_EQ(chmod(sram().c_str(), 0444), 0);
  expectEveryCommandSays("no permission for the SRAM file " + sram() + " (Permission denied); run nodetrace as its "
                         "owner or group (ls -l " + sram() + ") or as root");
}

TEST_F(StartupTest, AMissingDirectoryOfTheSramFile) {
  forgetTheSharedMemory();
  std::filesystem::remove_all(path("/var/log"));
  expectEveryCommandSays("the directory " + path("/var/log") + " of the SRAM file " + sram() +
                         " does not exist; create it (mkdir -p " + path("/var/log") + ")");
  // Nothing was started: the library was not called.
  EXPECT_FALSE(fileExists(shmPath()));
}

TEST_F(StartupTest, ADirectoryOfTheSramFileTheUserMayNotWrite) {
  forgetTheSharedMemory();
  ASSERT_EQ(std::remove(sram().c_str()), 0);
  ASSERT_EQ(chmod(path("/var/log").c_str(), 0555), 0);
  expectEveryCommandSays("no permission for the directory of the SRAM file " + path("/var/log") +
                         " (Permission denied); run nodetrace as its owner or group (ls -l " + path("/var/log") +
                         ") or as root");
  chmod(path("/var/log").c_str(), 0755);
  EXPECT_FALSE(fileExists(shmPath()));
}

TEST_F(StartupTest, ASharedMemoryObjectWithoutHeader) {
  // A start that created the object and ended before it wrote the header.
  forgetTheSharedMemory();
  const int fd = shm_open(shmName().c_str(), O_RDWR | O_CREAT | O_EXCL, 0664);
  ASSERT_NE(fd, -1);
  close(fd);
  expectEveryCommandSays("the node is half set up: the shared-memory object " + shmPath() +
                         " has no trace header (a start that did not finish); remove it (rm " + shmPath() +
                         ") and run again");
}

TEST_F(StartupTest, AFreshNodeStartsFromTheTool) {
  // Nothing there yet is no failure: the first command starts the node.
  forgetTheSharedMemory();
  const ToolResult result = runToolWithoutFilePrivileges({"severity"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "ERR WAR INF NOT (0xE8)\n");
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(fileExists(shmPath()));
}

TEST_F(StartupTest, DecodeNeedsNoNode) {
  ASSERT_EQ(chmod(shmPath().c_str(), 0444), 0);
  const ToolResult result = runToolWithoutFilePrivileges({"decode", root_ + "/none.bin"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err.find("the trace system cannot start"), std::string::npos) << result.err;
}

}  // namespace
}  // namespace nt::test
