/* The public headers compile as C11 and link against libnodetrace.so from a
 * C program. Only calls that need no node are made. */
#include <stdio.h>

#include "nodetrace/nodetrace.h"

int main(void) {
  int failures = 0;
  failures += align32(5) != 8;
  failures += getTraceEntrySize(128) != 208;
  failures += needsRemoteTraceSupport() != 1;
  failures += sizeof(TraceEntryHeader) != 80 || sizeof(TraceSetStruct) != 48;
  failures += sizeof(TraceMemoryHeader) != 28;
  failures += gettid() <= 0;
  /* The assertion macro from C: a condition that holds never calls out. */
  TRACE_ASSERT(failures >= 0, "failures %d", failures);
  TRACE_ASSERT(sizeof(TraceSetStruct) == 48, "descriptor size");
  printf("C interface: %s\n", failures == 0 ? "ok" : "FAILED");
  return failures == 0 ? 0 : 1;
}
