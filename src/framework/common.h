/*
 * CCommon: the device library (device.dll, or \Windows\kerneldevice.dll in a kernel image), found,
 * loaded, its entry points resolved by name into a table, and started with the log callback.
 *
 * The entry points the framework calls have the signatures below; the others are resolved and kept
 * (their signatures belong to their users).
 */
#ifndef TARSK_FRAMEWORK_COMMON_H
#define TARSK_FRAMEWORK_COMMON_H

#include "sal/winapi.h"
#include "platform/loaddll.h"

/* The log callback handed to the library: source file, line, level and a wide format text; logged
 * when the log level is at least that level and the module mask has the device-library bit 0x40. */
typedef void (*DeviceLogCallback)(const char *source, int line, int level, const WCHAR *format);

/* The device object the library makes; its first virtual operation is its construct. */
class CDevice {
public:
    virtual int construct(DeviceLogCallback log) = 0;
};

typedef int (*PFN_DEVICE_CONSTRUCT)(DeviceLogCallback log);          /* "construct" */
typedef CDevice *(*PFN_CREATE_DEVICE_CLASS_INSTANCE)(void);          /* "createDeviceClassInstance" */
typedef int (*PFN_DEVICE_GET_NUMBER)(void);                          /* "getHardwareVersion", "getGPSType" */

/* The entry points, in the order they are resolved. */
enum DeviceEntry {
    DEV_getDeviceSerialNumber, DEV_getExternalSerialNumber, DEV_getDeviceName, DEV_getDeviceDisplayName,
    DEV_getHardwareVersion, DEV_getHardwareVersionString, DEV_getSKUSettings, DEV_getApplicationID,
    DEV_isHWFeatureEnabled, DEV_getHWFeatureSetting, DEV_isSWFeatureEnabled, DEV_getSWFeatureSetting,
    DEV_setBrightness, DEV_getBrightness, DEV_setContrast, DEV_getContrast, DEV_setScreenBacklight,
    DEV_getScreenBacklight, DEV_setTouchScreenLock, DEV_getTouchScreenLock, DEV_setScreenLock,
    DEV_getScreenLock, DEV_getTemperature, DEV_writeTSCalibrationStore, DEV_readTSCalibrationStore,
    DEV_writeLastValidTimeStore, DEV_readLastValidTimeStore, DEV_writeFirstUseTimeStore,
    DEV_readFirstUseTimeStore, DEV_setUSB, DEV_getLCID, DEV_getRegionVersion, DEV_getUSBBitmapsSettings,
    DEV_getUSBBitmapsData, DEV_getGPSType, DEV_getUSBDriverVersion,
    DEV_ENTRY_COUNT
};

class CCommon {
public:
    CCommon();
    virtual ~CCommon();
    /* Finds and loads the device library, resolves its entry points, starts it and its device
     * object. Returns 1. */
    int construct();
    /* An entry point of the table, NULL when the library lacks it. */
    FARPROC getEntry(DeviceEntry entry) const { return m_apfnEntries[entry]; }
    CDevice *getDevice() const { return m_pDevice; }
    CLoadDll &getLibrary() { return m_dll; }

private:
    CCommon(const CCommon &);
    CCommon &operator=(const CCommon &);

    CLoadDll m_dll;
    FARPROC m_apfnEntries[DEV_ENTRY_COUNT];
    CDevice *m_pDevice;
};

/* The process's CCommon, made and constructed on first use. */
CCommon *GetCommon(void);
/* The log callback handed to the device library. */
void DeviceLog(const char *source, int line, int level, const WCHAR *format);

#endif /* TARSK_FRAMEWORK_COMMON_H */
