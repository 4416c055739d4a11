// nodetrace sets and nodetrace show against a test node written by several
// processes.

#include <arpa/inet.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "tests/tool/tool_test.h"
#include "tool/show_format.h"

namespace nt::test {
namespace {

class ShowTest : public ToolTest {
 protected:
  // One text entry, written by a process of its own.
  static void writeFromChild(std::int16_t id, std::uint32_t severity, const std::string& text, const char* file,
                             int line, std::uint32_t category = 1) {
    EXPECT_EQ(runInChild([&] {
                return tracePrintf(static_cast<std::uint16_t>(id), severity, category, file, line, "%s", text.c_str());
              }),
              0);
  }
};

TEST_F(ShowTest, SetsPrintsATableOfAllTraceSets) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 16, 128);
  createSet("Frames", TS_DUMP, 4, 64);
  writeFromChild(radio, TRACE_SEVERITY_INF, "up", "radio.c", 1);
  const ToolResult result = runTool({"sets"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            " ID  NAME        TYPE  ENTRIES  CAPACITY  WRITTEN\n"
            "  0  Radio       text        1        16        1\n"
            "  1  Frames      dump        0         4        0\n"
            "254  NVJ_System  text        0       738        0\n"
            "255  System      text        0       738        0\n"
            "\n2/200 user trace sets use 3904/10485760 bytes (0.0%) of shared memory; 1 entries written in total\n");
}

TEST_F(ShowTest, SetsColumnsWidenForLargeCounts) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 16, 128, 0x0000000F);
  createSet("ALongerSetName", TS_STRING, 65535, 8);
  sharedDescriptor(radio)->totalNumberEntries = 100000;
  sharedDescriptor(1)->totalNumberEntries = 4294967295u;
  const ToolResult result = runTool({"sets", "-v"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            " ID  NAME            TYPE  ENTRIES  CAPACITY     WRITTEN  MASK\n"
            "  0  Radio           text        0        16      100000  0x0000000F\n"
            "  1  ALongerSetName  text        0     65535  4294967295  0xFFFFFFFF\n"
            "254  NVJ_System      text        0       738           0  0xFFFFFFFF\n"
            "255  System          text        0       738           0  0xFFFFFFFF\n"
            "\n2/200 user trace sets use 5770408/10485760 bytes (55.0%) of shared memory; 0 entries written in "
            "total\n");
}

TEST_F(ShowTest, SetsReportPrintsTheLibrarysReport) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 16, 128);
  createSet("Frames", TS_DUMP, 4, 64);
  writeFromChild(radio, TRACE_SEVERITY_INF, "up", "radio.c", 1);
  const ToolResult result = runTool({"sets", "--report"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            "\nThere are 2/200 trace sets and the system trace set defined\n\n"
            "  0: Radio               \t     1/   16 STRING\n"
            "  1: Frames              \t     0/    4   DUMP\n"
            "254: NVJ_System          \t     0/  738 STRING\n"
            "255: System              \t     0/  738 STRING\n"
            "\nSummary: 2/200 user trace sets in 3904/10485760 bytes (0.0%) shared memory\n"
            "\t1 traces in total written to trace system\n");
}

TEST_F(ShowTest, SetsVerboseShowsTheCategoryMasks) {
  createSet("Radio", TS_STRING, 16, 128, 0x0000000F);
  const ToolResult result = runTool({"sets", "--report", "-v"});
  EXPECT_EQ(result.status, 0);
  const std::vector<std::string> lines = linesOf(result.out);
  ASSERT_GE(lines.size(), 6u);
  EXPECT_EQ(lines[3], "  0: Radio               \t     0/   16 CatMask 0x0000000F STRING");
  EXPECT_EQ(lines[4], "254: NVJ_System          \t     0/  738 CatMask 0xFFFFFFFF STRING");
  EXPECT_EQ(lines[5], "255: System              \t     0/  738 CatMask 0xFFFFFFFF STRING");
}

