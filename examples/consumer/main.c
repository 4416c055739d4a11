/* A minimal nodetrace application: it links the library and uses the layout
 * helpers, which need no running node. */
#include <stdio.h>

#include <nodetrace/nodetrace.h>

int main(void) {
  printf("slot of a text set: %u bytes, of a dump set: %u bytes\n",
         (unsigned)getTraceEntrySize(TRACE_MAX_STRING_LENGTH),
         (unsigned)getTraceEntrySize(TRACE_MAX_DUMP_LENGTH));
  return getTraceEntrySize(TRACE_MAX_STRING_LENGTH) == 208 ? 0 : 1;
}
