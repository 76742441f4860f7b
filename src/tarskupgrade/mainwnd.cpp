/*
 * The full-screen main window: the read-only progress panel, the reboot button shown when a session
 * is cancelled, the error log saved from the panel, and the private messages that run the session.
 */
#include "tarskupgrade/tarskupgrade.h"
#include "sal/exceptions.h"
#include "platform/plat_file.h"
#include "platform/plat_unicode.h"
#include "platform/platform.h"

#include <string.h>

HINSTANCE g_hInstance = NULL;
int g_nScreenWidth = 0;
int g_nScreenHeight = 0;
HWND g_hMainWnd = NULL;
HWND g_hPanel = NULL;
HWND g_hErrorButton = NULL;
HFONT g_hFont = NULL;

#define PANEL_STYLE (WS_CHILD | WS_VISIBLE | WS_BORDER | WS_VSCROLL | ES_MULTILINE | ES_READONLY | ES_WANTRETURN)
#define BUTTON_STYLE (WS_CHILD | WS_VISIBLE | WS_BORDER | BS_CENTER | BS_TOP)
typedef char PanelStyleIs0x50A01804[PANEL_STYLE == 0x50A01804L ? 1 : -1];
typedef char ButtonStyleIs0x50800700[BUTTON_STYLE == 0x50800700L ? 1 : -1];

/* Every message reaches MainWndProc inside the crash reporter's guard. */
static LRESULT CALLBACK GuardedMainWndProc(HWND hWnd, UINT message, WPARAM wParam, LPARAM lParam)
{
    LRESULT result = 0;
    SAL_TRY(MainWndProcExceptionFilter)
        result = MainWndProc(hWnd, message, wParam, lParam);
    SAL_EXCEPT(MainWndProcExceptionFilter)
    return result;
}

BOOL InitInstance(HINSTANCE hInstance, int nCmdShow)
{
    WNDCLASSW wc;
    memset(&wc, 0, sizeof(wc));
    wc.style = 0;
    wc.lpfnWndProc = GuardedMainWndProc;
    wc.hInstance = hInstance;
    wc.hbrBackground = (HBRUSH)GetStockObject(GRAY_BRUSH);
    wc.lpszClassName = TARSK_WINDOW_CLASS;
    RegisterClassW(&wc);   /* a failure shows as the window's */

    g_nScreenWidth = GetSystemMetrics(SM_CXSCREEN);
    g_nScreenHeight = GetSystemMetrics(SM_CYSCREEN);

    HWND hWnd = CreateWindowExW(0, TARSK_WINDOW_CLASS, TARSK_WINDOW_TITLE, WS_VISIBLE, 0, 0, g_nScreenWidth,
                                g_nScreenHeight, NULL, NULL, hInstance, NULL);
    if (hWnd == NULL) {
        VLLOG(LOG_ERROR, TEXT("InitInstance(): CreateWindow(%S, %S) failed, error %d\n"), TARSK_WINDOW_CLASS,
              TARSK_WINDOW_TITLE, (int)GetLastError());
        return FALSE;
    }
    g_hMainWnd = hWnd;
    g_hInstance = hInstance;
    ShowWindow(hWnd, nCmdShow);
    UpdateWindow(hWnd);
    return TRUE;
}

/* The panel and its font. The sizes belong to the device screens: exactly 800 and exactly 320. */
static LRESULT OnCreate(HWND hWnd)
{
    HWND panel = CreateWindowExW(0, TEXT("EDIT"), TEXT(""), PANEL_STYLE, 0, 0, g_nScreenWidth,
                                 g_nScreenHeight - 30, hWnd, (HMENU)0, g_hInstance, NULL);
    if (panel == NULL)
        return 0;
    g_hPanel = panel;

    LOGFONTW font;
    memset(&font, 0, sizeof(font));
    uni_wcsncpy0(font.lfFaceName, TEXT("Tahoma"), LF_FACESIZE);
    font.lfHeight = g_nScreenWidth == 800 ? -14 : g_nScreenWidth == 320 ? -9 : -12;
    font.lfWeight = g_nScreenWidth == 800 ? 600 : 400;
    g_hFont = CreateFontIndirectW(&font);
    if (g_hFont == NULL)
        return 0;
    SendMessageW(panel, WM_SETFONT, (WPARAM)g_hFont, TRUE);
    return 0;
}

