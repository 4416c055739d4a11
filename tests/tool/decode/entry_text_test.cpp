// Files written by the library's two dump operations in a private test node,
// decoded: every field against the slot it came from, and every text line
// byte for byte against what the library's own formatter prints for the
// same entry and format, so the two cannot drift apart. Also entries
// written by several processes at once.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/trace/store_fixture.h"
#include "tool/decode/dump_reader.h"
#include "tool/decode/entry_text.h"
#include "tool/show_format.h"

namespace nodetrace_tool::decode::test {
namespace {

using nt::test::Bytes;
using nt::test::StdoutCapture;

const std::vector<std::string> kFormats = {
    nodetrace_tool::kDefaultShowFormat,
    "%C|%I|%P|%S|%T|%c|%i|%l|%n|%p|%t",
    "%dt|%dut|%udt|%ut|%dz|%uz",
    "%du %ux %x %d %u %",
    "%S|%c\n",
    "",
    "\n",
    "plain text, no directive",
    std::string(300, 'x') + "%c",
    std::string(254, '-') + "%dz",
};

class DecodeStoreTest : public nt::test::StoreTest {
 protected:
  std::string dumpPath() const { return logs("decode.dump"); }

  // The library's line for the entry of set id with this sequence number.
  static std::string libraryLine(std::int16_t id, std::uint32_t sequence, const std::string& format) {
    const TraceSetStruct* set = getTraceSetStruct(static_cast<std::uint16_t>(id));
    if (set == nullptr) return "no set";
    const TraceSetStruct descriptor = *set;
    for (unsigned index = 0; index < descriptor.maxNumberEntries; ++index) {
      TraceEntryHeader buffer{};
      TraceEntryHeader* entry = &buffer;
      std::vector<char> contents(TRACE_MAX_DUMP_LENGTH, 0);
      getTraceEntry(id, static_cast<std::uint16_t>(index), &entry, contents.data());
      if (entry == nullptr || entry->sequenceNumber != sequence) continue;
      std::string copy = format;
      StdoutCapture out;
      printTraceEntry(id, &descriptor, entry, contents.data(), copy.data());
      return out.take();
    }
    return "no entry";
  }

  // Every line of every decoded entry equals the library's.
  static void expectLibraryLines(const DecodedFile& file) {
    for (const EntryRecord& entry : file.entries) {
      const SetRecord& set = file.sets[entry.set];
      for (const std::string& format : kFormats) {
        EXPECT_EQ(formatEntryLine(static_cast<std::int16_t>(set.id), set, entry, format),
                  libraryLine(static_cast<std::int16_t>(set.id), entry.sequenceNumber, format))
            << set.nameText() << " #" << entry.sequenceNumber << " format " << format;
      }
    }
  }

  // The decoded entry holds every field of the slot it came from.
  static void expectFromSlot(const EntryRecord& entry, const nt::test::Slot& slot) {
    const TraceEntryHeader& h = slot.header;
    EXPECT_EQ(0, std::memcmp(entry.fileName.data(), h.fileName, sizeof h.fileName));
    EXPECT_EQ(entry.line, h.line);
    EXPECT_EQ(entry.pid, h.pid);
    EXPECT_EQ(entry.severity, h.severity);
    EXPECT_EQ(entry.category, h.category);
    EXPECT_EQ(entry.sequenceNumber, h.sequenceNumber);
    EXPECT_EQ(entry.tid, h.tid);
    EXPECT_EQ(entry.monotonicSeconds, ntohl(h.monotonicTime.seconds));
    EXPECT_EQ(entry.monotonicNanoseconds, ntohl(h.monotonicTime.nanoseconds));
    EXPECT_EQ(entry.realSeconds, ntohl(h.realTime.seconds));
    EXPECT_EQ(entry.realNanoseconds, ntohl(h.realTime.nanoseconds));
    EXPECT_EQ(entry.contentsLength, h.contentsLength);
    EXPECT_EQ(entry.prevEntryIndex, h.prevEntryIndex);
    Bytes expected(entry.contents.size(), 0);
    std::copy_n(slot.contents.begin(), std::min<std::size_t>(h.contentsLength, expected.size()), expected.begin());
    EXPECT_EQ(Bytes(entry.contents.begin(), entry.contents.end()), expected);
  }

