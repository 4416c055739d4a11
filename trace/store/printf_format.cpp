// The formatter of entry texts: the common printf conversions done here, the
// rest by vsnprintf (see printf_format.h for the split).
//
// The text is produced in one pass over the format. A conversion the pass
// does not handle makes it give up, and vsnprintf then formats the whole
// call from the caller's untouched argument list. So that giving up never
// leaves a byte of ours in the caller's buffer (vsnprintf writes nothing past
// its terminator), the pass writes into a stack buffer when the caller's
// buffer is small (entry texts are 128 bytes) and copies it over at the end;
// for a larger buffer a first pass only counts, and the second one writes.
// Literal text and the plain %d, %i and %s, which make up most entry
// formats, take a short way around the parsing of flags and fields.
//
// The output rules follow the C library's vsnprintf to the byte, including
// its choices where the C standard leaves room:
//   - %s of a null pointer prints "(null)", or nothing at all when a
//     precision below 6 is given;
//   - %p prints "(nil)" for a null pointer (never cut by a precision, padded
//     with spaces), and otherwise the value as %#lx would, with the flags
//     + and space and a precision or 0 flag applying as for %d;
//   - the 0 flag pads numbers only: %s, %c and "(nil)" are padded with
//     spaces; it is ignored with - and, for numbers, with a precision;
//   - precision 0 and value 0 print no digits, except for %#o ("0");
//     # adds no 0x to a zero value;
//   - + wins over space; both apply to %d, %i and %p only;
//   - %c of 0 writes a zero byte, which counts in the result;
//   - a * width below 0 means - and its absolute value, a * precision
//     below 0 means no precision.

#include "trace/store/printf_format.h"

#include <bit>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace nt {
namespace {

// Widths and precisions up to this many characters are formatted here; the
// rare larger one goes to vsnprintf, which also reports a text longer than
// INT_MAX characters as an error.
constexpr unsigned kLargestField = 4095;
// A caller's buffer up to this size is formatted into a stack copy first.
constexpr std::size_t kStageSize = 128;

constexpr int kNoPrecision = -1;
// A block copied at once into the stack buffer.
constexpr std::size_t kBlock = 16;

enum class Length : unsigned char { kInt, kChar, kShort, kLong, kLongLong, kIntMax, kSize, kPtrDiff };

struct Conversion {
  bool left = false;
  bool plus = false;
  bool space = false;
  bool alt = false;
  bool zero = false;
  unsigned width = 0;
  int precision = kNoPrecision;
  Length length = Length::kInt;
};

// Where the characters go: dst has room for `room` characters; the ones
// beyond are only counted. Empty pieces cost no call.
struct Output {
  char* dst;
  std::size_t room;
  // Bytes of dst that may be written past the text as scratch space (only
  // in buffers whose bytes past the text are never used as they stand).
  std::size_t scratch = 0;
  std::size_t length = 0;
  // A %c of 0 put a zero byte inside the text.
  bool zeroByte = false;

