// Creating trace sets and attaching to them: the name rules and their
// records in the error trace set, the limits of the table and of the entry
// area, and the category mask from the trace mask file.
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "tests/support/node_test.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

class CreationTest : public NodeTest {
 protected:
  void SetUp() override {
    NodeTest::SetUp();
    getCurrentNumberTraceSets();
  }

  Bytes descriptorBytes(int id) const {
    const Bytes object = readSharedObject(shmName());
    const auto begin = object.begin() + 248 + id * 48;
    return Bytes(begin, begin + 48);
  }

  std::uint32_t nextFreeOffset() const { return u32At(readSharedObject(shmName()), 16); }

  // The one record a refused name leaves in the error trace set.
  void expectRefusalRecord(const std::string& text, int line) const {
    const TraceSetStruct system = readSramDescriptor(sram(), 0);
    ASSERT_EQ(system.curentNumberEntries, 1);
    const SramEntry entry = readSramEntry(sram(), 0, 0);
    EXPECT_EQ(entry.text(), text);
    Bytes contents(128, 0);
    std::memcpy(contents.data(), text.data(), text.size());
    EXPECT_EQ(entry.contents, contents);
    EXPECT_STREQ(entry.header.fileName, "traceLibLocal.c");
    EXPECT_EQ(entry.header.line, line);
    EXPECT_EQ(entry.header.severity, 0x80);
    EXPECT_EQ(entry.header.category, 0x80000001u);
    EXPECT_EQ(entry.header.contentsLength, text.size());
    EXPECT_EQ(entry.header.pid, static_cast<std::uint32_t>(getpid()));
  }
};

Bytes expectedDescriptor(const char* name, std::uint32_t type, std::uint32_t mask, std::uint16_t maxEntries,
                         std::uint16_t length, std::uint32_t dataOffset) {
  TraceSetStruct d{};
  std::strncpy(d.name, name, 19);
  d.type = type;
  d.categoryMask = mask;
  d.maxNumberEntries = maxEntries;
  d.traceEntryContentsLength = length;
  d.creatorPid = static_cast<std::uint32_t>(getpid());
  d.dataOffset = dataOffset;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&d);
  return Bytes(bytes, bytes + sizeof d);
}

TEST_F(CreationTest, CreatesTheFirstSetAtTheStartOfTheEntryArea) {
  std::int16_t id = 77;
  EXPECT_EQ(initTraceSet("Radio", TS_STRING, 10, 128, 0x0F, &id), 0);
  EXPECT_EQ(id, 0);
  EXPECT_EQ(descriptorBytes(0), expectedDescriptor("Radio", TS_STRING, 0x0F, 10, 128, 9848));
  EXPECT_EQ(nextFreeOffset(), 9848u + 10u * 208u);
  EXPECT_EQ(getCurrentNumberTraceSets(), 1);

  EXPECT_EQ(initTraceSet("Dumps", TS_DUMP, 3, 1600, 0xFF, &id), 0);
  EXPECT_EQ(id, 1);
  EXPECT_EQ(descriptorBytes(1), expectedDescriptor("Dumps", TS_DUMP, 0xFF, 3, 1600, 9848 + 2080));
  EXPECT_EQ(nextFreeOffset(), 9848u + 2080u + 3u * 1680u);
  EXPECT_EQ(readSramDescriptor(sram(), 0).curentNumberEntries, 0);  // nothing recorded
}

TEST_F(CreationTest, SetsTheProcessSyslogIdentity) {
  sys::captureSyslog(true);
  std::int16_t id = -1;
  EXPECT_EQ(initTraceSet("Radio", TS_STRING, 10, 128, 0x0F, &id), 0);
  EXPECT_EQ(initTraceSet("7bad", TS_STRING, 10, 128, 0x0F, &id), TRACE_RC_BAD_ARGUMENT);
  // Every call, refused or not, before anything else.
  const std::vector<sys::OpenlogRecord> expected(2, sys::OpenlogRecord{"QMB_SW", LOG_PID, LOG_USER});
  EXPECT_EQ(sys::capturedOpenlog(), expected);
}

