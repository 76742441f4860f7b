/*
 * Upgrade decision rules: what the device runs (gathered once at start), Pass/Bypass per image kind,
 * the kernel's format decision, the region decision, and the tag report of what was compared.
 */
#include "tarsklib/tarsklib.h"
#include "tarsklib/tarsk_progress.h"
#include "tarsklib/tarskregistry.h"
#include "platform/platform.h"
#include "platform/plat_file.h"
#include "platform/plat_funcs.h"
#include "platform/plat_unicode.h"

#include <string.h>

#define TAG_LINE_BYTES 1024

/* ------------------------------------------------------------------ version texts and numbers */

DWORD tarsk_parseVersionA(const char *text)
{
    DWORD value = 0;
    if (text == NULL)
        return 0;
    while (*text && !(*text >= '0' && *text <= '9'))
        ++text;
    while (*text >= '0' && *text <= '9') {
        value = value * 10 + (DWORD)(*text - '0');
        ++text;
    }
    return value;
}

/* Wraps at 32 bits on purpose: a major of 4295 or more compares low. */
DWORD tarsk_packVersion(const DWORD version[3])
{
    return (version[0] * 100 + version[1]) * 10000 + version[2];
}

DWORD tarsk_roundDiskSize(DWORD size)
{
    return ((size >> 28) + 1) << 28;
}

void tarsk_deviceHardwareType(const TarskEngine *engine, WCHAR *buf, DWORD cap)
{
    if (cap == 0)
        return;
    const BYTE *record = (const BYTE *)engine->m_adwHardwareRecord;
    DWORD i = 0;
    while (i + 1 < cap && i < TARSK_HW_RECORD_BYTES / 2) {
        WCHAR c = (WCHAR)(record[2 * i] | (record[2 * i + 1] << 8));
        if (c == 0)
            break;
        buf[i++] = c;
    }
    buf[i] = 0;
}

DWORD tarsk_deviceRegionVersion(const TarskEngine *engine)
{
    const BYTE *p = (const BYTE *)engine->m_adwHardwareRecord + TARSK_HW_RECORD_REGION_OFFSET;
    return (DWORD)p[0] | ((DWORD)p[1] << 8) | ((DWORD)p[2] << 16) | ((DWORD)p[3] << 24);
}

/* ------------------------------------------------------------------------------ device facts */

void tarsk_gatherDeviceFacts(TarskEngine *e)
{
    sys_getHardwareMemory(&e->m_dwHardwareMemory);

    ULARGE_INTEGER freeToCaller, total, totalFree;
    memset(&freeToCaller, 0, sizeof(freeToCaller));
    memset(&total, 0, sizeof(total));
    memset(&totalFree, 0, sizeof(totalFree));
    GetDiskFreeSpaceExW(e->m_szInternalPath, &freeToCaller, &total, &totalFree);
    e->m_dwInternalDiskSize = tarsk_roundDiskSize(total.u.LowPart);

    if (e->m_pRegistry != NULL)
        e->m_pRegistry->ReadNumber(TEXT("FlashType"), &e->m_dwFlashType);

    DWORD returned = 0;
    if (KernelIoControl(IOCTL_QRV_SYS_GET_KERNEL_VERSION, NULL, 0, e->m_szKernelVersion,
                        sizeof(e->m_szKernelVersion), &returned)) {
        e->m_szKernelVersion[TARSK_PATH_CHARS - 1] = 0;
        e->m_adwDeviceKernelVersion[0] = xmldevice_parseVersion(e->m_szKernelVersion);
    } else {
        e->m_adwDeviceKernelVersion[0] = 0;
        e->m_adwDeviceKernelVersion[1] = 0;
        e->m_adwDeviceKernelVersion[2] = 0;
    }

    char bootText[256];
    memset(bootText, 0, sizeof(bootText));
    returned = 0;
    if (KernelIoControl(IOCTL_QRV_SYS_GET_BOOT_VERSION, NULL, 0, bootText, sizeof(bootText), &returned)) {
        bootText[sizeof(bootText) - 1] = 0;
        e->m_adwDeviceBootVersion[0] = tarsk_parseVersionA(bootText);
    }

    e->m_dwHardwareVersion = sys_getHardwareVersion();

    DWORD query[TARSK_HW_RECORD_QUERY_BYTES / 4];
    memset(query, 0, sizeof(query));
    query[0] = 3;
    returned = 0;
    if (!KernelIoControl(IOCTL_QRV_SYS_GET_HW_RECORD, query, sizeof(query), e->m_adwHardwareRecord,
                         TARSK_HW_RECORD_BYTES, &returned))
        VLLOG(LOG_ERROR, TEXT("KernelIoControl return False\r\n"));
    e->m_dwHardwareRecordSize = returned;
}

