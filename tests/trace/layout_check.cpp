#include "tests/trace/layout_check.h"

#include <cstring>

#include "nodetrace/trace_layout.h"

namespace nt::test {
namespace {

constexpr std::uint32_t kSramSlots = 738;

std::string setName(std::uint16_t id) { return "set " + std::to_string(id); }

// The ring rules of a descriptor (shared or SRAM).
void checkRing(const std::string& who, const TraceSetStruct& d, std::vector<std::string>* problems) {
  if (d.maxNumberEntries == 0) problems->push_back(who + ": capacity 0");
  if (d.writeIndex >= d.maxNumberEntries) {
    problems->push_back(who + ": writeIndex " + std::to_string(d.writeIndex) + " outside the ring");
  }
  if (d.curentNumberEntries > d.maxNumberEntries) {
    problems->push_back(who + ": " + std::to_string(d.curentNumberEntries) + " entries counted in a ring of " +
                        std::to_string(d.maxNumberEntries));
  }
  if (d.curentNumberEntries < d.maxNumberEntries && d.writeIndex != d.curentNumberEntries) {
    problems->push_back(who + ": writeIndex " + std::to_string(d.writeIndex) + " but " +
                        std::to_string(d.curentNumberEntries) + " entries counted");
  }
  if (d.totalNumberEntries < d.curentNumberEntries) {
    problems->push_back(who + ": total " + std::to_string(d.totalNumberEntries) + " below the count " +
                        std::to_string(d.curentNumberEntries));
  }
}

bool allZero(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  for (std::size_t i = 0; i < size; ++i) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

}  // namespace

std::vector<std::string> sharedMemoryProblems(const Bytes& object) {
  std::vector<std::string> problems;
  if (object.size() < TRACE_ENTRY_AREA_OFFSET) return {"the object is missing or short"};
  TraceMemoryHeader h;
  std::memcpy(&h, object.data(), sizeof h);
  if (std::memcmp(h.version, "1.4", 4) != 0) problems.push_back("header: no version");
  if (h.currentNumberTraceSets > TRACE_MAX_TRACE_SETS) problems.push_back("header: too many sets");
  if (h.nextFreeOffset < TRACE_ENTRY_AREA_OFFSET || h.nextFreeOffset > object.size()) {
    problems.push_back("header: nextFreeOffset " + std::to_string(h.nextFreeOffset));
  }
  if (h.lockHolderTid != 0 || u32At(object, TRACE_RESERVED_AREA_OFFSET) != 0) {
    problems.push_back("header: holder recorded at rest (tid " + std::to_string(h.lockHolderTid) + ")");
  }
  const std::uint16_t last = h.lastTraceSetId;
  if (last != 0xFFFF && last != SYSTEM_TRACE_SET_ID && last != REMOTE_SYSTEM_TRACE_SET_ID &&
      last >= h.currentNumberTraceSets) {
    problems.push_back("header: newest entry in unknown set " + std::to_string(last));
  }

  for (std::uint16_t id = 0; id < h.currentNumberTraceSets && id < TRACE_MAX_TRACE_SETS; ++id) {
    TraceSetStruct d;
    std::memcpy(&d, object.data() + TRACE_DESCRIPTOR_TABLE_OFFSET + id * sizeof d, sizeof d);
    const std::string who = setName(id);
    checkRing(who, d, &problems);
    const std::uint32_t slotSize = getTraceEntrySize(d.traceEntryContentsLength);
    const std::uint64_t end = d.dataOffset + static_cast<std::uint64_t>(slotSize) * d.maxNumberEntries;
    if (d.dataOffset < TRACE_ENTRY_AREA_OFFSET || end > object.size()) {
      problems.push_back(who + ": data outside the entry area");
      continue;
    }
    if (last == id && h.lastEntryIndex >= d.maxNumberEntries) problems.push_back("header: newest slot outside its ring");
    if (d.maxNumberEntries == 0) continue;
    // A writer killed between claiming its slot and finishing it leaves
    // that one slot counted and unwritten or half written: the entry in
    // flight. Two such slots mean an entry was lost that was not in flight.
    unsigned unwritten = 0;
    for (unsigned slot = 0; slot < d.curentNumberEntries && slot < d.maxNumberEntries; ++slot) {
      TraceEntryHeader e;
      std::memcpy(&e, object.data() + d.dataOffset + slot * slotSize, sizeof e);
      if (allZero(&e, sizeof e) || e.contentsLength > d.traceEntryContentsLength) ++unwritten;
    }
    if (unwritten > 1) problems.push_back(who + ": " + std::to_string(unwritten) + " counted slots never written");
  }
  return problems;
}

std::vector<std::string> sramProblems(const std::string& sramPath) {
  std::vector<std::string> problems;
  // The whole file at once: a check may run while the trace lock is held.
  const Bytes file = readFileBytes(sramPath);
  for (int region = 0; region < 2; ++region) {
    const std::string who = region == 0 ? "System" : "NVJ_System";
    const std::size_t descriptorOffset =
        region == 0 ? TRACE_SRAM_SYSTEM_DESCRIPTOR_OFFSET : TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET;
    TraceSetStruct d;
    if (file.size() < descriptorOffset + sizeof d) {
      problems.push_back(who + ": no descriptor");
      continue;
    }
    std::memcpy(&d, file.data() + descriptorOffset, sizeof d);
    if (std::strncmp(d.name, who.c_str(), sizeof d.name) != 0) problems.push_back(who + ": wrong name");
    if (d.maxNumberEntries != kSramSlots || d.traceEntryContentsLength != TRACE_MAX_STRING_LENGTH ||
        d.dataOffset != (region == 0 ? TRACE_SRAM_SYSTEM_DATA_OFFSET : TRACE_SRAM_REMOTE_DATA_OFFSET)) {
      problems.push_back(who + ": wrong geometry");
      continue;
    }
    checkRing(who, d, &problems);
    for (unsigned slot = 0; slot < d.curentNumberEntries && slot < kSramSlots; ++slot) {
      const std::string where = who + ": slot " + std::to_string(slot);
      const std::size_t at = d.dataOffset + slot * 208u;
      if (file.size() < at + 208u) {
        problems.push_back(where + " lies past the end of the file");
        break;
      }
      TraceEntryHeader e;
      std::memcpy(&e, file.data() + at, sizeof e);
      const char* contents = reinterpret_cast<const char*>(file.data() + at + TRACE_ENTRY_HEADER_SIZE);
      if (allZero(&e, sizeof e)) {
        problems.push_back(where + " counted but its header is zeros");
        continue;
      }
      if (e.pid == 0 || e.fileName[29] != 0) problems.push_back(where + " has a damaged header");
      if (e.contentsLength > TRACE_MAX_STRING_LENGTH) problems.push_back(where + " is too long");
      // The error trace writer's text fills the contents up to its length
      // and zeros after it: a header over other contents shows.
      if (region == 0 && (contents[127] != 0 || strnlen(contents, 128) != e.contentsLength)) {
        // In a full ring the slot at writeIndex is both the oldest entry
        // and the one the next entry replaces.
        const bool replaced = d.curentNumberEntries == d.maxNumberEntries && slot == d.writeIndex;
        problems.push_back(where + (replaced ? " (the oldest, being replaced)" : "") +
                           " has a header that does not fit its contents");
      }
    }
  }
  return problems;
}

std::string layoutProblems(const Bytes& object, const std::string& sramPath) {
  std::string text;
  for (const auto& problem : sharedMemoryProblems(object)) text += problem + "\n";
  for (const auto& problem : sramProblems(sramPath)) text += problem + "\n";
  return text;
}

}  // namespace nt::test
