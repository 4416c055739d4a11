// The host platform's log service: by default only warnings and errors
// reach syslog and everything below returns before any formatting; with
// full forwarding every line does, and a hex dump is one record. The records
// are caught at the service's syslog sink, which this test program supplies
// in place of syslog.
#include <syslog.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "nodeplatform/host.h"
#include "nodeplatform/nodeplatform.h"
#include "nodetrace/logbridge.h"
#include "nodetrace/trace_layout.h"
#include "syslog_sink.h"

namespace {

struct Record {
  int priority;
  std::string text;
  bool operator==(const Record&) const = default;
};

std::vector<Record> g_records;

}  // namespace

namespace nodeplatform_host {

void writeSyslogRecord(int priority, const char* text) { g_records.push_back({priority, text}); }

}  // namespace nodeplatform_host

namespace {

void PrintTo(const Record& record, std::ostream* out) { *out << record.priority << " \"" << record.text << "\""; }

class HostPlatformTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("NODEPLATFORM_SYSLOG");
    nodeplatformSetSyslogForwarding(NODEPLATFORM_SYSLOG_FROM_ENVIRONMENT);
    // The log bridge's own diagnostic lines go nowhere: no node files here.
    setHBKLogMode(3);
    g_records.clear();
  }
  void TearDown() override {
    unsetenv("NODEPLATFORM_SYSLOG");
    nodeplatformSetSyslogForwarding(NODEPLATFORM_SYSLOG_FROM_ENVIRONMENT);
  }
};

std::vector<std::uint8_t> countingBytes(std::size_t length) {
  std::vector<std::uint8_t> bytes(length);
  for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(i * 7 + 1);
  return bytes;
}

// The one record of a hex dump, as the service builds it.
std::string dumpRecord(const std::string& title, const std::vector<std::uint8_t>& bytes) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string text = title + " (" + std::to_string(bytes.size()) + " bytes)";
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i % 16 == 0) {
      char offset[16];
      std::snprintf(offset, sizeof offset, " 0x%04X:", static_cast<unsigned>(i));
      text += offset;
    }
    text += ' ';
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 0xF];
  }
  return text;
}

TEST_F(HostPlatformTest, DefaultForwardsWarningsAndErrorsOnly) {
  EXPECT_EQ(nodeplatformSyslogForwarding(), NODEPLATFORM_SYSLOG_WARNINGS);
  for (std::uint32_t level = 0; level <= 4; ++level) {
    EXPECT_EQ(ZqSysLogPrintE(level, 0x1A0016, "%s:%d [%s]", "radio.c", 42, "level"), 0);
  }
  EXPECT_EQ(g_records, (std::vector<Record>{{LOG_WARNING, "[tag 0x1A0016] radio.c:42 [level]"},
                                            {LOG_ERR, "[tag 0x1A0016] radio.c:42 [level]"}}));
}

TEST_F(HostPlatformTest, DefaultDropsHexDumpsBelowWarningAndPrintsTheRestAsOneRecord) {
  const std::vector<std::uint8_t> bytes = countingBytes(1600);
  for (std::uint32_t level = 0; level <= 2; ++level) {
    EXPECT_EQ(ZqSysLogPrintHD(level, bytes.data(), 1600, "QMB %s DUMP", "Radio"), 0);
  }
  EXPECT_EQ(g_records, std::vector<Record>{});
  EXPECT_EQ(ZqSysLogPrintHD(3, bytes.data(), 1600, "QMB %s DUMP", "Radio"), 0);
  ASSERT_EQ(g_records.size(), 1u);
  EXPECT_EQ(g_records[0], (Record{LOG_WARNING, dumpRecord("QMB Radio DUMP", bytes)}));
}

TEST_F(HostPlatformTest, FullForwardingPrintsEveryLevel) {
  nodeplatformSetSyslogForwarding(NODEPLATFORM_SYSLOG_ALL);
  EXPECT_EQ(nodeplatformSyslogForwarding(), NODEPLATFORM_SYSLOG_ALL);
  for (std::uint32_t level = 0; level <= 5; ++level) ZqSysLogPrintE(level, 0x1A001E, "line %u", level);
  EXPECT_EQ(g_records, (std::vector<Record>{{LOG_DEBUG, "[tag 0x1A001E] line 0"},
                                            {LOG_DEBUG, "[tag 0x1A001E] line 1"},
                                            {LOG_INFO, "[tag 0x1A001E] line 2"},
                                            {LOG_WARNING, "[tag 0x1A001E] line 3"},
                                            {LOG_ERR, "[tag 0x1A001E] line 4"},
                                            {LOG_DEBUG, "[tag 0x1A001E] line 5"}}));
}

TEST_F(HostPlatformTest, FullForwardingPrintsAHexDumpAsOneRecordWithRowOffsets) {
  nodeplatformSetSyslogForwarding(NODEPLATFORM_SYSLOG_ALL);
  const std::uint8_t bytes[18] = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
                                  0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0xAB, 0xFF};
  ZqSysLogPrintHD(2, bytes, sizeof bytes, "QMB %s DUMP", "Optical");
  ZqSysLogPrintHD(1, bytes, 0, "empty");
  ZqSysLogPrintHD(1, nullptr, 12, "none");
  EXPECT_EQ(g_records,
            (std::vector<Record>{
                {LOG_INFO,
                 "QMB Optical DUMP (18 bytes) 0x0000: 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 0x0010: AB FF"},
                {LOG_DEBUG, "empty (0 bytes)"},
                {LOG_DEBUG, "none (0 bytes)"}}));
}

