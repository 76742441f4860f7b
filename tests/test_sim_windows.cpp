// The simulated window manager, held to what CE documents for the calls the program makes: window
// creation, the EDIT panel, message queues across threads, WM_QUIT, WM_CLOSE, the button click,
// screen metrics, fonts and the journal.
#include <gtest/gtest.h>

#include <tuple>

#include "test_device.h"
#include "windows.h"

using namespace testing_support;

namespace {

// What the test class's procedure saw (it runs on the window thread only).
struct Seen { HWND hwnd; UINT msg; WPARAM wParam; LPARAM lParam; DWORD tick, thread; bool existed; };
std::vector<Seen> g_seen;
LRESULT g_createResult = 0;

LRESULT CALLBACK testProc(HWND h, UINT m, WPARAM w, LPARAM l) {
    g_seen.push_back({h, m, w, l, GetTickCount(), GetCurrentThreadId(), IsWindow(h) != FALSE});
    if (m == WM_CREATE) return g_createResult;
    if (m == WM_DESTROY && !GetParent(h)) PostQuitMessage(0);
    if (m == WM_USER + 1) return 42;
    return DefWindowProcW(h, m, w, l);
}

ATOM registerTestClass() {
    WNDCLASSW wc = {0, testProc, 0, 0, NULL, NULL, NULL, NULL, NULL, TEXT("TEST_CLS")};
    return RegisterClassW(&wc);
}

HWND create(LPCWSTR cls, LPCWSTR title, DWORD style, HWND parent = NULL, int id = 0) {
    return CreateWindowExW(0, cls, title, style, 0, 0, 480, 242, parent, (HMENU)(UINT_PTR)id, NULL, NULL);
}

// The program's main window, of the test class, with nothing seen yet.
HWND createMain() {
    registerTestClass();
    HWND main = create(TEXT("TEST_CLS"), TEXT("MAIN"), WS_VISIBLE);
    g_seen.clear();
    return main;
}

std::vector<UINT> messagesSeen() {
    std::vector<UINT> out;
    for (const Seen &s : g_seen) out.push_back(s.msg);
    return out;
}

// Appends as the program does: the caret to the end, then the text replaces the empty selection.
void append(HWND edit, const std::string &text) {
    int n = GetWindowTextLengthW(edit);
    SendMessageW(edit, EM_SETSEL, n, n);
    SendMessageW(edit, EM_REPLACESEL, FALSE, (LPARAM)W(text).c_str());
}

}  // namespace

TEST(SimWindows, CreateSendsWmCreateBeforeReturningAndHonoursItsRefusal) {
    TestDevice td;
    ASSERT_NE(registerTestClass(), 0);
    EXPECT_FAILS(registerTestClass(), 1410);
    g_seen.clear();
    HWND main = create(TEXT("test_cls"), TEXT("MAIN"), WS_VISIBLE);   // class names ignore case
    ASSERT_NE(main, nullptr);
    ASSERT_EQ(messagesSeen(), std::vector<UINT>{WM_CREATE});
    EXPECT_TRUE(g_seen[0].hwnd == main && g_seen[0].existed);

    g_seen.clear();
    g_createResult = -1;
    EXPECT_EQ(create(TEXT("TEST_CLS"), TEXT("REFUSED"), 0), nullptr);
    g_createResult = 0;
    EXPECT_EQ(messagesSeen(), (std::vector<UINT>{WM_CREATE, WM_DESTROY}));
    EXPECT_FALSE(IsWindow(g_seen[0].hwnd));

    struct Case { LPCWSTR cls; DWORD style; HWND parent; DWORD error; };
    // a kernel handle is no window; the last is a good call, failed by injection (the sixth call)
    const Case cases[] = {{TEXT("NO_SUCH_CLASS"), 0, NULL, 1407}, {TEXT("EDIT"), WS_CHILD, (HWND)(UINT_PTR)0x1000, 1400},
                          {TEXT("EDIT"), WS_CHILD, NULL, 1406}, {TEXT("EDIT"), WS_CHILD, main, 8}};
    td.dev().setFailure("CreateWindowExW", 8, 6);
    for (const Case &c : cases) EXPECT_FAILS(create(c.cls, TEXT(""), c.style, c.parent), c.error);
    EXPECT_EQ(td.dev().windows().windows().size(), 1u);

    auto made = td.events("create_window");
    ASSERT_EQ(made.size(), 2u);   // the refused window was made, then destroyed
    EXPECT_EQ(made[0], (nlohmann::json{{"event", "create_window"}, {"t", 0}, {"class", "TEST_CLS"}, {"title", "MAIN"},
                                       {"style", 0x10000000}, {"x", 0}, {"y", 0}, {"width", 480}, {"height", 242}}));
}

