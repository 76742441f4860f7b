// CIniFile: keyed lookup, typed readers, the integer conversion and the enumeration, on INI files
// written to a simulated device.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "platform/inifile.h"
#include "platform/platform.h"
#include "test_device.h"

using testing_support::TestDevice;
using testing_support::U;
using testing_support::W;

namespace {

const char *const kIniPath = "\\My Flash Disk\\test.ini";

class IniTest : public ::testing::Test {
protected:
    // Writes the file and opens a reader on it.
    void load(const std::string &text) {
        ini.close();
        device.put(kIniPath, text);
        ASSERT_TRUE(ini.open(W(kIniPath).c_str()));
    }
    std::string lookup(const char *section, const char *key, bool *found, int size = 256) {
        std::vector<char> buf(size, 'Z');
        *found = ini.getString(section, key, buf.data(), size);
        return std::string(buf.data());
    }

    TestDevice device;
    CIniFile ini;
};

// ---- enumeration recorder ----

std::vector<std::string> g_events;
int g_stopAfter = -1;   // sections to visit before the section callback returns 0

int recordKey(CIniFile *, const char *section, const char *key, const char *value) {
    g_events.push_back(std::string("K:") + section + "|" + key + "|" + value);
    return 0;
}

int recordSection(void *context, CIniFile *ini, const char *section) {
    EXPECT_EQ(context, (void *)&g_events);
    g_events.push_back(std::string("S:") + section);
    ini->enumKeys("ignored", recordKey);
    if (g_stopAfter > 0 && --g_stopAfter == 0) return 0;
    return 1;
}

std::vector<std::string> enumerate(CIniFile &ini) {
    g_events.clear();
    EXPECT_TRUE(ini.enumSections(recordSection, &g_events));
    return g_events;
}

typedef std::vector<std::string> Events;

}  // namespace

// ---- open and close ----

TEST_F(IniTest, OpenMissingFileFailsAndLogs) {
    g_vlLogSettings.level = LOG_DEBUG;
    EXPECT_FALSE(ini.open(W("\\My Flash Disk\\none.ini").c_str()));
    EXPECT_FALSE(ini.isOpen());
    EXPECT_EQ(U(ini.getFileName()), "\\My Flash Disk\\none.ini");
    int pos = 0;
    BOOL wrapped = FALSE;
    std::string log = U(vl_ringBuffer(&pos, &wrapped));
    EXPECT_NE(log.find("CIniFile::open(): failed to open file [\\My Flash Disk\\none.ini] in mode [rb]"),
              std::string::npos)
        << log;
}

TEST_F(IniTest, OpenAndCloseLogAtDebug) {
    g_vlLogSettings.level = LOG_DEBUG;
    load("[A]\nk=1\n");
    EXPECT_TRUE(ini.isOpen());
    ini.close();
    EXPECT_FALSE(ini.isOpen());
    ini.close();   // a second close does nothing
    int pos = 0;
    BOOL wrapped = FALSE;
    std::string log = U(vl_ringBuffer(&pos, &wrapped));
    EXPECT_NE(log.find("CIniFile::open(): Opened file \\My Flash Disk\\test.ini in mode rb"), std::string::npos)
        << log;
    size_t closed = log.find("CIniFile::close(): Closed file \\My Flash Disk\\test.ini");
    ASSERT_NE(closed, std::string::npos) << log;
    EXPECT_EQ(log.find("CIniFile::close()", closed + 1), std::string::npos) << "closed twice: " << log;
}

TEST_F(IniTest, LowLevelOpenUsesStoredName) {
    device.put("\\debug.ini", "[Tarsk]\nShowInfo=TRUE\n");
    ini.setFileName(W("\\missing\\debug.ini").c_str());
    EXPECT_FALSE(ini.open());
    ini.setFileName(W("\\DEBUG.INI").c_str());   // the device's names ignore case
    ASSERT_TRUE(ini.open());
    int show = 0;
    EXPECT_TRUE(ini.getBool("Tarsk", "ShowInfo", &show));
    EXPECT_EQ(show, 1);
}

