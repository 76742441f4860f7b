/*
 * Wide-text helpers, conversions and the formatter of the device program.
 *
 * Nothing here calls the C library's wide functions: WCHAR is 16 bits on every build, wchar_t is
 * not. Only the double part of %f/%e/%g goes to the C library's narrow snprintf.
 */
#include "platform/plat_unicode.h"

#include <stdio.h>
#include <string.h>

/* The CE CRT names it _snprintf; it does not terminate on overflow, which cannot happen below
   because precision and buffer are bounded. */
#if defined(_WIN32)
#define UNI_C_SNPRINTF _snprintf
#else
#define UNI_C_SNPRINTF snprintf
#endif

/* ------------------------------------------------------------------------------ FmtArg */

/* The address of a string or pointer argument, as an integer. */
static unsigned long long fmtAddress(const void *p)
{
    return (unsigned long long)(UINT_PTR)p;
}

long long FmtArg::asInt64() const
{
    switch (m_kind) {
    case INT:
    case INT64:
        return m_v.i64;
    case UINT:
    case UINT64:
        return (long long)m_v.u64;
    case DBL:
        /* Out-of-range values saturate; NaN gives 0. */
        if (m_v.d != m_v.d)
            return 0;
        if (m_v.d >= 9223372036854775807.0)
            return (long long)(~0ULL >> 1);
        if (m_v.d <= -9223372036854775808.0)
            return -(long long)(~0ULL >> 1) - 1;
        return (long long)m_v.d;
    case NSTR:
        return (long long)fmtAddress(m_v.ns);
    case WSTR:
        return (long long)fmtAddress(m_v.ws);
    case PTR:
        return (long long)fmtAddress(m_v.p);
    default:
        return 0;
    }
}

unsigned long long FmtArg::asUInt64() const
{
    switch (m_kind) {
    case UINT:
    case UINT64:
        return m_v.u64;
    case DBL:
        if (m_v.d >= 18446744073709551615.0)
            return ~0ULL;
        if (m_v.d >= 9223372036854775808.0)
            return (unsigned long long)m_v.d;
        return (unsigned long long)asInt64();
    default:
        return (unsigned long long)asInt64();
    }
}

double FmtArg::asDouble() const
{
    switch (m_kind) {
    case DBL:
        return m_v.d;
    case UINT:
    case UINT64:
        return (double)m_v.u64;
    default:
        return (double)asInt64();
    }
}

FmtArgList::FmtArgList(FMT_ARGS_DEF) : count(0)
{
    const FmtArg *all[FMT_MAX_ARGS] = {&a0, &a1, &a2,  &a3,  &a4,  &a5,  &a6,  &a7,
                                       &a8, &a9, &a10, &a11, &a12, &a13, &a14, &a15};
    int i;
    for (i = 0; i < FMT_MAX_ARGS; ++i)
        items[i] = 0;
    for (i = 0; i < FMT_MAX_ARGS && all[i]->given(); ++i)
        items[count++] = all[i];
}

/* ------------------------------------------------------------------------- the formatter */

namespace {

/* Where the output goes: a narrow or a wide buffer of cap units. Everything past the room is only
   counted, so the caller learns the full length. */
struct FmtSink {
    char *ndst;
    WCHAR *wdst;
    size_t cap;
    size_t len;

