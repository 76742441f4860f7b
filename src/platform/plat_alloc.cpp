/*
 * The framework's allocator (os_mallocLocal, os_freeLocal) and the memory organisation: the memory
 * settings, the division of RAM between the object store and program memory, the private process
 * heap and the shared memory heap.
 *
 * Where a block goes back to: the shared memory heap is asked first whether the address lies in one
 * of its partitions; every other block came from the private heap. (The shared heap's partitions are
 * themselves blocks of the private heap, so the order of that test matters.)
 *
 * The big allocation bound can only become 0 when the program sets it so (a zero in the files keeps
 * the default 0x200000). Then no private heap is made and, as the allocator's rules have it, only
 * the shared memory heap can serve: without it every request fails with the "Can't call HeapAlloc()"
 * message.
 */
#include "platform/plat_alloc.h"

#include "platform/devicesettings.h"
#include "platform/inifile.h"
#include "platform/memheap.h"
#include "platform/platform.h"
#include "sal/concurrency/lazylock.h"

#include <new>
#include <stdlib.h>
#include <string.h>

#define OS_PRIVATE_HEAP_INITIAL_SIZE 0x100000
#define OS_PAGE_SIZE 4096
#define OS_SETTINGS_SECTION "Waylume_CE"

OSMemorySettings g_osMemorySettings = {0x1100000, 0x800000, 900, 0x200000};

/* ---------------------------------------------------------------------------- allocator state */

static HANDLE gs_hProcessHeap = NULL;
static SharedMemHeap *gs_pSharedMemHeap = NULL;
/* Storage of the shared heap object: it is made once and never destroyed, so that blocks can be
 * released from anywhere until the process ends. */
static union {
    char bytes[sizeof(SharedMemHeap)];
    void *pointer;
    double number;
    LONGLONG integer;
} gs_sharedMemHeapStorage;

static BOOL bAvoidCompact = FALSE;
static DWORD gs_dwAvoidCompactAvailVirtual = 0;   /* the available virtual memory when it was set */

static DWORD gs_dwSnapshotInterval = 0;
static DWORD gs_dwSnapshotCounter = 0;

static volatile LONG gs_allocations = 0;
static volatile LONG gs_current = 0;
static DWORD gs_dwHighMark = 0;
static DWORD gs_dwLowMark = 0;
static ULONGLONG gs_ullSum = 0;

/* Set at process exit: the heaps go with the process, so blocks that static objects release while
 * it ends are not given back one by one (the heaps may already be gone). */
static volatile BOOL gs_bProcessEnding = FALSE;
static void os_processEnding(void) { gs_bProcessEnding = TRUE; }

/* The first call's set-up: 0 not begun, 1 running (calls made meanwhile skip it), 2 done. */
static volatile LONG gs_setUpState = 0;

/* Guards the making of the private heap and of the shared heap object. */
static SalLazyLock gs_makeLock;

static void os_enterMakeLock(void) { sal_lazyLockEnter(&gs_makeLock); }
static void os_leaveMakeLock(void) { sal_lazyLockLeave(&gs_makeLock); }

/* Where the shared heap's partitions come from: the private heap, or the local heap without one. */
static void *os_partitionFromProcessHeap(DWORD size) { return HeapAlloc(gs_hProcessHeap, 0, size); }
static void os_partitionToProcessHeap(void *block) { HeapFree(gs_hProcessHeap, 0, block); }
static void *os_partitionFromLocalHeap(DWORD size) { return (void *)LocalAlloc(LMEM_FIXED, size); }
static void os_partitionToLocalHeap(void *block) { LocalFree((HLOCAL)block); }

static SharedMemHeap *os_getSharedMemHeap(void) {
    if (gs_pSharedMemHeap == NULL) {
        os_enterMakeLock();
        if (gs_pSharedMemHeap == NULL) {
            if (gs_hProcessHeap != NULL)
                gs_pSharedMemHeap = new (gs_sharedMemHeapStorage.bytes)
                    SharedMemHeap(os_partitionFromProcessHeap, os_partitionToProcessHeap, SMH_DEFAULT_GROWTH);
            else
                gs_pSharedMemHeap = new (gs_sharedMemHeapStorage.bytes)
                    SharedMemHeap(os_partitionFromLocalHeap, os_partitionToLocalHeap, SMH_DEFAULT_GROWTH);
        }
        os_leaveMakeLock();
    }
    return gs_pSharedMemHeap;
}

