// os_mallocLocal's paths, the memory settings, the division of RAM and the memory snapshot on
// simulated devices. Each test has its own process: each starts before the allocator's first call.
#include "platform/plat_alloc.h"
#include "platform/platform.h"
#include "test_device.h"
#include <gtest/gtest.h>
#include <sstream>

using namespace testing_support;

namespace {

// The log at DEBUG and device settings (without them each allocation would try to read them
// again), with the shared memory heap when asked.
struct Dev {
    TestDevice td;
    explicit Dev(const std::string &profile = "", bool shared = false) : td(profile) {
        g_vlLogSettings.level = LOG_DEBUG;
        td.put(kDeviceSettingsFile, shared ? "[Default]\r\nSharedMemHeap=TRUE\r\n" : "[Default]\r\n");
    }
    unsigned calls(const char *name) { return td.dev().callCount(name); }
};

DWORD sharedSize() {
    DWORD size = 0;
    return os_getSharedMemHeapFigures(&size, nullptr, nullptr), size;
}

// Each text appears in the log since the mark, in this order.
void expectInOrder(const LogMark &mark, const std::vector<std::string> &texts) {
    std::string log = mark.since();
    size_t at = 0;
    for (const std::string &t : texts) ASSERT_NE(std::string::npos, at = log.find(t, at)) << t << "\n" << log;
}

struct PathCase {
    const char *name, *profile;
    bool shared, noPrivateHeap;   // noPrivateHeap: the program set the big allocation bound to 0
    DWORD size, served, sharedAfter;   // sharedAfter: the shared heap's size after one small request more
    std::vector<std::string> logs;
};
void PrintTo(const PathCase &c, std::ostream *os) { *os << c.name; }

const PathCase kPaths[] = {
    {"BigToShared", "", true, false, 0x200000, true, 0x210000, {}},
    {"BelowBoundToPrivate", "", true, false, 0x1FFFFF, true, 0, {}},
    {"CompactAndRetry", "[memory]\nheap_fragmented = 65536\n", false, false, 0x20000, true, 0,
     {"heap compact[", "os_mallocLocal(tests/test_plat_alloc.cpp, ", "): HeapCompact(), space=", "heap compact]"}},
    {"CompactFails", "[memory]\nheap_fragmented = 65536\n[fail]\nHeapCompact = 5\n", false, false, 0x20000, false, 0,
     {"HeapCompact() failed: error=5, space=0, time=0", "heap compact]", "): HeapAlloc(131072) failed, error 8\r\n"}},
    {"NoPrivateHeap", "", false, true, 16, false, 0,
     {"os_mallocLocal(): Can't call HeapAlloc() because gs_hProcessHeap == NULL", "HeapAlloc(16) failed, error 6\r\n"}},
    {"NoPrivateHeapShared", "", true, true, 16, true, 0x10000, {}},
    {"HeapCreateFails", "[fail]\nHeapCreate = 8\n", false, false, 16, false, 0,
     {"os_mallocLocal(): HeapCreate() failed, error 8"}},
    {"SharedFailsPrivateServes", "[memory]\nheap_limit = 0x208000\n", true, false, 0x200000, true, 0,
     {"allocSharedMemHeapPartition(allocator, 0x200000, 0x210000): failed", "): pSharedMemHeap->alloc(2097152) failed"}},
    {"BothHeapsFail", "[memory]\nheap_limit = 0x100000\n", true, false, 0x180000, false, 0,
     {"HeapCompact(), space=", "HeapAlloc(1572864) failed, error 8, trying again...",
      "os_mallocLocal(): Set bAvoidCompact flag", "allocSharedMemHeapPartition(allocator, 0x180000, 0x190000)",
      "Failed to allocate (0x180000) bytes in shared memory heap"}},
};

class AllocatorPath : public ::testing::TestWithParam<PathCase> {};

}  // namespace

TEST_P(AllocatorPath, ServesOrFailsAsTheRulesSay) {
    const PathCase &c = GetParam();
    if (c.noPrivateHeap) g_osMemorySettings.dwBigMallocBound = 0;
    Dev d(c.profile, c.shared);
    os_free(os_malloc(16));   // the first call's set-up
    LogMark mark;
    void *block = os_malloc(c.size);
    EXPECT_EQ(c.served != 0, block != nullptr);
    expectInOrder(mark, c.logs);
    // The private heap serves a small request (no avoid-compact flag is left), else the partition.
    void *small = os_malloc(16);
    EXPECT_EQ(c.sharedAfter, sharedSize());
    os_free(small);
    os_free(block);
    EXPECT_EQ(0u, sharedSize()) << "a partition wholly free goes back";
}

INSTANTIATE_TEST_SUITE_P(Rules, AllocatorPath, ::testing::ValuesIn(kPaths),
                         [](const ::testing::TestParamInfo<PathCase> &i) { return std::string(i.param.name); });

