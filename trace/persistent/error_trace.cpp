// The error trace writer: appends text entries to the first region of the
// SRAM file.
//
// The set's state (writeIndex, counts) lives only in the file's descriptor;
// every call reads it, advances it and writes it back, so each process goes
// on where the last writer of any process stopped, also across resets.
//
//   offset 4      descriptor "System"   <- read first, written last
//   offset 52     slot 0 (80-byte header + 128 bytes of text)
//   ...           slot writeIndex       <- header, then contents
//   52 + 737*208  slot 737, then the ring wraps to slot 0
//
// The slot is written before the descriptor that counts it
// (trace/persistent/sram_ring.h): the descriptor write is the commit point, so a kill
// or a failed write at any instant loses only the entry in flight, and a
// failed slot write leaves the ring unadvanced. Each write keeps its own
// message and line (872 slot header, 885 contents, 861 descriptor), and the
// bytes written are the same as when the descriptor went first.

#include "trace/persistent/error_trace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/message_source.h"
#include "common/node_names.h"
#include "common/scoped_handles.h"
#include "common/shared_fields.h"
#include "common/syscalls.h"
#include "common/test_points.h"
#include "nodetrace/nodetrace.h"
#include "trace/persistent/sram_ring.h"
#include "trace/store/damage_policy.h"
#include "trace/store/header_stamps.h"
#include "trace/store/node_sequence.h"
#include "trace/store/startup.h"
#include "trace/store/trace_lock.h"

