/*
 * CIniFile: keyed lookup and one-pass enumeration over an INI file's 8-bit text.
 *
 * The two ways of reading have different grammars on purpose:
 *  - the keyed lookup finds a "[name]" anywhere, ignores anything that is not a letter in front of a
 *    key (so there is no comment syntax at a line start), ends a section at any '[' and cuts a value
 *    at ';', CR or LF;
 *  - the enumeration is a byte-wise state machine over a 2048-byte buffer that knows no comments
 *    and delivers a key only when its line ends.
 * No heap memory: the lookup works in stack buffers, the enumeration in the member buffers.
 */
#include "platform/inifile.h"

#include "platform/platform.h"

#include <string.h>

#define INI_SECTION_SEARCH_SIZE 256   /* the section search's buffer */
#define INI_KEY_CHUNK_SIZE 4096       /* the key search's chunk */
#define INI_BOOL_VALUE_SIZE 6
#define INI_INT_VALUE_SIZE 256

/* Results of the enumeration's advance step. */
#define INI_ADVANCE_END 0        /* the file has ended */
#define INI_ADVANCE_BYTE 1       /* a byte to examine stands at the position */

/* ---- character classes of the default 8-bit table ---- */

static bool ini_isLetter(unsigned char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

static bool ini_isPrintable(unsigned char c)
{
    return c >= 0x20 && c <= 0x7E;
}

static bool ini_isHigh(unsigned char c)
{
    return c >= 0x80;
}

static unsigned char ini_lower(unsigned char c)
{
    return (c >= 'A' && c <= 'Z') ? (unsigned char)(c - 'A' + 'a') : c;
}

/* The len bytes at text equal name, ignoring ASCII case. */
static bool ini_sameName(const char *text, const char *name, int len)
{
    for (int i = 0; i < len; ++i) {
        if (ini_lower((unsigned char)text[i]) != ini_lower((unsigned char)name[i])) return false;
    }
    return true;
}

/* ---- life cycle ---- */

CIniFile::CIniFile()
    : m_dwReserved(0), m_nPosition(INI_ENUM_BUFFER_SIZE), m_nCount(0), m_bCompact(false),
      m_nAheadPosition(0), m_nAheadCount(0), m_bAheadEnded(false)
{
    m_szFileName[0] = 0;
    m_szSection[0] = 0;
    memset(m_buffer, 0, sizeof(m_buffer));
}

CIniFile::~CIniFile()
{
    close();
}

void CIniFile::setFileName(LPCWSTR fileName)
{
    if (fileName == NULL) {
        m_szFileName[0] = 0;
        return;
    }
    uni_wcsncpy0(m_szFileName, fileName, MAX_PATH);
}

bool CIniFile::open(LPCWSTR fileName)
{
    if (isOpen()) close();   /* logged under the old name */
    setFileName(fileName);
    if (!open()) return false;
    memset(m_buffer, 0, sizeof(m_buffer));
    startReading();
    m_nPosition = INI_ENUM_BUFFER_SIZE;
    m_nCount = 0;
    m_bCompact = false;
    return true;
}

bool CIniFile::open()
{
    static const WCHAR mode[] = TEXT("rb");
    /* A second open of the same reader must not leak the first handle. */
    if (isOpen()) close();
    m_dwReserved = 0;
    if (!m_file.Open(m_szFileName, mode)) {
        VLLOG(LOG_ERROR, TEXT("CIniFile::open(): failed to open file [%ls] in mode [%ls]\n"), m_szFileName, mode);
        return false;
    }
    VLLOG(LOG_DEBUG, TEXT("CIniFile::open(): Opened file %ls in mode %ls\n"), m_szFileName, mode);
    return true;
}

void CIniFile::close()
{
    if (!isOpen()) return;
    m_file.Close();
    VLLOG(LOG_DEBUG, TEXT("CIniFile::close(): Closed file %ls\n"), m_szFileName);
}

/* ---- keyed lookup ---- */

/*
 * Positions the file just behind the first "[section]". A '[' anywhere is a candidate; the name is
 * taken exactly as it stands between the brackets. A candidate that runs past the buffer's end is
 * moved to the front and the buffer is refilled behind it, so headers across a boundary are found.
 */
bool CIniFile::findSection(const char *section)
{
    char buf[INI_SECTION_SEARCH_SIZE];
    int len = (int)strlen(section);
    /* "[" + name + "]" must fit the buffer, else the header can never be seen whole. */
    if (len > INI_SECTION_SEARCH_SIZE - 2) return false;
    if (m_file.Seek(0, FILE_BEGIN) != 0) return false;

    LONG base = 0;   /* file offset of buf[0] */
    int count = (int)m_file.Read(buf, sizeof(buf));
    int i = 0;
    for (;;) {
        if (i >= count) {
            base += count;
            count = (int)m_file.Read(buf, sizeof(buf));
            i = 0;
            if (count <= 0) return false;
            continue;
        }
        if (buf[i] != '[') {
            ++i;
            continue;
        }
        if (i + len + 1 >= count) {
            /* The candidate's ']' lies behind the buffer: keep from the '[' on and read more. */
            int keep = count - i;
            if (i > 0) memmove(buf, buf + i, keep);
            base += i;
            i = 0;
            int got = (int)m_file.Read(buf + keep, (DWORD)(INI_SECTION_SEARCH_SIZE - keep));
            count = keep + got;
            /* Nothing more: no header can follow that would fit. */
            if (got <= 0) return false;
            continue;
        }
        if (ini_sameName(buf + i + 1, section, len) && buf[i + 1 + len] == ']') {
            return m_file.Seek(base + i + len + 2, FILE_BEGIN) == 0;
        }
        ++i;
    }
}

/* Moves chunk[from, count) to the front and fills the chunk up behind it; returns the new count. */
static int ini_keepAndRead(COSFile &file, char *chunk, int count, int from)
{
    int keep = count - from;
    if (from > 0) memmove(chunk, chunk + from, keep);
    return keep + (int)file.Read(chunk + keep, (DWORD)(INI_KEY_CHUNK_SIZE - keep));
}

/*
 * Searches the current section for the key from the file's position and copies its value. Any '['
 * ends the section. Bytes that are not letters are passed over one at a time; a letter that does not
 * begin the key makes the rest of its line be skipped. The key must stand alone in front of its '='
 * (spaces allowed between), so a longer name that begins with the key is not taken.
 */
bool CIniFile::findKey(const char *key, char *buffer, int size)
{
    char chunk[INI_KEY_CHUNK_SIZE];
    int len = (int)strlen(key);
    if (len == 0 || len >= INI_KEY_CHUNK_SIZE) return false;

    int count = (int)m_file.Read(chunk, sizeof(chunk));
    int i = 0;
    int eq = -1;   /* the next '=' at or behind i (count: none in the chunk); -1: not searched */
    bool skip = false;
    for (;;) {
        if (count - i < len) {
            /* Too few bytes left for the key: a short chunk means the file has ended. */
            if (count < INI_KEY_CHUNK_SIZE) return false;
            count = ini_keepAndRead(m_file, chunk, count, i);
            i = 0;
            eq = -1;
            continue;
        }
        unsigned char c = (unsigned char)chunk[i];
        if (c == '[') return false;
        if (skip) {
            if (c == '\r' || c == '\n') skip = false;
            ++i;
            continue;
        }
        if (!ini_isLetter(c)) {
            ++i;
            continue;
        }
        if (!ini_sameName(chunk + i, key, len)) {
            skip = true;
            ++i;
            continue;
        }
        /* The next '=' from here, possibly on a later line. */
        if (eq < i) {
            eq = i;
            while (eq < count && chunk[eq] != '=') ++eq;
        }
        if (eq >= count) {
            if (count < INI_KEY_CHUNK_SIZE) return false;   /* no '=' left in the file */
            /* The name runs past the chunk: it can still be the key only if nothing but spaces
             * follows the key here. Then bring more text behind it and look again. */
            int k = i + len;
            while (k < count && chunk[k] == ' ') ++k;
            if (k < count || i == 0) {
                ++i;
                continue;
            }
            count = ini_keepAndRead(m_file, chunk, count, i);
            i = 0;
            eq = -1;
            continue;
        }
        int end = eq;
        while (end > i && chunk[end - 1] == ' ') --end;
        if (end - i != len) {
            ++i;
            continue;
        }

        /* Found: move the line to the front, top the chunk up and cut the line. */
        count = ini_keepAndRead(m_file, chunk, count, i);
        int cut = 0;
        while (cut < count && chunk[cut] != ';' && chunk[cut] != '\r' && chunk[cut] != '\n') ++cut;
        /* No line end within a full chunk: refused. The end of the file ends the last line. */
        if (cut >= INI_KEY_CHUNK_SIZE) return false;
        int v = 0;
        while (v < cut && chunk[v] != '=') ++v;
        if (v < cut) ++v;
        while (v < cut && chunk[v] == ' ') ++v;   /* spaces only; a tab belongs to the value */
        int n = cut - v;
        if (n > size - 1) n = size - 1;
        memcpy(buffer, chunk + v, n);
        buffer[n] = 0;
        return true;
    }
}

bool CIniFile::getString(const char *section, const char *key, char *buffer, int size)
{
    if (buffer == NULL || size <= 0) return false;
    buffer[0] = 0;
    if (!isOpen()) return false;
    if (section == NULL || key == NULL) return false;
    if (!findSection(section)) return false;
    return findKey(key, buffer, size);
}

bool CIniFile::getBool(const char *section, const char *key, int *value)
{
    char text[INI_BOOL_VALUE_SIZE];
    bool found = getString(section, key, text, sizeof(text));
    /* Stored also when nothing was found: a missing key reads as false. */
    if (value != NULL) *value = (found && uni_stricmp(text, "TRUE") == 0) ? 1 : 0;
    return found;
}

bool CIniFile::getInt(const char *section, const char *key, int *value)
{
    char text[INI_INT_VALUE_SIZE];
    bool found = getString(section, key, text, sizeof(text));
    /* Only a found value is stored: the target's old value is the default. */
    if (found && value != NULL) *value = ini_atoi(text);
    return found;
}

/*
 * Leading spaces and tabs, an optional '-', "0x"/"0X" for hex, then digits up to the first other
 * byte. No '+', no octal; the arithmetic wraps at 32 bits.
 */
int ini_atoi(const char *text)
{
    if (text == NULL) return 0;
    const unsigned char *p = (const unsigned char *)text;
    while (*p == ' ' || *p == '\t') ++p;
    bool negative = false;
    if (*p == '-') {
        negative = true;
        ++p;
    }
    unsigned int base = 10;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    }
    unsigned int result = 0;
    for (;; ++p) {
        unsigned int digit;
        if (*p >= '0' && *p <= '9') digit = *p - '0';
        else if (base == 16 && *p >= 'a' && *p <= 'f') digit = *p - 'a' + 10;
        else if (base == 16 && *p >= 'A' && *p <= 'F') digit = *p - 'A' + 10;
        else break;
        result = result * base + digit;
    }
    if (negative) result = 0u - result;
    return (int)result;
}

