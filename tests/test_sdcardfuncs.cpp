// The SD card watcher: the short poll for a path on the card, and the card thread that turns the
// system's volume-mount notifications into posted window messages.
#include "test_device.h"

#include "platform/platform.h"
#include "platform/dbgtrace.h"
#include "platform/sdcardfuncs.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using testing_support::TestDevice;
using testing_support::U;

namespace {

// What the log's ring buffer received after the mark was made.
struct LogMark {
    int pos = 0;
    LogMark() { vl_ringBuffer(&pos, nullptr); }
    std::string since() const {
        int now = 0;
        const WCHAR *ring = vl_ringBuffer(&now, nullptr);
        return U(ring + pos) + (now < pos ? U(ring) : "");
    }
    int count(const std::string &part) const {
        const std::string log = since();
        int n = 0;
        for (size_t at = log.find(part); at != std::string::npos; at = log.find(part, at + 1)) ++n;
        return n;
    }
};

std::string g_trace;
void captureTrace(const char *text) { g_trace += text; }

const UINT kCardMessage = WM_USER + 7;
const UINT kEndMessage = WM_USER + 8;

}  // namespace

TEST(SdcardWait, TriesTenTimesHundredMillisecondsApart) {
    struct Case {
        bool present;
        int result;
        DWORD elapsedMs;
        int notFoundLines;
        const char *lastLine;
    } const cases[] = {
        {true, 1, 0, 0, "DEBUG, sdcard_wait(): 0 - SD card found\r\n"},
        {false, 0, 1000, 10, "DEBUG, sdcard_wait(): 9 - SD card not found\r\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.present);
        TestDevice t;
        t.dev().clock().setScale(0);
        if (c.present) t.put("\\Storage Card\\paths.xml", "x");
        g_vlLogSettings.level = LOG_DEBUG;
        LogMark mark;
        DWORD before = GetTickCount();
        EXPECT_EQ(c.result, sdcard_wait(u"\\Storage Card\\paths.xml"));
        EXPECT_EQ(c.elapsedMs, GetTickCount() - before);
        EXPECT_EQ(c.notFoundLines, mark.count("SD card not found"));
        EXPECT_EQ(1, mark.count(c.lastLine));
        // A found search is closed: the next one starts without the "not closed" warning.
        EXPECT_EQ(c.result, sdcard_wait(u"\\Storage Card\\paths.xml"));
        EXPECT_EQ(0, mark.count("File not closed from previous use"));
    }
}

TEST(SDCardThread, PostsInsertionAndRemovalOfTheCardOnly) {
    struct Case {
        const char *what;
        std::string profile;
        std::vector<WPARAM> posts;
        bool stopAll = false;
    } const cases[] = {
        {"a card present at start is announced; a name without backslash matches the folder",
         "[card]\npresent = true\nname = 'Storage Card'\n", {1}},
        {"inserted, then removed",
         "[card]\npresent = false\n"
         "[[card.events]]\nat_ms = 200\nattached = true\nname = '\\Storage Card'\n"
         "[[card.events]]\nat_ms = 700\nattached = false\nname = '\\STORAGE CARD'\n",
         {1, 0}},
        {"other volumes post nothing",
         "[card]\npresent = false\n"
         "[[card.events]]\nat_ms = 200\nattached = true\nname = '\\USB Disk'\n"
         "[[card.events]]\nat_ms = 300\nattached = true\nname = 'Storage Card2'\n"
         "[[card.events]]\nat_ms = 400\nattached = true\nname = 'torage Card'\n",
         {}},
        {"the card's folder comes from the registry",
         "[registry.'HKLM\\Information']\nExternal1 = '\\SD'\n"
         "[card]\npresent = false\n"
         "[[card.events]]\nat_ms = 200\nattached = true\nname = '\\Storage Card'\n"
         "[[card.events]]\nat_ms = 900\nattached = true\nname = 'sd'\n",
         {1}},
        {"the process-wide stop flag ends the thread before it reads anything",
         "[card]\npresent = true\nname = 'Storage Card'\n", {}, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TestDevice t(c.profile);
        t.dev().clock().setScale(0);
        g_vlLogSettings.level = LOG_DEBUG;
        g_salTraceMasks[1] = 64;
        g_salTraceOutput = captureTrace;
        g_trace.clear();
        g_bSalStopAllThreads = c.stopAll ? 1 : 0;

        WNDCLASSW wc = {};
        wc.lpfnWndProc = DefWindowProcW;
        wc.lpszClassName = u"CardTest";
        RegisterClassW(&wc);
        HWND window = CreateWindowExW(0, u"CardTest", u"", 0, 0, 0, 10, 10, NULL, NULL, NULL, NULL);
        ASSERT_NE(nullptr, window);

        LogMark mark;
        SDCardThread thread(window, kCardMessage);
        ASSERT_TRUE(thread.start());
        Sleep(3000);
        thread.stop();
        ASSERT_EQ(WAIT_OBJECT_0, thread.join(INFINITE));
        // Device time moves on only once the ended thread has also left the clock, so after this
        // sleep nothing of it touches the device that the end of this case destroys.
        Sleep(1);

        // What the thread posted waits in this thread's queue, ahead of the end mark.
        PostMessageW(window, kEndMessage, 0, 0);
        std::vector<WPARAM> posts;
        MSG msg;
        while (GetMessageW(&msg, NULL, 0, 0) && msg.message != kEndMessage) {
            if (msg.message != kCardMessage) continue;
            EXPECT_EQ(window, msg.hwnd);
            EXPECT_EQ(0, msg.lParam);
            posts.push_back(msg.wParam);
        }
        EXPECT_EQ(c.posts, posts);
        EXPECT_EQ(int(c.posts.size()), mark.count("SDCardThread::execute(): Card "));
        EXPECT_NE(std::string::npos, g_trace.find("D-1-salthreadcommon.cpp-")) << g_trace;
        EXPECT_NE(std::string::npos, g_trace.find("Thread entrypoint reached !\n")) << g_trace;
        DestroyWindow(window);
    }
    g_bSalStopAllThreads = 0;
}
