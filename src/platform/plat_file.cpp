/*
 * File and directory wrappers: the os_ functions on the system's file handles, the find search,
 * the bounded formatters and the file classes.
 *
 * Every failure stores GetLastError() in the platform layer's last error (os_setLastError), with
 * one exception: os_wfopen leaves it alone when the file simply cannot be opened.
 */
#include "platform/plat_file.h"

#include "platform/plat_alloc.h"
#include "platform/platform.h"

#include <string.h>

/* The one find search of the process. */
static HANDLE s_hFindFile = INVALID_HANDLE_VALUE;

/* The wide formatter's scratch buffer, shared by the whole process (one formatting thread at a time). */
#define OS_FORMAT_SCRATCH 1024
static WCHAR s_wszFormatScratch[OS_FORMAT_SCRATCH];

/* ------------------------------------------------------------------------------- stream calls */

/* Mode text: the first matching row wins. */
HANDLE os_wfopen(LPCWSTR path, LPCWSTR mode) {
    DWORD access = GENERIC_READ | GENERIC_WRITE;
    DWORD creation;
    BOOL append = FALSE;
    if (mode == NULL) mode = TEXT("");

    if (uni_wcscmp(mode, TEXT("w")) == 0) {
        creation = CREATE_ALWAYS;
    } else if (uni_wcsncmp(mode, TEXT("wb"), 2) == 0) {
        creation = CREATE_ALWAYS;
    } else if (uni_wcscmp(mode, TEXT("a")) == 0) {
        creation = OPEN_ALWAYS;
        append = TRUE;
    } else if (uni_wcsncmp(mode, TEXT("r+"), 2) == 0) {
        creation = OPEN_EXISTING;
    } else if (uni_wcsncmp(mode, TEXT("w+"), 2) == 0) {
        creation = CREATE_ALWAYS;
    } else if (uni_wcsncmp(mode, TEXT("a+"), 2) == 0) {
        creation = OPEN_ALWAYS;
        append = TRUE;
    } else {
        access = GENERIC_READ;
        creation = OPEN_EXISTING;
    }

    HANDLE hFile = CreateFileW(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE, NULL, creation,
                               FILE_ATTRIBUTE_NORMAL, NULL);
    if (hFile == INVALID_HANDLE_VALUE) return NULL;

    if (append) {
        if (SetFilePointer(hFile, 0, NULL, FILE_END) == INVALID_SET_FILE_POINTER) {
            DWORD dwError = GetLastError();
            if (dwError != NO_ERROR) {
                os_setLastError(dwError);
                VLLOG(LOG_ERROR, TEXT("os_wfopen(%ls, %ls): fopen() failed, error %d\n"), path, mode,
                      os_getLastError());
                CloseHandle(hFile);
                return NULL;
            }
        }
    }
    return hFile;
}

DWORD os_fread(void *buffer, DWORD count, HANDLE file) {
    DWORD dwRead = 0;
    if (!ReadFile(file, buffer, count, &dwRead, NULL)) {
        DWORD dwError = GetLastError();
        os_setLastError(dwError);
        VLLOG(LOG_ERROR, TEXT("os_fread(0x%p, %lu, 0x%lx) failed, error %lu\n"), (const void *)buffer, count,
              TARSK_HANDLE_TEXT(file), dwError);
        return 0;
    }
    return dwRead;
}

DWORD os_fwrite(const void *buffer, DWORD count, HANDLE file) {
    DWORD dwWritten = 0;
    if (!WriteFile(file, buffer, count, &dwWritten, NULL)) {
        DWORD dwError = GetLastError();
        os_setLastError(dwError);
        VLLOG(LOG_ERROR, TEXT("os_fwrite(0x%x, %d, 0x%x) failed, error %d\n"), TARSK_HANDLE_TEXT(buffer),
              count, TARSK_HANDLE_TEXT(file), dwError);
        return 0;
    }
    return dwWritten;
}

