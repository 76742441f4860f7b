/*
 * The table of the device's known installation and data locations: read once per process from
 * paths.xml (internal storage, else the memory card), completed from the registry values
 * DefaultRoot, DefaultPath and DefaultFile, and finally from built-in defaults.
 *
 *     DesktopIntegrationPrivate *di = GetDesktopIntegration();
 *     if (di != NULL) { path of the start-up program: di->getDefaultPath(), di->getDefaultFile() }
 *
 * The object is the process's: its users do not release it; it is released at process exit.
 */
#ifndef TARSK_FRAMEWORK_DESKTOPINTEGRATION_H
#define TARSK_FRAMEWORK_DESKTOPINTEGRATION_H

#include "sal/winapi.h"
#include "platform/plat_unicode.h"

class XmlFile;
class XmlNode;

/* The fields, in the order of the accessors. Each is a wide string of MAX_PATH characters. */
enum DesktopIntegrationField {
    DI_ROOT,                    /* the folder where paths.xml was found; DefaultRoot */
    DI_DEFAULT_PATH,            /* "appstartupsec" base path; DefaultPath */
    DI_DEFAULT_FILE,            /* "appstartupsec" file; DefaultFile */
    DI_NAVIGATION_FOLDER,       /* "waylume" base path */
    DI_NAVIGATION_FILE,         /* "waylume" file */
    DI_POI_DATABASE,            /* "POIdatabase" (a file) */
    DI_CUSTOM_POI_ICONS,        /* "customPOIicons" */
    DI_PHOTO_STORAGE,           /* "PictraStorage" */
    DI_MILEAGE_LOGS,            /* "mileagelogs" */
    DI_AUTHENTICATION,          /* "authentication" */
    DI_AVOID_AREAS,             /* "avoidareas" */
    DI_FAVOURITES,              /* "favourites" */
    DI_MULTISTOP_ROUTES,        /* "multistoproutes" */
    DI_POI_SETTINGS,            /* "poisettings" */
    DI_RECENTS,                 /* "recents" */
    DI_SETTINGS,                /* "settings" */
    DI_ALERT_SOUNDS,            /* "alertsounds" */
    DI_MAP_DATA,                /* "mapdata" */
    DI_FIELD_COUNT
};

/* The interface: reference counting first, then the path builder and the accessors. */
class DesktopIntegration {
public:
    virtual LONG addRef() = 0;              /* returns the new count */
    virtual LONG release() = 0;             /* deletes the object at 0; returns the new count */
    virtual ~DesktopIntegration() {}

    /* Formats a relative path (printf-style, at most MAX_PATH characters) and puts the root before
     * it: "%ls%ls" when it begins with a backslash, else root, "\" and it. output holds MAX_PATH
     * characters. Returns the output's length. */
    virtual int buildPath(WCHAR *output, const WCHAR *format, FMT_ARGS_DECL) = 0;
    virtual LPCWSTR getRoot() = 0;
    virtual LPCWSTR getDefaultPath() = 0;       /* the start-up folder */
    virtual LPCWSTR getDefaultFile() = 0;       /* the start-up file */
    virtual LPCWSTR getNavigationFolder() = 0;
    virtual LPCWSTR getNavigationFile() = 0;
    virtual LPCWSTR getPOIDatabase() = 0;
    virtual LPCWSTR getCustomPOIIcons() = 0;
    virtual LPCWSTR getPhotoStorage() = 0;
    virtual LPCWSTR getMileageLogs() = 0;
    virtual LPCWSTR getAuthentication() = 0;
    virtual LPCWSTR getAvoidAreas() = 0;
    virtual LPCWSTR getFavourites() = 0;
    virtual LPCWSTR getMultiStopRoutes() = 0;
    virtual LPCWSTR getPOISettings() = 0;
    virtual LPCWSTR getRecents() = 0;
    virtual LPCWSTR getSettings() = 0;
    virtual LPCWSTR getAlertSounds() = 0;
    virtual LPCWSTR getMapData() = 0;
};

class DesktopIntegrationPrivate : public DesktopIntegration {
public:
    DesktopIntegrationPrivate();            /* every field empty */
    virtual ~DesktopIntegrationPrivate() {}

    /* Allocated through the framework's allocator; NULL when that fails (no exception). */
    static void *operator new(size_t size) throw();
    static void operator delete(void *p);

    /* Fills the table: paths.xml, then the registry, then the defaults. Never fails. */
    BOOL load();

    virtual LONG addRef();
    virtual LONG release();
    virtual int buildPath(WCHAR *output, const WCHAR *format, FMT_ARGS_DECL);
    virtual LPCWSTR getRoot() { return m_szFields[DI_ROOT]; }
    virtual LPCWSTR getDefaultPath() { return m_szFields[DI_DEFAULT_PATH]; }
    virtual LPCWSTR getDefaultFile() { return m_szFields[DI_DEFAULT_FILE]; }
    virtual LPCWSTR getNavigationFolder() { return m_szFields[DI_NAVIGATION_FOLDER]; }
    virtual LPCWSTR getNavigationFile() { return m_szFields[DI_NAVIGATION_FILE]; }
    virtual LPCWSTR getPOIDatabase() { return m_szFields[DI_POI_DATABASE]; }
    virtual LPCWSTR getCustomPOIIcons() { return m_szFields[DI_CUSTOM_POI_ICONS]; }
    virtual LPCWSTR getPhotoStorage() { return m_szFields[DI_PHOTO_STORAGE]; }
    virtual LPCWSTR getMileageLogs() { return m_szFields[DI_MILEAGE_LOGS]; }
    virtual LPCWSTR getAuthentication() { return m_szFields[DI_AUTHENTICATION]; }
    virtual LPCWSTR getAvoidAreas() { return m_szFields[DI_AVOID_AREAS]; }
    virtual LPCWSTR getFavourites() { return m_szFields[DI_FAVOURITES]; }
    virtual LPCWSTR getMultiStopRoutes() { return m_szFields[DI_MULTISTOP_ROUTES]; }
    virtual LPCWSTR getPOISettings() { return m_szFields[DI_POI_SETTINGS]; }
    virtual LPCWSTR getRecents() { return m_szFields[DI_RECENTS]; }
    virtual LPCWSTR getSettings() { return m_szFields[DI_SETTINGS]; }
    virtual LPCWSTR getAlertSounds() { return m_szFields[DI_ALERT_SOUNDS]; }
    virtual LPCWSTR getMapData() { return m_szFields[DI_MAP_DATA]; }

    /* A field by its index (DI_...). */
    LPCWSTR getField(int field) const { return m_szFields[field]; }

private:
    void readPathsFile(XmlFile *file);
    void readEntry(XmlNode *entry);
    BOOL allFilled() const;
    void readRegistryValue(int field, LPCWSTR valueName, LPCWSTR logFormat, BOOL cutBackslash);

    LONG m_nRefCount;
    WCHAR m_szFields[DI_FIELD_COUNT][MAX_PATH];

    DesktopIntegrationPrivate(const DesktopIntegrationPrivate &);
    DesktopIntegrationPrivate &operator=(const DesktopIntegrationPrivate &);
};

/* The process-wide table: made and loaded on the first call (without a lock), NULL when that fails. */
DesktopIntegrationPrivate *GetDesktopIntegration();

#endif /* TARSK_FRAMEWORK_DESKTOPINTEGRATION_H */
