// plat_unicode's formatter, narrow (fmt_formatA, fmt_lengthA) and wide (fmt_formatW), on a format
// text with up to 16 arguments of every kind. Input: byte 0 the buffer's size (0 to 255), byte 1 %
// 17 the number of arguments and the next bytes their kinds, then the format.
#include "fuzz_device.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace {

const char kNarrow[] = "narrow \xE9t\xE9";
const WCHAR kWide[] = {u'w', u'i', u'd', u'e', 0xD83D, 0xDE00, 0x20AC, 0};
const FmtArg kPool[] = {
    FmtArg(0),          FmtArg(-1),          FmtArg(123456789u),        FmtArg(-9223372036854775807LL - 1),
    FmtArg(~0ULL),      FmtArg(3.25),        FmtArg(-1e308),            FmtArg(std::nan("")),
    FmtArg(INFINITY),   FmtArg(kNarrow),     FmtArg(kWide),             FmtArg((const char *)nullptr),
    FmtArg((const WCHAR *)nullptr), FmtArg((const void *)kPool), FmtArg(WCHAR(0x263A)), FmtArg(100000),
};
const int kPoolSize = int(sizeof kPool / sizeof kPool[0]);

// Checks one result against the whole output (which may hold NULs from %c): the first cap-1 units,
// then the terminator; the length, or -1 when cut.
template <class C> void checkCut(const C *buf, size_t cap, int result, const std::basic_string<C> &whole) {
    if (cap == 0) {
        FUZZ_CHECK(result == -1);
        return;
    }
    const size_t n = std::min(whole.size(), cap - 1);
    FUZZ_CHECK(result == (whole.size() < cap ? int(whole.size()) : -1));
    FUZZ_CHECK(buf[n] == 0);
    FUZZ_CHECK(std::basic_string<C>(buf, n) == whole.substr(0, n));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    const size_t cap = data[0];
    const size_t count = data[1] % (FMT_MAX_ARGS + 1);
    size_t at = 2;
    static const FmtArg none;
    const FmtArg *a[FMT_MAX_ARGS];
    for (size_t i = 0; i < FMT_MAX_ARGS; ++i) a[i] = i >= count ? &none : &kPool[at < size ? data[at++] % kPoolSize : 0];
    const FmtArgList list(*a[0], *a[1], *a[2], *a[3], *a[4], *a[5], *a[6], *a[7], *a[8], *a[9], *a[10], *a[11],
                          *a[12], *a[13], *a[14], *a[15]);
    FUZZ_CHECK(list.count == int(count));
    const std::string format(reinterpret_cast<const char *>(data) + at, size - at);   // cut at a NUL

    // Narrow: the length it announces is what a large enough buffer receives.
    const size_t length = fmt_lengthA(format.c_str(), list);
    std::vector<char> whole(length + 1, 'Z');
    FUZZ_CHECK(fmt_formatA(whole.data(), whole.size(), format.c_str(), list) == int(length));
    FUZZ_CHECK(whole[length] == 0);
    std::vector<char> small(cap ? cap : 1, 'Z');
    checkCut(small.data(), cap, fmt_formatA(small.data(), cap, format.c_str(), list), std::string(whole.data(), length));
    FUZZ_CHECK(cap != 0 || small[0] == 'Z');   // nothing is written into no room

    // Wide, on the same text as Latin-1. Each conversion that takes an argument writes at most a
    // field of 100000 units (and a sign); the rest is the format's own text.
    std::u16string wformat(format.size(), u'\0');
    for (size_t i = 0; i < format.size(); ++i) wformat[i] = char16_t((unsigned char)format[i]);
    static std::vector<WCHAR> wide;
    wide.resize(std::max(wide.size(), FMT_MAX_ARGS * 100002 + format.size() + 1));
    const int wlength = fmt_formatW(wide.data(), wide.size(), wformat.c_str(), list);
    FUZZ_CHECK(wlength >= 0 && wide[size_t(wlength)] == 0);
    std::vector<WCHAR> wsmall(cap ? cap : 1, u'Z');
    checkCut(wsmall.data(), cap, fmt_formatW(wsmall.data(), cap, wformat.c_str(), list),
             std::u16string(wide.data(), size_t(wlength)));
    FUZZ_CHECK(cap != 0 || wsmall[0] == u'Z');
    return 0;
}
