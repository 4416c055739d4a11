// nodetrace dump and nodetrace dump-before-reset: dump files written by the
// library's two dump operations.
//
// Both operations write a temporary file and copy it into place with a shell
// command whose result they do not examine, and they put the name into that
// command as it is. So the tool takes only names the shell passes on
// unchanged, makes sure beforehand that the file can be written, and checks
// afterwards that the copy arrived.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "arguments.h"
#include "commands.h"
#include "entry_listing.h"
#include "node_check.h"
#include "nodetrace/nodetrace.h"

namespace nodetrace_tool {

namespace {

// The dump before reset writes directly to the name cut to this many
// characters.
constexpr std::size_t kDirectNameLimit = 39;
// Room for the name in the library's copy commands (200 bytes, with the
// temporary file's name twice).
constexpr std::size_t kCopiedNameLimit = 120;

bool shellNeutral(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::strchr("/._-+,:@%=", c) != nullptr;
}

void checkDumpFileName(const std::string& file, std::size_t limit) {
  if (file.empty()) throw UsageError("the dump file name is empty");
  if (file.size() > limit) {
    throw UsageError("the dump file name '" + file + "' is longer than " + std::to_string(limit) + " characters");
  }
  for (char c : file) {
    if (!shellNeutral(c)) {
      throw UsageError("the dump file name '" + file +
                       "' may hold only letters, digits and / . _ - + , : @ % = (the library copies the file "
                       "with a shell command)");
    }
  }
  if (file[0] == '-') throw UsageError("the dump file name '" + file + "' starts with '-'; write ./" + file);
}

// Creates the file or empties it: a dump that does not arrive then leaves
// an empty file behind, which the check afterwards sees.
void prepareDumpFile(const std::string& file) {
  struct stat status {};
  if (stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    throw ToolError("cannot write the dump file '" + file + "': not a regular file");
  }
  const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0664);
  if (fd == -1) throw ToolError("cannot write the dump file '" + file + "': " + std::strerror(errno));
  close(fd);
}

bool dumpArrived(const std::string& file) {
  struct stat status {};
  return stat(file.c_str(), &status) == 0 && status.st_size >= static_cast<off_t>(TRACE_MEMORY_HEADER_SIZE);
}

// Removes the dump file prepared above unless a dump arrived in it, so that
// a failed dump leaves no empty or partial file that looks like one.
class DumpFileGuard {
 public:
  explicit DumpFileGuard(const std::string& file) : file_(file) {}
  ~DumpFileGuard() {
    if (!kept_ && !dumpArrived(file_)) unlink(file_.c_str());
  }
  DumpFileGuard(const DumpFileGuard&) = delete;
  DumpFileGuard& operator=(const DumpFileGuard&) = delete;
  void keep() {
    if (!dumpArrived(file_)) {
      throw ToolError("the dump file '" + file_ + "' was not written (copying the temporary dump failed)");
    }
    kept_ = true;
  }

 private:
  std::string file_;
  bool kept_ = false;
};

// The trace dump creates its temporary file exclusively: one left behind by
// a dump that did not finish makes every later dump fail, with the reason
// only in System. The tool names it before it starts.
void clearStaleTemporaryFile(bool force) {
  const std::string& temporary = nodeObjects().traceDumpTmp;
  struct stat status {};
  if (lstat(temporary.c_str(), &status) != 0) return;
  if (!force) {
    throw ToolError("the temporary dump file " + temporary +
                    " is left over from a dump that did not finish (or one is running); remove it (rm " + temporary +
                    ") or dump with --force");
  }
  if (unlink(temporary.c_str()) != 0) {
    throw ToolError("the temporary dump file " + temporary + " cannot be removed: " + std::strerror(errno));
  }
}

// The dump operations record why they failed in System; the newest record
// made since `before` (a copy of System's descriptor) says it.
std::string recordedReason(const TraceSetStruct& before) {
  TraceSetStruct after{};
  if (!copyDescriptor(SYSTEM_TRACE_SET_ID, after) || after.totalNumberEntries == before.totalNumberEntries) {
    return "the reason is recorded in the error trace set System";
  }
  ListedEntry newest;
  if (!readEntry(SYSTEM_TRACE_SET_ID, slotOfNewest(after, 1), newest)) {
    return "the reason is recorded in the error trace set System";
  }
  std::string text = newest.contents.substr(0, newest.contents.find('\0'));
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return "System says: " + text;
}

TraceSetStruct systemDescriptor() {
  TraceSetStruct descriptor{};
  copyDescriptor(SYSTEM_TRACE_SET_ID, descriptor);
  return descriptor;
}

}  // namespace

void dump(const DumpOptions& options) {
  checkDumpFileName(options.file, kCopiedNameLimit);
  requireTraceSystem();
  clearStaleTemporaryFile(options.force);
  prepareDumpFile(options.file);
  DumpFileGuard guard(options.file);
  const TraceSetStruct before = systemDescriptor();
  const int32_t result = dumpTracesToFile(options.file.c_str(), options.withSram ? 1 : 0, options.debug ? 1 : 0);
  if (result != 0) {
    throw ToolError("the dump to '" + options.file + "' failed: " + describeResult(result) + "; " +
                    recordedReason(before));
  }
  guard.keep();
}

void dumpBeforeReset(const DumpOptions& options) {
  checkDumpFileName(options.file, options.direct ? kDirectNameLimit : kCopiedNameLimit);
  requireTraceSystem();
  prepareDumpFile(options.file);
  DumpFileGuard guard(options.file);
  const TraceSetStruct before = systemDescriptor();
  const int32_t result = dumpTracesBeforeReset(options.file.c_str(), options.direct ? 0 : 1);
  if (result != 0) {
    throw ToolError("the dump before reset to '" + options.file + "' failed: " + describeResult(result) + "; " +
                    recordedReason(before));
  }
  guard.keep();
}

}  // namespace nodetrace_tool
