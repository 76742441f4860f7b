// The table of known locations: paths.xml (internal storage, else the card), the registry values,
// the defaults, the path builder and the process's object.
#include "test_device.h"

#include "framework/desktopintegration.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <map>

using namespace testing_support;

namespace {

std::string entry(const std::string &name, const std::string &basepath, const std::string &file = "") {
    std::string text = "<entry><name>" + name + "</name>";
    if (!basepath.empty()) text += "<basepath>" + basepath + "</basepath>";
    if (!file.empty()) text += "<files><file>" + file + "</file></files>";
    return text + "</entry>";
}

std::string pathsXml(const std::string &entries) {
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<config><paths>" + entries + "</paths></config>\r\n";
}

}  // namespace

TEST(DesktopIntegration, FileThenRegistryThenDefaults) {
    struct Row {
        const char *what;
        std::string registry;              // values under HKLM\Information (none: no key)
        const char *folder;                // where paths.xml lies (none: nowhere)
        std::string entries;               // its entries
        std::map<int, std::string> expected;   // field -> text
        DWORD elapsedMs;                   // device time of the load
        std::vector<std::string> logLines;
    } const rows[] = {
        {"nothing anywhere", "", nullptr, "",
         {{DI_ROOT, "\\My Flash Disk"}, {DI_DEFAULT_PATH, "\\Program Files\\Velmar"},
          {DI_DEFAULT_FILE, "AppStartupSec.exe"}, {DI_NAVIGATION_FILE, "Waylume_CE.exe"},
          {DI_CUSTOM_POI_ICONS, "\\Velmar\\icons\\"},                  // a default is never cut
          {DI_MILEAGE_LOGS, "\\\\My Documents\\\\"},                   // doubled at both ends, as written
          {DI_SETTINGS, "\\Program Files\\Velmar\\Waylume_CE\\UserData"}, {DI_MAP_DATA, "\\Velmar"}},
         1000,   // the card is waited for: ten tries 100 ms apart
         {"DEBUG, sdcard_wait(): 9 - SD card not found"}},
        {"registry values: one trailing backslash cut from root and DefaultPath only",
         "DefaultRoot = '\\Root\\\\'\nDefaultPath = '\\Apps\\'\nDefaultFile = 'Start.exe\\'", nullptr, "",
         {{DI_ROOT, "\\Root\\"}, {DI_DEFAULT_PATH, "\\Apps"}, {DI_DEFAULT_FILE, "Start.exe\\"}}, 1000,
         {"DEBUG, HKLM\\Velmar\\DefaultRoot = \\Root\\\\", "DEBUG, HKLM\\Velmar\\DefaultPath = \\Apps\\",
          "DEBUG, HKLM\\Velmar\\DefaultFile = Start.exe\\"}},
        {"internal paths.xml; appstartupsec with only a base path keeps the registry file",
         "Internal = '\\Flash'\nDefaultPath = '\\Ignored'\nDefaultFile = 'Reg.exe'", "\\Flash",
         entry("appstartupsec", "\\From File\\") + entry("waylume", "\\Nav", "Nav.exe"),
         {{DI_ROOT, "\\Flash"}, {DI_DEFAULT_PATH, "\\From File\\"},   // from the file: not cut
          {DI_DEFAULT_FILE, "Reg.exe"}, {DI_NAVIGATION_FOLDER, "\\Nav"}, {DI_NAVIGATION_FILE, "Nav.exe"}},
         0, {}},
        {"paths.xml only on the card", "Hardware = 'Velmar X7'", "\\Storage Card", entry("mapdata", "\\Maps"),
         {{DI_ROOT, "\\Storage Card"}, {DI_MAP_DATA, "\\Maps"}}, 0,
         {"DEBUG, Failed to load \\My Flash Disk\\paths.xml, try from SD card",
          "DEBUG, sdcard_wait(): 0 - SD card found"}},
        {"names compared with regard to case; unknown and nameless entries skipped; later ones win; "
         "a base path longer than the field is cut to 259 characters", "", "\\My Flash Disk",
         entry("AppStartupSec", "\\Wrong", "Wrong.exe") + entry("WAYLUME", "\\Wrong") +
             "<entry><basepath>\\Wrong</basepath></entry>" + entry("recents", "\\First") + entry("recents", "\\Second") +
             entry("favourites", "") + entry("POIdatabase", "\\db\\poi.db") +
             entry("alertsounds", "\\" + std::string(300, 's')),
         {{DI_DEFAULT_PATH, "\\Program Files\\Velmar"}, {DI_DEFAULT_FILE, "AppStartupSec.exe"},
          {DI_NAVIGATION_FOLDER, "\\Program Files\\Velmar\\Waylume_CE"}, {DI_RECENTS, "\\Second"},
          {DI_FAVOURITES, "\\Program Files\\Velmar\\Waylume_CE\\UserData"},   // no base path: the default
          {DI_POI_DATABASE, "\\db\\poi.db"}, {DI_ALERT_SOUNDS, "\\" + std::string(258, 's')}},
         0, {}},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        TestDevice t(r.registry.empty() ? "" : "[registry.'HKLM\\Information']\n" + r.registry + "\n");
        if (r.folder) t.put(std::string(r.folder) + "\\paths.xml", pathsXml(r.entries));
        t.put(testing_support::kDeviceSettingsFile, "");
        g_vlLogSettings.level = LOG_DEBUG;
        DesktopIntegrationPrivate *di = new DesktopIntegrationPrivate();
        di->addRef();
        testing_support::LogMark mark;
        DWORD before = GetTickCount();
        EXPECT_TRUE(di->load());
        EXPECT_EQ(r.elapsedMs, GetTickCount() - before);
        for (const auto &e : r.expected) EXPECT_EQ(e.second, U(di->getField(e.first))) << "field " << e.first;
        for (int i = 0; i < DI_FIELD_COUNT; ++i) EXPECT_NE(0, di->getField(i)[0]) << "field " << i;
        for (const std::string &line : r.logLines) EXPECT_TRUE(mark.has(line)) << line;
        EXPECT_EQ(0, di->release());
    }
}

