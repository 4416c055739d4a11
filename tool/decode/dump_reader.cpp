#include "decode/dump_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstddef>
#include <cstring>

#include "nodetrace/trace_layout.h"

namespace nodetrace_tool::decode {
namespace {

// The dump file is built from the records of the trace store, so their
// sizes and field offsets come from the layout header, turned to network
// byte order field by field.
constexpr std::uint64_t kHeaderSize = TRACE_MEMORY_HEADER_SIZE;
constexpr std::uint64_t kDescriptorSize = TRACE_DESCRIPTOR_SIZE;
constexpr std::uint64_t kEntryHeaderSize = TRACE_ENTRY_HEADER_SIZE;
constexpr char kVersion[] = TRACE_VERSION;  // with its zero byte, as stored
static_assert(sizeof kVersion == sizeof TraceMemoryHeader::version);
constexpr std::uint16_t kSystemSetId = SYSTEM_TRACE_SET_ID;
constexpr std::uint16_t kRemoteSystemSetId = REMOTE_SYSTEM_TRACE_SET_ID;
constexpr std::uint32_t kNanosecondsPerSecond = 1000000000u;
// A node that has run longer than this (about 8.5 years) is less likely
// than a monotonic stamp read in the wrong byte order.
constexpr std::uint32_t kPlausibleUptimeSeconds = 1u << 28;

// Field readers over the file's bytes; the caller has checked the bounds.
std::uint16_t be16(const std::uint8_t* p) noexcept { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }

std::uint32_t be32(const std::uint8_t* p) noexcept {
  return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 |
         static_cast<std::uint32_t>(p[2]) << 8 | static_cast<std::uint32_t>(p[3]);
}

std::uint32_t le32(const std::uint8_t* p) noexcept {
  return static_cast<std::uint32_t>(p[3]) << 24 | static_cast<std::uint32_t>(p[2]) << 16 |
         static_cast<std::uint32_t>(p[1]) << 8 | static_cast<std::uint32_t>(p[0]);
}

// The node's layout helper: contents are padded to a multiple of 4.
std::uint64_t align4(std::uint64_t n) noexcept { return (n + 3u) & ~std::uint64_t{3}; }

std::string textOf(const char* field, std::size_t size) {
  return std::string(field, std::find(field, field + size, '\0'));
}

__attribute__((format(printf, 1, 2))) std::string formatted(const char* format, ...) {
  char buffer[256];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  if (length < 0) return {};
  return std::string(buffer, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof buffer - 1));
}

unsigned long long ull(std::uint64_t value) noexcept { return static_cast<unsigned long long>(value); }

// A set name for messages: printable characters kept, others as \xNN.
std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (const unsigned char c : text) {
    if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
      out.push_back(static_cast<char>(c));
    } else {
      out += formatted("\\x%02X", c);
    }
  }
  return out + "\"";
}

DumpHeader parseHeader(const std::uint8_t* p) noexcept {
  using H = TraceMemoryHeader;
  DumpHeader header;
  std::memcpy(header.version.data(), p + offsetof(H, version), header.version.size());
  header.totalNumberTraceEntries = be32(p + offsetof(H, totalNumberTraceEntries));
  header.currentNumberTraceSets = p[offsetof(H, currentNumberTraceSets)];
  header.severityMask = p[offsetof(H, severityMask)];
  std::memcpy(&header.traceEnabled, p + offsetof(H, traceEnabled), sizeof header.traceEnabled);
  header.nextFreeOffset = be32(p + offsetof(H, nextFreeOffset));
  header.lastTraceSetId = be16(p + offsetof(H, lastTraceSetId));
  header.lastEntryIndex = be16(p + offsetof(H, lastEntryIndex));
  header.lockHolderTid = static_cast<std::int32_t>(be32(p + offsetof(H, lockHolderTid)));
  return header;
}

SetRecord parseDescriptor(const std::uint8_t* p, std::uint32_t position) {
  using D = TraceSetStruct;
  SetRecord set;
  set.position = position;
  std::memcpy(set.name.data(), p + offsetof(D, name), set.name.size());
  set.type = be32(p + offsetof(D, type));
  set.categoryMask = be32(p + offsetof(D, categoryMask));
  set.maxNumberEntries = be16(p + offsetof(D, maxNumberEntries));
  set.traceEntryContentsLength = be16(p + offsetof(D, traceEntryContentsLength));
  set.creatorPid = be32(p + offsetof(D, creatorPid));
  set.dataOffset = be32(p + offsetof(D, dataOffset));
  set.writeIndex = be16(p + offsetof(D, writeIndex));
  set.curentNumberEntries = be16(p + offsetof(D, curentNumberEntries));
  set.totalNumberEntries = be32(p + offsetof(D, totalNumberEntries));
  const std::string name = set.nameText();
  if (name == "System") {
    set.id = kSystemSetId;
  } else if (name == "NVJ_System") {
    set.id = kRemoteSystemSetId;
  } else {
    set.id = static_cast<std::uint16_t>(position);
  }
  return set;
}