  void put(char c) noexcept {
    if (length < room) dst[length] = c;
    ++length;
  }
  void append(const char* text, std::size_t n) noexcept {
    if (n != 0 && length < room) std::memcpy(dst + length, text, n < room - length ? n : room - length);
    length += n;
  }
  void fill(char c, std::size_t n) noexcept {
    if (n != 0 && length < room) std::memset(dst + length, c, n < room - length ? n : room - length);
    length += n;
  }
};

// The characters that end a piece of literal text.
constexpr auto kLiteralEnds = [] {
  struct Table {
    bool ends[256] = {};
  } table;
  table.ends[static_cast<unsigned char>('%')] = true;
  table.ends[0] = true;
  return table;
}();

// Literal text and %s strings are copied a machine word at a time where the
// output has scratch space: a word is loaded, stored whole, and the first
// byte that ends the piece (a zero, or a '%' in a format) is found in it
// with the usual carry trick, which is exact for the lowest such byte.
// A word is loaded only when it lies inside one 4096-byte block of memory,
// so it never reaches into a page the string does not touch; its bytes past
// the string's end are looked at but never used.
using Word = std::conditional_t<sizeof(void*) == 8, std::uint64_t, std::uint32_t>;
constexpr bool kWordCopies = std::endian::native == std::endian::little;
constexpr Word kOnes = ~Word{0} / 0xFF;
constexpr Word kHighBits = kOnes * 0x80;
constexpr Word kPercents = kOnes * static_cast<unsigned char>('%');
constexpr std::uintptr_t kSafeBlock = 4096;

bool wordReadable(const char* p) noexcept {
  return (reinterpret_cast<std::uintptr_t>(p) & (kSafeBlock - 1)) <= kSafeBlock - sizeof(Word);
}

// The load may cover bytes past the end of the string's object, which the
// address and thread sanitizers would report although they are never used.
__attribute__((no_sanitize_address, no_sanitize_thread)) Word loadWord(const char* p) noexcept {
  Word word;
  std::memcpy(&word, p, sizeof word);
  return word;
}

// The bytes of word that are zero, as their high bits; exact up to and
// including the lowest one.
constexpr Word zeroBytes(Word word) noexcept { return (word - kOnes) & ~word & kHighBits; }

// The index of the lowest byte flagged in a non-zero mask of high bits.
unsigned firstFlagged(Word flags) noexcept { return static_cast<unsigned>(std::countr_zero(flags)) / 8; }

constexpr char kLowerDigits[] = "0123456789abcdef";
constexpr char kUpperDigits[] = "0123456789ABCDEF";
constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// The digits of value in base 8, 10 or 16, written backwards so that they
// end just before end; returns their first character. Values that fit in 32
// bits take 32-bit arithmetic, which is much cheaper on a 32-bit node.
char* digitsOf(char* end, std::uint64_t value, unsigned base, const char* digitChars) noexcept {
  char* p = end;
  if (base == 10) {
    while (value > UINT32_MAX) {
      *--p = static_cast<char>('0' + value % 10);
      value /= 10;
    }
    auto small = static_cast<std::uint32_t>(value);
    do {
      *--p = static_cast<char>('0' + small % 10);
      small /= 10;
    } while (small != 0);
  } else {
    const unsigned shift = base == 16 ? 4 : 3;
    const unsigned mask = base - 1;
    do {
      *--p = digitChars[value & mask];
      value >>= shift;
    } while (value != 0);
  }
  return p;
}

// A number with its sign or 0x prefix, precision zeros, width padding.
// signChar is '-', '+', ' ' or 0; hexPrefix is 'x', 'X' or 0.
void putNumber(Output& out, const Conversion& conv, std::uint64_t magnitude, char signChar, unsigned base,
               char hexPrefix, const char* digitChars) noexcept {
  char buffer[24];  // 22 octal digits of a 64-bit value, and one more 0 for #
  char* const end = buffer + sizeof buffer;
  char* first = end;
  if (magnitude != 0 || conv.precision != 0) first = digitsOf(end, magnitude, base, digitChars);
  auto digitCount = static_cast<std::size_t>(end - first);
  // # of an octal value makes its first digit a 0, unless the precision
  // already puts one there.
  if (base == 8 && conv.alt && (digitCount == 0 || *first != '0') &&
      (conv.precision < 0 || static_cast<std::size_t>(conv.precision) <= digitCount)) {
    *--first = '0';
    ++digitCount;
  }
  char prefix[3];
  std::size_t prefixLength = 0;
  if (signChar != 0) prefix[prefixLength++] = signChar;
  if (hexPrefix != 0) {
    prefix[prefixLength++] = '0';
    prefix[prefixLength++] = hexPrefix;
  }
  std::size_t zeros = 0;
  if (conv.precision >= 0) {
    if (static_cast<std::size_t>(conv.precision) > digitCount) zeros = static_cast<std::size_t>(conv.precision) - digitCount;
  } else if (conv.zero && !conv.left && conv.width > prefixLength + digitCount) {
    zeros = conv.width - prefixLength - digitCount;
  }
  const std::size_t total = prefixLength + zeros + digitCount;
  const std::size_t padding = conv.width > total ? conv.width - total : 0;
  if (!conv.left) out.fill(' ', padding);
  out.append(prefix, prefixLength);
  out.fill('0', zeros);
  out.append(first, digitCount);
  if (conv.left) out.fill(' ', padding);
}

// %d without flags, width or precision.
void putPlainDecimal(Output& out, int value) noexcept {
  // The digits end at buffer + 12; the 16 bytes from the first of them are
  // always inside the buffer, so that they can be copied as one block.
  char buffer[28];
  char* const end = buffer + 12;
  char* first = end;
  unsigned magnitude = value < 0 ? 0u - static_cast<unsigned>(value) : static_cast<unsigned>(value);
  // Two digits per division.
  while (magnitude >= 100) {
    const unsigned pair = magnitude % 100 * 2;
    magnitude /= 100;
    *--first = kDigitPairs[pair + 1];
    *--first = kDigitPairs[pair];
  }
  if (magnitude >= 10) {
    *--first = kDigitPairs[magnitude * 2 + 1];
    *--first = kDigitPairs[magnitude * 2];
  } else {
    *--first = static_cast<char>('0' + magnitude);
  }
  if (value < 0) *--first = '-';
  char* const dst = out.dst;
  const std::size_t room = out.room;
  std::size_t length = out.length;
  if (length + kBlock <= out.scratch) {
    std::memcpy(dst + length, first, kBlock);
    out.length = length + static_cast<std::size_t>(end - first);
    return;
  }
  do {
    if (length < room) dst[length] = *first;
    ++length;
  } while (++first != end);
  out.length = length;
}

void putText(Output& out, const Conversion& conv, const char* text, std::size_t n) noexcept {
  const std::size_t padding = conv.width > n ? conv.width - n : 0;
  if (!conv.left) out.fill(' ', padding);
  out.append(text, n);
  if (conv.left) out.fill(' ', padding);
}

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// Reads the digits of a width or precision at p; false when the value is
// beyond what is formatted here.
bool readNumber(const char*& p, unsigned& value) noexcept {
  value = 0;
  while (isDigit(*p)) {
    value = value * 10 + static_cast<unsigned>(*p - '0');
    if (value > kLargestField) return false;
    ++p;
  }
  return true;
}

using SignedSize = std::make_signed_t<std::size_t>;
using UnsignedPtrDiff = std::make_unsigned_t<std::ptrdiff_t>;

// The one pass over the format. Returns false, possibly having written part
// of the text, when the format needs vsnprintf.
bool formatAll(Output& out, const char* format, va_list* ap) noexcept {
  const char* p = format;
  for (;;) {
    // Literal text is copied as it is scanned. The hot loops keep the
    // output position in locals: a store of a character may alias any
    // memory, out's fields included, and would make the compiler reload them.
    char c;
    {
      char* const dst = out.dst;
      const std::size_t room = out.room;
      const std::size_t scratch = out.scratch;
      std::size_t length = out.length;
      for (;;) {
        if (kWordCopies && length + sizeof(Word) <= scratch && wordReadable(p)) {
          const Word word = loadWord(p);
          const Word ends = zeroBytes(word) | zeroBytes(word ^ kPercents);
          std::memcpy(dst + length, &word, sizeof word);
          if (ends == 0) {
            p += sizeof(Word);
            length += sizeof(Word);
            continue;
          }
          const unsigned n = firstFlagged(ends);
          p += n;
          length += n;
          c = *p;
          break;
        }
        if (kLiteralEnds.ends[static_cast<unsigned char>(c = *p)]) break;
        if (length < room) dst[length] = c;
        ++length;
        ++p;
      }
      out.length = length;
    }
    if (c == '\0') break;
    ++p;  // the '%'

    // The plainest conversions, by far the most frequent, take a short way.
    c = *p;
    if (c == 'd' || c == 'i') {
      ++p;
      putPlainDecimal(out, va_arg(*ap, int));
      continue;
    }
    if (c == 's') {
      ++p;
      const char* text = va_arg(*ap, const char*);
      if (text == nullptr) text = "(null)";
      char* const dst = out.dst;
      const std::size_t room = out.room;
      const std::size_t scratch = out.scratch;
      std::size_t length = out.length;
      // A word at a time while the scratch space lasts, then copied byte by
      // byte while it fits, only measured after that.
      while (kWordCopies && length + sizeof(Word) <= scratch && wordReadable(text)) {
        const Word word = loadWord(text);
        const Word ends = zeroBytes(word);
        std::memcpy(dst + length, &word, sizeof word);
        if (ends != 0) {
          const unsigned n = firstFlagged(ends);
          text += n;
          length += n;
          break;
        }
        text += sizeof(Word);
        length += sizeof(Word);
      }
      while ((c = *text) != '\0') {
        if (length >= room) {
          length += std::strlen(text);
          break;
        }
        dst[length++] = c;
        ++text;
      }
      out.length = length;
      if (length > INT_MAX) return false;
      continue;
    }
    if (c == '%') {
      out.put('%');
      ++p;
      continue;
    }

    Conversion conv;
    for (;; ++p) {
      if (*p == '-') {
        conv.left = true;
      } else if (*p == '+') {
        conv.plus = true;
      } else if (*p == ' ') {
        conv.space = true;
      } else if (*p == '#') {
        conv.alt = true;
      } else if (*p == '0') {
        conv.zero = true;
      } else {
        break;
      }
    }

    if (*p == '*') {
      ++p;
      if (isDigit(*p)) return false;  // a positional *n$
      const int width = va_arg(*ap, int);
      if (width < -static_cast<int>(kLargestField) || width > static_cast<int>(kLargestField)) return false;
      if (width < 0) {
        conv.left = true;
        conv.width = static_cast<unsigned>(-width);
      } else {
        conv.width = static_cast<unsigned>(width);
      }
    } else if (!readNumber(p, conv.width) || *p == '$') {
      return false;  // a huge width, or a positional argument n$
    }

    if (*p == '.') {
      ++p;
      if (*p == '*') {
        ++p;
        if (isDigit(*p)) return false;
        const int precision = va_arg(*ap, int);
        if (precision > static_cast<int>(kLargestField)) return false;
        conv.precision = precision < 0 ? kNoPrecision : precision;
      } else {
        unsigned precision = 0;
        if (!readNumber(p, precision)) return false;
        conv.precision = static_cast<int>(precision);
      }
    }

    switch (*p) {
      case 'h':
        ++p;
        conv.length = Length::kShort;
        if (*p == 'h') {
          ++p;
          conv.length = Length::kChar;
        }
        break;
      case 'l':
        ++p;
        conv.length = Length::kLong;
        if (*p == 'l') {
          ++p;
          conv.length = Length::kLongLong;
        }
        break;
      case 'j':
        ++p;
        conv.length = Length::kIntMax;
        break;
      case 'z':
        ++p;
        conv.length = Length::kSize;
        break;
      case 't':
        ++p;
        conv.length = Length::kPtrDiff;
        break;
      default:
        break;
    }

    const char conversion = *p++;
    switch (conversion) {
      case 'd':
      case 'i': {
        long long value = 0;
        switch (conv.length) {
          case Length::kInt: value = va_arg(*ap, int); break;
          case Length::kChar: value = static_cast<signed char>(va_arg(*ap, int)); break;
          case Length::kShort: value = static_cast<short>(va_arg(*ap, int)); break;
          case Length::kLong: value = va_arg(*ap, long); break;
          case Length::kLongLong: value = va_arg(*ap, long long); break;
          case Length::kIntMax: value = va_arg(*ap, std::intmax_t); break;
          case Length::kSize: value = va_arg(*ap, SignedSize); break;
          case Length::kPtrDiff: value = va_arg(*ap, std::ptrdiff_t); break;
        }
        char signChar = 0;
        std::uint64_t magnitude = static_cast<std::uint64_t>(value);
        if (value < 0) {
          signChar = '-';
          magnitude = 0 - magnitude;
        } else if (conv.plus) {
          signChar = '+';
        } else if (conv.space) {
          signChar = ' ';
        }
        putNumber(out, conv, magnitude, signChar, 10, 0, kLowerDigits);
        break;
      }
      case 'u':
      case 'x':
      case 'X':
      case 'o': {
        std::uint64_t value = 0;
        switch (conv.length) {
          case Length::kInt: value = va_arg(*ap, unsigned); break;
          case Length::kChar: value = static_cast<unsigned char>(va_arg(*ap, unsigned)); break;
          case Length::kShort: value = static_cast<unsigned short>(va_arg(*ap, unsigned)); break;
          case Length::kLong: value = va_arg(*ap, unsigned long); break;
          case Length::kLongLong: value = va_arg(*ap, unsigned long long); break;
          case Length::kIntMax: value = va_arg(*ap, std::uintmax_t); break;
          case Length::kSize: value = va_arg(*ap, std::size_t); break;
          case Length::kPtrDiff: value = static_cast<UnsignedPtrDiff>(va_arg(*ap, std::ptrdiff_t)); break;
        }
        const unsigned base = conversion == 'u' ? 10 : conversion == 'o' ? 8 : 16;
        const char* const digitChars = conversion == 'X' ? kUpperDigits : kLowerDigits;
        const char hexPrefix = base == 16 && conv.alt && value != 0 ? (conversion == 'X' ? 'X' : 'x') : 0;
        putNumber(out, conv, value, 0, base, hexPrefix, digitChars);
        break;
      }
      case 's': {
        if (conv.length != Length::kInt) return false;  // %ls and the like
        const char* text = va_arg(*ap, const char*);
        std::size_t n;
        if (text == nullptr) {
          const bool shown = conv.precision < 0 || conv.precision >= 6;
          text = "(null)";
          n = shown ? 6 : 0;
        } else {
          n = conv.precision < 0 ? std::strlen(text) : strnlen(text, static_cast<std::size_t>(conv.precision));
        }
        putText(out, conv, text, n);
        if (out.length > INT_MAX) return false;
        break;
      }
      case 'c': {
        if (conv.length != Length::kInt) return false;  // %lc
        const char character = static_cast<char>(static_cast<unsigned char>(va_arg(*ap, int)));
        if (character == '\0') out.zeroByte = true;
        putText(out, conv, &character, 1);
        break;
      }
      case 'p': {
        if (conv.length != Length::kInt) return false;
        const void* pointer = va_arg(*ap, void*);
        if (pointer == nullptr) {
          putText(out, conv, "(nil)", 5);
        } else {
          const char signChar = conv.plus ? '+' : conv.space ? ' ' : 0;
          putNumber(out, conv, reinterpret_cast<std::uintptr_t>(pointer), signChar, 16, 'x', kLowerDigits);
        }
        break;
      }
      default:
        // %% with flags, %n, %m, floating point, wide characters, the
        // other length modifiers and flags, anything unknown, and a
        // format that ends inside a conversion.
        return false;
    }
  }
  return out.length <= INT_MAX;
}

}  // namespace

