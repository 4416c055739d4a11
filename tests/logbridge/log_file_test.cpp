// The local log file of the log bridge: the four log modes, the line counter
// and its size checks every 20 lines, the truncation at 51200 bytes that
// keeps the last 200 lines in the tail file, flushHBKLogFile, the two
// syslog reports, and writers in several threads and processes.
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "common/node_names.h"
#include "common/syscalls.h"
#include "logbridge/log_file.h"
#include "nodetrace/logbridge.h"
#include "tests/support/node_test.h"

namespace nt::test {
namespace {

using sys::Call;
using sys::SyslogRecord;

// An old log of exactly size bytes: lines of 100 bytes, the last one shorter
// when size is not a multiple of 100 (at least 2 bytes then).
std::string oldLog(std::size_t size, std::size_t lineBytes = 100) {
  std::string text;
  for (std::size_t number = 0; text.size() < size; ++number) {
    std::string line = "old " + std::to_string(number) + " ";
    const std::size_t bytes = std::min(lineBytes, size - text.size());
    line.resize(bytes - 1, '.');
    text += line + "\n";
  }
  return text;
}

// The last count lines of text, which ends with a line end (all of them if
// it has fewer).
std::string lastLines(const std::string& text, std::size_t count) {
  std::size_t start = text.size();
  for (std::size_t n = 0; n < count && start > 0; ++n) {
    const std::size_t previous = start >= 2 ? text.rfind('\n', start - 2) : std::string::npos;
    start = previous == std::string::npos ? 0 : previous + 1;
  }
  return text.substr(start);
}

std::size_t lineCount(const std::string& text) {
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

// Ten bytes each in the file: "line 0007\n".
std::string numberedLine(int number) {
  char text[16];
  std::snprintf(text, sizeof text, "line %04d", number);
  return text;
}

class LogFileTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    sys::captureSyslog(true);
  }

  std::string logFile() const { return path("/opt/qmb/etc/hbk_log.txt"); }
  std::string tailFile() const { return path("/opt/qmb/etc/hbk_log.txt_tmp"); }
  std::string note() const { return "File is truncated - For OLD logs check " + tailFile() + "\n"; }

  // Writes lines first .. first + count - 1 and returns what they add to
  // the file.
  static std::string writeLines(int first, int count) {
    std::string written;
    for (int number = first; number < first + count; ++number) {
      writeHBKLogLine(numberedLine(number).c_str());
      written += numberedLine(number) + "\n";
    }
    return written;
  }

