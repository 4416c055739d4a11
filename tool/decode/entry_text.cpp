#include "decode/entry_text.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "nodetrace/trace_layout.h"

namespace nodetrace_tool::decode {
namespace {

constexpr std::size_t kDateBufferSize = 26;   // "Thu Jan  1 00:00:00 1970" and "1970-01-01"
constexpr std::size_t kClockBufferSize = 12;  // "00:00:00" of the ISO 8601 forms
constexpr std::size_t kClockTextLimit = 11;   // "00:00:00" of %t and %ut, in the date buffer
constexpr std::size_t kDumpRowLength = 16;
constexpr unsigned kCursorPositions = 256;  // an 8-bit cursor
constexpr std::size_t kMaxTextLength = TRACE_MAX_STRING_LENGTH;
constexpr std::size_t kMaxDumpLength = TRACE_MAX_DUMP_LENGTH;
constexpr std::uint32_t kTypeString = TS_STRING;
constexpr std::uint32_t kTypeDump = TS_DUMP;

__attribute__((format(printf, 2, 3))) void appendf(std::string& out, const char* format, ...) {
  char buffer[512];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  if (length > 0) out.append(buffer, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof buffer - 1));
}

// A character field as the node prints it with "%s": up to its first zero
// byte, never past its end.
template <std::size_t N>
std::string fieldText(const std::array<char, N>& field) {
  return std::string(field.data(), std::find(field.begin(), field.end(), '\0'));
}

class LinePrinter {
 public:
  LinePrinter(std::int16_t traceSetId, const SetRecord& set, const EntryRecord& entry)
      : traceSetId_(traceSetId), set_(set), entry_(entry) {
    // Stamps read in the wrong byte order (--time-order) can hold 10^9
    // nanoseconds or more; the fraction of a second stays below one second,
    // so milliseconds keep three digits and microseconds six.
    microseconds_ = (entry.realNanoseconds % 1000000000u) / 1000u;
  }

  std::string line(std::string_view format) {
    // The format as a C string: it ends at its first zero byte. Its length
    // is measured before a trailing newline becomes a zero byte, so the
    // walk writes that zero byte too.
    std::string text(format.substr(0, std::min(format.find('\0'), format.size())));
    const std::size_t length = text.size();
    if (length > 0 && text[length - 1] == '\n') text[length - 1] = '\0';
    format_ = &text;
    walk(length);
    printDump();
    out_.push_back('\n');
    return std::move(out_);
  }

 private:
  char at(std::size_t i) const noexcept { return i < format_->size() ? (*format_)[i] : '\0'; }

  void walk(std::size_t length) {
    std::uint8_t i = 0;
    while (i < length) {
      if (at(i) != '%') {
        out_.push_back(at(i));
        if (!advance(i, 1)) return;
        continue;
      }
      if (!advance(i, 1)) return;
      const unsigned lookAhead = directive(i);
      if (!advance(i, 1 + lookAhead)) return;
    }
  }

  // Moves the 8-bit cursor on by step; false when it would wrap past 255.
  static bool advance(std::uint8_t& cursor, unsigned step) noexcept {
    const unsigned next = cursor + step;
    if (next >= kCursorPositions) return false;
    cursor = static_cast<std::uint8_t>(next);
    return true;
  }

  // Expands the directive at position i; returns how many characters after
  // it the look-ahead consumed.
  unsigned directive(std::size_t i) {
    const char c = at(i);
    const char next = c != '\0' ? at(i + 1) : '\0';
    const char afterNext = next != '\0' ? at(i + 2) : '\0';
    switch (c) {
      case 'C':
        appendf(out_, "%08X", entry_.category);
        return 0;
      case 'I':
        out_ += fieldText(set_.name);
        return 0;
      case 'P':
        appendf(out_, "%u", entry_.tid);
        return 0;
      case 'S':
        out_ += severityName(entry_.severity);
        return 0;
      case 'T': {
        const std::uint64_t seconds = entry_.monotonicSeconds;
        const std::uint64_t nanoseconds = entry_.monotonicNanoseconds;
        appendf(out_, "%llu", static_cast<unsigned long long>(seconds * 1000000u + nanoseconds / 1000u));
        return 0;
      }
      case 'c':
        out_ += contentsText(set_, entry_);
        return 0;
      case 'i':
        appendf(out_, "%3u", static_cast<std::uint32_t>(static_cast<std::int32_t>(traceSetId_)));
        return 0;
      case 'l':
        out_ += fieldText(entry_.fileName);
        appendf(out_, "(%u)", static_cast<std::uint32_t>(entry_.line));
        return 0;
      case 'n':
        appendf(out_, "%9u", entry_.sequenceNumber);
        return 0;
      case 'p':
        appendf(out_, "%u", entry_.pid);
        return 0;
      case 't':
        if (brokenDownTime()) std::strftime(date_, kClockTextLimit, "%T", &time_);
        appendf(out_, "%s %3ums", date_, milliseconds());
        return 0;
      case 'd':
        if (next == 'u' && afterNext == 't') {
          fillDateAndTime();
          appendf(out_, "%s %6uus", date_, microseconds_);
          return 2;
        }
        if (next == 't') {
          fillDateAndTime();
          appendf(out_, "%s %3ums", date_, milliseconds());
          return 1;
        }
        if (next == 'z') {
          fillIsoTime();
          appendf(out_, "%sT%s.%03uZ", date_, clock_, milliseconds());
          return 1;
        }
        out_ += "%d";
        return 0;
      case 'u':
        if (next == 'd' && afterNext == 't') {
          fillDateAndTime();
          appendf(out_, "%s %6uus", date_, microseconds_);
          return 2;
        }
        if (next == 't') {
          if (brokenDownTime()) std::strftime(date_, kClockTextLimit, "%T", &time_);
          appendf(out_, "%s %6uus", date_, microseconds_);
          return 1;
        }
        if (next == 'z') {
          fillIsoTime();
          appendf(out_, "%sT%s.%06uZ", date_, clock_, microseconds_);
          return 1;
        }
        out_ += "%u";
        return 0;
      default:
        // Also the zero byte at the end of a format that ends in "%".
        out_.push_back('%');
        out_.push_back(c);
        return 0;
    }
  }

