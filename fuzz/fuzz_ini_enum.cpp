// CIniFile's enumeration: enumSections with a section callback that reads the keys with enumKeys.
// Input: the file.
#include "fuzz_device.h"
#include "platform/inifile.h"

#include <algorithm>
#include <cstring>

namespace {

const char kIni[] = "\\My Flash Disk\\enum.ini";
size_t g_sections, g_keys;

bool control(unsigned char c) { return c < 0x20 || c == 0x7F; }

int onKey(CIniFile *, const char *section, const char *key, const char *value) {
    ++g_keys;
    FUZZ_CHECK(fuzz::terminatedLength(section, INI_SECTION_NAME_SIZE) < INI_SECTION_NAME_SIZE);
    // A key name is printable text without '=', at most 127 characters.
    const size_t k = fuzz::terminatedLength(key, INI_SECTION_NAME_SIZE);
    for (size_t i = 0; i < k; ++i) FUZZ_CHECK(!control(key[i]) && key[i] != '=' && !(key[i] & 0x80));
    FUZZ_CHECK(k == 0 || key[0] != ' ');
    // A value is at most 2047 bytes without control bytes; it starts with neither '=' nor a high byte.
    const size_t v = fuzz::terminatedLength(value, INI_ENUM_BUFFER_SIZE);
    for (size_t i = 0; i < v; ++i) FUZZ_CHECK(!control(value[i]));
    FUZZ_CHECK(v == 0 || (value[0] != '=' && !(value[0] & 0x80)));
    return 0;
}

int onSection(void *context, CIniFile *ini, const char *section) {
    ++g_sections;
    FUZZ_CHECK(context == &g_sections);
    FUZZ_CHECK(fuzz::terminatedLength(section, INI_SECTION_NAME_SIZE) < INI_SECTION_NAME_SIZE);
    FUZZ_CHECK(std::strchr(section, ']') == nullptr);
    ini->enumKeys("unused", onKey);
    return 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input;
    testing_support::TestDevice &td = input.td;
    const std::string text(reinterpret_cast<const char *>(data), size);
    td.put(kIni, text);
    CIniFile ini;
    FUZZ_CHECK(ini.open(testing_support::W(kIni).c_str()));
    g_sections = g_keys = 0;
    FUZZ_CHECK(ini.enumSections(onSection, &g_sections));
    // Each section stands at its own '[', each key ends at its own byte (one more for a value cut
    // at 2047 bytes).
    FUZZ_CHECK(g_sections <= size_t(std::count(text.begin(), text.end(), '[')));
    FUZZ_CHECK(g_keys <= size + size / (INI_ENUM_BUFFER_SIZE - 1));
    ini.close();
    return 0;
}
