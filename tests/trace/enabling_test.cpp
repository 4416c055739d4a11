// Switching the trace system off and on, failed assertions (assertFail and
// TRACE_ASSERT, compiled in and out) and the reference clock notice: the
// records in the error trace set, the node-wide flag, the text on standard
// error and the exit of the process.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "tests/support/node_test.h"
#include "tests/trace/assert_disabled.h"
#include "trace/persistent/error_trace.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

constexpr std::uint32_t kLibrary = 0x80000001u;
constexpr std::uint32_t kAssertion = 0x80000002u;
constexpr const char* kDisablingNotice = "\nDisabling Trace System\n";

// The 30 bytes of an entry's fileName field.
Bytes fileNameField(std::string_view name) {
  Bytes field(30, 0);
  std::memcpy(field.data(), name.data(), std::min<std::size_t>(name.size(), 29));
  return field;
}

std::string repeated(char c, std::size_t count) { return std::string(count, c); }

class TraceControlTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    getCurrentNumberTraceSets();  // start the trace system: header and SRAM file
  }

  unsigned recordCount() const { return readSramDescriptor(sram(), 0).curentNumberEntries; }

  struct Record {
    std::string_view text;
    std::string_view fileName;
    std::int32_t line;
    std::uint8_t severity;
    std::uint32_t category;
  };

  void expectRecord(unsigned slot, const Record& r) const {
    SCOPED_TRACE("record " + std::to_string(slot));
    const SramEntry entry = readSramEntry(sram(), 0, slot);
    EXPECT_EQ(entry.contents, textContents(r.text));
    EXPECT_EQ(entry.header.contentsLength, r.text.size());
    const auto* name = reinterpret_cast<const std::uint8_t*>(entry.header.fileName);
    EXPECT_EQ(Bytes(name, name + 30), fileNameField(r.fileName));
    EXPECT_EQ(entry.header.line, r.line);
    EXPECT_EQ(entry.header.severity, r.severity);
    EXPECT_EQ(entry.header.category, r.category);
  }
};

// ---- Switching off and on ---------------------------------------------------------

TEST_F(TraceControlTest, DisableThenEnableLeavesTwoRecordsAndNothingBetween) {
  disableTraceSystem("/src/app/main.c", 31, "maintenance");
  EXPECT_EQ(isTraceEnabled(), 0);
  EXPECT_EQ(u32At(readSharedObject(shmName()), 12), 0u);

  // Nothing is stored while tracing is off.
  EXPECT_EQ(addErrorTrace(TS_STRING, 0x1, "radio.c", 5, "lost", SYSTEM_TRACE_SET_ID, 0x80), 0);
  setRefClock();

  enableTraceSystem("/src/app/main.c", 40, "maintenance done");
  EXPECT_EQ(isTraceEnabled(), 1);
  EXPECT_EQ(u32At(readSharedObject(shmName()), 12), 1u);

  ASSERT_EQ(recordCount(), 2u);
  expectRecord(0, {"Trace system disabled: maintenance", "main.c", 31, 0x08, kLibrary});
  expectRecord(1, {"Trace system enabled: maintenance done", "main.c", 40, 0x08, kLibrary});
  EXPECT_EQ(getTotalNumberTraceEntries(), 2u);
}

TEST_F(TraceControlTest, DisablingWhileOffLeavesNoRecordAndKeepsTracingOff) {
  disableTraceSystem("a.c", 1, "first");
  disableTraceSystem("a.c", 2, "second");
  EXPECT_EQ(isTraceEnabled(), 0);
  ASSERT_EQ(recordCount(), 1u);
  expectRecord(0, {"Trace system disabled: first", "a.c", 1, 0x08, kLibrary});
}

TEST_F(TraceControlTest, EnablingWhileOnLeavesItsRecord) {
  enableTraceSystem("a.c", 3, "again");
  enableTraceSystem("a.c", 4, "and again");
  EXPECT_EQ(isTraceEnabled(), 1);
  ASSERT_EQ(recordCount(), 2u);
  expectRecord(1, {"Trace system enabled: and again", "a.c", 4, 0x08, kLibrary});
}

