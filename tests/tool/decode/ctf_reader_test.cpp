// The CTF traces of the decoder read back by a reader this project did not
// write: babeltrace2. Dump files written by the library (the demo's, a
// wrapped ring, a set of 1600-byte entries, the SRAM sets, both dump kinds),
// hand-made files of other nodes, and damaged files go to a trace
// directory; babeltrace2 must accept it, and every event it delivers (read
// through its Python bindings) must equal, field by field and in the same
// order, the JSON line that the decoder prints for the same files.
//
// Skipped, with a message, where babeltrace2 is not installed (Debian
// packages babeltrace2 and python3-bt2).
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/tool/decode/dump_builder.h"
#include "tests/trace/store_fixture.h"
#include "tool/decode/ctf_output.h"
#include "tool/decode/decode_run.h"

namespace nodetrace_tool::decode::test {
namespace {

using Json = nlohmann::json;

struct Command {
  int status = -1;
  std::string out;
};

// Runs a shell command line; its standard output and exit status.
Command runCommand(const std::string& line) {
  Command result;
  FILE* pipe = ::popen(line.c_str(), "r");
  if (pipe == nullptr) return result;
  char buffer[65536];
  std::size_t n = 0;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) result.out.append(buffer, n);
  const int status = ::pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (const char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out.push_back(c);
    }
  }
  return out + "'";
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// A Python 3 that has the babeltrace2 bindings: the distribution's first,
// since a python3 earlier on the PATH may be one without them.
std::string bindingsPython() {
  for (const char* candidate : {"/usr/bin/python3", "python3"}) {
    if (runCommand(std::string(candidate) + " -c 'import bt2' > /dev/null 2>&1").status == 0) return candidate;
  }
  return {};
}

std::string hex(const Json& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (const Json& byte : bytes) {
    const unsigned value = byte.get<unsigned>();
    out.push_back(kDigits[value >> 4 & 0xF]);
    out.push_back(kDigits[value & 0xF]);
  }
  return out;
}

int logLevel(const std::string& severity) {
  if (severity == "ERR") return 3;
  if (severity == "WAR") return 4;
  if (severity == "NOT") return 5;
  if (severity == "INF") return 6;
  if (severity == "DBG") return 14;
  return -1;
}

std::uint64_t u64(const Json& value) { return value.get<std::uint64_t>(); }

// The event class name of a set: its name in printable ASCII without quotes
// and backslashes, every other character as "_".
std::string className(const std::string& setName, const std::string& severity) {
  std::string out;
  for (const unsigned char c : setName) {
    if (c >= 0x80 && c < 0xC0) continue;
    out.push_back(c >= 0x20 && c < 0x7F && c != '"' && c != '\\' ? static_cast<char>(c) : '_');
  }
  return out + ":" + severity;
}

class CtfReaderTest : public nt::test::StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    if (runCommand("babeltrace2 --version > /dev/null 2>&1").status != 0) {
      GTEST_SKIP() << "babeltrace2 is not installed (Debian packages babeltrace2 and python3-bt2): "
                      "the CTF traces are not read back by a CTF reader";
    }
    python_ = bindingsPython();
    ASSERT_FALSE(python_.empty()) << "babeltrace2 is installed, but not its Python bindings (Debian package "
                                     "python3-bt2), through which this test reads the events";
  }

  std::string file(const std::string& name) const { return logs(name); }
  std::string traceDirectory() const { return path("/ctf-trace"); }

  static std::string decodeJsonLines(const std::vector<std::string>& files) {
    DecodeOptions options;
    options.files = files;
    options.format = OutputFormat::kJsonl;
    std::ostringstream out;
    std::ostringstream err;
    runDecode(options, out, err);
    return out.str();
  }

  // Decodes the files into the trace directory; the exit status, and the
  // messages in err.
  int decodeTrace(const std::vector<std::string>& files, std::string& err) const {
    return decodeToCtf(files, traceDirectory(), err);
  }

  // The trace directory through the babeltrace2 command (which must read
  // it without complaint, one line per event) and through its library.
  std::vector<Json> readTrace(std::size_t expectedEvents) const {
    const Command printed = runCommand("babeltrace2 " + quoted(traceDirectory()) + " 2>&1");
    EXPECT_EQ(printed.status, 0) << printed.out;
    EXPECT_EQ(lines(printed.out).size(), expectedEvents) << printed.out.substr(0, 2000);
    const Command read = runCommand(python_ + " " + quoted(NODETRACE_CTF_EVENTS_SCRIPT) + " " +
                                    quoted(traceDirectory()) + " 2>&1");
    EXPECT_EQ(read.status, 0) << read.out.substr(0, 4000);
    std::vector<Json> events;
    for (const std::string& line : lines(read.out)) {
      events.push_back(Json::parse(line, nullptr, false));
      if (events.back().is_discarded()) {
        ADD_FAILURE() << "not an event: " << line;
        return {};
      }
    }
    return events;
  }

  // Decodes the files both ways and compares every event with its JSON
  // line. Returns the number of events.
  std::size_t expectSameEvents(const std::vector<std::string>& files, int expectedStatus = 0) const {
    std::string err;
    EXPECT_EQ(decodeTrace(files, err), expectedStatus) << err;
    if (expectedStatus == 0) {
      EXPECT_EQ(err, "");
    }
    const std::vector<std::string> expected = lines(decodeJsonLines(files));
    const std::vector<Json> events = readTrace(expected.size());
    EXPECT_EQ(events.size(), expected.size());

    std::map<std::string, std::size_t> streamOfFile;
    for (std::size_t i = 0; i < files.size(); ++i) streamOfFile.emplace(files[i], i);
    // The event time is the real time, held back where the node's clock
    // went back within a file.
    std::map<std::string, std::uint64_t> latest;
    for (std::size_t i = 0; i < std::min(events.size(), expected.size()); ++i) {
      SCOPED_TRACE("event " + std::to_string(i) + ": " + expected[i]);
      const Json line = Json::parse(expected[i]);
      const Json& event = events[i];
      const Json& fields = event["fields"];
      const std::string severity = line["severity"];
      const std::uint64_t realMicroseconds = u64(line["real_seconds"]) * 1000000 + u64(line["real_microseconds"]);
      std::uint64_t& clock = latest[line["file"]];
      clock = std::max(clock, realMicroseconds);

      EXPECT_EQ(event["clock"], Json::parse(R"({"name": "realtime", "frequency": 1000000000, "offset_seconds": 0,
                                                 "offset_cycles": 0, "unix_epoch": true})"));
      EXPECT_EQ(u64(event["timestamp"]) / 1000, clock);
      EXPECT_EQ(event["stream"], streamOfFile.at(line["file"]));
      EXPECT_EQ(event["packet"]["file"], line["file"]);
      EXPECT_EQ(event["packet"]["kind"], line["kind"]);
      if (logLevel(severity) >= 0) {
        EXPECT_EQ(event["name"], className(line["set_name"], severity));
        EXPECT_EQ(event["log_level"], logLevel(severity));
        EXPECT_EQ(fields["severity"]["labels"], Json::array({severity}));
      } else {
        char bits[8];
        std::snprintf(bits, sizeof bits, "0x%02X", line["severity_bits"].get<unsigned>());
        EXPECT_EQ(event["name"], className(line["set_name"], bits));
        EXPECT_EQ(severity, "???");
        EXPECT_TRUE(event["log_level"].is_null());
        EXPECT_EQ(fields["severity"]["labels"], Json::array());
      }
      EXPECT_EQ(fields["severity"]["value"], line["severity_bits"]);
      for (const char* name : {"set_id", "set_name", "set_type", "sequence", "category", "pid", "tid", "source_file",
                               "line", "real_seconds", "length"}) {
        EXPECT_EQ(fields[name], line[name]) << name;
      }
      EXPECT_EQ(u64(fields["monotonic_seconds"]) * 1000000 + u64(fields["monotonic_nanoseconds"]) / 1000,
                u64(line["monotonic_us"]));
      EXPECT_EQ(u64(fields["real_nanoseconds"]) / 1000, u64(line["real_microseconds"]));
      if (line.contains("text")) {
        EXPECT_EQ(fields["text"], line["text"]);
        EXPECT_FALSE(fields.contains("bytes"));
      } else {
        EXPECT_EQ(hex(fields["bytes"]), line["bytes"]);
        EXPECT_EQ(fields["bytes_length"], fields["bytes"].size());
        EXPECT_FALSE(fields.contains("text"));
      }
      EXPECT_EQ(fields.size(), line.contains("text") ? 16u : 17u) << fields.dump();
    }
    return events.size();
  }

  // A store with a wrapped ring, a set of full 1600-byte dump entries and
  // shorter ones, entries of every severity, and both SRAM sets filled
  // (one of them wrapped).
  void fillStore() {
    allowDebug();
    const std::int16_t ring = createSet("Ring", TS_STRING, 8, 64);
    const std::int16_t frames = createSet("Frames", TS_DUMP, 4, 1600);
    const std::int16_t quiet = createSet("Quiet", TS_STRING, 4, 32);
    static_cast<void>(quiet);  // registered, never written: no events
    const std::uint32_t severities[] = {TRACE_SEVERITY_INF, TRACE_SEVERITY_DBG, TRACE_SEVERITY_NOT,
                                        TRACE_SEVERITY_WAR, TRACE_SEVERITY_ERR};
    // Only INF and DBG stay in the set (the others go to the error trace
    // set): 16 of them wrap the ring of 8 twice.
    for (int i = 0; i < 40; ++i) {
      text(ring, severities[i % 5], "ring entry " + std::to_string(i) + " \"quoted\", \\ and \xc3\xa9", 100 + i,
           0x1u << (i % 32));
    }
    nt::test::Bytes full(1600);
    for (std::size_t i = 0; i < full.size(); ++i) full[i] = static_cast<std::uint8_t>(i * 7);
    dump(frames, TRACE_SEVERITY_INF, full, 7);
    dump(frames, TRACE_SEVERITY_DBG, nt::test::Bytes(full.begin(), full.begin() + 3), 8);
    dump(frames, TRACE_SEVERITY_INF, full, 9);
    fillSramSet(0, 738, 5, 1000, 5000, TRACE_SEVERITY_WAR);
    fillSramSet(1, 6, 6, 6, 7000);
  }

  std::string python_;
};

