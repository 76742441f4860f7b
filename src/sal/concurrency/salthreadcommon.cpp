/*
 * The framework's thread class.
 */
#include "sal/concurrency/salthreadcommon.h"

#include "platform/dbgtrace.h"

volatile BYTE g_bSalStopAllThreads = 0;

CSalThread::CSalThread() : m_bStop(0), m_hThread(NULL), m_dwThreadId(0) {}

CSalThread::~CSalThread()
{
    if (m_hThread != NULL) CloseHandle(m_hThread);
}

DWORD WINAPI CSalThread::threadEntry(LPVOID param)
{
    SALTRACE(1, 64, "Thread entrypoint reached !");
    CSalThread *thread = (CSalThread *)param;
    thread->execute();
    return 0;
}

BOOL CSalThread::start()
{
    if (m_hThread != NULL) return FALSE;
    m_bStop = 0;
    m_hThread = CreateThread(NULL, 0, threadEntry, this, 0, &m_dwThreadId);
    return m_hThread != NULL ? TRUE : FALSE;
}

DWORD CSalThread::join(DWORD ms)
{
    if (m_hThread == NULL) return WAIT_FAILED;
    return WaitForSingleObject(m_hThread, ms);
}
