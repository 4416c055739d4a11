// The writers of the remote unit's trace records.
//
// A remote unit's records reach the node by a transport outside the library
// and are stored here on its behalf, with the process and thread ids and the
// two clock readings that the unit gave, not the local ones:
//
// - addRemoteEntry writes into the ring of a user set in shared memory,
//   without the trace lock, like the local entry writer. A remote record
//   stays out of the node-wide chain: it links to the newest local entry,
//   but the header's (lastTraceSetId, lastEntryIndex) is left pointing at
//   that entry, so the next local entry links past the remote one.
// - addRemoteSystemEntry appends to "NVJ_System" in the second region of the
//   SRAM file, under the trace lock, as the error trace writer appends to
//   "System":
//
//     offset 153600  descriptor "NVJ_System"  <- read first, written last
//     offset 153648  slot 0 (80-byte header + 128 contents bytes)
//     ...            slot writeIndex           <- header, then contents
//
//   The slot is written before the descriptor that counts it
//   (trace/persistent/sram_ring.h): a kill or a failed write at any instant loses only
//   the record in flight, and a failed slot write leaves the ring
//   unadvanced. Each write keeps its own message and line (3996 slot
//   header, 4008 contents, 3985 descriptor); the bytes are unchanged.
//
//   It ignores the trace enable flag and the masks: the remote unit's
//   system records are kept while local tracing is off.
//
// Every stored record is also sent to syslog as "[PID:<pid>][TID:<tid>] <text>"
// with the remote ids and the caller's text.

#include "trace/persistent/remote_entries.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "common/errno_guard.h"
#include "common/message_source.h"
#include "common/node_names.h"
#include "common/scoped_handles.h"
#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "common/test_points.h"
#include "nodetrace/nodetrace.h"
#include "trace/persistent/error_trace.h"
#include "trace/persistent/sram_ring.h"
#include "trace/store/header_stamps.h"
#include "trace/store/node_sequence.h"
#include "trace/store/registry.h"
#include "trace/store/ring_slots.h"
#include "trace/store/slot_writes.h"
#include "trace/store/startup.h"
#include "trace/store/trace_lock.h"
#include "trace/store/user_ring.h"

