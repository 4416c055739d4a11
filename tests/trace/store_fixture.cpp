#include "tests/trace/store_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "common/shared_fields.h"
#include "tests/support/recording_platform.h"
#include "trace/store/startup.h"

namespace nt::test {

std::string Slot::text() const {
  const auto end = std::find(contents.begin(), contents.end(), 0);
  return std::string(contents.begin(), end);
}

void StoreTest::SetUp() {
  NodeTest::SetUp();
  getCurrentNumberTraceSets();  // starts the trace system: header and SRAM file
  clearPlatformCalls();
}

void StoreTest::text(std::int16_t id, std::uint32_t severity, std::string_view text, std::int32_t line,
                     std::uint32_t category) {
  const std::string copy(text);
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(id), severity, category, "src/store.c", line, "%s", copy.c_str()),
            0);
}

void StoreTest::dump(std::int16_t id, std::uint32_t severity, const Bytes& data, std::int32_t line,
                     std::uint32_t category) {
  EXPECT_EQ(addTraceEntry(static_cast<std::uint16_t>(id), TS_DUMP, severity, category, "src/store.c", line,
                          static_cast<int>(data.size()), data.data()),
            0);
}

void StoreTest::allowDebug() {
  storeShared(&header()->severityMask, loadShared(&header()->severityMask) | TRACE_SEVERITY_DBG);
}

TraceSetStruct* StoreTest::sharedDescriptor(std::int16_t id) {
  return getTraceSetStruct(static_cast<std::uint16_t>(id));
}

TraceSetStruct StoreTest::descriptor(std::int16_t id) {
  TraceSetStruct copy;
  std::memcpy(&copy, sharedDescriptor(id), sizeof copy);
  return copy;
}

TraceEntryHeader* StoreTest::sharedSlot(std::int16_t id, unsigned index) {
  const TraceSetStruct d = descriptor(id);
  return reinterpret_cast<TraceEntryHeader*>(g_process.base + d.dataOffset +
                                             static_cast<std::size_t>(getTraceEntrySize(d.traceEntryContentsLength)) * index);
}

Slot StoreTest::slot(std::int16_t id, unsigned index) {
  const TraceSetStruct d = descriptor(id);
  const auto* at = reinterpret_cast<const std::uint8_t*>(sharedSlot(id, index));
  Slot s{};
  std::memcpy(&s.header, at, sizeof s.header);
  s.contents.assign(at + 80, at + 80 + align32(d.traceEntryContentsLength));
  return s;
}

std::string StoreTest::logs(std::string_view name) const {
  std::string dir = path("/ffs/run/logs");
  if (!name.empty()) dir += "/" + std::string(name);
  return dir;
}