namespace nt {
namespace {

constexpr std::uint32_t kContentsLength = TRACE_MAX_STRING_LENGTH;  // 128
constexpr off_t kMaxSramFileSize = 524288;
constexpr std::int32_t kErrorSeverity = TRACE_SEVERITY_ERR;
constexpr unsigned kSramOpenLine = 721;
constexpr unsigned kVersionReadLine = 730;
constexpr unsigned kDescriptorReadLine = 742;
constexpr unsigned kUnexpectedDescriptorLine = 754;
constexpr unsigned kNoRoomLine = 780;
constexpr unsigned kEmptyTextLine = 799;
constexpr unsigned kSramReopenLine = 850;
constexpr unsigned kDescriptorWriteLine = 861;
constexpr unsigned kSlotHeaderWriteLine = 872;
constexpr unsigned kSlotContentsWriteLine = 885;

}  // namespace

std::size_t writeTraceSetPrefix(char* contents, std::int16_t traceSetId) noexcept {
  const char* name = getTraceSetName(static_cast<std::uint16_t>(traceSetId));
  if (name == nullptr) return 0;
  const std::size_t length = strnlen(name, TRACE_SET_NAME_LENGTH);
  std::memcpy(contents, name, length);
  contents[length] = ':';
  contents[length + 1] = ' ';
  return length + 2;
}

int addErrorTrace(std::uint32_t type, std::uint32_t category, const char* fileName,
                  std::uint32_t line, const char* text, std::int16_t traceSetId,
                  std::int32_t severity) noexcept {
  initTraceSystem();
  int result = 0;
  TraceSetStruct descriptor{};
  TraceEntryHeader entry{};
  char version[4] = {};
  char contents[kContentsLength] = {};

  // Without trace memory there is no sequence number and no enable flag:
  // nothing is written.
  TraceMemoryHeader* h = header();
  if (h == nullptr || loadShared(&h->traceEnabled) == 0) return 0;
  if (type != TS_STRING) return severity == kErrorSeverity ? TRACE_RC_TYPE_MISMATCH : 0;
  if (text == nullptr) text = "";

  std::size_t length = std::strlen(text);
  std::size_t prefixLength = 0;
  if (severity != kErrorSeverity) {
    if (traceSetId >= 0 && traceSetId < loadShared(&h->currentNumberTraceSets)) {
      prefixLength = writeTraceSetPrefix(contents, traceSetId);
      length += prefixLength;
    } else if (traceSetId != SYSTEM_TRACE_SET_ID) {
      // An unknown set: the entry is kept, as an error without prefix.
      result = TRACE_RC_UNKNOWN_SET;
      severity = kErrorSeverity;
    }
  }
  length = std::min<std::size_t>(length, kContentsLength);

  TraceLockGuard lock;
  const char* path = nodeNames().sram;

  struct stat status {};
  if (sys::stat(path, &status) == -1) {
    std::fprintf(stderr, "'stat' failed for '%s': %s.\n", path, std::strerror(errno));
    return result;
  }
  if (static_cast<std::uint64_t>(status.st_size) > static_cast<std::uint64_t>(kMaxSramFileSize)) {
    return result;
  }

  {
    ScopedFd in(sys::open(path, O_RDONLY | O_SYNC | O_CLOEXEC));
    if (!in.valid()) {
      std::fprintf(stderr, "%s (%s,%u): File access error (%s) in process %s!\n", kSourceFileName,
                   "addErrorTrace", kSramOpenLine, std::strerror(errno), program_invocation_short_name);
      return TRACE_RC_FILE_ERROR;
    }
    if (sys::read(in.get(), version, sizeof version) < static_cast<ssize_t>(sizeof version)) {
      std::fprintf(stderr, "%s (%s,%u): File access error(%s)!\n", kSourceFileName, "addErrorTrace",
                   kVersionReadLine, std::strerror(errno));
      return TRACE_RC_FILE_ERROR;
    }
    sys::lseek(in.get(), TRACE_SRAM_SYSTEM_DESCRIPTOR_OFFSET, SEEK_SET);
    if (sys::read(in.get(), &descriptor, sizeof descriptor) < static_cast<ssize_t>(sizeof descriptor)) {
      std::fprintf(stderr, "%s (%s,%u): File access error(%s)!\n", kSourceFileName, "addErrorTrace",
                   kDescriptorReadLine, std::strerror(errno));
      return TRACE_RC_FILE_ERROR;
    }
  }

  // A descriptor that is not the one start-up writes means the file is not
  // in the expected form: start it afresh. This entry is lost.
  if (descriptor.traceEntryContentsLength != kContentsLength) {
    std::fprintf(stderr, "%s (%s,%u): createSramFile : traceEntryContentsLength:%d stroffset:%d\n",
                 kSourceFileName, "addErrorTrace", kUnexpectedDescriptorLine, descriptor.traceEntryContentsLength,
                 static_cast<int>(prefixLength));
    unlink(path);
    createSramFile(true);
    return TRACE_RC_FILE_ERROR;
  }

  NODETRACE_TEST_POINT(kSramDescriptorRead);
  // A slot outside the first region of the file (a damaged dataOffset or
  // writeIndex) is never written: nothing changes. Start-up rewrites the
  // descriptor after the next restart of the node.
  SramAppend append;
  if (!planSramAppend(SYSTEM_TRACE_SET_ID, descriptor, &append)) return TRACE_RC_FILE_ERROR;

  // The sequence number is taken here, so a rejected empty text below still
  // consumes it.
  const std::uint32_t sequenceNumber = takeSequenceNumber(h);
  NODETRACE_TEST_POINT(kSramSequenceTaken);

  if (kContentsLength <= prefixLength) {
    std::fprintf(stderr, "%s (%s,%u): negative  : traceEntryContentsLength:%d stroffset:%d\n",
                 kSourceFileName, "addErrorTrace", kNoRoomLine, static_cast<int>(kContentsLength),
                 static_cast<int>(prefixLength));
    return TRACE_RC_FILE_ERROR;
  }
  std::strncpy(contents + prefixLength, text, kContentsLength - prefixLength);
  contents[kContentsLength - 1] = '\0';
  while (length > 0 && contents[length - 1] == '\n') contents[--length] = '\0';
  if (length == 0) {
    std::fprintf(stderr, "%s (%s,%u): Ignoring attempt to add empty string as trace entry\n",
                 kSourceFileName, "addErrorTrace", kEmptyTextLine);
    return result;
  }

  stampFileName(entry, fileName);
  entry.line = static_cast<std::int32_t>(line);
  entry.severity = static_cast<std::uint8_t>(severity);
  entry.category = category;
  entry.sequenceNumber = sequenceNumber;
  entry.monotonicTime = monotonicTimestamp();
  entry.contentsLength = static_cast<std::uint16_t>(std::min<std::size_t>(length, kContentsLength - 1));
  entry.pid = static_cast<std::uint32_t>(getpid());
  entry.tid = static_cast<std::uint32_t>(gettid());
  const EntryLink previous = newestLink(h);
  entry.prevTraceSetId = previous.traceSetId;
  entry.prevEntryIndex = previous.entryIndex;
  entry.realTime = realTimestamp();

  ScopedFd out(sys::open(path, O_WRONLY | O_SYNC | O_CLOEXEC));
  if (!out.valid()) {
    std::fprintf(stderr, "%s (%s,%u): File access error (%s)!\n", kSourceFileName, "addErrorTrace",
                 kSramReopenLine, std::strerror(errno));
    return TRACE_RC_FILE_ERROR;
  }
  unsigned failedLine = 0;
  switch (commitSramAppend(out.get(), append, entry, contents, sizeof contents)) {
    case SramWrite::kNone: break;
    case SramWrite::kDescriptor: failedLine = kDescriptorWriteLine; break;
    case SramWrite::kSlotHeader: failedLine = kSlotHeaderWriteLine; break;
    case SramWrite::kSlotContents: failedLine = kSlotContentsWriteLine; break;
  }
  if (failedLine != 0) {
    std::fprintf(stderr, "%s (%s,%u): Error accessing file system (%s)!\n", kSourceFileName, "addErrorTrace",
                 failedLine, std::strerror(errno));
    return TRACE_RC_FILE_ERROR;
  }

  linkNewest(h, {SYSTEM_TRACE_SET_ID, append.slotIndex});
  return result;
}

}  // namespace nt
