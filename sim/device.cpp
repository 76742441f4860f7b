// The device itself: profile, clock, journal, handle table, last error.
#include "device.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <algorithm>
#include <thread>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace sim {

// ---------------------------------------------------------------- text helpers

std::u16string wide(const WCHAR *s) {
    if (!s) return {};
    std::u16string out;
    while (*s) out.push_back(*s++);
    return out;
}

std::string utf8(const std::u16string &s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        uint32_t c = s[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (s[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;
        }
        if (c < 0x80) {
            out.push_back(char(c));
        } else if (c < 0x800) {
            out.push_back(char(0xC0 | (c >> 6)));
            out.push_back(char(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out.push_back(char(0xE0 | (c >> 12)));
            out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(char(0x80 | (c & 0x3F)));
        } else {
            out.push_back(char(0xF0 | (c >> 18)));
            out.push_back(char(0x80 | ((c >> 12) & 0x3F)));
            out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(char(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

std::string utf8(const WCHAR *s) { return utf8(wide(s)); }

std::u16string fromUtf8(const std::string &s) {
    std::u16string out;
    size_t i = 0;
    while (i < s.size()) {
        unsigned char b = s[i];
        uint32_t c;
        int extra;
        if (b < 0x80) { c = b; extra = 0; }
        else if ((b & 0xE0) == 0xC0) { c = b & 0x1F; extra = 1; }
        else if ((b & 0xF0) == 0xE0) { c = b & 0x0F; extra = 2; }
        else if ((b & 0xF8) == 0xF0) { c = b & 0x07; extra = 3; }
        else { out.push_back(0xFFFD); ++i; continue; }
        if (i + extra >= s.size() + (extra ? 0 : 1) && extra) { out.push_back(0xFFFD); break; }
        bool ok = true;
        for (int k = 1; k <= extra; ++k) {
            unsigned char cb = s[i + k];
            if ((cb & 0xC0) != 0x80) { ok = false; break; }
            c = (c << 6) | (cb & 0x3F);
        }
        if (!ok) { out.push_back(0xFFFD); ++i; continue; }
        i += extra + 1;
        if (c >= 0x10000) {
            c -= 0x10000;
            out.push_back(char16_t(0xD800 + (c >> 10)));
            out.push_back(char16_t(0xDC00 + (c & 0x3FF)));
        } else {
            out.push_back(char16_t(c));
        }
    }
    return out;
}

std::string lower(const std::string &s) {
    std::string out(s);
    for (char &c : out)
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
    return out;
}

std::string hexBytes(const void *data, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    const unsigned char *p = static_cast<const unsigned char *>(data);
    for (size_t i = 0; i < n && p; ++i) {
        out.push_back(digits[p[i] >> 4]);
        out.push_back(digits[p[i] & 15]);
    }
    return out;
}

std::string hexCode(DWORD code) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%08X", code);
    return buf;
}

// ---------------------------------------------------------------- profile helpers

static const toml::node *profileNode(const toml::table &t, const std::string &path) {
    const toml::node *node = &t;
    std::stringstream ss(path);
    std::string part;
    while (std::getline(ss, part, '.')) {
        const toml::table *tbl = node ? node->as_table() : nullptr;
        if (!tbl) return nullptr;
        node = tbl->get(part);
    }
    return node;
}

std::optional<std::string> profileString(const toml::table &t, const std::string &path) {
    const toml::node *n = profileNode(t, path);
    if (!n) return std::nullopt;
    if (auto s = n->value<std::string>()) return *s;
    return std::nullopt;
}

std::optional<int64_t> profileInt(const toml::table &t, const std::string &path) {
    const toml::node *n = profileNode(t, path);
    if (!n) return std::nullopt;
    if (auto v = n->value<int64_t>()) return *v;
    if (auto b = n->value<bool>()) return *b ? 1 : 0;
    return std::nullopt;
}

// ---------------------------------------------------------------- clock

struct Clock::Waiter {
    const std::function<bool()> *ready;
    uint64_t deadline;          // device ms; UINT64_MAX: none
    bool counted;               // an attached device thread: counted in m_running while it runs
    bool done = false;
    bool result = false;
};

namespace {
constexpr uint64_t kNever = UINT64_MAX;
thread_local Clock *t_attached = nullptr;   // the clock the calling thread is a device thread of
}  // namespace

Clock::Clock(double scale) : m_scale(scale > 0 ? scale : 0), m_start(std::chrono::steady_clock::now()) {}

Clock::~Clock() {
    shutdown();
    if (t_attached == this) t_attached = nullptr;
}

void Clock::shutdown() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        m_events.clear();
    }
    m_cv.notify_all();
    if (m_timer.joinable() && m_timer.get_id() != std::this_thread::get_id()) m_timer.join();
}

void Clock::setScale(double scale) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const uint64_t at = now();
    m_scale = scale > 0 ? scale : 0;
    // Device time goes on from where it is.
    m_now = at;
    m_start = std::chrono::steady_clock::now() -
              std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                  std::chrono::duration<double, std::milli>(double(at) * (m_scale > 0 ? m_scale.load() : 0)));
    if (m_scale > 0 && !m_events.empty() && !m_timer.joinable()) m_timer = std::thread(&Clock::timerLoop, this);
    lock.unlock();
    m_cv.notify_all();
}

uint64_t Clock::now() const {
    if (m_scale == 0) return m_now;
    auto real = std::chrono::steady_clock::now() - m_start;
    return uint64_t(std::chrono::duration<double, std::milli>(real).count() / m_scale.load());
}

DWORD Clock::ticks() const { return DWORD(m_base + now()); }

std::chrono::nanoseconds Clock::real(DWORD deviceMs) const {
    return std::chrono::nanoseconds(int64_t(double(deviceMs) * 1e6 * m_scale.load()));
}

std::chrono::steady_clock::time_point Clock::realAt(uint64_t deviceMs) const {
    return m_start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         std::chrono::duration<double, std::milli>(double(deviceMs) * m_scale.load()));
}

void Clock::wakeLocked(Waiter *w, bool result) {
    w->done = true;
    w->result = result;
    if (w->counted) ++m_running;
    m_blocked.erase(std::find(m_blocked.begin(), m_blocked.end(), w));
}

void Clock::notifyLocked() {
    // Waiters are offered the change in the order they began to wait.
    for (size_t i = 0; i < m_blocked.size();) {
        Waiter *w = m_blocked[i];
        if ((*w->ready)()) {
            wakeLocked(w, true);
        } else {
            ++i;
        }
    }
    m_cv.notify_all();
}

void Clock::notify() {
    std::lock_guard<std::mutex> lock(m_mutex);
    notifyLocked();
}

void Clock::at(uint64_t atMs, std::function<void()> fn) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.emplace(atMs, std::move(fn));
    if (m_scale > 0 && !m_timer.joinable()) m_timer = std::thread(&Clock::timerLoop, this);
    m_cv.notify_all();
}

void Clock::advanceLocked() {
    // Time moves only for someone who waits: with no device thread left, nothing happens any more.
    while (m_scale == 0 && m_running == 0 && !m_blocked.empty() && !m_stopping) {
        uint64_t next = kNever;
        for (Waiter *w : m_blocked) next = std::min(next, w->deadline);
        if (!m_events.empty()) next = std::min(next, m_events.begin()->first);
        if (next == kNever) {
            if (m_stalled) return;
            m_stalled = true;   // reported once; a host thread may still wake someone
            if (m_stall) {
                m_stall();
            } else {
                std::fprintf(stderr, "sim: every device thread waits and nothing is due: the program can "
                                     "never go on (device time %llu ms)\n", (unsigned long long)m_now.load());
            }
            return;
        }
        if (next > m_now) m_now = next;
        // Events due now, in order; each may wake waiters.
        while (!m_events.empty() && m_events.begin()->first <= m_now) {
            auto fn = std::move(m_events.begin()->second);
            m_events.erase(m_events.begin());
            fn();
            notifyLocked();
        }
        for (size_t i = 0; i < m_blocked.size();) {
            Waiter *w = m_blocked[i];
            if (w->deadline <= m_now) {
                wakeLocked(w, false);
            } else {
                ++i;
            }
        }
        m_cv.notify_all();
    }
}

bool Clock::wait(std::unique_lock<std::mutex> &lock, const std::function<bool()> &ready, DWORD ms) {
    if (ready()) return true;
    if (ms == 0) return false;
    const bool counted = t_attached == this;
    Waiter w{&ready, ms == INFINITE ? kNever : now() + ms, counted};
    m_blocked.push_back(&w);
    m_stalled = false;
    if (m_scale == 0) {
        if (counted) --m_running;
        advanceLocked();
        m_cv.wait(lock, [&] { return w.done || m_stopping; });
        if (!w.done) m_blocked.erase(std::find(m_blocked.begin(), m_blocked.end(), &w));
        return w.result;
    }
    // Scaled real time: the deadline is a point of real time.
    const auto due = realAt(w.deadline);
    while (!w.done && !m_stopping) {
        if (w.deadline == kNever) {
            m_cv.wait(lock);
        } else if (m_cv.wait_until(lock, due) == std::cv_status::timeout && !w.done) {
            break;
        }
    }
    if (!w.done) {
        m_blocked.erase(std::find(m_blocked.begin(), m_blocked.end(), &w));
        return false;
    }
    if (counted) --m_running;   // undo the count wakeLocked added: real time does not count threads
    return w.result;
}

void Clock::sleep(DWORD ms) {
    if (ms == 0) return;
    static const std::function<bool()> never = [] { return false; };
    std::unique_lock<std::mutex> lock(m_mutex);
    wait(lock, never, ms);
}

void Clock::timerLoop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping && m_scale > 0) {
        if (m_events.empty()) {
            m_cv.wait(lock);
            continue;
        }
        const uint64_t first = m_events.begin()->first;
        if (now() < first) {
            m_cv.wait_until(lock, realAt(first));
            continue;
        }
        auto fn = std::move(m_events.begin()->second);
        m_events.erase(m_events.begin());
        fn();
        notifyLocked();
    }
}

