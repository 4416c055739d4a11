// The entry point that libFuzzer calls with each input, and that the corpus
// replay calls with each file of a corpus directory.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