/* ---------------------------------------------------------------------------------- decisions */

static const DWORD *deviceVersionOf(const TarskEngine *e, LPCWSTR kind)
{
    static const DWORD none[3] = { 0, 0, 0 };
    if (uni_wcsicmp(kind, TEXT("UBoot")) == 0)
        return e->m_adwDeviceBootVersion;
    if (uni_wcsicmp(kind, TEXT("Kernel")) == 0)
        return e->m_adwDeviceKernelVersion;
    return none;
}

DWORD checkUpgradeSettings(TarskEngine *engine, LPCWSTR kind, const DeviceDescriptor *d)
{
    TarskEngine *e = engine;
    tarsk_progress(e, TEXT("\r\n====CHECK %ls UPGRADE CONDITION...====\r\n"), kind);

    DWORD result = 1;

    /* A hardware version found in the device's kernel text bypasses the image, and one that is
     * not found leaves it to the version test: the reverse of what the messages say. */
    if (d->hardwareVersion[0] == 0) {
        VLLOG(LOG_INFO, TEXT("checkUpgradeSettings(%ls): No HW Version specified\n"), kind);
    } else if (uni_wcsstr(e->m_szKernelVersion, d->hardwareVersion) != NULL) {
        VLLOG(LOG_INFO, TEXT("checkUpgradeSettings(%ls): HW Version matches (%s == %ls), allow upgrade\n"),
              kind, d->hardwareVersion, e->m_szKernelVersion);
        result = 0;
    } else {
        VLLOG(LOG_INFO, TEXT("checkUpgradeSettings(%ls): HW Version doesn't match (%s != %ls), cancel upgrade\n"),
              kind, d->hardwareVersion, e->m_szKernelVersion);
    }

    DWORD packageVersion = tarsk_packVersion(d->version);
    DWORD deviceVersion = tarsk_packVersion(deviceVersionOf(e, kind));

    if (packageVersion > deviceVersion) {
        VLLOG(LOG_INFO, TEXT("checkUpgradeSettings(%ls): Upgrade required: %d >= %d\n"), kind,
              (int)packageVersion, (int)deviceVersion);
    } else if (d->force) {
        VLLOG(LOG_INFO, TEXT("checkUpgradeSettings(%ls): Force upgrade: %d <= %d\n"), kind,
              (int)packageVersion, (int)deviceVersion);
        tarsk_progress(e, TEXT("Force Upgrade: %s\r\n"), d->force ? TEXT("Yes") : TEXT("No"));
    } else {
        VLLOG(LOG_INFO, TEXT("checkUpgradeSettings(%ls): No upgrade: %d <= %d\n"), kind,
              (int)packageVersion, (int)deviceVersion);
        result = 0;
    }

    if (result) {
        VLLOG(LOG_INFO, TEXT("Upgrade %s: PASS\n"), kind);
        tarsk_progress(e, TEXT("%ls: Pass\r\n"), kind);
    } else {
        VLLOG(LOG_INFO, TEXT("Upgrade %s: FAILED\n"), kind);
        tarsk_progress(e, TEXT("%ls: Bypass\r\n"), kind);
    }
    return result;
}

DWORD checkFormatSettings(TarskEngine *engine, LPCWSTR kind, const DeviceDescriptor *d)
{
    TarskEngine *e = engine;
    if (d->flashVersion[0] == 0 && d->flashVersion[1] == 0 && d->flashVersion[2] == 0) {
        VLLOG(LOG_INFO, TEXT("checkFormatSettings(%ls): No flash version specified so just use flag %d"),
              kind, (int)d->format);
        return d->format;
    }

    DWORD deviceValue;
    if (uni_wcsicmp(kind, TEXT("Kernel")) == 0)
        deviceValue = tarsk_packVersion(e->m_adwDeviceKernelVersion);
    else if (uni_wcsicmp(kind, TEXT("UBoot")) == 0)
        deviceValue = tarsk_packVersion(e->m_adwDeviceBootVersion);
    else
        deviceValue = tarsk_deviceRegionVersion(e) * 1000000u;
    DWORD flashValue = tarsk_packVersion(d->flashVersion);

    if (deviceValue < flashValue) {
        VLLOG(LOG_INFO, TEXT("checkFormatSettings(%ls): Format required: %d <= %d\n"), kind,
              (int)deviceValue, (int)flashValue);
        return 1;
    }
    VLLOG(LOG_INFO, TEXT("checkFormatSettings(%ls): No format: %d > %d\n"), kind, (int)deviceValue,
          (int)flashValue);
    return 0;
}