void Clock::attachThread() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (t_attached == this) return;
    t_attached = this;
    ++m_running;
}

void Clock::detachThread() {
    std::lock_guard<std::mutex> lock(m_mutex);
    detachThreadLocked();
}

void Clock::detachThreadLocked() {
    if (t_attached != this) return;
    t_attached = nullptr;
    --m_running;
    advanceLocked();
}

void Clock::threadStarting() {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_running;
}

void Clock::attachStartedThread() { t_attached = this; }

void Clock::setStallHandler(std::function<void()> fn) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stall = std::move(fn);
}

// ---------------------------------------------------------------- journal

void Journal::open(const fs::path &file) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_out) std::fclose(m_out);
    m_file = file;
    m_events.clear();
    m_finished = false;
    std::error_code ec;
    fs::create_directories(file.parent_path(), ec);
    m_out = std::fopen(file.c_str(), "w");
}

void Journal::close() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_out) std::fclose(m_out);
    m_out = nullptr;
}

nlohmann::json Journal::lineOf(const std::string &event, const nlohmann::json &fields) {
    nlohmann::json line = nlohmann::json::object();
    line["event"] = event;
    Device *dev = Device::current();
    line["t"] = dev ? dev->clock().ticks() : 0;
    for (auto it = fields.begin(); it != fields.end(); ++it) line[it.key()] = it.value();
    return line;
}

