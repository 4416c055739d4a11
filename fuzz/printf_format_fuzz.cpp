// Differential fuzz target of the entry text formatter: nt::formatText (and
// nt::formatEntryText, the entry writer's form of it)
// against the C library's vsnprintf.
//
// The input is read as a small program that builds a format and a matching
// argument list: literal text, and conversions with random flags, widths,
// precisions (digits or *), length modifiers and conversion characters,
// most of them the ones the formatter handles, some the ones it hands to
// vsnprintf (%m, %'d, %lc, q, L, Z, flagged %%, an unknown conversion at the
// end). Every argument is passed with its real C type (int, long, long long,
// a string or a pointer), so that the argument list has the right layout on
// every ABI: on 32-bit ARM `long`, `size_t` and `ptrdiff_t` are 32 bits and
// a `long long` sits on an 8-byte boundary.
//
// The format is run both ways into buffers of three sizes (one chosen by the
// input, 128 as for entries, and 400) prefilled with the same pattern, with
// the same errno. Results, every byte of the buffers (also those past the
// terminator, which vsnprintf leaves alone) and errno afterwards must be
// equal; any difference is printed and aborts, so that libFuzzer keeps the
// input.

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <type_traits>
#include <vector>

#include "fuzz/fuzz_target.h"
#include "trace/store/printf_format.h"

// The formats are built at run time, which is the point.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace {

constexpr std::size_t kMaxArguments = 4;
constexpr std::size_t kMaxPieces = 12;
constexpr std::size_t kBufferSize = 400;

// The C type an argument is passed with.
enum class Kind : std::uint8_t { kInt, kLong, kLongLong, kString, kPointer };

struct Argument {
  Kind kind;
  long long integer = 0;
  const char* text = nullptr;
  void* pointer = nullptr;
};

class Reader {
 public:
  Reader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  bool empty() const { return position_ >= size_; }
  std::uint8_t byte() { return position_ < size_ ? data_[position_++] : 0; }
  std::uint64_t bytes(unsigned count) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < count; ++i) value = value << 8 | byte();
    return value;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t position_ = 0;
};

struct Case {
  std::string format;
  std::vector<Argument> arguments;
  std::deque<std::string> texts;  // the strings the input spells out (they never move)
  std::size_t size = 128;
  int errnoValue = 0;
};

// The argument kind of a C type, by its size and kind.
template <typename T>
constexpr Kind kindOf() {
  if constexpr (std::is_same_v<std::make_signed_t<T>, int>) {
    return Kind::kInt;
  } else if constexpr (std::is_same_v<std::make_signed_t<T>, long>) {
    return Kind::kLong;
  } else {
    static_assert(std::is_same_v<std::make_signed_t<T>, long long>);
    return Kind::kLongLong;
  }
}

long long integerValue(Reader& in) {
  switch (in.byte() % 12) {
    case 0: return 0;
    case 1: return -1;
    case 2: return INT_MIN;
    case 3: return INT_MAX;
    case 4: return LLONG_MIN;
    case 5: return LLONG_MAX;
    case 6: return static_cast<long long>(UINT_MAX);
    case 7: return static_cast<signed char>(in.byte());
    case 8: return static_cast<std::int16_t>(in.bytes(2));
    case 9: return static_cast<std::int32_t>(in.bytes(4));
    default: return static_cast<long long>(in.bytes(8));
  }
}

const char* stringValue(Reader& in, Case& c) {
  static const std::string kLong(200, 'L');
  switch (in.byte() % 8) {
    case 0: return nullptr;
    case 1: return "";
    case 2: return "sensor";
    case 3: return kLong.c_str();
    case 4: return "\xff\xc3\xa9 high bytes\n";
    default: {
      std::string text;
      const unsigned length = in.byte() % 40;
      for (unsigned i = 0; i < length && !in.empty(); ++i) {
        const auto ch = static_cast<char>(in.byte());
        if (ch == '\0') break;
        text.push_back(ch);
      }
      c.texts.push_back(std::move(text));
      return nullptr;  // set by the caller from texts.back()
    }
  }
}

bool addArgument(Case& c, Kind kind, Reader& in) {
  if (c.arguments.size() == kMaxArguments) return false;
  Argument argument{kind};
  switch (kind) {
    case Kind::kInt:
    case Kind::kLong:
    case Kind::kLongLong:
      argument.integer = integerValue(in);
      break;
    case Kind::kString: {
      const std::size_t textsBefore = c.texts.size();
      argument.text = stringValue(in, c);
      if (c.texts.size() != textsBefore) argument.text = c.texts.back().c_str();
      break;
    }
    case Kind::kPointer:
      switch (in.byte() % 4) {
        case 0: argument.pointer = nullptr; break;
        case 1: argument.pointer = reinterpret_cast<void*>(std::uintptr_t{1}); break;
        case 2: argument.pointer = reinterpret_cast<void*>(UINTPTR_MAX); break;
        default: argument.pointer = reinterpret_cast<void*>(static_cast<std::uintptr_t>(in.bytes(8))); break;
      }
      break;
  }
  c.arguments.push_back(argument);
  return true;
}

