// The trace dump file: the whole trace store, optionally with the two sets
// of the SRAM file, written into one binary file (layout in dump_records.h).
//
// File positions: user set i keeps position i. With the SRAM sets, the
// remote unit's set "NVJ_System" (254) takes position n and the error trace
// set "System" (255) position n + 1, and every 254 or 255 in the header and
// in the entries' prev links becomes that position, so that every set id in
// the file indexes its descriptor table:
//
//   position   0 .. n-1      n             n+1
//   set id     0 .. n-1      254           255
//
// The file is written as "/tmp/traceDump.tmp", created exclusively (so two
// dumps of the node cannot run at once), and copied into place by a shell
// command at the end, also after a failure.
//
// Two passes: the first writes a descriptor per position with the data
// offsets the entries will have; the second writes the entries and, where
// entries were left out (DBG), corrects the offsets and the counts it wrote.
//
// No lock is taken. The header's currentNumberTraceSets and lastTraceSetId
// are raised in the shared memory for the moment the header is copied, so
// that the copy counts the appended sets, and put back right after.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/message_source.h"
#include "common/node_names.h"
#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "nodeplatform/nodeplatform.h"
#include "nodetrace/nodetrace.h"
#include "trace/dumps/dump_records.h"
#include "trace/store/registry.h"
#include "trace/store/ring_slots.h"
#include "trace/store/startup.h"

namespace nt {
namespace {

constexpr const char* kFunction = "dumpTracesToFile";
// 200 user sets and the two sets of the SRAM file.
constexpr std::size_t kMaxPositions = TRACE_MAX_TRACE_SETS + 2;
constexpr std::uint16_t kNoPosition = 0xFFFF;
constexpr std::uint8_t kDebugSeverity = TRACE_SEVERITY_DBG;
constexpr std::uint8_t kEverySeverity = 0xFF;
constexpr std::uint32_t kAllCategories = 0xFFFFFFFFu;
constexpr mode_t kTemporaryMode = 0664;
constexpr std::size_t kCommandSize = 200;

constexpr int kOpenLine = 2353;
constexpr std::int32_t kCreateLine = 2356;
constexpr std::int32_t kHeaderWriteLine = 2408;
constexpr std::int32_t kDescriptorWriteLine = 2505;
constexpr std::int32_t kReadBackLine = 2533;
constexpr std::int32_t kOffsetWriteLine = 2559;
constexpr std::int32_t kEntryHeaderWriteLine = 2619;
constexpr std::int32_t kContentsWriteLine = 2642;
constexpr std::int32_t kCountsWriteLine = 2680;
constexpr int kCloseLine = 2688;

struct Position {
  std::uint16_t setId = 0;
  std::uint16_t entries = 0;    // to dump
  std::uint16_t startIndex = 0; // the slot of the next entry to dump
  std::uint16_t kept = 0;       // entries written; the counts debugMode 0 stores
};

class TraceDump {
 public:
  TraceDump(bool withSramSets, std::uint32_t debugMode) noexcept
      : withSramSets_(withSramSets), debugMode_(debugMode), temporary_(nodeNames().traceDumpTmp) {}

  int run(const char* fileName) noexcept;

 private:
  void appendSramSets(TraceMemoryHeader* h, unsigned userSets) noexcept;
  void restoreHeader(TraceMemoryHeader* h) noexcept;
  bool writeHeader(TraceMemoryHeader* h) noexcept;
  bool writeDescriptors() noexcept;
  bool writeEntries() noexcept;
  bool writeEntriesOf(unsigned p) noexcept;
  std::uint16_t positionFor(std::uint16_t setId) const noexcept;
  void finish(const char* fileName) noexcept;

