#include "bench/write_cases.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "bench/bench_node.h"
#include "common/node_names.h"
#include "nodetrace/logbridge.h"
#include "nodetrace/nodetrace.h"

namespace nt::bench {
namespace {

constexpr std::uint32_t kCategory = 1;

struct Sets {
  std::uint16_t row0 = 0;
  std::uint16_t row29 = 0;
  std::uint16_t unknown = 0;
  std::uint16_t dump = 0;
};

std::uint16_t create(const char* name, std::uint32_t type, std::uint16_t entries, std::uint16_t length) {
  std::int16_t id = -1;
  if (initTraceSet(name, type, entries, length, kCategory, &id) != 0) std::abort();
  return static_cast<std::uint16_t>(id);
}

const Sets& sets() {
  static const Sets created = [] {
    useTemporaryNode();
    Sets s;
    s.row0 = create(hbk_syslog_map[0].name, TS_STRING, 1000, 128);
    s.row29 = create(hbk_syslog_map[29].name, TS_STRING, 1000, 128);
    s.unknown = create("NoSuchFamily", TS_STRING, 1000, 128);
    s.dump = create(hbk_syslog_map[1].name, TS_DUMP, 100, 1600);
    // The first entry registers the log domain; keep that out of the runs.
    tracePrintf(s.row0, TRACE_SEVERITY_INF, kCategory, __FILE__, __LINE__, "warm-up");
    return s;
  }();
  return created;
}

alignas(8) std::uint8_t g_textSlot[208];
alignas(8) std::uint8_t g_dumpSlot[1680];
std::uint8_t g_dumpData[1600];

void stampClocks(std::uint8_t* slot) {
  timespec mono{}, real{};
  clock_gettime(CLOCK_MONOTONIC, &mono);
  clock_gettime(CLOCK_REALTIME, &real);
  std::memcpy(slot, &mono, sizeof mono);
  std::memcpy(slot + 16, &real, sizeof real);
}

}  // namespace

void floorText(int i) {
  char text[128];
  formatInto(text, "value %d of %s", i, "unit");
  stampClocks(g_textSlot);
  std::memcpy(g_textSlot + 80, text, sizeof text);
  asm volatile("" : : "r"(g_textSlot) : "memory");
}

void floorDump() {
  stampClocks(g_dumpSlot);
  std::memcpy(g_dumpSlot + 80, g_dumpData, sizeof g_dumpData);
  asm volatile("" : : "r"(g_dumpSlot) : "memory");
}

void floorErrorFileCalls() {
  static const std::string path = [] {
    sets();
    return std::string(nodeNames().sram) + ".floor";
  }();
  static std::uint8_t file[153600 * 2];
  static const bool made = [] {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, file, sizeof file) != static_cast<ssize_t>(sizeof file)) std::abort();
    close(fd);
    return true;
  }();
  (void)made;
  std::uint8_t buffer[208] = {};
  struct stat status {};
  stat(path.c_str(), &status);
  int fd = open(path.c_str(), O_RDONLY | O_SYNC | O_CLOEXEC);
  if (read(fd, buffer, 4) != 4) std::abort();
  lseek(fd, 4, SEEK_SET);
  if (read(fd, buffer, 48) != 48) std::abort();
  close(fd);
  fd = open(path.c_str(), O_WRONLY | O_SYNC | O_CLOEXEC);
  lseek(fd, 4, SEEK_SET);
  if (write(fd, buffer, 48) != 48) std::abort();
  lseek(fd, 52, SEEK_SET);
  if (write(fd, buffer, 80) != 80) std::abort();
  lseek(fd, 132, SEEK_SET);
  if (write(fd, buffer, 128) != 128) std::abort();
  close(fd);
}

namespace {

[[gnu::noinline]] int nothing(std::uint16_t, std::uint32_t, std::uint32_t, const char*, std::int32_t, const char*,
                              ...) {
  asm volatile("");
  return 0;
}

}  // namespace

void harness(int i) {
  nothing(sets().row0, TRACE_SEVERITY_DBG, kCategory, "src/app/bench.c", 42, "value %d of %s", i, "unit");
}

void storedTextRow0(int i) {
  tracePrintf(sets().row0, TRACE_SEVERITY_INF, kCategory, "src/app/bench.c", 42, "value %d of %s", i, "unit");
}

void storedTextRow29(int i) {
  tracePrintf(sets().row29, TRACE_SEVERITY_INF, kCategory, "src/app/bench.c", 42, "value %d of %s", i, "unit");
}

void storedTextUnknownName(int i) {
  tracePrintf(sets().unknown, TRACE_SEVERITY_INF, kCategory, "src/app/bench.c", 42, "value %d of %s", i,
              "unit");
}

void storedDump1600() {
  addTraceEntry(sets().dump, TS_DUMP, TRACE_SEVERITY_INF, kCategory, "src/app/bench.c", 42, 1600, g_dumpData);
}

void filteredTracePrintf(int i) {
  tracePrintf(sets().row0, TRACE_SEVERITY_DBG, kCategory, "src/app/bench.c", 42, "value %d of %s", i, "unit");
}

void filteredAddTraceEntry() {
  addTraceEntry(sets().dump, TS_DUMP, TRACE_SEVERITY_DBG, kCategory, "src/app/bench.c", 42, 1600, g_dumpData);
}

void errorEntry(int i) {
  tracePrintf(sets().row0, TRACE_SEVERITY_WAR, kCategory, "src/app/bench.c", 42, "value %d of %s", i, "unit");
}

std::uint16_t createOwnSet(int writer) {
  sets();
  // Named by rows of the table, as applications' sets are, and created
  // together on the first call, so that their descriptors follow one another
  // in the table whichever benchmark runs first.
  static const std::array<std::uint16_t, kOwnSets> created = [] {
    std::array<std::uint16_t, kOwnSets> ids{};
    for (std::size_t w = 0; w < ids.size(); ++w) ids[w] = create(hbk_syslog_map[2 + w].name, TS_STRING, 1000, 128);
    return ids;
  }();
  return created.at(static_cast<std::size_t>(writer));
}

void storeIntoOwnSet(std::uint16_t set, int i) {
  tracePrintf(set, TRACE_SEVERITY_INF, kCategory, "src/app/bench.c", 42, "value %d of %s", i, "unit");
}

}  // namespace nt::bench
