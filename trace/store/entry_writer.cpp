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
// The append itself (claim, count, number, store, stamp, link) is the ring
// module's (user_ring.h), shared with the remote writer.
//
// Error-class entries (ERR, WAR, NOT) go to the persistent error trace set
// instead and are forwarded all the same.
//
// The hot path does only what an entry needs: the enable flag and the
// filters are looked at before anything else, the source file's base name
// is found in place inside the caller's path, the library's own functions
// are called directly (not through its exported symbols), and the thread id
// comes from a thread-local cache.

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "common/errno_guard.h"
#include "common/shared_fields.h"
#include "common/test_points.h"
#include "common/thread_ids.h"
#include "logbridge/feature_tags.h"
#include "nodetrace/nodetrace.h"
#include "trace/persistent/error_trace.h"
#include "trace/store/header_stamps.h"
#include "trace/store/printf_format.h"
#include "trace/store/registry.h"
#include "trace/store/ring_slots.h"
#include "trace/store/slot_writes.h"
#include "trace/store/startup.h"
#include "trace/store/user_ring.h"

namespace nt {
namespace {

constexpr std::uint32_t kErrorClass = TRACE_SEVERITY_ERROR_CLASS;
// Paths are looked at up to this many characters, as if copied into a
// 4096-byte buffer with its last byte forced to zero.
constexpr std::size_t kPathLimit = 4095;
constexpr char kEmptyEntryText[] = "Trying to add empty trace entry";

// The base name of a source path, found in place: the XPG basename ("a/b.c"
// gives "b.c", "a/b/" gives "b", "/" gives "/", an empty or null path ".")
// of the path's first 4095 characters. `terminated` tells whether the name
// ends where the caller's text ends, so that it can be used as a C string
// as it stands; otherwise (trailing slashes, a path cut at 4095 characters)
// only its first `length` characters count.
struct BaseName {
  const char* text;
  std::size_t length;
  bool terminated;
};

[[gnu::always_inline]] inline BaseName findBaseName(const char* file) noexcept {
  if (file == nullptr || file[0] == '\0') return {".", 1, true};
  const std::size_t pathLength = strnlen(file, kPathLimit);
  const char* end = file + pathLength;
  const bool whole = *end == '\0';
  if (end[-1] != '/') {
    // The common case: the name runs to the end of the path.
    const auto* slash = static_cast<const char*>(memrchr(file, '/', pathLength));
    const char* start = slash != nullptr ? slash + 1 : file;
    return {start, static_cast<std::size_t>(end - start), whole};
  }
  const char* stop = end;
  while (stop > file && stop[-1] == '/') --stop;
  if (stop == file) return {"/", 1, true};  // nothing but slashes
  const char* start = stop;
  while (start > file && start[-1] != '/') --start;
  return {start, static_cast<std::size_t>(stop - start), false};
}

bool traceEnabled() noexcept {
  initTraceSystem();
  const TraceMemoryHeader* h = header();
  return h != nullptr && loadShared(&h->traceEnabled) != 0;
}

// The descriptor of a valid set id: the shared one of a user set, the
// process's snapshot of a set of the SRAM file.
TraceSetStruct* descriptorOf(std::uint16_t id) noexcept {
  if (isSramSet(id)) return traceSetStruct(id);
  return userDescriptor(id);
}

bool passesFilters(std::uint32_t severity, std::uint32_t category,
                   const TraceSetStruct* descriptor) noexcept {
  return (severity & loadShared(&header()->severityMask)) != 0 &&
         (category & loadShared(&descriptor->categoryMask)) != 0;
}

// One call of addTraceEntry or tracePrintf.
struct Call {
  std::uint16_t traceSetId;
  std::uint32_t type;
  std::uint32_t severity;
  std::uint32_t category;
  const char* file;
  std::int32_t line;
  std::uint32_t length;
  const void* contents;
  // The contents are tracePrintf's formatted text: `length` is its length
  // and the 128 bytes of its buffer are zero past it (formatEntryText).
  bool formattedText = false;
};

// What the caller already knows of the set, so that nothing is looked up
// or checked twice: for an entry that is not of the error class the id has
// been validated, the descriptor looked up and (for a set other than 255)
// the filters passed before the base name is looked for.
struct Checked {
  bool lookedUp = false;
  TraceSetStruct* descriptor = nullptr;
};

struct RingWrite {
  int result;
  std::uint32_t length;  // as it stands after the ring's rules
  bool forward;
};

// The writer's steps (writeToRing, writeEntry, addEntry) are always inlined
// into the two exported writers' helper frames, so that an entry passes one
// stack frame from the exported function to the ring.

// Writes one entry into the ring of a user set (or of the snapshot of
// "NVJ_System", whose slot is then computed inside the shared mapping from
// its file offset). The filters have been passed. A slot outside the
// mapping's entry area or not word-aligned is refused without writing: a
// damaged descriptor never makes the writer store outside the shared memory
// or over its header and table.
[[gnu::always_inline]] inline RingWrite writeToRing(TraceSetStruct* descriptor, std::uint32_t setType,
                                                   const Call& c, const char* fileName,
                                                   std::size_t fileNameLength, int result) noexcept {
  if (setType != c.type) return {TRACE_RC_TYPE_MISMATCH, c.length, false};
  // tracePrintf's formatted text comes with its length; other text is
  // measured here.
  std::uint32_t length = c.length;
  if (!c.formattedText && c.type == TS_STRING) {
    length = c.contents == nullptr ? 0u : static_cast<std::uint16_t>(std::strlen(static_cast<const char*>(c.contents)));
  }

  // The ring's geometry is read once; only these locals are used below, so
  // a descriptor changed meanwhile cannot move the slot after its check.
  Ring ring;
  ring.capacity = loadShared(&descriptor->maxNumberEntries);
  ring.maxLength = loadShared(&descriptor->traceEntryContentsLength);
  ring.dataOffset = loadShared(&descriptor->dataOffset);
  ring.slotSize = slotSizeFor(ring.maxLength);
  const std::uint16_t maxLength = ring.maxLength;
  if (length > maxLength) length = maxLength;
  if (length == 0 || c.contents == nullptr) {
    return {addErrorTrace(TS_STRING, TRACE_CATEGORY_LIBRARY, fileName, static_cast<std::uint32_t>(c.line),
                          kEmptyEntryText, static_cast<std::int16_t>(c.traceSetId),
                          static_cast<std::int32_t>(TRACE_SEVERITY_NOT)),
            length, false};
  }

  const EntryFields fields{fileName,
                           fileNameLength,
                           c.line,
                           static_cast<std::uint32_t>(currentPid()),
                           static_cast<std::uint32_t>(currentTid()),
                           c.severity,
                           c.category,
                           monotonicTimestamp(),
                           realTimestamp()};
  const bool text = c.type == TS_STRING;
  const bool formattedText = c.formattedText;
  const auto* contents = static_cast<const std::uint8_t*>(c.contents);
  const bool stored = appendEntry(header(), descriptor, ring, c.traceSetId, fields, Link::kNewest,
                                  [&](std::uint8_t* slotContents) noexcept {
    // A dump of the full length records one byte less; so does a text,
    // whose last byte is the forced terminator.
    auto recorded = static_cast<std::uint16_t>(length == maxLength ? length - 1u : length);
    if (!text) {
      copyToSlot(slotContents, contents, length);
      return recorded;
    }
    // The text, zeros up to the set's maximum, the last byte of the maximum
    // always zero. A trailing line feed is not part of the entry (at the
    // maximum length the forced terminator has already replaced it).
    if (formattedText && maxLength == kEntryTextSize) {
      // The formatted text's buffer already holds the zeros: one copy of a
      // known size.
      copyToSlot(slotContents, contents, kEntryTextSize);
    } else {
      copyToSlot(slotContents, contents, length);
      zeroSlot(slotContents + length, maxLength - length);
    }
    storeShared(slotContents + maxLength - 1, std::uint8_t{0});
    if (length < maxLength && contents[length - 1] == '\n') {
      storeShared(slotContents + length - 1, std::uint8_t{0});
      --recorded;
    }
    return recorded;
  });
  if (!stored) return {TRACE_RC_NO_DESCRIPTOR, length, false};
  return {result, length, true};
}

// Everything after the filters, with the base name found.
[[gnu::always_inline]] inline int writeEntry(const Call& c, const Checked& checked, const char* fileName,
                                             std::size_t fileNameLength) noexcept {
  int result = 0;
  TraceSetStruct* descriptor = checked.descriptor;
  const bool errorClass = (c.severity & kErrorClass) != 0;
  if (errorClass) {
    result = addErrorTrace(c.type, c.category, fileName, static_cast<std::uint32_t>(c.line),
                           static_cast<const char*>(c.contents), static_cast<std::int16_t>(c.traceSetId),
                           static_cast<std::int32_t>(c.severity));
  }
  if (!checked.lookedUp) {
    if (!validTraceSetId(c.traceSetId)) return TRACE_RC_UNKNOWN_SET;
    descriptor = descriptorOf(c.traceSetId);
  }
  if (descriptor == nullptr) return result;

  // The set's type is read once: the ring write checks it and the
  // forwarding below uses it.
  const std::uint32_t setType = loadShared(&descriptor->type);
  // An entry that skips the ring is forwarded with the length its caller
  // gave: none for tracePrintf's text.
  std::uint32_t length = c.formattedText ? 0 : c.length;
  if (!errorClass && c.traceSetId != SYSTEM_TRACE_SET_ID) {
    const RingWrite written = writeToRing(descriptor, setType, c, fileName, fileNameLength, result);
    if (!written.forward) return written.result;
    result = written.result;
    length = written.length;
  }

  // The set's name is copied out of the shared descriptor with its
  // terminator, so a damaged name cannot lead the lookup past it.
  SetName name;
  std::memcpy(name.text, descriptor->name, TRACE_SET_NAME_LENGTH);
  name.text[TRACE_SET_NAME_LENGTH] = '\0';
  // Routed by the set's type. Contents the caller offered as bytes (an
  // error-class dump into a text set, which skips the type check) have no
  // terminator to stop at: they are printed within their length.
  forwardEntry(c.traceSetId, name, setType, c.severity, fileName, c.line, static_cast<std::uint16_t>(length),
               c.contents, c.type == TS_STRING);
  return result;
}

// The rare base name that does not end where the caller's path ends
// (trailing slashes, a path of 4096 characters or more): copied out and
// terminated. Kept apart so that the common path does not carry its
// 4096-byte buffer on the stack.
[[gnu::noinline, gnu::cold]] int writeEntryWithCopiedName(const Call& c, const Checked& checked,
                                                          BaseName base) noexcept {
  char name[kPathLimit + 1];
  std::memcpy(name, base.text, base.length);
  name[base.length] = '\0';
  return writeEntry(c, checked, name, base.length);
}

// The writer after the enable flag: the filters (unless the caller applied
// them), then the base name, then the entry.
[[gnu::always_inline]] inline int addEntry(const Call& c, Checked checked) noexcept {
  if (!checked.lookedUp && (c.severity & kErrorClass) == 0) {
    if (!validTraceSetId(c.traceSetId)) return TRACE_RC_UNKNOWN_SET;
    checked.descriptor = descriptorOf(c.traceSetId);
    checked.lookedUp = true;
    if (checked.descriptor == nullptr) return 0;
    if (c.traceSetId != SYSTEM_TRACE_SET_ID && !passesFilters(c.severity, c.category, checked.descriptor)) {
      return 0;
    }
  }
  const BaseName base = findBaseName(c.file);
  if (!base.terminated) return writeEntryWithCopiedName(c, checked, base);
  return writeEntry(c, checked, base.text, base.length);
}

}  // namespace
}  // namespace nt