TEST_F(ShowTest, SetsWithoutTheSramFileNamesTheHalfSetUpNode) {
  ASSERT_EQ(std::remove(sram().c_str()), 0);
  const ToolResult result = runTool({"sets"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "nodetrace: the trace system cannot start: the node is half set up: the SRAM file " + sram() +
                            " is missing while the shared-memory object " + shmPath() + " exists; remove " +
                            shmPath() + " (its entries are lost) so that the next start creates both\n");
}

TEST_F(ShowTest, MergesTheSetsOfSeveralProcessesInWritingOrder) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 16, 128);
  const std::int16_t power = createSet("Power", TS_STRING, 16, 128);
  writeFromChild(radio, TRACE_SEVERITY_INF, "r1", "src/radio.c", 1);
  writeFromChild(power, TRACE_SEVERITY_INF, "p1", "power.c", 2);
  writeFromChild(radio, TRACE_SEVERITY_INF, "r2", "radio.c", 3);
  writeFromChild(radio, TRACE_SEVERITY_WAR, "weak signal", "radio.c", 4);
  writeFromChild(power, TRACE_SEVERITY_INF, "p2", "power.c", 5);
  EXPECT_EQ(runInChild([] {
              const std::uint32_t stamp[2] = {1, 2};
              return addRemoteSystemEntry(REMOTE_SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_NOT, 1, "remote.c", 6, "far",
                                          77, 78, stamp, stamp);
            }),
            0);
  writeFromChild(power, TRACE_SEVERITY_INF, "p3", "power.c", 7);

  const ToolResult result = runTool({"show", "--format", "%S %I %l %p/%P"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  const std::vector<std::string> lines = linesOf(result.out);
  ASSERT_EQ(lines.size(), 7u) << result.out;
  EXPECT_EQ(lines[0].substr(0, 18), "INF Radio radio.c(");
  EXPECT_EQ(lines[1].substr(0, 18), "INF Power power.c(");
  EXPECT_EQ(lines[5], "NOT NVJ_System remote.c(6) 77/78");

  const ToolResult texts = runTool({"show", "-f", "%S %I %l %c"});
  EXPECT_EQ(texts.out,
            "INF Radio radio.c(1) r1\n"
            "INF Power power.c(2) p1\n"
            "INF Radio radio.c(3) r2\n"
            "WAR System radio.c(4) Radio: weak signal\n"
            "INF Power power.c(5) p2\n" +
                linesOf(result.out)[5].substr(0, 14) + " remote.c(6) \n" +
                "INF Power power.c(7) p3\n");
}

TEST_F(ShowTest, ConcurrentWritersComeOutInSequenceOrder) {
  const std::int16_t first = createSet("A", TS_STRING, 64, 128);
  createSet("B", TS_STRING, 64, 128);
  createSet("C", TS_STRING, 64, 128);
  const std::vector<int> statuses = runChildrenAtOnce(3, [first](int index) {
    for (int i = 0; i < 20; ++i) {
      const int rc = tracePrintf(static_cast<std::uint16_t>(first + index), TRACE_SEVERITY_INF, 1, "w.c", i, "%c%d",
                                 'a' + index, i);
      if (rc != 0) return 1;
    }
    return 0;
  });
  EXPECT_EQ(statuses, (std::vector<int>{0, 0, 0}));
  const ToolResult result = runTool({"show", "-f", "%n %I %c"});
  EXPECT_EQ(result.status, 0);
  const std::vector<std::string> lines = linesOf(result.out);
  ASSERT_EQ(lines.size(), 60u);
  unsigned previous = 0;
  int next[3] = {0, 0, 0};
  for (const std::string& line : lines) {
    unsigned sequence = 0;
    char set = 0;
    char letter = 0;
    int number = -1;
    ASSERT_EQ(std::sscanf(line.c_str(), "%u %c %c%d", &sequence, &set, &letter, &number), 4) << line;
    EXPECT_LE(previous, sequence) << line;
    previous = sequence;
    // Each set's own entries keep their order.
    EXPECT_EQ(letter, set - 'A' + 'a');
    EXPECT_EQ(number, next[set - 'A']++) << line;
  }
}

TEST_F(ShowTest, DefaultLayoutShowsUtcTimeSeveritySetPositionIdsAndContents) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 16, 128);
  writeFromChild(radio, TRACE_SEVERITY_INF, "link up", "src/radio.c", 42);
  const Slot written = slot(radio, 0);
  const time_t seconds = static_cast<time_t>(ntohl(written.header.realTime.seconds));
  tm broken{};
  gmtime_r(&seconds, &broken);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &broken);
  char expected[256];
  std::snprintf(expected, sizeof expected, "%s.%03uZ INF Radio radio.c(42) %u/%u: link up\n", stamp,
                ntohl(written.header.realTime.nanoseconds) / 1000000, written.header.pid, written.header.tid);
  const ToolResult result = runTool({"show"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, expected);
  EXPECT_STREQ(nodetrace_tool::kDefaultShowFormat, "%dz %S %I %l %p/%P: %c");
}

