/*
 * Wide-text helpers and the one formatter of the device program.
 *
 * WCHAR is 16 bits on every build (wchar_t on the device, char16_t on the workstation), so the C
 * library's wcs* functions and swprintf are never used: these helpers replace them.
 *
 * The formatter follows the Microsoft conventions the system's texts are written in:
 *   wide format:   %s wide string, %hs narrow, %ls wide, %S narrow;  %c WCHAR, %hc char, %lc WCHAR, %C char
 *   narrow format: %s narrow string, %hs narrow, %ls wide, %S wide;  %c char, %hc char, %lc WCHAR, %C WCHAR
 * with flags (- + space # 0), width and precision (both also as *), the conversions
 * d i u x X o p c s f e E g G %, and the modifiers h l ll I64 (l is 32 bits, as on the device).
 *
 * Arguments travel as FmtArg values: each knows its kind, and the formatter knows how many it was
 * given. A conversion with no argument left is written out as it stands, so a text that is
 * formatted a second time (the log writer does this on purpose) can never read a missing argument.
 * A string conversion given a string of the other width prints it all the same, widened or narrowed.
 */
#ifndef TARSK_PLATFORM_PLAT_UNICODE_H
#define TARSK_PLATFORM_PLAT_UNICODE_H

#include "sal/winapi.h"

/* One formatter argument. Built implicitly from the call's values. */
class FmtArg {
public:
    enum Kind { NONE, INT, UINT, INT64, UINT64, DBL, NSTR, WSTR, PTR };

    FmtArg() : m_kind(NONE) { m_v.u64 = 0; }
    FmtArg(int v) : m_kind(INT) { m_v.i64 = v; }
    FmtArg(unsigned int v) : m_kind(UINT) { m_v.u64 = v; }
    FmtArg(long v) : m_kind(sizeof(long) > 4 ? INT64 : INT) { m_v.i64 = v; }
    FmtArg(unsigned long v) : m_kind(sizeof(long) > 4 ? UINT64 : UINT) { m_v.u64 = v; }
    FmtArg(long long v) : m_kind(INT64) { m_v.i64 = v; }
    FmtArg(unsigned long long v) : m_kind(UINT64) { m_v.u64 = v; }
    FmtArg(double v) : m_kind(DBL) { m_v.d = v; }
    FmtArg(const char *s) : m_kind(NSTR) { m_v.ns = s; }
    FmtArg(const WCHAR *s) : m_kind(WSTR) { m_v.ws = s; }
    FmtArg(const void *p) : m_kind(PTR) { m_v.p = p; }
#if !defined(_WIN32)
    FmtArg(WCHAR c) : m_kind(UINT) { m_v.u64 = (unsigned short)c; }
#else
    FmtArg(wchar_t c) : m_kind(UINT) { m_v.u64 = (unsigned short)c; }
#endif

    Kind kind() const { return m_kind; }
    bool given() const { return m_kind != NONE; }
    /* The value as a 64-bit integer (strings and pointers give their address). */
    long long asInt64() const;
    unsigned long long asUInt64() const;
    double asDouble() const;
    const char *narrow() const { return m_kind == NSTR ? m_v.ns : 0; }
    const WCHAR *wide() const { return m_kind == WSTR ? m_v.ws : 0; }

private:
    Kind m_kind;
    union {
        long long i64;
        unsigned long long u64;
        double d;
        const char *ns;
        const WCHAR *ws;
        const void *p;
    } m_v;
};

#define FMT_MAX_ARGS 16

/* The argument list of one formatting call: the given arguments in order, then NONE. */
#define FMT_ARGS_DECL                                                                              \
    const FmtArg &a0 = FmtArg(), const FmtArg &a1 = FmtArg(), const FmtArg &a2 = FmtArg(),        \
    const FmtArg &a3 = FmtArg(), const FmtArg &a4 = FmtArg(), const FmtArg &a5 = FmtArg(),        \
    const FmtArg &a6 = FmtArg(), const FmtArg &a7 = FmtArg(), const FmtArg &a8 = FmtArg(),        \
    const FmtArg &a9 = FmtArg(), const FmtArg &a10 = FmtArg(), const FmtArg &a11 = FmtArg(),      \
    const FmtArg &a12 = FmtArg(), const FmtArg &a13 = FmtArg(), const FmtArg &a14 = FmtArg(),     \
    const FmtArg &a15 = FmtArg()
