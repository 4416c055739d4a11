#include "decode/ctf_output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <system_error>
#include <tuple>

#include "nodetrace/trace_layout.h"
#include "decode/entry_text.h"

namespace nodetrace_tool::decode {
namespace {

using Json = nlohmann::json;

constexpr std::uint32_t kTypeString = TS_STRING;
constexpr std::uint64_t kNanosecondsPerSecond = 1000000000u;
constexpr std::uint32_t kPacketMagic = 0xC1FC1FC1u;
// Events are grouped into packets of about this size, so that a reader
// can skip through a long stream without reading every event.
constexpr std::size_t kPacketContentLimit = 64 * 1024;
constexpr const char* kMetadataName = "metadata";
constexpr const char* kStreamPrefix = "stream_";

// The log levels of the format's readers (the syslog scale, with the most
// detailed debug level last) for the node's severities.
struct SeverityLevel {
  std::uint8_t severity;
  const char* name;
  int logLevel;
};
constexpr SeverityLevel kSeverityLevels[] = {
    {TRACE_SEVERITY_ERR, "ERR", 3}, {TRACE_SEVERITY_WAR, "WAR", 4}, {TRACE_SEVERITY_NOT, "NOT", 5},
    {TRACE_SEVERITY_INF, "INF", 6}, {TRACE_SEVERITY_DBG, "DBG", 14},
};

const SeverityLevel* severityLevel(std::uint8_t severity) noexcept {
  for (const SeverityLevel& level : kSeverityLevels) {
    if (level.severity == severity) return &level;
  }
  return nullptr;
}

bool isText(const SetRecord& set) noexcept { return set.type == kTypeString; }

// Strings of the trace are UTF-8, as its readers expect: bytes that are
// not become U+FFFD, exactly as in the JSON output.
std::string utf8(const std::string& text) {
  const bool ascii = std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii) return text;
  const std::string json = Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
  return Json::parse(json).get<std::string>();
}

// A name inside a string literal of the metadata: printable ASCII without
// quotes and backslashes, so that no reader has to agree on escapes. Every
// other character of the UTF-8 text becomes one "_".
std::string literalText(const std::string& utf8Text) {
  std::string out;
  for (const unsigned char c : utf8Text) {
    if (c >= 0x80 && c < 0xC0) continue;  // the rest of a character already replaced
    out.push_back(c >= 0x20 && c < 0x7F && c != '"' && c != '\\' ? static_cast<char>(c) : '_');
  }
  return out;
}

// An entry's real time on the trace's clock.
std::uint64_t realTime(const EntryRecord& entry) noexcept {
  return entry.realSeconds * kNanosecondsPerSecond + entry.realNanoseconds;
}

// One event class per set (by name and type) and severity, numbered in the
// order of first appearance over all files.
struct EventClass {
  std::uint32_t id = 0;
  std::string name;  // "Radio:INF", unique in the trace
  bool text = true;
  const SeverityLevel* level = nullptr;
};

using ClassKey = std::tuple<std::string, bool, std::uint8_t>;

class EventClasses {
 public:
  explicit EventClasses(const std::vector<DecodedFile>& files) {
    std::map<std::string, int> usedNames;
    for (const DecodedFile& file : files) {
      for (const EntryRecord& entry : file.entries) {
        const SetRecord& set = file.sets[entry.set];
        const ClassKey key{set.nameText(), isText(set), entry.severity};
        if (ids_.count(key) != 0) continue;
        EventClass added;
        added.id = static_cast<std::uint32_t>(classes_.size());
        added.text = isText(set);
        added.level = severityLevel(entry.severity);
        char severity[8];
        std::snprintf(severity, sizeof severity, "0x%02X", static_cast<unsigned>(entry.severity));
        std::string name = literalText(utf8(set.nameText())) + ":" + (added.level ? added.level->name : severity);
        // Names that came out alike (a set of each type, or names that
        // differ only in bytes the literal cannot hold) get a number.
        const int seen = usedNames[name]++;
        if (seen > 0) name += "#" + std::to_string(seen + 1);
        added.name = std::move(name);
        ids_.emplace(key, added.id);
        classes_.push_back(std::move(added));
      }
    }
  }

  std::uint32_t id(const SetRecord& set, const EntryRecord& entry) const {
    return ids_.at(ClassKey{set.nameText(), isText(set), entry.severity});
  }
  const std::vector<EventClass>& all() const noexcept { return classes_; }

