/*
 * File and directory wrappers: the system's file calls behind the os_ names, in the manner of the
 * standard stream functions but on native handles and wide paths, and the small file classes.
 * Every failure stores the system's error in the process-wide last error.
 */
#ifndef TARSK_PLATFORM_PLAT_FILE_H
#define TARSK_PLATFORM_PLAT_FILE_H

#include "sal/winapi.h"
#include "platform/plat_unicode.h"

/* The find record filled by os_wfindfirstfilter. */
struct OS_FIND_RECORD {
    DWORD reserved;     /* left untouched */
    DWORD size;         /* low word + (high word << 16) */
    DWORD attrib;       /* the system's attribute bits */
    DWORD time;         /* MS-DOS time of the creation time */
    DWORD date;         /* MS-DOS date of the creation time */
    WCHAR name[256];
};

HANDLE os_wfopen(LPCWSTR path, LPCWSTR mode);                /* NULL when not opened */
DWORD os_fread(void *buffer, DWORD count, HANDLE file);      /* bytes read; 0 on failure */
DWORD os_fwrite(const void *buffer, DWORD count, HANDLE file); /* bytes written; 0 on failure */
int os_fseek(HANDLE file, LONG offset, int origin);          /* 0 on success, else the error */
int os_fclose(HANDLE file);                                  /* 1 on success, else the error */
DWORD os_getFileSizeFromHandle(HANDLE file);
DWORD os_wGetFileSize(LPCWSTR path);                         /* 0 on failure */
int os_wremove(LPCWSTR path);                                /* non-zero on success */
int os_wfindfirstfilter(LPCWSTR pattern, OS_FIND_RECORD *record); /* 0 on success, -1 on failure */
int os_wfindnext(OS_FIND_RECORD *record);                    /* 0 on success, -1 at the end */
BOOL os_wfindclose(void);
/* Fills a find record from the system's find data. */
void os_fillFindRecord(OS_FIND_RECORD *record, const WIN32_FIND_DATAW *data);

/* The running program's folder: its module file name (at most MAX_PATH characters) cut at the last
 * backslash, into folder of capacity characters (cut and terminated). */
void os_getModuleFolder(WCHAR *folder, DWORD capacity);

/* The bounded formatters: count in characters (wide) or bytes (narrow). */
int os_snwprintf(WCHAR *dst, size_t count, const WCHAR *format, FMT_ARGS_DECL);
int os_snprintf(char *dst, size_t count, const char *format, FMT_ARGS_DECL);

class COSFile {
public:
    COSFile();
    explicit COSFile(LPCWSTR path);     /* opens it at once with mode "rb" */
    virtual ~COSFile();

    int Open(LPCWSTR path, LPCWSTR mode);
    void Close();
    DWORD Read(void *buffer, DWORD count);
    DWORD Write(const void *buffer, DWORD count);
    int Seek(LONG offset, int origin);
    DWORD GetSize();
    BOOL Flush();
    static int Remove(LPCWSTR path);
    HANDLE GetHandle() const { return m_hFile; }
    LPCWSTR GetPathName() const { return m_szPathName; }
    BOOL IsOpen() const { return m_hFile != NULL; }

protected:
    HANDLE m_hFile;
    WCHAR m_szPathName[MAX_PATH];
};

/* A COSFile with a write buffer. */
class COSBufferOutputFile : public COSFile {
public:
    COSBufferOutputFile();
    virtual ~COSBufferOutputFile();     /* writes what is held, flushes, frees, closes */
    int SetBufferSize(DWORD size);      /* 1 if the buffer was made */
    DWORD Write(const void *buffer, DWORD count);
    BOOL FlushBuffer();                 /* writes the held bytes and flushes the file */
    int Seek(LONG offset, int origin);  /* writes out what is held first */
    DWORD GetSize();                    /* writes out what is held first */

private:
    BYTE *m_pBuffer;
    DWORD m_dwBufferSize;
    DWORD m_dwHeld;
};

/* A COSFile with a read buffer. */
class COSBufferInputFile : public COSFile {
public:
    COSBufferInputFile();
    virtual ~COSBufferInputFile();      /* frees the buffer, closes */
    int SetBufferSize(DWORD size);      /* 1 if the buffer was made (always 1024 bytes) */
    int Open(LPCWSTR path, LPCWSTR mode); /* drops what is held */
    void Close();                       /* drops what is held */
    DWORD Read(void *buffer, DWORD count);
    int ReadByte();                     /* the next byte, or -1 at the end */
    int Seek(LONG offset, int origin);  /* drops what is held */

private:
    BYTE *m_pBuffer;
    DWORD m_dwBufferSize;
    DWORD m_dwPosition;
    DWORD m_dwHeld;
};

/* The process-wide buffered input file, made at start-up with a 1024-byte buffer. */
COSBufferInputFile *os_getBufferInputFile(void);

#endif /* TARSK_PLATFORM_PLAT_FILE_H */
