// The entry formatter: one trace entry as one line of text on standard
// output, laid out by the caller's format string.
//
// The format holds ordinary characters and directives ("%S", "%t", "%dz",
// ...) that expand from the entry header, the set's descriptor and the
// contents. Entries of dump sets are followed by a hex dump, 16 bytes a row;
// a short last row keeps its character column short:
//
//   <expanded format>
//   0x000: 30 31 32 33 34 35 36 37 38 39 3A 3B 3C 3D 3E 3F  0123456789:;<=>?
//   0x010: 41 42 00 7F 80                                   AB.<DEL>.
//
// The cursor over the format is 8 bits wide, so formats must be shorter
// than 256 characters. A longer one ends where the cursor would wrap back
// to 0, so every call ends.

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "common/errno_guard.h"
#include "common/message_source.h"
#include "common/shared_fields.h"
#include "nodeplatform/nodeplatform.h"
#include "nodetrace/nodetrace.h"
#include "trace/persistent/error_trace.h"
#include "trace/store/startup.h"

namespace nt {
namespace {

constexpr std::size_t kDateBufferSize = 26;   // "Thu Jan  1 00:00:00 1970" and "1970-01-01"
constexpr std::size_t kClockBufferSize = 12;  // "00:00:00" of the ISO 8601 forms
constexpr std::size_t kClockTextLimit = 11;   // "00:00:00" of %t and %ut, in the date buffer
constexpr std::size_t kErrorTextSize = 100;
constexpr std::size_t kDumpRowLength = 16;
constexpr unsigned kCursorPositions = 256;  // an 8-bit cursor
constexpr int kLocalTimeProductType = 1;
constexpr std::uint32_t kUnknownSeverityLine = 1386;

// Longest contents that are ever read: a text set keeps at most 128 bytes and
// a reader's contents buffer holds 1600. A damaged descriptor or header that
// claims more is held to these, so nothing is read past the buffers.
constexpr std::size_t kMaxTextLength = TRACE_MAX_STRING_LENGTH;
constexpr std::size_t kMaxContentsLength = TRACE_MAX_DUMP_LENGTH;

const char* severityLetters(std::uint8_t severity) noexcept {
  switch (severity) {
    case TRACE_SEVERITY_ERR: return "ERR";
    case TRACE_SEVERITY_WAR: return "WAR";
    case TRACE_SEVERITY_INF: return "INF";
    case TRACE_SEVERITY_DBG: return "DBG";
    case TRACE_SEVERITY_NOT: return "NOT";
    default: return nullptr;
  }
}

// A zero-terminated copy of a character field that other processes may be
// writing: byte by byte, each byte whole, terminated even when the field is
// not.
template <std::size_t N>
struct FieldText {
  explicit FieldText(const char (&field)[N]) noexcept {
    for (std::size_t i = 0; i < N; ++i) text[i] = loadShared(&field[i]);
  }
  char text[N + 1] = {};
};

// Which clock text a directive prints.
enum class Zone { kLocal, kUtc };

class EntryPrinter {
 public:
  EntryPrinter(std::int16_t traceSetId, const TraceSetStruct& descriptor, const TraceEntryHeader& entry,
               const char* contents) noexcept
      : traceSetId_(traceSetId), descriptor_(descriptor), entry_(entry), contents_(contents) {
    const TraceTimeStamp& real = entry.realTime;
    seconds_ = static_cast<std::uint32_t>(ntohl(loadShared(&real.seconds)));
    microseconds_ = static_cast<std::uint32_t>(ntohl(loadShared(&real.nanoseconds))) / 1000u;
    type_ = loadShared(&descriptor.type);
    maxContentsLength_ = loadShared(&descriptor.traceEntryContentsLength);
    contentsLength_ = loadShared(&entry.contentsLength);
  }

  // Writes the format with its directives expanded, from position 0 while
  // the position is below length.
  void printFormat(const char* format, std::size_t length) noexcept {
    std::uint8_t i = 0;
    while (i < length) {
      if (format[i] != '%') {
        std::putchar(static_cast<unsigned char>(format[i]));
        if (!advance(i, 1)) return;
        continue;
      }
      if (!advance(i, 1)) return;
      const unsigned lookAhead = printDirective(format, i);
      if (!advance(i, 1 + lookAhead)) return;
    }
  }

