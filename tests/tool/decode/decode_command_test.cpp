// The decode subcommand on a command line: its options, its output on
// standard output or into a file, its messages and exit status.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/node_test.h"
#include "tests/tool/decode/dump_builder.h"
#include "tool/decode/decode_command.h"

namespace nodetrace_tool::decode::test {
namespace {

using nt::test::StderrCapture;
using nt::test::StdoutCapture;

struct Outcome {
  int status = 0;
  std::string out;
  std::string err;
};

class DecodeCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "nodetrace-decode-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
    BuiltDump dump;
    BuiltSet set;
    set.name = "Radio";
    set.entries = {textEntry(1, "first", 1717243200, 1000000), textEntry(2, "second", 1717243202, 0)};
    dump.sets = {set};
    writeBytes(file("a.bin"), buildDump(dump, TimeOrder::kNetwork));
    dump.sets[0].name = "Other";
    dump.sets[0].entries = {textEntry(5, "between", 1717243201, 0)};
    writeBytes(file("b.bin"), buildDump(dump, TimeOrder::kLittle));
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }
  std::string file(const std::string& name) const { return directory_ + "/" + name; }

  // Runs "nodetrace ARGS..." as the tool's main would: CLI11 errors become
  // the exit status through app.exit.
  static Outcome run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "nodetrace");
    std::vector<const char*> argv;
    for (const std::string& argument : arguments) argv.push_back(argument.c_str());
    CLI::App app("nodetrace");
    app.require_subcommand(1);
    addDecodeCommand(app);
    Outcome result;
    StdoutCapture out;
    StderrCapture err;
    try {
      app.parse(static_cast<int>(argv.size()), argv.data());
    } catch (const CLI::ParseError& error) {
      result.status = app.exit(error);
    }
    result.out = out.take();
    result.err = err.take();
    return result;
  }

  std::string directory_;
};

TEST_F(DecodeCommand, DecodesAndMergesFiles) {
  const Outcome result = run({"decode", file("a.bin"), file("b.bin"), "--line-format", "%I %c %dz"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "Radio first 2024-06-01T12:00:00.001Z\n"
            "Other between 2024-06-01T12:00:01.000Z\n"
            "Radio second 2024-06-01T12:00:02.000Z\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(DecodeCommand, TheDefaultLayout) {
  const Outcome result = run({"decode", file("a.bin")});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "2024-06-01T12:00:00.001Z INF Radio main.c(1) 100/101: first\n"
            "2024-06-01T12:00:02.000Z INF Radio main.c(1) 100/101: second\n");
}

TEST_F(DecodeCommand, TheTimeOrderCanBeForced) {
  const Outcome result = run({"decode", file("b.bin"), "--time-order", "network", "--format", "jsonl"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("\"kind\":\"trace_dump\""), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("\"real_seconds\":1091394406,"), std::string::npos) << result.out;
}

TEST_F(DecodeCommand, WritesIntoAFile) {
  const Outcome result = run({"decode", "--format", "csv", "--output", file("out.csv"), file("a.bin")});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  const Bytes written = readBytes(file("out.csv"));
  const std::string text(written.begin(), written.end());
  EXPECT_EQ(text.substr(0, 9), "file,kind");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
}

TEST_F(DecodeCommand, WritesACtfTraceDirectory) {
  const Outcome result = run({"decode", file("a.bin"), file("b.bin"), "--format", "ctf", "--output", file("trace")});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
  for (const char* name : {"metadata", "stream_0", "stream_1"}) {
    EXPECT_TRUE(std::filesystem::is_regular_file(file("trace/") + name)) << name;
  }
  const Outcome toStandardOutput = run({"decode", file("a.bin"), "--format", "ctf"});
  EXPECT_EQ(toStandardOutput.status, 1);
  EXPECT_EQ(toStandardOutput.out, "");
  EXPECT_EQ(toStandardOutput.err, "nodetrace decode: the ctf format writes a directory: name it with --output DIR\n");
}

TEST_F(DecodeCommand, ABrokenFileStillGivesWhatCanBeRead) {
  Bytes cut = readBytes(file("a.bin"));
  cut.resize(cut.size() - 100);
  writeBytes(file("cut.bin"), cut);
  const Outcome result =
      run({"decode", file("cut.bin"), file("missing.bin"), file("b.bin"), "--line-format", "%c", "--format", "text"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "first\nbetween\n");
  EXPECT_EQ(result.err, "nodetrace decode: " + file("cut.bin") +
                            ": truncated entry at offset 284: 108 bytes of 208 present\n"
                            "nodetrace decode: " +
                            file("missing.bin") + ": cannot read: No such file or directory\n");
}

TEST_F(DecodeCommand, AnOutputThatCannotBeWritten) {
  const Outcome result = run({"decode", file("a.bin"), "--output", file("no/such/dir/out")});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "nodetrace decode: " + file("no/such/dir/out") + ": cannot write: No such file or directory\n");
}

TEST_F(DecodeCommand, BadArguments) {
  Outcome result = run({"decode", file("a.bin"), "--format", "xml"});
  EXPECT_NE(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find("--format"), std::string::npos) << result.err;
  result = run({"decode", file("a.bin"), "--time-order", "big"});
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.err.find("--time-order"), std::string::npos) << result.err;
  result = run({"decode"});
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.err.find("FILE"), std::string::npos) << result.err;
}

TEST_F(DecodeCommand, Help) {
  const Outcome result = run({"decode", "--help"});
  EXPECT_EQ(result.status, 0);
  for (const char* word : {"FILE", "--format", "--time-order", "--output", "--line-format", "chrome", "jsonl", "ctf"}) {
    EXPECT_NE(result.out.find(word), std::string::npos) << word << "\n" << result.out;
  }
}

}  // namespace
}  // namespace nodetrace_tool::decode::test