TEST_F(IniTest, ClosedReaderReturnsFalseWithTargetRules) {
    char buf[8] = "junk";
    EXPECT_FALSE(ini.getString("A", "k", buf, sizeof(buf)));
    EXPECT_STREQ(buf, "");
    int b = 7, i = 7;
    EXPECT_FALSE(ini.getBool("A", "k", &b));
    EXPECT_EQ(b, 0);
    EXPECT_FALSE(ini.getInt("A", "k", &i));
    EXPECT_EQ(i, 7);
    EXPECT_TRUE(ini.enumSections(recordSection, &g_events));
}

// ---- keyed lookup ----

struct LookupCase {
    const char *name;
    const char *text;
    const char *section;
    const char *key;
    bool found;
    const char *value;
};

TEST_F(IniTest, KeyedLookupGrammar) {
    const LookupCase cases[] = {
        {"plain", "[Tarsk]\r\nBatteryThreshold=20\r\n", "Tarsk", "BatteryThreshold", true, "20"},
        {"header in lower case", "[tarsk]\nShowInfo=TRUE\n", "Tarsk", "ShowInfo", true, "TRUE"},
        {"key in other case", "[Tarsk]\nshowinfo=x\n", "Tarsk", "ShowInfo", true, "x"},
        {"spaces inside brackets", "[ Tarsk ]\nShowInfo=TRUE\n", "Tarsk", "ShowInfo", false, ""},
        {"header not at line start", "junk [Tarsk]\nk=1\n", "Tarsk", "k", true, "1"},
        {"key right behind header", "[Tarsk]k=1\n", "Tarsk", "k", true, "1"},
        {"semicolon line counts", "[Tarsk]\n;ShowInfo=TRUE\n", "Tarsk", "ShowInfo", true, "TRUE"},
        {"hash line counts", "[Tarsk]\n# ShowInfo=TRUE\n", "Tarsk", "ShowInfo", true, "TRUE"},
        {"digits in front pass", "[Tarsk]\n12k=5\n", "Tarsk", "k", true, "5"},
        {"letter in front skips line", "[Tarsk]\nxk=5\nk=6\n", "Tarsk", "k", true, "6"},
        {"spaces around =", "[Tarsk]\n  k  =  v\n", "Tarsk", "k", true, "v"},
        {"tab after = kept", "[Tarsk]\nk=\tv\n", "Tarsk", "k", true, "\tv"},
        {"trailing blanks kept", "[Tarsk]\nk=v \t\r\n", "Tarsk", "k", true, "v \t"},
        {"comment cut", "[Tarsk]\nk=v ; note\n", "Tarsk", "k", true, "v "},
        {"second = in value", "[Tarsk]\nk==v\n", "Tarsk", "k", true, "=v"},
        {"CR cuts", "[Tarsk]\nk=a\rb\n", "Tarsk", "k", true, "a"},
        {"empty value", "[Tarsk]\nk=\r\n", "Tarsk", "k", true, ""},
        {"last line without line end", "[Tarsk]\nk=v", "Tarsk", "k", true, "v"},
        {"bracket earlier hides keys", "[Tarsk]\nNote=see [x]\nShowInfo=TRUE\n", "Tarsk", "ShowInfo", false, ""},
        {"bracket in skipped line hides", "[Tarsk]\nxx [\nk=1\n", "Tarsk", "k", false, ""},
        {"longer name not taken", "[Tarsk]\ngps port open=1\n", "Tarsk", "gps port", false, ""},
        {"longer name then exact", "[Tarsk]\ngps port open=1\ngps port = 2\n", "Tarsk", "gps port", true, "2"},
        {"name without = on its line", "[Tarsk]\nk\nk2=1\n", "Tarsk", "k", false, ""},
        {"name without =, next section", "[Tarsk]\nk\n[B]\nk=1\n", "Tarsk", "k", false, ""},
        {"key of another section", "[A]\nk=1\n[B]\nx=2\n", "B", "k", false, ""},
        {"first same-named section wins", "[S]\na=1\n[S]\nb=2\n", "S", "b", false, ""},
        {"later section", "[A]\nk=1\n[B]\nk=2\n", "B", "k", true, "2"},
        {"missing section", "[A]\nk=1\n", "B", "k", false, ""},
        {"missing key", "[A]\nk=1\n", "A", "j", false, ""},
        {"empty file", "", "A", "k", false, ""},
        {"empty section name", "[]\nk=1\n", "", "k", true, "1"},
        {"empty key never matches", "[A]\nk=1\n", "A", "", false, ""},
    };
    for (const LookupCase &c : cases) {
        load(c.text);
        bool found = false;
        std::string value = lookup(c.section, c.key, &found);
        EXPECT_EQ(found, c.found) << c.name;
        EXPECT_EQ(value, c.value) << c.name;
    }
}