TEST_F(CreationTest, NameStartingWithADigitIsRefusedAndRecorded) {
  std::int16_t id = 77;
  EXPECT_EQ(initTraceSet("9lives", TS_STRING, 10, 128, 1, &id), -3);
  EXPECT_EQ(id, 77);  // not written
  EXPECT_EQ(getCurrentNumberTraceSets(), 0);
  expectRefusalRecord("initTraceSet: Trace set name must not start with a digit", 973);
}

TEST_F(CreationTest, NamesOfThePersistentSetsAreRefusedAndRecorded) {
  for (const char* name : {"System", "NVJ_System"}) {
    SCOPED_TRACE(name);
    TearDown();
    SetUp();
    std::int16_t id = 77;
    EXPECT_EQ(initTraceSet(name, TS_STRING, 10, 128, 1, &id), -3);
    EXPECT_EQ(id, 77);
    EXPECT_EQ(getCurrentNumberTraceSets(), 0);
    expectRefusalRecord("initTraceSet: Attempting to create trace set with system trace set name", 961);
  }
}

TEST_F(CreationTest, NullArgumentsAreRefused) {
  std::int16_t id = 77;
  EXPECT_EQ(initTraceSet(nullptr, TS_STRING, 10, 128, 1, &id), -3);
  EXPECT_EQ(initTraceSet("Radio", TS_STRING, 10, 128, 1, nullptr), -3);
  EXPECT_EQ(id, 77);
  EXPECT_EQ(getCurrentNumberTraceSets(), 0);
}

TEST_F(CreationTest, LongNameIsStoredWithNineteenCharactersAndNotFoundAgain) {
  const char* name = "ABCDEFGHIJKLMNOPQRSTUVWXY";  // 25 characters
  std::int16_t id = -5;
  EXPECT_EQ(initTraceSet(name, TS_STRING, 4, 128, 1, &id), 0);
  EXPECT_EQ(id, 0);
  const Bytes stored = descriptorBytes(0);
  EXPECT_EQ(std::string(stored.begin(), stored.begin() + 20), std::string("ABCDEFGHIJKLMNOPQRS") + '\0');
  EXPECT_EQ(getTraceSetId(name), -1);
  EXPECT_EQ(initTraceSet(name, TS_STRING, 4, 128, 1, &id), 0);
  EXPECT_EQ(id, 1);  // a second set of the same stored name
  EXPECT_EQ(getCurrentNumberTraceSets(), 2);
}

TEST_F(CreationTest, AttachingReturnsTheSameSetAndWidensItsMask) {
  std::int16_t id = -5;
  ASSERT_EQ(initTraceSet("Radio", TS_STRING, 10, 100, 0x01, &id), 0);
  const std::uint32_t nextFree = nextFreeOffset();
  std::int16_t again = -5;
  EXPECT_EQ(initTraceSet("Radio", TS_STRING, 10, 100, 0x10, &again), 0);
  EXPECT_EQ(again, 0);
  EXPECT_EQ(initTraceSet("Radio", TS_STRING, 5, 50, 0x100, &again), 0);
  EXPECT_EQ(u32At(descriptorBytes(0), 24), 0x111u);
  EXPECT_EQ(nextFreeOffset(), nextFree);  // nothing allocated
  EXPECT_EQ(getCurrentNumberTraceSets(), 1);
}

TEST_F(CreationTest, AttachingToASmallerSetFailsAfterWideningTheMask) {
  std::int16_t id = -5;
  ASSERT_EQ(initTraceSet("Radio", TS_STRING, 10, 100, 0x01, &id), 0);
  EXPECT_EQ(initTraceSet("Radio", TS_STRING, 11, 100, 0x02, &id), -9);
  EXPECT_EQ(id, 0);
  EXPECT_EQ(u32At(descriptorBytes(0), 24), 0x03u);
  EXPECT_EQ(initTraceSet("Radio", TS_STRING, 10, 101, 0x04, &id), -9);
  EXPECT_EQ(u32At(descriptorBytes(0), 24), 0x07u);
  EXPECT_EQ(u16At(descriptorBytes(0), 28), 10);  // capacity unchanged
}