TEST(SimWindows, PanelAppendsAtTheEndAndGetWindowTextCopiesAtMostNMinusOne) {
    TestDevice td;
    HWND panel = create(TEXT("EDIT"), TEXT(""), 0x50A01804, createMain());
    ASSERT_NE(panel, nullptr);
    testing::internal::CaptureStdout();
    append(panel, "first\r\n");
    append(panel, "second\r\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "first\nsecond\n");
    EXPECT_EQ(td.dev().windows().panelText(), W("first\r\nsecond\r\n"));
    ASSERT_EQ(td.events("panel").size(), 2u);
    EXPECT_EQ(td.events("panel")[1]["text"], "second\r\n");

    // n - 1 characters and a terminator: the program's n = length leaves the last character out.
    struct Copy { int n; int copied; std::string text; };
    const Copy copies[] = {{15, 14, "first\r\nsecond\r"}, {100, 15, "first\r\nsecond\r\n"}, {1, 0, ""},
                           {0, 0, "untouched"}, {-1, 0, "untouched"}};
    for (const Copy &c : copies) {
        std::u16string buf = W("untouched") + std::u16string(100, u'\0');
        EXPECT_EQ(GetWindowTextW(panel, &buf[0], c.n), c.copied) << c.n;
        EXPECT_EQ(U(buf.c_str()), c.text) << c.n;
    }

    // Selection rules: -1 start removes the selection (the caret stays), -1 end is the end, values
    // are clamped and ordered; the caret ends after the new text.
    struct Sel { int start, end; std::string text; DWORD caret; };
    const Sel sels[] = {{0, -1, "#", 1}, {2, 4, "ab#ef", 3}, {4, 2, "ab#ef", 3}, {3, 100, "abc#", 4}, {-1, 0, "abc#def", 4}};
    for (const Sel &s : sels) {
        SetWindowTextW(panel, TEXT("abcdef"));
        SendMessageW(panel, EM_SETSEL, 1, 3);
        SendMessageW(panel, EM_SETSEL, (WPARAM)s.start, s.end);
        SendMessageW(panel, EM_REPLACESEL, FALSE, (LPARAM)TEXT("#"));
        EXPECT_EQ(td.dev().windows().panelText(), W(s.text)) << s.start << "," << s.end;
        DWORD from = 0, to = 0;
        SendMessageW(panel, EM_GETSEL, (WPARAM)&from, (LPARAM)&to);
        EXPECT_TRUE(from == s.caret && to == s.caret) << from << "," << to;
    }

    // The default limit of 30,000 characters holds appends but not WM_SETTEXT; what does not fit is
    // cut and the parent hears EN_MAXTEXT.
    EXPECT_EQ(SendMessageW(panel, EM_GETLIMITTEXT, 0, 0), 30000);
    SetWindowTextW(panel, W(std::string(29990, 'a')).c_str());
    g_seen.clear();
    append(panel, "0123456789abcdefghij");
    EXPECT_EQ(td.dev().windows().panelText().substr(29990), W("0123456789"));
    EXPECT_EQ(td.events("panel").back()["cut"], 10);
    ASSERT_EQ(messagesSeen(), std::vector<UINT>{WM_COMMAND});
    EXPECT_TRUE(g_seen[0].wParam == MAKEWPARAM(0, 0x0501) && g_seen[0].lParam == (LPARAM)panel);
    SetWindowTextW(panel, W(std::string(30005, 'b')).c_str());
    EXPECT_EQ(GetWindowTextLengthW(panel), 30005);
}

TEST(SimWindows, SendFromAnotherThreadBlocksUntilHandledAndTheNewestButtonIsClickedAtTheProfileTime) {
    TestDevice td("[input]\npress_button_at_ms = 1500\n");
    static struct { HWND main; LRESULT result; DWORD tick; } sent;   // what the sending thread saw
    sent.main = createMain();
    ASSERT_NE(create(TEXT("BUTTON"), TEXT("first"), 0x50800700, sent.main), nullptr);
    HWND button = create(TEXT("BUTTON"), TEXT("ERROR OCCURS! PRESS HERE to REBOOT"), 0x50800700, sent.main);
    HANDLE thread = CreateThread(NULL, 0, [](LPVOID) -> DWORD {
        sent.result = SendMessageW(sent.main, WM_USER + 1, 7, 0);
        sent.tick = GetTickCount();
        return PostMessageW(sent.main, WM_USER + 2, 0, 0);
    }, NULL, 0, NULL);
    Sleep(50);   // the window thread does not look at its queue: the sender waits
    EXPECT_TRUE(g_seen.empty());
    MSG msg;
    ASSERT_TRUE(GetMessageW(&msg, NULL, 0, 0));   // handles the sent message while it waits
    EXPECT_EQ(msg.message, UINT(WM_USER + 2));
    ASSERT_EQ(messagesSeen(), std::vector<UINT>{WM_USER + 1});
    EXPECT_TRUE(g_seen[0].wParam == 7 && g_seen[0].thread == GetCurrentThreadId());
    EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(sent.result == 42 && sent.tick == 50) << sent.result << " " << sent.tick;

    g_seen.clear();
    while (g_seen.empty() && GetMessageW(&msg, NULL, 0, 0)) DispatchMessageW(&msg);
    ASSERT_EQ(messagesSeen(), std::vector<UINT>{WM_COMMAND});
    EXPECT_EQ(g_seen[0].tick, 1500u);
    EXPECT_TRUE(g_seen[0].wParam == MAKEWPARAM(0, BN_CLICKED) && g_seen[0].lParam == (LPARAM)button);
}

TEST(SimWindows, QuitComesAfterPostedMessagesAndCloseDestroysThroughDefWindowProc) {
    TestDevice td;
    HWND main = createMain();
    HWND child = create(TEXT("TEST_CLS"), TEXT("child"), WS_CHILD, main, 5);
    EXPECT_EQ(GetParent(child), main);
    ASSERT_TRUE(PostMessageW(main, WM_USER + 1, 1, 0));
    ASSERT_TRUE(PostMessageW(NULL, WM_USER + 2, 0, 0));   // a thread message
    ASSERT_TRUE(PostMessageW(child, WM_USER + 3, 0, 0));
    PostQuitMessage(7);
    ASSERT_TRUE(PostMessageW(main, WM_USER + 4, 0, 0));
    ASSERT_TRUE(DestroyWindow(child));                      // WM_USER + 3 goes with it
    struct Expected { HWND hwnd; UINT msg; };
    MSG msg;
    for (const Expected &e : {Expected{main, WM_USER + 1}, Expected{NULL, WM_USER + 2}, Expected{main, WM_USER + 4}}) {
        ASSERT_TRUE(GetMessageW(&msg, NULL, 0, 0));
        EXPECT_TRUE(msg.hwnd == e.hwnd && msg.message == e.msg) << msg.message;
    }
    EXPECT_FALSE(GetMessageW(&msg, NULL, 0, 0));
    EXPECT_TRUE(msg.message == WM_QUIT && msg.wParam == 7u) << msg.message;

    // WM_CLOSE through DefWindowProcW: WM_DESTROY to the window, then to its child; the window's
    // procedure posts the quit message.
    HWND child2 = create(TEXT("TEST_CLS"), TEXT("child2"), WS_CHILD, main, 6);
    g_seen.clear();
    ASSERT_TRUE(PostMessageW(main, WM_CLOSE, 0, 0));
    while (GetMessageW(&msg, NULL, 0, 0)) DispatchMessageW(&msg);
    EXPECT_EQ(msg.wParam, 0u);
    EXPECT_EQ(messagesSeen(), (std::vector<UINT>{WM_CLOSE, WM_DESTROY, WM_DESTROY}));
    EXPECT_TRUE(g_seen[1].hwnd == main && g_seen[2].hwnd == child2);
    EXPECT_FALSE(IsWindow(main) || IsWindow(child2));
    EXPECT_FAILS(PostMessageW(main, WM_USER, 0, 0), 1400);
    EXPECT_FAILS(SendMessageW(main, WM_USER + 1, 0, 0), 1400);
}

TEST(SimWindows, ScreenMetricsComeFromTheProfile) {
    struct Case { std::string profile; int cx, cy; };
    for (const Case &c : {Case{"", 480, 272}, Case{"[screen]\nwidth = 800\nheight = 480\n", 800, 480},
                          Case{"[screen]\nwidth = 320\n", 320, 272}}) {
        TestDevice td(c.profile);
        EXPECT_EQ(std::make_tuple(GetSystemMetrics(SM_CXSCREEN), GetSystemMetrics(SM_CYSCREEN), GetSystemMetrics(2)),
                  std::make_tuple(c.cx, c.cy, 0)) << c.profile;
    }
}

TEST(SimWindows, FontsAndStockObjects) {
    TestDevice td;
    LOGFONTW lf = {};
    lf.lfHeight = -12;
    lf.lfWeight = 400;
    for (int i = 0; i < LF_FACESIZE; ++i) lf.lfFaceName[i] = u'T';   // a full field, unterminated
    HFONT font = CreateFontIndirectW(&lf);
    ASSERT_NE(font, nullptr);
    td.dev().setFailure("CreateFontIndirectW", 8);
    EXPECT_EQ(CreateFontIndirectW(&lf), nullptr);
    auto fonts = td.events("font");   // the failed call made none
    ASSERT_EQ(fonts.size(), 1u);
    EXPECT_EQ(fonts[0], (nlohmann::json{{"event", "font"}, {"t", 0}, {"face", std::string(LF_FACESIZE, 'T')},
                                        {"height", -12}, {"weight", 400}}));

    HGDIOBJ gray = GetStockObject(GRAY_BRUSH);
    EXPECT_TRUE(gray && gray != GetStockObject(WHITE_BRUSH) && GetStockObject(SYSTEM_FONT));
    EXPECT_EQ(GetStockObject(99), nullptr);
    EXPECT_TRUE(DeleteObject(font));
    EXPECT_FALSE(DeleteObject(font));   // gone already
    EXPECT_TRUE(DeleteObject(gray));
    EXPECT_FALSE(DeleteObject((HGDIOBJ)(UINT_PTR)0x1234));
}
