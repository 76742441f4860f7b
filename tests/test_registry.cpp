// The platform's registry readers, the known roots by model, and the engine's own readers.
#include "test_device.h"

#include "platform/platform.h"
#include "platform/registry.h"
#include "tarsklib/tarskregistry.h"

#include <gtest/gtest.h>

#include <functional>

using testing_support::TestDevice;
using testing_support::U;
using testing_support::W;

namespace {

// All the log has written so far (the ring buffer keeps the last text; these tests write little).
std::string logText() {
    int position = 0;
    BOOL wrapped = FALSE;
    const WCHAR *ring = vl_ringBuffer(&position, &wrapped);
    std::u16string text = wrapped ? std::u16string(ring + position + 1) + std::u16string(ring, position)
                                  : std::u16string(ring, position);
    return sim::utf8(text);
}

bool logged(const std::string &text) { return logText().find(text) != std::string::npos; }

void fill(WCHAR *buf, size_t n, const char *text) {
    std::u16string w = W(text);
    ASSERT_LT(w.size(), n);
    std::copy(w.begin(), w.end(), buf);
    buf[w.size()] = 0;
}

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
        {std::string(260, 'Z'), 0, ""},              // one more does not
    };
    for (const Case &c : cases) {
        TestDevice t;
        t.dev().registry().setString("Information", "Hardware", W(c.stored));
        WCHAR name[MAX_PATH];
        fill(name, MAX_PATH, "junk");
        EXPECT_EQ(c.result, sys_getHardwareName(name)) << c.stored;
        EXPECT_EQ(c.name, U(name)) << c.stored;
    }
}

TEST(HardwareName, MissingValueEmptiesBuffer) {
    TestDevice t;
    t.dev().registry().setString("Information", "Internal", u"\\My Flash Disk");
    WCHAR name[MAX_PATH];
    fill(name, MAX_PATH, "junk");
    EXPECT_EQ(0, sys_getHardwareName(name));
    EXPECT_EQ("", U(name));
    EXPECT_TRUE(logged("getVLRegistryString(): RegQueryValueEx(HKLM\\Information|Velmar\\Hardware) failed, error 2"));
    EXPECT_EQ(2u, os_getLastError());
}

TEST(VLRegistryString, VelmarKeyServesWhenInformationIsMissing) {
    TestDevice t;
    t.dev().registry().setString("Velmar", "External1", u"\\SD Card");
    t.dev().registry().setString("Velmar", "Internal", u"\\Flash");
    g_vlLogSettings.level = LOG_DEBUG;
    WCHAR path[MAX_PATH];
    ASSERT_EQ(1, sys_getExternalPath1(path));
    EXPECT_EQ("\\SD Card", U(path));
    ASSERT_EQ(1, sys_getInternalPath(path));
    EXPECT_EQ("\\Flash", U(path));
    EXPECT_TRUE(logged("DEBUG, getVLRegistryString(): HKLM\\Information|Velmar\\External1 = \\SD Card"));
    EXPECT_FALSE(t.dev().registry().exists("Information"));   // the platform reader never creates it
}

TEST(VLRegistryString, InformationWithoutTheValueDoesNotFallBack) {
    TestDevice t;
    t.dev().registry().setString("Information", "Hardware", u"Velmar X7");
    t.dev().registry().setString("Velmar", "Internal", u"\\Flash");
    WCHAR path[MAX_PATH];
    EXPECT_EQ(0, sys_getInternalPath(path));
    EXPECT_TRUE(logged("ERROR, getVLRegistryString(): RegQueryValueEx(HKLM\\Information|Velmar\\Internal) failed, error 2"));
}

