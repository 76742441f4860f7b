/*
 * The XML document model over Mini-XML.
 *
 * Mini-XML keeps its strings in UTF-8; every name, value and text is converted at this boundary.
 * Loading: the file is decoded by our own character source (UTF-8, or UTF-16 after a byte order
 * mark), re-encoded as UTF-8 into memory and parsed with mxmlLoadString under a document node of our
 * own, so that every top-level element of the file (declared or not) lies below the document's top.
 * Text is loaded with the text callback, so Mini-XML splits it into pieces that carry a "preceded by
 * white space" flag. Saving: each top-level node is saved to a string by Mini-XML and its 16-bit units
 * go through our character sink, which always writes UTF-8.
 */
#include "framework/xmlfile.h"

#include "platform/plat_alloc.h"
#include "platform/plat_file.h"
#include "platform/plat_unicode.h"
#include "platform/platform.h"

#include <mxml.h>
#include <stdlib.h>
#include <string.h>

/* File input and output go through buffers of this many bytes. */
#define XML_IO_BUFFER_SIZE 8192
/* The loaded text grows from this many bytes. */
#define XML_TEXT_INITIAL_SIZE 8192

/* VLVERIFY with the logged condition text given separately (the condition as written uses the
 * device's own wide helpers). */
#define XML_VERIFY(cond, text)                                                                     \
    do {                                                                                           \
        if (!(cond)) vl_verifyFailed(text, __FILE__, __LINE__);                                    \
    } while (0)

/* The name of our document node, above the file's top-level nodes. */
static const char XML_DOCUMENT_NAME[] = "#document";

/* ------------------------------------------------------------------------------------------------
 * UTF-8 helpers for the strings Mini-XML holds
 * ---------------------------------------------------------------------------------------------- */

/* Decodes one character of a UTF-8 string and advances p. Lenient, so nothing Mini-XML holds is
 * ever refused: a byte that does not start a complete sequence gives U+FFFD and is skipped alone. */
static DWORD utf8Next(const unsigned char *&p)
{
    unsigned int b = *p;
    int n;
    DWORD cp;
    if (b < 0x80) {
        ++p;
        return b;
    }
    if ((b & 0xE0) == 0xC0) {
        n = 1;
        cp = b & 0x1F;
    } else if ((b & 0xF0) == 0xE0) {
        n = 2;
        cp = b & 0x0F;
    } else if ((b & 0xF8) == 0xF0) {
        n = 3;
        cp = b & 0x07;
    } else {
        ++p;
        return 0xFFFD;
    }
    for (int i = 1; i <= n; ++i) {
        if ((p[i] & 0xC0) != 0x80) {
            ++p;
            return 0xFFFD;
        }
        cp = (cp << 6) | (p[i] & 0x3F);
    }
    p += n + 1;
    return cp > 0x10FFFF ? 0xFFFD : cp;
}

/* Appends a UTF-8 string as UTF-16 to dst (cap units, terminator included) from *pos while it fits;
 * once one character does not fit nothing more is written (*full). Adds the units the whole string
 * needs to *total. Does not terminate. */
static void utf8Append(WCHAR *dst, DWORD cap, DWORD *pos, DWORD *total, BOOL *full, const char *src)
{
    const unsigned char *p = (const unsigned char *)src;
    while (*p) {
        DWORD cp = utf8Next(p);
        DWORD units = cp >= 0x10000 ? 2 : 1;
        if (!*full && dst != NULL && cap > 0 && *pos + units <= cap - 1) {
            if (units == 2) {
                cp -= 0x10000;
                dst[(*pos)++] = (WCHAR)(0xD800 + (cp >> 10));
                dst[(*pos)++] = (WCHAR)(0xDC00 + (cp & 0x3FF));
            } else {
                dst[(*pos)++] = (WCHAR)cp;
            }
        } else {
            *full = TRUE;
        }
        *total += units;
    }
}

/* Copies a UTF-8 string into a caller buffer under the size contract: when the text and terminator
 * do not fit, stores the needed size, logs message at DEBUG and returns 0 (buf untouched). */
static BOOL copyOut(const char *src, WCHAR *buf, DWORD *pSize, const WCHAR *message)
{
    if (pSize == NULL) return FALSE;
    if (src == NULL) src = "";
    DWORD pos = 0, total = 0;
    BOOL full = FALSE;
    utf8Append(NULL, 0, &pos, &total, &full, src);
    if (buf == NULL || total + 1 > *pSize) {
        *pSize = total + 1;
        VLLOG(LOG_DEBUG, message);
        return FALSE;
    }
    total = 0;
    full = FALSE;
    utf8Append(buf, *pSize, &pos, &total, &full, src);
    buf[pos] = 0;
    return TRUE;
}

/* A wide string converted to UTF-8 for Mini-XML, held for one call. get() is NULL when the source
 * was NULL or memory ran out. */
class Utf8Text {
public:
    explicit Utf8Text(LPCWSTR s) : m_p(NULL)
    {
        if (s == NULL) return;
        size_t cap = uni_wcslen(s) * 3 + 1;   /* a unit takes at most 3 bytes, a pair 4 */
        m_p = cap <= sizeof(m_buf) ? m_buf : (char *)os_malloc(cap);
        if (m_p != NULL) uni_toUtf8(m_p, cap, s);
    }
    ~Utf8Text()
    {
        if (m_p != NULL && m_p != m_buf) os_free(m_p);
    }
    const char *get() const { return m_p; }

private:
    Utf8Text(const Utf8Text &);
    Utf8Text &operator=(const Utf8Text &);
    char *m_p;
    char m_buf[128];
};

static BOOL startsWith(const char *s, const char *prefix)
{
    return s != NULL && strncmp(s, prefix, strlen(prefix)) == 0;
}

