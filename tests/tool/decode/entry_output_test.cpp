// The output formats, byte for byte, for a hand-made file with every field
// set to a distinct value; the merge of several files by time.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "tests/tool/decode/dump_builder.h"
#include "tool/decode/entry_output.h"

namespace nodetrace_tool::decode::test {
namespace {

// Two sets, three entries: a text with characters that need quoting, a
// dump, and a text of an unknown severity in another process.
DecodedFile sampleFile() {
  BuiltDump dump;
  BuiltSet radio;
  radio.name = "Radio";
  radio.traceEntryContentsLength = 64;
  BuiltEntry a = textEntry(7, "link \"up\", 100%\nnext");
  a.fileName = "link.c";
  a.line = 42;
  a.pid = 1234;
  a.tid = 1235;
  a.severity = 0x20;
  a.category = 0x80000001;
  a.monotonicSeconds = 3600;
  a.monotonicNanoseconds = 987654321;
  a.realSeconds = 1717243200;  // 2024-06-01T12:00:00Z
  a.realNanoseconds = 123456789;
  BuiltEntry c = textEntry(9, "\xC3\xA4 \xFF");
  c.fileName = "odd.c";
  c.line = -1;
  c.pid = 77;
  c.tid = 78;
  c.severity = 0x03;
  c.category = 2;
  c.monotonicSeconds = 3602;
  c.monotonicNanoseconds = 5000;
  c.realSeconds = 1717243202;
  c.realNanoseconds = 999999999;
  radio.entries = {a, c};
  BuiltSet frames;
  frames.name = "Frames";
  frames.type = 1;
  frames.traceEntryContentsLength = 20;
  BuiltEntry b;
  b.fileName = "frames.c";
  b.line = 7;
  b.pid = 1234;
  b.tid = 1236;
  b.severity = 0x10;
  b.category = 0x10;
  b.sequenceNumber = 8;
  b.monotonicSeconds = 3601;
  b.monotonicNanoseconds = 1000;
  b.realSeconds = 1717243201;
  b.realNanoseconds = 500000;
  b.contentsLength = 18;
  for (std::uint8_t i = 0; i < 18; ++i) b.contents.push_back(static_cast<std::uint8_t>(0x3A + 4 * i));
  frames.entries = {b};
  dump.sets = {radio, frames};
  return decodeDump(buildDump(dump, TimeOrder::kNetwork), "sample.bin", TimeOrder::kAuto);
}

std::string written(const std::vector<DecodedFile>& files, OutputFormat format,
                    std::string_view lineFormat = "%dz %S %I %l %p/%P: %c") {
  std::ostringstream out;
  writeEntries(out, files, mergeByTime(files), format, lineFormat);
  return out.str();
}

TEST(EntryOutput, Text) {
  EXPECT_EQ(written({sampleFile()}, OutputFormat::kText),
            "2024-06-01T12:00:00.123Z INF Radio link.c(42) 1234/1235: link \"up\", 100%\nnext\n"
            "2024-06-01T12:00:01.000Z DBG Frames frames.c(7) 1234/1236: DUMP 18 bytes\n"
            "0x000: 3A 3E 42 46 4A 4E 52 56 5A 5E 62 66 6A 6E 72 76  :>BFJNRVZ^bfjnrv\n"
            "0x010: 7A 7E                                            z~\n"
            "2024-06-01T12:00:02.999Z ??? Radio odd.c(4294967295) 77/78: \xC3\xA4 \xFF\n");
  EXPECT_EQ(written({sampleFile()}, OutputFormat::kText, "%n %i %T|%S|%c\n"),
            std::string("        7   0 3600987654|INF|link \"up\", 100%\nnext") + '\0' + "\n" +
                "        8   1 3601000001|DBG|DUMP 18 bytes" + '\0' +
                "\n0x000: 3A 3E 42 46 4A 4E 52 56 5A 5E 62 66 6A 6E 72 76  :>BFJNRVZ^bfjnrv"
                "\n0x010: 7A 7E                                            z~\n"
                "        9   0 3602000005|???|\xC3\xA4 \xFF" +
                '\0' + "\n");
}

TEST(EntryOutput, JsonLines) {
  EXPECT_EQ(written({sampleFile()}, OutputFormat::kJsonl),
            R"j({"file":"sample.bin","kind":"trace_dump","set_id":0,"set_name":"Radio","set_type":"TS_STRING",)j"
            R"j("sequence":7,"severity":"INF","severity_bits":32,"category":2147483649,"pid":1234,"tid":1235,)j"
            R"j("source_file":"link.c","line":42,"monotonic_us":3600987654,"real_seconds":1717243200,)j"
            R"j("real_microseconds":123456,"real_time":"2024-06-01T12:00:00.123456Z","length":21,)j"
            R"j("text":"link \"up\", 100%\nnext"})j"
            "\n"
            R"j({"file":"sample.bin","kind":"trace_dump","set_id":1,"set_name":"Frames","set_type":"TS_DUMP",)j"
            R"j("sequence":8,"severity":"DBG","severity_bits":16,"category":16,"pid":1234,"tid":1236,)j"
            R"j("source_file":"frames.c","line":7,"monotonic_us":3601000001,"real_seconds":1717243201,)j"
            R"j("real_microseconds":500,"real_time":"2024-06-01T12:00:01.000500Z","length":18,)j"
            R"j("bytes":"3a3e42464a4e52565a5e62666a6e72767a7e"})j"
            "\n"
            R"j({"file":"sample.bin","kind":"trace_dump","set_id":0,"set_name":"Radio","set_type":"TS_STRING",)j"
            R"j("sequence":9,"severity":"???","severity_bits":3,"category":2,"pid":77,"tid":78,)j"
            R"j("source_file":"odd.c","line":-1,"monotonic_us":3602000005,"real_seconds":1717243202,)j"
            R"j("real_microseconds":999999,"real_time":"2024-06-01T12:00:02.999999Z","length":5,)j"
            "\"text\":\"\xC3\xA4 \xEF\xBF\xBD\"}\n");
}