namespace nt {
namespace {

constexpr char kRemoteSystemName[] = "NVJ_System";
constexpr char kRemoteMarker[] = "NVJ_";
constexpr char kEmptyEntryText[] = "Trying to add empty trace entry";
constexpr char kRecordLine[] = "[PID:%d][TID:%d] %s";
constexpr std::size_t kContentsLength = TRACE_MAX_STRING_LENGTH;  // 128
constexpr std::size_t kMaxTextLength = TRACE_MAX_STRING_LENGTH;   // strnlen limit of text sets
constexpr std::size_t kFileNameLength = TRACE_FILE_NAME_LENGTH - 1;
constexpr off_t kMaxSramFileSize = 524288;
constexpr unsigned kSramOpenLine = 3870;
constexpr unsigned kDescriptorReadLine = 3880;
constexpr unsigned kMissingSetLine = 3901;
constexpr unsigned kEmptyTextLine = 3940;
constexpr unsigned kSramReopenLine = 3974;
constexpr unsigned kDescriptorWriteLine = 3985;
constexpr unsigned kSlotHeaderWriteLine = 3996;
constexpr unsigned kSlotContentsWriteLine = 4008;

// Set once this process has recorded that "NVJ_System" is missing; later
// calls only log to syslog.
std::atomic<bool> g_missingRemoteSetReported{false};

// A clock reading of the remote unit, two host-order words (seconds,
// nanoseconds), as stored: big-endian. A missing reading is stored as zero.
TraceTimeStamp remoteStamp(const std::uint32_t* words) noexcept {
  if (words == nullptr) return {0, 0};
  return {htonl(words[0]), htonl(words[1])};
}

struct RemoteRecord {
  std::int16_t traceSetId;
  std::uint32_t severity;
  std::uint32_t category;
  const char* fileName;
  std::uint32_t line;
  std::int32_t pid;
  std::int32_t tid;
  const std::uint32_t* realTime;
  const std::uint32_t* monotonicTime;
};

// ---- addRemoteEntry ---------------------------------------------------------

int remoteSystemEntry(RemoteRecord r, const char* text) noexcept;

int remoteEntry(const RemoteRecord& r, std::uint16_t length, const void* data) noexcept {
  initTraceSystem();
  TraceMemoryHeader* h = header();
  if (h == nullptr || loadShared(&h->traceEnabled) == 0) return 0;

  const auto id = static_cast<std::uint16_t>(r.traceSetId);
  if (isValidTraceSetId(id) == 0) return TRACE_RC_UNKNOWN_SET;
  // The two SRAM sets have no ring in shared memory; their descriptor is a
  // snapshot of the file whose offsets mean nothing in the mapping. Their
  // records go through addRemoteSystemEntry.
  if (isSramSet(id)) return TRACE_RC_NO_DESCRIPTOR;
  TraceSetStruct* descriptor = getTraceSetStruct(id);
  if (descriptor == nullptr) return TRACE_RC_NO_DESCRIPTOR;

  if ((r.severity & loadShared(&h->severityMask)) == 0 ||
      (r.category & loadShared(&descriptor->categoryMask)) == 0) {
    return 0;
  }

  const bool textSet = loadShared(&descriptor->type) == TS_STRING;
  const std::uint16_t maxLength = loadShared(&descriptor->traceEntryContentsLength);
  std::size_t stored = 0;
  if (data != nullptr) stored = textSet ? strnlen(static_cast<const char*>(data), kMaxTextLength) : length;
  if (stored > maxLength) stored = maxLength;
  if (stored == 0) {
    RemoteRecord notice = r;
    notice.severity = TRACE_SEVERITY_NOT;
    notice.category = TRACE_CATEGORY_LIBRARY;
    remoteSystemEntry(notice, kEmptyEntryText);
    return 0;
  }

  // Appended by the ring module, as the entry writer appends: a damaged
  // descriptor whose slot the mapping cannot serve (damage_policy.h) drops
  // the record before anything changed. A remote record links to the newest
  // entry but stays out of the chain.
  Ring ring;
  ring.capacity = loadShared(&descriptor->maxNumberEntries);
  ring.maxLength = maxLength;
  ring.dataOffset = loadShared(&descriptor->dataOffset);
  ring.slotSize = slotSizeFor(maxLength);
  const std::size_t fileNameLength = r.fileName != nullptr ? strnlen(r.fileName, kFileNameLength) : 0;
  const EntryFields fields{r.fileName != nullptr ? r.fileName : "",
                           fileNameLength,
                           static_cast<std::int32_t>(r.line),
                           static_cast<std::uint32_t>(r.pid),
                           static_cast<std::uint32_t>(r.tid),
                           r.severity,
                           r.category,
                           remoteStamp(r.monotonicTime),
                           remoteStamp(r.realTime)};
  const bool appended = appendEntry(h, descriptor, ring, id, fields, Link::kBehindNewest,
                                  [&](std::uint8_t* contents) noexcept {
    auto contentsLength = static_cast<std::uint16_t>(stored);
    if (!textSet) {
      copyToSlot(contents, data, stored);
      return contentsLength;
    }
    // Zero-padded over the set's maximum; a text that fills it keeps no
    // terminator. One trailing line feed is dropped.
    const char* text = static_cast<const char*>(data);
    const std::size_t copied = strnlen(text, maxLength);
    copyToSlot(contents, text, copied);
    zeroSlot(contents + copied, maxLength - copied);
    if (text[stored - 1] == '\n') {
      storeShared(contents + stored - 1, std::uint8_t{0});
      --contentsLength;
    }
    return contentsLength;
  });
  if (!appended) return 0;

  const int priority = severityToSyslogPriority(r.severity);
  if (textSet) {
    sys::syslog(priority, kRecordLine, r.pid, r.tid, static_cast<const char*>(data));
  } else {
    // The bytes of a dump are logged as text too, but never read past the
    // length the caller gave.
    sys::syslog(priority, "[PID:%d][TID:%d] %.*s", r.pid, r.tid, static_cast<int>(length),
                static_cast<const char*>(data));
  }
  return 0;
}

// ---- addRemoteSystemEntry ---------------------------------------------------

// The syslog line of a remote system record, written when the scope that
// holds it ends: after the file is closed, before the trace lock is
// released. One path, the first report of a missing region, cancels it.
class RecordLog {
 public:
  RecordLog(const RemoteRecord& r, const char* text) noexcept
      : priority_(severityToSyslogPriority(r.severity)), pid_(r.pid), tid_(r.tid), text_(text) {}
  ~RecordLog() {
    if (!cancelled_) sys::syslog(priority_, kRecordLine, pid_, tid_, text_);
  }
  RecordLog(const RecordLog&) = delete;
  RecordLog& operator=(const RecordLog&) = delete;
  void cancel() noexcept { cancelled_ = true; }