  static long long sizeOf(const std::string& file) {
    struct stat status {};
    return ::stat(file.c_str(), &status) == 0 ? static_cast<long long>(status.st_size) : -1;
  }
};

TEST_F(LogFileTest, DefaultPathsAreTheRelocatedNodeNames) {
  EXPECT_EQ(TMGR_HBK_LOG_FILE_NAME, nodeNames().hbkLog);
  EXPECT_EQ(TMGR_HBK_LOG_FILE_NAME_TMP, nodeNames().hbkLogTmp);
  EXPECT_EQ(std::string(TMGR_HBK_LOG_FILE_NAME), root_ + "/opt/qmb/etc/hbk_log.txt");
  EXPECT_EQ(std::string(TMGR_HBK_LOG_FILE_NAME_TMP), root_ + "/opt/qmb/etc/hbk_log.txt_tmp");

  // The same pointers name the compiled-in paths once the relocation ends.
  restoreNodeNames();
  const std::string compiled = TMGR_HBK_LOG_FILE_NAME;
  const std::string compiledTail = TMGR_HBK_LOG_FILE_NAME_TMP;
  ASSERT_TRUE(relocateNodeNames(root_.c_str(), "_again"));
  EXPECT_TRUE(compiled.ends_with("/opt/qmb/etc/hbk_log.txt")) << compiled;
  EXPECT_TRUE(compiledTail.ends_with("/opt/qmb/etc/hbk_log.txt_tmp")) << compiledTail;
  EXPECT_FALSE(compiled.starts_with(root_));
  EXPECT_EQ(std::string(TMGR_HBK_LOG_FILE_NAME), root_ + "/opt/qmb/etc/hbk_log.txt");
}

TEST_F(LogFileTest, ModeOneAppendsEachLineWithALineEnd) {
  writeFileText(logFile(), "earlier\n");
  StdoutCapture out;
  writeHBKLogLine("first line");
  writeHBKLogLine("");
  writeHBKLogLine("third");
  EXPECT_EQ(out.take(), "");
  EXPECT_EQ(readFileText(logFile()), "earlier\nfirst line\n\nthird\n");
  EXPECT_EQ(hbkLogLineCounter(), 4);
}

TEST_F(LogFileTest, ModeZeroWritesToStandardOutputOnly) {
  setHBKLogMode(0);
  StdoutCapture out;
  writeHBKLogLine("to standard output");
  writeHBKLogLine("again");
  EXPECT_EQ(out.take(), "to standard output\nagain\n");
  EXPECT_FALSE(fileExists(logFile()));
  EXPECT_EQ(hbkLogLineCounter(), 1);
}

TEST_F(LogFileTest, ModeTwoWritesTheFileAndStandardOutput) {
  setHBKLogMode(2);
  StdoutCapture out;
  writeHBKLogLine("both places");
  writeHBKLogLine("twice");
  EXPECT_EQ(out.take(), "both places\ntwice\n");
  EXPECT_EQ(readFileText(logFile()), "both places\ntwice\n");
  EXPECT_EQ(hbkLogLineCounter(), 3);
}

TEST_F(LogFileTest, ModesThreeAndAboveWriteNothingAndLeaveTheCounter) {
  for (std::uint32_t mode : {3u, 4u, 1000u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(mode);
    setHBKLogMode(mode);
    StdoutCapture out;
    writeHBKLogLine("dropped");
    EXPECT_EQ(out.take(), "");
    EXPECT_FALSE(fileExists(logFile()));
    EXPECT_EQ(hbkLogLineCounter(), 1);
  }
  EXPECT_TRUE(sys::capturedSyslog().empty());
}

TEST_F(LogFileTest, DroppedLinesDoNotMoveTheSizeCheck) {
  const std::string old = oldLog(51200);
  writeFileText(logFile(), old);
  std::string written = writeLines(1, 19);
  setHBKLogMode(3);
  writeLines(100, 5);
  setHBKLogMode(0);
  StdoutCapture out;
  const std::string printed = writeLines(200, 5);
  EXPECT_EQ(out.take(), printed);
  EXPECT_EQ(readFileText(logFile()), old + written);

  setHBKLogMode(1);
  written += writeLines(20, 1);  // the 20th line written to the file
  EXPECT_EQ(readFileText(logFile()), note());
  EXPECT_EQ(readFileText(tailFile()), lastLines(old + written, 200));
}

TEST_F(LogFileTest, FirstSizeCheckComesWithTheTwentiethLine) {
  const std::string old = oldLog(51200);
  writeFileText(logFile(), old);

  std::string written = writeLines(1, 19);
  EXPECT_EQ(hbkLogLineCounter(), 20);
  EXPECT_EQ(sizeOf(logFile()), 51200 + 190);
  EXPECT_FALSE(fileExists(tailFile()));

  written += writeLines(20, 1);
  EXPECT_EQ(readFileText(logFile()), note());
  const std::string tail = readFileText(tailFile());
  EXPECT_EQ(lineCount(tail), 200u);
  EXPECT_EQ(tail, lastLines(old + written, 200));
  EXPECT_TRUE(tail.starts_with("old 332 ...")) << tail.substr(0, 100);  // 512 + 20 lines, last 200
  EXPECT_TRUE(tail.ends_with("line 0019\nline 0020\n"));
  EXPECT_EQ(hbkLogLineCounter(), 1);  // set to 0, raised by the same line
  EXPECT_TRUE(sys::capturedSyslog().empty());
}

TEST_F(LogFileTest, FileOf51199BytesIsNotTruncated) {
  const std::string old = oldLog(50999);
  ASSERT_EQ(old.size(), 50999u);
  writeFileText(logFile(), old);
  const std::string written = writeLines(1, 20);  // 51199 bytes at the check
  EXPECT_EQ(readFileText(logFile()), old + written);
  EXPECT_FALSE(fileExists(tailFile()));
  EXPECT_EQ(hbkLogLineCounter(), 21);
}

TEST_F(LogFileTest, FileOf51200BytesIsTruncated) {
  const std::string old = oldLog(51000);
  writeFileText(logFile(), old);
  const std::string written = writeLines(1, 20);  // 51200 bytes at the check
  EXPECT_EQ(readFileText(logFile()), note());
  EXPECT_EQ(readFileText(tailFile()), lastLines(old + written, 200));
  EXPECT_EQ(hbkLogLineCounter(), 1);
}

TEST_F(LogFileTest, TailHoldsTheWholeLogWhenItHasFewerThan200Lines) {
  const std::string old = oldLog(52000, 400);  // 130 lines
  ASSERT_EQ(lineCount(old), 130u);
  writeFileText(logFile(), old);
  const std::string written = writeLines(1, 20);
  EXPECT_EQ(readFileText(tailFile()), old + written);
  EXPECT_EQ(lineCount(readFileText(tailFile())), 150u);
  EXPECT_EQ(readFileText(logFile()), note());
}

TEST_F(LogFileTest, TruncationReplacesTheOldTail) {
  writeFileText(tailFile(), "an older tail that is much longer than the new one\n");
  const std::string old = oldLog(52000, 400);
  writeFileText(logFile(), old);
  const std::string written = writeLines(1, 20);
  EXPECT_EQ(readFileText(tailFile()), old + written);
}

TEST_F(LogFileTest, NextCheckAfterATruncationComesTwentyLinesLater) {
  writeFileText(logFile(), oldLog(51200));
  writeLines(1, 20);
  ASSERT_EQ(readFileText(logFile()), note());

  // The file is big again at once; the truncating line counted as line 1.
  const std::string old = oldLog(60000);
  writeFileText(logFile(), old);
  std::string written = writeLines(21, 19);
  EXPECT_EQ(readFileText(logFile()), old + written);
  EXPECT_EQ(hbkLogLineCounter(), 20);

  written += writeLines(40, 1);
  EXPECT_EQ(readFileText(logFile()), note());
  EXPECT_EQ(readFileText(tailFile()), lastLines(old + written, 200));
}

TEST_F(LogFileTest, NextCheckAfterASmallFileComesTwentyLinesLater) {
  writeLines(1, 20);  // a check that finds 200 bytes
  EXPECT_EQ(hbkLogLineCounter(), 21);

  const std::string old = oldLog(51200);
  writeFileText(logFile(), old);
  std::string written = writeLines(21, 19);
  EXPECT_EQ(readFileText(logFile()), old + written);
  EXPECT_FALSE(fileExists(tailFile()));

  written += writeLines(40, 1);
  EXPECT_EQ(readFileText(logFile()), note());
  EXPECT_EQ(readFileText(tailFile()), lastLines(old + written, 200));
}

TEST_F(LogFileTest, UnopenableLogFileStillTakesItsSizeOnSchedule) {
  const std::string missing = root_ + "/missing/hbk_log.txt";
  TMGR_HBK_LOG_FILE_NAME = missing.c_str();
  const std::string probe = logFile();
  writeFileText(probe, "probe\n");
  struct stat status {};

  // A planned lstat failure is still pending after lines 1 to 19: none of
  // them took the size.
  writeLines(1, 18);
  sys::failCall(Call::kLstat, 1, EIO);
  writeLines(19, 1);
  EXPECT_EQ(sys::lstat(probe.c_str(), &status), -1);

  // Line 20 takes the size: the planned failure is used up by it.
  sys::failCall(Call::kLstat, 1, EIO);
  writeLines(20, 1);
  EXPECT_EQ(sys::lstat(probe.c_str(), &status), 0);

  EXPECT_EQ(hbkLogLineCounter(), 21);
  EXPECT_FALSE(fileExists(missing));
  EXPECT_FALSE(fileExists(tailFile()));
  EXPECT_EQ(readFileText(probe), "probe\n");
  EXPECT_TRUE(sys::capturedSyslog().empty());
}

TEST_F(LogFileTest, LineThatCannotBeAppendedStillTruncatesABigFile) {
  const std::string old = oldLog(51200);
  writeFileText(logFile(), old);
  const std::string written = writeLines(1, 19);
  sys::failCall(Call::kFopen, 1, EACCES);  // only the append of line 20
  writeLines(20, 1);
  EXPECT_EQ(readFileText(logFile()), note());
  EXPECT_EQ(readFileText(tailFile()), lastLines(old + written, 200));
  EXPECT_EQ(hbkLogLineCounter(), 1);
}

TEST_F(LogFileTest, FailedLstatSkipsTheTruncation) {
  const std::string old = oldLog(51200);
  writeFileText(logFile(), old);
  std::string written = writeLines(1, 19);
  sys::failCall(Call::kLstat, 1, EIO);
  written += writeLines(20, 1);
  EXPECT_EQ(readFileText(logFile()), old + written);
  EXPECT_FALSE(fileExists(tailFile()));
  EXPECT_EQ(hbkLogLineCounter(), 21);
}

TEST_F(LogFileTest, UnopenableTailFileIsReportedAndTheLogKept) {
  const std::string missing = root_ + "/missing/tail.txt";
  TMGR_HBK_LOG_FILE_NAME_TMP = missing.c_str();
  const std::string old = oldLog(51200);
  writeFileText(logFile(), old);
  std::string written = writeLines(1, 20);

  const std::vector<SyslogRecord> report = {{LOG_ERR, "QMBW: Error opening the " + missing + " File"}};
  EXPECT_EQ(sys::capturedSyslog(), report);
  EXPECT_EQ(readFileText(logFile()), old + written);
  EXPECT_FALSE(fileExists(missing));
  // The counter was restarted before the tail file was tried.
  EXPECT_EQ(hbkLogLineCounter(), 1);

  written += writeLines(21, 19);
  EXPECT_EQ(sys::capturedSyslog().size(), 1u);
  written += writeLines(40, 1);
  EXPECT_EQ(sys::capturedSyslog(), std::vector<SyslogRecord>(2, report[0]));
  EXPECT_EQ(readFileText(logFile()), old + written);
}

TEST_F(LogFileTest, FlushWithoutNoteLeavesAnEmptyFile) {
  writeFileText(logFile(), oldLog(3000));
  flushHBKLogFile(0);
  ASSERT_TRUE(fileExists(logFile()));
  EXPECT_EQ(readFileText(logFile()), "");
  EXPECT_FALSE(fileExists(tailFile()));
}

TEST_F(LogFileTest, FlushCreatesAMissingFile) {
  flushHBKLogFile(0);
  ASSERT_TRUE(fileExists(logFile()));
  EXPECT_EQ(sizeOf(logFile()), 0);
}

TEST_F(LogFileTest, FlushWithNoteLeavesOnlyTheNoteLine) {
  for (std::int32_t withNote : {1, -7, 0x7FFFFFFF}) {
    SCOPED_TRACE(withNote);
    writeFileText(logFile(), oldLog(3000));
    flushHBKLogFile(withNote);
    EXPECT_EQ(readFileText(logFile()), note());
  }
}

TEST_F(LogFileTest, NoteNamesTheTailFileAsTheProcessSetIt) {
  TMGR_HBK_LOG_FILE_NAME_TMP = "/elsewhere/saved.txt";
  flushHBKLogFile(1);
  EXPECT_EQ(readFileText(logFile()), "File is truncated - For OLD logs check /elsewhere/saved.txt\n");
}

TEST_F(LogFileTest, UnopenableFileToFlushIsReportedByItsBaseName) {
  const std::string missing = root_ + "/missing/hbk_log.txt";
  TMGR_HBK_LOG_FILE_NAME = missing.c_str();
  errno = 1234;
  flushHBKLogFile(1);
  EXPECT_EQ(errno, 1234);
  EXPECT_EQ(sys::capturedSyslog(), (std::vector<SyslogRecord>{{LOG_ERR, "QMBW: Error opening the hbk_log.txt File"}}));
  EXPECT_FALSE(fileExists(missing));
  // The path is left as the process set it.
  EXPECT_EQ(std::string(TMGR_HBK_LOG_FILE_NAME), missing);
}

TEST_F(LogFileTest, BaseNameOfADirectoryPathDropsTheTrailingSlash) {
  const std::string directory = root_ + "/opt/qmb/etc/";
  TMGR_HBK_LOG_FILE_NAME = directory.c_str();
  flushHBKLogFile(0);
  EXPECT_EQ(sys::capturedSyslog(), (std::vector<SyslogRecord>{{LOG_ERR, "QMBW: Error opening the etc File"}}));
}

TEST_F(LogFileTest, FilesAreCreatedUnderTheFileCreationMask022) {
  const mode_t saved = umask(0);
  writeHBKLogLine("created");
  struct stat status {};
  ASSERT_EQ(::stat(logFile().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_EQ(umask(0), 022u);

  ASSERT_EQ(unlink(logFile().c_str()), 0);
  flushHBKLogFile(1);
  ASSERT_EQ(::stat(logFile().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_EQ(umask(saved), 022u);
}

TEST_F(LogFileTest, ThreadsAppendWholeLines) {
  constexpr int kThreads = 4;
  constexpr int kLinesEach = 100;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLinesEach; ++i) {
        writeHBKLogLine(("thread " + std::to_string(t) + " line " + std::to_string(i)).c_str());
      }
    });
  }
  for (auto& thread : threads) thread.join();

  std::vector<std::string> expected;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kLinesEach; ++i) expected.push_back("thread " + std::to_string(t) + " line " + std::to_string(i));
  }
  std::vector<std::string> lines;
  const std::string text = readFileText(logFile());
  for (std::size_t start = 0, end = 0; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    lines.push_back(text.substr(start, end - start));
  }
  std::sort(expected.begin(), expected.end());
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, expected);
  EXPECT_EQ(hbkLogLineCounter(), 1 + kThreads * kLinesEach);
}

TEST_F(LogFileTest, ProcessesShareTheFileWithoutCoordination) {
  constexpr int kChildren = 3;
  constexpr int kLinesEach = 60;
  const std::vector<int> statuses = runChildrenAtOnce(kChildren, [](int c) {
    for (int i = 0; i < kLinesEach; ++i) {
      writeHBKLogLine(("process " + std::to_string(c) + " line " + std::to_string(i)).c_str());
    }
    return hbkLogLineCounter() == 1 + kLinesEach ? 0 : 1;
  });
  EXPECT_EQ(statuses, std::vector<int>(kChildren, 0));

  const std::string text = readFileText(logFile());
  EXPECT_EQ(lineCount(text), static_cast<std::size_t>(kChildren * kLinesEach));
  for (int c = 0; c < kChildren; ++c) {
    for (int i = 0; i < kLinesEach; ++i) {
      const std::string line = "process " + std::to_string(c) + " line " + std::to_string(i) + "\n";
      EXPECT_TRUE(text.starts_with(line) || text.find("\n" + line) != std::string::npos) << line;
    }
  }
  EXPECT_EQ(hbkLogLineCounter(), 1);  // the parent wrote nothing
}

}  // namespace
}  // namespace nt::test
