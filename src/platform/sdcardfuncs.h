/*
 * The SD card watcher: sdcard_wait polls briefly for a path on the card; SDCardThread listens to
 * the system's volume-mount notifications and posts a message to a window whenever the card is
 * inserted (first parameter 1) or removed (0).
 *
 *     SDCardThread *card = new SDCardThread(hWnd, WM_APP_CARD);
 *     card->start();   ...   card->stop(); card->join(INFINITE); delete card;
 */
#ifndef TARSK_PLATFORM_SDCARDFUNCS_H
#define TARSK_PLATFORM_SDCARDFUNCS_H

#include "sal/winapi.h"
#include "sal/concurrency/salthreadcommon.h"

#define SDCARD_WAIT_TRIES 10
#define SDCARD_WAIT_PAUSE_MS 100

/* 1 when the path (a file or folder pattern) can be found, 0 after ten tries 100 ms apart. */
int sdcard_wait(LPCWSTR path);

/* The largest device-detail record read from the notification queue. */
#define SDCARD_DETAIL_BYTES 584

class SDCardThread : public CSalThread {
public:
    SDCardThread(HWND hWnd, UINT uMessage);
    virtual ~SDCardThread() {}

    /* The thread body: returns when its stop flag or the process-wide one is set. */
    virtual void execute();

protected:
    /* Whether a mounted volume's name is the card's folder: equal without regard to case, or, for a
     * name without a leading backslash, equal to the folder without its first character. */
    static BOOL isCardName(LPCWSTR name, LPCWSTR folder);

    HWND m_hWnd;        /* the window to notify */
    UINT m_uMessage;    /* the message number to post */
};

#endif /* TARSK_PLATFORM_SDCARDFUNCS_H */
