/*
 * The diagnostic log: line composition, the writer and its sinks, debug.ini, VLVERIFY.
 */
#include "platform/platform.h"
#include "sal/concurrency/lazylock.h"

#include "platform/inifile.h"
#include "platform/plat_alloc.h"
#include "platform/plat_file.h"
#include "platform/registry.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

VLLogSettings g_vlLogSettings = {
    LOG_WARNING,   /* level */
    0xFFFF,        /* module mask */
    2,             /* debug port */
    115200,        /* debug baud */
    FALSE, FALSE, "", FALSE, FALSE, FALSE,
    NULL           /* debug-port handle */
};

const char *g_vlVerifySource = NULL;
int g_vlVerifyLine = 0;
BOOL g_vlVerifyFailed = FALSE;

static DWORD g_dwLastError = 0;

DWORD os_getLastError(void) { return g_dwLastError; }
void os_setLastError(DWORD error) { g_dwLastError = error; }

/* ------------------------------------------------------------------------------ line composer */

#define VL_WRITE_SIZE 1024

/* The file name of a source path: what follows its last separator. The device build records
 * paths with '\'; the workstation build with '/', so both count. */
static const char *vl_baseName(const char *path) {
    const char *base = path ? path : "";
    for (const char *p = base; *p; ++p)
        if (*p == '\\' || *p == '/') base = p + 1;
    return base;
}

int vl_composeLine(WCHAR line[VL_LINE_SIZE], const VLLogRecord &rec, const WCHAR *format, const FmtArgList &args) {
    const char *module = rec.module;
    if (module && strncmp(module, "MODULE_", 7) == 0) module += 7;
    const char *file = vl_baseName(rec.source);

    int prefix;
    if (module)
        prefix = fmt_formatW(line, VL_LINE_SIZE, TEXT("%hs(%d):, %u, %hs-%hs, "),
                             FmtArgList(file, rec.line, rec.tick, module, rec.levelWord));
    else
        prefix = fmt_formatW(line, VL_LINE_SIZE, TEXT("%hs(%d):, %u, %hs, "),
                             FmtArgList(file, rec.line, rec.tick, rec.levelWord));

    int length;
    if (prefix < 0 || prefix >= VL_LINE_CUT) {
        length = VL_LINE_CUT;   /* a prefix that fills the line */
    } else {
        int message = fmt_formatW(line + prefix, (size_t)(VL_LINE_SIZE - prefix), format ? format : TEXT(""), args);
        length = message < 0 ? VL_LINE_CUT : prefix + message;
        if (length > VL_LINE_CUT) length = VL_LINE_CUT;
    }
    if (length == 0 || line[length - 1] != TEXT('\n')) line[length++] = TEXT('\n');
    line[length] = 0;
    return length;
}

void vl_log(const VLLogRecord &rec, const WCHAR *format, FMT_ARGS_DEF) {
    WCHAR line[VL_LINE_SIZE];
    vl_composeLine(line, rec, format, FmtArgList(FMT_ARGS_PASS));
    /* The writer formats the line once more: deliberate, a '%' that survived is read again. */
    vl_write(line);
}

/* ------------------------------------------------------------------------------------ writer */

static SalLazyLock g_logLock;

static WCHAR g_ring[2048];
static int g_ringPosition = 0;
static BOOL g_ringWrapped = FALSE;
static HANDLE g_logFile = NULL;

static void vl_enterLock(void) { sal_lazyLockEnter(&g_logLock); }

static HANDLE vl_openA(const char *name, const WCHAR *mode) {
    WCHAR wname[MAX_PATH];
    uni_widen(wname, MAX_PATH, name);
    return os_wfopen(wname, mode);
}

static BOOL vl_existsA(const char *name) {
    HANDLE h = vl_openA(name, TEXT("rt"));
    if (h == NULL) return FALSE;
    CloseHandle(h);
    return TRUE;
}