bool Journal::recording() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_keep || m_out;
}

void Journal::appendLocked(const nlohmann::json &line) {
    if (m_finished) return;
    if (m_keep) m_events.push_back(line);
    if (m_out) {
        std::string text = line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        std::fprintf(m_out, "%s\n", text.c_str());
        std::fflush(m_out);
    }
}

void Journal::write(const std::string &event, nlohmann::json fields) {
    if (!recording()) return;
    nlohmann::json line = lineOf(event, fields);
    std::lock_guard<std::mutex> lock(m_mutex);
    appendLocked(line);
}

void Journal::finish(const std::vector<Line> &lines) {
    std::vector<nlohmann::json> made;
    for (const Line &l : lines) made.push_back(lineOf(l.first, l.second));
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const nlohmann::json &line : made) appendLocked(line);
    m_finished = true;
    if (m_out) std::fclose(m_out);
    m_out = nullptr;
}

void Journal::keepEvents(bool keep) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_keep = keep;
    if (!keep) m_events.clear();
}

std::vector<nlohmann::json> Journal::events() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
}

std::vector<nlohmann::json> Journal::events(const std::string &name) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<nlohmann::json> out;
    for (const auto &e : m_events)
        if (e.value("event", "") == name) out.push_back(e);
    return out;
}

// ---------------------------------------------------------------- handle table

HANDLE Objects::add(std::shared_ptr<Object> obj) {
    std::lock_guard<std::mutex> lock(m_mutex);
    uintptr_t h = m_next;
    m_next += 4;
    m_table[h] = std::move(obj);
    return reinterpret_cast<HANDLE>(h);
}

std::shared_ptr<Object> Objects::get(HANDLE h) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_table.find(reinterpret_cast<uintptr_t>(h));
    return it == m_table.end() ? nullptr : it->second;
}

bool Objects::close(HANDLE h) {
    std::shared_ptr<Object> gone;   // destroyed outside the lock
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_table.find(reinterpret_cast<uintptr_t>(h));
    if (it == m_table.end()) return false;
    gone = std::move(it->second);
    m_table.erase(it);
    return true;
}

size_t Objects::count() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_table.size();
}

