/*
 * The one header through which device code reaches the system.
 *
 *  - On the device (Windows CE) it brings in the SDK headers.
 *  - On Windows (the target gate) it brings in the Windows headers and declares what only CE has.
 *  - Elsewhere (the workstation) it declares the same types, constants and functions itself; the
 *    simulated device (sim/) defines the functions.
 *
 * Device code never includes a host header; everything it asks of the system is named here.
 */
#ifndef TARSK_SAL_WINAPI_H
#define TARSK_SAL_WINAPI_H

#if defined(_WIN32_WCE)
/* ------------------------------------------------------------------------------------------ CE */
#include <windows.h>
#include <winioctl.h>
#include <pkfuncs.h>
#include <diskio.h>
#include <msgqueue.h>
#include <pm.h>

#elif defined(_WIN32)
/* -------------------------------------------------- Windows headers plus CE-only declarations */
#ifndef UNICODE
#define UNICODE
#endif
#ifndef _UNICODE
#define _UNICODE
#endif
#include <windows.h>
#include <winioctl.h>
/* CE's WinMain takes a wide command line: on the desktop that entry is wWinMain. */
#define WinMain wWinMain
/* CE's power broadcast types, where the desktop headers have their own. */
#undef PBT_POWERSTATUSCHANGE
#undef PBT_RESUME
#define TARSK_NEED_CE_DECLARATIONS 1

#else
/* -------------------------------------------------------- workstation: the simulated device */
#include <stddef.h>
#include <stdarg.h>

#define WINAPI
#define CALLBACK
#define APIENTRY
#define CONST const
#define VOID void
#define IN
#define OUT
#define OPTIONAL

typedef unsigned char BYTE;
typedef unsigned short WORD;
typedef unsigned int DWORD;          /* 32 bits, as on the device */
typedef int LONG;                    /* 32 bits, as on the device */
typedef unsigned int ULONG;
typedef int INT;
typedef unsigned int UINT;
typedef int BOOL;
typedef BYTE BOOLEAN;
typedef char CHAR;
typedef short SHORT;
typedef unsigned short USHORT;
typedef char16_t WCHAR;              /* 16-bit wide text, as on the device */
typedef WCHAR TCHAR;
typedef long long LONGLONG;
typedef unsigned long long ULONGLONG;
typedef unsigned long long DWORD64;
typedef long INT_PTR;
typedef unsigned long UINT_PTR;
typedef long LONG_PTR;
typedef unsigned long ULONG_PTR;
typedef unsigned long DWORD_PTR;
typedef unsigned long SIZE_T;
typedef void *PVOID;
typedef void *LPVOID;
typedef const void *LPCVOID;
typedef void *HANDLE;
typedef HANDLE *PHANDLE;
typedef CHAR *LPSTR;
typedef const CHAR *LPCSTR;
typedef WCHAR *LPWSTR;
typedef const WCHAR *LPCWSTR;
typedef WCHAR *LPTSTR;
typedef const WCHAR *LPCTSTR;
typedef BYTE *LPBYTE;
typedef BYTE *PBYTE;
typedef DWORD *LPDWORD;
typedef DWORD *PDWORD;
typedef LONG *PLONG;
typedef BOOL *LPBOOL;
typedef DWORD REGSAM;
typedef LONG HRESULT;
typedef UINT_PTR WPARAM;
typedef LONG_PTR LPARAM;
typedef LONG_PTR LRESULT;

struct HKEY__;      typedef struct HKEY__ *HKEY;
typedef HKEY *PHKEY;
struct HWND__;      typedef struct HWND__ *HWND;
struct HINSTANCE__; typedef struct HINSTANCE__ *HINSTANCE;
typedef HINSTANCE HMODULE;

#ifndef NULL
#define NULL 0
#endif
#define TRUE 1
#define FALSE 0
#define MAX_PATH 260

#define TEXT(s) u##s
#define _T(s) u##s

#define INVALID_HANDLE_VALUE ((HANDLE)(LONG_PTR)-1)
#define INVALID_FILE_SIZE ((DWORD)0xFFFFFFFF)
#define INVALID_SET_FILE_POINTER ((DWORD)-1)
#define INVALID_FILE_ATTRIBUTES ((DWORD)-1)

