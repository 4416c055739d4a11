// The entry formatter: every directive, the look-ahead of %d and %u, local
// time against UTC by product type, the zero byte that replaces a trailing
// newline, the 8-bit cursor, the hex dump rows, damaged lengths held to the
// buffers, and the record of an unknown severity in the error trace set.
// Standard output is captured as bytes, zero bytes included, and compared
// exactly.
#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "tests/support/node_test.h"
#include "tests/support/recording_platform.h"

namespace nt::test {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

// The real time stamp of the default entry: 2023-11-14 22:13:20.123456789 UTC,
// a Tuesday; 07:13:20 on Wednesday the 15th in the test's zone, nine hours
// east.
constexpr std::uint32_t kRealSeconds = 1700000000;
constexpr std::uint32_t kRealNanoseconds = 123456789;
constexpr const char* kTimeZone = "JST-9";

constexpr std::size_t kContentsBufferSize = 1600;

// Sets TZ for the life of the object and puts the old value back.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    const char* old = std::getenv("TZ");
    if (old != nullptr) saved_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    if (saved_) {
      setenv("TZ", saved_->c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  std::optional<std::string> saved_;
};

TraceSetStruct setOf(const char* name, std::uint32_t type, std::uint16_t maxContentsLength) {
  TraceSetStruct set{};
  std::strncpy(set.name, name, sizeof set.name - 1);
  set.type = type;
  set.categoryMask = 0xFFFFFFFFu;
  set.maxNumberEntries = 10;
  set.traceEntryContentsLength = maxContentsLength;
  set.creatorPid = 812;
  set.dataOffset = 9848;
  return set;
}

TraceTimeStamp stampOf(std::uint32_t seconds, std::uint32_t nanoseconds) {
  return {htonl(seconds), htonl(nanoseconds)};
}

class EntryFormatTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    zone_.emplace(kTimeZone);
    set_ = setOf("Radio", TS_STRING, 128);
    std::strncpy(entry_.fileName, "radio.c", sizeof entry_.fileName - 1);
    entry_.line = 212;
    entry_.pid = 812;
    entry_.severity = TRACE_SEVERITY_INF;
    entry_.category = 0x0000000Fu;
    entry_.sequenceNumber = 42;
    entry_.tid = 790;
    entry_.monotonicTime = stampOf(5, 250000000);
    entry_.prevTraceSetId = 0xFFFF;
    entry_.realTime = stampOf(kRealSeconds, kRealNanoseconds);
    setText("hello");
  }

  void TearDown() override {
    zone_.reset();
    NodeTest::TearDown();
  }

  // Text contents with the length the entry writer stores (terminator included).
  void setText(std::string_view text) {
    contents_.assign(kContentsBufferSize, 0);
    std::memcpy(contents_.data(), text.data(), text.size());
    entry_.contentsLength = static_cast<std::uint16_t>(text.size() + 1);
  }

  void setBytes(const Bytes& bytes) {
    contents_.assign(kContentsBufferSize, 0);
    if (!bytes.empty()) std::memcpy(contents_.data(), bytes.data(), bytes.size());
    entry_.contentsLength = static_cast<std::uint16_t>(bytes.size());
  }

  // Standard output of one call with format, given as a writable string that
  // the call may change.
  std::string printIn(std::string& format, std::int16_t id = 3) {
    StdoutCapture capture;
    printTraceEntry(id, &set_, &entry_, contents_.data(), format.data());
    return capture.take();
  }

  std::string print(std::string format, std::int16_t id = 3) { return printIn(format, id); }

  std::uint32_t errorEntries() const { return readSramDescriptor(sram(), 0).totalNumberEntries; }

  std::optional<ScopedTimeZone> zone_;
  TraceSetStruct set_{};
  TraceEntryHeader entry_{};
  std::vector<char> contents_;
};

// ---- Examples of the text layout -------------------------------------------

TEST_F(EntryFormatTest, TrailingNewlineBecomesAZeroByteInTheLineAndInTheFormat) {
  std::string format = "%S|%c\n";
  EXPECT_EQ(printIn(format), "INF|hello\0\n"s);
  EXPECT_EQ(format, "%S|%c\0"s);
}

TEST_F(EntryFormatTest, SetIdAndSequenceNumberArePadded) {
  EXPECT_EQ(print("%i %n", 3), "  3        42\n");
}

