/*
 * The power monitor: a thread at the top priority that subscribes to the power notifications and
 * turns them into calls of the application's three callbacks.
 */
#include "tarskupgrade/tarskupgrade.h"

#include <string.h>

HANDLE g_hPowerThread = NULL;

BOOL StartPowerManagerThread(PowerCallbacks *callbacks)
{
    g_hPowerThread = CreateThread(NULL, 0, PowerMonitorThread, callbacks, 0, NULL);
    if (g_hPowerThread == NULL) {
        GetLastError();
        return FALSE;
    }
    return TRUE;
}

DWORD WINAPI PowerMonitorThread(LPVOID param)
{
    PowerCallbacks *callbacks = (PowerCallbacks *)param;
    if (callbacks == NULL)
        return 0;

    MSGQUEUEOPTIONS options;
    options.dwSize = sizeof(MSGQUEUEOPTIONS);
    options.dwFlags = 0;
    options.dwMaxMessages = POWER_QUEUE_MESSAGES;
    options.cbMaxMessage = POWER_QUEUE_MESSAGE_BYTES;
    options.bReadAccess = TRUE;
    HANDLE queue = CreateMsgQueue(NULL, &options);
    if (queue == NULL) {
        GetLastError();
        return 0;
    }
    HANDLE notifications = RequestPowerNotifications(queue, PBT_RESUME | PBT_POWERSTATUSCHANGE | PBT_POWERINFOCHANGE);
    if (notifications == NULL) {
        GetLastError();
        CloseMsgQueue(queue);
        return 0;
    }

    SYSTEM_POWER_STATUS_EX2 status;
    memset(&status, 0, sizeof(status));
    /* The top of the platform's scale, so that notifications are taken while the window thread works. */
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL);

    DWORD message[POWER_QUEUE_MESSAGE_BYTES / sizeof(DWORD)];
    while (g_AppSettings.PowerMonitorRunning) {
        if (WaitForSingleObject(queue, g_AppSettings.PowerWaitTimeoutMs) != WAIT_OBJECT_0)
            continue;
        DWORD bytesRead = 0;
        DWORD flags = 0;
        if (!ReadMsgQueue(queue, message, POWER_QUEUE_MESSAGE_BYTES, &bytesRead, INFINITE, &flags))
            continue;
        switch (message[0]) {   /* the POWER_BROADCAST message type */
        case PBT_RESUME:
            callbacks->OnResume();
            break;
        case PBT_POWERSTATUSCHANGE:
            if (GetSystemPowerStatusEx2(&status, sizeof(status), TRUE))
                callbacks->OnPowerStatusChange(&status);
            break;
        case PBT_POWERINFOCHANGE:
            if (GetSystemPowerStatusEx2(&status, sizeof(status), TRUE))
                callbacks->OnPowerInfoChange(&status);
            break;
        default:
            break;
        }
    }

    StopPowerNotifications(notifications);
    CloseMsgQueue(queue);
    return 1;
}
