/*
 * The region package's manufacturing steps: write the serial number, format the hidden disk (both
 * kernel requests) and format the visible flash disk (zero its first sector and restart its driver).
 */
#include "tarsklib/tarsklib.h"
#include "tarsklib/tarsk_progress.h"
#include "platform/platform.h"
#include "platform/plat_alloc.h"
#include "platform/plat_unicode.h"

#include <string.h>

#define UPDATE_SERIAL_NUMBER 0x1
#define UPDATE_HIDDEN_DISK 0x2
#define UPDATE_VISIBLE_DISK 0x4

#define FLASH_DISK_DRIVER_KEY TEXT("Drivers\\BuiltIn\\FDSK")
#define FLASH_DISK_FOLDER TEXT("\\HDD")
#define FLASH_DISK_WAIT_MS 1000
#define FLASH_DISK_MAX_WAITS 10
#define DRIVER_NAME_BYTES 260
#define DRIVER_KEY_BYTES 520

/* The hidden-format request carries a page of zeros. */
static BYTE s_hiddenFormatZeros[TARSK_HIDDEN_FORMAT_BYTES];

/* The zeroed sector of the visible format. The format does not free it; a later format replaces it. */
static BYTE *s_pSectorBuffer = NULL;

static const WCHAR *okText(DWORD failed)
{
    return failed ? TEXT("FAILED!") : TEXT("OK");
}

DWORD Tarsk_UpgradeOther(TarskEngine *engine, RegionDescriptor *region)
{
    TarskEngine *e = engine;
    DWORD updateWhat = 0;
    e->m_bSerialNumberFail = 0;
    e->m_bFormatHiddenFail = 0;
    e->m_bFormatVisibleAreaFail = 0;

    if (region->serialNumberPresent) {
        updateWhat |= UPDATE_SERIAL_NUMBER;
        tarsk_progress(e, TEXT("Writing Serial Number... ...\r\n"));
        BOOL ok = KernelIoControl(IOCTL_QRV_SYS_WRITE_SERIAL_NUMBER, region->serialNumber,
                                  sizeof(region->serialNumber), NULL, 0, NULL);
        e->m_bSerialNumberFail = ok ? 0 : 1;
        tarsk_progress(e, TEXT("Written Serial Number: %s\r\n"), okText(e->m_bSerialNumberFail));
    }

    if (region->formatHidden) {
        updateWhat |= UPDATE_HIDDEN_DISK;
        tarsk_progress(e, TEXT("Formatting Hidden Disk... ...\r\n"));
        BOOL ok = KernelIoControl(IOCTL_QRV_SYS_FORMAT_HIDDEN_DISK, s_hiddenFormatZeros,
                                  sizeof(s_hiddenFormatZeros), NULL, 0, NULL);
        e->m_bFormatHiddenFail = ok ? 0 : 1;
        /* The panel shows the serial number's result here, as the system always has. */
        tarsk_progress(e, TEXT("Formatted Hidden Disk: %s\r\n"), okText(e->m_bSerialNumberFail));
    }

    if (region->formatVisible) {
        updateWhat |= UPDATE_VISIBLE_DISK;
        tarsk_progress(e, TEXT("Formatting Disk... ...\r\n"));
        e->m_bFormatVisibleAreaFail = tarsk_formatVisibleDisk() ? 0 : 1;
        tarsk_progress(e, TEXT("Formatted Disk: %s\r\n"), okText(e->m_bFormatVisibleAreaFail));
    }

    VLLOG(LOG_INFO, TEXT("Tarsk_UpgradeOther: UpdateWhat = 0x%x, bFormatVisibleAreaFail = %d\n"),
          (int)updateWhat, (int)e->m_bFormatVisibleAreaFail);

    if (e->m_bSerialNumberFail && e->m_bFormatHiddenFail && e->m_bFormatVisibleAreaFail)
        return 0;
    return 1;
}

