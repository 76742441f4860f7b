// The SD card watcher: the short poll for a path on the card, and the card thread that turns the
// system's volume-mount notifications into posted window messages.
#include "test_device.h"

#include "platform/platform.h"
#include "platform/sdcardfuncs.h"

#include <gtest/gtest.h>

using namespace testing_support;

namespace {


// A volume-mount event of the profile.
std::string mount(int atMs, bool attached, const std::string &name) {
    return "[[card.events]]\nat_ms = " + std::to_string(atMs) + "\nattached = " + (attached ? "true" : "false") +
           "\nname = '" + name + "'\n";
}

}  // namespace

TEST(SdcardWait, TriesTenTimesHundredMillisecondsApart) {
    for (bool present : {true, false}) {
        SCOPED_TRACE(present);
        TestDevice t;
        if (present) t.put("\\Storage Card\\paths.xml", "x");
        g_vlLogSettings.level = LOG_DEBUG;
        testing_support::LogMark mark;
        DWORD before = GetTickCount();
        EXPECT_EQ(present ? 1 : 0, sdcard_wait(u"\\Storage Card\\paths.xml"));
        EXPECT_EQ(present ? 0u : 1000u, GetTickCount() - before);
        EXPECT_EQ(present ? 0 : 10, mark.count("SD card not found"));
        EXPECT_EQ(1, mark.count(present ? "DEBUG, sdcard_wait(): 0 - SD card found\r\n"
                                              : "DEBUG, sdcard_wait(): 9 - SD card not found\r\n"));
        // A found search is closed: the next one starts without the "not closed" warning.
        EXPECT_EQ(present ? 1 : 0, sdcard_wait(u"\\Storage Card\\paths.xml"));
        EXPECT_EQ(0, mark.count("File not closed from previous use"));
    }
}

TEST(SDCardThread, PostsInsertionAndRemovalOfTheCardOnly) {
    const UINT kCardMessage = WM_USER + 7;
    const UINT kEndMessage = WM_USER + 8;
    const std::string kAbsent = "[card]\npresent = false\n";
    const std::string kPresent = "[card]\npresent = true\nname = 'Storage Card'\n";
    struct Row {
        const char *what;
        std::string profile;
        std::vector<WPARAM> posts;
        bool stopAll = false;
    } const rows[] = {
        {"a card present at start is announced; a name without backslash matches the folder", kPresent, {1}},
        {"inserted, then removed",
         kAbsent + mount(200, true, "\\Storage Card") + mount(700, false, "\\STORAGE CARD"), {1, 0}},
        {"other volumes post nothing",
         kAbsent + mount(200, true, "\\USB Disk") + mount(300, true, "Storage Card2") + mount(400, true, "torage Card"),
         {}},
        {"the card's folder comes from the registry",
         "[registry.'HKLM\\Information']\nExternal1 = '\\SD'\n" + kAbsent + mount(200, true, "\\Storage Card") +
             mount(900, true, "sd"),
         {1}},
        {"the process-wide stop flag ends the thread before it reads anything", kPresent, {}, true},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        TestDevice t(r.profile);
        g_vlLogSettings.level = LOG_DEBUG;
        g_bSalStopAllThreads = r.stopAll ? 1 : 0;
        WNDCLASSW wc = {};
        wc.lpfnWndProc = DefWindowProcW;
        wc.lpszClassName = u"CardTest";
        RegisterClassW(&wc);
        HWND window = CreateWindowExW(0, u"CardTest", u"", 0, 0, 0, 10, 10, NULL, NULL, NULL, NULL);
        ASSERT_NE(nullptr, window);

        testing_support::LogMark mark;
        SDCardThread thread(window, kCardMessage);
        ASSERT_TRUE(thread.start());
        Sleep(3000);
        thread.stop();
        ASSERT_EQ(WAIT_OBJECT_0, thread.join(INFINITE));
        // Device time moves on only once the ended thread has also left the clock, so after this
        // sleep nothing of it touches the device that the end of this row destroys.
        Sleep(1);

        // What the thread posted waits in this thread's queue, ahead of the end mark; a post to
        // another window or with a second parameter shows as 99.
        PostMessageW(window, kEndMessage, 0, 0);
        std::vector<WPARAM> posts;
        MSG msg;
        while (GetMessageW(&msg, NULL, 0, 0) && msg.message != kEndMessage) {
            if (msg.message == kCardMessage) posts.push_back(msg.hwnd == window && msg.lParam == 0 ? msg.wParam : 99);
        }
        EXPECT_EQ(r.posts, posts);
        EXPECT_EQ(int(r.posts.size()), mark.count("SDCardThread::execute(): Card "));
        DestroyWindow(window);
    }
    g_bSalStopAllThreads = 0;
}