 private:
  std::map<ClassKey, std::uint32_t> ids_;
  std::vector<EventClass> classes_;
};

// The metadata: integers byte-aligned and little-endian, one stream class
// whose packets name their dump file, and the event classes.
constexpr const char* kMetadataHead = R"(/* CTF 1.8 */

typealias integer { size = 8; align = 8; signed = false; } := uint8_t;
typealias integer { size = 16; align = 8; signed = false; } := uint16_t;
typealias integer { size = 32; align = 8; signed = false; } := uint32_t;
typealias integer { size = 32; align = 8; signed = false; base = 16; } := uint32_hex_t;
typealias integer { size = 64; align = 8; signed = false; } := uint64_t;
typealias integer { size = 32; align = 8; signed = true; } := int32_t;

trace {
	major = 1;
	minor = 8;
	byte_order = le;
	packet.header := struct {
		uint32_t magic;
		uint32_t stream_id;
		uint64_t stream_instance_id;
	};
};

env {
	producer = "nodetrace decode";
};

clock {
	name = "realtime";
	description = "CLOCK_REALTIME of the node that wrote the entry";
	freq = 1000000000;
	precision = 0;
	offset_s = 0;
	offset = 0;
	absolute = true;
};

typealias integer { size = 64; align = 8; signed = false; map = clock.realtime.value; } := realtime_t;

typealias enum : uint8_t {
	"NOT" = 8,
	"DBG" = 16,
	"INF" = 32,
	"WAR" = 64,
	"ERR" = 128,
} := severity_t;

stream {
	id = 0;
	packet.context := struct {
		realtime_t timestamp_begin;
		realtime_t timestamp_end;
		uint64_t content_size;
		uint64_t packet_size;
		uint64_t packet_seq_num;
		string file;
		string kind;
	};
	event.header := struct {
		uint32_t id;
		realtime_t timestamp;
	};
};
)";

constexpr const char* kCommonFields = R"(		uint16_t set_id;
		string set_name;
		string set_type;
		uint32_t sequence;
		severity_t severity;
		uint32_hex_t category;
		uint32_t pid;
		uint32_t tid;
		string source_file;
		int32_t line;
		uint32_t monotonic_seconds;
		uint32_t monotonic_nanoseconds;
		uint32_t real_seconds;
		uint32_t real_nanoseconds;
		uint16_t length;
)";

std::string metadataText(const EventClasses& classes) {
  std::string text = kMetadataHead;
  for (const EventClass& event : classes.all()) {
    text += "\nevent {\n\tname = \"" + event.name + "\";\n\tid = " + std::to_string(event.id) +
            ";\n\tstream_id = 0;\n";
    if (event.level != nullptr) text += "\tloglevel = " + std::to_string(event.level->logLevel) + ";\n";
    text += "\tfields := struct {\n";
    text += kCommonFields;
    text += event.text ? "\t\tstring text;\n" : "\t\tuint16_t bytes_length;\n\t\tuint8_t bytes[bytes_length];\n";
    text += "\t};\n};\n";
  }
  return text;
}

// Little-endian fields into a growing buffer.
class Writer {
 public:
  std::vector<std::uint8_t> bytes;

  void u8(std::uint8_t v) { bytes.push_back(v); }
  void u16(std::uint16_t v) { put(v, 2); }
  void u32(std::uint32_t v) { put(v, 4); }
  void u64(std::uint64_t v) { put(v, 8); }
  void string(const std::string& text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.push_back(0);
  }
  void patch64(std::size_t at, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) bytes[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(v >> (8 * i));
  }