TEST_F(EntryFormatTest, IsoTimesOfTheEpoch) {
  entry_.realTime = stampOf(0, 123456789);
  EXPECT_EQ(print("%dz"), "1970-01-01T00:00:00.123Z\n");
  EXPECT_EQ(print("%uz"), "1970-01-01T00:00:00.123456Z\n");
}

TEST_F(EntryFormatTest, DateAndTimeIsLocalOnlyOnProductTypeOne) {
  setProductType(1);
  EXPECT_EQ(print("%dt"), "Wed Nov 15 07:13:20 2023 123ms\n");
  setProductType(0);
  EXPECT_EQ(print("%dt"), "Tue Nov 14 22:13:20 2023 123ms\n");
  setProductType(2);
  EXPECT_EQ(print("%dt"), "Tue Nov 14 22:13:20 2023 123ms\n");
  setProductType(-1);
  EXPECT_EQ(print("%dt"), "Tue Nov 14 22:13:20 2023 123ms\n");
}

TEST_F(EntryFormatTest, IsoTimesAreUtcOnEveryProductType) {
  for (const int productType : {0, 1, 2}) {
    SCOPED_TRACE(productType);
    setProductType(productType);
    EXPECT_EQ(print("%dz"), "2023-11-14T22:13:20.123Z\n");
    EXPECT_EQ(print("%uz"), "2023-11-14T22:13:20.123456Z\n");
  }
}

TEST_F(EntryFormatTest, LocalTimeFollowsAChangedTimeZone) {
  setProductType(1);
  EXPECT_EQ(print("%t"), "07:13:20 123ms\n");
  {
    const ScopedTimeZone west("EST5");
    EXPECT_EQ(print("%t"), "17:13:20 123ms\n");
  }
  EXPECT_EQ(print("%t"), "07:13:20 123ms\n");
}

TEST_F(EntryFormatTest, UnknownDirectiveIsWrittenWithItsPercentSign) {
  EXPECT_EQ(print("%x"), "%x\n");
}

TEST_F(EntryFormatTest, FormatEndingInAPercentSignWritesAZeroByte) {
  EXPECT_EQ(print("abc%"), "abc%\0\n"s);
}

TEST_F(EntryFormatTest, PercentDuIsTheTextPercentDThenTheLetterU) {
  EXPECT_EQ(print("%du"), "%du\n");
}

TEST_F(EntryFormatTest, DumpEntryOfTwentyBytes) {
  set_ = setOf("Frames", TS_DUMP, 1600);
  Bytes bytes;
  for (std::uint8_t i = 0; i < 20; ++i) bytes.push_back(static_cast<std::uint8_t>('A' + i));
  setBytes(bytes);
  EXPECT_EQ(print("%c"),
            "DUMP 20 bytes"
            "\n0x000: 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50  ABCDEFGHIJKLMNOP"
            "\n0x010: 51 52 53 54" +
                std::string(12 * 3, ' ') + "  QRST\n");
}

TEST_F(EntryFormatTest, TextStopsAtTheFirstZeroByte) {
  setText("hello\0world"sv);
  EXPECT_EQ(entry_.contentsLength, 12);
  EXPECT_EQ(print("%c"), "hello\n");
}

TEST_F(EntryFormatTest, UnknownSeverityPrintsQuestionMarksAndIsRecordedEachTime) {
  entry_.severity = 0x01;
  EXPECT_EQ(print("%S|%c"), "???|hello\n");
  EXPECT_EQ(errorEntries(), 1u);
  EXPECT_EQ(print("%S|%c"), "???|hello\n");
  EXPECT_EQ(errorEntries(), 2u);

  const std::string text = "printTraceEntry: Unknown severity value in trace number 42 encountered";
  for (unsigned slot : {0u, 1u}) {
    SCOPED_TRACE(slot);
    const SramEntry stored = readSramEntry(sram(), 0, slot);
    // The error trace writer keeps the text without its trailing newline.
    EXPECT_EQ(stored.text(), text);
    EXPECT_EQ(stored.header.contentsLength, text.size());
    EXPECT_STREQ(stored.header.fileName, "traceLibLocal.c");
    EXPECT_EQ(stored.header.line, 1386);
    EXPECT_EQ(stored.header.severity, 0x80);
    EXPECT_EQ(stored.header.category, 0x80000001u);
    EXPECT_EQ(stored.header.sequenceNumber, slot);
    EXPECT_EQ(stored.header.pid, static_cast<std::uint32_t>(getpid()));
  }
}

