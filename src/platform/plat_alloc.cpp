/*
 * The framework's allocator.
 *
 * For now the blocks come from the process's local heap (LocalAlloc). The memory organisation (the private and
 * shared heaps, the memory settings of debug.ini, the division of RAM and the allocation
 * statistics) arrives later; callers already pass their source file and line for it.
 */
#include "platform/plat_alloc.h"

void *os_mallocLocal(size_t size, DWORD flags, const char *source, int line) {
    (void)flags;
    (void)source;
    (void)line;
    return (void *)LocalAlloc(LMEM_FIXED, size != 0 ? size : 1);
}

void os_freeLocal(void *block) {
    if (block != NULL) LocalFree((HLOCAL)block);
}
