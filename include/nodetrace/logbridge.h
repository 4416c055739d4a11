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

/** The feature tag table: row i holds the tag 0x1A0000 + i. Row 30 is
 *  "System" (0x1A001E, the default tag), row 31 "Unknown" (0x1A001F). */
NODETRACE_API extern const hbk_syslog_map_entry hbk_syslog_map[HBK_SYSLOG_MAP_ROWS];

/** The feature tag of the row called name, compared without regard to case.
 *  An unknown name gives 0x1A001F and one diagnostic line in the local log. */
NODETRACE_API uint32_t getHBKFeatureTag(const char *name);

/** The default feature tag, 0x1A001E ("System"). */
NODETRACE_API uint32_t getDefaultHBKtag(void);

/** Forwards one stored trace entry to the platform log service: error
 *  entries (severity 0x80) as a text line under "System", entries of dump
 *  sets (traceSetType not 0) as a hex dump, text entries as a line under the
 *  set's feature tag. Registers the log domain "QMB" first if this process
 *  has not done so successfully yet. category is not used. Returns the
 *  platform print call's result. */
NODETRACE_API int updateSyslogPrint(const char *traceSetName, uint32_t traceSetType,
                                    uint32_t severity, uint32_t category,
                                    const char *fileName, int32_t line,
                                    uint16_t contentsLength, const void *contents);

/** Writes one line "<process name>: <line> : <functionName>() -> <message>"
 *  (at most 199 characters) to the local log. */
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
 *  2 the log file and standard output, 3 or more nowhere. */
NODETRACE_API void setHBKLogMode(uint32_t mode);

/** Empties the local log file; with withNote not 0 it then holds one line
 *  that points to the saved tail file. */
NODETRACE_API void flushHBKLogFile(int32_t withNote);

/** Path of the local log file, initially "/opt/qmb/etc/hbk_log.txt". A
 *  process may point it elsewhere before it logs. */
NODETRACE_API extern const char *TMGR_HBK_LOG_FILE_NAME;

/** Path of the saved tail of the local log file, initially
 *  "/opt/qmb/etc/hbk_log.txt_tmp". */
NODETRACE_API extern const char *TMGR_HBK_LOG_FILE_NAME_TMP;

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* NODETRACE_LOGBRIDGE_H */
