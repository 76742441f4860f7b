// The simulated Windows CE device: one sim::Device made from a device folder (or in code by a test)
// serves the CE system API that the device program calls (declared in src/sal/winapi.h).
//
//   DEVICE/device.toml   the profile
//   DEVICE/fs/           the device's file system root "\"
//   DEVICE/run/          written by each run: journal.jsonl, panel.txt, the flash-disk image
//
// The API functions act on Device::current(). Internally the device is a set of parts (clock,
// objects, file system, registry, kernel, ...), each in its own file.
#pragma once

#include "sal/winapi.h"

#include <nlohmann/json.hpp>
#include <toml++/toml.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace sim {

namespace fs = std::filesystem;

// ---- text helpers shared by the parts ----
std::u16string wide(const WCHAR *s);             // a NUL-terminated WCHAR string (null gives "")
std::string utf8(const std::u16string &s);
std::string utf8(const WCHAR *s);
std::u16string fromUtf8(const std::string &s);
std::string lower(const std::string &s);          // ASCII lower case
std::string hexBytes(const void *data, size_t n); // "0a1b..." lower-case pairs
std::string hexCode(DWORD code);                  // "0x80002E78"

// ---- clock: the device's tick count, scaled against real time ----
class Clock {
public:
    explicit Clock(double scale = 1.0);
    void setScale(double scale);   // 1.0 real time; 0.01 makes a 2500 ms sleep take 25 ms
    double scale() const { return m_scale.load(); }
    DWORD ticks() const;           // milliseconds of device time since start (plus the profile's base)
    void sleep(DWORD ms);          // device milliseconds
    std::chrono::nanoseconds real(DWORD deviceMs) const;  // device ms as real time
    void setBase(DWORD base) { m_base = base; }
private:
    std::atomic<double> m_scale;
    std::chrono::steady_clock::time_point m_start;
    DWORD m_base = 0;
};

// ---- journal: DEVICE/run/journal.jsonl, one JSON object per line ----
class Journal {
public:
    void open(const fs::path &file);        // truncates; events are written as they come
    void close();
    // Adds "event" and "t" (tick count) to the fields and appends the line.
    void write(const std::string &event, nlohmann::json fields = nlohmann::json::object());
    std::vector<nlohmann::json> events() const;                    // all written so far, in order
    std::vector<nlohmann::json> events(const std::string &name) const;
    const fs::path &file() const { return m_file; }
private:
    mutable std::mutex m_mutex;
    fs::path m_file;
    FILE *m_out = nullptr;
    std::vector<nlohmann::json> m_events;
};

// ---- objects: the handle table ----
struct Object {
    virtual ~Object() = default;
    virtual const char *type() const = 0;
};

class Objects {
public:
    HANDLE add(std::shared_ptr<Object> obj);
    std::shared_ptr<Object> get(HANDLE h) const;
    template <class T> std::shared_ptr<T> getAs(HANDLE h) const {
        return std::dynamic_pointer_cast<T>(get(h));
    }
    bool close(HANDLE h);    // false when h is not a handle of this table
    size_t count() const;
private:
    mutable std::mutex m_mutex;
    std::map<uintptr_t, std::shared_ptr<Object>> m_table;
    uintptr_t m_next = 0x1000;
};

// ---- file system: CE paths mapped under DEVICE/fs, matched without regard to case ----
class FileSystem {
public:
    explicit FileSystem(fs::path root);
    const fs::path &root() const { return m_root; }
    // The host path of a CE path. Existing components are matched without regard to case; the rest
    // are taken as written. Returns nullopt for a path that is not absolute ("\..." or "/...").
    std::optional<fs::path> resolve(const std::u16string &cePath) const;
    bool exists(const std::u16string &cePath) const;
    // Storage: free/total from the profile ([storage] tables) else from the host.
    struct Space { ULONGLONG freeToCaller, total, free; };
    bool space(const std::u16string &cePath, Space &out) const;
    // Failure injection, from the profile's [storage."\\Path"] tables.
    bool readOnly(const std::u16string &cePath) const;
    bool full(const std::u16string &cePath) const;
    struct Volume { std::u16string root; ULONGLONG total = 0, free = 0; bool readOnly = false; bool full = false; };
    void addVolume(const Volume &v);
    const Volume *volumeOf(const std::u16string &cePath) const;
private:
    fs::path m_root;
    std::vector<Volume> m_volumes;
};