TEST(EntryOutput, Csv) {
  EXPECT_EQ(written({sampleFile()}, OutputFormat::kCsv),
            "file,kind,set_id,set_name,set_type,sequence,severity,severity_bits,category,pid,tid,source_file,line,"
            "monotonic_us,real_seconds,real_microseconds,real_time,length,contents\r\n"
            "sample.bin,trace_dump,0,Radio,TS_STRING,7,INF,32,2147483649,1234,1235,link.c,42,3600987654,"
            "1717243200,123456,2024-06-01T12:00:00.123456Z,21,\"link \"\"up\"\", 100%\nnext\"\r\n"
            "sample.bin,trace_dump,1,Frames,TS_DUMP,8,DBG,16,16,1234,1236,frames.c,7,3601000001,1717243201,500,"
            "2024-06-01T12:00:01.000500Z,18,3a3e42464a4e52565a5e62666a6e72767a7e\r\n"
            "sample.bin,trace_dump,0,Radio,TS_STRING,9,???,3,2,77,78,odd.c,-1,3602000005,1717243202,999999,"
            "2024-06-01T12:00:02.999999Z,5,\xC3\xA4 \xFF\r\n");
}

TEST(EntryOutput, Chrome) {
  const std::string out = written({sampleFile()}, OutputFormat::kChrome);
  EXPECT_EQ(out,
            "{\"traceEvents\":[\n"
            R"j({"name":"thread_name","ph":"M","pid":1234,"tid":1,"args":{"name":"Radio"}},)j"
            "\n"
            R"j({"name":"link \"up\", 100%\nnext","cat":"Radio","ph":"i","s":"t","ts":1717243200123456,)j"
            R"j("pid":1234,"tid":1,"args":{"set":"Radio","severity":"INF","category":2147483649,)j"
            R"j("position":"link.c(42)","thread":1235,"sequence":7,"file":"sample.bin",)j"
            R"j("text":"link \"up\", 100%\nnext"}},)j"
            "\n"
            R"j({"name":"thread_name","ph":"M","pid":1234,"tid":2,"args":{"name":"Frames"}},)j"
            "\n"
            R"j({"name":"DUMP 18 bytes","cat":"Frames","ph":"i","s":"t","ts":1717243201000500,)j"
            R"j("pid":1234,"tid":2,"args":{"set":"Frames","severity":"DBG","category":16,)j"
            R"j("position":"frames.c(7)","thread":1236,"sequence":8,"file":"sample.bin",)j"
            R"j("bytes":"3a3e42464a4e52565a5e62666a6e72767a7e"}},)j"
            "\n"
            R"j({"name":"thread_name","ph":"M","pid":77,"tid":3,"args":{"name":"Radio"}},)j"
            "\n"
            "{\"name\":\"\xC3\xA4 \xEF\xBF\xBD\",\"cat\":\"Radio\",\"ph\":\"i\",\"s\":\"t\",\"ts\":1717243202999999,"
            R"j("pid":77,"tid":3,"args":{"set":"Radio","severity":"???","category":2,)j"
            R"j("position":"odd.c(4294967295)","thread":78,"sequence":9,"file":"sample.bin",)j"
            "\"text\":\"\xC3\xA4 \xEF\xBF\xBD\"}}\n"
            "],\"displayTimeUnit\":\"ms\"}\n");
  // A JSON document that the trace viewers load.
  const nlohmann::json document = nlohmann::json::parse(out);
  EXPECT_EQ(document["traceEvents"].size(), 6u);
}

