#include "node_check.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "arguments.h"
#include "nodetrace/trace_layout.h"

#ifndef NODETRACE_PATH_PREFIX
#define NODETRACE_PATH_PREFIX ""
#endif

namespace nodetrace_tool {

namespace {

// Where the C library keeps POSIX shared-memory objects and named
// semaphores on Linux; the names users can look at and remove.
constexpr const char* kShmDir = "/dev/shm";

NodeObjects& objectsInForce() {
  static NodeObjects objects = compiledNodeObjects();
  return objects;
}

std::string shmPath(const std::string& name) { return kShmDir + name; }
std::string semaphorePath(const std::string& name) { return std::string(kShmDir) + "/sem." + name; }

std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

constexpr int kHeaderLooks = 10;
constexpr useconds_t kHeaderLookIntervalUs = 20000;

[[noreturn]] void cannotStart(const std::string& what) {
  throw ToolError("the trace system cannot start: " + what);
}

// The fix for an object this user may not use.
[[noreturn]] void noAccess(const std::string& object, const std::string& path, int error) {
  if (error == EACCES || error == EPERM) {
    cannotStart("no permission for the " + object + " " + path + " (" + std::strerror(error) +
                "); run nodetrace as its owner or group (ls -l " + path + ") or as root");
  }
  cannotStart("the " + object + " " + path + " cannot be opened (" + std::strerror(error) + ")");
}

void checkSemaphore(const NodeObjects& objects) {
  sem_t* semaphore = sem_open(objects.semaphore.c_str(), 0);
  if (semaphore != SEM_FAILED) {
    sem_close(semaphore);
    return;
  }
  const int error = errno;
  if (error != ENOENT) noAccess("trace semaphore", semaphorePath(objects.semaphore), error);
  // The first start of the node creates it.
  if (access(kShmDir, W_OK | X_OK) != 0) {
    noAccess("directory of the trace semaphore", kShmDir, errno);
  }
}

// A start that created the object and ended before it wrote the header
// leaves an object without the version text; the library would open it as
// it is and read nonsense from it.
bool headerWritten(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0 || status.st_size < static_cast<off_t>(TRACE_MEMORY_HEADER_SIZE)) return false;
  void* page = mmap(nullptr, TRACE_MEMORY_HEADER_SIZE, PROT_READ, MAP_SHARED, fd, 0);
  if (page == MAP_FAILED) return true;  // the library's own mapping will tell
  const bool written = std::memcmp(page, TRACE_VERSION, sizeof TRACE_VERSION) == 0;
  munmap(page, TRACE_MEMORY_HEADER_SIZE);
  return written;
}

void checkSramFile(const NodeObjects& objects, bool shmExists) {
  const int fd = open(objects.sram.c_str(), O_RDWR | O_CLOEXEC);
  if (fd != -1) {
    close(fd);
    return;
  }
  const int error = errno;
  if (error != ENOENT) noAccess("SRAM file", objects.sram, error);
  const std::string shm = shmPath(objects.shm);
  if (shmExists) {
    cannotStart("the node is half set up: the SRAM file " + objects.sram + " is missing while the shared-memory object " +
                shm + " exists; remove " + shm + " (its entries are lost) so that the next start creates both");
  }
  // The first start of the node creates it.
  const std::string directory = directoryOf(objects.sram);
  struct stat status {};
  if (stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    cannotStart("the directory " + directory + " of the SRAM file " + objects.sram + " does not exist; create it (mkdir -p " +
                directory + ")");
  }
  if (access(directory.c_str(), W_OK | X_OK) != 0) {
    noAccess("directory of the SRAM file", directory, errno);
  }
}

}  // namespace

NodeObjects compiledNodeObjects() {
  const std::string prefix = NODETRACE_PATH_PREFIX;
  return NodeObjects{"/shmem_Trace", "traceMutex", prefix + "/var/log/sram", prefix + "/ffs/run/logs",
                     prefix + "/tmp/traceDump.tmp"};
}

const NodeObjects& nodeObjects() { return objectsInForce(); }

void setNodeObjects(const NodeObjects& objects) { objectsInForce() = objects; }

void requireTraceSystem() {
  const NodeObjects& objects = nodeObjects();
  checkSemaphore(objects);
  const std::string shm = shmPath(objects.shm);
  const int fd = shm_open(objects.shm.c_str(), O_RDWR | O_CLOEXEC, 0);
  if (fd == -1) {
    const int error = errno;
    if (error != ENOENT) noAccess("shared-memory object", shm, error);
    if (access(kShmDir, W_OK | X_OK) != 0) noAccess("directory of the shared-memory object", kShmDir, errno);
    checkSramFile(objects, false);
    return;
  }
  // The process that creates the object writes the header a moment later,
  // under the semaphore; a header still missing after a while stays so.
  bool written = headerWritten(fd);
  for (int look = 0; !written && look < kHeaderLooks; ++look) {
    usleep(kHeaderLookIntervalUs);
    written = headerWritten(fd);
  }
  close(fd);
  if (!written) {
    cannotStart("the node is half set up: the shared-memory object " + shm +
                " has no trace header (a start that did not finish); remove it (rm " + shm + ") and run again");
  }
  checkSramFile(objects, true);
}

}  // namespace nodetrace_tool
