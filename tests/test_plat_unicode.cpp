// Wide-text helpers, conversions and the formatter (narrow and wide).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "platform/plat_unicode.h"

namespace {

struct NarrowCase {
    const char *format;
    FmtArg a, b, c;
    const char *expect;
};

struct WideCase {
    const WCHAR *format;
    FmtArg a, b, c;
    std::u16string expect;
};

std::string fmtA(const char *format, const FmtArg &a = FmtArg(), const FmtArg &b = FmtArg(),
                 const FmtArg &c = FmtArg())
{
    char buf[1024];
    int n = uni_snprintf(buf, sizeof(buf), format, a, b, c);
    EXPECT_GE(n, 0) << format;
    EXPECT_EQ(fmt_lengthA(format, FmtArgList(a, b, c)), (size_t)n) << format;
    return std::string(buf, n < 0 ? 0 : n);
}

} // namespace

TEST(PlatUnicodeFormat, NarrowConversions)
{
    const char *nullN = 0;
    const WCHAR *nullW = 0;
    const NarrowCase cases[] = {
        // integers are cut to the conversion's size, as on the 32-bit device
        {"%d", 0xFFFFFFFFu, FmtArg(), FmtArg(), "-1"},
        {"%u", -1, FmtArg(), FmtArg(), "4294967295"},
        {"%x", 0x123456789ABCDEF0ULL, FmtArg(), FmtArg(), "9abcdef0"},
        {"%lx|%llX", 0x123456789ABCDEF0ULL, 0x123456789ABCDEF0ULL, FmtArg(), "9abcdef0|123456789ABCDEF0"},
        {"%I64d|%lld", -5LL, (long long)(-9223372036854775807LL - 1), FmtArg(), "-5|-9223372036854775808"},
        {"%hd|%hu|%hhx", 40000, 0x12345, 0x1FF, "-25536|9029|ff"},
        {"%ld", 0x100000001LL, FmtArg(), FmtArg(), "1"},
        // flags, width, precision
        {"%5d|%-5d|%05d", 42, 42, 42, "   42|42   |00042"},
        {"%+d|% d|%05d", 5, 5, -42, "+5| 5|-0042"},
        {"%+u|% x", 5, 5, FmtArg(), "5|5"},
        {"%.3d|%.0d|%08.3d", 7, 0, 5, "007||     005"},
        {"%-08d|", -3, FmtArg(), FmtArg(), "-3      |"},
        {"%#x|%#X|%#o", 255, 0, 8, "0xff|0|010"},
        {"%#.0o|%#5x", 0, 1, FmtArg(), "0|  0x1"},
        {"%1.1d.%2.2d.%4.4d", 1, 2, 3, "1.02.0003"},
        {"%*d|", 5, 42, FmtArg(), "   42|"},
        {"%*d|", -4, 7, FmtArg(), "7   |"},
        {"%.*d|%.*d", 3, 7, FmtArg(), "007|%.*d"},
        {"%.*d", -1, 7, FmtArg(), "7"},
        // strings: narrow format takes %s/%hs narrow, %ls/%S wide; the other width is converted
        {"%s|%.2s|%5s|%-5s|", "abc", "abc", "abc", "abc|ab|  abc|%-5s|"},
        {"%05s", "ab", FmtArg(), FmtArg(), "000ab"},
        {"%s|%ls|%hs", nullN, nullW, nullN, "(null)|(null)|(null)"},
        {"%ls|%S|%s", TEXT("w\u00e9"), TEXT("\u0141x"), TEXT("wide"), "w\xe9|?x|wide"},
        {"%s|%5s|%.1s", 42, 7, -123, "42|    7|-123"},
        // characters: %c/%hc 8 bits, %lc/%C a WCHAR (narrowed)
        {"%c|%hc|%lc", 0x141, 0x142, TEXT('\u00e9'), "A|B|\xe9"},
        {"%C|%3c|%-3c|", 0x141, 'x', 'y', "?|  x|y  |"},
        {"%c", "str", FmtArg(), FmtArg(), "str"},
        // floating point
        {"%f|%.2f|%6.2f", 1.5, 3.14159, 3.14159, "1.500000|3.14|  3.14"},
        {"%08.2f|%-6.1f|%+.1f", -3.5, 2.5, 1.0, "-0003.50|2.5   |+1.0"},
        {"%e|%G|%g", 12345.678, 0.00001, 100000.0, "1.234568e+04|1E-05|100000"},
        {"%f|%06f|%.1f", 2, HUGE_VAL, 2.0, "2.000000|   inf|2.0"},
        // percent signs and what stands as written
        {"100%% sure|%%d", FmtArg(), FmtArg(), FmtArg(), "100% sure|%d"},
        {"%y %d|%n", 1, 2, FmtArg(), "%y 1|%n"},
        {"%5%", 1, FmtArg(), FmtArg(), "%5%"},
        {"abc%-5", 1, FmtArg(), FmtArg(), "abc%-5"},
        {"abc%", FmtArg(), FmtArg(), FmtArg(), "abc%"},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        const NarrowCase &c = cases[i];
        EXPECT_EQ(fmtA(c.format, c.a, c.b, c.c), std::string(c.expect)) << "case " << i << ": " << c.format;
    }
}

