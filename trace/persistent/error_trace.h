// The writer of the persistent error trace set "System" (id 255) in the SRAM
// file: every error, warning and notice of the node and the library's own
// records. Each call is a complete read-modify-write of the file under the
// trace lock, with synchronous writes, so the entry is on the medium when
// the call returns.
#pragma once

#include <cstddef>
#include <cstdint>

namespace nt {

// Appends one text entry. The text is prefixed with "<set name>: " for
// non-error entries of user sets. Result: 0 written or dropped; -5 invalid
// set id (written as an error all the same); -6 file error or re-created
// file; -7 a non-text entry of severity 0x80.
int addErrorTrace(std::uint32_t type, std::uint32_t category, const char* fileName,
                  std::uint32_t line, const char* text, std::int16_t traceSetId,
                  std::int32_t severity) noexcept;

// Writes the prefix "<set name cut to 20>: " of entries of a user set to the
// start of contents (at least 22 bytes) and returns its length; 0, and
// nothing written, when the set has no name (an id that is not valid).
std::size_t writeTraceSetPrefix(char* contents, std::int16_t traceSetId) noexcept;

}  // namespace nt
