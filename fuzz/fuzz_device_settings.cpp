// velmar::CDeviceSettings::construct on a device_settings.ini, with an observer on what the
// enumeration delivers. Input: the file.
#include "fuzz_device.h"
#include "platform/devicesettings.h"

#include <cstring>
#include <strings.h>

namespace {

using velmar::CDeviceSettings;

void observe(int event, int index, const char *section, const char *key, const char *value) {
    if (event == DS_EVENT_READING) return;
    fuzz::terminatedLength(section, DS_SECTION_NAME_SIZE);
    if (event == DS_EVENT_SECTION || event == DS_EVENT_SECTION_UNKNOWN) return;
    fuzz::terminatedLength(key, DS_SECTION_NAME_SIZE);
    fuzz::terminatedLength(value, 2048);
    if (event == DS_EVENT_KEY) {
        FUZZ_CHECK(index >= 0 && index < DS_KEY_COUNT);
        const velmar::DeviceSettingsKey &k = velmar::g_deviceSettingsKeys[index];
        FUZZ_CHECK((k.matchCase ? std::strcmp(key, k.name) : strcasecmp(key, k.name)) == 0);
    } else if (event == DS_EVENT_KEYMAP) {
        FUZZ_CHECK(index >= 0 && index < DS_KEYMAP_NAMED);
        FUZZ_CHECK(strcasecmp(key, velmar::g_deviceSettingsKeyMap[index].name) == 0);
    } else {
        FUZZ_CHECK(index == -1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input;
    testing_support::TestDevice &td = input.td;
    const CDeviceSettings *loaded = velmar::getDeviceSettings();   // the process's, read before this file
    td.put(testing_support::kDeviceSettingsFile, std::string(reinterpret_cast<const char *>(data), size));

    CDeviceSettings s;
    std::memset(&s, 0xA5, sizeof s);
    s.m_nHardwareVersion = -1;
    velmar::setDeviceSettingsObserver(observe);
    FUZZ_CHECK(s.construct());
    velmar::setDeviceSettingsObserver(nullptr);

    // The sections this device applies do not depend on the file.
    FUZZ_CHECK(s.m_nHardwareVersion == loaded->m_nHardwareVersion);
    FUZZ_CHECK(std::strcmp(s.m_szHardwareSection, loaded->m_szHardwareSection) == 0);
    FUZZ_CHECK(std::strcmp(s.m_szGPSSection, loaded->m_szGPSSection) == 0);
    // Every bool field holds 0 or 1; the key codes the file cannot name stay 0.
    for (const velmar::DeviceSettingsKey &k : velmar::g_deviceSettingsKeys) {
        if (k.type != DS_TYPE_BOOL) continue;
        BOOL v;
        std::memcpy(&v, reinterpret_cast<const char *>(&s) + k.offset, sizeof v);
        FUZZ_CHECK(v == 0 || v == 1);
    }
    bool named[DS_KEYMAP_SIZE] = {};
    for (const velmar::DeviceSettingsKeyCode &c : velmar::g_deviceSettingsKeyMap) named[c.code] = true;
    for (int i = 0; i < DS_KEYMAP_SIZE; ++i) FUZZ_CHECK(named[i] || s.m_anKeyMap[i] == 0);
    return 0;
}