EntryRecord parseEntry(const std::uint8_t* p, std::uint32_t set, std::uint64_t offset, std::uint64_t contentsSize) {
  using E = TraceEntryHeader;
  EntryRecord entry;
  entry.set = set;
  entry.offset = offset;
  std::memcpy(entry.fileName.data(), p + offsetof(E, fileName), entry.fileName.size());
  entry.line = static_cast<std::int32_t>(be32(p + offsetof(E, line)));
  entry.pid = be32(p + offsetof(E, pid));
  entry.severity = p[offsetof(E, severity)];
  entry.category = be32(p + offsetof(E, category));
  entry.sequenceNumber = be32(p + offsetof(E, sequenceNumber));
  entry.tid = be32(p + offsetof(E, tid));
  entry.contentsLength = be16(p + offsetof(E, contentsLength));
  entry.prevTraceSetId = be16(p + offsetof(E, prevTraceSetId));
  entry.prevEntryIndex = be16(p + offsetof(E, prevEntryIndex));
  std::memcpy(entry.stampBytes.data(), p + offsetof(E, monotonicTime), sizeof(TraceTimeStamp));
  std::memcpy(entry.stampBytes.data() + sizeof(TraceTimeStamp), p + offsetof(E, realTime), sizeof(TraceTimeStamp));
  entry.contents.assign(p + kEntryHeaderSize, p + kEntryHeaderSize + contentsSize);
  return entry;
}

struct Stamps {
  std::uint32_t monotonicSeconds, monotonicNanoseconds, realSeconds, realNanoseconds;
};

// The stamp bytes (56..63, 72..79 of the header) read in one byte order.
Stamps readStamps(const std::array<std::uint8_t, 16>& b, TimeOrder order) noexcept {
  if (order == TimeOrder::kLittle) {
    // The monotonic stamp was turned around as one 64-bit value: its
    // nanoseconds word now comes first.
    return {le32(&b[4]), le32(&b[0]), le32(&b[8]), le32(&b[12])};
  }
  return {be32(&b[0]), be32(&b[4]), be32(&b[8]), be32(&b[12])};
}

// How implausible the entries' stamps are when read in this order: a
// nanoseconds word of a second or more cannot have been written by the
// node; an uptime of years is very unlikely.
std::uint64_t implausibility(const std::vector<EntryRecord>& entries, TimeOrder order) noexcept {
  std::uint64_t score = 0;
  for (const EntryRecord& entry : entries) {
    const Stamps s = readStamps(entry.stampBytes, order);
    if (s.monotonicNanoseconds >= kNanosecondsPerSecond) score += 16;
    if (s.realNanoseconds >= kNanosecondsPerSecond) score += 16;
    if (s.monotonicSeconds >= kPlausibleUptimeSeconds) score += 1;
  }
  return score;
}

// When the stamps do not tell (no entries, or only zeros), the links do:
// the whole-store dump replaces the ids 254 and 255 in every link, the
// dump before reset keeps them.
bool linksNameSramSets(const DecodedFile& file) noexcept {
  return std::any_of(file.entries.begin(), file.entries.end(), [&](const EntryRecord& entry) {
    return (entry.prevTraceSetId == kSystemSetId || entry.prevTraceSetId == kRemoteSystemSetId) &&
           entry.prevTraceSetId >= file.sets.size();
  });
}

TimeOrder detectTimeOrder(const DecodedFile& file) noexcept {
  const std::uint64_t network = implausibility(file.entries, TimeOrder::kNetwork);
  const std::uint64_t little = implausibility(file.entries, TimeOrder::kLittle);
  if (network != little) return network < little ? TimeOrder::kNetwork : TimeOrder::kLittle;
  return linksNameSramSets(file) ? TimeOrder::kLittle : TimeOrder::kNetwork;
}