/* Comments are elements named "!-- ... --" in Mini-XML's tree. */
static BOOL isComment(mxml_node_t *node)
{
    return startsWith(mxmlGetElement(node), "!--");
}

static BOOL hasElementChild(mxml_node_t *node)
{
    for (mxml_node_t *c = mxmlGetFirstChild(node); c != NULL; c = mxmlGetNextSibling(c))
        if (mxmlGetType(c) == MXML_ELEMENT) return TRUE;
    return FALSE;
}

/* ------------------------------------------------------------------------------------------------
 * Character source: decodes the file for the loader
 * ---------------------------------------------------------------------------------------------- */

class XmlCharSource {
public:
    XmlCharSource(HANDLE file, BYTE *buffer)
        : m_hFile(file), m_pBuffer(buffer), m_dwHeld(0), m_dwPos(0), m_bEnded(FALSE),
          m_nEncoding(ENC_UTF8) {}

    /* The next character (code point), or -1 at the end of the input or on a bad sequence. */
    int getChar();
    /* Copies the ASCII bytes that stand next in the buffer, at most max, while the input is UTF-8:
     * each is the character getChar would give. Returns how many (0: use getChar). */
    DWORD takeAscii(char *dst, DWORD max);

private:
    enum { ENC_UTF8, ENC_UTF16BE, ENC_UTF16LE };
    int nextByte();
    int nextUnit();

    HANDLE m_hFile;
    BYTE *m_pBuffer;
    DWORD m_dwHeld;
    DWORD m_dwPos;
    BOOL m_bEnded;
    int m_nEncoding;
};

int XmlCharSource::nextByte()
{
    if (m_dwPos >= m_dwHeld) {
        if (m_bEnded) return -1;
        m_dwHeld = os_fread(m_pBuffer, XML_IO_BUFFER_SIZE, m_hFile);
        m_dwPos = 0;
        if (m_dwHeld == 0) {
            m_bEnded = TRUE;   /* a failed or empty read ends the input */
            return -1;
        }
    }
    return m_pBuffer[m_dwPos++];
}

DWORD XmlCharSource::takeAscii(char *dst, DWORD max)
{
    if (m_nEncoding != ENC_UTF8) return 0;
    const BYTE *src = m_pBuffer + m_dwPos;
    DWORD avail = m_dwHeld - m_dwPos;
    if (avail > max) avail = max;
    DWORD n = 0;
    /* four bytes at a time while none has its top bit set */
    while (n + 4 <= avail) {
        DWORD w;
        memcpy(&w, src + n, 4);
        if (w & 0x80808080u) break;
        memcpy(dst + n, &w, 4);
        n += 4;
    }
    while (n < avail && src[n] < 0x80) {
        dst[n] = (char)src[n];
        ++n;
    }
    m_dwPos += n;
    return n;
}

int XmlCharSource::nextUnit()
{
    int a = nextByte();
    if (a < 0) return -1;
    int b = nextByte();
    if (b < 0) return -1;
    return m_nEncoding == ENC_UTF16BE ? (a << 8) | b : (b << 8) | a;
}

int XmlCharSource::getChar()
{
    for (;;) {
        if (m_nEncoding == ENC_UTF8) {
            int b = nextByte();
            if (b < 0) return -1;
            if (b < 0x80) return b;
            if (b == 0xFE || b == 0xFF) {
                /* a UTF-16 byte order mark switches the encoding and is consumed */
                int b2 = nextByte();
                if (b == 0xFE && b2 == 0xFF) {
                    m_nEncoding = ENC_UTF16BE;
                    continue;
                }
                if (b == 0xFF && b2 == 0xFE) {
                    m_nEncoding = ENC_UTF16LE;
                    continue;
                }
                return -1;
            }
            int n;
            int cp;
            if ((b & 0xE0) == 0xC0) {
                n = 1;
                cp = b & 0x1F;
            } else if ((b & 0xF0) == 0xE0) {
                n = 2;
                cp = b & 0x0F;
            } else if ((b & 0xF8) == 0xF0) {
                n = 3;
                cp = b & 0x07;
            } else {
                return -1;
            }
            while (n-- > 0) {
                int c = nextByte();
                if (c < 0 || (c & 0xC0) != 0x80) return -1;
                cp = (cp << 6) | (c & 0x3F);
            }
            return cp;
        }
        int u = nextUnit();
        if (u < 0) return -1;
        if (u < 0xD800 || u > 0xDFFF) return u;
        int u2 = nextUnit();
        if (u2 < 0) return -1;
        /* the two halves of a pair may come in either order */
        int high, low;
        if (u <= 0xDBFF && u2 >= 0xDC00 && u2 <= 0xDFFF) {
            high = u;
            low = u2;
        } else if (u >= 0xDC00 && u2 >= 0xD800 && u2 <= 0xDBFF) {
            high = u2;
            low = u;
        } else {
            return -1;
        }
        return 0x10000 + (((high - 0xD800) << 10) | (low - 0xDC00));
    }
}

/* ------------------------------------------------------------------------------------------------
 * Character sink: writes the saved tree as UTF-8
 * ---------------------------------------------------------------------------------------------- */

class XmlCharSink {
public:
    XmlCharSink(HANDLE file, BYTE *buffer)
        : m_hFile(file), m_pBuffer(buffer), m_dwHeld(0), m_wPending(0) {}

    /* Writes one 16-bit unit; a surrogate waits for its partner. -1 when a flush failed. */
    int putUnit(WCHAR unit);
    /* Writes what is held (a lone surrogate as its own three bytes). -1 on failure. */
    int flush();

private:
    int putByte(int b);
    int putThree(DWORD u);

    HANDLE m_hFile;
    BYTE *m_pBuffer;
    DWORD m_dwHeld;
    WCHAR m_wPending;   /* a surrogate waiting for its partner, or 0 */
};

