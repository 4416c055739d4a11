/* Symbol visibility of the nodetrace C interface. */
#ifndef NODETRACE_EXPORT_H
#define NODETRACE_EXPORT_H

/* The library is built with hidden visibility; only what carries
 * NODETRACE_API is exported from libnodetrace.so. */
#if defined(NODETRACE_BUILDING_LIBRARY)
#define NODETRACE_API __attribute__((visibility("default")))
#else
#define NODETRACE_API
#endif

#endif /* NODETRACE_EXPORT_H */
