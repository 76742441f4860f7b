/*
 * The shared memory heap: partitions from an allocation function, first-fit blocks inside them.
 *
 * Partition layout (offsets from the partition's start):
 *   0   the partition's fields (struct Partition), padded to 64 bytes
 *   64  the header of the first block; so the first payload starts 72 bytes in
 *   ... blocks end to end up to the partition's size
 * A block is an 8-byte header (its size, header included, a multiple of 8; its tag) followed by its
 * payload; a free block keeps the pointer to the next free block of its partition in its payload.
 */
#include "platform/memheap.h"

#include "platform/platform.h"

#include <string.h>

#define SMH_TAG_USED 0x55534544u   /* "USED" */
#define SMH_TAG_FREE 0x46524545u   /* "FREE" */
#define SMH_BLOCK_HEADER_SIZE 8
#define SMH_FIRST_BLOCK_OFFSET (SMH_PARTITION_HEADER_SIZE - SMH_BLOCK_HEADER_SIZE)
#define SMH_MIN_BLOCK_SIZE 16      /* a header and room for the free-list link */
/* Above this a request cannot be given a partition whose size still fits in 32 bits. */
#define SMH_MAX_REQUEST 0xF0000000u

struct SharedMemHeap::Block {
    DWORD dwSize;
    DWORD dwTag;
};

struct SharedMemHeap::Partition {
    Partition *pNext;       /* next partition by ascending size */
    DWORD dwSize;           /* the whole partition */
    DWORD dwFree;           /* bytes in its free list */
    Block *pFreeList;       /* free blocks by ascending address */
};

/* The partition's fields must leave room for the first block's header within the 72 bytes. */
typedef char smh_partition_fits[(sizeof(SharedMemHeap::Partition) <= SMH_FIRST_BLOCK_OFFSET) ? 1 : -1];

static inline BYTE *smh_bytes(const void *p) { return (BYTE *)p; }

static inline SharedMemHeap::Block *&smh_next(SharedMemHeap::Block *block) {
    return *(SharedMemHeap::Block **)(smh_bytes(block) + SMH_BLOCK_HEADER_SIZE);
}

static inline DWORD smh_round(ULONGLONG value, DWORD step, bool *fits) {
    ULONGLONG rounded = (value + step - 1) / step * step;
    *fits = rounded <= 0xFFFFFFFFu;
    return (DWORD)rounded;
}

SharedMemHeap::SharedMemHeap(PFN_ALLOC pfnAlloc, PFN_FREE pfnFree, DWORD growth)
    : m_pfnAlloc(pfnAlloc), m_pfnFree(pfnFree), m_dwGrowth(0), m_pPartitions(NULL) {
    bool fits = true;
    m_dwGrowth = growth < 8 ? 8 : smh_round(growth, 8, &fits);
    if (!fits) m_dwGrowth = SMH_DEFAULT_GROWTH;
    InitializeCriticalSection(&m_lock);
}

SharedMemHeap::~SharedMemHeap() {
    while (m_pPartitions != NULL) releasePartition(m_pPartitions);
    DeleteCriticalSection(&m_lock);
}

void SharedMemHeap::lock() { EnterCriticalSection(&m_lock); }
void SharedMemHeap::unlock() { LeaveCriticalSection(&m_lock); }

SharedMemHeap::Partition *SharedMemHeap::allocPartition(DWORD size) {
    bool fits = false;
    DWORD partitionSize = 0;
    if (size <= SMH_MAX_REQUEST)
        partitionSize = smh_round((ULONGLONG)(size < 8 ? 8 : size) + SMH_PARTITION_HEADER_SIZE, m_dwGrowth, &fits);
    void *memory = (fits && m_pfnAlloc != NULL) ? m_pfnAlloc(partitionSize) : NULL;
    if (memory == NULL) {
        vl_printA("allocSharedMemHeapPartition(allocator, 0x%x, 0x%x): failed to allocate requested memory.\n",
                  size, partitionSize);
        return NULL;
    }
    Partition *partition = (Partition *)memory;
    partition->pNext = NULL;
    partition->dwSize = partitionSize;
    Block *first = (Block *)(smh_bytes(memory) + SMH_FIRST_BLOCK_OFFSET);
    first->dwSize = partitionSize - SMH_FIRST_BLOCK_OFFSET;
    first->dwTag = SMH_TAG_FREE;
    smh_next(first) = NULL;
    partition->pFreeList = first;
    partition->dwFree = first->dwSize;
    return partition;
}

void SharedMemHeap::insertPartition(Partition *partition) {
    Partition **link = &m_pPartitions;
    while (*link != NULL && (*link)->dwSize <= partition->dwSize) link = &(*link)->pNext;
    partition->pNext = *link;
    *link = partition;
}

void SharedMemHeap::releasePartition(Partition *partition) {
    for (Partition **link = &m_pPartitions; *link != NULL; link = &(*link)->pNext) {
        if (*link == partition) {
            *link = partition->pNext;
            if (m_pfnFree != NULL) m_pfnFree(partition);
            return;
        }
    }
}

