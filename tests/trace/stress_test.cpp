// Several processes write, read, search and dump one store at once while a
// further process keeps overwriting descriptor and header fields with random
// values (and now and then puts valid ones back): every process must end
// normally, none by a signal.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "common/node_names.h"
#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "tests/trace/store_fixture.h"
#include "trace/store/ring_slots.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kRunTime = std::chrono::seconds(4);
constexpr int kSets = 6;

enum Role { kWriter0, kWriter1, kReader, kSearcher, kDumper, kDamager, kRoles };

class StressTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    allowDebug();
    const std::uint16_t lengths[kSets] = {128, 16, 1600, 64, 128, 300};
    const std::uint16_t slots[kSets] = {64, 8, 16, 1, 0, 32};
    for (int i = 0; i < kSets; ++i) {
      const std::string name = "Stress" + std::to_string(i);
      ids_[i] = createSet(name.c_str(), i == 2 || i == 5 ? TS_DUMP : TS_STRING, slots[i], lengths[i]);
      valid_[i] = descriptor(ids_[i]);
    }
    validHeader_ = loadRecord(header());
  }

  // Children send their chatter (cut warnings, reports) nowhere.
  static void quiet() {
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    close(null);
  }

  void write(int round) const {
    const auto id = static_cast<std::uint16_t>(ids_[round % kSets]);
    const std::uint32_t severity = round % 17 == 0 ? TRACE_SEVERITY_WAR : TRACE_SEVERITY_INF;
    if (round % 3 == 0) {
      std::uint8_t bytes[1700];
      std::memset(bytes, round & 0xFF, sizeof bytes);
      addTraceEntry(id, TS_DUMP, severity, 1, "stress.c", round, round % 1700, bytes);
    } else {
      tracePrintf(id, severity, 1, "stress.c", round, "round %d of a writer\n", round);
    }
    if (round % 5 == 0) {
      const std::uint32_t stamp[2] = {1, 2};
      static const char kRecord[40] = "remote";  // 40 bytes for dump sets
      addRemoteEntry(static_cast<std::int16_t>(id), TRACE_SEVERITY_INF, 1, "remote.c", 1, sizeof kRecord, kRecord,
                     3, 4, stamp, stamp);
    }
  }

  void read(int round) const {
    static std::uint8_t contents[TRACE_MAX_DUMP_LENGTH];
    const std::int16_t id = ids_[round % kSets];
    TraceEntryHeader buffer{};
    TraceEntryHeader* entry = &buffer;
    getTraceEntry(id, static_cast<std::uint16_t>(round % 70), &entry, contents);
    if (entry != nullptr) {
      char format[] = "%S %c %l %n %dz\n";
      printTraceEntry(id, getTraceSetStruct(static_cast<std::uint16_t>(id)), entry,
                      reinterpret_cast<const char*>(contents), format);
    }
    std::int16_t set = 0;
    std::uint16_t index = 0;
    std::uint32_t total = 0;
    getRecentEntry(&set, &index, &total);
  }

  void search(int round) const {
    std::int16_t ids[kSets + 1];
    for (int i = 0; i < kSets; ++i) ids[i] = ids_[i];
    ids[kSets] = SYSTEM_TRACE_SET_ID;
    std::uint16_t starts[kSets + 1];
    std::uint16_t counts[kSets + 1];
    std::uint32_t total = 0;
    findMatchingTraceEntries(kSets + 1, ids, starts, counts, &total, 0xFF, nullptr, 200, 1);
    std::uint16_t index = static_cast<std::uint16_t>(round);
    findNextMatch(getTraceSetStruct(static_cast<std::uint16_t>(ids_[round % kSets])), 0, &index, 0xFF, 0xFFFFFFFFu);
    if (round % 50 == 0) printTraceSetsInfo(1);
  }

  void dump(int round) const {
    const std::string file = logs("stress.dump");
    if (round % 2 == 0) {
      dumpTracesToFile(file.c_str(), 1, static_cast<std::uint32_t>(round % 3));
      unlink(nodeNames().traceDumpTmp);
    } else {
      dumpTracesBeforeReset(file.c_str(), 1);
      unlink(nodeNames().tmpTraceDump);
    }
  }

  // Overwrites one random field of a random descriptor or of the header; now
  // and then puts every valid value back, so that the others also run on a
  // store that works.
  void damage(std::mt19937& random) const {
    const unsigned pick = random() % 100;
    if (pick < 5) {
      for (int i = 0; i < kSets; ++i) {
        TraceSetStruct* d = userDescriptor(static_cast<unsigned>(ids_[i]));
        storeShared(&d->maxNumberEntries, valid_[i].maxNumberEntries);
        storeShared(&d->traceEntryContentsLength, valid_[i].traceEntryContentsLength);
        storeShared(&d->dataOffset, valid_[i].dataOffset);
        storeShared(&d->writeIndex, 0);
        storeShared(&d->curentNumberEntries, 0);
        storeShared(&d->type, valid_[i].type);
      }
      storeShared(&header()->currentNumberTraceSets, validHeader_.currentNumberTraceSets);
      storeShared(&header()->nextFreeOffset, validHeader_.nextFreeOffset);
      storeShared(&header()->lastTraceSetId, std::uint16_t{0xFFFF});
      return;
    }
    TraceSetStruct* d = userDescriptor(static_cast<unsigned>(ids_[random() % kSets]));
    const std::uint32_t value = random();
    switch (pick % 9) {
      case 0: storeShared(&d->maxNumberEntries, static_cast<std::uint16_t>(value)); break;
      case 1: storeShared(&d->traceEntryContentsLength, static_cast<std::uint16_t>(value)); break;
      case 2: storeShared(&d->dataOffset, value % 2 == 0 ? value : value % (g_process.size + 4096)); break;
      case 3: storeShared(&d->writeIndex, static_cast<std::uint16_t>(value)); break;
      case 4: storeShared(&d->curentNumberEntries, static_cast<std::uint16_t>(value)); break;
      case 5: storeShared(&d->type, value % 3); break;
      case 6: storeShared(&header()->currentNumberTraceSets, static_cast<std::uint8_t>(value)); break;
      case 7: storeShared(&header()->lastTraceSetId, static_cast<std::uint16_t>(value)); break;
      default: storeShared(&header()->nextFreeOffset, value); break;
    }
  }

  int run(int role) const {
    quiet();
    std::mt19937 random(static_cast<unsigned>(role) * 7919u + 1u);
    if (role == kDumper) sys::refuseShellCommands(true);  // the copies are not needed
    const auto end = Clock::now() + kRunTime;
    int round = 0;
    for (; Clock::now() < end; ++round) {
      switch (role) {
        case kWriter0:
        case kWriter1: write(round + role * 1000); break;
        case kReader: read(round); break;
        case kSearcher: search(round); break;
        case kDumper: dump(round); break;
        default: damage(random); break;
      }
    }
    return round > 0 ? 0 : 3;  // 3: the role never got to work
  }

  std::int16_t ids_[kSets] = {};
  TraceSetStruct valid_[kSets] = {};
  TraceMemoryHeader validHeader_{};
};

TEST_F(StressTest, EveryProcessEndsNormallyWhileAnotherDamagesTheDescriptors) {
  useRealLockDeadline();
  const std::vector<int> statuses = runChildrenAtOnce(kRoles, [this](int role) { return run(role); });
  ASSERT_EQ(statuses.size(), static_cast<std::size_t>(kRoles));
  for (int role = 0; role < kRoles; ++role) EXPECT_EQ(statuses[static_cast<std::size_t>(role)], 0) << "role " << role;
  // The store still works once the damage is repaired.
  for (int i = 0; i < kSets; ++i) {
    TraceSetStruct* d = userDescriptor(static_cast<unsigned>(ids_[i]));
    std::memcpy(d, &valid_[i], sizeof *d);
  }
  storeShared(&header()->currentNumberTraceSets, validHeader_.currentNumberTraceSets);
  EXPECT_EQ(tracePrintf(static_cast<std::uint16_t>(ids_[0]), TRACE_SEVERITY_INF, 1, "s.c", 1, "after"), 0);
  EXPECT_EQ(slot(ids_[0], 0).text(), "after");
}

}  // namespace
}  // namespace nt::test
