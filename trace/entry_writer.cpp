// The entry writer: the one way an application's trace reaches the ring of a
// user trace set in shared memory.
//
// An entry is written into the next slot of its set's ring without a lock,
// stamped and linked to the entry written just before it anywhere in the
// node, and then forwarded to the platform log service:
//
//   descriptor.dataOffset
//   |  slot 0  |  slot 1  | ... | slot writeIndex | ... | slot max-1 |
//                                 ^ this entry: 80-byte header, then contents
//
// Error-class entries (ERR, WAR, NOT) go to the persistent error trace set
// instead and are forwarded all the same.
//
// The ring counters, the sequence number and the link to the newest entry
// are advanced with atomic read-modify-write operations rather than separate
// loads and stores: two writers of one set then never claim the same slot
// within one round of its ring, and no two entries share a sequence number.
// For a single writer the result is the same. A reader that copies a slot
// while it is being written may see a mix of the old and the new entry,
// which readers accept; so may a writer that is held up for a whole round
// of the ring and then shares its slot with the writer one round later.

#include <libgen.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "nodetrace/logbridge.h"
#include "nodetrace/nodetrace.h"
#include "trace/entry_stamp.h"
#include "trace/errno_guard.h"
#include "trace/error_trace.h"
#include "trace/shared_access.h"
#include "trace/slot_access.h"
#include "trace/slot_store.h"
#include "trace/test_points.h"
#include "trace/thread_ids.h"
#include "trace/trace_system.h"