#define FMT_ARGS_DEF                                                                               \
    const FmtArg &a0, const FmtArg &a1, const FmtArg &a2, const FmtArg &a3, const FmtArg &a4,      \
    const FmtArg &a5, const FmtArg &a6, const FmtArg &a7, const FmtArg &a8, const FmtArg &a9,      \
    const FmtArg &a10, const FmtArg &a11, const FmtArg &a12, const FmtArg &a13,                    \
    const FmtArg &a14, const FmtArg &a15
#define FMT_ARGS_PASS a0, a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15

/* Collects the given arguments of a call (those before the first NONE) into an array.
 * It keeps pointers to the arguments: a list built from temporaries is valid only within the
 * full expression that builds it (pass it straight to fmt_format*). */
struct FmtArgList {
    const FmtArg *items[FMT_MAX_ARGS];
    int count;
    FmtArgList(FMT_ARGS_DECL);     /* no arguments: an empty list */
    const FmtArg *at(int i) const { return i < count ? items[i] : 0; }
};

/* ---- the formatter core ----
 * Formats into dst of cap units (terminator included; nothing written when cap is 0). Returns the
 * number of units written (without the terminator), or -1 when the output did not fit, in which case
 * dst holds the first cap-1 units, terminated. */
int fmt_formatW(WCHAR *dst, size_t cap, const WCHAR *format, const FmtArgList &args);
int fmt_formatA(char *dst, size_t cap, const char *format, const FmtArgList &args);
/* The length the output would have, without writing it. */
size_t fmt_lengthA(const char *format, const FmtArgList &args);

/* snprintf-style entry points: result as fmt_format*. */
int uni_snwprintf(WCHAR *dst, size_t cap, const WCHAR *format, FMT_ARGS_DECL);
int uni_snprintf(char *dst, size_t cap, const char *format, FMT_ARGS_DECL);

/* ---- wide-text helpers ---- */
size_t uni_wcslen(const WCHAR *s);
/* Copies at most cap-1 units and terminates (nothing when cap is 0). Returns dst. */
WCHAR *uni_wcsncpy0(WCHAR *dst, const WCHAR *src, size_t cap);
/* Copies the whole string (the caller guarantees room). Returns dst. */
WCHAR *uni_wcscpy(WCHAR *dst, const WCHAR *src);
/* Appends, keeping dst within cap units terminator included. Returns dst. */
WCHAR *uni_wcsncat0(WCHAR *dst, const WCHAR *src, size_t cap);
int uni_wcscmp(const WCHAR *a, const WCHAR *b);
int uni_wcsncmp(const WCHAR *a, const WCHAR *b, size_t n);
/* Case-insensitive compare (ASCII and Latin-1 letters folded). */
int uni_wcsicmp(const WCHAR *a, const WCHAR *b);
int uni_wcsnicmp(const WCHAR *a, const WCHAR *b, size_t n);
const WCHAR *uni_wcschr(const WCHAR *s, WCHAR c);
const WCHAR *uni_wcsrchr(const WCHAR *s, WCHAR c);
const WCHAR *uni_wcsstr(const WCHAR *haystack, const WCHAR *needle);
WCHAR uni_towupper(WCHAR c);
WCHAR uni_towlower(WCHAR c);
/* Upper-cases in place. Returns s. */
WCHAR *uni_wcsupr(WCHAR *s);

/* 8-bit helpers where the C library's differ between device and workstation. */
int uni_stricmp(const char *a, const char *b);
int uni_strnicmp(const char *a, const char *b, size_t n);
char *uni_strupr(char *s);

/* ---- conversions ----
 * Each converts the whole source (up to its terminator) into dst of cap units, cutting at cap-1 and
 * terminating, and returns the number of units written (without the terminator). */
/* 8-bit to wide: each byte becomes the code point of the same value (Latin-1). */
size_t uni_widen(WCHAR *dst, size_t cap, const char *src);
/* Wide to 8-bit: code points above 0xFF become '?'. */
size_t uni_narrow(char *dst, size_t cap, const WCHAR *src);
/* UTF-8 to wide (UTF-16): invalid sequences become U+FFFD. */
size_t uni_fromUtf8(WCHAR *dst, size_t cap, const char *src);
/* Wide (UTF-16) to UTF-8: a lone surrogate becomes U+FFFD; a sequence is never cut in half. */
size_t uni_toUtf8(char *dst, size_t cap, const WCHAR *src);

#endif /* TARSK_PLATFORM_PLAT_UNICODE_H */
