// Feature tags and the routing of trace entries to the platform log service:
// the table, the lookup by name with its diagnostic line, the registration
// of the log domain and its retry, the tag defaults, the three routes of an
// entry and the levels of the severities.
#include <errno.h>
#include <strings.h>

#include <atomic>
#include <cctype>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/syscalls.h"
#include "logbridge/feature_tags.h"
#include "logbridge/log_file.h"
#include "nodetrace/logbridge.h"
#include "nodetrace/trace_layout.h"
#include "tests/support/node_test.h"
#include "tests/support/recording_platform.h"

namespace nt::test {
namespace {

const std::vector<std::string> kRowNames = {
    "Platform", "Config",   "Alarm",     "Event",    "Perf",       "Equipment",   "Inventory", "Software",
    "License",  "Security", "Snmp",      "Netconf",  "Cli",        "Web",         "Database",  "Timing",
    "Ethernet", "Routing",  "Mpls",      "Oam",      "Protection", "Qos",         "Radio",     "Optical",
    "Dcn",      "Discovery", "Power",    "Diagnostics", "Backup",  "RemoteUnit",  "System",    "Unknown"};

constexpr std::uint32_t kRadioTag = 0x1A0016;

// The diagnostic line of proc_printf_func, line end included.
std::string diagnostic(const std::string& function, unsigned line, const std::string& message) {
  return std::string(program_invocation_short_name) + ": " + std::to_string(line) + " : " + function + "() -> " +
         message + "\n";
}

std::string notFound() { return diagnostic("getHBKFeatureTag", 168, "***Error - Feature tag NOT FOUND***"); }
std::string registered(const std::string& set) {
  return diagnostic("updateSyslogPrint", 197, "QMB Domain [" + set + "] registered");
}
std::string registrationFailed(int rc, const std::string& set) {
  return diagnostic("updateSyslogPrint", 202,
                    "ZqConfigRadRegisterDomain() returned " + std::to_string(rc) + " for [" + set + "]");
}

std::string withCase(std::string text, int (*change)(int)) {
  for (char& c : text) c = static_cast<char>(change(static_cast<unsigned char>(c)));
  return text;
}

// What the bridge asked of the platform, without the file wrappers that the
// local log file goes through.
std::vector<PlatformCall> bridgeCalls() {
  std::vector<PlatformCall> calls;
  for (const PlatformCall& call : platformCalls()) {
    if (call.function.rfind("omlu", 0) != 0) calls.push_back(call);
  }
  return calls;
}

void expectCall(const PlatformCall& call, const std::string& function, const std::string& text,
                const std::vector<long long>& numbers, const Bytes& data = {}) {
  EXPECT_EQ(call.function, function);
  EXPECT_EQ(call.text, text);
  EXPECT_EQ(call.numbers, numbers);
  EXPECT_EQ(call.data, data);
}

int forward(const char* set, std::uint32_t type, std::uint32_t severity, const char* text,
            const char* file = "radio.c", std::int32_t line = 42) {
  return updateSyslogPrint(set, type, severity, 0x1, file, line,
                           static_cast<std::uint16_t>(std::char_traits<char>::length(text) + 1), text);
}

class FeatureTagsTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    sys::captureSyslog(true);
  }

  std::string logText() const {
    const std::string file = path("/opt/qmb/etc/hbk_log.txt");
    return fileExists(file) ? readFileText(file) : std::string();
  }

  // Registers the domain with a first entry and forgets its calls and lines.
  void registerFirst() {
    forward("Radio", TS_STRING, TRACE_SEVERITY_INF, "first");
    ASSERT_TRUE(hbkDomainRegistered());
    clearPlatformCalls();
    flushHBKLogFile(0);
  }
};

TEST_F(FeatureTagsTest, TableRowsCarryTheirTagsAndNames) {
  ASSERT_EQ(HBK_SYSLOG_MAP_ROWS, 32);
  for (std::uint32_t row = 0; row < 32; ++row) {
    SCOPED_TRACE(row);
    EXPECT_EQ(hbk_syslog_map[row].tag, 0x1A0000u + row);
    ASSERT_NE(hbk_syslog_map[row].name, nullptr);
    EXPECT_EQ(std::string(hbk_syslog_map[row].name), kRowNames[row]);
  }
  EXPECT_EQ(hbk_syslog_map[30].tag, 0x1A001Eu);
  EXPECT_EQ(hbk_syslog_map[31].tag, 0x1A001Fu);
}

