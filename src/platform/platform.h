/*
 * The diagnostic log: levels, modules, the process-wide settings, the call-site macros, the writer
 * and its sinks, the debug settings read from debug.ini, and VLVERIFY.
 *
 * A call site tests the level (and the module bit) before it builds a record, so a message that is
 * not wanted costs one comparison:
 *     VLLOG(LOG_ERROR, TEXT("os_fclose(0x%x) failed, error %d\n"), h, err);
 *     VLLOGM(LOG_DEBUG, MODULE_PLATFORM, TEXT("..."), ...);
 */
#ifndef TARSK_PLATFORM_PLATFORM_H
#define TARSK_PLATFORM_PLATFORM_H

#include "sal/winapi.h"
#include "platform/plat_unicode.h"

class CIniFile;

/* Levels: the values of key "AppcoreDebug". There is no level 6, so trace passes every snapshot test. */
#define LOG_NONE 0
#define LOG_ERROR 1
#define LOG_WARNING 2
#define LOG_INFO 3
#define LOG_DEBUG 4
#define LOG_SNAPSHOT 5
#define LOG_TRACE 7

/* Modules: bits of the module mask (key "AppcoreDebugModules"). */
#define MODULE_ROOT 0x01
#define MODULE_TRAFFIC 0x02
#define MODULE_GPS 0x04
#define MODULE_UI 0x08
#define MODULE_SOUND 0x10
#define MODULE_PLATFORM 0x20
#define MODULE_DEVICELIB 0x40
#define MODULE_ALL 0xFFFF

/* The process-wide log settings. */
struct VLLogSettings {
    LONG level;               /* highest level written */
    DWORD moduleMask;         /* one bit per module */
    LONG debugPort;           /* "DebugPort" */
    LONG debugBaud;           /* "DebugBaud" */
    BOOL toFile;              /* "DebugToFile"; cleared by the writer when the file cannot be used */
    BOOL increment;           /* "Increment" */
    char fileName[260];       /* "DebugFile" */
    BOOL ascii;               /* "DebugToASCII": narrow text instead of UTF-16LE */
    BOOL console;             /* "DebugToConsole" */
    BOOL debugPortOn;         /* "DebugOverDebugPort" */
    HANDLE debugPortHandle;   /* opened by the serial-link code; the log only writes to it */
};
extern VLLogSettings g_vlLogSettings;

/* One log record, built on the caller's stack. */
struct VLLogRecord {
    const char *source;       /* the source path as the build records it */
    const char *levelWord;
    const char *module;       /* "MODULE_x" or NULL */
    int line;
    DWORD tick;
    VLLogRecord(const char *s, const char *w, const char *m, int l)
        : source(s), levelWord(w), module(m), line(l), tick(GetTickCount()) {}
};

/* The word a direct call shows for a level constant. */
#define VL_LEVEL_WORD(lvl)                                                                       \
    ((lvl) == LOG_ERROR ? "ERROR" : (lvl) == LOG_WARNING ? "WARNING" :                              \
     (lvl) == LOG_INFO ? "INFO" : (lvl) == LOG_DEBUG ? "DEBUG" :                                    \
     (lvl) == LOG_SNAPSHOT ? "SNAPSHOT" : "TRACE")

#define VL_LEVEL_ON(lvl) (g_vlLogSettings.level >= (lvl))
#define VL_MODULE_ON(module) ((g_vlLogSettings.moduleMask & (module)) > 0)

#define VLLOG(lvl, ...)                                                                            \
    do {                                                                                           \
        if (VL_LEVEL_ON(lvl))                                                                      \
            vl_log(VLLogRecord(__FILE__, VL_LEVEL_WORD(lvl), NULL, __LINE__), __VA_ARGS__);        \
    } while (0)

#define VLLOGM(lvl, module, ...)                                                                   \
    do {                                                                                           \
        if (VL_LEVEL_ON(lvl) && VL_MODULE_ON(module))                                              \
            vl_log(VLLogRecord(__FILE__, VL_LEVEL_WORD(lvl), #module, __LINE__), __VA_ARGS__);     \
    } while (0)

/* Logs "VLVERIFY(condition)" at ERROR and ends the process with exit code 1. */
#define VLVERIFY(cond)                                                                             \
    do {                                                                                           \
        if (!(cond)) vl_verifyFailed(#cond, __FILE__, __LINE__);                                   \
    } while (0)

#define VL_LINE_SIZE 1280
#define VL_LINE_CUT 1278

/* Composes a log line: prefix, message, cut at 1278, a line feed at the end. Returns its length. */
int vl_composeLine(WCHAR line[VL_LINE_SIZE], const VLLogRecord &rec, const WCHAR *format, const FmtArgList &args);
/* The log call: composes the line and hands it to the writer. Filters nothing itself. */
void vl_log(const VLLogRecord &rec, const WCHAR *format, FMT_ARGS_DECL);
/* The writer: formats once more and copies to every enabled sink, under the log lock. */
void vl_write(const WCHAR *format, FMT_ARGS_DECL);
/* Closes the log file; the next message opens it again while file logging is on. */
void vl_closeLogFile(void);
/* The narrow print: a narrow format widened and handed to the writer with the same arguments. */
void vl_printA(const char *format, FMT_ARGS_DECL);
/* The level-indexed log call handed to the device library: tests the level and module bit 0x40. */
void vl_logLevel(const char *source, int line, int level, const WCHAR *format, FMT_ARGS_DECL);
/* The memory snapshot: the memory table through the narrow print. */
void vl_memorySnapshot(const char *label);
/* What VLVERIFY calls on a false condition; does not return. */
void vl_verifyFailed(const char *condition, const char *source, int line);

/* The source and line of the last failed VLVERIFY, and its flag. */
extern const char *g_vlVerifySource;
extern int g_vlVerifyLine;
extern BOOL g_vlVerifyFailed;

/* The process-wide last error of the platform layer. */
DWORD os_getLastError(void);
void os_setLastError(DWORD error);

/* debug.ini: finds it (external card, program folder, root, internal flash) and opens it. */
int OpenDebugIniFile(CIniFile *iniFile);
/* Reads the log settings of a section. 1 on success, 0 when iniFile is null. */
int ReadDebugIniFileDbgSettings(CIniFile *iniFile, const char *section);

/* The ring buffer of the last text written (for a crash report). */
const WCHAR *vl_ringBuffer(int *position, BOOL *wrapped);

#endif /* TARSK_PLATFORM_PLATFORM_H */
