/*
 * The process launcher: starts the program that follows the upgrader, without waiting for it.
 */
#include "tarskupgrade/tarskupgrade.h"
#include "platform/platform.h"

#include <string.h>

DWORD g_dwLastLaunchError = 0;

BOOL StartProcess(LPCWSTR path, LPWSTR commandLine)
{
    STARTUPINFO startup;
    memset(&startup, 0, sizeof(startup));
    startup.cb = sizeof(startup);   /* 68 on the device */
    PROCESS_INFORMATION process;
    memset(&process, 0, sizeof(process));

    if (CreateProcessW(path, commandLine, NULL, NULL, FALSE, 0, NULL, NULL, &startup, &process)) {
        VLLOG(LOG_DEBUG, TEXT("StartProcess(): CreateProcess(%ls) succeeded\n"), path);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
        return TRUE;
    }
    g_dwLastLaunchError = GetLastError();
    VLLOG(LOG_ERROR, TEXT("StartProcess(): CreateProcess(%ls) failed, error %d\n"), path, (int)g_dwLastLaunchError);
    return FALSE;
}

BOOL StartSecondaryProcess(LPCWSTR path)
{
    if (StartProcess(path, NULL)) {
        VLLOG(LOG_DEBUG, TEXT("StartSecondaryProcess(): StartProcess(%ls) succeeded\n"), path);
        return TRUE;
    }
    /* Whatever the failed launch and its log line left as the last error. */
    g_dwLastLaunchError = GetLastError();
    VLLOG(LOG_ERROR, TEXT("StartSecondaryProcess(): StartProcess(%ls) failed, error %d\n"), path,
          (int)g_dwLastLaunchError);
    return FALSE;
}