TEST_F(IniTest, LookupsRepeatInAnyOrder) {
    load("[A]\nx=1\n[B]\ny=2\n");
    bool found = false;
    EXPECT_EQ(lookup("B", "y", &found), "2");
    EXPECT_EQ(lookup("A", "x", &found), "1");
    EXPECT_EQ(lookup("B", "y", &found), "2");
    EXPECT_TRUE(found);
}

TEST_F(IniTest, ValueCutToBufferSize) {
    load("[A]\nk=abcdef\n");
    bool found = false;
    EXPECT_EQ(lookup("A", "k", &found, 4), "abc");
    EXPECT_TRUE(found);
    EXPECT_EQ(lookup("A", "k", &found, 1), "");
    EXPECT_TRUE(found);
    EXPECT_EQ(lookup("A", "k", &found, 7), "abcdef");
}

TEST_F(IniTest, SectionHeaderAcrossSearchBufferBoundary) {
    // The header starts at every offset around the 256-byte boundary of the section search.
    for (int offset = 240; offset <= 262; ++offset) {
        std::string text(offset - 1, ' ');
        text += "\n[Tarsk]\nk=v\n";
        load(text);
        bool found = false;
        EXPECT_EQ(lookup("Tarsk", "k", &found), "v") << "header at " << offset;
        EXPECT_TRUE(found) << "header at " << offset;
    }
}

TEST_F(IniTest, OverlongSectionNamesDoNotOverrun) {
    // "[" + name + "]" must fit the 256-byte search buffer: 254 characters do, 255 do not.
    const std::string fits(254, 's'), tooLong(255, 's'), huge(300, 's');
    load("[x]\n[" + fits + "]\nk=1\n[" + tooLong + "]\nk=2\n[" + huge + "]\nk=3\n");
    bool found = false;
    EXPECT_EQ(lookup(fits.c_str(), "k", &found), "1");
    EXPECT_TRUE(found);
    EXPECT_EQ(lookup(tooLong.c_str(), "k", &found), "");
    EXPECT_FALSE(found);
    EXPECT_EQ(lookup(huge.c_str(), "k", &found), "");
    EXPECT_FALSE(found);
}

TEST_F(IniTest, KeyLineAcrossChunkBoundary) {
    // The key search reads 4096-byte chunks from just behind the ']'. Place the line so that the
    // boundary falls before, inside the name, at the '=', inside the value and at the line end.
    const std::string line = "BatteryThreshold = 77\n";
    for (int start = 4096 - (int)line.size() - 2; start <= 4098; ++start) {
        std::string text = "[Tarsk]";
        text += std::string(start - 1, ' ');
        text += "\n" + line;
        load(text);
        bool found = false;
        EXPECT_EQ(lookup("Tarsk", "BatteryThreshold", &found), "77") << "line at " << start;
        EXPECT_TRUE(found) << "line at " << start;
    }
}

TEST_F(IniTest, ValueLineWithoutEndWithinChunkIsRefused) {
    load("[A]\nk=" + std::string(5000, 'v') + "\nj=1\n");
    bool found = true;
    EXPECT_EQ(lookup("A", "k", &found), "");
    EXPECT_FALSE(found);
    // a long line that ends within the chunk is found and cut to the buffer
    load("[A]\nk=" + std::string(4000, 'v') + "\n");
    EXPECT_EQ(lookup("A", "k", &found), std::string(255, 'v'));
    EXPECT_TRUE(found);
}

