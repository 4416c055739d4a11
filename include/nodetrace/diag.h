/*
 * nodetrace crash diagnostics: a backtrace printer and a handler for fatal
 * signals that applications may install. The library installs no handler
 * itself.
 *
 * Unlike the rest of the interface these two functions have C++ linkage:
 * they are exported under their mangled names, print_backtrace() and
 * signal_handler(int), so this header declares them for C++ only. A C
 * program that includes it sees nothing.
 */
#ifndef NODETRACE_DIAG_H
#define NODETRACE_DIAG_H

#include "nodetrace/export.h"

#ifdef __cplusplus

/** Writes the calling thread's call stack (up to 512 frames) to standard
 *  error, one flushed line per frame, innermost first. The frame of
 *  print_backtrace itself is labelled -1, its caller 0, and so on:
 *    Backtrace #0 : ns::run(int)+0x1c in ./app (_ZN2ns3runEi+0x1c)
 *  A name that does not demangle is printed as "name()"; a frame text
 *  without a parenthesised name and offset is printed as it comes. Not
 *  async-signal-safe (it allocates), like everything done in a crash. */
NODETRACE_API void print_backtrace();

/** A handler for fatal signals: prints "Received signal:<n>" and the
 *  backtrace on standard error, restores the default action of signal and
 *  raises it again, so that the process ends as that signal dictates once
 *  the handler returns (the signal is blocked while its handler runs).
 *  Returns the result of raise. Install it with sigaction or signal, casting
 *  it to the handler type. */
NODETRACE_API int signal_handler(int signal);

#endif /* __cplusplus */

#endif /* NODETRACE_DIAG_H */
