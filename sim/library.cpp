// Libraries of the simulated device: coredll with its memory division functions, and the device
// libraries the profile describes, whose exports answer from the profile.
#include "library.h"

#include "framework/common.h"
#include "kernel.h"

#include <algorithm>
#include <utility>

namespace sim {

// The device object a device library makes: its construct reports what the profile says.
class SimDevice final : public CDevice {
public:
    explicit SimDevice(int value) : m_value(value) {}
    int construct(DeviceLogCallback) override { return m_value; }
private:
    int m_value;
};

namespace {

const char kCoreDll[] = "coredll.dll";
const WCHAR kStarted[] = u"device library started\n";
const int kLogInfo = 3;

// Any function as the generic entry-point type (through void (*)(void), which converts silently).
template <class F> FARPROC asProc(F f) {
    return reinterpret_cast<FARPROC>(reinterpret_cast<void (*)(void)>(f));
}

// The exports: each slot has its own function for each kind, so every export has its own address.
template <size_t N> int numberThunk() { return dev().libraries().slot(N).value; }

template <size_t N> int constructThunk(DeviceLogCallback log) {
    const Libraries::Export &e = dev().libraries().slot(N);
    if (log) log(e.library.c_str(), 0, kLogInfo, kStarted);
    return e.value;
}

template <size_t N> CDevice *createThunk() {
    Libraries &libs = dev().libraries();
    return libs.makeDeviceObject(libs.slot(N).value);
}

template <size_t... I> std::array<FARPROC, kExportSlots> thunks(Libraries::Export::Kind kind, std::index_sequence<I...>) {
    switch (kind) {
    case Libraries::Export::Construct: return {{asProc(&constructThunk<I>)...}};
    case Libraries::Export::CreateInstance: return {{asProc(&createThunk<I>)...}};
    default: return {{asProc(&numberThunk<I>)...}};
    }
}

FARPROC thunkFor(Libraries::Export::Kind kind, size_t slot) {
    static const std::array<FARPROC, kExportSlots> tables[] = {
        thunks(Libraries::Export::Number, std::make_index_sequence<kExportSlots>()),
        thunks(Libraries::Export::Construct, std::make_index_sequence<kExportSlots>()),
        thunks(Libraries::Export::CreateInstance, std::make_index_sequence<kExportSlots>()),
    };
    return tables[kind][slot];
}

// coredll's memory division functions.
BOOL coreGetSystemMemoryDivision(LPDWORD storePages, LPDWORD ramPages, LPDWORD pageSize) {
    return dev().libraries().getDivision(storePages, ramPages, pageSize);
}

DWORD coreSetSystemMemoryDivision(DWORD storePages) { return dev().libraries().setDivision(storePages); }

DWORD pagesKey(const toml::table *t, const char *key, DWORD fallback, const std::string &where) {
    const toml::node *n = t ? t->get(key) : nullptr;
    if (!n) return fallback;
    auto v = n->value<int64_t>();
    if (!n->is_integer() || !v || *v < 0 || *v > int64_t(0xFFFFFFFFu))
        badProfile(where + "." + key, "must be a number of 32 unsigned bits");
    return DWORD(*v);
}

DWORD answerOf(const toml::node &n, const std::string &where) {
    auto v = n.value<int64_t>();
    if (!n.is_integer() || !v || *v < 0 || *v > 3) badProfile(where, "must be an answer 0..3");
    return DWORD(*v);
}

bool isSeparator(char16_t c) { return c == u'\\' || c == u'/'; }

}  // namespace

// ---------------------------------------------------------------- profile

Libraries::Libraries(Device &dev, const toml::table &profile) : m_dev(dev) {
    Module core;
    core.file = kCoreDll;
    core.core = true;
    core.handle = reinterpret_cast<HMODULE>(uintptr_t(0x03F00000));
    m_modules[kCoreDll] = core;

    if (const toml::node *node = profile.get("library")) {
        const toml::table *libs = node->as_table();
        if (!libs) badProfile("library", "must be a table of libraries by file name");
        uintptr_t base = 0x10000000;
        bool coreSeen = false;
        for (auto &&[key, value] : *libs) {
            const std::string file(key.str());
            const std::string where = "library.'" + file + "'";
            const toml::table *t = value.as_table();
            if (!t) badProfile(where, "must be a table of exports");
            if (file.empty() || file.find_first_of("\\/") != std::string::npos)
                badProfile(where, "the name must be a file name without a folder");
            const std::string low = lower(file);
            if (low == kCoreDll) {
                if (coreSeen) badProfile(where, "coredll.dll is given twice");
                coreSeen = true;
                Module &m = m_modules[kCoreDll];
                for (auto &&[k, v] : *t) {
                    const std::string name(k.str());
                    if ((name != "GetSystemMemoryDivision" && name != "SetSystemMemoryDivision") || !v.is_boolean())
                        badProfile(where + "." + name,
                                   "coredll takes only GetSystemMemoryDivision and SetSystemMemoryDivision, true or false");
                    (name == "GetSystemMemoryDivision" ? m.getDivision : m.setDivision) = v.as_boolean()->get();
                }
                continue;
            }
            if (m_modules.count(low)) badProfile(where, "the library is given twice (names are matched without regard to case)");
            Module m;
            m.file = file;
            m.handle = reinterpret_cast<HMODULE>(base);
            base += 0x00100000;
            for (auto &&[k, v] : *t) {
                const std::string name(k.str());
                int answer;
                if (v.is_boolean()) {
                    if (!v.as_boolean()->get()) continue;   // not exported
                    answer = 1;
                } else if (v.is_integer()) {
                    int64_t x = v.as_integer()->get();
                    if (x < INT32_MIN || x > int64_t(0xFFFFFFFFu)) badProfile(where + "." + name, "must fit 32 bits");
                    answer = int(uint32_t(x));
                } else {
                    badProfile(where + "." + name, "must be a number or a boolean");
                }
                if (m_slots.size() == kExportSlots)
                    badProfile(where + "." + name, "a device may list at most " + std::to_string(kExportSlots) +
                                                       " exports over all its libraries");
                Export e;
                e.kind = name == "construct"                   ? Export::Construct
                         : name == "createDeviceClassInstance" ? Export::CreateInstance
                                                               : Export::Number;
                e.value = answer;
                e.library = file;
                m.exports[name] = m_slots.size();
                m_slots.push_back(e);
            }
            m_modules[low] = m;
        }
    }

    // The division: by default the kernel's store and physical figures in pages.
    const toml::node *mem = profile.get("memory");
    const toml::node *dn = mem && mem->as_table() ? mem->as_table()->get("division") : nullptr;
    const toml::table *d = dn ? dn->as_table() : nullptr;
    if (dn && !d) badProfile("memory.division", "must be a table");
    if (d) {
        for (auto &&[k, v] : *d) {
            const std::string name(k.str());
            if (name != "page_size" && name != "storage_pages" && name != "ram_pages" && name != "set_result" &&
                name != "set_error")
                badProfile("memory.division." + name, "unknown key (page_size, storage_pages, ram_pages, set_result, set_error)");
        }
    }
    m_division.pageSize = pagesKey(d, "page_size", 4096, "memory.division");
    if (!m_division.pageSize) badProfile("memory.division.page_size", "must be above 0");
    const Kernel::Memory &km = dev.kernel().memory();
    m_division.storagePages = pagesKey(d, "storage_pages", km.storeSize / m_division.pageSize, "memory.division");
    m_division.ramPages = pagesKey(d, "ram_pages", km.totalPhys / m_division.pageSize, "memory.division");
    m_setError = pagesKey(d, "set_error", kCoreDllDivisionError, "memory.division");
    if (const toml::node *r = d ? d->get("set_result") : nullptr) {
        if (const toml::array *list = r->as_array()) {
            if (list->empty()) badProfile("memory.division.set_result", "the list must not be empty");
            for (const toml::node &item : *list) m_setResults.push_back(answerOf(item, "memory.division.set_result"));
        } else {
            m_setResults.push_back(answerOf(*r, "memory.division.set_result"));
        }
    }
}

Libraries::~Libraries() = default;

// ---------------------------------------------------------------- loading

Libraries::Module *Libraries::moduleOf(HMODULE h) {
    for (auto &entry : m_modules) {
        Module &m = entry.second;
        if (m.handle == h && h && (m.core || m.count > 0)) return &m;
    }
    return nullptr;
}

Libraries::Module *Libraries::moduleNamed(const std::string &lowerFile) {
    auto it = m_modules.find(lowerFile);
    return it == m_modules.end() ? nullptr : &it->second;
}

HMODULE Libraries::load(const WCHAR *name) {
    const std::string given = utf8(name);
    auto finish = [&](HMODULE h, DWORD error) {
        m_dev.journal().write("load_library", {{"name", given}, {"ok", h != nullptr}, {"error", error}});
        if (!h) setLastError(error);
        return h;
    };
    if (auto e = m_dev.failure("LoadLibraryW")) return finish(nullptr, *e);
    if (!name) return finish(nullptr, ERROR_INVALID_PARAMETER);

    std::u16string path = wide(name);
    size_t cut = path.find_last_of(u"\\/");
    const bool hasFolder = cut != std::u16string::npos;
    std::u16string file = hasFolder ? path.substr(cut + 1) : path;
    if (file.empty()) return finish(nullptr, ERROR_MOD_NOT_FOUND);
    if (file.find(u'.') == std::u16string::npos) {
        file += u".dll";
        path += u".dll";
    }

    std::lock_guard<std::mutex> lock(m_mutex);
    Module *m = moduleNamed(lower(utf8(file)));
    if (!m) return finish(nullptr, ERROR_MOD_NOT_FOUND);
    if (!m->core && m->count == 0) {
        // Not loaded yet: its file must be where the name points, or on the search path.
        std::vector<std::u16string> candidates;
        if (hasFolder) {
            candidates.push_back(path);
        } else {
            std::u16string program = m_dev.programPath();
            size_t slash = program.find_last_of(u"\\/");
            candidates.push_back((slash == std::u16string::npos ? std::u16string() : program.substr(0, slash)) + u"\\" + file);
            candidates.push_back(u"\\Windows\\" + file);
            candidates.push_back(u"\\" + file);
        }
        bool found = false;
        for (const std::u16string &c : candidates) {
            if (c.empty() || !isSeparator(c[0])) continue;
            if (m_dev.files().isFile(c)) {
                found = true;
                break;
            }
        }
        if (!found) return finish(nullptr, ERROR_MOD_NOT_FOUND);
    }
    ++m->count;
    return finish(m->handle, 0);
}

BOOL Libraries::release(HMODULE module) {
    if (m_dev.injected("FreeLibrary")) return FALSE;
    std::lock_guard<std::mutex> lock(m_mutex);
    Module *m = moduleOf(module);
    if (!m) {
        setLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (m->count > 0) --m->count;   // at 0 a device library is unloaded; coredll stays
    return TRUE;
}

FARPROC Libraries::procAddress(HMODULE module, const WCHAR *name) {
    if (m_dev.injected("GetProcAddressW")) return nullptr;
    std::lock_guard<std::mutex> lock(m_mutex);
    Module *m = moduleOf(module);
    if (!m) {
        setLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    // A "name" below 0x10000 is an ordinal: no library here exports by ordinal.
    const std::string entry = uintptr_t(name) < 0x10000 ? std::string() : utf8(name);
    if (m->core) {
        if (entry == "GetSystemMemoryDivision" && m->getDivision) return asProc(&coreGetSystemMemoryDivision);
        if (entry == "SetSystemMemoryDivision" && m->setDivision) return asProc(&coreSetSystemMemoryDivision);
    } else {
        auto it = m->exports.find(entry);
        if (it != m->exports.end()) return thunkFor(m_slots[it->second].kind, it->second);
    }
    setLastError(ERROR_PROC_NOT_FOUND);
    return nullptr;
}

CDevice *Libraries::makeDeviceObject(int value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_objects.push_back(std::make_unique<SimDevice>(value));
    return m_objects.back().get();
}

int Libraries::loadCount(const std::string &fileName) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_modules.find(lower(fileName));
    return it == m_modules.end() ? 0 : it->second.count;
}

// ---------------------------------------------------------------- memory division

Libraries::Division Libraries::division() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_division;
}

BOOL Libraries::getDivision(DWORD *storePages, DWORD *ramPages, DWORD *pageSize) {
    if (m_dev.injected("GetSystemMemoryDivision")) return FALSE;
    if (!storePages || !ramPages || !pageSize) {
        setLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    *storePages = m_division.storagePages;
    *ramPages = m_division.ramPages;
    *pageSize = m_division.pageSize;
    return TRUE;
}

DWORD Libraries::divisionAnswer() {
    size_t n = m_requests++;
    if (m_setResults.empty()) return 0;
    return m_setResults[std::min(n, m_setResults.size() - 1)];
}

DWORD Libraries::setDivision(DWORD storePages) {
    std::optional<DWORD> injected = m_dev.failure("SetSystemMemoryDivision");
    DWORD result, error = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        DWORD answer = divisionAnswer();   // every request takes its place in the list
        uint64_t total = uint64_t(m_division.storagePages) + m_division.ramPages;
        if (injected) {
            result = 3;
            error = *injected;
        } else if (storePages > total) {
            result = 3;
            error = ERROR_INVALID_PARAMETER;
        } else {
            result = answer;
            if (result == 0) {
                m_division.storagePages = storePages;
                m_division.ramPages = DWORD(total - storePages);
            } else if (result == 3) {
                error = m_setError;
            }
        }
    }
    m_dev.journal().write("memory_division", {{"storage_pages", storePages}, {"result", result}});
    if (result == 3) setLastError(error);
    return result;
}

std::shared_ptr<Libraries> makeLibraries(Device &dev, const toml::table &profile) {
    return std::make_shared<Libraries>(dev, profile);
}

}  // namespace sim

// ---------------------------------------------------------------- the CE API

HMODULE WINAPI LoadLibraryW(LPCWSTR lpLibFileName) { return sim::dev().libraries().load(lpLibFileName); }

BOOL WINAPI FreeLibrary(HMODULE hLibModule) { return sim::dev().libraries().release(hLibModule); }

FARPROC GetProcAddressW(HMODULE hModule, LPCWSTR lpProcName) {
    return sim::dev().libraries().procAddress(hModule, lpProcName);
}
