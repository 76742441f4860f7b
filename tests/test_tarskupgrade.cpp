// The application's pieces that a whole boot does not isolate: the engine's creation, the launcher's
// log lines and last error, the power monitor's dispatch, and a session without an engine.
#include "tarsk_engine_helpers.h"
#include "tarskupgrade/tarskupgrade.h"
#include "tarsklib/tarsklib.h"
#include "windows.h"

#include <gtest/gtest.h>

using namespace engine_test;
using testing_support::logged;

// A second InitTarskLib fails rather than replacing the engine; a construction that cannot make its
// cipher context fails and leaves nothing.
TEST(TarskUpgrade, InitTarskLibMakesOneEngine) {
    TestDevice td(profile());
    ASSERT_TRUE(InitTarskLib(recordProgress));
    TarskEngine *first = g_pTarsk;
    EXPECT_FALSE(InitTarskLib(recordProgress));
    EXPECT_EQ(g_pTarsk, first);
    EXPECT_TRUE(ExitTarskLib());
    EXPECT_EQ(g_pTarsk, nullptr);
    EXPECT_TRUE(ExitTarskLib()) << "nothing to destroy is no failure";

    // the engine object is the first allocation, its cipher context the second (refused, and again
    // after the heap is compacted)
    const unsigned allocations = td.dev().callCount("HeapAlloc");
    td.dev().setFailure("HeapAlloc", DWORD(ERROR_NOT_ENOUGH_MEMORY), allocations + 2, 2);
    EXPECT_FALSE(InitTarskLib(recordProgress));
    EXPECT_EQ(g_pTarsk, nullptr);
}

// A failed navigation start leaves two ERROR lines and the platform's error as the last launch
// error; a successful start leaves no handle open.
TEST(TarskUpgrade, LauncherLogsAndKeepsTheError) {
    TestDevice td(profile());
    td.put("\\Windows\\USBScreen.exe", "x");
    EXPECT_FALSE(StartSecondaryProcess(u"\\nav\\missing.exe"));
    EXPECT_EQ(g_dwLastLaunchError, DWORD(ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(logged("StartProcess(): CreateProcess(\\nav\\missing.exe) failed, error 2\r\n"));
    EXPECT_TRUE(logged("StartSecondaryProcess(): StartProcess(\\nav\\missing.exe) failed, error 2\r\n"));
    const size_t handles = td.dev().objects().count();
    EXPECT_TRUE(StartProcess(u"\\windows\\USBScreen.exe", nullptr));
    EXPECT_EQ(td.dev().objects().count(), handles);
    EXPECT_EQ(g_dwLastLaunchError, DWORD(ERROR_FILE_NOT_FOUND)) << "not reset on success";
}

namespace {
std::vector<std::string> g_calls;
BOOL onStatus(SYSTEM_POWER_STATUS_EX2 *s) {
    g_calls.push_back("status " + std::to_string(s->BatteryLifePercent) + " at " + std::to_string(GetTickCount()));
    return TRUE;
}
BOOL onInfo(SYSTEM_POWER_STATUS_EX2 *s) {
    g_calls.push_back("info " + std::to_string(s->BatteryLifePercent));
    return TRUE;
}
BOOL onResume() {
    g_calls.push_back("resume");
    // the last event: let the loop end so the thread returns
    g_AppSettings.PowerMonitorRunning = FALSE;
    return TRUE;
}
}  // namespace

// Each notification calls its callback once; a failed status read calls none; a resume reads no
// status. The thread runs at the top of CE's priority scale.
TEST(TarskUpgrade, PowerMonitorDispatches) {
    TestDevice td(profile("[power]\nbattery_percent = 50\n"
                          "[[power.events]]\nat_ms = 2000\ntype = 'status'\nbattery_percent = 40\n"
                          "[[power.events]]\nat_ms = 3000\ntype = 'info'\nbattery_percent = 30\n"
                          "[[power.events]]\nat_ms = 4000\ntype = 'resume'\n"
                          "[fail]\nGetSystemPowerStatusEx2 = { error = 31, nth = 1 }\n"));
    PowerCallbacks callbacks = {onStatus, onInfo, onResume};
    ASSERT_TRUE(StartPowerManagerThread(&callbacks));
    EXPECT_EQ(WaitForSingleObject(g_hPowerThread, INFINITE), WAIT_OBJECT_0);
    DWORD code = 0;
    GetExitCodeThread(g_hPowerThread, &code);
    EXPECT_EQ(code, 1u);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"status 40 at 2000", "info 30", "resume"}))
        << "the first (initial) status read failed";
    EXPECT_EQ(td.dev().callCount("GetSystemPowerStatusEx2"), 3u);
    EXPECT_EQ(PowerMonitorThread(nullptr), 0u);
}

// Without an engine a session shows the two headings and nothing more, and the window stays.
TEST(TarskUpgrade, SessionWithoutAnEngine) {
    TestDevice td(profile());
    EXPECT_TRUE(AppendProgress(u"lost\r\n"));
    EXPECT_TRUE(logged("main window isn't ready right now\r\r\n"));
    ASSERT_TRUE(InitInstance(nullptr, SW_SHOW));
    EXPECT_TRUE(RunUpgradeSession(&g_AppSettings.CheckRegion));
    AppendProgress(u"");
    AppendProgressIf(nullptr, TRUE);
    EXPECT_EQ(U(td.dev().windows().panelText().c_str()),
              "==============ANALYSIZE THE SYSTEM...===============\r\n"
              "\r\n=============CHECK THE UPGRADE CONDITION============\r\n");
    EXPECT_TRUE(IsWindow(g_hMainWnd));
    EXPECT_TRUE(td.events("process_start").empty());
}
