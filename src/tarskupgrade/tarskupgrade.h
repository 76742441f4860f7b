/*
 * The upgrade application: start-up and shutdown (winmain.cpp), the main window with its progress
 * panel and reboot button (mainwnd.cpp), the upgrade session and the battery rule (session.cpp),
 * the power monitor thread (powermonitor.cpp), the process launcher (launcher.cpp) and the crash
 * reporter (crashreport.cpp).
 *
 * Threads: the main thread runs start-up, the message loop, the window procedure and with it the
 * whole session; the power monitor thread only posts WM_UPGRADE_START. The settings are written
 * before the second thread starts and never after, so nothing here is locked.
 */
#ifndef TARSK_TARSKUPGRADE_TARSKUPGRADE_H
#define TARSK_TARSKUPGRADE_TARSKUPGRADE_H

#include "sal/winapi.h"

class TarskEngine;

/* ---- private window messages (all with wParam 0) ---- */
#define WM_UPGRADE_APPEND_TEXT (WM_USER + 100)   /* 0x464: lParam the text to append */
#define WM_UPGRADE_SHOW_ERROR (WM_USER + 101)    /* 0x465: save the panel, show the reboot button */
#define WM_UPGRADE_START (WM_USER + 102)         /* 0x466: run the upgrade session */

/* ---- names fixed by the system ---- */
#define TARSK_MUTEX_NAME TEXT("{77907ACE-42FA-4be5-8967-4101B08B1CCE}")
#define TARSK_WINDOW_CLASS TEXT("TARSK_UPGRADE_CLS")
#define TARSK_WINDOW_TITLE TEXT("TARSK_UPGRADE")
#define TARSK_INI_SECTION "Tarsk"

/* ---- application settings (winmain.cpp), written only during start-up ---- */
struct AppSettings {
    LONG BatteryThreshold;       /* percent; "BatteryThreshold" of section "Tarsk" */
    BOOL ShowInfo;               /* "ShowInfo" of section "Tarsk" */
    BOOL CheckRegion;            /* handed to the engine's check on every session */
    BOOL PowerMonitorRunning;    /* never cleared: the power monitor loops while it is set */
    DWORD PowerWaitTimeoutMs;    /* the power monitor's wait time-out */
};
extern AppSettings g_AppSettings;

/* ---- process-wide state shared by start-up and the main window ---- */
extern HINSTANCE g_hInstance;
extern int g_nScreenWidth;
extern int g_nScreenHeight;
extern HWND g_hMainWnd;
extern HWND g_hPanel;
extern HWND g_hErrorButton;
extern HFONT g_hFont;
extern TarskEngine *g_pTarsk;
extern HANDLE g_hPowerThread;
extern DWORD g_dwLastLaunchError;

/* ---- start-up and shutdown (winmain.cpp) ---- */
int WINAPI WinMain(HINSTANCE hInstance, HINSTANCE hPrevInstance, LPWSTR lpCmdLine, int nShowCmd);
/* The process entry: WinMain (previous instance 0) under the crash reporter's guard; its result is
 * the process's exit code. */
int TarskEntry(HINSTANCE hInstance, LPWSTR lpCmdLine, int nShowCmd);
BOOL InitTarskLib(BOOL (*progress)(LPCWSTR text));
BOOL ExitTarskLib(void);

/* ---- main window (mainwnd.cpp) ---- */
BOOL InitInstance(HINSTANCE hInstance, int nCmdShow);
LRESULT CALLBACK MainWndProc(HWND hWnd, UINT message, WPARAM wParam, LPARAM lParam);
/* Shown only when ShowInfo is on. Always TRUE. */
BOOL AppendProgress(LPCWSTR text);
/* Shown when show is non-zero, whatever ShowInfo says. Always TRUE. */
BOOL AppendProgressIf(LPCWSTR text, BOOL show);
/* Resets the device at once; TRUE when the reset request failed. */
BOOL RebootDevice(void);

/* ---- the session (session.cpp) ---- */
/* The battery rule, called on the power monitor thread with the fresh power status. */
BOOL CheckBattery(SYSTEM_POWER_STATUS_EX2 *status);
/* One upgrade session, on the window thread. Always TRUE. */
BOOL RunUpgradeSession(BOOL *pCheckRegion);

/* ---- the power monitor (powermonitor.cpp) ---- */
struct PowerCallbacks {
    BOOL (*OnPowerStatusChange)(SYSTEM_POWER_STATUS_EX2 *status);
    BOOL (*OnPowerInfoChange)(SYSTEM_POWER_STATUS_EX2 *status);
    BOOL (*OnResume)(void);
};
#define POWER_QUEUE_MESSAGES 3
#define POWER_QUEUE_MESSAGE_BYTES 216
BOOL StartPowerManagerThread(PowerCallbacks *callbacks);
DWORD WINAPI PowerMonitorThread(LPVOID callbacks);

/* ---- the process launcher (launcher.cpp) ---- */
BOOL StartProcess(LPCWSTR path, LPWSTR commandLine);
BOOL StartSecondaryProcess(LPCWSTR path);

/* ---- crash and error reports (crashreport.cpp) ---- */
#define TARSK_ERROR_LOG_NAME TEXT("upgrade.error.log")
#define TARSK_BAD_MARKER_NAME TEXT("\\upgrade.winceimg.BAD.log")
/* Logs the exception and leaves the empty marker file beside the program. Always 0
 * (EXCEPTION_CONTINUE_SEARCH). */
int ReportException(DWORD code, EXCEPTION_POINTERS *pointers);
/* The two guards' filters: around the window procedure and around WinMain. */
int MainWndProcExceptionFilter(EXCEPTION_POINTERS *pointers);
int WinMainExceptionFilter(EXCEPTION_POINTERS *pointers);

#endif /* TARSK_TARSKUPGRADE_TARSKUPGRADE_H */
