// The exported layout helpers.

#include <sys/syscall.h>
#include <unistd.h>

#include "nodetrace/nodetrace.h"

extern "C" {

NODETRACE_API uint32_t align32(uint32_t x) { return (x + 3u) & ~3u; }

NODETRACE_API uint32_t getTraceEntrySize(int32_t len) {
  return align32(static_cast<uint32_t>(len) & 0xFFFFu) + align32(TRACE_ENTRY_HEADER_SIZE);
}

NODETRACE_API pid_t gettid(void) noexcept { return static_cast<pid_t>(syscall(SYS_gettid)); }

}  // extern "C"