TEST(PlatUnicodeFormat, WideConversionsFollowMicrosoftConventions)
{
    const WideCase cases[] = {
        {TEXT("%s|%ls|%hs|%S"), TEXT("w"), TEXT("l"), "h", u"w|l|h|%S"},
        {TEXT("%S|%s|%ls"), "narrow", "given narrow", "\xe9", u"narrow|given narrow|\u00e9"},
        {TEXT("%c|%c|%lc"), 0x10041, 0x141, 0x141, u"A|\u0141|\u0141"},
        {TEXT("%hc|%C|%hc"), 0x141, 0x141, 0xE9, u"A|A|\u00e9"},
        {TEXT("[%20hs]"), "snapshot", FmtArg(), FmtArg(), u"[            snapshot]"},
        {TEXT("%hs(%d):, %u, "), "initfuncs.cpp", 843, 51234u, u"initfuncs.cpp(843):, 51234, "},
        {TEXT("V%1.1d.%2.2d.%4.4d"), 1, 2, 3, u"V1.02.0003"},
        {TEXT("%6.2f%%"), 42.126, FmtArg(), FmtArg(), u" 42.13%"},
        {TEXT("100% sure %d"), FmtArg(), FmtArg(), FmtArg(), u"100% sure %d"},
        {TEXT("%d %s %d"), 1, TEXT("x"), FmtArg(), u"1 x %d"},
        {TEXT("%*d|%-5.2ls"), 3, FmtArg(), FmtArg(), u"%*d|%-5.2ls"},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        const WideCase &c = cases[i];
        WCHAR buf[256];
        int n = uni_snwprintf(buf, 256, c.format, c.a, c.b, c.c);
        EXPECT_EQ(std::u16string(buf), c.expect) << "case " << i;
        EXPECT_EQ(n, (int)c.expect.size()) << "case " << i;
    }
}

// Pointers at the build's width in upper case; a precision-cut string need not be terminated (nothing
// past the precision is read); the log writer's second pass over a composed line changes nothing.
TEST(PlatUnicodeFormat, PointersPrecisionAndSecondPass)
{
    char buf[64];
    ASSERT_GT(uni_snprintf(buf, sizeof(buf), "0x%p|%-18p|", (const void *)0xAbcdef, (const void *)0xAbcdef), 0);
    EXPECT_STREQ(buf, sizeof(void *) == 8 ? "0x0000000000ABCDEF|0000000000ABCDEF  |" : "0x00ABCDEF|00ABCDEF          |");

    const char raw[3] = {'a', 'b', 'c'};
    const WCHAR wraw[2] = {'x', 'y'};
    EXPECT_EQ(fmtA("[%.3s|%.2ls|%-4.1s]", raw, wraw, raw), "[abc|xy|a   ]");

    char first[128], second[128];
    ASSERT_EQ(uni_snprintf(first, sizeof(first), "rate 50%% done: %d%%, %s", 3, "100% sure"), 28);
    EXPECT_STREQ(first, "rate 50% done: 3%, 100% sure");
    ASSERT_GE(uni_snprintf(second, sizeof(second), first), 0);
    EXPECT_STREQ(second, first);
}

