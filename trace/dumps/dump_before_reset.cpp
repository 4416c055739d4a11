// The dump before reset: the newest entries of the user trace sets, chosen
// by severity within 972800 bytes, written in the dump file layout
// (dump_records.h) just before the node restarts.
//
// Selection, per user set, in four severity streams, most important first:
//
//   stream   0     1     2     3
//   severity WAR   NOT   INF   DBG     (ERR entries are not selected)
//
// Each stream asks the entry search for the newest entries of its severity
// across all sets while the running size (header, descriptors, and a slot
// size per entry taken) stays below the limit; the first entry that does not
// fit ends the selection for every later stream. The tables of start slots
// and counts are stream-major: stream k of set i is slot k * n + i.
//
// Writing, per set, merges the set's four streams by sequence number, so a
// set's entries come out in the order they were written.
//
// With viaTempFile 0 the node's severity filter is 128 (ERR only) while the
// dump runs and is put back on every path; the old dump files of the slot
// announced in "/tmp/oldTrace" are removed first.

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "common/message_source.h"
#include "common/node_names.h"
#include "common/scoped_handles.h"
#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "nodeplatform/nodeplatform.h"
#include "nodetrace/nodetrace.h"
#include "trace/dumps/dump_records.h"
#include "trace/store/ring_slots.h"
#include "trace/store/startup.h"