TEST_F(IniTest, OverlongKeyDoesNotOverrun) {
    const std::string longKey(5000, 'k');
    load("[A]\n" + longKey + "=1\n");
    bool found = true;
    EXPECT_EQ(lookup("A", longKey.c_str(), &found), "");
    EXPECT_FALSE(found);
    // a key name running through a whole chunk without '=' is passed over
    load("[A]\n" + std::string(5000, 'k') + "\nk=2\n");
    EXPECT_EQ(lookup("A", "k", &found), "2");
}

// ---- typed readers ----

TEST_F(IniTest, GetBoolOnlyTrueIsTrue) {
    struct {
        const char *value;
        bool found;
        int expect;
    } const cases[] = {
        {"TRUE", true, 1},   {"true", true, 1},  {"tRuE", true, 1},   {"TRUE ", true, 0},
        {"1", true, 0},      {"yes", true, 0},   {"TRUEX", true, 0},  {"TRUEXY", true, 0},
        {"FALSE", true, 0},  {"", true, 0},      {" TRUE", true, 1},  {"TRUE;x", true, 1},
    };
    for (const auto &c : cases) {
        load(std::string("[Tarsk]\nShowInfo=") + c.value + "\n");
        int v = 7;
        EXPECT_EQ(ini.getBool("Tarsk", "ShowInfo", &v), c.found) << c.value;
        EXPECT_EQ(v, c.expect) << c.value;
    }
}

TEST_F(IniTest, GetBoolStoresZeroWhenMissing) {
    load("[Tarsk]\nShowInfo=TRUE\n");
    int v = 7;
    EXPECT_FALSE(ini.getBool("Tarsk", "Other", &v));
    EXPECT_EQ(v, 0);
    v = 7;
    EXPECT_FALSE(ini.getBool("Nothing", "ShowInfo", &v));
    EXPECT_EQ(v, 0);
}

TEST_F(IniTest, GetIntStoresOnlyWhenFound) {
    load("[Tarsk]\nBatteryThreshold = 0x20 ; comment\nWord=abc\n");
    int v = 55;
    EXPECT_TRUE(ini.getInt("Tarsk", "BatteryThreshold", &v));
    EXPECT_EQ(v, 32);
    v = 55;
    EXPECT_FALSE(ini.getInt("Tarsk", "Missing", &v));
    EXPECT_EQ(v, 55);
    EXPECT_TRUE(ini.getInt("Tarsk", "Word", &v));
    EXPECT_EQ(v, 0);
}

TEST(IniAtoi, Conversion) {
    struct {
        const char *text;
        int expect;
    } const cases[] = {
        {"42", 42},           {"  \t42abc", 42},      {"-0x1A", -26},        {"0x", 0},
        {"0X", 0},            {"012", 12},            {"+5", 0},             {"0XfF", 255},
        {"0x1g", 1},          {"-17", -17},           {"- 5", 0},            {"-", 0},
        {"", 0},              {"abc", 0},             {"12 34", 12},         {"\n5", 0},
        {"2147483647", INT_MAX}, {"2147483648", INT_MIN}, {"-2147483648", INT_MIN},
        {"4294967295", -1},   {"4294967296", 0},      {"0xFFFFFFFF", -1},    {"0x100000001", 1},
        {"99999999999", 1215752191},
    };
    for (const auto &c : cases) EXPECT_EQ(ini_atoi(c.text), c.expect) << '"' << c.text << '"';
    EXPECT_EQ(ini_atoi(NULL), 0);
}

// ---- enumeration ----

struct EnumCase {
    const char *name;
    std::string text;
    Events expect;
};