// Walks header, descriptor table and entry area. Stops at the first thing
// that does not fit, recording it in file.error.
void parseStructure(std::span<const std::uint8_t> bytes, DecodedFile& file) {
  const std::uint64_t size = bytes.size();
  const std::uint8_t* data = bytes.data();
  auto fail = [&](std::uint64_t offset, std::string message) {
    file.error = DecodeError{offset, std::move(message)};
  };

  if (size < kHeaderSize) {
    fail(0, formatted("truncated header at offset 0: %llu bytes of %llu present", ull(size), ull(kHeaderSize)));
    return;
  }
  if (std::memcmp(data, kVersion, sizeof kVersion) != 0) {
    fail(0, "not a dump file: the version at offset 0 reads " +
                quoted(std::string(reinterpret_cast<const char*>(data), sizeof kVersion)) +
                ", not \"" TRACE_VERSION "\"");
    return;
  }
  file.header = parseHeader(data);
  file.hasHeader = true;

  const std::uint32_t count = file.header.currentNumberTraceSets;
  for (std::uint32_t position = 0; position < count; ++position) {
    const std::uint64_t at = kHeaderSize + kDescriptorSize * position;
    if (size - at < kDescriptorSize) {
      fail(at, formatted("truncated descriptor %u of %u at offset %llu: %llu bytes of %llu present", position,
                         count, ull(at), ull(size - at), ull(kDescriptorSize)));
      return;
    }
    file.sets.push_back(parseDescriptor(data + at, position));
  }

  std::uint64_t offset = kHeaderSize + kDescriptorSize * count;
  for (std::uint32_t position = 0; position < count; ++position) {
    const SetRecord& set = file.sets[position];
    const std::uint64_t dataOffsetAt = kHeaderSize + kDescriptorSize * position + offsetof(TraceSetStruct, dataOffset);
    if (set.dataOffset != offset) {
      fail(dataOffsetAt, formatted("bad data offset in descriptor %u (set %s) at offset %llu: %u, the "
                                        "entries continue at %llu",
                                        position, quoted(set.nameText()).c_str(), ull(dataOffsetAt),
                                        set.dataOffset, ull(offset)));
      return;
    }
    const std::uint64_t contentsSize = align4(set.traceEntryContentsLength);
    const std::uint64_t slotSize = kEntryHeaderSize + contentsSize;
    std::uint64_t entries = set.curentNumberEntries;
    // A dump that left out debug entries may still count them in the
    // descriptor; the next set's data offset shows where this set really
    // ends.
    if (position + 1 < count) {
      const std::uint64_t next = file.sets[position + 1].dataOffset;
      if (next >= offset && next <= size && (next - offset) % slotSize == 0) {
        entries = std::min(entries, (next - offset) / slotSize);
      }
    }
    for (std::uint64_t k = 0; k < entries; ++k) {
      const std::uint64_t left = size - offset;
      if (left < slotSize) {
        if (left == 0) {
          fail(offset, formatted("truncated set %s at offset %llu: %llu of %llu entries present",
                                 quoted(set.nameText()).c_str(), ull(offset), ull(k), ull(entries)));
        } else {
          fail(offset, formatted("truncated entry at offset %llu: %llu bytes of %llu present", ull(offset),
                                 ull(left), ull(slotSize)));
        }
        return;
      }
      file.entries.push_back(parseEntry(data + offset, position, offset, contentsSize));
      offset += slotSize;
    }
  }
  if (offset < size) {
    fail(offset, formatted("%llu unexpected bytes after the last entry at offset %llu", ull(size - offset),
                           ull(offset)));
  }
}

}  // namespace

const char* kindName(DumpKind kind) noexcept {
  return kind == DumpKind::kDumpBeforeReset ? "dump_before_reset" : "trace_dump";
}

std::string SetRecord::nameText() const { return textOf(name.data(), name.size()); }

std::string EntryRecord::fileNameText() const { return textOf(fileName.data(), fileName.size()); }

DecodedFile decodeDump(std::span<const std::uint8_t> bytes, std::string name, TimeOrder order) {
  DecodedFile file;
  file.name = std::move(name);
  parseStructure(bytes, file);

  file.timeOrder = order == TimeOrder::kAuto ? detectTimeOrder(file) : order;
  file.kind = file.timeOrder == TimeOrder::kLittle ? DumpKind::kDumpBeforeReset : DumpKind::kTraceDump;
  for (EntryRecord& entry : file.entries) {
    const Stamps s = readStamps(entry.stampBytes, file.timeOrder);
    entry.monotonicSeconds = s.monotonicSeconds;
    entry.monotonicNanoseconds = s.monotonicNanoseconds;
    entry.realSeconds = s.realSeconds;
    entry.realNanoseconds = s.realNanoseconds;
  }
  // The dump writes set after set; the node wrote them interleaved, in
  // the order of their sequence numbers.
  std::stable_sort(file.entries.begin(), file.entries.end(),
                   [](const EntryRecord& a, const EntryRecord& b) { return a.sequenceNumber < b.sequenceNumber; });
  return file;
}

DecodedFile readDumpFile(const std::string& path, TimeOrder order) {
  std::vector<std::uint8_t> bytes;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  int error = fd < 0 ? errno : 0;
  if (fd >= 0) {
    std::uint8_t buffer[65536];
    for (;;) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        error = errno;
        break;
      }
      if (n == 0) break;
      bytes.insert(bytes.end(), buffer, buffer + n);
    }
    ::close(fd);
  }
  if (error != 0) {
    DecodedFile file;
    file.name = path;
    file.error = DecodeError{0, std::string("cannot read: ") + std::strerror(error)};
    return file;
  }
  return decodeDump(bytes, path, order);
}

}  // namespace nodetrace_tool::decode
