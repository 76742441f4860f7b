/*
 * CCommon: finds the device library (next to the program, in the kernel image, or in the
 * installation folder named by paths.xml), loads it, resolves its entry points and starts it and its
 * device object with the log callback.
 */
#include "framework/common.h"

#include "platform/initfuncs.h"
#include "platform/plat_alloc.h"
#include "platform/platform.h"
#include "platform/plat_unicode.h"

#include <new>
#include <string.h>

/* The entry points by exported name, in the order of DeviceEntry. */
static const WCHAR *const s_apszEntryNames[] = {
    TEXT("getDeviceSerialNumber"), TEXT("getExternalSerialNumber"), TEXT("getDeviceName"),
    TEXT("getDeviceDisplayName"), TEXT("getHardwareVersion"), TEXT("getHardwareVersionString"),
    TEXT("getSKUSettings"), TEXT("getApplicationID"), TEXT("isHWFeatureEnabled"),
    TEXT("getHWFeatureSetting"), TEXT("isSWFeatureEnabled"), TEXT("getSWFeatureSetting"),
    TEXT("setBrightness"), TEXT("getBrightness"), TEXT("setContrast"), TEXT("getContrast"),
    TEXT("setScreenBacklight"), TEXT("getScreenBacklight"), TEXT("setTouchScreenLock"),
    TEXT("getTouchScreenLock"), TEXT("setScreenLock"), TEXT("getScreenLock"), TEXT("getTemperature"),
    TEXT("writeTSCalibrationStore"), TEXT("readTSCalibrationStore"), TEXT("writeLastValidTimeStore"),
    TEXT("readLastValidTimeStore"), TEXT("writeFirstUseTimeStore"), TEXT("readFirstUseTimeStore"),
    TEXT("setUSB"), TEXT("getLCID"), TEXT("getRegionVersion"), TEXT("getUSBBitmapsSettings"),
    TEXT("getUSBBitmapsData"), TEXT("getGPSType"), TEXT("getUSBDriverVersion"),
};
/* One name for each entry of the table. */
typedef char EntryNamesMatchTable[sizeof(s_apszEntryNames) / sizeof(s_apszEntryNames[0]) == DEV_ENTRY_COUNT ? 1 : -1];

/* The installation folder below the storage root when paths.xml names none. */
static const char s_szDefaultBasePath[] = "\\Program Files\\Velmar";

/* An entry point as the type it is called through. FARPROC is the generic type GetProcAddress
 * hands out; going through a pointer to a function without arguments keeps the conversion plain. */
template <class T> static T entryAs(FARPROC proc)
{
    return (T)(void (*)(void))proc;
}

CCommon::CCommon() : m_pDevice(NULL)
{
    memset(m_apfnEntries, 0, sizeof(m_apfnEntries));
}

CCommon::~CCommon()
{
}

/* The size of folder\paths.xml, 0 when it cannot be found. Only used to give the reader of the base
 * path room for anything the file could hold. */
static DWORD pathsFileSize(LPCWSTR folder)
{
    WCHAR path[MAX_PATH];
    uni_snwprintf(path, MAX_PATH, TEXT("%ls%ls%ls"), folder, TEXT("\\"), TEXT("paths.xml"));
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW(path, &data);
    if (find == INVALID_HANDLE_VALUE) return 0;
    FindClose(find);
    return data.nFileSizeHigh != 0 ? 0 : data.nFileSizeLow;
}

/* The device library in the installation folder: the internal storage root and the base path of the
 * "appstartupsec" file group of paths.xml (or the default folder), then "device.dll". */
static void installFolderLibrary(WCHAR path[MAX_PATH])
{
    WCHAR root[MAX_PATH];
    init_getInternalFolder(root);

    /* The reader copies the base path without a bound: give it room for the whole file. */
    DWORD size = pathsFileSize(root);
    if (size < sizeof(s_szDefaultBasePath)) size = sizeof(s_szDefaultBasePath);
    char *basePath = (char *)os_malloc(size + 1);
    if (basePath == NULL) {
        path[0] = 0;
        return;
    }
    basePath[0] = 0;
    /* A group with an empty base path is taken as found: only a missing group gives the default. */
    if (!init_readSettingFromPathsFile(basePath, root, "appstartupsec")) strcpy(basePath, s_szDefaultBasePath);

    if (basePath[0] == '\\')
        uni_snwprintf(path, MAX_PATH, TEXT("%ls%hs%ls%ls"), root, basePath, TEXT("\\"), TEXT("device.dll"));
    else
        uni_snwprintf(path, MAX_PATH, TEXT("%ls%ls%hs%ls%ls"), root, TEXT("\\"), basePath, TEXT("\\"),
                      TEXT("device.dll"));
    os_free(basePath);
}