TEST_F(IniTest, EnumerationGrammar) {
    const EnumCase cases[] = {
        {"sections and keys", "[A]\nk=v\n[B]\nx=1\ny=2\n", {"S:A", "K:A|k|v", "S:B", "K:B|x|1", "K:B|y|2"}},
        {"last line needs a line end", "[A]\nk=v\nj=w", {"S:A", "K:A|k|v"}},
        {"last line with CR", "[A]\nk=v\r", {"S:A", "K:A|k|v"}},
        {"double =", "[A]\nk==v\n", {"S:A", "K:A|k|v"}},
        {"empty value CRLF", "[A]\nk=\r\n", {"S:A", "K:A|k|"}},
        {"tab after = gives no call", "[A]\nk=\tv\n", {"S:A"}},
        {"tab: value read as key", "[A]\nk=\tv=w\n", {"S:A", "K:A|v|w"}},
        {"tab inside value kept out", "[A]\nk=a\tb=c\n", {"S:A", "K:A|k|a", "K:A|b|c"}},
        {"spaces kept both sides", "[A]\nk = v\n", {"S:A", "K:A|k | v"}},
        {"leading spaces skipped", "[A]\n   k=v\n", {"S:A", "K:A|k|v"}},
        {"no comment syntax", "[A]\n;k=v;w\n# c\n", {"S:A", "K:A|;k|v;w"}},
        {"key without =", "[A]\nk\nj=1\n", {"S:A", "K:A|j|1"}},
        {"empty key", "[A]\n=v\n", {"S:A", "K:A||v"}},
        {"header-line key loses a char", "[A]abc=1\n", {"S:A", "K:A|bc|1"}},
        {"bracket in value opens section", "[A]\nname=abc[1]\nk=v\n", {"S:A", "S:1", "K:1|k|v"}},
        {"bracket starts value", "[A]\nk=[X]\nj=1\n", {"S:A", "S:X", "K:X|j|1"}},
        {"adjacent headers", "[A][B]\nk=v\n", {"S:A", "S:B", "K:B|k|v"}},
        {"empty header", "[]\nk=v\n", {"S:", "K:|k|v"}},
        {"names not trimmed", "[ A ]\nk=v\n", {"S: A ", "K: A |k|v"}},
        {"text before first header", "k=v\n[A]\nj=w\n", {"S:A", "K:A|j|w"}},
        {"high byte ends name", "[A]\nk\xE9v\n", {"S:A", "K:A|k|v"}},
        {"high byte then =", "[A]\nk\xE9=v\n", {"S:A", "K:A|k|v"}},
        {"high bytes in value", "[A]\nk=\xE9t\xE9\n", {"S:A", "K:A|k|t\xE9"}},
        {"NUL ends value", std::string("[A]\nk=v\0w=x\n", 12), {"S:A", "K:A|k|v", "K:A|w|x"}},
        {"unclosed bracket at end", "[A]\nk=v\n[broken\n", {"S:A", "K:A|k|v"}},
        {"empty file", "", {}},
    };
    for (const EnumCase &c : cases) {
        load(c.text);
        EXPECT_EQ(enumerate(ini), c.expect) << c.name;
    }
}

TEST_F(IniTest, SectionCallbackZeroStops) {
    load("[A]\nk=1\n[B]\nk=2\n[C]\nk=3\n");
    g_stopAfter = 2;
    EXPECT_EQ(enumerate(ini), (Events{"S:A", "K:A|k|1", "S:B", "K:B|k|2"}));
}

TEST_F(IniTest, LongValuesCutAt2047) {
    struct {
        size_t length;
        size_t delivered;
    } const cases[] = {{2046, 2046}, {2047, 2047}, {2048, 2047}, {3000, 2047}, {5000, 2047}};
    for (const auto &c : cases) {
        // The tail behind the cut is dropped: no empty call, no key made of the tail.
        load("[A]\nk=" + std::string(c.length, 'x') + "\nn=1\n");
        EXPECT_EQ(enumerate(ini), (Events{"S:A", "K:A|k|" + std::string(c.delivered, 'x'), "K:A|n|1"}))
            << c.length;
    }
    // a tail that holds '=' still yields nothing
    load("[A]\nk=" + std::string(2100, 'x') + "=y\nn=1\n");
    EXPECT_EQ(enumerate(ini), (Events{"S:A", "K:A|k|" + std::string(2047, 'x'), "K:A|n|1"}));
    // a '[' in the tail opens a section as in any value
    load("[A]\nk=" + std::string(2100, 'x') + "[B]\nn=1\n");
    EXPECT_EQ(enumerate(ini), (Events{"S:A", "K:A|k|" + std::string(2047, 'x'), "S:B", "K:B|n|1"}));
    // a '[' at the cut position opens its section; the value is not delivered
    load("[A]\nk=" + std::string(2047, 'x') + "[B]\nn=1\n");
    EXPECT_EQ(enumerate(ini), (Events{"S:A", "S:B", "K:B|n|1"}));
}