void StoreTest::fillSramSet(int region, std::uint16_t filled, std::uint16_t writeIndex, std::uint32_t total,
                            std::uint32_t firstSequence, std::uint8_t severity) const {
  const std::uint32_t descriptorAt = region == 0 ? TRACE_SRAM_SYSTEM_DESCRIPTOR_OFFSET : TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET;
  const std::uint32_t dataAt = region == 0 ? TRACE_SRAM_SYSTEM_DATA_OFFSET : TRACE_SRAM_REMOTE_DATA_OFFSET;
  const char* name = region == 0 ? "System" : "NVJ_System";
  const int fd = open(sram().c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  TraceSetStruct d{};
  std::strncpy(d.name, name, sizeof d.name);
  d.type = TS_STRING;
  d.categoryMask = 0xFFFFFFFFu;
  d.maxNumberEntries = TRACE_SRAM_MAX_ENTRIES;
  d.traceEntryContentsLength = TRACE_MAX_STRING_LENGTH;
  d.creatorPid = 77;
  d.dataOffset = dataAt;
  d.writeIndex = writeIndex;
  d.curentNumberEntries = filled;
  d.totalNumberEntries = total;
  ASSERT_EQ(pwrite(fd, &d, sizeof d, descriptorAt), static_cast<ssize_t>(sizeof d));
  for (unsigned s = 0; s < filled; ++s) {
    std::uint8_t slotBytes[TRACE_SRAM_SLOT_SIZE] = {};
    TraceEntryHeader e{};
    std::snprintf(e.fileName, sizeof e.fileName, "remote_%u.c", s % 7);
    e.line = static_cast<std::int32_t>(100 + s);
    e.pid = 4000 + s;
    e.severity = severity;
    e.category = 0x10u << (s % 4);
    // Numbered by age: the oldest slot of a full ring (writeIndex) first.
    const unsigned age = filled == TRACE_SRAM_MAX_ENTRIES ? (s + TRACE_SRAM_MAX_ENTRIES - writeIndex) % TRACE_SRAM_MAX_ENTRIES : s;
    e.sequenceNumber = firstSequence + age;
    e.tid = 4000 + s;
    e.monotonicTime = {htonl(1000 + s), htonl(500000 + s)};
    e.realTime = {htonl(1700000000u + s), htonl(250000 + s)};
    char text[TRACE_MAX_STRING_LENGTH] = {};
    const int length = std::snprintf(text, sizeof text, "%s %u", name, s);
    e.contentsLength = static_cast<std::uint16_t>(length);
    e.prevTraceSetId = static_cast<std::uint16_t>(region == 0 ? SYSTEM_TRACE_SET_ID : REMOTE_SYSTEM_TRACE_SET_ID);
    e.prevEntryIndex = static_cast<std::uint16_t>(s == 0 ? 0 : s - 1);
    std::memcpy(slotBytes, &e, sizeof e);
    std::memcpy(slotBytes + 80, text, sizeof text);
    ASSERT_EQ(pwrite(fd, slotBytes, sizeof slotBytes, dataAt + static_cast<off_t>(s) * TRACE_SRAM_SLOT_SIZE),
              static_cast<ssize_t>(sizeof slotBytes));
  }
  close(fd);
}

std::vector<SramEntry> StoreTest::errorEntriesSince(const TraceSetStruct& before) const {
  const TraceSetStruct after = errorSet();
  std::vector<SramEntry> entries;
  for (std::uint32_t n = before.totalNumberEntries; n < after.totalNumberEntries; ++n) {
    const unsigned slotIndex = (before.writeIndex + (n - before.totalNumberEntries)) % TRACE_SRAM_MAX_ENTRIES;
    entries.push_back(readSramEntry(sram(), 0, slotIndex));
  }
  return entries;
}

void StoreTest::expectLibraryRecord(const SramEntry& entry, std::int32_t line, const std::string& text) {
  EXPECT_EQ(entry.text(), text);
  EXPECT_STREQ(entry.header.fileName, "traceLibLocal.c");
  EXPECT_EQ(entry.header.line, line);
  EXPECT_EQ(entry.header.severity, TRACE_SEVERITY_ERR);
  EXPECT_EQ(entry.header.category, TRACE_CATEGORY_LIBRARY);
}

void StoreTest::expectOneLibraryRecordSince(const TraceSetStruct& before, std::int32_t line,
                                            const std::string& text) const {
  const std::vector<SramEntry> records = errorEntriesSince(before);
  ASSERT_EQ(records.size(), 1u);
  expectLibraryRecord(records[0], line, text);
}

Found StoreTest::findMatching(const std::vector<std::int16_t>& ids, std::uint32_t limit, std::uint32_t countEntries,
                              std::uint8_t severities, const std::uint32_t* categoryMasks, Found preset) {
  preset.starts.resize(ids.size(), 0xEEEE);
  preset.counts.resize(ids.size(), 0xEEEE);
  findMatchingTraceEntries(static_cast<std::uint8_t>(ids.size()), ids.data(), preset.starts.data(),
                           preset.counts.data(), &preset.total, severities, categoryMasks, limit, countEntries);
  return preset;
}

}  // namespace nt::test