TEST_F(ShowTest, DumpEntriesComeWithTheirHexRows) {
  const std::int16_t frames = createSet("Frames", TS_DUMP, 4, 64);
  EXPECT_EQ(runInChild([frames] {
              std::uint8_t bytes[20];
              for (int i = 0; i < 20; ++i) bytes[i] = static_cast<std::uint8_t>('A' + i);
              return addTraceEntry(static_cast<std::uint16_t>(frames), TS_DUMP, TRACE_SEVERITY_INF, 1, "f.c", 9, 20,
                                   bytes);
            }),
            0);
  const ToolResult result = runTool({"show", "Frames", "--format", "%S %I %c"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "INF Frames DUMP 20 bytes\n"
            "0x000: 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50  ABCDEFGHIJKLMNOP\n"
            "0x010: 51 52 53 54" +
                std::string(12 * 3, ' ') + "  QRST\n");
}

TEST_F(ShowTest, AWrappedRingListsItsOldestEntryFirst) {
  const std::int16_t ring = createSet("Ring", TS_STRING, 4, 128);
  for (int i = 1; i <= 6; ++i) writeFromChild(ring, TRACE_SEVERITY_INF, "e" + std::to_string(i), "r.c", i);
  const ToolResult result = runTool({"show", "Ring", "-f", "%c"});
  EXPECT_EQ(result.out, "e3\ne4\ne5\ne6\n");
}

class ShowFilterTest : public ShowTest {
 protected:
  void SetUp() override {
    ShowTest::SetUp();
    allowDebug();
    radio_ = createSet("Radio", TS_STRING, 16, 128);
    power_ = createSet("Power", TS_STRING, 16, 128);
    writeFromChild(radio_, TRACE_SEVERITY_INF, "i1", "radio.c", 1, 0x1);
    writeFromChild(power_, TRACE_SEVERITY_DBG, "d1", "power.c", 2, 0x2);
    writeFromChild(radio_, TRACE_SEVERITY_ERR, "e1", "radio.c", 3, 0x4);
    writeFromChild(radio_, TRACE_SEVERITY_DBG, "d2", "radio.c", 4, 0x4);
    writeFromChild(power_, TRACE_SEVERITY_WAR, "w1", "power.c", 5, 0x1);
    writeFromChild(power_, TRACE_SEVERITY_INF, "i2", "power.c", 6, 0x8);
  }
  std::string show(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"show", "-f", "%S %I %c"});
    const ToolResult result = runTool(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return result.out;
  }
  std::int16_t radio_ = -1;
  std::int16_t power_ = -1;
};

TEST_F(ShowFilterTest, EverythingWithoutFilters) {
  EXPECT_EQ(show({}),
            "INF Radio i1\nDBG Power d1\nERR System e1\nDBG Radio d2\nWAR System Power: w1\nINF Power i2\n");
}

