/*
 * The framework's allocator and the memory organisation.
 *
 * Every allocation of the framework classes goes through os_mallocLocal with the caller's source
 * file and line. On its first use it reads the memory settings (section "Waylume_CE" of debug.ini,
 * over the device settings) and, once per device boot, divides the RAM between the object store and
 * program memory. Blocks come from a private process heap; large requests, and every request while
 * the process heap is failing, go to the shared memory heap when the device settings enable it.
 *
 * Two switches are set by the program, not read from a file: the snapshot interval (0, the default,
 * takes no snapshots; n takes a memory snapshot every n + 1 allocations) and the organising switch
 * (on by default; off makes wince_organiseMemory return before it prints or changes anything).
 */
#ifndef TARSK_PLATFORM_PLAT_ALLOC_H
#define TARSK_PLATFORM_PLAT_ALLOC_H

#include "sal/winapi.h"

/* A block of size bytes or NULL. flags: HEAP_ZERO_MEMORY zeroes the block. */
void *os_mallocLocal(size_t size, DWORD flags, const char *source, int line);
/* Gives a block back to the heap it came from; NULL is ignored. */
void os_freeLocal(void *block);

#define os_malloc(size) os_mallocLocal((size), 0, __FILE__, __LINE__)
#define os_free(block) os_freeLocal(block)

/* The process-wide memory settings, with their defaults. A value of the device settings (from
 * device_settings.ini, or from debug.ini over it) is taken over only when it is non-zero. */
struct OSMemorySettings {
    DWORD dwMapCacheSizeMax;    /* "MapCacheSizeMax", 0x1100000 */
    DWORD dwMapCacheSizeMin;    /* "MapCacheSizeMin", 0x800000 */
    DWORD dwMinStoragePage;     /* "MinStoragePage", 900 */
    DWORD dwBigMallocBound;     /* "BigMallocBound", 0x200000: requests of this size go to the shared
                                 * heap; 0 makes no private heap (every request then needs the shared
                                 * heap) */
};
extern OSMemorySettings g_osMemorySettings;

/* The allocation statistics: successful allocations, blocks held now, the largest and smallest
 * request served, and the sum of the sizes served. */
struct OSAllocStats {
    DWORD dwAllocations;
    DWORD dwCurrent;
    DWORD dwHighMark;
    DWORD dwLowMark;
    ULONGLONG ullSum;
};
void os_getAllocStats(OSAllocStats *stats);

/* The switches (see above). */
void os_setMemorySnapshotInterval(DWORD interval);
void wince_setOrganiseMemory(BOOL on);

/* The shared memory heap's figures for the memory snapshot (all 0 while it does not exist). */
void os_getSharedMemHeapFigures(DWORD *size, DWORD *freeBytes, DWORD *usePercent);

/* Reads MapCacheSizeMax, MapCacheSizeMin, MinStoragePage and BigMallocBound. */
void sys_getMemorySettings(void);

/* Divides the RAM so that the object store keeps just enough room for what it holds; once per
 * boot (a named mutex marks it) and once per process. */
void wince_organiseMemory(DWORD mapCacheSizeMax, DWORD mapCacheSizeMin, DWORD minStoragePages);
/* Whether this process organised the memory, and the resulting map-cache (image cache) size. */
BOOL wince_isMemoryOrganised(void);
LONG wince_getMapCacheSize(void);

/* Asks for storage page counts from first to last in steps until the kernel takes one.
 * 1 when a division was accepted, 0 otherwise. */
int SetBestMemoryDivision(LONG firstStoragePages, LONG lastStoragePages, LONG step);
/* One request: the kernel's answer 0 (changed), 1 (needs a reboot), 2 (reboot pending) or 3
 * (failed; also when coredll.dll has no SetSystemMemoryDivision), each printed. */
DWORD SetMemoryDivision(DWORD storagePages);
/* The current division; FALSE (and zeros) when it cannot be read. */
BOOL GetMemoryDivision(DWORD *storagePages, DWORD *ramPages, DWORD *pageSize);

#endif
