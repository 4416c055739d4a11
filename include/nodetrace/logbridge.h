/*
 * nodetrace log bridge: forwarding of trace entries to the node platform's
 * log service (the HBK log) under a feature tag per application family, and
 * the small local log file that holds the bridge's own diagnostics.
 *
 * Feature tags are (26 << 16) | row: 0x1A0000 + row of hbk_syslog_map.
 * Usable from C11 and C++.
 */
#ifndef NODETRACE_LOGBRIDGE_H
#define NODETRACE_LOGBRIDGE_H

#include <stdint.h>

#include "nodetrace/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** One row of the feature tag table: the tag and the name it is filed under. */
typedef struct hbk_syslog_map_entry {
  uint32_t tag;
  const char *name;
} hbk_syslog_map_entry;

/** Number of rows of hbk_syslog_map. */
#define HBK_SYSLOG_MAP_ROWS 32

/** The feature tag table: row i holds the tag 0x1A0000 + i. Rows 0 to 29
 *  name the node's application families as their trace sets are called
 *  ("Platform", "Config", "Alarm", ... "Radio", ... "RemoteUnit"); row 30 is
 *  "System" (0x1A001E, the default tag, also taken by every error entry),
 *  row 31 "Unknown" (0x1A001F, for names no row holds). */
NODETRACE_API extern const hbk_syslog_map_entry hbk_syslog_map[HBK_SYSLOG_MAP_ROWS];

/** The feature tag of the row called name, compared without regard to case.
 *  An unknown name gives 0x1A001F and one diagnostic line in the local log. */
NODETRACE_API uint32_t getHBKFeatureTag(const char *name);

/** The default feature tag, 0x1A001E ("System"). */
NODETRACE_API uint32_t getDefaultHBKtag(void);

/** Forwards one stored trace entry to the platform log service: error
 *  entries (severity 0x80) as a text line "file:line [text]" under "System"
 *  at level 4, entries of dump sets (traceSetType not 0) as a hex dump of
 *  contentsLength bytes titled "QMB <set> DUMP", text entries as a line
 *  under the set's feature tag. Levels: NOT 2, DBG 1, INF 2, WAR 3, any
 *  other severity 0. Text ends at its first zero byte, and never later than
 *  contentsLength bytes. Registers the log domain "QMB" first if this
 *  process has not done so successfully yet (retried with every entry until
 *  it succeeds). category is not used. Returns the platform print call's
 *  result. */
NODETRACE_API int updateSyslogPrint(const char *traceSetName, uint32_t traceSetType,
                                    uint32_t severity, uint32_t category,
                                    const char *fileName, int32_t line,
                                    uint16_t contentsLength, const void *contents);

/** Writes one line "<process name>: <line> : <functionName>() -> <message>"
 *  to the local log, cut to 199 characters, prefix included. A message that
 *  formats to nothing is replaced by the format text as it stands. If the
 *  prefix cannot be formatted, syslog gets the failure and the line is lost. */
NODETRACE_API void proc_printf_func(const char *functionName, uint32_t line,
                                    const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/** As proc_printf_func, with fileName in place of the process name. */
NODETRACE_API void file_printf_func(const char *fileName, uint32_t line,
                                    const char *functionName, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/** Sets the process's syslog identity: openlog("QMB_SW", LOG_PID, LOG_USER). */
NODETRACE_API void appendQmbwSwIdentityToSyslog(void);

/** Where local log lines go: 0 standard output, 1 the log file (initially),
 *  2 the log file and standard output, 3 or more nowhere. Not checked. The
 *  file is checked every 20 lines written to it; at 51200 bytes its last 200
 *  lines are saved in TMGR_HBK_LOG_FILE_NAME_TMP and it is emptied, leaving
 *  a note that names the saved file. */
NODETRACE_API void setHBKLogMode(uint32_t mode);

/** Empties the local log file; with withNote not 0 it then holds the line
 *  "File is truncated - For OLD logs check <TMGR_HBK_LOG_FILE_NAME_TMP>".
 *  A file that does not open is reported to syslog by its base name. */
NODETRACE_API void flushHBKLogFile(int32_t withNote);

/** Path of the local log file, initially "/opt/qmb/etc/hbk_log.txt" (below
 *  the build's path prefix, if it has one). A process may point it elsewhere,
 *  best before it logs; the directory must exist. */
NODETRACE_API extern const char *TMGR_HBK_LOG_FILE_NAME;

/** Path of the saved tail of the local log file, initially
 *  "/opt/qmb/etc/hbk_log.txt_tmp" (below the build's path prefix, if any). A
 *  process may point it elsewhere too. */
NODETRACE_API extern const char *TMGR_HBK_LOG_FILE_NAME_TMP;

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* NODETRACE_LOGBRIDGE_H */
