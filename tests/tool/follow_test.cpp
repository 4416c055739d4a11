// nodetrace follow: new entries as they are written, lost entries reported,
// ended by SIGINT or SIGTERM.

#include <signal.h>

#include <string>

#include "tests/tool/tool_test.h"

namespace nt::test {
namespace {

class FollowTest : public ToolTest {
 protected:
  static void writeFromChild(std::int16_t id, const std::string& text, int count = 1) {
    EXPECT_EQ(runInChild([&] {
                for (int i = 1; i <= count; ++i) {
                  const std::string line = count == 1 ? text : text + std::to_string(i);
                  if (tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "f.c", i, "%s",
                                  line.c_str()) != 0) {
                    return 1;
                  }
                }
                return 0;
              }),
              0);
  }
  std::vector<std::string> follow(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"follow", "--interval", "20", "-f", "%I %c"});
    return arguments;
  }
  static void expectLine(RunningTool& tool, const std::string& line) {
    const std::optional<std::string> got = tool.readLine();
    ASSERT_TRUE(got.has_value()) << "no line, expected " << line;
    EXPECT_EQ(*got, line);
  }
};

TEST_F(FollowTest, PrintsTheLastEntriesThenNewOnesInOrderUntilInterrupted) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 16, 128);
  const std::int16_t power = createSet("Power", TS_STRING, 16, 128);
  writeFromChild(radio, "old", 3);
  RunningTool tool(toolEnvironment(), follow({"-n", "2"}));
  expectLine(tool, "Radio old2");
  expectLine(tool, "Radio old3");
  writeFromChild(power, "p1");
  writeFromChild(radio, "r1");
  writeFromChild(power, "p2");
  expectLine(tool, "Power p1");
  expectLine(tool, "Radio r1");
  expectLine(tool, "Power p2");
  tool.signal(SIGINT);
  const ToolResult result = tool.finish();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
}

TEST_F(FollowTest, SetsCreatedWhileFollowingJoinAndSigtermEnds) {
  const TraceSetStruct before = errorSet();
  EXPECT_EQ(tracePrintf(SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_ERR, 1, "f.c", 1, "start"), 0);
  ASSERT_EQ(errorEntriesSince(before).size(), 1u);
  RunningTool tool(toolEnvironment(), follow({}));
  expectLine(tool, "System start");  // the tool has taken its start
  const std::int16_t late = createSet("Late", TS_STRING, 16, 128);
  writeFromChild(late, "hello");
  expectLine(tool, "Late hello");
  tool.signal(SIGTERM);
  EXPECT_EQ(tool.finish().status, 0);
}

TEST_F(FollowTest, FiltersAndNamedSets) {
  allowDebug();
  const std::int16_t radio = createSet("Radio", TS_STRING, 16, 128);
  const std::int16_t power = createSet("Power", TS_STRING, 16, 128);
  text(radio, TRACE_SEVERITY_DBG, "start");
  text(radio, TRACE_SEVERITY_INF, "info before");
  RunningTool tool(toolEnvironment(), follow({"Radio", "-s", "DBG", "-n", "1"}));
  expectLine(tool, "Radio start");  // the tool has taken its start
  EXPECT_EQ(runInChild([&] {
              tracePrintf(static_cast<std::uint16_t>(power), TRACE_SEVERITY_DBG, 1, "f.c", 1, "power");
              tracePrintf(static_cast<std::uint16_t>(radio), TRACE_SEVERITY_INF, 1, "f.c", 2, "info");
              tracePrintf(static_cast<std::uint16_t>(radio), TRACE_SEVERITY_DBG, 1, "f.c", 3, "debug");
              return 0;
            }),
            0);
  expectLine(tool, "Radio debug");
  tool.signal(SIGINT);
  const ToolResult result = tool.finish();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
}

TEST_F(FollowTest, SaysHowManyEntriesWereLostWhenWritersOvertookIt) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 8, 128);
  RunningTool tool(toolEnvironment(), follow({"Radio"}));
  writeFromChild(radio, "first");
  expectLine(tool, "Radio first");
  // While the tool stands still, the writer goes round the ring and 12
  // entries further.
  tool.signal(SIGSTOP);
  writeFromChild(radio, "e", 20);
  tool.signal(SIGCONT);
  expectLine(tool, "-- 12 entries lost in set Radio --");
  for (int i = 13; i <= 20; ++i) expectLine(tool, "Radio e" + std::to_string(i));
  tool.signal(SIGSTOP);
  writeFromChild(radio, "again", 9);
  tool.signal(SIGCONT);
  expectLine(tool, "-- 1 entry lost in set Radio --");
  expectLine(tool, "Radio again2");
  tool.signal(SIGINT);
  const ToolResult result = tool.finish();
  EXPECT_EQ(result.status, 0);
}

TEST_F(FollowTest, SaysWhenASetWasCleared) {
  const std::int16_t radio = createSet("Radio", TS_STRING, 8, 128);
  writeFromChild(radio, "before", 3);
  RunningTool tool(toolEnvironment(), follow({"Radio", "-n", "1"}));
  expectLine(tool, "Radio before3");  // the tool has taken its start
  tool.signal(SIGSTOP);
  EXPECT_EQ(clearTraceSet(radio), 0);
  writeFromChild(radio, "after");
  tool.signal(SIGCONT);
  expectLine(tool, "-- set Radio was cleared --");
  expectLine(tool, "Radio after");
  tool.signal(SIGINT);
  EXPECT_EQ(tool.finish().status, 0);
}

TEST_F(FollowTest, Refusals) {
  ToolResult result = runTool({"follow", "Nope"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "nodetrace: unknown trace set 'Nope'\n");
  result = runTool({"follow", "-i", "5"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "nodetrace: the interval must lie between 10 and 60000 milliseconds\n");
}

}  // namespace
}  // namespace nt::test
