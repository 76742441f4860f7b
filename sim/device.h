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
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
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

// ---- clock: the device's tick count, and every wait of a device thread ----
//
// Time scale 0 is deterministic device time: time stands still while any device thread runs and,
// when every device thread is blocked in wait() (Sleep, a wait with a time-out, a message wait, a
// queue read), jumps to the earliest deadline among them and the scheduled events. A run then takes
// the same device times whatever the host's load. A time scale above 0 runs in scaled real time
// (1.0 real time, 0.01 a hundred times faster), for watching a run.
//
// Device threads: the thread that installs the device and every thread made by CreateThread. Any
// other host thread may wait too; it is then simply not counted as running while it does not wait.
//
// Everything a waiter looks at (event and mutex states, message queues, ...) is guarded by the
// clock's mutex(): change it with that mutex held and call notifyLocked() before releasing it (or
// call notify() after). A ready() predicate runs with the mutex held, on any thread, and may consume
// what it waits for (it is called until it returns true once).
class Clock {
public:
    explicit Clock(double scale = 0);
    ~Clock();
    void setScale(double scale);   // 0 deterministic; above 0 scaled real time (negative: 0)
    double scale() const { return m_scale; }
    bool deterministic() const { return m_scale == 0; }
    DWORD ticks() const;           // milliseconds of device time since start (plus the profile's base)
    uint64_t now() const;          // the same, 64 bits, without the base
    void setBase(DWORD base) { m_base = base; }
    std::chrono::nanoseconds real(DWORD deviceMs) const;  // device ms as real time (0 when deterministic)

    std::mutex &mutex() { return m_mutex; }
    // Blocks the calling thread until ready() or until ms of device time have passed (INFINITE: no
    // limit; 0: just tests ready()). True when ready() returned true. The lock must hold mutex().
    bool wait(std::unique_lock<std::mutex> &lock, const std::function<bool()> &ready, DWORD ms);
    void sleep(DWORD ms);          // a wait for nothing (Sleep)
    void notifyLocked();           // after a change, with mutex() held: wakes the waiters now ready
    void notify();                 // the same, taking mutex()

    // Runs fn at device time atMs (0 = the start of the run), with mutex() held; fn may change what
    // waiters look at (notifyLocked() follows it) and may end the process, but must not wait.
    // Events due at the same time run in the order they were added.
    void at(uint64_t atMs, std::function<void()> fn);
    // Device threads: the installing thread attaches itself; CreateThread counts the new thread before
    // it starts (threadStarting) and the thread attaches as it begins and detaches as it ends.
    void attachThread();           // the calling thread is a device thread
    void detachThread();           // it is not (any more)
    void detachThreadLocked();     // the same, with mutex() held (a thread's last act)
    void threadStarting();         // a device thread is about to begin: counted as running already
    void attachStartedThread();    // called by that thread as it begins
    // Called when every device thread is blocked and nothing is due, ever (deterministic time): the
    // program can never go on. The default prints a line on stderr and leaves the threads blocked.
    void setStallHandler(std::function<void()> fn);
    // Stops the clock for good: no event runs after it, and waits end (false). The device calls it
    // first when it goes, before its parts.
    void shutdown();

private:
    struct Waiter;
    void advanceLocked();          // deterministic: while no device thread runs, move time on
    void wakeLocked(Waiter *w, bool result);
    void timerLoop();              // scaled real time: runs the events when due
    std::chrono::steady_clock::time_point realAt(uint64_t deviceMs) const;

    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::atomic<double> m_scale;
    std::chrono::steady_clock::time_point m_start;
    std::atomic<uint64_t> m_now{0};      // deterministic device time
    DWORD m_base = 0;
    int m_running = 0;                   // attached device threads not blocked
    std::vector<Waiter *> m_blocked;
    std::multimap<uint64_t, std::function<void()>> m_events;
    std::function<void()> m_stall;
    bool m_stalled = false;
    bool m_stopping = false;
    std::thread m_timer;
};

// ---- journal: DEVICE/run/journal.jsonl, one JSON object per line ----
class Journal {
public:
    void open(const fs::path &file);        // truncates; events are written as they come
    void close();
    // Adds "event" and "t" (tick count) to the fields and appends the line.
    void write(const std::string &event, nlohmann::json fields = nlohmann::json::object());
    // The run's last lines, in order with no other line between them, then the file is closed. The
    // run has ended: a line another thread writes after them is dropped (until the next open).
    using Line = std::pair<std::string, nlohmann::json>;
    void finish(const std::vector<Line> &lines);
    std::vector<nlohmann::json> events() const;                    // all written so far, in order
    std::vector<nlohmann::json> events(const std::string &name) const;
    const fs::path &file() const { return m_file; }
    // Whether events() keeps what was written (the default); a long run that never asks, such as a
    // fuzzer's, turns it off so that memory does not grow with the run.
    void keepEvents(bool keep);
    // Whether a written event goes anywhere (a file, or events()).
    bool recording() const;
private:
    static nlohmann::json lineOf(const std::string &event, const nlohmann::json &fields);
    void appendLocked(const nlohmann::json &line);
    mutable std::mutex m_mutex;
    fs::path m_file;
    FILE *m_out = nullptr;
    bool m_finished = false;
    std::vector<nlohmann::json> m_events;
    bool m_keep = true;
};

