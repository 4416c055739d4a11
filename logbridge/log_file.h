// The local log file of the log bridge: the bridge's own diagnostic lines go
// to it, to standard output, to both or nowhere, as the process's log mode
// says. The file is kept small by a size check every 20 lines: at 51200 bytes
// its last 200 lines are saved in the tail file and it starts afresh with a
// note that names the tail file.
#pragma once

#include <cstdint>

namespace nt {

// Writes one line (text without a line end) as the log mode says. Appending
// takes no lock; only the truncation is guarded, and only loosely.
void writeHBKLogLine(const char* line) noexcept;

// The process's line counter: lines written in modes 1 and 2, starting at 1.
// A size check runs with each line that finds it at a multiple of 20.
std::int32_t hbkLogLineCounter() noexcept;

// Test hook: log mode 1, line counter 1, the two paths back to the node
// names, and the log domain not registered.
void resetLogBridgeForTests() noexcept;

}  // namespace nt
