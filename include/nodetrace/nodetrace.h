/*
 * nodetrace: node-wide trace sets in shared memory.
 *
 * Every process of the node links libnodetrace and records short,
 * time-stamped entries into named trace sets that live in the shared-memory
 * object "/shmem_Trace", readable by every other process. The persistent
 * error trace set "System" (id 255) and the remote unit's set "NVJ_System"
 * (id 254) live in the SRAM file "/var/log/sram".
 *
 * There is no initialisation call: the first trace call of a process opens
 * the node-wide lock "traceMutex" and maps the shared memory, creating and
 * initialising it when this process is the first of the node.
 *
 * Usable from C11 and C++.
 */
#ifndef NODETRACE_NODETRACE_H
#define NODETRACE_NODETRACE_H

#include <stdint.h>
#include <sys/types.h>
#include <unistd.h>

#include "nodetrace/export.h"
#include "nodetrace/trace_layout.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Layout helpers (no start-up, no side effects) ---------------------- */

/** x rounded up to a multiple of 4 (not 32, despite the name). */
NODETRACE_API uint32_t align32(uint32_t x);

/** Slot size of a trace set whose maximum contents length is len: the
 *  contents rounded up to 4 plus the 80-byte entry header. Only the low
 *  16 bits of len count: getTraceEntrySize(128) == 208. */
NODETRACE_API uint32_t getTraceEntrySize(int32_t len);

/* gettid: the calling thread's kernel thread id. glibc 2.30 and later declare
 * it in <unistd.h> for _GNU_SOURCE builds; libnodetrace exports its own with
 * the same signature for C libraries that do not. */
#if !(defined(__GLIBC__) && defined(__USE_GNU) && \
      (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 30)))
/** The calling thread's kernel thread id (the gettid system call). */
NODETRACE_API pid_t gettid(void);
#endif

/* ---- The node-wide lock -------------------------------------------------- */

/** Emergency exit for a process that holds the node-wide lock "traceMutex":
 *  clears the recorded holder, releases the lock and ends the process with
 *  exit status 0 (exit handlers run). It does not check that the caller holds
 *  the lock. A process that never started tracing only exits. */
NODETRACE_API void giveUpTraceSemaphoreAndExit(void) __attribute__((noreturn));

/* ---- Trace set registry -------------------------------------------------- */

/** The id of the trace set called name (compared over 20 characters): 255
 *  for "System", 254 for "NVJ_System", the lowest user set id carrying the
 *  name, or -1 when no set has that name (also for a null name). */
NODETRACE_API int getTraceSetId(const char *name);

/** The descriptor of trace set id, or null for an unknown id.
 *  For a user set (0..199) it points into the shared memory and stays valid
 *  for the life of the process. For 255 and 254 it points to a per-process
 *  snapshot of the descriptor in the SRAM file, overwritten by the next such
 *  request of any thread; changing it changes nothing in the file. A SRAM file
 *  that cannot be read gives null and a message on standard error. */
NODETRACE_API TraceSetStruct *getTraceSetStruct(uint16_t id);

/** The name of trace set id ("System", "NVJ_System", or the descriptor's name
 *  field of a user set), or null for an unknown id. A user set's name points
 *  into shared memory: names are stored zero-terminated, but a damaged field
 *  may fill all TRACE_SET_NAME_LENGTH bytes, so read at most that many
 *  (strnlen, or printf's "%.20s"). */
NODETRACE_API const char *getTraceSetName(uint16_t id);

/** 1 if id names an existing trace set (255, 254, or a user set id below the
 *  number of sets defined), else 0. Ids 0x8000..0xFFFF are never valid. */
NODETRACE_API int isValidTraceSetId(uint16_t id);

/** Number of user trace sets defined on the node (0..200). */
NODETRACE_API int getCurrentNumberTraceSets(void);

/** Number of entries ever written into any trace set of the node; it is also
 *  the sequence number that the next entry receives. */
NODETRACE_API uint32_t getTotalNumberTraceEntries(void);

/** Always 1: the remote unit's set "NVJ_System" (id 254) always exists. */
NODETRACE_API int needsRemoteTraceSupport(void);

