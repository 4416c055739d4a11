#include "decode/entry_output.h"

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <utility>

#include "nodetrace/trace_layout.h"
#include "decode/entry_text.h"

namespace nodetrace_tool::decode {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::uint32_t kTypeString = TS_STRING;
constexpr std::uint64_t kMicrosecondsPerSecond = 1000000;

// JSON text: bytes that are not UTF-8 become U+FFFD rather than failing.
std::string jsonText(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

std::string hexBytes(const SetRecord& set, const EntryRecord& entry) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const std::size_t n = dumpLength(set, entry);
  std::string hex;
  hex.reserve(2 * n);
  for (std::size_t i = 0; i < n; ++i) {
    hex.push_back(kDigits[entry.contents[i] >> 4]);
    hex.push_back(kDigits[entry.contents[i] & 0xF]);
  }
  return hex;
}

bool isText(const SetRecord& set) noexcept { return set.type == kTypeString; }

std::uint64_t realMicroseconds(const EntryRecord& entry) noexcept {
  return entry.realSeconds * kMicrosecondsPerSecond + entry.realNanoseconds / 1000u;
}

std::uint64_t monotonicMicroseconds(const EntryRecord& entry) noexcept {
  return entry.monotonicSeconds * kMicrosecondsPerSecond + entry.monotonicNanoseconds / 1000u;
}

// The fields of an entry, in the order of the JSON objects and the CSV
// columns.
struct Field {
  const char* name;
  Json value;
};

std::vector<Field> entryFields(const DecodedFile& file, const SetRecord& set, const EntryRecord& entry) {
  return {
      {"file", file.name},
      {"kind", kindName(file.kind)},
      {"set_id", set.id},
      {"set_name", set.nameText()},
      {"set_type", isText(set) ? "TS_STRING" : "TS_DUMP"},
      {"sequence", entry.sequenceNumber},
      {"severity", severityName(entry.severity)},
      {"severity_bits", entry.severity},
      {"category", entry.category},
      {"pid", entry.pid},
      {"tid", entry.tid},
      {"source_file", entry.fileNameText()},
      {"line", entry.line},
      {"monotonic_us", monotonicMicroseconds(entry)},
      {"real_seconds", entry.realSeconds},
      {"real_microseconds", entry.realNanoseconds / 1000u},
      {"real_time", isoTime(entry.realSeconds, entry.realNanoseconds)},
      {"length", entry.contentsLength},
  };
}

void writeJsonLines(std::ostream& out, const std::vector<DecodedFile>& files, const std::vector<EntryRef>& stream) {
  for (const EntryRef& ref : stream) {
    const DecodedFile& file = files[ref.file];
    const EntryRecord& entry = file.entries[ref.entry];
    const SetRecord& set = file.sets[entry.set];
    Json object = Json::object();
    for (Field& field : entryFields(file, set, entry)) object[field.name] = std::move(field.value);
    if (isText(set)) {
      object["text"] = contentsText(set, entry);
    } else {
      object["bytes"] = hexBytes(set, entry);
    }
    out << jsonText(object) << '\n';
  }
}

// RFC 4180: a field with a comma, a quote or a line break is quoted, its
// quotes doubled.
std::string csvField(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"') quoted.push_back('"');
    quoted.push_back(c);
  }
  return quoted + "\"";
}

std::string csvValue(const Json& value) {
  return value.is_string() ? value.get<std::string>() : jsonText(value);
}

void writeCsv(std::ostream& out, const std::vector<DecodedFile>& files, const std::vector<EntryRef>& stream) {
  static const DecodedFile kNoFile;
  static const SetRecord kNoSet;
  static const EntryRecord kNoEntry;
  std::string row;
  for (const Field& field : entryFields(kNoFile, kNoSet, kNoEntry)) row += std::string(field.name) + ",";
  out << row << "contents\r\n";
  for (const EntryRef& ref : stream) {
    const DecodedFile& file = files[ref.file];
    const EntryRecord& entry = file.entries[ref.entry];
    const SetRecord& set = file.sets[entry.set];
    row.clear();
    for (const Field& field : entryFields(file, set, entry)) row += csvField(csvValue(field.value)) + ",";
    row += csvField(isText(set) ? contentsText(set, entry) : hexBytes(set, entry));
    out << row << "\r\n";
  }
}

