// The node-wide severity filter and the per-set category masks, with their
// configuration files "severityMask.conf" and "trace_masks.conf".
#pragma once

#include <cstdint>
#include <cstdio>

namespace nt {

// The value of text read with "%x"; 0 when nothing could be read.
std::uint32_t parseHexValue(const char* text) noexcept;

// Reads trace_masks.conf lines from file and looks for name. Lines are read
// into 80 bytes; tokens are separated by blank, tab, carriage return and
// vertical tab (the newline stays on the last token); a first token starting
// with '#' makes a comment. Column 1 is compared with name over 20
// characters; column 2 is the mask in hex, with an optional "0x" prefix.
// On each match the mask is stored in *mask; the last match wins. Returns
// true when a line matched, else false (*mask untouched).
bool parseTraceMasks(std::FILE* file, const char* name, std::uint32_t* mask) noexcept;

// Looks name up in "/ffs/run/logs/trace_masks.conf" under the trace lock (the
// caller must not hold it). true with *mask set when a line matched, else
// false.
bool lookupTraceMask(const char* name, std::uint32_t* mask) noexcept;

}  // namespace nt