    /* One code unit. Wide units above 0xFF become '?' in a narrow buffer; narrow units are
       Latin-1 code points in a wide one. */
    void put(unsigned int c)
    {
        if (len + 1 < cap) {
            if (wdst)
                wdst[len] = (WCHAR)(c & 0xFFFF);
            else
                ndst[len] = (char)(c > 0xFF ? '?' : c);
        }
        ++len;
    }
    void repeat(unsigned int c, long n)
    {
        for (; n > 0; --n)
            put(c);
    }
    void putsA(const char *s)
    {
        for (; *s; ++s)
            put((unsigned char)*s);
    }
    int finish()
    {
        if (cap == 0)
            return -1; /* not even the terminator fits */
        size_t end = len < cap ? len : cap - 1;
        if (wdst)
            wdst[end] = 0;
        else
            ndst[end] = 0;
        return len < cap ? (int)len : -1;
    }
};

/* The format text, narrow or wide, read unit by unit. */
struct FmtSource {
    const char *n;
    const WCHAR *w;
    unsigned int at(size_t i) const
    {
        return w ? (unsigned int)(unsigned short)w[i] : (unsigned int)(unsigned char)n[i];
    }
};

enum FmtSize { SZ_NONE, SZ_HH, SZ_H, SZ_L, SZ_LL, SZ_I32, SZ_I64, SZ_IPTR, SZ_W, SZ_BIGL };

/* Widths and precisions beyond this are cut: no text of the device needs more. */
const long FMT_MAX_FIELD = 100000;
/* Precision handed to the C library for doubles (keeps %f of the largest double in the buffer). */
const int FMT_MAX_DBL_PREC = 99;

struct FmtSpec {
    bool left, plus, space, alt, zero;
    long width; /* -1: none */
    long prec;  /* -1: none */
    FmtSize size;
    unsigned int conv;
};

/* Writes `body` units taken from a string of either width, padded to the field width. */
void emitText(FmtSink &out, const FmtSpec &sp, const char *ns, const WCHAR *ws)
{
    long n = 0;
    long limit = sp.prec >= 0 ? sp.prec : 0x7FFFFFFFL;
    /* Never read past the precision: a cut string need not be terminated. */
    if (ns) {
        while (n < limit && ns[n])
            ++n;
    } else {
        while (n < limit && ws[n])
            ++n;
    }
    long pad = sp.width > n ? sp.width - n : 0;
    /* Microsoft pads text with zeros too when asked to. */
    if (!sp.left)
        out.repeat(sp.zero ? '0' : ' ', pad);
    for (long i = 0; i < n; ++i)
        out.put(ns ? (unsigned int)(unsigned char)ns[i] : (unsigned int)(unsigned short)ws[i]);
    if (sp.left)
        out.repeat(' ', pad);
}

void emitNullText(FmtSink &out, const FmtSpec &sp)
{
    emitText(out, sp, "(null)", 0);
}

/* Cuts a value to the bits of the conversion's size; signed conversions sign-extend it. */
unsigned long long fmtCut(unsigned long long v, int bits, bool isSigned, bool *negative)
{
    *negative = false;
    if (bits >= 64) {
        if (isSigned && (long long)v < 0) {
            *negative = true;
            return 0ULL - v;
        }
        return v;
    }
    unsigned long long mask = (1ULL << bits) - 1;
    v &= mask;
    if (isSigned && (v >> (bits - 1)) != 0) {
        *negative = true;
        return ((0ULL - v) & mask);
    }
    return v;
}

int fmtIntBits(FmtSize size)
{
    switch (size) {
    case SZ_HH:
        return 8;
    case SZ_H:
        return 16;
    case SZ_LL:
    case SZ_I64:
        return 64;
    case SZ_IPTR:
        return (int)sizeof(void *) * 8;
    default:
        return 32; /* int, and long as on the device */
    }
}

void emitInteger(FmtSink &out, const FmtSpec &sp, const FmtArg &arg)
{
    unsigned int conv = sp.conv;
    bool isSigned = conv == 'd' || conv == 'i';
    unsigned int base = conv == 'o' ? 8 : (conv == 'x' || conv == 'X') ? 16 : 10;
    const char *digitSet = conv == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
    bool negative;
    unsigned long long v = fmtCut(arg.asUInt64(), fmtIntBits(sp.size), isSigned, &negative);

    char digits[24];
    int nd = 0;
    unsigned long long t = v;
    while (t != 0) {
        digits[nd++] = digitSet[t % base];
        t /= base;
    }
    if (v == 0 && sp.prec != 0)
        digits[nd++] = '0'; /* precision 0 prints nothing for 0 */

    char prefix[3];
    int np = 0;
    if (isSigned) {
        if (negative)
            prefix[np++] = '-';
        else if (sp.plus)
            prefix[np++] = '+';
        else if (sp.space)
            prefix[np++] = ' ';
    }
    if (sp.alt && base == 16 && v != 0) {
        prefix[np++] = '0';
        prefix[np++] = (char)(conv == 'X' ? 'X' : 'x');
    }
    long precZeros = sp.prec > nd ? sp.prec - nd : 0;
    if (sp.alt && base == 8 && precZeros == 0 && (nd == 0 || digits[nd - 1] != '0'))
        precZeros = 1;

    long total = np + precZeros + nd;
    long pad = sp.width > total ? sp.width - total : 0;
    bool zeroPad = sp.zero && !sp.left && sp.prec < 0;
    if (!sp.left && !zeroPad)
        out.repeat(' ', pad);
    for (int i = 0; i < np; ++i)
        out.put((unsigned char)prefix[i]);
    if (zeroPad)
        out.repeat('0', pad);
    out.repeat('0', precZeros);
    while (nd > 0)
        out.put((unsigned char)digits[--nd]);
    if (sp.left)
        out.repeat(' ', pad);
}

/* A pointer as upper-case hex with leading zeros at the build's pointer width: 8 digits on the
   32-bit device, 16 on the 64-bit workstation. */
void emitPointer(FmtSink &out, const FmtSpec &sp, const FmtArg &arg)
{
    const int nd = (int)sizeof(void *) * 2;
    unsigned long long v = arg.asUInt64();
    long pad = sp.width > nd ? sp.width - nd : 0;
    if (!sp.left)
        out.repeat(' ', pad);
    for (int i = nd - 1; i >= 0; --i)
        out.put((unsigned char)"0123456789ABCDEF"[(v >> (i * 4)) & 0xF]);
    if (sp.left)
        out.repeat(' ', pad);
}

void emitDouble(FmtSink &out, const FmtSpec &sp, const FmtArg &arg)
{
    /* The digits come from the C library; sign handling, width and padding are done here so
       that neither width nor precision can overrun the buffer. */
    char cfmt[16];
    int n = 0;
    cfmt[n++] = '%';
    if (sp.plus)
        cfmt[n++] = '+';
    if (sp.space)
        cfmt[n++] = ' ';
    if (sp.alt)
        cfmt[n++] = '#';
    if (sp.prec >= 0) {
        int p = sp.prec > FMT_MAX_DBL_PREC ? FMT_MAX_DBL_PREC : (int)sp.prec;
        cfmt[n++] = '.';
        if (p >= 10)
            cfmt[n++] = (char)('0' + p / 10);
        cfmt[n++] = (char)('0' + p % 10);
    }
    cfmt[n++] = (char)sp.conv;
    cfmt[n] = 0;

    char buf[512];
    int len = UNI_C_SNPRINTF(buf, sizeof(buf), cfmt, arg.asDouble());
    if (len < 0 || len >= (int)sizeof(buf))
        len = (int)sizeof(buf) - 1;
    buf[len] = 0;

    int signLen = (buf[0] == '-' || buf[0] == '+' || buf[0] == ' ') ? 1 : 0;
    /* Zeros go between sign and digits, and only in front of digits (not "inf" or "nan"). */
    bool zeroPad = sp.zero && !sp.left && buf[signLen] >= '0' && buf[signLen] <= '9';
    long pad = sp.width > len ? sp.width - len : 0;
    if (!sp.left && !zeroPad)
        out.repeat(' ', pad);
    for (int i = 0; i < signLen; ++i)
        out.put((unsigned char)buf[i]);
    if (zeroPad)
        out.repeat('0', pad);
    out.putsA(buf + signLen);
    if (sp.left)
        out.repeat(' ', pad);
}

/* A string conversion: the argument's own kind decides what is printed, so a string of the other
   width is converted and a number is printed as %d would print it. */
void emitString(FmtSink &out, const FmtSpec &sp, const FmtArg &arg)
{
    if (arg.kind() == FmtArg::NSTR || arg.kind() == FmtArg::WSTR) {
        const char *ns = arg.narrow();
        const WCHAR *ws = arg.wide();
        if (!ns && !ws)
            emitNullText(out, sp);
        else
            emitText(out, sp, ns, ws);
        return;
    }
    FmtSpec num = sp;
    num.conv = 'd';
    num.size = SZ_NONE;
    num.prec = -1;
    emitInteger(out, num, arg);
}

/* A character conversion: a WCHAR keeps 16 bits of the value, a char 8. */
void emitChar(FmtSink &out, const FmtSpec &sp, const FmtArg &arg, bool wideChar)
{
    if (arg.kind() == FmtArg::NSTR || arg.kind() == FmtArg::WSTR) {
        /* A string handed to %c: print it, as a string conversion would. */
        FmtSpec s = sp;
        s.prec = -1;
        emitString(out, s, arg);
        return;
    }
    unsigned int c = (unsigned int)(arg.asUInt64() & (wideChar ? 0xFFFF : 0xFF));
    long pad = sp.width > 1 ? sp.width - 1 : 0;
    if (!sp.left)
        out.repeat(sp.zero ? '0' : ' ', pad);
    out.put(c);
    if (sp.left)
        out.repeat(' ', pad);
}

bool isDigitUnit(unsigned int c)
{
    return c >= '0' && c <= '9';
}

/* Reads a decimal field, stopping the value (not the scan) at FMT_MAX_FIELD. */
long readNumber(const FmtSource &src, size_t &i)
{
    long v = 0;
    while (isDigitUnit(src.at(i))) {
        if (v < FMT_MAX_FIELD)
            v = v * 10 + (long)(src.at(i) - '0');
        ++i;
    }
    return v > FMT_MAX_FIELD ? FMT_MAX_FIELD : v;
}

long clampField(long long v)
{
    return v > FMT_MAX_FIELD ? FMT_MAX_FIELD : (long)v;
}

/* The core shared by the narrow and the wide formatter. The output has the format's width. */
void fmtRun(FmtSink &out, const FmtSource &src, bool wideFormat, const FmtArgList &args)
{
    int next = 0; /* the next argument to take */
    size_t i = 0;
    for (;;) {
        unsigned int c = src.at(i);
        if (c == 0)
            break;
        if (c != '%') {
            out.put(c);
            ++i;
            continue;
        }
        size_t start = i++;
        if (src.at(i) == '%') {
            out.put('%');
            ++i;
            continue;
        }

        FmtSpec sp;
        sp.left = sp.plus = sp.space = sp.alt = sp.zero = false;
        sp.width = -1;
        sp.prec = -1;
        sp.size = SZ_NONE;
        sp.conv = 0;
        bool widthStar = false, precStar = false;

        for (;; ++i) {
            unsigned int f = src.at(i);
            if (f == '-')
                sp.left = true;
            else if (f == '+')
                sp.plus = true;
            else if (f == ' ')
                sp.space = true;
            else if (f == '#')
                sp.alt = true;
            else if (f == '0')
                sp.zero = true;
            else
                break;
        }
        if (src.at(i) == '*') {
            widthStar = true;
            ++i;
        } else if (isDigitUnit(src.at(i))) {
            sp.width = readNumber(src, i);
        }
        if (src.at(i) == '.') {
            ++i;
            if (src.at(i) == '*') {
                precStar = true;
                ++i;
            } else {
                sp.prec = readNumber(src, i); /* a lone '.' is precision 0 */
            }
        }
        unsigned int m = src.at(i);
        if (m == 'h') {
            ++i;
            sp.size = SZ_H;
            if (src.at(i) == 'h') {
                ++i;
                sp.size = SZ_HH;
            }
        } else if (m == 'l') {
            ++i;
            sp.size = SZ_L;
            if (src.at(i) == 'l') {
                ++i;
                sp.size = SZ_LL;
            }
        } else if (m == 'w') {
            ++i;
            sp.size = SZ_W;
        } else if (m == 'L') {
            ++i;
            sp.size = SZ_BIGL;
        } else if (m == 'I') {
            ++i;
            if (src.at(i) == '6' && src.at(i + 1) == '4') {
                i += 2;
                sp.size = SZ_I64;
            } else if (src.at(i) == '3' && src.at(i + 1) == '2') {
                i += 2;
                sp.size = SZ_I32;
            } else {
                sp.size = SZ_IPTR;
            }
        }

        sp.conv = src.at(i);
        if (sp.conv == 0) {
            /* The format ends inside a conversion: the rest stands as it is. */
            for (size_t k = start; k < i; ++k)
                out.put(src.at(k));
            break;
        }
        ++i;

        bool known = false;
        switch (sp.conv) {
        case 'd': case 'i': case 'u': case 'x': case 'X': case 'o': case 'p':
        case 'c': case 'C': case 's': case 'S':
        case 'f': case 'e': case 'E': case 'g': case 'G':
            known = true;
            break;
        default:
            break;
        }
        int needed = 1 + (widthStar ? 1 : 0) + (precStar ? 1 : 0);
        if (!known || next + needed > args.count) {
            /* Unknown, or not all of its arguments were given: the conversion stands as written.
               A known one uses up what is left, as printf would, so later conversions do not
               pick up arguments meant for this one. */
            if (known)
                next = args.count;
            for (size_t k = start; k < i; ++k)
                out.put(src.at(k));
            continue;
        }

        if (widthStar) {
            long long w = args.at(next++)->asInt64();
            if ((int)w < 0) {
                sp.left = true;
                w = -(long long)(int)w;
            } else {
                w = (int)w;
            }
            sp.width = clampField(w);
        }
        if (precStar) {
            int p = (int)args.at(next++)->asInt64();
            sp.prec = p < 0 ? -1 : clampField(p);
        }
        const FmtArg &arg = *args.at(next++);

        switch (sp.conv) {
        case 'd': case 'i': case 'u': case 'x': case 'X': case 'o':
            emitInteger(out, sp, arg);
            break;
        case 'p':
            emitPointer(out, sp, arg);
            break;
        case 'f': case 'e': case 'E': case 'g': case 'G':
            emitDouble(out, sp, arg);
            break;
        case 's': case 'S':
            emitString(out, sp, arg);
            break;
        default: { /* 'c', 'C' */
            bool wideChar;
            if (sp.size == SZ_H || sp.size == SZ_HH)
                wideChar = false;
            else if (sp.size == SZ_L || sp.size == SZ_LL || sp.size == SZ_W)
                wideChar = true;
            else
                wideChar = wideFormat != (sp.conv == 'C'); /* %C is the other width */
            emitChar(out, sp, arg, wideChar);
            break;
        }
        }
    }
}

} // namespace