int formatText(char* dst, std::size_t size, const char* format, va_list args) noexcept {
  va_list ap;
  bool done;
  std::size_t length;
  if (size <= kStageSize) {
    char stage[kStageSize];
    Output out{stage, size != 0 ? size - 1 : 0, sizeof stage};
    va_copy(ap, args);
    done = formatAll(out, format, &ap);
    va_end(ap);
    length = out.length;
    if (done && size != 0) {
      const std::size_t kept = length < out.room ? length : out.room;
      std::memcpy(dst, stage, kept);
      dst[kept] = '\0';
    }
  } else {
    // Counted first, so that a format that needs vsnprintf is found before
    // a byte is written.
    Output counter{nullptr, 0};
    va_copy(ap, args);
    done = formatAll(counter, format, &ap);
    va_end(ap);
    length = counter.length;
    if (done) {
      Output out{dst, size - 1};
      va_copy(ap, args);
      formatAll(out, format, &ap);
      va_end(ap);
      dst[length < out.room ? length : out.room] = '\0';
    }
  }
  if (!done) return std::vsnprintf(dst, size, format, args);
  return static_cast<int>(length);
}

namespace {
// The whole buffer zeroed with 16-byte stores: a handful of instructions,
// where the compiler's own choice for this size (a repeated string store)
// pays a start-up cost on every entry.
void clearEntryText(EntryTextBuffer& buffer) noexcept {
  using Block = unsigned char __attribute__((vector_size(kBlock)));
  static_assert(sizeof buffer.text % kBlock == 0);
  const Block zeros{};
  for (std::size_t i = 0; i < sizeof buffer.text; i += kBlock) {
    // Kept as separate stores: the compiler would merge a plain loop of
    // them back into the string store.
    asm("" : : "g"(i));
    std::memcpy(buffer.text + i, &zeros, kBlock);
  }
}
}  // namespace

