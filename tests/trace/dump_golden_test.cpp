// The bytes of both dump files for a fixed store, as fingerprints: every
// build of the library (the 32-bit ARM node's included) must write exactly
// these files. The store's varying fields (process and thread ids, time
// stamps, creator) are replaced by fixed values before dumping.
#include <arpa/inet.h>

#include <cstdio>
#include <string>

#include "common/shared_fields.h"
#include "tests/trace/dump_decoder.h"
#include "tests/trace/store_fixture.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

constexpr std::uint64_t kTraceDumpFingerprint = 0x3f1c4201ba6e3f5eull;
constexpr std::size_t kTraceDumpSize = 2040;
constexpr std::uint64_t kResetDumpFingerprint = 0xd80d747e18b32f3aull;
constexpr std::size_t kResetDumpSize = 1048;

std::string hex(std::uint64_t value) {
  char text[19];
  std::snprintf(text, sizeof text, "0x%016llx", static_cast<unsigned long long>(value));
  return text;
}

class GoldenDumpTest : public StoreTest {
 protected:
  // Three user sets, both SRAM sets, links to them; every field fixed.
  void fixedStore() {
    allowDebug();
    const std::int16_t radio = createSet("Radio", TS_STRING, 4, 64, 0x0F);
    const std::int16_t frames = createSet("Frames", TS_DUMP, 3, 20);
    const std::int16_t quiet = createSet("Quiet", TS_STRING, 2, 18);
    fillSramSet(0, 3, 3, 3, 500);
    fillSramSet(1, 2, 2, 2, 600);
    for (int k = 0; k < 6; ++k) {
      if (k == 2) storeShared(&header()->lastTraceSetId, SYSTEM_TRACE_SET_ID);
      if (k == 4) storeShared(&header()->lastTraceSetId, REMOTE_SYSTEM_TRACE_SET_ID);
      text(radio, k % 3 == 1 ? TRACE_SEVERITY_DBG : TRACE_SEVERITY_INF, "radio line " + std::to_string(k), 10 + k,
           1u << (k % 4));
      if (k % 2 == 0) {
        Bytes data(static_cast<std::size_t>(5 + 3 * k));
        for (std::size_t b = 0; b < data.size(); ++b) data[b] = static_cast<std::uint8_t>(0x30 + 7 * k + b);
        dump(frames, TRACE_SEVERITY_INF, data, 40 + k, 0x100);
      }
    }
    storeShared(&sharedSlot(radio, 1)->severity, TRACE_SEVERITY_WAR);
    for (std::int16_t id : {radio, frames, quiet}) {
      TraceSetStruct* d = sharedDescriptor(id);
      storeShared(&d->creatorPid, 4242u);
      for (unsigned s = 0; s < d->curentNumberEntries; ++s) {
        TraceEntryHeader* e = sharedSlot(id, s);
        const std::uint32_t sequence = e->sequenceNumber;
        storeShared(&e->pid, 1000u + static_cast<std::uint32_t>(id));
        storeShared(&e->tid, 2000u + s);
        storeShared(&e->monotonicTime.seconds, htonl(3600u + sequence));
        storeShared(&e->monotonicTime.nanoseconds, htonl(1000u * sequence + 1));
        storeShared(&e->realTime.seconds, htonl(1700000000u + sequence));
        storeShared(&e->realTime.nanoseconds, htonl(999000000u - sequence));
      }
    }
    ASSERT_EQ(header()->lockHolderTid, 0);
  }
};

TEST_F(GoldenDumpTest, TheTraceDumpFileOfAFixedStoreIsAlwaysTheSame) {
  fixedStore();
  const std::string name = logs("golden.dump");
  ASSERT_EQ(dumpTracesToFile(name.c_str(), 1, 0), 0);
  const Bytes file = readFileBytes(name);
  decodeDump(file, StampOrder::kBigEndian);
  EXPECT_EQ(file.size(), kTraceDumpSize);
  EXPECT_EQ(hex(fingerprint(file)), hex(kTraceDumpFingerprint));
}

TEST_F(GoldenDumpTest, TheDumpBeforeResetOfAFixedStoreIsAlwaysTheSame) {
  fixedStore();
  const std::string name = logs("golden.reset");
  ASSERT_EQ(dumpTracesBeforeReset(name.c_str(), 1), 0);
  const Bytes file = readFileBytes(name);
  decodeDump(file, StampOrder::kNodeOrder);
  EXPECT_EQ(file.size(), kResetDumpSize);
  EXPECT_EQ(hex(fingerprint(file)), hex(kResetDumpFingerprint));
}

}  // namespace
}  // namespace nt::test
