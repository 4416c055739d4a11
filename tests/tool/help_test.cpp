// --help of the tool and of every command, --version, and wrong use of the
// command line.

#include <string>

#include "tests/tool/tool_test.h"

namespace nt::test {
namespace {

using HelpTest = ToolTest;

TEST_F(HelpTest, TheToolListsEveryCommand) {
  const ToolResult result = runTool({"--help"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  const std::vector<std::string> lines = linesOf(result.out);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "Read, follow, filter and dump the traces of the node, and control the trace system.");
  EXPECT_EQ(lines[1], "Usage: nodetrace [OPTIONS] SUBCOMMAND");
  for (const char* command : {"sets", "show", "follow", "dump", "dump-before-reset", "severity", "mask", "enable",
                              "disable", "clear", "write", "create"}) {
    bool listed = false;
    for (const std::string& line : lines) listed = listed || line.rfind("  " + std::string(command) + " ", 0) == 0;
    EXPECT_TRUE(listed) << command;
  }
  EXPECT_EQ(runTool({"-h"}).out, result.out);
}

TEST_F(HelpTest, EveryCommandHasItsHelp) {
  const std::pair<const char*, const char*> usages[] = {
      {"sets", "Usage: nodetrace sets [OPTIONS]"},
      {"show", "Usage: nodetrace show [OPTIONS] [SET...]"},
      {"follow", "Usage: nodetrace follow [OPTIONS] [SET...]"},
      {"dump", "Usage: nodetrace dump [OPTIONS] FILE"},
      {"dump-before-reset", "Usage: nodetrace dump-before-reset [OPTIONS] FILE"},
      {"severity", "Usage: nodetrace severity [OPTIONS]"},
      {"mask", "Usage: nodetrace mask [OPTIONS] SET [MASK]"},
      {"enable", "Usage: nodetrace enable [OPTIONS] REASON..."},
      {"disable", "Usage: nodetrace disable [OPTIONS] REASON..."},
      {"clear", "Usage: nodetrace clear [OPTIONS] SET"},
      {"write", "Usage: nodetrace write [OPTIONS] SET SEVERITY TEXT..."},
      {"create", "Usage: nodetrace create [OPTIONS] SET"},
  };
  for (const auto& [command, usage] : usages) {
    const ToolResult result = runTool({command, "--help"});
    EXPECT_EQ(result.status, 0) << command;
    EXPECT_EQ(result.err, "") << command;
    const std::vector<std::string> lines = linesOf(result.out);
    ASSERT_GE(lines.size(), 2u) << command;
    EXPECT_EQ(lines[1], usage);
  }
  // Help is given before anything is checked or done on the node.
  EXPECT_EQ(runTool({"clear", "Nope", "--help"}).status, 0);
  EXPECT_NE(runTool({"severity", "--help"}).out.find("Arguments: [+NAME|-NAME]...\n"), std::string::npos);
}

TEST_F(HelpTest, Version) {
  const ToolResult result = runTool({"--version"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out.rfind("nodetrace ", 0), 0u) << result.out;
}

TEST_F(HelpTest, WrongUse) {
  ToolResult result = runTool({});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "nodetrace: A subcommand is required\nRun 'nodetrace --help' for more information.\n");
  result = runTool({"frobnicate"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "nodetrace: unknown command 'frobnicate'\nRun 'nodetrace --help' for more information.\n");
  result = runTool({"show", "--bogus"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err,
            "nodetrace: The following argument was not expected: --bogus\nRun 'nodetrace show --help' for more "
            "information.\n");
  result = runTool({"sets", "extra"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err,
            "nodetrace: The following argument was not expected: extra\nRun 'nodetrace sets --help' for more "
            "information.\n");
  EXPECT_EQ(result.out, "");
}

}  // namespace
}  // namespace nt::test
