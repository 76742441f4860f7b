// Kernel objects of the simulated device: last error, tick count and sleep, handles, threads,
// events, mutexes (named ones shared between processes on the same device folder), waits,
// critical sections, interlocked operations, process termination, the module file name.
#include "device.h"

#include <condition_variable>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

using namespace sim;

namespace {

struct EventObject : Waitable {
    bool manual = false;
    bool signalled = false;
    const char *type() const override { return "event"; }
    bool tryAcquire() override {
        if (!signalled) return false;
        if (!manual) signalled = false;
        return true;
    }
};

struct ThreadObject : Waitable {
    bool done = false;
    DWORD exitCode = 259;  // STILL_ACTIVE
    int priority = THREAD_PRIORITY_NORMAL;
    DWORD id = 0;
    const char *type() const override { return "thread"; }
    bool tryAcquire() override { return done; }
};

// A mutex of this process; with a name it is also visible to other processes on the same
// device folder through a lock file under run/mutex/.
struct MutexObject : Waitable {
    std::thread::id owner;
    int depth = 0;
    int lockFd = -1;   // shared lock held while the handle is open: marks that the name exists
    const char *type() const override { return "mutex"; }
    bool tryAcquire() override {
        auto me = std::this_thread::get_id();
        if (depth > 0 && owner != me) return false;
        owner = me;
        ++depth;
        return true;
    }
    ~MutexObject() override {
        if (lockFd >= 0) ::close(lockFd);
    }
};

std::mutex g_namedMutex;
std::map<std::u16string, std::weak_ptr<MutexObject>> g_named;   // this process's named mutexes

std::string mutexFileName(const std::u16string &name) {
    std::string out;
    for (char c : lower(utf8(name)))
        out.push_back((std::isalnum((unsigned char)c) || c == '_' || c == '-') ? c : '_');
    return out + ".lock";
}

std::atomic<DWORD> g_nextThreadId{0x100};
thread_local DWORD t_threadId = 0;
thread_local int t_priority = THREAD_PRIORITY_NORMAL;

}  // namespace

DWORD WINAPI GetLastError(void) { return sim::lastError(); }
void WINAPI SetLastError(DWORD e) { sim::setLastError(e); }
DWORD WINAPI GetTickCount(void) { return dev().clock().ticks(); }
void WINAPI Sleep(DWORD ms) {
    dev().failure("Sleep");
    dev().clock().sleep(ms);
}

BOOL WINAPI CloseHandle(HANDLE h) {
    // A static object of the program may close its handle after the device has gone (at exit).
    Device *d = Device::current();
    if (!d || !d->objects().close(h)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return TRUE;
}

// ---------------------------------------------------------------- critical sections

// An owner and a recursion count. A thread that must wait for the section waits through the device's
// clock, so that it counts as blocked and device time can move on (deterministic time would
// otherwise stand still while it waits); with no device installed it waits on the host.
namespace {
struct CriticalSection {
    std::mutex mutex;
    std::condition_variable released;
    DWORD owner = 0;
    unsigned count = 0;
    unsigned waiting = 0;
    bool tryTake(DWORD self) {   // with mutex held
        if (owner != 0 && owner != self) return false;
        owner = self;
        ++count;
        return true;
    }
};
CriticalSection *sectionOf(LPCRITICAL_SECTION cs) { return static_cast<CriticalSection *>(cs->impl); }
}  // namespace

void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION cs) { cs->impl = new CriticalSection; }
void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION cs) {
    delete sectionOf(cs);
    cs->impl = nullptr;
}
void WINAPI EnterCriticalSection(LPCRITICAL_SECTION cs) {
    CriticalSection *c = sectionOf(cs);
    const DWORD self = GetCurrentThreadId();
    {
        std::lock_guard<std::mutex> hold(c->mutex);
        if (c->tryTake(self)) return;
        ++c->waiting;
    }
    bool taken = false;
    if (Device *d = Device::current()) {
        std::unique_lock<std::mutex> lock(d->clock().mutex());
        taken = d->clock().wait(lock, [&] {
            std::lock_guard<std::mutex> hold(c->mutex);
            return c->tryTake(self);
        }, INFINITE);
    }
    std::unique_lock<std::mutex> hold(c->mutex);
    if (!taken) c->released.wait(hold, [&] { return c->tryTake(self); });   // no device, or it went
    --c->waiting;
}
void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION cs) {
    CriticalSection *c = sectionOf(cs);
    bool wake;
    {
        std::lock_guard<std::mutex> hold(c->mutex);
        if (c->owner != GetCurrentThreadId() || c->count == 0) return;   // not held by this thread
        if (--c->count == 0) c->owner = 0;
        wake = c->count == 0 && c->waiting > 0;
    }
    if (!wake) return;
    c->released.notify_all();
    if (Device *d = Device::current()) d->clock().notify();
}