/* A block from the shared heap under its lock; NULL when it cannot give one. */
static void *os_sharedAlloc(SharedMemHeap *heap, size_t size, DWORD flags) {
    if (size > 0xFFFFFFFFu) return NULL;
    heap->lock();
    void *block = heap->alloc((DWORD)size);
    heap->unlock();
    if (block != NULL && (flags & HEAP_ZERO_MEMORY)) memset(block, 0, size);
    return block;
}

static DWORD os_availVirtual(void) {
    MEMORYSTATUS ms;
    memset(&ms, 0, sizeof(ms));
    ms.dwLength = sizeof(ms);
    GlobalMemoryStatus(&ms);
    return (DWORD)ms.dwAvailVirtual;
}

static void *os_served(void *block, size_t size) {
    DWORD bytes = size > 0xFFFFFFFFu ? 0xFFFFFFFFu : (DWORD)size;
    if (InterlockedIncrement(&gs_allocations) == 1 || bytes < gs_dwLowMark) gs_dwLowMark = bytes;
    InterlockedIncrement(&gs_current);
    if (bytes > gs_dwHighMark) gs_dwHighMark = bytes;
    gs_ullSum += size;
    return block;
}

/* ------------------------------------------------------------------------------- os_mallocLocal */

void *os_mallocLocal(size_t size, DWORD flags, const char *source, int line) {
    static const char *const fn = "os_mallocLocal";
    if (source == NULL) source = "";
    DWORD bytes = (DWORD)size;   /* as the messages show it */

    if (gs_setUpState == 0 && InterlockedCompareExchange(&gs_setUpState, 1, 0) == 0) {
        sys_getMemorySettings();
        wince_organiseMemory(g_osMemorySettings.dwMapCacheSizeMax, g_osMemorySettings.dwMapCacheSizeMin,
                             g_osMemorySettings.dwMinStoragePage);
        InterlockedExchange(&gs_setUpState, 2);
    }

    if (gs_dwSnapshotInterval != 0 && gs_dwSnapshotCounter++ >= gs_dwSnapshotInterval) {
        gs_dwSnapshotCounter = 0;
        vl_memorySnapshot("** [Memory status");
    }

    if (g_osMemorySettings.dwBigMallocBound != 0 && gs_hProcessHeap == NULL) {
        os_enterMakeLock();
        if (gs_hProcessHeap == NULL) {
            HANDLE heap = HeapCreate(0, OS_PRIVATE_HEAP_INITIAL_SIZE, 0);
            if (heap == NULL) {
                DWORD error = GetLastError();
                os_leaveMakeLock();
                VLLOG(LOG_ERROR, TEXT("%hs(): HeapCreate() failed, error %d\n"), fn, error);
                return NULL;
            }
            gs_hProcessHeap = heap;
            atexit(os_processEnding);
            VLLOG(LOG_DEBUG, TEXT("%hs(): HeapCreate() returned 0x%x\n"), fn, TARSK_HANDLE_TEXT(heap));
        }
        os_leaveMakeLock();
    }

    SharedMemHeap *shared = NULL;
    if (velmar::getDeviceSettings()->m_bSharedMemHeap) {
        shared = os_getSharedMemHeap();
        if (bAvoidCompact && os_availVirtual() != gs_dwAvoidCompactAvailVirtual) {
            bAvoidCompact = FALSE;
            VLLOG(LOG_DEBUG, TEXT("%hs(): Cleared bAvoidCompact flag\n"), fn);
        }
        if (bytes >= g_osMemorySettings.dwBigMallocBound || bAvoidCompact) {
            void *block = os_sharedAlloc(shared, size, flags);
            if (block != NULL) return os_served(block, size);
            VLLOG(LOG_WARNING, TEXT("%hs(%hs, %d): pSharedMemHeap->alloc(%d) failed\n"), fn, source, line, bytes);
        }
    }

    void *block = NULL;
    DWORD error = ERROR_INVALID_HANDLE;
    if (gs_hProcessHeap != NULL) {
        block = HeapAlloc(gs_hProcessHeap, flags, size);
        if (block == NULL) {
            vl_memorySnapshot("heap compact[");
            DWORD start = GetTickCount();
            SIZE_T space = HeapCompact(gs_hProcessHeap, 0);
            DWORD compactError = GetLastError();
            LONG elapsed = (LONG)(GetTickCount() - start);
            if (space != 0)
                VLLOG(LOG_DEBUG, TEXT("%hs(%hs, %d): HeapCompact(), space=%ld, time=%ld\n"), fn, source, line,
                      (LONG)space, elapsed);
            else
                VLLOG(LOG_WARNING, TEXT("%hs(%hs, %d): HeapCompact() failed: error=%ld, space=%ld, time=%ld\n"), fn,
                      source, line, (LONG)compactError, (LONG)space, elapsed);
            vl_memorySnapshot("heap compact]");
            block = HeapAlloc(gs_hProcessHeap, flags, size);
            if (block == NULL) error = GetLastError();
        }
    } else {
        VLLOG(LOG_ERROR, TEXT("%hs(): Can't call HeapAlloc() because gs_hProcessHeap == NULL\n"), fn);
    }

    if (block == NULL) {
        if (shared == NULL) {
            VLLOG(LOG_ERROR, TEXT("%hs(%hs, %d): HeapAlloc(%d) failed, error %ld\n"), fn, source, line, bytes,
                  (LONG)error);
            return NULL;
        }
        VLLOG(LOG_WARNING, TEXT("%hs(%hs, %d): HeapAlloc(%d) failed, error %ld, trying again...\n"), fn, source, line,
              bytes, (LONG)error);
        bAvoidCompact = TRUE;
        gs_dwAvoidCompactAvailVirtual = os_availVirtual();
        VLLOG(LOG_WARNING, TEXT("%hs(): Set bAvoidCompact flag\n"), fn);
        block = os_sharedAlloc(shared, size, flags);
        if (block == NULL) {
            VLLOG(LOG_ERROR, TEXT("%hs(%hs, %d): Failed to allocate (0x%x) bytes in shared memory heap\n"), fn,
                  source, line, bytes);
            bAvoidCompact = FALSE;
            return NULL;
        }
    }
    return os_served(block, size);
}