// A width or precision: nothing, digits, or * with an int argument.
void addNumber(Case& c, Reader& in, bool precision) {
  const std::uint8_t choice = in.byte();
  if (choice % 4 == 0) return;
  if (precision) c.format.push_back('.');
  // A * leaves room for the conversion's own argument.
  if (choice % 4 == 1 && c.arguments.size() + 2 <= kMaxArguments) {
    c.format.push_back('*');
    addArgument(c, Kind::kInt, in);
    // Mostly small values, so that the field is used rather than refused,
    // and never huge ones, which take vsnprintf seconds to pad.
    c.arguments.back().integer %= (choice & 0x80) == 0 ? 300 : 5000;
    return;
  }
  static const unsigned kSpecial[] = {0, 1, 5, 126, 127, 128, 129, 4095, 4096};
  const unsigned value = choice % 4 == 2 ? kSpecial[in.byte() % 9] : in.byte();
  if (value != 0 || precision) c.format += std::to_string(value);
}

// One conversion; false when the argument list is full.
bool addConversion(Case& c, Reader& in) {
  if (c.arguments.size() == kMaxArguments) return false;
  c.format.push_back('%');
  const std::uint8_t flags = in.byte();
  static const char kFlags[] = "-+ #0";
  for (unsigned i = 0; i < 5; ++i) {
    if ((flags & (1u << i)) != 0) c.format.push_back(kFlags[(i + flags / 32) % 5]);
  }
  const bool quoteFlag = (flags & 0xE0) == 0xE0;
  if (quoteFlag) c.format.push_back('\'');
  addNumber(c, in, false);
  addNumber(c, in, true);

  struct Modifier {
    const char* text;
    Kind kind;
  };
  static const Modifier kModifiers[] = {
      {"", Kind::kInt},           {"", Kind::kInt},
      {"hh", Kind::kInt},         {"h", Kind::kInt},
      {"l", kindOf<long>()},      {"ll", Kind::kLongLong},
      {"j", kindOf<std::intmax_t>()}, {"z", kindOf<std::size_t>()},
      {"t", kindOf<std::ptrdiff_t>()}, {"q", Kind::kLongLong},
      {"L", Kind::kLongLong},     {"Z", kindOf<std::size_t>()},
  };
  const Modifier& modifier = kModifiers[in.byte() % 12];
  static const char kIntegers[] = "diuxXo";
  const std::uint8_t choice = in.byte();
  switch (choice % 16) {
    case 0: case 1: case 2: case 3: case 4: case 5:
      c.format += modifier.text;
      c.format.push_back(kIntegers[choice % 6]);
      addArgument(c, modifier.kind, in);
      break;
    case 6: case 7:
      c.format.push_back('s');
      addArgument(c, Kind::kString, in);
      break;
    case 8: case 9:
      if ((choice & 0x20) != 0) c.format.push_back('l');
      c.format.push_back((choice & 0x40) != 0 ? 'C' : 'c');
      addArgument(c, Kind::kInt, in);
      break;
    case 10: case 11:
      c.format.push_back('p');
      addArgument(c, Kind::kPointer, in);
      break;
    case 12:
      c.format.push_back('%');
      break;
    case 13:
      c.format.push_back('m');
      break;
    default:
      c.format += modifier.text;
      c.format.push_back(kIntegers[choice % 6]);
      addArgument(c, modifier.kind, in);
      break;
  }
  return true;
}

Case buildCase(Reader& in) {
  Case c;
  static const std::size_t kSizes[] = {0, 1, 2, 5, 16, 126, 127, 128, 129, 200, 400};
  c.size = kSizes[in.byte() % 11];
  c.errnoValue = in.byte() % 140;
  for (std::size_t piece = 0; piece < kMaxPieces && !in.empty(); ++piece) {
    const std::uint8_t op = in.byte();
    if (op % 4 == 0) {
      const unsigned length = 1 + op / 4 % 16;
      for (unsigned i = 0; i < length; ++i) {
        const auto ch = static_cast<char>(in.byte());
        if (ch == '\0') break;
        c.format.push_back(ch);
        if (ch == '%') c.format.push_back('%');
      }
    } else if (op == 0xFF) {
      // An unknown conversion or a format that ends inside one; nothing
      // follows it, since what it consumes is not known.
      static const char* const kEndings[] = {"%y", "%", "%5", "%-", "%.", "%hh", "%5k", "%#-0 +"};
      c.format += kEndings[in.byte() % 8];
      break;
    } else if (!addConversion(c, in)) {
      break;
    }
  }
  return c;
}