/* Opens the log file. Returns FALSE when this message must reach no sink at all. */
static BOOL vl_openLogFile(void) {
    VLLogSettings &s = g_vlLogSettings;
    if (s.increment) {
        char name[MAX_PATH];
        strncpy(name, s.fileName, MAX_PATH - 1);
        name[MAX_PATH - 1] = 0;
        if (vl_existsA(name)) {
            size_t length = strlen(name);
            if (length > 254) {
                s.toFile = FALSE;
                return FALSE;
            }
            /* debug.txt becomes debug00.txt, then debug01.txt ... debug99.txt. A name without a
             * dot gets its number at the end. */
            char *dot = strrchr(name, '.');
            char ext[5] = "";
            size_t stem = dot ? (size_t)(dot - name) : length;
            if (dot) {
                strncpy(ext, dot, 4);
                ext[4] = 0;
            }
            BOOL found = FALSE;
            for (int count = 0; count <= 99; ++count) {
                fmt_formatA(name + stem, MAX_PATH - stem, "%02d%s", FmtArgList(count, (const char *)ext));
                if (!vl_existsA(name)) {
                    found = TRUE;
                    break;
                }
            }
            if (!found) {
                s.toFile = FALSE;
                return TRUE;
            }
        }
        g_logFile = vl_openA(name, TEXT("wbc"));
        if (g_logFile == NULL) {
            os_setLastError(GetLastError());
            s.toFile = FALSE;
        }
    } else {
        g_logFile = vl_openA(s.fileName, TEXT("wbc"));
        if (g_logFile == NULL) os_setLastError(GetLastError());   /* tried again with the next message */
    }
    if (g_logFile != NULL && !s.ascii) {
        static const BYTE bom[2] = {0xFF, 0xFE};
        DWORD written = 0;
        if (!WriteFile(g_logFile, bom, 2, &written, NULL)) os_setLastError(GetLastError());
        FlushFileBuffers(g_logFile);
    }
    return TRUE;
}

static void vl_ringAppend(const WCHAR *text, int length) {
    for (int i = 0; i < length; ++i) {
        g_ring[g_ringPosition++] = text[i];
        if (g_ringPosition == 2047) {
            g_ring[2047] = 0;
            g_ringPosition = 0;
            g_ringWrapped = TRUE;
        }
    }
    g_ring[g_ringPosition] = 0;
}

void vl_write(const WCHAR *format, FMT_ARGS_DEF) {
    vl_enterLock();
    VLLogSettings &s = g_vlLogSettings;

    if (s.toFile && g_logFile == NULL) {
        if (!vl_openLogFile()) {
            sal_lazyLockLeave(&g_logLock);
            return;
        }
    }

    WCHAR text[VL_WRITE_SIZE];
    fmt_formatW(text, VL_WRITE_SIZE, format ? format : TEXT(""), FmtArgList(FMT_ARGS_PASS));
    WCHAR out[VL_WRITE_SIZE];
    int length = 0;
    for (const WCHAR *p = text; *p; ++p) {
        if (*p == TEXT('\n')) {
            if (length + 2 > VL_WRITE_SIZE - 1) break;
            out[length++] = TEXT('\r');
        } else if (length + 1 > VL_WRITE_SIZE - 1) {
            break;
        }
        out[length++] = *p;
    }
    out[length] = 0;

    vl_ringAppend(out, length);

    if (s.toFile && g_logFile != NULL) {
        DWORD written = 0;
        BOOL ok;
        if (s.ascii) {
            char narrow[VL_WRITE_SIZE];
            int n = fmt_formatA(narrow, sizeof(narrow), "%ls", FmtArgList(out));
            if (n < 0) n = (int)strlen(narrow);
            ok = WriteFile(g_logFile, narrow, (DWORD)n, &written, NULL);
        } else {
            ok = WriteFile(g_logFile, out, (DWORD)(length * sizeof(WCHAR)), &written, NULL);
        }
        if (!ok) os_setLastError(GetLastError());
        FlushFileBuffers(g_logFile);
    }

    BOOL port = s.debugPortOn && s.debugPortHandle != NULL;
    if (length > 0 && (s.console || port)) {
        char narrow[VL_WRITE_SIZE];
        int n = fmt_formatA(narrow, sizeof(narrow), "%ls", FmtArgList(out));
        if (n < 0) n = (int)strlen(narrow);
        if (s.console) {
            fputs(narrow, stdout);
            fflush(stdout);
        }
        if (port) {
            DWORD written = 0;
            if (!WriteFile(s.debugPortHandle, narrow, (DWORD)n, &written, NULL)) os_setLastError(GetLastError());
        }
    }
    sal_lazyLockLeave(&g_logLock);
}

