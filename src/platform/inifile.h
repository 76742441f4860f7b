/*
 * CIniFile: the read-only reader of the framework's INI files (8-bit text, wide file name).
 * Two ways of reading with different grammars: keyed lookup (getString/getBool/getInt), searched
 * from the file's start each time, and the one-pass enumeration (enumSections/enumKeys).
 */
#ifndef TARSK_PLATFORM_INIFILE_H
#define TARSK_PLATFORM_INIFILE_H

#include "sal/winapi.h"
#include "platform/plat_file.h"

class CIniFile;

/* Section callback: 0 stops the enumeration. */
typedef int (*IniSectionCallback)(void *context, CIniFile *ini, const char *section);
/* Key callback: the result is ignored. */
typedef int (*IniKeyCallback)(CIniFile *ini, const char *section, const char *key, const char *value);

#define INI_ENUM_BUFFER_SIZE 2048
#define INI_SECTION_NAME_SIZE 128
/* The enumeration's read-ahead: as large as the enumeration buffer, so that one file read serves the
 * refills of a whole buffer's worth of text (a refill takes only as many bytes as it dropped, often
 * one line's). It is a member, not heap memory: the reader is a stack local of its caller and takes
 * about 5.2 KiB with it (3.2 KiB without) of a CE thread's 64 KiB stack, where a keyed lookup puts a
 * 4096-byte chunk anyway. A larger one would save little; one read per 2 KiB is cheap already. */
#define INI_READ_AHEAD_SIZE 2048

class CIniFile {
public:
    CIniFile();
    virtual ~CIniFile();

    bool open(LPCWSTR fileName);      /* stores the name, opens, readies the enumeration buffer */
    bool open();                      /* opens the stored name in mode "rb" */
    void close();
    void setFileName(LPCWSTR fileName);
    LPCWSTR getFileName() const { return m_szFileName; }
    bool isOpen() const { return m_file.IsOpen() != FALSE; }

    bool getString(const char *section, const char *key, char *buffer, int size);
    bool getBool(const char *section, const char *key, int *value);
    bool getInt(const char *section, const char *key, int *value);

    bool enumSections(IniSectionCallback callback, void *context);
    bool enumKeys(const char *section, IniKeyCallback callback);

private:
    bool findSection(const char *section);
    bool findKey(const char *key, char *buffer, int size);
    int advance();                    /* one of the INI_ADVANCE_ results of inifile.cpp */
    int refill();                     /* the same, at the buffer's end or with a compaction pending */
    void startReading();              /* the file at its start, the read-ahead empty */
    int readText(char *buffer, int count);   /* file text through the read-ahead: bytes given */
    void callKey(IniKeyCallback callback, const char *key, const char *value);

    WCHAR m_szFileName[MAX_PATH];
    COSFile m_file;
    DWORD m_dwReserved;
    char m_buffer[INI_ENUM_BUFFER_SIZE];
    int m_nPosition;
    int m_nCount;
    char m_szSection[INI_SECTION_NAME_SIZE];
    bool m_bCompact;                  /* a compaction is pending */
    char m_readAhead[INI_READ_AHEAD_SIZE];   /* file text read but not yet taken by the enumeration */
    int m_nAheadPosition;             /* the next byte to take */
    int m_nAheadCount;                /* valid bytes in m_readAhead */
    bool m_bAheadEnded;               /* a read gave nothing: the file has ended */
};

/* The integer conversion of getInt. */
int ini_atoi(const char *text);

#endif /* TARSK_PLATFORM_INIFILE_H */
