/*
 * The SD card watcher.
 */
#include "platform/sdcardfuncs.h"

#include "platform/platform.h"
#include "platform/plat_file.h"
#include "platform/plat_unicode.h"
#include "platform/registry.h"

#include <stddef.h>
#include <string.h>

int sdcard_wait(LPCWSTR path)
{
    OS_FIND_RECORD record;
    for (int i = 0; i < SDCARD_WAIT_TRIES; ++i) {
        if (os_wfindfirstfilter(path, &record) == 0) {
            os_wfindclose();
            VLLOG(LOG_DEBUG, TEXT("sdcard_wait(): %d - SD card found\n"), i);
            return 1;
        }
        VLLOG(LOG_DEBUG, TEXT("sdcard_wait(): %d - SD card not found\n"), i);
        Sleep(SDCARD_WAIT_PAUSE_MS);
    }
    return 0;
}

/* The FAT volume mount class: {169E1941-04CE-4690-97AC-776187EB67CC}. */
static const GUID g_fatfsMountGuid = {
    0x169E1941, 0x04CE, 0x4690, {0x97, 0xAC, 0x77, 0x61, 0x87, 0xEB, 0x67, 0xCC}};

#define SDCARD_QUEUE_MAX_MESSAGE 4096
#define SDCARD_PASS_PAUSE_MS 10
#define SDCARD_QUEUE_WAIT_MS 1000

SDCardThread::SDCardThread(HWND hWnd, UINT uMessage) : m_hWnd(hWnd), m_uMessage(uMessage) {}

BOOL SDCardThread::isCardName(LPCWSTR name, LPCWSTR folder)
{
    if (uni_wcsicmp(name, folder) == 0) return TRUE;
    return name[0] != TEXT('\\') && folder[0] != 0 && uni_wcsicmp(name, folder + 1) == 0;
}

void SDCardThread::execute()
{
    WCHAR folder[MAX_PATH];
    folder[0] = 0;
    if (!sys_getExternalPath1(folder)) uni_wcsncpy0(folder, TEXT("\\Storage Card"), MAX_PATH);

    MSGQUEUEOPTIONS options;
    options.dwSize = sizeof(MSGQUEUEOPTIONS);
    options.dwFlags = 0;
    options.dwMaxMessages = 0;
    options.cbMaxMessage = SDCARD_QUEUE_MAX_MESSAGE;
    options.bReadAccess = TRUE;
    HANDLE queue = CreateMsgQueue(NULL, &options);
    HANDLE notifications = RequestDeviceNotifications(&g_fatfsMountGuid, queue, TRUE);

    if (!g_bSalStopAllThreads) {
        while (!m_bStop && !g_bSalStopAllThreads) {
            Sleep(SDCARD_PASS_PAUSE_MS);
            DWORD wait = WaitForSingleObject(queue, SDCARD_QUEUE_WAIT_MS);
            if (wait == WAIT_TIMEOUT) continue;
            if (wait != WAIT_OBJECT_0) {
                VLLOG(LOG_ERROR, TEXT("SDCardThread::execute(): WaitForSingleObject() failed, error %d\n"),
                      (int)GetLastError());
                m_bStop = 1;
                continue;
            }

            /* One character of room behind the record, so that the name is always terminated. */
            union {
                DEVDETAIL detail;
                BYTE raw[SDCARD_DETAIL_BYTES + sizeof(WCHAR)];
            } message;
            memset(&message, 0, sizeof(message));
            DWORD read = 0;
            DWORD flags = 0;
            if (!ReadMsgQueue(queue, &message, SDCARD_DETAIL_BYTES, &read, 0, &flags)) continue;
            if (read > SDCARD_DETAIL_BYTES) read = SDCARD_DETAIL_BYTES;
            WCHAR *name = (WCHAR *)(message.raw + offsetof(DEVDETAIL, szName));
            if (read > offsetof(DEVDETAIL, szName))
                name[(read - offsetof(DEVDETAIL, szName)) / sizeof(WCHAR)] = 0;
            else
                name[0] = 0;

            VLLOG(LOG_DEBUG, TEXT("SDCardThread::execute(): %d %ls\n"), (int)message.detail.fAttached, name);
            if (!isCardName(name, folder)) continue;
            if (message.detail.fAttached) {
                VLLOG(LOG_DEBUG, TEXT("SDCardThread::execute(): Card inserted\n"));
                PostMessageW(m_hWnd, m_uMessage, 1, 0);
            } else {
                VLLOG(LOG_DEBUG, TEXT("SDCardThread::execute(): Card removed\n"));
                PostMessageW(m_hWnd, m_uMessage, 0, 0);
            }
        }
    }

    StopDeviceNotifications(notifications);
    CloseMsgQueue(queue);
}