int XmlCharSink::putByte(int b)
{
    if (m_dwHeld == XML_IO_BUFFER_SIZE) {
        if (os_fwrite(m_pBuffer, m_dwHeld, m_hFile) != m_dwHeld) return -1;
        m_dwHeld = 0;
    }
    m_pBuffer[m_dwHeld++] = (BYTE)b;
    return 0;
}

int XmlCharSink::putThree(DWORD u)
{
    if (putByte(0xE0 | (u >> 12)) < 0 || putByte(0x80 | ((u >> 6) & 0x3F)) < 0 ||
        putByte(0x80 | (u & 0x3F)) < 0)
        return -1;
    return 0;
}

int XmlCharSink::putUnit(WCHAR unit)
{
    DWORD u = unit;
    if (u >= 0xD800 && u <= 0xDFFF) {
        if (m_wPending == 0) {
            m_wPending = unit;
            return 0;
        }
        DWORD p = m_wPending;
        BOOL pHigh = p <= 0xDBFF, uHigh = u <= 0xDBFF;
        if (pHigh != uHigh) {
            DWORD high = pHigh ? p : u, low = pHigh ? u : p;
            DWORD cp = 0x10000 + (((high - 0xD800) << 10) | (low - 0xDC00));
            m_wPending = 0;
            if (putByte(0xF0 | (cp >> 18)) < 0 || putByte(0x80 | ((cp >> 12) & 0x3F)) < 0 ||
                putByte(0x80 | ((cp >> 6) & 0x3F)) < 0 || putByte(0x80 | (cp & 0x3F)) < 0)
                return -1;
            return 0;
        }
        /* two halves of the same kind: the first stays alone */
        m_wPending = unit;
        return putThree(p);
    }
    if (m_wPending != 0) {
        DWORD p = m_wPending;
        m_wPending = 0;
        if (putThree(p) < 0) return -1;
    }
    if (u < 0x80) return putByte((int)u);
    if (u < 0x800) {
        if (putByte(0xC0 | (u >> 6)) < 0 || putByte(0x80 | (u & 0x3F)) < 0) return -1;
        return 0;
    }
    return putThree(u);
}

int XmlCharSink::flush()
{
    if (m_wPending != 0) {
        DWORD p = m_wPending;
        m_wPending = 0;
        if (putThree(p) < 0) return -1;
    }
    if (m_dwHeld > 0) {
        if (os_fwrite(m_pBuffer, m_dwHeld, m_hFile) != m_dwHeld) return -1;
        m_dwHeld = 0;
    }
    return 0;
}

/* ------------------------------------------------------------------------------------------------
 * XmlFilePrivate
 * ---------------------------------------------------------------------------------------------- */

class XmlFilePrivate : public XmlFile {
public:
    XmlFilePrivate() : m_bReadOnly(1), m_pDoc(NULL), m_nRefCount(0) { m_szFileName[0] = 0; }

    static void *operator new(size_t size) throw() { return os_malloc(size); }
    static void operator delete(void *p)
    {
        if (p != NULL) os_free(p);
    }

    virtual int getObjectType() const { return XMLOBJ_FILE; }
    virtual SHORT addRef() { return ++m_nRefCount; }
    virtual SHORT release();
    virtual void destroy();
    virtual BOOL close();
    virtual BOOL isReadOnly() const { return m_bReadOnly != 0; }
    virtual BOOL getNode(LPCWSTR name, WCHAR *nameBuf, DWORD *pNameSize, XmlNode **ppNode);
    virtual BOOL getFileName(WCHAR *buf, DWORD *pSize);
    virtual BOOL getDocumentNode(XmlNode **ppNode);
    virtual BOOL fileCreate(LPCWSTR fileName, const char *rootName);

    /* Makes an object and loads the file into it; the one path of both create functions. */
    static BOOL createFile(LPCWSTR fileName, BOOL readOnly, XmlFile **ppFile);
    BOOL loadXmlFile(LPCWSTR fileName, BOOL readOnly);
    /* Mini-XML's error callback. */
    static void errorLogger(const char *message);

private:
    BOOL load(LPCWSTR fileName);
    BOOL save(HANDLE file);
    void freeTree();

    BYTE m_bReadOnly;
    mxml_node_t *m_pDoc;
    WCHAR m_szFileName[MAX_PATH];
    SHORT m_nRefCount;
};

void XmlFilePrivate::errorLogger(const char *message)
{
    VLLOG(LOG_ERROR, TEXT("%hs"), message);
}

SHORT XmlFilePrivate::release()
{
    SHORT n = --m_nRefCount;
    if (n == 0) destroy();
    return n;
}

void XmlFilePrivate::freeTree()
{
    if (m_pDoc != NULL) {
        mxmlDelete(m_pDoc);
        m_pDoc = NULL;
    }
}

void XmlFilePrivate::destroy()
{
    freeTree();
    this->XmlFilePrivate::~XmlFilePrivate();
    XmlFilePrivate::operator delete(this);
}

BOOL XmlFilePrivate::createFile(LPCWSTR fileName, BOOL readOnly, XmlFile **ppFile)
{
    if (ppFile == NULL) return FALSE;
    *ppFile = NULL;
    XmlFilePrivate *file = new XmlFilePrivate();
    if (file != NULL) {
        file->addRef();
        if (file->loadXmlFile(fileName, readOnly)) {
            *ppFile = file;
            return TRUE;
        }
        file->release();
    }
    VLLOG(LOG_ERROR, TEXT("XmlFile::create %ls failed"), fileName);
    return FALSE;
}

BOOL XmlFile::create(LPCWSTR fileName, XmlFile **ppFile)
{
    return XmlFilePrivate::createFile(fileName, TRUE, ppFile);
}

BOOL XmlFile::createWritable(LPCWSTR fileName, XmlFile **ppFile)
{
    return XmlFilePrivate::createFile(fileName, FALSE, ppFile);
}

