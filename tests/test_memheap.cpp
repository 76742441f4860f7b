// SharedMemHeap: partition sizes and order, first fit, release with joining, statistics and bad
// releases. (A refused partition is tested through the allocator, test_plat_alloc.)
#include "platform/memheap.h"
#include <gtest/gtest.h>
#include <cstdlib>
#include <vector>

namespace {
std::vector<DWORD> g_asked;   // partition sizes asked for
int g_held = 0;               // partitions held now
void *partitionAlloc(DWORD size) {
    g_asked.push_back(size);
    return ++g_held, std::malloc(size);
}
void partitionFree(void *p) { --g_held, std::free(p); }
}  // namespace

TEST(SharedMemHeap, PartitionIsRequestPlusHeaderRoundedToGrowth) {
    struct Row { DWORD request, growth, partition; } rows[] = {
        {0, 0x1000, 0x1000}, {0x1000 - 72, 0x1000, 0x1000}, {0x1000 - 71, 0x1000, 0x2000},
        {0x200000, 0x10000, 0x210000}, {100, 5, 176},   // a growth of 5 counts as 8
    };
    for (const Row &r : rows) {
        g_asked.clear();
        SharedMemHeap heap(partitionAlloc, partitionFree, r.growth);
        void *p = heap.alloc(r.request);
        ASSERT_NE(nullptr, p) << r.request;
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(p) % 8);
        EXPECT_EQ(std::vector<DWORD>{r.partition}, g_asked) << r.request;
        EXPECT_TRUE(heap.free(p));
        EXPECT_EQ(0, g_held) << "a wholly free partition goes back";
    }
}

TEST(SharedMemHeap, SmallestPartitionWithRoomServesFirst) {
    SharedMemHeap heap(partitionAlloc, partitionFree, 0x1000);
    BYTE *big = (BYTE *)heap.alloc(0x2F00);   // a partition of 0x3000, 0xB8 bytes left
    BYTE *mid = (BYTE *)heap.alloc(0x800);    // does not fit there: a partition of 0x1000
    BYTE *small = (BYTE *)heap.alloc(0x10);   // fits both: the smaller partition comes first
    ASSERT_TRUE(big && mid && small);
    EXPECT_EQ(2u, heap.getPartitionCount());
    EXPECT_EQ(mid + 0x808, small);
}

TEST(SharedMemHeap, ReleaseJoinsNeighboursAndKeepsStatistics) {
    SharedMemHeap heap(partitionAlloc, partitionFree, 0x1000);
    BYTE *a = (BYTE *)heap.alloc(0x100), *b = (BYTE *)heap.alloc(0x100), *c = (BYTE *)heap.alloc(0x100);
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(a + 0x108, b);
    const DWORD freeNow = 0x1000 - 64 - 3 * 0x108;
    EXPECT_EQ(freeNow, heap.getFree());
    EXPECT_EQ(100 - freeNow * 100 / 0x1000, heap.getUsePercent());
    EXPECT_TRUE(heap.free(a) && heap.free(b));
    EXPECT_EQ(a, heap.alloc(0x200)) << "a and b joined into one block";
    EXPECT_TRUE(heap.free(a));
    int outside = 0;   // bad releases change nothing
    for (void *bad : {(void *)nullptr, (void *)&outside, (void *)a, (void *)(c + 8), (void *)(c - 72)})
        EXPECT_FALSE(heap.free(bad));
    EXPECT_EQ(freeNow + 2 * 0x108, heap.getFree());
    EXPECT_TRUE(heap.free(c));
    EXPECT_EQ(0u, heap.getSize() + heap.getUsePercent());
    EXPECT_EQ(0, g_held);
}
