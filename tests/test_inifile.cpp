// CIniFile: keyed lookup, typed readers, the integer conversion and the enumeration, on INI files
// written to a simulated device.
#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

#include "platform/inifile.h"
#include "platform/platform.h"
#include "test_device.h"

using std::string;
using testing_support::TestDevice;
using testing_support::U;
using testing_support::W;

namespace {

const char *const kIniPath = "\\My Flash Disk\\test.ini";
typedef std::vector<string> Events;

struct LookupCase {
    string name, text, section, key;
    bool found;
    string value;
    int size = 256;
};

struct EnumCase {
    string name, text;
    Events expect;
    int stopAfter = -1;
};

// Enumeration recorder: "S:section" per section, "K:section|key|value" per key.
Events g_events;
int g_stopAfter = -1;   // sections to visit before the section callback returns 0

int recordKey(CIniFile *, const char *section, const char *key, const char *value) {
    g_events.push_back(string("K:") + section + "|" + key + "|" + value);
    return 0;
}

int recordSection(void *context, CIniFile *ini, const char *section) {
    EXPECT_EQ(context, (void *)&g_events);
    g_events.push_back(string("S:") + section);
    ini->enumKeys("ignored", recordKey);
    return (g_stopAfter > 0 && --g_stopAfter == 0) ? 0 : 1;
}

class IniTest : public ::testing::Test {
protected:
    void load(const string &text) {
        ini.close();
        device.put(kIniPath, text);
        ASSERT_TRUE(ini.open(W(kIniPath).c_str()));
    }
    string lookup(const string &section, const string &key, bool *found, int size = 256) {
        std::vector<char> buf(size, 'Z');
        *found = ini.getString(section.c_str(), key.c_str(), buf.data(), size);
        return string(buf.data());
    }
    void check(const std::vector<LookupCase> &cases) {
        for (const LookupCase &c : cases) {
            load(c.text);
            bool found = !c.found;
            EXPECT_EQ(lookup(c.section, c.key, &found, c.size), c.value) << c.name;
            EXPECT_EQ(found, c.found) << c.name;
        }
    }
    void check(const std::vector<EnumCase> &cases) {
        for (const EnumCase &c : cases) {
            load(c.text);
            g_events.clear();
            g_stopAfter = c.stopAfter;
            EXPECT_TRUE(ini.enumSections(recordSection, &g_events)) << c.name;
            EXPECT_EQ(g_events, c.expect) << c.name;
        }
    }
    TestDevice device;
    CIniFile ini;
};

}  // namespace

TEST_F(IniTest, OpenCloseAndTheClosedReader) {
    g_vlLogSettings.level = LOG_DEBUG;
    EXPECT_FALSE(ini.open(W("\\My Flash Disk\\none.ini").c_str()));
    EXPECT_FALSE(ini.isOpen());
    EXPECT_EQ(U(ini.getFileName()), "\\My Flash Disk\\none.ini");
    // A closed reader finds nothing; getBool stores 0, getInt leaves its target.
    char buf[8] = "junk";
    EXPECT_FALSE(ini.getString("A", "k", buf, sizeof(buf)));
    EXPECT_STREQ(buf, "");
    int b = 7, i = 7;
    EXPECT_FALSE(ini.getBool("A", "k", &b));
    EXPECT_EQ(b, 0);
    EXPECT_FALSE(ini.getInt("A", "k", &i));
    EXPECT_EQ(i, 7);
    EXPECT_TRUE(ini.enumSections(recordSection, &g_events));
    load("[A]\nk=1\n");
    ini.close();
    EXPECT_FALSE(ini.isOpen());
    ini.close();   // a second close does nothing
    const string log = U(vl_ringBuffer(NULL, NULL));
    for (const char *line : {"CIniFile::open(): failed to open file [\\My Flash Disk\\none.ini] in mode [rb]",
                             "CIniFile::open(): Opened file \\My Flash Disk\\test.ini in mode rb",
                             "CIniFile::close(): Closed file \\My Flash Disk\\test.ini", "CIniFile::close()"}) {
        const size_t at = log.find(line);   // logged exactly once
        EXPECT_TRUE(at != string::npos && at == log.rfind(line)) << line << "\n" << log;
    }
    // The low-level open takes the stored name.
    device.put("\\debug.ini", "[Tarsk]\nShowInfo=TRUE\n");
    ini.setFileName(W("\\missing\\debug.ini").c_str());
    EXPECT_FALSE(ini.open());
    ini.setFileName(W("\\DEBUG.INI").c_str());   // the device's names ignore case
    ASSERT_TRUE(ini.open());
    EXPECT_TRUE(ini.getBool("Tarsk", "ShowInfo", &b));
    EXPECT_EQ(b, 1);
}