/* ---- enumeration ---- */

void CIniFile::startReading()
{
    m_file.Seek(0, FILE_BEGIN);
    m_nAheadPosition = 0;
    m_nAheadCount = 0;
    m_bAheadEnded = false;
}

/*
 * Copies the next count bytes of file text into buffer, taking them from the read-ahead and filling
 * that with one read of its whole size whenever it runs empty. Gives fewer only at the end of the
 * file, as a read of the file itself would; a read that gives nothing (the end, or a failure) ends
 * the reading, so the refills near the end do not each ask the file again.
 */
int CIniFile::readText(char *buffer, int count)
{
    int done = 0;
    while (done < count) {
        if (m_nAheadPosition >= m_nAheadCount) {
            if (m_bAheadEnded) break;
            m_nAheadPosition = 0;
            m_nAheadCount = (int)m_file.Read(m_readAhead, INI_READ_AHEAD_SIZE);
            if (m_nAheadCount <= 0) {
                m_nAheadCount = 0;
                m_bAheadEnded = true;
                break;
            }
        }
        int take = m_nAheadCount - m_nAheadPosition;
        if (take > count - done) take = count - done;
        memcpy(buffer + done, m_readAhead + m_nAheadPosition, take);
        m_nAheadPosition += take;
        done += take;
    }
    return done;
}

