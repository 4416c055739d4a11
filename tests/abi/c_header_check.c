/* The public headers compile as C11 and link against libnodetrace.so from a
 * C program. Only calls that need no node are made. */
#include <stdio.h>
#include <string.h>

#include "nodetrace/diag.h" /* declares nothing in C */
#include "nodetrace/logbridge.h"
#include "nodetrace/nodetrace.h"

int main(void) {
  int failures = 0;
  failures += align32(5) != 8;
  failures += getTraceEntrySize(128) != 208;
  failures += needsRemoteTraceSupport() != 1;
  failures += sizeof(TraceEntryHeader) != 80 || sizeof(TraceSetStruct) != 48;
  failures += sizeof(TraceMemoryHeader) != 28;
  failures += gettid() <= 0;
  failures += getDefaultHBKtag() != 0x1A001Eu;
  failures += hbk_syslog_map[31].tag != 0x1A001Fu || strcmp(hbk_syslog_map[31].name, "Unknown") != 0;
  failures += TMGR_HBK_LOG_FILE_NAME == NULL || TMGR_HBK_LOG_FILE_NAME_TMP == NULL;
  /* The assertion macro from C: a condition that holds never calls out. */
  TRACE_ASSERT(failures >= 0, "failures %d", failures);
  TRACE_ASSERT(sizeof(TraceSetStruct) == 48, "descriptor size");
  printf("C interface: %s\n", failures == 0 ? "ok" : "FAILED");
  return failures == 0 ? 0 : 1;
}
