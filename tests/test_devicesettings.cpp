// velmar::CDeviceSettings on a simulated device whose library answers hardware version 3 and GPS chip
// 1: the file's place, the sections applied in file order, the key conversions and their deliberate
// oddities, the retry while the file is missing, the recursion guard and a second thread's first access.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "framework/common.h"
#include "platform/devicesettings.h"
#include "test_device.h"

using std::string;
using std::to_string;
using namespace testing_support;
using velmar::CDeviceSettings;

namespace {

// The library is loaded at once: its many missing entries would otherwise flood the log under a mark.
struct SettingsDevice : testing_support::TestDevice {
    explicit SettingsDevice(const string &exports = "getHardwareVersion = 3\ngetGPSType = 1\n")
        : TestDevice("[registry.'HKLM\\Information']\nInternal = '\\My Flash Disk'\n"
                     "[library.'device.dll']\nconstruct = 1\n" + exports) {
        put("\\My Flash Disk\\device.dll", "");
        GetCommon();
    }
};

// Each row is read into a record full of garbage; the getter shows the field the row is about.
TEST(DeviceSettings, SectionsAndKeysAsTheDeviceReadsThem) {
    typedef std::function<string(const CDeviceSettings &)> Get;
    Get heap = [](auto &d) { return to_string(d.m_bSharedMemHeap); };
    Get nmea = [](auto &d) { return to_string(d.m_bGPSDefaultProtocolIsNmea); };
    const struct {
        string ini;
        Get field;
        string expect, logLine;
    } rows[] = {
        {"[Default]\r\ngps baud rate=1\r\n[HWVersion=4]\r\ngps baud rate=4\r\n[HWVersion=3]\r\ngps baud rate=3\r\n"
         "[GPS=SIRF]\r\ngps baud rate=5\r\n[Default]\r\ngps baud rate=6\r\n",
         [](auto &d) { return to_string(d.m_nGPSBaudRate) + " " + d.m_szHardwareSection + " " + d.m_szGPSSection; },
         "6 HWVersion=3 GPS=SIRF", "velmar::CDeviceSettings::sectionCB(): Unknown section HWVersion=4\r\n"},
        {"[gps=sirf]\r\nGPS BAUD RATE=0x2580\r\n[keymap]\r\nmenu=3\r\n[default]\r\ntv available=true\r\n",
         [](auto &d) { return to_string(d.m_nGPSBaudRate) + to_string(d.m_anKeyMap[5]) + to_string(d.m_bTVAvailable); },
         "960031", ""},
        {"[HWVersion=3 ]\r\nSharedMemHeap=TRUE\r\n", heap, "0", "Unknown section HWVersion=3 \r\n"},
        {"[Default]\r\nSharedMemHeap=true\r\n", heap, "1", "velmar::CDeviceSettings::construct(): Time taken "},
        {"[Default]\r\nSharedMemHeap=TRUE \r\n", heap, "0", ""},
        {"[Default]\r\ngps default protocol is nmea=TRUE\r\n", nmea, "1", ""},
        {"[Default]\r\nGPS Default Protocol Is Nmea=TRUE\r\n", nmea, "0",
         "velmar::CDeviceSettings::keyCB(Default): Unknown key GPS Default Protocol Is Nmea = TRUE\r\n"},
        {"[hwversion=3]\r\nscreen dump key=12 \r\n", [](auto &d) { return to_string(d.m_nScreenDumpKey); }, "97", ""},
        {"[Default]\r\ndpgs off cmd=OFF\r\ndgps off cmd=X\r\n", [](auto &d) { return string(d.m_szDGPSOffCmd); },
         "OFF", "velmar::CDeviceSettings::keyCB(Default): Unknown key dgps off cmd = X\r\n"},
        // ten bytes and no NUL: the port runs into the next field
        {"[Default]\r\ngps port=COM1234567X\r\n", [](auto &d) { return string(d.m_szGPSPort, 14); },
         string("COM1234567\0\0\0\0", 14), ""},
        // -5, 31, 19, then 0 for the code no name sets and for the zeroed field before the key map
        {"[KEYMAP]\r\nremotemenu=-5\r\ncapture=0x1F\r\nEscape=19\r\nPower=1\r\n",
         [](auto &d) { return to_string(d.m_anKeyMap[30]) + to_string(d.m_anKeyMap[28]) + to_string(d.m_anKeyMap[19]) +
                              to_string(d.m_anKeyMap[20]) + to_string(d.m_nScreenDumpKey); },
         "-5311900", "velmar::CDeviceSettings::keyMapCB(KEYMAP): Unknown key Power = 1\r\n"},
    };
    SettingsDevice td;
    for (const auto &r : rows) {
        SCOPED_TRACE(r.ini);
        td.put(kDeviceSettingsFile, r.ini);
        LogMark mark;
        CDeviceSettings ds;
        std::memset(&ds, 0x5A, sizeof ds);
        EXPECT_TRUE(ds.construct());
        EXPECT_EQ(r.field(ds), r.expect);
        if (!r.logLine.empty()) {
            EXPECT_EQ(mark.count(r.logLine), 1) << mark.since();
        }
    }
}

TEST(DeviceSettings, IntegerConversion) {
    const struct {
        string value;
        LONG expect;
    } rows[] = {
        {"9600", 9600}, {"0x1F", 31}, {"0XfF", 255}, {"-5", -5}, {"1A", 20}, {"12 ", 97}, {"+5", -115},
        {"0x", 0}, {"-", 0}, {"-0x10", -3310}, {"4294967296", 0}, {"2147483648", (LONG)0x80000000u},
        {string(127, '1') + string(73, '9'), velmar::ds_atoi(string(127, '1').c_str())},   // 127 characters count
    };
    for (const auto &r : rows) EXPECT_EQ(velmar::ds_atoi(r.value.c_str()), r.expect) << '"' << r.value << '"';
}

TEST(DeviceSettings, FileNameFromTheSettingsBasePath) {
    const struct {
        string basepath;   // no paths.xml when "-"
        string file;
    } rows[] = {
        {"-", kDeviceSettingsFile},
        {"<basepath>\\Cfg</basepath>", "\\My Flash Disk\\Cfg\\device_settings.ini"},
        {"<basepath>Cfg\\Dev</basepath>", "\\My Flash Disk\\Cfg\\Dev\\device_settings.ini"},
        // far longer than a path (and than the reader's own buffer): the name is cut at 259 characters
        {"<basepath>\\" + string(600, 'p') + "</basepath>", "\\My Flash Disk\\" + string(259 - 15, 'p')},
    };
    SettingsDevice td;
    for (const auto &r : rows) {
        std::remove(td.host("\\My Flash Disk\\paths.xml").c_str());
        if (r.basepath != "-")
            td.put("\\My Flash Disk\\paths.xml", "<filegroup><name>settings</name>" + r.basepath + "</filegroup>");
        CDeviceSettings ds;
        EXPECT_FALSE(ds.construct());
        EXPECT_EQ(testing_support::U(velmar::getDeviceSettingsFileName()), r.file);
    }
}

TEST(DeviceSettings, LibraryWithoutHardwareVersionUsesMinusOne) {
    SettingsDevice td("getGPSType = 4\n");
    td.put(kDeviceSettingsFile, "[HWVersion=-1]\r\ntv available=TRUE\r\n[GPS=ATHEROS]\r\nav available=TRUE\r\n");
    CDeviceSettings *ds = velmar::getDeviceSettings();
    EXPECT_EQ(to_string(ds->m_nHardwareVersion) + ds->m_szHardwareSection + ds->m_szGPSSection,
              "-1HWVersion=-1GPS=ATHEROS");
    EXPECT_EQ(ds->m_bTVAvailable + ds->m_bAVAvailable, 2);
}

TEST(DeviceSettings, WithoutTheFileEveryAccessRetries) {
    SettingsDevice td;
    LogMark mark;
    CDeviceSettings *first = velmar::getDeviceSettings();
    EXPECT_EQ(velmar::getDeviceSettings(), first);
    EXPECT_FALSE(velmar::isDeviceSettingsLoaded());
    EXPECT_EQ(mark.count("CIniFile::open(): failed to open file"), 2);
    const char *from = reinterpret_cast<const char *>(&first->m_nMapCacheSizeMax), *to = (const char *)(first + 1);
    EXPECT_EQ(std::count(from, to, 0), to - from);

    td.put(kDeviceSettingsFile, "[Default]\r\ntmc baud rate=38400\r\n");
    EXPECT_EQ(velmar::getDeviceSettings()->m_nTMCBaudRate, 38400);
    velmar::getDeviceSettings();
    EXPECT_TRUE(velmar::isDeviceSettingsLoaded());
    EXPECT_EQ(mark.count("Time taken"), 1);   // loaded once, never again
}

// An access from inside construct (an allocation; here the observer at a section) gets the instance
// as it stands. A second thread's first access while construct runs waits for it, and finds the
// settings loaded: construct runs once. The second thread is still waiting 100 ms later (it counts as
// blocked, so device time moves on).
struct Observed {
    int readings = 0;
    CDeviceSettings *inner = NULL;
    HANDLE thread = NULL;
    DWORD waitedOut = 0;
    int retries = -1;
} g_seen;
DWORD WINAPI secondAccess(LPVOID) {
    g_seen.retries = velmar::getDeviceSettings()->m_nTMCCommandRetry;
    return 0;
}
void observe(int event, int, const char *, const char *, const char *) {
    if (event == DS_EVENT_SECTION) g_seen.inner = velmar::getDeviceSettings();
    if (event != DS_EVENT_READING) return;
    ++g_seen.readings;
    if (g_seen.thread != NULL) return;
    g_seen.thread = CreateThread(NULL, 0, secondAccess, NULL, 0, NULL);
    g_seen.waitedOut = WaitForSingleObject(g_seen.thread, 100);
}

TEST(DeviceSettings, AccessesDuringConstructFromTheSameAndASecondThread) {
    SettingsDevice td;
    td.put(kDeviceSettingsFile, "[Default]\r\ntmc command retry=3\r\n");
    velmar::setDeviceSettingsObserver(observe);
    CDeviceSettings *outer = velmar::getDeviceSettings();
    EXPECT_EQ(outer->m_nTMCCommandRetry, 3);
    ASSERT_NE(g_seen.thread, (HANDLE)NULL);
    EXPECT_EQ(WaitForSingleObject(g_seen.thread, INFINITE), WAIT_OBJECT_0);
    velmar::setDeviceSettingsObserver(NULL);
    CloseHandle(g_seen.thread);
    EXPECT_EQ(g_seen.inner, outer);
    EXPECT_EQ(g_seen.waitedOut, WAIT_TIMEOUT);
    EXPECT_EQ(g_seen.retries, 3);
    EXPECT_EQ(g_seen.readings, 1);
}

}  // namespace