 private:
  void put(std::uint64_t v, int width) {
    for (int i = 0; i < width; ++i) bytes.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
};

void writeEvent(Writer& out, const EventClasses& classes, const DecodedFile& file, const EntryRecord& entry,
                std::uint64_t timestamp) {
  const SetRecord& set = file.sets[entry.set];
  out.u32(classes.id(set, entry));
  out.u64(timestamp);
  out.u16(set.id);
  out.string(utf8(set.nameText()));
  out.string(isText(set) ? "TS_STRING" : "TS_DUMP");
  out.u32(entry.sequenceNumber);
  out.u8(entry.severity);
  out.u32(entry.category);
  out.u32(entry.pid);
  out.u32(entry.tid);
  out.string(utf8(entry.fileNameText()));
  out.u32(static_cast<std::uint32_t>(entry.line));
  out.u32(entry.monotonicSeconds);
  out.u32(entry.monotonicNanoseconds);
  out.u32(entry.realSeconds);
  out.u32(entry.realNanoseconds);
  out.u16(entry.contentsLength);
  if (isText(set)) {
    out.string(utf8(contentsText(set, entry)));
  } else {
    const std::size_t n = dumpLength(set, entry);
    out.u16(static_cast<std::uint16_t>(n));
    out.bytes.insert(out.bytes.end(), entry.contents.begin(), entry.contents.begin() + static_cast<std::ptrdiff_t>(n));
  }
}

// The stream of one file: packets of whole events. A clock that was set
// back on the node would make the event times of the stream go backwards,
// which readers refuse; such an event keeps the time of the one before it
// on the trace's clock, while its real_seconds and real_nanoseconds fields
// keep the time the node wrote.
std::vector<std::uint8_t> streamBytes(const EventClasses& classes, const std::vector<DecodedFile>& files,
                                      std::size_t index) {
  const DecodedFile& file = files[index];
  std::vector<std::uint8_t> stream;
  std::uint64_t clock = 0;
  std::uint64_t sequence = 0;
  std::size_t next = 0;
  do {
    Writer packet;
    packet.u32(kPacketMagic);
    packet.u32(0);  // the one stream class
    packet.u64(index);
    const std::size_t beginAt = packet.bytes.size();
    packet.u64(0);  // timestamp_begin, timestamp_end, content_size and packet_size follow below
    packet.u64(0);
    packet.u64(0);
    packet.u64(0);
    packet.u64(sequence++);
    packet.string(utf8(file.name));
    packet.string(kindName(file.kind));
    std::uint64_t begin = clock;
    bool first = true;
    while (next < file.entries.size() && packet.bytes.size() < kPacketContentLimit) {
      const EntryRecord& entry = file.entries[next++];
      clock = std::max(clock, realTime(entry));
      if (first) begin = clock;
      first = false;
      writeEvent(packet, classes, file, entry, clock);
    }
    const std::uint64_t bits = packet.bytes.size() * 8u;
    packet.patch64(beginAt, begin);
    packet.patch64(beginAt + 8, clock);
    packet.patch64(beginAt + 16, bits);
    packet.patch64(beginAt + 24, bits);
    stream.insert(stream.end(), packet.bytes.begin(), packet.bytes.end());
  } while (next < file.entries.size());
  return stream;
}

bool isTraceFile(const std::string& name) {
  if (name == kMetadataName) return true;
  const std::size_t prefix = std::strlen(kStreamPrefix);
  return name.size() > prefix && name.compare(0, prefix, kStreamPrefix) == 0 &&
         std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix), name.end(),
                     [](char c) { return c >= '0' && c <= '9'; });
}

std::string errorText(const std::error_code& error) { return error.message(); }

std::optional<std::string> writeFile(const std::filesystem::path& path, const void* data, std::size_t size) {
  errno = 0;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (out) out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  if (out) out.close();
  if (!out) {
    const int error = errno;
    return "cannot write " + path.filename().string() + ": " + (error != 0 ? std::strerror(error) : "write failed");
  }
  return std::nullopt;
}

}  // namespace

std::string ctfMetadata(const std::vector<DecodedFile>& files) { return metadataText(EventClasses(files)); }

std::vector<std::uint8_t> ctfStream(const std::vector<DecodedFile>& files, std::size_t file) {
  return streamBytes(EventClasses(files), files, file);
}

std::optional<std::string> writeCtfTrace(const std::string& directory, const std::vector<DecodedFile>& files) {
  namespace fs = std::filesystem;
  const fs::path root(directory);
  std::error_code error;
  if (fs::exists(root, error) && !fs::is_directory(root, error)) return "cannot write a trace there: not a directory";
  fs::create_directories(root, error);
  if (error) return "cannot create the directory: " + errorText(error);

  // A reader takes every file of the directory for a part of the trace:
  // only an earlier trace of this writer may be replaced.
  std::vector<fs::path> old;
  for (fs::directory_iterator it(root, error), end; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (!isTraceFile(name)) {
      return "cannot write a trace there: the directory holds \"" + name +
             "\", which is not part of a trace of nodetrace decode";
    }
    old.push_back(it->path());
  }
  if (error) return "cannot read the directory: " + errorText(error);
  for (const fs::path& path : old) {
    if (!fs::remove(path, error) && error) return "cannot remove " + path.filename().string() + ": " + errorText(error);
  }

  const EventClasses classes(files);
  for (std::size_t index = 0; index < files.size(); ++index) {
    const std::vector<std::uint8_t> bytes = streamBytes(classes, files, index);
    if (auto failed = writeFile(root / (kStreamPrefix + std::to_string(index)), bytes.data(), bytes.size())) {
      return failed;
    }
  }
  // The metadata last: a trace whose streams are not all written has none.
  const std::string metadata = metadataText(classes);
  return writeFile(root / kMetadataName, metadata.data(), metadata.size());
}

}  // namespace nodetrace_tool::decode