std::string shown(const char* bytes, std::size_t n) {
  std::string text;
  for (std::size_t i = 0; i < n; ++i) {
    const auto ch = static_cast<unsigned char>(bytes[i]);
    if (ch >= 0x20 && ch < 0x7F && ch != '\\') {
      text.push_back(static_cast<char>(ch));
    } else {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02x", ch);
      text += escape;
    }
  }
  return text;
}

// Formats c both ways with the arguments that follow it and compares.
void compareBoth(const Case* c, ...) {
  const std::size_t sizes[] = {c->size, 128, kBufferSize};
  for (const std::size_t size : sizes) {
    char expected[kBufferSize];
    char actual[kBufferSize];
    std::memset(expected, 0xA5, sizeof expected);
    std::memset(actual, 0xA5, sizeof actual);
    va_list args;

    va_start(args, c);
    errno = c->errnoValue;
    const int expectedResult = std::vsnprintf(size == 0 ? nullptr : expected, size, c->format.c_str(), args);
    const int expectedErrno = errno;
    va_end(args);

    va_start(args, c);
    errno = c->errnoValue;
    const int actualResult = nt::formatText(size == 0 ? nullptr : actual, size, c->format.c_str(), args);
    const int actualErrno = errno;
    va_end(args);

    if (expectedResult != actualResult || expectedErrno != actualErrno ||
        std::memcmp(expected, actual, sizeof expected) != 0) {
      std::fprintf(stderr, "format \"%s\", size %zu\n", shown(c->format.data(), c->format.size()).c_str(), size);
      std::fprintf(stderr, "vsnprintf:  %d, errno %d, \"%s\"\n", expectedResult, expectedErrno,
                   shown(expected, sizeof expected).c_str());
      std::fprintf(stderr, "formatText: %d, errno %d, \"%s\"\n", actualResult, actualErrno,
                   shown(actual, sizeof actual).c_str());
      std::abort();
    }
  }

  // The entry writer's form: the same text into a 128-byte entry buffer,
  // its length up to the first zero byte, and zeros after it.
  char expected[128];
  std::memset(expected, 0, sizeof expected);
  va_list args;
  va_start(args, c);
  errno = c->errnoValue;
  std::vsnprintf(expected, sizeof expected, c->format.c_str(), args);
  const int expectedErrno = errno;
  va_end(args);
  const std::size_t expectedLength = strnlen(expected, sizeof expected);
  std::memset(expected + expectedLength, 0, sizeof expected - expectedLength);

  nt::EntryTextBuffer entry;
  std::memset(&entry, 0xA5, sizeof entry);
  va_start(args, c);
  errno = c->errnoValue;
  const std::size_t actualLength = nt::formatEntryText(entry, c->format.c_str(), args);
  const int actualErrno = errno;
  va_end(args);
  if (actualLength != expectedLength || actualErrno != expectedErrno ||
      std::memcmp(expected, entry.text, sizeof expected) != 0) {
    std::fprintf(stderr, "format \"%s\", entry text\n", shown(c->format.data(), c->format.size()).c_str());
    std::fprintf(stderr, "vsnprintf:       %zu, errno %d, \"%s\"\n", expectedLength, expectedErrno,
                 shown(expected, sizeof expected).c_str());
    std::fprintf(stderr, "formatEntryText: %zu, errno %d, \"%s\"\n", actualLength, actualErrno,
                 shown(entry.text, sizeof expected).c_str());
    std::abort();
  }
}

// Calls compareBoth with the case's arguments, each with its own C type.
template <typename... Passed>
void callWith(const Case& c, std::size_t index, Passed... passed) {
  if constexpr (sizeof...(Passed) == kMaxArguments) {
    compareBoth(&c, passed...);
  } else {
    if (index == c.arguments.size()) {
      compareBoth(&c, passed...);
      return;
    }
    const Argument& argument = c.arguments[index];
    switch (argument.kind) {
      case Kind::kInt: callWith(c, index + 1, passed..., static_cast<int>(argument.integer)); break;
      case Kind::kLong: callWith(c, index + 1, passed..., static_cast<long>(argument.integer)); break;
      case Kind::kLongLong: callWith(c, index + 1, passed..., argument.integer); break;
      case Kind::kString: callWith(c, index + 1, passed..., argument.text); break;
      case Kind::kPointer: callWith(c, index + 1, passed..., argument.pointer); break;
    }
  }
}

}  // namespace

// The address and thread sanitizers read the formats handed to vsnprintf
// to check their arguments, and stop at some they do not know (flags with
// no conversion after them), which vsnprintf itself takes. The formats here
// are valid with their arguments by construction; the reading is turned
// off.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "check_printf=0"; }
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() { return "check_printf=0"; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Reader in(data, size);
  const Case c = buildCase(in);
  callWith(c, 0);
  return 0;
}
