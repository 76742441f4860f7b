// The plain-text reader of one file group's base path in paths.xml, and the internal folder it
// falls back to.
#include "test_device.h"

#include "platform/initfuncs.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <cstring>

using testing_support::logged;
using testing_support::TestDevice;

namespace {

std::string group(const std::string &name, const std::string &basepath) {
    return "<filegroup>\r\n  <name>" + name + "</name>\r\n  <basepath>" + basepath + "</basepath>\r\n</filegroup>\r\n";
}

}  // namespace

TEST(ReadSettingFromPathsFile, FindsTheGroupByExactName) {
    const std::string two = "<paths>" + group("appstartupsec", "\\Program Files\\Velmar") +
                            group("settings", "\\UserData") + "</paths>";
    struct Case {
        const char *what;
        std::string file;
        const char *name;
        bool found;
        std::string output;   // "untouched" when nothing may be written
    } const cases[] = {
        {"first group", two, "appstartupsec", true, "\\Program Files\\Velmar"},
        {"a later group", two, "settings", true, "\\UserData"},
        {"no such group", two, "recents", false, "untouched"},
        {"a prefix of a name", two, "setting", false, "untouched"},
        {"case matters", two, "Settings", false, "untouched"},
        {"an empty name never matches", group("", "\\x"), "", false, "untouched"},
        {"a group without basepath gives an empty text",
         "<filegroup><name>settings</name></filegroup>" + group("x", "\\other"), "settings", true, ""},
        {"the base path of the next group is not taken",
         "<filegroup><name>settings</name></filegroup><filegroup><basepath>\\next</basepath></filegroup>",
         "settings", true, ""},
        {"a name outside any group is not seen", "<name>settings</name><basepath>\\x</basepath>", "settings",
         false, "untouched"},
        // Cut short at the end of the file: every scan stops at the end of what was read.
        {"cut inside the open tag", "<filegroup><name>settings</name><basep", "settings", true, ""},
        {"base path without its close tag", "<filegroup><name>settings</name><basepath>\\x", "settings", true, ""},
        {"group without its close tag", "<filegroup><name>settings</name><basepath>\\x</basepath>", "settings",
         true, "\\x"},
        {"name without its close tag", "<filegroup><name>settings", "settings", false, "untouched"},
        {"cut inside the group tag", group("x", "\\x") + "<filegr", "settings", false, "untouched"},
        {"an empty file", "", "settings", false, "untouched"},
    };
    TestDevice t;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        t.put("\\Flash\\paths.xml", c.file);
        char output[300];
        strcpy(output, "untouched");
        EXPECT_EQ(c.found, init_readSettingFromPathsFile(output, u"\\Flash", c.name));
        EXPECT_EQ(c.output, output);
    }
}

TEST(ReadSettingFromPathsFile, FolderFallsBackToInternalStorage) {
    struct Case {
        const char *registry;     // profile lines under HKLM\Information
        const char *fileAt;       // where paths.xml lies
    } const cases[] = {
        {"Internal = '\\Flash'", "\\Flash\\paths.xml"},
        {"", "\\My Flash Disk\\paths.xml"},                 // no registry, no debug.ini: the fallback root
        {"Hardware = 'Velmar MAPPO2CF'", "\\CF DISK\\paths.xml"},     // the model's internal root
        {"Hardware = 'Velmar TREKNOVA7'", "\\paths.xml"},             // a model without internal storage
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.fileAt);
        TestDevice t(std::string("[registry.'HKLM\\Information']\n") + c.registry + "\n");
        t.put(c.fileAt, group("settings", "\\U"));
        char output[64] = "";
        EXPECT_TRUE(init_readSettingFromPathsFile(output, NULL, "settings"));
        EXPECT_STREQ("\\U", output);
        output[0] = 0;
        EXPECT_TRUE(init_readSettingFromPathsFile(output, u"", "settings"));   // empty: the same
        EXPECT_STREQ("\\U", output);
    }
}

TEST(ReadSettingFromPathsFile, MissingFileIsLogged) {
    TestDevice t;
    char output[16] = "untouched";
    EXPECT_FALSE(init_readSettingFromPathsFile(output, u"\\Nowhere", "settings"));
    EXPECT_STREQ("untouched", output);
    EXPECT_TRUE(logged("ERROR, init_readSettingFromPathsFile(): Can't find file \\Nowhere\\paths.xml\r\n"));
}
