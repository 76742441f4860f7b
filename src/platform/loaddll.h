/*
 * CLoadDll: one loaded library (the device library) and its entry points by name.
 */
#ifndef TARSK_PLATFORM_LOADDLL_H
#define TARSK_PLATFORM_LOADDLL_H

#include "sal/winapi.h"

class CLoadDll {
public:
    CLoadDll();
    virtual ~CLoadDll();

    /* Loads name (at most 259 characters). A library already loaded is reported and its handle
     * overwritten, not freed. 1 if loaded, 0 if not (the last error is kept). */
    int loadLibrary(LPCWSTR name);
    /* The entry point called name, or NULL (also when no library is loaded). */
    FARPROC getProcAddress(LPCWSTR name);
    HMODULE getHandle() const { return m_hLibrary; }
    LPCWSTR getName() const { return m_szName; }

private:
    CLoadDll(const CLoadDll &);
    CLoadDll &operator=(const CLoadDll &);

    WCHAR m_szName[MAX_PATH];   /* the last loaded name */
    HMODULE m_hLibrary;         /* NULL when none */
};

#endif /* TARSK_PLATFORM_LOADDLL_H */
