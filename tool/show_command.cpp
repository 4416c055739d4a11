// nodetrace show: the entries of trace sets, merged into one stream in the
// order in which they were written, oldest first.

#include <dirent.h>
#include <sys/stat.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "entry_listing.h"
#include "node_check.h"

#ifdef NODETRACE_TOOL_HAS_DECODE
#include "decode/dump_reader.h"
#include "decode/entry_output.h"
#endif

namespace nodetrace_tool {

namespace {

struct ListedSet {
  std::int16_t id;
  TraceSetStruct descriptor;
};

#ifdef NODETRACE_TOOL_HAS_DECODE

// The reset handling dumps the traces into numbered files under the logs
// directory, "TraceLog.<n>" and "ErrorTrace.<n>", just before the node
// restarts; the newest file of each name holds the run before the restart.
bool isResetDumpName(const std::string& name, const std::string& prefix) {
  if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) return false;
  for (std::size_t i = prefix.size(); i < name.size(); ++i) {
    if (name[i] < '0' || name[i] > '9') return false;
  }
  return true;
}

std::vector<std::string> previousRunFiles() {
  const std::string& directory = nodeObjects().logsDir;
  std::vector<std::string> files;
  DIR* listing = opendir(directory.c_str());
  if (listing == nullptr) {
    throw ToolError("no dump of the previous run: the directory " + directory + " cannot be read");
  }
  const char* prefixes[] = {"TraceLog.", "ErrorTrace."};
  std::string newest[2];
  struct timespec newestTime[2] = {};
  while (const dirent* item = readdir(listing)) {
    const std::string name = item->d_name;
    for (int kind = 0; kind < 2; ++kind) {
      if (!isResetDumpName(name, prefixes[kind])) continue;
      struct stat status {};
      const std::string path = directory + "/" + name;
      if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
      const struct timespec& time = status.st_mtim;
      if (newest[kind].empty() || time.tv_sec > newestTime[kind].tv_sec ||
          (time.tv_sec == newestTime[kind].tv_sec && time.tv_nsec > newestTime[kind].tv_nsec)) {
        newest[kind] = path;
        newestTime[kind] = time;
      }
    }
  }
  closedir(listing);
  for (const std::string& file : newest) {
    if (!file.empty()) files.push_back(file);
  }
  if (files.empty()) {
    throw ToolError("no dump of the previous run: " + directory + " holds no TraceLog.<n> or ErrorTrace.<n> file");
  }
  return files;
}

// The entries of the newest dump files written before the reset, merged
// and laid out as the entries of the running node are.
void showPreviousRun(const ShowOptions& options, const EntryFilter& filter) {
  namespace decode = nodetrace_tool::decode;
  std::vector<decode::DecodedFile> files;
  for (const std::string& path : previousRunFiles()) {
    decode::DecodedFile file = decode::readDumpFile(path, decode::TimeOrder::kAuto);
    std::vector<decode::EntryRecord> kept;
    for (decode::EntryRecord& entry : file.entries) {
      const decode::SetRecord& set = file.sets[entry.set];
      bool named = options.sets.empty();
      for (const std::string& wanted : options.sets) {
        named = named || wanted == set.nameText() || wanted == std::to_string(set.id);
      }
      TraceEntryHeader header{};
      header.severity = entry.severity;
      header.category = entry.category;
      if (named && filter.matches(header)) kept.push_back(std::move(entry));
    }
    file.entries = std::move(kept);
    files.push_back(std::move(file));
  }
  std::vector<decode::EntryRef> stream = decode::mergeByTime(files);
  if (options.lastLinesOnly && stream.size() > options.lines) {
    stream.erase(stream.begin(), stream.end() - static_cast<long>(options.lines));
  }
  decode::writeEntries(std::cout, files, stream, decode::OutputFormat::kText, options.format);
  std::cout.flush();
  std::string problems;
  for (const decode::DecodedFile& file : files) {
    if (file.error) problems += (problems.empty() ? "" : "; ") + file.name + ": " + file.error->message;
  }
  if (!problems.empty()) throw ToolError(problems);
}

#endif

}  // namespace

void show(const ShowOptions& options) {
  checkFormat(options.format);
  EntryFilter filter;
  filter.severities = severityBits(options.severities);
  if (!options.category.empty()) filter.categories = parseCategoryMask(options.category);
  if (options.previousRun) {
#ifdef NODETRACE_TOOL_HAS_DECODE
    showPreviousRun(options, filter);
    return;
#else
    throw UsageError("--previous-run needs the dump decoder, which this build of the tool lacks");
#endif
  }
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

}  // namespace nodetrace_tool