/* Error codes, as the platform numbers them. */
#define ERROR_SUCCESS 0L
#define NO_ERROR 0L
#define ERROR_INVALID_FUNCTION 1L
#define ERROR_FILE_NOT_FOUND 2L
#define ERROR_PATH_NOT_FOUND 3L
#define ERROR_ACCESS_DENIED 5L
#define ERROR_INVALID_HANDLE 6L
#define ERROR_NOT_ENOUGH_MEMORY 8L
#define ERROR_WRITE_PROTECT 19L
#define ERROR_GEN_FAILURE 31L
#define ERROR_SHARING_VIOLATION 32L
#define ERROR_HANDLE_EOF 38L
#define ERROR_NOT_SUPPORTED 50L
#define ERROR_FILE_EXISTS 80L
#define ERROR_INVALID_PARAMETER 87L
#define ERROR_DISK_FULL 112L
#define ERROR_INSUFFICIENT_BUFFER 122L
#define ERROR_INVALID_NAME 123L
#define ERROR_DIR_NOT_EMPTY 145L
#define ERROR_ALREADY_EXISTS 183L
#define ERROR_MORE_DATA 234L
#define ERROR_NO_MORE_ITEMS 259L
#define ERROR_NO_MORE_FILES 18L
#define ERROR_TIMEOUT 1460L

/* Files. */
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define FILE_SHARE_READ 0x00000001
#define FILE_SHARE_WRITE 0x00000002
#define CREATE_NEW 1
#define CREATE_ALWAYS 2
#define OPEN_EXISTING 3
#define OPEN_ALWAYS 4
#define TRUNCATE_EXISTING 5
#define FILE_ATTRIBUTE_READONLY 0x00000001
#define FILE_ATTRIBUTE_HIDDEN 0x00000002
#define FILE_ATTRIBUTE_SYSTEM 0x00000004
#define FILE_ATTRIBUTE_DIRECTORY 0x00000010
#define FILE_ATTRIBUTE_ARCHIVE 0x00000020
#define FILE_ATTRIBUTE_NORMAL 0x00000080
#define FILE_BEGIN 0
#define FILE_CURRENT 1
#define FILE_END 2

typedef struct _FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
} FILETIME, *PFILETIME, *LPFILETIME;

typedef struct _SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
} SYSTEMTIME, *PSYSTEMTIME, *LPSYSTEMTIME;

/* The CE form of the find record (it carries the object identifier). */
typedef struct _WIN32_FIND_DATAW {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD dwOID;
    WCHAR cFileName[MAX_PATH];
} WIN32_FIND_DATAW, *PWIN32_FIND_DATAW, *LPWIN32_FIND_DATAW;

