// nodetrace severity, mask, enable, disable, clear and write against a test
// node.

#include <string>

#include "tests/tool/tool_test.h"

namespace nt::test {
namespace {

using ControlTest = ToolTest;

void expectRun(const ToolResult& result, int status, const std::string& out, const std::string& err) {
  EXPECT_EQ(result.status, status);
  EXPECT_EQ(result.out, out);
  EXPECT_EQ(result.err, err);
}

TEST_F(ControlTest, SeverityShowsAndChangesTheNodeWideFilter) {
  expectRun(runTool({"severity"}), 0, "ERR WAR INF NOT (0xE8)\n", "");
  expectRun(runTool({"severity", "+dbg"}), 0, "ERR WAR INF DBG NOT (0xF8)\n", "");
  EXPECT_EQ(getSeverityFilter(), 0xF8);
  EXPECT_EQ(readFileText(logs("severityMask.conf")), "0xF8\n");
  expectRun(runTool({"severity", "-INF", "-NOT"}), 0, "ERR WAR DBG (0xD0)\n",
            "nodetrace: note: entries of ERR, WAR and NOT always go to System; the filter holds back only INF and DBG "
            "entries\n");
  EXPECT_EQ(getSeverityFilter(), 0xD0);
  expectRun(runTool({"severity", "-ERR", "-WAR", "-DBG"}), 0, "none (0x00)\n",
            "nodetrace: note: entries of ERR, WAR and NOT always go to System; the filter holds back only INF and DBG "
            "entries\n");
  expectRun(runTool({"severity", "+ERR", "+WAR", "+INF", "+NOT"}), 0, "ERR WAR INF NOT (0xE8)\n", "");
}

TEST_F(ControlTest, SeverityRefusesBadChangesBeforeMakingAny) {
  expectRun(runTool({"severity", "+DBG", "+FOO"}), 2, "",
            "nodetrace: unknown severity 'FOO' (use ERR, WAR, INF, DBG or NOT)\n");
  EXPECT_EQ(getSeverityFilter(), 0xE8);
  expectRun(runTool({"severity", "DBG"}), 2, "",
            "nodetrace: 'DBG': write +NAME to let a severity through or -NAME to filter it out\n");
  expectRun(runTool({"severity", "+"}), 2, "", "nodetrace: unknown severity '' (use ERR, WAR, INF, DBG or NOT)\n");
  EXPECT_EQ(getSeverityFilter(), 0xE8);
}

TEST_F(ControlTest, MaskShowsAndReplacesTheCategoryMask) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 16, 128, 0x0000000F);
  expectRun(runTool({"mask", "Radio"}), 0, "0x0000000F\n", "");
  expectRun(runTool({"mask", "Radio", "0x30"}), 0, "0x00000030\n", "");
  EXPECT_EQ(getCategoryMask(radio), 0x30);
  expectRun(runTool({"mask", "0", "FFFF0000"}), 0, "0xFFFF0000\n", "");
  expectRun(runTool({"mask", "System"}), 0, "0xFFFFFFFF\n", "");
  expectRun(runTool({"mask", "NVJ_System"}), 0, "0xFFFFFFFF\n", "");
}

TEST_F(ControlTest, MaskRefusals) {
  createSet("Radio", TS_STRING, 16, 128, 0x0000000F);
  expectRun(runTool({"mask", "System", "1"}), 2, "",
            "nodetrace: the category mask of System cannot be changed: the sets of the SRAM file keep every "
            "category\n");
  expectRun(runTool({"mask", "Radio", "0xG"}), 2, "",
            "nodetrace: '0xG' is not a category mask (up to 8 hexadecimal digits, such as 0x0000000F)\n");
  expectRun(runTool({"mask", "Nope"}), 1, "", "nodetrace: unknown trace set 'Nope'\n");
  expectRun(runTool({"mask"}), 2, "",
            "nodetrace: SET is required\nRun 'nodetrace mask --help' for more information.\n");
  EXPECT_EQ(getCategoryMask(0), 0x0F);
}

TEST_F(ControlTest, DisableAndEnableSwitchTracingAndLeaveRecords) {
  const TraceSetStruct before = errorSet();
  expectRun(runTool({"disable", "field", "test"}), 0, "", "");
  EXPECT_EQ(isTraceEnabled(), 0);
  expectRun(runTool({"enable", "done"}), 0, "", "");
  EXPECT_EQ(isTraceEnabled(), 1);
  const std::vector<SramEntry> records = errorEntriesSince(before);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text(), "Trace system disabled: field test");
  EXPECT_EQ(records[1].text(), "Trace system enabled: done");
  EXPECT_STREQ(records[0].header.fileName, "nodetrace");
  EXPECT_EQ(records[0].header.line, 0);
  EXPECT_EQ(records[0].header.severity, TRACE_SEVERITY_NOT);
  expectRun(runTool({"enable"}), 2, "",
            "nodetrace: REASON is required\nRun 'nodetrace enable --help' for more information.\n");
}

TEST_F(ControlTest, ClearEmptiesAUserSet) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 16, 128);
  text(radio, TRACE_SEVERITY_INF, "one");
  text(radio, TRACE_SEVERITY_INF, "two");
  const std::uint32_t total = getTotalNumberTraceEntries();
  expectRun(runTool({"clear", "Radio"}), 0, "", "");
  EXPECT_EQ(descriptor(radio).curentNumberEntries, 0);
  EXPECT_EQ(descriptor(radio).totalNumberEntries, 0u);
  EXPECT_EQ(getTotalNumberTraceEntries(), total);
  expectRun(runTool({"show", "Radio"}), 0, "", "");
}