// The files of one run of examples/demo: the store dumped by "nodetrace
// dump --with-sram" after the demo (its remote entries carry the remote
// unit's earlier clock), and the demo's own trace dump and dump before reset.
TEST_F(CtfReaderTest, TheDemoDumps) {
  const std::string data = NODETRACE_DECODE_TEST_DATA;
  EXPECT_EQ(expectSameEvents({data + "/demo-traces.bin"}), 8u);
  EXPECT_EQ(expectSameEvents({data + "/demo-trace-dump.bin"}), 6u);
  EXPECT_EQ(expectSameEvents({data + "/demo-before-reset.bin"}), 5u);
  EXPECT_EQ(expectSameEvents({data + "/demo-trace-dump.bin", data + "/demo-before-reset.bin",
                              data + "/demo-traces.bin"}),
            19u);
}

TEST_F(CtfReaderTest, TheTraceDumpWithTheSramSets) {
  fillStore();
  ASSERT_EQ(dumpTracesToFile(file("store.bin").c_str(), 1, 1), 0);
  // 8 of the ring, 3 frames and the two SRAM sets.
  EXPECT_EQ(expectSameEvents({file("store.bin")}), 8u + 3u + 738u + 6u);
}

TEST_F(CtfReaderTest, TheDumpBeforeReset) {
  fillStore();
  ASSERT_EQ(dumpTracesBeforeReset(file("reset.bin").c_str(), 1), 0);
  // The ring's 8 and the 3 frames; the SRAM sets are not part of it.
  EXPECT_EQ(expectSameEvents({file("reset.bin")}), 11u);
}