int os_fseek(HANDLE file, LONG offset, int origin) {
    DWORD dwMethod;
    switch (origin) {
    case 1: dwMethod = FILE_CURRENT; break;
    case 2: dwMethod = FILE_END; break;
    default: dwMethod = FILE_BEGIN; break;
    }
    if (SetFilePointer(file, offset, NULL, dwMethod) == INVALID_SET_FILE_POINTER) {
        DWORD dwError = GetLastError();
        os_setLastError(dwError);
        VLLOG(LOG_ERROR, TEXT("os_fseek(0x%x, 0x%x, %d) returned %d, error %d\n"), TARSK_HANDLE_TEXT(file),
              (DWORD)offset, origin, -1, dwError);
        return (int)dwError;
    }
    return 0;
}

int os_fclose(HANDLE file) {
    if (CloseHandle(file)) return 1;
    DWORD dwError = GetLastError();
    os_setLastError(dwError);
    if (dwError == ERROR_INVALID_HANDLE) {
        VLLOGM(LOG_DEBUG, MODULE_PLATFORM, TEXT("os_fclose(0x%x) failed, error %d (the handle is invalid)\n"),
               TARSK_HANDLE_TEXT(file), dwError);
    } else {
        VLLOGM(LOG_ERROR, MODULE_PLATFORM, TEXT("os_fclose(0x%x) failed, error %d\n"), TARSK_HANDLE_TEXT(file),
               dwError);
    }
    return (int)dwError;
}

DWORD os_getFileSizeFromHandle(HANDLE file) {
    DWORD dwSize = GetFileSize(file, NULL);
    if (dwSize == INVALID_FILE_SIZE) {
        DWORD dwError = GetLastError();
        if (dwError != NO_ERROR) os_setLastError(dwError);
    }
    return dwSize;
}

DWORD os_wGetFileSize(LPCWSTR path) {
    HANDLE hFile = os_wfopen(path, TEXT(""));
    DWORD dwSize = os_getFileSizeFromHandle(hFile);
    DWORD dwError = os_getLastError();
    if (hFile != NULL) os_fclose(hFile);
    if (dwSize == INVALID_FILE_SIZE) {
        /* A missing file reaches here as the null handle: a minor matter, logged at DEBUG. */
        if (dwError == ERROR_INVALID_HANDLE) {
            VLLOGM(LOG_DEBUG, MODULE_PLATFORM,
                   TEXT("os_wGetFileSize(%ls): os_getFileSizeFromHandle(0x%x) failed, error %d\n"), path,
                   TARSK_HANDLE_TEXT(hFile), dwError);
        } else {
            VLLOG(LOG_ERROR, TEXT("os_wGetFileSize(%ls): os_getFileSizeFromHandle(0x%x) failed, error %d\n"),
                  path, TARSK_HANDLE_TEXT(hFile), dwError);
        }
        return 0;
    }
    return dwSize;
}

int os_wremove(LPCWSTR path) {
    if (DeleteFileW(path)) return 1;
    os_setLastError(GetLastError());
    return 0;
}

/* ----------------------------------------------------------------------------------- find */

void os_fillFindRecord(OS_FIND_RECORD *record, const WIN32_FIND_DATAW *data) {
    SYSTEMTIME st;
    if (!FileTimeToSystemTime(&data->ftCreationTime, &st)) memset(&st, 0, sizeof st);
    /* The high word goes in at bit 16, not 32: files here stay far below 4 GB, so it is always 0. */
    record->size = data->nFileSizeLow + (data->nFileSizeHigh << 16);
    record->attrib = data->dwFileAttributes;
    record->time = ((DWORD)st.wHour << 11) | ((DWORD)st.wMinute << 5) | ((DWORD)st.wSecond / 2);
    record->date = ((DWORD)(((int)st.wYear - 1980) & 0x7F) << 9) | ((DWORD)st.wMonth << 5) | (DWORD)st.wDay;
    uni_wcsncpy0(record->name, data->cFileName, sizeof record->name / sizeof record->name[0]);
}