// ---- objects: the handle table ----
struct Object {
    virtual ~Object() = default;
    virtual const char *type() const = 0;
};

// A kernel object that WaitForSingleObject can wait on. Its state is guarded by the clock's mutex.
struct Waitable : Object {
    // Called with the clock's mutex held: true when the object is signalled for the caller; consumes
    // the signal when it must (an auto-reset event, a mutex taken).
    virtual bool tryAcquire() = 0;
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
//
// The files live in the host folder DEVICE/fs, or, with the profile's [device] files = 'memory', in
// memory: the store starts as a copy of DEVICE/fs and nothing is written back (a fuzzer's device
// runs thousands of engine passes a second that way). The CE rules are the same for both.
class FileStore;   // files.cpp: where the entries are kept
class FileSystem {
public:
    explicit FileSystem(fs::path root);
    ~FileSystem();
    const fs::path &root() const { return m_root; }
    // From now on the files live in memory, starting as a copy of what the root holds.
    void keepInMemory();
    bool inMemory() const { return m_inMemory; }
    FileStore &store() const { return *m_store; }
    // The host path of a CE path. Existing components are matched without regard to case; the rest
    // are taken as written. Returns nullopt for a path that is not absolute ("\..." or "/...").
    // In memory it is where the file would lie on the host.
    std::optional<fs::path> resolve(const std::u16string &cePath) const;
    bool exists(const std::u16string &cePath) const;
    bool isFile(const std::u16string &cePath) const;
    // Whole files by CE path, for the device's parts and the tests; writing makes missing folders.
    std::optional<std::string> readFile(const std::u16string &cePath) const;
    bool writeFile(const std::u16string &cePath, const std::string &bytes);
    bool makeFolders(const std::u16string &cePath);
    // Moves a folder aside to parked (a host folder outside fs/, or its place in memory) and back:
    // the flash disk's "\HDD" while the disk is unmounted. unpark is false when nothing is parked.
    bool park(const std::u16string &cePath, const fs::path &parked);
    bool unpark(const std::u16string &cePath, const fs::path &parked);
    // In memory: remembers the files as they are, and brings them back (a fuzzer's device starts
    // every input from the same files). False on the host.
    bool saveFiles();
    bool restoreFiles();
    // Storage: free/total from the profile ([storage] tables) else from the host.
    struct Space { ULONGLONG freeToCaller, total, free; };
    bool space(const std::u16string &cePath, Space &out) const;
    // Failure injection, from the profile's [storage."\\Path"] tables.
    bool readOnly(const std::u16string &cePath) const;
    bool full(const std::u16string &cePath) const;
    // readMax: the most bytes one ReadFile gives (0: no limit), a medium that delivers in pieces.
    struct Volume {
        std::u16string root;
        ULONGLONG total = 0, free = 0, readMax = 0;
        bool readOnly = false;
        bool full = false;
    };
    void addVolume(const Volume &v);
    const Volume *volumeOf(const std::u16string &cePath) const;
private:
    fs::path m_root;
    std::vector<Volume> m_volumes;
    std::vector<std::vector<std::u16string>> m_volumeParts;   // each volume's root, split
    std::unique_ptr<FileStore> m_store;
    bool m_inMemory = false;
};

// ---- registry: HKLM tree, loaded from the profile, kept in memory ----
class Registry {
public:
    struct Value { DWORD type = REG_NONE; std::vector<BYTE> data; };
    struct Key : std::enable_shared_from_this<Key> {
        std::string name;                                 // as written
        std::map<std::string, Value> values;              // by lower-case name
        std::map<std::string, std::string> valueNames;    // lower-case -> as written
        std::vector<std::shared_ptr<Key>> subkeys;        // in creation order
        Key *find(const std::string &name) const;         // without regard to case
        void put(const std::string &name, DWORD type, std::vector<BYTE> data);   // under mutex()
        bool deleted = false;                             // removed while a handle may still be open
    };
    Registry();
    Key *root(HKEY predefined);                           // HKLM and the other predefined roots
    // Path below a root with "\" separators; create makes missing keys. Locks the mutex. A removed
    // key is marked deleted and lives on while a handle holds it (shared_from_this); hold mutex()
    // while reading a key's contents.
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
    std::map<uintptr_t, std::shared_ptr<Key>> m_roots;
};

// Parts that live in their own files (kernel.cpp, devices.cpp); made by the device at start.
class Kernel;
class Devices;
class Windows;   // windows.cpp: window manager, message queues, EDIT and BUTTON controls, GDI
class Power;     // power.cpp: power status and notifications, message queues, device notifications
class Libraries; // library.cpp: LoadLibraryW, GetProcAddressW, coredll's memory division
class Heaps;     // heaps.cpp: HeapCreate and its kin

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
    Windows &windows() { return *m_windows; }
    Power &power() { return *m_power; }
    Libraries &libraries() { return *m_libraries; }
    Heaps &heaps() { return *m_heaps; }