TEST_F(FeatureTagsTest, RowNamesAreDistinctWithoutCaseAndFitATraceSetName) {
  for (std::size_t i = 0; i < kRowNames.size(); ++i) {
    EXPECT_GE(kRowNames[i].size(), 1u);
    EXPECT_LE(kRowNames[i].size(), 19u) << kRowNames[i];
    for (std::size_t j = i + 1; j < kRowNames.size(); ++j) {
      EXPECT_NE(strcasecmp(kRowNames[i].c_str(), kRowNames[j].c_str()), 0) << kRowNames[i];
    }
  }
}

TEST_F(FeatureTagsTest, EveryRowNameGivesItsTagInAnyCase) {
  for (std::uint32_t row = 0; row < 32; ++row) {
    SCOPED_TRACE(kRowNames[row]);
    EXPECT_EQ(getHBKFeatureTag(kRowNames[row].c_str()), 0x1A0000u + row);
    EXPECT_EQ(getHBKFeatureTag(withCase(kRowNames[row], ::toupper).c_str()), 0x1A0000u + row);
    EXPECT_EQ(getHBKFeatureTag(withCase(kRowNames[row], ::tolower).c_str()), 0x1A0000u + row);
  }
  EXPECT_EQ(logText(), "");
}

TEST_F(FeatureTagsTest, SystemInAnyCaseGivesTheDefaultTag) {
  for (const char* name : {"System", "SYSTEM", "system", "sYsTeM"}) {
    EXPECT_EQ(getHBKFeatureTag(name), 0x1A001Eu) << name;
  }
  EXPECT_EQ(getDefaultHBKtag(), 0x1A001Eu);
  EXPECT_EQ(logText(), "");
}

TEST_F(FeatureTagsTest, UnknownInAnyCaseGivesTheFallbackTagWithoutADiagnostic) {
  for (const char* name : {"Unknown", "UNKNOWN", "unknown", "uNkNoWn"}) {
    EXPECT_EQ(getHBKFeatureTag(name), 0x1A001Fu) << name;
  }
  EXPECT_EQ(logText(), "");
}

TEST_F(FeatureTagsTest, NameNoRowHoldsGivesTheFallbackTagAndOneDiagnosticLine) {
  errno = 4321;
  EXPECT_EQ(getHBKFeatureTag("NoSuchSet"), 0x1A001Fu);
  EXPECT_EQ(errno, 4321);
  EXPECT_EQ(logText(), notFound());
  // Near misses are names no row holds, each with its line.
  for (const char* name : {"Radi", "Radio ", "Radios", ""}) {
    EXPECT_EQ(getHBKFeatureTag(name), 0x1A001Fu) << name;
  }
  EXPECT_EQ(logText(), notFound() + notFound() + notFound() + notFound() + notFound());
}

TEST_F(FeatureTagsTest, NullNameGivesTheFallbackTagAndTheDiagnostic) {
  EXPECT_EQ(getHBKFeatureTag(nullptr), 0x1A001Fu);
  EXPECT_EQ(logText(), notFound());
}

TEST_F(FeatureTagsTest, FirstEntryRegistersTheDomainAndSetsEveryTagDefault) {
  EXPECT_FALSE(hbkDomainRegistered());
  EXPECT_EQ(forward("Radio", TS_STRING, TRACE_SEVERITY_INF, "hello"), 0);

  const std::vector<PlatformCall> calls = bridgeCalls();
  ASSERT_EQ(calls.size(), 1u + 1u + 32u + 1u);
  expectCall(calls[0], "ZqConfigRadRegisterDomain", "QMB", {26});
  expectCall(calls[1], "ZqConfigRadSetMaxTagCount", "", {26, 0x1A0025});
  for (std::size_t row = 0; row < 32; ++row) {
    SCOPED_TRACE(row);
    expectCall(calls[2 + row], "ZqConfigRadSetDefault", kRowNames[row],
               {static_cast<long long>(0x1A0000 + row), 1});
  }
  expectCall(calls[34], "ZqSysLogPrintE", "radio.c:42 [hello]", {2, kRadioTag});
  EXPECT_EQ(logText(), registered("Radio"));
  EXPECT_TRUE(hbkDomainRegistered());

  // Registered once: later entries only print.
  clearPlatformCalls();
  forward("Alarm", TS_STRING, TRACE_SEVERITY_WAR, "second", "alarm.c", 7);
  const std::vector<PlatformCall> later = bridgeCalls();
  ASSERT_EQ(later.size(), 1u);
  expectCall(later[0], "ZqSysLogPrintE", "alarm.c:7 [second]", {3, 0x1A0002});
  EXPECT_EQ(logText(), registered("Radio"));
}

