/*
 * Tarsklib, the upgrade engine.
 *
 * The application creates one engine at start (the constructor gathers the paths and what the
 * device is running), calls CheckForUpgrade once, and when it returns 1 calls BeginUpgrading, which
 * hands the image request to the kernel. The package "upgrade.bin" lies in the program's folder; it
 * is deciphered to a temporary "upgrade.xml" that is read for the bootloader, kernel and region.
 *
 * The engine state is a plain record: its fields can be read directly (the host tools print them).
 */
#ifndef TARSK_TARSKLIB_TARSKLIB_H
#define TARSK_TARSKLIB_TARSKLIB_H

#include "sal/winapi.h"
#include "framework/xmldevicefile.h"

class CTarskRegistry;

/* The panel callback: one line of text ending in "\r\n" (the result is not looked at). May be
 * absent (NULL). */
typedef BOOL (*TarskProgressCallback)(LPCWSTR line);

/* ---- kernel control codes (device type 0x8000, method 0, access 0) ---- */
#define IOCTL_QRV_SYS_GET_KERNEL_VERSION CTL_CODE(0x8000, 0x823, 0, 0)    /* 0x8000208C */
#define IOCTL_QRV_SYS_GET_BOOT_VERSION CTL_CODE(0x8000, 0x824, 0, 0)      /* 0x80002090 */
#define IOCTL_QRV_SYS_WRITE_SERIAL_NUMBER CTL_CODE(0x8000, 0x826, 0, 0)   /* 0x80002098 */
#define IOCTL_QRV_SYS_TARSK_IMAGE_UPGRADE CTL_CODE(0x8000, 0xB9E, 0, 0)   /* 0x80002E78 */
#define IOCTL_QRV_SYS_GET_HW_RECORD CTL_CODE(0x8000, 0xBA4, 0, 0)         /* 0x80002E90 */
#define IOCTL_QRV_SYS_FORMAT_HIDDEN_DISK CTL_CODE(0x8000, 0xBAD, 0, 0)    /* 0x80002EB4 */

#define TARSK_PATH_CHARS 256
#define TARSK_HW_RECORD_BYTES 804            /* the kernel's hardware record */
#define TARSK_HW_RECORD_REGION_OFFSET 452    /* its region version word */
#define TARSK_HW_RECORD_QUERY_BYTES 16       /* the query's input: word 3, then zeros */
#define TARSK_HIDDEN_FORMAT_BYTES 4096       /* the hidden-format request's zero buffer */
#define TARSK_CIPHER_DELTA 0x9E3779B9u

/* The cipher context: the block cipher's delta. */
struct TarskCipherContext {
    DWORD delta;
};

/* The image upgrade request handed to the kernel: 24 bytes of little-endian words. */
struct TarskUpgradeRequest {
    DWORD UpgradeType;       /* which images, coded by tarsk_upgradeType */
    DWORD UpgradeVia;        /* 1 from the card, 2 from internal flash */
    DWORD UpgradeFormat;     /* 1 when the kernel is written with a format */
    DWORD reserved[3];
};
typedef char TarskUpgradeRequestIs24Bytes[sizeof(TarskUpgradeRequest) == 24 ? 1 : -1];

#define TARSK_UPGRADE_VIA_CARD 1
#define TARSK_UPGRADE_VIA_INTERNAL 2

/* The engine state. All fields are zero after construction until set. */
struct TarskEngineState {
    TarskCipherContext *m_pCipher;
    CTarskRegistry *m_pRegistry;

    WCHAR m_szProgramFolder[TARSK_PATH_CHARS];   /* the running program's folder, no trailing "\" */
    WCHAR m_szInternalPath[TARSK_PATH_CHARS];    /* "Internal", else "\My Flash Disk" */
    WCHAR m_szExternalPath[TARSK_PATH_CHARS];    /* "External1", else "\Storage Card" */

    /* device facts, gathered once at construction */
    DWORD m_dwHardwareMemory;                    /* bytes of memory fitted */
    DWORD m_dwInternalDiskSize;                  /* total of the internal disk, rounded up to 256 MiB */
    DWORD m_dwFlashType;                         /* registry "FlashType" */
    WCHAR m_szKernelVersion[TARSK_PATH_CHARS];   /* the kernel's version text */
    DWORD m_adwDeviceKernelVersion[3];           /* only [0] is ever set */
    DWORD m_adwDeviceBootVersion[3];             /* only [0] is ever set */
    DWORD m_dwHardwareVersion;                   /* sys_getHardwareVersion */
    DWORD m_adwHardwareRecord[TARSK_HW_RECORD_BYTES / 4]; /* hardware type text first, region word at 452 */
    DWORD m_dwHardwareRecordSize;                /* bytes the hardware query returned */

    DWORD m_bUpgradeFromSDCard;                  /* the program folder is the external path */

    /* bootloader */
    WCHAR m_szUbootPath[TARSK_PATH_CHARS];
    DWORD m_bUbootExists;
    DWORD m_bUpgradeBboot;
    DeviceDescriptor m_UbootDescriptor;

    /* kernel */
    WCHAR m_szKernelPath[TARSK_PATH_CHARS];
    DWORD m_bKernelExists;
    DWORD m_bUpgradeKernel;
    DWORD m_bFormatKernel;
    DeviceDescriptor m_KernelDescriptor;

