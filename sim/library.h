// Libraries, heaps and the memory division of the simulated device: LoadLibraryW, FreeLibrary,
// GetProcAddressW, coredll's GetSystemMemoryDivision/SetSystemMemoryDivision, HeapCreate, HeapAlloc,
// HeapFree, HeapCompact, HeapDestroy.
//
// Profile:
//   [library.'device.dll']      a library by file name (matched without regard to case); it loads
//                               when this table exists AND its file exists where it is looked for
//   construct = 1               each key is an export; its value is what the export answers:
//                               "construct" is int (*)(DeviceLogCallback): logs "device library
//                               started" once through the callback (level 3) and returns the value;
//                               "createDeviceClassInstance" is CDevice *(*)(void): makes a device
//                               object whose construct(log) returns the value; every other export
//                               is int (*)(void) returning the value. An integer (32 bits, signed or
//                               not) or a boolean: true counts as 1, false leaves the export out.
//                               An unlisted export is missing (GetProcAddressW fails, error 127).
//                               A device may list at most 64 exports over all its libraries.
//   [library.'coredll.dll']     coredll always loads, file or not, and exports the two memory
//   GetSystemMemoryDivision = false   division functions; a key set to false takes one away (only
//   SetSystemMemoryDivision = false   these two keys, booleans)
//
//   [memory.division]           the division of RAM between the object store and programs
//   page_size = 4096            bytes of a page; default 4096
//   storage_pages = 4096        default [memory] store_size / page_size
//   ram_pages = 11776           default [memory] total_phys / page_size
//   set_result = 0              what SetSystemMemoryDivision answers: 0 changed, 1 needs a reboot,
//                               2 reboot pending from an earlier call, 3 failed. One number for every
//                               request, or a list: request N gets item N, later ones the last item.
//   set_error = 31              the last error that answer 3 leaves; default 31
//
//   [memory]                    (the kernel's figures are described in kernel.h)
//   heap_limit = 1048576        bytes that all heaps made by HeapCreate may hold together; default
//                               no limit besides each heap's maximum and the available virtual memory
//   heap_fragmented = 65536     heaps start fragmented: their largest free block is this many bytes,
//                               so a larger HeapAlloc fails until HeapCompact is called on the heap
//   heap_alloc_fail = [2, 3]    the HeapAlloc calls (numbered from 1 over all heaps) that fail with
//                               ERROR_NOT_ENOUGH_MEMORY whatever room there is
//
//   [fail] LoadLibraryW = 126   any of the calls above fails with the error (see Device::failure)
//
// Behaviour, as Windows CE 5.0 documents it, with these choices:
// - LoadLibraryW: a name without a folder is looked for in the program's folder, then "\Windows",
//   then the root; a name with a folder only there (a relative folder is not found). A file name
//   without an extension gets ".dll". A library already loaded is found by its file name alone and
//   its handle returned again, its count raised. Failures: ERROR_MOD_NOT_FOUND (126), a null name
//   ERROR_INVALID_PARAMETER. Each call is journaled as "load_library" {name, ok, error}.
// - FreeLibrary lowers the count and unloads the library at 0; a handle that is not a loaded
//   library fails with ERROR_INVALID_HANDLE. coredll never unloads: its handle stays valid.
// - GetProcAddressW: an export not listed (or an ordinal) fails with ERROR_PROC_NOT_FOUND, a handle
//   that is not a loaded library with ERROR_INVALID_HANDLE. Export names are matched with case.
// - SetSystemMemoryDivision: a request above the total pages answers 3 with ERROR_INVALID_PARAMETER;
//   an injected failure answers 3 with the injected error; otherwise the profile's answer, and answer
//   0 moves the division (the RAM pages take the rest). Each request is journaled as
//   "memory_division" {storage_pages, result}. The store figures of GetStoreInformation stay as the
//   profile gives them.
// - Heaps: HeapCreate fails with ERROR_INVALID_PARAMETER when a non-zero maximum is below the
//   initial size (the initial size is otherwise only a hint); a non-zero maximum caps what the heap
//   holds. HeapAlloc honours HEAP_ZERO_MEMORY (other blocks are filled with 0xCD), fails with
//   ERROR_INVALID_HANDLE on a bad heap and ERROR_NOT_ENOUGH_MEMORY when the request does not fit.
//   HeapFree of a block the heap does not hold fails with ERROR_INVALID_PARAMETER (a null block is
//   accepted). HeapCompact joins the free space (ends the fragmentation) and returns the largest
//   block the heap could give now (0 with no error when there is none). HeapDestroy frees every
//   block of the heap. The blocks are real host memory; the device frees what is left when it goes.
//   GlobalMemoryStatus's available physical and virtual figures go down by the bytes the heaps hold.
#pragma once
#include "device.h"

