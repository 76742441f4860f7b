/*
 * The table of known installation and data locations (paths.xml, the registry, the defaults).
 */
#include "framework/desktopintegration.h"

#include "framework/xmlfile.h"
#include "platform/initfuncs.h"
#include "platform/platform.h"
#include "platform/plat_alloc.h"
#include "platform/plat_funcs.h"
#include "platform/plat_unicode.h"
#include "platform/registry.h"
#include "platform/sdcardfuncs.h"

#include <stdlib.h>
#include <string.h>

#define DI_NAME_CHARS 256           /* the longest entry name read and compared */
#define DI_NO_FIELD (-1)

/* The entries of paths.xml, in the order their names are compared. */
struct DesktopEntry {
    const WCHAR *name;
    int folderField;                /* receives "basepath" */
    int fileField;                  /* receives "files"/"file", or DI_NO_FIELD */
};

static const DesktopEntry g_desktopEntries[] = {
    {TEXT("appstartupsec"), DI_DEFAULT_PATH, DI_DEFAULT_FILE},
    {TEXT("waylume"), DI_NAVIGATION_FOLDER, DI_NAVIGATION_FILE},
    {TEXT("POIdatabase"), DI_POI_DATABASE, DI_NO_FIELD},
    {TEXT("customPOIicons"), DI_CUSTOM_POI_ICONS, DI_NO_FIELD},
    {TEXT("PictraStorage"), DI_PHOTO_STORAGE, DI_NO_FIELD},
    {TEXT("mileagelogs"), DI_MILEAGE_LOGS, DI_NO_FIELD},
    {TEXT("authentication"), DI_AUTHENTICATION, DI_NO_FIELD},
    {TEXT("avoidareas"), DI_AVOID_AREAS, DI_NO_FIELD},
    {TEXT("favourites"), DI_FAVOURITES, DI_NO_FIELD},
    {TEXT("multistoproutes"), DI_MULTISTOP_ROUTES, DI_NO_FIELD},
    {TEXT("poisettings"), DI_POI_SETTINGS, DI_NO_FIELD},
    {TEXT("recents"), DI_RECENTS, DI_NO_FIELD},
    {TEXT("settings"), DI_SETTINGS, DI_NO_FIELD},
    {TEXT("alertsounds"), DI_ALERT_SOUNDS, DI_NO_FIELD},
    {TEXT("mapdata"), DI_MAP_DATA, DI_NO_FIELD},
};

#define DI_USER_DATA TEXT("\\Program Files\\Velmar\\Waylume_CE\\UserData")

/* The built-in defaults, by field. The mileage logs' doubled separators are what the devices
 * have always used; kept so. */
static const WCHAR *const g_desktopDefaults[DI_FIELD_COUNT] = {
    TEXT("\\My Flash Disk"),
    TEXT("\\Program Files\\Velmar"),
    TEXT("AppStartupSec.exe"),
    TEXT("\\Program Files\\Velmar\\Waylume_CE"),
    TEXT("Waylume_CE.exe"),
    TEXT("\\Velmar\\database\\database.db"),
    TEXT("\\Velmar\\icons\\"),
    TEXT("\\Velmar\\photos\\"),
    TEXT("\\\\My Documents\\\\"),
    TEXT("\\Program Files\\Velmar\\Waylume_CE"),
    DI_USER_DATA,
    DI_USER_DATA,
    DI_USER_DATA,
    DI_USER_DATA,
    DI_USER_DATA,
    DI_USER_DATA,
    TEXT("\\Program Files\\Velmar\\Waylume_CE\\UI\\Sounds"),
    TEXT("\\Velmar"),
};

/* A default is copied with at most MAX_PATH - 2 characters. */
#define DI_DEFAULT_CAP (MAX_PATH - 1)

DesktopIntegrationPrivate::DesktopIntegrationPrivate() : m_nRefCount(0)
{
    memset(m_szFields, 0, sizeof(m_szFields));
}

void *DesktopIntegrationPrivate::operator new(size_t size) throw()
{
    return os_malloc(size);
}

