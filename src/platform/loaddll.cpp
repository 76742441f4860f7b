/*
 * CLoadDll: one loaded library and its entry points by name.
 */
#include "platform/loaddll.h"

#include "platform/platform.h"
#include "platform/plat_unicode.h"

CLoadDll::CLoadDll() : m_hLibrary(NULL)
{
    m_szName[0] = 0;
}

CLoadDll::~CLoadDll()
{
    if (m_hLibrary != NULL) {
        FreeLibrary(m_hLibrary);
        m_hLibrary = NULL;
    }
}

int CLoadDll::loadLibrary(LPCWSTR name)
{
    static const WCHAR empty[1] = {0};
    if (name == NULL) name = empty;

    /* A second load replaces the first: the old handle is dropped without FreeLibrary, so whatever
     * still holds entry points of the old library keeps working. */
    if (m_hLibrary != NULL) {
        VLLOG(LOG_ERROR, TEXT("CLoadDll::loadLibrary(%ls): %ls already loaded"), name, m_szName);
    }

    uni_wcsncpy0(m_szName, name, MAX_PATH);
    m_hLibrary = LoadLibraryW(m_szName);
    if (m_hLibrary == NULL) {
        DWORD error = GetLastError();
        os_setLastError(error);
        VLLOG(LOG_ERROR, TEXT("CLoadDll::loadLibrary(%ls): LoadLibrary() failed, error %d"), name, error);
        return 0;
    }
    return 1;
}

FARPROC CLoadDll::getProcAddress(LPCWSTR name)
{
    if (m_hLibrary == NULL || name == NULL) return NULL;

    FARPROC proc = GetProcAddressW(m_hLibrary, name);
    if (proc == NULL) {
        DWORD error = GetLastError();
        os_setLastError(error);
        VLLOG(LOG_ERROR, TEXT("CLoadDll::getProcAddress(%ls): GetProcAddress() failed, error 0x%x\n"), name, error);
    }
    return proc;
}