SharedMemHeap::Partition *SharedMemHeap::partitionOf(const void *address) const {
    const BYTE *p = smh_bytes(address);
    for (Partition *partition = m_pPartitions; partition != NULL; partition = partition->pNext) {
        const BYTE *start = smh_bytes(partition);
        if (p >= start && p < start + partition->dwSize) return partition;
    }
    return NULL;
}

void *SharedMemHeap::alloc(DWORD size) {
    if (size > SMH_MAX_REQUEST) {
        allocPartition(size);   /* reports the request */
        return NULL;
    }
    bool fits = true;
    DWORD need = smh_round(size, 8, &fits) + SMH_BLOCK_HEADER_SIZE;
    if (need < SMH_MIN_BLOCK_SIZE) need = SMH_MIN_BLOCK_SIZE;

    for (int attempt = 0; attempt < 2; ++attempt) {
        for (Partition *partition = m_pPartitions; partition != NULL; partition = partition->pNext) {
            if (partition->dwFree < need) continue;
            for (Block **link = &partition->pFreeList; *link != NULL; link = &smh_next(*link)) {
                Block *block = *link;
                if (block->dwSize < need) continue;
                DWORD rest = block->dwSize - need;
                if (rest >= SMH_MIN_BLOCK_SIZE) {
                    Block *remainder = (Block *)(smh_bytes(block) + need);
                    remainder->dwSize = rest;
                    remainder->dwTag = SMH_TAG_FREE;
                    smh_next(remainder) = smh_next(block);
                    *link = remainder;
                    block->dwSize = need;
                } else {
                    *link = smh_next(block);
                }
                block->dwTag = SMH_TAG_USED;
                partition->dwFree -= block->dwSize;
                return smh_bytes(block) + SMH_BLOCK_HEADER_SIZE;
            }
        }
        if (attempt == 0) {
            Partition *partition = allocPartition(size);
            if (partition == NULL) return NULL;
            insertPartition(partition);
        }
    }
    return NULL;   /* not reached: a new partition always holds the request */
}

BOOL SharedMemHeap::free(void *address) {
    if (address == NULL) return FALSE;
    Partition *partition = partitionOf(address);
    if (partition == NULL) return FALSE;
    BYTE *start = smh_bytes(partition);
    BYTE *end = start + partition->dwSize;
    BYTE *p = smh_bytes(address);
    if (p < start + SMH_PARTITION_HEADER_SIZE || (p - (start + SMH_PARTITION_HEADER_SIZE)) % 8 != 0) return FALSE;
    Block *block = (Block *)(p - SMH_BLOCK_HEADER_SIZE);
    DWORD size = block->dwSize;
    if (block->dwTag != SMH_TAG_USED || size < SMH_MIN_BLOCK_SIZE || size % 8 != 0 ||
        size > (DWORD)(end - smh_bytes(block)))
        return FALSE;

    /* Into the free list by address, joined with the free blocks right before and after it. */
    Block *previous = NULL;
    Block *next = partition->pFreeList;
    while (next != NULL && next < block) {
        previous = next;
        next = smh_next(next);
    }
    block->dwTag = SMH_TAG_FREE;
    smh_next(block) = next;
    if (next != NULL && smh_bytes(block) + block->dwSize == smh_bytes(next)) {
        block->dwSize += next->dwSize;
        smh_next(block) = smh_next(next);
        next->dwTag = 0;
    }
    if (previous != NULL && smh_bytes(previous) + previous->dwSize == smh_bytes(block)) {
        previous->dwSize += block->dwSize;
        smh_next(previous) = smh_next(block);
        block->dwTag = 0;
    } else if (previous != NULL) {
        smh_next(previous) = block;
    } else {
        partition->pFreeList = block;
    }
    partition->dwFree += size;

    if (partition->dwFree == partition->dwSize - SMH_FIRST_BLOCK_OFFSET) releasePartition(partition);
    return TRUE;
}

BOOL SharedMemHeap::owns(const void *address) const { return partitionOf(address) != NULL ? TRUE : FALSE; }

DWORD SharedMemHeap::getSize() const {
    DWORD total = 0;
    for (Partition *partition = m_pPartitions; partition != NULL; partition = partition->pNext)
        total += partition->dwSize;
    return total;
}

DWORD SharedMemHeap::getFree() const {
    DWORD total = 0;
    for (Partition *partition = m_pPartitions; partition != NULL; partition = partition->pNext)
        total += partition->dwFree;
    return total;
}

DWORD SharedMemHeap::getUsePercent() const {
    DWORD total = getSize();
    if (total == 0) return 0;
    return 100 - (DWORD)((ULONGLONG)getFree() * 100 / total);
}

DWORD SharedMemHeap::getPartitionCount() const {
    DWORD count = 0;
    for (Partition *partition = m_pPartitions; partition != NULL; partition = partition->pNext) ++count;
    return count;
}
