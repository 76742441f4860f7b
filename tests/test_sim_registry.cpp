// The simulated registry against the CE registry API's documented behaviour.
#include "test_device.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <thread>

using testing_support::TestDevice;
using testing_support::U;
using testing_support::W;

namespace {

const char *kProfile = R"(
[registry.'HKLM\Information']
Hardware = "Velmar X7, rev 2"
FlashType = 3
Blob = [1, 2, 255]
Names = ["a", "bc"]
Empty = ""

[registry.'HKLM\Drivers\Active\01']
Key = "Drivers\\BuiltIn\\FlashDisk"

[registry.HKLM.Information.Nested]
Deep = 7
)";

std::u16string name(const char *s) { return W(s); }

}  // namespace

TEST(SimRegistry, ProfileValuesHaveTheirTypesAndSizes) {
    TestDevice t(kProfile);
    HKEY key;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, name("information").c_str(), 0, KEY_READ, &key));
    struct Case { const char *value; DWORD type; DWORD size; } cases[] = {
        {"Hardware", REG_SZ, (16 + 1) * 2},        // the terminator is counted
        {"HARDWARE", REG_SZ, (16 + 1) * 2},        // value names ignore case
        {"FlashType", REG_DWORD, 4},
        {"Blob", REG_BINARY, 3},
        {"Names", REG_MULTI_SZ, (2 + 3 + 1) * 2},
        {"Empty", REG_SZ, 2},
    };
    for (const Case &c : cases) {
        DWORD type = 99, size = 12345;
        EXPECT_EQ(ERROR_SUCCESS, RegQueryValueExW(key, name(c.value).c_str(), nullptr, &type, nullptr, &size)) << c.value;
        EXPECT_EQ(c.type, type) << c.value;
        EXPECT_EQ(c.size, size) << c.value;
    }
    BYTE blob[8] = {};
    DWORD size = sizeof blob;
    ASSERT_EQ(ERROR_SUCCESS, RegQueryValueExW(key, name("blob").c_str(), nullptr, nullptr, blob, &size));
    EXPECT_EQ(0, std::memcmp(blob, "\x01\x02\xff", 3));
    DWORD flash = 0;
    size = sizeof flash;
    ASSERT_EQ(ERROR_SUCCESS, RegQueryValueExW(key, name("FlashType").c_str(), nullptr, nullptr, (BYTE *)&flash, &size));
    EXPECT_EQ(3u, flash);
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));

    // a quoted key path with "\" and a nested table both make subkeys
    EXPECT_EQ(u"Drivers\\BuiltIn\\FlashDisk", t.dev().registry().stringValue("HKLM\\Drivers\\Active\\01", "key"));
    auto deep = t.dev().registry().value("Information\\Nested", "Deep");
    ASSERT_TRUE(deep.has_value());
    EXPECT_EQ(DWORD(REG_DWORD), deep->type);
}

TEST(SimRegistry, BadProfileValuesAreRefused) {
    const char *bad[] = {
        "[registry.'HKLM\\K']\nB = [1, 256]\n",
        "[registry.'HKLM\\K']\nB = [1, \"x\"]\n",
        "[registry.'HKLM\\K']\nN = 4294967296\n",
        "[registry.'HKLM\\K']\nF = 1.5\n",
        "[registry.'NOROOT\\K']\nA = 1\n",
    };
    for (const char *profile : bad) {
        sim::fs::path folder = sim::fs::temp_directory_path() / ("tarsk-simreg-" + std::to_string(::getpid()));
        sim::fs::create_directories(folder);
        std::ofstream(folder / "device.toml") << profile;
        EXPECT_THROW(sim::Device d(folder), std::runtime_error) << profile;
        sim::fs::remove_all(folder);
    }
}