typedef union _ULARGE_INTEGER {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef struct _SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

typedef struct _OVERLAPPED {
    ULONG_PTR Internal;
    ULONG_PTR InternalHigh;
    DWORD Offset;
    DWORD OffsetHigh;
    HANDLE hEvent;
} OVERLAPPED, *LPOVERLAPPED;

/* Synchronisation. */
typedef struct _CRITICAL_SECTION {
    void *impl;                     /* the simulated device's lock */
} CRITICAL_SECTION, *LPCRITICAL_SECTION;

#define INFINITE 0xFFFFFFFFu
#define WAIT_OBJECT_0 0x00000000u
#define WAIT_ABANDONED 0x00000080u
#define WAIT_TIMEOUT 0x00000102u
#define WAIT_FAILED 0xFFFFFFFFu

typedef DWORD (WINAPI *PTHREAD_START_ROUTINE)(LPVOID lpThreadParameter);
typedef PTHREAD_START_ROUTINE LPTHREAD_START_ROUTINE;

/* CE's eight-level scale: 0 is the highest. */
#define THREAD_PRIORITY_TIME_CRITICAL 0
#define THREAD_PRIORITY_HIGHEST 1
#define THREAD_PRIORITY_ABOVE_NORMAL 2
#define THREAD_PRIORITY_NORMAL 3
#define THREAD_PRIORITY_BELOW_NORMAL 4
#define THREAD_PRIORITY_LOWEST 5
#define THREAD_PRIORITY_ABOVE_IDLE 6
#define THREAD_PRIORITY_IDLE 7

/* Registry. */
#define HKEY_CLASSES_ROOT ((HKEY)(ULONG_PTR)0x80000000u)
#define HKEY_CURRENT_USER ((HKEY)(ULONG_PTR)0x80000001u)
#define HKEY_LOCAL_MACHINE ((HKEY)(ULONG_PTR)0x80000002u)
#define HKEY_USERS ((HKEY)(ULONG_PTR)0x80000003u)
#define KEY_QUERY_VALUE 0x0001
#define KEY_SET_VALUE 0x0002
#define KEY_CREATE_SUB_KEY 0x0004
#define KEY_ENUMERATE_SUB_KEYS 0x0008
#define KEY_NOTIFY 0x0010
#define KEY_READ 0x20019
#define KEY_WRITE 0x20006
#define KEY_ALL_ACCESS 0xF003F
#define REG_NONE 0
#define REG_SZ 1
#define REG_EXPAND_SZ 2
#define REG_BINARY 3
#define REG_DWORD 4
#define REG_MULTI_SZ 7
#define REG_OPTION_NON_VOLATILE 0
#define REG_CREATED_NEW_KEY 1
#define REG_OPENED_EXISTING_KEY 2

/* Memory status. */
typedef struct _MEMORYSTATUS {
    DWORD dwLength;
    DWORD dwMemoryLoad;
    SIZE_T dwTotalPhys;
    SIZE_T dwAvailPhys;
    SIZE_T dwTotalPageFile;
    SIZE_T dwAvailPageFile;
    SIZE_T dwTotalVirtual;
    SIZE_T dwAvailVirtual;
} MEMORYSTATUS, *LPMEMORYSTATUS;

/* Device control codes. */
#define CTL_CODE(DeviceType, Function, Method, Access) \
    (((DWORD)(DeviceType) << 16) | ((DWORD)(Access) << 14) | ((DWORD)(Function) << 2) | (DWORD)(Method))
#define METHOD_BUFFERED 0
#define METHOD_IN_DIRECT 1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER 3
#define FILE_ANY_ACCESS 0
#define FILE_READ_ACCESS 1
#define FILE_WRITE_ACCESS 2
#define FILE_DEVICE_HAL 0x00000101

/* Local memory. */
typedef HANDLE HLOCAL;
#define LMEM_FIXED 0x0000
#define LMEM_ZEROINIT 0x0040
#define LPTR (LMEM_FIXED | LMEM_ZEROINIT)

/* Message boxes. */
#define MB_OK 0x00000000u
#define MB_OKCANCEL 0x00000001u
#define MB_ICONHAND 0x00000010u
#define MB_ICONERROR MB_ICONHAND
#define MB_ICONEXCLAMATION 0x00000030u
#define MB_ICONINFORMATION 0x00000040u
#define MB_SETFOREGROUND 0x00010000u
#define MB_TOPMOST 0x00040000u
#define IDOK 1
#define IDCANCEL 2


/* ---- windows and GDI ---- */
struct HBRUSH__;  typedef struct HBRUSH__ *HBRUSH;
struct HFONT__;   typedef struct HFONT__ *HFONT;
struct HICON__;   typedef struct HICON__ *HICON;
struct HMENU__;   typedef struct HMENU__ *HMENU;
struct HDC__;     typedef struct HDC__ *HDC;
typedef HICON HCURSOR;
typedef void *HGDIOBJ;
typedef WORD ATOM;

typedef LRESULT (CALLBACK *WNDPROC)(HWND, UINT, WPARAM, LPARAM);

typedef struct _WNDCLASSW {
    UINT style;
    WNDPROC lpfnWndProc;
    int cbClsExtra;
    int cbWndExtra;
    HINSTANCE hInstance;
    HICON hIcon;
    HCURSOR hCursor;
    HBRUSH hbrBackground;
    LPCWSTR lpszMenuName;
    LPCWSTR lpszClassName;
} WNDCLASSW, *PWNDCLASSW, *LPWNDCLASSW;
typedef WNDCLASSW WNDCLASS;

typedef struct tagPOINT {
    LONG x;
    LONG y;
} POINT, *PPOINT, *LPPOINT;

typedef struct tagRECT {
    LONG left;
    LONG top;
    LONG right;
    LONG bottom;
} RECT, *PRECT, *LPRECT;

typedef struct tagMSG {
    HWND hwnd;
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    DWORD time;
    POINT pt;
} MSG, *PMSG, *LPMSG;

#define LF_FACESIZE 32
typedef struct tagLOGFONTW {
    LONG lfHeight;
    LONG lfWidth;
    LONG lfEscapement;
    LONG lfOrientation;
    LONG lfWeight;
    BYTE lfItalic;
    BYTE lfUnderline;
    BYTE lfStrikeOut;
    BYTE lfCharSet;
    BYTE lfOutPrecision;
    BYTE lfClipPrecision;
    BYTE lfQuality;
    BYTE lfPitchAndFamily;
    WCHAR lfFaceName[LF_FACESIZE];
} LOGFONTW, *PLOGFONTW, *LPLOGFONTW;
typedef LOGFONTW LOGFONT;

#define LOWORD(l) ((WORD)((DWORD_PTR)(l) & 0xffff))
#define HIWORD(l) ((WORD)(((DWORD_PTR)(l) >> 16) & 0xffff))
#define MAKEWPARAM(l, h) ((WPARAM)(DWORD)(((WORD)(l)) | ((DWORD)((WORD)(h))) << 16))
#define MAKELPARAM(l, h) ((LPARAM)(DWORD)(((WORD)(l)) | ((DWORD)((WORD)(h))) << 16))

/* Window styles. */
#define WS_OVERLAPPED 0x00000000L
#define WS_CHILD 0x40000000L
#define WS_VISIBLE 0x10000000L
#define WS_BORDER 0x00800000L
#define WS_VSCROLL 0x00200000L
#define WS_HSCROLL 0x00100000L
#define ES_LEFT 0x0000L
#define ES_CENTER 0x0001L
#define ES_MULTILINE 0x0004L
#define ES_AUTOVSCROLL 0x0040L
#define ES_READONLY 0x0800L
#define ES_WANTRETURN 0x1000L
#define BS_PUSHBUTTON 0x00000000L
#define BS_CENTER 0x00000300L
#define BS_TOP 0x00000400L
#define CW_USEDEFAULT ((int)0x80000000)

/* Messages. */
#define WM_NULL 0x0000
#define WM_CREATE 0x0001
#define WM_DESTROY 0x0002
#define WM_SETTEXT 0x000C
#define WM_GETTEXT 0x000D
#define WM_GETTEXTLENGTH 0x000E
#define WM_PAINT 0x000F
#define WM_CLOSE 0x0010
#define WM_QUIT 0x0012
#define WM_SETFONT 0x0030
#define WM_GETFONT 0x0031
#define WM_COMMAND 0x0111
#define WM_LBUTTONDOWN 0x0201
#define WM_LBUTTONUP 0x0202
#define WM_USER 0x0400
#define EM_GETSEL 0x00B0
#define EM_SETSEL 0x00B1
#define EM_REPLACESEL 0x00C2
#define EM_LIMITTEXT 0x00C5
#define EM_GETLIMITTEXT 0x00D5
#define BM_CLICK 0x00F5
#define BN_CLICKED 0

/* GetSystemMetrics, GetStockObject, ShowWindow. */
#define SM_CXSCREEN 0
#define SM_CYSCREEN 1
#define WHITE_BRUSH 0
#define LTGRAY_BRUSH 1
#define GRAY_BRUSH 2
#define DKGRAY_BRUSH 3
#define BLACK_BRUSH 4
#define NULL_BRUSH 5
#define SYSTEM_FONT 13
#define SW_HIDE 0
#define SW_SHOWNORMAL 1
#define SW_SHOW 5
#define FW_NORMAL 400
#define FW_SEMIBOLD 600
#define FW_BOLD 700

ATOM WINAPI RegisterClassW(const WNDCLASSW *lpWndClass);
HWND WINAPI CreateWindowExW(DWORD dwExStyle, LPCWSTR lpClassName, LPCWSTR lpWindowName, DWORD dwStyle, int X,
                            int Y, int nWidth, int nHeight, HWND hWndParent, HMENU hMenu, HINSTANCE hInstance,
                            LPVOID lpParam);
BOOL WINAPI DestroyWindow(HWND hWnd);
BOOL WINAPI ShowWindow(HWND hWnd, int nCmdShow);
BOOL WINAPI UpdateWindow(HWND hWnd);
BOOL WINAPI IsWindow(HWND hWnd);
HWND WINAPI GetParent(HWND hWnd);
BOOL WINAPI GetMessageW(LPMSG lpMsg, HWND hWnd, UINT wMsgFilterMin, UINT wMsgFilterMax);
BOOL WINAPI TranslateMessage(const MSG *lpMsg);
LRESULT WINAPI DispatchMessageW(const MSG *lpMsg);
BOOL WINAPI PostMessageW(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam);
LRESULT WINAPI SendMessageW(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam);
void WINAPI PostQuitMessage(int nExitCode);
LRESULT WINAPI DefWindowProcW(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam);
int WINAPI GetSystemMetrics(int nIndex);
HGDIOBJ WINAPI GetStockObject(int fnObject);
HFONT WINAPI CreateFontIndirectW(const LOGFONTW *lplf);
BOOL WINAPI DeleteObject(HGDIOBJ hObject);
int WINAPI GetWindowTextLengthW(HWND hWnd);
int WINAPI GetWindowTextW(HWND hWnd, LPWSTR lpString, int nMaxCount);
BOOL WINAPI SetWindowTextW(HWND hWnd, LPCWSTR lpString);

/* ---- processes ---- */
typedef struct _STARTUPINFOW {
    DWORD cb;
    LPWSTR lpReserved;
    LPWSTR lpDesktop;
    LPWSTR lpTitle;
    DWORD dwX;
    DWORD dwY;
    DWORD dwXSize;
    DWORD dwYSize;
    DWORD dwXCountChars;
    DWORD dwYCountChars;
    DWORD dwFillAttribute;
    DWORD dwFlags;
    WORD wShowWindow;
    WORD cbReserved2;
    LPBYTE lpReserved2;
    HANDLE hStdInput;
    HANDLE hStdOutput;
    HANDLE hStdError;
} STARTUPINFOW, *LPSTARTUPINFOW;
typedef STARTUPINFOW STARTUPINFO;

typedef struct _PROCESS_INFORMATION {
    HANDLE hProcess;
    HANDLE hThread;
    DWORD dwProcessId;
    DWORD dwThreadId;
} PROCESS_INFORMATION, *PPROCESS_INFORMATION, *LPPROCESS_INFORMATION;

BOOL WINAPI CreateProcessW(LPCWSTR lpApplicationName, LPWSTR lpCommandLine,
                           LPSECURITY_ATTRIBUTES lpProcessAttributes, LPSECURITY_ATTRIBUTES lpThreadAttributes,
                           BOOL bInheritHandles, DWORD dwCreationFlags, LPVOID lpEnvironment,
                           LPCWSTR lpCurrentDirectory, LPSTARTUPINFOW lpStartupInfo,
                           LPPROCESS_INFORMATION lpProcessInformation);

/* ---- structured exceptions ---- */
#define EXCEPTION_ACCESS_VIOLATION 0xC0000005u
#define EXCEPTION_ILLEGAL_INSTRUCTION 0xC000001Du
#define EXCEPTION_INT_DIVIDE_BY_ZERO 0xC0000094u
#define EXCEPTION_DATATYPE_MISALIGNMENT 0x80000002u
#define EXCEPTION_IN_PAGE_ERROR 0xC0000006u
#define EXCEPTION_CONTINUE_SEARCH 0
#define EXCEPTION_EXECUTE_HANDLER 1
#define EXCEPTION_CONTINUE_EXECUTION (-1)
#define EXCEPTION_MAXIMUM_PARAMETERS 15

typedef struct _EXCEPTION_RECORD {
    DWORD ExceptionCode;
    DWORD ExceptionFlags;
    struct _EXCEPTION_RECORD *ExceptionRecord;
    PVOID ExceptionAddress;
    DWORD NumberParameters;
    ULONG_PTR ExceptionInformation[EXCEPTION_MAXIMUM_PARAMETERS];
} EXCEPTION_RECORD, *PEXCEPTION_RECORD;

typedef struct _CONTEXT {
    DWORD ContextFlags;            /* the registers are the host's; the program reads none */
} CONTEXT, *PCONTEXT;

typedef struct _EXCEPTION_POINTERS {
    PEXCEPTION_RECORD ExceptionRecord;
    PCONTEXT ContextRecord;
} EXCEPTION_POINTERS, *PEXCEPTION_POINTERS, *LPEXCEPTION_POINTERS;


/* ---- libraries and heaps ---- */
typedef INT_PTR (WINAPI *FARPROC)(void);
#define HEAP_NO_SERIALIZE 0x00000001
#define HEAP_GENERATE_EXCEPTIONS 0x00000004
#define HEAP_ZERO_MEMORY 0x00000008
#define ERROR_PROC_NOT_FOUND 127L
#define ERROR_MOD_NOT_FOUND 126L

HMODULE WINAPI LoadLibraryW(LPCWSTR lpLibFileName);
BOOL WINAPI FreeLibrary(HMODULE hLibModule);
HANDLE WINAPI HeapCreate(DWORD flOptions, SIZE_T dwInitialSize, SIZE_T dwMaximumSize);
BOOL WINAPI HeapDestroy(HANDLE hHeap);
LPVOID WINAPI HeapAlloc(HANDLE hHeap, DWORD dwFlags, SIZE_T dwBytes);
BOOL WINAPI HeapFree(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem);
SIZE_T WINAPI HeapCompact(HANDLE hHeap, DWORD dwFlags);

/* ---- functions defined by the simulated device ---- */
DWORD WINAPI GetLastError(void);
void WINAPI SetLastError(DWORD dwErrCode);
DWORD WINAPI GetTickCount(void);
void WINAPI Sleep(DWORD dwMilliseconds);
BOOL WINAPI CloseHandle(HANDLE hObject);

HANDLE WINAPI CreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                          LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                          DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
BOOL WINAPI ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                     LPDWORD lpNumberOfBytesRead, LPOVERLAPPED lpOverlapped);
BOOL WINAPI WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                      LPDWORD lpNumberOfBytesWritten, LPOVERLAPPED lpOverlapped);
DWORD WINAPI SetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh,
                            DWORD dwMoveMethod);
