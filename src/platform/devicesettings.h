/*
 * velmar::CDeviceSettings: the per-device tuning read from device_settings.ini (memory limits, GPS,
 * traffic and one-to-one serial ports, GPS command strings, battery warnings, feature flags, the key
 * map). One process-wide instance, filled on first use through getDeviceSettings(), which the
 * framework's allocators call on every allocation and release.
 *
 * The file may hold sections for several hardware versions and GPS chips: the instance applies
 * "Default", "HWVersion=<its hardware version>", "GPS=<ATHEROS or SIRF>" and "KEYMAP", in the file's
 * order (a later value overwrites an earlier one), and reports every other section.
 */
#ifndef TARSK_PLATFORM_DEVICESETTINGS_H
#define TARSK_PLATFORM_DEVICESETTINGS_H

#include "sal/winapi.h"

class CIniFile;

#define DS_SECTION_NAME_SIZE 128
#define DS_PORT_SIZE 10
#define DS_COMMAND_SIZE 64
#define DS_KEYMAP_SIZE 39
#define DS_KEYMAP_NAMED 23      /* key codes the file can set */

namespace velmar {

/* Bool fields are 32-bit integers holding 0 or 1; text fields are not always terminated (a value
 * of the field's length or longer fills it without a NUL). */
struct CDeviceSettings {
    LONG m_nHardwareVersion;                       /* from the device library; -1 at first */
    char m_szHardwareSection[DS_SECTION_NAME_SIZE];  /* "HWVersion=%d" */
    char m_szGPSSection[DS_SECTION_NAME_SIZE];       /* "GPS=%hs" */
    /* from here on, zero before the file is read */
    LONG m_nMapCacheSizeMax;
    LONG m_nMapCacheSizeMin;
    LONG m_nMinStoragePage;
    LONG m_nBigMallocBound;
    BOOL m_bSharedMemHeap;
    BOOL m_bGPSPortOpen;
    char m_szGPSPort[DS_PORT_SIZE];
    LONG m_nGPSOldBaudRate;
    LONG m_nGPSBaudRate;
    BOOL m_bGPSClmStorageOpenClose;
    BOOL m_bGPSDefaultProtocolIsNmea;
    BOOL m_bGPSBinaryProtocol;
    LONG m_nGPSBinaryBaudRate;
    BOOL m_bGPSProtocolSwitch;
    BOOL m_bGPSUseClm;
    BOOL m_bGPSColdStart;
    BOOL m_bGPSUseRxFlag;
    LONG m_nGPSResetWatchdogTimeout;
    char m_szGPSHotStartCmd[DS_COMMAND_SIZE];
    char m_szGPSWarmStartCmd[DS_COMMAND_SIZE];
    char m_szGPSColdStartCmd[DS_COMMAND_SIZE];
    char m_szDGPSOffCmd[DS_COMMAND_SIZE];
    char m_szDGPSWaasCmd[DS_COMMAND_SIZE];
    char m_szDGPSEgnosCmd[DS_COMMAND_SIZE];
    char m_szDGPSMsasCmd[DS_COMMAND_SIZE];
    BOOL m_bTMCPortOpen;
    char m_szTMCPort[DS_PORT_SIZE];
    LONG m_nTMCBaudRate;
    BOOL m_bTMCDuplexMode;
    BOOL m_bTMCGnsModule;
    LONG m_nTMCCommandTimeout;
    LONG m_nTMCCommandRetry;
    BOOL m_bOne2OnePortOpen;
    char m_szOne2OnePort[DS_PORT_SIZE];
    LONG m_nOne2OneBaudRate;
    LONG m_nLowWarningBatteryPercentage;
    LONG m_nCriticalWarningBatteryPercentage;
    BOOL m_bFMTransmitterAvailable;
    BOOL m_bAVAvailable;
    BOOL m_bTVAvailable;
    BOOL m_bPowerButtonCanBeHeld;
    BOOL m_bNoSDCardXmlFile;
    LONG m_nScreenDumpKey;
    BOOL m_bSkipTouchScreenCalibration;
    LONG m_anKeyMap[DS_KEYMAP_SIZE];

    /* Reads device_settings.ini; true when the file was opened (whatever it held). */
    bool construct();
    /* The enumeration's callbacks (reached through static functions that supply the instance). */
    int sectionCB(CIniFile *ini, const char *section);
    int keyCB(const char *section, const char *key, const char *value);
    int keyMapCB(const char *section, const char *key, const char *value);
};

/* The process's instance: loads it while it is not loaded (again on every call for as long as the
 * load fails) and returns it in every case. Two threads never run construct at once; a call made on
 * the thread that is running construct (an allocation inside it) returns the instance as it stands. */
CDeviceSettings *getDeviceSettings(void);
/* Whether the process's instance has been read from its file. */
bool isDeviceSettingsLoaded(void);
/* The file name the last construct looked for (empty before the first). */
LPCWSTR getDeviceSettingsFileName(void);

/* The settings integer conversion: "0x" hex, a leading "-", every other byte its code minus 55,
 * no validation, 32-bit wrap-around. Only the first 127 characters of a value count. */
LONG ds_atoi(const char *value);

/* ---- the key tables, and an observer for a tool that shows the file as the device reads it ---- */

#define DS_TYPE_BOOL 0
#define DS_TYPE_INT32 1
#define DS_TYPE_TEXT 2
#define DS_KEY_COUNT 44

/* One key of the settings sections, in the order keys are matched. */
struct DeviceSettingsKey {
    const char *name;          /* as the file writes it */
    int type;                  /* DS_TYPE_x */
    unsigned int offset;       /* of its field in CDeviceSettings */
    unsigned int size;         /* of its field in bytes */
    BOOL matchCase;            /* compared with regard to case */
};
extern const DeviceSettingsKey g_deviceSettingsKeys[DS_KEY_COUNT];

/* One name of the KEYMAP section and the key map code it sets. */
struct DeviceSettingsKeyCode {
    const char *name;
    int code;                  /* index into m_anKeyMap */
};
extern const DeviceSettingsKeyCode g_deviceSettingsKeyMap[DS_KEYMAP_NAMED];

/* What the callbacks saw. index: the entry of g_deviceSettingsKeys (DS_EVENT_KEY) or of
 * g_deviceSettingsKeyMap (DS_EVENT_KEYMAP) that matched, else -1; key and value NULL for sections. */
#define DS_EVENT_READING 0          /* the file opened; the enumeration starts (no names) */
#define DS_EVENT_SECTION 1          /* a section applied */
#define DS_EVENT_SECTION_UNKNOWN 2  /* a section skipped */
#define DS_EVENT_KEY 3              /* a settings key set its field */
#define DS_EVENT_KEY_UNKNOWN 4
#define DS_EVENT_KEYMAP 5           /* a KEYMAP name set its code */
#define DS_EVENT_KEYMAP_UNKNOWN 6
typedef void (*DeviceSettingsObserver)(int event, int index, const char *section, const char *key,
                                       const char *value);
/* NULL (the default) observes nothing. */
void setDeviceSettingsObserver(DeviceSettingsObserver observer);

}  // namespace velmar

#endif /* TARSK_PLATFORM_DEVICESETTINGS_H */
