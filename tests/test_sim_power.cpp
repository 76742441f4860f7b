// The simulated device's power status and notifications, message queues, card notifications and
// process start, in deterministic device time.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "power.h"
#include "test_device.h"

using testing_support::TestDevice;
using testing_support::W;
using sim::kErrorPipeNotConnected;
using sim::kFatMountClass;

namespace {

MSGQUEUEOPTIONS options(DWORD maxMessages, DWORD maxMessage, BOOL read) {
    return MSGQUEUEOPTIONS{sizeof(MSGQUEUEOPTIONS), 0, maxMessages, maxMessage, read};
}

// The power monitor's queue: at most 3 messages of at most 216 bytes, read access.
HANDLE monitorQueue() {
    MSGQUEUEOPTIONS o = options(3, 216, TRUE);
    return CreateMsgQueue(NULL, &o);
}

struct Msg {
    bool ok;
    DWORD error, tick;
    std::vector<BYTE> bytes;
    DWORD word(size_t at) const { return DWORD(bytes[at]) | bytes[at + 1] << 8 | bytes[at + 2] << 16 | bytes[at + 3] << 24; }
};

Msg readOne(HANDLE q, DWORD timeout, DWORD size = 216) {
    std::vector<BYTE> buf(size);
    DWORD n = 0, flags = 0;
    SetLastError(0);
    BOOL ok = ReadMsgQueue(q, buf.data(), size, &n, timeout, &flags);
    buf.resize(n);
    return {ok != FALSE, GetLastError(), GetTickCount(), buf};
}

// A DEVDETAIL's name: cbName bytes from byte 28, its terminator included.
std::string detailName(const Msg &m) {
    return sim::utf8(std::u16string(reinterpret_cast<const char16_t *>(&m.bytes[28]), m.word(24) / 2 - 1));
}

}  // namespace

TEST(SimPower, RegistrationQueuesTheCurrentStatusOnlyWhenAskedFor) {
    const struct { DWORD flags; bool initial; } cases[] = {
        {PBT_RESUME | PBT_POWERSTATUSCHANGE | PBT_POWERINFOCHANGE, true}, {PBT_POWERSTATUSCHANGE, true},
        {PBT_RESUME | PBT_POWERINFOCHANGE, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.flags);
        TestDevice td("[power]\nac_line = 0\nbattery_percent = 19\n");
        HANDLE q = monitorQueue(), h = RequestPowerNotifications(q, c.flags);
        ASSERT_NE(h, (HANDLE)NULL);
        Msg m = readOne(q, 0);
        EXPECT_EQ(m.ok, c.initial);
        EXPECT_TRUE(c.initial ? m.bytes.size() == 12 && m.word(0) == PBT_POWERSTATUSCHANGE && m.word(8) == 0
                              : m.error == ERROR_TIMEOUT);
        EXPECT_EQ(td.events("power_notification").size(), c.initial ? 1u : 0u);
        EXPECT_EQ(StopPowerNotifications(h), DWORD(ERROR_SUCCESS));
        EXPECT_EQ(StopPowerNotifications(h), DWORD(ERROR_INVALID_HANDLE));
        EXPECT_TRUE(CloseMsgQueue(q));
    }
}

TEST(SimPower, StatusRecordHasTheFlagsOfItsChargeAndLine) {
    const struct { int ac, percent; BYTE flag; DWORD life; } cases[] = {
        {1, 100, 0x01, 0xFFFFFFFF}, {1, 50, 0x08, 0xFFFFFFFF}, {1, 20, 0x0A, 0xFFFFFFFF},
        {0, 67, 0x01, 12060},       {0, 19, 0x02, 3420},       {0, 4, 0x06, 720},
        {0, 255, 0xFF, 0xFFFFFFFF},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.ac) + "/" + std::to_string(c.percent));
        TestDevice td("[power]\nac_line = " + std::to_string(c.ac) + "\nbattery_percent = " + std::to_string(c.percent));
        SYSTEM_POWER_STATUS_EX2 s;
        std::memset(&s, 0xCC, sizeof s);
        ASSERT_EQ(GetSystemPowerStatusEx2(&s, sizeof s, TRUE), 56u);
        EXPECT_EQ(s.ACLineStatus, c.ac);
        EXPECT_EQ(s.BatteryLifePercent, c.percent);
        EXPECT_EQ(s.BatteryFlag, c.flag);
        EXPECT_EQ(s.BatteryLifeTime, c.life);
        EXPECT_EQ(s.BackupBatteryFlag, 0xFF);
    }
    TestDevice td;   // a short record: only what fits is written
    BYTE rec[56];
    std::memset(rec, 0xCC, sizeof rec);
    EXPECT_EQ(GetSystemPowerStatusEx2(reinterpret_cast<SYSTEM_POWER_STATUS_EX2 *>(rec), 3, FALSE), 3u);
    EXPECT_TRUE(rec[0] == 1 && rec[1] == 0x01 && rec[2] == 100 && rec[3] == 0xCC);
}