int fmt_formatW(WCHAR *dst, size_t cap, const WCHAR *format, const FmtArgList &args)
{
    FmtSink out;
    out.ndst = 0;
    out.wdst = dst;
    out.cap = dst ? cap : 0;
    out.len = 0;
    if (format) {
        FmtSource src;
        src.n = 0;
        src.w = format;
        fmtRun(out, src, true, args);
    }
    return out.finish();
}

int fmt_formatA(char *dst, size_t cap, const char *format, const FmtArgList &args)
{
    FmtSink out;
    out.ndst = dst;
    out.wdst = 0;
    out.cap = dst ? cap : 0;
    out.len = 0;
    if (format) {
        FmtSource src;
        src.n = format;
        src.w = 0;
        fmtRun(out, src, false, args);
    }
    return out.finish();
}

size_t fmt_lengthA(const char *format, const FmtArgList &args)
{
    FmtSink out;
    out.ndst = 0;
    out.wdst = 0;
    out.cap = 0;
    out.len = 0;
    if (format) {
        FmtSource src;
        src.n = format;
        src.w = 0;
        fmtRun(out, src, false, args);
    }
    return out.len;
}

int uni_snwprintf(WCHAR *dst, size_t cap, const WCHAR *format, FMT_ARGS_DEF)
{
    FmtArgList args(FMT_ARGS_PASS);
    return fmt_formatW(dst, cap, format, args);
}

