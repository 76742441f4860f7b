/*
 * The second trace channel.
 */
#include "platform/dbgtrace.h"

#include "platform/platform.h"
#include "sal/concurrency/lazylock.h"

#include <string.h>

DWORD g_salTraceMasks[SAL_TRACE_CATEGORIES];
const char *g_salTraceProcessTag = "tarsk";

static void sal_traceToLog(const char *text) { vl_printA("%hs", text); }
SalTraceOutput g_salTraceOutput = sal_traceToLog;

static SalLazyLock g_traceLock;
static const char *g_traceFile = "";
static int g_traceLine = 0;
static LONG g_traceSequence = 0;

/* Thread names by thread id; a small fixed table, the system has few threads. */
#define SAL_TRACE_THREADS 16
static struct {
    DWORD id;
    char name[32];
} g_traceThreads[SAL_TRACE_THREADS];

void sal_traceBegin(const char *source, int line) {
    sal_lazyLockEnter(&g_traceLock);
    const char *file = source ? source : "";
    const char *slash = strrchr(file, '/');
    g_traceFile = slash ? slash + 1 : file;
    g_traceLine = line;
}

static const char *sal_threadName(DWORD id) {
    for (int i = 0; i < SAL_TRACE_THREADS; ++i)
        if (g_traceThreads[i].id == id && g_traceThreads[i].name[0]) return g_traceThreads[i].name;
    return NULL;
}

void sal_traceSetThreadName(const char *name) {
    DWORD id = GetCurrentThreadId();
    int slot = -1;
    for (int i = 0; i < SAL_TRACE_THREADS; ++i) {
        if (g_traceThreads[i].id == id) { slot = i; break; }
        if (slot < 0 && g_traceThreads[i].id == 0) slot = i;
    }
    if (slot < 0) return;
    g_traceThreads[slot].id = name ? id : 0;
    strncpy(g_traceThreads[slot].name, name ? name : "", sizeof(g_traceThreads[slot].name) - 1);
    g_traceThreads[slot].name[sizeof(g_traceThreads[slot].name) - 1] = 0;
}

void sal_trace(int category, DWORD bit, const char *format, FMT_ARGS_DEF) {
    if (category >= 0 && category < SAL_TRACE_CATEGORIES && (g_salTraceMasks[category] & bit) != 0) {
        char line[1024];
        size_t n = 0;
        DWORD id = GetCurrentThreadId();
        const char *name = sal_threadName(id);
        LONG sequence = InterlockedIncrement(&g_traceSequence);
        int r;
        if (name)
            r = fmt_formatA(line, sizeof(line), "%s> %ld-[%s]-", FmtArgList(g_salTraceProcessTag, sequence, name));
        else
            r = fmt_formatA(line, sizeof(line), "%s> %ld-[%d]-", FmtArgList(g_salTraceProcessTag, sequence, id));
        n = r < 0 ? strlen(line) : (size_t)r;
        r = fmt_formatA(line + n, sizeof(line) - n, "D-%d-%s-%d-", FmtArgList(category, g_traceFile, g_traceLine));
        n = r < 0 ? strlen(line) : n + (size_t)r;
        r = fmt_formatA(line + n, sizeof(line) - n, format ? format : "", FmtArgList(FMT_ARGS_PASS));
        n = r < 0 ? strlen(line) : n + (size_t)r;
        if (n + 1 < sizeof(line)) {
            line[n++] = '\n';
            line[n] = 0;
        }
        if (g_salTraceOutput) g_salTraceOutput(line);
    }
    sal_lazyLockLeave(&g_traceLock);
}