/* ---- Trace set creation --------------------------------------------------- */

/** Creates the trace set name, or attaches to the existing set of that name.
 *  type is TS_STRING or TS_DUMP; maxEntries the ring capacity;
 *  maxContentsLength the longest entry (kept at most 128 for text sets, 1600
 *  for dump sets; the region is sized with the value asked for). A new set's
 *  category mask is the line for name in "/ffs/run/logs/trace_masks.conf" if
 *  there is one, else categoryMask; attaching ORs categoryMask into the mask
 *  unless the file has a line for name. Names are stored with 19 characters.
 *  *id receives the set's id, or -1 when none was found or created.
 *  Returns 0, or TRACE_RC_TABLE_FULL (-2), TRACE_RC_BAD_ARGUMENT (-3: "System",
 *  "NVJ_System", a name starting with a digit, or a null argument; recorded
 *  in the error trace set), TRACE_RC_NO_ROOM (-4), TRACE_RC_TYPE_MISMATCH (-7),
 *  TRACE_RC_SET_TOO_SMALL (-9: the existing set is smaller than asked; the
 *  mask is widened all the same) or TRACE_RC_NO_DESCRIPTOR (-10). Takes no
 *  lock. */
NODETRACE_API int initTraceSet(const char *name, uint32_t type, uint16_t maxEntries,
                               uint16_t maxContentsLength, uint32_t categoryMask, int16_t *id);

/* ---- Writing entries ------------------------------------------------------ */

/** Writes one entry into trace set traceSetId. type must be the set's type
 *  (TS_STRING or TS_DUMP); file and line name the call site (only the base
 *  name of file is kept). The variable arguments are the contents length (an
 *  int, used as 16 bits; ignored for text sets, which take strlen) and a
 *  pointer to the contents (text or bytes).
 *  Error-class entries (ERR, WAR, NOT) go to the persistent error trace set
 *  "System"; other entries pass the node's severity filter and the set's
 *  category mask into the set's ring in shared memory (text cut to the set's
 *  maximum, a trailing line feed dropped). Every stored entry is forwarded
 *  to the platform log service. Returns 0 (also when filtered out or tracing
 *  is disabled), TRACE_RC_UNKNOWN_SET (-5), TRACE_RC_TYPE_MISMATCH (-7),
 *  TRACE_RC_NO_DESCRIPTOR (-10) when the set's descriptor is damaged (its
 *  next slot lies outside the shared memory's entry area or its ring; the
 *  entry is dropped), or the error trace writer's result. Takes no lock;
 *  errno is left unchanged. */
NODETRACE_API int addTraceEntry(uint16_t traceSetId, uint32_t type, uint32_t severity,
                                uint32_t category, const char *file, int32_t line, ...);

/** printf-style text entry: filters first (nothing is formatted for an entry
 *  that the severity filter or the set's category mask drops), then formats
 *  into 128 bytes (at most 127 characters) and writes it with addTraceEntry.
 *  Returns 0, TRACE_RC_UNKNOWN_SET, or addTraceEntry's result. */
NODETRACE_API int tracePrintf(uint16_t traceSetId, uint32_t severity, uint32_t category,
                              const char *file, int32_t line, const char *format, ...)
    __attribute__((format(printf, 6, 7)));

/* Conversions in the macros below that C++ code compiled with
 * -Wold-style-cast accepts too. */
#ifdef __cplusplus
#define NODETRACE_CAST(type, value) static_cast<type>(value)
#else
#define NODETRACE_CAST(type, value) ((type)(value))
#endif

/** Text entries at the call site, one macro per severity:
 *  TRACE_INF(set, category, "format", ...). The format is checked like
 *  printf's. Each evaluates to tracePrintf's result. */
#define TRACE_PRINTF(set, severity, category, ...) \
  tracePrintf(NODETRACE_CAST(uint16_t, set), (severity), (category), __FILE__, __LINE__, __VA_ARGS__)
