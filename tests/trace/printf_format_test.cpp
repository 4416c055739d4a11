// The printf-compatible formatter of entry texts: every row is formatted by
// nt::formatText and by the C library's vsnprintf into buffers prefilled
// with the same pattern, and the results, every byte of the buffers (past
// the terminator too) and errno afterwards must be equal. The rows of the
// common conversions also name the exact text expected. Entries are 128
// bytes, so most rows use a 128-byte buffer: 127 characters and a zero.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "trace/store/printf_format.h"

// The rows hand their formats on to the two formatters; several formats
// are deliberately unusual.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

namespace nt::test {
namespace {

constexpr std::size_t kEntryText = 128;
constexpr std::size_t kLargest = 600;
constexpr unsigned char kPattern = 0xA5;
constexpr int kErrnoBefore = EDOM;

struct Formatted {
  int result = 0;
  std::string buffer;  // all kLargest bytes, pattern past what was written
  int errnoAfter = 0;

  // The characters written before the terminator.
  std::string text(std::size_t size) const {
    if (size == 0 || result < 0) return "";
    const std::size_t kept = std::min(static_cast<std::size_t>(result), size - 1);
    return buffer.substr(0, kept);
  }
};

Formatted formatWith(bool ours, std::size_t size, const char* format, va_list args) {
  Formatted out;
  char buffer[kLargest];
  std::memset(buffer, kPattern, sizeof buffer);
  errno = kErrnoBefore;
  out.result = ours ? nt::formatText(size == 0 ? nullptr : buffer, size, format, args)
                    : std::vsnprintf(size == 0 ? nullptr : buffer, size, format, args);
  out.errnoAfter = errno;
  out.buffer.assign(buffer, sizeof buffer);
  return out;
}

Formatted byFormatter(std::size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Formatted out = formatWith(true, size, format, args);
  va_end(args);
  return out;
}

Formatted byLibrary(std::size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Formatted out = formatWith(false, size, format, args);
  va_end(args);
  return out;
}

// Formats both ways into size bytes; the two must agree byte for byte.
template <typename... Args>
Formatted expectSame(std::size_t size, const char* format, Args... args) {
  const Formatted ours = byFormatter(size, format, args...);
  const Formatted library = byLibrary(size, format, args...);
  EXPECT_EQ(ours.result, library.result) << "format \"" << format << "\"";
  EXPECT_EQ(ours.buffer, library.buffer) << "format \"" << format << "\"";
  EXPECT_EQ(ours.errnoAfter, library.errnoAfter) << "format \"" << format << "\"";
  return ours;
}

// As expectSame into 128 bytes, and the text must be `expected`.
template <typename... Args>
void expectText(std::string_view expected, const char* format, Args... args) {
  const Formatted ours = expectSame(kEntryText, format, args...);
  EXPECT_EQ(ours.result, static_cast<int>(expected.size())) << "format \"" << format << "\"";
  EXPECT_EQ(ours.text(kEntryText), expected) << "format \"" << format << "\"";
  EXPECT_EQ(ours.buffer[expected.size()], '\0') << "format \"" << format << "\"";
  EXPECT_EQ(ours.errnoAfter, kErrnoBefore) << "format \"" << format << "\"";
}

const void* pointer(std::uintptr_t value) { return reinterpret_cast<const void*>(value); }

TEST(PrintfFormat, EntryOfTheBenchmark) { expectText("value 42 of sensor", "value %d of %s", 42, "sensor"); }

TEST(PrintfFormat, LiteralTextAndPercent) {
  expectText("", "");
  expectText("plain text\n", "plain text\n");
  expectText("%", "%%");
  expectText("100% sure %", "100%% sure %%");
  expectText("\xff\xc3\xa9", "\xff\xc3\xa9");
}

TEST(PrintfFormat, SignedDecimal) {
  expectText("0", "%d", 0);
  expectText("-1", "%i", -1);
  expectText("-2147483648", "%d", INT_MIN);
  expectText("2147483647", "%d", INT_MAX);
  expectText("+5", "%+d", 5);
  expectText(" 5", "% d", 5);
  expectText("+5", "%+ d", 5);
  expectText("+5", "% +d", 5);
  expectText("-5", "% d", -5);
  expectText("+0", "%+d", 0);
}

TEST(PrintfFormat, UnsignedOctalAndHexadecimal) {
  expectText("4294967295", "%u", UINT_MAX);
  expectText("ff", "%x", 255u);
  expectText("FF", "%X", 255u);
  expectText("0xff", "%#x", 255u);
  expectText("0XFF", "%#X", 255u);
  expectText("0", "%#x", 0u);
  expectText("377", "%o", 255u);
  expectText("010", "%#o", 8u);
  expectText("0", "%#o", 0u);
  expectText("37777777777", "%o", UINT_MAX);
  expectText("5", "%+u", 5u);
  expectText("5", "% x", 5u);
  expectText("4294967295", "%u", -1);
}

TEST(PrintfFormat, PrecisionAndZeroValue) {
  expectText("", "%.0d", 0);
  expectText("", "%.0u", 0u);
  expectText("", "%.0x", 0u);
  expectText("", "%#.0x", 0u);
  expectText("0", "%#.0o", 0u);
  expectText("     ", "%5.0d", 0);
  expectText("    0", "%#5.0o", 0u);
  expectText("+", "%+.0d", 0);
  expectText(" ", "% .0d", 0);
  expectText("    +|", "%+5.0d|", 0);
  expectText("007", "%.3d", 7);
  expectText("-007", "%.3d", -7);
  expectText("010", "%#.3o", 8u);
  expectText("0x001", "%#.3x", 1u);
  expectText("1", "%.0d", 1);
}

TEST(PrintfFormat, WidthAndFlags) {
  expectText("   42", "%5d", 42);
  expectText("42   |", "%-5d|", 42);
  expectText("00042", "%05d", 42);
  expectText("-0003", "%05d", -3);
  expectText("-0003", "% 05d", -3);
  expectText("+0003", "%+05d", 3);
  expectText("7    |", "%-05d|", 7);
  expectText("3    |", "%0-5d|", 3);
  expectText("  007", "%05.3d", 7);
  expectText("0x000001", "%0#8x", 1u);
  expectText("00000", "%#05x", 0u);
  expectText("00010", "%#05o", 8u);
  expectText("0X00FF", "%#06X", 255u);
  expectText("  0xff", "%#6x", 255u);
  expectText("12345", "%2d", 12345);
}

TEST(PrintfFormat, StarWidthAndPrecision) {
  expectText("   1", "%*d", 4, 1);
  expectText("1   |", "%*d|", -4, 1);
  expectText("3    ", "%0*d", -5, 3);
  expectText("0", "%.*d", -1, 0);
  expectText("3", "%.*d", -1, 3);
  expectText("", "%.*d", 0, 0);
  expectText("  007", "%*.*d", 5, 3, 7);
  expectText("ab", "%.*s", 2, "abc");
  expectText("abc", "%.*s", -2, "abc");
}

TEST(PrintfFormat, LengthModifiers) {
  expectText("44", "%hhd", 300);
  expectText("-128", "%hhd", 128);
  expectText("255", "%hhu", -1);
  expectText("ff", "%hhx", 0x1ff);
  expectText("4464", "%hd", 70000);
  expectText("-32768", "%hd", 32768);
  expectText("65535", "%hu", -1);
  expectText("-9223372036854775808", "%lld", LLONG_MIN);
  expectText("9223372036854775807", "%lli", LLONG_MAX);
  expectText("18446744073709551615", "%llu", ULLONG_MAX);
  expectText("ffffffffffffffff", "%llx", ULLONG_MAX);
  expectText("01777777777777777777777", "%#llo", ULLONG_MAX);
  expectText("4294967296", "%llu", 4294967296ull);
  expectText("-9223372036854775808", "%jd", INTMAX_MIN);
  expectText("18446744073709551615", "%ju", UINTMAX_MAX);
  expectText("-1", "%zd", static_cast<std::make_signed_t<std::size_t>>(-1));
  expectText("-1", "%td", static_cast<std::ptrdiff_t>(-1));
}

// long, size_t and ptrdiff_t are 32 bits on the node and 64 on a PC host.
TEST(PrintfFormat, ModifiersOfTheMachineWord) {
  const bool word32 = sizeof(long) == 4;
  expectText(word32 ? "-2147483648" : "-9223372036854775808", "%ld", LONG_MIN);
  expectText(word32 ? "4294967295" : "18446744073709551615", "%lu", ULONG_MAX);
  expectText(word32 ? "ffffffff" : "ffffffffffffffff", "%lx", ULONG_MAX);
  expectText(sizeof(std::size_t) == 4 ? "4294967295" : "18446744073709551615", "%zu", SIZE_MAX);
  expectText(sizeof(std::ptrdiff_t) == 4 ? "4294967295" : "18446744073709551615", "%tu",
             static_cast<std::ptrdiff_t>(-1));
  expectText(word32 ? "-1 2 -3" : "-1 2 -3", "%ld %lld %ld", -1L, 2LL, -3L);
  expectText("7 8589934592 9", "%d %lld %d", 7, 8589934592LL, 9);
}

TEST(PrintfFormat, Characters) {
  expectText("a", "%c", 'a');
  expectText("  a", "%3c", 'a');
  expectText("a  |", "%-3c|", 'a');
  expectText("    a", "%05c", 'a');
  expectText("\xe9", "%c", 0x1e9);
  expectText(std::string_view("a\0b", 3), "%c%c%c", 'a', 0, 'b');
}

TEST(PrintfFormat, Strings) {
  expectText("sensor", "%s", "sensor");
  expectText("", "%s", "");
  expectText("ab", "%.2s", "abc");
  expectText("abc", "%.5s", "abc");
  expectText("   ab", "%5s", "ab");
  expectText("   ab", "%05s", "ab");
  expectText("ab   |", "%-5s|", "ab");
  expectText("ab   ", "%-05s", "ab");
  const char* none = nullptr;
  expectText("(null)", "%s", none);
  expectText("", "%.3s", none);
  expectText("", "%.5s", none);
  expectText("(null)", "%.6s", none);
  expectText("          ", "%10.3s", none);
  expectText("    (null)", "%010s", none);
}

TEST(PrintfFormat, Pointers) {
  expectText("(nil)", "%p", pointer(0));
  expectText("     (nil)", "%10p", pointer(0));
  expectText("(nil)   |", "%-8p|", pointer(0));
  expectText("(nil)", "%.2p", pointer(0));
  expectText("(nil)", "%05p", pointer(0));
  expectText("0x1234", "%p", pointer(0x1234));
  expectText("+0x1234", "%+p", pointer(0x1234));
  expectText(" 0x1234", "% p", pointer(0x1234));
  expectText("0x00001234", "%010p", pointer(0x1234));
  expectText("0x00001234", "%.8p", pointer(0x1234));
  expectText("    0x1234", "%10p", pointer(0x1234));
  expectText(sizeof(void*) == 4 ? "0xffffffff" : "0xffffffffffffffff", "%p", pointer(UINTPTR_MAX));
}

TEST(PrintfFormat, CutAt127Characters) {
  const std::string text127(127, 'a');
  const std::string text128(128, 'b');
  const std::string text200(200, 'c');
  Formatted out = expectSame(kEntryText, "%s", text127.c_str());
  EXPECT_EQ(out.result, 127);
  EXPECT_EQ(out.text(kEntryText), text127);
  out = expectSame(kEntryText, "%s", text128.c_str());
  EXPECT_EQ(out.result, 128);
  EXPECT_EQ(out.text(kEntryText), text128.substr(0, 127));
  EXPECT_EQ(out.buffer[127], '\0');
  out = expectSame(kEntryText, "%s!", text200.c_str());
  EXPECT_EQ(out.result, 201);
  EXPECT_EQ(out.text(kEntryText), text200.substr(0, 127));
  // A number, a padding and a literal cut in the middle.
  const std::string text125(125, 'd');
  out = expectSame(kEntryText, "%s%d", text125.c_str(), 12345);
  EXPECT_EQ(out.result, 130);
  EXPECT_EQ(out.text(kEntryText), text125 + "12");
  out = expectSame(kEntryText, "%200d", 1);
  EXPECT_EQ(out.result, 200);
  EXPECT_EQ(out.text(kEntryText), std::string(127, ' '));
  out = expectSame(kEntryText, "%-200d|", 1);
  EXPECT_EQ(out.result, 201);
  out = expectSame(kEntryText, (text125 + "%s").c_str(), "xyz");
  EXPECT_EQ(out.text(kEntryText), text125 + "xy");
}

TEST(PrintfFormat, SmallAndEmptyBuffers) {
  Formatted out = expectSame(0, "value %d of %s", 42, "sensor");
  EXPECT_EQ(out.result, 18);
  EXPECT_EQ(out.buffer, std::string(kLargest, static_cast<char>(kPattern)));
  out = expectSame(1, "value %d of %s", 42, "sensor");
  EXPECT_EQ(out.buffer[0], '\0');
  EXPECT_EQ(out.buffer[1], static_cast<char>(kPattern));
  out = expectSame(8, "value %d of %s", 42, "sensor");
  EXPECT_EQ(out.text(8), "value 4");
  for (std::size_t size = 0; size <= 20; ++size) {
    expectSame(size, "%-6s|%+5d|%#x", "ab", 3, 255u);
    expectSame(size, "ab%dcd%s%i", -123456, "xyz", INT_MIN);
  }
}

// Buffers above 128 bytes are formatted in two passes.
TEST(PrintfFormat, LargeBuffers) {
  const std::string text300(300, 'e');
  Formatted out = expectSame(kLargest, "%s %d", text300.c_str(), -12);
  EXPECT_EQ(out.result, 304);
  EXPECT_EQ(out.text(kLargest), text300 + " -12");
  out = expectSame(200, "%300d", 5);
  EXPECT_EQ(out.result, 300);
  expectSame(129, "%s", text300.c_str());
  expectSame(kLargest, "%4095d|%s", 1, "end");
}

// Conversions the formatter leaves to vsnprintf, which then formats the
// whole call with the arguments as passed.
TEST(PrintfFormat, HandedToTheLibrary) {
  expectText("1.500000", "%f", 1.5);
  expectText("x 7 1.50e+00 y", "x %d %.2e %s", 7, 1.5, "y");
  expectText("7 7", "%1$d %1$d", 7);
  expectText("1234567", "%'d", 1234567);
  expectText("A", "%lc", static_cast<wint_t>('A'));
  expectText("wide", "%ls", L"wide");
  expectText("2.5", "%Lg", 2.5L);
  expectText("-3", "%qd", -3LL);
  expectText("%", "%5%");
  expectText("%", "%-5%");
  const Formatted wide = expectSame(kEntryText, "%5000d", 1);
  EXPECT_EQ(wide.result, 5000);
  EXPECT_EQ(wide.text(kEntryText), std::string(127, ' '));
  expectSame(kEntryText, "%*d", 5000, 1);
  expectSame(kEntryText, "%.*d", 5000, 1);
  expectSame(kEntryText, "%y");
  expectSame(kEntryText, "abc%");
  expectSame(kEntryText, "%hhhd", 1);
  expectSame(kEntryText, "%lld%Zd", 1LL, static_cast<std::size_t>(2));
  // What the formatter had written before it met %f must not remain past
  // the library's terminator.
  const Formatted out = expectSame(kEntryText, "abcdefghij%d %f", 5, 0.25);
  EXPECT_EQ(out.text(kEntryText), "abcdefghij5 0.250000");
  expectSame(kLargest, "%300d%f", 5, 0.5);
  expectSame(20, "%s%f", "0123456789012345678901234", 0.5);
}

// %m prints the text of errno as it is at the call.
std::string withErrno(bool ours, int error, const char* format, ...) {
  char buffer[kEntryText];
  va_list args;
  va_start(args, format);
  errno = error;
  const int n = ours ? nt::formatText(buffer, sizeof buffer, format, args)
                     : std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return std::string(buffer) + "|" + std::to_string(n);
}

TEST(PrintfFormat, ErrnoText) {
  EXPECT_EQ(withErrno(true, ENOENT, "open %s: %m", "f"), "open f: No such file or directory|33");
  EXPECT_EQ(withErrno(true, EACCES, "%d %m", 5), withErrno(false, EACCES, "%d %m", 5));
}

TEST(PrintfFormat, CountOfWrittenCharacters) {
  int ours = -1;
  int library = -1;
  byFormatter(kEntryText, "abc%d%n", 12, &ours);
  byLibrary(kEntryText, "abc%d%n", 12, &library);
  EXPECT_EQ(ours, 5);
  EXPECT_EQ(library, 5);
}

}  // namespace
}  // namespace nt::test