namespace nt {
namespace {

constexpr std::uint32_t kErrorClass = TRACE_SEVERITY_ERROR_CLASS;
constexpr std::size_t kPathBufferSize = 4096;
constexpr std::size_t kFormatBufferSize = 128;
constexpr char kEmptyEntryText[] = "Trying to add empty trace entry";

// The caller's source path reduced to its last component in buf, as the XPG
// basename does ("a/b.c" gives "b.c", "a/b/" gives "b"). A null path is
// treated as empty, which gives ".".
const char* baseName(const char* file, char (&buf)[kPathBufferSize]) noexcept {
  if (file == nullptr) file = "";
  const std::size_t length = strnlen(file, kPathBufferSize - 1);
  std::memcpy(buf, file, length);
  buf[length] = '\0';
  return basename(buf);
}

bool traceEnabled() noexcept {
  initTraceSystem();
  const TraceMemoryHeader* h = header();
  return h != nullptr && loadShared(&h->traceEnabled) != 0;
}

// The descriptor of a valid set id: the shared one of a user set, the
// process's snapshot of a set of the SRAM file.
TraceSetStruct* descriptorOf(std::uint16_t id) noexcept {
  if (id == SYSTEM_TRACE_SET_ID || id == REMOTE_SYSTEM_TRACE_SET_ID) return getTraceSetStruct(id);
  return userDescriptor(id);
}

bool passesFilters(std::uint32_t severity, std::uint32_t category,
                   const TraceSetStruct* descriptor) noexcept {
  return (severity & loadShared(&header()->severityMask)) != 0 &&
         (category & loadShared(&descriptor->categoryMask)) != 0;
}

// The text contents of a slot: length characters of text, zeros up to the
// set's maximum, and the last byte of the maximum always zero.
void storeText(std::uint8_t* dst, const char* text, std::size_t length,
               std::size_t capacity) noexcept {
  copyToSlot(dst, text, length);
  zeroSlot(dst + length, capacity - length);
  storeShared(dst + capacity - 1, std::uint8_t{0});
}

// Links the entry into the node-wide chain: it becomes the newest entry, and
// its header records the one that was newest before it. Set and slot share
// one aligned word of the header, swapped as a whole.
void linkEntry(TraceMemoryHeader* h, TraceEntryHeader* slot, std::uint16_t setId,
               std::uint16_t slotIndex) noexcept {
  static_assert(offsetof(TraceMemoryHeader, lastEntryIndex) ==
                offsetof(TraceMemoryHeader, lastTraceSetId) + 2);
  std::uint16_t link[2] = {setId, slotIndex};
  std::uint32_t newest;
  std::memcpy(&newest, link, sizeof newest);
  auto* word = reinterpret_cast<std::uint32_t*>(&h->lastTraceSetId);
  const std::uint32_t previous = sharedRef(word).exchange(newest, std::memory_order_relaxed);
  std::memcpy(link, &previous, sizeof previous);
  storeShared(&slot->prevTraceSetId, link[0]);
  storeShared(&slot->prevEntryIndex, link[1]);
}

struct RingWrite {
  int result;
  std::uint32_t length;  // as it stands after the ring's rules
  bool forward;
};

// Writes one entry into the ring of a user set (or of the snapshot of
// "NVJ_System", whose slot is then computed inside the shared mapping from
// its file offset). Refuses, without writing, a slot outside the mapping's
// entry area or not word-aligned: a damaged descriptor never makes the
// writer store outside the shared memory or over its header and table.
RingWrite writeToRing(TraceSetStruct* descriptor, std::uint32_t setType, std::uint16_t traceSetId,
                      std::uint32_t type, std::uint32_t severity, std::uint32_t category, const char* fileName,
                      std::int32_t line, std::uint32_t length, const void* contents,
                      int result) noexcept {
  TraceMemoryHeader* h = header();
  if (!passesFilters(severity, category, descriptor)) return {result, length, false};
  if (setType != type) return {TRACE_RC_TYPE_MISMATCH, length, false};
  if (type == TS_STRING) {
    length = contents == nullptr ? 0u : static_cast<std::uint16_t>(std::strlen(static_cast<const char*>(contents)));
  }

  // The ring's geometry is read once; only these locals are used below, so
  // a descriptor changed meanwhile cannot move the slot after its check.
  Ring ring;
  ring.capacity = loadShared(&descriptor->maxNumberEntries);
  ring.maxLength = loadShared(&descriptor->traceEntryContentsLength);
  ring.dataOffset = loadShared(&descriptor->dataOffset);
  ring.slotSize = getTraceEntrySize(ring.maxLength);
  const std::uint16_t maxLength = ring.maxLength;
  if (length > maxLength) length = maxLength;
  if (length == 0 || contents == nullptr) {
    return {addErrorTrace(TS_STRING, TRACE_CATEGORY_LIBRARY, fileName, static_cast<std::uint32_t>(line),
                          kEmptyEntryText, static_cast<std::int16_t>(traceSetId),
                          static_cast<std::int32_t>(TRACE_SEVERITY_NOT)),
            length, false};
  }

  // The slot is known before the counters move; a slot the mapping cannot
  // serve drops the entry before anything changed. Another writer may move
  // writeIndex between the look and the claim, so the claimed slot is
  // checked again.
  if (ringSlot(ring, loadShared(&descriptor->writeIndex)) == nullptr) {
    return {TRACE_RC_NO_DESCRIPTOR, length, false};
  }
  countEntry(descriptor, ring.capacity);
  const std::uint16_t used = claimSlot(descriptor, ring.capacity);
  std::uint8_t* slot = ringSlot(ring, used);
  if (slot == nullptr) return {TRACE_RC_NO_DESCRIPTOR, length, false};
  NT_TEST_POINT(kUserSlotClaimed);

  TraceEntryHeader entry{};
  stampFileName(entry, fileName);
  entry.line = line;
  entry.pid = static_cast<std::uint32_t>(currentPid());
  entry.tid = static_cast<std::uint32_t>(currentTid());
  entry.severity = static_cast<std::uint8_t>(severity);
  entry.category = category;
  entry.sequenceNumber = sharedRef(&h->totalNumberTraceEntries).fetch_add(1u, std::memory_order_relaxed);
  entry.monotonicTime = monotonicTimestamp();
  entry.contentsLength = static_cast<std::uint16_t>(length == maxLength ? length - 1u : length);
  entry.realTime = realTimestamp();

  std::uint8_t* contentsSlot = slot + TRACE_ENTRY_HEADER_SIZE;
  if (type == TS_STRING) {
    const char* text = static_cast<const char*>(contents);
    storeText(contentsSlot, text, length, maxLength);
    // A trailing line feed is not part of the entry. (At the maximum length
    // the forced terminator has already replaced it.)
    if (length < maxLength && text[length - 1] == '\n') {
      storeShared(contentsSlot + length - 1, std::uint8_t{0});
      --entry.contentsLength;
    }
  } else {
    copyToSlot(contentsSlot, contents, length);
  }
  NT_TEST_POINT(kUserContentsWritten);
  copyToSlot(slot, &entry, sizeof entry);
  NT_TEST_POINT(kUserHeaderWritten);
  linkEntry(h, reinterpret_cast<TraceEntryHeader*>(slot), traceSetId, used);
  return {result, length, true};
}

// The descriptor of a set id that a caller has already validated and
// looked up, so that tracePrintf does not pay for it twice (for "NVJ_System"
// the lookup reads the SRAM file).
struct KnownSet {
  TraceSetStruct* descriptor;
};

int addEntry(std::uint16_t traceSetId, std::uint32_t type, std::uint32_t severity,
             std::uint32_t category, const char* file, std::int32_t line, std::uint32_t length,
             const void* contents, const KnownSet* known = nullptr) noexcept {
  if (!traceEnabled()) return 0;
  char pathBuffer[kPathBufferSize];
  const char* fileName = baseName(file, pathBuffer);

  int result = 0;
  const bool errorClass = (severity & kErrorClass) != 0;
  if (errorClass) {
    result = addErrorTrace(type, category, fileName, static_cast<std::uint32_t>(line),
                           static_cast<const char*>(contents), static_cast<std::int16_t>(traceSetId),
                           static_cast<std::int32_t>(severity));
  }
  if (known == nullptr && isValidTraceSetId(traceSetId) == 0) return TRACE_RC_UNKNOWN_SET;
  TraceSetStruct* descriptor = known != nullptr ? known->descriptor : descriptorOf(traceSetId);
  if (descriptor == nullptr) return result;

  // The set's type is read once: the ring write checks it and the
  // forwarding below uses it, so a type changed meanwhile cannot make the
  // bytes of a dump be forwarded as a text that has no end.
  const std::uint32_t setType = loadShared(&descriptor->type);
  if (!errorClass && traceSetId != SYSTEM_TRACE_SET_ID) {
    const RingWrite written = writeToRing(descriptor, setType, traceSetId, type, severity, category, fileName,
                                          line, length, contents, result);
    if (!written.forward) return written.result;
    result = written.result;
    length = written.length;
  }

  // The set's name is copied out of the shared descriptor with its
  // terminator, so a damaged name cannot lead the lookup past it.
  char name[TRACE_SET_NAME_LENGTH + 1] = {};
  std::memcpy(name, descriptor->name, TRACE_SET_NAME_LENGTH);
  // Contents are forwarded as text only when the caller gave text: a dump
  // offered to a text set (possible for error-class entries, which skip the
  // type check) has no terminator to stop at.
  const std::uint32_t forwardedType = setType == TS_STRING && type != TS_STRING ? type : setType;
  updateSyslogPrint(name, forwardedType, severity, category, fileName, line,
                    static_cast<std::uint16_t>(length), contents);
  return result;
}

}  // namespace
}  // namespace nt

