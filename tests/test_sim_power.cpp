// The simulated device's power status and notifications, message queues, card notifications and
// process start, in deterministic device time.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <tuple>

#include "power.h"
#include "test_device.h"

using namespace testing_support;
using sim::kErrorPipeNotConnected;
using sim::kFatMountClass;

namespace {

// A new message queue; the power monitor's holds at most 3 messages of at most 216 bytes.
HANDLE queue(DWORD maxMessages = 3, DWORD maxMessage = 216, BOOL read = TRUE, LPCWSTR name = NULL) {
    MSGQUEUEOPTIONS o = {sizeof o, 0, maxMessages, maxMessage, read};
    return CreateMsgQueue(name, &o);
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

TEST(SimPower, StatusRecordHasTheFlagsOfItsChargeAndLine) {
    const struct { int ac, percent, flag; DWORD life; } cases[] = {
        {1, 100, 0x01, 0xFFFFFFFF}, {1, 50, 0x08, 0xFFFFFFFF}, {1, 20, 0x0A, 0xFFFFFFFF},
        {0, 67, 0x01, 12060},       {0, 19, 0x02, 3420},       {0, 4, 0x06, 720},
        {0, 255, 0xFF, 0xFFFFFFFF}};
    SYSTEM_POWER_STATUS_EX2 s;
    for (const auto &c : cases) {
        TestDevice td("[power]\nac_line = " + std::to_string(c.ac) + "\nbattery_percent = " + std::to_string(c.percent));
        std::memset(&s, 0xCC, sizeof s);
        ASSERT_EQ(GetSystemPowerStatusEx2(&s, sizeof s, TRUE), 56u);
        EXPECT_EQ(std::make_tuple(int(s.ACLineStatus), int(s.BatteryLifePercent), int(s.BatteryFlag), s.BatteryLifeTime,
                                  int(s.BackupBatteryFlag)),
                  std::make_tuple(c.ac, c.percent, c.flag, c.life, 0xFF));
    }
    TestDevice td;   // a short record: only what fits is written
    BYTE rec[56];
    std::memset(rec, 0xCC, sizeof rec);
    EXPECT_EQ(GetSystemPowerStatusEx2(reinterpret_cast<SYSTEM_POWER_STATUS_EX2 *>(rec), 3, FALSE), 3u);
    EXPECT_TRUE(rec[0] == 1 && rec[1] == 0x01 && rec[2] == 100 && rec[3] == 0xCC);
    td.dev().setFailure("GetSystemPowerStatusEx2", 31);
    EXPECT_FAILS(GetSystemPowerStatusEx2(&s, sizeof s, TRUE), 31);
}

TEST(SimPower, NotificationsArriveAtTheirDeviceTimeAFullQueueDropsThemAndStoppedRequestsGetNone) {
    TestDevice td("power.events = [{at_ms = 5000, type = 'status', ac_line = 0, battery_percent = 19},\n"
                  "  {at_ms = 6000, type = 'info', ac_line = 1}, {at_ms = 7000, type = 'resume'},\n"
                  "  {at_ms = 8000, type = 'status'}, {at_ms = 9000, type = 'status'}, {at_ms = 10000, type = 'status'},\n"
                  "  {at_ms = 11000, type = 'status', battery_percent = 40}]");
    // A request queues the current status at once only when its flags ask for it.
    const struct { DWORD flags; bool initial; } requests[] = {
        {PBT_RESUME | PBT_POWERSTATUSCHANGE | PBT_POWERINFOCHANGE, true}, {PBT_POWERSTATUSCHANGE, true},
        {PBT_RESUME | PBT_POWERINFOCHANGE, false}};
    std::vector<HANDLE> stopped;
    for (const auto &r : requests) {
        SCOPED_TRACE(r.flags);
        HANDLE q = queue(), h = RequestPowerNotifications(q, r.flags);
        ASSERT_NE(h, (HANDLE)NULL);
        Msg m = readOne(q, 0);
        EXPECT_TRUE(r.initial ? m.ok && m.bytes.size() == 12 && m.word(0) == PBT_POWERSTATUSCHANGE && m.word(8) == 0
                              : !m.ok && m.error == ERROR_TIMEOUT);
        EXPECT_TRUE(StopPowerNotifications(h) == ERROR_SUCCESS && StopPowerNotifications(h) == ERROR_INVALID_HANDLE);
        stopped.push_back(q);
    }
    HANDLE q = queue();
    ASSERT_NE(RequestPowerNotifications(q, 0x0E), (HANDLE)NULL);
    ASSERT_TRUE(readOne(q, 0).ok);   // the initial status
    const struct { DWORD tick, type; size_t size; } expected[] = {{5000, 4, 12}, {6000, 8, 36}, {7000, 2, 12}};
    for (const auto &e : expected) {
        Msg m = readOne(q, INFINITE);
        ASSERT_TRUE(m.ok);
        EXPECT_TRUE(m.tick == e.tick && m.word(0) == e.type && m.bytes.size() == e.size) << m.tick << " " << m.word(0);
    }
    EXPECT_EQ(td.dev().power().status().acLine, 1);   // the info event's line, the status event's charge
    EXPECT_EQ(td.dev().power().status().percent, 19);

    Sleep(5000);   // 8000, 9000 and 10000 fill the queue of 3; 11000 is dropped
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(readOne(q, 0).ok) << i;
    EXPECT_EQ(readOne(q, 0).error, DWORD(ERROR_TIMEOUT));
    EXPECT_EQ(td.events("power_notification").size(), 9u);   // three initial ones, six events
    EXPECT_EQ(td.events("power_notification_dropped").size(), 1u);
    EXPECT_EQ(td.dev().power().status().percent, 40);        // the status changed all the same
    for (HANDLE s : stopped) EXPECT_EQ(readOne(s, 0).error, kErrorPipeNotConnected);   // nothing came, no writer is left
}

TEST(SimPower, MessageQueuesAsCeDocumentsThem) {
    TestDevice td;
    const size_t handles = td.dev().objects().count();
    MSGQUEUEOPTIONS bad[] = {{16, 0, 3, 216, TRUE}, {sizeof(MSGQUEUEOPTIONS), 0, 3, 0, TRUE}};
    for (MSGQUEUEOPTIONS &o : bad) EXPECT_FAILS(CreateMsgQueue(NULL, &o), ERROR_INVALID_PARAMETER);
    HANDLE w = queue(3, 216, FALSE, u"queue");
    EXPECT_EQ(GetLastError(), DWORD(ERROR_SUCCESS));
    static HANDLE r;
    r = queue(3, 216, TRUE, u"queue");   // the same queue, read access
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ALREADY_EXISTS));
    BYTE data[217] = {1, 2, 3};
    EXPECT_EQ(readOne(w, 0).error, DWORD(ERROR_ACCESS_DENIED));
    EXPECT_FAILS(WriteMsgQueue(r, data, 3, 0, 0), ERROR_ACCESS_DENIED);
    EXPECT_FAILS(WriteMsgQueue(w, data, 217, 0, 0), ERROR_INSUFFICIENT_BUFFER);