void vl_closeLogFile(void) {
    vl_enterLock();
    if (g_logFile != NULL) CloseHandle(g_logFile);
    g_logFile = NULL;
    sal_lazyLockLeave(&g_logLock);
}

const WCHAR *vl_ringBuffer(int *position, BOOL *wrapped) {
    if (position) *position = g_ringPosition;
    if (wrapped) *wrapped = g_ringWrapped;
    return g_ring;
}

/* ------------------------------------------------------------------------------ narrow print */

/* Widens a narrow format, keeping each conversion's meaning: a narrow %s/%c becomes %hs/%hc and a
 * narrow %S/%C (wide) becomes %ls/%lc. */
static void vl_widenFormat(WCHAR *dst, size_t cap, const char *format) {
    size_t o = 0;
    const unsigned char *p = (const unsigned char *)format;
    while (*p && o + 3 < cap) {
        if (*p != '%') {
            dst[o++] = (WCHAR)*p++;
            continue;
        }
        dst[o++] = (WCHAR)*p++;
        if (*p == '%') {
            dst[o++] = (WCHAR)*p++;
            continue;
        }
        bool sized = false;
        while (*p && strchr("-+ #0123456789.*hlI", *p) && o + 3 < cap) {
            if (*p == 'h' || *p == 'l' || *p == 'I') sized = true;
            dst[o++] = (WCHAR)*p++;
        }
        if (!*p || o + 3 >= cap) break;
        if ((*p == 's' || *p == 'c') && !sized) {
            dst[o++] = TEXT('h');
            dst[o++] = (WCHAR)*p++;
        } else if (*p == 'S' || *p == 'C') {
            dst[o++] = TEXT('l');
            dst[o++] = (WCHAR)(*p == 'S' ? 's' : 'c');
            ++p;
        } else {
            dst[o++] = (WCHAR)*p++;
        }
    }
    dst[o] = 0;
}

void vl_printA(const char *format, FMT_ARGS_DEF) {
    WCHAR wide[VL_WRITE_SIZE];
    vl_widenFormat(wide, VL_WRITE_SIZE, format ? format : "");
    vl_write(wide, FMT_ARGS_PASS);
}

/* ---------------------------------------------------------------------- level-indexed log call */

void vl_logLevel(const char *source, int line, int level, const WCHAR *format, FMT_ARGS_DEF) {
    static const char *const words[] = {"NONE", "ERROR", "WARNING", "INFO", "DEBUG", "TRACE"};
    if (!(g_vlLogSettings.level >= level && VL_MODULE_ON(MODULE_DEVICELIB))) return;
    int index = level < 0 ? 0 : (level > 5 ? 5 : level);
    vl_log(VLLogRecord(source, words[index], NULL, line), format, FMT_ARGS_PASS);
}

/* --------------------------------------------------------------------------- memory snapshot */

