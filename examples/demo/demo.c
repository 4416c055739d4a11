/*
 * nodetrace demo: what a node sees when its processes start tracing.
 *
 * Two application processes start at the same instant; the first to take
 * the node-wide lock creates the shared-memory object "/shmem_Trace" and
 * rewrites the SRAM file, the other attaches. The demo then asks the
 * registry about the two persistent trace sets, "System" and "NVJ_System",
 * creates two trace sets of its own and changes their masks and the node's
 * severity filter. Then the library's main job: two processes write text and
 * dump entries into their sets at the same time (a warning of one goes to the
 * persistent error trace set), and a third reads every entry back, prints the
 * merged stream in the order the entries were written and reports on all
 * trace sets. Last, the local log file of the log bridge and a refused
 * request recorded in the persistent error trace set.
 *
 * Build the library with -DNODETRACE_PATH_PREFIX=<dir> to keep the node's
 * files (/var/log/sram, /ffs/run/logs, ...) under <dir> on a host; the demo
 * creates the directories there. Such a build also has IPC names of its own,
 * "/shmem_Trace" and "traceMutex" with a suffix made from <dir>, so the demo
 * runs on a node of its own and leaves every other build's node alone. A
 * build without a prefix uses the node's own names and paths; the demo says
 * so before it starts. Run with --fresh to remove the demo build's trace
 * store first, as a restart of the node would.
 */
#include <errno.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "nodetrace/logbridge.h"
#include "nodetrace/nodetrace.h"

#ifndef NODETRACE_DEMO_ROOT
#define NODETRACE_DEMO_ROOT ""
#endif
#ifndef NODETRACE_DEMO_IPC_SUFFIX
#define NODETRACE_DEMO_IPC_SUFFIX ""
#endif

/* The IPC names of the library this demo was built with. */
#define DEMO_SHM_NAME "/shmem_Trace" NODETRACE_DEMO_IPC_SUFFIX
#define DEMO_SEMAPHORE_NAME "traceMutex" NODETRACE_DEMO_IPC_SUFFIX

static void printUsage(FILE *out, const char *program) {
  fprintf(out,
          "usage: %s [--fresh]\n"
          "Runs two application processes that trace at the same time and a third that\n"
          "reads their entries back, on the node of this build:\n"
          "  trace store   %s (semaphore %s)\n"
          "  node files    under '%s/'\n"
          "  --fresh       remove the trace store and the semaphore first, as a restart\n"
          "                of the node would\n"
          "  -h, --help    print this help and exit\n",
          program, DEMO_SHM_NAME, DEMO_SEMAPHORE_NAME, NODETRACE_DEMO_ROOT);
}

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
  printf("  name '%.20s', %s, %u slots of %u bytes from file offset %u, %u entries, created by %u\n",
         getTraceSetName((uint16_t)id), set->type == TS_STRING ? "text" : "dump",
         (unsigned)set->maxNumberEntries, (unsigned)set->traceEntryContentsLength,
         (unsigned)set->dataOffset, (unsigned)set->curentNumberEntries, (unsigned)set->creatorPid);
}

/* The layout of every printed entry: ISO 8601 UTC time, severity, set name,
 * source position, pid and contents (dump entries add their hex rows). */
#define ENTRY_FORMAT "%dz %S %I %l pid %p: %c"

typedef struct EntryRef {
  int16_t set;
  uint16_t slot;
  uint32_t sequenceNumber;
} EntryRef;

static int bySequenceNumber(const void *a, const void *b) {
  const uint32_t x = ((const EntryRef *)a)->sequenceNumber;
  const uint32_t y = ((const EntryRef *)b)->sequenceNumber;
  return x < y ? -1 : x > y;
}

static void printEntry(int16_t set, uint16_t slot) {
  static char contents[TRACE_MAX_DUMP_LENGTH];
  TraceEntryHeader copy; /* filled for the sets of the SRAM file */
  TraceEntryHeader *entry = &copy;
  getTraceEntry(set, slot, &entry, contents);
  const TraceSetStruct *descriptor = getTraceSetStruct((uint16_t)set);
  if (entry == NULL || descriptor == NULL) return;
  char format[] = "  " ENTRY_FORMAT;
  printTraceEntry(set, descriptor, entry, contents, format);
}

/* Every entry of the user sets and of "System", merged into one stream in
 * the order they were written (their node-wide sequence numbers). */