 private:
  int priority_;
  std::int32_t pid_;
  std::int32_t tid_;
  const char* text_;
  bool cancelled_ = false;
};

struct LockedOutcome {
  int result;
  bool reportMissingSet;
};

// The file work of addRemoteSystemEntry, under the trace lock. prefixLength
// bytes of contents hold the set name prefix; length counts them.
LockedOutcome appendRemoteSystemRecord(const RemoteRecord& r, const char* text, char (&contents)[kContentsLength],
                                       std::size_t prefixLength, std::uint8_t length, int result) noexcept {
  TraceSetStruct descriptor{};
  TraceEntryHeader entry{};

  // Destroyed in reverse order: the file is closed, the record logged, the
  // lock released.
  TraceLockGuard lock;
  RecordLog log(r, text);
  const char* path = nodeNames().sram;

  struct stat status {};
  if (sys::stat(path, &status) == -1) {
    std::fprintf(stderr, "'stat' failed for '%s': %s.\n", path, std::strerror(errno));
    return {result, false};
  }
  if (static_cast<std::uint64_t>(status.st_size) > static_cast<std::uint64_t>(kMaxSramFileSize)) {
    return {result, false};
  }

  {
    ScopedFd in(sys::open(path, O_RDONLY | O_SYNC | O_CLOEXEC));
    if (!in.valid()) {
      std::fprintf(stderr, "%s(%u): File access error for %s: %s!\n", kSourceFileName, kSramOpenLine, path,
                   std::strerror(errno));
      return {TRACE_RC_FILE_ERROR, false};
    }
    sys::lseek(in.get(), TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET, SEEK_SET);
    if (sys::read(in.get(), &descriptor, sizeof descriptor) < static_cast<ssize_t>(sizeof descriptor)) {
      std::fprintf(stderr, "%s(%u): Error reading %s: %s!\n", kSourceFileName, kDescriptorReadLine, path,
                   std::strerror(errno));
      return {TRACE_RC_FILE_ERROR, false};
    }
  }

  if (!sameTraceSetName(descriptor.name, kRemoteSystemName)) {
    if (g_missingRemoteSetReported.exchange(true, std::memory_order_relaxed)) {
      return {TRACE_RC_NO_DESCRIPTOR, false};
    }
    // The first time, the record goes to the error trace set instead of
    // syslog; that writer takes the lock itself, after this one is released.
    log.cancel();
    return {TRACE_RC_NO_DESCRIPTOR, true};
  }

  // Without trace memory there is no sequence number to give: nothing is
  // stored.
  TraceMemoryHeader* h = header();
  if (h == nullptr) return {result, false};

  NODETRACE_TEST_POINT(kSramDescriptorRead);
  const std::uint16_t maxLength = descriptor.traceEntryContentsLength;
  // A slot outside the second region of the file (a damaged dataOffset or
  // writeIndex) is never written: nothing changes, the record reaches
  // syslog only.
  SramAppend append;
  if (!planSramAppend(REMOTE_SYSTEM_TRACE_SET_ID, descriptor, &append)) return {TRACE_RC_FILE_ERROR, false};
  // Taken here, so a rejected empty text below still consumes it.
  const std::uint32_t sequenceNumber = takeSequenceNumber(h);
  NODETRACE_TEST_POINT(kSramSequenceTaken);

  // The text itself goes into the contents only for a set whose entries are
  // shorter than 128 bytes. The region is created with 128, so there the
  // contents keep the prefix alone and the text reaches syslog only.
  if (maxLength < kContentsLength && maxLength > prefixLength) {
    std::strncpy(contents + prefixLength, text, maxLength - prefixLength);
  }
  contents[kContentsLength - 1] = '\0';
  while (length > 0 && contents[length - 1] == '\n') contents[--length] = '\0';
  if (length == 0) {
    std::fprintf(stderr, "%s (%s,%u): Ignoring attempt to add empty string as trace entry\n",
                 kSourceFileName, "addRemoteSystemEntry", kEmptyTextLine);
    return {result, false};
  }

  stampFileName(entry, r.fileName);
  entry.line = static_cast<std::int32_t>(r.line);
  entry.pid = static_cast<std::uint32_t>(r.pid);
  entry.tid = static_cast<std::uint32_t>(r.tid);
  entry.severity = static_cast<std::uint8_t>(r.severity);
  entry.category = r.category;
  entry.sequenceNumber = sequenceNumber;
  entry.monotonicTime = remoteStamp(r.monotonicTime);
  entry.realTime = remoteStamp(r.realTime);
  entry.contentsLength = length;
  const EntryLink previous = newestLink(h);
  entry.prevTraceSetId = previous.traceSetId;
  entry.prevEntryIndex = previous.entryIndex;

  ScopedFd out(sys::open(path, O_WRONLY | O_SYNC | O_CLOEXEC));
  if (!out.valid()) {
    std::fprintf(stderr, "%s(%u): Can't open %s for writing: %s!\n", kSourceFileName, kSramReopenLine, path,
                 std::strerror(errno));
    return {TRACE_RC_FILE_ERROR, false};
  }
  // Contents of a set whose maximum exceeds the working buffer are not
  // written at all.
  const std::size_t contentsSize = maxLength <= kContentsLength ? maxLength : 0;
  unsigned failedLine = 0;
  switch (commitSramAppend(out.get(), append, entry, contents, contentsSize)) {
    case SramWrite::kNone: break;
    case SramWrite::kDescriptor: failedLine = kDescriptorWriteLine; break;
    case SramWrite::kSlotHeader: failedLine = kSlotHeaderWriteLine; break;
    case SramWrite::kSlotContents: failedLine = kSlotContentsWriteLine; break;
  }
  if (failedLine != 0) {
    std::fprintf(stderr, "%s(%u): Can't write to %s: %s!\n", kSourceFileName, failedLine, path,
                 std::strerror(errno));
    return {TRACE_RC_FILE_ERROR, false};
  }

  linkNewest(h, {REMOTE_SYSTEM_TRACE_SET_ID, append.slotIndex});
  return {result, false};
}

int remoteSystemEntry(RemoteRecord r, const char* text) noexcept {
  initTraceSystem();
  int result = 0;
  char contents[kContentsLength] = {};
  if (text == nullptr) text = "";
  // The length is kept in 8 bits: only strlen modulo 256 counts, and the
  // prefix is added to that.
  auto length = static_cast<std::uint8_t>(std::strlen(text));

  std::size_t prefixLength = 0;
  if (r.severity != TRACE_SEVERITY_ERR) {
    const TraceMemoryHeader* h = header();
    const int userSets = h != nullptr ? loadShared(&h->currentNumberTraceSets) : 0;
    // Signed comparison: a negative id passes here and finds no name.
    if (r.traceSetId < userSets) {
      prefixLength = writeTraceSetPrefix(contents, r.traceSetId);
      length = static_cast<std::uint8_t>(length + prefixLength);
    } else if (r.traceSetId != REMOTE_SYSTEM_TRACE_SET_ID) {
      // Unknown origin, the system set 255 included: kept, as an error.
      result = TRACE_RC_UNKNOWN_SET;
      r.severity = TRACE_SEVERITY_ERR;
    }
  }
  if (length > kContentsLength) length = static_cast<std::uint8_t>(kContentsLength);

  const LockedOutcome outcome = appendRemoteSystemRecord(r, text, contents, prefixLength, length, result);
  if (outcome.reportMissingSet) {
    char message[kContentsLength];
    std::snprintf(message, sizeof message, "%s: trace set struct for %s not found", "addRemoteSystemEntry",
                  kRemoteSystemName);
    addErrorTrace(TS_STRING, TRACE_CATEGORY_LIBRARY, kSourceFileName, kMissingSetLine, message, SYSTEM_TRACE_SET_ID,
                  static_cast<std::int32_t>(TRACE_SEVERITY_ERR));
  }
  return outcome.result;
}

}  // namespace

void forgetMissingRemoteSetReport() noexcept {
  g_missingRemoteSetReported.store(false, std::memory_order_relaxed);
}

}  // namespace nt