namespace nt {
namespace {

// The first look at a call, before anything else and without a call or a
// change of errno: the enable flag, and for an entry of a user set the
// validity of its id and the filters. kDrop: the call returns 0 at once;
// kStore: a user set whose filters the entry passed (descriptor known);
// kAsk: anything else (start-up not done, no trace memory, the sets of the
// SRAM file, an unknown id, an entry that is not filtered here), which the
// full path decides.
enum class Gate { kDrop, kStore, kAsk };

struct Look {
  Gate gate;
  TraceSetStruct* descriptor;
};

// filterErrorClass: tracePrintf filters every entry but an error (0x80),
// addTraceEntry none of the error class (they go to the error trace set
// whatever the filters).
inline Look lookAt(std::uint16_t traceSetId, std::uint32_t severity, std::uint32_t category,
                   bool filterErrorClass) noexcept {
  if (!g_process.initialised.load(std::memory_order_acquire)) return {Gate::kAsk, nullptr};
  const TraceMemoryHeader* h = g_process.header;
  if (h == nullptr) return {Gate::kAsk, nullptr};
  if (loadShared(&h->traceEnabled) == 0) return {Gate::kDrop, nullptr};
  const bool filtered = filterErrorClass ? severity != TRACE_SEVERITY_ERR : (severity & kErrorClass) == 0;
  if (!filtered) return {Gate::kAsk, nullptr};
  // The same test as isValidTraceSetId for a user set: below the number of
  // sets (a damaged count held to the table's size).
  const unsigned userSets = loadShared(&h->currentNumberTraceSets);
  if (traceSetId >= userSets || traceSetId >= TRACE_MAX_TRACE_SETS) return {Gate::kAsk, nullptr};
  TraceSetStruct* descriptor = userDescriptor(traceSetId);
  if ((severity & loadShared(&h->severityMask)) == 0 || (category & loadShared(&descriptor->categoryMask)) == 0) {
    return {Gate::kDrop, descriptor};
  }
  return {Gate::kStore, descriptor};
}

}  // namespace
}  // namespace nt

