// The device itself: profile, clock, journal, handle table, last error.
#include "device.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

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

Clock::Clock(double scale) : m_scale(scale), m_start(std::chrono::steady_clock::now()) {}

void Clock::setScale(double scale) { m_scale = scale > 0 ? scale : 1.0; }

DWORD Clock::ticks() const {
    auto real = std::chrono::steady_clock::now() - m_start;
    double ms = std::chrono::duration<double, std::milli>(real).count() / m_scale.load();
    return m_base + DWORD(uint64_t(ms));
}

std::chrono::nanoseconds Clock::real(DWORD deviceMs) const {
    return std::chrono::nanoseconds(int64_t(double(deviceMs) * 1e6 * m_scale.load()));
}

void Clock::sleep(DWORD ms) { std::this_thread::sleep_for(real(ms)); }

// ---------------------------------------------------------------- journal

void Journal::open(const fs::path &file) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_out) std::fclose(m_out);
    m_file = file;
    m_events.clear();
    std::error_code ec;
    fs::create_directories(file.parent_path(), ec);
    m_out = std::fopen(file.c_str(), "w");
}

void Journal::close() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_out) std::fclose(m_out);
    m_out = nullptr;
}

void Journal::write(const std::string &event, nlohmann::json fields) {
    nlohmann::json line = nlohmann::json::object();
    line["event"] = event;
    Device *dev = Device::current();
    line["t"] = dev ? dev->clock().ticks() : 0;
    for (auto it = fields.begin(); it != fields.end(); ++it) line[it.key()] = it.value();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(line);
    if (m_out) {
        std::string text = line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        std::fprintf(m_out, "%s\n", text.c_str());
        std::fflush(m_out);
    }
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

Device *Device::current() { return g_current.load(); }

Device::Device(const fs::path &folder, const fs::path &journalFile)
    : m_folder(folder), m_files(folder / "fs") {
    std::error_code ec;
    fs::create_directories(folder / "fs", ec);
    fs::create_directories(folder / "run", ec);
    fs::path profileFile = folder / "device.toml";
    if (fs::exists(profileFile)) {
        try {
            m_profile = toml::parse_file(profileFile.string());
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
    m_journal.close();
}

void Device::install() { g_current = this; }

void Device::uninstall() {
    Device *self = this;
    g_current.compare_exchange_strong(self, nullptr);
}

void Device::loadProfile() {
    m_program = fromUtf8(profileString(m_profile, "device.program").value_or("\\My Flash Disk\\tarsk.exe"));
    if (auto scale = m_profile.at_path("device.time_scale").value<double>()) m_clock.setScale(*scale);
    if (auto base = profileInt(m_profile, "device.tick_base")) m_clock.setBase(DWORD(*base));
    if (const toml::table *fail = m_profile["fail"].as_table()) {
        for (auto &&[name, value] : *fail)
            if (auto v = value.value<int64_t>()) m_failures[std::string(name.str())] = DWORD(*v);
    }
    loadStorageProfile(*this, m_profile);
    loadRegistryProfile(*this, m_profile);
    m_kernel = makeKernel(*this, m_profile);
    m_devices = makeDevices(*this, m_profile);
}

std::u16string Device::programPath() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_program;
}

std::optional<DWORD> Device::failure(const std::string &call) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_failures.find(call);
    if (it == m_failures.end()) return std::nullopt;
    return it->second;
}

void Device::setFailure(const std::string &call, std::optional<DWORD> error) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (error) m_failures[call] = *error;
    else m_failures.erase(call);
}

void Device::endProcess(UINT code, const std::string &reason) {
    m_journal.write("exit", {{"code", code}});
    m_journal.write("end", {{"reason", reason}});
    m_journal.close();
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(int(code));
}

}  // namespace sim
