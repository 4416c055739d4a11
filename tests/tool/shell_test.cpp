// The tool in shell scripts: creating sets, writing into new ones, names
// that are nearly right, text that starts with a dash, and the rule of the
// exit statuses.

#include <chrono>
#include <filesystem>
#include <string>

#include "tests/tool/tool_test.h"

namespace nt::test {
namespace {

using ShellTest = ToolTest;

void expectRun(const ToolResult& result, int status, const std::string& out, const std::string& err) {
  EXPECT_EQ(result.status, status);
  EXPECT_EQ(result.out, out);
  EXPECT_EQ(result.err, err);
}

TEST_F(ShellTest, CreateMakesASetOrUsesTheOneThere) {
  expectRun(runTool({"create", "Script"}), 0, "Script created: id 0, text, 256 entries of up to 128 bytes\n", "");
  expectRun(runTool({"create", "Script"}), 0, "Script exists: id 0, text, 256 entries of up to 128 bytes\n", "");
  expectRun(runTool({"create", "Script", "--entries", "10", "--length", "20"}), 0,
            "Script exists: id 0, text, 256 entries of up to 128 bytes\n", "");
  expectRun(runTool({"create", "Frames", "--dump"}), 0,
            "Frames created: id 1, dump, 64 entries of up to 1600 bytes\n", "");
  expectRun(runTool({"create", "Small", "--entries", "3", "--length", "40", "-m", "0x0F"}), 0,
            "Small created: id 2, text, 3 entries of up to 40 bytes\n", "");
  EXPECT_EQ(descriptor(0).type, TS_STRING);
  EXPECT_EQ(descriptor(1).type, TS_DUMP);
  EXPECT_EQ(descriptor(1).maxNumberEntries, 64);
  EXPECT_EQ(descriptor(1).traceEntryContentsLength, 1600);
  EXPECT_EQ(descriptor(2).maxNumberEntries, 3);
  EXPECT_EQ(descriptor(2).traceEntryContentsLength, 40);
  EXPECT_EQ(descriptor(2).categoryMask, 0x0Fu);
}

TEST_F(ShellTest, CreateRefusals) {
  createSet("Radio", TS_STRING, 16, 128);
  const std::string shape = "(text, 16 entries of up to 128 bytes); a set cannot change until the node restarts\n";
  expectRun(runTool({"create", "Radio", "--dump"}), 1, "",
            "nodetrace: the trace set Radio exists with another shape " + shape);
  expectRun(runTool({"create", "Radio", "--entries", "17"}), 1, "",
            "nodetrace: the trace set Radio exists with another shape " + shape);
  expectRun(runTool({"create", "System"}), 2, "",
            "nodetrace: System and NVJ_System are the sets of the SRAM file; choose another name\n");
  expectRun(runTool({"create", "5G"}), 2, "",
            "nodetrace: the trace set name '5G' starts with a digit (numbers name sets by id)\n");
  expectRun(runTool({"create", std::string(20, 'a')}), 2, "",
            "nodetrace: the trace set name '" + std::string(20, 'a') + "' is longer than 19 characters\n");
  expectRun(runTool({"create", "A", "--entries", "0"}), 2, "", "nodetrace: --entries must lie between 1 and 65535\n");
  expectRun(runTool({"create", "A", "--entries", "65536"}), 2, "",
            "nodetrace: --entries must lie between 1 and 65535\n");
  expectRun(runTool({"create", "A", "--length", "129"}), 2, "",
            "nodetrace: --length must lie between 1 and 128 for a set of text entries\n");
  expectRun(runTool({"create", "A", "--dump", "--length", "1601"}), 2, "",
            "nodetrace: --length must lie between 1 and 1600 for a set of dump entries\n");
  EXPECT_EQ(getCurrentNumberTraceSets(), 1);
}

TEST_F(ShellTest, WriteCreatesTheSetWhenAskedTo) {
  expectRun(runTool({"write", "--create", "Script", "INF", "started"}), 0, "", "");
  expectRun(runTool({"write", "Script", "INF", "--create", "again"}), 0, "", "");
  expectRun(runTool({"write", "--create", "--hex", "--entries", "8", "Frames", "INF", "41 42"}), 0, "", "");
  ASSERT_EQ(getCurrentNumberTraceSets(), 2);
  EXPECT_EQ(descriptor(0).maxNumberEntries, 256);
  EXPECT_EQ(slot(0, 0).text(), "started");
  EXPECT_EQ(slot(0, 1).text(), "again");
  EXPECT_EQ(descriptor(1).type, TS_DUMP);
  EXPECT_EQ(descriptor(1).maxNumberEntries, 8);
  EXPECT_EQ(slot(1, 0).header.contentsLength, 2);
  // Without --create a missing set stays missing.
  expectRun(runTool({"write", "Other", "INF", "x"}), 1, "",
            "nodetrace: unknown trace set 'Other' (write with --create to create it)\n");
  EXPECT_EQ(getCurrentNumberTraceSets(), 2);
}

TEST_F(ShellTest, UnknownNamesGetTheNearestOnes) {
  createSet("Radio", TS_STRING, 16, 128);
  createSet("Radar", TS_STRING, 16, 128);
  createSet("Power", TS_STRING, 16, 128);
  expectRun(runTool({"show", "radio"}), 1, "", "nodetrace: unknown trace set 'radio'; did you mean Radio or Radar?\n");
  expectRun(runTool({"mask", "Rdaio"}), 1, "", "nodetrace: unknown trace set 'Rdaio'; did you mean Radio?\n");
  expectRun(runTool({"write", "Sytsem", "ERR", "x"}), 1, "",
            "nodetrace: unknown trace set 'Sytsem'; did you mean System?\n");
  expectRun(runTool({"clear", "POWER"}), 1, "", "nodetrace: unknown trace set 'POWER'; did you mean Power?\n");
  expectRun(runTool({"follow", "Nope"}), 1, "", "nodetrace: unknown trace set 'Nope'\n");
  expectRun(runTool({"show", "Rad"}), 1, "", "nodetrace: unknown trace set 'Rad'\n");
}

TEST_F(ShellTest, TheTextOfWriteMayStartWithADash) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 16, 128);
  expectRun(runTool({"write", "Radio", "INF", "-5", "dBm"}), 0, "", "");
  expectRun(runTool({"write", "Radio", "INF", "--line", "3", "-x", "--line", "4"}), 0, "", "");
  expectRun(runTool({"write", "-c", "1", "Radio", "INF", "-"}), 0, "", "");
  expectRun(runTool({"write", "Radio", "INF", "--", "--all"}), 0, "", "");
  EXPECT_EQ(slot(radio, 0).text(), "-5 dBm");
  EXPECT_EQ(slot(radio, 1).text(), "-x --line 4");
  EXPECT_EQ(slot(radio, 1).header.line, 3);
  EXPECT_EQ(slot(radio, 2).text(), "-");
  EXPECT_EQ(slot(radio, 2).header.category, 1u);
  EXPECT_EQ(slot(radio, 3).text(), "--all");
  // Before SET and SEVERITY a dash is an option, and an unknown one is wrong
  // use.
  expectRun(runTool({"write", "-x", "Radio", "INF", "text"}), 2, "",
            "nodetrace: The following argument was not expected: -x\nRun 'nodetrace write --help' for more "
            "information.\n");
}