// ---- keyed lookup ----

TEST_F(IniTest, KeyedLookupGrammar) {
    check({
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
        {"value cut to size 4", "[A]\nk=abcdef\n", "A", "k", true, "abc", 4},
        {"value cut to size 1", "[A]\nk=abcdef\n", "A", "k", true, "", 1},
        {"value fits size 7", "[A]\nk=abcdef\n", "A", "k", true, "abcdef", 7},
    });
}

TEST_F(IniTest, KeyedLookupBuffersAndBoundaries) {
    // "[" + name + "]" must fit the 256-byte section search buffer: 254 characters do, 255 do not.
    const string fits(254, 's'), tooLong(255, 's'), huge(300, 's');
    const string names = "[x]\n[" + fits + "]\nk=1\n[" + tooLong + "]\nk=2\n[" + huge + "]\nk=3\n";
    std::vector<LookupCase> cases = {
        {"section name of 254", names, fits, "k", true, "1"},
        {"section name of 255", names, tooLong, "k", false, ""},
        {"section name of 300", names, huge, "k", false, ""},
        {"no line end within a chunk", "[A]\nk=" + string(5000, 'v') + "\nj=1\n", "A", "k", false, ""},
        {"long line within a chunk", "[A]\nk=" + string(4000, 'v') + "\n", "A", "k", true, string(255, 'v')},
        {"key of 5000", "[A]\n" + string(5000, 'k') + "=1\n", "A", string(5000, 'k'), false, ""},
        {"name through a chunk", "[A]\n" + string(5000, 'k') + "\nk=2\n", "A", "k", true, "2"},
    };
    // The header at every offset around the section search's 256-byte boundary.
    for (int at = 240; at <= 262; ++at)
        cases.push_back({"header at " + std::to_string(at), string(at - 1, ' ') + "\n[Tarsk]\nk=v\n", "Tarsk", "k",
                         true, "v"});
    // The key search's 4096-byte chunk boundary before, inside the name, at the '=', in the value, at the end.
    const string line = "BatteryThreshold = 77\n";
    for (int at = 4096 - (int)line.size() - 2; at <= 4098; ++at)
        cases.push_back({"line at " + std::to_string(at), "[Tarsk]" + string(at - 1, ' ') + "\n" + line, "Tarsk",
                         "BatteryThreshold", true, "77"});
    check(cases);
}

TEST_F(IniTest, LookupsRepeatInAnyOrder) {
    load("[A]\nx=1\n[B]\ny=2\n");
    bool found = false;
    EXPECT_EQ(lookup("B", "y", &found), "2");
    EXPECT_EQ(lookup("A", "x", &found), "1");
    EXPECT_EQ(lookup("B", "y", &found), "2");
    EXPECT_TRUE(found);
}

// getBool stores 0 also when nothing is found; getInt stores only a found value.
TEST_F(IniTest, TypedReaders) {
    struct { const char *section, *line; bool isInt, found; int expect; } const cases[] = {
        {"T", "k=TRUE", false, true, 1},  {"T", "k=true", false, true, 1},   {"T", "k=tRuE", false, true, 1},
        {"T", "k=TRUE ", false, true, 0}, {"T", "k=1", false, true, 0},      {"T", "k=yes", false, true, 0},
        {"T", "k=TRUEX", false, true, 0}, {"T", "k=TRUEXY", false, true, 0}, {"T", "k=FALSE", false, true, 0},
        {"T", "k=", false, true, 0},      {"T", "k= TRUE", false, true, 1},  {"T", "k=TRUE;x", false, true, 1},
        {"T", "j=TRUE", false, false, 0}, {"X", "k=TRUE", false, false, 0},
        {"T", "k = 0x20 ; comment", true, true, 32},
        {"T", "k=abc", true, true, 0},    {"T", "j=5", true, false, 7},      {"X", "k=5", true, false, 7},
    };
    for (const auto &c : cases) {
        load(string("[T]\n") + c.line + "\n");
        int v = 7;
        EXPECT_EQ(c.isInt ? ini.getInt(c.section, "k", &v) : ini.getBool(c.section, "k", &v), c.found) << c.line;
        EXPECT_EQ(v, c.expect) << c.section << " " << c.line;
    }
}