int uni_snprintf(char *dst, size_t cap, const char *format, FMT_ARGS_DEF)
{
    FmtArgList args(FMT_ARGS_PASS);
    return fmt_formatA(dst, cap, format, args);
}

/* ------------------------------------------------------------------------ wide-text helpers */
/* A null string counts as empty where that costs nothing. */

size_t uni_wcslen(const WCHAR *s)
{
    size_t n = 0;
    if (s)
        while (s[n])
            ++n;
    return n;
}

WCHAR *uni_wcsncpy0(WCHAR *dst, const WCHAR *src, size_t cap)
{
    if (!dst || cap == 0)
        return dst;
    size_t n = 0;
    if (src)
        for (; n + 1 < cap && src[n]; ++n)
            dst[n] = src[n];
    dst[n] = 0;
    return dst;
}

WCHAR *uni_wcscpy(WCHAR *dst, const WCHAR *src)
{
    size_t n = 0;
    if (src)
        for (; src[n]; ++n)
            dst[n] = src[n];
    dst[n] = 0;
    return dst;
}

WCHAR *uni_wcsncat0(WCHAR *dst, const WCHAR *src, size_t cap)
{
    if (!dst || cap == 0)
        return dst;
    size_t n = 0;
    while (n < cap && dst[n])
        ++n;
    if (n >= cap) {
        /* Not terminated within its room: terminate at the last unit. */
        dst[cap - 1] = 0;
        return dst;
    }
    uni_wcsncpy0(dst + n, src, cap - n);
    return dst;
}

