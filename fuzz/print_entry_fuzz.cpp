// Fuzz target for the entry formatter printTraceEntry and its directive
// parser.
//
// The input is cut into the call's arguments:
//
//   offset 0    48 bytes   trace set descriptor (type, lengths, name)
//   offset 48   80 bytes   entry header (severity, time stamps, lengths, ...)
//   offset 128  2 bytes    trace set id, little-endian
//   offset 130  1 byte     bit 0: product type 1 (local time) or 0 (UTC)
//   offset 131  1 byte     n, the format's length (0..255)
//   offset 132  n bytes    the format (a zero byte ends it early)
//   then        the rest   contents, at most 1600 bytes, zeros after
//
// Missing bytes are zero. Every argument lives in a heap block of exactly its
// size, so that the address sanitizer sees any read past it. Beyond "no
// crash", the format must come back unchanged except for a trailing newline,
// which must have become a zero byte.
//
// The formatter prints to standard output, which is sent to /dev/null once.
// An unknown severity is recorded in the error trace set, so the target runs
// on a private node under a temporary directory (in memory where possible),
// removed at exit.

#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "common/node_names.h"
#include "fuzz/fuzz_target.h"
#include "nodetrace/nodetrace.h"
#include "tests/support/recording_platform.h"
#include "trace/store/startup.h"

namespace {

constexpr std::size_t kDescriptorOffset = 0;
constexpr std::size_t kEntryOffset = kDescriptorOffset + sizeof(TraceSetStruct);
constexpr std::size_t kIdOffset = kEntryOffset + sizeof(TraceEntryHeader);
constexpr std::size_t kFlagsOffset = kIdOffset + 2;
constexpr std::size_t kFormatLengthOffset = kFlagsOffset + 1;
constexpr std::size_t kFormatOffset = kFormatLengthOffset + 1;
constexpr std::size_t kContentsSize = TRACE_MAX_DUMP_LENGTH;  // a reader's contents buffer

std::string g_root;

void removeTemporaryNode() {
  nt::resetProcessStateForTests();
  shm_unlink(nt::nodeNames().shm);
  sem_unlink(nt::nodeNames().semaphore);
  std::error_code ignored;
  std::filesystem::remove_all(g_root, ignored);
}

void useTemporaryNode() {
  if (!g_root.empty()) return;
  // The error trace writer writes the SRAM file synchronously; in memory
  // (tmpfs) that costs next to nothing, on a disk it would slow every input
  // with an unknown severity down to the disk's pace.
  for (const char* base : {"/dev/shm", "/tmp"}) {
    std::string pattern = std::string(base) + "/nodetrace-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) {
      g_root = pattern;
      break;
    }
  }
  if (g_root.empty()) std::abort();
  for (const char* dir : {"/var/log", "/ffs/run/logs", "/tmp", "/opt/qmb/etc"}) {
    std::filesystem::create_directories(g_root + dir);
  }
  const std::string suffix = "_fuzz" + std::to_string(getpid());
  if (!nt::relocateNodeNames(g_root.c_str(), suffix.c_str())) std::abort();
  std::atexit(removeTemporaryNode);
  // A zone with daylight saving time, for the local-time directives.
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
}

// The bytes [offset, offset + size) of the input, zeros where it is short.
std::vector<std::uint8_t> slice(const std::uint8_t* data, std::size_t size, std::size_t offset,
                                std::size_t length) {
  std::vector<std::uint8_t> bytes(length, 0);
  if (length > 0 && offset < size) std::memcpy(bytes.data(), data + offset, std::min(length, size - offset));
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  useTemporaryNode();

  auto descriptor = std::make_unique<TraceSetStruct>();
  auto entry = std::make_unique<TraceEntryHeader>();
  std::memcpy(descriptor.get(), slice(data, size, kDescriptorOffset, sizeof *descriptor).data(),
              sizeof *descriptor);
  std::memcpy(entry.get(), slice(data, size, kEntryOffset, sizeof *entry).data(), sizeof *entry);
  const std::vector<std::uint8_t> id = slice(data, size, kIdOffset, 2);
  const auto traceSetId = static_cast<std::int16_t>(id[0] | id[1] << 8);
  nt::test::setProductType((slice(data, size, kFlagsOffset, 1)[0] & 1) != 0 ? 1 : 0);

  const std::size_t formatLength = slice(data, size, kFormatLengthOffset, 1)[0];
  const std::vector<std::uint8_t> formatBytes = slice(data, size, kFormatOffset, formatLength);
  const auto format = std::make_unique<char[]>(formatLength + 1);
  if (formatLength > 0) std::memcpy(format.get(), formatBytes.data(), formatLength);
  format[formatLength] = '\0';
  const std::string before(format.get());

  const std::size_t contentsOffset = kFormatOffset + formatLength;
  const auto contents = std::make_unique<char[]>(kContentsSize);
  std::memcpy(contents.get(), slice(data, size, contentsOffset, kContentsSize).data(), kContentsSize);

  printTraceEntry(traceSetId, descriptor.get(), entry.get(), contents.get(), format.get());

  std::string expected = before;
  if (!expected.empty() && expected.back() == '\n') expected.back() = '\0';
  if (std::memcmp(format.get(), expected.data(), expected.size()) != 0 || format[expected.size()] != '\0') {
    std::fprintf(stderr, "the format was changed beyond its trailing newline\n");
    std::abort();
  }
  return 0;
}
