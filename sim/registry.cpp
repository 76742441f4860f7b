// The registry of the simulated device: an in-memory tree under the predefined roots, loaded from the
// profile's [registry.'HKLM\Key'] tables, and the CE registry API over it. Key and value names are
// matched without regard to case, as CE does; subkeys enumerate in creation order. Key handles live
// in the device's handle table.
#include "device.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace sim {

namespace {

constexpr LONG kErrorKeyDeleted = 1018;   // ERROR_KEY_DELETED: the handle's key was removed

struct RootName { const char *name; HKEY key; };
const RootName kRootNames[] = {
    {"hklm", HKEY_LOCAL_MACHINE}, {"hkey_local_machine", HKEY_LOCAL_MACHINE},
    {"hkcu", HKEY_CURRENT_USER},  {"hkey_current_user", HKEY_CURRENT_USER},
    {"hkcr", HKEY_CLASSES_ROOT},  {"hkey_classes_root", HKEY_CLASSES_ROOT},
    {"hku", HKEY_USERS},          {"hkey_users", HKEY_USERS},
};

std::vector<std::string> splitPath(const std::string &path) {
    std::vector<std::string> parts;
    std::string cur;
    for (char c : path) {
        if (c == '\\' || c == '/') {
            if (!cur.empty()) parts.push_back(cur);
            cur.clear();
        } else {
            cur.push_back(c);
        }
    }
    if (!cur.empty()) parts.push_back(cur);
    return parts;
}

HKEY rootByName(const std::string &name) {
    std::string l = lower(name);
    for (const RootName &r : kRootNames)
        if (l == r.name) return r.key;
    return nullptr;
}

void markDeleted(Registry::Key *key) {
    key->deleted = true;
    for (auto &sub : key->subkeys) markDeleted(sub.get());
}


// ---- profile ----

[[noreturn]] void badRegistry(const std::string &where, const std::string &what) {
    badProfile("registry." + where, what);
}

void loadKey(Registry &reg, Registry::Key *key, const toml::table &table, const std::string &where) {
    for (auto &&[k, node] : table) {
        std::string name(k.str());
        std::string here = where + "\\" + name;
        if (const toml::table *sub = node.as_table()) {
            loadKey(reg, reg.openLocked(key, fromUtf8(name), true), *sub, here);
        } else if (auto s = node.value<std::string>()) {
            key->put(name, REG_SZ, Registry::stringBytes(fromUtf8(*s)));
        } else if (node.is_integer()) {
            int64_t v = *node.value<int64_t>();
            if (v < INT32_MIN || v > int64_t(UINT32_MAX)) badRegistry(here, "number does not fit 32 bits");
            DWORD d = DWORD(uint32_t(v));
            std::vector<BYTE> data(4);
            std::memcpy(data.data(), &d, 4);
            key->put(name, REG_DWORD, data);
        } else if (auto b = node.value<bool>()) {
            DWORD d = *b ? 1 : 0;
            std::vector<BYTE> data(4);
            std::memcpy(data.data(), &d, 4);
            key->put(name, REG_DWORD, data);
        } else if (const toml::array *arr = node.as_array()) {
            if (!arr->empty() && arr->is_homogeneous(toml::node_type::string)) {
                // strings: REG_MULTI_SZ, each terminated, then one more terminator
                std::vector<BYTE> data;
                for (auto &&item : *arr) {
                    std::vector<BYTE> one = Registry::stringBytes(fromUtf8(*item.value<std::string>()));
                    data.insert(data.end(), one.begin(), one.end());
                }
                data.push_back(0);
                data.push_back(0);
                key->put(name, REG_MULTI_SZ, data);
            } else {
                std::vector<BYTE> data;
                for (auto &&item : *arr) {
                    auto v = item.value<int64_t>();
                    if (!item.is_integer() || !v || *v < 0 || *v > 255)
                        badRegistry(here, "a binary value is an array of numbers 0..255");
                    data.push_back(BYTE(*v));
                }
                key->put(name, REG_BINARY, data);
            }
        } else {
            badRegistry(here, "a value is a string, a number, a boolean or an array");
        }
    }
}

// ---- the API's side ----

// A handle holds its key: a removed key is freed when its last handle is closed.
struct KeyObject : Object {
    std::shared_ptr<Registry::Key> key;
    explicit KeyObject(std::shared_ptr<Registry::Key> k) : key(std::move(k)) {}
    const char *type() const override { return "registry key"; }
};

bool isPredefined(HKEY h) {
    uintptr_t v = reinterpret_cast<uintptr_t>(h);
    return v >= 0x80000000u && v <= 0x80000003u;
}

// The key of a handle, with the registry's mutex held. Sets err when there is none.
Registry::Key *keyOf(Device &d, HKEY h, LONG &err) {
    Registry::Key *key = nullptr;
    if (isPredefined(h)) {
        key = d.registry().root(h);
    } else if (auto obj = d.objects().getAs<KeyObject>(reinterpret_cast<HANDLE>(h))) {
        key = obj->key.get();
    }
    if (!key) {
        err = ERROR_INVALID_HANDLE;
        return nullptr;
    }
    if (key->deleted) {
        err = kErrorKeyDeleted;
        return nullptr;
    }
    return key;
}

LONG finish(LONG result) {
    if (result != ERROR_SUCCESS) setLastError(DWORD(result));
    return result;
}

// Opens or creates lpSubKey below hKey and hands out a new handle.
LONG openOrCreate(const char *call, HKEY hKey, LPCWSTR lpSubKey, bool create, PHKEY phkResult,
                  LPDWORD lpdwDisposition) {
    Device &d = dev();
    if (auto e = d.failure(call)) return finish(LONG(*e));
    if (!phkResult) return finish(ERROR_INVALID_PARAMETER);
    std::shared_ptr<Registry::Key> key;
    bool created = false;
    {
        std::lock_guard<std::mutex> lock(d.registry().mutex());
        LONG err = ERROR_SUCCESS;
        Registry::Key *from = keyOf(d, hKey, err);
        if (!from) return finish(err);
        if (Registry::Key *k = d.registry().openLocked(from, wide(lpSubKey), create, &created)) key = k->shared_from_this();
    }
    if (!key) return finish(ERROR_FILE_NOT_FOUND);
    *phkResult = reinterpret_cast<HKEY>(d.objects().add(std::make_shared<KeyObject>(key)));
    if (lpdwDisposition) *lpdwDisposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    return ERROR_SUCCESS;
}

}  // namespace

