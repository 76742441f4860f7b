#include "fuzz_device.h"
#include "platform/devicesettings.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace fuzz {

namespace {

const std::filesystem::path kDefault = std::filesystem::path(TARSK_SOURCE_DIR) / "devices" / "default";

std::string slurp(const std::filesystem::path &file) {
    std::stringstream bytes;
    bytes << std::ifstream(file, std::ios::binary).rdbuf();
    return bytes.str();
}

// The default device's profile, its files kept in memory.
std::string profile() {
    std::string text = slurp(kDefault / "device.toml");
    const std::string table = "[device]\n";
    return text.insert(text.find(table) + table.size(), "files = 'memory'\n");
}

testing_support::TestDevice &device() {
    static testing_support::TestDevice td(profile());   // removed at exit
    static const bool ready = [] {
        for (const auto &entry : std::filesystem::recursive_directory_iterator(kDefault / "fs")) {
            if (!entry.is_regular_file()) continue;
            std::string ce = "\\" + std::filesystem::relative(entry.path(), kDefault / "fs").string();
            for (char &c : ce)
                if (c == '/') c = '\\';
            td.put(ce, slurp(entry.path()));
        }
        // Nothing reads the journal: no file, no events kept.
        td.dev().journal().close();
        td.dev().journal().keepEvents(false);
        // The settings are read once, before any input can change them.
        velmar::getDeviceSettings();
        return velmar::isDeviceSettingsLoaded() && td.dev().files().saveFiles();
    }();
    FUZZ_CHECK(ready);
    return td;
}

}  // namespace

Input::Input() : td(device()) {}

Input::~Input() { td.dev().files().restoreFiles(); }

size_t terminatedLength(const WCHAR *text, size_t cap) {
    size_t n = 0;
    while (n < cap && text[n]) ++n;
    FUZZ_CHECK(n < cap);
    return n;
}

size_t terminatedLength(const char *text, size_t cap) {
    size_t n = 0;
    while (n < cap && text[n]) ++n;
    FUZZ_CHECK(n < cap);
    return n;
}

void checkDescriptor(const DeviceDescriptor &d) {
    FUZZ_CHECK(flag(d.force) && flag(d.format));
    FUZZ_CHECK(d.version[1] == 0 && d.version[2] == 0);
    FUZZ_CHECK(d.flashVersion[0] == 0 && d.flashVersion[1] == 0 && d.flashVersion[2] == 0);
    terminatedLength(d.hardwareType, DEVDESC_TEXT_CHARS);
    terminatedLength(d.hardwareVersion, DEVDESC_TEXT_CHARS);
}

}  // namespace fuzz
