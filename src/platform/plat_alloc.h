/*
 * The framework's allocator. Every allocation of the framework classes goes through
 * os_mallocLocal with the caller's source file and line.
 */
#ifndef TARSK_PLATFORM_PLAT_ALLOC_H
#define TARSK_PLATFORM_PLAT_ALLOC_H

#include "sal/winapi.h"

void *os_mallocLocal(size_t size, DWORD flags, const char *source, int line);
void os_freeLocal(void *block);

#define os_malloc(size) os_mallocLocal((size), 0, __FILE__, __LINE__)
#define os_free(block) os_freeLocal(block)

#endif