DWORD WINAPI GetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh);
BOOL WINAPI FlushFileBuffers(HANDLE hFile);
BOOL WINAPI DeleteFileW(LPCWSTR lpFileName);
HANDLE WINAPI FindFirstFileW(LPCWSTR lpFileName, LPWIN32_FIND_DATAW lpFindFileData);
BOOL WINAPI FindNextFileW(HANDLE hFindFile, LPWIN32_FIND_DATAW lpFindFileData);
BOOL WINAPI FindClose(HANDLE hFindFile);
DWORD WINAPI GetFileAttributesW(LPCWSTR lpFileName);
BOOL WINAPI CreateDirectoryW(LPCWSTR lpPathName, LPSECURITY_ATTRIBUTES lpSecurityAttributes);
BOOL WINAPI RemoveDirectoryW(LPCWSTR lpPathName);
BOOL WINAPI GetDiskFreeSpaceExW(LPCWSTR lpDirectoryName, PULARGE_INTEGER lpFreeBytesAvailableToCaller,
                                PULARGE_INTEGER lpTotalNumberOfBytes,
                                PULARGE_INTEGER lpTotalNumberOfFreeBytes);
BOOL WINAPI FileTimeToSystemTime(const FILETIME *lpFileTime, LPSYSTEMTIME lpSystemTime);
BOOL WINAPI SystemTimeToFileTime(const SYSTEMTIME *lpSystemTime, LPFILETIME lpFileTime);