// The process's object is made once per process (a repeated run finds it made); a failed allocation
// leaves none, so the next call tries again.
TEST(DesktopIntegration, ProcessObjectAndPathBuilder) {
    static bool ran = false;
    if (ran) GTEST_SKIP() << "the process's object is already made";
    ran = true;
    TestDevice t("[registry.'HKLM\\Information']\nInternal = '\\Flash'\n");
    t.put("\\Flash\\paths.xml", pathsXml(entry("waylume", "\\Nav", "Nav.exe")));
    t.dev().setFailure("HeapAlloc", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(nullptr, GetDesktopIntegration());
    t.dev().setFailure("HeapAlloc", std::nullopt);
    EXPECT_TRUE(testing_support::logged("ERROR, Operator new failed on DesktopIntegrationPrivate."));
    DesktopIntegrationPrivate *di = GetDesktopIntegration();
    ASSERT_NE(nullptr, di);
    EXPECT_EQ(di, GetDesktopIntegration());
    EXPECT_EQ("\\Flash", U(di->getRoot()));
    EXPECT_EQ("\\Nav", U(di->getNavigationFolder()));
    EXPECT_EQ("Nav.exe", U(di->getNavigationFile()));

    WCHAR out[MAX_PATH];
    EXPECT_EQ(17, di->buildPath(out, u"\\maps\\%d.dat", 7));     // led by a backslash: appended as it is
    EXPECT_EQ("\\Flash\\maps\\7.dat", U(out));
    EXPECT_EQ(12, di->buildPath(out, u"%ls%d", u"maps", 7));      // otherwise a backslash between
    EXPECT_EQ("\\Flash\\maps7", U(out));
    EXPECT_EQ(259, di->buildPath(out, u"%ls", std::u16string(400, u'x').c_str()));   // 259 at most
    EXPECT_EQ("\\Flash\\" + std::string(252, 'x'), U(out));
}
