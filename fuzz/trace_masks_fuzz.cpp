// Fuzz target for the reader of "trace_masks.conf".
//
// The input is the file's text. It reaches nt::parseTraceMasks through a
// memory stream, so no file is touched and the trace lock is not involved,
// and is looked up under several names: the first token of each of the first
// lines (the names most likely to match), a name of the example file, a name
// longer than the 20 compared characters, and the empty name.
//
// Beyond "no crash", each result is checked against a plain model of the
// file format written independently below: the same pieces of at most 79
// characters, the same tokens, the same answer and the same mask. Any
// difference aborts, so that libFuzzer keeps the input.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_target.h"
#include "trace/control/masks.h"

namespace {

constexpr std::size_t kPieceLength = 79;        // an 80-byte line buffer
constexpr std::size_t kComparedLength = 20;     // characters of a name compared
constexpr std::string_view kSeparators = " \t\r\v";
constexpr std::uint32_t kUntouched = 0xA5C3E10Fu;

struct Answer {
  int found = 0;
  std::uint32_t mask = kUntouched;
};

bool isSeparator(char c) { return kSeparators.find(c) != std::string_view::npos; }

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The tokens of a piece: the piece ends at its first zero byte, tokens are
// runs of anything but the four separators (the newline included).
std::vector<std::string> tokensOf(std::string_view piece) {
  const std::size_t end = piece.find('\0');
  if (end != std::string_view::npos) piece = piece.substr(0, end);
  std::vector<std::string> tokens;
  std::size_t i = 0;
  while (i < piece.size()) {
    while (i < piece.size() && isSeparator(piece[i])) ++i;
    const std::size_t start = i;
    while (i < piece.size() && !isSeparator(piece[i])) ++i;
    if (i > start) tokens.emplace_back(piece.substr(start, i - start));
  }
  return tokens;
}

// Names equal over their first 20 characters (a shorter one ends the
// comparison where it ends).
bool sameName(const std::string& token, const std::string& name) {
  for (std::size_t i = 0; i < kComparedLength; ++i) {
    const char a = i < token.size() ? token[i] : '\0';
    const char b = i < name.size() ? name[i] : '\0';
    if (a != b) return false;
    if (a == '\0') return true;
  }
  return true;
}

// The pieces that one fgets call each returns: up to and including a
// newline, at most 79 characters.
std::vector<std::string_view> piecesOf(std::string_view text) {
  std::vector<std::string_view> pieces;
  std::size_t position = 0;
  while (position < text.size()) {
    std::size_t length = 0;
    while (length < kPieceLength && position + length < text.size()) {
      ++length;
      if (text[position + length - 1] == '\n') break;
    }
    pieces.push_back(text.substr(position, length));
    position += length;
  }
  return pieces;
}

Answer model(std::string_view text, const std::string& name) {
  Answer answer;
  for (const std::string_view piece : piecesOf(text)) {
    const std::vector<std::string> tokens = tokensOf(piece);

    if (tokens.empty() || tokens[0][0] == '#' || tokens[0][0] == '\n') continue;
    if (!sameName(tokens[0], name) || tokens.size() < 2) continue;
    std::string value = tokens[1];
    if (value.size() >= 2 && value[0] == '0' && value[1] == 'x') value.erase(0, 2);
    if (value.empty() || !isHexDigit(value[0])) continue;
    unsigned converted = 0;
    if (std::sscanf(value.c_str(), "%x", &converted) != 1) converted = 0;
    answer.found = 1;
    answer.mask = converted;
  }
  return answer;
}

Answer parse(const std::uint8_t* data, std::size_t size, const std::string& name) {
  Answer answer;
  // A memory stream over no bytes is refused by some C libraries; an empty
  // input is a stream over one byte that is never read.
  static char empty[1] = {'\0'};
  std::FILE* stream = size > 0 ? fmemopen(const_cast<std::uint8_t*>(data), size, "r")
                               : fmemopen(empty, 1, "r");
  if (stream == nullptr) std::abort();
  if (size == 0) std::fgetc(stream);
  answer.found = nt::parseTraceMasks(stream, name.c_str(), &answer.mask);
  std::fclose(stream);
  return answer;
}

// The first tokens of the first lines, each once, as names to look up.
std::vector<std::string> namesIn(std::string_view text) {
  constexpr std::size_t kLines = 8;
  std::vector<std::string> names;
  for (const std::string_view piece : piecesOf(text)) {
    if (names.size() == kLines) break;
    const std::vector<std::string> tokens = tokensOf(piece);
    if (!tokens.empty() && std::find(names.begin(), names.end(), tokens[0]) == names.end()) {
      names.push_back(tokens[0]);
    }
  }
  return names;
}

void check(const std::uint8_t* data, std::size_t size, const std::string& name) {
  const Answer got = parse(data, size, name);
  const Answer expected = model(std::string_view(reinterpret_cast<const char*>(data), size), name);
  if (got.found != 0 && got.found != 1) std::abort();
  if (got.found == 0 && got.mask != kUntouched) std::abort();  // untouched without a match
  if (got.found != expected.found || got.mask != expected.mask) {
    std::fprintf(stderr, "trace mask parser and model differ for name \"%s\": %d 0x%08X, expected %d 0x%08X\n",
                 name.c_str(), got.found, got.mask, expected.found, expected.mask);
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const std::string& name : namesIn(text)) check(data, size, name);
  check(data, size, "DiagSet");
  check(data, size, "ABCDEFGHIJKLMNOPQRSTUVWXY");
  check(data, size, "");
  return 0;
}