TEST_F(HostPlatformTest, LongLineIsCutToTheRecordBuffer) {
  const std::string text(2000, 'x');
  ZqSysLogPrintE(4, 0x1A001E, "%s", text.c_str());
  ASSERT_EQ(g_records.size(), 1u);
  EXPECT_EQ(g_records[0].text, "[tag 0x1A001E] " + std::string(1023 - 15, 'x'));
}

TEST_F(HostPlatformTest, EnvironmentChoosesFullForwardingAtTheFirstPrintCall) {
  setenv("NODEPLATFORM_SYSLOG", "all", 1);
  ZqSysLogPrintE(2, 0x1A0000, "info");
  EXPECT_EQ(g_records, (std::vector<Record>{{LOG_INFO, "[tag 0x1A0000] info"}}));
  // Read once: a later change of the environment is not seen...
  unsetenv("NODEPLATFORM_SYSLOG");
  ZqSysLogPrintE(2, 0x1A0000, "still");
  EXPECT_EQ(g_records.size(), 2u);
  // ...until the process asks for it.
  nodeplatformSetSyslogForwarding(NODEPLATFORM_SYSLOG_FROM_ENVIRONMENT);
  ZqSysLogPrintE(2, 0x1A0000, "dropped");
  EXPECT_EQ(g_records.size(), 2u);
}

TEST_F(HostPlatformTest, OtherEnvironmentValuesKeepTheDefault) {
  for (const char* value : {"", "ALL", "1", "yes", "all "}) {
    SCOPED_TRACE(value);
    setenv("NODEPLATFORM_SYSLOG", value, 1);
    nodeplatformSetSyslogForwarding(NODEPLATFORM_SYSLOG_FROM_ENVIRONMENT);
    EXPECT_EQ(nodeplatformSyslogForwarding(), NODEPLATFORM_SYSLOG_WARNINGS);
  }
  nodeplatformSetSyslogForwarding(42);  // not a mode: the default
  EXPECT_EQ(nodeplatformSyslogForwarding(), NODEPLATFORM_SYSLOG_WARNINGS);
}

// The library's forwarding over the host service, in both modes.
TEST_F(HostPlatformTest, DefaultKeepsTheLibrarysInformationOutOfSyslogButNotItsWarningsAndErrors) {
  const std::vector<std::uint8_t> bytes = countingBytes(1600);
  updateSyslogPrint("Radio", TS_STRING, TRACE_SEVERITY_INF, 1, "radio.c", 1, 5, "info");
  updateSyslogPrint("Radio", TS_STRING, TRACE_SEVERITY_DBG, 1, "radio.c", 2, 6, "debug");
  updateSyslogPrint("Radio", TS_STRING, TRACE_SEVERITY_NOT, 1, "radio.c", 3, 7, "notice");
  updateSyslogPrint("Optical", TS_DUMP, TRACE_SEVERITY_INF, 1, "o.c", 4, 1600, bytes.data());
  EXPECT_EQ(g_records, std::vector<Record>{});
  updateSyslogPrint("Radio", TS_STRING, TRACE_SEVERITY_WAR, 1, "radio.c", 5, 5, "warn");
  updateSyslogPrint("Radio", TS_STRING, TRACE_SEVERITY_ERR, 1, "radio.c", 6, 4, "err");
  updateSyslogPrint("Optical", TS_DUMP, TRACE_SEVERITY_WAR, 1, "o.c", 7, 3, bytes.data());
  EXPECT_EQ(g_records, (std::vector<Record>{{LOG_WARNING, "[tag 0x1A0016] radio.c:5 [warn]"},
                                            {LOG_ERR, "[tag 0x1A001E] radio.c:6 [err]"},
                                            {LOG_WARNING, "QMB Optical DUMP (3 bytes) 0x0000: 01 08 0F"}}));
}

TEST_F(HostPlatformTest, FullForwardingSendsEveryEntryOfTheLibraryAsOneRecord) {
  nodeplatformSetSyslogForwarding(NODEPLATFORM_SYSLOG_ALL);
  const std::vector<std::uint8_t> bytes = countingBytes(1600);
  updateSyslogPrint("Radio", TS_STRING, TRACE_SEVERITY_INF, 1, "radio.c", 1, 5, "info");
  updateSyslogPrint("Radio", TS_STRING, TRACE_SEVERITY_DBG, 1, "radio.c", 2, 6, "debug");
  updateSyslogPrint("Optical", TS_DUMP, TRACE_SEVERITY_INF, 1, "o.c", 4, 1600, bytes.data());
  EXPECT_EQ(g_records, (std::vector<Record>{{LOG_INFO, "[tag 0x1A0016] radio.c:1 [info]"},
                                            {LOG_DEBUG, "[tag 0x1A0016] radio.c:2 [debug]"},
                                            {LOG_INFO, dumpRecord("QMB Optical DUMP", bytes)}}));
}

}  // namespace