#define TRACE_ERR(set, category, ...) TRACE_PRINTF(set, TRACE_SEVERITY_ERR, category, __VA_ARGS__)
#define TRACE_WAR(set, category, ...) TRACE_PRINTF(set, TRACE_SEVERITY_WAR, category, __VA_ARGS__)
#define TRACE_INF(set, category, ...) TRACE_PRINTF(set, TRACE_SEVERITY_INF, category, __VA_ARGS__)
#define TRACE_DBG(set, category, ...) TRACE_PRINTF(set, TRACE_SEVERITY_DBG, category, __VA_ARGS__)
#define TRACE_NOT(set, category, ...) TRACE_PRINTF(set, TRACE_SEVERITY_NOT, category, __VA_ARGS__)

/** A dump entry of length bytes at data, into a TS_DUMP set, at the call
 *  site: TRACE_DUMP(set, TRACE_SEVERITY_INF, category, buffer, size). */
#define TRACE_DUMP(set, severity, category, data, length)                                  \
  addTraceEntry(NODETRACE_CAST(uint16_t, set), TS_DUMP, (severity), (category), __FILE__,   \
                __LINE__, NODETRACE_CAST(int, length), NODETRACE_CAST(const void *, data))

/* ---- Severity filter and category masks ---------------------------------- */

/** The node-wide severity filter: entries of severities whose bit is set are
 *  kept (initially 0xE8: ERR, WAR, INF, NOT). */
NODETRACE_API uint8_t getSeverityFilter(void);

/** 1 while the trace system of the node is enabled, 0 while disabled. */
NODETRACE_API uint8_t isTraceEnabled(void);

/** Sets (set == 1) or clears (any other set) the bits of mask in the
 *  severity filter of the whole node, and writes the new filter to
 *  "/ffs/run/logs/severityMask.conf" ("0x%02X\n") when it changed. Returns 0,
 *  or TRACE_RC_BAD_ARGUMENT when mask has none of the severity bits 0xF8. */
NODETRACE_API int modifySeverityMask(uint8_t mask, int set);

/** Replaces the category mask of user set id until the node restarts.
 *  Returns 0, TRACE_RC_UNKNOWN_SET for 255, 254 or an unknown id, or
 *  TRACE_RC_NO_DESCRIPTOR. */
NODETRACE_API int setCategoryMask(int16_t id, uint32_t mask);

/** The category mask of set id: all bits (-1) for 255 and 254, 0 for an
 *  unknown id. */
NODETRACE_API int getCategoryMask(int16_t id);

/* ---- Entry formatting ---------------------------------------------------- */

/** Prints one entry of trace set traceSetId as one line on standard output
 *  (buffered), laid out by format: %C category ("%08X"), %I set name, %P tid,
 *  %p pid, %S severity letters ("???" for an unknown value, which is also
 *  recorded in the error trace set), %T monotonic microseconds, %c contents
 *  (text, or "DUMP <n> bytes"), %i set id ("%3u"), %l "file(line)",
 *  %n sequence number ("%9u"), and the real time stamp as %t, %dt, %dut,
 *  %udt, %ut (local time on product type 1, else UTC), %dz and %uz (ISO 8601,
 *  UTC). Other "%x" print as they are. Entries of TS_DUMP sets are followed
 *  by a hex dump. descriptor is the set's, entry and contents as the entry
 *  reader fills them (contents at least 1600 bytes). A trailing newline of
 *  format is replaced in the caller's string by a zero byte, which is printed
 *  before the line's newline. format must be shorter than 256 characters.
 *  A null descriptor prints nothing. */
NODETRACE_API void printTraceEntry(int16_t traceSetId, const TraceSetStruct *descriptor,
                                   const TraceEntryHeader *entry, const char *contents,
                                   char *format);

/* ---- Switching tracing off and on, assertions, the reference clock -------- */

/** Switches tracing on for every process of the node, then records "Trace
 *  system enabled: <reason>" (notice, category 0x80000001) in the error trace
 *  set with the base name of fileName and line. The record is always written.
 *  Texts are cut to 127 characters. */
NODETRACE_API void enableTraceSystem(const char *fileName, uint32_t line, const char *reason);