TEST(IniAtoi, Conversion) {
    struct { const char *text; int expect; } const cases[] = {
        {"42", 42},    {"  \t42abc", 42}, {"-0x1A", -26}, {"0x", 0},    {"0X", 0},    {"012", 12},
        {"+5", 0},     {"0XfF", 255},     {"0x1g", 1},    {"-17", -17}, {"- 5", 0},   {"-", 0},
        {"", 0},       {"abc", 0},        {"12 34", 12},  {"\n5", 0},   {"2147483647", INT_MAX},
        {"2147483648", INT_MIN}, {"-2147483648", INT_MIN}, {"4294967295", -1},   {"4294967296", 0},
        {"0xFFFFFFFF", -1},      {"0x100000001", 1},       {"99999999999", 1215752191},
    };
    for (const auto &c : cases) EXPECT_EQ(ini_atoi(c.text), c.expect) << '"' << c.text << '"';
    EXPECT_EQ(ini_atoi(NULL), 0);
}

// ---- enumeration ----

TEST_F(IniTest, EnumerationGrammar) {
    check({
        {"sections and keys", "[A]\nk=v\n[B]\nx=1\ny=2\n", {"S:A", "K:A|k|v", "S:B", "K:B|x|1", "K:B|y|2"}},
        {"callback 0 stops", "[A]\nk=1\n[B]\nk=2\n[C]\nk=3\n", {"S:A", "K:A|k|1", "S:B", "K:B|k|2"}, 2},
        {"no final line end", "[A]\nk=v\nj=w", {"S:A", "K:A|k|v"}}, {"final CR", "[A]\nk=v\r", {"S:A", "K:A|k|v"}},
        {"double =", "[A]\nk==v\n", {"S:A", "K:A|k|v"}}, {"empty value CRLF", "[A]\nk=\r\n", {"S:A", "K:A|k|"}},
        {"tab after =: no call", "[A]\nk=\tv\n", {"S:A"}}, {"tab: value as key", "[A]\nk=\tv=w\n", {"S:A", "K:A|v|w"}},
        {"tab inside value kept out", "[A]\nk=a\tb=c\n", {"S:A", "K:A|k|a", "K:A|b|c"}},
        {"spaces around =", "[A]\nk = v\n", {"S:A", "K:A|k | v"}}, {"indented", "[A]\n  k=v\n", {"S:A", "K:A|k|v"}},
        {"no comment syntax", "[A]\n;k=v;w\n# c\n", {"S:A", "K:A|;k|v;w"}},
        {"key without =", "[A]\nk\nj=1\n", {"S:A", "K:A|j|1"}}, {"empty key", "[A]\n=v\n", {"S:A", "K:A||v"}},
        {"header-line key loses a char", "[A]abc=1\n", {"S:A", "K:A|bc|1"}},
        {"bracket in value opens section", "[A]\nname=abc[1]\nk=v\n", {"S:A", "S:1", "K:1|k|v"}},
        {"bracket starts value", "[A]\nk=[X]\nj=1\n", {"S:A", "S:X", "K:X|j|1"}},
        {"two headers", "[A][B]\nk=v\n", {"S:A", "S:B", "K:B|k|v"}}, {"empty header", "[]\nk=v\n", {"S:", "K:|k|v"}},
        {"names not trimmed", "[ A ]\nk=v\n", {"S: A ", "K: A |k|v"}},
        {"text before first header", "k=v\n[A]\nj=w\n", {"S:A", "K:A|j|w"}},
        {"high byte ends", "[A]\nk\xE9v\n", {"S:A", "K:A|k|v"}}, {"high byte, =", "[A]\nk\xE9=v\n", {"S:A", "K:A|k|v"}},
        {"high bytes in value", "[A]\nk=\xE9t\xE9\n", {"S:A", "K:A|k|t\xE9"}},
        {"NUL ends value", string("[A]\nk=v\0w=x\n", 12), {"S:A", "K:A|k|v", "K:A|w|x"}},
        {"unclosed bracket at end", "[A]\nk=v\n[broken\n", {"S:A", "K:A|k|v"}}, {"empty file", "", {}},
    });
}

