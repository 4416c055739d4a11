// The library's source file name as every message and every record of the
// library's own names it ("traceLibLocal.c (initSharedMemory,212): ...").
#pragma once

namespace nt {

inline constexpr const char* kSourceFileName = "traceLibLocal.c";

}  // namespace nt
