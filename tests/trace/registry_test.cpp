// The trace set registry: ids, names and descriptors of user sets in shared
// memory and of the two persistent sets of the SRAM file.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/shared_fields.h"
#include "tests/support/node_test.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

class RegistryTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    getCurrentNumberTraceSets();
  }

  // Puts a user set into the shared table the way creation leaves it.
  static void defineUserSet(unsigned id, const char* name) {
    TraceSetStruct* descriptor = userDescriptor(id);
    const std::size_t length = std::min<std::size_t>(std::strlen(name), 19);
    std::memcpy(descriptor->name, name, length);  // the twentieth byte stays zero
    descriptor->maxNumberEntries = 10;
    descriptor->traceEntryContentsLength = 128;
    if (header()->currentNumberTraceSets <= id) {
      storeShared(&header()->currentNumberTraceSets, id + 1);
    }
  }

  Bytes sramBytes(std::size_t offset) const {
    const Bytes file = readFileBytes(path("/var/log/sram"));
    return Bytes(file.begin() + static_cast<long>(offset), file.begin() + static_cast<long>(offset + 48));
  }

  static Bytes bytesOf(const TraceSetStruct* descriptor) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(descriptor);
    return Bytes(bytes, bytes + sizeof *descriptor);
  }
};

TEST_F(RegistryTest, ValidIds) {
  EXPECT_EQ(isValidTraceSetId(0), 0);  // no user set yet
  EXPECT_EQ(isValidTraceSetId(255), 1);
  EXPECT_EQ(isValidTraceSetId(254), 1);
  EXPECT_EQ(isValidTraceSetId(0xFFFF), 0);
  EXPECT_EQ(isValidTraceSetId(0x8000), 0);
  EXPECT_EQ(isValidTraceSetId(199), 0);
  defineUserSet(0, "Radio");
  defineUserSet(1, "Poll");
  EXPECT_EQ(isValidTraceSetId(0), 1);
  EXPECT_EQ(isValidTraceSetId(1), 1);
  EXPECT_EQ(isValidTraceSetId(2), 0);
  EXPECT_EQ(isValidTraceSetId(253), 0);
}

TEST_F(RegistryTest, CountsComeFromTheHeader) {
  EXPECT_EQ(getCurrentNumberTraceSets(), 0);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0u);
  storeShared(&header()->currentNumberTraceSets, 7);
  storeShared(&header()->totalNumberTraceEntries, 0xDEADBEEFu);
  EXPECT_EQ(getCurrentNumberTraceSets(), 7);
  EXPECT_EQ(getTotalNumberTraceEntries(), 0xDEADBEEFu);
  EXPECT_EQ(needsRemoteTraceSupport(), 1);
}

TEST_F(RegistryTest, IdsOfTheNames) {
  EXPECT_EQ(getTraceSetId("System"), 255);
  EXPECT_EQ(getTraceSetId("NVJ_System"), 254);
  EXPECT_EQ(getTraceSetId("system"), -1);  // names are case-sensitive
  EXPECT_EQ(getTraceSetId("SystemX"), -1);
  EXPECT_EQ(getTraceSetId("Radio"), -1);
  EXPECT_EQ(getTraceSetId(nullptr), -1);
  defineUserSet(0, "Radio");
  defineUserSet(1, "Poll");
  defineUserSet(2, "Radio");
  EXPECT_EQ(getTraceSetId("Radio"), 0);  // the lowest id wins
  EXPECT_EQ(getTraceSetId("Poll"), 1);
  EXPECT_EQ(getTraceSetId("Pol"), -1);
}

TEST_F(RegistryTest, NamesAreComparedOverTwentyCharacters) {
  const char* longName = "ABCDEFGHIJKLMNOPQRSTUVWXY";  // 25 characters, stored as 19
  defineUserSet(0, longName);
  EXPECT_STREQ(getTraceSetName(0), "ABCDEFGHIJKLMNOPQRS");
  EXPECT_EQ(getTraceSetId(longName), -1);
  EXPECT_EQ(getTraceSetId("ABCDEFGHIJKLMNOPQRS"), 0);
}

TEST_F(RegistryTest, NamesOfTheIds) {
  EXPECT_STREQ(getTraceSetName(255), "System");
  EXPECT_STREQ(getTraceSetName(254), "NVJ_System");
  EXPECT_EQ(getTraceSetName(0), nullptr);
  EXPECT_EQ(getTraceSetName(0xFFFF), nullptr);
  defineUserSet(0, "Radio");
  EXPECT_EQ(getTraceSetName(0), userDescriptor(0)->name);  // the descriptor's own field
}