TEST(SimPower, EventsArriveAtTheirDeviceTimeAndStoppedRequestsGetNone) {
    TestDevice td("power.events = [{at_ms = 5000, type = 'status', ac_line = 0, battery_percent = 19},\n"
                  "  {at_ms = 6000, type = 'info', ac_line = 1}, {at_ms = 7000, type = 'resume'}]");
    HANDLE q = monitorQueue(), stopped = monitorQueue();
    ASSERT_NE(RequestPowerNotifications(q, 0x0E), (HANDLE)NULL);
    EXPECT_EQ(StopPowerNotifications(RequestPowerNotifications(stopped, 0x0E)), DWORD(ERROR_SUCCESS));
    ASSERT_TRUE(readOne(q, 0).ok);   // the initial status
    const struct { DWORD tick, type; size_t size; } expected[] = {{5000, 4, 12}, {6000, 8, 36}, {7000, 2, 12}};
    for (const auto &e : expected) {
        Msg m = readOne(q, INFINITE);
        ASSERT_TRUE(m.ok);
        EXPECT_EQ(m.tick, e.tick);
        EXPECT_EQ(m.word(0), e.type);
        EXPECT_EQ(m.bytes.size(), e.size);
    }
    EXPECT_EQ(td.dev().power().status().acLine, 1);   // the info event's line, the status event's charge
    EXPECT_EQ(td.dev().power().status().percent, 19);
    ASSERT_TRUE(readOne(stopped, 0).ok);              // its initial status only, then no writer is left
    EXPECT_EQ(readOne(stopped, 0).error, kErrorPipeNotConnected);
}

TEST(SimPower, AFullQueueDropsFurtherNotifications) {
    TestDevice td("power.events = [{at_ms = 1000, type = 'status'}, {at_ms = 2000, type = 'status'},\n"
                  "  {at_ms = 3000, type = 'status'}, {at_ms = 4000, type = 'status', battery_percent = 40}]");
    HANDLE q = monitorQueue();
    ASSERT_NE(RequestPowerNotifications(q, 0x0E), (HANDLE)NULL);
    Sleep(5000);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(readOne(q, 0).ok) << i;   // the initial one, 1000, 2000
    EXPECT_EQ(readOne(q, 0).error, DWORD(ERROR_TIMEOUT));
    EXPECT_EQ(td.events("power_notification").size(), 3u);
    EXPECT_EQ(td.events("power_notification_dropped").size(), 2u);
    EXPECT_EQ(td.dev().power().status().percent, 40);                   // the status changed all the same
}

TEST(SimPower, MessageQueuesAsCeDocumentsThem) {
    TestDevice td;
    const size_t handles = td.dev().objects().count();
    MSGQUEUEOPTIONS bad[] = {options(3, 216, TRUE), options(3, 0, TRUE)};
    bad[0].dwSize = 16;
    for (MSGQUEUEOPTIONS &o : bad) {
        EXPECT_EQ(CreateMsgQueue(NULL, &o), (HANDLE)NULL);
        EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));
    }
    MSGQUEUEOPTIONS wo = options(3, 216, FALSE), ro = options(3, 216, TRUE);
    std::u16string name = W("queue");
    HANDLE w = CreateMsgQueue(name.c_str(), &wo);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_SUCCESS));
    HANDLE r = CreateMsgQueue(name.c_str(), &ro);   // the same queue, read access
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ALREADY_EXISTS));
    BYTE data[217] = {1, 2, 3};
    EXPECT_EQ(readOne(w, 0).error, DWORD(ERROR_ACCESS_DENIED));
    EXPECT_FALSE(WriteMsgQueue(r, data, 3, 0, 0));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_FALSE(WriteMsgQueue(w, data, 217, 0, 0));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INSUFFICIENT_BUFFER));

    // Time-outs in exact device time: an empty queue read, a full queue written.
    DWORD t0 = GetTickCount();
    Msg m = readOne(r, 1500);
    EXPECT_TRUE(!m.ok && m.error == ERROR_TIMEOUT && m.tick - t0 == 1500);
    EXPECT_EQ(WaitForSingleObject(r, 0), WAIT_TIMEOUT);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(WriteMsgQueue(w, data, 20, 0, 0));
    EXPECT_EQ(WaitForSingleObject(r, 0), WAIT_OBJECT_0);
    t0 = GetTickCount();
    EXPECT_FALSE(WriteMsgQueue(w, data, 20, 250, 0));
    EXPECT_TRUE(GetLastError() == ERROR_TIMEOUT && GetTickCount() - t0 == 250);

    // Too small a buffer takes the message away with its first bytes.
    m = readOne(r, 0, 8);
    EXPECT_TRUE(!m.ok && m.error == ERROR_INSUFFICIENT_BUFFER && m.bytes.size() == 8 && m.bytes[2] == 3);
    EXPECT_TRUE(readOne(r, 0).ok && readOne(r, 0).ok);
    // With the writer gone an empty queue is broken; CloseHandle closes a queue too.
    EXPECT_TRUE(CloseMsgQueue(w));
    EXPECT_EQ(readOne(r, INFINITE).error, kErrorPipeNotConnected);
    EXPECT_TRUE(CloseHandle(r));
    EXPECT_FALSE(CloseMsgQueue(r));
    EXPECT_EQ(td.dev().objects().count(), handles);
}

