/*
 * The platform's registry readers and the known storage roots of each device model.
 */
#include "platform/registry.h"

#include "platform/inifile.h"
#include "platform/platform.h"
#include "platform/plat_unicode.h"

#include <string.h>

#define VL_REGISTRY_READ_BYTES 520   /* what a string read asks for: 260 characters */

int getVLRegistryString(LPCWSTR valueName, LPWSTR buffer, DWORD capacity)
{
    HKEY key = NULL;
    LONG result = RegOpenKeyExW(HKEY_LOCAL_MACHINE, TEXT("Information"), 0, KEY_READ, &key);
    if (result != ERROR_SUCCESS)
        result = RegOpenKeyExW(HKEY_LOCAL_MACHINE, TEXT("Velmar"), 0, KEY_READ, &key);
    if (result != ERROR_SUCCESS) {
        os_setLastError((DWORD)result);
        VLLOG(LOG_ERROR, TEXT("getVLRegistryString(): RegOpenKeyEx(HKLM\\Information|Velmar) failed, error %d"),
              (int)result);
        return 0;
    }

    /* One character more than is read, so that a text filling the read is still terminated. */
    WCHAR value[VL_REGISTRY_READ_BYTES / sizeof(WCHAR) + 1];
    DWORD type = REG_NONE;
    DWORD size = VL_REGISTRY_READ_BYTES;
    result = RegQueryValueExW(key, valueName, NULL, &type, (LPBYTE)value, &size);
    RegCloseKey(key);
    if (result != ERROR_SUCCESS) {
        os_setLastError((DWORD)result);
        VLLOG(LOG_ERROR, TEXT("getVLRegistryString(): RegQueryValueEx(HKLM\\Information|Velmar\\%ls) failed, error %d"),
              valueName, (int)result);
        return 0;
    }
    if (type != REG_SZ || size == 0) {
        /* The query itself succeeded: what the system last reported is kept as it is. */
        os_setLastError(GetLastError());
        VLLOG(LOG_ERROR,
              TEXT("getVLRegistryString(): RegQueryValueEx(HKLM\\Information|Velmar\\%ls) returned type = %d, size = %d"),
              valueName, (int)type, (int)size);
        return 0;
    }
    value[size / sizeof(WCHAR)] = 0;
    uni_wcsncpy0(buffer, value, capacity);
    VLLOG(LOG_DEBUG, TEXT("getVLRegistryString(): HKLM\\Information|Velmar\\%ls = %ls"), valueName, buffer);
    return 1;
}

int sys_getHardwareName(WCHAR buffer[MAX_PATH])
{
    static const WCHAR maker[] = TEXT("Velmar ");
    const size_t makerLength = 7;
    WCHAR text[MAX_PATH];
    if (!getVLRegistryString(TEXT("Hardware"), text, MAX_PATH)) {
        buffer[0] = 0;
        return 0;
    }
    const WCHAR *name = text;
    if (uni_wcsncmp(name, maker, makerLength) == 0) name += makerLength;
    uni_wcsncpy0(buffer, name, MAX_PATH);

    /* The model is what stands before the first ',', or failing that before the first blank
     * (so "Velmar  X7" with two blanks gives an empty name). */
    WCHAR *cut = (WCHAR *)uni_wcschr(buffer, TEXT(','));
    if (cut == NULL) cut = (WCHAR *)uni_wcschr(buffer, TEXT(' '));
    if (cut != NULL) *cut = 0;
    return 1;
}

int sys_getExternalPath1(WCHAR buffer[MAX_PATH])
{
    WCHAR name[32];
    uni_snwprintf(name, 32, TEXT("External%d"), 1);
    return getVLRegistryString(name, buffer, MAX_PATH);
}

int sys_getInternalPath(WCHAR buffer[MAX_PATH])
{
    return getVLRegistryString(TEXT("Internal"), buffer, MAX_PATH);
}

/* ---- known roots by model ---- */

struct KnownRoots {
    int first;                /* model numbers first..last */
    int last;
    const WCHAR *internalRoot;
    const WCHAR *externalRoot;
    const WCHAR *installFolder;
};

static const KnownRoots g_knownRoots[] = {
    {1, 2, TEXT("\\My Flash Disk"), TEXT("\\Storage Card"), TEXT("\\My Flash Disk\\Velmar\\Waylume_CE")},
    {3, 3, TEXT("\\CF DISK"), TEXT("\\Storage Card"), TEXT("\\CF DISK\\Velmar\\Waylume_CE")},
    {4, 10, TEXT(""), TEXT("\\Storage Card"), TEXT("\\Program Files\\Velmar\\Waylume_CE")},
    {11, 11, TEXT("\\CF DISK"), TEXT("\\Storage Card"), TEXT("\\DiskOnChip\\Velmar\\Waylume_CE")},
    /* The doubled separator is what these devices were shipped with; kept so. */
    {15, 15, TEXT(""), TEXT("\\Storage Card"), TEXT("\\Storage Card\\Velmar\\System\\\\Waylume_CE")},
    {16, 16, TEXT(""), TEXT("\\Storage Card"), TEXT("\\Storage Card\\Image")},
    {17, 57, TEXT("\\My Flash Disk"), TEXT("\\Storage Card"), TEXT("\\My Flash Disk\\Program Files\\Velmar\\Waylume_CE")},
    {59, 60, TEXT("\\My Flash Disk"), TEXT("\\Storage Card"), TEXT("\\My Flash Disk\\Program Files\\Velmar\\Waylume_CE")},
};

static void vl_copyRoot(LPWSTR target, DWORD capacity, const WCHAR *text)
{
    if (target != NULL && capacity != 0) uni_wcsncpy0(target, text, capacity);
}

int sys_getKnownRoots(DWORD model, LPWSTR internalRoot, DWORD internalCapacity, LPWSTR externalRoot,
                      DWORD externalCapacity, LPWSTR installFolder, DWORD installCapacity)
{
    int number = (int)model;
    for (size_t i = 0; i < sizeof(g_knownRoots) / sizeof(g_knownRoots[0]); ++i) {
        const KnownRoots &row = g_knownRoots[i];
        if (number >= row.first && number <= row.last) {
            vl_copyRoot(internalRoot, internalCapacity, row.internalRoot);
            vl_copyRoot(externalRoot, externalCapacity, row.externalRoot);
            vl_copyRoot(installFolder, installCapacity, row.installFolder);
            return 1;
        }
    }

    /* Any other model: the roots come from the debug settings; the install folder is not known. */
    CIniFile ini;
    if (OpenDebugIniFile(&ini)) {
        char text[MAX_PATH];
        if (ini.getString("Device", "InternalPath", text, MAX_PATH) && strlen(text) > 1) {
            if (internalRoot != NULL && internalCapacity != 0)
                uni_snwprintf(internalRoot, internalCapacity, TEXT("%hs"), text);
        }
        if (ini.getString("Device", "ExternalPath1", text, MAX_PATH)) {
            if (externalRoot != NULL && externalCapacity != 0)
                uni_snwprintf(externalRoot, externalCapacity, TEXT("%hs"), text);
        }
        ini.close();
    } else {
        vl_copyRoot(internalRoot, internalCapacity, TEXT("\\My Flash Disk"));
        vl_copyRoot(externalRoot, externalCapacity, TEXT("\\Storage Card"));
    }
    return 1;
}
