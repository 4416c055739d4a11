// The CTF trace directory without a reader: the event classes of the
// metadata, the bytes of the packets, the clock held back where a node's
// clock went back, and what the writer does with the directory it is given.
// (ctf_reader_test.cpp has babeltrace2 read the traces.)
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/node_test.h"
#include "tests/tool/decode/dump_builder.h"
#include "tool/decode/ctf_output.h"
#include "tool/decode/decode_run.h"

namespace nodetrace_tool::decode::test {
namespace {

std::uint64_t le64(const std::vector<std::uint8_t>& bytes, std::size_t at) {
  std::uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = value << 8 | bytes.at(at + static_cast<std::size_t>(i));
  return value;
}

std::uint32_t le32(const std::vector<std::uint8_t>& bytes, std::size_t at) {
  return static_cast<std::uint32_t>(le64(bytes, at) & 0xFFFFFFFFu);
}

DecodedFile decoded(const BuiltDump& dump, const std::string& name) {
  return decodeDump(buildDump(dump, TimeOrder::kNetwork), name, TimeOrder::kNetwork);
}

struct Packet {
  std::size_t at = 0;
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  std::uint64_t bytes = 0;
};

// Walks the packets of a stream by their sizes.
std::vector<Packet> packets(const std::vector<std::uint8_t>& stream) {
  std::vector<Packet> out;
  for (std::size_t at = 0; at < stream.size();) {
    EXPECT_EQ(le32(stream, at), 0xC1FC1FC1u);
    Packet packet{at, le64(stream, at + 16), le64(stream, at + 24), le64(stream, at + 32) / 8};
    EXPECT_EQ(le64(stream, at + 40), packet.bytes * 8);  // packet size: no padding
    EXPECT_EQ(le64(stream, at + 48), out.size());        // sequence number
    if (packet.bytes == 0) break;
    out.push_back(packet);
    at += packet.bytes;
  }
  return out;
}

TEST(CtfOutput, EventClassesBySetAndSeverity) {
  BuiltDump dump;
  BuiltSet radio;
  radio.name = "Radio";
  radio.entries = {textEntry(1, "a"), textEntry(2, "b"), textEntry(3, "c"), textEntry(4, "d")};
  radio.entries[1].severity = 0x80;
  radio.entries[3].severity = 0x05;
  BuiltSet frames;
  frames.name = "Radio";  // a dump set of the same name
  frames.type = 1;
  frames.traceEntryContentsLength = 16;
  frames.entries = {textEntry(5, "e")};
  dump.sets = {radio, frames};
  const std::string metadata = ctfMetadata({decoded(dump, "a.bin")});

  EXPECT_EQ(metadata.rfind("/* CTF 1.8 */\n", 0), 0u);
  EXPECT_NE(metadata.find("\tname = \"realtime\";\n"), std::string::npos);
  EXPECT_NE(metadata.find("\tfreq = 1000000000;\n"), std::string::npos);
  EXPECT_NE(metadata.find("\tabsolute = true;\n"), std::string::npos);
  EXPECT_NE(metadata.find("event {\n\tname = \"Radio:INF\";\n\tid = 0;\n\tstream_id = 0;\n\tloglevel = 6;\n"
                          "\tfields := struct {\n\t\tuint16_t set_id;\n"),
            std::string::npos);
  EXPECT_NE(metadata.find("event {\n\tname = \"Radio:ERR\";\n\tid = 1;\n\tstream_id = 0;\n\tloglevel = 3;\n"),
            std::string::npos);
  // An unknown severity has no log level.
  EXPECT_NE(metadata.find("event {\n\tname = \"Radio:0x05\";\n\tid = 2;\n\tstream_id = 0;\n\tfields := struct {\n"),
            std::string::npos);
  EXPECT_NE(metadata.find("event {\n\tname = \"Radio:INF#2\";\n\tid = 3;\n\tstream_id = 0;\n\tloglevel = 6;\n"),
            std::string::npos);
  EXPECT_NE(metadata.find("\t\tuint16_t length;\n\t\tstring text;\n\t};\n};\n"), std::string::npos);
  EXPECT_NE(metadata.find("\t\tuint16_t length;\n\t\tuint16_t bytes_length;\n\t\tuint8_t bytes[bytes_length];\n"),
            std::string::npos);
  EXPECT_EQ(metadata.find("id = 4;"), std::string::npos);
}

TEST(CtfOutput, OnePacketOfOneEvent) {
  BuiltDump dump;
  BuiltSet set;
  set.name = "S";
  BuiltEntry entry = textEntry(7, "hi", 1717243200, 5);
  entry.fileName = "x.c";
  entry.line = -2;
  entry.pid = 0x01020304;
  entry.tid = 9;
  entry.category = 0x80000001;
  entry.monotonicSeconds = 11;
  entry.monotonicNanoseconds = 12;
  set.entries = {entry};
  dump.sets = {set};
  const std::vector<std::uint8_t> stream = ctfStream({decoded(dump, "f")}, 0);

  const std::uint64_t time = 1717243200000000005u;
  std::vector<std::uint8_t> expected = {
      0xC1, 0x1F, 0xFC, 0xC1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // magic, stream class 0, stream 0
  };
  auto put = [&](std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i) expected.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  };
  auto text = [&](const std::string& value) {
    expected.insert(expected.end(), value.begin(), value.end());
    expected.push_back(0);
  };
  put(time, 8);
  put(time, 8);
  const std::size_t sizes = expected.size();
  put(0, 8);
  put(0, 8);
  put(0, 8);  // packet sequence number
  text("f");
  text("trace_dump");
  put(0, 4);  // event class
  put(time, 8);
  put(0, 2);  // set id
  text("S");
  text("TS_STRING");
  put(7, 4);
  put(0x20, 1);
  put(0x80000001, 4);
  put(0x01020304, 4);
  put(9, 4);
  text("x.c");
  put(0xFFFFFFFE, 4);
  put(11, 4);
  put(12, 4);
  put(1717243200, 4);
  put(5, 4);
  put(3, 2);  // stored length, with the zero byte
  text("hi");
  const std::uint64_t bits = expected.size() * 8;
  for (std::size_t k = 0; k < 2; ++k) {
    for (int i = 0; i < 8; ++i) expected[sizes + 8 * k + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(bits >> (8 * i));
  }
  EXPECT_EQ(stream, expected);
}

TEST(CtfOutput, LongStreamsArePacketsAndTheClockNeverGoesBack) {
  BuiltDump dump;
  BuiltSet set = clockSetBackOnce("Frames", 1600, 100, 1000, 50, 100);  // the node's clock set back once
  for (BuiltEntry& entry : set.entries) {
    entry.contents.assign(1600, static_cast<std::uint8_t>(entry.sequenceNumber));
    entry.contentsLength = 1600;
  }
  dump.sets = {set};
  const std::vector<std::uint8_t> stream = ctfStream({decoded(dump, "f")}, 0);
  const std::vector<Packet> found = packets(stream);
  ASSERT_GT(found.size(), 2u);
  std::uint64_t bytes = 0;
  for (std::size_t i = 0; i < found.size(); ++i) {
    EXPECT_LE(found[i].bytes, 64u * 1024 + 1700);
    EXPECT_LE(found[i].begin, found[i].end);
    if (i > 0) {
      EXPECT_EQ(found[i].begin, found[i - 1].end + 1000000000ull);
    }
    bytes += found[i].bytes;
  }
  EXPECT_EQ(bytes, stream.size());
  EXPECT_EQ(found.front().begin, 1000ull * 1000000000u);
  EXPECT_EQ(found.back().end, 1099ull * 1000000000u);
}

TEST(CtfOutput, AFileWithoutEntriesIsOneEmptyPacket) {
  const std::vector<std::uint8_t> stream = ctfStream({decoded(BuiltDump{}, "f")}, 0);
  const std::vector<Packet> found = packets(stream);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].bytes, stream.size());
  EXPECT_EQ(found[0].begin, 0u);
  EXPECT_EQ(found[0].end, 0u);
}