DWORD tarsk_decideRegion(TarskEngine *engine)
{
    TarskEngine *e = engine;
    e->m_bUpgradeRegion = e->m_RegionDescriptor.force;
    if (e->m_RegionDescriptor.serialNumber[0] != 0)
        e->m_RegionDescriptor.serialNumberPresent = 1;
    Tarsk_UpgradeOther(e, &e->m_RegionDescriptor);
    return e->m_bUpgradeRegion;
}

/* ---------------------------------------------------------------------------------- tag report */

static void tagLine(HANDLE file, const char *format, FMT_ARGS_DECL)
{
    char line[TAG_LINE_BYTES];
    fmt_formatA(line, sizeof(line), format, FmtArgList(FMT_ARGS_PASS));
    os_fwrite(line, (DWORD)strlen(line), file);
}

static HANDLE createTag(const TarskEngine *e, LPCWSTR name)
{
    WCHAR path[TARSK_PATH_CHARS];
    uni_snwprintf(path, TARSK_PATH_CHARS, TEXT("%s%s"), e->m_szProgramFolder, name);
    return os_wfopen(path, TEXT("w"));
}

/* The report of one image kind: what the device runs against what the package brings. The kernel's
 * report also says whether it formats. */
static void writeImageTag(const TarskEngine *e, LPCWSTR tagName, const char *kind, const DWORD device[3],
                          const DeviceDescriptor *d, const WCHAR *deviceHwType, const WCHAR *format)
{
    HANDLE f = createTag(e, tagName);
    if (f == NULL)
        return;
    tagLine(f, "%hs upgrade way: %ls\r\n", kind, d->force ? TEXT("Force upgrade") : TEXT("Normal upgrade"));
    if (format != NULL)
        tagLine(f, "%hs upgrade Format: %ls\r\n", kind, format);
    tagLine(f, "%hs version: Upgrade from (V%1.1d.%2.2d.%4.4d) to (V%1.1d.%2.2d.%4.4d)\r\n", kind,
            (int)device[0], (int)device[1], (int)device[2], (int)d->version[0], (int)d->version[1],
            (int)d->version[2]);
    tagLine(f, "%hs HW Type: Upgrade from (%ls) to (%ls)\r\n", kind, deviceHwType, d->hardwareType);
    tagLine(f, "%hs HW Version: Upgrade from (%d) to (%ls)\r\n", kind, (int)e->m_dwHardwareVersion,
            d->hardwareVersion);
    os_fclose(f);
}

void tarsk_writeTagReport(TarskEngine *engine)
{
    TarskEngine *e = engine;
    WCHAR deviceHwType[TARSK_HW_RECORD_BYTES / 2 + 1];
    tarsk_deviceHardwareType(e, deviceHwType, TARSK_HW_RECORD_BYTES / 2 + 1);

    if (e->m_bUbootExists)
        writeImageTag(e, TEXT("\\upgrade.uboot.tag"), "UBoot", e->m_adwDeviceBootVersion, &e->m_UbootDescriptor,
                      deviceHwType, NULL);
    if (e->m_bKernelExists)
        writeImageTag(e, TEXT("\\upgrade.winceimg.tag"), "Kernel", e->m_adwDeviceKernelVersion,
                      &e->m_KernelDescriptor, deviceHwType, e->m_bFormatKernel ? TEXT("Yes") : TEXT("No"));

    if (!e->m_bUbootExists && !e->m_bKernelExists && !e->m_bRegionExists) {
        HANDLE f = createTag(e, TEXT("\\upgrade.winceimg.tag"));
        if (f != NULL) {
            tagLine(f, "Failed! Don't find any upgrade files except tarsk.exe, so give up upgrading\r\n");
            os_fclose(f);
        }
    }
}