TEST_F(FeatureTagsTest, TagDefaultsIgnoreTheirArguments) {
  int context = 0;
  setHBKTagDefaults(99, &context);
  const std::vector<PlatformCall> calls = bridgeCalls();
  ASSERT_EQ(calls.size(), 33u);
  expectCall(calls[0], "ZqConfigRadSetMaxTagCount", "", {26, 0x1A0025});
  expectCall(calls[32], "ZqConfigRadSetDefault", "Unknown", {0x1A001F, 1});
}

TEST_F(FeatureTagsTest, FailedRegistrationIsReportedAndRetriedWithTheNextEntry) {
  setRegisterDomainResult(-3);
  forward("Radio", TS_STRING, TRACE_SEVERITY_INF, "one");
  std::vector<PlatformCall> calls = bridgeCalls();
  ASSERT_EQ(calls.size(), 2u);
  expectCall(calls[0], "ZqConfigRadRegisterDomain", "QMB", {26});
  expectCall(calls[1], "ZqSysLogPrintE", "radio.c:42 [one]", {2, kRadioTag});
  EXPECT_EQ(logText(), registrationFailed(-3, "Radio"));
  EXPECT_FALSE(hbkDomainRegistered());

  clearPlatformCalls();
  setRegisterDomainResult(17);
  forward("Alarm", TS_STRING, TRACE_SEVERITY_INF, "two");
  calls = bridgeCalls();
  ASSERT_EQ(calls.size(), 2u);
  expectCall(calls[0], "ZqConfigRadRegisterDomain", "QMB", {26});
  expectCall(calls[1], "ZqSysLogPrintE", "radio.c:42 [two]", {2, 0x1A0002});
  EXPECT_EQ(logText(), registrationFailed(-3, "Radio") + registrationFailed(17, "Alarm"));

  clearPlatformCalls();
  setRegisterDomainResult(0);
  forward("Radio", TS_STRING, TRACE_SEVERITY_INF, "three");
  calls = bridgeCalls();
  ASSERT_EQ(calls.size(), 35u);
  expectCall(calls[1], "ZqConfigRadSetMaxTagCount", "", {26, 0x1A0025});
  EXPECT_EQ(logText(), registrationFailed(-3, "Radio") + registrationFailed(17, "Alarm") + registered("Radio"));

  clearPlatformCalls();
  forward("Radio", TS_STRING, TRACE_SEVERITY_INF, "four");
  EXPECT_EQ(bridgeCalls().size(), 1u);
}

TEST_F(FeatureTagsTest, ErrorEntryOfADumpSetIsATextLineUnderSystem) {
  registerFirst();
  EXPECT_EQ(forward("Radio", TS_DUMP, TRACE_SEVERITY_ERR, "overheat", "dump.c", 7), 0);
  const std::vector<PlatformCall> calls = bridgeCalls();
  ASSERT_EQ(calls.size(), 1u);
  expectCall(calls[0], "ZqSysLogPrintE", "dump.c:7 [overheat]", {4, 0x1A001E});
  EXPECT_TRUE(platformCalls("ZqSysLogPrintHD").empty());
}

TEST_F(FeatureTagsTest, ErrorEntryOfATextSetGoesUnderSystem) {
  registerFirst();
  forward("Alarm", TS_STRING, TRACE_SEVERITY_ERR, "lost", "alarm.c", -5);
  const std::vector<PlatformCall> calls = bridgeCalls();
  ASSERT_EQ(calls.size(), 1u);
  expectCall(calls[0], "ZqSysLogPrintE", "alarm.c:-5 [lost]", {4, 0x1A001E});
  EXPECT_EQ(logText(), "");
}

TEST_F(FeatureTagsTest, ErrorEntryOfAnUnknownSetStillGivesItsDiagnostic) {
  registerFirst();
  forward("NoSuchSet", TS_STRING, TRACE_SEVERITY_ERR, "x");
  const std::vector<PlatformCall> calls = bridgeCalls();
  ASSERT_EQ(calls.size(), 1u);
  expectCall(calls[0], "ZqSysLogPrintE", "radio.c:42 [x]", {4, 0x1A001E});
  EXPECT_EQ(logText(), notFound());
}

TEST_F(FeatureTagsTest, DumpEntryIsAHexDumpTitledWithItsSetName) {
  registerFirst();
  const Bytes bytes = {0x00, 0x01, 0x7F, 0x80, 0xFE, 0xFF};
  EXPECT_EQ(updateSyslogPrint("Radio", TS_DUMP, TRACE_SEVERITY_INF, 0, "radio.c", 3,
                              static_cast<std::uint16_t>(bytes.size()), bytes.data()),
            0);
  const std::vector<PlatformCall> calls = bridgeCalls();
  ASSERT_EQ(calls.size(), 1u);
  expectCall(calls[0], "ZqSysLogPrintHD", "QMB Radio DUMP", {2, 6}, bytes);
}

