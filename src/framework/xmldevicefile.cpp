/*
 * Readers of the upgrade package's device descriptor, over the XML document model.
 */
#include "framework/xmldevicefile.h"
#include "framework/xmlfile.h"
#include "platform/platform.h"
#include "platform/plat_alloc.h"
#include "platform/plat_unicode.h"

#include <string.h>

/* Element texts are read into a buffer larger than any field, then cut to the field. A longer
 * text is read again into a heap block of its own size, up to a bound; a text beyond it counts as
 * unreadable. */
#define XMLDEV_READ_CHARS 1024
#define XMLDEV_MAX_TEXT_CHARS 32768
#define XMLDEV_NAME_CHARS 64

/* ---------------------------------------------------------------------------- text conversion */

/* A character's digit value: letters upper-cased first, '0'..'9' 0..9, anything else code - 55. */
static LONG digitValue(WCHAR c)
{
    c = uni_towupper(c);
    if (c >= TEXT('0') && c <= TEXT('9'))
        return (LONG)(c - TEXT('0'));
    return (LONG)c - 55;
}

/* The position counter is a signed 8-bit value: a text of 129 to 256 characters starts it
 * negative, so nothing is converted. The wrap is done explicitly to stay well defined. */
static signed char toPosition(size_t index)
{
    unsigned int low = (unsigned int)(index & 0xFF);
    return low > 127 ? (signed char)((int)low - 256) : (signed char)low;
}

LONG xmldevice_convertNumber(const WCHAR *text)
{
    if (text == NULL)
        return 0;
    size_t length = uni_wcslen(text);
    if (length == 0)
        return 0;

    DWORD base = 10;
    int first = 0;
    BOOL negative = FALSE;
    if (text[0] == TEXT('0') && (text[1] == TEXT('x') || text[1] == TEXT('X'))) {
        base = 16;
        first = 2;
    } else if (text[0] == TEXT('-')) {
        negative = TRUE;
        first = 1;
    }

    /* Unsigned arithmetic: long texts wrap instead of overflowing. */
    DWORD sum = 0;
    DWORD power = 1;
    signed char pos = toPosition(length - 1);
    while (pos >= first) {
        sum += (DWORD)digitValue(text[(int)pos]) * power;
        power *= base;
        pos = (signed char)(pos - 1);   /* pos >= 0 here, so this never wraps */
    }
    return negative ? (LONG)(0u - sum) : (LONG)sum;
}

DWORD xmldevice_parseVersion(const WCHAR *text)
{
    DWORD value = 0;
    if (text == NULL)
        return 0;
    while (*text && !(*text >= TEXT('0') && *text <= TEXT('9')))
        ++text;
    while (*text >= TEXT('0') && *text <= TEXT('9')) {
        value = value * 10 + (DWORD)(*text - TEXT('0'));
        ++text;
    }
    return value;
}

static DWORD flagOf(const WCHAR *text)
{
    return xmldevice_convertNumber(text) > 0 ? 1 : 0;
}

/* ------------------------------------------------------------------------------- XML helpers */

/* The first child element called name, with the caller's reference; NULL when there is none. */
static XmlNode *firstChild(XmlNode *parent, LPCWSTR name)
{
    if (parent == NULL)
        return NULL;
    XmlChildList *list = NULL;
    if (!parent->getNamedChildList(name, &list) || list == NULL)
        return NULL;
    XmlNode *child = NULL;
    if (!list->next(TRUE, &child))
        child = NULL;
    list->release();
    return child;
}

/* Opens the document and finds its first element called name (a path search). The document, when
 * it opened, is left in *ppFile for the caller to release; NULL when the element is not there. */
static XmlNode *findInFile(LPCWSTR path, LPCWSTR name, XmlFile **ppFile)
{
    *ppFile = NULL;
    if (!XmlFile::create(path, ppFile) || *ppFile == NULL) {
        *ppFile = NULL;
        return NULL;
    }
    WCHAR nodeName[XMLDEV_NAME_CHARS];
    DWORD nodeNameSize = XMLDEV_NAME_CHARS;
    XmlNode *node = NULL;
    if (!(*ppFile)->getNode(name, nodeName, &nodeNameSize, &node))
        node = NULL;
    return node;
}

/* The whole text of a child element: in a stack buffer when it fits, else in a heap block freed by
 * the next read or the destructor. */
class ElementText {
public:
    ElementText() : m_block(NULL) { m_buf[0] = 0; }
    ~ElementText() { freeBlock(); }