std::size_t formatEntryText(EntryTextBuffer& buffer, const char* format, va_list args) noexcept {
  static_assert(kEntryTextScratch >= kBlock && kEntryTextScratch >= sizeof(Word));
  // Zeroed whole first (a few fixed-size stores); the pass then writes the
  // text, and its scratch writes reach at most kBlock bytes past the start
  // of the piece being written, so past the end of the text only the
  // kBlock bytes that follow it need clearing again.
  clearEntryText(buffer);
  Output out{buffer.text, kEntryTextSize - 1, sizeof buffer.text};
  va_list ap;
  va_copy(ap, args);
  const bool done = formatAll(out, format, &ap);
  va_end(ap);
  std::size_t length;
  if (done && !out.zeroByte) {
    length = out.length < out.room ? out.length : out.room;
    std::memset(buffer.text + length, 0, kBlock);
    return length;
  }
  // A format for vsnprintf, or a text with a zero byte inside: the text
  // ends at its first zero byte, and everything after it is cleared.
  if (!done) {
    // Cleared again first: the pass's partial text must not show through
    // where vsnprintf fails without writing a terminator.
    std::memset(buffer.text, 0, kEntryTextSize);
    std::vsnprintf(buffer.text, kEntryTextSize, format, args);
  }
  buffer.text[kEntryTextSize - 1] = '\0';
  length = std::strlen(buffer.text);
  std::memset(buffer.text + length, 0, sizeof buffer.text - length);
  return length;
}

}  // namespace nt
