/*
 * The engine's own registry readers: values of HKLM "Information" (the key is created when missing).
 * A failed read keeps the system's error as the platform's last error and returns 0.
 */
#ifndef TARSK_TARSKLIB_TARSKREGISTRY_H
#define TARSK_TARSKLIB_TARSKREGISTRY_H

#include "sal/winapi.h"

class CTarskRegistry {
public:
    CTarskRegistry() {}

    /* A string value (at most capacity characters, i.e. capacity * 2 bytes). 1 when the value exists,
     * is of string type and is not empty. */
    int ReadString(LPCWSTR name, LPWSTR buffer, DWORD capacity);
    /* A 32-bit number value. 1 when the value exists, is a REG_DWORD and its size is not 0. */
    int ReadNumber(LPCWSTR name, DWORD *value);
    /* "Internal": the internal storage's mount path. On failure the buffer is made empty and 0 returned. */
    int GetInternalPath(LPWSTR buffer, DWORD capacity);
    /* "External<number>": the mount path of external storage number `number`. On failure the buffer is
     * made empty and 0 returned. */
    int GetExternalPath(int number, LPWSTR buffer, DWORD capacity);

    /* Allocated through the framework's allocator: new gives NULL when the allocation is refused. */
    static void *operator new(size_t size) throw();
    static void operator delete(void *block);

private:
    CTarskRegistry(const CTarskRegistry &);
    CTarskRegistry &operator=(const CTarskRegistry &);
};

#endif