// ---------------------------------------------------------------- the tree

std::vector<BYTE> Registry::stringBytes(const std::u16string &s) {
    std::vector<BYTE> out((s.size() + 1) * sizeof(char16_t), 0);   // the terminator is part of the data
    for (size_t i = 0; i < s.size(); ++i) {
        out[2 * i] = BYTE(s[i] & 0xFF);
        out[2 * i + 1] = BYTE(s[i] >> 8);
    }
    return out;
}

void Registry::Key::put(const std::string &valueName, DWORD type, std::vector<BYTE> data) {
    std::string l = lower(valueName);
    values[l] = Value{type, std::move(data)};
    valueNames[l] = valueName;
}

Registry::Key *Registry::Key::find(const std::string &name) const {
    std::string l = lower(name);
    for (const auto &sub : subkeys)
        if (lower(sub->name) == l) return sub.get();
    return nullptr;
}

Registry::Registry() {
    for (HKEY h : {HKEY_CLASSES_ROOT, HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE, HKEY_USERS}) {
        m_roots[reinterpret_cast<uintptr_t>(h)] = std::make_shared<Key>();
    }
    m_roots[reinterpret_cast<uintptr_t>(HKEY_CLASSES_ROOT)]->name = "HKEY_CLASSES_ROOT";
    m_roots[reinterpret_cast<uintptr_t>(HKEY_CURRENT_USER)]->name = "HKEY_CURRENT_USER";
    m_roots[reinterpret_cast<uintptr_t>(HKEY_LOCAL_MACHINE)]->name = "HKEY_LOCAL_MACHINE";
    m_roots[reinterpret_cast<uintptr_t>(HKEY_USERS)]->name = "HKEY_USERS";
}

Registry::Key *Registry::root(HKEY predefined) {
    auto it = m_roots.find(reinterpret_cast<uintptr_t>(predefined));
    return it == m_roots.end() ? nullptr : it->second.get();
}

Registry::Key *Registry::openLocked(Key *from, const std::u16string &path, bool create, bool *created) {
    if (created) *created = false;
    if (!from || from->deleted) return nullptr;
    Key *key = from;
    for (const std::string &part : splitPath(utf8(path))) {
        Key *next = key->find(part);
        if (!next) {
            if (!create) return nullptr;
            auto made = std::make_shared<Key>();
            made->name = part;
            next = made.get();
            key->subkeys.push_back(std::move(made));
            if (created) *created = true;
        }
        key = next;
    }
    return key;
}

Registry::Key *Registry::open(Key *from, const std::u16string &path, bool create, bool *created) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return openLocked(from, path, create, created);
}