TEST_F(CtfReaderTest, BothDumpKindsInOneTrace) {
  fillStore();
  ASSERT_EQ(dumpTracesToFile(file("store.bin").c_str(), 1, 0), 0);
  ASSERT_EQ(dumpTracesBeforeReset(file("reset.bin").c_str(), 1), 0);
  expectSameEvents({file("reset.bin"), file("store.bin")});
}

// Three nodes: the files' streams merge by time, equal times in the order
// the files are named, and a node whose clock went back keeps its own order.
TEST_F(CtfReaderTest, SeveralNodesMergeByTime) {
  fillStore();
  ASSERT_EQ(dumpTracesBeforeReset(file("node-a.bin").c_str(), 1), 0);
  const DecodedFile a = readDumpFile(file("node-a.bin"), TimeOrder::kAuto);
  ASSERT_FALSE(a.entries.empty());
  const std::uint32_t start = a.entries.front().realSeconds;

  BuiltDump node;
  BuiltSet radio;
  radio.name = "Radio";
  for (std::uint32_t i = 0; i < 10; ++i) {
    BuiltEntry entry = textEntry(i, "node b " + std::to_string(i), start + i / 2, 0);
    entry.severity = static_cast<std::uint8_t>(i % 2 == 0 ? 0x20 : 0x40);
    radio.entries.push_back(entry);
  }
  // Same time as the first entry of node a, to the nanosecond.
  radio.entries[0].realSeconds = a.entries.front().realSeconds;
  radio.entries[0].realNanoseconds = a.entries.front().realNanoseconds;
  node.sets = {radio};
  writeBytes(file("node-b.bin"), buildDump(node, TimeOrder::kNetwork));

  BuiltSet backwards = clockSetBackOnce("Clock", 16, 6, start, 3, start - 100);  // set back once
  for (BuiltEntry& entry : backwards.entries) {
    const std::uint32_t i = entry.sequenceNumber;
    entry.realNanoseconds = 123456789;
    entry.monotonicSeconds = 50 + i;
    entry.monotonicNanoseconds = 987654321;
    entry.severity = static_cast<std::uint8_t>(i == 4 ? 0x03 : 0x08);  // and one unknown severity
    entry.contents = {1, 2, static_cast<std::uint8_t>(i)};
    entry.contentsLength = 3;
  }
  node.sets = {backwards};
  writeBytes(file("node-c.bin"), buildDump(node, TimeOrder::kLittle));

  EXPECT_EQ(expectSameEvents({file("node-a.bin"), file("node-b.bin"), file("node-c.bin")}),
            a.entries.size() + 10u + 6u);
  EXPECT_EQ(expectSameEvents({file("node-c.bin"), file("node-b.bin"), file("node-a.bin")}),
            a.entries.size() + 10u + 6u);
}

