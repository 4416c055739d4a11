/*
 * nodetrace demo: what a node sees when its processes start tracing.
 *
 * Two application processes start at the same instant; the first to take
 * the node-wide lock creates the shared-memory object "/shmem_Trace" and
 * rewrites the SRAM file, the other attaches. The demo then asks the
 * registry about the two persistent trace sets, "System" and "NVJ_System".
 *
 * Build the library with -DNODETRACE_PATH_PREFIX=<dir> to keep the node's
 * files (/var/log/sram, /ffs/run/logs, ...) under <dir> on a host; the demo
 * creates the directories there. The IPC names are the node's own:
 * "/shmem_Trace" and "traceMutex". Run with --fresh to remove them first, as
 * a restart of the node would.
 */
#include <errno.h>
#include <semaphore.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "nodetrace/nodetrace.h"

#ifndef NODETRACE_DEMO_ROOT
#define NODETRACE_DEMO_ROOT ""
#endif

/* mkdir -p */
static int makeDirectories(const char *path) {
  char partial[512];
  size_t length = strlen(path);
  if (length >= sizeof partial) return -1;
  memcpy(partial, path, length + 1);
  for (size_t i = 1; i <= length; ++i) {
    if (partial[i] == '/' || partial[i] == '\0') {
      const char saved = partial[i];
      partial[i] = '\0';
      if (mkdir(partial, 0755) != 0 && errno != EEXIST) return -1;
      partial[i] = saved;
    }
  }
  return 0;
}

static void printDescriptor(const char *name) {
  const int id = getTraceSetId(name);
  const TraceSetStruct *set = id >= 0 ? getTraceSetStruct((uint16_t)id) : NULL;
  printf("  %-10s id %3d", name, id);
  if (set == NULL) {
    printf("  (descriptor not available)\n");
    return;
  }
  printf("  name '%s', %s, %u slots of %u bytes from file offset %u, %u entries, created by %u\n",
         getTraceSetName((uint16_t)id), set->type == TS_STRING ? "text" : "dump",
         (unsigned)set->maxNumberEntries, (unsigned)set->traceEntryContentsLength,
         (unsigned)set->dataOffset, (unsigned)set->curentNumberEntries, (unsigned)set->creatorPid);
}

int main(int argc, char **argv) {
  const char *root = NODETRACE_DEMO_ROOT;
  const char *directories[] = {"/var/log", "/ffs/run/logs", "/tmp", "/opt/qmb/etc"};
  printf("nodetrace demo: node files under '%s/'\n", root);
  if (root[0] != '\0') {
    for (size_t i = 0; i < sizeof directories / sizeof directories[0]; ++i) {
      char path[512];
      snprintf(path, sizeof path, "%s%s", root, directories[i]);
      if (makeDirectories(path) != 0) {
        fprintf(stderr, "cannot create %s: %s\n", path, strerror(errno));
        return 1;
      }
    }
  }
  if (argc > 1 && strcmp(argv[1], "--fresh") == 0) {
    shm_unlink("/shmem_Trace");
    sem_unlink("traceMutex");
    printf("removed /shmem_Trace and traceMutex: the node starts afresh\n");
  }

  /* Two processes start tracing at the same instant. */
  int gate[2];
  if (pipe(gate) != 0) return 1;
  fflush(stdout);
  for (int i = 0; i < 2; ++i) {
    if (fork() == 0) {
      char byte;
      close(gate[1]);
      while (read(gate[0], &byte, 1) > 0) {
      }
      const int sets = getCurrentNumberTraceSets(); /* first call: start-up */
      printf("process %d started tracing: %d user trace sets, %u entries so far\n", (int)getpid(),
             sets, (unsigned)getTotalNumberTraceEntries());
      return 0;
    }
  }
  close(gate[0]);
  close(gate[1]);
  while (wait(NULL) > 0) {
  }

  printf("\nthe registry, asked by process %d:\n", (int)getpid());
  printDescriptor("System");
  printDescriptor("NVJ_System");
  printf("  user trace sets: %d of %u; id 0 valid: %d, id 255 valid: %d, id 254 valid: %d\n",
         getCurrentNumberTraceSets(), TRACE_MAX_TRACE_SETS, isValidTraceSetId(0),
         isValidTraceSetId(SYSTEM_TRACE_SET_ID), isValidTraceSetId(REMOTE_SYSTEM_TRACE_SET_ID));
  printf("  slot sizes: text set %u bytes, dump set %u bytes\n",
         (unsigned)getTraceEntrySize(TRACE_MAX_STRING_LENGTH),
         (unsigned)getTraceEntrySize(TRACE_MAX_DUMP_LENGTH));
  return 0;
}