TEST_F(ShellTest, ExitStatusesFollowOneRule) {
  createSet("Radio", TS_STRING, 16, 128);
  // 2: wrong use of the command line, whatever its kind.
  EXPECT_EQ(runTool({"nosuch"}).status, 2);
  EXPECT_EQ(runTool({"show", "--nosuch"}).status, 2);
  EXPECT_EQ(runTool({"show", "-n", "x"}).status, 2);
  EXPECT_EQ(runTool({"show", "-s", "LOUD"}).status, 2);
  EXPECT_EQ(runTool({"severity", "+LOUD"}).status, 2);
  EXPECT_EQ(runTool({"severity", "DBG"}).status, 2);
  EXPECT_EQ(runTool({"mask", "Radio", "xyz"}).status, 2);
  EXPECT_EQ(runTool({"write", "Radio", "LOUD", "x"}).status, 2);
  EXPECT_EQ(runTool({"show", "-f", ""}).status, 2);
  // 1: the operation failed on this node.
  EXPECT_EQ(runTool({"show", "Nope"}).status, 1);
  EXPECT_EQ(runTool({"show", "7"}).status, 1);
  // 0: done.
  EXPECT_EQ(runTool({"show", "Radio"}).status, 0);
}

}  // namespace
}  // namespace nt::test