// ---------------------------------------------------------------- interlocked

LONG WINAPI InterlockedCompareExchange(LONG volatile *dest, LONG exchange, LONG comperand) {
    LONG expected = comperand;
    __atomic_compare_exchange_n(dest, &expected, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return expected;   // the initial value, as the platform documents
}
LONG WINAPI InterlockedIncrement(LONG volatile *p) { return __atomic_add_fetch(p, 1, __ATOMIC_SEQ_CST); }
LONG WINAPI InterlockedDecrement(LONG volatile *p) { return __atomic_sub_fetch(p, 1, __ATOMIC_SEQ_CST); }
LONG WINAPI InterlockedExchange(LONG volatile *p, LONG v) { return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST); }

// ---------------------------------------------------------------- threads

HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE start, LPVOID param,
                           DWORD, LPDWORD threadId) {
    Device &d = dev();
    if (d.injected("CreateThread")) return nullptr;
    auto obj = std::make_shared<ThreadObject>();
    obj->id = g_nextThreadId.fetch_add(4);
    if (threadId) *threadId = obj->id;
    HANDLE h = d.objects().add(obj);
    Clock &clock = d.clock();
    clock.threadStarting();   // counted as running from now, so device time waits for it
    std::thread([obj, start, param, &clock] {
        t_threadId = obj->id;
        clock.attachStartedThread();
        DWORD code = start(param);
        // One locked step: once a waiter can see the thread done, the device may go at any moment.
        std::lock_guard<std::mutex> lock(clock.mutex());
        obj->exitCode = code;
        obj->done = true;
        clock.notifyLocked();
        clock.detachThreadLocked();
    }).detach();
    return h;
}

BOOL WINAPI SetThreadPriority(HANDLE h, int priority) {
    if (dev().injected("SetThreadPriority")) return FALSE;
    auto t = dev().objects().getAs<ThreadObject>(h);
    if (h == GetCurrentThread()) {
        t_priority = priority;
        return TRUE;
    }
    if (!t) { SetLastError(ERROR_INVALID_HANDLE); return FALSE; }
    t->priority = priority;
    return TRUE;
}

int WINAPI GetThreadPriority(HANDLE h) {
    if (h == GetCurrentThread()) return t_priority;
    auto t = dev().objects().getAs<ThreadObject>(h);
    return t ? t->priority : THREAD_PRIORITY_NORMAL;
}

BOOL WINAPI GetExitCodeThread(HANDLE h, LPDWORD code) {
    auto t = dev().objects().getAs<ThreadObject>(h);
    if (!t || !code) { SetLastError(ERROR_INVALID_HANDLE); return FALSE; }
    std::lock_guard<std::mutex> lock(dev().clock().mutex());
    *code = t->exitCode;
    return TRUE;
}

HANDLE WINAPI GetCurrentThread(void) { return reinterpret_cast<HANDLE>(intptr_t(-2)); }
DWORD WINAPI GetCurrentThreadId(void) {
    if (!t_threadId) t_threadId = g_nextThreadId.fetch_add(4);
    return t_threadId;
}
HANDLE WINAPI GetCurrentProcess(void) { return reinterpret_cast<HANDLE>(intptr_t(-1)); }
DWORD WINAPI GetCurrentProcessId(void) { return DWORD(::getpid()); }

// ---------------------------------------------------------------- events and mutexes

HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES, BOOL manual, BOOL initial, LPCWSTR) {
    if (dev().injected("CreateEventW")) return nullptr;
    auto e = std::make_shared<EventObject>();
    e->manual = manual != FALSE;
    e->signalled = initial != FALSE;
    SetLastError(0);
    return dev().objects().add(e);
}

static BOOL setEvent(HANDLE h, bool state) {
    auto e = dev().objects().getAs<EventObject>(h);
    if (!e) { SetLastError(ERROR_INVALID_HANDLE); return FALSE; }
    Clock &clock = dev().clock();
    std::lock_guard<std::mutex> lock(clock.mutex());
    e->signalled = state;
    if (state) clock.notifyLocked();
    return TRUE;
}
BOOL WINAPI SetEvent(HANDLE h) { return setEvent(h, true); }
BOOL WINAPI ResetEvent(HANDLE h) { return setEvent(h, false); }

HANDLE WINAPI CreateMutexW(LPSECURITY_ATTRIBUTES, BOOL initialOwner, LPCWSTR lpName) {
    if (dev().injected("CreateMutexW")) return nullptr;
    std::u16string name = sim::wide(lpName);
    std::shared_ptr<MutexObject> m;
    bool exists = false;
    if (!name.empty()) {
        std::lock_guard<std::mutex> lock(g_namedMutex);
        auto it = g_named.find(name);
        if (it != g_named.end()) m = it->second.lock();
        if (m) {
            exists = true;
        } else {
            m = std::make_shared<MutexObject>();
            // Another process on the same device holds the name while it keeps a shared lock.
            fs::path dir = dev().runDir() / "mutex";
            std::error_code ec;
            fs::create_directories(dir, ec);
            fs::path file = dir / mutexFileName(name);
            int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
            if (fd >= 0) {
                if (::flock(fd, LOCK_EX | LOCK_NB) != 0) exists = true;   // someone holds it shared
                ::flock(fd, LOCK_SH);
                m->lockFd = fd;
            }
            g_named[name] = m;
        }
    } else {
        m = std::make_shared<MutexObject>();
    }
    if (initialOwner && !exists) {
        std::lock_guard<std::mutex> lock(dev().clock().mutex());
        m->tryAcquire();
    }
    HANDLE h = dev().objects().add(m);
    SetLastError(exists ? ERROR_ALREADY_EXISTS : 0);
    return h;
}

BOOL WINAPI ReleaseMutex(HANDLE h) {
    auto m = dev().objects().getAs<MutexObject>(h);
    if (!m) { SetLastError(ERROR_INVALID_HANDLE); return FALSE; }
    Clock &clock = dev().clock();
    std::lock_guard<std::mutex> lock(clock.mutex());
    if (m->depth == 0 || m->owner != std::this_thread::get_id()) {
        SetLastError(288);  // ERROR_NOT_OWNER
        return FALSE;
    }
    if (--m->depth == 0) clock.notifyLocked();
    return TRUE;
}

DWORD WINAPI WaitForSingleObject(HANDLE h, DWORD ms) {
    Device &d = dev();
    if (d.injected("WaitForSingleObject")) return WAIT_FAILED;
    auto w = d.objects().getAs<Waitable>(h);
    if (!w) {
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    std::unique_lock<std::mutex> lock(d.clock().mutex());
    return d.clock().wait(lock, [&w] { return w->tryAcquire(); }, ms) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}

// ---------------------------------------------------------------- process

BOOL WINAPI TerminateProcess(HANDLE process, UINT code) {
    dev().failure("TerminateProcess");
    if (process != GetCurrentProcess()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    dev().endProcess(code, "exit");
}

DWORD WINAPI GetModuleFileNameW(HMODULE, LPWSTR out, DWORD size) {
    std::u16string path = dev().programPath();
    if (!out || size == 0) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    // As CE: the name is cut to the buffer and terminated; the result is the length copied.
    DWORD n = DWORD(std::min<size_t>(path.size(), size - 1));
    std::memcpy(out, path.data(), n * sizeof(WCHAR));
    out[n] = 0;
    if (n < path.size()) SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return n;
}
