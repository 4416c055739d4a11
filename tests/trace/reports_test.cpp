// Reports on trace sets: the line about one set with its type repair, and
// the table of all sets with the two SRAM lines, the summary and the file
// errors. Standard output and standard error are compared byte for byte.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/syscalls.h"
#include "tests/support/node_test.h"
#include "trace/persistent/error_trace.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

using sys::Call;

constexpr const char* kNoSets = "\nThere are 0/200 trace sets and the system trace set defined\n\n";
constexpr const char* kRemoteLine = "254: NVJ_System          \t     0/  738 STRING\n";
constexpr const char* kSystemLine = "255: System              \t     0/  738 STRING\n";
constexpr const char* kNothingUsed =
    "\nSummary: 0/200 user trace sets in 0/10485760 bytes (0.0%) shared memory\n"
    "\t0 traces in total written to trace system\n";

class ReportsTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    getCurrentNumberTraceSets();  // start the trace system: header and SRAM file
  }

  // Runs a report and keeps what it printed on both streams.
  template <typename Report>
  auto capture(Report report) {
    StdoutCapture out;
    StderrCapture err;
    auto result = report();
    stderr_ = err.take();
    stdout_ = out.take();
    return result;
  }

  std::string stdout_;
  std::string stderr_;
};

// ---- printTraceSetsInfo ----------------------------------------------------------

TEST_F(ReportsTest, NodeWithoutUserSets) {
  EXPECT_EQ(capture([] { return printTraceSetsInfo(0); }), 0);
  EXPECT_EQ(stdout_, std::string(kNoSets) + kRemoteLine + kSystemLine + kNothingUsed);
  EXPECT_EQ(stderr_, "");
}

TEST_F(ReportsTest, TableOfUserSetsWithTheirMasksWhenVerbose) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 10, 128, 0x0F);
  createSet("Dumps", TS_DUMP, 3, 1600, 0xFF);
  getTraceSetStruct(static_cast<std::uint16_t>(radio))->totalNumberEntries = 7;
  addErrorTrace(TS_STRING, 0x1, "radio.c", 3, "one record", SYSTEM_TRACE_SET_ID, 0x80);
  header()->totalNumberTraceEntries = 8;

  EXPECT_EQ(capture([] { return printTraceSetsInfo(1); }), 0);
  EXPECT_EQ(stdout_,
            "\nThere are 2/200 trace sets and the system trace set defined\n\n"
            "  0: Radio               \t     7/   10 CatMask 0x0000000F STRING\n"
            "  1: Dumps               \t     0/    3 CatMask 0x000000FF   DUMP\n"
            "254: NVJ_System          \t     0/  738 CatMask 0xFFFFFFFF STRING\n"
            "255: System              \t     1/  738 CatMask 0xFFFFFFFF STRING\n"
            "\nSummary: 2/200 user trace sets in 7120/10485760 bytes (0.1%) shared memory\n"
            "\t8 traces in total written to trace system\n");
  EXPECT_EQ(stderr_, "");

  // Any other flag than 1 leaves the masks out.
  const std::string plain =
      "\nThere are 2/200 trace sets and the system trace set defined\n\n"
      "  0: Radio               \t     7/   10 STRING\n"
      "  1: Dumps               \t     0/    3   DUMP\n"
      "254: NVJ_System          \t     0/  738 STRING\n"
      "255: System              \t     1/  738 STRING\n"
      "\nSummary: 2/200 user trace sets in 7120/10485760 bytes (0.1%) shared memory\n"
      "\t8 traces in total written to trace system\n";
  for (const std::int16_t verbose : {0, 2, -1}) {
    SCOPED_TRACE(verbose);
    EXPECT_EQ(capture([verbose] { return printTraceSetsInfo(verbose); }), 0);
    EXPECT_EQ(stdout_, plain);
  }
}

TEST_F(ReportsTest, SummaryOfATenthOfTheEntryArea) {
  createSet("Big", TS_DUMP, 1024, 944);  // 1024 slots of 1024 bytes
  EXPECT_EQ(capture([] { return printTraceSetsInfo(0); }), 0);
  EXPECT_EQ(stdout_,
            "\nThere are 1/200 trace sets and the system trace set defined\n\n"
            "  0: Big                 \t     0/ 1024   DUMP\n" +
                std::string(kRemoteLine) + kSystemLine +
                "\nSummary: 1/200 user trace sets in 1048576/10485760 bytes (10.0%) shared memory\n"
                "\t0 traces in total written to trace system\n");
}