namespace nt {
namespace {

// The rest of a call once the first look let it through, apart from the
// exported function, so that a refused call does not pay for this part's
// stack frame and saved registers. Each writer's helper is instantiated
// twice: for the usual call (`kPassed`: a user set whose filters the first
// look passed, its descriptor given; the compiler sees the set checked and
// folds every check of it away) and for every other call, which checks it
// all.

template <bool kPassed>
[[gnu::noinline]] int addTraceEntryPastTheGate(TraceSetStruct* descriptor, std::uint16_t traceSetId,
                                               std::uint32_t type, std::uint32_t severity, std::uint32_t category,
                                               const char* file, std::int32_t line, std::va_list args) noexcept {
  const ErrnoGuard keepErrno;
  const auto length = static_cast<std::uint16_t>(va_arg(args, int));
  const void* contents = va_arg(args, const void*);
  if constexpr (!kPassed) {
    if (!traceEnabled()) return 0;
  }
  return addEntry({traceSetId, type, severity, category, file, line, length, contents}, {kPassed, descriptor});
}

// The format is the caller's printf format (checked by the compiler where
// tracePrintf is called), handed on with its arguments; a null format
// gives an empty entry.
template <bool kPassed>
[[gnu::noinline, gnu::format(printf, 7, 0)]] int tracePrintfPastTheGate(
    TraceSetStruct* descriptor, std::uint16_t traceSetId, std::uint32_t severity, std::uint32_t category,
    const char* file, std::int32_t line, const char* format, std::va_list args) noexcept {
  const ErrnoGuard keepErrno;
  Checked checked{kPassed, descriptor};
  if constexpr (!kPassed) {
    const int callerErrno = errno;
    if (!traceEnabled()) return 0;
    // An error (0x80) or an entry of set 255 is formatted unlooked-at, as
    // it goes to the error trace set whatever the filters.
    if (traceSetId != SYSTEM_TRACE_SET_ID && severity != TRACE_SEVERITY_ERR) {
      if (!validTraceSetId(traceSetId)) return TRACE_RC_UNKNOWN_SET;
      checked.descriptor = descriptorOf(traceSetId);
      checked.lookedUp = true;
      if (checked.descriptor != nullptr && !passesFilters(severity, category, checked.descriptor)) return 0;
    }
    // "%m" in the format prints the caller's errno, not one left behind by
    // the start-up above.
    errno = callerErrno;
  }
  EntryTextBuffer text;
  std::size_t length = 0;
  if (format != nullptr) {
    length = formatEntryText(text, format, args);
  } else {
    text.text[0] = '\0';
  }
  return addEntry({traceSetId, TS_STRING, severity, category, file, line, static_cast<std::uint32_t>(length),
                   text.text, format != nullptr},
                  checked);
}

}  // namespace
}  // namespace nt