TEST_F(EntryFormatTest, EachUnknownSeverityDirectiveIsRecorded) {
  entry_.severity = 0x03;
  entry_.sequenceNumber = 4294967295u;
  EXPECT_EQ(print("%S%S"), "??????\n");
  EXPECT_EQ(errorEntries(), 2u);
  EXPECT_EQ(readSramEntry(sram(), 0, 1).text(),
            "printTraceEntry: Unknown severity value in trace number 4294967295 encountered");
}

TEST_F(EntryFormatTest, KnownSeveritiesAreNotRecorded) {
  const std::vector<std::tuple<std::uint8_t, std::string>> severities = {
      {0x80, "ERR"}, {0x40, "WAR"}, {0x20, "INF"}, {0x10, "DBG"}, {0x08, "NOT"}};
  for (const auto& [severity, letters] : severities) {
    SCOPED_TRACE(letters);
    entry_.severity = severity;
    EXPECT_EQ(print("%S"), letters + "\n");
  }
  EXPECT_EQ(errorEntries(), 0u);
}

TEST_F(EntryFormatTest, SeveritiesWithMoreThanOneBitAreUnknown) {
  for (const std::uint8_t severity : {0x00, 0xC8, 0xFF, 0x04}) {
    entry_.severity = severity;
    EXPECT_EQ(print("%S"), "???\n");
  }
  EXPECT_EQ(errorEntries(), 4u);
}

// ---- Every directive -------------------------------------------------------

TEST_F(EntryFormatTest, CategoryInEightUpperCaseHexDigits) {
  EXPECT_EQ(print("%C"), "0000000F\n");
  entry_.category = 0xDEADBEEFu;
  EXPECT_EQ(print("%C"), "DEADBEEF\n");
}

TEST_F(EntryFormatTest, SetName) {
  EXPECT_EQ(print("[%I]"), "[Radio]\n");
}

TEST_F(EntryFormatTest, ThreadAndProcess) {
  EXPECT_EQ(print("%P %p"), "790 812\n");
  entry_.tid = 4294967295u;
  EXPECT_EQ(print("%P"), "4294967295\n");
}

TEST_F(EntryFormatTest, MonotonicTimeInMicroseconds) {
  entry_.monotonicTime = stampOf(5, 250000999);
  EXPECT_EQ(print("%T"), "5250000\n");
  entry_.monotonicTime = stampOf(0, 0);
  EXPECT_EQ(print("%T"), "0\n");
  // Computed in 64 bits.
  entry_.monotonicTime = stampOf(4294967295u, 999999999);
  EXPECT_EQ(print("%T"), "4294967295999999\n");
}

TEST_F(EntryFormatTest, TextIsCutToTheShorterOfBothLengths) {
  set_.traceEntryContentsLength = 4;
  EXPECT_EQ(print("%c"), "hell\n");
  set_.traceEntryContentsLength = 128;
  entry_.contentsLength = 3;
  EXPECT_EQ(print("%c"), "hel\n");
  entry_.contentsLength = 0;
  EXPECT_EQ(print("<%c>"), "<>\n");
}

TEST_F(EntryFormatTest, TextOfTheLongestEntry) {
  const std::string text(127, 'x');
  setText(text);
  EXPECT_EQ(entry_.contentsLength, 128);
  EXPECT_EQ(print("%c"), text + "\n");
}

TEST_F(EntryFormatTest, ContentsOfOtherTypesAreCountedNotShown) {
  set_.type = 2;
  EXPECT_EQ(print("%c"), "DUMP 6 bytes\n");  // and no hex dump: only type 1 has one
}

TEST_F(EntryFormatTest, SetIdInThreeColumns) {
  EXPECT_EQ(print("%i", 7), "  7\n");
  EXPECT_EQ(print("%i", 255), "255\n");
  EXPECT_EQ(print("%i", 1000), "1000\n");
  // A negative id prints as its unsigned 32-bit value.
  EXPECT_EQ(print("%i", -1), "4294967295\n");
}

TEST_F(EntryFormatTest, SourcePosition) {
  EXPECT_EQ(print("%l"), "radio.c(212)\n");
  entry_.line = -1;
  EXPECT_EQ(print("%l"), "radio.c(4294967295)\n");
}

TEST_F(EntryFormatTest, SequenceNumberInNineColumns) {
  entry_.sequenceNumber = 0;
  EXPECT_EQ(print("%n"), "        0\n");
  entry_.sequenceNumber = 4294967295u;
  EXPECT_EQ(print("%n"), "4294967295\n");
}