TEST(Allocator, AvoidCompactFlagHoldsUntilVirtualMemoryMoves) {
    Dev d("", true);
    void *big = os_malloc(0x200000), *priv = os_malloc(0x100);   // a shared partition with room left
    d.td.dev().setFailure("HeapAlloc", ERROR_NOT_ENOUGH_MEMORY);
    LogMark mark;
    void *a = os_malloc(0x100);   // the private heap fails twice: the shared heap serves
    unsigned calls = d.calls("HeapAlloc");
    void *b = os_malloc(0x100);   // nothing moved: straight to the shared heap
    ASSERT_TRUE(a && b);
    EXPECT_EQ(calls, d.calls("HeapAlloc"));
    expectInOrder(mark, {"HeapAlloc(256) failed, error 8, trying again...", "os_mallocLocal(): Set bAvoidCompact flag"});
    EXPECT_FALSE(mark.has("Cleared"));
    d.td.dev().setFailure("HeapAlloc", std::nullopt);
    os_free(priv);   // the private heap shrinks
    LogMark later;
    void *c = os_malloc(0x100);
    EXPECT_TRUE(later.has("os_mallocLocal(): Cleared bAvoidCompact flag\r\n"));
    EXPECT_EQ(calls + 1, d.calls("HeapAlloc")) << "served by the private heap again";
    OSAllocStats before, after;
    os_getAllocStats(&before);
    os_free(a);
    os_free(a);   // twice: reported, nothing else
    EXPECT_TRUE(later.has("not a block of the shared memory heap"));
    for (void *p : {b, big, c}) os_free(p);
    os_getAllocStats(&after);
    EXPECT_EQ(before.dwCurrent - 4, after.dwCurrent);
    EXPECT_EQ(0u, sharedSize());
}

TEST(Allocator, SnapshotShowsSharedHeapAndImageCacheAndComesEveryIntervalPlusOne) {
    Dev d("", true);
    void *big = os_malloc(0x200000);
    LogMark mark;
    vl_memorySnapshot("check");
    std::string row = mark.since().substr(mark.since().find("               check, "));
    std::vector<long long> cols;   // from the tick count on
    std::stringstream ss(row.substr(row.find(',') + 1));
    for (std::string cell; cols.size() < 14 && std::getline(ss, cell, ',');) cols.push_back(std::stoll(cell));
    const long long freeBytes = 0x210000 - 64 - 0x200008;   // one block of 0x200000 and its header
    EXPECT_EQ((std::vector<long long>{0x210000, freeBytes, 100 - freeBytes * 100 / 0x210000, 17293312}),
              std::vector<long long>(cols.begin() + 10, cols.end()))
        << "image cache: 17 MB + (900 - 1030 used store pages) * 4096";
    os_free(big);
    os_setMemorySnapshotInterval(2);
    LogMark interval;
    for (int i = 0; i < 6; ++i) os_free(os_malloc(8));
    EXPECT_EQ(2, interval.count("** [Memory status, "));
}

TEST(MemorySettings, DebugIniOverDeviceSettingsAndZeroKeepsTheDefault) {
    Dev d;
    wince_setOrganiseMemory(FALSE);
    d.td.put(kDeviceSettingsFile, "[Default]\r\nMapCacheSizeMin=0x900000\r\nMinStoragePage=1000\r\n");
    d.td.put("\\debug.ini", "[Device]\r\nInternalPath=\\My Flash Disk\r\n"
                            "[Waylume_CE]\r\nMapCacheSizeMax=0x1200000\r\nMapCacheSizeMin=0\r\n");
    LogMark mark;
    os_free(os_malloc(8));
    const OSMemorySettings &s = g_osMemorySettings;
    EXPECT_EQ(0x1200000u, s.dwMapCacheSizeMax);
    EXPECT_EQ(0x800000u, s.dwMapCacheSizeMin) << "debug.ini's 0 replaced the device's value: the default stays";
    EXPECT_EQ(1000u, s.dwMinStoragePage) << "not in debug.ini: the device's value";
    EXPECT_EQ(0x200000u, s.dwBigMallocBound);
    expectInOrder(mark, {"sys_getMemorySettings(): MapCacheSizeMax = 18874368, read from debug.ini\r\n",
                         "sys_getMemorySettings(): MapCacheSizeMin = 0, read from debug.ini\r\n",
                         "sys_getMemorySettings(): MapCacheSizeMax = 18874368\r\n",
                         "sys_getMemorySettings(): MinStoragePage = 1000\r\n"});
    EXPECT_FALSE(mark.has("MapCacheSizeMin = 0\r\n") || mark.has("BigMallocBound"));
    EXPECT_TRUE(d.td.events("memory_division").empty()) << "organising switched off";
}

