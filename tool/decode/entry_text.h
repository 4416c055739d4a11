// One entry as one text line, laid out by the directives of the node's
// entry formatter (%C %I %P %p %S %T %c %i %l %n %t %dt %dut %udt %ut %dz
// %uz), byte for byte as the node prints it, hex rows of dump entries
// included. Off the node there is no product type that asks for local
// time, so every clock directive prints UTC.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "decode/dump_reader.h"

namespace nodetrace_tool::decode {

// The line for the entry of a set, with its final newline. As on the node,
// a format that ends in a newline has that newline turned into a zero
// byte, which the line carries before its own newline; a format stops at
// its first zero byte and is walked by an 8-bit cursor (shorter than 256
// characters).
std::string formatEntryLine(std::int16_t traceSetId, const SetRecord& set, const EntryRecord& entry,
                            std::string_view format);

// The severity's three letters, "???" for any other value.
const char* severityName(std::uint8_t severity) noexcept;

// The contents as %c prints them: the text of a text set (cut at its
// first zero byte and at 128 characters), "DUMP <n> bytes" for any other.
std::string contentsText(const SetRecord& set, const EntryRecord& entry);

// The bytes of a dump entry that count: min(contentsLength, maximum length
// of the set, 1600).
std::size_t dumpLength(const SetRecord& set, const EntryRecord& entry) noexcept;

// Real time as ISO 8601 in UTC with microseconds: "1970-01-01T00:00:00.123456Z".
std::string isoTime(std::uint32_t seconds, std::uint32_t nanoseconds);

}  // namespace nodetrace_tool::decode