TEST(VLRegistryString, Failures) {
    struct Case {
        const char *what;
        std::function<void(sim::Registry &)> setup;
        std::string message;
        DWORD lastError;
    } cases[] = {
        {"no key", [](sim::Registry &) {},
         "ERROR, getVLRegistryString(): RegOpenKeyEx(HKLM\\Information|Velmar) failed, error 2", 2},
        {"number", [](sim::Registry &r) { r.setDword("Information", "Internal", 7); },
         "ERROR, getVLRegistryString(): RegQueryValueEx(HKLM\\Information|Velmar\\Internal) returned type = 4, size = 4", 0},
        {"size 0", [](sim::Registry &r) { r.setValue("Information", "Internal", REG_SZ, {}); },
         "ERROR, getVLRegistryString(): RegQueryValueEx(HKLM\\Information|Velmar\\Internal) returned type = 1, size = 0", 0},
        {"too long", [](sim::Registry &r) { r.setString("Information", "Internal", std::u16string(300, u'a')); },
         "ERROR, getVLRegistryString(): RegQueryValueEx(HKLM\\Information|Velmar\\Internal) failed, error 234", 234},
    };
    for (const Case &c : cases) {
        TestDevice t;
        c.setup(t.dev().registry());
        os_setLastError(0);
        SetLastError(0);
        WCHAR value[MAX_PATH];
        EXPECT_EQ(0, getVLRegistryString(TEXT("Internal"), value, MAX_PATH)) << c.what;
        EXPECT_TRUE(logged(c.message)) << c.what << "\n" << logText();
        EXPECT_EQ(c.lastError, os_getLastError()) << c.what;
    }
}

TEST(VLRegistryString, CopiesWithinCapacity) {
    TestDevice t;
    t.dev().registry().setString("Information", "Internal", u"\\My Flash Disk");
    WCHAR value[6];
    ASSERT_EQ(1, getVLRegistryString(TEXT("Internal"), value, 6));
    EXPECT_EQ("\\My F", U(value));
}

TEST(KnownRoots, ByModelTable) {
    const std::string flash = "\\My Flash Disk", card = "\\Storage Card";
    struct Case { DWORD model; std::string internal, external, install; } cases[] = {
        {1, flash, card, "\\My Flash Disk\\Velmar\\Waylume_CE"},
        {2, flash, card, "\\My Flash Disk\\Velmar\\Waylume_CE"},
        {3, "\\CF DISK", card, "\\CF DISK\\Velmar\\Waylume_CE"},
        {4, "", card, "\\Program Files\\Velmar\\Waylume_CE"},
        {10, "", card, "\\Program Files\\Velmar\\Waylume_CE"},
        {11, "\\CF DISK", card, "\\DiskOnChip\\Velmar\\Waylume_CE"},
        {15, "", card, "\\Storage Card\\Velmar\\System\\\\Waylume_CE"},   // the doubled separator stays
        {16, "", card, "\\Storage Card\\Image"},
        {17, flash, card, "\\My Flash Disk\\Program Files\\Velmar\\Waylume_CE"},
        {57, flash, card, "\\My Flash Disk\\Program Files\\Velmar\\Waylume_CE"},
        {59, flash, card, "\\My Flash Disk\\Program Files\\Velmar\\Waylume_CE"},
        {60, flash, card, "\\My Flash Disk\\Program Files\\Velmar\\Waylume_CE"},
        // the rest come from debug.ini; with none, the defaults, and the install folder untouched
        {0, flash, card, "untouched"},
        {12, flash, card, "untouched"},
        {14, flash, card, "untouched"},
        {58, flash, card, "untouched"},
        {61, flash, card, "untouched"},
        {0xFFFFFFFFu, flash, card, "untouched"},
    };
    TestDevice t;
    for (const Case &c : cases) {
        WCHAR internal[MAX_PATH], external[MAX_PATH], install[MAX_PATH];
        fill(internal, MAX_PATH, "untouched");
        fill(external, MAX_PATH, "untouched");
        fill(install, MAX_PATH, "untouched");
        EXPECT_EQ(1, sys_getKnownRoots(c.model, internal, MAX_PATH, external, MAX_PATH, install, MAX_PATH));
        EXPECT_EQ(c.internal, U(internal)) << c.model;
        EXPECT_EQ(c.external, U(external)) << c.model;
        EXPECT_EQ(c.install, U(install)) << c.model;
    }
}

TEST(KnownRoots, CapacitiesBoundEachOutput) {
    TestDevice t;
    WCHAR internal[8], external[8], install[8];
    fill(internal, 8, "keep");
    fill(external, 8, "keep");
    fill(install, 8, "keep");
    EXPECT_EQ(1, sys_getKnownRoots(17, internal, 0, external, 5, install, 1));
    EXPECT_EQ("keep", U(internal));   // capacity 0: not written
    EXPECT_EQ("\\Sto", U(external));  // capacity - 1 characters and the terminator
    EXPECT_EQ("", U(install));
    fill(internal, 8, "keep");
    EXPECT_EQ(1, sys_getKnownRoots(12, internal, 0, external, 8, NULL, 0));   // defaults are bounded too
    EXPECT_EQ("keep", U(internal));
    EXPECT_EQ("\\Storag", U(external));
}