/* Compares at most n units, a null string counting as empty; fold compares in lower case. */
static int compareW(const WCHAR *a, const WCHAR *b, size_t n, bool fold)
{
    static const WCHAR empty[1] = {0};
    if (!a)
        a = empty;
    if (!b)
        b = empty;
    for (size_t i = 0; i < n; ++i) {
        unsigned int ca = (unsigned short)(fold ? uni_towlower(a[i]) : a[i]);
        unsigned int cb = (unsigned short)(fold ? uni_towlower(b[i]) : b[i]);
        if (ca != cb)
            return ca < cb ? -1 : 1;
        if (ca == 0)
            break;
    }
    return 0;
}

int uni_wcscmp(const WCHAR *a, const WCHAR *b)
{
    return uni_wcsncmp(a, b, (size_t)-1);
}

int uni_wcsncmp(const WCHAR *a, const WCHAR *b, size_t n)
{
    return compareW(a, b, n, false);
}

WCHAR uni_towupper(WCHAR c)
{
    unsigned int u = (unsigned short)c;
    if ((u >= 'a' && u <= 'z') || (u >= 0xE0 && u <= 0xFE && u != 0xF7))
        return (WCHAR)(u - 0x20);
    if (u == 0xFF)
        return (WCHAR)0x178; /* y with diaeresis: its capital lies outside Latin-1 */
    return c;
}