extern "C" {

NODETRACE_API int addTraceEntry(uint16_t traceSetId, uint32_t type, uint32_t severity,
                                uint32_t category, const char* file, int32_t line, ...) {
  const nt::ErrnoGuard keepErrno;
  va_list args;
  va_start(args, line);
  const auto length = static_cast<std::uint16_t>(va_arg(args, int));
  const void* contents = va_arg(args, const void*);
  va_end(args);
  return nt::addEntry(traceSetId, type, severity, category, file, line, length, contents);
}

NODETRACE_API int tracePrintf(uint16_t traceSetId, uint32_t severity, uint32_t category,
                              const char* file, int32_t line, const char* format, ...) {
  const nt::ErrnoGuard keepErrno;
  const int callerErrno = errno;
  if (!nt::traceEnabled()) return 0;
  // The filters are applied before any formatting: a filtered-out call
  // costs a few loads.
  const bool lookedUp = traceSetId != SYSTEM_TRACE_SET_ID && severity != TRACE_SEVERITY_ERR;
  nt::KnownSet known{nullptr};
  if (lookedUp) {
    if (isValidTraceSetId(traceSetId) == 0) return TRACE_RC_UNKNOWN_SET;
    known.descriptor = nt::descriptorOf(traceSetId);
    if (known.descriptor != nullptr && !nt::passesFilters(severity, category, known.descriptor)) return 0;
  }
  char text[nt::kFormatBufferSize] = "";
  if (format != nullptr) {  // a null format gives an empty entry
    va_list args;
    va_start(args, format);
    // "%m" in the format prints the caller's errno, not one left behind by
    // the start-up above.
    errno = callerErrno;
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
  }
  return nt::addEntry(traceSetId, TS_STRING, severity, category, file, line, 0, text,
                      lookedUp ? &known : nullptr);
}

}  // extern "C"