/** Records "Trace system disabled: <reason>" in the error trace set like
 *  enableTraceSystem, then switches tracing off for every process of the
 *  node: from then on no entry is stored anywhere until some process calls
 *  enableTraceSystem. Called while tracing is off, it only stores the flag. */
NODETRACE_API void disableTraceSystem(const char *fileName, uint32_t line, const char *reason);

/** Reports a failed assertion and ends the process with exit status 1 (exit
 *  handlers run). Records "(<function>): Assertion <expression> failed" and
 *  the formatted message (error, category 0x80000002, base name of fileName,
 *  line) in the error trace set, prints "In <file> (<function>,<line>):
 *  Assertion <expression> failed; <message>!" and "\nDisabling Trace
 *  System\n" on standard error, and switches tracing off node-wide as
 *  disableTraceSystem(fileName, line, "Assertion failed") does. It tests
 *  nothing itself: use TRACE_ASSERT. */
NODETRACE_API void assertFail(const char *expression, const char *fileName, const char *function,
                              uint32_t line, const char *format, ...)
    __attribute__((noreturn, format(printf, 5, 6)));

/** Records in the error trace set that the node's reference clock has
 *  changed, so that later time stamps may jump. Changes no clock. */
NODETRACE_API void setRefClock(void);

/* TRACE_ASSERT(cond, format, ...): evaluates cond once; when it is false,
 * calls assertFail with the text of cond, the file, the function and the
 * line of the assertion and the printf-style message, which records the
 * failure, switches tracing off node-wide and ends the process with exit
 * status 1. A format is required: TRACE_ASSERT(n > 0, "no buffers").
 *
 * Define NODETRACE_DISABLE_ASSERT before including this header to compile
 * the assertions out: cond is then still type-checked but not evaluated, so
 * it must have no side effects that the program needs; the message
 * arguments are neither checked nor evaluated. */