WCHAR uni_towlower(WCHAR c)
{
    unsigned int u = (unsigned short)c;
    if ((u >= 'A' && u <= 'Z') || (u >= 0xC0 && u <= 0xDE && u != 0xD7))
        return (WCHAR)(u + 0x20);
    if (u == 0x178)
        return (WCHAR)0xFF;
    return c;
}

int uni_wcsicmp(const WCHAR *a, const WCHAR *b)
{
    return uni_wcsnicmp(a, b, (size_t)-1);
}

/* Folds to lower case, as the device's library does, so '_' sorts before letters. */
int uni_wcsnicmp(const WCHAR *a, const WCHAR *b, size_t n)
{
    return compareW(a, b, n, true);
}

const WCHAR *uni_wcschr(const WCHAR *s, WCHAR c)
{
    if (!s)
        return 0;
    for (;; ++s) {
        if (*s == c)
            return s;
        if (*s == 0)
            return 0;
    }
}

const WCHAR *uni_wcsrchr(const WCHAR *s, WCHAR c)
{
    const WCHAR *found = 0;
    if (!s)
        return 0;
    for (;; ++s) {
        if (*s == c)
            found = s;
        if (*s == 0)
            return found;
    }
}

const WCHAR *uni_wcsstr(const WCHAR *haystack, const WCHAR *needle)
{
    if (!haystack)
        return 0;
    if (!needle || !needle[0])
        return haystack;
    for (; *haystack; ++haystack) {
        size_t k = 0;
        while (needle[k] && haystack[k] == needle[k])
            ++k;
        if (!needle[k])
            return haystack;
    }
    return 0;
}

