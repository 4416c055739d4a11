// Runs the inputs of a fuzz corpus through the fuzz target once each, so that
// any compiler builds the target and the corpus runs as an ordinary test.
//
//   trace_masks_replay DIRECTORY|FILE...
//   print_entry_replay DIRECTORY|FILE...
//
// Every regular file of each directory (sorted by name) and every file named
// directly is one input. Exit status 0 when every input ran; 1 when an
// argument cannot be read or nothing ran. A failing input aborts. Progress
// goes to standard error: a target may send standard output elsewhere.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "fuzz/fuzz_target.h"

namespace {

bool readFile(const std::filesystem::path& file, std::vector<std::uint8_t>& bytes) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return false;
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY|FILE...\n", argv[0]);
    return 1;
  }
  std::vector<std::filesystem::path> inputs;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path argument(argv[i]);
    std::error_code error;
    if (std::filesystem::is_directory(argument, error)) {
      std::vector<std::filesystem::path> files;
      for (const auto& entry : std::filesystem::directory_iterator(argument, error)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
      }
      if (error) {
        std::fprintf(stderr, "%s: %s\n", argv[i], error.message().c_str());
        return 1;
      }
      std::sort(files.begin(), files.end());
      inputs.insert(inputs.end(), files.begin(), files.end());
    } else if (std::filesystem::is_regular_file(argument, error)) {
      inputs.push_back(argument);
    } else {
      std::fprintf(stderr, "%s: not a file or directory\n", argv[i]);
      return 1;
    }
  }

  std::vector<std::uint8_t> bytes;
  for (const auto& input : inputs) {
    if (!readFile(input, bytes)) {
      std::fprintf(stderr, "%s: cannot be read\n", input.c_str());
      return 1;
    }
    std::fprintf(stderr, "%s (%zu bytes)\n", input.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::fprintf(stderr, "%zu inputs ran\n", inputs.size());
  return inputs.empty() ? 1 : 0;
}
