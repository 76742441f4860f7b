// The simulated device's libraries, memory division and heaps: where a library loads from, its
// exports answering from the profile, load counts, coredll's division answers and the heap paths.
#include <gtest/gtest.h>

#include <vector>

#include "framework/common.h"
#include "library.h"
#include "test_device.h"

using namespace testing_support;

namespace {

const std::string kLibs = R"(
[library.'device.dll']
construct = 1
getHardwareVersion = 3
getGPSType = false
createDeviceClassInstance = 7
[library.'Kernel.DLL']
getGPSType = 4
)";

HMODULE load(const std::string &name) { return LoadLibraryW(reinterpret_cast<const WCHAR *>(W(name).c_str())); }
FARPROC proc(HMODULE h, const std::string &name) { return GetProcAddressW(h, reinterpret_cast<const WCHAR *>(W(name).c_str())); }

// An entry point as its own type (through void (*)(void), as the device code does).
template <class F> F as(FARPROC p) { return reinterpret_cast<F>(reinterpret_cast<void (*)(void)>(p)); }

std::u16string g_log;   // what the library logged: "<level>:<text>" per call
void recordLog(const char *, int, int level, const WCHAR *format) { g_log += char16_t(u'0' + level) + (u":" + std::u16string(format)); }

}  // namespace

TEST(SimLibrary, LoadsCoredllAlwaysAndDeviceLibrariesWithTableAndFile) {
    struct Row { std::string extra, file, name; DWORD error; };
    const Row rows[] = {
        {"", "", "coredll.dll", 0}, {"", "", "\\Windows\\COREDLL.DLL", 0}, {"", "", "coredll", 0},
        {"", "\\My Flash Disk\\device.dll", "\\My Flash Disk\\device.dll", 0},
        {"", "\\My Flash Disk\\device.dll", "DEVICE.DLL", 0},   // the program's folder
        {"", "\\Windows\\device.dll", "device.dll", 0}, {"", "\\device.dll", "device", 0},
        {"", "\\Storage Card\\device.dll", "device.dll", ERROR_MOD_NOT_FOUND},   // not on the search path
        {"", "\\Storage Card\\device.dll", "\\Storage Card\\device.dll", 0},
        {"", "", "\\My Flash Disk\\device.dll", ERROR_MOD_NOT_FOUND},          // no file
        {"", "\\My Flash Disk\\other.dll", "\\My Flash Disk\\other.dll", ERROR_MOD_NOT_FOUND},   // no table
        {"", "\\Windows\\kernel.dll", "kernel.dll", 0},
        {"", "\\sub\\device.dll", "sub\\device.dll", ERROR_MOD_NOT_FOUND},     // a relative folder
        {"[fail]\nLoadLibraryW = 5\n", "", "coredll.dll", 5},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name + " with " + r.file);
        TestDevice td(kLibs + r.extra);
        if (!r.file.empty()) td.put(r.file, "MZ");
        SetLastError(0);
        HMODULE h = load(r.name);
        EXPECT_EQ(h != NULL, r.error == 0);
        EXPECT_EQ(GetLastError(), r.error);
        auto events = td.events("load_library");
        ASSERT_EQ(events.size(), 1u);
        EXPECT_TRUE(events[0]["name"] == r.name && events[0]["ok"] == (r.error == 0) && events[0]["error"] == r.error);
    }
}

TEST(SimLibrary, ExportsAnswerFromTheProfileAndLoadsAreCounted) {
    TestDevice td(kLibs + "[library.'coredll.dll']\nSetSystemMemoryDivision = false\n");
    td.put("\\My Flash Disk\\device.dll", "MZ");
    HMODULE h = load("device.dll");
    ASSERT_NE(h, (HMODULE)NULL);
    EXPECT_EQ(load("\\My Flash Disk\\Device.dll"), h);
    EXPECT_EQ(td.dev().libraries().loadCount("device.dll"), 2);

    PFN_DEVICE_GET_NUMBER version = as<PFN_DEVICE_GET_NUMBER>(proc(h, "getHardwareVersion"));
    PFN_DEVICE_CONSTRUCT construct = as<PFN_DEVICE_CONSTRUCT>(proc(h, "construct"));
    auto create = as<PFN_CREATE_DEVICE_CLASS_INSTANCE>(proc(h, "createDeviceClassInstance"));
    ASSERT_TRUE(version && construct && create);
    EXPECT_EQ(version(), 3);
    EXPECT_EQ(construct(recordLog), 1);
    EXPECT_EQ(g_log, u"3:device library started\n");   // logged once, at INFO
    CDevice *device = create();
    ASSERT_NE(device, (CDevice *)NULL);
    EXPECT_EQ(device->construct(recordLog), 7);

    struct Row { HMODULE module; std::string name; DWORD error; };
    HMODULE core = load("coredll.dll");
    const Row missing[] = {{h, "getGPSType", ERROR_PROC_NOT_FOUND}, {h, "GetHardwareVersion", ERROR_PROC_NOT_FOUND},
                           {h, "getTemperature", ERROR_PROC_NOT_FOUND}, {core, "SetSystemMemoryDivision", ERROR_PROC_NOT_FOUND},
                           {(HMODULE)0x1234, "construct", ERROR_INVALID_HANDLE}};
    for (const Row &r : missing) {
        EXPECT_EQ(proc(r.module, r.name), (FARPROC)NULL) << r.name;
        EXPECT_EQ(GetLastError(), r.error) << r.name;
    }
    EXPECT_NE(proc(core, "GetSystemMemoryDivision"), (FARPROC)NULL);

    EXPECT_TRUE(FreeLibrary(h) && proc(h, "construct"));   // still loaded once
    EXPECT_TRUE(FreeLibrary(h) && !proc(h, "construct"));  // unloaded at 0
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(FreeLibrary(h) || GetLastError() != ERROR_INVALID_HANDLE);
}