  // A store with text and dump sets, a wrapped ring, entries of every
  // severity (an unknown one too), and both SRAM sets.
  void fillStore() {
    allowDebug();
    radio_ = createSet("Radio", TS_STRING, 8, 128);
    frames_ = createSet("Frames", TS_DUMP, 4, 40);
    small_ = createSet("Small", TS_STRING, 3, 16);
    text(radio_, TRACE_SEVERITY_INF, "link up at 100 kbit/s", 17, 0x5);
    text(radio_, TRACE_SEVERITY_DBG, "retry, \"quoted\" 100%", 18, 0x80000000);
    text(radio_, TRACE_SEVERITY_WAR, "peer lost", 19);  // to "System"
    text(radio_, TRACE_SEVERITY_INF, std::string(127, 'z'), 20);
    text(radio_, TRACE_SEVERITY_INF, "line\nbreak and \xC3\xA4 and \xFF", 21);
    Bytes twenty(20);
    for (std::size_t i = 0; i < twenty.size(); ++i) twenty[i] = static_cast<std::uint8_t>(0x30 + i);
    twenty[17] = 0;
    twenty[18] = 0x7F;
    twenty[19] = 0x80;
    dump(frames_, TRACE_SEVERITY_INF, twenty, 30);
    Bytes full(40);
    for (std::size_t i = 0; i < full.size(); ++i) full[i] = static_cast<std::uint8_t>(0xFF - 5 * i);
    dump(frames_, TRACE_SEVERITY_DBG, full, 31);
    dump(frames_, TRACE_SEVERITY_INF, Bytes{0x41}, 32);
    for (int i = 0; i < 5; ++i) text(small_, TRACE_SEVERITY_INF, "small " + std::to_string(i), 40 + i);
    text(small_, TRACE_SEVERITY_NOT, "noted", 50);  // to "System"
    // An unknown severity and a clock at the epoch.
    sharedSlot(radio_, 0)->severity = 0x01;
    sharedSlot(radio_, 1)->realTime.seconds = htonl(0);
    sharedSlot(radio_, 1)->realTime.nanoseconds = htonl(123456789);
    fillSramSet(1, 3, 3, 3, 9000);
  }

  // Every decoded entry of the user sets against the slot it came from,
  // found by its sequence number; returns how many were compared.
  std::size_t compareWithStore(const DecodedFile& file) const {
    std::size_t compared = 0;
    for (std::int16_t id : {radio_, frames_, small_}) {
      const TraceSetStruct d = descriptor(id);
      for (unsigned index = 0; index < d.curentNumberEntries; ++index) {
        const nt::test::Slot slot = StoreTest::slot(id, index);
        for (const EntryRecord& entry : file.entries) {
          if (entry.sequenceNumber != slot.header.sequenceNumber) continue;
          EXPECT_EQ(file.sets[entry.set].id, id);
          expectFromSlot(entry, slot);
          ++compared;
        }
      }
    }
    return compared;
  }

