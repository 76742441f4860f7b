/*
 * The engine's registry readers over HKLM "Information". The key is opened with create-or-open, so
 * a device without it gets an empty one and every read simply finds nothing.
 */
#include "tarsklib/tarskregistry.h"
#include "platform/plat_alloc.h"

#include "platform/platform.h"
#include "platform/plat_unicode.h"

/* Reads one value of HKLM "Information" into data (at most *size bytes). Returns the system's
 * result; a failure is kept as the platform's last error. */
static LONG tr_query(LPCWSTR name, DWORD *type, LPBYTE data, DWORD *size)
{
    HKEY key = NULL;
    DWORD disposition = 0;
    LONG result = RegCreateKeyExW(HKEY_LOCAL_MACHINE, TEXT("Information"), 0, NULL, REG_OPTION_NON_VOLATILE,
                                  KEY_READ, NULL, &key, &disposition);
    if (result != ERROR_SUCCESS) {
        os_setLastError((DWORD)result);
        return result;
    }
    result = RegQueryValueExW(key, name, NULL, type, data, size);
    RegCloseKey(key);
    if (result != ERROR_SUCCESS) os_setLastError((DWORD)result);
    return result;
}

int CTarskRegistry::ReadString(LPCWSTR name, LPWSTR buffer, DWORD capacity)
{
    if (buffer == NULL || capacity == 0) return 0;
    DWORD type = REG_NONE;
    DWORD size = capacity * sizeof(WCHAR);
    if (tr_query(name, &type, (LPBYTE)buffer, &size) != ERROR_SUCCESS) {
        buffer[0] = 0;   /* the system may have left part of a value that did not fit */
        return 0;
    }
    if (type != REG_SZ || size < sizeof(WCHAR) || buffer[0] == 0) {
        /* The query itself succeeded: what the system last reported is kept as it is. */
        os_setLastError(GetLastError());
        buffer[0] = 0;
        return 0;
    }
    /* A text stored without its terminator, or filling the buffer, is still ended. */
    DWORD length = size / sizeof(WCHAR);
    if (length >= capacity) length = capacity - 1;
    buffer[length] = 0;
    return 1;
}

int CTarskRegistry::ReadNumber(LPCWSTR name, DWORD *value)
{
    if (value == NULL) return 0;
    DWORD type = REG_NONE;
    DWORD number = 0;
    DWORD size = sizeof(number);
    if (tr_query(name, &type, (LPBYTE)&number, &size) != ERROR_SUCCESS) return 0;
    if (type != REG_DWORD || size == 0) {
        os_setLastError(GetLastError());   /* the query succeeded: the last report is kept */
        return 0;
    }
    *value = number;
    return 1;
}

int CTarskRegistry::GetInternalPath(LPWSTR buffer, DWORD capacity)
{
    if (ReadString(TEXT("Internal"), buffer, capacity)) return 1;
    if (buffer != NULL && capacity != 0) buffer[0] = 0;
    return 0;
}

int CTarskRegistry::GetExternalPath(int number, LPWSTR buffer, DWORD capacity)
{
    WCHAR name[256];
    uni_snwprintf(name, 256, TEXT("External%d"), number);
    if (ReadString(name, buffer, capacity)) return 1;
    if (buffer != NULL && capacity != 0) buffer[0] = 0;
    return 0;
}

void *CTarskRegistry::operator new(size_t size) throw()
{
    return os_malloc(size);
}

void CTarskRegistry::operator delete(void *block)
{
    os_free(block);
}
