/*
 * The battery rule that gates the upgrade, and the fixed sequence of one upgrade session: announce,
 * let the engine check, begin the upgrade, or cancel (save the panel, show the reboot button, start
 * the navigation application or the USB screen, close).
 */
#include "tarskupgrade/tarskupgrade.h"
#include "framework/desktopintegration.h"
#include "platform/plat_unicode.h"
#include "tarsklib/tarsklib.h"

#include <string.h>

#define SESSION_LINE_CHARS 260

BOOL CheckBattery(SYSTEM_POWER_STATUS_EX2 *status)
{
    if (status->ACLineStatus == 0 && (LONG)status->BatteryLifePercent < g_AppSettings.BatteryThreshold) {
        AppendProgressIf(TEXT("=================BATTERY CHECKING...=================\r\n"), TRUE);
        WCHAR line[SESSION_LINE_CHARS];
        memset(line, 0, sizeof(line));
        uni_snwprintf(line, SESSION_LINE_CHARS,
                      TEXT("Battery remained: %d\r\nIt is too low to finish the upgrade, please connect AC to continue\r\n"),
                      (int)status->BatteryLifePercent);
        AppendProgressIf(line, TRUE);
        return FALSE;
    }
    PostMessageW(g_hMainWnd, WM_UPGRADE_START, 0, 0);
    return TRUE;
}

/* Starts the navigation application, else the USB screen. */
static void StartFollowUpProgram(void)
{
    AppendProgress(TEXT("Starting Navigation...\r\n"));
    WCHAR path[SESSION_LINE_CHARS];
    memset(path, 0, sizeof(path));
    DesktopIntegrationPrivate *paths = GetDesktopIntegration();
    uni_snwprintf(path, SESSION_LINE_CHARS, TEXT("%ls%ls%ls"), paths != NULL ? paths->getDefaultPath() : TEXT(""),
                  TEXT("\\"), paths != NULL ? paths->getDefaultFile() : TEXT(""));
    if (!StartSecondaryProcess(path)) {
        AppendProgress(TEXT("Starting USBScreen...\r\n"));
        if (StartProcess(TEXT("\\windows\\USBScreen.exe"), NULL))
            AppendProgress(TEXT("Started USBscreen\r\n"));
    }
    /* Shown in every case, also when the navigation application did not start. */
    AppendProgress(TEXT("Started Navigation\r\n"));
}

BOOL RunUpgradeSession(BOOL *pCheckRegion)
{
    AppendProgressIf(TEXT("==============ANALYSIZE THE SYSTEM...===============\r\n"), TRUE);
    AppendProgress(TEXT("\r\n=============CHECK THE UPGRADE CONDITION============\r\n"));
    if (g_pTarsk == NULL)
        return TRUE;

    if (g_pTarsk->CheckForUpgrade(*pCheckRegion)) {
        AppendProgressIf(TEXT("===PREPARE FOR UPGRADING... ===\r\n"), TRUE);
        /* Handed over: the kernel and bootloader carry on; the application stays open. */
        if (g_pTarsk->BeginUpgrading())
            return TRUE;
    }

    /* Nothing to upgrade, or the upgrade could not be started. */
    AppendProgress(TEXT("CANCEL UPGRADE...\r\n"));
    SendMessageW(g_hMainWnd, WM_UPGRADE_SHOW_ERROR, 0, 0);
    StartFollowUpProgram();
    PostMessageW(g_hMainWnd, WM_CLOSE, 0, 0);
    return TRUE;
}