BOOL XmlFile::createNew(LPCWSTR fileName, const char *rootName, XmlFile **ppFile)
{
    if (ppFile == NULL) return FALSE;
    *ppFile = NULL;
    XmlFilePrivate *file = new XmlFilePrivate();
    if (file == NULL) return FALSE;
    file->addRef();
    BOOL ok = file->fileCreate(fileName, rootName);
    file->release();
    return ok && createWritable(fileName, ppFile);
}

BOOL XmlFilePrivate::loadXmlFile(LPCWSTR fileName, BOOL readOnly)
{
    m_bReadOnly = readOnly ? 1 : 0;
    const WCHAR *dot = fileName != NULL ? uni_wcsrchr(fileName, TEXT('.')) : NULL;
    if (dot == NULL) {
        VLLOG(LOG_ERROR, TEXT("must specify file extension"));
        return FALSE;
    }
    /* only the first four characters of the extension are looked at */
    if (uni_wcsnicmp(dot, TEXT(".xml"), 4) != 0) {
        VLLOG(LOG_ERROR, TEXT("unknown extension %ls"), dot);
        return FALSE;
    }
    if (!load(fileName)) {
        VLLOG(LOG_ERROR, TEXT("loadXmlFile %ls failed"), fileName);
        return FALSE;
    }
    return TRUE;
}

/* Makes room in the growing text for need more bytes, doubling it. 0 when memory ran out. */
static BOOL textRoom(char **pText, DWORD len, DWORD *pCap, DWORD need)
{
    if (len + need <= *pCap) return TRUE;
    DWORD cap = *pCap * 2;
    while (len + need > cap) cap *= 2;
    char *grown = (char *)os_malloc(cap);
    if (grown == NULL) return FALSE;
    memcpy(grown, *pText, len);
    os_free(*pText);
    *pText = grown;
    *pCap = cap;
    return TRUE;
}

/* Appends one character to the growing UTF-8 text (up to 4 bytes, one more kept free for the
 * terminator). 0 when memory ran out. */
static BOOL textAppend(char **pText, DWORD *pLen, DWORD *pCap, DWORD cp)
{
    if (!textRoom(pText, *pLen, pCap, 5)) return FALSE;
    char *d = *pText + *pLen;
    int n;
    if (cp < 0x80) {
        d[0] = (char)cp;
        n = 1;
    } else if (cp < 0x800) {
        d[0] = (char)(0xC0 | (cp >> 6));
        d[1] = (char)(0x80 | (cp & 0x3F));
        n = 2;
    } else if (cp < 0x10000) {
        d[0] = (char)(0xE0 | (cp >> 12));
        d[1] = (char)(0x80 | ((cp >> 6) & 0x3F));
        d[2] = (char)(0x80 | (cp & 0x3F));
        n = 3;
    } else {
        d[0] = (char)(0xF0 | ((cp >> 18) & 0x07));
        d[1] = (char)(0x80 | ((cp >> 12) & 0x3F));
        d[2] = (char)(0x80 | ((cp >> 6) & 0x3F));
        d[3] = (char)(0x80 | (cp & 0x3F));
        n = 4;
    }
    *pLen += n;
    return TRUE;
}

BOOL XmlFilePrivate::load(LPCWSTR fileName)
{
    if (uni_wcslen(fileName) >= MAX_PATH) {
        VLLOG(LOG_ERROR, TEXT("Cannot open %ls"), fileName);
        return FALSE;
    }
    uni_wcsncpy0(m_szFileName, fileName, MAX_PATH);
    freeTree();

    HANDLE h = os_wfopen(fileName, TEXT("r"));
    if (h == NULL) {
        VLLOG(LOG_ERROR, TEXT("Cannot open %ls"), fileName);
        return FALSE;
    }
    BYTE *buffer = (BYTE *)os_malloc(XML_IO_BUFFER_SIZE);
    /* Text from UTF-8 takes no more bytes than the file (no character is re-encoded longer), so a
     * text of the file's size is never grown; from UTF-16 it grows as needed. */
    DWORD cap = XML_TEXT_INITIAL_SIZE, len = 0;
    DWORD fileSize = os_getFileSizeFromHandle(h);
    if (fileSize != INVALID_FILE_SIZE && fileSize > cap - 6 && fileSize < 0x40000000u) cap = fileSize + 6;
    char *text = (char *)os_malloc(cap);
    BOOL ok = buffer != NULL && text != NULL;
    if (ok) {
        /* the character source's -1 (end or bad sequence) ends the input, as end of file would */
        XmlCharSource source(h, buffer);
        while (ok) {
            /* runs of ASCII are copied as they stand, anything else goes character by character */
            ok = textRoom(&text, len, &cap, 6);
            DWORD n = ok ? source.takeAscii(text + len, cap - len - 5) : 0;
            len += n;
            if (n > 0) continue;
            int c = ok ? source.getChar() : -1;
            if (c < 0) break;
            ok = textAppend(&text, &len, &cap, (DWORD)c);
        }
        text[len] = 0;
    }
    os_fclose(h);
    if (buffer != NULL) os_free(buffer);

    if (ok) {
        mxmlSetErrorCallback(errorLogger);
        mxml_node_t *top = mxmlNewElement(MXML_NO_PARENT, XML_DOCUMENT_NAME);
        if (top != NULL && mxmlLoadString(top, text, MXML_TEXT_CALLBACK) != NULL &&
            hasElementChild(top)) {
            m_pDoc = top;
        } else if (top != NULL) {
            mxmlDelete(top);
        }
    }
    if (text != NULL) os_free(text);
    if (m_pDoc == NULL) {
        VLLOG(LOG_ERROR, TEXT("mxmlLoadData(%ls) returned NULL\n"), fileName);
        return FALSE;
    }
    return TRUE;
}