TEST(SimLibrary, DivisionAnswersFromTheProfileAndIsJournaled) {
    typedef BOOL (*GetDivision)(LPDWORD, LPDWORD, LPDWORD);
    typedef DWORD (*SetDivision)(DWORD);
    const std::string base = "[memory]\nstore_size = 16777216\ntotal_phys = 48234496\n[memory.division]\n";
    struct Row { std::string division; std::vector<DWORD> requests, results; DWORD storage, error; };
    const Row rows[] = {
        {"", {3000}, {0}, 3000, 0},            // 4096 + 11776 pages by default
        {"set_result = 1\n", {3000}, {1}, 4096, 0}, {"set_result = 2\n", {3000}, {2}, 4096, 0},
        {"set_result = 3\n", {3000}, {3}, 4096, 31}, {"set_result = 3\nset_error = 5\n", {3000}, {3}, 4096, 5},
        {"set_result = [1, 3, 0]\n", {10, 20, 30, 40}, {1, 3, 0, 0}, 40, 31},   // the error stays
        {"", {15873}, {3}, 4096, ERROR_INVALID_PARAMETER},   // more than all the pages
        {"storage_pages = 100\nram_pages = 50\npage_size = 1024\n", {150}, {0}, 150, 0},
        {"[fail]\nSetSystemMemoryDivision = 6\n", {3000}, {3}, 4096, 6},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.division);
        TestDevice td(base + r.division);
        HMODULE core = load("coredll.dll");
        GetDivision get = as<GetDivision>(proc(core, "GetSystemMemoryDivision"));
        SetDivision set = as<SetDivision>(proc(core, "SetSystemMemoryDivision"));
        ASSERT_TRUE(get && set);
        DWORD total = 0, s = 0, m = 0, p = 0;
        ASSERT_TRUE(get(&s, &m, &p));
        total = s + m;
        SetLastError(0);
        for (size_t i = 0; i < r.requests.size(); ++i) EXPECT_EQ(set(r.requests[i]), r.results[i]) << i;
        EXPECT_EQ(GetLastError(), r.error);
        ASSERT_TRUE(get(&s, &m, &p));
        EXPECT_EQ(s, r.storage);
        EXPECT_EQ(s + m, total);
        auto events = td.events("memory_division");
        ASSERT_EQ(events.size(), r.requests.size());
        EXPECT_EQ(events.back()["storage_pages"], r.requests.back());
        EXPECT_EQ(events.back()["result"], r.results.back());
    }
    TestDevice td("[fail]\nGetSystemMemoryDivision = 50\n");
    DWORD s, m, p;
    EXPECT_FALSE(as<GetDivision>(proc(load("coredll.dll"), "GetSystemMemoryDivision"))(&s, &m, &p));
    EXPECT_EQ(GetLastError(), 50u);
}

