// The feature tag of a set, found once per process and kept by set id: a
// kept row is used only while the set's name is still the row's name, a
// name no row holds is looked up (with its diagnostic line) every time, and
// threads and forked children of one process share the kept rows safely.
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "common/syscalls.h"
#include "logbridge/feature_tags.h"
#include "nodetrace/logbridge.h"
#include "nodetrace/trace_layout.h"
#include "tests/support/node_test.h"
#include "tests/support/recording_platform.h"

namespace nt::test {
namespace {

constexpr std::uint32_t kRadioTag = 0x1A0016;    // row 22
constexpr std::uint32_t kSnmpTag = 0x1A000A;     // row 10
constexpr std::uint32_t kUnknownTag = 0x1A001F;  // row 31

std::string notFound() {
  return std::string(program_invocation_short_name) +
         ": 168 : getHBKFeatureTag() -> ***Error - Feature tag NOT FOUND***\n";
}

class FeatureTagCacheTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    sys::captureSyslog(true);
    forgetFeatureTagCache();
    // Register the domain now, so that each test sees only its entries.
    forward(250, "Radio", "first");
    forgetFeatureTagCache();
    clearPlatformCalls();
    flushHBKLogFile(0);
  }
  void TearDown() override {
    forgetFeatureTagCache();
    NodeTest::TearDown();
  }

  static int forward(std::uint16_t id, const char* set, const std::string& text,
                     std::uint32_t severity = TRACE_SEVERITY_INF) {
    return forwardEntry(id, SetName::of(set), TS_STRING, severity, "radio.c", 42,
                        static_cast<std::uint16_t>(text.size() + 1), text.c_str(), true);
  }

  std::string logText() const {
    const std::string file = path("/opt/qmb/etc/hbk_log.txt");
    return fileExists(file) ? readFileText(file) : std::string();
  }

  // The lines printed under a feature tag: "<level> <tag> <text>".
  static std::vector<std::string> printedLines() {
    std::vector<std::string> lines;
    for (const PlatformCall& call : platformCalls("ZqSysLogPrintE")) {
      std::string numbers;
      for (long long n : call.numbers) numbers += std::to_string(n) + " ";
      lines.push_back(numbers + call.text);
    }
    return lines;
  }
};

std::string line(std::uint32_t level, std::uint32_t tag, const std::string& text) {
  return std::to_string(level) + " " + std::to_string(tag) + " radio.c:42 [" + text + "]";
}

TEST_F(FeatureTagCacheTest, FoundRowIsKeptByIdAndUsedForLaterEntries) {
  EXPECT_EQ(cachedFeatureTagRow(3), -1);
  EXPECT_EQ(forward(3, "Radio", "one"), 0);
  EXPECT_EQ(cachedFeatureTagRow(3), 22);
  EXPECT_EQ(forward(3, "Radio", "two"), 0);
  EXPECT_EQ(forward(3, "RADIO", "three"), 0);  // the same row, in another case
  EXPECT_EQ(cachedFeatureTagRow(3), 22);
  EXPECT_EQ(printedLines(), (std::vector<std::string>{line(2, kRadioTag, "one"), line(2, kRadioTag, "two"),
                                                      line(2, kRadioTag, "three")}));
  EXPECT_EQ(logText(), "");
  // Only the set's own id keeps the row.
  EXPECT_EQ(cachedFeatureTagRow(2), -1);
  EXPECT_EQ(cachedFeatureTagRow(4), -1);
}

TEST_F(FeatureTagCacheTest, KeptRowGivesTheSameTagAsTheLookupForEveryRow) {
  for (std::uint16_t row = 0; row < HBK_SYSLOG_MAP_ROWS; ++row) {
    SCOPED_TRACE(row);
    EXPECT_EQ(featureTagOfSet(row, hbk_syslog_map[row].name), 0x1A0000u + row);
    EXPECT_EQ(cachedFeatureTagRow(row), row);
    EXPECT_EQ(featureTagOfSet(row, hbk_syslog_map[row].name), 0x1A0000u + row);
  }
  // "Unknown" is a row's name: kept like any other, without a diagnostic.
  EXPECT_EQ(logText(), "");
}

TEST_F(FeatureTagCacheTest, SetRecreatedUnderTheSameIdWithAnotherNameGetsItsOwnTag) {
  forward(3, "Radio", "before");
  ASSERT_EQ(cachedFeatureTagRow(3), 22);
  // The store was created afresh: id 3 now names another family.
  forward(3, "Snmp", "after");
  EXPECT_EQ(cachedFeatureTagRow(3), 10);
  forward(3, "snmp", "again");
  // And back again.
  forward(3, "Radio", "back");
  EXPECT_EQ(cachedFeatureTagRow(3), 22);
  EXPECT_EQ(printedLines(), (std::vector<std::string>{line(2, kRadioTag, "before"), line(2, kSnmpTag, "after"),
                                                      line(2, kSnmpTag, "again"), line(2, kRadioTag, "back")}));
  EXPECT_EQ(logText(), "");
}

TEST_F(FeatureTagCacheTest, NameNoRowHoldsLogsItsDiagnosticWithEveryEntry) {
  for (int i = 0; i < 3; ++i) forward(4, "NoSuchSet", "entry " + std::to_string(i));
  EXPECT_EQ(cachedFeatureTagRow(4), -1);
  EXPECT_EQ(printedLines(),
            (std::vector<std::string>{line(2, kUnknownTag, "entry 0"), line(2, kUnknownTag, "entry 1"),
                                      line(2, kUnknownTag, "entry 2")}));
  EXPECT_EQ(logText(), notFound() + notFound() + notFound());
}