  // The hex dump of a dump set's entry; nothing for any other type.
  void printDump() const noexcept {
    if (type_ != TS_DUMP) return;
    const std::size_t n = std::min<std::size_t>(
        std::min<std::size_t>(maxContentsLength_, contentsLength_), kMaxContentsLength);
    const auto* bytes = reinterpret_cast<const unsigned char*>(contents_);
    for (std::size_t row = 0; row < n; row += kDumpRowLength) {
      std::printf("\n0x%03X:", static_cast<unsigned>(row));
      for (std::size_t column = 0; column < kDumpRowLength; ++column) {
        if (row + column < n) {
          std::printf(" %02X", static_cast<unsigned>(bytes[row + column]));
        } else {
          std::printf("   ");
        }
      }
      std::printf("  ");
      for (std::size_t column = 0; column < kDumpRowLength && row + column < n; ++column) {
        const unsigned char byte = bytes[row + column];
        std::putchar(byte >= 0x20 && byte <= 0x7F ? byte : '.');
      }
    }
  }

 private:
  // Moves the 8-bit cursor on by step; false when it would wrap past 255.
  static bool advance(std::uint8_t& cursor, unsigned step) noexcept {
    const unsigned next = cursor + step;
    if (next >= kCursorPositions) return false;
    cursor = static_cast<std::uint8_t>(next);
    return true;
  }

  // Expands the directive at format[i] (the character after "%"). Returns how
  // many characters after the directive character its look-ahead consumed.
  unsigned printDirective(const char* format, std::uint8_t i) noexcept {
    const char directive = format[i];
    // The look-ahead reads a character only while the ones before it are
    // not the terminating zero, so it never leaves the string.
    const char next = directive != '\0' ? format[i + 1] : '\0';
    const char afterNext = next != '\0' ? format[i + 2] : '\0';
    switch (directive) {
      case 'C':
        std::printf("%08X", loadShared(&entry_.category));
        return 0;
      case 'I': {
        const FieldText name(descriptor_.name);
        std::printf("%s", name.text);
        return 0;
      }
      case 'P':
        std::printf("%u", loadShared(&entry_.tid));
        return 0;
      case 'S':
        printSeverity();
        return 0;
      case 'T':
        printMonotonicTime();
        return 0;
      case 'c':
        printContents();
        return 0;
      case 'i':
        std::printf("%3u", static_cast<std::uint32_t>(static_cast<std::int32_t>(traceSetId_)));
        return 0;
      case 'l': {
        const FieldText fileName(entry_.fileName);
        std::printf("%s(%u)", fileName.text, static_cast<std::uint32_t>(loadShared(&entry_.line)));
        return 0;
      }
      case 'n':
        std::printf("%9u", loadShared(&entry_.sequenceNumber));
        return 0;
      case 'p':
        std::printf("%u", loadShared(&entry_.pid));
        return 0;
      case 't':
        if (brokenDownTime(Zone::kLocal)) std::strftime(date_, kClockTextLimit, "%T", &time_);
        std::printf("%s %3ums", date_, milliseconds());
        return 0;
      case 'd':
        if (next == 'u' && afterNext == 't') {
          fillDateAndTime();
          std::printf("%s %6uus", date_, microseconds_);
          return 2;
        }
        if (next == 't') {
          fillDateAndTime();
          std::printf("%s %3ums", date_, milliseconds());
          return 1;
        }
        if (next == 'z') {
          fillIsoTime();
          std::printf("%sT%s.%03uZ", date_, clock_, milliseconds());
          return 1;
        }
        std::printf("%%d");
        return 0;
      case 'u':
        if (next == 'd' && afterNext == 't') {
          fillDateAndTime();
          std::printf("%s %6uus", date_, microseconds_);
          return 2;
        }
        if (next == 't') {
          if (brokenDownTime(Zone::kLocal)) std::strftime(date_, kClockTextLimit, "%T", &time_);
          std::printf("%s %6uus", date_, microseconds_);
          return 1;
        }
        if (next == 'z') {
          fillIsoTime();
          std::printf("%sT%s.%06uZ", date_, clock_, microseconds_);
          return 1;
        }
        std::printf("%%u");
        return 0;
      default:
        // Also the zero byte at the end of a format that ends in "%".
        std::printf("%%%c", directive);
        return 0;
    }
  }

  std::uint32_t milliseconds() const noexcept { return microseconds_ / 1000u; }

  // Local date and time into the date buffer: "Thu Jan  1 00:00:00 1970".
  void fillDateAndTime() noexcept {
    if (brokenDownTime(Zone::kLocal)) std::strftime(date_, kDateBufferSize, "%a %b %e %T %Y", &time_);
  }