  std::int16_t radio_ = -1;
  std::int16_t frames_ = -1;
  std::int16_t small_ = -1;
};

TEST_F(DecodeStoreTest, TheTraceDumpDecodesAsTheStoreHoldsIt) {
  fillStore();
  ASSERT_EQ(dumpTracesToFile(dumpPath().c_str(), 1, 1), 0);
  const DecodedFile file = readDumpFile(dumpPath(), TimeOrder::kAuto);
  ASSERT_FALSE(file.error) << file.error->message;
  EXPECT_EQ(file.kind, DumpKind::kTraceDump);
  EXPECT_EQ(file.timeOrder, TimeOrder::kNetwork);
  ASSERT_EQ(file.sets.size(), 5u);
  EXPECT_EQ(file.sets[3].nameText(), "NVJ_System");
  EXPECT_EQ(file.sets[3].id, 254);
  EXPECT_EQ(file.sets[4].nameText(), "System");
  EXPECT_EQ(file.sets[4].id, 255);

  const std::size_t compared = compareWithStore(file);
  EXPECT_EQ(compared, 4u + 3u + 3u);
  // Two entries went to "System" and three were planted in "NVJ_System".
  EXPECT_EQ(file.entries.size(), compared + 2u + 3u + errorSet().curentNumberEntries - 2u);
  for (std::size_t i = 1; i < file.entries.size(); ++i) {
    EXPECT_LT(file.entries[i - 1].sequenceNumber, file.entries[i].sequenceNumber);
  }
  expectLibraryLines(file);
}

TEST_F(DecodeStoreTest, TheDumpBeforeResetDecodesAsTheStoreHoldsIt) {
  fillStore();
  ASSERT_EQ(dumpTracesBeforeReset(dumpPath().c_str(), 1), 0);
  const DecodedFile file = readDumpFile(dumpPath(), TimeOrder::kAuto);
  ASSERT_FALSE(file.error) << file.error->message;
  EXPECT_EQ(file.kind, DumpKind::kDumpBeforeReset);
  EXPECT_EQ(file.timeOrder, TimeOrder::kLittle);
  ASSERT_EQ(file.sets.size(), 3u);

  const std::size_t compared = compareWithStore(file);
  // Entries of an unknown severity are not selected.
  EXPECT_EQ(compared, 3u + 3u + 3u);
  EXPECT_EQ(file.entries.size(), compared);
  expectLibraryLines(file);

  // Read in the other order, the stamps come out turned around.
  const DecodedFile forced = readDumpFile(dumpPath(), TimeOrder::kNetwork);
  ASSERT_EQ(forced.entries.size(), file.entries.size());
  EXPECT_EQ(forced.kind, DumpKind::kTraceDump);
  EXPECT_EQ(forced.entries[0].realSeconds, __builtin_bswap32(file.entries[0].realSeconds));
  EXPECT_EQ(forced.entries[0].monotonicSeconds, __builtin_bswap32(file.entries[0].monotonicNanoseconds));
}

TEST_F(DecodeStoreTest, AnEmptyStore) {
  ASSERT_EQ(dumpTracesToFile(dumpPath().c_str(), 0, 1), 0);
  const DecodedFile file = readDumpFile(dumpPath(), TimeOrder::kAuto);
  EXPECT_FALSE(file.error);
  EXPECT_TRUE(file.sets.empty());
  EXPECT_TRUE(file.entries.empty());
}

TEST_F(DecodeStoreTest, LeftOutDebugEntriesThatAreStillCounted) {
  allowDebug();
  const std::int16_t a = createSet("A", TS_STRING, 6, 32);
  const std::int16_t b = createSet("B", TS_STRING, 6, 32);
  for (int i = 0; i < 3; ++i) {
    text(a, TRACE_SEVERITY_INF, "a info");
    text(a, TRACE_SEVERITY_DBG, "a debug");
    text(b, TRACE_SEVERITY_INF, "b info");
  }
  // debugMode 2 leaves out debug entries but keeps the counts.
  ASSERT_EQ(dumpTracesToFile(dumpPath().c_str(), 0, 2), 0);
  const DecodedFile file = readDumpFile(dumpPath(), TimeOrder::kAuto);
  EXPECT_FALSE(file.error) << file.error->message;
  EXPECT_EQ(file.entries.size(), 6u);
  expectLibraryLines(file);
}

TEST_F(DecodeStoreTest, EntriesOfSeveralProcessesComeInTheirOrder) {
  const std::int16_t shared = createSet("Shared", TS_STRING, 200, 64);
  const std::int16_t own = createSet("Own", TS_STRING, 200, 64);
  const std::vector<int> statuses = nt::test::runChildrenAtOnce(3, [&](int index) {
    for (int i = 0; i < 20; ++i) {
      const std::string message = "child " + std::to_string(index) + " entry " + std::to_string(i);
      if (tracePrintf(static_cast<std::uint16_t>(i % 2 == 0 ? shared : own), TRACE_SEVERITY_INF, 1, "child.c",
                      index, "%s", message.c_str()) != 0) {
        return 1;
      }
    }
    return 0;
  });
  EXPECT_EQ(statuses, std::vector<int>(3, 0));
  ASSERT_EQ(dumpTracesToFile(dumpPath().c_str(), 0, 1), 0);
  const DecodedFile file = readDumpFile(dumpPath(), TimeOrder::kAuto);
  ASSERT_FALSE(file.error);
  ASSERT_EQ(file.entries.size(), 60u);
  for (std::size_t i = 1; i < file.entries.size(); ++i) {
    EXPECT_LT(file.entries[i - 1].sequenceNumber, file.entries[i].sequenceNumber);
  }
  // Each child's own entries keep the order it wrote them in.
  std::vector<int> next(3, 0);
  for (const EntryRecord& entry : file.entries) {
    const std::string text = contentsText(file.sets[entry.set], entry);
    const int child = entry.line;
    ASSERT_GE(child, 0);
    ASSERT_LT(child, 3);
    EXPECT_EQ(text, "child " + std::to_string(child) + " entry " + std::to_string(next[child]++));
  }
  expectLibraryLines(file);
}

}  // namespace
}  // namespace nodetrace_tool::decode::test