extern "C" {

NODETRACE_API int addTraceEntry(uint16_t traceSetId, uint32_t type, uint32_t severity,
                                uint32_t category, const char* file, int32_t line, ...) {
  // A refused entry returns here, having changed nothing, errno included.
  const nt::Look look = nt::lookAt(traceSetId, severity, category, false);
  if (look.gate == nt::Gate::kDrop) return 0;
  va_list args;
  va_start(args, line);
  const int result =
      look.gate == nt::Gate::kStore
          ? nt::addTraceEntryPastTheGate<true>(look.descriptor, traceSetId, type, severity, category, file, line, args)
          : nt::addTraceEntryPastTheGate<false>(nullptr, traceSetId, type, severity, category, file, line, args);
  va_end(args);
  return result;
}

NODETRACE_API int tracePrintf(uint16_t traceSetId, uint32_t severity, uint32_t category,
                              const char* file, int32_t line, const char* format, ...) {
  // The filters are applied before any formatting: a refused call costs a
  // few loads and changes nothing, errno included.
  const nt::Look look = nt::lookAt(traceSetId, severity, category, true);
  if (look.gate == nt::Gate::kDrop) return 0;
  va_list args;
  va_start(args, format);
  const int result =
      look.gate == nt::Gate::kStore
          ? nt::tracePrintfPastTheGate<true>(look.descriptor, traceSetId, severity, category, file, line, format, args)
          : nt::tracePrintfPastTheGate<false>(nullptr, traceSetId, severity, category, file, line, format, args);
  va_end(args);
  return result;
}

}  // extern "C"