void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
void WINAPI EnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
LONG WINAPI InterlockedCompareExchange(LONG volatile *Destination, LONG Exchange, LONG Comperand);
LONG WINAPI InterlockedIncrement(LONG volatile *lpAddend);
LONG WINAPI InterlockedDecrement(LONG volatile *lpAddend);
LONG WINAPI InterlockedExchange(LONG volatile *Target, LONG Value);

HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES lpThreadAttributes, SIZE_T dwStackSize,
                           LPTHREAD_START_ROUTINE lpStartAddress, LPVOID lpParameter,
                           DWORD dwCreationFlags, LPDWORD lpThreadId);
BOOL WINAPI SetThreadPriority(HANDLE hThread, int nPriority);
int WINAPI GetThreadPriority(HANDLE hThread);
HANDLE WINAPI GetCurrentThread(void);
DWORD WINAPI GetCurrentThreadId(void);
HANDLE WINAPI GetCurrentProcess(void);
DWORD WINAPI GetCurrentProcessId(void);
BOOL WINAPI GetExitCodeThread(HANDLE hThread, LPDWORD lpExitCode);
HANDLE WINAPI CreateMutexW(LPSECURITY_ATTRIBUTES lpMutexAttributes, BOOL bInitialOwner, LPCWSTR lpName);
BOOL WINAPI ReleaseMutex(HANDLE hMutex);
HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES lpEventAttributes, BOOL bManualReset,
                           BOOL bInitialState, LPCWSTR lpName);
