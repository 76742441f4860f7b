/*
 * velmar::CDeviceSettings: device_settings.ini read once per process (retried while it cannot be
 * opened) with the enumeration of CIniFile, applying "Default", the hardware version's section, the
 * GPS chip's section and "KEYMAP" in the file's order.
 */
#include "platform/devicesettings.h"

#include "framework/common.h"
#include "platform/inifile.h"
#include "platform/initfuncs.h"
#include "platform/plat_alloc.h"
#include "platform/plat_file.h"
#include "platform/plat_unicode.h"
#include "platform/platform.h"
#include "sal/concurrency/lazylock.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

namespace velmar {

#define DS_FIELD(type, field, matchCase, name)                                                      \
    { name, type, (unsigned int)offsetof(CDeviceSettings, field),                                  \
      (unsigned int)sizeof(((CDeviceSettings *)0)->field), matchCase }
#define DS_BOOL(field, name) DS_FIELD(DS_TYPE_BOOL, field, FALSE, name)
#define DS_INT(field, name) DS_FIELD(DS_TYPE_INT32, field, FALSE, name)
#define DS_TEXT(field, name) DS_FIELD(DS_TYPE_TEXT, field, FALSE, name)

const DeviceSettingsKey g_deviceSettingsKeys[DS_KEY_COUNT] = {
    DS_INT(m_nMapCacheSizeMax, "MapCacheSizeMax"),
    DS_INT(m_nMapCacheSizeMin, "MapCacheSizeMin"),
    DS_INT(m_nMinStoragePage, "MinStoragePage"),
    DS_INT(m_nBigMallocBound, "BigMallocBound"),
    DS_BOOL(m_bSharedMemHeap, "SharedMemHeap"),
    DS_BOOL(m_bGPSPortOpen, "gps port open"),
    DS_TEXT(m_szGPSPort, "gps port"),
    DS_INT(m_nGPSOldBaudRate, "gps old baud rate"),
    DS_INT(m_nGPSBaudRate, "gps baud rate"),
    DS_BOOL(m_bGPSClmStorageOpenClose, "gps sirf clm storage open close"),
    /* the one key compared with its case: only the lower-case form sets the field */
    DS_FIELD(DS_TYPE_BOOL, m_bGPSDefaultProtocolIsNmea, TRUE, "gps default protocol is nmea"),
    DS_BOOL(m_bGPSBinaryProtocol, "gps sirfbinary protocol"),
    DS_INT(m_nGPSBinaryBaudRate, "gps sirfbinary baud rate"),
    DS_BOOL(m_bGPSProtocolSwitch, "gps protocol switch"),
    DS_BOOL(m_bGPSUseClm, "gps use sirf clm"),
    DS_BOOL(m_bGPSColdStart, "gps cold start"),
    DS_BOOL(m_bGPSUseRxFlag, "gps use rx flag"),
    DS_INT(m_nGPSResetWatchdogTimeout, "gps reset watchdog timeout"),
    DS_TEXT(m_szGPSHotStartCmd, "gps hot start cmd"),
    DS_TEXT(m_szGPSWarmStartCmd, "gps warm start cmd"),
    DS_TEXT(m_szGPSColdStartCmd, "gps cold start cmd"),
    DS_TEXT(m_szDGPSOffCmd, "dpgs off cmd"),   /* spelled so in every device_settings.ini */
    DS_TEXT(m_szDGPSWaasCmd, "dgps waas cmd"),
    DS_TEXT(m_szDGPSEgnosCmd, "dgps egnos cmd"),
    DS_TEXT(m_szDGPSMsasCmd, "dgps msas cmd"),
    DS_BOOL(m_bTMCPortOpen, "tmc port open"),
    DS_TEXT(m_szTMCPort, "tmc port"),
    DS_INT(m_nTMCBaudRate, "tmc baud rate"),
    DS_BOOL(m_bTMCDuplexMode, "tmc duplex mode"),
    DS_BOOL(m_bTMCGnsModule, "tmc gns module"),
    DS_INT(m_nTMCCommandTimeout, "tmc command timeout"),
    DS_INT(m_nTMCCommandRetry, "tmc command retry"),
    DS_BOOL(m_bOne2OnePortOpen, "one2one port open"),
    DS_TEXT(m_szOne2OnePort, "one2one port"),
    DS_INT(m_nOne2OneBaudRate, "one2one baud rate"),
    DS_INT(m_nLowWarningBatteryPercentage, "low warning battery percentage"),
    DS_INT(m_nCriticalWarningBatteryPercentage, "critical warning battery percentage"),
    DS_BOOL(m_bFMTransmitterAvailable, "fm transmitter available"),
    DS_BOOL(m_bAVAvailable, "av available"),
    DS_BOOL(m_bTVAvailable, "tv available"),
    DS_BOOL(m_bPowerButtonCanBeHeld, "power button can be held"),
    DS_BOOL(m_bNoSDCardXmlFile, "no sdcard xml file"),
    DS_INT(m_nScreenDumpKey, "screen dump key"),
    DS_BOOL(m_bSkipTouchScreenCalibration, "skip touch screen calibration"),
};

/* Codes 20 to 27 and 31 to 38 have no name: the file cannot set them. */
const DeviceSettingsKeyCode g_deviceSettingsKeyMap[DS_KEYMAP_NAMED] = {
    {"VolumeUp", 0},   {"VolumeDown", 1}, {"Mute", 2},      {"Fuel", 3},        {"Parking", 4},
    {"Menu", 5},       {"Go", 6},         {"Map", 7},       {"Camera", 8},      {"Cancel", 9},
    {"Home", 10},      {"BrightUp", 11},  {"BrightDown", 12}, {"Space", 13},    {"Shift", 14},
    {"Numeric", 15},   {"Symbol", 16},    {"Alpha", 17},    {"Enter", 18},      {"Escape", 19},
    {"Capture", 28},   {"TV", 29},        {"RemoteMenu", 30},
};

/* The process's instance: zero until the file is read, but for the hardware version, which is -1
 * from the first access on (set then, so the record needs no dynamic initialisation). */
static CDeviceSettings g_deviceSettings;
static volatile LONG g_notLoaded = 1;
static BOOL g_accessed = FALSE;
/* The thread running construct for getDeviceSettings, 0 when none. */
static volatile DWORD g_constructThread = 0;
static SalLazyLock g_constructLock;

/* The instance whose construct is enumerating: the key callbacks have no context of their own. */
static CDeviceSettings *g_reading = NULL;
static DeviceSettingsObserver g_observer = NULL;
static WCHAR g_fileName[MAX_PATH];

static const char kDefaultBasePath[] = "\\Program Files\\Velmar\\Waylume_CE\\UserData";

/* ------------------------------------------------------------------------------ the accessor */

CDeviceSettings *getDeviceSettings(void) {
    if (g_notLoaded) {
        DWORD self = GetCurrentThreadId();
        /* construct allocates through the framework's allocators, which come back here: that call
         * gets the instance as it stands. The lock is recursive, so this is tested before it. */
        if (g_constructThread == self) return &g_deviceSettings;
        sal_lazyLockEnter(&g_constructLock);
        if (!g_accessed) {
            g_deviceSettings.m_nHardwareVersion = -1;
            g_accessed = TRUE;
        }
        if (g_notLoaded) {   /* another thread may have loaded it while this one waited */
            g_constructThread = self;
            if (g_deviceSettings.construct()) InterlockedExchange(&g_notLoaded, 0);
            g_constructThread = 0;
        }
        sal_lazyLockLeave(&g_constructLock);
    }
    return &g_deviceSettings;
}

bool isDeviceSettingsLoaded(void) { return g_notLoaded == 0; }

LPCWSTR getDeviceSettingsFileName(void) { return g_fileName; }

void setDeviceSettingsObserver(DeviceSettingsObserver observer) { g_observer = observer; }

static void ds_observe(int event, int index, const char *section, const char *key, const char *value) {
    if (g_observer != NULL) g_observer(event, index, section, key, value);
}

/* --------------------------------------------------------------------------------- construct */

static int ds_sectionCB(void *context, CIniFile *ini, const char *section) {
    return ((CDeviceSettings *)context)->sectionCB(ini, section);
}

static int ds_keyCB(CIniFile *, const char *section, const char *key, const char *value) {
    return g_reading != NULL ? g_reading->keyCB(section, key, value) : 1;
}

static int ds_keyMapCB(CIniFile *, const char *section, const char *key, const char *value) {
    return g_reading != NULL ? g_reading->keyMapCB(section, key, value) : 1;
}

/* The settings group's base path from paths.xml into basePath (empty when there is none). The paths
 * file reader copies the base path unbounded, and it is never longer than paths.xml itself: a file
 * too large for the stack buffer gets a buffer of its size. Returns the buffer to release, or NULL. */
static char *ds_readBasePath(const WCHAR *root, char *stackBuffer, size_t stackSize, char **basePath) {
    *basePath = stackBuffer;
    stackBuffer[0] = 0;
    WCHAR paths[MAX_PATH];
    uni_snwprintf(paths, MAX_PATH, TEXT("%ls%ls%ls"), root, TEXT("\\"), TEXT("paths.xml"));
    DWORD size = os_wGetFileSize(paths);
    char *heap = NULL;
    if (size >= stackSize) {
        heap = (char *)os_malloc((size_t)size + 1);
        if (heap == NULL) return NULL;   /* no room: the default base path */
        heap[0] = 0;
        *basePath = heap;
    }
    init_readSettingFromPathsFile(*basePath, root, "settings");
    return heap;
}

/* A number query of the device library, NULL when the library has no such entry. */
static PFN_DEVICE_GET_NUMBER ds_entry(CCommon *common, DeviceEntry entry) {
    FARPROC proc = common != NULL ? common->getEntry(entry) : NULL;
    return (PFN_DEVICE_GET_NUMBER)(void (*)(void))proc;
}

bool CDeviceSettings::construct() {
    memset(&m_nMapCacheSizeMax, 0,
           (size_t)((char *)(m_anKeyMap + DS_KEYMAP_SIZE) - (char *)&m_nMapCacheSizeMax));

    WCHAR root[MAX_PATH];
    init_getInternalFolder(root);
    char stackBase[MAX_PATH];
    char *found = NULL;
    char *heap = ds_readBasePath(root, stackBase, sizeof(stackBase), &found);
    const char *basePath = found[0] != 0 ? found : kDefaultBasePath;
    if (basePath[0] == '\\')
        uni_snwprintf(g_fileName, MAX_PATH, TEXT("%ls%hs%ls%ls"), root, basePath, TEXT("\\"),
                      TEXT("device_settings.ini"));
    else
        uni_snwprintf(g_fileName, MAX_PATH, TEXT("%ls%ls%hs%ls%ls"), root, TEXT("\\"), basePath, TEXT("\\"),
                      TEXT("device_settings.ini"));
    if (heap != NULL) os_free(heap);

    CCommon *common = GetCommon();
    PFN_DEVICE_GET_NUMBER getHardwareVersion = ds_entry(common, DEV_getHardwareVersion);
    if (getHardwareVersion != NULL) m_nHardwareVersion = getHardwareVersion();
    uni_snprintf(m_szHardwareSection, DS_SECTION_NAME_SIZE, "HWVersion=%d", (int)m_nHardwareVersion);

    PFN_DEVICE_GET_NUMBER getGPSType = ds_entry(common, DEV_getGPSType);
    int gpsType = getGPSType != NULL ? getGPSType() : 0;
    uni_snprintf(m_szGPSSection, DS_SECTION_NAME_SIZE, "GPS=%hs", gpsType == 3 || gpsType == 4 ? "ATHEROS" : "SIRF");

    DWORD start = GetTickCount();
    CIniFile ini;
    bool opened = ini.open(g_fileName);
    if (opened) {
        CDeviceSettings *outer = g_reading;
        g_reading = this;
        ds_observe(DS_EVENT_READING, -1, NULL, NULL, NULL);
        ini.enumSections(ds_sectionCB, this);
        g_reading = outer;
        ini.close();
        vl_printA("%hs(): Time taken %d\n", "velmar::CDeviceSettings::construct", (int)(GetTickCount() - start));
    }
    ini.close();
    return opened;
}

/* ------------------------------------------------------------------------------- callbacks */

int CDeviceSettings::sectionCB(CIniFile *ini, const char *section) {
    if (uni_stricmp(section, "Default") == 0 || uni_stricmp(section, m_szHardwareSection) == 0 ||
        uni_stricmp(section, m_szGPSSection) == 0) {
        ds_observe(DS_EVENT_SECTION, -1, section, NULL, NULL);
        ini->enumKeys(section, ds_keyCB);
    } else if (uni_stricmp(section, "KEYMAP") == 0) {
        ds_observe(DS_EVENT_SECTION, -1, section, NULL, NULL);
        ini->enumKeys(section, ds_keyMapCB);
    } else {
        VLLOG(LOG_ERROR, TEXT("%hs(): Unknown section %hs\n"), "velmar::CDeviceSettings::sectionCB", section);
        ds_observe(DS_EVENT_SECTION_UNKNOWN, -1, section, NULL, NULL);
    }
    return 1;
}

int CDeviceSettings::keyCB(const char *section, const char *key, const char *value) {
    for (int i = 0; i < DS_KEY_COUNT; ++i) {
        const DeviceSettingsKey &k = g_deviceSettingsKeys[i];
        if ((k.matchCase ? strcmp(key, k.name) : uni_stricmp(key, k.name)) != 0) continue;
        char *field = (char *)this + k.offset;
        if (k.type == DS_TYPE_BOOL)
            *(BOOL *)field = uni_stricmp(value, "TRUE") == 0 ? 1 : 0;
        else if (k.type == DS_TYPE_INT32)
            *(LONG *)field = ds_atoi(value);
        else
            strncpy(field, value, k.size);   /* a value of the field's length or more fills it unterminated */
        ds_observe(DS_EVENT_KEY, i, section, key, value);
        return 1;
    }
    VLLOG(LOG_ERROR, TEXT("%hs(%hs): Unknown key %hs = %hs\n"), "velmar::CDeviceSettings::keyCB", section, key, value);
    ds_observe(DS_EVENT_KEY_UNKNOWN, -1, section, key, value);
    return 1;
}

int CDeviceSettings::keyMapCB(const char *section, const char *key, const char *value) {
    for (int i = 0; i < DS_KEYMAP_NAMED; ++i) {
        if (uni_stricmp(key, g_deviceSettingsKeyMap[i].name) != 0) continue;
        m_anKeyMap[g_deviceSettingsKeyMap[i].code] = ds_atoi(value);
        ds_observe(DS_EVENT_KEYMAP, i, section, key, value);
        return 1;
    }
    VLLOG(LOG_ERROR, TEXT("%hs(%hs): Unknown key %hs = %hs\n"), "velmar::CDeviceSettings::keyMapCB", section, key,
          value);
    ds_observe(DS_EVENT_KEYMAP_UNKNOWN, -1, section, key, value);
    return 1;
}

/* ------------------------------------------------------------------------ integer conversion */

/* The original position counter is 8 bits wide: only the first 127 characters of a value count. */
#define DS_ATOI_MAX_LENGTH 127

LONG ds_atoi(const char *value) {
    if (value == NULL) return 0;
    size_t length = strlen(value);
    if (length > DS_ATOI_MAX_LENGTH) length = DS_ATOI_MAX_LENGTH;

    DWORD base = 10;
    size_t first = 0;
    bool negative = false;
    if (length >= 2 && value[0] == '0' && (value[1] == 'x' || value[1] == 'X')) {
        base = 16;
        first = 2;
    } else if (length >= 1 && value[0] == '-') {
        negative = true;
        first = 1;
    }

    /* Unsigned arithmetic: the 32-bit wrap-around is the conversion's, without undefined overflow. */
    DWORD result = 0;
    DWORD weight = 1;
    for (size_t i = length; i > first; --i) {
        unsigned int c = (unsigned char)value[i - 1];
        if (c >= 'a' && c <= 'z') c -= 'a' - 'A';
        DWORD digit = (c >= '0' && c <= '9') ? (DWORD)(c - '0') : (DWORD)c - 55u;
        result += digit * weight;
        weight *= base;
    }
    if (negative) result = 0u - result;
    return (LONG)result;
}

}  // namespace velmar