#include <array>
#include <unordered_map>

class CDevice;

namespace sim {

class SimDevice;   // the device object a device library makes

constexpr size_t kExportSlots = 64;   // exports a device may list over all its libraries
constexpr DWORD kCoreDllDivisionError = ERROR_GEN_FAILURE;

class Libraries {
public:
    Libraries(Device &dev, const toml::table &profile);
    ~Libraries();

    HMODULE load(const WCHAR *name);                 // LoadLibraryW
    BOOL release(HMODULE module);                     // FreeLibrary
    FARPROC procAddress(HMODULE module, const WCHAR *name);   // GetProcAddressW
    BOOL getDivision(DWORD *storePages, DWORD *ramPages, DWORD *pageSize);   // GetSystemMemoryDivision
    DWORD setDivision(DWORD storePages);              // SetSystemMemoryDivision

    // For tests: the load count of a library by file name (0 when not loaded).
    int loadCount(const std::string &fileName) const;
    struct Division { DWORD storagePages, ramPages, pageSize; };
    Division division() const;

    // What the export in a slot answers (called by the export thunks).
    struct Export {
        enum Kind { Number, Construct, CreateInstance } kind = Number;
        int value = 0;
        std::string library;   // file name as the profile writes it (the log's source)
    };
    const Export &slot(size_t index) const { return m_slots[index]; }
    CDevice *makeDeviceObject(int value);

private:
    struct Module {
        std::string file;                          // as the profile writes it
        bool core = false;
        std::map<std::string, size_t> exports;     // export name -> slot (device libraries)
        bool getDivision = true, setDivision = true;   // coredll's exports
        int count = 0;
        HMODULE handle = nullptr;
    };
    Module *moduleOf(HMODULE h);
    Module *moduleNamed(const std::string &lowerFile);
    DWORD divisionAnswer();

    Device &m_dev;
    mutable std::mutex m_mutex;
    std::map<std::string, Module> m_modules;       // by lower-case file name; coredll always there
    std::vector<Export> m_slots;
    std::vector<std::unique_ptr<SimDevice>> m_objects;
    Division m_division;
    std::vector<DWORD> m_setResults;
    DWORD m_setError = kCoreDllDivisionError;
    size_t m_requests = 0;
};

class Heaps {
public:
    Heaps(Device &dev, const toml::table &profile);
    ~Heaps();

    HANDLE create(DWORD flags, SIZE_T initial, SIZE_T maximum);   // HeapCreate
    BOOL destroy(HANDLE heap);                                     // HeapDestroy
    void *alloc(HANDLE heap, DWORD flags, SIZE_T bytes);           // HeapAlloc
    BOOL free(HANDLE heap, DWORD flags, void *block);              // HeapFree
    static BOOL release(HANDLE heap, void *block);                 // HeapFree without a device
    SIZE_T compact(HANDLE heap, DWORD flags);                      // HeapCompact

    uint64_t held() const;     // bytes all heaps hold now
    size_t heapCount() const;

private:
    struct Heap {
        uint64_t maximum = 0;   // 0: growable
        uint64_t held = 0;
        bool fragmented = false;
        std::unordered_map<void *, size_t> blocks;
    };
    Heap *heapOf(HANDLE h);
    uint64_t roomLocked(const Heap &h) const;   // the largest block the heap could give when whole

    Device &m_dev;
    // The heaps belong to the process, not to one device: a program's heap made on one simulated
    // device stays valid when a test makes the next device in the same process (as the device's
    // process keeps its heap for its whole life). Shared by every Heaps, under one mutex.
    struct Process {
        std::mutex mutex;
        std::map<uintptr_t, Heap> heaps;
        uintptr_t next = 0x00480000;
        uint64_t held = 0;
    };
    static Process &process();
    std::mutex &m_mutex;
    std::map<uintptr_t, Heap> &m_heaps;
    uintptr_t &m_next;
    uint64_t &m_held;
    std::optional<uint64_t> m_limit;
    std::optional<uint64_t> m_fragment;
    std::vector<unsigned> m_failCalls;
};

}  // namespace sim