TEST_F(IniTest, EnumerationBuffersAndBoundaries) {
    const string x2047(2047, 'x'), n127(127, 'n'), cut = "K:A|k|" + x2047;
    std::vector<EnumCase> cases = {
        // A value is cut at 2047 bytes (its 2048th becomes NUL); that NUL, carried to the front, ends the
        // value once more (empty) and the rest of the line is read as a new key name.
        {"tail with =", "[A]\nk=" + string(2100, 'x') + "=y\nn=1\n",
         {"S:A", cut, "K:A|k|", "K:A|" + string(52, 'x') + "|y", "K:A|n|1"}},
        {"tail with [", "[A]\nk=" + string(2100, 'x') + "[B]\nn=1\n", {"S:A", cut, "K:A|k|", "S:B", "K:B|n|1"}},
        // A '[' at the cut is cut and delivered too; overwritten by the NUL, it opens no section.
        {"[ at the cut", "[A]\nk=" + x2047 + "[B]\nn=1\n[C]\nj=2\n", {"S:A", cut, "S:C", "K:C|j|2"}},
        {"key names cut at 127",
         "[A]\n" + string(127, 'a') + "=1\n" + string(128, 'b') + "=2\n" + string(500, 'c') + "=3\nk=4\n",
         {"S:A", "K:A|" + string(127, 'a') + "|1", "K:A|" + string(127, 'b') + "|2", "K:A|" + string(127, 'c') + "|3",
          "K:A|k|4"}},
        {"section names cut at 127", "[" + string(300, 'n') + "]\nk=v\n", {"S:" + n127, "K:" + n127 + "|k|v"}},
    };
    for (size_t length : {2046, 2047, 2048, 3000, 5000}) {
        EnumCase c = {"value of " + std::to_string(length), "[A]\nk=" + string(length, 'x') + "\nn=1\n",
                      {"S:A", "K:A|k|" + string(std::min<size_t>(length, 2047), 'x')}};
        if (length > 2047) c.expect.push_back("K:A|k|");   // the tail, a name without '=', is dropped
        c.expect.push_back(length == 2046 ? "K:A|nn|1" : "K:A|n|1");   // the 'n' at 2047 is read twice
        cases.push_back(c);
    }
    // A ']' 2047 bytes behind its '[' is found; one further ends the enumeration, without looping.
    for (size_t at : {0, 100, 2040, 2047, 3000}) {
        const string lead(at, '\n'), name = std::to_string(at);
        cases.push_back({"] at 2047, lead " + name, lead + "[" + string(2046, 'n') + "]\nk=v\n",
                         {"S:" + n127, "K:" + n127 + "|k|v"}});
        cases.push_back(
            {"] at 2048, lead " + name, lead + "[A]\nk=v\n[" + x2047 + "]\n[B]\nj=w\n", {"S:A", "K:A|k|v"}});
    }
    // A plain refill (no value pending) inside a key name, at its '=', at the value's start, in a header.
    // The byte at 2047 is examined again at 0: a name across the boundary gets it twice ("abbcd").
    for (int at = 2040; at <= 2050; ++at) {
        const string lead = "[A]\n" + string(at - 7, ' ') + "\n";
        string key = "abcd";   // its 'a' at at-2, so the byte at 2047 is key[2049 - at]
        if (at >= 2046 && at <= 2049) key.insert(2049 - at, 1, key[2049 - at]);
        cases.push_back({"key at " + std::to_string(at), lead + "abcd=1\n[B]\nk=v\n",
                         {"S:A", "K:A|" + key + "|1", "S:B", "K:B|k|v"}});
        cases.push_back({"header at " + std::to_string(at), lead + "[Bcdef]\nk=v\n",
                         {"S:A", "S:Bcdef", at == 2041 ? "K:Bcdef|kk|v" : "K:Bcdef|k|v"}});
    }
    // Many sections and keys of varying length pass the 2048-byte buffer many times.
    EnumCase many = {"many lines", "", {}};
    for (int s = 0; s < 20; ++s) {
        const string section = "Section" + std::to_string(s);
        many.text += "[" + section + "]\r\n";
        many.expect.push_back("S:" + section);
        for (int k = 0; k < 15; ++k) {
            const string key = "key" + std::to_string(k) + string(s % 7, '_');
            const string value = string(k * 13 % 90, 'v') + std::to_string(s * 100 + k);
            many.text += key + "=" + value + "\r\n";
            many.expect.push_back("K:" + section + "|" + key + "|" + value);
        }
    }
    ASSERT_GT(many.text.size(), 10000u);
    cases.push_back(many);
    check(cases);
}