static void printAllEntries(void) {
  static EntryRef refs[4096];
  static char contents[TRACE_MAX_DUMP_LENGTH];
  size_t count = 0;
  const int sets = getCurrentNumberTraceSets();
  for (int id = -1; id < sets; ++id) {
    const int16_t set = id < 0 ? (int16_t)SYSTEM_TRACE_SET_ID : (int16_t)id;
    const TraceSetStruct *descriptor = getTraceSetStruct((uint16_t)set);
    const unsigned entries = descriptor != NULL ? descriptor->curentNumberEntries : 0u;
    for (unsigned slot = 0; slot < entries && count < sizeof refs / sizeof refs[0]; ++slot) {
      TraceEntryHeader copy;
      TraceEntryHeader *entry = &copy;
      getTraceEntry(set, (uint16_t)slot, &entry, contents);
      if (entry == NULL) continue;
      refs[count].set = set;
      refs[count].slot = (uint16_t)slot;
      refs[count].sequenceNumber = entry->sequenceNumber;
      ++count;
    }
  }
  qsort(refs, count, sizeof refs[0], bySequenceNumber);
  for (size_t i = 0; i < count; ++i) printEntry(refs[i].set, refs[i].slot);
}

static void printLocalLog(const char *path) {
  FILE *file = fopen(path, "r");
  char line[256];
  if (file == NULL) {
    printf("  (no %s)\n", path);
    return;
  }
  while (fgets(line, sizeof line, file) != NULL) printf("  %s", line);
  fclose(file);
}

static int16_t g_radio = -1;
static int16_t g_frames = -1;

