// nodetrace show: the entries of trace sets, merged into one stream in the
// order in which they were written, oldest first.

#include <memory>
#include <string>
#include <vector>

#include "tool/arguments.h"
#include "tool/commands.h"
#include "tool/entry_listing.h"
#include "tool/node_check.h"
#include "tool/show_format.h"

namespace nodetrace_tool {

namespace {

struct ShowOptions {
  std::vector<std::string> sets;
  std::vector<std::string> severities;
  std::string category;
  std::uint32_t lines = 0;
  bool lastLinesOnly = false;
  std::string format = kDefaultShowFormat;
};

struct ListedSet {
  std::int16_t id;
  TraceSetStruct descriptor;
};

void show(const ShowOptions& options) {
  checkFormat(options.format);
  EntryFilter filter;
  filter.severities = severityBits(options.severities);
  if (!options.category.empty()) filter.categories = parseCategoryMask(options.category);
  requireTraceSystem();

  std::vector<std::int16_t> ids;
  for (const std::string& name : options.sets) ids.push_back(traceSetId(name));
  if (ids.empty()) ids = defaultTraceSetIds();

  // Descriptors are copied once; the entries of each set are read from its
  // oldest to its newest. With -n N no set can give more than N lines.
  std::vector<ListedSet> sets;
  std::vector<ListedEntry> entries;
  for (const std::int16_t id : ids) {
    bool seen = false;
    for (const ListedSet& set : sets) seen = seen || set.id == id;
    if (seen) continue;
    ListedSet set{id, {}};
    if (!copyDescriptor(id, set.descriptor)) continue;
    sets.push_back(set);
    const std::uint32_t count = options.lastLinesOnly ? options.lines : 0xFFFFFFFFu;
    std::vector<ListedEntry> own = readNewestEntries(id, set.descriptor, validEntries(set.descriptor), filter);
    if (own.size() > count) own.erase(own.begin(), own.end() - static_cast<long>(count));
    entries.insert(entries.end(), std::make_move_iterator(own.begin()), std::make_move_iterator(own.end()));
  }
  sortByWriting(entries);
  if (options.lastLinesOnly && entries.size() > options.lines) {
    entries.erase(entries.begin(), entries.end() - static_cast<long>(options.lines));
  }
  for (const ListedEntry& entry : entries) {
    for (const ListedSet& set : sets) {
      if (set.id == entry.setId) {
        printEntry(entry, set.descriptor, options.format);
        break;
      }
    }
  }
}

}  // namespace

void addShowCommand(CLI::App& app) {
  auto options = std::make_shared<ShowOptions>();
  CLI::App* command = app.add_subcommand(
      "show",
      "Print the entries of trace sets, merged into one stream in the order in which they were "
      "written (by sequence number), oldest first");
  command->add_option("SET", options->sets,
                      "Trace sets by name or id (default: every user set, System and NVJ_System)")
      ->type_name("");
  addEntryFilterOptions(*command, options->severities, options->category);
  command->add_option("-n,--lines", options->lines, "Only the last N entries of the stream")
      ->type_name("N")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  addLineFormatOption(*command, options->format);
  command->callback([options, command] {
    options->lastLinesOnly = command->count("--lines") > 0;
    show(*options);
  });
}

}  // namespace nodetrace_tool
