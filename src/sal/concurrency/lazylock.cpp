#include "sal/concurrency/lazylock.h"

#include <stdlib.h>

/* The locks made so far, deleted together at exit. A lock made anew after that is listed again. */
#define SAL_LAZY_LOCKS_MAX 16
static SalLazyLock *volatile g_lazyLocks[SAL_LAZY_LOCKS_MAX];
static volatile LONG g_lazyLockCount = 0;

static void sal_deleteLazyLocks(void) {
    LONG count = g_lazyLockCount;
    if (count > SAL_LAZY_LOCKS_MAX) count = SAL_LAZY_LOCKS_MAX;
    for (LONG i = 0; i < count; ++i) {
        SalLazyLock *lock = g_lazyLocks[i];
        if (lock != NULL && InterlockedCompareExchange(&lock->state, 0, 2) == 2) DeleteCriticalSection(&lock->section);
    }
}

void sal_lazyLockEnter(SalLazyLock *lock) {
    if (lock->state != 2) {
        if (InterlockedCompareExchange(&lock->state, 1, 0) == 0) {
            InitializeCriticalSection(&lock->section);
            LONG slot = InterlockedIncrement(&g_lazyLockCount) - 1;
            if (slot < SAL_LAZY_LOCKS_MAX) {
                g_lazyLocks[slot] = lock;
                atexit(sal_deleteLazyLocks);
            }
            InterlockedExchange(&lock->state, 2);
        } else {
            while (lock->state != 2) Sleep(10);   /* another thread is making it */
        }
    }
    EnterCriticalSection(&lock->section);
}

void sal_lazyLockLeave(SalLazyLock *lock) {
    if (lock->state == 2) LeaveCriticalSection(&lock->section);
}
