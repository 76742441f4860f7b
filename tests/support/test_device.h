// A simulated device for one test: a fresh device folder under the system's temporary folder,
// made from a profile text, installed as the current device and removed at the end.
#pragma once

#include "device.h"

#include <string>
#include <vector>

namespace testing_support {

class TestDevice {
public:
    // profile: the text of device.toml (may be empty). The clock is deterministic device time unless
    // the profile sets a time scale.
    explicit TestDevice(const std::string &profile = "", bool keep = false);
    ~TestDevice();

    sim::Device &dev() { return *m_dev; }
    const sim::fs::path &folder() const { return m_folder; }
    // The host path of a CE path ("\My Flash Disk\x").
    sim::fs::path host(const std::string &cePath) const;
    // Writes or reads a device file by its CE path (folders are made as needed).
    void put(const std::string &cePath, const std::string &bytes);
    std::string get(const std::string &cePath) const;
    bool exists(const std::string &cePath) const;
    std::vector<nlohmann::json> events(const std::string &name) const { return m_dev->journal().events(name); }

private:
    sim::fs::path m_folder;
    std::unique_ptr<sim::Device> m_dev;
    bool m_keep;
};

// Where the device settings are read from when paths.xml names no settings folder. Without the file
// every allocation retries the load and logs its failure, so tests that read the log put one there.
extern const char kDeviceSettingsFile[];

// All the diagnostic log holds, oldest first (its ring buffer of the last 2047 characters).
std::string logText();
bool logged(const std::string &text);
// How often part occurs in text.
int occurrences(const std::string &text, const std::string &part);

// What the log received after the mark was made.
struct LogMark {
    int pos = 0;
    LogMark();
    std::string since() const;
    int count(const std::string &part) const { return occurrences(since(), part); }
    bool has(const std::string &part) const { return count(part) > 0; }
};

// The call fails and leaves `e` as the thread's last error.
#define EXPECT_FAILS(call, e) do { SetLastError(0); EXPECT_FALSE(call); EXPECT_EQ(GetLastError(), DWORD(e)); } while (0)

// The UTF-16LE bytes of an ASCII text (NULs included).
std::string utf16le(const std::string &ascii);
// A wide string literal of the device's WCHAR type from UTF-8.
std::u16string W(const std::string &s);
// The UTF-8 text of a WCHAR buffer.
std::string U(const WCHAR *s);

}  // namespace testing_support