TEST_F(FeatureTagsTest, DumpEntriesTakeTheLevelOfTheirSeverity) {
  registerFirst();
  const Bytes bytes(1600, 0xA5);
  const std::vector<std::pair<std::uint32_t, long long>> levels = {
      {TRACE_SEVERITY_NOT, 2}, {TRACE_SEVERITY_DBG, 1}, {TRACE_SEVERITY_INF, 2}, {TRACE_SEVERITY_WAR, 3},
      {0x01, 0},  {0x00, 0}, {0xC0, 0}};
  for (const auto& [severity, level] : levels) {
    SCOPED_TRACE(severity);
    clearPlatformCalls();
    updateSyslogPrint("NVJ_System", 7, severity, 0, "x.c", 1, 1600, bytes.data());
    const std::vector<PlatformCall> calls = platformCalls("ZqSysLogPrintHD");
    ASSERT_EQ(calls.size(), 1u);
    expectCall(calls[0], "ZqSysLogPrintHD", "QMB NVJ_System DUMP", {level, 1600}, bytes);
  }
}

TEST_F(FeatureTagsTest, TextEntriesTakeTheLevelOfTheirSeverity) {
  registerFirst();
  const std::vector<std::pair<std::uint32_t, long long>> levels = {
      {TRACE_SEVERITY_NOT, 2}, {TRACE_SEVERITY_INF, 2}, {TRACE_SEVERITY_DBG, 1}, {TRACE_SEVERITY_WAR, 3},
      {0x00, 0}, {0x01, 0}, {0x04, 0}, {0x18, 0}, {0xC8, 0}, {0x100, 0}, {0xFFFFFFFF, 0}};
  for (const auto& [severity, level] : levels) {
    SCOPED_TRACE(severity);
    clearPlatformCalls();
    forward("Radio", TS_STRING, severity, "level");
    const std::vector<PlatformCall> calls = bridgeCalls();
    ASSERT_EQ(calls.size(), 1u);
    expectCall(calls[0], "ZqSysLogPrintE", "radio.c:42 [level]", {level, kRadioTag});
  }
}

TEST_F(FeatureTagsTest, SeverityToLogLevelTable) {
  EXPECT_EQ(severityToLogLevel(8), 2u);
  EXPECT_EQ(severityToLogLevel(16), 1u);
  EXPECT_EQ(severityToLogLevel(32), 2u);
  EXPECT_EQ(severityToLogLevel(64), 3u);
  EXPECT_EQ(severityToLogLevel(128), 4u);
  for (std::uint32_t severity = 0; severity < 0x200; ++severity) {
    if (severity == 8 || severity == 16 || severity == 32 || severity == 64 || severity == 128) continue;
    EXPECT_EQ(severityToLogLevel(severity), 0u) << severity;
  }
}

TEST_F(FeatureTagsTest, EntryOfAnUnknownSetGoesUnderUnknownWithADiagnosticEachTime) {
  forward("NoSuchSet", TS_STRING, TRACE_SEVERITY_INF, "one");
  forward("nosuchset", TS_STRING, TRACE_SEVERITY_DBG, "two");
  const std::vector<PlatformCall> calls = platformCalls("ZqSysLogPrintE");
  ASSERT_EQ(calls.size(), 2u);
  expectCall(calls[0], "ZqSysLogPrintE", "radio.c:42 [one]", {2, 0x1A001F});
  expectCall(calls[1], "ZqSysLogPrintE", "radio.c:42 [two]", {1, 0x1A001F});
  // The lookup comes before the registration.
  EXPECT_EQ(logText(), notFound() + registered("NoSuchSet") + notFound());
}

TEST_F(FeatureTagsTest, CategoryIsNotUsed) {
  registerFirst();
  for (std::uint32_t category : {0u, 1u, 0x80000001u, 0xFFFFFFFFu}) {
    clearPlatformCalls();
    updateSyslogPrint("Radio", TS_STRING, TRACE_SEVERITY_INF, category, "radio.c", 42, 3, "ab");
    const std::vector<PlatformCall> calls = bridgeCalls();
    ASSERT_EQ(calls.size(), 1u);
    expectCall(calls[0], "ZqSysLogPrintE", "radio.c:42 [ab]", {2, kRadioTag});
  }
}