// ---------------------------------------------------------------- last error

static thread_local DWORD t_lastError = 0;
void setLastError(DWORD e) { t_lastError = e; }
DWORD lastError() { return t_lastError; }

// ---------------------------------------------------------------- the device

Device &dev() {
    Device *d = Device::current();
    if (!d) {
        std::fprintf(stderr, "sim: a system call was made with no simulated device installed\n");
        std::abort();
    }
    return *d;
}

[[noreturn]] void badProfile(const std::string &where, const std::string &what) {
    std::string text = where + ": " + what;
    std::fprintf(stderr, "sim: device.toml: %s\n", text.c_str());
    throw std::runtime_error("device.toml: " + text);
}

static std::atomic<Device *> g_current{nullptr};

// The text with each line that is only a comment of printable ASCII made empty (its newline kept,
// so an error's line and column stay where they were). Such a line is a comment wherever it stands
// unless a multi-line string may hold it; a text with one is left as it is. The parser spends most
// of its time on comments, and a profile is mostly comments.
static std::string blankCommentLines(const std::string &text) {
    if (text.find("'''") != std::string::npos || text.find("\"\"\"") != std::string::npos) return text;
    std::string out;
    out.reserve(text.size());
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        size_t first = text.find_first_not_of(" \t", at);
        bool blank = first < end && text[first] == '#';
        for (size_t i = first; blank && i < end; ++i) {
            const unsigned char c = static_cast<unsigned char>(text[i]);
            blank = (c >= 0x20 && c < 0x7F) || c == '\t' || (c == '\r' && i + 1 == end);
        }
        if (!blank) out.append(text, at, end - at);
        if (end < text.size()) out.push_back('\n');
        at = end + 1;
    }
    return out;
}

// The whole of a file; false when it cannot be read.
static bool readWhole(const fs::path &file, std::string &text) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buf[16384];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0) text.append(buf, size_t(n));
    ::close(fd);
    return n == 0;
}

Device *Device::current() { return g_current.load(); }

Device::Device(const fs::path &folder, const fs::path &journalFile)
    : m_folder(folder), m_files(folder / "fs") {
    std::error_code ec;
    fs::create_directories(folder / "fs", ec);
    fs::create_directories(folder / "run", ec);
    fs::path profileFile = folder / "device.toml";
    if (fs::exists(profileFile)) {
        try {
            // Read here with plain reads: parse_file's stream sets up its locale machinery first,
            // which costs a device more than its whole profile's reading.
            std::string text;
            if (readWhole(profileFile, text)) m_profile = toml::parse(blankCommentLines(text), profileFile.string());
            else m_profile = toml::parse_file(profileFile.string());   // its own error for the file
        } catch (const toml::parse_error &err) {
            std::fprintf(stderr, "sim: %s: %s\n", profileFile.c_str(), std::string(err.description()).c_str());
            throw std::runtime_error(profileFile.string() + ": " + std::string(err.description()));
        }
    }
    m_journal.open(journalFile.empty() ? folder / "run" / "journal.jsonl" : journalFile);
    loadProfile();
}

Device::~Device() {
    uninstall();
    m_clock.shutdown();
    m_journal.close();
}

void Device::install() {
    g_current = this;
    m_clock.attachThread();
}

void Device::uninstall() {
    m_clock.detachThread();
    Device *self = this;
    g_current.compare_exchange_strong(self, nullptr);
}

// "[fail] Name = error" or "[fail] Name = { error = E, nth = N, times = K }"; "[crash] Name = N".
static void loadInjections(const toml::table &profile, std::map<std::string, unsigned> &crashes,
                           const std::function<void(const std::string &, DWORD, unsigned, unsigned)> &fail) {
    if (const toml::node *node = profile.get("fail")) {
        const toml::table *t = node->as_table();
        if (!t) badProfile("fail", "must be a table of CE call names");
        for (auto &&[key, value] : *t) {
            const std::string name(key.str());
            if (auto v = value.value<int64_t>(); v && value.is_integer()) {
                if (*v < 0 || *v > int64_t(0xFFFFFFFFu)) badProfile("fail." + name, "must be an error code");
                fail(name, DWORD(*v), 0, 0);
            } else if (const toml::table *entry = value.as_table()) {
                auto number = [&](const char *k, int64_t fallback) {
                    const toml::node *n = entry->get(k);
                    return n ? n->value<int64_t>() : std::optional<int64_t>(fallback);
                };
                auto error = entry->get("error") ? entry->get("error")->value<int64_t>() : std::nullopt;
                auto nth = number("nth", 0), times = number("times", 1);
                if (!error || *error < 0 || *error > int64_t(0xFFFFFFFFu))
                    badProfile("fail." + name + ".error", "must be an error code");
                if (!nth || *nth < 0) badProfile("fail." + name + ".nth", "must be a call number from 1");
                if (!times || *times < 0) badProfile("fail." + name + ".times", "must be a count, 0 for no end");
                for (auto &&[k, v2] : *entry)
                    if (k.str() != "error" && k.str() != "nth" && k.str() != "times")
                        badProfile("fail." + name + "." + std::string(k.str()), "unknown key (error, nth, times)");
                fail(name, DWORD(*error), unsigned(*nth), unsigned(*times));
            } else {
                badProfile("fail." + name, "must be an error code or { error = E, nth = N, times = K }");
            }
        }
    }
    if (const toml::node *node = profile.get("crash")) {
        const toml::table *t = node->as_table();
        if (!t) badProfile("crash", "must be a table of CE call names");
        for (auto &&[key, value] : *t) {
            auto v = value.value<int64_t>();
            if (!v || !value.is_integer() || *v < 1) badProfile("crash." + std::string(key.str()), "must be a call number from 1");
            crashes[std::string(key.str())] = unsigned(*v);
        }
    }
}