TEST(SimPower, AReaderOnAnotherThreadWakesAtTheWrite) {
    TestDevice td;
    MSGQUEUEOPTIONS wo = options(0, 16, FALSE), ro = options(0, 16, TRUE);
    std::u16string name = W("wake");
    HANDLE w = CreateMsgQueue(name.c_str(), &wo);
    static HANDLE r;
    static Msg got;
    r = CreateMsgQueue(name.c_str(), &ro);
    HANDLE t = CreateThread(NULL, 0, [](LPVOID) -> DWORD { got = readOne(r, INFINITE); return 0; }, NULL, 0, NULL);
    Sleep(700);
    DWORD word = 0x1234;   // written at 700 ms of device time
    ASSERT_TRUE(WriteMsgQueue(w, &word, 4, 0, 0));
    ASSERT_EQ(WaitForSingleObject(t, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(got.ok && got.word(0) == 0x1234);
    EXPECT_EQ(got.tick, 700u);
}

TEST(SimPower, CardNotificationsOfTheFatMountClass) {
    const char *profile = "card = {present = true, name = 'Storage Card', events = [{at_ms = 3000, attached = false},\n"
                          "  {at_ms = 4000, attached = true, name = 'USB Disk'}]}";
    const GUID other = {0x12345678, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
    const struct { const GUID *cls; BOOL all; std::vector<std::tuple<DWORD, DWORD, std::string>> expected; } cases[] = {
        {&kFatMountClass, TRUE, {{0, 1, "Storage Card"}, {3000, 0, "Storage Card"}, {4000, 1, "USB Disk"}}},
        {&kFatMountClass, FALSE, {{3000, 0, "Storage Card"}, {4000, 1, "USB Disk"}}},
        {&other, TRUE, {}},
    };
    for (const auto &c : cases) {
        TestDevice td(profile);
        EXPECT_TRUE(td.dev().power().cardPresent());
        MSGQUEUEOPTIONS o = options(0, 4096, TRUE);   // the card watcher's queue
        HANDLE q = CreateMsgQueue(NULL, &o), h = RequestDeviceNotifications(c.cls, q, c.all);
        ASSERT_NE(h, (HANDLE)NULL);
        std::vector<std::tuple<DWORD, DWORD, std::string>> got;
        for (Msg m = readOne(q, 5000, 584); m.ok; m = readOne(q, 5000, 584)) {
            EXPECT_EQ(std::memcmp(m.bytes.data(), &kFatMountClass, sizeof(GUID)), 0);
            EXPECT_EQ(m.bytes.size(), 28 + m.word(24));
            got.emplace_back(m.tick, m.word(20), detailName(m));
        }
        EXPECT_EQ(got, c.expected);
        EXPECT_FALSE(td.dev().power().cardPresent());   // another volume's mount leaves the card out
        EXPECT_TRUE(StopDeviceNotifications(h));
        EXPECT_FALSE(StopDeviceNotifications(h));
    }
}

TEST(SimPower, ProcessStartNeedsTheFileAndLeavesNoHandleOnceClosed) {
    TestDevice td;
    td.put("\\Windows\\USBScreen.exe", "MZ");
    const size_t handles = td.dev().objects().count();
    const struct { const char *app, *line, *journaled; DWORD error; } cases[] = {
        {"\\windows\\USBScreen.exe", nullptr, "\\windows\\USBScreen.exe", 0},
        {nullptr, "\"\\windows\\usbscreen.exe\" -x", "\\windows\\usbscreen.exe", 0},
        {nullptr, "USBScreen -x", "USBScreen", 0},                    // looked up in \Windows, .exe added
        {"\\My Flash Disk\\Navi\\navi.exe", nullptr, "\\My Flash Disk\\Navi\\navi.exe", ERROR_FILE_NOT_FOUND},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.journaled);
        std::u16string app = W(c.app ? c.app : ""), line = W(c.line ? c.line : "");
        PROCESS_INFORMATION pi = {};
        SetLastError(0);
        BOOL ok = CreateProcessW(c.app ? app.c_str() : NULL, c.line ? &line[0] : NULL, NULL, NULL, FALSE, 0, NULL,
                                 NULL, NULL, &pi);
        EXPECT_EQ(ok != FALSE, c.error == 0);
        EXPECT_EQ(GetLastError(), c.error);
        auto e = td.events("process_start").back();
        EXPECT_TRUE(e["path"] == c.journaled && e["ok"] == (c.error == 0) && e["error"] == c.error) << e;
        if (ok) {
            EXPECT_TRUE(pi.dwProcessId && pi.dwThreadId && CloseHandle(pi.hThread) && CloseHandle(pi.hProcess));
        }
        EXPECT_EQ(td.dev().objects().count(), handles);
    }
}

TEST(SimPower, InjectedFailuresFailTheCallAndChangeNothing) {
    TestDevice td("[fail]\nGetSystemPowerStatusEx2 = 31\nSetSystemPowerState = 5\nCreateProcessW = 8\n");
    td.put("\\Windows\\USBScreen.exe", "MZ");
    SYSTEM_POWER_STATUS_EX2 s;
    EXPECT_EQ(GetSystemPowerStatusEx2(&s, sizeof s, TRUE), 0u);
    EXPECT_EQ(GetLastError(), 31u);
    EXPECT_EQ(SetSystemPowerState(NULL, POWER_STATE_RESET, POWER_FORCE), 5u);   // and the run goes on
    EXPECT_EQ(td.events("set_power_state").at(0)["error"], 5);
    std::u16string exe = W("\\Windows\\USBScreen.exe");
    PROCESS_INFORMATION pi = {};
    EXPECT_FALSE(CreateProcessW(exe.c_str(), NULL, NULL, NULL, FALSE, 0, NULL, NULL, NULL, &pi));
    EXPECT_EQ(GetLastError(), 8u);
    EXPECT_TRUE(td.events("process_start").at(0)["ok"] == false && pi.hProcess == NULL);
}

TEST(SimPower, BadProfilesStopTheDevice) {
    const char *profiles[] = {
        "power = {battery_percent = 256}", "power = {ac_line = 'on'}", "power = {batery_percent = 5}",
        "power.events = [{at_ms = 10, type = 'suspend'}]", "power.events = [{at_ms = -1, type = 'status'}]",
        "power.events = [{type = 'status'}]", "power.events = {at_ms = 1, type = 'status'}",
        "card = {present = 1}", "card.events = [{at_ms = 10}]", "card.events = [{at_ms = 1, attached = true, name = ''}]",
    };
    for (const char *p : profiles) EXPECT_THROW(TestDevice td(p), std::runtime_error) << p;
}

TEST(SimPowerDeathTest, ResetEndsTheRun) {
    TestDevice td;
    EXPECT_EQ(SetSystemPowerState(NULL, POWER_STATE_SUSPEND, 0), DWORD(ERROR_SUCCESS));   // not a reset
    EXPECT_EXIT({ SetSystemPowerState(NULL, POWER_STATE_RESET, POWER_FORCE); std::exit(3); },
                testing::ExitedWithCode(0), "");
    std::ifstream in(td.folder() / "run" / "journal.jsonl");
    std::vector<nlohmann::json> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0]["state"], POWER_STATE_SUSPEND);
    const auto &set = lines[1], &end = lines.back();
    EXPECT_TRUE(set["event"] == "set_power_state" && set["state"] == 0x00800000 && set["flags"] == 0x1000) << set;
    EXPECT_TRUE(end["event"] == "end" && end["reason"] == "reset") << end;
}