    // Waits in exact device time: an empty queue read times out; a reader on another thread wakes
    // at the write; a full queue's write times out.
    DWORD t0 = GetTickCount();
    Msg m = readOne(r, 1500);
    EXPECT_TRUE(!m.ok && m.error == ERROR_TIMEOUT && m.tick - t0 == 1500);
    static Msg got;
    HANDLE t = CreateThread(NULL, 0, [](LPVOID) -> DWORD { got = readOne(r, INFINITE); return 0; }, NULL, 0, NULL);
    Sleep(700);
    ASSERT_TRUE(WriteMsgQueue(w, data, 4, 0, 0));
    ASSERT_EQ(WaitForSingleObject(t, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(got.ok && got.word(0) == 0x030201 && got.tick - t0 == 2200) << got.tick - t0;
    EXPECT_TRUE(CloseHandle(t));
    EXPECT_EQ(WaitForSingleObject(r, 0), WAIT_TIMEOUT);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(WriteMsgQueue(w, data, 20, 0, 0));
    EXPECT_EQ(WaitForSingleObject(r, 0), WAIT_OBJECT_0);
    t0 = GetTickCount();
    EXPECT_FAILS(WriteMsgQueue(w, data, 20, 250, 0), ERROR_TIMEOUT);
    EXPECT_EQ(GetTickCount() - t0, 250u);

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

TEST(SimPower, CardNotificationsOfTheFatMountClass) {
    const char *profile = "card = {present = true, name = 'Storage Card', events = [{at_ms = 3000, attached = false},\n"
                          "  {at_ms = 4000, attached = true, name = 'USB Disk'}]}";
    const GUID other = {0x12345678, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
    const struct { const GUID *cls; BOOL all; std::vector<std::tuple<DWORD, DWORD, std::string>> expected; } cases[] = {
        {&kFatMountClass, TRUE, {{0, 1, "Storage Card"}, {3000, 0, "Storage Card"}, {4000, 1, "USB Disk"}}},
        {&kFatMountClass, FALSE, {{3000, 0, "Storage Card"}, {4000, 1, "USB Disk"}}},
        {&other, TRUE, {}}};
    for (const auto &c : cases) {
        TestDevice td(profile);
        EXPECT_TRUE(td.dev().power().cardPresent());
        HANDLE q = queue(0, 4096), h = RequestDeviceNotifications(c.cls, q, c.all);   // the card watcher's queue
        ASSERT_NE(h, (HANDLE)NULL);
        std::vector<std::tuple<DWORD, DWORD, std::string>> got;
        for (Msg m = readOne(q, 5000, 584); m.ok; m = readOne(q, 5000, 584)) {
            EXPECT_TRUE(!std::memcmp(m.bytes.data(), &kFatMountClass, sizeof(GUID)) && m.bytes.size() == 28 + m.word(24));
            got.emplace_back(m.tick, m.word(20), detailName(m));
        }
        EXPECT_EQ(got, c.expected);
        EXPECT_FALSE(td.dev().power().cardPresent());   // another volume's mount leaves the card out
        EXPECT_TRUE(StopDeviceNotifications(h) && !StopDeviceNotifications(h));
    }
}

TEST(SimPower, ProcessStartNeedsTheFileAndLeavesNoHandleOnceClosed) {
    TestDevice td("[fail]\nCreateProcessW = {error = 8, nth = 5}\n");
    td.put("\\Windows\\USBScreen.exe", "MZ");
    const size_t handles = td.dev().objects().count();
    const struct { const char *app, *line, *journaled; DWORD error; } cases[] = {
        {"\\windows\\USBScreen.exe", nullptr, "\\windows\\USBScreen.exe", 0},
        {nullptr, "\"\\windows\\usbscreen.exe\" -x", "\\windows\\usbscreen.exe", 0},
        {nullptr, "USBScreen -x", "USBScreen", 0},                    // looked up in \Windows, .exe added
        {"\\My Flash Disk\\Navi\\navi.exe", nullptr, "\\My Flash Disk\\Navi\\navi.exe", ERROR_FILE_NOT_FOUND},
        {"\\Windows\\USBScreen.exe", nullptr, "\\Windows\\USBScreen.exe", 8}};   // the injected failure
    for (const auto &c : cases) {
        SCOPED_TRACE(c.journaled);
        std::u16string app = W(c.app ? c.app : ""), line = W(c.line ? c.line : "");
        PROCESS_INFORMATION pi = {};
        SetLastError(0);
        BOOL ok = CreateProcessW(c.app ? app.c_str() : NULL, c.line ? &line[0] : NULL, NULL, NULL, FALSE, 0, NULL,
                                 NULL, NULL, &pi);
        EXPECT_TRUE((ok != FALSE) == (c.error == 0) && GetLastError() == c.error) << GetLastError();
        auto e = td.events("process_start").back();
        EXPECT_TRUE(e["path"] == c.journaled && e["ok"] == (c.error == 0) && e["error"] == c.error) << e;
        EXPECT_TRUE(ok ? pi.dwProcessId && pi.dwThreadId && CloseHandle(pi.hThread) && CloseHandle(pi.hProcess)
                       : pi.hProcess == NULL);
        EXPECT_EQ(td.dev().objects().count(), handles);
    }
}

TEST(SimPowerDeathTest, ResetEndsTheRunUnlessItFails) {
    TestDevice td("[fail]\nSetSystemPowerState = {error = 5, nth = 2}\n");
    EXPECT_EQ(SetSystemPowerState(NULL, POWER_STATE_SUSPEND, 0), DWORD(ERROR_SUCCESS));   // not a reset
    EXPECT_EQ(SetSystemPowerState(NULL, POWER_STATE_RESET, POWER_FORCE), 5u);              // failed: the run goes on
    EXPECT_EXIT({ SetSystemPowerState(NULL, POWER_STATE_RESET, POWER_FORCE); std::exit(3); },
                testing::ExitedWithCode(0), "");
    std::ifstream in(td.folder() / "run" / "journal.jsonl");
    std::vector<nlohmann::json> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
    ASSERT_GE(lines.size(), 4u);
    EXPECT_TRUE(lines[0]["state"] == POWER_STATE_SUSPEND && lines[1]["error"] == 5) << lines[0] << lines[1];
    const auto &set = lines[2], &end = lines.back();
    EXPECT_TRUE(set["event"] == "set_power_state" && set["state"] == 0x00800000 && set["flags"] == 0x1000) << set;
    EXPECT_TRUE(end["event"] == "end" && end["reason"] == "reset") << end;
}