/* -------------------------------------------------------------------------------- os_freeLocal */

void os_freeLocal(void *block) {
    if (block == NULL || gs_bProcessEnding) return;
    SharedMemHeap *shared = gs_pSharedMemHeap;
    if (shared != NULL) {
        shared->lock();
        BOOL owned = shared->owns(block);
        BOOL released = owned && shared->free(block);
        shared->unlock();
        if (owned) {
            if (released)
                InterlockedDecrement(&gs_current);
            else
                VLLOG(LOG_ERROR, TEXT("os_freeLocal(0x%x): not a block of the shared memory heap\n"),
                      TARSK_HANDLE_TEXT(block));
            return;
        }
    }
    if (gs_hProcessHeap == NULL || !HeapFree(gs_hProcessHeap, 0, block)) {
        VLLOG(LOG_ERROR, TEXT("os_freeLocal(0x%x): HeapFree() failed, error %d\n"), TARSK_HANDLE_TEXT(block),
              gs_hProcessHeap == NULL ? (DWORD)ERROR_INVALID_HANDLE : GetLastError());
        return;
    }
    InterlockedDecrement(&gs_current);
}

/* ----------------------------------------------------------------------- statistics, switches */

void os_getAllocStats(OSAllocStats *stats) {
    if (stats == NULL) return;
    stats->dwAllocations = (DWORD)gs_allocations;
    stats->dwCurrent = (DWORD)gs_current;
    stats->dwHighMark = gs_dwHighMark;
    stats->dwLowMark = gs_dwLowMark;
    stats->ullSum = gs_ullSum;
}

void os_setMemorySnapshotInterval(DWORD interval) {
    gs_dwSnapshotInterval = interval;
    gs_dwSnapshotCounter = 0;
}

