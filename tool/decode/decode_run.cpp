#include "decode/decode_run.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "decode/ctf_output.h"

namespace nodetrace_tool::decode {
namespace {

constexpr const char* kPrefix = "nodetrace decode: ";
constexpr int kFailure = 1;

// One line for each file that could not be read whole; the exit status.
int reportFiles(const std::vector<DecodedFile>& files, std::ostream& err) {
  int status = 0;
  for (const DecodedFile& decoded : files) {
    if (!decoded.error) continue;
    err << kPrefix << decoded.name << ": " << decoded.error->message << '\n';
    status = kFailure;
  }
  return status;
}

// The files' entries as a trace directory. The trace holds what could be
// read; the files that could not be read whole are reported as for the
// other formats.
int runCtf(const DecodeOptions& options, std::ostream& err) {
  if (options.output.empty() || options.output == "-") {
    err << kPrefix << "the ctf format writes a directory: name it with --output DIR\n";
    return kFailure;
  }
  std::vector<DecodedFile> files;
  files.reserve(options.files.size());
  for (const std::string& path : options.files) files.push_back(readDumpFile(path, options.timeOrder));
  if (const auto failed = writeCtfTrace(options.output, files)) {
    err << kPrefix << options.output << ": " << *failed << '\n';
    return kFailure;
  }
  return reportFiles(files, err);
}

}  // namespace

int runDecode(const DecodeOptions& options, std::ostream& out, std::ostream& err) {
  if (options.format == OutputFormat::kCtf) return runCtf(options, err);
  std::ofstream file;
  std::ostream* sink = &out;
  if (!options.output.empty() && options.output != "-") {
    errno = 0;
    file.open(options.output, std::ios::binary | std::ios::trunc);
    if (!file) {
      const int error = errno;
      err << kPrefix << options.output << ": cannot write: "
          << (error != 0 ? std::strerror(error) : "cannot open the file") << '\n';
      return kFailure;
    }
    sink = &file;
  }

  std::vector<DecodedFile> files;
  files.reserve(options.files.size());
  for (const std::string& path : options.files) files.push_back(readDumpFile(path, options.timeOrder));

  writeEntries(*sink, files, mergeByTime(files), options.format, options.lineFormat);
  sink->flush();

  int status = reportFiles(files, err);
  if (!*sink) {
    err << kPrefix << (sink == &file ? options.output : std::string("standard output")) << ": write failed\n";
    status = kFailure;
  }
  return status;
}

}  // namespace nodetrace_tool::decode