#if defined(NODETRACE_DISABLE_ASSERT)
#define TRACE_ASSERT(cond, ...) ((void)sizeof(!(cond)))
#else
#define TRACE_ASSERT(cond, ...) \
  ((cond) ? (void)0 : assertFail(#cond, __FILE__, __func__, __LINE__, __VA_ARGS__))
#endif

/* ---- Reading entries ----------------------------------------------------- */

/** Hands out the entry in slot index (the physical slot of the set's ring,
 *  0..maxNumberEntries-1) of trace set traceSetId. contents is the caller's
 *  buffer of at least 1600 bytes (TRACE_MAX_DUMP_LENGTH): its first 1600
 *  bytes are cleared, then the entry's contentsLength bytes are copied in.
 *  For a user set *entry receives the address of the entry header in the
 *  shared memory (no copy). For 255 and 254 *entry must already point at a
 *  caller-owned 80-byte TraceEntryHeader, which is filled from the SRAM file.
 *  On any failure (unknown set, slot not filled, file error) *entry becomes
 *  null. A contentsLength above the set's maximum is cut to it with a
 *  message on standard error; in shared memory the slot is repaired, the
 *  SRAM file is never written. Takes no lock. */
NODETRACE_API void getTraceEntry(int16_t traceSetId, uint16_t index, TraceEntryHeader **entry,
                                 void *contents);

/** Where the newest entry of the node was written, as the trace memory
 *  header holds it: lastTraceSetId as a signed 16-bit id (0xFFFF, stored
 *  while no entry exists, arrives as -1), lastEntryIndex and
 *  totalNumberTraceEntries. No checks: a link that names no existing set or
 *  slot is handed out unchanged (0xFFFE arrives as -2); getTraceEntry and
 *  the search refuse what does not exist. */
NODETRACE_API void getRecentEntry(int16_t *traceSetId, uint16_t *index, uint32_t *total);

/* ---- Reports on standard output ------------------------------------------ */

/** Prints one line about a trace set: id, name, current entries, (with
 *  withMax exactly 1) the capacity, total entries, type and creator, e.g.
 *  "Trace set   3 'abc' 5 current/10 max,7 total STRING Created by 812".
 *  A type that is neither TS_STRING nor TS_DUMP prints "??????", is recorded
 *  in the error trace set and is set to TS_STRING in place. descriptor must
 *  be valid. */
NODETRACE_API void printTraceSetInfo(int16_t traceSetId, TraceSetStruct *descriptor, int32_t withMax);

/** Prints a table of all user trace sets (category masks too when verbose is
 *  exactly 1), the two sets of the SRAM file and a summary of the entry area
 *  in use. Returns 0, TRACE_RC_FILE_ERROR (-6) when the SRAM file cannot be
 *  opened (no summary) or one of its descriptors cannot be read, or
 *  TRACE_RC_NO_DESCRIPTOR (-10) when a user set has no descriptor (the report
 *  ends there). File errors are printed on standard error. Takes no lock. */
NODETRACE_API int32_t printTraceSetsInfo(int16_t verbose);

/* ---- Searching entries ---------------------------------------------------- */
/** Takes the newest entries of severityMask (and of categoryMasks[i], all
 *  categories when categoryMasks is null) across the numberTraceSets sets of
 *  traceSetIds, in falling sequence order, while a budget lasts. countEntries
 *  1: the budget counts entries (an entry fits while *total < limit);
 *  otherwise it counts slot bytes (an entry fits while *total plus its slot
 *  size is below limit). Per set, numberEntries[i] receives how many entries
 *  were taken (0 for all sets at the start) and startIndexes[i] the slot of
 *  the oldest one taken (written only when some were). *total grows with
 *  every entry taken and becomes limit at the first one that does not fit.
 *  Complaints about unexpected data go to the error trace set. Takes no
 *  lock. */
NODETRACE_API void findMatchingTraceEntries(uint8_t numberTraceSets, const int16_t *traceSetIds,
                                            uint16_t *startIndexes, uint16_t *numberEntries,
                                            uint32_t *total, uint8_t severityMask,
                                            const uint32_t *categoryMasks, uint32_t limit,
                                            int32_t countEntries);
/** Replaces *index by the next slot after it, towards newer entries, whose
 *  entry matches severityMask and categoryMask; leaves it as it is when
 *  there is none before writeIndex (the entry at writeIndex itself, the
 *  oldest of a full ring, is still tested). fromFile is 1 for the sets of
 *  the SRAM file (255, 254). A null descriptor does nothing. */
NODETRACE_API void findNextMatch(const TraceSetStruct *descriptor, int32_t fromFile, uint16_t *index,
                                 uint8_t severityMask, uint32_t categoryMask);

/* ---- Dump files ------------------------------------------------------------ */
/** Writes every user trace set, and with withSramSets 1 also "NVJ_System"
 *  and "System", into the binary dump file fileName: header, descriptors and
 *  each set's entries oldest first, all multi-byte fields in network byte
 *  order. debugMode 1 dumps every entry; any other value leaves out DBG
 *  entries (0 also lowers the set's counts in the file to what was written).
 *  The file is made as "/tmp/traceDump.tmp" (created exclusively: one dump
 *  of the node at a time) and copied to fileName, a partial one too.
 *  Returns 0, or TRACE_RC_FILE_ERROR (-6) on any failure, which is recorded
 *  in the error trace set. Takes no lock. */
NODETRACE_API int32_t dumpTracesToFile(const char *fileName, uint32_t withSramSets, uint32_t debugMode);
/** The dump before a reset: the newest WAR, then NOT, INF and DBG entries of
 *  the user trace sets that fit into 972800 bytes, in the dump file layout
 *  (time stamps in the node's byte order), each set's entries in the order
 *  they were written. viaTempFile 0: the node's severity filter is ERR only
 *  while the dump runs, the old "ErrorTrace." and "TraceLog." files of the
 *  slot named in "/tmp/oldTrace" are removed, and the file is written at
 *  fileName (at most 39 characters of it). Otherwise the dump is written to
 *  "/tmp/tmpTraceDump.bin" and copied to fileName. Returns 0 or
 *  TRACE_RC_FILE_ERROR (-6). Takes no lock. */
NODETRACE_API int32_t dumpTracesBeforeReset(const char *fileName, uint32_t viaTempFile);

/* ---- Clearing a trace set and capturing the journal ------------------------ */
/** Empties user trace set traceSetId (low 16 bits, a signed id) under the
 *  trace lock: writeIndex, curentNumberEntries and totalNumberEntries become
 *  0; the slots and the node-wide entry count stay. Returns 0,
 *  TRACE_RC_UNKNOWN_SET (-5) for 255, 254 or an unknown id, or
 *  TRACE_RC_NO_DESCRIPTOR (-10). */
NODETRACE_API int32_t clearTraceSet(int32_t traceSetId);
/** Saves the journal of the current boot as "/ffs/run/logs/JournalLog.<n>",
 *  n the node's reset counter, and removes all but the five newest such
 *  files. Does nothing and returns 0 when the counter is 0; otherwise
 *  returns the status of the last shell command, or the result of recording
 *  a shell that could not be started. */
NODETRACE_API int32_t dumpJournalLogs(void);

/* ---- Remote entries ------------------------------------------------------- */

/* Records of the remote unit, brought to the node by the caller. They carry
 * the remote process and thread ids and the remote unit's two clock readings,
 * each given as two words in host order, seconds then nanoseconds (stored
 * big-endian like every time stamp; a null pointer stores zeros). Every
 * stored record is also sent to syslog as "[PID:<pid>][TID:<tid>] <text>"
 * with the text as given, at LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO for
 * ERR, WAR, NOT, INF and LOG_DEBUG for any other severity. */

/** Stores a remote record into the ring of user set traceSetId, like a local
 *  entry but with the remote ids and clocks and without linking it into the
 *  node-wide chain of entries (the next local entry links past it). Text sets
 *  take strnlen(data, 128) and ignore length; dump sets take length bytes;
 *  both are cut to the set's maximum, and one trailing line feed of a text is
 *  dropped. Empty contents store the notice "Trying to add empty trace entry"
 *  in "NVJ_System" (as addRemoteSystemEntry with severity NOT) instead.
 *  Returns 0 when stored, when filtered out by the severity filter or the
 *  set's category mask, or when tracing is disabled; TRACE_RC_UNKNOWN_SET (-5)
 *  for an unknown id; TRACE_RC_NO_DESCRIPTOR (-10) when the set has no
 *  descriptor, and for 255 and 254, which have no ring in shared memory.
 *  Takes no lock; errno is left unchanged. */
NODETRACE_API int addRemoteEntry(int16_t traceSetId, uint32_t severity, uint32_t category,
                                 const char *fileName, uint32_t line, uint16_t length, const void *data,
                                 int32_t pid, int32_t tid, const uint32_t *realTime,
                                 const uint32_t *monotonicTime);

/** Appends a remote record to the remote unit's persistent set "NVJ_System"
 *  (id 254) in the SRAM file, under the trace lock, also while tracing is
 *  disabled and whatever the masks. traceSetId is the set the record came
 *  from: a user set's name is prefixed ("<name>: ") to any record but an
 *  error; an id that is neither a user set nor 254 stores the record as an
 *  error and returns TRACE_RC_UNKNOWN_SET (-5). With the 128-byte entries
 *  the region is created with, the slot keeps the prefix and the length but
 *  not the text, which reaches syslog only. Returns 0; -5; TRACE_RC_FILE_ERROR
 *  (-6) on a file error (printed on standard error); TRACE_RC_NO_DESCRIPTOR
 *  (-10) when the second region of the SRAM file is not "NVJ_System", which
 *  the first such call of a process records in the error trace set. Every
 *  outcome but that first report sends the syslog line. errno is left
 *  unchanged. */
NODETRACE_API int addRemoteSystemEntry(int16_t traceSetId, uint32_t severity, uint32_t category,
                                       const char *fileName, uint32_t line, const char *text,
                                       int32_t pid, int32_t tid, const uint32_t *realTime,
                                       const uint32_t *monotonicTime);

/** 1 if trace set traceSetId is kept for the remote unit: its name contains
 *  "NVJ_" anywhere (254 "NVJ_System" does, 255 "System" does not); 0 for
 *  other and unknown ids. */
NODETRACE_API int isRemoteTraceSet(int16_t traceSetId);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* NODETRACE_NODETRACE_H */
