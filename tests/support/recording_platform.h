// The node platform for tests: every call is recorded so that a test can
// check exactly what the library sent to the log service and which files it
// opened and closed through the wrappers. File wrappers do the real work.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace nt::test {

struct PlatformCall {
  std::string function;             // "ZqSysLogPrintE", "omluCloseNoLog", ...
  std::string text;                 // formatted line, title, path or name
  std::vector<long long> numbers;   // level, tag, flags, mode, line, fd, ... in call order
  std::vector<std::uint8_t> data;   // bytes of a hex dump
  std::string sourceFile;           // caller's source file given to a file wrapper
};

// The calls recorded in this process so far, all or of one function.
std::vector<PlatformCall> platformCalls();
std::vector<PlatformCall> platformCalls(std::string_view function);
void clearPlatformCalls();

// What the environment functions and the domain registration answer.
void setProductType(int productType);
void setResetCount(int resetCount);
void setRegisterDomainResult(int result);
void resetPlatformDouble();

// Runs observer inside every omluOpenFile and omluOpenFileWithMode, after the
// file was opened (or not), with the call as it is recorded: a test can look
// at the node while the library holds the file open. An empty function
// removes it; resetPlatformDouble() does too.
void setFileOpenObserver(std::function<void(const PlatformCall&)> observer);

}  // namespace nt::test