TEST_F(EntryFormatTest, ClockTimeInMilliseconds) {
  setProductType(1);
  EXPECT_EQ(print("%t"), "07:13:20 123ms\n");
  setProductType(0);
  EXPECT_EQ(print("%t"), "22:13:20 123ms\n");
}

TEST_F(EntryFormatTest, DateAndTimeInMicroseconds) {
  setProductType(1);
  EXPECT_EQ(print("%dut"), "Wed Nov 15 07:13:20 2023 123456us\n");
  EXPECT_EQ(print("%udt"), "Wed Nov 15 07:13:20 2023 123456us\n");
  setProductType(0);
  EXPECT_EQ(print("%dut"), "Tue Nov 14 22:13:20 2023 123456us\n");
  EXPECT_EQ(print("%udt"), "Tue Nov 14 22:13:20 2023 123456us\n");
}

TEST_F(EntryFormatTest, ClockTimeInMicroseconds) {
  setProductType(1);
  EXPECT_EQ(print("%ut"), "07:13:20 123456us\n");
  setProductType(0);
  EXPECT_EQ(print("%ut"), "22:13:20 123456us\n");
}

TEST_F(EntryFormatTest, FractionsArePaddedWithBlanksExceptInIsoTimes) {
  entry_.realTime = stampOf(0, 5000);  // 5 microseconds, 0 milliseconds
  EXPECT_EQ(print("%dut"), "Thu Jan  1 00:00:00 1970      5us\n");
  EXPECT_EQ(print("%dt"), "Thu Jan  1 00:00:00 1970   0ms\n");
  EXPECT_EQ(print("%t|%ut"), "00:00:00   0ms|00:00:00      5us\n");
  EXPECT_EQ(print("%dz|%uz"), "1970-01-01T00:00:00.000Z|1970-01-01T00:00:00.000005Z\n");
}

TEST_F(EntryFormatTest, SecondsAreAnUnsignedWord) {
  entry_.realTime = stampOf(0x80000000u, 999999999);
  EXPECT_EQ(print("%dz %dut"), "2038-01-19T03:14:08.999Z Tue Jan 19 03:14:08 2038 999999us\n");
  entry_.realTime = stampOf(0xFFFFFFFFu, 0);
  EXPECT_EQ(print("%uz"), "2106-02-07T06:28:15.000000Z\n");
}

TEST_F(EntryFormatTest, NanosecondsBeyondOneSecondAreDividedAsTheyAre) {
  entry_.realTime = stampOf(0, 0xFFFFFFFFu);  // 4294967 microseconds
  EXPECT_EQ(print("%t %uz"), "00:00:00 4294ms 1970-01-01T00:00:00.4294967Z\n");
}

TEST_F(EntryFormatTest, AllDirectivesInOneLine) {
  setProductType(1);
  EXPECT_EQ(print("%dt %i %n %S %I %l %p/%P %C %T: %c\n"),
            "Wed Nov 15 07:13:20 2023 123ms   3        42 INF Radio radio.c(212) 812/790 0000000F "
            "5250000: hello\0\n"s);
}

// ---- Look-ahead of %d and %u -----------------------------------------------

TEST_F(EntryFormatTest, LookAheadOfPercentD) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"%d", "%d"},
      {"%dx", "%dx"},
      {"%du", "%du"},
      {"%dux", "%dux"},
      {"%duz", "%duz"},
      {"%dd", "%dd"},
      {"%dut!", "Tue Nov 14 22:13:20 2023 123456us!"},
      {"%dtt", "Tue Nov 14 22:13:20 2023 123mst"},
      {"%dzz", "2023-11-14T22:13:20.123Zz"},
      {"%dutt", "Tue Nov 14 22:13:20 2023 123456ust"},
  };
  for (const auto& [format, expected] : cases) {
    EXPECT_EQ(print(format), expected + "\n") << format;
  }
}

TEST_F(EntryFormatTest, LookAheadOfPercentU) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"%u", "%u"},
      {"%ux", "%ux"},
      {"%ud", "%ud"},
      {"%udx", "%udx"},
      {"%udz", "%udz"},
      {"%uu", "%uu"},
      {"%udt!", "Tue Nov 14 22:13:20 2023 123456us!"},
      {"%utt", "22:13:20 123456ust"},
      {"%uzt", "2023-11-14T22:13:20.123456Zt"},
  };
  for (const auto& [format, expected] : cases) {
    EXPECT_EQ(print(format), expected + "\n") << format;
  }
}

