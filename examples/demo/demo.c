/*
 * nodetrace demo: what a node sees when its processes start tracing.
 *
 * Two application processes start at the same instant; the first to take
 * the node-wide lock creates the shared-memory object "/shmem_Trace" and
 * rewrites the SRAM file, the other attaches. The demo then asks the
 * registry about the two persistent trace sets, "System" and "NVJ_System",
 * creates two trace sets of its own, changes their masks and the node's
 * severity filter, and shows where the library records a refused request: in
 * the persistent error trace set, read back from the SRAM file.
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

/* Reads slot `slot` of the error trace set straight from the SRAM file, as a
 * tool on the node would after a reset. */
static void printErrorTraceEntry(const char *root, unsigned slot) {
  char path[512];
  snprintf(path, sizeof path, "%s/var/log/sram", root);
  FILE *file = fopen(path, "rb");
  TraceEntryHeader entry;
  char text[TRACE_MAX_STRING_LENGTH + 1] = "";
  const long offset = (long)(TRACE_SRAM_SYSTEM_DATA_OFFSET + slot * TRACE_SRAM_SLOT_SIZE);
  if (file == NULL || fseek(file, offset, SEEK_SET) != 0 || fread(&entry, sizeof entry, 1, file) != 1 ||
      fread(text, TRACE_MAX_STRING_LENGTH, 1, file) != 1) {
    printf("  cannot read %s\n", path);
    if (file != NULL) fclose(file);
    return;
  }
  fclose(file);
  printf("  %s, slot %u at file offset %ld: #%u severity 0x%02X category 0x%08X %s(%d) pid %u\n"
         "    \"%s\"\n",
         path, slot, offset, (unsigned)entry.sequenceNumber, (unsigned)entry.severity,
         (unsigned)entry.category, entry.fileName, (int)entry.line, (unsigned)entry.pid, text);
}

static void createSets(void) {
  int16_t radio = -1;
  int16_t frames = -1;
  int rc = initTraceSet("Radio", TS_STRING, 32, 128, 0x0000000F, &radio);
  printf("  initTraceSet(\"Radio\", text, 32 x 128 bytes, mask 0x0000000F): %d, id %d\n", rc, radio);
  rc = initTraceSet("Frames", TS_DUMP, 8, 256, 0xFFFFFFFF, &frames);
  printf("  initTraceSet(\"Frames\", dump, 8 x 256 bytes, mask 0xFFFFFFFF): %d, id %d\n", rc, frames);

  /* Another process attaches to "Radio" and widens its category mask. */
  fflush(stdout);
  if (fork() == 0) {
    int16_t id = -1;
    rc = initTraceSet("Radio", TS_STRING, 16, 128, 0x00000030, &id);
    printf("  process %d attached to \"Radio\" with mask 0x00000030: %d, id %d\n", (int)getpid(), rc, id);
    fflush(stdout);
    _exit(0);
  }
  wait(NULL);
  printf("  category mask of \"Radio\" is now 0x%08X\n", (unsigned)getCategoryMask(radio));
  setCategoryMask(frames, 0x00000100);
  printf("  setCategoryMask(\"Frames\", 0x00000100): mask now 0x%08X\n", (unsigned)getCategoryMask(frames));
  printf("  %d user trace sets, %u bytes of the entry area in use\n", getCurrentNumberTraceSets(),
         32u * getTraceEntrySize(128) + 8u * getTraceEntrySize(256));
}

static void changeSeverityFilter(const char *root) {
  char path[512];
  snprintf(path, sizeof path, "%s/ffs/run/logs/severityMask.conf", root);
  const uint8_t before = getSeverityFilter();
  modifySeverityMask(TRACE_SEVERITY_DBG, 1);
  char text[16] = "";
  FILE *file = fopen(path, "r");
  if (file != NULL) {
    if (fgets(text, sizeof text, file) == NULL) text[0] = '\0';
    fclose(file);
  }
  text[strcspn(text, "\n")] = '\0';
  printf("  severity filter 0x%02X, debug on: 0x%02X, saved in %s as \"%s\"\n", (unsigned)before,
         (unsigned)getSeverityFilter(), path, text);
  modifySeverityMask(TRACE_SEVERITY_DBG, 0);
  printf("  debug off again: 0x%02X\n", (unsigned)getSeverityFilter());
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

  printf("\ntrace sets of the demo:\n");
  createSets();

  printf("\nthe node-wide severity filter:\n");
  changeSeverityFilter(root);

  printf("\na refused request lands in the persistent error trace set:\n");
  int16_t id = 99;
  const int rc = initTraceSet("2ndRadio", TS_STRING, 8, 128, 1, &id);
  const TraceSetStruct *system = getTraceSetStruct(SYSTEM_TRACE_SET_ID);
  printf("  initTraceSet(\"2ndRadio\", ...): %d; \"System\" now holds %u entries\n", rc,
         system != NULL ? (unsigned)system->curentNumberEntries : 0u);
  if (system != NULL && system->curentNumberEntries > 0) {
    const unsigned newest = (system->writeIndex + system->maxNumberEntries - 1u) % system->maxNumberEntries;
    printErrorTraceEntry(root, newest);
  }
  return 0;
}