TEST(PlatUnicodeFormat, BufferBoundaries)
{
    struct Case {
        size_t cap;
        int ret;
        const char *text;
    };
    const Case cases[] = {{8, 6, "ab1234"}, {7, 6, "ab1234"}, {6, -1, "ab123"}, {3, -1, "ab"}, {1, -1, ""}};
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        char nbuf[16];
        WCHAR wbuf[16];
        memset(nbuf, 'Z', sizeof(nbuf));
        EXPECT_EQ(uni_snprintf(nbuf, cases[i].cap, "ab%d", 1234), cases[i].ret) << "cap " << cases[i].cap;
        EXPECT_STREQ(nbuf, cases[i].text);
        EXPECT_EQ(nbuf[cases[i].cap], 'Z') << "wrote past cap " << cases[i].cap;
        EXPECT_EQ(uni_snwprintf(wbuf, cases[i].cap, TEXT("ab%hs"), "1234"), cases[i].ret);
        char back[16];
        uni_narrow(back, sizeof(back), wbuf);
        EXPECT_STREQ(back, cases[i].text);
    }
    char untouched[2] = {'Q', 'Q'};
    EXPECT_EQ(uni_snprintf(untouched, 0, "x"), -1);
    EXPECT_EQ(untouched[0], 'Q');
    EXPECT_EQ(fmt_lengthA("%300d|%s", FmtArgList(1, "abc")), 304u);
}

TEST(PlatUnicodeFormat, ArgListStopsAtFirstMissing)
{
    // The list holds pointers: its arguments must outlive it.
    const FmtArg one(1), two(2), none, four(4);
    FmtArgList l(one, two, none, four, none, none, none, none, none, none, none, none, none, none,
                 none, none);
    EXPECT_EQ(l.count, 2);
    EXPECT_TRUE(l.at(2) == 0);
    char buf[32];
    EXPECT_EQ(fmt_formatA(buf, sizeof(buf), "%d %d %d", l), 6);
    EXPECT_STREQ(buf, "1 2 %d");
}

TEST(PlatUnicodeText, CompareAndSearch)
{
    struct Cmp {
        const WCHAR *a, *b;
        int sign;
    };
    const Cmp icmp[] = {
        {TEXT("abc"), TEXT("ABC"), 0},         {TEXT("\u00e9t\u00e9"), TEXT("\u00c9T\u00c9"), 0},
        {TEXT("\u00d7"), TEXT("\u00f7"), -1},  {TEXT("_"), TEXT("A"), -1},
        {TEXT("\u00ff"), TEXT("\u0178"), 0},   {TEXT("ab"), TEXT("abc"), -1},
        {TEXT("\ufffd"), TEXT("a"), 1},
    };
    for (size_t i = 0; i < sizeof(icmp) / sizeof(icmp[0]); ++i) {
        int r = uni_wcsicmp(icmp[i].a, icmp[i].b);
        EXPECT_EQ((r > 0) - (r < 0), icmp[i].sign) << "case " << i;
    }
    EXPECT_GT(uni_wcscmp(TEXT("\ufffd"), TEXT("a")), 0); // units compare unsigned
    EXPECT_NE(uni_wcscmp(TEXT("abc"), TEXT("ABC")), 0);
    EXPECT_EQ(uni_wcsncmp(TEXT("abX"), TEXT("aby"), 2), 0);
    EXPECT_EQ(uni_wcsnicmp(TEXT("ABx"), TEXT("aby"), 2), 0);
    EXPECT_NE(uni_wcsnicmp(TEXT("ABx"), TEXT("aby"), 3), 0);
    EXPECT_EQ(uni_stricmp("Debug.INI", "debug.ini"), 0);
    EXPECT_NE(uni_stricmp("\xe9", "\xc9"), 0); // 8-bit folding is ASCII only
    EXPECT_LT(uni_stricmp("_", "A"), 0);
    EXPECT_EQ(uni_strnicmp("MODULE_GPSx", "module_gpsY", 10), 0);

    const WCHAR *s = TEXT("a\\b\\c");
    EXPECT_EQ(uni_wcschr(s, TEXT('\\')), s + 1);
    EXPECT_EQ(uni_wcsrchr(s, TEXT('\\')), s + 3);
    EXPECT_EQ(uni_wcschr(s, 0), s + 5);
    EXPECT_TRUE(uni_wcschr(s, TEXT('x')) == 0);
    const WCHAR *h = TEXT("aaab");
    EXPECT_EQ(uni_wcsstr(h, TEXT("aab")), h + 1);
    EXPECT_EQ(uni_wcsstr(h, TEXT("")), h);
    EXPECT_TRUE(uni_wcsstr(h, TEXT("aaaba")) == 0);
}