BOOL WINAPI SetEvent(HANDLE hEvent);
BOOL WINAPI ResetEvent(HANDLE hEvent);
DWORD WINAPI WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);
BOOL WINAPI TerminateProcess(HANDLE hProcess, UINT uExitCode);
DWORD WINAPI GetModuleFileNameW(HMODULE hModule, LPWSTR lpFilename, DWORD nSize);

LONG WINAPI RegOpenKeyExW(HKEY hKey, LPCWSTR lpSubKey, DWORD ulOptions, REGSAM samDesired, PHKEY phkResult);
LONG WINAPI RegCreateKeyExW(HKEY hKey, LPCWSTR lpSubKey, DWORD Reserved, LPWSTR lpClass, DWORD dwOptions,
                            REGSAM samDesired, LPSECURITY_ATTRIBUTES lpSecurityAttributes,
                            PHKEY phkResult, LPDWORD lpdwDisposition);
LONG WINAPI RegQueryValueExW(HKEY hKey, LPCWSTR lpValueName, LPDWORD lpReserved, LPDWORD lpType,
                             LPBYTE lpData, LPDWORD lpcbData);
LONG WINAPI RegEnumKeyExW(HKEY hKey, DWORD dwIndex, LPWSTR lpName, LPDWORD lpcchName, LPDWORD lpReserved,
                          LPWSTR lpClass, LPDWORD lpcchClass, PFILETIME lpftLastWriteTime);
