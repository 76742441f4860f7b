/*
 * What the application leaves when an exception escapes: one "Exception:" line in the diagnostic
 * log and the empty marker "upgrade.winceimg.BAD.log" beside the program. Both guards let the
 * exception go on, so a fault in the window procedure is reported twice and then ends the process.
 */
#include "tarskupgrade/tarskupgrade.h"
#include "platform/plat_file.h"
#include "platform/plat_unicode.h"
#include "platform/platform.h"

#define REPORT_CHARS 256

int ReportException(DWORD code, EXCEPTION_POINTERS *pointers)
{
    const EXCEPTION_RECORD *record = pointers->ExceptionRecord;
    WCHAR report[REPORT_CHARS];
    uni_snwprintf(report, REPORT_CHARS,
                  TEXT("ErrorCode: 0x%x\r\nExceptionCode: 0x%x\r\nExceptionAddress: 0x%x\r\n, NumberParameters: 0x%x\r\n"),
                  (unsigned int)code, (unsigned int)record->ExceptionCode, TARSK_HANDLE_TEXT(record->ExceptionAddress),
                  (unsigned int)record->NumberParameters);
    VLLOG(LOG_ERROR, TEXT("Exception: %ls\r\n"), report);

    WCHAR folder[MAX_PATH];
    os_getModuleFolder(folder, MAX_PATH);
    WCHAR marker[REPORT_CHARS];
    uni_snwprintf(marker, REPORT_CHARS, TEXT("%s%s"), folder, TARSK_BAD_MARKER_NAME);
    /* Created (or emptied) and closed at once; the close is issued also when the open failed. */
    HANDLE file = os_wfopen(marker, TEXT("w"));
    os_fclose(file);
    return EXCEPTION_CONTINUE_SEARCH;
}

int MainWndProcExceptionFilter(EXCEPTION_POINTERS *pointers)
{
    return ReportException(pointers->ExceptionRecord->ExceptionCode, pointers);
}

int WinMainExceptionFilter(EXCEPTION_POINTERS *pointers)
{
    return ReportException(pointers->ExceptionRecord->ExceptionCode, pointers);
}