void os_getSharedMemHeapFigures(DWORD *size, DWORD *freeBytes, DWORD *usePercent) {
    DWORD s = 0, f = 0, u = 0;
    SharedMemHeap *shared = gs_pSharedMemHeap;
    if (shared != NULL) {
        shared->lock();
        s = shared->getSize();
        f = shared->getFree();
        u = shared->getUsePercent();
        shared->unlock();
    }
    if (size != NULL) *size = s;
    if (freeBytes != NULL) *freeBytes = f;
    if (usePercent != NULL) *usePercent = u;
}

/* ------------------------------------------------------------------------ sys_getMemorySettings */

/* getInt leaves the target alone when the key is missing, so the device settings' own value stays. */
static bool sys_readSetting(CIniFile &ini, const char *key, LONG *field) {
    int value = (int)*field;
    if (!ini.getInt(OS_SETTINGS_SECTION, key, &value)) return false;
    *field = (LONG)value;
    return true;
}

void sys_getMemorySettings(void) {
    static const char *const fn = "sys_getMemorySettings";
    velmar::CDeviceSettings *ds = velmar::getDeviceSettings();
    CIniFile ini;
    if (OpenDebugIniFile(&ini)) {
        if (sys_readSetting(ini, "MapCacheSizeMax", &ds->m_nMapCacheSizeMax))
            VLLOG(LOG_DEBUG, TEXT("%hs(): MapCacheSizeMax = %d, read from debug.ini\n"), fn, ds->m_nMapCacheSizeMax);
        if (sys_readSetting(ini, "MapCacheSizeMin", &ds->m_nMapCacheSizeMin))
            VLLOG(LOG_DEBUG, TEXT("%hs(): MapCacheSizeMin = %d, read from debug.ini\n"), fn, ds->m_nMapCacheSizeMin);
        if (sys_readSetting(ini, "MinStoragePage", &ds->m_nMinStoragePage))
            VLLOG(LOG_DEBUG, TEXT("%hs(): MinStoragePage = %d, read from debug.ini\n"), fn, ds->m_nMinStoragePage);
        if (sys_readSetting(ini, "BigMallocBound", &ds->m_nBigMallocBound))
            VLLOG(LOG_DEBUG, TEXT("%hs(): BigMallocBound = %d, read from debug.ini\n"), fn, ds->m_nBigMallocBound);
        ini.close();
    }
    /* A zero keeps the default. */
    if (ds->m_nMapCacheSizeMax != 0) {
        g_osMemorySettings.dwMapCacheSizeMax = (DWORD)ds->m_nMapCacheSizeMax;
        VLLOG(LOG_DEBUG, TEXT("%hs(): MapCacheSizeMax = %d\n"), fn, ds->m_nMapCacheSizeMax);
    }
    if (ds->m_nMapCacheSizeMin != 0) {
        g_osMemorySettings.dwMapCacheSizeMin = (DWORD)ds->m_nMapCacheSizeMin;
        VLLOG(LOG_DEBUG, TEXT("%hs(): MapCacheSizeMin = %d\n"), fn, ds->m_nMapCacheSizeMin);
    }
    if (ds->m_nMinStoragePage != 0) {
        g_osMemorySettings.dwMinStoragePage = (DWORD)ds->m_nMinStoragePage;
        VLLOG(LOG_DEBUG, TEXT("%hs(): MinStoragePage = %d\n"), fn, ds->m_nMinStoragePage);
    }
    if (ds->m_nBigMallocBound != 0) {
        g_osMemorySettings.dwBigMallocBound = (DWORD)ds->m_nBigMallocBound;
        VLLOG(LOG_DEBUG, TEXT("%hs(): BigMallocBound = %d\n"), fn, ds->m_nBigMallocBound);
    }
}

/* ------------------------------------------------------------------------------ memory division */

typedef BOOL (*PFN_GET_SYSTEM_MEMORY_DIVISION)(LPDWORD lpdwStorePages, LPDWORD lpdwRamPages, LPDWORD lpdwPageSize);
typedef DWORD (*PFN_SET_SYSTEM_MEMORY_DIVISION)(DWORD dwStorePages);

/* Both are looked up in coredll.dll at each call, so that the program runs on kernels without them.
 * (The entry is converted through a function without arguments, which keeps the conversion plain.) */