Registry::Key *Registry::pathLocked(const std::string &keyPath, bool create) {
    std::vector<std::string> parts = splitPath(keyPath);
    Key *key = root(HKEY_LOCAL_MACHINE);
    size_t first = 0;
    if (!parts.empty()) {
        if (HKEY r = rootByName(parts[0])) {
            key = root(r);
            first = 1;
        }
    }
    std::string rest;
    for (size_t i = first; i < parts.size(); ++i) rest += (rest.empty() ? "" : "\\") + parts[i];
    return openLocked(key, fromUtf8(rest), create);
}

void Registry::setValue(const std::string &keyPath, const std::string &name, DWORD type,
                        const std::vector<BYTE> &data) {
    std::lock_guard<std::mutex> lock(m_mutex);
    pathLocked(keyPath, true)->put(name, type, data);
}

void Registry::setString(const std::string &keyPath, const std::string &name, const std::u16string &value) {
    setValue(keyPath, name, REG_SZ, Registry::stringBytes(value));
}

void Registry::setDword(const std::string &keyPath, const std::string &name, DWORD value) {
    std::vector<BYTE> data(4);
    std::memcpy(data.data(), &value, 4);
    setValue(keyPath, name, REG_DWORD, data);
}

void Registry::setBinary(const std::string &keyPath, const std::string &name, const std::vector<BYTE> &value) {
    setValue(keyPath, name, REG_BINARY, value);
}

void Registry::remove(const std::string &keyPath) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> parts = splitPath(keyPath);
    if (parts.empty()) return;
    std::string parentPath;
    for (size_t i = 0; i + 1 < parts.size(); ++i) parentPath += parts[i] + "\\";
    if (parts.size() == 1 && rootByName(parts[0])) return;   // a root stays
    Key *parent = pathLocked(parentPath, false);
    if (!parent) return;
    std::string l = lower(parts.back());
    for (auto it = parent->subkeys.begin(); it != parent->subkeys.end(); ++it) {
        if (lower((*it)->name) == l) {
            markDeleted(it->get());
            parent->subkeys.erase(it);   // open handles keep it until they are closed
            return;
        }
    }
}

bool Registry::exists(const std::string &keyPath) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return pathLocked(keyPath, false) != nullptr;
}

std::optional<Registry::Value> Registry::value(const std::string &keyPath, const std::string &name) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Key *key = pathLocked(keyPath, false);
    if (!key) return std::nullopt;
    auto it = key->values.find(lower(name));
    if (it == key->values.end()) return std::nullopt;
    return it->second;
}

std::optional<std::u16string> Registry::stringValue(const std::string &keyPath, const std::string &name) {
    auto v = value(keyPath, name);
    if (!v || v->type != REG_SZ) return std::nullopt;
    std::u16string s;
    for (size_t i = 0; i + 1 < v->data.size(); i += 2) {
        char16_t c = char16_t(v->data[i] | (v->data[i + 1] << 8));
        if (!c) break;
        s.push_back(c);
    }
    return s;
}

std::vector<std::string> Registry::subkeyNames(const std::string &keyPath) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    if (Key *key = pathLocked(keyPath, false))
        for (const auto &sub : key->subkeys) out.push_back(sub->name);
    return out;
}

void loadRegistryProfile(Device &dev, const toml::table &profile) {
    const toml::node *node = profile.get("registry");
    if (!node) return;
    const toml::table *registry = node->as_table();
    if (!registry) badRegistry("", "[registry] is a table of keys");
    Registry &reg = dev.registry();
    std::lock_guard<std::mutex> lock(reg.mutex());
    for (auto &&[k, sub] : *registry) {
        std::string path(k.str());
        const toml::table *table = sub.as_table();
        if (!table) badRegistry(path, "a key is a table of values");
        std::vector<std::string> parts = splitPath(path);
        if (parts.empty() || !rootByName(parts[0])) badRegistry(path, "a key path begins with HKLM, HKCU, HKCR or HKU");
        loadKey(reg, reg.pathLocked(path, true), *table, path);
    }
}

}  // namespace sim

using sim::Device;
using sim::Registry;

// ---------------------------------------------------------------- the CE registry API

LONG WINAPI RegOpenKeyExW(HKEY hKey, LPCWSTR lpSubKey, DWORD, REGSAM, PHKEY phkResult) {
    return sim::openOrCreate("RegOpenKeyExW", hKey, lpSubKey, false, phkResult, nullptr);
}

