/*
 * Interfaces of the node platform that libnodetrace calls: the configuration
 * and log service (HBK log), the file wrappers, the environment information
 * and the reset counter. On the node they come from the platform's own
 * libraries; on a host, libnodeplatform stands in for them.
 */
#ifndef NODEPLATFORM_NODEPLATFORM_H
#define NODEPLATFORM_NODEPLATFORM_H

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Configuration and log service -------------------------------------- */

/** Called by the configuration service once a domain is registered, so that
 *  the owner can set the defaults of its feature tags. */
typedef void (*ZqConfigRadDomainCallback)(uint32_t domain, void *context);

/** Registers the log domain domain under domainName; 0 on success. */
int ZqConfigRadRegisterDomain(uint32_t domain, const char *domainName,
                              ZqConfigRadDomainCallback callback);

/** Sets the highest feature tag value of domain. */
int ZqConfigRadSetMaxTagCount(uint32_t domain, uint32_t value);

/** Gives feature tag tag the name tagName and the default value value. */
int ZqConfigRadSetDefault(uint32_t tag, const char *tagName, uint32_t value);

/** Prints one printf-style line at level (0..4) under feature tag tag. */
int ZqSysLogPrintE(uint32_t level, uint32_t tag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/** Prints a hex dump of length bytes at data with a printf-style title. */
int ZqSysLogPrintHD(uint32_t level, const void *data, uint32_t length,
                    const char *format, ...) __attribute__((format(printf, 4, 5)));

/* ---- File wrappers -------------------------------------------------------- */

/** open(path, flags), logged with the caller's source position. */
int omluOpenFile(const char *path, int flags, const char *srcFile, int srcLine);

/** open(path, flags, mode), logged with the caller's source position. */
int omluOpenFileWithMode(const char *path, int flags, mode_t mode,
                         const char *srcFile, int srcLine);

/** close(fd), logged with the caller's source position and a label. */
int omluCloseFile(int fd, const char *srcFile, const char *label, int srcLine);

/** Closes *fd without logging and sets *fd to -1. */
int omluCloseNoLog(int *fd);

/** fclose(stream) without logging. */
int omluFcloseNoLog(FILE *stream);

/* ---- Environment and reset counter -------------------------------------- */

/** The node's product type; 1 makes printed time stamps local time. */
int envInfoProductType(void);

/** The node's reset counter; which selects the counter (0: the node's). */
int getResetCnt(int which);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* NODEPLATFORM_NODEPLATFORM_H */