int os_wfindfirstfilter(LPCWSTR pattern, OS_FIND_RECORD *record) {
    if (pattern == NULL) pattern = TEXT("");
    if (s_hFindFile != INVALID_HANDLE_VALUE) {
        /* Go on all the same: the old search is dropped, not closed. */
        char szMessage[MAX_PATH + 64];
        os_snprintf(szMessage, sizeof szMessage, "os_wfindfirstfilter(%ls): ERROR File not closed from previous use",
                    pattern);
        vl_printA("%hs\n", szMessage);
    }
    WCHAR szPattern[MAX_PATH];
    uni_wcsncpy0(szPattern, pattern, MAX_PATH);

    WIN32_FIND_DATAW findData;
    s_hFindFile = FindFirstFileW(szPattern, &findData);
    if (s_hFindFile == INVALID_HANDLE_VALUE) {
        os_setLastError(GetLastError());
        if (record != NULL) record->name[0] = 0;
        return -1;
    }
    if (record != NULL) os_fillFindRecord(record, &findData);
    return 0;
}

/* The next entry of the open search; -1 at the end (last error 18) or without a search. */
int os_wfindnext(OS_FIND_RECORD *record) {
    WIN32_FIND_DATAW findData;
    if (!FindNextFileW(s_hFindFile, &findData)) {
        os_setLastError(GetLastError());
        if (record != NULL) record->name[0] = 0;
        return -1;
    }
    if (record != NULL) os_fillFindRecord(record, &findData);
    return 0;
}

BOOL os_wfindclose(void) {
    BOOL bResult = FindClose(s_hFindFile);
    if (!bResult) os_setLastError(GetLastError());
    s_hFindFile = INVALID_HANDLE_VALUE;
    return bResult;
}

/* ------------------------------------------------------------------------------ formatters */

/* Formats into the shared scratch buffer (so at most 1023 characters, the formatter giving -1 for
   more), then copies at most count - 1 characters and terminates. */
int os_snwprintf(WCHAR *dst, size_t count, const WCHAR *format, FMT_ARGS_DEF) {
    int result = fmt_formatW(s_wszFormatScratch, OS_FORMAT_SCRATCH, format ? format : TEXT(""),
                             FmtArgList(FMT_ARGS_PASS));
    if (dst != NULL && count > 0) uni_wcsncpy0(dst, s_wszFormatScratch, count);
    return result;
}

/* The narrow one has no bound on what it formats. Rather than keep a scratch buffer that a long
   text could overrun, it formats straight into the destination, cut at count - 1 bytes: the same
   text as formatting in full and copying. The result is the full length, as unbounded formatting
   gives it. */
int os_snprintf(char *dst, size_t count, const char *format, FMT_ARGS_DEF) {
    if (format == NULL) format = "";
    FmtArgList args(FMT_ARGS_PASS);
    int result = fmt_formatA(dst, dst != NULL ? count : 0, format, args);
    if (result < 0) result = (int)fmt_lengthA(format, args);
    return result;
}

/* --------------------------------------------------------------------------------- COSFile */

COSFile::COSFile() : m_hFile(NULL) { m_szPathName[0] = 0; }

COSFile::COSFile(LPCWSTR path) : m_hFile(NULL) {
    m_szPathName[0] = 0;
    Open(path, TEXT("rb"));
}

COSFile::~COSFile() { Close(); }

int COSFile::Open(LPCWSTR path, LPCWSTR mode) {
    Close();
    if (path != NULL) uni_wcsncpy0(m_szPathName, path, MAX_PATH);
    else m_szPathName[0] = 0;
    m_hFile = os_wfopen(path, mode);
    return m_hFile != NULL ? 1 : 0;
}