TEST_F(ReportsTest, MissingSramFileEndsTheReportAfterTheUserSets) {
  createSet("Radio", TS_STRING, 10, 128);
  ASSERT_EQ(std::remove(sram().c_str()), 0);
  EXPECT_EQ(capture([] { return printTraceSetsInfo(0); }), TRACE_RC_FILE_ERROR);
  EXPECT_EQ(stdout_,
            "\nThere are 1/200 trace sets and the system trace set defined\n\n"
            "  0: Radio               \t     0/   10 STRING\n");
  EXPECT_EQ(stderr_, "traceLibLocal.c (printTraceSetsInfo,1821): Error accessing file (No such file or directory)!\n");
}

TEST_F(ReportsTest, UnreadableRemoteDescriptorIsReportedAndTheReportGoesOn) {
  sys::failCall(Call::kRead, 1, EIO);
  EXPECT_EQ(capture([] { return printTraceSetsInfo(0); }), TRACE_RC_FILE_ERROR);
  sys::clearFailures();
  EXPECT_EQ(stdout_, std::string(kNoSets) + kSystemLine + kNothingUsed);
  EXPECT_EQ(stderr_, "traceLibLocal.c (printTraceSetsInfo,1833): Error accessing file (Input/output error)!\n");
}

TEST_F(ReportsTest, UnreadableSystemDescriptorIsReportedAndTheReportGoesOn) {
  sys::failCall(Call::kRead, 2, EIO);
  EXPECT_EQ(capture([] { return printTraceSetsInfo(0); }), TRACE_RC_FILE_ERROR);
  sys::clearFailures();
  EXPECT_EQ(stdout_, std::string(kNoSets) + kRemoteLine + kNothingUsed);
  EXPECT_EQ(stderr_, "traceLibLocal.c (printTraceSetsInfo,1850): Error accessing file (Input/output error)!\n");
}

TEST_F(ReportsTest, UserSetWithoutDescriptorEndsTheReport) {
  // A damaged count above the table's 200 descriptors.
  header()->currentNumberTraceSets = 201;
  EXPECT_EQ(capture([] { return printTraceSetsInfo(0); }), TRACE_RC_NO_DESCRIPTOR);
  std::string expected = "\nThere are 201/200 trace sets and the system trace set defined\n\n";
  for (int id = 0; id < 200; ++id) {
    char line[64];
    std::snprintf(line, sizeof line, "%3d: %20s\t     0/    0 STRING\n", id, "");
    expected += line;
  }
  EXPECT_EQ(stdout_, expected);
  EXPECT_EQ(stderr_, "");
}

TEST_F(ReportsTest, TableShowsAnOddTypeWithoutRepairingIt) {
  const std::int16_t id = createSet("Radio", TS_STRING, 10, 128);
  TraceSetStruct* descriptor = getTraceSetStruct(static_cast<std::uint16_t>(id));
  descriptor->type = 7;
  EXPECT_EQ(capture([] { return printTraceSetsInfo(0); }), 0);
  EXPECT_NE(stdout_.find("  0: Radio               \t     0/   10 ??????\n"), std::string::npos) << stdout_;
  EXPECT_EQ(descriptor->type, 7u);
  EXPECT_EQ(readSramDescriptor(sram(), 0).curentNumberEntries, 0);  // nothing recorded
}

// ---- printTraceSetInfo ------------------------------------------------------------

TraceSetStruct descriptorAbc() {
  TraceSetStruct d{};
  std::strcpy(d.name, "abc");
  d.type = TS_STRING;
  d.maxNumberEntries = 10;
  d.curentNumberEntries = 5;
  d.totalNumberEntries = 7;
  d.creatorPid = 812;
  return d;
}

