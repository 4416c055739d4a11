// nodetrace sets: a table of all trace sets, or the library's own report.

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "node_check.h"
#include "nodetrace/nodetrace.h"

namespace nodetrace_tool {

namespace {

struct SetRow {
  std::string id;
  std::string name;
  std::string type;
  std::string entries;
  std::string capacity;
  std::string written;
  std::string mask;
};

SetRow rowOf(int id, const TraceSetStruct& descriptor, bool sramSet) {
  char mask[16];
  std::snprintf(mask, sizeof mask, "0x%08X", sramSet ? 0xFFFFFFFFu : descriptor.categoryMask);
  const std::size_t nameLength = std::find(descriptor.name, descriptor.name + sizeof descriptor.name, '\0') -
                                 descriptor.name;
  // The sets of the SRAM file keep text, whatever their descriptors say.
  const bool text = sramSet || descriptor.type == TS_STRING;
  return SetRow{std::to_string(id),
                std::string(descriptor.name, nameLength),
                text ? "text" : (descriptor.type == TS_DUMP ? "dump" : "?"),
                std::to_string(std::min(descriptor.curentNumberEntries, descriptor.maxNumberEntries)),
                std::to_string(descriptor.maxNumberEntries),
                std::to_string(descriptor.totalNumberEntries),
                mask};
}

// Every column is as wide as its widest cell, so no count of entries, however
// large, pushes a row out of line.
void printTable(const std::vector<SetRow>& rows, bool verbose) {
  const SetRow heading{"ID", "NAME", "TYPE", "ENTRIES", "CAPACITY", "WRITTEN", "MASK"};
  std::size_t width[7] = {};
  const auto measure = [&width](const SetRow& row) {
    const std::string* cells[] = {&row.id,       &row.name,    &row.type, &row.entries,
                                  &row.capacity, &row.written, &row.mask};
    for (int i = 0; i < 7; ++i) width[i] = std::max(width[i], cells[i]->size());
  };
  measure(heading);
  for (const SetRow& row : rows) measure(row);
  const auto print = [&width, verbose](const SetRow& row) {
    std::printf("%*s  %-*s  %-*s  %*s  %*s  %*s", static_cast<int>(width[0]), row.id.c_str(),
                static_cast<int>(width[1]), row.name.c_str(), static_cast<int>(width[2]), row.type.c_str(),
                static_cast<int>(width[3]), row.entries.c_str(), static_cast<int>(width[4]), row.capacity.c_str(),
                static_cast<int>(width[5]), row.written.c_str());
    if (verbose) std::printf("  %s", row.mask.c_str());
    std::printf("\n");
  };
  print(heading);
  for (const SetRow& row : rows) print(row);
}

void printSets(bool verbose) {
  std::vector<SetRow> rows;
  const int count = getCurrentNumberTraceSets();
  // The entry area is handed out in creation order: the region of the last
  // set ends where the used part ends.
  std::uint32_t used = 0;
  for (int id = 0; id < count; ++id) {
    const TraceSetStruct* shared = getTraceSetStruct(static_cast<std::uint16_t>(id));
    if (shared == nullptr) throw ToolError("the descriptor of trace set " + std::to_string(id) + " cannot be read");
    const TraceSetStruct descriptor = *shared;
    rows.push_back(rowOf(id, descriptor, false));
    const std::uint32_t end = descriptor.dataOffset +
                              getTraceEntrySize(descriptor.traceEntryContentsLength) * descriptor.maxNumberEntries;
    if (end > TRACE_ENTRY_AREA_OFFSET) used = std::max(used, end - TRACE_ENTRY_AREA_OFFSET);
  }
  std::vector<std::uint16_t> sramIds;
  if (needsRemoteTraceSupport() == 1) sramIds.push_back(REMOTE_SYSTEM_TRACE_SET_ID);
  sramIds.push_back(SYSTEM_TRACE_SET_ID);
  for (const std::uint16_t id : sramIds) {
    const TraceSetStruct* snapshot = getTraceSetStruct(id);
    if (snapshot == nullptr) throw ToolError("the SRAM file cannot be read: " + describeResult(TRACE_RC_FILE_ERROR));
    rows.push_back(rowOf(id, *snapshot, true));
  }
  printTable(rows, verbose);
  std::printf("\n%d/%u user trace sets use %u/%u bytes (%.1f%%) of shared memory; %u entries written in total\n",
              count, TRACE_MAX_TRACE_SETS, used, TRACE_ENTRY_AREA_SIZE, used * 100.0 / TRACE_ENTRY_AREA_SIZE,
              getTotalNumberTraceEntries());
}

void printLibraryReport(bool verbose) {
  const int32_t result = printTraceSetsInfo(verbose ? 1 : 0);
  std::fflush(stdout);
  if (result == TRACE_RC_FILE_ERROR) {
    throw ToolError("the report is incomplete: the SRAM file could not be read (-6)");
  }
  if (result < 0) throw ToolError("the report is incomplete: " + describeResult(result));
}

}  // namespace

void listSets(const SetsOptions& options) {
  requireTraceSystem();
  if (options.report) {
    printLibraryReport(options.verbose);
  } else {
    printSets(options.verbose);
  }
}

}  // namespace nodetrace_tool
