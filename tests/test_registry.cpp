// The platform's registry readers, the known roots by model, and the engine's own readers.
#include "test_device.h"

#include "platform/platform.h"
#include "platform/registry.h"
#include "tarsklib/tarskregistry.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

using namespace testing_support;

namespace {

// An output buffer holding a marker text, to tell whether it was written.
struct Buf {
    WCHAR w[MAX_PATH];
    explicit Buf(const std::string &text = "untouched") {
        std::u16string s = W(text);
        std::copy(s.begin(), s.end(), w);
        w[s.size()] = 0;
    }
    std::string str() const { return U(w); }
};

}  // namespace

TEST(HardwareName, CutsMakerAndModelSuffix) {
    struct Case { std::string stored; int result; std::string name; } cases[] = {
        {"Velmar X7, rev 2", 1, "X7"},
        {"Velmar  X7", 1, ""},                       // the cut at the first blank falls at once
        {"VESKA320XL", 1, "VESKA320XL"},             // neither comma nor blank: kept whole
        {"Velmar MAPPO2CF rev 3", 1, "MAPPO2CF"},    // no comma: cut at the first blank
        {"Velmar A B, C", 1, "A B"},                 // a comma wins over an earlier blank
        {"velmar X7", 1, "velmar"},                  // the maker's word is matched as written
        {"Velmar", 1, "Velmar"},                     // shorter than the maker's word and its blank
        {std::string(259, 'Z'), 1, std::string(259, 'Z')},   // 520 bytes with the terminator: fits
        {std::string(260, 'Z'), 0, ""},              // one more does not: the buffer is emptied
    };
    for (const Case &c : cases) {
        TestDevice t;
        t.dev().registry().setString("Information", "Hardware", W(c.stored));
        Buf name("junk");
        EXPECT_EQ(c.result, sys_getHardwareName(name.w)) << c.stored;
        EXPECT_EQ(c.name, name.str()) << c.stored;
    }
}

// HKLM\Information, else HKLM\Velmar; the reader never creates a key, and a failure leaves the
// output as it was.
TEST(VLRegistryString, ReadsAndFailures) {
    const std::string query = "ERROR, getVLRegistryString(): RegQueryValueEx(HKLM\\Information|Velmar\\Internal) ";
    struct Case {
        const char *what;
        std::function<void(sim::Registry &)> setup;
        DWORD capacity;
        std::string value, message;   // value "untouched": nothing written, 0 returned
        DWORD lastError;
    } cases[] = {
        {"Velmar serves when Information is missing",
         [](sim::Registry &r) { r.setString("Velmar", "Internal", u"\\Flash"); }, MAX_PATH, "\\Flash",
         "DEBUG, getVLRegistryString(): HKLM\\Information|Velmar\\Internal = \\Flash", 0},
        {"cut to the capacity", [](sim::Registry &r) { r.setString("Information", "Internal", u"\\My Flash Disk"); }, 6,
         "\\My F", "DEBUG, getVLRegistryString(): HKLM\\Information|Velmar\\Internal = \\My F", 0},
        {"no key", [](sim::Registry &) {}, MAX_PATH, "untouched",
         "ERROR, getVLRegistryString(): RegOpenKeyEx(HKLM\\Information|Velmar) failed, error 2", 2},
        {"no value under Information: Velmar not asked",
         [](sim::Registry &r) {
             r.setString("Information", "Hardware", u"Velmar X7");
             r.setString("Velmar", "Internal", u"\\Flash");
         },
         MAX_PATH, "untouched", query + "failed, error 2", 2},
        {"number", [](sim::Registry &r) { r.setDword("Information", "Internal", 7); }, MAX_PATH, "untouched",
         query + "returned type = 4, size = 4", 77},
        {"size 0", [](sim::Registry &r) { r.setValue("Information", "Internal", REG_SZ, {}); }, MAX_PATH, "untouched",
         query + "returned type = 1, size = 0", 77},
        {"too long", [](sim::Registry &r) { r.setString("Information", "Internal", std::u16string(300, u'a')); },
         MAX_PATH, "untouched", query + "failed, error 234", 234},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TestDevice t;
        c.setup(t.dev().registry());
        const bool information = t.dev().registry().exists("Information");
        g_vlLogSettings.level = LOG_DEBUG;
        os_setLastError(0);
        SetLastError(77);   // a wrong type or an empty value passes on what the system last said
        Buf value;
        EXPECT_EQ(c.value != "untouched", getVLRegistryString(TEXT("Internal"), value.w, c.capacity));
        EXPECT_EQ(c.value, value.str());
        EXPECT_TRUE(logged(c.message)) << logText();
        EXPECT_EQ(c.lastError, os_getLastError());
        EXPECT_EQ(information, t.dev().registry().exists("Information"));
    }
}

