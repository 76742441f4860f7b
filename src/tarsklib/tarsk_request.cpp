/*
 * The image upgrade request: one 24-byte record handed to the kernel, which writes the images
 * itself from the program folder.
 */
#include "tarsklib/tarsklib.h"
#include "tarsklib/tarsk_progress.h"
#include "platform/platform.h"

#include <string.h>

#define TARSK_BEGIN_PAUSE_MS 2500

/* The kernel's codes for the selection number 1 bootloader + 2 kernel + 4 region. Not the
 * identity: kernel only is 0 on the wire. */
static const DWORD s_upgradeTypeOfSelection[8] = { 0, 1, 0, 2, 6, 5, 4, 3 };

DWORD tarsk_upgradeType(DWORD selection)
{
    selection &= 0xFFFF;
    return selection < 8 ? s_upgradeTypeOfSelection[selection] : 0;
}

void tarsk_buildUpgradeRequest(TarskUpgradeRequest *request, DWORD bootloader, DWORD kernel,
                               DWORD region, DWORD viaCard, DWORD format)
{
    memset(request, 0, sizeof(*request));
    WORD selection = (WORD)((bootloader ? 1 : 0) + (kernel ? 2 : 0) + (region ? 4 : 0));
    request->UpgradeType = tarsk_upgradeType(selection);
    request->UpgradeVia = viaCard ? TARSK_UPGRADE_VIA_CARD : TARSK_UPGRADE_VIA_INTERNAL;
    request->UpgradeFormat = format ? 1 : 0;
}

DWORD tarsk_callUpgrade(TarskEngine *engine, DWORD bootloader, DWORD kernel, DWORD region,
                        DWORD viaCard, DWORD format)
{
    (void)engine;
    TarskUpgradeRequest request;
    tarsk_buildUpgradeRequest(&request, bootloader, kernel, region, viaCard, format);

    if (KernelIoControl(IOCTL_QRV_SYS_TARSK_IMAGE_UPGRADE, &request, sizeof(request), NULL, 0, NULL))
        return 1;

    DWORD error = GetLastError();
    os_setLastError(error);
    VLLOG(LOG_ERROR, TEXT("tarsk_callUpgrade(): UpgradeType = %d, UpgradeVia = %d, UpgradeFormat = %d\r\n"),
          (int)request.UpgradeType, (int)request.UpgradeVia, (int)request.UpgradeFormat);
    VLLOG(LOG_ERROR, TEXT("tarsk_callUpgrade(): KernelIoControl(IOCTL_QRV_SYS_TARSK_IMAGE_UPGRADE) failed, error %d\n"),
          (int)error);
    return 0;
}

DWORD BeginUpgrading(TarskEngine *engine)
{
    TarskEngine *e = engine;
    /* The format has no conversion for the last flag: the line ends with its bare name. */
    VLLOG(LOG_INFO, TEXT("Upgrade for User: m_bUpgradeBboot = %d, m_bUpgradeKernel = %d, m_bUpgradeRegion = %d, m_bUpgradeFromSDCard = %d, m_bFormatKernel\r\n"),
          (int)e->m_bUpgradeBboot, (int)e->m_bUpgradeKernel, (int)e->m_bUpgradeRegion,
          (int)e->m_bUpgradeFromSDCard);

    if (e->m_pfnProgress != NULL) {
        tarsk_progress(e, TEXT("\r\n===BEGION UPGRADING...===\r\n"));
        Sleep(TARSK_BEGIN_PAUSE_MS);
    }

    if (!e->m_bUpgradeBboot && !e->m_bUpgradeKernel && !e->m_bUpgradeRegion)
        return 1;

    return tarsk_callUpgrade(e, e->m_bUpgradeBboot, e->m_bUpgradeKernel, e->m_bUpgradeRegion,
                             e->m_bUpgradeFromSDCard, e->m_bFormatKernel);
}