TEST_F(CreationTest, AttachingWithAnotherTypeFails) {
  std::int16_t id = -5;
  ASSERT_EQ(initTraceSet("Radio", TS_STRING, 10, 100, 0x01, &id), 0);
  EXPECT_EQ(initTraceSet("Radio", TS_DUMP, 10, 100, 0x02, &id), -7);
  EXPECT_EQ(id, 0);
  EXPECT_EQ(u32At(descriptorBytes(0), 24), 0x01u);  // checked before the mask
}

TEST_F(CreationTest, MaskFileOverridesTheCreatorsMask) {
  writeFileText(path("/ffs/run/logs/trace_masks.conf"), "Radio 0x0000F000\n");
  std::int16_t id = -5;
  ASSERT_EQ(initTraceSet("Radio", TS_STRING, 10, 128, 0x01, &id), 0);
  EXPECT_EQ(u32At(descriptorBytes(0), 24), 0xF000u);
  // An opener does not widen a mask that the file chose.
  EXPECT_EQ(initTraceSet("Radio", TS_STRING, 10, 128, 0x02, &id), 0);
  EXPECT_EQ(u32At(descriptorBytes(0), 24), 0xF000u);
  // Nor one set since then.
  ASSERT_EQ(setCategoryMask(0, 0x30), 0);
  EXPECT_EQ(initTraceSet("Radio", TS_STRING, 10, 128, 0x02, &id), 0);
  EXPECT_EQ(u32At(descriptorBytes(0), 24), 0x30u);
}

TEST_F(CreationTest, MaskFileWithoutALineForTheNameKeepsTheCreatorsMask) {
  writeFileText(path("/ffs/run/logs/trace_masks.conf"), "Other 0x0000F000\n");
  std::int16_t id = -5;
  ASSERT_EQ(initTraceSet("Radio", TS_STRING, 10, 128, 0x01, &id), 0);
  EXPECT_EQ(u32At(descriptorBytes(0), 24), 0x01u);
}

TEST_F(CreationTest, TextSetKeepsAtMost128BytesButOwnsWhatWasAskedFor) {
  std::int16_t id = -5;
  ASSERT_EQ(initTraceSet("Wide", TS_STRING, 5, 500, 1, &id), 0);
  EXPECT_EQ(u16At(descriptorBytes(0), 30), 128);
  EXPECT_EQ(nextFreeOffset(), 9848u + 580u * 5u);
  ASSERT_EQ(initTraceSet("WideDump", TS_DUMP, 2, 2000, 1, &id), 0);
  EXPECT_EQ(u16At(descriptorBytes(1), 30), 1600);
  EXPECT_EQ(nextFreeOffset(), 9848u + 2900u + 2080u * 2u);
  EXPECT_EQ(u32At(descriptorBytes(1), 36), 9848u + 2900u);
}

TEST_F(CreationTest, SetWithoutEntriesOwnsNoRegion) {
  std::int16_t id = -5;
  ASSERT_EQ(initTraceSet("Empty", TS_STRING, 0, 128, 1, &id), 0);
  ASSERT_EQ(initTraceSet("Next", TS_STRING, 2, 128, 1, &id), 0);
  EXPECT_EQ(u32At(descriptorBytes(0), 36), 9848u);
  EXPECT_EQ(u32At(descriptorBytes(1), 36), 9848u);
}