    /* The text of child element name; NULL when the element is missing, its text can't be read or
     * it has more than XMLDEV_MAX_TEXT_CHARS characters. */
    const WCHAR *read(XmlNode *parent, LPCWSTR name)
    {
        freeBlock();
        XmlNode *child = firstChild(parent, name);
        if (child == NULL)
            return NULL;
        const WCHAR *text = NULL;
        DWORD size = XMLDEV_READ_CHARS;
        if (child->getText(m_buf, &size)) {
            text = m_buf;
        } else if (size > XMLDEV_READ_CHARS && size <= XMLDEV_MAX_TEXT_CHARS + 1) {
            /* too long for the buffer: size is the length needed, terminator included */
            m_block = (WCHAR *)os_malloc(size * sizeof(WCHAR));
            if (m_block != NULL && child->getText(m_block, &size))
                text = m_block;
        }
        child->release();
        return text;
    }

private:
    void freeBlock()
    {
        if (m_block != NULL)
            os_free(m_block);
        m_block = NULL;
    }

    WCHAR m_buf[XMLDEV_READ_CHARS];
    WCHAR *m_block;
};

/* ------------------------------------------------------------------------------ image readers */

static int getImageSettings(LPCWSTR path, LPCWSTR kindName, DeviceDescriptor *d)
{
    XmlFile *file = NULL;
    XmlNode *device = findInFile(path, TEXT("//device"), &file);
    if (device != NULL) {
        XmlNode *kind = firstChild(device, kindName);
        XmlNode *upgrade = firstChild(kind, TEXT("upgrade"));
        if (upgrade != NULL) {
            ElementText element;
            const WCHAR *text;

            if ((text = element.read(upgrade, TEXT("version"))) != NULL) {
                /* Only the first run of digits counts: "V1.02.0003" is 1. */
                d->version[0] = xmldevice_parseVersion(text);
                d->version[1] = 0;
                d->version[2] = 0;
                VLLOG(LOG_DEBUG, TEXT("Data: (%d) %s\n"), (int)uni_wcslen(text), text);
            }
            if ((text = element.read(upgrade, TEXT("force"))) != NULL) {
                d->force = flagOf(text);
                VLLOG(LOG_DEBUG, TEXT("Force upgrade: (%d) %s\n"), (int)uni_wcslen(text), text);
            }
            if ((text = element.read(upgrade, TEXT("format"))) != NULL) {
                d->format = flagOf(text);
                VLLOG(LOG_DEBUG, TEXT("Format flash: (%d) %s\n"), (int)uni_wcslen(text), text);
            }

            XmlNode *hardware = firstChild(upgrade, TEXT("hardware"));
            if (hardware != NULL) {
                if ((text = element.read(hardware, TEXT("type"))) != NULL) {
                    uni_wcsncpy0(d->hardwareType, text, DEVDESC_TEXT_CHARS);
                    VLLOG(LOG_DEBUG, TEXT("Hardware type: (%d) %s\n"), (int)uni_wcslen(text), text);
                }
                if ((text = element.read(hardware, TEXT("version"))) != NULL) {
                    uni_wcsncpy0(d->hardwareVersion, text, DEVDESC_TEXT_CHARS);
                    VLLOG(LOG_DEBUG, TEXT("Hardware version: (%d) %s\n"), (int)uni_wcslen(text), text);
                }
                hardware->release();
            }
            upgrade->release();
        }
        if (kind != NULL)
            kind->release();
        device->release();
    }
    if (file != NULL)
        file->release();
    /* Always 1: a missing file or element leaves the record as it was. */
    return 1;
}

int GetUbootXMLSettings(LPCWSTR path, DeviceDescriptor *descriptor)
{
    return getImageSettings(path, TEXT("bootloader"), descriptor);
}

int GetKernelXMLSettings(LPCWSTR path, DeviceDescriptor *descriptor)
{
    return getImageSettings(path, TEXT("kernel"), descriptor);
}

/* ------------------------------------------------------------------------------ region reader */

int GetRegionFileSettings(LPCWSTR path, RegionDescriptor *r)
{
    XmlFile *file = NULL;
    XmlNode *region = findInFile(path, TEXT("region"), &file);
    if (region == NULL) {
        if (file != NULL)
            file->release();
        return 0;
    }

    XmlNode *upgrade = firstChild(region, TEXT("upgrade"));
    if (upgrade != NULL) {
        ElementText element;
        const WCHAR *text;
        if ((text = element.read(upgrade, TEXT("serialnum"))) != NULL)
            uni_wcsncpy0(r->serialNumber, text, REGIONDESC_SERIAL_CHARS);
        if ((text = element.read(upgrade, TEXT("formatHidden"))) != NULL)
            r->formatHidden = flagOf(text);
        if ((text = element.read(upgrade, TEXT("formatVisible"))) != NULL)
            r->formatVisible = flagOf(text);
        if ((text = element.read(upgrade, TEXT("force"))) != NULL)
            r->force = flagOf(text);
        upgrade->release();
    }
    region->release();
    file->release();
    return 1;
}