    /* region */
    WCHAR m_szRegionPath[TARSK_PATH_CHARS];
    DWORD m_bRegionExists;
    DWORD m_bUpgradeRegion;
    RegionDescriptor m_RegionDescriptor;

    WCHAR m_szPackagePath[TARSK_PATH_CHARS];     /* upgrade.bin */
    TarskProgressCallback m_pfnProgress;

    /* results of the region work; 1 means the step failed */
    DWORD m_bSerialNumberFail;
    DWORD m_bFormatHiddenFail;
    DWORD m_bFormatVisibleAreaFail;
};

/* The engine object the application creates once (tarsklib.cpp). The constructor zeroes the state,
 * creates the cipher context and the registry accessor and then gathers the paths and the device
 * facts; when the context or the accessor cannot be made it stops before gathering, and
 * IsConstructed() tells so. Allocated through the framework's allocator: new gives NULL when the
 * allocation is refused. */
class TarskEngine : public TarskEngineState {
public:
    explicit TarskEngine(TarskProgressCallback progress);
    virtual ~TarskEngine();
    BOOL IsConstructed() const { return m_pCipher != NULL && m_pRegistry != NULL; }
    /* The application's two operations: see the free functions below. */
    DWORD CheckForUpgrade(DWORD withRegion);
    DWORD BeginUpgrading();

    static void *operator new(size_t size) throw();
    static void operator delete(void *block);

private:
    TarskEngine(const TarskEngine &);
    TarskEngine &operator=(const TarskEngine &);
};

/* Finds, deciphers and reads the package; decides; writes the tag report. 1 when anything is to be
 * upgraded. withRegion 0 leaves the region unread and undecided. */
DWORD CheckForUpgrade(TarskEngine *engine, DWORD withRegion);

/* ---- the image request (tarsk_request.cpp) ---- */
/* 1 when nothing was to be done or the kernel accepted the request, else 0. */
DWORD BeginUpgrading(TarskEngine *engine);
DWORD tarsk_callUpgrade(TarskEngine *engine, DWORD bootloader, DWORD kernel, DWORD region,
                        DWORD viaCard, DWORD format);
/* The selection number (1 bootloader + 2 kernel + 4 region) as the kernel codes it. */
DWORD tarsk_upgradeType(DWORD selection);
/* Fills the 24-byte record from the flags. */
void tarsk_buildUpgradeRequest(TarskUpgradeRequest *request, DWORD bootloader, DWORD kernel,
                               DWORD region, DWORD viaCard, DWORD format);

/* ---- decision rules (tarsk_rules.cpp) ---- */
/* Gathers the device facts (memory, disk size, flash type, versions, hardware record). */
void tarsk_gatherDeviceFacts(TarskEngine *engine);
/* kind: "UBoot" or "Kernel". 1 = Pass, 0 = Bypass. */
DWORD checkUpgradeSettings(TarskEngine *engine, LPCWSTR kind, const DeviceDescriptor *descriptor);
/* kind: "Kernel", "UBoot", anything else is the region. 1 = format. */
DWORD checkFormatSettings(TarskEngine *engine, LPCWSTR kind, const DeviceDescriptor *descriptor);
/* The region decision: the force flag; marks the serial number present; runs the region work. */
DWORD tarsk_decideRegion(TarskEngine *engine);
/* Writes "upgrade.uboot.tag" / "upgrade.winceimg.tag" in the program folder. */
void tarsk_writeTagReport(TarskEngine *engine);
/* (major * 100 + minor) * 10000 + build, wrapping at 32 bits. */
DWORD tarsk_packVersion(const DWORD version[3]);
/* The first run of decimal digits of the bootloader's 8-bit version text (0 when none); the
 * kernel's wide text is read by the descriptor's own rule, xmldevice_parseVersion. */
DWORD tarsk_parseVersionA(const char *text);
/* The next multiple of 256 MiB strictly above the size's multiple. */
DWORD tarsk_roundDiskSize(DWORD size);
/* The device's hardware type (the record's leading text), copied into buf of cap characters. */
void tarsk_deviceHardwareType(const TarskEngine *engine, WCHAR *buf, DWORD cap);
/* The device's region version (the record's word at byte 452). */
DWORD tarsk_deviceRegionVersion(const TarskEngine *engine);

/* ---- serial number and disk formats (tarsk_other.cpp) ---- */
/* 0 only when serial number, hidden and visible format were all asked for and all failed. */
DWORD Tarsk_UpgradeOther(TarskEngine *engine, RegionDescriptor *region);
/* Zeroes sector 0 of the flash disk and restarts its driver. 1 on success. */
DWORD tarsk_formatVisibleDisk(void);
/* The flash-disk driver under HKLM "Drivers\Active": its device name (nameBytes bytes) and handle
 * (left 0 when not found). */
void tarsk_findFlashDiskDriver(WCHAR *name, DWORD nameBytes, DWORD *handle);

/* ---- the package cipher (tarsk_cipher.cpp) ----
 * Works in place on size / 8 blocks of two little-endian words; a tail shorter than 8 bytes is left
 * as it is. tarsk_encipher is the mirror of tarsk_decipher. */
void tarsk_decipher(BYTE *data, DWORD size, const DWORD key[4]);
void tarsk_encipher(BYTE *data, DWORD size, const DWORD key[4]);
/* The build's package key (TARSK_PACKAGE_KEY). */
void tarsk_packageKey(DWORD key[4]);

#endif /* TARSK_TARSKLIB_TARSKLIB_H */