TEST_F(TraceControlTest, SwitchingOffIsSeenByEveryProcess) {
  const int status = runInChild([] {
    disableTraceSystem("child.c", 7, "from a child");
    return 0;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(isTraceEnabled(), 0);
  EXPECT_EQ(addErrorTrace(TS_STRING, 0x1, "radio.c", 5, "lost", SYSTEM_TRACE_SET_ID, 0x80), 0);
  EXPECT_EQ(recordCount(), 1u);
}

TEST_F(TraceControlTest, LongReasonIsCutTo127Characters) {
  const std::string reason = repeated('r', 200);
  disableTraceSystem("a.c", 1, reason.c_str());
  enableTraceSystem("a.c", 2, reason.c_str());
  ASSERT_EQ(recordCount(), 2u);
  expectRecord(0, {"Trace system disabled: " + repeated('r', 104), "a.c", 1, 0x08, kLibrary});
  expectRecord(1, {"Trace system enabled: " + repeated('r', 105), "a.c", 2, 0x08, kLibrary});
}

TEST_F(TraceControlTest, FileNameIsTheLastPathComponent) {
  const std::string deep = "/" + repeated('d', 4200) + "/x.c";
  const struct {
    const char* given;
    std::string recorded;
  } cases[] = {
      {"/a/b/src.c", "src.c"},
      {"src.c", "src.c"},
      {"dir/sub/", "sub"},  // trailing slashes do not count
      {"/", "/"},
      {"", "."},
      {nullptr, "."},
      {"/x/a_source_file_with_a_long_name.c", "a_source_file_with_a_long_nam"},  // 29 kept
      // Only 4095 characters are looked at: x.c is beyond them.
      {deep.c_str(), repeated('d', 29)},
  };
  unsigned slot = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.given != nullptr ? std::string(c.given).substr(0, 40) : "null");
    const std::string before = c.given != nullptr ? c.given : "";
    enableTraceSystem(c.given, 5, "x");
    expectRecord(slot++, {"Trace system enabled: x", c.recorded, 5, 0x08, kLibrary});
    if (c.given != nullptr) {
      EXPECT_EQ(std::string(c.given), before);  // the caller's string is kept
    }
  }
}

TEST_F(TraceControlTest, ErrnoIsKept) {
  errno = 1234;
  disableTraceSystem("a.c", 1, "x");
  EXPECT_EQ(errno, 1234);
  enableTraceSystem("a.c", 2, "x");
  EXPECT_EQ(errno, 1234);
  setRefClock();
  EXPECT_EQ(errno, 1234);

  // Also when the record fails on a missing file.
  ASSERT_EQ(std::remove(sram().c_str()), 0);
  StderrCapture capture;
  errno = 4321;
  disableTraceSystem("a.c", 3, "no file");
  EXPECT_EQ(errno, 4321);
  EXPECT_EQ(capture.take(), "'stat' failed for '" + sram() + "': No such file or directory.\n");
  EXPECT_EQ(isTraceEnabled(), 0);  // the flag changes all the same
}

// ---- The reference clock -------------------------------------------------------------