// Trace Event JSON: one instant event per entry on a track per trace set
// and process; each track is named after its set by a metadata event.
void writeChrome(std::ostream& out, const std::vector<DecodedFile>& files, const std::vector<EntryRef>& stream) {
  std::map<std::pair<std::uint32_t, std::string>, std::uint32_t> tracks;
  out << "{\"traceEvents\":[";
  const char* separator = "\n";
  auto event = [&](const Json& value) {
    out << separator << jsonText(value);
    separator = ",\n";
  };
  for (const EntryRef& ref : stream) {
    const DecodedFile& file = files[ref.file];
    const EntryRecord& entry = file.entries[ref.entry];
    const SetRecord& set = file.sets[entry.set];
    const std::string setName = set.nameText();
    const auto [track, added] =
        tracks.try_emplace({entry.pid, setName}, static_cast<std::uint32_t>(tracks.size() + 1));
    if (added) {
      event(Json{{"name", "thread_name"},
                 {"ph", "M"},
                 {"pid", entry.pid},
                 {"tid", track->second},
                 {"args", Json{{"name", setName}}}});
    }
    Json args = Json::object();
    args["set"] = setName;
    args["severity"] = severityName(entry.severity);
    args["category"] = entry.category;
    args["position"] = entry.fileNameText() + "(" + std::to_string(static_cast<std::uint32_t>(entry.line)) + ")";
    args["thread"] = entry.tid;
    args["sequence"] = entry.sequenceNumber;
    args["file"] = file.name;
    if (isText(set)) {
      args["text"] = contentsText(set, entry);
    } else {
      args["bytes"] = hexBytes(set, entry);
    }
    event(Json{{"name", contentsText(set, entry)},
               {"cat", setName},
               {"ph", "i"},
               {"s", "t"},
               {"ts", realMicroseconds(entry)},
               {"pid", entry.pid},
               {"tid", track->second},
               {"args", std::move(args)}});
  }
  out << "\n],\"displayTimeUnit\":\"ms\"}\n";
}

void writeText(std::ostream& out, const std::vector<DecodedFile>& files, const std::vector<EntryRef>& stream,
               std::string_view lineFormat) {
  for (const EntryRef& ref : stream) {
    const DecodedFile& file = files[ref.file];
    const EntryRecord& entry = file.entries[ref.entry];
    const SetRecord& set = file.sets[entry.set];
    out << formatEntryLine(static_cast<std::int16_t>(set.id), set, entry, lineFormat);
  }
}

}  // namespace

std::optional<OutputFormat> parseOutputFormat(std::string_view name) noexcept {
  if (name == "text") return OutputFormat::kText;
  if (name == "jsonl") return OutputFormat::kJsonl;
  if (name == "csv") return OutputFormat::kCsv;
  if (name == "chrome") return OutputFormat::kChrome;
  if (name == "ctf") return OutputFormat::kCtf;
  return std::nullopt;
}

std::optional<TimeOrder> parseTimeOrder(std::string_view name) noexcept {
  if (name == "auto") return TimeOrder::kAuto;
  if (name == "network") return TimeOrder::kNetwork;
  if (name == "little") return TimeOrder::kLittle;
  return std::nullopt;
}

std::vector<EntryRef> mergeByTime(const std::vector<DecodedFile>& files) {
  std::vector<EntryRef> stream;
  std::vector<std::size_t> next(files.size(), 0);
  std::size_t total = 0;
  for (const DecodedFile& file : files) total += file.entries.size();
  stream.reserve(total);
  while (stream.size() < total) {
    std::size_t best = files.size();
    std::tuple<std::uint32_t, std::uint32_t> bestTime{};
    for (std::size_t f = 0; f < files.size(); ++f) {
      if (next[f] >= files[f].entries.size()) continue;
      const EntryRecord& entry = files[f].entries[next[f]];
      const std::tuple<std::uint32_t, std::uint32_t> time{entry.realSeconds, entry.realNanoseconds};
      if (best == files.size() || time < bestTime) {
        best = f;
        bestTime = time;
      }
    }
    stream.push_back({best, next[best]++});
  }
  return stream;
}

void writeEntries(std::ostream& out, const std::vector<DecodedFile>& files, const std::vector<EntryRef>& stream,
                  OutputFormat format, std::string_view lineFormat) {
  switch (format) {
    case OutputFormat::kText: writeText(out, files, stream, lineFormat); break;
    case OutputFormat::kJsonl: writeJsonLines(out, files, stream); break;
    case OutputFormat::kCsv: writeCsv(out, files, stream); break;
    case OutputFormat::kChrome: writeChrome(out, files, stream); break;
    case OutputFormat::kCtf: break;  // a directory: writeCtfTrace
  }
}

}  // namespace nodetrace_tool::decode