// A damaged file still gives a trace that the reader accepts, holding the
// entries before the damage, beside the files that are whole.
TEST_F(CtfReaderTest, DamagedFilesGiveAPartialTrace) {
  fillStore();
  ASSERT_EQ(dumpTracesToFile(file("store.bin").c_str(), 0, 1), 0);
  const Bytes whole = readBytes(file("store.bin"));
  const DecodedFile decoded = readDumpFile(file("store.bin"), TimeOrder::kAuto);
  ASSERT_FALSE(decoded.error);
  ASSERT_GE(decoded.sets.size(), 2u);

  // Cut inside the entries of the second set.
  const std::size_t cut = decoded.sets[1].dataOffset + 80 + 100;
  writeBytes(file("cut.bin"), Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut)));
  // Cut inside the descriptors: no entries at all.
  writeBytes(file("short.bin"), Bytes(whole.begin(), whole.begin() + 40));
  // Bytes that are no text: a set name with quotes, a backslash and bytes
  // beyond ASCII, a source file name of bytes that are not UTF-8, a text
  // without its terminating zero, and a length larger than the set's.
  Bytes garbled = whole;
  const char name[] = "A\"b\\c\xff\x01";
  std::copy(name, name + sizeof name - 1, garbled.begin() + 28);
  const std::size_t entry = decoded.sets[0].dataOffset;
  for (std::size_t i = 0; i < 29; ++i) garbled[entry + i] = static_cast<std::uint8_t>(0x80 + i);
  const std::size_t contents = align32(decoded.sets[0].traceEntryContentsLength);
  for (std::size_t i = 0; i < contents; ++i) garbled[entry + 80 + i] = static_cast<std::uint8_t>(0xC0 + i % 64);
  putBe16(garbled, entry + 64, 0xFFFF);
  writeBytes(file("garbled.bin"), garbled);
  writeBytes(file("not-a-dump.bin"), Bytes(100, 'x'));

  const std::vector<std::string> files = {file("cut.bin"), file("short.bin"), file("garbled.bin"),
                                          file("not-a-dump.bin"), file("missing.bin")};
  std::string err;
  ASSERT_EQ(decodeTrace(files, err), 1);
  EXPECT_EQ(lines(err).size(), 4u) << err;
  EXPECT_NE(err.find("nodetrace decode: " + file("cut.bin") + ": truncated entry at offset " + std::to_string(cut - 180)),
            std::string::npos)
      << err;
  EXPECT_GT(expectSameEvents(files, 1), decoded.entries.size());
}

TEST_F(CtfReaderTest, AnEmptyStore) {
  ASSERT_EQ(dumpTracesToFile(file("empty.bin").c_str(), 0, 1), 0);
  EXPECT_EQ(expectSameEvents({file("empty.bin")}), 0u);
}

}  // namespace
}  // namespace nodetrace_tool::decode::test