BOOL GetMemoryDivision(DWORD *storagePages, DWORD *ramPages, DWORD *pageSize) {
    DWORD store = 0, ram = 0, page = 0;
    BOOL ok = FALSE;
    HMODULE coredll = LoadLibraryW(TEXT("coredll.dll"));
    if (coredll != NULL) {
        PFN_GET_SYSTEM_MEMORY_DIVISION get =
            (PFN_GET_SYSTEM_MEMORY_DIVISION)(void (*)(void))GetProcAddressW(coredll, TEXT("GetSystemMemoryDivision"));
        if (get != NULL && !get(&store, &ram, &page)) store = ram = page = 0;
        else if (get != NULL) ok = TRUE;
        FreeLibrary(coredll);
    }
    if (storagePages != NULL) *storagePages = store;
    if (ramPages != NULL) *ramPages = ram;
    if (pageSize != NULL) *pageSize = page;
    return ok;
}

DWORD SetMemoryDivision(DWORD storagePages) {
    DWORD answer = 3;
    DWORD error = 0;
    HMODULE coredll = LoadLibraryW(TEXT("coredll.dll"));
    if (coredll == NULL) {
        error = GetLastError();
    } else {
        PFN_SET_SYSTEM_MEMORY_DIVISION set =
            (PFN_SET_SYSTEM_MEMORY_DIVISION)(void (*)(void))GetProcAddressW(coredll, TEXT("SetSystemMemoryDivision"));
        if (set == NULL) {
            error = GetLastError();
        } else {
            answer = set(storagePages);
            error = GetLastError();
        }
        FreeLibrary(coredll);
    }
    switch (answer) {
    case 0:
        vl_printA("SetMemoryDivision(%d): SetSystemMemoryDivision - memory division was changed successfully\n",
                  storagePages);
        break;
    case 1:
        vl_printA("SetMemoryDivision(%d): SetSystemMemoryDivision - need reboot to accept memory division changes\n",
                  storagePages);
        break;
    case 2:
        vl_printA("SetMemoryDivision(%d): SetSystemMemoryDivision - cannot change memory division because the system "
                  "should be rebooted after the previous call before\n",
                  storagePages);
        break;
    default:   /* 3, and any answer a kernel should not give */
        vl_printA("SetMemoryDivision(%d): SetSystemMemoryDivision - changes failed, error %d\n", storagePages, error);
        break;
    }
    SetLastError(error);
    return answer;
}

static DWORD os_percent(DWORD part, DWORD total) {
    return total == 0 ? 0 : (DWORD)((ULONGLONG)part * 100 / total);
}

int SetBestMemoryDivision(LONG firstStoragePages, LONG lastStoragePages, LONG step) {
    if (step <= 0) step = 1;
    for (LONGLONG pages = firstStoragePages; pages <= lastStoragePages; pages += step) {
        DWORD request = (DWORD)pages;
        SetMemoryDivision(request);
        DWORD error = GetLastError();
        DWORD store = 0, ram = 0;
        GetMemoryDivision(&store, &ram, NULL);
        DWORD total = store + ram;
        vl_printA("SetBestMemoryDivision: Storage Pages = %d / %d (%d%%)\n", store, total, os_percent(store, total));
        vl_printA("SetBestMemoryDivision: Ram Pages = %d / %d (%d%%)\n", ram, total, os_percent(ram, total));
        if (store == request) {
            vl_printA("SetBestMemoryDivision: SetMemoryDivision(%d) okay\n", request);
            return 1;
        }
        vl_printA("SetBestMemoryDivision: SetMemoryDivision(%d) failed, error %d\n", request, error);
    }
    return 0;
}

/* ------------------------------------------------------------------------- wince_organiseMemory */

static BOOL gs_bOrganiseMemory = TRUE;
static BOOL gs_bMemoryOrganised = FALSE;
static LONG gs_nMapCacheSize = 0;

void wince_setOrganiseMemory(BOOL on) { gs_bOrganiseMemory = on ? TRUE : FALSE; }
BOOL wince_isMemoryOrganised(void) { return gs_bMemoryOrganised; }
LONG wince_getMapCacheSize(void) { return gs_nMapCacheSize; }

