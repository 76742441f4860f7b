// The device library loader: CLoadDll's failures and overwritten handle, where CCommon finds the
// library, its entry points by name, its start-up failures, and the log callback.
#include "test_device.h"

#include "framework/common.h"
#include "library.h"
#include "platform/plat_alloc.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

using namespace testing_support;

TEST(LoadDll, FailuresAndTheOverwrittenHandle) {
    TestDevice t("[library.'a.dll']\nf = 1\n[library.'b.dll']\n");
    for (const char *file : {"\\L\\a.dll", "\\L\\b.dll"}) t.put(file, "");
    CLoadDll dll;
    EXPECT_EQ(nullptr, dll.getProcAddress(u"f"));              // no library: the system is not asked (count below)
    EXPECT_EQ(0, dll.loadLibrary(u"\\L\\none.dll"));
    EXPECT_EQ(DWORD(ERROR_MOD_NOT_FOUND), os_getLastError());
    ASSERT_EQ(1, dll.loadLibrary(u"\\L\\a.dll"));
    ASSERT_EQ(1, dll.loadLibrary(u"\\L\\b.dll"));
    EXPECT_EQ(1, t.dev().libraries().loadCount("a.dll"));     // overwritten, never freed
    EXPECT_EQ(nullptr, dll.getProcAddress(u"f"));              // asked of b, which lacks it
    EXPECT_EQ(DWORD(ERROR_PROC_NOT_FOUND), os_getLastError());
    EXPECT_EQ(1u, t.dev().callCount("GetProcAddressW"));
    for (const char *line : {"loadLibrary(\\L\\none.dll): LoadLibrary() failed, error 126\r\n",
                             "loadLibrary(\\L\\b.dll): \\L\\a.dll already loaded\r\n",
                             "getProcAddress(f): GetProcAddress() failed, error 0x7f\r\n"})
        EXPECT_TRUE(logged(std::string("ERROR, CLoadDll::") + line)) << line;
    EXPECT_EQ(0, dll.loadLibrary((u"\\" + std::u16string(300, u'x')).c_str()));
    EXPECT_EQ(259u, U(dll.getName()).size());
}

TEST(Common, FindsTheLibrary) {
    struct Row { const char *program, *file, *basePath, *line; } const rows[] = {   // basePath: of paths.xml
        {"\\App\\tarsk.exe", "\\App\\device.dll", nullptr, "Try local directory"},
        {"\\WINDOWS\\tarsk.exe", "\\Windows\\kerneldevice.dll", nullptr, "Kernel component"},
        {"\\Windows\\tarsk.exe", "\\Windows\\device.dll", nullptr, "Try local directory"},   // case matters
        {"\\App\\tarsk.exe", "\\Flash\\Nav\\device.dll", "\\Nav", "Find path location"},
        {"\\App\\tarsk.exe", "\\Flash\\Nav\\device.dll", "Nav", "Find path location"},
        {"\\App\\tarsk.exe", "\\Flash\\Program Files\\Velmar\\device.dll", nullptr, "Find path location"}};
    TestDevice t("[registry.'HKLM\\Information']\nInternal = '\\Flash'\n[library.'device.dll']\n"
                 "[library.'kerneldevice.dll']\n");
    // One device for all rows, since the allocator (of the paths.xml reader) keeps its first device's
    // heap; its first call logs at length, so it is made before the marks.
    os_free(os_malloc(1));
    g_vlLogSettings.level = LOG_DEBUG;
    for (const Row &r : rows) {
        t.dev().setProgramPath(W(r.program));
        t.put(r.file, "");
        sim::fs::remove(t.host("\\Flash\\paths.xml"));
        if (r.basePath) t.put("\\Flash\\paths.xml", std::string("<filegroup><name>appstartupsec</name><basepath>") +
                                                      r.basePath + "</basepath></filegroup>");
        LogMark mark;
        CCommon *common = new CCommon;
        EXPECT_EQ(1, common->construct());
        EXPECT_EQ(r.file, U(common->getLibrary().getName()));
        EXPECT_NE(nullptr, common->getLibrary().getHandle());
        delete common;   // frees the library, so the next row loads it afresh
        EXPECT_TRUE(mark.has(std::string("DEBUG, CCommon::construct(): Module = ") + r.program + "\r\n") &&
                    mark.has(std::string("DEBUG, CCommon::construct(): ") + r.line + "\r\n")) << r.file;
        sim::fs::remove(t.host(r.file));
    }
}

TEST(Common, ResolvesEntriesAndLogsStartFailures) {
    // Three entry points, each answering its index. The missing ones log ERRORs: the row without them first.
    struct Row { bool table; const char *exports, *failed; } const rows[] = {   // failed: the ERROR line
        {false, "createDeviceClassInstance = 1\n", ""},   // no construct: no table either
        {true, "construct = 1\ncreateDeviceClassInstance = 1\n", ""},
        {true, "construct = 0\ncreateDeviceClassInstance = 1\n", "_construct() failed\r\n"},
        {true, "construct = 1\ncreateDeviceClassInstance = 0\n", "m_pDevice->construct() FAILED\r\n"}};
    for (const Row &r : rows) {
        TestDevice t(std::string("[device]\nprogram = '\\A\\t.exe'\n[library.'device.dll']\ngetDeviceSerialNumber = 0\n"
                                 "getHardwareVersion = 4\ngetUSBDriverVersion = 35\n") + r.exports);
        t.put("\\A\\device.dll", "");
        g_vlLogSettings.level = LOG_INFO;
        CCommon common;
        common.construct();
        EXPECT_EQ(r.table ? 38u : 2u, t.dev().callCount("GetProcAddressW"));
        for (int i = 0; i < DEV_ENTRY_COUNT; ++i) {
            PFN_DEVICE_GET_NUMBER entry = (PFN_DEVICE_GET_NUMBER)(void (*)())common.getEntry(DeviceEntry(i));
            EXPECT_EQ(r.table && (i == 0 || i == 4 || i == 35) ? i : -1, entry ? entry() : -1) << i;
        }
        EXPECT_NE(nullptr, common.getDevice());
        EXPECT_EQ(r.table, logged("device.dll(0):, 0, INFO, device library started\r\n"));   // the callback
        EXPECT_EQ(r.failed[0] != 0, logged(std::string("ERROR, CCommon::construct(): ") + r.failed)) << r.failed;
    }
}

TEST(Common, CallbackLevelWordsAndModuleBit) {   // INFO: above, from the library's construct
    TestDevice t;
    g_vlLogSettings.level = LOG_TRACE;
    DeviceLog("lib\\dev.cpp", 12, 5, u"five\n");
    g_vlLogSettings.moduleMask = 0xFFBF;
    DeviceLog("lib\\dev.cpp", 13, 1, u"dropped\n");
    EXPECT_EQ("dev.cpp(12):, 0, TRACE, five\r\n", logText());
}
