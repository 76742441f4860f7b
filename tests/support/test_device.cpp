#include "test_device.h"

#include "platform/platform.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace testing_support {

const char kDeviceSettingsFile[] = "\\My Flash Disk\\Program Files\\Velmar\\Waylume_CE\\UserData\\device_settings.ini";

TestDevice::TestDevice(const std::string &profile, bool keep) : m_keep(keep) {
    std::string tmpl = (sim::fs::temp_directory_path() / "tarsk-test-XXXXXX").string();
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    char *made = ::mkdtemp(buf.data());
    if (!made) std::abort();
    m_folder = made;
    if (!profile.empty()) {
        std::ofstream(m_folder / "device.toml") << profile;
    }
    try {
        m_dev = std::make_unique<sim::Device>(m_folder);
    } catch (...) {
        // a bad profile: leave nothing behind
        std::error_code ec;
        sim::fs::remove_all(m_folder, ec);
        throw;
    }
    m_dev->install();
}

TestDevice::~TestDevice() {
    m_dev.reset();
    std::error_code ec;
    if (!m_keep) sim::fs::remove_all(m_folder, ec);
}

sim::fs::path TestDevice::host(const std::string &cePath) const {
    auto p = m_dev->files().resolve(sim::fromUtf8(cePath));
    return p ? *p : sim::fs::path();
}

void TestDevice::put(const std::string &cePath, const std::string &bytes) {
    if (!m_dev->files().writeFile(sim::fromUtf8(cePath), bytes)) std::abort();
}

std::string TestDevice::get(const std::string &cePath) const {
    return m_dev->files().readFile(sim::fromUtf8(cePath)).value_or("");
}

bool TestDevice::exists(const std::string &cePath) const { return m_dev->files().exists(sim::fromUtf8(cePath)); }

std::string logText() {
    int position = 0;
    BOOL wrapped = FALSE;
    const WCHAR *ring = vl_ringBuffer(&position, &wrapped);
    return wrapped ? U(ring + position + 1) + U(ring) : U(ring);
}

bool logged(const std::string &text) { return logText().find(text) != std::string::npos; }

int occurrences(const std::string &text, const std::string &part) {
    int n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

LogMark::LogMark() { vl_ringBuffer(&pos, nullptr); }

std::string LogMark::since() const {
    int now = 0;
    const WCHAR *ring = vl_ringBuffer(&now, nullptr);
    return U(ring + pos) + (now < pos ? U(ring) : "");
}

std::string utf16le(const std::string &ascii) {
    std::string out;
    for (char c : ascii) out += std::string{c, '\0'};
    return out;
}

std::u16string W(const std::string &s) { return sim::fromUtf8(s); }
std::string U(const WCHAR *s) { return sim::utf8(s); }

}  // namespace testing_support
