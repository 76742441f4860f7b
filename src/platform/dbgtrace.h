/*
 * The second trace channel, used by the thread layer. A trace names a category (an index into a
 * table of masks, all zero at start) and a bit; only a set bit composes a line, which goes to an
 * output function that can be replaced.
 *     SALTRACE(1, 64, "Thread entrypoint reached !");
 */
#ifndef TARSK_PLATFORM_DBGTRACE_H
#define TARSK_PLATFORM_DBGTRACE_H

#include "sal/winapi.h"
#include "platform/plat_unicode.h"

#define SAL_TRACE_CATEGORIES 16

typedef void (*SalTraceOutput)(const char *text);

/* The masks by category, the output function and the process tag of every line. */
extern DWORD g_salTraceMasks[SAL_TRACE_CATEGORIES];
extern SalTraceOutput g_salTraceOutput;
extern const char *g_salTraceProcessTag;

/* Enters the trace lock and records the source file (after its last '/') and line. */
void sal_traceBegin(const char *source, int line);
/* Composes and writes the line when the bit is set in the category's mask; leaves the lock. */
void sal_trace(int category, DWORD bit, const char *format, FMT_ARGS_DECL);
/* Names the calling thread in its trace lines (NULL: lines show the thread id). */
void sal_traceSetThreadName(const char *name);

#define SALTRACE(category, bit, ...)                                                               \
    do {                                                                                           \
        sal_traceBegin(__FILE__, __LINE__);                                                        \
        sal_trace((category), (bit), __VA_ARGS__);                                                 \
    } while (0)

#endif