WCHAR *uni_wcsupr(WCHAR *s)
{
    if (s)
        for (WCHAR *p = s; *p; ++p)
            *p = uni_towupper(*p);
    return s;
}

/* ------------------------------------------------------------------------- 8-bit helpers */
/* ASCII letters only, as the device's C library in its default locale. */

static int asciiLower(int c)
{
    return (c >= 'A' && c <= 'Z') ? c + 0x20 : c;
}

int uni_stricmp(const char *a, const char *b)
{
    return uni_strnicmp(a, b, (size_t)-1);
}

int uni_strnicmp(const char *a, const char *b, size_t n)
{
    if (!a)
        a = "";
    if (!b)
        b = "";
    for (size_t i = 0; i < n; ++i) {
        int ca = asciiLower((unsigned char)a[i]);
        int cb = asciiLower((unsigned char)b[i]);
        if (ca != cb)
            return ca < cb ? -1 : 1;
        if (ca == 0)
            break;
    }
    return 0;
}

char *uni_strupr(char *s)
{
    if (s)
        for (char *p = s; *p; ++p)
            if (*p >= 'a' && *p <= 'z')
                *p = (char)(*p - 0x20);
    return s;
}

/* --------------------------------------------------------------------------- conversions */

size_t uni_widen(WCHAR *dst, size_t cap, const char *src)
{
    if (!dst || cap == 0)
        return 0;
    size_t n = 0;
    if (src)
        for (; n + 1 < cap && src[n]; ++n)
            dst[n] = (WCHAR)(unsigned char)src[n];
    dst[n] = 0;
    return n;
}

size_t uni_narrow(char *dst, size_t cap, const WCHAR *src)
{
    if (!dst || cap == 0)
        return 0;
    size_t n = 0;
    if (src) {
        for (size_t i = 0; n + 1 < cap && src[i]; ++i) {
            unsigned int u = (unsigned short)src[i];
            /* a surrogate pair is one code point, so one '?' */
            if (u >= 0xD800 && u <= 0xDBFF) {
                unsigned int lo = (unsigned short)src[i + 1];
                if (lo >= 0xDC00 && lo <= 0xDFFF)
                    ++i;
            }
            dst[n++] = (char)(u > 0xFF ? '?' : u);
        }
    }
    dst[n] = 0;
    return n;
}

