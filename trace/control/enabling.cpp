// Switching the node's trace system off and on, failed assertions and the
// announcement of a changed reference clock.
//
// Each operation leaves a record in the error trace set through the error
// trace writer directly, past the severity filter and the category masks.
// The enable flag is one aligned 32-bit word in the shared header, written
// without the trace lock; every process sees the change at once.

#include <libgen.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/errno_guard.h"
#include "common/message_source.h"
#include "common/shared_fields.h"
#include "nodetrace/nodetrace.h"
#include "trace/persistent/error_trace.h"
#include "trace/store/printf_format.h"
#include "trace/store/startup.h"

namespace nt {
namespace {

constexpr std::size_t kPathBufferSize = 4096;
constexpr std::size_t kTextSize = 128;
constexpr unsigned kRefClockLine = 909;

// The last path component of a caller's file name, taken from a copy of at
// most 4095 characters; the caller's string is left alone.
class BaseName {
 public:
  explicit BaseName(const char* fileName) noexcept {
    std::snprintf(path_, sizeof path_, "%s", fileName != nullptr ? fileName : "");
    // POSIX basename: trailing slashes do not count, "" gives ".".
    name_ = basename(path_);
  }
  const char* get() const noexcept { return name_; }

 private:
  char path_[kPathBufferSize];
  const char* name_;
};

void setTraceEnabled(bool enabled) noexcept {
  if (TraceMemoryHeader* h = header(); h != nullptr) storeShared(&h->traceEnabled, enabled ? 1u : 0u);
}

// A notice of the library about itself in the error trace set.
void recordNotice(const char* fileName, std::uint32_t line, const char* text) noexcept {
  addErrorTrace(TS_STRING, TRACE_CATEGORY_LIBRARY, fileName, line, text, SYSTEM_TRACE_SET_ID,
                TRACE_SEVERITY_NOT);
}

void recordAssertion(const char* fileName, std::uint32_t line, const char* text) noexcept {
  addErrorTrace(TS_STRING, TRACE_CATEGORY_ASSERTION, fileName, line, text, SYSTEM_TRACE_SET_ID,
                TRACE_SEVERITY_ERR);
}

const char* orEmpty(const char* text) noexcept { return text != nullptr ? text : ""; }

}  // namespace
}  // namespace nt

extern "C" {

NODETRACE_API void enableTraceSystem(const char* fileName, uint32_t line, const char* reason) {
  nt::ErrnoGuard errnoGuard;
  nt::initTraceSystem();
  const nt::BaseName base(fileName);
  char text[nt::kTextSize];
  std::snprintf(text, sizeof text, "Trace system enabled: %s", nt::orEmpty(reason));
  // On first, so that the record is always written.
  nt::setTraceEnabled(true);
  nt::recordNotice(base.get(), line, text);
}

NODETRACE_API void disableTraceSystem(const char* fileName, uint32_t line, const char* reason) {
  nt::ErrnoGuard errnoGuard;
  nt::initTraceSystem();
  const nt::BaseName base(fileName);
  char text[nt::kTextSize];
  std::snprintf(text, sizeof text, "Trace system disabled: %s", nt::orEmpty(reason));
  // Recorded while tracing is still on, then off.
  nt::recordNotice(base.get(), line, text);
  nt::setTraceEnabled(false);
}

NODETRACE_API void assertFail(const char* expression, const char* fileName, const char* function, uint32_t line,
                              const char* format, ...) {
  nt::initTraceSystem();
  expression = nt::orEmpty(expression);
  function = nt::orEmpty(function);
  const nt::BaseName base(fileName);

  char message[nt::kTextSize] = {};
  if (format != nullptr) {
    va_list arguments;
    va_start(arguments, format);
    nt::formatText(message, sizeof message, format, arguments);
    va_end(arguments);
  }
  char assertion[nt::kTextSize];
  std::snprintf(assertion, sizeof assertion, "(%s): Assertion %s failed", function, expression);

  nt::recordAssertion(base.get(), line, assertion);
  nt::recordAssertion(base.get(), line, message);
  std::fprintf(stderr, "In %s (%s,%u): Assertion %s failed; %s!", base.get(), function, line, expression,
               message);
  std::fputs("\nDisabling Trace System\n", stderr);
  disableTraceSystem(fileName, line, "Assertion failed");
  std::exit(1);
}

NODETRACE_API void setRefClock(void) {
  nt::ErrnoGuard errnoGuard;
  nt::initTraceSystem();
  nt::recordNotice(nt::kSourceFileName, nt::kRefClockLine, "setRefClock() called; node clock has probably changed");
}

}  // extern "C"