int CCommon::construct()
{
    WCHAR module[MAX_PATH];
    module[0] = 0;
    GetModuleFileNameW(NULL, module, MAX_PATH);
    module[MAX_PATH - 1] = 0;
    VLLOG(LOG_DEBUG, TEXT("CCommon::construct(): Module = %ls\n"), module);

    WCHAR path[MAX_PATH];
    if (uni_wcsncmp(module, TEXT("\\WINDOWS"), 8) == 0) {
        /* A program of the kernel image: its library is in the image too. */
        VLLOG(LOG_DEBUG, TEXT("CCommon::construct(): Kernel component\n"));
        uni_wcsncpy0(path, TEXT("\\Windows\\kerneldevice.dll"), MAX_PATH);
    } else {
        VLLOG(LOG_DEBUG, TEXT("CCommon::construct(): Try local directory\n"));
        /* The module's folder; a name without any folder gives the root. */
        WCHAR folder[MAX_PATH];
        uni_wcsncpy0(folder, module, MAX_PATH);
        WCHAR *slash = (WCHAR *)uni_wcsrchr(folder, TEXT('\\'));
        if (slash != NULL)
            *slash = 0;
        else
            folder[0] = 0;
        uni_snwprintf(path, MAX_PATH, TEXT("%ls%lsdevice.dll"), folder, TEXT("\\"));
    }

    if (!m_dll.loadLibrary(path)) {
        VLLOG(LOG_DEBUG, TEXT("CCommon::construct(): Find path location\n"));
        installFolderLibrary(path);
        if (path[0] != 0) m_dll.loadLibrary(path);
    }

    if (m_dll.getHandle() != NULL) {
        PFN_DEVICE_CONSTRUCT pfnConstruct = entryAs<PFN_DEVICE_CONSTRUCT>(m_dll.getProcAddress(TEXT("construct")));
        if (pfnConstruct != NULL) {
            for (int i = 0; i < DEV_ENTRY_COUNT; ++i) m_apfnEntries[i] = m_dll.getProcAddress(s_apszEntryNames[i]);
            if (pfnConstruct(DeviceLog) == 0) VLLOG(LOG_ERROR, TEXT("CCommon::construct(): _construct() failed\n"));
        }

        PFN_CREATE_DEVICE_CLASS_INSTANCE pfnCreate =
            entryAs<PFN_CREATE_DEVICE_CLASS_INSTANCE>(m_dll.getProcAddress(TEXT("createDeviceClassInstance")));
        if (pfnCreate != NULL) {
            m_pDevice = pfnCreate();
            /* A library that makes no object is reported as an object that failed to start. */
            if (m_pDevice == NULL || m_pDevice->construct(DeviceLog) == 0)
                VLLOG(LOG_ERROR, TEXT("CCommon::construct(): m_pDevice->construct() FAILED\n"));
        }
    }

    /* The device object's notification targets would be registered here; this program has none
     * (no window or thread of it listens to the device object). */
    return 1;
}

/* ------------------------------------------------------------------------ the process's object */

/* The object lives in static storage rather than on the framework's heap: the first allocation of
 * the process reads the device settings, which ask for this object, so allocating it there could
 * come back here before it exists. It is never destroyed: the library stays loaded to the end. */
static union {
    double alignDouble;
    void *alignPointer;
    char bytes[sizeof(CCommon)];
} s_commonStorage;
static CCommon *volatile s_pCommon = NULL;
static DWORD volatile s_dwCommonBuilder = 0;
/* 0: not made; 1: being made by s_dwCommonBuilder; 2: ready. */
static LONG volatile s_lCommonState = 0;

CCommon *GetCommon(void)
{
    for (;;) {
        LONG state = InterlockedCompareExchange(&s_lCommonState, 1, 0);
        if (state == 0) {
            s_dwCommonBuilder = GetCurrentThreadId();
            s_pCommon = new (s_commonStorage.bytes) CCommon();
            s_pCommon->construct();
            InterlockedExchange(&s_lCommonState, 2);
            return s_pCommon;
        }
        if (state == 2) return s_pCommon;
        /* Asked again while it is being made: the same thread (through what construct calls) gets
         * the object as it stands; another thread waits until it is ready. */
        if (s_dwCommonBuilder == GetCurrentThreadId()) return s_pCommon;
        Sleep(10);
    }
}

void DeviceLog(const char *source, int line, int level, const WCHAR *format)
{
    if (format == NULL) return;
    vl_logLevel(source != NULL ? source : "", line, level, format);
}