  bool withSramSets_;
  std::uint32_t debugMode_;
  const char* temporary_;
  int fd_ = -1;
  unsigned count_ = 0;  // positions
  bool countDamaged_ = false;  // currentNumberTraceSets above 200
  std::uint16_t remotePosition_ = kNoPosition;
  std::uint16_t systemPosition_ = kNoPosition;
  Position positions_[kMaxPositions];
  std::uint8_t contents_[dump::kContentsBufferSize] = {};
};

void raiseSetCount(TraceMemoryHeader* h) noexcept {
  storeShared(&h->currentNumberTraceSets, loadShared(&h->currentNumberTraceSets) + 1u);
}

void lowerSetCount(TraceMemoryHeader* h) noexcept {
  storeShared(&h->currentNumberTraceSets, loadShared(&h->currentNumberTraceSets) - 1u);
}

void TraceDump::appendSramSets(TraceMemoryHeader* h, unsigned userSets) noexcept {
  count_ = userSets;
  if (!withSramSets_) return;
  if (needsRemoteTraceSupport() == 1) {
    remotePosition_ = static_cast<std::uint16_t>(count_);
    raiseSetCount(h);
    if (loadShared(&h->lastTraceSetId) == REMOTE_SYSTEM_TRACE_SET_ID) {
      storeShared(&h->lastTraceSetId, remotePosition_);
    }
    positions_[count_++].setId = REMOTE_SYSTEM_TRACE_SET_ID;
  }
  systemPosition_ = static_cast<std::uint16_t>(count_);
  raiseSetCount(h);
  if (loadShared(&h->lastTraceSetId) == SYSTEM_TRACE_SET_ID) storeShared(&h->lastTraceSetId, systemPosition_);
  positions_[count_++].setId = SYSTEM_TRACE_SET_ID;
}

void TraceDump::restoreHeader(TraceMemoryHeader* h) noexcept {
  if (!withSramSets_) return;
  lowerSetCount(h);
  if (loadShared(&h->lastTraceSetId) == systemPosition_) storeShared(&h->lastTraceSetId, SYSTEM_TRACE_SET_ID);
  if (needsRemoteTraceSupport() == 1) {
    lowerSetCount(h);
    if (loadShared(&h->lastTraceSetId) == remotePosition_) {
      storeShared(&h->lastTraceSetId, REMOTE_SYSTEM_TRACE_SET_ID);
    }
  }
}

bool TraceDump::writeHeader(TraceMemoryHeader* h) noexcept {
  TraceMemoryHeader copy = loadRecord(h);
  // A damaged count above the table counts the descriptors this file holds,
  // as a valid one does.
  if (countDamaged_) copy.currentNumberTraceSets = static_cast<std::uint8_t>(count_);
  const dump::HeaderImage image = dump::headerImage(copy);
  const bool written = dump::writeAll(fd_, image.data(), image.size());
  if (!written) NODETRACE_DUMP_FAILURE(kHeaderWriteLine, "(%s) Problems writing to file %s: %d (%s)", temporary_);
  restoreHeader(h);
  return written;
}

bool TraceDump::writeDescriptors() noexcept {
  std::uint64_t offset = dump::descriptorOffset(count_);
  for (unsigned p = 0; p < count_; ++p) {
    Position& position = positions_[p];
    const TraceSetStruct* descriptor = getTraceSetStruct(position.setId);
    if (descriptor == nullptr) {
      // No descriptor is written: the descriptors that follow sit one slot
      // earlier than their positions.
      position.startIndex = 0;
      continue;
    }
    TraceSetStruct copy = loadRecord(descriptor);
    // A valid ring never counts more entries than it has slots; a damaged
    // count is held to the capacity.
    position.entries = std::min(copy.curentNumberEntries, copy.maxNumberEntries);
    // A SRAM set holds no more entries than its region of the file has slots,
    // a user set no more than the mapping has slots from its dataOffset on:
    // a damaged ring whose walk gets stuck on one slot then cannot write that
    // slot into the file over and over.
    const std::uint32_t slots = isSramSet(position.setId) ? sramSlotsInRegion(position.setId, copy)
                                                          : userSlotsInMapping(copy);
    position.entries = static_cast<std::uint16_t>(std::min<std::uint32_t>(position.entries, slots));
    position.startIndex = copy.curentNumberEntries >= copy.maxNumberEntries ? copy.writeIndex : 0;
    position.kept = position.entries;
    copy.maxNumberEntries = position.entries;
    copy.curentNumberEntries = position.entries;
    copy.writeIndex = 0;
    copy.dataOffset = static_cast<std::uint32_t>(offset);
    offset += static_cast<std::uint64_t>(getTraceEntrySize(copy.traceEntryContentsLength)) * position.entries;
    const dump::DescriptorImage image = dump::descriptorImage(copy);
    if (!dump::writeAll(fd_, image.data(), image.size())) {
      NODETRACE_DUMP_FAILURE(kDescriptorWriteLine, "(%s) Problems writing to file %s: %d (%s)", temporary_);
      return false;
    }
  }
  return true;
}

// The file position that replaces a link to a SRAM set, 0xFFFF when the set
// is not in this dump.
std::uint16_t TraceDump::positionFor(std::uint16_t setId) const noexcept {
  return setId == SYSTEM_TRACE_SET_ID ? systemPosition_ : remotePosition_;
}

bool TraceDump::writeEntriesOf(unsigned p) noexcept {
  Position& position = positions_[p];
  const TraceSetStruct* descriptor = getTraceSetStruct(position.setId);
  const bool fromFile = isSramSet(position.setId);
  // The snapshot of a SRAM set is shared by the process; the walk keeps its
  // own copy.
  TraceSetStruct snapshot{};
  if (descriptor != nullptr && fromFile) {
    snapshot = loadRecord(descriptor);
    descriptor = &snapshot;
  }

  const off_t realOffset = sys::lseek(fd_, 0, SEEK_END);
  dump::DescriptorImage stored;
  sys::lseek(fd_, dump::descriptorOffset(p), SEEK_SET);
  if (!dump::readAll(fd_, stored.data(), stored.size())) {
    NODETRACE_DUMP_FAILURE(kReadBackLine, "(%s): Problems reading from file: %d (%s)");
    return false;
  }
  if (dump::imageDataOffset(stored) != static_cast<std::uint32_t>(realOffset)) {
    dump::setImageDataOffset(stored, static_cast<std::uint32_t>(realOffset));
    sys::lseek(fd_, dump::descriptorOffset(p), SEEK_SET);
    if (!dump::writeAll(fd_, stored.data(), stored.size())) {
      NODETRACE_DUMP_FAILURE(kOffsetWriteLine, "(%s): Problems writing to file: %d (%s)");
      return false;
    }
  }
  sys::lseek(fd_, 0, SEEK_END);

  const std::uint32_t contentsSize = descriptor != nullptr ? align32(loadShared(&descriptor->traceEntryContentsLength)) : 0;
  const Ring ring = descriptor != nullptr ? ringOf(descriptor) : Ring{};
  bool stuck = false;
  // Slots stepped over so far. Every entry of an intact user set matches
  // the step's filter, so its walk covers the ring at most once; a damaged
  // ring whose matching slots lie far apart would otherwise be walked round
  // and round, once per entry. The sets of the SRAM file may validly hold
  // entries of category 0, which the step skips, so they are not held to it.
  std::uint32_t walked = 0;
  for (unsigned k = 0; k < position.entries; ++k) {
    std::memset(contents_, 0, sizeof contents_);
    TraceEntryHeader buffer;
    TraceEntryHeader* entry = &buffer;
    // A user slot at an address the mapping cannot serve is no entry.
    if (!fromFile && userSlot(ring, position.startIndex) == nullptr) {
      entry = nullptr;
    } else {
      getTraceEntry(static_cast<int16_t>(position.setId), position.startIndex, &entry, contents_);
    }

    // The link is replaced where the entry lies: in the shared memory for a
    // user set, until it is put back after the header is written.
    std::uint16_t linkedSet = 0;
    if (entry != nullptr) {
      const std::uint16_t previous = loadShared(&entry->prevTraceSetId);
      if (isSramSet(previous)) {
        linkedSet = previous;
        storeShared(&entry->prevTraceSetId, withSramSets_ ? positionFor(previous) : kNoPosition);
      }
    }

    if (entry != nullptr && (debugMode_ == 1 || loadShared(&entry->severity) != kDebugSeverity)) {
      const dump::EntryImage image = dump::entryImage(loadRecord(entry), dump::TimeStamps::kAsStored);
      if (!dump::writeAll(fd_, image.data(), image.size())) {
        NODETRACE_DUMP_FAILURE(kEntryHeaderWriteLine, "(%s) Problems writing to file %s: %d (%s)", temporary_);
        return false;
      }
      if (linkedSet != 0) storeShared(&entry->prevTraceSetId, linkedSet);
      if (!dump::writeContents(fd_, contents_, contentsSize)) {
        NODETRACE_DUMP_FAILURE(kContentsWriteLine, "(%s) Problems writing to File %s: %d (%s)", temporary_);
        return false;
      }
    } else {
      // Left out: no entry, or a DBG entry not kept. Its replaced link is
      // not put back.
      --position.kept;
    }
    // Once a step finds no next entry (a damaged ring that claims more than
    // it holds), the index stays where it is: the same slot is fetched again
    // for the rest of the count, without walking the whole ring each time.
    if (!stuck) {
      const std::uint16_t stepped = position.startIndex;
      findNextMatch(descriptor, fromFile ? 1 : 0, &position.startIndex, kEverySeverity, kAllCategories);
      if (!fromFile && ring.capacity != 0) {
        walked += (static_cast<std::uint32_t>(position.startIndex) + ring.capacity - stepped) % ring.capacity;
      }
      stuck = position.startIndex == stepped || (!fromFile && walked > ring.capacity);
    }
  }

  if (debugMode_ == 0) {
    dump::setImageCounts(stored, position.kept);
    sys::lseek(fd_, dump::descriptorOffset(p), SEEK_SET);
    if (!dump::writeAll(fd_, stored.data(), stored.size())) {
      NODETRACE_DUMP_FAILURE(kCountsWriteLine, "(%s): Problems writing to file: %d (%s)");
      return false;
    }
    sys::lseek(fd_, 0, SEEK_END);
  }
  return true;
}

bool TraceDump::writeEntries() noexcept {
  for (unsigned p = 0; p < count_; ++p) {
    if (!writeEntriesOf(p)) return false;
  }
  return true;
}

// Closes the temporary file and copies it into place; the copy is made of
// a partial dump too.
void TraceDump::finish(const char* fileName) noexcept {
  omluCloseFile(fd_, kSourceFileName, "FILE", kCloseLine);
  fd_ = -1;
  char command[kCommandSize];
  // A longer command is cut to the buffer, as on the node.
  if (std::snprintf(command, sizeof command, "cp -f %s %s; rm -f %s", temporary_, fileName, temporary_) >= 0) {
    [[maybe_unused]] const int ignored = sys::system(command);
  }
}

int TraceDump::run(const char* fileName) noexcept {
  TraceMemoryHeader* h = header();
  if (h == nullptr) return TRACE_RC_FILE_ERROR;

  fd_ = omluOpenFileWithMode(temporary_, O_RDWR | O_CREAT | O_EXCL | O_SYNC, kTemporaryMode,
                             kSourceFileName, kOpenLine);
  if (fd_ < 0) {
    NODETRACE_DUMP_FAILURE(kCreateLine, "(%s) Can't create file %s: %d (%s)", temporary_);
    return TRACE_RC_FILE_ERROR;
  }
  sys::ftruncate(fd_, 0);

  for (std::size_t p = 0; p < kMaxPositions; ++p) positions_[p].setId = static_cast<std::uint16_t>(p);
  // A damaged count beyond the table is held to it.
  const unsigned storedSets = loadShared(&h->currentNumberTraceSets);
  countDamaged_ = storedSets > TRACE_MAX_TRACE_SETS;
  const unsigned userSets = std::min<unsigned>(storedSets, TRACE_MAX_TRACE_SETS);
  appendSramSets(h, userSets);

  const bool complete = writeHeader(h) && writeDescriptors() && writeEntries();
  finish(fileName);
  return complete ? 0 : TRACE_RC_FILE_ERROR;
}


}  // namespace
}  // namespace nt

extern "C" NODETRACE_API int32_t dumpTracesToFile(const char* fileName, uint32_t withSramSets,
                                                  uint32_t debugMode) {
  nt::initTraceSystem();
  if (fileName == nullptr) return TRACE_RC_FILE_ERROR;
  nt::TraceDump dump(withSramSets == 1, debugMode);
  return dump.run(fileName);
}