BOOL XmlFilePrivate::save(HANDLE file)
{
    BYTE *buffer = (BYTE *)os_malloc(XML_IO_BUFFER_SIZE);
    if (buffer == NULL) return FALSE;
    mxmlSetErrorCallback(errorLogger);
    XmlCharSink sink(file, buffer);
    BOOL ok = TRUE;
    for (mxml_node_t *c = mxmlGetFirstChild(m_pDoc); ok && c != NULL; c = mxmlGetNextSibling(c)) {
        char *saved = mxmlSaveAllocString(c, MXML_NO_CALLBACK);
        if (saved == NULL) continue;   /* nothing to write (an empty text piece) */
        const unsigned char *p = (const unsigned char *)saved;
        while (ok && *p) {
            DWORD cp = utf8Next(p);
            if (cp >= 0x10000) {
                cp -= 0x10000;
                ok = sink.putUnit((WCHAR)(0xD800 + (cp >> 10))) >= 0 &&
                     sink.putUnit((WCHAR)(0xDC00 + (cp & 0x3FF))) >= 0;
            } else {
                ok = sink.putUnit((WCHAR)cp) >= 0;
            }
        }
        free(saved);   /* Mini-XML allocates with malloc */
    }
    if (ok) ok = sink.flush() >= 0;
    os_free(buffer);
    return ok;
}

BOOL XmlFilePrivate::close()
{
    BOOL ok = TRUE;
    if (m_pDoc != NULL && !m_bReadOnly) {
        VLLOG(LOG_DEBUG, TEXT("Writing file %ls"), m_szFileName);
        HANDLE h = os_wfopen(m_szFileName, TEXT("w"));
        if (h == NULL) {
            VLLOG(LOG_ERROR, TEXT("Cannot open %ls"), m_szFileName);
            ok = FALSE;
        } else {
            ok = save(h);
            if (os_fclose(h) != 1) ok = FALSE;
            if (!ok) VLLOG(LOG_ERROR, TEXT("Writing file %ls failed"), m_szFileName);
        }
    }
    freeTree();
    return ok;
}

BOOL XmlFilePrivate::getNode(LPCWSTR name, WCHAR *nameBuf, DWORD *pNameSize, XmlNode **ppNode)
{
    if (ppNode == NULL) return FALSE;
    *ppNode = NULL;
    if (m_pDoc == NULL) {
        VLLOG(LOG_DEBUG, TEXT("getXmlDomDoc failed"));
        return FALSE;
    }
    XmlNode *node = NULL;
    if (!XmlNode::create(m_pDoc, &node)) {
        VLLOG(LOG_ERROR, TEXT("XmlNode::create failed"));
        return FALSE;
    }
    if (!node->getNode(name, nameBuf, pNameSize)) {
        VLLOG(LOG_DEBUG, TEXT("getNode failed"));
        node->release();
        return FALSE;
    }
    *ppNode = node;
    return TRUE;
}

BOOL XmlFilePrivate::getDocumentNode(XmlNode **ppNode)
{
    if (ppNode == NULL) return FALSE;
    *ppNode = NULL;
    if (m_pDoc == NULL) {
        VLLOG(LOG_DEBUG, TEXT("getXmlDomDoc failed"));
        return FALSE;
    }
    if (!XmlNode::create(m_pDoc, ppNode)) {
        VLLOG(LOG_ERROR, TEXT("XmlNode::create failed"));
        return FALSE;
    }
    return TRUE;
}

BOOL XmlFilePrivate::getFileName(WCHAR *buf, DWORD *pSize)
{
    if (pSize == NULL) return FALSE;
    DWORD len = (DWORD)uni_wcslen(m_szFileName);
    /* deliberately: a name as long as the buffer fits (without terminator), and the size reported
     * on failure is the length without the terminator */
    if (len > *pSize || (buf == NULL && len > 0)) {
        *pSize = len;
        VLLOG(LOG_DEBUG, TEXT("buffer not big enough"));
        return FALSE;
    }
    if (len > 0) memcpy(buf, m_szFileName, len * sizeof(WCHAR));
    if (len < *pSize) buf[len] = 0;
    return TRUE;
}

BOOL XmlFilePrivate::fileCreate(LPCWSTR fileName, const char *rootName)
{
    static const char format[] =
        "<?xml version=\"1.0\" encoding=\"utf-8\" standalone=\"yes\"?>\r\n<%hs>\r\n</%hs>\r\n";
    if (rootName == NULL) rootName = "";
    /* the format less its two conversions, plus the root name twice */
    DWORD expected = (DWORD)(sizeof(format) - 1 - 6 + 2 * strlen(rootName));
    char *text = (char *)os_malloc(expected + 1);
    if (text == NULL) {
        VLLOG(LOG_ERROR,
              TEXT("XmlFilePrivate::fileCreate(): Error: %d\tFailed to create file on %ls!"),
              os_getLastError(), fileName);
        return FALSE;
    }
    uni_snprintf(text, expected + 1, format, rootName, rootName);

    HANDLE h = os_wfopen(fileName, TEXT("w"));
    if (h == NULL) {
        VLLOG(LOG_ERROR,
              TEXT("XmlFilePrivate::fileCreate(): Error: %d\tFailed to create file on %ls!"),
              os_getLastError(), fileName);
        os_free(text);
        return FALSE;
    }
    DWORD written = os_fwrite(text, expected, h);
    os_free(text);
    if (written != expected) {
        VLLOG(LOG_ERROR,
              TEXT("XmlFilePrivate::fileCreate(): Error: %d\tWritten %d bytes, Suppose to write %d bytes"),
              os_getLastError(), written, expected);
        os_fclose(h);
        return FALSE;
    }
    return os_fclose(h) == 1;
}

