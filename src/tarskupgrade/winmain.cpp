/*
 * Start-up and shutdown: one instance only, the "Tarsk" section of debug.ini, the main window, the
 * engine, the power monitor thread, and the message loop until the window is destroyed.
 */
#include "tarskupgrade/tarskupgrade.h"
#include "sal/exceptions.h"
#include "platform/inifile.h"
#include "platform/platform.h"
#include "tarsklib/tarsklib.h"

AppSettings g_AppSettings = {
    20,     /* BatteryThreshold */
    TRUE,   /* ShowInfo */
    TRUE,   /* CheckRegion */
    TRUE,   /* PowerMonitorRunning */
    1000,   /* PowerWaitTimeoutMs */
};

TarskEngine *g_pTarsk = NULL;

BOOL InitTarskLib(BOOL (*progress)(LPCWSTR text))
{
    if (g_pTarsk != NULL)
        return FALSE;
    TarskEngine *engine = new TarskEngine(progress);
    if (engine == NULL)
        return FALSE;
    if (!engine->IsConstructed()) {
        delete engine;
        return FALSE;
    }
    g_pTarsk = engine;
    return TRUE;
}

BOOL ExitTarskLib(void)
{
    if (g_pTarsk != NULL)
        delete g_pTarsk;
    g_pTarsk = NULL;
    return TRUE;
}

static BOOL PowerCallbackDoesNothing(SYSTEM_POWER_STATUS_EX2 *status)
{
    (void)status;
    return TRUE;
}

static BOOL ResumeCallbackDoesNothing(void)
{
    return TRUE;
}

/* Reads the log settings and the "Tarsk" section of debug.ini; without the file the defaults stay. */
static void ReadAppSettings(void)
{
    CIniFile ini;
    if (!OpenDebugIniFile(&ini))
        return;
    ReadDebugIniFileDbgSettings(&ini, TARSK_INI_SECTION);
    int threshold = (int)g_AppSettings.BatteryThreshold;
    ini.getInt(TARSK_INI_SECTION, "BatteryThreshold", &threshold);
    g_AppSettings.BatteryThreshold = threshold;
    /* The reader stores 0 for a missing key; a missing key keeps the default here. */
    int showInfo = 0;
    if (ini.getBool(TARSK_INI_SECTION, "ShowInfo", &showInfo))
        g_AppSettings.ShowInfo = showInfo;
    ini.close();
}

int WINAPI WinMain(HINSTANCE hInstance, HINSTANCE hPrevInstance, LPWSTR lpCmdLine, int nShowCmd)
{
    (void)hPrevInstance;
    (void)lpCmdLine;

    HANDLE mutex = CreateMutexW(NULL, FALSE, TARSK_MUTEX_NAME);
    if (GetLastError() == ERROR_ALREADY_EXISTS) {
        VLLOG(LOG_WARNING, TEXT("An Instance is already running\r\n"));
        CloseHandle(mutex);
        return 0;
    }

    ReadAppSettings();

    if (!InitInstance(hInstance, nShowCmd))
        return 0;

    if (!InitTarskLib(AppendProgress)) {
        VLLOG(LOG_ERROR, TEXT("InitTarskLib failed!!, errorunm: %d\r\n"), (int)GetLastError());
        return 0;
    }

    PowerCallbacks callbacks;
    callbacks.OnPowerStatusChange = CheckBattery;
    callbacks.OnPowerInfoChange = PowerCallbackDoesNothing;
    callbacks.OnResume = ResumeCallbackDoesNothing;
    if (!StartPowerManagerThread(&callbacks)) {
        VLLOG(LOG_ERROR, TEXT("create power manager thread failed!!, errornum: %d\r\n"), (int)GetLastError());
        return 0;
    }

    MSG msg;
    while (GetMessageW(&msg, NULL, 0, 0)) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }

    ExitTarskLib();
    return (int)msg.wParam;
}

int TarskEntry(HINSTANCE hInstance, LPWSTR lpCmdLine, int nShowCmd)
{
    int result = 0;
    SAL_TRY(WinMainExceptionFilter)
        result = WinMain(hInstance, 0, lpCmdLine, nShowCmd);
    SAL_EXCEPT(WinMainExceptionFilter)
    return result;
}