// Steps on one heap: 'a' allocates size bytes (ok when want is 1), 'c' compacts (want: what it
// offers), 'f' frees the newest block held, 'v' checks GlobalMemoryStatus's available virtual memory.
TEST(SimLibrary, HeapsFollowLimitsFragmentationAndInjectedFailures) {
    struct Step { char op; size_t size, want; };
    struct Row { std::string memory; SIZE_T maximum; DWORD error; std::vector<Step> steps; };
    const std::string lim = "heap_limit = 1000\n";
    const DWORD kNoMemory = ERROR_NOT_ENOUGH_MEMORY;
    const Row rows[] = {
        {lim, 0, kNoMemory, {{'a', 600, 1}, {'a', 500, 0}, {'v', 0, 0x1C00000 - 600}, {'f', 0, 0}, {'a', 500, 1}, {'c', 0, 500}}},
        {"", 100, kNoMemory, {{'a', 101, 0}, {'a', 100, 1}, {'a', 0, 1}, {'a', 1, 0}, {'c', 0, 0}}},
        {lim + "heap_fragmented = 64\n", 0, kNoMemory, {{'a', 65, 0}, {'a', 64, 1}, {'c', 0, 936}, {'a', 65, 1}, {'a', 900, 0}}},
        {"heap_alloc_fail = [2, 3]\n", 0, kNoMemory, {{'a', 8, 1}, {'a', 8, 0}, {'a', 8, 0}, {'a', 8, 1}, {'v', 0, 0x1C00000 - 16}}},
        {"avail_virtual = 4096\n", 0, kNoMemory, {{'a', 4097, 0}, {'a', 4000, 1}, {'c', 0, 96}}},
        {"[fail]\nHeapAlloc = { error = 14, nth = 2 }\n", 0, 14, {{'a', 8, 1}, {'a', 8, 0}, {'a', 8, 1}}},
        {"[fail]\nHeapAlloc = { error = 14, nth = 2, times = 2 }\n", 0, 14, {{'a', 8, 1}, {'a', 8, 0}, {'a', 8, 0}, {'a', 8, 1}}},
        {"[fail]\nHeapAlloc = { error = 14, nth = 2, times = 0 }\n", 0, 14, {{'a', 8, 1}, {'a', 8, 0}, {'a', 8, 0}, {'a', 8, 0}}},
        {"largest_allocation = 64\n", 0, kNoMemory, {{'a', 65, 0}, {'a', 64, 1}, {'a', 64, 1}}},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.memory);
        TestDevice td("[memory]\n" + r.memory);
        HANDLE heap = HeapCreate(0, 0, r.maximum);
        ASSERT_NE(heap, (HANDLE)NULL);
        std::vector<void *> held;
        for (const Step &s : r.steps) {
            SCOPED_TRACE(std::string(1, s.op) + std::to_string(s.size));
            if (s.op == 'a') {
                void *p = HeapAlloc(heap, 0, s.size);
                EXPECT_EQ(p != NULL, s.want == 1);
                if (p) held.push_back(p);
                else EXPECT_EQ(GetLastError(), r.error);
            } else if (s.op == 'c') {
                EXPECT_EQ(HeapCompact(heap, 0), s.want);
            } else if (s.op == 'f') {
                EXPECT_TRUE(HeapFree(heap, 0, held.back()));
                held.pop_back();
            } else {
                MEMORYSTATUS ms;
                GlobalMemoryStatus(&ms);
                EXPECT_EQ(ms.dwAvailVirtual, s.want);
            }
        }
        EXPECT_TRUE(HeapDestroy(heap));   // frees what is left
        EXPECT_EQ(td.dev().heaps().held(), 0u);
    }

    TestDevice td("[memory]\navail_phys = 1000\n");
    HANDLE heap = HeapCreate(0, 0, 0), other = HeapCreate(0, 0, 0);
    unsigned char *zeroed = static_cast<unsigned char *>(HeapAlloc(heap, HEAP_ZERO_MEMORY, 64));
    unsigned char *plain = static_cast<unsigned char *>(HeapAlloc(heap, 0, 64));
    ASSERT_TRUE(zeroed && plain);
    EXPECT_EQ(std::vector<unsigned char>(zeroed, zeroed + 64), std::vector<unsigned char>(64, 0));
    EXPECT_NE(std::vector<unsigned char>(plain, plain + 64), std::vector<unsigned char>(64, 0));
    MEMORYSTATUS ms;
    GlobalMemoryStatus(&ms);
    EXPECT_EQ(ms.dwAvailPhys, 1000u - 128);
    // Each call in order; the error it leaves (0 when it wrongly succeeds).
    auto failed = [](bool ok) { return ok ? DWORD(0) : GetLastError(); };
    struct Bad { DWORD got, want; } bad[] = {
        {failed(HeapFree(other, 0, plain)), ERROR_INVALID_PARAMETER},   // not a block of that heap
        {failed(HeapCreate(0, 200, 100) != NULL), ERROR_INVALID_PARAMETER},
        {failed(HeapDestroy(heap) && HeapAlloc(heap, 0, 8) != NULL), ERROR_INVALID_HANDLE},
        {failed(HeapFree(heap, 0, plain)), ERROR_INVALID_HANDLE},
        {failed(HeapCompact(heap, 0) != 0), ERROR_INVALID_HANDLE},
        {failed(HeapDestroy(heap)), ERROR_INVALID_HANDLE},
        {(td.dev().setFailure("HeapCreate", 8), failed(HeapCreate(0, 0, 0) != NULL)), ERROR_NOT_ENOUGH_MEMORY},
        {(td.dev().setFailure("HeapCompact", 5), failed(HeapCompact(other, 0) != 0)), 5},
    };
    for (const Bad &b : bad) EXPECT_EQ(b.got, b.want) << "call " << &b - bad;
    EXPECT_EQ(td.dev().heaps().held(), 0u);
}