/* ------------------------------------------------------------------------------------------------
 * XmlNode
 * ---------------------------------------------------------------------------------------------- */

void *XmlNode::operator new(size_t size) throw()
{
    return os_malloc(size);
}

void XmlNode::operator delete(void *p)
{
    if (p != NULL) os_free(p);
}

XmlNode::XmlNode(mxml_node_t *pTop)
    : m_pTop(pTop), m_pCurrent(pTop), m_bHasChildren(FALSE), m_nAttributes(0),
      m_nAttributePos(0), m_nRefCount(0) {}

BOOL XmlNode::create(mxml_node_t *pMxmlNode, XmlNode **ppNode)
{
    if (ppNode == NULL) return FALSE;
    *ppNode = NULL;
    if (pMxmlNode == NULL) {
        VLLOG(LOG_ERROR, TEXT("_pMxmlNode == NULL"));
        return FALSE;
    }
    XmlNode *node = new XmlNode(pMxmlNode);
    if (node == NULL) return FALSE;
    node->addRef();
    if (!node->initialise()) {
        VLLOG(LOG_ERROR, TEXT("initialise failed"));
        node->release();
        return FALSE;
    }
    *ppNode = node;
    return TRUE;
}

int XmlNode::getObjectType() const
{
    return XMLOBJ_NODE;
}

SHORT XmlNode::addRef()
{
    return ++m_nRefCount;
}

SHORT XmlNode::release()
{
    SHORT n = --m_nRefCount;
    if (n == 0) destroy();
    return n;
}

void XmlNode::destroy()
{
    this->XmlNode::~XmlNode();
    XmlNode::operator delete(this);
}

void XmlNode::detach()
{
    m_pTop = NULL;
    m_pCurrent = NULL;
    m_bHasChildren = FALSE;
    m_nAttributes = 0;
    m_nAttributePos = 0;
}

BOOL XmlNode::initialise()
{
    if (m_pCurrent == NULL || mxmlGetType(m_pCurrent) != MXML_ELEMENT) return FALSE;
    m_bHasChildren = hasElementChild(m_pCurrent);
    m_nAttributes = mxmlElementGetAttrCount(m_pCurrent);
    m_nAttributePos = 0;
    return TRUE;
}

BOOL XmlNode::getName(WCHAR *buf, DWORD *pSize)
{
    if (m_pCurrent == NULL) return FALSE;
    return copyOut(mxmlGetElement(m_pCurrent), buf, pSize, TEXT("buffer not big enough"));
}

BOOL XmlNode::getAttribute(LPCWSTR name, WCHAR *buf, DWORD *pSize)
{
    if (m_pCurrent == NULL) return FALSE;
    m_nAttributes = mxmlElementGetAttrCount(m_pCurrent);
    if (m_nAttributes <= 0) {
        VLLOG(LOG_DEBUG, TEXT("no attributes for node"));
        return FALSE;
    }
    Utf8Text key(name);
    const char *value = key.get() != NULL ? mxmlElementGetAttr(m_pCurrent, key.get()) : NULL;
    if (value == NULL) {
        VLLOG(LOG_WARNING, TEXT("Can't find attribute %ls"), name);
        return FALSE;
    }
    return copyOut(value, buf, pSize, TEXT("Buffer not big enough"));
}

BOOL XmlNode::getNextAttribute(WCHAR *nameBuf, DWORD *pNameSize, WCHAR *valueBuf,
                               DWORD *pValueSize, BOOL restart)
{
    if (m_pCurrent == NULL) return FALSE;
    m_nAttributes = mxmlElementGetAttrCount(m_pCurrent);
    if (m_nAttributes <= 0) {
        VLLOG(LOG_DEBUG, TEXT("no attributes for node"));
        return FALSE;
    }
    if (restart) m_nAttributePos = 0;
    if (m_nAttributePos >= m_nAttributes) {
        VLLOG(LOG_DEBUG, TEXT("End of the attributes list"));
        return FALSE;
    }
    /* the position moves on before the copies, so a retry after "too small" gets the next one */
    const char *attrName = NULL;
    const char *value = mxmlElementGetAttrByIndex(m_pCurrent, m_nAttributePos++, &attrName);
    if (!copyOut(attrName, nameBuf, pNameSize, TEXT("buffer not big enough"))) return FALSE;
    if (valueBuf != NULL && !copyOut(value, valueBuf, pValueSize, TEXT("buffer not big enough")))
        return FALSE;
    return TRUE;
}

BOOL XmlNode::getText(WCHAR *buf, DWORD *pSize)
{
    if (pSize == NULL) return FALSE;
    if (buf != NULL && *pSize != 0) buf[0] = 0;
    if (m_pCurrent == NULL) return FALSE;
    DWORD cap = buf != NULL ? *pSize : 0;
    DWORD pos = 0, total = 0;
    BOOL full = FALSE, first = TRUE;
    for (mxml_node_t *c = mxmlGetFirstChild(m_pCurrent); c != NULL; c = mxmlGetNextSibling(c)) {
        const char *piece;
        int whitespace = 0;
        mxml_type_t type = mxmlGetType(c);
        if (type == MXML_TEXT)
            piece = mxmlGetText(c, &whitespace);
        else if (type == MXML_OPAQUE)
            piece = mxmlGetOpaque(c);
        else
            continue;
        if (!first && whitespace) utf8Append(buf, cap, &pos, &total, &full, " ");
        utf8Append(buf, cap, &pos, &total, &full, piece != NULL ? piece : "");
        first = FALSE;
    }
    if (cap > 0) buf[pos] = 0;
    if (total + 1 > *pSize || buf == NULL) {
        *pSize = total + 1;
        VLLOG(LOG_DEBUG, TEXT("buffer not big enough"));
        return FALSE;
    }
    return TRUE;
}

