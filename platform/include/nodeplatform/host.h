/*
 * Settings of libnodeplatform, the host stand-in for the node platform
 * libraries. Host builds only: the node's own platform libraries do not have
 * these functions.
 */
#ifndef NODEPLATFORM_HOST_H
#define NODEPLATFORM_HOST_H

#ifdef __cplusplus
extern "C" {
#endif

/** What the host log service hands to syslog. */
enum {
  /** Lines and hex dumps of level 3 and 4 (warnings and errors) only; lower
   *  levels are dropped before any formatting. The default. */
  NODEPLATFORM_SYSLOG_WARNINGS = 0,
  /** Every line and every hex dump, each as one syslog record. */
  NODEPLATFORM_SYSLOG_ALL = 1,
  /** Back to the choice of the environment variable NODEPLATFORM_SYSLOG
   *  ("all" for NODEPLATFORM_SYSLOG_ALL, anything else or unset for
   *  NODEPLATFORM_SYSLOG_WARNINGS), read again at the next print call. */
  NODEPLATFORM_SYSLOG_FROM_ENVIRONMENT = -1
};

/** Chooses what the log service of this process hands to syslog. */
void nodeplatformSetSyslogForwarding(int mode);

/** NODEPLATFORM_SYSLOG_WARNINGS or NODEPLATFORM_SYSLOG_ALL: what the log
 *  service of this process hands to syslog now. */
int nodeplatformSyslogForwarding(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* NODEPLATFORM_HOST_H */
