/*
 * The framework's thread class. A derived class implements execute(); start() runs it on a new
 * thread, whose entry first writes the thread layer's trace line. stop() raises the thread's own
 * stop flag, which execute() reads on each pass; the class never ends a thread by force.
 *
 *     class CWorker : public CSalThread { virtual void execute() { while (!m_bStop) ...; } };
 *     CWorker w; w.start(); ...; w.stop(); w.join(INFINITE);
 */
#ifndef TARSK_SAL_CONCURRENCY_SALTHREADCOMMON_H
#define TARSK_SAL_CONCURRENCY_SALTHREADCOMMON_H

#include "sal/winapi.h"

/* The process-wide stop flag: once set, the framework's threads leave their loops. Nothing in the
 * framework sets it; the program that runs the threads does, when it goes. */
extern volatile BYTE g_bSalStopAllThreads;

class CSalThread {
public:
    CSalThread();
    virtual ~CSalThread();      /* closes the thread handle; does not wait for the thread */

    /* Makes the thread, which runs execute(). 1 if it was made, 0 if not (or already started). */
    BOOL start();
    /* Asks execute() to return: raises the stop flag. */
    void stop() { m_bStop = 1; }
    /* Waits up to ms for the thread to end: the wait's result (WAIT_OBJECT_0 when it ended). */
    DWORD join(DWORD ms);
    HANDLE getHandle() const { return m_hThread; }
    DWORD getThreadId() const { return m_dwThreadId; }

protected:
    /* The thread body; returns when stopped. */
    virtual void execute() = 0;

    volatile BYTE m_bStop;      /* set by another thread, read by execute() on each pass */
    HANDLE m_hThread;
    DWORD m_dwThreadId;

private:
    static DWORD WINAPI threadEntry(LPVOID param);
    CSalThread(const CSalThread &);
    CSalThread &operator=(const CSalThread &);
};

#endif /* TARSK_SAL_CONCURRENCY_SALTHREADCOMMON_H */