TEST(SimRegistry, OpenAndCreate) {
    TestDevice t(kProfile);
    HKEY key = nullptr;
    struct Case { HKEY from; const char *path; LONG result; } opens[] = {
        {HKEY_LOCAL_MACHINE, "DRIVERS\\active\\01", ERROR_SUCCESS},
        {HKEY_LOCAL_MACHINE, "Velmar", ERROR_FILE_NOT_FOUND},
        {HKEY_LOCAL_MACHINE, "Drivers\\Active\\02", ERROR_FILE_NOT_FOUND},
        {HKEY_CURRENT_USER, "Information", ERROR_FILE_NOT_FOUND},   // each root is its own tree
        {(HKEY)(ULONG_PTR)0x1234, "Information", ERROR_INVALID_HANDLE},
    };
    for (const Case &c : opens) {
        LONG r = RegOpenKeyExW(c.from, name(c.path).c_str(), 0, KEY_READ, &key);
        EXPECT_EQ(c.result, r) << c.path;
        if (r == ERROR_SUCCESS) {
            EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
        }
    }
    EXPECT_FALSE(t.dev().registry().exists("Velmar"));

    DWORD disposition = 0;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_LOCAL_MACHINE, name("Velmar\\Sub").c_str(), 0, nullptr, 0, 0,
                                             nullptr, &key, &disposition));
    EXPECT_EQ(DWORD(REG_CREATED_NEW_KEY), disposition);
    EXPECT_TRUE(t.dev().registry().exists("HKLM\\Velmar\\Sub"));
    // a key opened relative to an open handle
    HKEY parent;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, name("velmar").c_str(), 0, KEY_READ, &parent));
    HKEY again;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(parent, name("SUB").c_str(), 0, nullptr, 0, 0, nullptr, &again, &disposition));
    EXPECT_EQ(DWORD(REG_OPENED_EXISTING_KEY), disposition);
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(again));
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(parent));
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    EXPECT_EQ(std::vector<std::string>{"Sub"}, t.dev().registry().subkeyNames("Velmar"));
}

TEST(SimRegistry, QueryBuffers) {
    TestDevice t(kProfile);
    HKEY key;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, name("Information").c_str(), 0, KEY_READ, &key));
    WCHAR text[64];
    DWORD type = 0;
    DWORD size = 33;   // one byte short of the 34 the text needs
    std::memset(text, 0, sizeof text);
    EXPECT_EQ(ERROR_MORE_DATA, RegQueryValueExW(key, name("Hardware").c_str(), nullptr, &type, (BYTE *)text, &size));
    EXPECT_EQ(34u, size);
    EXPECT_EQ(DWORD(REG_SZ), type);
    EXPECT_EQ(DWORD(ERROR_MORE_DATA), GetLastError());
    size = 34;
    EXPECT_EQ(ERROR_SUCCESS, RegQueryValueExW(key, name("Hardware").c_str(), nullptr, &type, (BYTE *)text, &size));
    EXPECT_EQ("Velmar X7, rev 2", U(text));
    EXPECT_EQ(34u, size);

    size = sizeof text;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegQueryValueExW(key, name("Missing").c_str(), nullptr, &type, (BYTE *)text, &size));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, RegQueryValueExW(key, name("Hardware").c_str(), nullptr, &type, (BYTE *)text, nullptr));
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    size = sizeof text;
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegQueryValueExW(key, name("Hardware").c_str(), nullptr, &type, (BYTE *)text, &size));
}

TEST(SimRegistry, SetValueRoundTripsAndReplacesType) {
    TestDevice t;
    HKEY key;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_LOCAL_MACHINE, name("Information").c_str(), 0, nullptr, 0, 0,
                                             nullptr, &key, nullptr));
    std::u16string internal = u"\\My Flash Disk";
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, name("Internal").c_str(), 0, REG_SZ, (const BYTE *)internal.c_str(),
                                            DWORD((internal.size() + 1) * 2)));
    EXPECT_EQ(internal, t.dev().registry().stringValue("Information", "INTERNAL"));
    DWORD n = 5;
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, name("internal").c_str(), 0, REG_DWORD, (const BYTE *)&n, 4));
    DWORD type = 0, out = 0, size = 4;
    ASSERT_EQ(ERROR_SUCCESS, RegQueryValueExW(key, name("Internal").c_str(), nullptr, &type, (BYTE *)&out, &size));
    EXPECT_EQ(DWORD(REG_DWORD), type);
    EXPECT_EQ(5u, out);
    // an empty value has size 0
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, name("Nothing").c_str(), 0, REG_SZ, nullptr, 0));
    size = 100;
    ASSERT_EQ(ERROR_SUCCESS, RegQueryValueExW(key, name("Nothing").c_str(), nullptr, &type, nullptr, &size));
    EXPECT_EQ(0u, size);
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegSetValueExW(key, name("x").c_str(), 0, REG_DWORD, (const BYTE *)&n, 4));
}

