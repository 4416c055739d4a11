// A started trace system with helpers to fill it: user sets and their
// entries, slots read and patched in place, the two sets of the SRAM file
// filled directly, and the records the library adds to the error trace set.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/node_test.h"

namespace nt::test {

struct Slot {
  TraceEntryHeader header;
  Bytes contents;  // every contents byte of the slot, align32(max length)
  std::string text() const;
};

// What one findMatchingTraceEntries call leaves: the start index and count
// of every set of the request, and the running total.
struct Found {
  std::vector<std::uint16_t> starts;
  std::vector<std::uint16_t> counts;
  std::uint32_t total = 0;
};

class StoreTest : public NodeTest {
 protected:
  void SetUp() override;

  // A text entry through tracePrintf; the result must be 0.
  static void text(std::int16_t id, std::uint32_t severity, std::string_view text, std::int32_t line = 1,
                   std::uint32_t category = 1);
  // A dump entry through addTraceEntry.
  static void dump(std::int16_t id, std::uint32_t severity, const Bytes& data, std::int32_t line = 1,
                   std::uint32_t category = 1);
  // Lets DBG entries into the rings.
  static void allowDebug();

  static TraceSetStruct descriptor(std::int16_t id);
  static TraceSetStruct* sharedDescriptor(std::int16_t id);
  static TraceEntryHeader* sharedSlot(std::int16_t id, unsigned index);
  static Slot slot(std::int16_t id, unsigned index);

  std::string logs(std::string_view name = {}) const;

  // Writes set 255 (region 0) or 254 (region 1) of the SRAM file directly:
  // its descriptor with these counts, and `filled` slots holding entries
  // "<name> <slot>" of severity `severity`, category 0x10 << (slot % 4),
  // sequence numbers from firstSequence by age (oldest first), pid/tid
  // 4000 + slot, fixed time stamps.
  void fillSramSet(int region, std::uint16_t filled, std::uint16_t writeIndex, std::uint32_t total,
                   std::uint32_t firstSequence, std::uint8_t severity = TRACE_SEVERITY_NOT) const;

  // The entries the library added to the error trace set since `before`
  // (its descriptor as readSramDescriptor gave it).
  std::vector<SramEntry> errorEntriesSince(const TraceSetStruct& before) const;
  TraceSetStruct errorSet() const { return readSramDescriptor(sram(), 0); }
  // One record of the library: severity 0x80, category 0x80000001,
  // "traceLibLocal.c" and the line; its text compared in full.
  static void expectLibraryRecord(const SramEntry& entry, std::int32_t line, const std::string& text);
  // Exactly one entry was added to the error trace set since `before`: that
  // record of the library.
  void expectOneLibraryRecordSince(const TraceSetStruct& before, std::int32_t line, const std::string& text) const;
  // What the error trace set keeps of a recorded text: 127 characters.
  static std::string recorded(const std::string& text) { return text.substr(0, 127); }

  // findMatchingTraceEntries over ids, counting entries (countEntries 1) or
  // bytes (0) up to limit. Starts and counts not given in `preset` are preset
  // to 0xEEEE, a value no search of the tests' rings leaves.
  static Found findMatching(const std::vector<std::int16_t>& ids, std::uint32_t limit,
                            std::uint32_t countEntries = 1, std::uint8_t severities = 0xFF,
                            const std::uint32_t* categoryMasks = nullptr, Found preset = {});
};

}  // namespace nt::test