void COSFile::Close() {
    if (m_hFile != NULL) {
        os_fclose(m_hFile);
        m_hFile = NULL;
    }
}

DWORD COSFile::Read(void *buffer, DWORD count) { return os_fread(buffer, count, m_hFile); }

DWORD COSFile::Write(const void *buffer, DWORD count) { return os_fwrite(buffer, count, m_hFile); }

int COSFile::Seek(LONG offset, int origin) { return os_fseek(m_hFile, offset, origin); }

DWORD COSFile::GetSize() { return os_getFileSizeFromHandle(m_hFile); }

BOOL COSFile::Flush() {
    if (FlushFileBuffers(m_hFile)) return TRUE;
    os_setLastError(GetLastError());
    return FALSE;
}

int COSFile::Remove(LPCWSTR path) {
    if (path == NULL) return 0;
    if (DeleteFileW(path)) return 1;
    DWORD dwError = GetLastError();
    os_setLastError(dwError);
    VLLOG(LOG_ERROR, TEXT("COSFile::Remove(%ls): DeleteFile() failed, error %d"), path, dwError);
    return 0;
}

/* ---------------------------------------------------------------------- COSBufferOutputFile */

COSBufferOutputFile::COSBufferOutputFile() : m_pBuffer(NULL), m_dwBufferSize(0), m_dwHeld(0) {}

COSBufferOutputFile::~COSBufferOutputFile() {
    FlushBuffer();
    if (m_pBuffer != NULL) os_free(m_pBuffer);
    m_pBuffer = NULL;
    Close();
}

/* Writes out what the old buffer holds, then makes a new one. Without a buffer writes go straight
   to the file. */
int COSBufferOutputFile::SetBufferSize(DWORD size) {
    if (m_dwHeld > 0) FlushBuffer();
    if (m_pBuffer != NULL) os_free(m_pBuffer);
    m_pBuffer = NULL;
    m_dwBufferSize = 0;
    m_dwHeld = 0;
    if (size == 0) return 0;
    m_pBuffer = (BYTE *)os_malloc(size);
    if (m_pBuffer == NULL) {
        VLLOG(LOG_ERROR, TEXT("COSBufferOutputFile::SetBufferSize(%d): os_malloc() failed"), size);
        return 0;
    }
    m_dwBufferSize = size;
    return 1;
}

/* Returns the bytes taken (all of them, or 0 when writing out the buffer failed). */
DWORD COSBufferOutputFile::Write(const void *buffer, DWORD count) {
    if (m_pBuffer == NULL) return COSFile::Write(buffer, count);
    if (m_dwHeld + count > m_dwBufferSize && m_dwHeld > 0) {
        if (!FlushBuffer()) return 0;
    }
    if (count >= m_dwBufferSize) return COSFile::Write(buffer, count);
    memcpy(m_pBuffer + m_dwHeld, buffer, count);
    m_dwHeld += count;
    return count;
}

BOOL COSBufferOutputFile::FlushBuffer() {
    BOOL bOk = TRUE;
    if (m_dwHeld > 0) {
        if (os_fwrite(m_pBuffer, m_dwHeld, m_hFile) != m_dwHeld) bOk = FALSE;
    }
    if (m_hFile != NULL && !Flush()) bOk = FALSE;
    m_dwHeld = 0;
    return bOk;
}

int COSBufferOutputFile::Seek(LONG offset, int origin) {
    FlushBuffer();
    return COSFile::Seek(offset, origin);
}

DWORD COSBufferOutputFile::GetSize() {
    FlushBuffer();
    return COSFile::GetSize();
}

/* ----------------------------------------------------------------------- COSBufferInputFile */

#define OS_INPUT_BUFFER_SIZE 1024

COSBufferInputFile::COSBufferInputFile()
    : m_pBuffer(NULL), m_dwBufferSize(0), m_dwPosition(0), m_dwHeld(0) {}