void tarsk_findFlashDiskDriver(WCHAR *name, DWORD nameBytes, DWORD *handle)
{
    HKEY active = NULL;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, TEXT("Drivers\\Active"), 0, 0, &active) != ERROR_SUCCESS)
        return;

    for (DWORD index = 0;; ++index) {
        WCHAR subName[MAX_PATH];
        DWORD subChars = MAX_PATH;
        LONG r = RegEnumKeyExW(active, index, subName, &subChars, NULL, NULL, NULL, NULL);
        if (r == ERROR_NO_MORE_ITEMS)
            break;
        if (r != ERROR_SUCCESS)
            continue;

        HKEY sub = NULL;
        if (RegOpenKeyExW(active, subName, 0, 0, &sub) != ERROR_SUCCESS)
            continue;
        WCHAR key[DRIVER_KEY_BYTES / 2 + 1];
        memset(key, 0, sizeof(key));
        DWORD type = 0, bytes = DRIVER_KEY_BYTES;
        if (RegQueryValueExW(sub, TEXT("Key"), NULL, &type, (LPBYTE)key, &bytes) == ERROR_SUCCESS &&
            uni_wcscmp(key, FLASH_DISK_DRIVER_KEY) == 0) {
            bytes = nameBytes;
            if (RegQueryValueExW(sub, TEXT("Name"), NULL, &type, (LPBYTE)name, &bytes) == ERROR_SUCCESS &&
                nameBytes >= sizeof(WCHAR))
                name[nameBytes / sizeof(WCHAR) - 1] = 0;
            DWORD hnd = 0;
            bytes = sizeof(hnd);
            if (RegQueryValueExW(sub, TEXT("Hnd"), NULL, &type, (LPBYTE)&hnd, &bytes) == ERROR_SUCCESS)
                *handle = hnd;
            RegCloseKey(sub);
            break;
        }
        RegCloseKey(sub);
    }
    RegCloseKey(active);
}

static BOOL flashDiskFolderExists()
{
    return GetFileAttributesW(FLASH_DISK_FOLDER) != INVALID_FILE_ATTRIBUTES;
}

/* Waits while "\HDD" is present (present TRUE) or absent (present FALSE): one test, then up to ten
 * sleeps of a second. Shows the failure box and returns 0 when it gives up. */
static BOOL waitForFlashDisk(BOOL whilePresent)
{
    int count = 0;
    while ((flashDiskFolderExists() ? TRUE : FALSE) == whilePresent) {
        if (++count > FLASH_DISK_MAX_WAITS) {
            MessageBoxW(NULL, TEXT("Format Visible Failed"), TEXT("FAILED"), MB_OK);
            return FALSE;
        }
        Sleep(FLASH_DISK_WAIT_MS);
    }
    return TRUE;
}

DWORD tarsk_formatVisibleDisk(void)
{
    WCHAR name[DRIVER_NAME_BYTES / 2];
    memset(name, 0, sizeof(name));
    DWORD driver = 0;

    tarsk_findFlashDiskDriver(name, sizeof(name), &driver);
    if (driver == 0) {
        ActivateDevice(FLASH_DISK_DRIVER_KEY, 0);
        if (!waitForFlashDisk(TRUE))
            return 0;
        tarsk_findFlashDiskDriver(name, sizeof(name), &driver);
        if (driver == 0)
            return 0;
    }

    HANDLE disk = CreateFileW(name, GENERIC_READ, 0, NULL, OPEN_EXISTING, 0, NULL);

    DISK_INFO info;
    memset(&info, 0, sizeof(info));
    DWORD returned = 0;
    if (!DeviceIoControl(disk, DISK_IOCTL_GETINFO, NULL, 0, &info, sizeof(info), &returned, NULL))
        MessageBoxW(NULL, TEXT("DISK_IOCTL_GETINFO"), TEXT("ERROR"), MB_OK);

    if (s_pSectorBuffer != NULL)
        os_free(s_pSectorBuffer);
    s_pSectorBuffer = (BYTE *)os_malloc(info.di_bytes_per_sect);
    if (s_pSectorBuffer != NULL)
        memset(s_pSectorBuffer, 0, info.di_bytes_per_sect);

    SG_REQ request;
    memset(&request, 0, sizeof(request));
    request.sr_start = 0;
    request.sr_num_sec = 1;
    request.sr_num_sg = 1;
    request.sr_status = 0;
    request.sr_callback = NULL;
    request.sr_sglist[0].sb_buf = s_pSectorBuffer;
    request.sr_sglist[0].sb_len = info.di_bytes_per_sect;
    if (!DeviceIoControl(disk, DISK_IOCTL_WRITE, &request, sizeof(request), NULL, 0, &returned, NULL))
        MessageBoxW(NULL, TEXT("DISK_IOCTL_WRITE"), TEXT("ERROR"), MB_OK);

    if (disk != INVALID_HANDLE_VALUE && disk != NULL)
        CloseHandle(disk);

    DeactivateDevice((HANDLE)(UINT_PTR)driver);
    if (!waitForFlashDisk(TRUE))
        return 0;

    ActivateDevice(FLASH_DISK_DRIVER_KEY, 0);
    if (!waitForFlashDisk(FALSE))
        return 0;

    return 1;
}
