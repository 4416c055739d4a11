// The printf-style helpers of the log bridge's diagnostics. Each makes one
// line "<name>: <line> : <function>() -> <message>" of at most 199
// characters, prefix included, and hands it to the local log.

#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "common/errno_guard.h"
#include "common/syscalls.h"
#include "logbridge/log_file.h"
#include "nodetrace/logbridge.h"

namespace nt {
namespace {

// Room for 200 bytes and a final zero that is never overwritten.
constexpr std::size_t kLineBufferSize = 201;
constexpr std::size_t kLineLimit = 200;  // the line holds at most 199 characters

__attribute__((format(printf, 5, 0))) void writeFormattedLine(const char* name, std::uint32_t line,
                                                               const char* functionName, const char* helper,
                                                               const char* format, va_list args) noexcept {
  char buffer[kLineBufferSize] = {};
  const int n = sys::snprintf(buffer, kLineLimit, "%s: %u : %s() -> ", name, line, functionName);
  if (n < 0) {
    const int error = errno;
    sys::syslog(LOG_ERR, "QMBW: %s() Error writing to buffer with %d : %s", helper, error, std::strerror(error));
    return;
  }
  // A prefix that fills the line leaves no room for the message.
  // A null format is an empty message.
  if (format != nullptr && n >= 1 && static_cast<std::size_t>(n) < kLineLimit) {
    char* message = buffer + n;
    const std::size_t room = kLineLimit - static_cast<std::size_t>(n);
    if (std::vsnprintf(message, room, format, args) < 1) {
      // Nothing came out of the format (an empty message, or a formatting
      // error): the format text itself is written instead, as it stands.
      std::snprintf(message, room, "%s", format);
    }
  }
  writeHBKLogLine(buffer);
}

const char* orEmpty(const char* text) noexcept { return text != nullptr ? text : ""; }

}  // namespace
}  // namespace nt

extern "C" NODETRACE_API void proc_printf_func(const char* functionName, uint32_t line, const char* format, ...) {
  nt::ErrnoGuard errnoGuard;
  va_list args;
  va_start(args, format);
  nt::writeFormattedLine(program_invocation_short_name, line, nt::orEmpty(functionName), "proc_printf_func", format,
                         args);
  va_end(args);
}

extern "C" NODETRACE_API void file_printf_func(const char* fileName, uint32_t line, const char* functionName,
                                               const char* format, ...) {
  nt::ErrnoGuard errnoGuard;
  va_list args;
  va_start(args, format);
  nt::writeFormattedLine(nt::orEmpty(fileName), line, nt::orEmpty(functionName), "file_printf_func", format,
                         args);
  va_end(args);
}

extern "C" NODETRACE_API void appendQmbwSwIdentityToSyslog(void) {
  nt::sys::openlog("QMB_SW", LOG_PID, LOG_USER);
}