TEST_F(EntryFormatTest, LookAheadSeesTheZeroByteOfATrailingNewline) {
  EXPECT_EQ(print("%d\n"), "%d\0\n"s);
  EXPECT_EQ(print("%du\n"), "%du\0\n"s);
  EXPECT_EQ(print("%dut\n"), "Tue Nov 14 22:13:20 2023 123456us\0\n"s);
  EXPECT_EQ(print("%\n"), "%\0\n"s);
}

TEST_F(EntryFormatTest, OtherCharactersAfterAPercentSign) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"%%", "%%"}, {"%%i", "%%i"}, {"%D", "%D"}, {"%a", "%a"}, {"%s", "%s"},
      {"%A", "%A"}, {"%v", "%v"},   {"%z", "%z"}, {"%0", "%0"}, {"% x", "% x"},
  };
  for (const auto& [format, expected] : cases) {
    EXPECT_EQ(print(format), expected + "\n") << format;
  }
}

// ---- The format string -----------------------------------------------------

TEST_F(EntryFormatTest, EmptyFormatPrintsTheNewline) {
  EXPECT_EQ(print(""), "\n");
}

TEST_F(EntryFormatTest, FormatOfOnlyANewline) {
  std::string format = "\n";
  EXPECT_EQ(printIn(format), "\0\n"s);
  EXPECT_EQ(format, "\0"s);
}

TEST_F(EntryFormatTest, OnlyTheLastNewlineIsReplaced) {
  std::string format = "a\nb\n\n";
  EXPECT_EQ(printIn(format), "a\nb\n\0\n"s);
  EXPECT_EQ(format, "a\nb\n\0"s);
}

TEST_F(EntryFormatTest, NewlineInsideTheFormatIsKept) {
  std::string format = "a\nb";
  EXPECT_EQ(printIn(format), "a\nb\n");
  EXPECT_EQ(format, "a\nb");
}

TEST_F(EntryFormatTest, FormatOf255Characters) {
  const std::string text(255, '-');
  EXPECT_EQ(print(text), text + "\n");
  const std::string prefix(251, '-');
  EXPECT_EQ(print(prefix + "%dut"), prefix + "Tue Nov 14 22:13:20 2023 123456us\n");
  const std::string shorter(252, '-');
  EXPECT_EQ(print(shorter + "%c\n"), shorter + "hello\0\n"s);
}

TEST_F(EntryFormatTest, FormatOf255CharactersEndingInAPercentSign) {
  // The cursor stands on the terminating zero at position 255; the walk ends
  // there instead of wrapping back to the start.
  const std::string prefix(254, '-');
  EXPECT_EQ(print(prefix + "%"), prefix + "%\0\n"s);
}

TEST_F(EntryFormatTest, LongerFormatEndsWhereTheCursorWouldWrap) {
  const std::string text = std::string(256, '-') + "%S tail\n";
  std::string format = text;
  EXPECT_EQ(printIn(format), std::string(256, '-') + "\n");
  EXPECT_EQ(format.back(), '\0');
  // A directive that reaches past position 255 is printed, then the walk ends.
  EXPECT_EQ(print(std::string(253, '-') + "%dut and more"),
            std::string(253, '-') + "Tue Nov 14 22:13:20 2023 123456us\n");
}

TEST_F(EntryFormatTest, NullDescriptorPrintsNothingAndLeavesTheFormat) {
  std::string format = "%S %c\n";
  StdoutCapture capture;
  printTraceEntry(3, nullptr, nullptr, contents_.data(), format.data());
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(format, "%S %c\n");
}

TEST_F(EntryFormatTest, ErrnoIsKept) {
  entry_.severity = 0x01;  // also through the error trace writer
  errno = ENOTTY;
  EXPECT_EQ(print("%S"), "???\n");
  EXPECT_EQ(errno, ENOTTY);
}

// ---- The hex dump ----------------------------------------------------------

class DumpFormatTest : public EntryFormatTest {
 protected:
  void SetUp() override {
    EntryFormatTest::SetUp();
    set_ = setOf("Frames", TS_DUMP, 1600);
  }
};