  std::uint32_t milliseconds() const noexcept { return microseconds_ / 1000u; }

  void fillDateAndTime() noexcept {
    if (brokenDownTime()) std::strftime(date_, kDateBufferSize, "%a %b %e %T %Y", &time_);
  }

  void fillIsoTime() noexcept {
    if (brokenDownTime()) {
      std::strftime(date_, kDateBufferSize, "%F", &time_);
      std::strftime(clock_, kClockBufferSize, "%T", &time_);
    }
  }

  // Always UTC: off the node no product type asks for local time. The
  // stored word is unsigned, a date up to 2106.
  bool brokenDownTime() noexcept {
    const time_t seconds = static_cast<time_t>(entry_.realSeconds);
    return gmtime_r(&seconds, &time_) != nullptr;
  }

  void printDump() {
    if (set_.type != kTypeDump) return;
    const std::size_t n = dumpLength(set_, entry_);
    for (std::size_t row = 0; row < n; row += kDumpRowLength) {
      appendf(out_, "\n0x%03X:", static_cast<unsigned>(row));
      for (std::size_t column = 0; column < kDumpRowLength; ++column) {
        if (row + column < n) {
          appendf(out_, " %02X", static_cast<unsigned>(entry_.contents[row + column]));
        } else {
          out_ += "   ";
        }
      }
      out_ += "  ";
      for (std::size_t column = 0; column < kDumpRowLength && row + column < n; ++column) {
        const std::uint8_t byte = entry_.contents[row + column];
        out_.push_back(byte >= 0x20 && byte <= 0x7F ? static_cast<char>(byte) : '.');
      }
    }
  }

  const std::int16_t traceSetId_;
  const SetRecord& set_;
  const EntryRecord& entry_;
  const std::string* format_ = nullptr;
  std::uint32_t microseconds_ = 0;
  std::string out_;
  // Shared by the directives of one line, so a failed conversion prints
  // what an earlier directive left, as on the node.
  std::tm time_{};
  char date_[kDateBufferSize] = {};
  char clock_[kClockBufferSize] = {};
};

}  // namespace

const char* severityName(std::uint8_t severity) noexcept {
  switch (severity) {
    case TRACE_SEVERITY_ERR: return "ERR";
    case TRACE_SEVERITY_WAR: return "WAR";
    case TRACE_SEVERITY_INF: return "INF";
    case TRACE_SEVERITY_DBG: return "DBG";
    case TRACE_SEVERITY_NOT: return "NOT";
    default: return "???";
  }
}

std::string contentsText(const SetRecord& set, const EntryRecord& entry) {
  if (set.type != kTypeString) return "DUMP " + std::to_string(entry.contentsLength) + " bytes";
  const std::size_t length = std::min<std::size_t>(
      {entry.contentsLength, set.traceEntryContentsLength, kMaxTextLength, entry.contents.size()});
  const auto begin = entry.contents.begin();
  const auto end = std::find(begin, begin + static_cast<std::ptrdiff_t>(length), 0);
  return std::string(begin, end);
}

std::size_t dumpLength(const SetRecord& set, const EntryRecord& entry) noexcept {
  return std::min<std::size_t>(
      {entry.contentsLength, set.traceEntryContentsLength, kMaxDumpLength, entry.contents.size()});
}

std::string isoTime(std::uint32_t seconds, std::uint32_t nanoseconds) {
  const time_t t = static_cast<time_t>(seconds);
  std::tm broken{};
  char date[kDateBufferSize] = {};
  char clock[kClockBufferSize] = {};
  if (gmtime_r(&t, &broken) != nullptr) {
    std::strftime(date, sizeof date, "%F", &broken);
    std::strftime(clock, sizeof clock, "%T", &broken);
  }
  std::string out;
  appendf(out, "%sT%s.%06uZ", date, clock, nanoseconds / 1000u);
  return out;
}

std::string formatEntryLine(std::int16_t traceSetId, const SetRecord& set, const EntryRecord& entry,
                            std::string_view format) {
  return LinePrinter(traceSetId, set, entry).line(format);
}

}  // namespace nodetrace_tool::decode