TEST(KnownRoots, ByModelAndFromDebugIni) {
    const std::string flash = "\\My Flash Disk", card = "\\Storage Card", none = "untouched";
    struct Case { std::vector<DWORD> models; const char *ini; std::string internal, external, install; } cases[] = {
        {{1, 2}, NULL, flash, card, "\\My Flash Disk\\Velmar\\Waylume_CE"},
        {{3}, NULL, "\\CF DISK", card, "\\CF DISK\\Velmar\\Waylume_CE"},
        {{4, 10}, NULL, "", card, "\\Program Files\\Velmar\\Waylume_CE"},
        {{11}, NULL, "\\CF DISK", card, "\\DiskOnChip\\Velmar\\Waylume_CE"},
        {{15}, NULL, "", card, "\\Storage Card\\Velmar\\System\\\\Waylume_CE"},   // the doubled separator stays
        {{16}, NULL, "", card, "\\Storage Card\\Image"},
        {{17, 57, 59, 60}, NULL, flash, card, "\\My Flash Disk\\Program Files\\Velmar\\Waylume_CE"},
        // the rest come from debug.ini; with none, the defaults, and the install folder untouched
        {{0, 12, 14, 58, 61, 0xFFFFFFFFu}, NULL, flash, card, none},
        {{12}, "[Device]\r\nInternalPath=\\Flash2\r\nExternalPath1=\\SD2\r\n", "\\Flash2", "\\SD2", none},
        {{12}, "[Device]\r\nInternalPath=X\r\nExternalPath1=\\SD2\r\n", none, "\\SD2", none},   // one character: not used
        {{12}, "[Device]\r\nInternalPath=\\F\r\n", "\\F", none, none},
        {{12}, "[Other]\r\nInternalPath=\\Flash2\r\n", none, none, none},
    };
    for (const Case &c : cases) {
        for (DWORD model : c.models) {
            TestDevice t;
            if (c.ini) t.put("\\debug.ini", c.ini);
            Buf internal, external, install;
            EXPECT_EQ(1, sys_getKnownRoots(model, internal.w, MAX_PATH, external.w, MAX_PATH, install.w, MAX_PATH));
            const std::string what = std::to_string(model) + " " + (c.ini ? c.ini : "");
            EXPECT_EQ(c.internal, internal.str()) << what;
            EXPECT_EQ(c.external, external.str()) << what;
            EXPECT_EQ(c.install, install.str()) << what;
        }
    }
}

TEST(KnownRoots, CapacitiesBoundEachOutput) {
    TestDevice t;
    Buf internal("keep"), external("keep"), install("keep");
    EXPECT_EQ(1, sys_getKnownRoots(17, internal.w, 0, external.w, 5, install.w, 1));
    EXPECT_EQ("keep", internal.str());   // capacity 0: not written
    EXPECT_EQ("\\Sto", external.str());  // capacity - 1 characters and the terminator
    EXPECT_EQ("", install.str());
    EXPECT_EQ(1, sys_getKnownRoots(12, internal.w, 0, external.w, 8, NULL, 0));   // defaults are bounded too
    EXPECT_EQ("keep", internal.str());
    EXPECT_EQ("\\Storag", external.str());
}

// The engine's reader creates an empty Information key and never looks under Velmar; it reads only
// values of the right type, capacity * 2 bytes at most, and closes every key it opened.
TEST(TarskRegistry, ReadsValuesOfTheRightType) {
    TestDevice t;
    sim::Registry &r = t.dev().registry();
    r.setString("Velmar", "Internal", u"\\Flash");
    CTarskRegistry reg;
    Buf path("junk");
    EXPECT_EQ(0, reg.GetInternalPath(path.w, 64));
    EXPECT_EQ("", path.str());
    EXPECT_EQ(2u, os_getLastError());
    DWORD n = 77;
    EXPECT_EQ(0, reg.ReadNumber(TEXT("FlashType"), &n));
    EXPECT_EQ(77u, n);
    EXPECT_TRUE(r.exists("Information") && r.subkeyNames("Information").empty());

    r.setString("Information", "Internal", u"\\My Flash Disk");
    r.setString("Information", "External2", u"\\SD");
    r.setDword("Information", "FlashType", 3);
    r.setDword("Information", "External1", 5);        // wrong type for a path
    r.setString("Information", "Counter", u"3");       // wrong type for a number
    r.setString("Information", "Empty", u"");
    r.setValue("Information", "NoBytes", REG_DWORD, {});
    EXPECT_EQ(1, reg.GetInternalPath(path.w, 64));
    EXPECT_EQ("\\My Flash Disk", path.str());
    EXPECT_EQ(1, reg.GetExternalPath(2, path.w, 64));
    EXPECT_EQ("\\SD", path.str());
    EXPECT_EQ(0, reg.GetExternalPath(1, path.w, 64));
    EXPECT_EQ("", path.str());
    EXPECT_EQ(0, reg.ReadString(TEXT("Empty"), path.w, 64));
    EXPECT_EQ(1, reg.ReadNumber(TEXT("FlashType"), &n));
    EXPECT_EQ(3u, n);
    n = 9;
    EXPECT_EQ(0, reg.ReadNumber(TEXT("Counter"), &n));
    EXPECT_EQ(0, reg.ReadNumber(TEXT("NoBytes"), &n));
    EXPECT_EQ(9u, n);
    // "\My Flash Disk" needs 15 characters with its terminator
    EXPECT_EQ(0, reg.ReadString(TEXT("Internal"), path.w, 14));
    EXPECT_EQ(234u, os_getLastError());
    EXPECT_EQ(1, reg.ReadString(TEXT("Internal"), path.w, 15));
    EXPECT_EQ("\\My Flash Disk", path.str());
    EXPECT_EQ(0u, t.dev().objects().count());
}