TEST_F(IniTest, LongKeyNamesCutAt127) {
    load("[A]\n" + std::string(127, 'a') + "=1\n" + std::string(128, 'b') + "=2\n" + std::string(500, 'c') +
         "=3\nk=4\n");
    EXPECT_EQ(enumerate(ini), (Events{"S:A", "K:A|" + std::string(127, 'a') + "|1",
                                      "K:A|" + std::string(127, 'b') + "|2",
                                      "K:A|" + std::string(127, 'c') + "|3", "K:A|k|4"}));
}

TEST_F(IniTest, LongSectionNamesCutAt127) {
    load("[" + std::string(300, 's') + "]\nk=v\n");
    const std::string name(127, 's');
    EXPECT_EQ(enumerate(ini), (Events{"S:" + name, "K:" + name + "|k|v"}));
}

TEST_F(IniTest, HeaderCloseWithin2047Bytes) {
    // ']' 2047 bytes behind '[' is found; one further ends the enumeration, without looping.
    const size_t offsets[] = {0, 100, 2040, 2047, 3000};
    for (size_t at : offsets) {
        std::string lead(at, '\n');
        load(lead + "[" + std::string(2046, 'n') + "]\nk=v\n");
        Events got = enumerate(ini);
        ASSERT_EQ(got.size(), 2u) << at;
        EXPECT_EQ(got[0], "S:" + std::string(127, 'n')) << at;
        load(lead + "[A]\nk=v\n[" + std::string(2047, 'n') + "]\n[B]\nj=w\n");
        EXPECT_EQ(enumerate(ini), (Events{"S:A", "K:A|k|v"})) << at;
    }
}

TEST_F(IniTest, ManyLinesAcrossRefills) {
    // Enough sections and keys to pass the 2048-byte buffer many times, with lines of varying length.
    std::string text;
    Events expect;
    for (int s = 0; s < 20; ++s) {
        std::string section = "Section" + std::to_string(s);
        text += "[" + section + "]\r\n";
        expect.push_back("S:" + section);
        for (int k = 0; k < 15; ++k) {
            std::string key = "key" + std::to_string(k) + std::string(s % 7, '_');
            std::string value = std::string(k * 13 % 90, 'v') + std::to_string(s * 100 + k);
            text += key + "=" + value + "\r\n";
            expect.push_back("K:" + section + "|" + key + "|" + value);
        }
    }
    ASSERT_GT(text.size(), 10000u);
    load(text);
    EXPECT_EQ(enumerate(ini), expect);
}

TEST_F(IniTest, NamesAcrossPlainRefillComeThroughOnce) {
    // No value before the boundary, so the buffer is refilled rather than compacted; put the
    // boundary into a section name, a key name, at the '=' and at the value's start.
    for (int at = 2040; at <= 2050; ++at) {
        std::string text = "[A]\n";
        text += std::string(at - text.size() - 1, ' ') + "\n";   // blanks: passed over in state 0
        ASSERT_EQ(text.size(), (size_t)at);
        load(text.substr(0, at - 3) + "\nabcd=1\n[B]\nk=v\n");
        EXPECT_EQ(enumerate(ini), (Events{"S:A", "K:A|abcd|1", "S:B", "K:B|k|v"})) << at;
        load(text.substr(0, at - 3) + "\n[Bcdef]\nk=v\n");
        EXPECT_EQ(enumerate(ini), (Events{"S:A", "S:Bcdef", "K:Bcdef|k|v"})) << at;
    }
}
