/*
 * A lock for process-wide state that may be reached before any initialisation has run and after
 * static destruction has begun (the log, the trace, the allocator, the device settings). It is a
 * critical section made by the first thread that enters it; threads that come meanwhile wait until
 * it is ready. At process exit it is deleted; a later entry (a static object's destructor that logs
 * or frees) makes it anew.
 *
 *     static SalLazyLock g_lock;      // zero-initialised static storage: nothing to set up
 *     sal_lazyLockEnter(&g_lock); ...; sal_lazyLockLeave(&g_lock);
 */
#ifndef TARSK_SAL_CONCURRENCY_LAZYLOCK_H
#define TARSK_SAL_CONCURRENCY_LAZYLOCK_H

#include "sal/winapi.h"

struct SalLazyLock {
    volatile LONG state;        /* 0 none, 1 being made, 2 ready */
    CRITICAL_SECTION section;
};

/* Enters the lock (recursively, as a critical section does), making it first if need be. */
void sal_lazyLockEnter(SalLazyLock *lock);
/* Leaves it; nothing when it is not made (deleted at exit meanwhile). */
void sal_lazyLockLeave(SalLazyLock *lock);

#endif /* TARSK_SAL_CONCURRENCY_LAZYLOCK_H */