void DesktopIntegrationPrivate::operator delete(void *p)
{
    if (p != NULL) os_free(p);
}

LONG DesktopIntegrationPrivate::addRef()
{
    return InterlockedIncrement(&m_nRefCount);
}

LONG DesktopIntegrationPrivate::release()
{
    LONG count = InterlockedDecrement(&m_nRefCount);
    if (count == 0) delete this;
    return count;
}

int DesktopIntegrationPrivate::buildPath(WCHAR *output, const WCHAR *format, FMT_ARGS_DEF)
{
    WCHAR relative[MAX_PATH];
    fmt_formatW(relative, MAX_PATH, format != NULL ? format : TEXT(""), FmtArgList(FMT_ARGS_PASS));
    if (relative[0] == TEXT('\\'))
        uni_snwprintf(output, MAX_PATH, TEXT("%ls%ls"), m_szFields[DI_ROOT], relative);
    else
        uni_snwprintf(output, MAX_PATH, TEXT("%ls%ls%ls"), m_szFields[DI_ROOT], TEXT("\\"), relative);
    return (int)uni_wcslen(output);
}

BOOL DesktopIntegrationPrivate::allFilled() const
{
    for (int i = 0; i < DI_FIELD_COUNT; ++i) {
        if (m_szFields[i][0] == 0) return FALSE;
    }
    return TRUE;
}

/* The first element child of parent called name (with a reference for the caller), or NULL. */
static XmlNode *firstChild(XmlNode *parent, LPCWSTR name)
{
    XmlChildList *list = NULL;
    if (!parent->getNamedChildList(name, &list)) return NULL;
    XmlNode *child = NULL;
    list->next(TRUE, &child);
    list->release();
    return child;
}

/* Reads the text of parent's first child called name into buffer (cut to size - 1 characters).
 * FALSE, with buffer untouched, when there is no such child. */
static BOOL readChildText(XmlNode *parent, LPCWSTR name, WCHAR *buffer, DWORD size)
{
    XmlNode *child = firstChild(parent, name);
    if (child == NULL) return FALSE;
    DWORD capacity = size;
    child->getText(buffer, &capacity);
    child->release();
    return TRUE;
}

void DesktopIntegrationPrivate::readEntry(XmlNode *entry)
{
    WCHAR name[DI_NAME_CHARS + 1];
    if (!readChildText(entry, TEXT("name"), name, DI_NAME_CHARS + 1)) return;

    const DesktopEntry *found = NULL;
    for (size_t i = 0; i < sizeof(g_desktopEntries) / sizeof(g_desktopEntries[0]); ++i) {
        if (uni_wcsncmp(name, g_desktopEntries[i].name, DI_NAME_CHARS) == 0) {
            found = &g_desktopEntries[i];
            break;
        }
    }
    if (found == NULL) return;

    /* An entry without "basepath" (or "file") leaves its field as it was: for the defaults. */
    readChildText(entry, TEXT("basepath"), m_szFields[found->folderField], MAX_PATH);
    if (found->fileField != DI_NO_FIELD) {
        XmlNode *files = firstChild(entry, TEXT("files"));
        if (files != NULL) {
            readChildText(files, TEXT("file"), m_szFields[found->fileField], MAX_PATH);
            files->release();
        }
    }
}

void DesktopIntegrationPrivate::readPathsFile(XmlFile *file)
{
    WCHAR nodeName[32];
    DWORD nodeNameSize = 32;
    XmlNode *paths = NULL;
    if (!file->getNode(TEXT("//paths"), nodeName, &nodeNameSize, &paths)) return;

    XmlChildList *list = NULL;
    if (paths->getChildList(&list)) {
        /* The entries are counted in 16 bits: any beyond the counter's range are not read. */
        int count = list->getCount();
        if (count > 0xFFFF) count = 0xFFFF;
        for (WORD index = 0; (int)index < count && !allFilled(); ++index) {
            XmlNode *entry = NULL;
            if (!list->next(index == 0 ? TRUE : FALSE, &entry)) break;
            readEntry(entry);
            entry->release();
        }
        list->release();
    }
    paths->release();
}