COSBufferInputFile::~COSBufferInputFile() {
    if (m_pBuffer != NULL) os_free(m_pBuffer);
    m_pBuffer = NULL;
    Close();
}

/* The size asked for is not used: the buffer is always 1024 bytes. */
int COSBufferInputFile::SetBufferSize(DWORD size) {
    (void)size;
    if (m_pBuffer != NULL) os_free(m_pBuffer);
    m_dwBufferSize = OS_INPUT_BUFFER_SIZE;
    m_dwHeld = 0;
    m_dwPosition = 0;
    m_pBuffer = (BYTE *)os_malloc(OS_INPUT_BUFFER_SIZE);
    if (m_pBuffer == NULL) {
        VLLOG(LOG_ERROR, TEXT("COSBufferInputFile::SetBufferSize(%d): os_malloc() failed"), OS_INPUT_BUFFER_SIZE);
        return 0;
    }
    return 1;
}

int COSBufferInputFile::Open(LPCWSTR path, LPCWSTR mode) {
    m_dwHeld = 0;
    m_dwPosition = 0;
    return COSFile::Open(path, mode);
}

void COSBufferInputFile::Close() {
    m_dwHeld = 0;
    m_dwPosition = 0;
    COSFile::Close();
}

/* Copies from the held bytes, refilling the buffer as needed; a request at least as large as the
   buffer reads the rest straight from the file. Returns the bytes copied (fewer at the end). */
DWORD COSBufferInputFile::Read(void *buffer, DWORD count) {
    if (m_pBuffer == NULL) return COSFile::Read(buffer, count);
    BYTE *pOut = (BYTE *)buffer;
    DWORD dwDone = 0;
    while (dwDone < count) {
        if (m_dwPosition < m_dwHeld) {
            DWORD dwTake = m_dwHeld - m_dwPosition;
            if (dwTake > count - dwDone) dwTake = count - dwDone;
            memcpy(pOut + dwDone, m_pBuffer + m_dwPosition, dwTake);
            m_dwPosition += dwTake;
            dwDone += dwTake;
            continue;
        }
        if (count - dwDone >= m_dwBufferSize) {
            DWORD dwRead = COSFile::Read(pOut + dwDone, count - dwDone);
            dwDone += dwRead;
            break;
        }
        m_dwPosition = 0;
        m_dwHeld = COSFile::Read(m_pBuffer, m_dwBufferSize);
        if (m_dwHeld == 0) break;
    }
    return dwDone;
}

int COSBufferInputFile::ReadByte() {
    BYTE b;
    return Read(&b, 1) == 1 ? (int)b : -1;
}

/* The file stands past the held bytes that were not yet taken; a move from the current position
   counts from what the caller has read. */
int COSBufferInputFile::Seek(LONG offset, int origin) {
    if (origin == 1) offset -= (LONG)(m_dwHeld - m_dwPosition);
    m_dwHeld = 0;
    m_dwPosition = 0;
    return COSFile::Seek(offset, origin);
}

/* The process-wide buffered input file. Its 1024-byte buffer is made on first use rather than in a
   static constructor, so that the allocator is never entered before the program starts. */
static COSBufferInputFile s_bufferInputFile;
static BOOL s_bBufferInputFileReady = FALSE;

COSBufferInputFile *os_getBufferInputFile(void) {
    if (!s_bBufferInputFileReady) s_bBufferInputFileReady = s_bufferInputFile.SetBufferSize(OS_INPUT_BUFFER_SIZE);
    return &s_bufferInputFile;
}

void os_getModuleFolder(WCHAR *folder, DWORD capacity) {
    WCHAR path[MAX_PATH];
    path[0] = 0;
    GetModuleFileNameW(NULL, path, MAX_PATH);
    path[MAX_PATH - 1] = 0;
    WCHAR *slash = (WCHAR *)uni_wcsrchr(path, TEXT('\\'));
    if (slash != NULL) *slash = 0;
    uni_wcsncpy0(folder, path, capacity);
}