void vl_memorySnapshot(const char *label) {
    MEMORYSTATUS ms;
    memset(&ms, 0, sizeof(ms));
    ms.dwLength = sizeof(ms);
    GlobalMemoryStatus(&ms);
    DWORD usedPhys = (DWORD)(ms.dwTotalPhys - ms.dwAvailPhys);
    DWORD usedVirt = (DWORD)(ms.dwTotalVirtual - ms.dwAvailVirtual);
    /* The shared memory heap and the image (map) cache of the memory organisation. */
    DWORD heapSize = 0, heapFree = 0, heapUse = 0;
    os_getSharedMemHeapFigures(&heapSize, &heapFree, &heapUse);
    LONG imageCache = wince_getMapCacheSize();
    const double mb = 1.0 / 1048576.0;
    vl_printA("\n        MEMORYSTATUS, Tick Count, TotalPhys, AvailPhys, UsedPhys, UsedPages,  TotalVirt,  "
              "AvailVirt,  UsedVirt, UsedVirtPages, MemLoad, MemHeapSize, MemHeapFree, UsedMemHeap, ImageCache\n");
    vl_printA("%20hs, %10d, %9d, %9d, %8d, %9d, %10d, %10d, %9d, %13d, %7d, %11d, %11d, %11d, %10d\n",
              label ? label : "", GetTickCount(), (DWORD)ms.dwTotalPhys, (DWORD)ms.dwAvailPhys, usedPhys,
              usedPhys / 4096, (DWORD)ms.dwTotalVirtual, (DWORD)ms.dwAvailVirtual, usedVirt, usedVirt / 4096,
              ms.dwMemoryLoad, heapSize, heapFree, heapUse, imageCache);
    vl_printA("                  MB, %10d, %9.2f, %9.2f, %8.2f, %9d, %10.2f, %10.2f, %9.2f, %13d, %7d, %11.2f, "
              "%11.2f, %11d, %10.2f\n",
              GetTickCount(), ms.dwTotalPhys * mb, ms.dwAvailPhys * mb, usedPhys * mb, usedPhys / 4096,
              ms.dwTotalVirtual * mb, ms.dwAvailVirtual * mb, usedVirt * mb, usedVirt / 4096, ms.dwMemoryLoad,
              heapSize * mb, heapFree * mb, heapUse, imageCache * mb);
}

/* ---------------------------------------------------------------------------------- VLVERIFY */

void vl_verifyFailed(const char *condition, const char *source, int line) {
    if (VL_LEVEL_ON(LOG_ERROR))
        vl_log(VLLogRecord(source, "ERROR", NULL, line), TEXT("VLVERIFY(%hs)"), condition);
    g_vlVerifySource = source;
    g_vlVerifyLine = line;
    g_vlVerifyFailed = TRUE;
    TerminateProcess(GetCurrentProcess(), 1);
}

/* ---------------------------------------------------------------------------------- debug.ini */

static int vl_tryIni(CIniFile *ini, const WCHAR *path) {
    ini->setFileName(path);
    return ini->open() ? 1 : 0;
}

/* The program's own folder, computed once for the process. */
static const WCHAR *vl_programDebugIni(void) {
    static WCHAR path[MAX_PATH];
    static BOOL done = FALSE;
    if (!done) {
        WCHAR folder[MAX_PATH];
        os_getModuleFolder(folder, MAX_PATH);
        uni_snwprintf(path, MAX_PATH, TEXT("%s%s%s"), folder, TEXT("\\"), TEXT("debug.ini"));
        done = TRUE;
    }
    return path;
}

int OpenDebugIniFile(CIniFile *iniFile) {
    if (iniFile == NULL) {
        VLLOG(LOG_ERROR, TEXT("OpenDebugIniFile(): p_pIniFile == NULL\n"));
        return 0;
    }
    WCHAR root[MAX_PATH];
    WCHAR path[MAX_PATH];

    if (sys_getExternalPath1(root))
        uni_snwprintf(path, MAX_PATH, TEXT("%s%s%s"), root, TEXT("\\"), TEXT("debug.ini"));
    else
        uni_wcsncpy0(path, TEXT("\\Storage Card\\debug.ini"), MAX_PATH);
    if (vl_tryIni(iniFile, path)) return 1;

    if (vl_tryIni(iniFile, vl_programDebugIni())) return 1;

    if (vl_tryIni(iniFile, TEXT("\\debug.ini"))) return 1;

    if (sys_getInternalPath(root))
        uni_snwprintf(path, MAX_PATH, TEXT("%s%s%s"), root, TEXT("\\"), TEXT("debug.ini"));
    else
        uni_wcsncpy0(path, TEXT("\\My Flash Disk\\debug.ini"), MAX_PATH);
    return vl_tryIni(iniFile, path);
}