TEST(PlatUnicodeText, CopyConcatAndCase)
{
    WCHAR buf[8];
    std::fill(buf, buf + 8, (WCHAR)'Z');
    uni_wcsncpy0(buf, TEXT("abcdef"), 0);
    EXPECT_EQ(buf[0], (WCHAR)'Z');
    EXPECT_EQ(std::u16string(uni_wcsncpy0(buf, TEXT("abcdef"), 4)), u"abc");
    EXPECT_EQ(std::u16string(uni_wcsncat0(buf, TEXT("XYZ"), 6)), u"abcXY");
    EXPECT_EQ(buf[6], (WCHAR)'Z');
    EXPECT_EQ(std::u16string(uni_wcsncat0(buf, TEXT("Q"), 6)), u"abcXY"); // already full

    WCHAR unterminated[4] = {'a', 'b', 'c', 'd'};
    uni_wcsncat0(unterminated, TEXT("e"), 4);
    EXPECT_EQ(std::u16string(unterminated), u"abc");

    WCHAR up[] = TEXT("my \u00e9t\u00e9 \u00f7 \u00ff!");
    EXPECT_EQ(std::u16string(uni_wcsupr(up)), u"MY \u00c9T\u00c9 \u00f7 \u0178!");
    EXPECT_EQ(uni_towlower((WCHAR)0xD7), (WCHAR)0xD7);
    EXPECT_EQ(uni_towlower((WCHAR)0x178), (WCHAR)0xFF);
    char nup[] = "abc\xe9z";
    EXPECT_STREQ(uni_strupr(nup), "ABC\xe9Z");
}

TEST(PlatUnicodeConvert, Latin1)
{
    WCHAR w[8];
    EXPECT_EQ(uni_widen(w, 8, "a\xe9\xff"), 3u);
    EXPECT_EQ(std::u16string(w), u"a\u00e9\u00ff");
    EXPECT_EQ(uni_widen(w, 3, "abcdef"), 2u);
    EXPECT_EQ(std::u16string(w), u"ab");

    char n[8];
    EXPECT_EQ(uni_narrow(n, 8, TEXT("\u00e9\u0141\U0001F600.")), 4u); // a pair is one '?'
    EXPECT_STREQ(n, "\xe9??.");
    EXPECT_EQ(uni_narrow(n, 2, TEXT("xyz")), 1u);
    EXPECT_STREQ(n, "x");
}

TEST(PlatUnicodeConvert, FromUtf8)
{
    struct Case {
        const char *in;
        std::u16string out;
    };
    const Case cases[] = {
        {"A\xc3\xa9\xe2\x82\xac", u"A\u00e9\u20ac"},
        {"\xf0\x9f\x98\x80", u"\U0001F600"},
        {"\xc0\xaf", u"\ufffd\ufffd"},             // overlong
        {"\xed\xa0\x80", u"\ufffd\ufffd\ufffd"},   // encoded surrogate
        {"\xf4\x90\x80\x80", u"\ufffd\ufffd\ufffd\ufffd"}, // above U+10FFFF
        {"\xe2\x82", u"\ufffd"},                   // cut at the end
        {"\xe2\x82" "A\xff", u"\ufffdA\ufffd"},
        {"\xef\xbb\xbfx", u"\ufeffx"},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        WCHAR w[16];
        EXPECT_EQ(uni_fromUtf8(w, 16, cases[i].in), cases[i].out.size()) << "case " << i;
        EXPECT_EQ(std::u16string(w), cases[i].out) << "case " << i;
    }
    WCHAR w[3];
    EXPECT_EQ(uni_fromUtf8(w, 2, "\xf0\x9f\x98\x80"), 0u); // no half pair
    EXPECT_EQ(uni_fromUtf8(w, 3, "\xf0\x9f\x98\x80"), 2u);
}

TEST(PlatUnicodeConvert, ToUtf8)
{
    struct Case {
        std::u16string in;
        size_t cap;
        const char *out;
    };
    const Case cases[] = {
        {u"a\u00e9\U0001F600", 16, "a\xc3\xa9\xf0\x9f\x98\x80"},
        {std::u16string(1, (char16_t)0xD800) + u"A", 16, "\xef\xbf\xbd" "A"},
        {std::u16string(1, (char16_t)0xDC00), 16, "\xef\xbf\xbd"},
        {u"a\u00e9", 3, "a"},   // the two-byte sequence does not fit: not cut
        {u"a\u00e9", 4, "a\xc3\xa9"},
        {u"a\u20acb", 4, "a"},  // stops at the first sequence that does not fit
        {u"\U0001F600", 4, ""},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        char buf[16];
        EXPECT_EQ(uni_toUtf8(buf, cases[i].cap, cases[i].in.c_str()), strlen(cases[i].out)) << "case " << i;
        EXPECT_STREQ(buf, cases[i].out) << "case " << i;
    }
}