TEST_F(DumpFormatTest, ShortLastRow) {
  Bytes bytes;
  for (std::uint8_t i = 0; i < 16; ++i) bytes.push_back(static_cast<std::uint8_t>('0' + i));
  for (const std::uint8_t byte : {0x41, 0x42, 0x00, 0x7F, 0x80}) bytes.push_back(byte);
  setBytes(bytes);
  EXPECT_EQ(print(""),
            "\n0x000: 30 31 32 33 34 35 36 37 38 39 3A 3B 3C 3D 3E 3F  0123456789:;<=>?"
            "\n0x010: 41 42 00 7F 80" +
                std::string(11 * 3, ' ') + "  AB.\x7F.\n");
}

TEST_F(DumpFormatTest, PrintableCharactersRunFromBlankToDelete) {
  setBytes({0x00, 0x1F, 0x20, 0x21, 0x7E, 0x7F, 0x80, 0xFF, 0x0A, 0x09, 0x25, 0x41, 0x61, 0x30, 0xA0, 0xC3});
  EXPECT_EQ(print(""), "\n0x000: 00 1F 20 21 7E 7F 80 FF 0A 09 25 41 61 30 A0 C3  .. !~\x7F....%Aa0..\n");
}

TEST_F(DumpFormatTest, FullRowOnly) {
  setBytes(Bytes(16, 0xAB));
  EXPECT_EQ(print("%c"),
            "DUMP 16 bytes\n0x000: AB AB AB AB AB AB AB AB AB AB AB AB AB AB AB AB  ................\n");
}

TEST_F(DumpFormatTest, EmptyEntryPrintsOnlyTheDirectives) {
  setBytes({});
  EXPECT_EQ(print("%c|%S"), "DUMP 0 bytes|INF\n");
}

TEST_F(DumpFormatTest, DumpLengthIsTheShorterOfBothLengths) {
  set_.traceEntryContentsLength = 20;
  setBytes(Bytes(40, 0x41));
  EXPECT_EQ(print("%c"), "DUMP 40 bytes"
                         "\n0x000: 41 41 41 41 41 41 41 41 41 41 41 41 41 41 41 41  AAAAAAAAAAAAAAAA"
                         "\n0x010: 41 41 41 41" +
                             std::string(12 * 3, ' ') + "  AAAA\n");
}

// Number of dump rows in a printed line and the label of the last one.
std::tuple<std::size_t, std::string> rowsOf(const std::string& line) {
  std::size_t rows = 0;
  std::string last;
  for (std::size_t at = line.find("\n0x"); at != std::string::npos; at = line.find("\n0x", at + 1)) {
    ++rows;
    last = line.substr(at + 1, 6);
  }
  return {rows, last};
}

TEST_F(DumpFormatTest, LongestEntryHasOneHundredRows) {
  Bytes bytes(1600);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i);
  setBytes(bytes);
  const std::string line = print("");
  EXPECT_EQ(rowsOf(line), std::make_tuple(std::size_t{100}, "0x630:"s));
  const std::string lastRow = "\n0x630: 30 31 32 33 34 35 36 37 38 39 3A 3B 3C 3D 3E 3F  0123456789:;<=>?\n";
  ASSERT_GE(line.size(), lastRow.size());
  EXPECT_EQ(line.substr(line.size() - lastRow.size()), lastRow);
}

// ---- Damaged lengths are held to the buffers -------------------------------

TEST_F(DumpFormatTest, DamagedLengthsDumpNoMoreThanTheContentsBuffer) {
  set_.traceEntryContentsLength = 0xFFFF;
  setBytes(Bytes(1600, 0x55));
  entry_.contentsLength = 0xFFFF;
  const std::string line = print("%c");
  EXPECT_EQ(line.substr(0, 18), "DUMP 65535 bytes\n0");
  EXPECT_EQ(rowsOf(line), std::make_tuple(std::size_t{100}, "0x630:"s));
}

TEST_F(EntryFormatTest, DamagedLengthsShowNoMoreThan128Characters) {
  set_.traceEntryContentsLength = 0xFFFF;
  contents_.assign(kContentsBufferSize, 'x');
  entry_.contentsLength = 1600;
  EXPECT_EQ(print("%c"), std::string(128, 'x') + "\n");
}

TEST_F(EntryFormatTest, UnterminatedNamesEndWithTheirFields) {
  std::memset(set_.name, 'N', sizeof set_.name);
  std::memset(entry_.fileName, 'F', sizeof entry_.fileName);
  EXPECT_EQ(print("%I %l"), std::string(20, 'N') + " " + std::string(30, 'F') + "(212)\n");
}

}  // namespace
}  // namespace nt::test