TEST(OrganiseMemory, FirstAllocationDividesOnceAndSetsTheMapCache) {
    Dev d;
    LogMark mark;
    os_free(os_malloc(8));
    // store 16 MB, 12 MB free: used 0x406000; 0x80000 + (0x406000 + 0x8000) * 250 / 249 = 1170 pages
    ASSERT_EQ(1u, d.td.events("memory_division").size());
    EXPECT_EQ(1170, d.td.events("memory_division")[0]["storage_pages"]);
    expectInOrder(mark, {"wince_organiseMemory(): Storage Pages = 4096 / 15872 (25%)\r\n",
                         "wince_organiseMemory(): Ram Pages = 11776 / 15872 (74%)\r\n",
                         "SetBestMemoryDivision: Storage Pages = 1170 / 15872 (7%)\r\n",
                         "SetBestMemoryDivision: SetMemoryDivision(1170) okay\r\n"});
    EXPECT_TRUE(wince_isMemoryOrganised());
    EXPECT_EQ(17293312, wince_getMapCacheSize());
    LogMark again;   // the process's own mutex now marks the boot as organised
    wince_organiseMemory(0x1100000, 0x800000, 900);
    EXPECT_TRUE(again.has("wince_organiseMemory(): Not reorganising memory because someone else has already done it "
                          "(0xb7)\r\n"));
    EXPECT_EQ(1u, d.td.events("memory_division").size());
}

TEST(OrganiseMemory, AnotherProcessHasDoneIt) {
    Dev d;
    ASSERT_NE(nullptr, CreateMutexW(nullptr, FALSE, TEXT("wince_organiseMemory")));
    LogMark mark;
    os_free(os_malloc(8));
    EXPECT_TRUE(mark.has("Not reorganising memory because someone else has already done it (0xb7)"));
    EXPECT_TRUE(d.td.events("memory_division").empty());
    EXPECT_FALSE(wince_isMemoryOrganised());
    EXPECT_EQ(0, wince_getMapCacheSize());
}

TEST(MemoryDivision, AnswersAreReportedAndTheBestDivisionIsWalked) {
    Dev d("[memory.division]\nset_result = [0, 1, 2, 3, 1, 2, 0, 3]\n");
    struct Row { DWORD pages, answer; const char *text; } rows[] = {
        {1000, 0, "SetMemoryDivision(1000): SetSystemMemoryDivision - memory division was changed successfully\r\n"},
        {1001, 1, "SetMemoryDivision(1001): SetSystemMemoryDivision - need reboot to accept memory division changes\r\n"},
        {1002, 2, "SetMemoryDivision(1002): SetSystemMemoryDivision - cannot change memory division because the system "
                  "should be rebooted after the previous call before\r\n"},
        {1003, 3, "SetMemoryDivision(1003): SetSystemMemoryDivision - changes failed, error 31\r\n"},
    };
    for (const Row &r : rows) {
        LogMark mark;
        EXPECT_EQ(r.answer, SetMemoryDivision(r.pages));
        EXPECT_TRUE(mark.has(r.text)) << mark.since();
    }
    LogMark walk;   // answers 1 and 2 leave the division as it is; 0 takes it
    EXPECT_EQ(1, SetBestMemoryDivision(2000, 2005, 1));
    expectInOrder(walk, {"SetBestMemoryDivision: Storage Pages = 1000 / 15872 (6%)\r\n",
                         "SetBestMemoryDivision: SetMemoryDivision(2000) failed, error ", "SetMemoryDivision(2001) failed",
                         "SetBestMemoryDivision: Storage Pages = 2002 / 15872 (12%)\r\n",
                         "SetBestMemoryDivision: Ram Pages = 13870 / 15872 (87%)\r\n", "SetMemoryDivision(2002) okay"});
    EXPECT_EQ(0, SetBestMemoryDivision(3000, 3000, 1));
    EXPECT_EQ(0, SetBestMemoryDivision(10, 9, 1)) << "an empty range asks nothing";
    std::vector<int> asked;
    for (auto &e : d.td.events("memory_division")) asked.push_back(e["storage_pages"]);
    EXPECT_EQ((std::vector<int>{1000, 1001, 1002, 1003, 2000, 2001, 2002, 3000}), asked);
}

TEST(MemoryDivision, KernelWithoutTheDivisionFunctionsIsAskedNothing) {
    Dev d("[library.'coredll.dll']\nGetSystemMemoryDivision = false\nSetSystemMemoryDivision = false\n");
    LogMark mark;
    EXPECT_EQ(3u, SetMemoryDivision(5));
    EXPECT_TRUE(mark.has("SetMemoryDivision(5): SetSystemMemoryDivision - changes failed, error 127\r\n"));
    os_free(os_malloc(8));   // the division reads 0 pages: no request
    EXPECT_TRUE(logged("wince_organiseMemory(): Storage Pages = 0 / 0 (0%)\r\n"));
    EXPECT_TRUE(d.td.events("memory_division").empty());
}