namespace nt {
namespace {

constexpr const char* kFunction = "dumpTracesBeforeReset";
constexpr std::uint32_t kSizeLimit = 972800;
constexpr std::uint8_t kDumpSeverityMask = TRACE_SEVERITY_ERR;
constexpr unsigned kStreams = 4;
constexpr std::uint8_t kStreamSeverity[kStreams] = {TRACE_SEVERITY_WAR, TRACE_SEVERITY_NOT,
                                                     TRACE_SEVERITY_INF, TRACE_SEVERITY_DBG};
constexpr std::uint32_t kNoKey = 0xFFFFFFFFu;
constexpr std::uint32_t kAllCategories = 0xFFFFFFFFu;
constexpr std::int32_t kCountBytes = 0;
constexpr mode_t kOutputMode = 0666;
constexpr std::size_t kOutputNameSize = 40;  // at most 39 characters of fileName
constexpr std::size_t kCommandSize = 256;

constexpr int kOldTraceOpenLine = 3483;
constexpr int kOpenLine = 3514;
constexpr std::int32_t kCreateLine = 3517;
constexpr std::int32_t kHeaderWriteLine = 3576;
constexpr std::int32_t kDescriptorWriteLine = 3622;
constexpr std::int32_t kReadBackLine = 3647;
constexpr std::int32_t kOffsetWriteLine = 3674;
constexpr std::int32_t kEntryHeaderWriteLine = 3707;
constexpr std::int32_t kContentsWriteLine = 3720;
constexpr int kCloseLine = 3728;

// The stream tables of every set: start slot and remaining count.
struct Streams {
  unsigned sets = 0;
  std::uint16_t start[kStreams * TRACE_MAX_TRACE_SETS] = {};
  std::uint16_t count[kStreams * TRACE_MAX_TRACE_SETS] = {};
};

class Directory {
 public:
  explicit Directory(const char* path) noexcept : dir_(opendir(path)) {}
  ~Directory() {
    if (dir_ != nullptr) closedir(dir_);
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  DIR* get() const noexcept { return dir_; }

 private:
  DIR* dir_;
};

// The number in a dump file's name, read as the format "ErrorTrace.%u" or
// "TraceLog.%u" reads it. A name that contains the word without beginning
// with it, or has no number after it, yields none and is left alone.
bool dumpFileNumber(const char* name, unsigned& number) noexcept {
  if (std::strstr(name, "ErrorTrace.") != nullptr) return std::sscanf(name, "ErrorTrace.%u", &number) == 1;
  if (std::strstr(name, "TraceLog.") != nullptr) return std::sscanf(name, "TraceLog.%u", &number) == 1;
  return false;
}

// Deletes the "ErrorTrace." and "TraceLog." files of a slot number in the
// logs directory. Nothing is reported.
void removeOldDumpFiles(std::uint16_t slotNumber) noexcept {
  const char* logsDir = nodeNames().logsDir;
  Directory dir(logsDir);
  if (dir.get() == nullptr) return;
  initTraceSystem();
  // Room for the directory and any name it can hold.
  char path[kMaxNodeName + NAME_MAX + 2];
  while (const dirent* entry = readdir(dir.get())) {
    unsigned number = 0;
    if (!dumpFileNumber(entry->d_name, number) || number != slotNumber) continue;
    std::snprintf(path, sizeof path, "%s/%s", logsDir, entry->d_name);
    unlink(path);
  }
}

// "/tmp/oldTrace" names, in its first two bytes, the slot whose dump files
// are about to be replaced. It is removed once read.
void removeFilesOfReusedSlot() noexcept {
  const char* announcement = nodeNames().oldTrace;
  ScopedFd fd(omluOpenFile(announcement, O_RDONLY, kSourceFileName, kOldTraceOpenLine));
  if (!fd.valid()) return;
  std::uint8_t bytes[sizeof(std::uint16_t)] = {};
  const ssize_t got = sys::read(fd.get(), bytes, sizeof bytes);
  fd.reset();
  if (got == static_cast<ssize_t>(sizeof bytes)) {
    std::uint16_t slotNumber;  // in the node's byte order
    std::memcpy(&slotNumber, bytes, sizeof slotNumber);
    removeOldDumpFiles(slotNumber);
  }
  unlink(announcement);
}

// Delivers the oldest remaining selected entry of set i across its four
// streams: its address in the shared memory in *entry, its contents in the
// buffer. 0 when the set has nothing left.
int nextEntryToDump(unsigned i, Streams& streams, TraceEntryHeader** entry, std::uint8_t* contents,
                    const TraceSetStruct* descriptor) noexcept {
  initTraceSystem();
  unsigned slots[kStreams];
  bool remaining = false;
  for (unsigned k = 0; k < kStreams; ++k) {
    slots[k] = k * streams.sets + i;
    remaining = remaining || streams.count[slots[k]] != 0;
  }
  if (!remaining) return 0;

  const Ring ring = ringOf(descriptor);
  std::memset(contents, 0, std::min<std::size_t>(ring.maxLength, dump::kContentsBufferSize));

  std::uint32_t key[kStreams];
  std::uint8_t* current[kStreams] = {};
  for (unsigned k = 0; k < kStreams; ++k) {
    key[k] = kNoKey;
    if (streams.count[slots[k]] == 0) continue;
    current[k] = userSlot(ring, streams.start[slots[k]]);
    if (current[k] == nullptr) {
      // A slot the mapping cannot serve (a damaged descriptor) ends its
      // stream.
      streams.count[slots[k]] = 0;
      continue;
    }
    key[k] = loadShared(&reinterpret_cast<const TraceEntryHeader*>(current[k])->sequenceNumber);
  }

  unsigned chosen;
  if (key[0] < key[2] && key[0] < key[3] && key[0] < key[1]) {
    chosen = 0;
  } else if (key[1] < key[2] && key[1] < key[3]) {
    chosen = 1;
  } else if (key[2] < key[3]) {
    chosen = 2;
  } else if (current[3] != nullptr) {
    chosen = 3;
  } else {
    return 0;
  }

  std::uint8_t* slot = current[chosen];
  auto* header = reinterpret_cast<TraceEntryHeader*>(slot);
  std::uint16_t length = loadShared(&header->contentsLength);
  if (length > ring.maxLength) {
    std::fprintf(stderr,
                 "%s: *** Contents length of entry is %u > max entry length of %u, cutting to prevent "
                 "memory fault! ***\n",
                 "nextEntryToDump", static_cast<unsigned>(length), static_cast<unsigned>(ring.maxLength));
    storeShared(&header->contentsLength, ring.maxLength);
    length = ring.maxLength;
  }
  *entry = header;
  std::memcpy(contents, slot + TRACE_ENTRY_HEADER_SIZE,
              std::min<std::size_t>(length, dump::kContentsBufferSize));
  std::uint16_t& count = streams.count[slots[chosen]];
  --count;
  if (count != 0) {
    std::uint16_t& start = streams.start[slots[chosen]];
    const std::uint16_t stepped = start;
    findNextMatch(descriptor, 0, &start, kStreamSeverity[chosen], kAllCategories);
    // No next entry of the stream (a ring changed or damaged since the
    // selection): the stream ends rather than deliver the same slot again.
    if (start == stepped) count = 0;
  }
  return 1;
}

class ResetDump {
 public:
  ResetDump(const char* fileName, bool viaTempFile) noexcept
      : fileName_(fileName), viaTempFile_(viaTempFile) {}

