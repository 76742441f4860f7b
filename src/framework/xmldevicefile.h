/*
 * The upgrade package's device descriptor: the records the engine keeps per image kind, and the
 * readers that fill them from the deciphered descriptor XML.
 *
 *   <device><kernel|bootloader><upgrade>
 *       <version>V5</version> <force>0|1</force> <format>0|1</format>
 *       <hardware><type>..</type><version>..</version></hardware>
 *   </upgrade></...></device>
 *   <region><upgrade><serialnum/><formatHidden/><formatVisible/><force/></upgrade></region>
 *
 * A field whose element is missing or unreadable keeps the value it had.
 */
#ifndef TARSK_FRAMEWORK_XMLDEVICEFILE_H
#define TARSK_FRAMEWORK_XMLDEVICEFILE_H

#include "sal/winapi.h"

#define DEVDESC_TEXT_CHARS 260      /* hardware type / version: 259 characters and a terminator */
#define REGIONDESC_SERIAL_CHARS 20  /* serial number: 19 characters and a terminator (40 bytes) */

/* One image kind (bootloader or kernel). */
struct DeviceDescriptor {
    DWORD version[3];                        /* major, minor, build; the reader fills only major */
    DWORD force;                             /* 1: write even when not newer */
    WCHAR hardwareType[DEVDESC_TEXT_CHARS];
    WCHAR hardwareVersion[DEVDESC_TEXT_CHARS];
    DWORD format;                            /* 1: format the flash with this image */
    DWORD flashVersion[3];                   /* never read from the file; 0 unless set elsewhere */
};

/* The region data. */
struct RegionDescriptor {
    WCHAR serialNumber[REGIONDESC_SERIAL_CHARS];
    DWORD force;
    DWORD serialNumberPresent;               /* set by the engine when serialNumber is not empty */
    DWORD formatHidden;
    DWORD formatVisible;
};

/* The image readers. Both return 1 in every case: a missing file or element leaves the record as it
 * was. */
int GetUbootXMLSettings(LPCWSTR path, DeviceDescriptor *descriptor);
int GetKernelXMLSettings(LPCWSTR path, DeviceDescriptor *descriptor);
/* The region reader: 0 only when the document has no "region" element (or cannot be read). */
int GetRegionFileSettings(LPCWSTR path, RegionDescriptor *descriptor);

/* The descriptor's number rule (flags): "0x" hex, "-" negative, else decimal; every character counts
 * (letters as code - 55), and a text of 129 to 256 characters converts to 0. */
LONG xmldevice_convertNumber(const WCHAR *text);
/* The version rule: the first run of decimal digits, 0 when there is none. */
DWORD xmldevice_parseVersion(const WCHAR *text);

#endif /* TARSK_FRAMEWORK_XMLDEVICEFILE_H */
