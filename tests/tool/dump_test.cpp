// nodetrace dump and nodetrace dump-before-reset: the files the library's
// dump operations write, read back with the independent decoder.

#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "tests/tool/tool_test.h"
#include "tests/trace/dump_decoder.h"

namespace nt::test {
namespace {

class DumpTest : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    allowDebug();
    radio_ = createSet("Radio", TS_STRING, 8, 128);
    power_ = createSet("Power", TS_STRING, 8, 64);
    EXPECT_EQ(runChildrenAtOnce(2,
                                [this](int index) {
                                  const std::int16_t id = index == 0 ? radio_ : power_;
                                  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_INF, 1, "d.c", 1, "i%d",
                                              index);
                                  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_DBG, 1, "d.c", 2, "d%d",
                                              index);
                                  tracePrintf(static_cast<std::uint16_t>(id), TRACE_SEVERITY_WAR, 1, "d.c", 3, "w%d",
                                              index);
                                  return 0;
                                }),
              (std::vector<int>{0, 0}));
  }
  std::string out(const std::string& name) const { return root_ + "/" + name; }
  std::int16_t radio_ = -1;
  std::int16_t power_ = -1;
};

TEST_F(DumpTest, DumpWritesTheUserSetsWithoutDebugEntries) {
  const ToolResult result = runTool({"dump", out("all.dump")});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
  const DumpFile file = decodeDump(readFileBytes(out("all.dump")), StampOrder::kBigEndian);
  ASSERT_EQ(file.descriptors.size(), 2u);
  EXPECT_EQ(file.descriptors[0].name, "Radio");
  ASSERT_EQ(file.entries[0].size(), 1u);
  EXPECT_EQ(file.entries[0][0].text(), "i0");
  ASSERT_EQ(file.entries[1].size(), 1u);
  EXPECT_EQ(file.entries[1][0].text(), "i1");
  EXPECT_FALSE(fileExists(path("/tmp/traceDump.tmp")));
}

TEST_F(DumpTest, DumpWithSramAndDebugEntries) {
  const ToolResult result = runTool({"dump", out("full.dump"), "--with-sram", "--debug"});
  EXPECT_EQ(result.status, 0) << result.err;
  const DumpFile file = decodeDump(readFileBytes(out("full.dump")), StampOrder::kBigEndian);
  ASSERT_EQ(file.descriptors.size(), 4u);
  EXPECT_EQ(file.descriptors[2].name, "NVJ_System");
  EXPECT_EQ(file.descriptors[3].name, "System");
  EXPECT_EQ(file.entries[0].size(), 2u);
  EXPECT_EQ(file.entries[0][1].text(), "d0");
  ASSERT_EQ(file.entries[3].size(), 2u);
  EXPECT_EQ(file.entries[3][0].text().substr(file.entries[3][0].text().size() - 2, 1), "w");
}

TEST_F(DumpTest, DumpBeforeResetTakesTheNewestEntriesWithTimeStampsInNodeOrder) {
  const ToolResult result = runTool({"dump-before-reset", out("reset.dump")});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  const DumpFile file = decodeDump(readFileBytes(out("reset.dump")), StampOrder::kNodeOrder);
  ASSERT_EQ(file.descriptors.size(), 2u);
  ASSERT_EQ(file.entries[0].size(), 2u);
  EXPECT_EQ(file.entries[0][0].text(), "i0");
  EXPECT_EQ(file.entries[0][1].text(), "d0");
  EXPECT_EQ(getSeverityFilter(), 0xF8);
}

TEST_F(DumpTest, DumpBeforeResetDirectlyRemovesTheOldFilesOfTheSlot) {
  writeFileText(logs("TraceLog.3"), "old");
  writeFileText(logs("TraceLog.4"), "other");
  writeFileText(path("/tmp/oldTrace"), std::string("\x03\x00", 2));
  const std::string name = "r.dump";  // relative to the tool's directory: short enough
  const std::string cwd = std::filesystem::current_path();
  std::filesystem::current_path(root_);
  const ToolResult result = runTool({"dump-before-reset", "--direct", name});
  std::filesystem::current_path(cwd);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_FALSE(fileExists(logs("TraceLog.3")));
  EXPECT_TRUE(fileExists(logs("TraceLog.4")));
  const DumpFile file = decodeDump(readFileBytes(out(name)), StampOrder::kNodeOrder);
  EXPECT_EQ(file.descriptors.size(), 2u);
}

TEST_F(DumpTest, RefusesFilesItCannotWrite) {
  const auto expectError = [this](const std::vector<std::string>& arguments, int status, const std::string& err) {
    const ToolResult result = runTool(arguments);
    EXPECT_EQ(result.status, status) << arguments.back();
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, err);
  };
  const std::string missing = out("no/such/dir/x.dump");
  expectError({"dump", missing}, 1,
              "nodetrace: cannot write the dump file '" + missing + "': No such file or directory\n");
  expectError({"dump", root_}, 1, "nodetrace: cannot write the dump file '" + root_ + "': not a regular file\n");
  expectError({"dump", "a b"}, 2,
              "nodetrace: the dump file name 'a b' may hold only letters, digits and / . _ - + , : @ % = (the "
              "library copies the file with a shell command)\n");
  expectError({"dump", "x;rm"}, 2,
              "nodetrace: the dump file name 'x;rm' may hold only letters, digits and / . _ - + , : @ % = (the "
              "library copies the file with a shell command)\n");
  expectError({"dump", "--", "-x"}, 2, "nodetrace: the dump file name '-x' starts with '-'; write ./-x\n");
  const std::string longName = "/" + std::string(40, 'a');
  expectError({"dump-before-reset", "--direct", longName}, 2,
              "nodetrace: the dump file name '" + longName + "' is longer than 39 characters\n");
  expectError({"dump"}, 2, "nodetrace: FILE is required\nRun 'nodetrace dump --help' for more information.\n");
}

TEST_F(DumpTest, NamesAStaleTemporaryFileAndRemovesItWithForce) {
  // A temporary file left by an earlier dump stops every dump of the node.
  const std::string temporary = path("/tmp/traceDump.tmp");
  writeFileText(temporary, "stale");
  ToolResult result = runTool({"dump", out("x.dump")});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "nodetrace: the temporary dump file " + temporary +
                            " is left over from a dump that did not finish (or one is running); remove it (rm " +
                            temporary + ") or dump with --force\n");
  EXPECT_FALSE(fileExists(out("x.dump")));
  EXPECT_TRUE(fileExists(temporary));

  result = runTool({"dump", "--force", out("x.dump")});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  EXPECT_FALSE(fileExists(temporary));
  const DumpFile file = decodeDump(readFileBytes(out("x.dump")), StampOrder::kBigEndian);
  EXPECT_EQ(file.descriptors.size(), 2u);
}

TEST_F(DumpTest, ExplainsARefusalOfTheLibraryAndLeavesNoFileBehind) {
  // The temporary file cannot be created in a directory without write
  // permission; an earlier file of the name given is gone as well.
  writeFileText(out("x.dump"), "old");
  ASSERT_EQ(chmod(path("/tmp").c_str(), 0555), 0);
  const ToolResult result = runToolWithoutFilePrivileges({"dump", out("x.dump")});
  chmod(path("/tmp").c_str(), 0755);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "nodetrace: the dump to '" + out("x.dump") +
                "' failed: a file could not be read or written (-6); System says: (dumpTracesToFile) Can't create "
                "file " + path("/tmp/traceDump.tmp") + ": 13 (Permission denied)\n");
  EXPECT_FALSE(fileExists(out("x.dump")));
}

}  // namespace
}  // namespace nt::test