static LRESULT OnAppendText(LPCWSTR text)
{
    if (text == NULL || g_hPanel == NULL)
        return 0;
    int n = GetWindowTextLengthW(g_hPanel);
    SendMessageW(g_hPanel, EM_SETSEL, (WPARAM)n, (LPARAM)n);
    SendMessageW(g_hPanel, EM_REPLACESEL, FALSE, (LPARAM)text);
    return 0;
}

/* Writes the panel's text less its last character to "upgrade.error.log" beside the program. */
static void SaveErrorLog(const WCHAR *text)
{
    WCHAR folder[MAX_PATH];
    os_getModuleFolder(folder, 256);
    WCHAR path[MAX_PATH];
    uni_snwprintf(path, MAX_PATH, TEXT("%s%s%s"), folder, TEXT("\\"), TARSK_ERROR_LOG_NAME);

    HANDLE file = os_wfopen(path, TEXT("w"));
    if (file == NULL)
        return;
    /* The WCHARs as they are in memory (16-bit little-endian on the device and on the workstation),
     * without byte-order mark or terminator. */
    DWORD bytes = (DWORD)uni_wcslen(text) * 2;
    if (os_fwrite(text, bytes, file) != bytes) {
        GetLastError();
        os_fclose(file);
        os_wremove(path);
    }
    os_fclose(file);   /* closed once more on every path */
}

static LRESULT OnShowError(HWND hWnd)
{
    if (g_hPanel == NULL)
        return 0;
    int n = GetWindowTextLengthW(g_hPanel);
    if (n < 0 || (DWORD)n > 0x7FFFFFFFu / sizeof(WCHAR) - 32)
        return 0;
    /* The buffer is not freed: the device is about to restart. */
    WCHAR *buffer = (WCHAR *)LocalAlloc(LPTR, ((DWORD)n + 32) * sizeof(WCHAR));
    if (buffer == NULL)
        return 0;
    /* n, not n + 1: the panel's last character (normally the final line feed) is not copied. */
    if (GetWindowTextW(g_hPanel, buffer, n) > 0)
        SaveErrorLog(buffer);

    HWND button = CreateWindowExW(0, TEXT("BUTTON"), TEXT("ERROR OCCURS! PRESS HERE to REBOOT"), BUTTON_STYLE, 2,
                                  g_nScreenHeight - 32, g_nScreenWidth - 2, g_nScreenHeight - 2, hWnd, (HMENU)0,
                                  g_hInstance, NULL);
    if (button == NULL)
        return 0;
    g_hErrorButton = button;
    SendMessageW(button, WM_SETFONT, (WPARAM)g_hFont, TRUE);
    return 0;
}

LRESULT CALLBACK MainWndProc(HWND hWnd, UINT message, WPARAM wParam, LPARAM lParam)
{
    switch (message) {
    case WM_CREATE:
        return OnCreate(hWnd);
    case WM_UPGRADE_APPEND_TEXT:
        return OnAppendText((LPCWSTR)lParam);
    case WM_UPGRADE_SHOW_ERROR:
        return OnShowError(hWnd);
    case WM_COMMAND:
        if (lParam != 0 && (HWND)lParam == g_hErrorButton && LOWORD(wParam) == 0)
            RebootDevice();
        return 0;
    case WM_UPGRADE_START:
        RunUpgradeSession(&g_AppSettings.CheckRegion);
        return 0;
    case WM_DESTROY:
        if (g_hFont != NULL) {
            DeleteObject(g_hFont);
            g_hFont = NULL;
        }
        PostQuitMessage(0);
        return 0;
    default:
        return DefWindowProcW(hWnd, message, wParam, lParam);
    }
}

BOOL RebootDevice(void)
{
    return SetSystemPowerState(NULL, POWER_STATE_RESET, POWER_FORCE) != ERROR_SUCCESS;
}

static void Append(LPCWSTR text)
{
    if (g_hMainWnd == NULL) {
        VLLOG(LOG_WARNING, TEXT("main window isn't ready right now\r\n"));
        return;
    }
    if (text != NULL && text[0] != 0)
        SendMessageW(g_hMainWnd, WM_UPGRADE_APPEND_TEXT, 0, (LPARAM)text);
}

BOOL AppendProgress(LPCWSTR text)
{
    if (g_AppSettings.ShowInfo)
        Append(text);
    return TRUE;
}

BOOL AppendProgressIf(LPCWSTR text, BOOL show)
{
    if (show)
        Append(text);
    return TRUE;
}