LONG WINAPI RegSetValueExW(HKEY hKey, LPCWSTR lpValueName, DWORD Reserved, DWORD dwType,
                           const BYTE *lpData, DWORD cbData);
LONG WINAPI RegCloseKey(HKEY hKey);

void WINAPI GlobalMemoryStatus(LPMEMORYSTATUS lpBuffer);
HLOCAL WINAPI LocalAlloc(UINT uFlags, SIZE_T uBytes);
HLOCAL WINAPI LocalFree(HLOCAL hMem);
BOOL WINAPI DeviceIoControl(HANDLE hDevice, DWORD dwIoControlCode, LPVOID lpInBuffer, DWORD nInBufferSize,
                            LPVOID lpOutBuffer, DWORD nOutBufferSize, LPDWORD lpBytesReturned,
                            LPOVERLAPPED lpOverlapped);
int WINAPI MessageBoxW(HWND hWnd, LPCWSTR lpText, LPCWSTR lpCaption, UINT uType);

#define TARSK_NEED_CE_DECLARATIONS 1
#endif

#if defined(TARSK_NEED_CE_DECLARATIONS)
/* ---------------------------------------- what only CE has (the workstation and the gate) */
#ifdef __cplusplus
extern "C++" {
#endif

#ifndef FILE_DEVICE_HAL
#define FILE_DEVICE_HAL 0x00000101
#endif
#ifndef IOCTL_HAL_READ_HW_VERSION
#define IOCTL_HAL_READ_HW_VERSION CTL_CODE(FILE_DEVICE_HAL, 2058, METHOD_BUFFERED, FILE_ANY_ACCESS)
#endif

typedef struct _STORE_INFORMATION {
    DWORD dwStoreSize;
    DWORD dwFreeSize;
} STORE_INFORMATION, *LPSTORE_INFORMATION;

/* The flash-disk driver's block requests. */
#define DISK_IOCTL_GETINFO 0x71C00
#define DISK_IOCTL_WRITE 3
#define DISK_IOCTL_READ 2

typedef struct _DISK_INFO {
    DWORD di_total_sectors;
    DWORD di_bytes_per_sect;
    DWORD di_cylinders;
    DWORD di_heads;
    DWORD di_sectors;
    DWORD di_flags;
} DISK_INFO, *PDISK_INFO;

typedef struct _SG_BUF {
    PBYTE sb_buf;
    DWORD sb_len;
} SG_BUF, *PSG_BUF;

typedef DWORD (*PFN_REQDONE)(struct _SG_REQ *);

#define MAX_SG_BUF 1
typedef struct _SG_REQ {
    DWORD sr_start;
    DWORD sr_num_sec;
    DWORD sr_num_sg;
    DWORD sr_status;
    PFN_REQDONE sr_callback;
    SG_BUF sr_sglist[MAX_SG_BUF];
} SG_REQ, *PSG_REQ;

/* ---- power (pm.h, winbase.h of CE) ---- */
typedef struct _SYSTEM_POWER_STATUS_EX2 {
    BYTE ACLineStatus;
    BYTE BatteryFlag;
    BYTE BatteryLifePercent;
    BYTE Reserved1;
    DWORD BatteryLifeTime;
    DWORD BatteryFullLifeTime;
    BYTE Reserved2;
    BYTE BackupBatteryFlag;
    BYTE BackupBatteryLifePercent;
    BYTE Reserved3;
    DWORD BackupBatteryLifeTime;
    DWORD BackupBatteryFullLifeTime;
    DWORD BatteryVoltage;
    DWORD BatteryCurrent;
    DWORD BatteryAverageCurrent;
    DWORD BatteryAverageInterval;
    DWORD BatterymAHourConsumed;
    DWORD BatteryTemperature;
    DWORD BackupBatteryVoltage;
    BYTE BatteryChemistry;
} SYSTEM_POWER_STATUS_EX2, *PSYSTEM_POWER_STATUS_EX2, *LPSYSTEM_POWER_STATUS_EX2;
typedef char TarskPowerStatusIs56Bytes[sizeof(SYSTEM_POWER_STATUS_EX2) == 56 ? 1 : -1];

#ifndef AC_LINE_UNKNOWN
#define AC_LINE_OFFLINE 0x00
#define AC_LINE_ONLINE 0x01
#define AC_LINE_UNKNOWN 0xFF
#endif
#ifndef BATTERY_PERCENTAGE_UNKNOWN
#define BATTERY_PERCENTAGE_UNKNOWN 0xFF
#endif

#define PBT_TRANSITION 0x00000001
#define PBT_RESUME 0x00000002
#define PBT_POWERSTATUSCHANGE 0x00000004
#define PBT_POWERINFOCHANGE 0x00000008
#define POWER_NOTIFY_ALL 0xFFFFFFFF

typedef struct _POWER_BROADCAST {
    DWORD Message;
    DWORD Flags;
    DWORD Length;
    WCHAR SystemPowerState[1];
} POWER_BROADCAST, *PPOWER_BROADCAST;

#define POWER_STATE_ON 0x00010000
#define POWER_STATE_OFF 0x00020000
#define POWER_STATE_SUSPEND 0x00200000
#define POWER_STATE_RESET 0x00800000
#define POWER_FORCE 0x00001000

DWORD GetSystemPowerStatusEx2(PSYSTEM_POWER_STATUS_EX2 pSystemPowerStatusEx2, DWORD dwLen, BOOL fUpdate);
HANDLE RequestPowerNotifications(HANDLE hMsgQ, DWORD Flags);
DWORD StopPowerNotifications(HANDLE h);
DWORD SetSystemPowerState(LPCWSTR pwsSystemState, DWORD StateFlags, DWORD Options);

/* ---- point-to-point message queues (msgqueue.h) ---- */
typedef struct MSGQUEUEOPTIONS_OS {
    DWORD dwSize;
    DWORD dwFlags;
    DWORD dwMaxMessages;
    DWORD cbMaxMessage;
    BOOL bReadAccess;
} MSGQUEUEOPTIONS, *LPMSGQUEUEOPTIONS, *PMSGQUEUEOPTIONS;
#define MSGQUEUE_NOPRECOMMIT 0x00000001
#define MSGQUEUE_ALLOW_BROKEN 0x00000002
#define MSGQUEUE_MSGALERT 0x00000001

HANDLE CreateMsgQueue(LPCWSTR lpName, LPMSGQUEUEOPTIONS lpOptions);
BOOL ReadMsgQueue(HANDLE hMsgQ, LPVOID lpBuffer, DWORD cbBufferSize, LPDWORD lpNumberOfBytesRead, DWORD dwTimeout,
                  DWORD *pdwFlags);
BOOL WriteMsgQueue(HANDLE hMsgQ, LPVOID lpBuffer, DWORD cbDataSize, DWORD dwTimeout, DWORD dwFlags);
BOOL CloseMsgQueue(HANDLE hMsgQ);

/* ---- device notifications (pnp.h) ---- */
#ifndef GUID_DEFINED
#define GUID_DEFINED
typedef struct _GUID {
    DWORD Data1;
    WORD Data2;
    WORD Data3;
    BYTE Data4[8];
} GUID;
#endif
typedef const GUID *LPCGUID;

typedef struct _DEVDETAIL {
    GUID guidDevClass;
    DWORD dwReserved;
    BOOL fAttached;
    int cbName;
    WCHAR szName[1];
} DEVDETAIL, *PDEVDETAIL;

HANDLE RequestDeviceNotifications(LPCGUID devclass, HANDLE hMsgQ, BOOL fAll);
BOOL StopDeviceNotifications(HANDLE h);

/* ---- library entry points by wide name, as CE's coredll exports them ---- */
FARPROC GetProcAddressW(HMODULE hModule, LPCWSTR lpProcName);

BOOL KernelIoControl(DWORD dwIoControlCode, LPVOID lpInBuf, DWORD nInBufSize, LPVOID lpOutBuf,
                     DWORD nOutBufSize, LPDWORD lpBytesReturned);
HANDLE ActivateDevice(LPCWSTR lpszDevKey, DWORD dwClientInfo);
BOOL DeactivateDevice(HANDLE hDevice);
BOOL GetStoreInformation(LPSTORE_INFORMATION lpsi);

#ifdef __cplusplus
}
#endif
#endif

/* A handle or pointer shown with "%x" in a log line: the low 32 bits, as the device prints it. */
#define TARSK_HANDLE_TEXT(h) ((DWORD)(UINT_PTR)(h))

#endif /* TARSK_SAL_WINAPI_H */