TEST_F(ReportsTest, LineAboutOneSet) {
  TraceSetStruct d = descriptorAbc();
  capture([&d] { printTraceSetInfo(3, &d, 1); return 0; });
  EXPECT_EQ(stdout_, "Trace set   3 'abc' 5 current/10 max,7 total STRING Created by 812\n");
  for (const std::int32_t withMax : {0, 2, -1}) {
    SCOPED_TRACE(withMax);
    capture([&d, withMax] { printTraceSetInfo(3, &d, withMax); return 0; });
    EXPECT_EQ(stdout_, "Trace set   3 'abc' 5 current/7 total STRING Created by 812\n");
  }
  d.type = TS_DUMP;
  capture([&d] { printTraceSetInfo(254, &d, 1); return 0; });
  EXPECT_EQ(stdout_, "Trace set 254 'abc' 5 current/10 max,7 total   DUMP Created by 812\n");
  // A negative id prints as its unsigned 32-bit value.
  capture([&d] { printTraceSetInfo(-1, &d, 0); return 0; });
  EXPECT_EQ(stdout_, "Trace set 4294967295 'abc' 5 current/7 total   DUMP Created by 812\n");
  EXPECT_EQ(stderr_, "");
  EXPECT_EQ(readSramDescriptor(sram(), 0).curentNumberEntries, 0);
}

TEST_F(ReportsTest, NameFillingAllTwentyBytesIsPrintedWithoutRunningOn) {
  TraceSetStruct d = descriptorAbc();
  std::memset(d.name, 'N', sizeof d.name);
  capture([&d] { printTraceSetInfo(1, &d, 0); return 0; });
  EXPECT_EQ(stdout_, "Trace set   1 'NNNNNNNNNNNNNNNNNNNN' 5 current/7 total STRING Created by 812\n");
}

TEST_F(ReportsTest, OddTypeIsRecordedAndRepairedInPlace) {
  const std::int16_t id = createSet("Radio", TS_STRING, 10, 128);
  TraceSetStruct* descriptor = getTraceSetStruct(static_cast<std::uint16_t>(id));
  descriptor->type = 7;
  const std::string pid = std::to_string(getpid());

  capture([id, descriptor] { printTraceSetInfo(id, descriptor, 1); return 0; });
  EXPECT_EQ(stdout_, "Trace set   0 'Radio' 0 current/10 max,0 total ?????? Created by " + pid + "\n");
  EXPECT_EQ(stderr_, "");
  EXPECT_EQ(u32At(readSharedObject(shmName()), 248 + 20), TS_STRING);

  ASSERT_EQ(readSramDescriptor(sram(), 0).curentNumberEntries, 1);
  const SramEntry record = readSramEntry(sram(), 0, 0);
  const std::string text = "printTraceSetInfo: Trace set 0 is neither TS_STRING nor TS_DUMP";
  EXPECT_EQ(record.text(), text);
  EXPECT_EQ(record.header.contentsLength, text.size());
  EXPECT_STREQ(record.header.fileName, "traceLibLocal.c");
  EXPECT_EQ(record.header.line, 1706);
  EXPECT_EQ(record.header.severity, 0x80);
  EXPECT_EQ(record.header.category, 0x80000001u);

  // Now a text set: no second record.
  capture([id, descriptor] { printTraceSetInfo(id, descriptor, 0); return 0; });
  EXPECT_EQ(stdout_, "Trace set   0 'Radio' 0 current/0 total STRING Created by " + pid + "\n");
  EXPECT_EQ(readSramDescriptor(sram(), 0).curentNumberEntries, 1);
}

TEST_F(ReportsTest, OddTypeRecordNamesTheIdGiven) {
  TraceSetStruct d = descriptorAbc();
  d.type = 0xFFFFFFFFu;
  capture([&d] { printTraceSetInfo(-2, &d, 0); return 0; });
  EXPECT_EQ(stdout_, "Trace set 4294967294 'abc' 5 current/7 total ?????? Created by 812\n");
  EXPECT_EQ(readSramEntry(sram(), 0, 0).text(),
            "printTraceSetInfo: Trace set 4294967294 is neither TS_STRING nor TS_DUMP");
  EXPECT_EQ(d.type, TS_STRING);
}

TEST_F(ReportsTest, LineAboutOneSetDoesNotStartTheTraceSystem) {
  TraceSetStruct d = descriptorAbc();
  const int status = capture([&d] {
    return runInChild([&d] {
      resetProcessStateForTests();
      printTraceSetInfo(3, &d, 1);
      return g_process.initialised.load() == 0 ? 0 : 1;
    });
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(stdout_, "Trace set   3 'abc' 5 current/10 max,7 total STRING Created by 812\n");
}

}  // namespace
}  // namespace nt::test
