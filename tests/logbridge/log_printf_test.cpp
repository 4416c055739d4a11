// The printf-style helpers of the log bridge: their prefixes, the limit of
// 199 characters per line, prefix included, the empty message, the report of
// a formatting failure to syslog, and the process's syslog identity.
#include <errno.h>
#include <syslog.h>

#include <string>
#include <string_view>
#include <vector>

#include "common/syscalls.h"
#include "nodetrace/logbridge.h"
#include "tests/support/node_test.h"

namespace nt::test {
namespace {

using sys::Call;
using sys::SyslogRecord;

std::string processPrefix(unsigned line, const std::string& function) {
  return std::string(program_invocation_short_name) + ": " + std::to_string(line) + " : " + function + "() -> ";
}

class LogPrintfTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    sys::captureSyslog(true);
  }

  std::string logFile() const { return path("/opt/qmb/etc/hbk_log.txt"); }
  std::string logText() const { return fileExists(logFile()) ? readFileText(logFile()) : std::string(); }
};

TEST_F(LogPrintfTest, ProcessNameLeadsTheLine) {
  proc_printf_func("probe", 12, "value %d of %s", 5, "x");
  EXPECT_EQ(logText(), processPrefix(12, "probe") + "value 5 of x\n");
  EXPECT_EQ(std::string(program_invocation_short_name), "nodetrace_tests");
}

TEST_F(LogPrintfTest, GivenNameLeadsTheLine) {
  file_printf_func("radio.c", 7, "tune", "%u MHz", 18000u);
  EXPECT_EQ(logText(), "radio.c: 7 : tune() -> 18000 MHz\n");
}

TEST_F(LogPrintfTest, LineNumberIsUnsigned) {
  file_printf_func("a.c", 4294967295u, "f", "x");
  EXPECT_EQ(logText(), "a.c: 4294967295 : f() -> x\n");
}

TEST_F(LogPrintfTest, NamesAreNotFormats) {
  file_printf_func("%s%d", 1, "%n", "done");
  EXPECT_EQ(logText(), "%s%d: 1 : %n() -> done\n");
}

TEST_F(LogPrintfTest, LongMessageIsCutSoThatTheLineHolds199Characters) {
  const std::string prefix = processPrefix(12, "probe");
  const std::string message = longText(300);
  proc_printf_func("probe", 12, "%s", message.c_str());
  const std::string expected = (prefix + message).substr(0, 199) + "\n";
  EXPECT_EQ(logText(), expected);
  EXPECT_EQ(expected.size(), 200u);
}

TEST_F(LogPrintfTest, MessageThatJustFitsIsKeptWhole) {
  const std::string prefix = "radio.c: 7 : tune() -> ";  // 23 characters
  ASSERT_EQ(prefix.size(), 23u);
  file_printf_func("radio.c", 7, "tune", "%s", longText(176).c_str());
  EXPECT_EQ(logText(), prefix + longText(176) + "\n");

  flushHBKLogFile(0);
  file_printf_func("radio.c", 7, "tune", "%s", longText(177).c_str());
  EXPECT_EQ(logText(), prefix + longText(176) + "\n");
}

TEST_F(LogPrintfTest, PrefixOf199CharactersLeavesNoRoomForTheMessage) {
  const std::string name = longText(186);  // 186 + ": 7 : f() -> " = 199
  file_printf_func(name.c_str(), 7, "f", "message");
  EXPECT_EQ(logText(), name + ": 7 : f() -> \n");
  EXPECT_EQ(logText().size(), 200u);
}

TEST_F(LogPrintfTest, PrefixOf200CharactersOrMoreIsCutAndTheMessageSkipped) {
  for (std::size_t length : {187u, 188u, 400u}) {
    SCOPED_TRACE(length);
    flushHBKLogFile(0);
    const std::string name = longText(length);
    file_printf_func(name.c_str(), 7, "f", "message");
    EXPECT_EQ(logText(), (name + ": 7 : f() -> ").substr(0, 199) + "\n");
  }
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"
TEST_F(LogPrintfTest, EmptyMessageLeavesThePrefix) {
  proc_printf_func("probe", 3, "");
  EXPECT_EQ(logText(), processPrefix(3, "probe") + "\n");
}
#pragma GCC diagnostic pop

TEST_F(LogPrintfTest, FormatThatYieldsNothingIsWrittenAsItStands) {
  // An empty result stands for a failed format: the format text itself is
  // written, without its arguments.
  proc_printf_func("probe", 3, "%s", "");
  file_printf_func("x.c", 4, "f", "%.0d", 0);
  EXPECT_EQ(logText(), processPrefix(3, "probe") + "%s\n" + "x.c: 4 : f() -> %.0d\n");
}

TEST_F(LogPrintfTest, FailingFormatterGoesToSyslogOnly) {
  errno = 4321;
  sys::failCall(Call::kSnprintf, 1, EOVERFLOW);
  proc_printf_func("probe", 1, "lost %d", 1);
  EXPECT_EQ(errno, 4321);
  sys::failCall(Call::kSnprintf, 1, ENOMEM);
  file_printf_func("radio.c", 2, "tune", "lost %d", 2);

  const std::vector<SyslogRecord> expected = {
      {LOG_ERR, "QMBW: proc_printf_func() Error writing to buffer with 75 : Value too large for defined data type"},
      {LOG_ERR, "QMBW: file_printf_func() Error writing to buffer with 12 : Cannot allocate memory"}};
  EXPECT_EQ(sys::capturedSyslog(), expected);
  EXPECT_FALSE(fileExists(logFile()));

  // The next line is written again.
  proc_printf_func("probe", 1, "kept");
  EXPECT_EQ(logText(), processPrefix(1, "probe") + "kept\n");
}

TEST_F(LogPrintfTest, LinesFollowTheLogMode) {
  setHBKLogMode(0);
  StdoutCapture out;
  proc_printf_func("probe", 5, "on standard output");
  file_printf_func("radio.c", 6, "tune", "too");
  EXPECT_EQ(out.take(), processPrefix(5, "probe") + "on standard output\nradio.c: 6 : tune() -> too\n");
  EXPECT_FALSE(fileExists(logFile()));

  setHBKLogMode(3);
  StdoutCapture nothing;
  proc_printf_func("probe", 5, "dropped");
  EXPECT_EQ(nothing.take(), "");
  EXPECT_FALSE(fileExists(logFile()));
}

TEST_F(LogPrintfTest, HelpersKeepErrno) {
  const std::string missing = root_ + "/missing/hbk_log.txt";
  TMGR_HBK_LOG_FILE_NAME = missing.c_str();
  errno = 99;
  proc_printf_func("probe", 5, "x");
  EXPECT_EQ(errno, 99);
  file_printf_func("a.c", 5, "f", "x");
  EXPECT_EQ(errno, 99);
}

TEST_F(LogPrintfTest, SyslogIdentityIsQmbSw) {
  appendQmbwSwIdentityToSyslog();
  const std::vector<sys::OpenlogRecord> expected = {{"QMB_SW", LOG_PID, LOG_USER}};
  EXPECT_EQ(sys::capturedOpenlog(), expected);
  EXPECT_TRUE(sys::capturedSyslog().empty());
}

}  // namespace
}  // namespace nt::test
