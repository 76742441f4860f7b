// The window manager of the simulated device: window classes, windows and their procedures,
// per-thread message queues (posted and sent messages, WM_QUIT), the built-in EDIT and BUTTON
// controls, and the little GDI the program uses (stock objects, fonts). Nothing is drawn: windows
// record their class, text, style and geometry, and the text appended to an EDIT control (the
// program's panel) is journaled and echoed to standard output (setEcho turns the echo off).
//
// Profile:
//   [screen]
//   width = 480                  GetSystemMetrics(SM_CXSCREEN) (default 480)
//   height = 272                 GetSystemMetrics(SM_CYSCREEN) (default 272); other indexes give 0
//   [input]
//   press_button_at_ms = 5000    at this device time, the newest BUTTON control that exists then is
//                                clicked, as a user would: a BM_CLICK is posted to it and its
//                                handling sends WM_COMMAND(MAKEWPARAM(id, BN_CLICKED), button) to
//                                its parent, on the button's thread (no button then: nothing)
//   [fail] CreateWindowExW = 8   any call of this part by name (RegisterClassW, GetMessageW, ...)
//
// Journal: "create_window" {class, title, style, x, y, width, height} for every window and control;
// "font" {face, height, weight} for every CreateFontIndirectW; "panel" {text} for every
// EM_REPLACESEL that reached an EDIT control (the text as inserted; "cut" counts the characters the
// control's text limit refused, when any).
//
// Locking: message queues are guarded by the clock's mutex (GetMessageW and a cross-thread
// SendMessageW wait through Clock::wait); window data (texts, geometry, fonts, the class registry)
// by this part's own mutex, which may be taken while the clock's mutex is held but never the other
// way round. No lock is held while a window procedure runs.
#pragma once
#include "device.h"

#include <deque>

namespace sim {

class Windows {
public:
    Windows(Device &dev, const toml::table &profile);
    ~Windows();

    // The text of the program's panel (the first EDIT control created, even after it was
    // destroyed), empty when there is none. Takes only this part's mutex.
    std::u16string panelText() const;
    // Whether text appended to an EDIT control is echoed to standard output (on at start).
    void setEcho(bool on) { m_echo = on; }

    // What exists, for the runner and tests.
    struct WindowInfo {
        HWND hwnd;
        HWND parent;
        std::string className;   // as registered ("EDIT", "BUTTON" for the built-in controls)
        std::u16string text;
        DWORD style;             // WS_VISIBLE follows ShowWindow
        int x, y, width, height;
        HFONT font;              // set by WM_SETFONT (controls only)
        int stockBrush;          // the class's background brush as a stock brush index, -1 for none
    };
    std::vector<WindowInfo> windows() const;   // the windows that exist, in creation order
    // What the screen shows, in creation order: the windows that exist and, among them, the last 64
    // windows destroyed, as they were then. Nothing else draws on the simulated device (the programs
    // it starts are stand-ins), so what a destroyed window showed stays on the screen.
    std::vector<WindowInfo> screen() const;
    struct FontInfo {
        HFONT handle;
        std::u16string face;
        LONG height, weight;
        bool deleted;
    };
    std::vector<FontInfo> fonts() const;       // every font made, in order
    int screenWidth() const { return m_screenWidth; }
    int screenHeight() const { return m_screenHeight; }

    // The CE calls, after the failure check of the API functions (windows.cpp).
    ATOM registerClass(const WNDCLASSW *wc);
    HWND createWindow(DWORD exStyle, LPCWSTR className, LPCWSTR title, DWORD style, int x, int y, int width,
                      int height, HWND parent, HMENU menu, HINSTANCE instance, LPVOID param);
    BOOL destroyWindow(HWND hwnd);
    BOOL showWindow(HWND hwnd, int cmd);
    BOOL updateWindow(HWND hwnd);
    bool isWindow(HWND hwnd) const;
    HWND parentOf(HWND hwnd) const;
    BOOL getMessage(MSG *msg, HWND filter, UINT first, UINT last);
    LRESULT dispatch(const MSG *msg);
    BOOL post(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);
    LRESULT send(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);
    void postQuit(int code);
    LRESULT defProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);
    HGDIOBJ stockObject(int index) const;
    HFONT createFont(const LOGFONTW *lf);
    BOOL deleteObject(HGDIOBJ obj);

    // The built-in controls' procedures.
    LRESULT editProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);
    LRESULT buttonProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);

private:
    struct Class;
    struct Window;
    static WindowInfo infoOf(const Window &w);
    LRESULT controlFont(Window &w, UINT msg, WPARAM wParam);   // WM_SETFONT/WM_GETFONT of a control
    struct Sent;
    struct Queue;

    std::shared_ptr<Window> find(HWND hwnd) const;
    std::shared_ptr<Class> findClass(LPCWSTR name) const;
    LRESULT call(const std::shared_ptr<Window> &w, UINT msg, WPARAM wParam, LPARAM lParam);
    void destroy(const std::shared_ptr<Window> &w, bool shown = true);   // shown: it stays on screen()
    void handleSent(const std::shared_ptr<Sent> &s);
    bool takePostedLocked(Queue &q, HWND filter, UINT first, UINT last, MSG &out);
    void pressButtonLocked();

    Device &m_dev;
    int m_screenWidth = 480;
    int m_screenHeight = 272;
    std::atomic<bool> m_echo{true};

    mutable std::mutex m_mutex;                             // window data
    std::map<std::string, std::shared_ptr<Class>> m_classes;  // by lower-case name
    std::map<uintptr_t, std::shared_ptr<Window>> m_windows;   // by handle (handles only grow)
    uintptr_t m_nextWindow;
    std::shared_ptr<Window> m_panel;                        // the first EDIT control
    std::deque<WindowInfo> m_gone;                          // the windows last destroyed, as they were
    std::vector<FontInfo> m_fonts;
    ATOM m_nextAtom = 0xC000;

    std::map<std::thread::id, std::unique_ptr<Queue>> m_queues;   // under the clock's mutex
};

}  // namespace sim
