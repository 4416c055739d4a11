// Fuzz target for the dump file decoder: the input is a dump file. It is
// decoded in each time stamp order and every decoded entry goes through
// every output format, the text lines with a layout that uses every
// directive, and the CTF trace is laid out (metadata and data stream).
// Beyond "no crash": every decoded entry lies whole inside the
// input, an error names an offset inside it, and a file decoded without
// error accounts for every byte.

#include <cstdlib>
#include <ostream>
#include <span>
#include <streambuf>

#include "fuzz/fuzz_target.h"
#include "tool/decode/ctf_output.h"
#include "tool/decode/dump_reader.h"
#include "tool/decode/entry_output.h"

namespace {

namespace decode = nodetrace_tool::decode;

// Counts what is written and keeps nothing.
class CountingBuffer : public std::streambuf {
 public:
  std::size_t written = 0;

 protected:
  int_type overflow(int_type c) override {
    ++written;
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char*, std::streamsize n) override {
    written += static_cast<std::size_t>(n);
    return n;
  }
};

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  for (const decode::TimeOrder order :
       {decode::TimeOrder::kAuto, decode::TimeOrder::kNetwork, decode::TimeOrder::kLittle}) {
    std::vector<decode::DecodedFile> files;
    files.push_back(decode::decodeDump(bytes, "fuzz.bin", order));
    const decode::DecodedFile& file = files.front();
    check(file.timeOrder != decode::TimeOrder::kAuto);
    if (file.error) check(file.error->offset <= size);
    std::uint64_t covered = file.hasHeader ? 28 + 48 * file.sets.size() : 0;
    for (const decode::EntryRecord& entry : file.entries) {
      check(entry.set < file.sets.size());
      check(entry.offset + 80 + entry.contents.size() <= size);
      covered += 80 + entry.contents.size();
    }
    if (!file.error) check(covered == size);

    for (const decode::OutputFormat format : {decode::OutputFormat::kText, decode::OutputFormat::kJsonl,
                                              decode::OutputFormat::kCsv, decode::OutputFormat::kChrome}) {
      CountingBuffer buffer;
      std::ostream out(&buffer);
      decode::writeEntries(out, files, decode::mergeByTime(files), format,
                           "%C %I %P %p %S %T %c %i %l %n %t %dt %dut %udt %ut %dz %uz %du %x %\n");
      check(static_cast<bool>(out));
    }
    // Every event of the stream needs at least its class id, time stamp
    // and the fixed payload fields.
    const std::string metadata = decode::ctfMetadata(files);
    check(metadata.rfind("/* CTF 1.8 */", 0) == 0);
    const std::vector<std::uint8_t> stream = decode::ctfStream(files, 0);
    check(stream.size() >= 16 + 40 + 2 + 50 * file.entries.size());
  }
  return 0;
}