static void vl_readBool(CIniFile *ini, const char *section, const char *key, BOOL *target) {
    int value = 0;
    if (ini->getBool(section, key, &value)) *target = value ? TRUE : FALSE;
}

static void vl_readInt(CIniFile *ini, const char *section, const char *key, LONG *target) {
    int value = (int)*target;
    if (ini->getInt(section, key, &value)) *target = value;
}

struct VLName {
    const char *name;
    DWORD value;
};

static const VLName g_levelNames[] = {
    {"LOG_NONE", LOG_NONE},   {"LOG_ERROR", LOG_ERROR},       {"LOG_WARNING", LOG_WARNING},
    {"LOG_INFO", LOG_INFO},   {"LOG_DEBUG", LOG_DEBUG},       {"LOG_SNAPSHOT", LOG_SNAPSHOT},
    {"LOG_TRACE", LOG_TRACE},
};

/* MODULE_PLATFORM and the device-library bit cannot be named: they are on only under MODULE_ALL
 * or the default mask, so the platform's messages disappear as soon as a module list is given. */
static const VLName g_moduleNames[] = {
    {"MODULE_ROOT", MODULE_ROOT}, {"MODULE_TRAFFIC", MODULE_TRAFFIC}, {"MODULE_GPS", MODULE_GPS},
    {"MODULE_UI", MODULE_UI},     {"MODULE_SOUND", MODULE_SOUND},
};

int ReadDebugIniFileDbgSettings(CIniFile *iniFile, const char *section) {
    if (iniFile == NULL) {
        VLLOG(LOG_ERROR, TEXT("ReadDebugIniFileDbgSettings(): p_pIniFile == NULL\n"));
        return 0;
    }
    VLLogSettings &s = g_vlLogSettings;

    int toFile = 0;
    iniFile->getBool(section, "DebugToFile", &toFile);
    if (toFile) {
        vl_readBool(iniFile, section, "Increment", &s.increment);
        char name[260];
        if (iniFile->getString(section, "DebugFile", name, sizeof(name))) {
            uni_snprintf(s.fileName, sizeof(s.fileName), "%hs", name);
        }
        vl_readBool(iniFile, section, "DebugToASCII", &s.ascii);
        s.toFile = TRUE;
    }
    vl_readBool(iniFile, section, "DebugToConsole", &s.console);
    vl_readInt(iniFile, section, "DebugPort", &s.debugPort);
    vl_readInt(iniFile, section, "DebugBaud", &s.debugBaud);
    vl_readBool(iniFile, section, "DebugOverDebugPort", &s.debugPortOn);

    char level[20];
    if (iniFile->getString(section, "AppcoreDebug", level, sizeof(level))) {
        for (size_t i = 0; i < sizeof(g_levelNames) / sizeof(g_levelNames[0]); ++i) {
            if (uni_stricmp(level, g_levelNames[i].name) == 0) {
                s.level = (LONG)g_levelNames[i].value;
                break;
            }
        }
    }
    if (s.level >= LOG_SNAPSHOT) {
        vl_log(VLLogRecord(__FILE__, "SNAPSHOT", NULL, __LINE__),
               TEXT("ReadDebugIniFileDbgSettings - setlevel finish"));
        vl_memorySnapshot("snapshot");
    }

    char modules[100];
    if (iniFile->getString(section, "AppcoreDebugModules", modules, sizeof(modules))) {
        uni_strupr(modules);
        if (strstr(modules, "MODULE_ALL") != NULL) {
            s.moduleMask = MODULE_ALL;
        } else {
            DWORD mask = 0;
            for (size_t i = 0; i < sizeof(g_moduleNames) / sizeof(g_moduleNames[0]); ++i)
                if (strstr(modules, g_moduleNames[i].name) != NULL) mask |= g_moduleNames[i].value;
            s.moduleMask = mask;
        }
    }
    if (s.level >= LOG_SNAPSHOT) {
        vl_log(VLLogRecord(__FILE__, "SNAPSHOT", NULL, __LINE__), TEXT("ReadDebugIniFileDbgSettings - finish"));
        vl_memorySnapshot("snapshot");
    }
    return 1;
}