    // The running program's CE path ([device] program).
    std::u16string programPath() const;
    void setProgramPath(const std::u16string &p) { m_program = p; }

    // Every CE call of the program passes here first (once per call): it counts the call by name,
    // raises an injected access violation when the profile's [crash] table names this call's number
    // (name = N), and returns the error to fail the call with ([fail] table: name = error, every
    // call; or name = { error = E, nth = N, times = K }, the K calls from the Nth on, K 0 for no end,
    // K 1 when not given).
    std::optional<DWORD> failure(const std::string &call);
    // The same, for a call that fails by leaving the error as the last error: true when it must fail.
    bool injected(const std::string &call);
    void setFailure(const std::string &call, std::optional<DWORD> error, unsigned nth = 0, unsigned times = 1);
    void setCrash(const std::string &call, unsigned nth);   // 0 clears it
    unsigned callCount(const std::string &call) const;

    // What ends the run (TerminateProcess on the current process, a reset, a crash, the runner's
    // time-out): journals "exit" {code} (for an exit or a crash) and "end" {reason, calls: the CE
    // calls made, counted by name}, runs the end handler, flushes and ends the host process, with the
    // handler's exit code when one is set, else with the program's code.
    // Reasons: "exit", "reset", "handed-over", "crash", "timeout". A second call (from another thread
    // while the first runs) waits for the first to end the process.
    [[noreturn]] void endProcess(UINT code, const std::string &reason);
    void setEndHandler(std::function<int(UINT code, const std::string &reason)> fn);
    // Set by the runner: the run ends ("handed-over") when the kernel has accepted the image request
    // and the window thread next waits for a message.
    void setEndAtHandOver(bool on) { m_endAtHandOver = on; }
    bool endAtHandOver() const { return m_endAtHandOver; }

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
    std::shared_ptr<Windows> m_windows;
    std::shared_ptr<Power> m_power;
    std::shared_ptr<Libraries> m_libraries;
    std::shared_ptr<Heaps> m_heaps;
    std::u16string m_program;
    struct Injected {
        DWORD error = 0;
        unsigned nth = 0;     // 0: every call
        unsigned times = 1;   // from the nth on; 0: no end
        bool covers(unsigned n) const { return nth == 0 || (n >= nth && (times == 0 || n - nth < times)); }
    };
    std::map<std::string, Injected> m_failures;
    std::map<std::string, unsigned> m_crashes;
    std::map<std::string, unsigned> m_calls;
    std::function<int(UINT, const std::string &)> m_endHandler;
    std::atomic<bool> m_ending{false};
    bool m_endAtHandOver = false;
    mutable std::mutex m_mutex;
};

// Each part reads its own tables of the profile when the device is made.
void loadStorageProfile(Device &dev, const toml::table &profile);    // files.cpp:  [storage.'\\Root']
void loadRegistryProfile(Device &dev, const toml::table &profile);   // registry.cpp: [registry.'HKLM\\Key']
std::shared_ptr<Kernel> makeKernel(Device &dev, const toml::table &profile);    // kernel.cpp: [kernel], [memory]
std::shared_ptr<Devices> makeDevices(Device &dev, const toml::table &profile);  // devices.cpp: [flash_disk]
std::shared_ptr<Windows> makeWindows(Device &dev, const toml::table &profile);  // windows.cpp: [screen], [input]
std::shared_ptr<Power> makePower(Device &dev, const toml::table &profile);      // power.cpp: [power], [card]
std::shared_ptr<Libraries> makeLibraries(Device &dev, const toml::table &profile);  // library.cpp: [library], [memory.division]
std::shared_ptr<Heaps> makeHeaps(Device &dev, const toml::table &profile);      // heaps.cpp: [memory] heap_*

// Raises an access violation on the calling thread (an injected [crash]); exceptions.cpp turns it,
// like a real fault, into the exception record, runs the guards' filters and ends the process.
[[noreturn]] void raiseAccessViolation();

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