class CtfDirectory : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "nodetrace-ctf-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root_ = pattern;
    BuiltDump dump;
    BuiltSet set;
    set.entries = {textEntry(1, "one", 10)};
    dump.sets = {set};
    writeBytes(root_ + "/a.bin", buildDump(dump, TimeOrder::kNetwork));
  }
  void TearDown() override { std::filesystem::remove_all(root_); }

  int decodeTo(const std::string& output, std::string& err) const {
    return decodeToCtf({root_ + "/a.bin", root_ + "/a.bin"}, output, err);
  }

  std::vector<std::string> names(const std::string& directory) const {
    std::vector<std::string> out;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) out.push_back(entry.path().filename());
    std::sort(out.begin(), out.end());
    return out;
  }

  std::string root_;
};

TEST_F(CtfDirectory, CreatesTheDirectoryAndReplacesAnEarlierTrace) {
  const std::string trace = root_ + "/out/trace";
  std::string err;
  ASSERT_EQ(decodeTo(trace, err), 0);
  EXPECT_EQ(err, "");
  EXPECT_EQ(names(trace), (std::vector<std::string>{"metadata", "stream_0", "stream_1"}));
  writeBytes(trace + "/stream_7", Bytes{1, 2, 3});
  ASSERT_EQ(decodeTo(trace, err), 0);
  EXPECT_EQ(names(trace), (std::vector<std::string>{"metadata", "stream_0", "stream_1"}));
}

TEST_F(CtfDirectory, LeavesOtherFilesAlone) {
  const std::string trace = root_ + "/trace";
  std::filesystem::create_directory(trace);
  writeBytes(trace + "/notes.txt", Bytes{'x'});
  std::string err;
  EXPECT_EQ(decodeTo(trace, err), 1);
  EXPECT_EQ(err, "nodetrace decode: " + trace +
                     ": cannot write a trace there: the directory holds \"notes.txt\", which is not part of a "
                     "trace of nodetrace decode\n");
  EXPECT_EQ(names(trace), std::vector<std::string>{"notes.txt"});
}

TEST_F(CtfDirectory, NeedsADirectory) {
  std::string err;
  EXPECT_EQ(decodeTo(root_ + "/a.bin", err), 1);
  EXPECT_EQ(err, "nodetrace decode: " + root_ + "/a.bin: cannot write a trace there: not a directory\n");
  EXPECT_EQ(decodeTo("", err), 1);
  EXPECT_EQ(err, "nodetrace decode: the ctf format writes a directory: name it with --output DIR\n");
  EXPECT_EQ(decodeTo("-", err), 1);
  EXPECT_EQ(err, "nodetrace decode: the ctf format writes a directory: name it with --output DIR\n");
}

TEST_F(CtfDirectory, FilesThatCannotBeReadAreReportedAfterTheTrace) {
  DecodeOptions options;
  options.files = {root_ + "/a.bin", root_ + "/missing.bin"};
  options.format = OutputFormat::kCtf;
  options.output = root_ + "/trace";
  std::ostringstream out;
  std::ostringstream err;
  EXPECT_EQ(runDecode(options, out, err), 1);
  EXPECT_EQ(err.str(), "nodetrace decode: " + root_ + "/missing.bin: cannot read: No such file or directory\n");
  EXPECT_EQ(names(options.output), (std::vector<std::string>{"metadata", "stream_0", "stream_1"}));
}

}  // namespace
}  // namespace nodetrace_tool::decode::test
