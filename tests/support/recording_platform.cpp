#include "tests/support/recording_platform.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "nodeplatform/nodeplatform.h"

namespace nt::test {
namespace {

std::mutex g_mutex;
std::vector<PlatformCall> g_calls;
int g_productType = 0;
int g_resetCount = 0;
int g_registerDomainResult = 0;
std::function<void(const PlatformCall&)> g_openObserver;

void observeOpen(const PlatformCall& call) {
  if (g_openObserver) g_openObserver(call);
}

void record(PlatformCall call) {
  std::lock_guard lock(g_mutex);
  g_calls.push_back(std::move(call));
}

__attribute__((format(printf, 1, 0))) std::string vformat(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(text.data(), text.size() + 1, format, args);
  return text;
}

}  // namespace

std::vector<PlatformCall> platformCalls() {
  std::lock_guard lock(g_mutex);
  return g_calls;
}

std::vector<PlatformCall> platformCalls(std::string_view function) {
  std::lock_guard lock(g_mutex);
  std::vector<PlatformCall> selected;
  for (const auto& call : g_calls) {
    if (call.function == function) selected.push_back(call);
  }
  return selected;
}

void clearPlatformCalls() {
  std::lock_guard lock(g_mutex);
  g_calls.clear();
}

void setProductType(int productType) { g_productType = productType; }
void setResetCount(int resetCount) { g_resetCount = resetCount; }
void setRegisterDomainResult(int result) { g_registerDomainResult = result; }

void setFileOpenObserver(std::function<void(const PlatformCall&)> observer) {
  g_openObserver = std::move(observer);
}

void resetPlatformDouble() {
  clearPlatformCalls();
  g_openObserver = nullptr;
  g_productType = 0;
  g_resetCount = 0;
  g_registerDomainResult = 0;
}

}  // namespace nt::test

using nt::test::PlatformCall;
using nt::test::record;

extern "C" {

int ZqConfigRadRegisterDomain(uint32_t domain, const char* domainName,
                              ZqConfigRadDomainCallback callback) {
  record({"ZqConfigRadRegisterDomain", domainName != nullptr ? domainName : "", {domain}, {}, {}});
  const int result = nt::test::g_registerDomainResult;
  if (result == 0 && callback != nullptr) callback(domain, nullptr);
  return result;
}

int ZqConfigRadSetMaxTagCount(uint32_t domain, uint32_t value) {
  record({"ZqConfigRadSetMaxTagCount", "", {domain, value}, {}, {}});
  return 0;
}

int ZqConfigRadSetDefault(uint32_t tag, const char* tagName, uint32_t value) {
  record({"ZqConfigRadSetDefault", tagName != nullptr ? tagName : "", {tag, value}, {}, {}});
  return 0;
}

int ZqSysLogPrintE(uint32_t level, uint32_t tag, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = nt::test::vformat(format, args);
  va_end(args);
  record({"ZqSysLogPrintE", std::move(text), {level, tag}, {}, {}});
  return 0;
}

int ZqSysLogPrintHD(uint32_t level, const void* data, uint32_t length, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string title = nt::test::vformat(format, args);
  va_end(args);
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  std::vector<std::uint8_t> copy;
  if (bytes != nullptr) copy.assign(bytes, bytes + length);
  record({"ZqSysLogPrintHD", std::move(title), {level, length}, std::move(copy), {}});
  return 0;
}

int omluOpenFile(const char* path, int flags, const char* srcFile, int srcLine) {
  const int fd = open(path, flags);
  const PlatformCall call{"omluOpenFile", path, {flags, srcLine, fd}, {}, srcFile != nullptr ? srcFile : ""};
  record(call);
  nt::test::observeOpen(call);
  return fd;
}

int omluOpenFileWithMode(const char* path, int flags, mode_t mode, const char* srcFile, int srcLine) {
  const int fd = open(path, flags, mode);
  const PlatformCall call{"omluOpenFileWithMode", path, {flags, static_cast<long long>(mode), srcLine, fd}, {},
                          srcFile != nullptr ? srcFile : ""};
  record(call);
  nt::test::observeOpen(call);
  return fd;
}

int omluCloseFile(int fd, const char* srcFile, const char* label, int srcLine) {
  record({"omluCloseFile", label != nullptr ? label : "", {fd, srcLine}, {},
          srcFile != nullptr ? srcFile : ""});
  return close(fd);
}

int omluCloseNoLog(int* fd) {
  if (fd == nullptr || *fd < 0) return -1;
  record({"omluCloseNoLog", "", {*fd}, {}, {}});
  const int rc = close(*fd);
  *fd = -1;
  return rc;
}

int omluFcloseNoLog(FILE* stream) {
  record({"omluFcloseNoLog", "", {}, {}, {}});
  return stream != nullptr ? std::fclose(stream) : EOF;
}

int envInfoProductType(void) { return nt::test::g_productType; }

int getResetCnt(int which) {
  record({"getResetCnt", "", {which}, {}, {}});
  return nt::test::g_resetCount;
}

}  // extern "C"