/*
 * One step through the member buffer. Moves to the next byte; at the buffer's last byte, or when a
 * compaction is pending, moves the bytes from the current position to the front, brings as many as
 * were dropped behind them from the read-ahead and sets the position to 0. A short buffer without a
 * pending compaction means the file has ended. After a refill the byte at 0 is the one the position
 * stood on, and it is examined again: a key name across a refill gets that byte twice ("abcd" reads
 * "abbcd"), and the NUL written at a value's cut comes back as a line end.
 */
inline int CIniFile::advance()
{
    if (m_nPosition < m_nCount - 1 && !m_bCompact) {
        ++m_nPosition;
        return INI_ADVANCE_BYTE;
    }
    return refill();
}

int CIniFile::refill()
{
    if (m_nCount < INI_ENUM_BUFFER_SIZE && !m_bCompact) return INI_ADVANCE_END;

    m_bCompact = false;
    int from = m_nPosition;
    if (from < 0) from = 0;
    if (from > m_nCount) from = m_nCount;
    int keep = m_nCount - from;
    int got = 0;
    if (from > 0) {
        memmove(m_buffer, m_buffer + from, keep);
        got = readText(m_buffer + keep, from);
    }
    m_nPosition = 0;
    m_nCount = keep + got;
    return m_nCount > 0 ? INI_ADVANCE_BYTE : INI_ADVANCE_END;
}

/*
 * Calls the section callback for every "[name]" of the file, in order, until the end of the file
 * or a callback result of 0. The callback may read the section's keys with enumKeys.
 */