LONG WINAPI RegCreateKeyExW(HKEY hKey, LPCWSTR lpSubKey, DWORD, LPWSTR, DWORD, REGSAM, LPSECURITY_ATTRIBUTES,
                            PHKEY phkResult, LPDWORD lpdwDisposition) {
    return sim::openOrCreate("RegCreateKeyExW", hKey, lpSubKey, true, phkResult, lpdwDisposition);
}

LONG WINAPI RegQueryValueExW(HKEY hKey, LPCWSTR lpValueName, LPDWORD, LPDWORD lpType, LPBYTE lpData,
                             LPDWORD lpcbData) {
    Device &d = sim::dev();
    if (auto e = d.failure("RegQueryValueExW")) return sim::finish(LONG(*e));
    if (lpData && !lpcbData) return sim::finish(ERROR_INVALID_PARAMETER);
    std::lock_guard<std::mutex> lock(d.registry().mutex());
    LONG err = ERROR_SUCCESS;
    Registry::Key *key = sim::keyOf(d, hKey, err);
    if (!key) return sim::finish(err);
    auto it = key->values.find(sim::lower(sim::utf8(lpValueName)));   // null or "" is the default value
    if (it == key->values.end()) return sim::finish(ERROR_FILE_NOT_FOUND);
    const Registry::Value &v = it->second;
    DWORD size = DWORD(v.data.size());
    if (lpType) *lpType = v.type;
    if (!lpData) {
        if (lpcbData) *lpcbData = size;   // a size query
        return ERROR_SUCCESS;
    }
    if (*lpcbData < size) {
        *lpcbData = size;
        return sim::finish(ERROR_MORE_DATA);
    }
    if (size) std::memcpy(lpData, v.data.data(), size);
    *lpcbData = size;
    return ERROR_SUCCESS;
}

LONG WINAPI RegEnumKeyExW(HKEY hKey, DWORD dwIndex, LPWSTR lpName, LPDWORD lpcchName, LPDWORD, LPWSTR lpClass,
                          LPDWORD lpcchClass, PFILETIME lpftLastWriteTime) {
    Device &d = sim::dev();
    if (auto e = d.failure("RegEnumKeyExW")) return sim::finish(LONG(*e));
    if (!lpName || !lpcchName) return sim::finish(ERROR_INVALID_PARAMETER);
    std::lock_guard<std::mutex> lock(d.registry().mutex());
    LONG err = ERROR_SUCCESS;
    Registry::Key *key = sim::keyOf(d, hKey, err);
    if (!key) return sim::finish(err);
    if (dwIndex >= key->subkeys.size()) return sim::finish(ERROR_NO_MORE_ITEMS);
    std::u16string name = sim::fromUtf8(key->subkeys[dwIndex]->name);
    if (name.size() + 1 > *lpcchName) return sim::finish(ERROR_MORE_DATA);   // count in characters with the terminator
    for (size_t i = 0; i < name.size(); ++i) lpName[i] = name[i];
    lpName[name.size()] = 0;
    *lpcchName = DWORD(name.size());
    if (lpClass && lpcchClass && *lpcchClass) lpClass[0] = 0;
    if (lpcchClass) *lpcchClass = 0;
    if (lpftLastWriteTime) std::memset(lpftLastWriteTime, 0, sizeof *lpftLastWriteTime);
    return ERROR_SUCCESS;
}

LONG WINAPI RegSetValueExW(HKEY hKey, LPCWSTR lpValueName, DWORD, DWORD dwType, const BYTE *lpData, DWORD cbData) {
    Device &d = sim::dev();
    if (auto e = d.failure("RegSetValueExW")) return sim::finish(LONG(*e));
    if (!lpData && cbData) return sim::finish(ERROR_INVALID_PARAMETER);
    std::lock_guard<std::mutex> lock(d.registry().mutex());
    LONG err = ERROR_SUCCESS;
    Registry::Key *key = sim::keyOf(d, hKey, err);
    if (!key) return sim::finish(err);
    std::vector<BYTE> data(lpData, lpData + (lpData ? cbData : 0));
    key->put(sim::utf8(lpValueName), dwType, std::move(data));
    return ERROR_SUCCESS;
}

LONG WINAPI RegCloseKey(HKEY hKey) {
    Device &d = sim::dev();
    if (sim::isPredefined(hKey)) return ERROR_SUCCESS;
    HANDLE h = reinterpret_cast<HANDLE>(hKey);
    if (!d.objects().getAs<sim::KeyObject>(h) || !d.objects().close(h)) return sim::finish(ERROR_INVALID_HANDLE);
    return ERROR_SUCCESS;
}
