/*
 * The upgrade engine: construction (paths and device facts), CheckForUpgrade (package discovery,
 * deciphering, descriptor reading, decisions) and the progress lines.
 */
#include "tarsklib/tarsklib.h"
#include "tarsklib/tarsk_progress.h"
#include "tarsklib/tarskregistry.h"
#include "framework/xmldevicefile.h"
#include "platform/platform.h"
#include "platform/plat_alloc.h"
#include "platform/plat_file.h"
#include "platform/plat_unicode.h"

#include <string.h>

void tarsk_progress(const TarskEngine *engine, const WCHAR *format, FMT_ARGS_DEF)
{
    if (engine == NULL || engine->m_pfnProgress == NULL)
        return;
    WCHAR line[TARSK_PROGRESS_CHARS];
    fmt_formatW(line, TARSK_PROGRESS_CHARS, format, FmtArgList(FMT_ARGS_PASS));
    engine->m_pfnProgress(line);
}

static BOOL fileExists(LPCWSTR path)
{
    return GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES;
}

static void gatherPaths(TarskEngine *e)
{
    os_getModuleFolder(e->m_szProgramFolder, TARSK_PATH_CHARS);

    uni_snwprintf(e->m_szUbootPath, TARSK_PATH_CHARS, TEXT("%s%s%s%s"), e->m_szProgramFolder,
                  TEXT("\\"), TEXT("upgrade"), TEXT(".xml"));
    uni_snwprintf(e->m_szKernelPath, TARSK_PATH_CHARS, TEXT("%s%s%s%s"), e->m_szProgramFolder,
                  TEXT("\\"), TEXT("upgrade"), TEXT(".xml"));
    uni_snwprintf(e->m_szRegionPath, TARSK_PATH_CHARS, TEXT("%s%s%s%s"), e->m_szProgramFolder,
                  TEXT("\\"), TEXT("upgrade"), TEXT(".xml"));
    uni_snwprintf(e->m_szPackagePath, TARSK_PATH_CHARS, TEXT("%s%s%s%s"), e->m_szProgramFolder,
                  TEXT("\\"), TEXT("upgrade"), TEXT(".bin"));

    if (!e->m_pRegistry->GetInternalPath(e->m_szInternalPath, TARSK_PATH_CHARS))
        uni_wcsncpy0(e->m_szInternalPath, TEXT("\\My Flash Disk"), TARSK_PATH_CHARS);
    if (!e->m_pRegistry->GetExternalPath(1, e->m_szExternalPath, TARSK_PATH_CHARS))
        uni_wcsncpy0(e->m_szExternalPath, TEXT("\\Storage Card"), TARSK_PATH_CHARS);

    e->m_bUpgradeFromSDCard = uni_wcsicmp(e->m_szProgramFolder, e->m_szExternalPath) == 0 ? 1 : 0;
}

TarskEngine::TarskEngine(TarskProgressCallback progress)
{
    TarskEngineState *state = this;
    memset(state, 0, sizeof(TarskEngineState));
    m_pfnProgress = progress;

    m_pCipher = (TarskCipherContext *)os_malloc(sizeof(TarskCipherContext));
    if (m_pCipher == NULL)
        return;
    m_pCipher->delta = TARSK_CIPHER_DELTA;
    m_pRegistry = new CTarskRegistry();
    if (m_pRegistry == NULL)
        return;

    gatherPaths(this);
    tarsk_gatherDeviceFacts(this);
}

TarskEngine::~TarskEngine()
{
    delete m_pRegistry;
    if (m_pCipher != NULL)
        os_free(m_pCipher);
}

void *TarskEngine::operator new(size_t size) throw()
{
    return os_malloc(size);
}

void TarskEngine::operator delete(void *block)
{
    os_free(block);
}

DWORD TarskEngine::CheckForUpgrade(DWORD withRegion)
{
    return ::CheckForUpgrade(this, withRegion);
}

DWORD TarskEngine::BeginUpgrading()
{
    return ::BeginUpgrading(this);
}

/* Reads the package whole, deletes it when running from internal flash, deciphers it and writes
 * the plain descriptor to upgrade.xml. 0 when the package is missing, empty or unreadable. */