  // UTC date into the date buffer and clock time into the clock buffer.
  void fillIsoTime() noexcept {
    if (brokenDownTime(Zone::kUtc)) {
      std::strftime(date_, kDateBufferSize, "%F", &time_);
      std::strftime(clock_, kClockBufferSize, "%T", &time_);
    }
  }

  // The real-time seconds of the entry, broken down; local time only on
  // product type 1. False when the conversion fails: the buffers then keep
  // what they hold.
  bool brokenDownTime(Zone zone) noexcept {
    // The stored word is unsigned: widened without sign extension it reads
    // as a date up to 2106 on every architecture.
    const time_t seconds = static_cast<time_t>(seconds_);
    if (zone == Zone::kLocal && envInfoProductType() == kLocalTimeProductType) {
      // localtime_r need not look at TZ again; this follows a changed zone
      // as localtime does.
      tzset();
      return localtime_r(&seconds, &time_) != nullptr;
    }
    return gmtime_r(&seconds, &time_) != nullptr;
  }

  void printSeverity() noexcept {
    const char* letters = severityLetters(loadShared(&entry_.severity));
    if (letters != nullptr) {
      std::printf("%s", letters);
      return;
    }
    std::printf("???");
    std::snprintf(errorText_, sizeof errorText_,
                  "%s: Unknown severity value in trace number %u encountered\n", "printTraceEntry",
                  loadShared(&entry_.sequenceNumber));
    addErrorTrace(TS_STRING, TRACE_CATEGORY_LIBRARY, kSourceFileName, kUnknownSeverityLine, errorText_,
                  SYSTEM_TRACE_SET_ID, TRACE_SEVERITY_ERR);
  }

  void printMonotonicTime() const noexcept {
    const TraceTimeStamp& monotonic = entry_.monotonicTime;
    const std::uint64_t seconds = ntohl(loadShared(&monotonic.seconds));
    const std::uint64_t nanoseconds = ntohl(loadShared(&monotonic.nanoseconds));
    std::printf("%llu", static_cast<unsigned long long>(seconds * 1000000u + nanoseconds / 1000u));
  }

  void printContents() const noexcept {
    if (type_ != TS_STRING) {
      std::printf("DUMP %u bytes", static_cast<unsigned>(contentsLength_));
      return;
    }
    // strncpy stops at the first zero byte of the contents.
    char text[kMaxTextLength + 1] = {};
    const std::size_t length =
        std::min<std::size_t>(std::min<std::size_t>(contentsLength_, maxContentsLength_), kMaxTextLength);
    std::strncpy(text, contents_, length);
    std::printf("%s", text);
  }

  const std::int16_t traceSetId_;
  const TraceSetStruct& descriptor_;
  const TraceEntryHeader& entry_;
  const char* const contents_;
  std::uint32_t seconds_ = 0;
  std::uint32_t microseconds_ = 0;
  std::uint32_t type_ = 0;
  std::uint16_t maxContentsLength_ = 0;
  std::uint16_t contentsLength_ = 0;
  // Cleared once per call and shared by the directives of the call, so a
  // failed conversion prints what an earlier directive left.
  std::tm time_{};
  char date_[kDateBufferSize] = {};
  char clock_[kClockBufferSize] = {};
  char errorText_[kErrorTextSize] = {};
};

void printEntry(std::int16_t traceSetId, const TraceSetStruct* descriptor, const TraceEntryHeader* entry,
                const char* contents, char* format) noexcept {
  // Without a descriptor, or without an entry, nothing is printed; missing
  // contents print as empty ones.
  if (descriptor == nullptr || entry == nullptr) return;
  static constexpr char kNoContents[kMaxContentsLength] = {};
  EntryPrinter printer(traceSetId, *descriptor, *entry, contents != nullptr ? contents : kNoContents);

  // The length is measured before a trailing newline gives way to a zero
  // byte, so the walk writes that zero byte too: the line carries one NUL
  // byte before its final newline.
  const std::size_t length = format != nullptr ? std::strlen(format) : 0;
  if (length > 0 && format[length - 1] == '\n') format[length - 1] = '\0';

  printer.printFormat(format, length);
  printer.printDump();
  std::putchar('\n');
}

}  // namespace
}  // namespace nt

extern "C" NODETRACE_API void printTraceEntry(int16_t traceSetId, const TraceSetStruct* descriptor,
                                              const TraceEntryHeader* entry, const char* contents,
                                              char* format) {
  nt::ErrnoGuard errnoGuard;
  nt::initTraceSystem();
  nt::printEntry(traceSetId, descriptor, entry, contents, format);
}