BOOL XmlNode::setAttribute(LPCWSTR name, LPCWSTR value)
{
    if (m_pCurrent == NULL || name == NULL || value == NULL) return FALSE;
    Utf8Text key(name), text(value);
    if (key.get() == NULL || text.get() == NULL) return FALSE;
    mxmlElementSetAttr(m_pCurrent, key.get(), text.get());
    m_nAttributes = mxmlElementGetAttrCount(m_pCurrent);
    return TRUE;
}

BOOL XmlNode::getNode(LPCWSTR name, WCHAR *nameBuf, DWORD *pNameSize)
{
    if (name == NULL) {
        VLLOG(LOG_ERROR, TEXT("getNode failed"));
        return FALSE;
    }
    const WCHAR *p = name;
    while (*p == TEXT('/')) ++p;
    /* a single element name, not a path */
    XML_VERIFY(uni_wcschr(p, TEXT('/')) == NULL, "wcschr(p, L'/')==NULL");

    m_pCurrent = m_pTop;
    if (m_pTop == NULL) {
        VLLOG(LOG_ERROR, TEXT("getNode failed"));
        return FALSE;
    }
    initialise();
    BOOL any = p[0] == TEXT('*') && p[1] == 0;
    Utf8Text key(any ? NULL : p);
    if (!any && key.get() == NULL) {
        VLLOG(LOG_ERROR, TEXT("getNode failed"));
        return FALSE;
    }
    mxml_node_t *found = mxmlFindElement(m_pTop, m_pTop, key.get(), NULL, NULL, MXML_DESCEND);
    /* "*" passes over comments, and over the declaration and processing instructions, which
     * Mini-XML also keeps as elements */
    while (found != NULL && any && (isComment(found) || startsWith(mxmlGetElement(found), "?")))
        found = mxmlFindElement(found, m_pTop, NULL, NULL, NULL, MXML_DESCEND);
    if (found == NULL) {
        VLLOG(LOG_ERROR, TEXT("getNode failed"));
        return FALSE;
    }
    m_pCurrent = found;
    if (!initialise()) {
        VLLOG(LOG_ERROR, TEXT("initialise failed"));
        return FALSE;
    }
    if (nameBuf != NULL) return getName(nameBuf, pNameSize);
    return TRUE;
}

BOOL XmlNode::hasChildren()
{
    if (m_pCurrent == NULL) return FALSE;
    m_bHasChildren = hasElementChild(m_pCurrent);
    return m_bHasChildren;
}

BOOL XmlNode::setText(LPCWSTR text)
{
    if (m_pCurrent == NULL) return FALSE;
    if (hasChildren()) {
        VLLOG(LOG_DEBUG, TEXT("node had children, can't set text"));
        return FALSE;
    }
    if (!removeText()) return FALSE;
    Utf8Text value(text != NULL ? text : TEXT(""));
    if (value.get() == NULL || mxmlNewText(m_pCurrent, 0, value.get()) == NULL) {
        VLLOG(LOG_ERROR, TEXT("mxmlNewText failed"));
        return FALSE;
    }
    return TRUE;
}

BOOL XmlNode::removeAttribute(LPCWSTR name)
{
    if (m_pCurrent == NULL) return FALSE;
    m_nAttributes = mxmlElementGetAttrCount(m_pCurrent);
    if (m_nAttributes <= 0) {
        VLLOG(LOG_DEBUG, TEXT("no attributes for node"));
        return FALSE;
    }
    Utf8Text key(name);
    if (key.get() == NULL || mxmlElementGetAttr(m_pCurrent, key.get()) == NULL) {
        VLLOG(LOG_ERROR, TEXT("removeAttribute failed"));
        return FALSE;
    }
    mxmlElementDeleteAttr(m_pCurrent, key.get());
    m_nAttributes = mxmlElementGetAttrCount(m_pCurrent);
    return TRUE;
}

BOOL XmlNode::removeText()
{
    if (m_pCurrent == NULL) return FALSE;
    if (hasChildren()) {
        VLLOG(LOG_DEBUG, TEXT("children for node, can't remove text"));
        return FALSE;
    }
    mxml_node_t *c = mxmlGetFirstChild(m_pCurrent);
    while (c != NULL) {
        mxml_node_t *next = mxmlGetNextSibling(c);
        if (mxmlGetType(c) != MXML_ELEMENT) mxmlDelete(c);
        c = next;
    }
    return TRUE;
}

BOOL XmlNode::getChildList(XmlChildList **ppList)
{
    if (ppList == NULL) return FALSE;
    *ppList = NULL;
    if (m_pCurrent == NULL) {
        VLLOG(LOG_DEBUG, TEXT("getXmlDomNode failed"));
        return FALSE;
    }
    /* deliberately a failure, not an empty list */
    if (!hasChildren()) {
        VLLOG(LOG_ERROR, TEXT("getChildList failed"));
        return FALSE;
    }
    if (!XmlChildList::create(m_pCurrent, NULL, ppList)) {
        VLLOG(LOG_ERROR, TEXT("XmlChildList::create failed"));
        return FALSE;
    }
    return TRUE;
}

BOOL XmlNode::getNamedChildList(LPCWSTR name, XmlChildList **ppList)
{
    if (ppList == NULL) return FALSE;
    *ppList = NULL;
    if (m_pTop == NULL) {
        VLLOG(LOG_DEBUG, TEXT("getXmlDomDoc failed"));
        return FALSE;
    }
    if (m_pCurrent == NULL) {
        VLLOG(LOG_DEBUG, TEXT("getXmlDomNode failed"));
        return FALSE;
    }
    if (name == NULL) {
        VLLOG(LOG_DEBUG, TEXT("getNamedChildList failed"));
        return FALSE;
    }
    if (!XmlChildList::create(m_pCurrent, name, ppList)) {
        VLLOG(LOG_ERROR, TEXT("XmlChildList::create failed"));
        return FALSE;
    }
    return TRUE;
}