// ---- registry: HKLM tree, loaded from the profile, kept in memory ----
class Registry {
public:
    struct Value { DWORD type = REG_NONE; std::vector<BYTE> data; };
    struct Key {
        std::string name;                                 // as written
        std::map<std::string, Value> values;              // by lower-case name
        std::map<std::string, std::string> valueNames;    // lower-case -> as written
        std::vector<std::unique_ptr<Key>> subkeys;        // in creation order
        Key *find(const std::string &name) const;         // without regard to case
        void put(const std::string &name, DWORD type, std::vector<BYTE> data);   // under mutex()
        bool deleted = false;                             // removed while a handle may still be open
    };
    Registry();
    Key *root(HKEY predefined);                           // HKLM and the other predefined roots
    // Path below a root with "\" separators; create makes missing keys. Locks the mutex; a key is
    // never freed while the device lives (a removed key is only marked deleted), so the pointer
    // stays valid; hold mutex() while reading its contents.
    Key *open(Key *from, const std::u16string &path, bool create, bool *created = nullptr);
    // keyPath: "Drivers\Active\01" below HKLM, or led by a root name ("HKLM\...", "HKEY_CURRENT_USER\...").
    // The setters create missing keys.
    void setString(const std::string &keyPath, const std::string &name, const std::u16string &value);
    void setDword(const std::string &keyPath, const std::string &name, DWORD value);
    void setBinary(const std::string &keyPath, const std::string &name, const std::vector<BYTE> &value);
    void setValue(const std::string &keyPath, const std::string &name, DWORD type, const std::vector<BYTE> &data);
    void remove(const std::string &keyPath);              // the key and its subtree
    bool exists(const std::string &keyPath);
    std::optional<Value> value(const std::string &keyPath, const std::string &name);
    std::optional<std::u16string> stringValue(const std::string &keyPath, const std::string &name);  // REG_SZ only
    std::vector<std::string> subkeyNames(const std::string &keyPath);   // in creation order
    std::mutex &mutex() { return m_mutex; }
    // REG_SZ data of a text: UTF-16LE with its terminator.
    static std::vector<BYTE> stringBytes(const std::u16string &s);
    // Unlocked helpers for the API functions (registry.cpp), called with mutex() held.
    Key *openLocked(Key *from, const std::u16string &path, bool create, bool *created = nullptr);
    Key *pathLocked(const std::string &keyPath, bool create);
private:
    std::mutex m_mutex;
    std::map<uintptr_t, std::unique_ptr<Key>> m_roots;
    std::vector<std::unique_ptr<Key>> m_removed;          // removed keys, kept for open handles
};

// Parts that live in their own files (kernel.cpp, devices.cpp); made by the device at start.
class Kernel;
class Devices;

// ---- the device ----
class Device {
public:
    // The device the API calls act on; a process has at most one at a time.
    static Device *current();
    // Made from a device folder: reads DEVICE/device.toml when it exists, maps DEVICE/fs, and
    // opens DEVICE/run/journal.jsonl (or journalFile when given).
    explicit Device(const fs::path &folder, const fs::path &journalFile = {});
    ~Device();
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    void install();     // becomes current()
    void uninstall();

    const fs::path &folder() const { return m_folder; }
    fs::path runDir() const { return m_folder / "run"; }
    const toml::table &profile() const { return m_profile; }

    Clock &clock() { return m_clock; }
    Journal &journal() { return m_journal; }
    Objects &objects() { return m_objects; }
    FileSystem &files() { return m_files; }
    Registry &registry() { return m_registry; }
    Kernel &kernel() { return *m_kernel; }
    Devices &devices() { return *m_devices; }

    // The running program's CE path ([device] program).
    std::u16string programPath() const;
    void setProgramPath(const std::u16string &p) { m_program = p; }

    // Failure injection: an error code to fail a named call with ([fail] table: name = error).
    std::optional<DWORD> failure(const std::string &call) const;
    void setFailure(const std::string &call, std::optional<DWORD> error);

    // What ends the run (TerminateProcess on the current process, a reset): journals "exit"/"end",
    // flushes and ends the host process with the code, unless a test installed a handler.
    [[noreturn]] void endProcess(UINT code, const std::string &reason);

private:
    void loadProfile();

    fs::path m_folder;
    toml::table m_profile;
    Clock m_clock;
    Journal m_journal;
    Objects m_objects;
    FileSystem m_files;
    Registry m_registry;
    std::shared_ptr<Kernel> m_kernel;
    std::shared_ptr<Devices> m_devices;
    std::u16string m_program;
    std::map<std::string, DWORD> m_failures;
    mutable std::mutex m_mutex;
};

// Each part reads its own tables of the profile when the device is made.
void loadStorageProfile(Device &dev, const toml::table &profile);    // files.cpp:  [storage.'\\Root']
void loadRegistryProfile(Device &dev, const toml::table &profile);   // registry.cpp: [registry.'HKLM\\Key']
std::shared_ptr<Kernel> makeKernel(Device &dev, const toml::table &profile);    // kernel.cpp: [kernel], [memory]
std::shared_ptr<Devices> makeDevices(Device &dev, const toml::table &profile);  // devices.cpp: [flash_disk]

// CreateFileW on a device name ("DSK1:"): true when the name is a device this device serves, with
// *out the handle, or INVALID_HANDLE_VALUE and the last error set when it cannot be opened; false when
// no such device exists (CreateFileW then fails with ERROR_FILE_NOT_FOUND). Defined in devices.cpp.
bool openDeviceName(const std::u16string &name, DWORD access, HANDLE *out);

// The installed device; a system call made without one is a fault of the caller (abort).
Device &dev();
// Stops the making of a device on a bad profile value: a message on stderr and a runtime_error.
[[noreturn]] void badProfile(const std::string &where, const std::string &what);

// The calling thread's last error (each thread has its own, as on CE).
void setLastError(DWORD e);
DWORD lastError();

// Throws nothing; returns a profile value at a dotted path ("kernel.version").
std::optional<std::string> profileString(const toml::table &t, const std::string &path);
std::optional<int64_t> profileInt(const toml::table &t, const std::string &path);

}  // namespace sim
