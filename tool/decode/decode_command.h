// The "decode" subcommand of the nodetrace tool: decodes dump files
// anywhere, no node needed.
#pragma once

#include <CLI/CLI.hpp>

// Registers "decode FILE... [--format text|jsonl|csv|chrome]
// [--time-order auto|network|little] [--output FILE] [--line-format FMT]"
// on app. Its callback runs the decoding and ends with
// CLI::RuntimeError(status) when a file could not be read whole.
void addDecodeCommand(CLI::App& app);