static BOOL unpackPackage(TarskEngine *e, LPCWSTR xmlPath)
{
    DWORD size = os_wGetFileSize(e->m_szPackagePath);
    if (size == 0)
        return FALSE;

    /* On the failure paths below the buffer is not freed; the program resets soon after. */
    BYTE *buffer = (BYTE *)os_malloc(size);
    if (buffer == NULL)
        return FALSE;
    memset(buffer, 0, size);
    HANDLE in = os_wfopen(e->m_szPackagePath, TEXT("rb"));
    if (in == NULL)
        return FALSE;
    if (os_fread(buffer, size, in) != size) {
        os_fclose(in);
        return FALSE;
    }
    os_fclose(in);

    /* From internal flash the package is used once; on the card it stays for the next start. */
    if (!e->m_bUpgradeFromSDCard)
        os_wremove(e->m_szPackagePath);

    DWORD key[4];
    tarsk_packageKey(key);
    tarsk_decipher(buffer, size, key);

    HANDLE out = os_wfopen(xmlPath, TEXT("w"));
    DWORD written = out != NULL ? os_fwrite(buffer, size, out) : 0;
    if (written < size)
        VLLOG(LOG_ERROR, TEXT("UpgradeValidate, written bytes: %d\r\n"), (int)written);
    if (out != NULL)
        os_fclose(out);
    os_free(buffer);
    return TRUE;
}

DWORD CheckForUpgrade(TarskEngine *engine, DWORD withRegion)
{
    TarskEngine *e = engine;
    WCHAR xmlPath[TARSK_PATH_CHARS];
    uni_snwprintf(xmlPath, TARSK_PATH_CHARS, TEXT("%s%s%s%s"), e->m_szProgramFolder, TEXT("\\"),
                  TEXT("upgrade"), TEXT(".xml"));

    if (!unpackPackage(e, xmlPath))
        return 0;

    /* bootloader */
    e->m_bUbootExists = fileExists(e->m_szUbootPath) ? 1 : 0;
    if (e->m_bUbootExists) {
        if (GetUbootXMLSettings(e->m_szUbootPath, &e->m_UbootDescriptor)) {
            e->m_bUpgradeBboot = checkUpgradeSettings(e, TEXT("UBoot"), &e->m_UbootDescriptor);
        } else {
            VLLOG(LOG_ERROR, TEXT("CheckForUpgrade(): GetUbootXMLSettings(%ls) failed\n"), e->m_szUbootPath);
            e->m_bUpgradeBboot = 0;
        }
    }

    /* kernel */
    e->m_bKernelExists = fileExists(e->m_szKernelPath) ? 1 : 0;
    if (e->m_bKernelExists) {
        if (GetKernelXMLSettings(e->m_szKernelPath, &e->m_KernelDescriptor)) {
            e->m_bUpgradeKernel = checkUpgradeSettings(e, TEXT("Kernel"), &e->m_KernelDescriptor);
            if (e->m_bUpgradeKernel) {
                e->m_bFormatKernel = checkFormatSettings(e, TEXT("Kernel"), &e->m_KernelDescriptor);
                tarsk_progress(e, TEXT("FORMAT Upgrade: %s\r\n"),
                               e->m_bFormatKernel ? TEXT("Yes") : TEXT("No"));
            }
        } else {
            VLLOG(LOG_ERROR, TEXT("CheckForUpgrade(): GetKernelXMLSettings(%ls) failed\n"), e->m_szKernelPath);
            e->m_bUpgradeKernel = 0;
        }
    }

    /* region */
    if (withRegion) {
        e->m_bRegionExists = fileExists(e->m_szRegionPath) ? 1 : 0;
        if (e->m_bRegionExists) {
            if (!GetRegionFileSettings(e->m_szRegionPath, &e->m_RegionDescriptor)) {
                VLLOG(LOG_ERROR, TEXT("CheckForUpgrade(): GetRegionFileSettings(%ls) failed\n"),
                      e->m_szRegionPath);
                e->m_bUpgradeRegion = 0;
            } else {
                tarsk_decideRegion(e);
            }
        }
    }

    if (!os_wremove(xmlPath))
        VLLOG(LOG_ERROR, TEXT("Delete temp %s failed\n"), xmlPath);

    if (!e->m_bUpgradeBboot && !e->m_bUpgradeKernel && !e->m_bUpgradeRegion)
        tarsk_progress(e, TEXT("CANN'T FIND THE UPGRADE PACKAGES\r\n"));

    tarsk_writeTagReport(e);

    return (e->m_bUpgradeBboot || e->m_bUpgradeKernel || e->m_bUpgradeRegion) ? 1 : 0;
}