TEST_F(ControlTest, ClearRefusals) {
  expectRun(runTool({"clear", "System"}), 2, "",
            "nodetrace: the trace set System cannot be cleared: the sets of the SRAM file are kept across resets\n");
  expectRun(runTool({"clear", "254"}), 2, "",
            "nodetrace: the trace set 254 cannot be cleared: the sets of the SRAM file are kept across resets\n");
  expectRun(runTool({"clear", "Radio"}), 1, "", "nodetrace: unknown trace set 'Radio'\n");
}

TEST_F(ControlTest, WriteAddsATextEntryLikeAnApplication) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 16, 128, 0x3);
  expectRun(runTool({"write", "Radio", "inf", "link", "up"}), 0, "", "");
  expectRun(runTool({"write", "Radio", "INF", "--file", "scripts/check.sh", "--line", "12", "-c", "2", "second"}), 0,
            "", "");
  const Slot first = slot(radio, 0);
  EXPECT_EQ(first.text(), "link up");
  EXPECT_STREQ(first.header.fileName, "nodetrace");
  EXPECT_EQ(first.header.line, 0);
  EXPECT_EQ(first.header.severity, TRACE_SEVERITY_INF);
  EXPECT_EQ(first.header.category, 0xFFFFFFFFu);
  const Slot second = slot(radio, 1);
  EXPECT_EQ(second.text(), "second");
  EXPECT_STREQ(second.header.fileName, "check.sh");
  EXPECT_EQ(second.header.line, 12);
  EXPECT_EQ(second.header.category, 2u);
  expectRun(runTool({"show", "Radio", "-f", "%S %l %c"}), 0, "INF nodetrace(0) link up\nINF check.sh(12) second\n",
            "");
}

TEST_F(ControlTest, WriteOfAWarningGoesToSystem) {
  createSet("Radio", TS_STRING, 16, 128);
  const TraceSetStruct before = errorSet();
  expectRun(runTool({"write", "Radio", "WAR", "weak signal"}), 0, "", "");
  expectRun(runTool({"write", "System", "ERR", "bad"}), 0, "", "");
  const std::vector<SramEntry> records = errorEntriesSince(before);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text(), "Radio: weak signal");
  EXPECT_EQ(records[1].text(), "bad");
}

TEST_F(ControlTest, WriteOfDumpEntries) {
  const std::int16_t frames = createSet("Frames", TS_DUMP, 4, 64);
  expectRun(runTool({"write", "Frames", "INF", "--hex", "41 42:0a", "ff"}), 0, "", "");
  expectRun(runTool({"write", "Frames", "DBG", "raw"}), 0, "", "nodetrace: note: the entry was not stored: the severity filter lets no entry of this severity through\n");
  expectRun(runTool({"write", "Frames", "INF", "raw"}), 0, "", "");
  const Slot first = slot(frames, 0);
  EXPECT_EQ(first.header.contentsLength, 4);
  EXPECT_EQ(Bytes(first.contents.begin(), first.contents.begin() + 4), (Bytes{0x41, 0x42, 0x0A, 0xFF}));
  EXPECT_EQ(slot(frames, 1).text(), "raw");
  expectRun(runTool({"write", "Frames", "INF", "--hex", "4"}), 2, "", "nodetrace: '4' ends in half a byte\n");
  expectRun(runTool({"write", "Frames", "INF", "--hex", "zz"}), 2, "",
            "nodetrace: 'zz' is not a row of hexadecimal bytes (such as \"41 42 0a\")\n");
  expectRun(runTool({"write", "Frames", "WAR", "x"}), 1, "",
            "nodetrace: entries of ERR, WAR and NOT go to System, which keeps text; Frames keeps dump entries\n");
}

TEST_F(ControlTest, WriteNotesEntriesTheFiltersDrop) {
  createSet("Radio", TS_STRING, 16, 128, 0x1);
  expectRun(runTool({"write", "Radio", "DBG", "x"}), 0, "",
            "nodetrace: note: the entry was not stored: the severity filter lets no entry of this severity "
            "through\n");
  expectRun(runTool({"write", "Radio", "INF", "-c", "2", "x"}), 0, "",
            "nodetrace: note: the entry was not stored: the category shares no bit with the set's category mask\n");
  expectRun(runTool({"disable", "quiet"}), 0, "", "");
  expectRun(runTool({"write", "Radio", "INF", "x"}), 0, "",
            "nodetrace: note: the entry was not stored: the trace system is disabled\n");
  EXPECT_EQ(descriptor(0).totalNumberEntries, 0u);
}

TEST_F(ControlTest, WriteRefusals) {
  createSet("Radio", TS_STRING, 16, 128);
  expectRun(runTool({"write", "Nope", "INF", "x"}), 1, "",
            "nodetrace: unknown trace set 'Nope' (write with --create to create it)\n");
  expectRun(runTool({"write", "Radio", "LOUD", "x"}), 2, "",
            "nodetrace: unknown severity 'LOUD' (use ERR, WAR, INF, DBG or NOT)\n");
  expectRun(runTool({"write", "Radio", "INF", "--hex", "41"}), 1, "",
            "nodetrace: --hex needs a trace set of dump entries; Radio keeps text\n");
  expectRun(runTool({"write", "System", "INF", "x"}), 2, "",
            "nodetrace: System keeps only entries of severity ERR, WAR and NOT\n");
  expectRun(runTool({"write", "NVJ_System", "ERR", "x"}), 2, "",
            "nodetrace: NVJ_System keeps the entries of the remote unit; the tool does not write there\n");
  expectRun(runTool({"write", "Radio", "INF"}), 2, "",
            "nodetrace: TEXT is required\nRun 'nodetrace write --help' for more information.\n");
}

}  // namespace
}  // namespace nt::test