TEST_F(CreationTest, TheTableHoldsTwoHundredSets) {
  std::int16_t id = -5;
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(initTraceSet(("Set" + std::to_string(i)).c_str(), TS_STRING, 1, 4, 1, &id), 0);
    ASSERT_EQ(id, i);
  }
  const std::uint32_t nextFree = nextFreeOffset();
  EXPECT_EQ(initTraceSet("OneTooMany", TS_STRING, 1, 4, 1, &id), -2);
  EXPECT_EQ(id, -1);
  EXPECT_EQ(getCurrentNumberTraceSets(), 200);
  EXPECT_EQ(nextFreeOffset(), nextFree);
  // Existing sets can still be attached to.
  EXPECT_EQ(initTraceSet("Set123", TS_STRING, 1, 4, 1, &id), 0);
  EXPECT_EQ(id, 123);
}

TEST_F(CreationTest, RegionsMayReachIntoThePagePaddingButNotBeyondTheMapping) {
  ASSERT_EQ(g_process.size, 10498048u) << "the sizes below assume 4096-byte pages";
  std::int16_t id = -5;
  // Two sets of 65535 slots of 80 bytes, then exactly the 2600 bytes left.
  ASSERT_EQ(initTraceSet("A", TS_DUMP, 65535, 0, 1, &id), 0);
  ASSERT_EQ(initTraceSet("B", TS_DUMP, 65535, 0, 1, &id), 0);
  EXPECT_EQ(nextFreeOffset(), 10498048u - 2600u);
  EXPECT_EQ(initTraceSet("C", TS_DUMP, 1, 2524, 1, &id), -4);  // 2604 bytes
  EXPECT_EQ(id, -1);
  EXPECT_EQ(initTraceSet("C", TS_DUMP, 1, 2520, 1, &id), 0);   // 2600 bytes
  EXPECT_EQ(id, 2);
  EXPECT_EQ(u32At(descriptorBytes(2), 36), 10498048u - 2600u);
  EXPECT_GT(nextFreeOffset(), TRACE_MEMORY_NOMINAL_SIZE);  // past the nominal end
  EXPECT_EQ(nextFreeOffset(), 10498048u);
  EXPECT_EQ(initTraceSet("D", TS_DUMP, 1, 0, 1, &id), -4);
  EXPECT_EQ(initTraceSet("Free", TS_DUMP, 0, 0, 1, &id), 0);  // no bytes needed
}

TEST_F(CreationTest, HugeRequestDoesNotWrapIntoASmallRegion) {
  std::int16_t id = -5;
  // 65535 slots of 65616 bytes: 4300144560 bytes, more than 32 bits hold.
  EXPECT_EQ(initTraceSet("Huge", TS_DUMP, 65535, 65535, 1, &id), -4);
  EXPECT_EQ(getCurrentNumberTraceSets(), 0);
  EXPECT_EQ(nextFreeOffset(), 9848u);
}

TEST_F(CreationTest, AnotherProcessAttachesToTheSameSet) {
  std::int16_t id = -5;
  ASSERT_EQ(initTraceSet("Radio", TS_STRING, 10, 128, 0x01, &id), 0);
  const int status = runInChild([] {
    resetProcessStateForTests();  // a process of its own, starting afresh
    std::int16_t childId = -5;
    const int rc = initTraceSet("Radio", TS_STRING, 10, 128, 0x02, &childId);
    return rc == 0 && childId == 0 ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(descriptorBytes(0), expectedDescriptor("Radio", TS_STRING, 0x03, 10, 128, 9848));
  EXPECT_EQ(getCurrentNumberTraceSets(), 1);
}

TEST_F(CreationTest, AProcessWithoutTraceMemoryCreatesNothing) {
  TearDown();
  SetUp();  // SetUp starts the system; start again without a mapping
  resetProcessStateForTests();
  sys::failCall(sys::Call::kMmap, 1, ENOMEM);
  StderrCapture capture;
  std::int16_t id = -5;
  EXPECT_EQ(initTraceSet("Radio", TS_STRING, 10, 128, 1, &id), -10);
  EXPECT_EQ(id, -1);
  capture.take();
}

}  // namespace
}  // namespace nt::test