TEST(SimRegistry, EnumKeysInCreationOrder) {
    TestDevice t;
    sim::Registry &reg = t.dev().registry();
    reg.setDword("Drivers\\Active\\05", "Hnd", 1);
    reg.setDword("HKLM\\Drivers\\Active\\01", "Hnd", 2);
    reg.setDword("Drivers\\Active\\Longer", "Hnd", 3);
    HKEY key;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, name("Drivers\\Active").c_str(), 0, KEY_READ, &key));
    struct Case { DWORD index; DWORD capacity; LONG result; const char *name; } cases[] = {
        {0, 16, ERROR_SUCCESS, "05"},
        {1, 3, ERROR_SUCCESS, "01"},       // two characters and the terminator fit exactly
        {2, 6, ERROR_MORE_DATA, ""},       // "Longer" needs 7 with its terminator
        {2, 7, ERROR_SUCCESS, "Longer"},
        {3, 16, ERROR_NO_MORE_ITEMS, ""},
    };
    for (const Case &c : cases) {
        WCHAR buf[16] = {};
        DWORD cch = c.capacity;
        EXPECT_EQ(c.result, RegEnumKeyExW(key, c.index, buf, &cch, nullptr, nullptr, nullptr, nullptr)) << c.index;
        if (c.result == ERROR_SUCCESS) {
            EXPECT_EQ(c.name, U(buf));
            EXPECT_EQ(std::strlen(c.name), cch);
        }
    }
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
}

TEST(SimRegistry, RemovedKeyFailsThroughOpenHandle) {
    TestDevice t(kProfile);
    HKEY key;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, name("Drivers\\Active\\01").c_str(), 0, KEY_READ, &key));
    t.dev().registry().remove("Drivers\\ACTIVE\\01");
    DWORD size = 0;
    EXPECT_EQ(1018, RegQueryValueExW(key, name("Key").c_str(), nullptr, nullptr, nullptr, &size));
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegOpenKeyExW(HKEY_LOCAL_MACHINE, name("Drivers\\Active\\01").c_str(), 0, 0, &key));
    EXPECT_TRUE(t.dev().registry().exists("Drivers\\Active"));
    // made again, it is a new key
    t.dev().registry().setString("Drivers\\Active\\01", "Name", u"DSK1:");
    EXPECT_FALSE(t.dev().registry().value("Drivers\\Active\\01", "Key").has_value());
}

TEST(SimRegistry, CloseKeyRefusesWhatIsNotAnOpenKey) {
    TestDevice t(kProfile);
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ASSERT_NE(nullptr, event);
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegCloseKey((HKEY)event));   // not a key: stays open
    EXPECT_TRUE(CloseHandle(event));
    HKEY key;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, name("Information").c_str(), 0, KEY_READ, &key));
    size_t open = t.dev().objects().count();
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    EXPECT_EQ(open - 1, t.dev().objects().count());
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegCloseKey(key));
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(HKEY_LOCAL_MACHINE));
}

TEST(SimRegistry, InjectedFailure) {
    TestDevice t(std::string(kProfile) + "\n[fail]\nRegOpenKeyExW = 5\n");
    HKEY key;
    EXPECT_EQ(ERROR_ACCESS_DENIED, RegOpenKeyExW(HKEY_LOCAL_MACHINE, name("Information").c_str(), 0, KEY_READ, &key));
    EXPECT_EQ(DWORD(ERROR_ACCESS_DENIED), GetLastError());
}

TEST(SimRegistry, DriverKeysComeAndGoWhileOthersRead) {
    TestDevice t(kProfile);
    sim::Registry &reg = t.dev().registry();
    std::atomic<bool> stop{false};
    std::thread driver([&] {
        for (int i = 0; i < 300; ++i) {
            reg.setString("Drivers\\Active\\02", "Name", u"DSK2:");
            reg.setDword("Drivers\\Active\\02", "Hnd", DWORD(i));
            reg.remove("Drivers\\Active\\02");
        }
        stop = true;
    });
    while (!stop) {
        HKEY key;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, name("Drivers\\Active\\02").c_str(), 0, KEY_READ, &key) == ERROR_SUCCESS) {
            WCHAR buf[16];
            DWORD size = sizeof buf;
            LONG r = RegQueryValueExW(key, name("Name").c_str(), nullptr, nullptr, (BYTE *)buf, &size);
            EXPECT_TRUE(r == ERROR_SUCCESS || r == ERROR_FILE_NOT_FOUND || r == 1018) << r;
            EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
        }
    }
    driver.join();
    EXPECT_FALSE(reg.exists("Drivers\\Active\\02"));
    EXPECT_EQ(std::vector<std::string>{"01"}, reg.subkeyNames("Drivers\\Active"));
}