TEST_F(FeatureTagsTest, DumpBytesWithoutAZeroByteEndAtTheirLength) {
  registerFirst();
  const char bytes[] = {'A', 'B', 'C', 'D', 'E', 'F'};
  updateSyslogPrint("Radio", TS_DUMP, TRACE_SEVERITY_ERR, 0, "dump.c", 1, 4, bytes);
  const std::vector<PlatformCall> calls = bridgeCalls();
  ASSERT_EQ(calls.size(), 1u);
  expectCall(calls[0], "ZqSysLogPrintE", "dump.c:1 [ABCD]", {4, 0x1A001E});
}

// Error-class entries reach the bridge with the caller's length, which
// tracePrintf leaves at 0: the text of a text set is printed whole.
TEST_F(FeatureTagsTest, TextOfATextSetIsPrintedWholeWhateverItsLength) {
  registerFirst();
  updateSyslogPrint("Radio", TS_STRING, TRACE_SEVERITY_ERR, 0, "radio.c", 1, 0, "ABCDEF");
  updateSyslogPrint("Radio", TS_STRING, TRACE_SEVERITY_INF, 0, "radio.c", 2, 3, "ABCDEF");
  const std::vector<PlatformCall> calls = bridgeCalls();
  ASSERT_EQ(calls.size(), 2u);
  expectCall(calls[0], "ZqSysLogPrintE", "radio.c:1 [ABCDEF]", {4, 0x1A001E});
  expectCall(calls[1], "ZqSysLogPrintE", "radio.c:2 [ABCDEF]", {2, kRadioTag});
}

TEST_F(FeatureTagsTest, TextEndsAtItsFirstZeroByte) {
  registerFirst();
  const char bytes[] = "front\0back";
  updateSyslogPrint("Radio", TS_STRING, TRACE_SEVERITY_INF, 0, "radio.c", 2, sizeof bytes, bytes);
  const std::vector<PlatformCall> calls = bridgeCalls();
  ASSERT_EQ(calls.size(), 1u);
  expectCall(calls[0], "ZqSysLogPrintE", "radio.c:2 [front]", {2, kRadioTag});
}

TEST_F(FeatureTagsTest, NullArgumentsArePrintedAsEmptyTexts) {
  registerFirst();
  updateSyslogPrint(nullptr, TS_STRING, TRACE_SEVERITY_INF, 0, nullptr, 9, 0, nullptr);
  updateSyslogPrint("Radio", TS_DUMP, TRACE_SEVERITY_INF, 0, "radio.c", 9, 12, nullptr);
  const std::vector<PlatformCall> calls = bridgeCalls();
  ASSERT_EQ(calls.size(), 2u);
  expectCall(calls[0], "ZqSysLogPrintE", ":9 []", {2, 0x1A001F});
  expectCall(calls[1], "ZqSysLogPrintHD", "QMB Radio DUMP", {2, 0});
  EXPECT_EQ(logText(), notFound());
}

TEST_F(FeatureTagsTest, ForwardingKeepsErrno) {
  setRegisterDomainResult(-1);
  errno = 777;
  forward("NoSuchSet", TS_STRING, TRACE_SEVERITY_INF, "x");
  EXPECT_EQ(errno, 777);
}

TEST_F(FeatureTagsTest, ThreadsForwardingTheirFirstEntriesTogether) {
  constexpr int kThreads = 4;
  constexpr int kEntriesEach = 50;
  std::vector<std::thread> threads;
  std::atomic<int> ready{0};
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&ready] {
      ready.fetch_add(1);
      while (ready.load() < kThreads) {
      }
      for (int i = 0; i < kEntriesEach; ++i) forward("Radio", TS_STRING, TRACE_SEVERITY_INF, "together");
    });
  }
  for (auto& thread : threads) thread.join();

  EXPECT_EQ(platformCalls("ZqSysLogPrintE").size(), static_cast<std::size_t>(kThreads * kEntriesEach));
  // Each thread may have registered before any saw the flag.
  const std::size_t registrations = platformCalls("ZqConfigRadRegisterDomain").size();
  EXPECT_GE(registrations, 1u);
  EXPECT_LE(registrations, static_cast<std::size_t>(kThreads));
  EXPECT_EQ(platformCalls("ZqConfigRadSetDefault").size(), 32 * registrations);
  std::string lines;
  for (std::size_t i = 0; i < registrations; ++i) lines += registered("Radio");
  EXPECT_EQ(logText(), lines);
  EXPECT_TRUE(hbkDomainRegistered());
}

}  // namespace
}  // namespace nt::test
