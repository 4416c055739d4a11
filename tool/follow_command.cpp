// nodetrace follow: like tail -f, the entries of trace sets as they are
// written, until SIGINT or SIGTERM.
//
// The tool polls. Each trace set counts the entries ever written to it
// (totalNumberEntries); the difference to the count at the last poll is the
// number of new entries, of which the ring still holds the newest
// maxNumberEntries at most:
//
//   count at last poll      count now
//          |<------ new entries ------>|
//          |<- lost ->|<--- in ring -->|
//
// Writers take no lock, so a slot may change while it is read: entries that
// writers may have overwritten during the poll are counted as lost too, and
// a slot whose entry is older than the poll (a writer has counted it but not
// yet filled it) is left for the next poll. What cannot be read is reported
// as a line "-- N entries lost in set NAME --", never printed as an entry.

#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "entry_listing.h"
#include "node_check.h"

namespace nodetrace_tool {

namespace {

volatile sig_atomic_t g_stop = 0;

void requestStop(int) { g_stop = 1; }

// SIGINT and SIGTERM end the loop; no SA_RESTART, so that they cut a sleep
// short.
void catchStopSignals() {
  struct sigaction action {};
  action.sa_handler = requestStop;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

void sleepMilliseconds(unsigned milliseconds) {
  timespec pause{static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1000000L};
  nanosleep(&pause, nullptr);
}

// A slot that stays older than its poll for this many polls is taken as it
// is: it was not being written, it is what two colliding writers left.
constexpr int kMaxDeferrals = 3;

struct FollowedSet {
  std::int16_t id = 0;
  TraceSetStruct descriptor{};
  std::uint32_t seen = 0;   // the set's entry count up to which entries are handled
  std::uint32_t floor = 0;  // every entry counted after `seen` has a sequence number at least this
  int deferrals = 0;
};

struct PollResult {
  std::uint32_t lost = 0;
  bool cleared = false;
};

// True for a slot that holds no entry written since floor: an entry of an
// earlier round of the ring, or a slot never written.
bool olderThan(const ListedEntry& entry, std::uint32_t floor) {
  return entry.header.sequenceNumber < floor || entry.header.pid == 0;
}

// The entries of set written since the last poll, oldest first (unfiltered).
std::vector<ListedEntry> pollSet(FollowedSet& set, std::uint32_t pollFloor, PollResult& result) {
  std::vector<ListedEntry> entries;
  TraceSetStruct descriptor{};
  if (!copyDescriptor(set.id, descriptor)) return entries;
  set.descriptor = descriptor;
  const std::uint32_t total = descriptor.totalNumberEntries;
  if (total < set.seen) {  // cleared: its count starts again at 0
    result.cleared = true;
    set.seen = 0;
  }
  const std::uint32_t fresh = total - set.seen;
  if (fresh == 0) {
    set.floor = pollFloor;
    return entries;
  }
  const std::uint32_t inRing = std::min<std::uint32_t>(fresh, validEntries(descriptor));
  result.lost += fresh - inRing;
  std::vector<std::uint32_t> ages;  // k of each entry read: 1 is the newest
  for (std::uint32_t k = inRing; k >= 1; --k) {
    ListedEntry entry;
    if (readEntry(set.id, slotOfNewest(descriptor, k), entry)) {
      entries.push_back(std::move(entry));
      ages.push_back(k);
    } else {
      ++result.lost;
    }
  }

  // The j-th entry written after the snapshot goes to the slot of the
  // (capacity - j + 1)-th newest entry of the snapshot.
  TraceSetStruct after{};
  const std::uint32_t writtenMeanwhile =
      copyDescriptor(set.id, after) && after.totalNumberEntries >= total ? after.totalNumberEntries - total : 0;
  const std::uint32_t capacity = descriptor.maxNumberEntries;
  std::vector<ListedEntry> kept;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (writtenMeanwhile > 0 && ages[i] + writtenMeanwhile > capacity) {
      ++result.lost;
    } else {
      kept.push_back(std::move(entries[i]));
    }
  }

  // Slots not filled yet at the end of the run wait for the next poll; after
  // kMaxDeferrals polls they are taken as they are.
  std::size_t pending = 0;
  while (pending < kept.size() && olderThan(kept[kept.size() - 1 - pending], set.floor)) ++pending;
  std::size_t takenAsTheyAre = 0;
  if (pending > 0 && set.deferrals < kMaxDeferrals) {
    ++set.deferrals;
    kept.resize(kept.size() - pending);
    set.seen = total - static_cast<std::uint32_t>(pending);
  } else {
    set.deferrals = 0;
    set.seen = total;
    takenAsTheyAre = pending;
  }
  std::vector<ListedEntry> fresher;
  for (std::size_t i = 0; i < kept.size(); ++i) {
    // An old entry amid new ones: a colliding writer left the slot of an
    // earlier round; it is not an entry of this one.
    if (i < kept.size() - takenAsTheyAre && olderThan(kept[i], set.floor)) {
      ++result.lost;
    } else {
      fresher.push_back(std::move(kept[i]));
    }
  }
  if (set.deferrals == 0) set.floor = pollFloor;
  return fresher;
}

// A set's name as printed: its 20 bytes need not end in a zero byte when the
// descriptor was damaged.
constexpr int kNameWidth = TRACE_SET_NAME_LENGTH;

void printLost(const FollowedSet& set, std::uint32_t lost) {
  if (lost == 1) {
    std::printf("-- 1 entry lost in set %.*s --\n", kNameWidth, set.descriptor.name);
  } else {
    std::printf("-- %u entries lost in set %.*s --\n", lost, kNameWidth, set.descriptor.name);
  }
}

}  // namespace

void follow(const FollowOptions& options) {
  checkFormat(options.format);
  EntryFilter filter;
  filter.severities = severityBits(options.severities);
  if (!options.category.empty()) filter.categories = parseCategoryMask(options.category);
  if (options.interval < 10 || options.interval > 60000) {
    throw UsageError("the interval must lie between 10 and 60000 milliseconds");
  }
  requireTraceSystem();
  const bool allSets = options.sets.empty();
  std::vector<std::int16_t> ids;
  for (const std::string& name : options.sets) {
    const std::int16_t id = traceSetId(name);
    if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
  }
  if (allSets) ids = defaultTraceSetIds();

  // From here on SIGINT and SIGTERM end the listing normally.
  catchStopSignals();

  // Start: the last lines of the merged stream, as tail -f does.
  const std::uint32_t floor = getTotalNumberTraceEntries();
  std::vector<FollowedSet> sets;
  std::vector<ListedEntry> history;
  for (const std::int16_t id : ids) {
    FollowedSet set;
    set.id = id;
    if (!copyDescriptor(id, set.descriptor)) continue;
    set.seen = set.descriptor.totalNumberEntries;
    set.floor = floor;
    std::vector<ListedEntry> own = readNewestEntries(id, set.descriptor, validEntries(set.descriptor), filter);
    if (own.size() > options.lines) own.erase(own.begin(), own.end() - static_cast<long>(options.lines));
    history.insert(history.end(), std::make_move_iterator(own.begin()), std::make_move_iterator(own.end()));
    sets.push_back(set);
  }
  sortByWriting(history);
  if (history.size() > options.lines) history.erase(history.begin(), history.end() - static_cast<long>(options.lines));
  const auto descriptorOf = [&sets](std::int16_t id) -> const TraceSetStruct& {
    for (const FollowedSet& set : sets) {
      if (set.id == id) return set.descriptor;
    }
    return sets.front().descriptor;
  };
  for (const ListedEntry& entry : history) printEntry(entry, descriptorOf(entry.setId), options.format);
  std::fflush(stdout);

  while (g_stop == 0) {
    sleepMilliseconds(options.interval);
    if (g_stop != 0) break;
    const std::uint32_t pollFloor = getTotalNumberTraceEntries();
    // Sets created since the last poll join with all their entries.
    if (allSets) {
      const int count = getCurrentNumberTraceSets();
      for (int id = 0; id < count; ++id) {
        const bool known = std::any_of(sets.begin(), sets.end(), [id](const FollowedSet& set) { return set.id == id; });
        if (known) continue;
        FollowedSet set;
        set.id = static_cast<std::int16_t>(id);
        if (!copyDescriptor(set.id, set.descriptor)) continue;
        set.floor = 0;  // all its entries are new to this listing
        sets.push_back(set);
      }
    }
    std::vector<ListedEntry> fresh;
    bool printed = false;
    for (FollowedSet& set : sets) {
      PollResult result;
      std::vector<ListedEntry> own = pollSet(set, pollFloor, result);
      if (result.cleared) {
        std::printf("-- set %.*s was cleared --\n", kNameWidth, set.descriptor.name);
        printed = true;
      }
      if (result.lost > 0) {
        printLost(set, result.lost);
        printed = true;
      }
      for (ListedEntry& entry : own) {
        if (filter.matches(entry.header)) fresh.push_back(std::move(entry));
      }
    }
    sortByWriting(fresh);
    for (const ListedEntry& entry : fresh) printEntry(entry, descriptorOf(entry.setId), options.format);
    if (printed || !fresh.empty()) std::fflush(stdout);
  }
  std::fflush(stdout);
}

}  // namespace nodetrace_tool