TEST_F(ShowFilterTest, BySeverityNamesInAnyCase) {
  EXPECT_EQ(show({"--severity", "dbg"}), "DBG Power d1\nDBG Radio d2\n");
  EXPECT_EQ(show({"-s", "INF,Dbg"}), "INF Radio i1\nDBG Power d1\nDBG Radio d2\nINF Power i2\n");
  EXPECT_EQ(show({"-s", "ERR", "-s", "WAR"}), "ERR System e1\nWAR System Power: w1\n");
  EXPECT_EQ(show({"-s", "NOT"}), "");
}

TEST_F(ShowFilterTest, ByCategoryMask) {
  EXPECT_EQ(show({"--category", "0x6"}), "DBG Power d1\nERR System e1\nDBG Radio d2\n");
  EXPECT_EQ(show({"-c", "9"}), "INF Radio i1\nWAR System Power: w1\nINF Power i2\n");
}

TEST_F(ShowFilterTest, BySetNameOrId) {
  EXPECT_EQ(show({"Power"}), "DBG Power d1\nINF Power i2\n");
  EXPECT_EQ(show({"Power", "0"}), "INF Radio i1\nDBG Power d1\nDBG Radio d2\nINF Power i2\n");
  EXPECT_EQ(show({"System"}), "ERR System e1\nWAR System Power: w1\n");
  EXPECT_EQ(show({"255", "System"}), "ERR System e1\nWAR System Power: w1\n");
}

TEST_F(ShowFilterTest, TheLastLinesOfTheMergedStream) {
  EXPECT_EQ(show({"-n", "2"}), "WAR System Power: w1\nINF Power i2\n");
  EXPECT_EQ(show({"--lines", "3", "Radio", "-s", "INF,DBG"}), "INF Radio i1\nDBG Radio d2\n");
  EXPECT_EQ(show({"-n", "0"}), "");
  EXPECT_EQ(show({"-n", "1", "-s", "DBG"}), "DBG Radio d2\n");
}

TEST_F(ShowFilterTest, TheLibraryDirectivesLayTheLines) {
  EXPECT_EQ(show({"Radio", "-f", "[%i|%C|%x] %c"}), "[  0|00000001|%x] i1\n[  0|00000004|%x] d2\n");
}

TEST_F(ShowTest, RefusesWhatItCannotShow) {
  createSet("Radio", TS_STRING, 16, 128);
  const auto expectError = [this](const std::vector<std::string>& arguments, int status, const std::string& err) {
    const ToolResult result = runTool(arguments);
    EXPECT_EQ(result.status, status) << arguments.back();
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, err);
  };
  expectError({"show", "Nope"}, 1, "nodetrace: unknown trace set 'Nope'\n");
  expectError({"show", "Radio", "7"}, 1, "nodetrace: no trace set has the id 7\n");
  expectError({"show", "-s", "FOO"}, 2, "nodetrace: unknown severity 'FOO' (use ERR, WAR, INF, DBG or NOT)\n");
  expectError({"show", "-s", "INF,"}, 2, "nodetrace: unknown severity '' (use ERR, WAR, INF, DBG or NOT)\n");
  expectError({"show", "-c", "0xZZ"}, 2,
              "nodetrace: '0xZZ' is not a category mask (up to 8 hexadecimal digits, such as 0x0000000F)\n");
  expectError({"show", "-c", "123456789"}, 2,
              "nodetrace: '123456789' is not a category mask (up to 8 hexadecimal digits, such as 0x0000000F)\n");
  expectError({"show", "-f", std::string(300, 'x')}, 2,
              "nodetrace: the format is 300 characters long; at most 255 are allowed\n");
  // An empty layout would print an empty line per entry.
  expectError({"show", "-f", ""}, 2, "nodetrace: the format is empty; give directives such as \"%S %c\"\n");
  expectError({"show", "-n", "x"}, 2,
              "nodetrace: Could not convert: --lines = x\nRun 'nodetrace show --help' for more information.\n");
}

}  // namespace
}  // namespace nt::test