TEST_F(TraceControlTest, RefClockNoticeNamesTheLibraryWhateverTheCaller) {
  setRefClock();
  ASSERT_EQ(recordCount(), 1u);
  expectRecord(0, {"setRefClock() called; node clock has probably changed", "traceLibLocal.c", 909, 0x08, kLibrary});
  EXPECT_EQ(readSramEntry(sram(), 0, 0).header.pid, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(isTraceEnabled(), 1);
}

TEST_F(TraceControlTest, RefClockNoticeIsLostWhileTracingIsOff) {
  disableTraceSystem("a.c", 1, "off");
  setRefClock();
  EXPECT_EQ(recordCount(), 1u);
}

// ---- assertFail ----------------------------------------------------------------------

// The handler of a child that proves a normal exit: it writes what it
// is given into the marker file.
std::string g_markerPath;
std::string g_markerText = "exit handlers ran";
void writeMarker() { writeFileText(g_markerPath, g_markerText); }

TEST_F(TraceControlTest, AssertFailRecordsReportsSwitchesOffAndExits) {
  g_markerPath = path("/tmp/marker");
  StderrCapture capture;
  const int status = runInChild([]() -> int {
    std::atexit(writeMarker);
    assertFail("x > 0", "/a/b/src.c", "fn", 12, "msg");
  });
  EXPECT_EQ(capture.take(), std::string("In src.c (fn,12): Assertion x > 0 failed; msg!") + kDisablingNotice);
  EXPECT_EQ(std::strlen(kDisablingNotice), 24u);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(readFileText(g_markerPath), "exit handlers ran");

  ASSERT_EQ(recordCount(), 3u);
  expectRecord(0, {"(fn): Assertion x > 0 failed", "src.c", 12, 0x80, kAssertion});
  expectRecord(1, {"msg", "src.c", 12, 0x80, kAssertion});
  expectRecord(2, {"Trace system disabled: Assertion failed", "src.c", 12, 0x08, kLibrary});
  EXPECT_EQ(isTraceEnabled(), 0);  // for the whole node

  enableTraceSystem("main.c", 1, "after the assertion");
  EXPECT_EQ(isTraceEnabled(), 1);
  EXPECT_EQ(recordCount(), 4u);
}

TEST_F(TraceControlTest, AssertFailFormatsAndCutsTheMessage) {
  StderrCapture capture;
  const int status = runInChild([]() -> int {
    assertFail("ready", "radio.c", "poll", 7, "%d of %s: %s", 3, "links", repeated('m', 200).c_str());
  });
  const std::string message = "3 of links: " + repeated('m', 115);  // 127 characters
  EXPECT_EQ(capture.take(), "In radio.c (poll,7): Assertion ready failed; " + message + "!" + kDisablingNotice);
  EXPECT_EQ(status, 1);
  ASSERT_EQ(recordCount(), 3u);
  expectRecord(1, {message, "radio.c", 7, 0x80, kAssertion});
}

TEST_F(TraceControlTest, AssertionTextIsCutTo127Characters) {
  const std::string expression = repeated('e', 150);
  StderrCapture capture;
  const int status = runInChild([&expression]() -> int { assertFail(expression.c_str(), "a.c", "fn", 1, "m"); });
  EXPECT_EQ(status, 1);
  EXPECT_EQ(capture.take(), "In a.c (fn,1): Assertion " + expression + " failed; m!" + kDisablingNotice);
  expectRecord(0, {"(fn): Assertion " + repeated('e', 111), "a.c", 1, 0x80, kAssertion});
}

TEST_F(TraceControlTest, AssertFailWhileTracingIsOffStillReportsAndExits) {
  disableTraceSystem("a.c", 1, "off");
  StderrCapture capture;
  const int status = runInChild([]() -> int { assertFail("x > 0", "/a/b/src.c", "fn", 12, "msg"); });
  EXPECT_EQ(capture.take(), std::string("In src.c (fn,12): Assertion x > 0 failed; msg!") + kDisablingNotice);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(recordCount(), 1u);  // the records are lost
  EXPECT_EQ(isTraceEnabled(), 0);
}

// ---- TRACE_ASSERT --------------------------------------------------------------------

int g_evaluations = 0;

bool counted(bool condition) {
  ++g_evaluations;
  return condition;
}

constexpr int kAssertLine = __LINE__ + 3;  // the line of the TRACE_ASSERT below

void requirePositive(int value) {
  TRACE_ASSERT(counted(value > 0), "value %d", value);
}

TEST_F(TraceControlTest, FailingTraceAssertRecordsItsPlace) {
  g_markerPath = path("/tmp/marker");
  StderrCapture capture;
  const int status = runInChild([] {
    std::atexit([] { writeFileText(g_markerPath, "evaluations " + std::to_string(g_evaluations)); });
    g_evaluations = 0;
    requirePositive(5);  // holds: goes on
    requirePositive(-3);
    return 0;
  });
  const std::string line = std::to_string(kAssertLine);
  EXPECT_EQ(capture.take(), "In enabling_test.cpp (requirePositive," + line +
                                "): Assertion counted(value > 0) failed; value -3!" + kDisablingNotice);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(readFileText(g_markerPath), "evaluations 2");  // once per assertion
  ASSERT_EQ(recordCount(), 3u);
  expectRecord(0, {"(requirePositive): Assertion counted(value > 0) failed", "enabling_test.cpp",
                   kAssertLine, 0x80, kAssertion});
  expectRecord(1, {"value -3", "enabling_test.cpp", kAssertLine, 0x80, kAssertion});
  expectRecord(2, {"Trace system disabled: Assertion failed", "enabling_test.cpp", kAssertLine, 0x08,
                   kLibrary});
}

TEST_F(TraceControlTest, TraceAssertThatHoldsDoesNothing) {
  g_evaluations = 0;
  requirePositive(1);
  EXPECT_EQ(g_evaluations, 1);
  EXPECT_EQ(recordCount(), 0u);
  EXPECT_EQ(isTraceEnabled(), 1);
}

TEST_F(TraceControlTest, CompiledOutTraceAssertEvaluatesNothing) {
  StderrCapture capture;
  const int status = runInChild([] { return evaluationsOfCompiledOutAssertions(); });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(recordCount(), 0u);
}

}  // namespace
}  // namespace nt::test