extern "C" {

NODETRACE_API int addRemoteEntry(int16_t traceSetId, uint32_t severity, uint32_t category,
                                 const char* fileName, uint32_t line, uint16_t length, const void* data,
                                 int32_t pid, int32_t tid, const uint32_t* realTime,
                                 const uint32_t* monotonicTime) {
  const nt::ErrnoGuard keepErrno;
  return nt::remoteEntry({traceSetId, severity, category, fileName, line, pid, tid, realTime, monotonicTime},
                         length, data);
}

NODETRACE_API int addRemoteSystemEntry(int16_t traceSetId, uint32_t severity, uint32_t category,
                                       const char* fileName, uint32_t line, const char* text, int32_t pid,
                                       int32_t tid, const uint32_t* realTime, const uint32_t* monotonicTime) {
  const nt::ErrnoGuard keepErrno;
  return nt::remoteSystemEntry({traceSetId, severity, category, fileName, line, pid, tid, realTime, monotonicTime},
                               text);
}

NODETRACE_API int isRemoteTraceSet(int16_t traceSetId) {
  const nt::ErrnoGuard keepErrno;
  nt::initTraceSystem();
  if (needsRemoteTraceSupport() != 1) return 0;
  const char* name = getTraceSetName(static_cast<uint16_t>(traceSetId));
  if (name == nullptr) return 0;
  // The name of a user set is copied out of the shared descriptor with a
  // terminator, so a damaged name cannot lead the search past it.
  char copy[TRACE_SET_NAME_LENGTH + 1] = {};
  std::memcpy(copy, name, strnlen(name, TRACE_SET_NAME_LENGTH));
  return std::strstr(copy, nt::kRemoteMarker) != nullptr ? 1 : 0;
}

}  // extern "C"