TEST(KnownRoots, FromDebugIni) {
    struct Case { const char *ini; std::string internal, external; } cases[] = {
        {"[Device]\r\nInternalPath=\\Flash2\r\nExternalPath1=\\SD2\r\n", "\\Flash2", "\\SD2"},
        {"[Device]\r\nInternalPath=X\r\nExternalPath1=\\SD2\r\n", "untouched", "\\SD2"},   // one character: not used
        {"[Device]\r\nInternalPath=\\F\r\n", "\\F", "untouched"},
        {"[Other]\r\nInternalPath=\\Flash2\r\n", "untouched", "untouched"},
    };
    for (const Case &c : cases) {
        TestDevice t;
        t.put("\\debug.ini", c.ini);
        WCHAR internal[MAX_PATH], external[MAX_PATH], install[MAX_PATH];
        fill(internal, MAX_PATH, "untouched");
        fill(external, MAX_PATH, "untouched");
        fill(install, MAX_PATH, "untouched");
        EXPECT_EQ(1, sys_getKnownRoots(12, internal, MAX_PATH, external, MAX_PATH, install, MAX_PATH));
        EXPECT_EQ(c.internal, U(internal)) << c.ini;
        EXPECT_EQ(c.external, U(external)) << c.ini;
        EXPECT_EQ("untouched", U(install)) << c.ini;
    }
}

TEST(TarskRegistry, CreatesEmptyInformationAndFindsNothing) {
    TestDevice t;
    t.dev().registry().setString("Velmar", "Internal", u"\\Flash");   // the engine never looks here
    CTarskRegistry reg;
    WCHAR path[64];
    fill(path, 64, "junk");
    EXPECT_EQ(0, reg.GetInternalPath(path, 64));
    EXPECT_EQ("", U(path));
    EXPECT_EQ(2u, os_getLastError());
    fill(path, 64, "junk");
    EXPECT_EQ(0, reg.GetExternalPath(1, path, 64));
    EXPECT_EQ("", U(path));
    DWORD flash = 77;
    EXPECT_EQ(0, reg.ReadNumber(TEXT("FlashType"), &flash));
    EXPECT_EQ(77u, flash);
    EXPECT_TRUE(t.dev().registry().exists("Information"));
    EXPECT_TRUE(t.dev().registry().subkeyNames("Information").empty());
    EXPECT_EQ(0u, t.dev().objects().count());   // every key it opened is closed
}

TEST(TarskRegistry, ReadsValuesOfTheRightType) {
    TestDevice t;
    sim::Registry &r = t.dev().registry();
    r.setString("Information", "Internal", u"\\My Flash Disk");
    r.setString("Information", "External2", u"\\SD");
    r.setDword("Information", "FlashType", 3);
    r.setDword("Information", "External1", 5);        // wrong type for a path
    r.setString("Information", "Counter", u"3");       // wrong type for a number
    r.setString("Information", "Empty", u"");
    r.setValue("Information", "NoBytes", REG_DWORD, {});
    CTarskRegistry reg;
    WCHAR path[64];
    EXPECT_EQ(1, reg.GetInternalPath(path, 64));
    EXPECT_EQ("\\My Flash Disk", U(path));
    EXPECT_EQ(1, reg.GetExternalPath(2, path, 64));
    EXPECT_EQ("\\SD", U(path));
    EXPECT_EQ(0, reg.GetExternalPath(1, path, 64));
    EXPECT_EQ("", U(path));
    EXPECT_EQ(0, reg.ReadString(TEXT("Empty"), path, 64));
    DWORD n = 0;
    EXPECT_EQ(1, reg.ReadNumber(TEXT("FlashType"), &n));
    EXPECT_EQ(3u, n);
    n = 9;
    EXPECT_EQ(0, reg.ReadNumber(TEXT("Counter"), &n));
    EXPECT_EQ(0, reg.ReadNumber(TEXT("NoBytes"), &n));
    EXPECT_EQ(9u, n);
    // capacity * 2 bytes is all it reads: "\My Flash Disk" needs 15 characters with its terminator
    EXPECT_EQ(0, reg.ReadString(TEXT("Internal"), path, 14));
    EXPECT_EQ(234u, os_getLastError());
    EXPECT_EQ(1, reg.ReadString(TEXT("Internal"), path, 15));
    EXPECT_EQ("\\My Flash Disk", U(path));
    EXPECT_EQ(0u, t.dev().objects().count());
}