bool CIniFile::enumSections(IniSectionCallback callback, void *context)
{
    if (!isOpen()) return true;
    startReading();
    m_nCount = readText(m_buffer, INI_ENUM_BUFFER_SIZE);
    m_nPosition = -1;
    m_bCompact = false;

    for (;;) {
        int step = advance();
        if (step == INI_ADVANCE_END) break;
        if (m_buffer[m_nPosition] != '[') continue;

        int close = -1;
        for (int j = m_nPosition + 1; j < m_nCount; ++j) {
            if (m_buffer[j] == ']') {
                close = j;
                break;
            }
        }
        if (close < 0) {
            /* The '[' already stands at the front, so its ']' is not within the next 2047 bytes
             * (or the file has ended): end the enumeration. */
            if (m_nPosition == 0) break;
            m_bCompact = true;   /* bring the '[' to the front and look again */
            continue;
        }

        m_buffer[close] = 0;
        int len = close - (m_nPosition + 1);
        if (len > INI_SECTION_NAME_SIZE - 1) len = INI_SECTION_NAME_SIZE - 1;
        memcpy(m_szSection, m_buffer + m_nPosition + 1, len);
        m_szSection[len] = 0;

        m_nPosition = close + 1;
        if (m_nPosition >= m_nCount && m_nCount == INI_ENUM_BUFFER_SIZE) {
            /* The ']' was the buffer's last byte: bring the byte behind it to position 0. */
            m_bCompact = true;
            advance();
        }
        if (callback == NULL || callback(context, this, m_szSection) == 0) break;
    }
    return true;
}

void CIniFile::callKey(IniKeyCallback callback, const char *key, const char *value)
{
    if (callback != NULL) callback(this, m_szSection, key, value);
}

/*
 * Reads the keys of the current section up to the next '[' (left for enumSections) or the end of
 * the file, calling the key callback for every key whose line ends. States: 0 between keys, 1 in a
 * key name, 2 after the '=', 3 in a value. Values stay in the member buffer, which a value start
 * compacts so that the value begins at position 0 and may be 2047 bytes long.
 *
 * A value that reaches the buffer's last byte is cut there: that byte becomes NUL, the first 2047
 * bytes are delivered and the state stays 3. The refill then brings the NUL to the front, which ends
 * the value once more with an empty value, and the rest of the line is read as a new key name. A
 * '[' at the cut is delivered the same way and then ends the keys as any '[' does; being
 * overwritten by the NUL, it opens no section.
 *
 * A key name of 128 or more characters is cut to its first 127 and delivered so.
 */
bool CIniFile::enumKeys(const char *section, IniKeyCallback callback)
{
    (void)section;
    if (!isOpen()) return true;

    /* The byte just behind the ']' is only tested for '['; a key on the header's line loses it. */
    if (m_nPosition >= 0 && m_nPosition < m_nCount && m_buffer[m_nPosition] == '[') {
        --m_nPosition;
        return true;
    }

    char key[INI_SECTION_NAME_SIZE];
    int keyLen = 0;
    int state = 0;
    key[0] = 0;
    for (;;) {
        int step = advance();
        if (step == INI_ADVANCE_END) return true;

        int pos = m_nPosition;
        unsigned char c = (unsigned char)m_buffer[pos];
        if (!ini_isPrintable(c) && !ini_isHigh(c)) {
            /* A control byte ends whatever is open. A tab behind the '=' delivers nothing. */
            if (state == 2 && c != '\t') {
                callKey(callback, key, "");
            } else if (state == 3) {
                m_buffer[pos] = 0;
                callKey(callback, key, m_buffer);
            }
            state = 0;
        } else {
            /* state 0: a printable byte other than the space starts a key name */
            if (state == 0 && c != ' ' && !ini_isHigh(c)) {
                keyLen = 0;
                state = 1;
            }
            if (state == 1) {
                /* '=' ends the name, and so does a high byte */
                if (c == '=' || ini_isHigh(c)) {
                    key[keyLen] = 0;
                    state = 2;
                } else if (keyLen < INI_SECTION_NAME_SIZE - 1) {
                    key[keyLen++] = (char)c;
                }
            } else if (state == 2) {
                /* further '=' and high bytes are passed over; anything else starts the value */
                if (c != '=' && !ini_isHigh(c)) {
                    state = 3;
                    m_bCompact = true;   /* the value is to begin at position 0 */
                }
            } else if (state == 3 && pos == INI_ENUM_BUFFER_SIZE - 1) {
                m_buffer[pos] = 0;
                callKey(callback, key, m_buffer);
            }
        }
        if (c == '[') {
            --m_nPosition;
            return true;
        }
    }
}