TEST_F(RegistryTest, UserDescriptorsPointIntoTheSharedTable) {
  EXPECT_EQ(getTraceSetStruct(0), nullptr);
  defineUserSet(0, "Radio");
  defineUserSet(1, "Poll");
  EXPECT_EQ(reinterpret_cast<std::uint8_t*>(getTraceSetStruct(0)), g_process.base + 248);
  EXPECT_EQ(reinterpret_cast<std::uint8_t*>(getTraceSetStruct(1)), g_process.base + 248 + 48);
  EXPECT_EQ(getTraceSetStruct(2), nullptr);
  EXPECT_EQ(getTraceSetStruct(0x8001), nullptr);
}

TEST_F(RegistryTest, SystemDescriptorIsACopyOfTheSramFile) {
  TraceSetStruct* system = getTraceSetStruct(255);
  ASSERT_NE(system, nullptr);
  EXPECT_EQ(bytesOf(system), sramBytes(4));
  EXPECT_STREQ(system->name, "System");
  EXPECT_EQ(system->dataOffset, 52u);
  EXPECT_EQ(system->maxNumberEntries, 738);

  // A snapshot: changing it changes nothing in the file.
  system->writeIndex = 99;
  EXPECT_EQ(u16At(readFileBytes(path("/var/log/sram")), 4 + 40), 0);
}

TEST_F(RegistryTest, RemoteDescriptorIsACopyOfTheSecondRegion) {
  TraceSetStruct* remote = getTraceSetStruct(254);
  ASSERT_NE(remote, nullptr);
  EXPECT_EQ(bytesOf(remote), sramBytes(153600));
  EXPECT_STREQ(remote->name, "NVJ_System");
  EXPECT_EQ(remote->dataOffset, 153648u);
}

TEST_F(RegistryTest, BothSramSetsShareOneSnapshotBuffer) {
  TraceSetStruct* system = getTraceSetStruct(255);
  TraceSetStruct* remote = getTraceSetStruct(254);
  EXPECT_EQ(system, remote);
  EXPECT_STREQ(system->name, "NVJ_System");  // overwritten by the later request
}

TEST_F(RegistryTest, SnapshotFollowsTheFile) {
  Bytes file = readFileBytes(path("/var/log/sram"));
  file[4 + 42] = 5;  // curentNumberEntries of "System"
  writeFileText(path("/var/log/sram"), std::string(file.begin(), file.end()));
  EXPECT_EQ(getTraceSetStruct(255)->curentNumberEntries, 5);
}

TEST_F(RegistryTest, MissingSramFileGivesNullAndAMessage) {
  unlink(path("/var/log/sram").c_str());
  StderrCapture capture;
  EXPECT_EQ(getTraceSetStruct(255), nullptr);
  EXPECT_EQ(getTraceSetStruct(254), nullptr);
  const std::string line =
      "traceLibLocal.c (2249,getTraceSetStruct): Problems accessing error trace set: 2 "
      "(No such file or directory)\n";
  EXPECT_EQ(capture.take(), line + line);
  // Lookups that need no descriptor still work.
  EXPECT_EQ(isValidTraceSetId(255), 1);
  EXPECT_STREQ(getTraceSetName(255), "System");
}

TEST_F(RegistryTest, ShortSramFileGivesNullAndAMessage) {
  truncate(path("/var/log/sram").c_str(), 30);
  StderrCapture capture;
  errno = 0;  // a short read leaves errno as it was
  EXPECT_EQ(getTraceSetStruct(255), nullptr);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (2258,getTraceSetStruct): Problems reading error trace set: 0 "
            "(Success)\n");
}

TEST_F(RegistryTest, SramFileWithoutTheRemoteRegion) {
  truncate(path("/var/log/sram").c_str(), 153600 + 47);
  StderrCapture capture;
  errno = 0;
  EXPECT_NE(getTraceSetStruct(255), nullptr);
  EXPECT_EQ(getTraceSetStruct(254), nullptr);
  EXPECT_EQ(capture.take(),
            "traceLibLocal.c (2258,getTraceSetStruct): Problems reading error trace set: 0 "
            "(Success)\n");
}

TEST_F(RegistryTest, ADamagedSetCountStaysInsideTheTable) {
  storeShared(&header()->currentNumberTraceSets, 250);
  EXPECT_EQ(getCurrentNumberTraceSets(), 250);  // the field as it is
  EXPECT_EQ(isValidTraceSetId(199), 1);
  EXPECT_EQ(isValidTraceSetId(200), 0);
  EXPECT_EQ(isValidTraceSetId(249), 0);
  EXPECT_EQ(getTraceSetStruct(200), nullptr);
  EXPECT_EQ(getTraceSetId("nowhere"), -1);
}

}  // namespace
}  // namespace nt::test