/* One line of figures: bytes, pages and megabytes. */
static void wince_printFigure(const char *name, DWORD bytes) {
    vl_printA("wince_organiseMemory(): %-14hs = %10u bytes, %6u pages, %6.2f MB\n", name, bytes, bytes / OS_PAGE_SIZE,
              bytes * (1.0 / 1048576));
}

/* The product is negative: its conversion wraps (the value modulo 2^32, as a 32-bit conversion
 * through a signed integer does), which makes the result 512 KB plus the scaled size. A saturating
 * conversion would give 0 and so always 512 KB. */
static DWORD wince_minimumStorage(DWORD used) {
    double product = (double)(DWORD)(used + 0x8000) * -1.0040160642570282;
    DWORD wrapped = (DWORD)(ULONGLONG)(LONGLONG)product;
    return 0x80000 - wrapped;
}

void wince_organiseMemory(DWORD mapCacheSizeMax, DWORD mapCacheSizeMin, DWORD minStoragePages) {
    static const char *const fn = "wince_organiseMemory";
    (void)mapCacheSizeMin;

    /* The mutex is never closed: its name marks for the rest of the boot that memory was organised. */
    SetLastError(ERROR_SUCCESS);
    HANDLE mutex = CreateMutexW(NULL, TRUE, TEXT("wince_organiseMemory"));
    DWORD error = GetLastError();
    if (mutex != NULL && error != ERROR_ALREADY_EXISTS) ReleaseMutex(mutex);
    if (error == ERROR_ALREADY_EXISTS || error == ERROR_ACCESS_DENIED) {
        VLLOG(LOG_DEBUG, TEXT("%hs(): Not reorganising memory because someone else has already done it (0x%x)\n"), fn,
              error);
        return;
    }
    if (gs_bMemoryOrganised || !gs_bOrganiseMemory) return;

    vl_printA("wince_organiseMemory(): Dumping memory stats before reorganising memory:\n");
    STORE_INFORMATION store;
    memset(&store, 0, sizeof(store));
    DWORD used = 0x6000;   /* six pages of margin */
    if (GetStoreInformation(&store)) used = store.dwStoreSize - store.dwFreeSize + 0x6000;
    wince_printFigure("Store Size", store.dwStoreSize);
    wince_printFigure("Store Free", store.dwFreeSize);

    DWORD minStorage = wince_minimumStorage(used);

    MEMORYSTATUS ms;
    memset(&ms, 0, sizeof(ms));
    ms.dwLength = sizeof(ms);
    GlobalMemoryStatus(&ms);
    DWORD usedPhys = (DWORD)(ms.dwTotalPhys - ms.dwAvailPhys);
    DWORD usedVirt = (DWORD)(ms.dwTotalVirtual - ms.dwAvailVirtual);
    DWORD minRam = usedPhys + 0x1000;
    wince_printFigure("Total Phys", (DWORD)ms.dwTotalPhys);
    wince_printFigure("Avail Phys", (DWORD)ms.dwAvailPhys);
    wince_printFigure("Total Virtual", (DWORD)ms.dwTotalVirtual);
    wince_printFigure("Avail Virtual", (DWORD)ms.dwAvailVirtual);
    wince_printFigure("Used Phys", usedPhys);
    wince_printFigure("Used Virtual", usedVirt);
    wince_printFigure("Min RAM", minRam);

    DWORD storePages = 0, ramPages = 0;
    GetMemoryDivision(&storePages, &ramPages, NULL);
    DWORD totalPages = storePages + ramPages;
    vl_printA("wince_organiseMemory(): Storage Pages = %d / %d (%d%%)\n", storePages, totalPages,
              os_percent(storePages, totalPages));
    vl_printA("wince_organiseMemory(): Ram Pages = %d / %d (%d%%)\n", ramPages, totalPages,
              os_percent(ramPages, totalPages));

    /* Signed, so that a division that could not be read (0 pages) asks for nothing. */
    SetBestMemoryDivision((LONG)(minStorage / OS_PAGE_SIZE), (LONG)totalPages - (LONG)(minRam / OS_PAGE_SIZE), 1);

    gs_bMemoryOrganised = TRUE;
    gs_nMapCacheSize = (LONG)(mapCacheSizeMax + (minStoragePages - used / OS_PAGE_SIZE) * OS_PAGE_SIZE);
}