  int run() noexcept;

 private:
  void select() noexcept;
  bool writeHeader(const TraceMemoryHeader* h) noexcept;
  bool writeDescriptors() noexcept;
  bool writeEntries() noexcept;
  bool writeEntriesOf(unsigned i) noexcept;
  void finish(std::uint8_t savedMask) noexcept;

  const char* fileName_;
  bool viaTempFile_;
  int fd_ = -1;
  Streams streams_;
  // Each entry clears only its set's maximum length before its contents are
  // copied in, and the file takes that length rounded up to 4: up to three
  // bytes of the entry before can follow a shorter one. The buffer starts
  // zeroed, so they never come from anywhere else.
  std::uint8_t contents_[dump::kContentsBufferSize] = {};
};

void ResetDump::select() noexcept {
  const unsigned n = streams_.sets;
  std::int16_t ids[TRACE_MAX_TRACE_SETS];
  for (unsigned i = 0; i < n; ++i) ids[i] = static_cast<std::int16_t>(i);
  std::uint32_t size = dump::descriptorOffset(n);
  for (unsigned k = 0; k < kStreams; ++k) {
    // The first entry that does not fit ends the selection: the search then
    // leaves the running size at the limit.
    if (k > 0 && size >= kSizeLimit) break;
    findMatchingTraceEntries(static_cast<std::uint8_t>(n), ids, streams_.start + k * n, streams_.count + k * n,
                             &size, kStreamSeverity[k], nullptr, kSizeLimit, kCountBytes);
  }
}

bool ResetDump::writeHeader(const TraceMemoryHeader* h) noexcept {
  TraceMemoryHeader copy = loadRecord(h);
  // A damaged count above the table counts the descriptors this file holds.
  if (copy.currentNumberTraceSets > TRACE_MAX_TRACE_SETS) {
    copy.currentNumberTraceSets = static_cast<std::uint8_t>(streams_.sets);
  }
  const dump::HeaderImage image = dump::headerImage(copy);
  if (dump::writeAll(fd_, image.data(), image.size())) return true;
  NODETRACE_DUMP_FAILURE(kHeaderWriteLine, "(%s): Problems writing to file: %d (%s)");
  return false;
}

bool ResetDump::writeDescriptors() noexcept {
  const unsigned n = streams_.sets;
  std::uint64_t offset = dump::descriptorOffset(n);
  for (unsigned i = 0; i < n; ++i) {
    const TraceSetStruct* descriptor = getTraceSetStruct(static_cast<std::uint16_t>(i));
    unsigned total = 0;
    for (unsigned k = 0; k < kStreams; ++k) total += streams_.count[k * n + i];
    if (descriptor == nullptr) continue;
    TraceSetStruct copy = loadRecord(descriptor);
    copy.maxNumberEntries = static_cast<std::uint16_t>(total);
    copy.curentNumberEntries = static_cast<std::uint16_t>(total);
    copy.writeIndex = 0;
    copy.dataOffset = static_cast<std::uint32_t>(offset);
    offset += static_cast<std::uint64_t>(getTraceEntrySize(copy.traceEntryContentsLength)) * total;
    const dump::DescriptorImage image = dump::descriptorImage(copy);
    if (!dump::writeAll(fd_, image.data(), image.size())) {
      NODETRACE_DUMP_FAILURE(kDescriptorWriteLine, "(%s): Problems writing to file: %d (%s)");
      return false;
    }
  }
  return true;
}

bool ResetDump::writeEntriesOf(unsigned i) noexcept {
  const TraceSetStruct* descriptor = getTraceSetStruct(static_cast<std::uint16_t>(i));
  const off_t realOffset = sys::lseek(fd_, 0, SEEK_CUR);
  dump::DescriptorImage stored;
  sys::lseek(fd_, dump::descriptorOffset(i), SEEK_SET);
  if (!dump::readAll(fd_, stored.data(), stored.size())) {
    NODETRACE_DUMP_FAILURE(kReadBackLine, "(%s): Problems reading from file: %d (%s)");
    return false;
  }
  if (dump::imageDataOffset(stored) != static_cast<std::uint32_t>(realOffset)) {
    // The stored offset is printed as it lies in the file, in network byte
    // order.
    std::fprintf(stderr, "TS %d: offset mismatch (computed: %u, real: %u), updating\n", static_cast<int>(i),
                 dump::imageRawDataOffset(stored), static_cast<unsigned>(realOffset));
    dump::setImageDataOffset(stored, static_cast<std::uint32_t>(realOffset));
    sys::lseek(fd_, dump::descriptorOffset(i), SEEK_SET);
    if (!dump::writeAll(fd_, stored.data(), stored.size())) {
      NODETRACE_DUMP_FAILURE(kOffsetWriteLine, "(%s): Problems reading from file: %d (%s)");
      return false;
    }
  }
  sys::lseek(fd_, 0, SEEK_END);
  if (descriptor == nullptr) return true;

  const std::uint32_t contentsSize = align32(loadShared(&descriptor->traceEntryContentsLength));
  TraceEntryHeader* entry = nullptr;
  while (nextEntryToDump(i, streams_, &entry, contents_, descriptor) != 0) {
    const dump::EntryImage image = dump::entryImage(loadRecord(entry), dump::TimeStamps::kConverted);
    if (!dump::writeAll(fd_, image.data(), image.size())) {
      NODETRACE_DUMP_FAILURE(kEntryHeaderWriteLine, "(%s): Problems writing to file: %d (%s)");
      return false;
    }
    if (!dump::writeContents(fd_, contents_, contentsSize)) {
      NODETRACE_DUMP_FAILURE(kContentsWriteLine, "(%s): Problems writing to file: %d (%s)");
      return false;
    }
  }
  return true;
}

bool ResetDump::writeEntries() noexcept {
  for (unsigned i = 0; i < streams_.sets; ++i) {
    if (!writeEntriesOf(i)) return false;
  }
  return true;
}

// The common end of every path: the copy of a dump made via the temporary
// file (partial ones too), or the severity filter put back.
void ResetDump::finish(std::uint8_t savedMask) noexcept {
  if (viaTempFile_) {
    const char* temporary = nodeNames().tmpTraceDump;
    char command[kCommandSize];
    // A longer command is cut to the buffer, as on the node.
    if (std::snprintf(command, sizeof command, "cp %s %s; rm -f %s", temporary, fileName_, temporary) >= 0) {
      [[maybe_unused]] const int ignored = sys::system(command);
    }
  } else {
    storeShared(&header()->severityMask, savedMask);
  }
}

int ResetDump::run() noexcept {
  TraceMemoryHeader* h = header();
  if (h == nullptr) return TRACE_RC_FILE_ERROR;
  // A damaged count beyond the table is held to it.
  streams_.sets = std::min<unsigned>(loadShared(&h->currentNumberTraceSets), TRACE_MAX_TRACE_SETS);
  const std::uint8_t savedMask = loadShared(&h->severityMask);

  char outputName[kOutputNameSize] = {};
  const char* output = nodeNames().tmpTraceDump;
  if (!viaTempFile_) {
    storeShared(&h->severityMask, kDumpSeverityMask);
    removeFilesOfReusedSlot();
    std::snprintf(outputName, sizeof outputName, "%s", fileName_);
    output = outputName;
  }

  fd_ = omluOpenFileWithMode(output, O_RDWR | O_CREAT | O_SYNC, kOutputMode, kSourceFileName, kOpenLine);
  if (fd_ < 0) {
    NODETRACE_DUMP_FAILURE(kCreateLine, "(%s) Can't create file %s: %d (%s)", fileName_);
    finish(savedMask);
    return TRACE_RC_FILE_ERROR;
  }
  sys::ftruncate(fd_, 0);

  select();
  const bool complete = writeHeader(h) && writeDescriptors() && writeEntries();
  omluCloseFile(fd_, kSourceFileName, "FILE", kCloseLine);
  fd_ = -1;
  finish(savedMask);
  return complete ? 0 : TRACE_RC_FILE_ERROR;
}


}  // namespace
}  // namespace nt

extern "C" NODETRACE_API int32_t dumpTracesBeforeReset(const char* fileName, uint32_t viaTempFile) {
  nt::initTraceSystem();
  if (fileName == nullptr) return TRACE_RC_FILE_ERROR;
  nt::ResetDump dump(fileName, viaTempFile != 0);
  return dump.run();
}