void DesktopIntegrationPrivate::readRegistryValue(int field, LPCWSTR valueName, LPCWSTR logFormat,
                                                  BOOL cutBackslash)
{
    WCHAR *text = m_szFields[field];
    if (text[0] != 0) return;
    if (getVLRegistryString(valueName, text, MAX_PATH)) {
        VLLOG(LOG_DEBUG, logFormat, text);
        size_t length = uni_wcslen(text);
        if (cutBackslash && length > 0 && text[length - 1] == TEXT('\\')) text[length - 1] = 0;
    } else {
        /* A default is taken as written, never cut. */
        uni_wcsncpy0(text, g_desktopDefaults[field], DI_DEFAULT_CAP);
    }
}

BOOL DesktopIntegrationPrivate::load()
{
    WCHAR folder[MAX_PATH];
    WCHAR path[MAX_PATH];
    XmlFile *file = NULL;

    init_getInternalFolder(folder);
    uni_snwprintf(path, MAX_PATH, TEXT("%ls\\paths.xml"), folder);
    if (XmlFile::create(path, &file)) {
        uni_wcsncpy0(m_szFields[DI_ROOT], folder, MAX_PATH);
    } else {
        VLLOG(LOG_DEBUG, TEXT("Failed to load %ls, try from SD card"), path);
        folder[0] = 0;
        if (!sys_getExternalPath1(folder)) {
            folder[0] = 0;
            WCHAR hardware[MAX_PATH];
            sys_getHardwareName(hardware);
            sys_getKnownRoots(sys_getModelNumber(hardware), NULL, 0, folder, MAX_PATH, NULL, 0);
        }
        uni_snwprintf(path, MAX_PATH, TEXT("%ls\\paths.xml"), folder);
        sdcard_wait(path);
        if (XmlFile::create(path, &file)) uni_wcsncpy0(m_szFields[DI_ROOT], folder, MAX_PATH);
    }
    if (file != NULL) {
        readPathsFile(file);
        file->release();
    }

    readRegistryValue(DI_ROOT, TEXT("DefaultRoot"), TEXT("HKLM\\Velmar\\DefaultRoot = %ls"), TRUE);
    readRegistryValue(DI_DEFAULT_PATH, TEXT("DefaultPath"), TEXT("HKLM\\Velmar\\DefaultPath = %ls"), TRUE);
    readRegistryValue(DI_DEFAULT_FILE, TEXT("DefaultFile"), TEXT("HKLM\\Velmar\\DefaultFile = %ls"), FALSE);

    for (int i = 0; i < DI_FIELD_COUNT; ++i) {
        if (m_szFields[i][0] == 0) uni_wcsncpy0(m_szFields[i], g_desktopDefaults[i], DI_DEFAULT_CAP);
    }
    return TRUE;
}

/* ---- the process's object ---- */

static DesktopIntegrationPrivate *g_pDesktopIntegration = NULL;

static void releaseDesktopIntegration(void)
{
    if (g_pDesktopIntegration != NULL) {
        DesktopIntegrationPrivate *object = g_pDesktopIntegration;
        g_pDesktopIntegration = NULL;
        object->release();
    }
}

DesktopIntegrationPrivate *GetDesktopIntegration()
{
    if (g_pDesktopIntegration == NULL) {
        DesktopIntegrationPrivate *object = new DesktopIntegrationPrivate();
        if (object == NULL) {
            VLLOG(LOG_ERROR, TEXT("Operator new failed on DesktopIntegrationPrivate."));
            return NULL;
        }
        if (!object->load()) {
            delete object;
            VLLOG(LOG_ERROR, TEXT("Failed to construct DesktopIntegrationPrivate."));
            return NULL;
        }
        object->addRef();
        g_pDesktopIntegration = object;
        atexit(releaseDesktopIntegration);
    }
    return g_pDesktopIntegration;
}