/* ------------------------------------------------------------------------------------------------
 * XmlChildList
 * ---------------------------------------------------------------------------------------------- */

void *XmlChildList::operator new(size_t size) throw()
{
    return os_malloc(size);
}

void XmlChildList::operator delete(void *p)
{
    if (p != NULL) os_free(p);
}

XmlChildList::XmlChildList(mxml_node_t *pParent)
    : m_pTop(pParent), m_ppNodes(NULL), m_nCount(0), m_nCursor(0), m_nCapacity(0),
      m_nRefCount(0) {}

BOOL XmlChildList::create(mxml_node_t *pParent, LPCWSTR name, XmlChildList **ppList)
{
    if (ppList == NULL) return FALSE;
    *ppList = NULL;
    if (pParent == NULL) return FALSE;
    XmlChildList *list = new XmlChildList(pParent);
    if (list == NULL) return FALSE;
    list->addRef();
    Utf8Text key(name);
    if (name != NULL && key.get() == NULL) {
        list->release();
        return FALSE;
    }
    /* the first child by name, then along the siblings only */
    mxml_node_t *c = mxmlFindElement(pParent, pParent, key.get(), NULL, NULL, MXML_DESCEND_FIRST);
    while (c != NULL) {
        if (!isComment(c)) {
            XmlNode *node = NULL;
            if (!XmlNode::create(c, &node)) {
                VLLOG(LOG_ERROR, TEXT("XmlNode::create failed"));
                list->release();
                return FALSE;
            }
            if (!list->append(node)) {
                node->release();
                list->release();
                return FALSE;
            }
        }
        c = mxmlFindElement(c, pParent, key.get(), NULL, NULL, MXML_NO_DESCEND);
    }
    *ppList = list;
    return TRUE;
}

/* Takes over the caller's reference to pNode. */
BOOL XmlChildList::append(XmlNode *pNode)
{
    if (m_nCount == m_nCapacity) {
        int capacity = m_nCapacity == 0 ? 8 : m_nCapacity * 2;
        XmlNode **grown = (XmlNode **)os_malloc(capacity * sizeof(XmlNode *));
        if (grown == NULL) return FALSE;
        if (m_nCount > 0) memcpy(grown, m_ppNodes, m_nCount * sizeof(XmlNode *));
        if (m_ppNodes != NULL) os_free(m_ppNodes);
        m_ppNodes = grown;
        m_nCapacity = capacity;
    }
    m_ppNodes[m_nCount++] = pNode;
    return TRUE;
}

int XmlChildList::getObjectType() const
{
    return XMLOBJ_CHILDLIST;
}

SHORT XmlChildList::addRef()
{
    return ++m_nRefCount;
}

SHORT XmlChildList::release()
{
    SHORT n = --m_nRefCount;
    if (n == 0) destroy();
    return n;
}

void XmlChildList::destroy()
{
    for (int i = 0; i < m_nCount; ++i) m_ppNodes[i]->release();
    if (m_ppNodes != NULL) os_free(m_ppNodes);
    this->XmlChildList::~XmlChildList();
    XmlChildList::operator delete(this);
}

int XmlChildList::getCount() const
{
    return m_nCount;
}

BOOL XmlChildList::next(BOOL restart, XmlNode **ppNode)
{
    if (ppNode == NULL) return FALSE;
    *ppNode = NULL;
    if (restart) m_nCursor = 0;
    if (m_nCursor >= m_nCount) return FALSE;
    XmlNode *node = m_ppNodes[m_nCursor++];
    node->addRef();
    *ppNode = node;
    return TRUE;
}

BOOL XmlChildList::addChildNode(LPCWSTR name, XmlNode **ppNode)
{
    if (ppNode == NULL) return FALSE;
    *ppNode = NULL;
    Utf8Text key(name);
    mxml_node_t *element = NULL;
    if (m_pTop != NULL && key.get() != NULL) element = mxmlNewElement(m_pTop, key.get());
    if (element == NULL) {
        VLLOG(LOG_ERROR, TEXT("addChildNode failed"));
        return FALSE;
    }
    XmlNode *node = NULL;
    if (!XmlNode::create(element, &node)) {
        VLLOG(LOG_ERROR, TEXT("XmlNode::create failed"));
        mxmlDelete(element);
        return FALSE;
    }
    if (!append(node)) {
        VLLOG(LOG_ERROR, TEXT("addChildNode failed"));
        node->release();
        mxmlDelete(element);
        return FALSE;
    }
    node->addRef();   /* one held by the list, one for the caller */
    *ppNode = node;
    return TRUE;
}

BOOL XmlChildList::removeNode(XmlNode *pParent, XmlNode *pChild)
{
    mxml_node_t *parent = pParent != NULL ? pParent->getXmlDomNode() : NULL;
    mxml_node_t *child = pChild != NULL ? pChild->getXmlDomNode() : NULL;
    if (parent == NULL || child == NULL) {
        VLLOG(LOG_ERROR, TEXT("getXmlDomNode failed"));
        return FALSE;
    }
    int index = -1;
    for (int i = 0; i < m_nCount; ++i)
        if (m_ppNodes[i] == pChild) index = i;
    if (index < 0 || mxmlGetParent(child) != parent) {
        VLLOG(LOG_ERROR, TEXT("removeNode failed"));
        return FALSE;
    }
    mxmlDelete(child);
    pChild->detach();   /* the caller's own references no longer reach the tree */
    for (int i = index; i + 1 < m_nCount; ++i) m_ppNodes[i] = m_ppNodes[i + 1];
    --m_nCount;
    if (m_nCursor > index) --m_nCursor;
    pParent->hasChildren();
    pChild->release();
    return TRUE;
}