TEST_F(FeatureTagCacheTest, KeptRowIsNotUsedForANameNoRowHoldsUnderTheSameId) {
  forward(5, "Radio", "known");
  ASSERT_EQ(cachedFeatureTagRow(5), 22);
  forward(5, "Radios", "unknown");
  forward(5, "Radios", "unknown again");
  EXPECT_EQ(printedLines(), (std::vector<std::string>{line(2, kRadioTag, "known"), line(2, kUnknownTag, "unknown"),
                                                      line(2, kUnknownTag, "unknown again")}));
  EXPECT_EQ(logText(), notFound() + notFound());
}

TEST_F(FeatureTagCacheTest, ErrorEntryStillLooksUpItsSetAndGoesOutUnderSystem) {
  forward(6, "NoSuchSet", "bad", TRACE_SEVERITY_ERR);
  forward(7, "Radio", "bad", TRACE_SEVERITY_ERR);
  forward(7, "Radio", "worse", TRACE_SEVERITY_ERR);
  EXPECT_EQ(cachedFeatureTagRow(6), -1);
  EXPECT_EQ(cachedFeatureTagRow(7), 22);
  EXPECT_EQ(printedLines(), (std::vector<std::string>{line(4, 0x1A001E, "bad"), line(4, 0x1A001E, "bad"),
                                                      line(4, 0x1A001E, "worse")}));
  EXPECT_EQ(logText(), notFound());
}

TEST_F(FeatureTagCacheTest, DumpSetIsForwardedAsBeforeAndKeepsItsRow) {
  const std::uint8_t bytes[3] = {1, 2, 0xFF};
  EXPECT_EQ(forwardEntry(8, SetName::of("Optical"), TS_DUMP, TRACE_SEVERITY_DBG, "o.c", 1, sizeof bytes, bytes,
                         false),
            0);
  const std::vector<PlatformCall> dumps = platformCalls("ZqSysLogPrintHD");
  ASSERT_EQ(dumps.size(), 1u);
  EXPECT_EQ(dumps[0].text, "QMB Optical DUMP");
  EXPECT_EQ(dumps[0].numbers, (std::vector<long long>{1, 3}));
  EXPECT_EQ(dumps[0].data, (Bytes{1, 2, 0xFF}));
  EXPECT_EQ(cachedFeatureTagRow(8), 23);
}

TEST_F(FeatureTagCacheTest, IdsBeyondTheKeptRangeAreLookedUpEveryTime) {
  EXPECT_EQ(featureTagOfSet(256, "Radio"), kRadioTag);
  EXPECT_EQ(featureTagOfSet(0xFFFF, "snmp"), kSnmpTag);
  EXPECT_EQ(cachedFeatureTagRow(256), -1);
  EXPECT_EQ(cachedFeatureTagRow(0xFFFF), -1);
  EXPECT_EQ(featureTagOfSet(0xFFFF, "NoSuchSet"), kUnknownTag);
  EXPECT_EQ(logText(), notFound());
}

TEST_F(FeatureTagCacheTest, NullNameIsLookedUpAndNotKept) {
  EXPECT_EQ(featureTagOfSet(9, nullptr), kUnknownTag);
  EXPECT_EQ(cachedFeatureTagRow(9), -1);
  EXPECT_EQ(logText(), notFound());
}

TEST_F(FeatureTagCacheTest, PersistentSetsKeepTheirRowsToo) {
  EXPECT_EQ(featureTagOfSet(SYSTEM_TRACE_SET_ID, "System"), 0x1A001Eu);
  EXPECT_EQ(cachedFeatureTagRow(SYSTEM_TRACE_SET_ID), 30);
  EXPECT_EQ(featureTagOfSet(REMOTE_SYSTEM_TRACE_SET_ID, "RemoteUnit"), 0x1A001Du);
  EXPECT_EQ(cachedFeatureTagRow(REMOTE_SYSTEM_TRACE_SET_ID), 29);
}

// Threads of one process look up the same ids at once while the names
// under those ids keep changing: every answer is the tag of the name asked
// about, never the tag of the other name.
TEST_F(FeatureTagCacheTest, ThreadsChangingNamesUnderOneIdNeverGetAnotherNamesTag) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 20000;
  const char* const names[2][2] = {{"Radio", "Optical"}, {"Snmp", "Netconf"}};
  const std::uint32_t tags[2][2] = {{0x1A0016, 0x1A0017}, {0x1A000A, 0x1A000B}};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const int id = t % 2;
      for (int i = 0; i < kRounds; ++i) {
        const int which = (i + t / 2) % 2;
        if (featureTagOfSet(static_cast<std::uint16_t>(id), names[id][which]) != tags[id][which]) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(logText(), "");
}

// A forked child starts with the parent's kept rows and checks them like
// the parent does.
TEST_F(FeatureTagCacheTest, ForkedChildUsesAndChecksTheParentsKeptRows) {
  forward(10, "Radio", "parent");
  ASSERT_EQ(cachedFeatureTagRow(10), 22);
  const int status = runInChild([] {
    if (cachedFeatureTagRow(10) != 22) return 1;
    if (featureTagOfSet(10, "Radio") != kRadioTag) return 2;
    if (featureTagOfSet(10, "Snmp") != kSnmpTag) return 3;
    if (cachedFeatureTagRow(10) != 10) return 4;
    return 0;
  });
  EXPECT_EQ(status, 0);
  // The child's rows are its own.
  EXPECT_EQ(cachedFeatureTagRow(10), 22);
}

}  // namespace
}  // namespace nt::test
