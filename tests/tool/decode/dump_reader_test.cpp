// The decoder's reading of dump files: hand-made files with every field set
// to a distinct value in both time stamp orders, the detection of the order
// and its override, the order of the entries, the empty store, and files
// cut or damaged anywhere.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "tests/tool/decode/dump_builder.h"
#include "tool/decode/dump_reader.h"

namespace nodetrace_tool::decode::test {
namespace {

// Every field distinct from every other: a text set and a dump set.
BuiltDump distinctDump() {
  BuiltDump dump;
  dump.totalNumberTraceEntries = 0x01020304;
  dump.severityMask = 0xF8;
  dump.traceEnabled = 0x05060708;
  dump.nextFreeOffset = 0x090A0B0C;
  dump.lastTraceSetId = 0x0D0E;
  dump.lastEntryIndex = 0x0F10;
  dump.lockHolderTid = -2;

  BuiltSet text;
  text.name = "RadioLink";
  text.type = 0;
  text.categoryMask = 0x11121314;
  text.traceEntryContentsLength = 30;
  text.creatorPid = 0x15161718;
  text.totalNumberEntries = 0x191A1B1C;
  BuiltEntry a;
  a.fileName = "radio_link_controller.cpp";
  a.line = 0x1D1E1F20;
  a.pid = 0x21222324;
  a.severity = 0x40;
  a.category = 0x25262728;
  a.sequenceNumber = 0x292A2B2C;
  a.tid = 0x2D2E2F30;
  a.monotonicSeconds = 0x00313233;
  a.monotonicNanoseconds = 0x34353637;
  a.contentsLength = 6;
  a.prevTraceSetId = 0x3839;
  a.prevEntryIndex = 0x3A3B;
  a.realSeconds = 0x3C3D3E3F;
  a.realNanoseconds = 0x01424344;
  a.contents = {'h', 'e', 'l', 'l', 'o', 0};
  text.entries.push_back(a);

  BuiltSet frames;
  frames.name = "Frames";
  frames.type = 1;
  frames.categoryMask = 0x45464748;
  frames.traceEntryContentsLength = 20;
  frames.creatorPid = 0x494A4B4C;
  frames.totalNumberEntries = 0x4D4E4F50;
  BuiltEntry b;
  b.fileName = "frames.c";
  b.line = -7;
  b.pid = 0x51525354;
  b.severity = 0x10;
  b.category = 0x55565758;
  b.sequenceNumber = 0x292A2B2D;
  b.tid = 0x595A5B5C;
  b.monotonicSeconds = 0x005D5E5F;
  b.monotonicNanoseconds = 0x06616263;
  b.contentsLength = 20;
  b.prevTraceSetId = 0;
  b.prevEntryIndex = 0x6465;
  b.realSeconds = 0x66676869;
  b.realNanoseconds = 0x0A6B6C6D;
  for (std::uint8_t i = 0; i < 20; ++i) b.contents.push_back(static_cast<std::uint8_t>(0x70 + i));
  frames.entries.push_back(b);

  dump.sets = {text, frames};
  return dump;
}

void expectDistinctFields(const DecodedFile& file) {
  ASSERT_FALSE(file.error) << file.error->message;
  ASSERT_TRUE(file.hasHeader);
  const DumpHeader& h = file.header;
  EXPECT_EQ(std::string(h.version.data(), 4), std::string("1.4\0", 4));
  EXPECT_EQ(h.totalNumberTraceEntries, 0x01020304u);
  EXPECT_EQ(h.currentNumberTraceSets, 2);
  EXPECT_EQ(h.severityMask, 0xF8);
  EXPECT_EQ(h.traceEnabled, 0x05060708u);
  EXPECT_EQ(h.nextFreeOffset, 0x090A0B0Cu);
  EXPECT_EQ(h.lastTraceSetId, 0x0D0E);
  EXPECT_EQ(h.lastEntryIndex, 0x0F10);
  EXPECT_EQ(h.lockHolderTid, -2);

  ASSERT_EQ(file.sets.size(), 2u);
  const SetRecord& s = file.sets[0];
  EXPECT_EQ(s.position, 0u);
  EXPECT_EQ(s.id, 0);
  EXPECT_EQ(s.nameText(), "RadioLink");
  EXPECT_EQ(s.type, 0u);
  EXPECT_EQ(s.categoryMask, 0x11121314u);
  EXPECT_EQ(s.maxNumberEntries, 1);
  EXPECT_EQ(s.traceEntryContentsLength, 30);
  EXPECT_EQ(s.creatorPid, 0x15161718u);
  EXPECT_EQ(s.dataOffset, 28u + 96u);
  EXPECT_EQ(s.writeIndex, 0);
  EXPECT_EQ(s.curentNumberEntries, 1);
  EXPECT_EQ(s.totalNumberEntries, 0x191A1B1Cu);
  const SetRecord& f = file.sets[1];
  EXPECT_EQ(f.position, 1u);
  EXPECT_EQ(f.id, 1);
  EXPECT_EQ(f.nameText(), "Frames");
  EXPECT_EQ(f.type, 1u);
  EXPECT_EQ(f.categoryMask, 0x45464748u);
  EXPECT_EQ(f.traceEntryContentsLength, 20);
  EXPECT_EQ(f.creatorPid, 0x494A4B4Cu);
  EXPECT_EQ(f.dataOffset, 28u + 96u + 80u + 32u);
  EXPECT_EQ(f.totalNumberEntries, 0x4D4E4F50u);

  ASSERT_EQ(file.entries.size(), 2u);
  const EntryRecord& a = file.entries[0];
  EXPECT_EQ(a.set, 0u);
  EXPECT_EQ(a.offset, 124u);
  EXPECT_EQ(a.fileNameText(), "radio_link_controller.cpp");
  EXPECT_EQ(a.line, 0x1D1E1F20);
  EXPECT_EQ(a.pid, 0x21222324u);
  EXPECT_EQ(a.severity, 0x40);
  EXPECT_EQ(a.category, 0x25262728u);
  EXPECT_EQ(a.sequenceNumber, 0x292A2B2Cu);
  EXPECT_EQ(a.tid, 0x2D2E2F30u);
  EXPECT_EQ(a.monotonicSeconds, 0x00313233u);
  EXPECT_EQ(a.monotonicNanoseconds, 0x34353637u);
  EXPECT_EQ(a.contentsLength, 6);
  EXPECT_EQ(a.prevTraceSetId, 0x3839);
  EXPECT_EQ(a.prevEntryIndex, 0x3A3B);
  EXPECT_EQ(a.realSeconds, 0x3C3D3E3Fu);
  EXPECT_EQ(a.realNanoseconds, 0x01424344u);
  EXPECT_EQ(a.contents, Bytes({'h', 'e', 'l', 'l', 'o', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                               0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  const EntryRecord& b = file.entries[1];
  EXPECT_EQ(b.set, 1u);
  EXPECT_EQ(b.offset, 236u);
  EXPECT_EQ(b.fileNameText(), "frames.c");
  EXPECT_EQ(b.line, -7);
  EXPECT_EQ(b.pid, 0x51525354u);
  EXPECT_EQ(b.severity, 0x10);
  EXPECT_EQ(b.category, 0x55565758u);
  EXPECT_EQ(b.sequenceNumber, 0x292A2B2Du);
  EXPECT_EQ(b.tid, 0x595A5B5Cu);
  EXPECT_EQ(b.monotonicSeconds, 0x005D5E5Fu);
  EXPECT_EQ(b.monotonicNanoseconds, 0x06616263u);
  EXPECT_EQ(b.contentsLength, 20);
  EXPECT_EQ(b.prevTraceSetId, 0);
  EXPECT_EQ(b.prevEntryIndex, 0x6465);
  EXPECT_EQ(b.realSeconds, 0x66676869u);
  EXPECT_EQ(b.realNanoseconds, 0x0A6B6C6Du);
  ASSERT_EQ(b.contents.size(), 20u);
  for (std::uint8_t i = 0; i < 20; ++i) EXPECT_EQ(b.contents[i], 0x70 + i);
}

TEST(DumpReader, ReadsEveryFieldOfATraceDump) {
  const DecodedFile file = decodeDump(buildDump(distinctDump(), TimeOrder::kNetwork), "x.bin", TimeOrder::kAuto);
  EXPECT_EQ(file.name, "x.bin");
  EXPECT_EQ(file.timeOrder, TimeOrder::kNetwork);
  EXPECT_EQ(file.kind, DumpKind::kTraceDump);
  expectDistinctFields(file);
}

TEST(DumpReader, ReadsEveryFieldOfADumpBeforeReset) {
  const DecodedFile file = decodeDump(buildDump(distinctDump(), TimeOrder::kLittle), "x.bin", TimeOrder::kAuto);
  EXPECT_EQ(file.timeOrder, TimeOrder::kLittle);
  EXPECT_EQ(file.kind, DumpKind::kDumpBeforeReset);
  expectDistinctFields(file);
}

TEST(DumpReader, TheStampBytesStayAsStored) {
  const Bytes bytes = buildDump(distinctDump(), TimeOrder::kLittle);
  const DecodedFile file = decodeDump(bytes, "x.bin", TimeOrder::kAuto);
  ASSERT_EQ(file.entries.size(), 2u);
  for (std::size_t i = 0; i < 8; ++i) {
    EXPECT_EQ(file.entries[0].stampBytes[i], bytes[124 + 56 + i]);
    EXPECT_EQ(file.entries[0].stampBytes[8 + i], bytes[124 + 72 + i]);
  }
}

TEST(DumpReader, TheOrderCanBeForced) {
  const Bytes little = buildDump(distinctDump(), TimeOrder::kLittle);
  const DecodedFile forced = decodeDump(little, "x.bin", TimeOrder::kNetwork);
  EXPECT_FALSE(forced.error);
  EXPECT_EQ(forced.timeOrder, TimeOrder::kNetwork);
  EXPECT_EQ(forced.kind, DumpKind::kTraceDump);
  ASSERT_EQ(forced.entries.size(), 2u);
  // The little-endian words read big-endian.
  EXPECT_EQ(forced.entries[0].monotonicSeconds, 0x37363534u);
  EXPECT_EQ(forced.entries[0].monotonicNanoseconds, 0x33323100u);
  EXPECT_EQ(forced.entries[0].realSeconds, 0x3F3E3D3Cu);
  EXPECT_EQ(forced.entries[0].realNanoseconds, 0x44434201u);

  const Bytes network = buildDump(distinctDump(), TimeOrder::kNetwork);
  const DecodedFile other = decodeDump(network, "x.bin", TimeOrder::kLittle);
  EXPECT_EQ(other.kind, DumpKind::kDumpBeforeReset);
  EXPECT_EQ(other.entries[0].monotonicSeconds, 0x37363534u);
  EXPECT_EQ(other.entries[0].realSeconds, 0x3F3E3D3Cu);
}

// Stamps of a real node: a clock in 2024, an uptime of hours, nanoseconds
// anywhere below a second.
BuiltDump realisticDump(std::size_t entries, std::uint32_t nanosecondsStep) {
  BuiltDump dump;
  BuiltSet set;
  set.name = "App";
  for (std::uint32_t i = 0; i < entries; ++i) {
    BuiltEntry e = textEntry(i, "entry " + std::to_string(i), 1717000000 + i, (i * nanosecondsStep) % 1000000000u);
    e.monotonicSeconds = 3600 + i;
    e.monotonicNanoseconds = (i * nanosecondsStep + 12345) % 1000000000u;
    set.entries.push_back(e);
  }
  dump.sets = {set};
  return dump;
}

TEST(DumpReader, DetectsTheOrderOfRealisticStamps) {
  for (std::uint32_t step : {1u, 1000u, 123456789u, 999999937u}) {
    for (std::size_t entries : {std::size_t{1}, std::size_t{2}, std::size_t{50}}) {
      const BuiltDump dump = realisticDump(entries, step);
      EXPECT_EQ(decodeDump(buildDump(dump, TimeOrder::kNetwork), "n", TimeOrder::kAuto).timeOrder,
                TimeOrder::kNetwork)
          << step << " " << entries;
      EXPECT_EQ(decodeDump(buildDump(dump, TimeOrder::kLittle), "l", TimeOrder::kAuto).timeOrder,
                TimeOrder::kLittle)
          << step << " " << entries;
    }
  }
}

TEST(DumpReader, ZeroStampsFallBackOnTheLinks) {
  BuiltDump dump;
  BuiltSet set;
  BuiltEntry e = textEntry(1, "x");
  e.monotonicSeconds = e.monotonicNanoseconds = 0;
  set.entries = {e};
  dump.sets = {set};
  EXPECT_EQ(decodeDump(buildDump(dump, TimeOrder::kNetwork), "f", TimeOrder::kAuto).timeOrder, TimeOrder::kNetwork);
  // Only the dump before reset keeps a link to the SRAM sets.
  dump.sets[0].entries[0].prevTraceSetId = 255;
  EXPECT_EQ(decodeDump(buildDump(dump, TimeOrder::kNetwork), "f", TimeOrder::kAuto).timeOrder, TimeOrder::kLittle);
  dump.sets[0].entries[0].prevTraceSetId = 254;
  EXPECT_EQ(decodeDump(buildDump(dump, TimeOrder::kNetwork), "f", TimeOrder::kAuto).timeOrder, TimeOrder::kLittle);
}

TEST(DumpReader, EntriesComeInTheOrderTheyWereWritten) {
  BuiltDump dump;
  BuiltSet a;
  a.name = "A";
  a.entries = {textEntry(1, "a1"), textEntry(4, "a4"), textEntry(6, "a6")};
  BuiltSet b;
  b.name = "B";
  b.entries = {textEntry(2, "b2"), textEntry(3, "b3"), textEntry(4, "b4"), textEntry(7, "b7")};
  dump.sets = {a, b};
  const DecodedFile file = decodeDump(buildDump(dump, TimeOrder::kNetwork), "f", TimeOrder::kAuto);
  ASSERT_EQ(file.entries.size(), 7u);
  std::vector<std::pair<std::uint32_t, std::uint32_t>> order;
  for (const EntryRecord& e : file.entries) order.emplace_back(e.sequenceNumber, e.set);
  // Equal numbers keep their file order.
  EXPECT_EQ(order, (std::vector<std::pair<std::uint32_t, std::uint32_t>>{
                       {1, 0}, {2, 1}, {3, 1}, {4, 0}, {4, 1}, {6, 0}, {7, 1}}));
}

TEST(DumpReader, TheSramSetsGetTheirNodeIds) {
  BuiltDump dump;
  BuiltSet user;
  user.name = "User";
  BuiltSet remote;
  remote.name = "NVJ_System";
  BuiltSet system;
  system.name = "System";
  dump.sets = {user, remote, system};
  const DecodedFile file = decodeDump(buildDump(dump, TimeOrder::kNetwork), "f", TimeOrder::kAuto);
  ASSERT_EQ(file.sets.size(), 3u);
  EXPECT_EQ(file.sets[0].id, 0);
  EXPECT_EQ(file.sets[1].id, 254);
  EXPECT_EQ(file.sets[1].position, 1u);
  EXPECT_EQ(file.sets[2].id, 255);
}

TEST(DumpReader, AnEmptyStoreIsAHeaderAlone) {
  BuiltDump dump;
  const Bytes bytes = buildDump(dump, TimeOrder::kNetwork);
  ASSERT_EQ(bytes.size(), 28u);
  const DecodedFile file = decodeDump(bytes, "empty.bin", TimeOrder::kAuto);
  EXPECT_FALSE(file.error);
  EXPECT_TRUE(file.hasHeader);
  EXPECT_TRUE(file.sets.empty());
  EXPECT_TRUE(file.entries.empty());
  EXPECT_EQ(file.kind, DumpKind::kTraceDump);
}

TEST(DumpReader, SetsWithoutEntries) {
  BuiltDump dump;
  dump.sets = {BuiltSet{}, BuiltSet{}};
  dump.sets[1].traceEntryContentsLength = 1600;
  const DecodedFile file = decodeDump(buildDump(dump, TimeOrder::kNetwork), "f", TimeOrder::kAuto);
  EXPECT_FALSE(file.error);
  EXPECT_EQ(file.sets.size(), 2u);
  EXPECT_TRUE(file.entries.empty());
}

// A dump that left out debug entries but counts them: the next set's data
// offset tells where the set ends.
TEST(DumpReader, ADescriptorMayCountMoreEntriesThanItsSetHolds) {
  BuiltDump dump;
  BuiltSet a;
  a.entries = {textEntry(1, "a1"), textEntry(2, "a2")};
  BuiltSet b;
  b.entries = {textEntry(3, "b3")};
  dump.sets = {a, b};
  Bytes bytes = buildDump(dump, TimeOrder::kNetwork);
  putBe16(bytes, 28 + 28, 5);
  putBe16(bytes, 28 + 42, 5);
  const DecodedFile file = decodeDump(bytes, "f", TimeOrder::kAuto);
  EXPECT_FALSE(file.error);
  EXPECT_EQ(file.entries.size(), 3u);
}

const char* kCutFile = "cut.bin";

// A small file of three sets cut at every length: never a crash, the
// entries before the cut are kept, and an error names the place.
TEST(DumpReader, FilesCutAtEveryLength) {
  BuiltDump dump;
  BuiltSet a;
  a.name = "A";
  a.traceEntryContentsLength = 16;
  a.entries = {textEntry(1, "a1"), textEntry(3, "a3")};
  BuiltSet b;
  b.name = "B";
  b.type = 1;
  b.traceEntryContentsLength = 5;
  b.entries = {textEntry(2, "b2")};
  BuiltSet c;
  c.name = "C";
  c.traceEntryContentsLength = 0;
  c.entries = {textEntry(4, ""), textEntry(5, "")};
  dump.sets = {a, b, c};
  const Bytes whole = buildDump(dump, TimeOrder::kNetwork);
  // 28 + 3 * 48 = 172; A: 2 x 96; B: 1 x 88 from 364; C: 2 x 80 from 452.
  ASSERT_EQ(whole.size(), 612u);
  ASSERT_FALSE(decodeDump(whole, kCutFile, TimeOrder::kAuto).error);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<long>(length));
    const DecodedFile file = decodeDump(cut, kCutFile, TimeOrder::kAuto);
    ASSERT_TRUE(file.error) << length;
    std::size_t complete = 0;
    for (std::size_t end : {268u, 364u, 452u, 532u}) complete += length >= end ? 1 : 0;
    EXPECT_EQ(file.entries.size(), complete) << length;
    EXPECT_LE(file.error->offset, length) << length;
  }
  auto message = [&](std::size_t length) {
    return decodeDump(Bytes(whole.begin(), whole.begin() + static_cast<long>(length)), kCutFile, TimeOrder::kAuto)
        .error->message;
  };
  EXPECT_EQ(message(0), "truncated header at offset 0: 0 bytes of 28 present");
  EXPECT_EQ(message(27), "truncated header at offset 0: 27 bytes of 28 present");
  EXPECT_EQ(message(28), "truncated descriptor 0 of 3 at offset 28: 0 bytes of 48 present");
  EXPECT_EQ(message(100), "truncated descriptor 1 of 3 at offset 76: 24 bytes of 48 present");
  EXPECT_EQ(message(172), "truncated set \"A\" at offset 172: 0 of 2 entries present");
  EXPECT_EQ(message(200), "truncated entry at offset 172: 28 bytes of 96 present");
  EXPECT_EQ(message(268), "truncated set \"A\" at offset 268: 1 of 2 entries present");
  EXPECT_EQ(message(400), "truncated entry at offset 364: 36 bytes of 88 present");
  EXPECT_EQ(message(452), "truncated set \"C\" at offset 452: 0 of 2 entries present");
  EXPECT_EQ(message(540), "truncated entry at offset 532: 8 bytes of 80 present");
}

TEST(DumpReader, DamagedFields) {
  BuiltDump dump;
  BuiltSet a;
  a.name = "A";
  a.traceEntryContentsLength = 16;
  a.entries = {textEntry(1, "a1"), textEntry(2, "a2")};
  BuiltSet b;
  b.name = "B";
  b.traceEntryContentsLength = 16;
  b.entries = {textEntry(3, "b3")};
  dump.sets = {a, b};
  const Bytes whole = buildDump(dump, TimeOrder::kNetwork);
  ASSERT_EQ(whole.size(), 124u + 3 * 96);
  auto decoded = [](const Bytes& bytes) { return decodeDump(bytes, "d.bin", TimeOrder::kAuto); };

  {  // The version.
    Bytes bytes = whole;
    bytes[2] = '5';
    bytes[3] = 0x80;
    const DecodedFile file = decoded(bytes);
    EXPECT_EQ(file.error->message, "not a dump file: the version at offset 0 reads \"1.5\\x80\", not \"1.4\"");
    EXPECT_FALSE(file.hasHeader);
  }
  {  // More sets than descriptors fit before the entries.
    Bytes bytes = whole;
    bytes[8] = 255;
    const DecodedFile file = decoded(bytes);
    EXPECT_EQ(file.error->message, "truncated descriptor 8 of 255 at offset 412: 0 bytes of 48 present");
    EXPECT_TRUE(file.entries.empty());
  }
  {  // Fewer sets: the entries of the rest are left over.
    Bytes bytes = whole;
    bytes[8] = 1;
    const DecodedFile file = decoded(bytes);
    EXPECT_EQ(file.error->message,
              "bad data offset in descriptor 0 (set \"A\") at offset 64: 124, the entries continue at 76");
  }
  {  // An entry count too large in the last set.
    Bytes bytes = whole;
    putBe16(bytes, 76 + 42, 3);
    const DecodedFile file = decoded(bytes);
    EXPECT_EQ(file.error->message, "truncated set \"B\" at offset 412: 1 of 3 entries present");
    EXPECT_EQ(file.entries.size(), 3u);
  }
  {  // An entry count too large in the first set, with a next set that
     // does not line up.
    Bytes bytes = whole;
    putBe16(bytes, 28 + 42, 0xFFFF);
    putBe32(bytes, 76 + 36, 0xFFFFFFF0);
    const DecodedFile file = decoded(bytes);
    EXPECT_EQ(file.error->message, "truncated set \"A\" at offset 412: 3 of 65535 entries present");
  }
  {  // A count too small: the next set's entries do not begin where its
     // descriptor says.
    Bytes bytes = whole;
    putBe16(bytes, 28 + 42, 1);
    const DecodedFile file = decoded(bytes);
    EXPECT_EQ(file.error->message,
              "bad data offset in descriptor 1 (set \"B\") at offset 112: 316, the entries continue at 220");
    EXPECT_EQ(file.entries.size(), 1u);
  }
  {  // A data offset far away.
    Bytes bytes = whole;
    putBe32(bytes, 28 + 36, 0x7FFFFFFF);
    EXPECT_EQ(decoded(bytes).error->message,
              "bad data offset in descriptor 0 (set \"A\") at offset 64: 2147483647, the entries continue at 124");
  }
  {  // A huge maximum length: slots larger than the file.
    Bytes bytes = whole;
    putBe16(bytes, 28 + 30, 0xFFFF);
    const DecodedFile file = decoded(bytes);
    EXPECT_EQ(file.error->message, "truncated entry at offset 124: 288 bytes of 65616 present");
  }
  {  // A smaller maximum length: the slots no longer line up.
    Bytes bytes = whole;
    putBe16(bytes, 28 + 30, 4);
    EXPECT_EQ(decoded(bytes).error->message,
              "bad data offset in descriptor 1 (set \"B\") at offset 112: 316, the entries continue at 292");
  }
  {  // Bytes after the last entry.
    Bytes bytes = whole;
    bytes.resize(bytes.size() + 5, 0xAA);
    const DecodedFile file = decoded(bytes);
    EXPECT_EQ(file.error->message, "5 unexpected bytes after the last entry at offset 412");
    EXPECT_EQ(file.entries.size(), 3u);
  }
  {  // A name without its zero byte.
    Bytes bytes = whole;
    for (std::size_t i = 0; i < 20; ++i) bytes[28 + i] = static_cast<std::uint8_t>('a' + i);
    const DecodedFile file = decoded(bytes);
    EXPECT_FALSE(file.error);
    EXPECT_EQ(file.sets[0].nameText(), "abcdefghijklmnopqrst");
  }
}

class DumpFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "nodetrace-decode-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }
  std::string file(const std::string& name) const { return directory_ + "/" + name; }
  std::string directory_;
};

TEST_F(DumpFiles, ReadsAFile) {
  writeBytes(file("a.bin"), buildDump(distinctDump(), TimeOrder::kNetwork));
  const DecodedFile decoded = readDumpFile(file("a.bin"), TimeOrder::kAuto);
  EXPECT_EQ(decoded.name, file("a.bin"));
  expectDistinctFields(decoded);
}

TEST_F(DumpFiles, AMissingFile) {
  const DecodedFile decoded = readDumpFile(file("missing.bin"), TimeOrder::kAuto);
  ASSERT_TRUE(decoded.error);
  EXPECT_EQ(decoded.error->message, "cannot read: No such file or directory");
  EXPECT_TRUE(decoded.entries.empty());
}

TEST_F(DumpFiles, ADirectory) {
  const DecodedFile decoded = readDumpFile(directory_, TimeOrder::kAuto);
  ASSERT_TRUE(decoded.error);
  EXPECT_EQ(decoded.error->message, "cannot read: Is a directory");
}

}  // namespace
}  // namespace nodetrace_tool::decode::test
