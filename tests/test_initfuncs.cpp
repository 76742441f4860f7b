// The plain-text reader of one file group's base path in paths.xml, and the internal folder it
// falls back to.
#include "test_device.h"

#include "platform/initfuncs.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

using namespace testing_support;

namespace {

std::string group(const std::string &name, const std::string &basepath) {
    return "<filegroup>\r\n  <name>" + name + "</name>\r\n  <basepath>" + basepath + "</basepath>\r\n</filegroup>\r\n";
}

}  // namespace

TEST(ReadSettingFromPathsFile, FindsTheGroupByExactName) {
    const std::string two = "<paths>" + group("appstartupsec", "\\Program Files\\Velmar") +
                            group("settings", "\\UserData") + "</paths>";
    struct Row {
        const char *what;
        std::string file;
        const char *name;
        std::string output;   // "untouched": not found, and nothing written
    } const rows[] = {
        {"first group", two, "appstartupsec", "\\Program Files\\Velmar"},
        {"a later group", two, "settings", "\\UserData"},
        {"no such group", two, "recents", "untouched"},
        {"a prefix of a name", two, "setting", "untouched"},
        {"case matters", two, "Settings", "untouched"},
        {"an empty name never matches", group("", "\\x"), "", "untouched"},
        {"a group without basepath gives an empty text, not the next group's",
         "<filegroup><name>settings</name></filegroup>" + group("x", "\\other"), "settings", ""},
        {"a name outside any group is not seen", "<name>settings</name><basepath>\\x</basepath>", "settings", "untouched"},
        // Cut short at the end of the file: every scan stops at the end of what was read.
        {"cut inside the open tag", "<filegroup><name>settings</name><basep", "settings", ""},
        {"base path without its close tag", "<filegroup><name>settings</name><basepath>\\x", "settings", ""},
        {"group without its close tag", "<filegroup><name>settings</name><basepath>\\x</basepath>", "settings", "\\x"},
        {"name without its close tag", "<filegroup><name>settings", "settings", "untouched"},
        {"cut inside the group tag", group("x", "\\x") + "<filegr", "settings", "untouched"},
        {"an empty file", "", "settings", "untouched"},
    };
    TestDevice t;
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        t.put("\\Flash\\paths.xml", r.file);
        char output[300] = "untouched";
        EXPECT_EQ(r.output != "untouched", init_readSettingFromPathsFile(output, u"\\Flash", r.name));
        EXPECT_EQ(r.output, output);
    }
    char output[16] = "untouched";
    EXPECT_FALSE(init_readSettingFromPathsFile(output, u"\\Nowhere", "settings"));
    EXPECT_STREQ("untouched", output);
    EXPECT_TRUE(logged("ERROR, init_readSettingFromPathsFile(): Can't find file \\Nowhere\\paths.xml\r\n"));
}

TEST(ReadSettingFromPathsFile, FolderFallsBackToInternalStorage) {
    struct Row {
        const char *registry;     // profile lines under HKLM\Information
        const char *fileAt;       // where paths.xml lies
    } const rows[] = {
        {"Internal = '\\Flash'", "\\Flash\\paths.xml"},
        {"", "\\My Flash Disk\\paths.xml"},                 // no registry, no debug.ini: the fallback root
        {"Hardware = 'Velmar MAPPO2CF'", "\\CF DISK\\paths.xml"},     // the model's internal root
        {"Hardware = 'Velmar TREKNOVA7'", "\\paths.xml"},             // a model without internal storage
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.fileAt);
        TestDevice t(std::string("[registry.'HKLM\\Information']\n") + r.registry + "\n");
        t.put(r.fileAt, group("settings", "\\U"));
        for (LPCWSTR folder : {LPCWSTR(NULL), LPCWSTR(u"")}) {   // none or empty: the same
            char output[64] = "";
            EXPECT_TRUE(init_readSettingFromPathsFile(output, folder, "settings"));
            EXPECT_STREQ("\\U", output);
        }
    }
}