namespace nt::test {
namespace {

class PreviousRunTest : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    allowDebug();
    radio_ = createSet("Radio", TS_STRING, 16, 128);
  }
  std::int16_t radio_ = -1;
};

TEST_F(PreviousRunTest, ShowsTheNewestDumpsWrittenBeforeTheReset) {
  text(radio_, TRACE_SEVERITY_INF, "older run");
  ASSERT_EQ(dumpTracesBeforeReset(logs("TraceLog.12").c_str(), 1), 0);
  std::filesystem::last_write_time(logs("TraceLog.12"),
                                   std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  ASSERT_EQ(clearTraceSet(radio_), 0);
  text(radio_, TRACE_SEVERITY_INF, "n1");
  text(radio_, TRACE_SEVERITY_DBG, "n2");
  ASSERT_EQ(dumpTracesBeforeReset(logs("TraceLog.3").c_str(), 1), 0);
  writeFileText(logs("TraceLog.3x"), "not a dump");
  writeFileText(logs("TraceLog."), "not a dump");

  expectRun(runTool({"show", "--previous-run", "-f", "%S %I %c"}), 0, "INF Radio n1\nDBG Radio n2\n", "");
  expectRun(runTool({"show", "--last-boot", "-s", "DBG", "-f", "%S %c"}), 0, "DBG n2\n", "");
  expectRun(runTool({"show", "-P", "-n", "1", "-f", "%c"}), 0, "n2\n", "");
  expectRun(runTool({"show", "-P", "Radio", "-f", "%c"}), 0, "n1\nn2\n", "");
  expectRun(runTool({"show", "-P", "Power", "-f", "%c"}), 0, "", "");
}

TEST_F(PreviousRunTest, SaysWhenThereIsNone) {
  expectRun(runTool({"show", "--previous-run"}), 1, "",
            "nodetrace: no dump of the previous run: " + logs() + " holds no TraceLog.<n> or ErrorTrace.<n> file\n");
}

}  // namespace
}  // namespace nt::test

namespace nt::test {
namespace {

using DecodeLineTest = ToolTest;

TEST_F(DecodeLineTest, TheHelpNamesTheFilesPlainly) {
  const ToolResult result = runTool({"decode", "--help"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("\n  FILE ... REQUIRED   "), std::string::npos) << result.out;
  EXPECT_EQ(result.out.find("TEXT ... REQUIRED"), std::string::npos) << result.out;
}

TEST_F(DecodeLineTest, MillisecondsKeepThreeDigitsInEitherTimeOrder) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 64, 128);
  for (int i = 0; i < 40; ++i) text(radio, TRACE_SEVERITY_INF, "e" + std::to_string(i));
  const std::string file = root_ + "/x.dump";
  ASSERT_EQ(dumpTracesToFile(file.c_str(), 0, 0), 0);
  for (const char* order : {"network", "little"}) {
    const ToolResult result = runTool({"decode", file, "--time-order", order, "--line-format", "%dz|%uz"});
    EXPECT_EQ(result.status, 0) << result.err;
    const std::vector<std::string> lines = linesOf(result.out);
    EXPECT_EQ(lines.size(), 40u);
    // '9' stands for any digit.
    const std::string stamp = "9999-99-99T99:99:99.999Z|9999-99-99T99:99:99.999999Z";
    for (const std::string& line : lines) {
      bool matches = line.size() == stamp.size();
      for (std::size_t i = 0; matches && i < line.size(); ++i) {
        matches = stamp[i] == '9' ? (line[i] >= '0' && line[i] <= '9') : line[i] == stamp[i];
      }
      EXPECT_TRUE(matches) << order << ": " << line;
    }
  }
}

}  // namespace
}  // namespace nt::test

namespace nt::test {
namespace {

TEST_F(ShellTest, TheSetsOfTheSramFileKeepTheirRulesUnderAnySpellingOfTheirIds) {
  expectRun(runTool({"write", "0255", "INF", "x"}), 2, "",
            "nodetrace: System keeps only entries of severity ERR, WAR and NOT\n");
  expectRun(runTool({"write", "0254", "ERR", "x"}), 2, "",
            "nodetrace: NVJ_System keeps the entries of the remote unit; the tool does not write there\n");
}

}  // namespace
}  // namespace nt::test