TEST(EntryOutput, NothingToWrite) {
  const std::vector<DecodedFile> none;
  EXPECT_EQ(written(none, OutputFormat::kText), "");
  EXPECT_EQ(written(none, OutputFormat::kJsonl), "");
  EXPECT_EQ(written(none, OutputFormat::kCsv),
            "file,kind,set_id,set_name,set_type,sequence,severity,severity_bits,category,pid,tid,source_file,line,"
            "monotonic_us,real_seconds,real_microseconds,real_time,length,contents\r\n");
  EXPECT_EQ(written(none, OutputFormat::kChrome), "{\"traceEvents\":[\n],\"displayTimeUnit\":\"ms\"}\n");
  EXPECT_TRUE(nlohmann::json::parse(written(none, OutputFormat::kChrome))["traceEvents"].empty());
}

DecodedFile fileOf(const std::string& name, const std::vector<std::pair<std::uint32_t, std::uint32_t>>& times,
                   TimeOrder stamps) {
  BuiltDump dump;
  BuiltSet set;
  set.name = name;
  std::uint32_t sequence = 0;
  for (const auto& [seconds, nanoseconds] : times) {
    set.entries.push_back(textEntry(sequence, name + std::to_string(sequence), seconds, nanoseconds));
    ++sequence;
  }
  dump.sets = {set};
  return decodeDump(buildDump(dump, stamps), name, TimeOrder::kAuto);
}

TEST(EntryOutput, FilesMergeByTime) {
  // b's second entry has a clock set back: it stays after b's first.
  const std::vector<DecodedFile> files = {
      fileOf("a", {{10, 0}, {20, 500}, {30, 0}}, TimeOrder::kNetwork),
      fileOf("b", {{20, 400}, {5, 0}, {20, 500}}, TimeOrder::kLittle),
      fileOf("c", {{20, 500}}, TimeOrder::kNetwork),
  };
  ASSERT_EQ(files[1].kind, DumpKind::kDumpBeforeReset);
  EXPECT_EQ(written(files, OutputFormat::kText, "%c"), "a0\nb0\nb1\na1\nb2\nc0\na2\n");
}

TEST(EntryOutput, NamesOfFormatsAndOrders) {
  EXPECT_EQ(parseOutputFormat("text"), OutputFormat::kText);
  EXPECT_EQ(parseOutputFormat("jsonl"), OutputFormat::kJsonl);
  EXPECT_EQ(parseOutputFormat("csv"), OutputFormat::kCsv);
  EXPECT_EQ(parseOutputFormat("chrome"), OutputFormat::kChrome);
  EXPECT_EQ(parseOutputFormat("json"), std::nullopt);
  EXPECT_EQ(parseTimeOrder("auto"), TimeOrder::kAuto);
  EXPECT_EQ(parseTimeOrder("network"), TimeOrder::kNetwork);
  EXPECT_EQ(parseTimeOrder("little"), TimeOrder::kLittle);
  EXPECT_EQ(parseTimeOrder("big"), std::nullopt);
}

}  // namespace
}  // namespace nodetrace_tool::decode::test
