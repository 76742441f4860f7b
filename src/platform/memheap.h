/*
 * SharedMemHeap: the shared memory heap, a second heap beside the process heap that takes the large
 * requests (and every request while memory is tight), so that the process heap is spared
 * fragmentation.
 *
 * It is a list of partitions, each one block obtained from the allocation function the heap was
 * made with, sized to the request plus a 72-byte header, rounded up in steps of the partition
 * growth size, and kept sorted by size (smallest first). Inside a partition the blocks lie end to
 * end; each has an 8-byte header (its size and a tag) and the free ones are chained in address
 * order. Allocation is first fit over the partitions in size order, splitting a larger free block;
 * a release joins the block with free neighbours, and a partition that is wholly free again goes
 * back to the allocation function's owner.
 *
 * The heap does not lock by itself: callers hold its lock (lock/unlock) around alloc, free and the
 * statistics.
 */
#ifndef TARSK_PLATFORM_MEMHEAP_H
#define TARSK_PLATFORM_MEMHEAP_H

#include "sal/winapi.h"

/* Bytes in front of a partition's first block: the partition's own fields and that block's header. */
#define SMH_PARTITION_HEADER_SIZE 72
/* The growth size the framework's allocator uses. */
#define SMH_DEFAULT_GROWTH 0x10000

class SharedMemHeap {
public:
    /* Where partitions come from and go back to. */
    typedef void *(*PFN_ALLOC)(DWORD size);
    typedef void (*PFN_FREE)(void *block);

    /* growth: partitions are multiples of it (rounded up to 8 bytes; at least 8). */
    SharedMemHeap(PFN_ALLOC pfnAlloc, PFN_FREE pfnFree, DWORD growth);
    /* Gives every partition back. */
    ~SharedMemHeap();

    void lock();
    void unlock();

    /* A block of at least size bytes, 8-byte aligned; NULL when no partition can be had. */
    void *alloc(DWORD size);
    /* Releases a block that alloc gave; FALSE (and nothing changed) for any other address,
     * a block already released included. */
    BOOL free(void *block);
    /* Whether the address lies inside one of the partitions. */
    BOOL owns(const void *address) const;

    /* Statistics: the total of the partition sizes, the free bytes over all free lists (block
     * headers included), and the percentage in use (0 when there is no partition). */
    DWORD getSize() const;
    DWORD getFree() const;
    DWORD getUsePercent() const;
    DWORD getPartitionCount() const;
    DWORD getGrowth() const { return m_dwGrowth; }

    /* The layouts (memheap.cpp). */
    struct Block;
    struct Partition;

private:
    SharedMemHeap(const SharedMemHeap &);
    SharedMemHeap &operator=(const SharedMemHeap &);

    Partition *allocPartition(DWORD size);
    void insertPartition(Partition *partition);
    void releasePartition(Partition *partition);
    Partition *partitionOf(const void *address) const;

    PFN_ALLOC m_pfnAlloc;
    PFN_FREE m_pfnFree;
    DWORD m_dwGrowth;
    Partition *m_pPartitions;      /* by ascending size */
    CRITICAL_SECTION m_lock;
};

#endif /* TARSK_PLATFORM_MEMHEAP_H */
