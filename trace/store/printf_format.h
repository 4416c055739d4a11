// A printf-compatible formatter for the text of trace entries and records.
//
// formatText formats the everyday conversions itself, without allocation,
// locale or lock: %d %i %u %x %X %o %c %s %p and %%, the flags - + space # 0,
// field width and precision (given as digits or as *), and the length
// modifiers hh h l ll j z t. The result is the one the C library's vsnprintf
// gives: the same bytes in dst (cut to size - 1 characters and terminated
// when size is not 0, nothing written past the terminator) and the same
// return value (the length of the whole, uncut text).
//
// Any other format (floating point, %n, %m, positional arguments, the ' and
// I flags, wide characters, q, L, Z, an unknown or incomplete conversion, or
// a width or precision above 4095) is handed to vsnprintf whole, with the
// arguments as the caller passed them and errno untouched, so %m still names
// the caller's errno. As for vsnprintf, format must not be null, and dst may
// be null only when size is 0.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace nt {

__attribute__((format(printf, 3, 0))) int formatText(char* dst, std::size_t size, const char* format,
                                                     va_list args) noexcept;

// The text of one entry: at most 127 characters and their terminator, and
// room past them that formatEntryText uses as scratch space.
inline constexpr std::size_t kEntryTextSize = 128;
inline constexpr std::size_t kEntryTextScratch = 16;
struct EntryTextBuffer {
  char text[kEntryTextSize + kEntryTextScratch];
};

// Formats into buffer.text the text that vsnprintf(buffer.text, 128, format,
// args) gives, and returns its length up to its first zero byte (what
// strlen would give). Every byte of the first 128 past that length is zero,
// so the whole 128 bytes can be stored as they are; the scratch bytes after
// them are left unspecified. format must not be null.
__attribute__((format(printf, 2, 0))) std::size_t formatEntryText(EntryTextBuffer& buffer, const char* format,
                                                                  va_list args) noexcept;

}  // namespace nt