// The enumeration takes its refills from a read-ahead. Whatever the read-ahead holds, the callbacks
// must get exactly what they get when every refill reads the dropped bytes from the file at that
// moment: the reference is the same file on a volume that gives one byte per read (so nothing is read
// ahead); volumes giving 7 and 1000 bytes per read shift the read-ahead's edges. Generated texts put
// long values, '[' in values, headers, CR/LF mixes, tabs and NULs across the buffer's boundaries.
TEST(IniEnumeration, ReadAheadDeliversWhatReadingAtEachRefillDelivers) {
    TestDevice device("[storage.'\\One']\nread_max = 1\n[storage.'\\Seven']\nread_max = 7\n"
                      "[storage.'\\Odd']\nread_max = 1000\n");
    std::mt19937 rng(2048);
    auto pick = [&](int n) { return int(rng() % unsigned(n)); };
    auto bytes = [&](int n) {   // value and name text: mostly letters, some of the bytes the grammar knows
        static const char kOdd[] = {'[', ']', '=', ';', ' ', '\t', '\xE9', '\0', '\r', '\n'};
        string out;
        for (int i = 0; i < n; ++i) out += pick(8) ? char('a' + pick(26)) : kOdd[pick(sizeof kOdd)];
        return out;
    };
    static const char *const kEnds[] = {"\r\n", "\n", "\r", "\n\r", ""};
    CIniFile ini;   // one reader for all the files: an open must forget what was read ahead
    for (int t = 0; t < 30; ++t) {
        string text;
        while (text.size() < 2500u + 300u * t) {
            const int kind = pick(10);
            if (kind == 0) text += "[" + bytes(pick(4) ? pick(12) : 140) + "]";
            else if (kind == 1) text += string(pick(300), pick(2) ? ' ' : '\n');   // moves the rest along
            else text += bytes(1 + pick(12)) + string(pick(3), '=') + bytes(pick(6) ? pick(40) : 1500 + pick(1500));
            text += kEnds[pick(5)];
        }
        Events reference;
        const string volumes[] = {"\\One", "\\Seven", "\\Odd", "\\My Flash Disk"};   // the first: the reference
        for (const string &volume : volumes) {
            const string path = volume + "\\t.ini";
            device.put(path, text);
            ASSERT_TRUE(ini.open(W(path).c_str()));
            const unsigned readsBefore = device.dev().callCount("ReadFile");
            const bool unlimited = &volume == &volumes[3];
            // Unlimited: a pass stopped after its first section, then a full one; each starts over.
            for (int pass = unlimited ? 0 : 1; pass < 2; ++pass) {
                g_events.clear();
                g_stopAfter = pass == 0 ? 1 : -1;
                ini.enumSections(recordSection, &g_events);
                if (&volume == &volumes[0]) reference = g_events;
                Events expect = reference;
                for (size_t i = 1; pass == 0 && i < expect.size(); ++i)
                    if (expect[i].compare(0, 2, "S:") == 0) expect.resize(i);
                EXPECT_EQ(g_events, expect) << "text " << t << " on " << volume << ", pass " << pass;
            }
            // Unlimited reads: one per read-ahead's worth of text, not one per key.
            if (unlimited) {
                EXPECT_LE(device.dev().callCount("ReadFile") - readsBefore, 2 * (text.size() / 2048 + 2));
            }
        }
        EXPECT_GT(reference.size(), 10u) << t;
    }
}
