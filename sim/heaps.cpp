// Heaps of the simulated device: HeapCreate and its kin over host memory, with the limits and the
// fragmentation the profile asks for.
#include "library.h"

#include "kernel.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace sim {

namespace {

std::optional<uint64_t> bytesKey(const toml::table *t, const char *key) {
    const toml::node *n = t ? t->get(key) : nullptr;
    if (!n) return std::nullopt;
    auto v = n->value<int64_t>();
    if (!n->is_integer() || !v || *v < 0) badProfile(std::string("memory.") + key, "must be a number of bytes");
    return uint64_t(*v);
}

}  // namespace

Heaps::Process &Heaps::process() {
    static Process *shared = new Process;   // never destroyed: blocks may be held until the process ends
    return *shared;
}

Heaps::Heaps(Device &dev, const toml::table &profile)
    : m_dev(dev), m_mutex(process().mutex), m_heaps(process().heaps), m_next(process().next),
      m_held(process().held) {
    const toml::node *node = profile.get("memory");
    const toml::table *m = node ? node->as_table() : nullptr;
    m_limit = bytesKey(m, "heap_limit");
    m_fragment = bytesKey(m, "heap_fragmented");
    if (const toml::node *n = m ? m->get("heap_alloc_fail") : nullptr) {
        const toml::array *calls = n->as_array();
        if (!calls) badProfile("memory.heap_alloc_fail", "must be a list of HeapAlloc call numbers");
        for (const toml::node &item : *calls) {
            auto v = item.value<int64_t>();
            if (!item.is_integer() || !v || *v < 1 || *v > int64_t(0xFFFFFFFFu))
                badProfile("memory.heap_alloc_fail", "call numbers count from 1");
            m_failCalls.push_back(unsigned(*v));
        }
    }
}

Heaps::~Heaps() = default;   // the heaps stay with the process

Heaps::Heap *Heaps::heapOf(HANDLE h) {
    auto it = m_heaps.find(reinterpret_cast<uintptr_t>(h));
    return it == m_heaps.end() ? nullptr : &it->second;
}

uint64_t Heaps::roomLocked(const Heap &h) const {
    auto left = [](uint64_t cap, uint64_t used) { return cap > used ? cap - used : 0; };
    uint64_t room = left(m_dev.kernel().memory().availVirtual, m_held);
    if (h.maximum) room = std::min(room, left(h.maximum, h.held));
    if (DWORD largest = m_dev.kernel().memory().largestAllocation) room = std::min<uint64_t>(room, largest);
    if (m_limit) room = std::min(room, left(*m_limit, m_held));
    return room;
}

HANDLE Heaps::create(DWORD, SIZE_T initial, SIZE_T maximum) {
    if (m_dev.injected("HeapCreate")) return nullptr;
    if (maximum && maximum < initial) {
        setLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    uintptr_t id = m_next;
    m_next += 0x10000;
    Heap &h = m_heaps[id];
    h.maximum = maximum;
    h.fragmented = m_fragment.has_value();
    return reinterpret_cast<HANDLE>(id);
}

BOOL Heaps::destroy(HANDLE heap) {
    if (m_dev.injected("HeapDestroy")) return FALSE;
    std::lock_guard<std::mutex> lock(m_mutex);
    Heap *h = heapOf(heap);
    if (!h) {
        setLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    for (auto &block : h->blocks) std::free(block.first);
    m_held -= h->held;
    m_heaps.erase(reinterpret_cast<uintptr_t>(heap));
    return TRUE;
}

void *Heaps::alloc(HANDLE heap, DWORD flags, SIZE_T bytes) {
    std::optional<DWORD> error = m_dev.failure("HeapAlloc");
    const unsigned call = m_dev.callCount("HeapAlloc");
    if (error) {
        setLastError(*error);
        return nullptr;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    Heap *h = heapOf(heap);
    if (!h) {
        lock.unlock();
        setLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    bool refused = std::find(m_failCalls.begin(), m_failCalls.end(), call) != m_failCalls.end() ||
                   bytes > roomLocked(*h) || (h->fragmented && bytes > *m_fragment);
    void *block = refused ? nullptr : std::malloc(bytes ? bytes : 1);
    if (!block) {
        lock.unlock();
        setLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    // Blocks not asked to be zeroed are filled, so that a reader who relies on zeros is caught.
    std::memset(block, (flags & HEAP_ZERO_MEMORY) ? 0 : 0xCD, bytes);
    h->blocks[block] = bytes;
    h->held += bytes;
    m_held += bytes;
    return block;
}

BOOL Heaps::free(HANDLE heap, DWORD, void *block) {
    if (m_dev.injected("HeapFree")) return FALSE;
    return release(heap, block);
}

BOOL Heaps::release(HANDLE heap, void *block) {
    Process &p = process();
    std::lock_guard<std::mutex> lock(p.mutex);
    auto found = p.heaps.find(reinterpret_cast<uintptr_t>(heap));
    if (found == p.heaps.end()) {
        setLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    Heap &h = found->second;
    if (!block) return TRUE;
    auto it = h.blocks.find(block);
    if (it == h.blocks.end()) {
        setLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    h.held -= it->second;
    p.held -= it->second;
    std::free(block);
    h.blocks.erase(it);
    return TRUE;
}

SIZE_T Heaps::compact(HANDLE heap, DWORD) {
    if (m_dev.injected("HeapCompact")) return 0;
    std::lock_guard<std::mutex> lock(m_mutex);
    Heap *h = heapOf(heap);
    if (!h) {
        setLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    h->fragmented = false;
    uint64_t room = roomLocked(*h);
    if (!room) setLastError(ERROR_SUCCESS);   // no error: the heap simply has no free space
    return SIZE_T(room);
}

uint64_t Heaps::held() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_held;
}

size_t Heaps::heapCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_heaps.size();
}

std::shared_ptr<Heaps> makeHeaps(Device &dev, const toml::table &profile) {
    return std::make_shared<Heaps>(dev, profile);
}

}  // namespace sim

// ---------------------------------------------------------------- the CE API

HANDLE WINAPI HeapCreate(DWORD flOptions, SIZE_T dwInitialSize, SIZE_T dwMaximumSize) {
    return sim::dev().heaps().create(flOptions, dwInitialSize, dwMaximumSize);
}

BOOL WINAPI HeapDestroy(HANDLE hHeap) { return sim::dev().heaps().destroy(hHeap); }

LPVOID WINAPI HeapAlloc(HANDLE hHeap, DWORD dwFlags, SIZE_T dwBytes) {
    return sim::dev().heaps().alloc(hHeap, dwFlags, dwBytes);
}

// A program's static objects may give their blocks back after the last simulated device is gone
// (at process exit): the heaps are the process's, so that is served without one.
BOOL WINAPI HeapFree(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem) {
    if (sim::Device *d = sim::Device::current()) return d->heaps().free(hHeap, dwFlags, lpMem);
    return sim::Heaps::release(hHeap, lpMem);
}

SIZE_T WINAPI HeapCompact(HANDLE hHeap, DWORD dwFlags) { return sim::dev().heaps().compact(hHeap, dwFlags); }