void Device::loadProfile() {
    m_program = fromUtf8(profileString(m_profile, "device.program").value_or("\\My Flash Disk\\tarsk.exe"));
    if (const toml::node *n = m_profile.at_path("device.time_scale").node()) {
        auto scale = n->value<double>();
        if (!scale || *scale < 0) badProfile("device.time_scale", "must be a number, 0 or above");
        m_clock.setScale(*scale);
    }
    if (auto base = profileInt(m_profile, "device.tick_base")) m_clock.setBase(DWORD(*base));
    loadInjections(m_profile, m_crashes, [this](const std::string &name, DWORD error, unsigned nth, unsigned times) {
        m_failures[name] = Injected{error, nth, times};
    });
    loadStorageProfile(*this, m_profile);
    loadRegistryProfile(*this, m_profile);
    m_kernel = makeKernel(*this, m_profile);
    m_libraries = makeLibraries(*this, m_profile);   // after the kernel: the division's defaults
    m_heaps = makeHeaps(*this, m_profile);
    m_devices = makeDevices(*this, m_profile);
    m_windows = makeWindows(*this, m_profile);
    m_power = makePower(*this, m_profile);
}

std::u16string Device::programPath() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_program;
}

std::optional<DWORD> Device::failure(const std::string &call) {
    unsigned n;
    bool crash;
    std::optional<DWORD> error;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        n = ++m_calls[call];
        auto c = m_crashes.find(call);
        crash = c != m_crashes.end() && c->second == n;
        auto f = m_failures.find(call);
        if (f != m_failures.end() && f->second.covers(n)) error = f->second.error;
    }
    if (crash) raiseAccessViolation();
    return error;
}

bool Device::injected(const std::string &call) {
    std::optional<DWORD> error = failure(call);
    if (error) setLastError(*error);
    return error.has_value();
}

void Device::setFailure(const std::string &call, std::optional<DWORD> error, unsigned nth, unsigned times) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (error) m_failures[call] = Injected{*error, nth, times};
    else m_failures.erase(call);
}

void Device::setCrash(const std::string &call, unsigned nth) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (nth) m_crashes[call] = nth;
    else m_crashes.erase(call);
}

unsigned Device::callCount(const std::string &call) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_calls.find(call);
    return it == m_calls.end() ? 0 : it->second;
}

void Device::setEndHandler(std::function<int(UINT, const std::string &)> fn) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_endHandler = std::move(fn);
}

void Device::endProcess(UINT code, const std::string &reason) {
    if (m_ending.exchange(true)) {
        // Another thread is ending the process; it exits shortly.
        for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    // The process ended with a code when the program exited or crashed; a reset, a hand-over or a
    // time-out ends the run without one.
    // The last lines go in together: another thread of the program may still write meanwhile, and
    // nothing it writes comes after the end.
    std::vector<Journal::Line> last;
    if (reason == "exit" || reason == "crash") last.push_back({"exit", {{"code", code}}});
    nlohmann::json calls = nlohmann::json::object();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto &[name, count] : m_calls) calls[name] = count;
    }
    last.push_back({"end", {{"reason", reason}, {"calls", calls}}});
    m_journal.finish(last);
    std::function<int(UINT, const std::string &)> handler;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        handler = m_endHandler;
    }
    int exitCode = handler ? handler(code, reason) : int(code);
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(exitCode);
}

}  // namespace sim
