// Capture of the journal: the file named after the reset counter, the five
// newest journal files kept, nothing at all for a counter of 0, and shells
// that cannot be started. journalctl is a stand-in (tests/support/bin).
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "common/syscalls.h"
#include "tests/support/recording_platform.h"
#include "tests/trace/store_fixture.h"

namespace nt::test {
namespace {

using sys::Call;

constexpr const char* kJournal = "-- Journal begins --\nnode kernel: started\n";

class JournalTest : public StoreTest {
 protected:
  // Start-up has run its own tools already; only the capture's count.
  void SetUp() override {
    StoreTest::SetUp();
    std::filesystem::remove(root_ + "/tools.log");
  }

  // A file in the logs directory, last written `age` seconds ago.
  void oldFile(const std::string& name, int age) const {
    writeFileText(logs(name), "old " + name);
    std::filesystem::last_write_time(logs(name),
                                     std::filesystem::file_time_type::clock::now() - std::chrono::seconds(age));
  }

  std::vector<std::string> logFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(logs())) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
};

TEST_F(JournalTest, TheJournalGoesToAFileNamedAfterTheResetCounter) {
  setResetCount(7);
  EXPECT_EQ(dumpJournalLogs(), 0);
  EXPECT_EQ(readFileText(logs("JournalLog.7")), kJournal);
  EXPECT_EQ(toolLog(), "journalctl -b\n");
  const std::vector<PlatformCall> calls = platformCalls("getResetCnt");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].numbers, (std::vector<long long>{0}));
}

TEST_F(JournalTest, OnlyTheFiveNewestJournalFilesRemain) {
  for (int k = 1; k <= 6; ++k) oldFile("JournalLog." + std::to_string(k), 100 - k);
  oldFile("TraceLog.1", 500);
  setResetCount(7);
  EXPECT_EQ(dumpJournalLogs(), 0);
  EXPECT_EQ(logFiles(), (std::vector<std::string>{"JournalLog.3", "JournalLog.4", "JournalLog.5", "JournalLog.6",
                                                  "JournalLog.7", "TraceLog.1"}));
  EXPECT_EQ(readFileText(logs("JournalLog.7")), kJournal);
}

TEST_F(JournalTest, ThePatternCountsEveryNameThatContainsJournalLo) {
  // "JournalLog*" is a regular expression: "JournalLo" and any number of g.
  oldFile("MyJournalLoad.txt", 50);
  for (int k = 1; k <= 4; ++k) oldFile("JournalLog." + std::to_string(k), 100 - k);
  setResetCount(5);
  EXPECT_EQ(dumpJournalLogs(), 0);
  EXPECT_EQ(logFiles(), (std::vector<std::string>{"JournalLog.2", "JournalLog.3", "JournalLog.4", "JournalLog.5",
                                                  "MyJournalLoad.txt"}));
}

TEST_F(JournalTest, AResetCounterOf0DoesNothing) {
  EXPECT_EQ(dumpJournalLogs(), 0);
  EXPECT_TRUE(logFiles().empty());
  EXPECT_EQ(toolLog(), "");
}

TEST_F(JournalTest, ANegativeCounterNamesTheFileAsItIs) {
  setResetCount(-3);
  EXPECT_EQ(dumpJournalLogs(), 0);
  EXPECT_EQ(readFileText(logs("JournalLog.-3")), kJournal);
}

TEST_F(JournalTest, AShellThatCannotBeStartedForTheJournalIsRecorded) {
  setResetCount(7);
  const TraceSetStruct before = errorSet();
  sys::failCall(Call::kSystem, 1, EAGAIN);
  EXPECT_EQ(dumpJournalLogs(), 0);
  expectOneLibraryRecordSince(before, 2296, "(dumpJournalLogs) Writing Journal Log to a file Failed: 11 (Resource temporarily unavailable)");
  EXPECT_FALSE(fileExists(logs("JournalLog.7")));
  EXPECT_EQ(toolLog(), "");
}

TEST_F(JournalTest, AShellThatCannotBeStartedForTheRemovalIsRecorded) {
  for (int k = 1; k <= 6; ++k) oldFile("JournalLog." + std::to_string(k), 100 - k);
  setResetCount(7);
  const TraceSetStruct before = errorSet();
  sys::failCall(Call::kSystem, 2, ENOMEM);
  EXPECT_EQ(dumpJournalLogs(), 0);
  expectOneLibraryRecordSince(before, 2307, "(dumpJournalLogs) Removing older Jounal logs Failed 12 (Cannot allocate memory)");
  EXPECT_EQ(logFiles().size(), 7u);
}

TEST_F(JournalTest, WhatRecordingTheFailureReturnsIsReturned) {
  // The error trace set cannot be opened either: recording gives -6.
  setResetCount(7);
  for (int failing : {1, 2}) {
    SCOPED_TRACE(failing);
    sys::failCall(Call::kSystem, failing, EAGAIN);
    sys::failCall(Call::kOpen, 1, EACCES);
    StderrCapture err;
    EXPECT_EQ(dumpJournalLogs(), TRACE_RC_FILE_ERROR);
    EXPECT_NE(err.take().find("File access error (Permission denied)"), std::string::npos);
  }
}

}  // namespace
}  // namespace nt::test
