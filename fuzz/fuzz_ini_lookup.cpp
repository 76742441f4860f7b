// CIniFile's keyed lookup: getString, getBool and getInt of one section and key.
// Input: byte 0 the small buffer's size less 1, then the section name and the key name, each ended
// by a line feed, then the file.
#include "fuzz_device.h"
#include "platform/inifile.h"

#include <cstring>
#include <strings.h>
#include <vector>

namespace {

const char kIni[] = "\\My Flash Disk\\lookup.ini";
const int kFull = 8192;   // more than any value: a value is a line of a 4096-byte chunk

std::string line(const uint8_t *&p, const uint8_t *end) {
    const uint8_t *stop = static_cast<const uint8_t *>(std::memchr(p, '\n', size_t(end - p)));
    if (!stop) stop = end;
    std::string out(reinterpret_cast<const char *>(p), size_t(stop - p));
    p = stop < end ? stop + 1 : end;
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    fuzz::Input input;
    testing_support::TestDevice &td = input.td;
    const int small = data[0] % 64 + 1;
    const uint8_t *p = data + 1, *end = data + size;
    const std::string section = line(p, end), key = line(p, end);
    td.put(kIni, std::string(reinterpret_cast<const char *>(p), size_t(end - p)));

    CIniFile ini;
    FUZZ_CHECK(ini.open(testing_support::W(kIni).c_str()));
    std::vector<char> cut(small, 'Z'), whole(kFull, 'Z');
    const bool found = ini.getString(section.c_str(), key.c_str(), whole.data(), kFull);
    const size_t n = fuzz::terminatedLength(whole.data(), kFull);
    FUZZ_CHECK(found || n == 0);
    FUZZ_CHECK(n < 4096);
    // The value runs from behind the '=' and its spaces to the first ';', CR or LF.
    FUZZ_CHECK(n == 0 || whole[0] != ' ');
    FUZZ_CHECK(std::strpbrk(whole.data(), ";\r\n") == nullptr);

    // A smaller buffer gets the same value cut at size - 1, and the same answer.
    FUZZ_CHECK(ini.getString(section.c_str(), key.c_str(), cut.data(), small) == found);
    FUZZ_CHECK(fuzz::terminatedLength(cut.data(), small) == std::min<size_t>(n, small - 1));
    FUZZ_CHECK(std::memcmp(cut.data(), whole.data(), std::min<size_t>(n, small - 1)) == 0);

    // getBool stores 0 or 1 whether found or not: 1 only for "TRUE" in any case.
    int flag = 7;
    FUZZ_CHECK(ini.getBool(section.c_str(), key.c_str(), &flag) == found);
    FUZZ_CHECK(flag == (found && n == 4 && strncasecmp(whole.data(), "TRUE", 4) == 0 ? 1 : 0));
    // getInt stores only what it found, converted from the first 255 bytes.
    int number = 0x5A5A5A5A;
    FUZZ_CHECK(ini.getInt(section.c_str(), key.c_str(), &number) == found);
    whole[std::min<size_t>(n, 255)] = 0;
    FUZZ_CHECK(number == (found ? ini_atoi(whole.data()) : 0x5A5A5A5A));
    ini.close();
    ini.close();
    return 0;
}