static void createSets(void) {
  int16_t radio = -1;
  int16_t frames = -1;
  int rc = initTraceSet("Radio", TS_STRING, 32, 128, 0x0000000F, &radio);
  g_radio = radio;
  printf("  initTraceSet(\"Radio\", text, 32 x 128 bytes, mask 0x0000000F): %d, id %d\n", rc, radio);
  rc = initTraceSet("Ethernet", TS_DUMP, 8, 256, 0xFFFFFFFF, &frames);
  g_frames = frames;
  printf("  initTraceSet(\"Ethernet\", dump, 8 x 256 bytes, mask 0xFFFFFFFF): %d, id %d\n", rc, frames);

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
  printf("  setCategoryMask(\"Ethernet\", 0x00000100): mask now 0x%08X\n", (unsigned)getCategoryMask(frames));
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

static void pauseMs(long ms) {
  const struct timespec pause = {0, ms * 1000000L};
  nanosleep(&pause, NULL);
}

/* In demo_backtrace.cpp: prints the call stack of a small C++ call chain. */
void demoPrintBacktrace(void);

/* Records of the remote unit arrive with their own pid, tid and clock
 * readings; the demo stores a few, in a user set and in "NVJ_System" of the
 * SRAM file, and prints them back. */
static void remoteEntries(void) {
  int16_t nvj = -1;
  const uint32_t real[2] = {(uint32_t)time(NULL), 250000000u};
  const uint32_t mono[2] = {4711u, 0u};
  const int rc = initTraceSet("NVJ_Radio", TS_STRING, 16, 128, 0xFFFFFFFFu, &nvj);
  printf("  initTraceSet(\"NVJ_Radio\"): %d, id %d; remote set: %d, \"Radio\" remote: %d\n", rc, nvj,
         isRemoteTraceSet(nvj), isRemoteTraceSet(g_radio));
  const char *up = "remote link up";
  printf("  addRemoteEntry: %d\n", addRemoteEntry(nvj, TRACE_SEVERITY_INF, 0x1, "nvj_link.c", 10,
                                                 (uint16_t)strlen(up), up, 812, 815, real, mono));
  printf("  addRemoteSystemEntry: %d\n", addRemoteSystemEntry(nvj, TRACE_SEVERITY_WAR, 0x1, "nvj_link.c", 11,
                                                             "remote link down", 812, 815, real, mono));
  printEntry(nvj, 0);
  const TraceSetStruct *remote = getTraceSetStruct(REMOTE_SYSTEM_TRACE_SET_ID);
  if (remote != NULL && remote->curentNumberEntries > 0) {
    const unsigned newest = (remote->writeIndex + remote->maxNumberEntries - 1u) % remote->maxNumberEntries;
    printEntry((int16_t)REMOTE_SYSTEM_TRACE_SET_ID, (uint16_t)newest);
    printf("  (a record in \"NVJ_System\" keeps the set's name; its text goes to syslog)\n");
  }
}

/* The radio application: text entries of each kind. */
static void radioProcess(void) {
  TRACE_INF(g_radio, 0x1, "link %d up at %u kbit/s", 1, 2048u);
  pauseMs(2);
  TRACE_DBG(g_radio, 0x1, "not stored: the severity filter drops debug");
  TRACE_INF(g_radio, 0x10, "peer %s answered after %d ms", "10.0.0.7", 12);
  pauseMs(2);
  TRACE_WAR(g_radio, 0x1, "link %d: %u CRC errors", 2, 17u); /* to "System" */
  pauseMs(2);
  TRACE_INF(g_radio, 0x1, "a trailing line feed is not stored\n");
}

/* The frame application: dump entries of received frames. */
static void framesProcess(void) {
  unsigned char frame[40];
  for (unsigned i = 0; i < sizeof frame; ++i) frame[i] = (unsigned char)(0x30 + i);
  pauseMs(1);
  TRACE_DUMP(g_frames, TRACE_SEVERITY_INF, 0x100, frame, 20);
  pauseMs(2);
  TRACE_DUMP(g_frames, TRACE_SEVERITY_INF, 0x001, frame, 40); /* outside the mask */
  frame[0] = 0x7F;
  frame[1] = 0x00;
  TRACE_DUMP(g_frames, TRACE_SEVERITY_INF, 0x100, frame, sizeof frame);
}

/* Runs each of the bodies in a process of its own, all released at the same
 * instant (when the gate pipe closes), and waits for them. */
static void runTogether(void (*const bodies[])(void), int count) {
  int gate[2];
  if (pipe(gate) != 0) return;
  fflush(stdout);
  for (int i = 0; i < count; ++i) {
    if (fork() == 0) {
      char byte;
      close(gate[1]);
      while (read(gate[0], &byte, 1) > 0) {
      }
      bodies[i]();
      fflush(stdout);
      _exit(0);
    }
  }
  close(gate[0]);
  close(gate[1]);
  while (wait(NULL) > 0) {
  }
}

static void startTracing(void) {
  const int sets = getCurrentNumberTraceSets(); /* first call: start-up */
  printf("process %d started tracing: %d user trace sets, %u entries so far\n", (int)getpid(), sets,
         (unsigned)getTotalNumberTraceEntries());
}

static void writeAndRead(void) {
  void (*const writers[2])(void) = {radioProcess, framesProcess};
  runTogether(writers, 2);
  printf("  done: %u entries written on the node so far\n", (unsigned)getTotalNumberTraceEntries());

  printf("\na third process reads them back, merged in the order they were written\n"
         "(format \"%s\"):\n", ENTRY_FORMAT);
  fflush(stdout);
  if (fork() == 0) {
    printAllEntries();
    printf("\nand reports on all trace sets (printTraceSetsInfo(1)):");
    const int32_t rc = printTraceSetsInfo(1);
    printf("  result %d\n", (int)rc);
    fflush(stdout);
    _exit(0);
  }
  wait(NULL);
}

static long fileSize(const char *path) {
  struct stat status;
  return stat(path, &status) == 0 ? (long)status.st_size : -1L;
}

/* Finds the newest entries, writes both dump files, then empties a set. */
static void searchDumpAndClear(const char *root) {
  const int16_t ids[2] = {g_radio, g_frames};
  uint16_t start[2] = {0, 0};
  uint16_t counts[2] = {0, 0};
  uint32_t total = 0;
  findMatchingTraceEntries(2, ids, start, counts, &total, TRACE_SEVERITY_ERR | TRACE_SEVERITY_WAR | TRACE_SEVERITY_INF, NULL, 5,
                           1);
  printf("  findMatchingTraceEntries, newest 5 ERR/WAR/INF entries of both sets: %u of \"Radio\" "
         "from slot %u, %u of \"Ethernet\" from slot %u\n",
         (unsigned)counts[0], (unsigned)start[0], (unsigned)counts[1], (unsigned)start[1]);

  char path[512];
  snprintf(path, sizeof path, "%s/tmp/traceDump.bin", root);
  int32_t rc = dumpTracesToFile(path, 1, 1);
  printf("  dumpTracesToFile(\"%s\", with SRAM sets, all entries): %d, %ld bytes\n", path, (int)rc,
         fileSize(path));
  snprintf(path, sizeof path, "%s/tmp/beforeReset.bin", root);
  rc = dumpTracesBeforeReset(path, 1);
  printf("  dumpTracesBeforeReset(\"%s\", via temporary file): %d, %ld bytes\n", path, (int)rc,
         fileSize(path));

  const TraceSetStruct *frames = getTraceSetStruct(g_frames);
  const unsigned before = frames != NULL ? (unsigned)frames->curentNumberEntries : 0u;
  rc = clearTraceSet(g_frames);
  printf("  clearTraceSet(\"Ethernet\"): %d; its entries %u -> %u\n", (int)rc, before,
         frames != NULL ? (unsigned)frames->curentNumberEntries : 0u);
  static const unsigned char newFrame[12] = {0x7E, 0xFF, 0x03, 0x00, 0x21, 0x45, 0x00, 0x00, 0x1C, 0x4A, 0x7E, 0x0A};
  TRACE_DUMP(g_frames, TRACE_SEVERITY_INF, 0x100, newFrame, sizeof newFrame);
  printf("  a new frame goes into slot 0 again: %u entry, next slot %u\n",
         frames != NULL ? (unsigned)frames->curentNumberEntries : 0u,
         frames != NULL ? (unsigned)frames->writeIndex : 0u);
}

int main(int argc, char **argv) {
  const char *root = NODETRACE_DEMO_ROOT;
  const char *directories[] = {"/var/log", "/ffs/run/logs", "/tmp", "/opt/qmb/etc"};
  int fresh = 0;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      printUsage(stdout, argv[0]);
      return 0;
    }
    if (strcmp(argv[i], "--fresh") == 0) {
      fresh = 1;
      continue;
    }
    fprintf(stderr, "%s: unknown argument '%s'\n", argv[0], argv[i]);
    printUsage(stderr, argv[0]);
    return 2;
  }
  printf("nodetrace demo: node files under '%s/', trace store %s\n", root, DEMO_SHM_NAME);
  if (root[0] == '\0') {
    printf("this build uses the node's own names and paths: the demo writes into the trace\n"
           "store %s and the node's files%s\n",
           DEMO_SHM_NAME, fresh ? ", and --fresh removes the store with every set in it" : "");
  }
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
  if (fresh) {
    shm_unlink(DEMO_SHM_NAME);
    sem_unlink(DEMO_SEMAPHORE_NAME);
    flushHBKLogFile(0); /* the bridge's local log starts empty too */
    printf("removed %s and %s: the node starts afresh\n", DEMO_SHM_NAME, DEMO_SEMAPHORE_NAME);
  }

  /* Two processes start tracing at the same instant. */
  void (*const starters[2])(void) = {startTracing, startTracing};
  runTogether(starters, 2);

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

  printf("\ntwo applications trace at the same time: \"Radio\" text, \"Ethernet\" dumps\n");
  writeAndRead();

  char logPath[512];
  snprintf(logPath, sizeof logPath, "%s", TMGR_HBK_LOG_FILE_NAME);
  printf("\nevery stored entry went on to the platform log service under its set's feature\n"
         "tag (\"Radio\" 0x%06X, \"Ethernet\" 0x%06X; on a host only warnings and errors\n"
         "reach syslog, NODEPLATFORM_SYSLOG=all forwards every entry); the bridge's own\n"
         "lines are in %s:\n",
         (unsigned)getHBKFeatureTag("Radio"), (unsigned)getHBKFeatureTag("Ethernet"), logPath);
  printLocalLog(logPath);

  printf("\nsearching the newest entries, dumping the store to files, clearing a set:\n");
  searchDumpAndClear(root);

  printf("\na refused request lands in the persistent error trace set:\n");
  int16_t id = 99;
  const int rc = initTraceSet("2ndRadio", TS_STRING, 8, 128, 1, &id);
  const TraceSetStruct *system = getTraceSetStruct(SYSTEM_TRACE_SET_ID);
  printf("  initTraceSet(\"2ndRadio\", ...): %d; \"System\" now holds %u entries\n", rc,
         system != NULL ? (unsigned)system->curentNumberEntries : 0u);
  if (system != NULL && system->curentNumberEntries > 0) {
    const unsigned newest = (system->writeIndex + system->maxNumberEntries - 1u) % system->maxNumberEntries;
    printEntry((int16_t)SYSTEM_TRACE_SET_ID, (uint16_t)newest);
  }

  printf("\nremote entries, with the remote unit's pid 812, tid 815 and clocks:\n");
  remoteEntries();

  printf("\na backtrace, as the fatal-signal handler prints it:\n");
  fflush(stdout);
  demoPrintBacktrace();
  return 0;
}