size_t uni_fromUtf8(WCHAR *dst, size_t cap, const char *src)
{
    if (!dst || cap == 0)
        return 0;
    const WCHAR REPLACEMENT = (WCHAR)0xFFFD;
    size_t n = 0;
    const unsigned char *s = (const unsigned char *)(src ? src : "");
    while (*s && n + 1 < cap) {
        unsigned int b = *s;
        if (b < 0x80) {
            dst[n++] = (WCHAR)b;
            ++s;
            continue;
        }
        /* Length of the sequence and the range its second byte must be in (no overlong forms,
           no encoded surrogates, nothing above U+10FFFF). */
        int more;
        unsigned int cp, lo = 0x80, hi = 0xBF;
        if (b >= 0xC2 && b <= 0xDF) {
            more = 1;
            cp = b & 0x1F;
        } else if (b >= 0xE0 && b <= 0xEF) {
            more = 2;
            cp = b & 0x0F;
            if (b == 0xE0)
                lo = 0xA0;
            else if (b == 0xED)
                hi = 0x9F;
        } else if (b >= 0xF0 && b <= 0xF4) {
            more = 3;
            cp = b & 0x07;
            if (b == 0xF0)
                lo = 0x90;
            else if (b == 0xF4)
                hi = 0x8F;
        } else {
            dst[n++] = REPLACEMENT; /* stray continuation byte or impossible lead */
            ++s;
            continue;
        }
        ++s;
        bool ok = true;
        for (int k = 0; k < more; ++k) {
            unsigned int cb = *s;
            if (cb < lo || cb > hi) {
                ok = false; /* the bytes so far make one bad sequence; cb starts anew */
                break;
            }
            cp = (cp << 6) | (cb & 0x3F);
            lo = 0x80;
            hi = 0xBF;
            ++s;
        }
        if (!ok) {
            dst[n++] = REPLACEMENT;
            continue;
        }
        if (cp >= 0x10000) {
            if (n + 2 >= cap)
                break; /* never half a surrogate pair */
            cp -= 0x10000;
            dst[n++] = (WCHAR)(0xD800 + (cp >> 10));
            dst[n++] = (WCHAR)(0xDC00 + (cp & 0x3FF));
        } else {
            dst[n++] = (WCHAR)cp;
        }
    }
    dst[n] = 0;
    return n;
}

size_t uni_toUtf8(char *dst, size_t cap, const WCHAR *src)
{
    if (!dst || cap == 0)
        return 0;
    size_t n = 0;
    if (src) {
        for (size_t i = 0; src[i]; ++i) {
            unsigned int cp = (unsigned short)src[i];
            if (cp >= 0xD800 && cp <= 0xDBFF) {
                unsigned int low = (unsigned short)src[i + 1];
                if (low >= 0xDC00 && low <= 0xDFFF) {
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                    ++i;
                } else {
                    cp = 0xFFFD;
                }
            } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
                cp = 0xFFFD;
            }
            unsigned char seq[4];
            size_t len;
            if (cp < 0x80) {
                seq[0] = (unsigned char)cp;
                len = 1;
            } else if (cp < 0x800) {
                seq[0] = (unsigned char)(0xC0 | (cp >> 6));
                seq[1] = (unsigned char)(0x80 | (cp & 0x3F));
                len = 2;
            } else if (cp < 0x10000) {
                seq[0] = (unsigned char)(0xE0 | (cp >> 12));
                seq[1] = (unsigned char)(0x80 | ((cp >> 6) & 0x3F));
                seq[2] = (unsigned char)(0x80 | (cp & 0x3F));
                len = 3;
            } else {
                seq[0] = (unsigned char)(0xF0 | (cp >> 18));
                seq[1] = (unsigned char)(0x80 | ((cp >> 12) & 0x3F));
                seq[2] = (unsigned char)(0x80 | ((cp >> 6) & 0x3F));
                seq[3] = (unsigned char)(0x80 | (cp & 0x3F));
                len = 4;
            }
            if (n + len + 1 > cap)
                break; /* the whole sequence or nothing */
            for (size_t k = 0; k < len; ++k)
                dst[n++] = (char)seq[k];
        }
    }
    dst[n] = 0;
    return n;
}
