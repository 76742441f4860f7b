// init_readSettingFromPathsFile: one file group's base path from paths.xml, read as plain text.
// Input: the group's name, ended by a line feed, then paths.xml.
#include "fuzz_device.h"
#include "platform/initfuncs.h"

#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input;
    testing_support::TestDevice &td = input.td;
    const char *text = reinterpret_cast<const char *>(data);
    const char *newline = static_cast<const char *>(std::memchr(text, '\n', size));
    const std::string name(std::string(text, newline ? size_t(newline - text) : size).c_str());
    const std::string file = newline ? std::string(newline + 1, text + size) : std::string();
    td.put("\\My Flash Disk\\paths.xml", file);

    // The base path is never longer than the file; the output stays untouched when nothing is found.
    std::vector<char> out(file.size() + 1, 0x5A), untouched(out), again(out);
    const bool found = init_readSettingFromPathsFile(out.data(), u"\\My Flash Disk", name.c_str());
    if (!found) {
        FUZZ_CHECK(out == untouched);
    } else {
        FUZZ_CHECK(!name.empty());
        FUZZ_CHECK(file.find("<name>" + name + "</name>") != std::string::npos);
        // (a NUL in the file ends the text here, not the copy)
        const std::string base(out.data(), fuzz::terminatedLength(out.data(), out.size()));
        FUZZ_CHECK(base.empty() || file.find("<basepath>" + base) != std::string::npos);
    }
    // Without a folder the internal storage's is used: the same file here.
    FUZZ_CHECK(init_readSettingFromPathsFile(again.data(), nullptr, name.c_str()) == found);
    FUZZ_CHECK(again == out);
    return 0;
}
