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

// UTF-16LE bytes of a text (give the terminators in the text).
std::string le16(const std::u16string &s) {
    std::string out;
    for (char16_t c : s) out += {char(c & 0xFF), char(c >> 8)};
    return out;
}

HKEY openKey(const char *path, HKEY from = HKEY_LOCAL_MACHINE) {
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, RegOpenKeyExW(from, W(path).c_str(), 0, KEY_READ, &key)) << path;
    return key;
}

LONG query(HKEY key, const char *name, void *data, DWORD *size, DWORD *type = nullptr) {
    return RegQueryValueExW(key, W(name).c_str(), nullptr, type, static_cast<BYTE *>(data), size);
}

}  // namespace

TEST(SimRegistry, QueriesGiveTheProfileValuesWithTheirTypesAndSizes) {
    TestDevice t(kProfile);
    HKEY key = openKey("information");
    // capacity: the buffer in bytes (0: a size query without one); size: the size given back
    struct Case { const char *value; DWORD capacity; LONG result; DWORD type, size; std::string data; };
    const Case cases[] = {
        {"Hardware", 0, ERROR_SUCCESS, REG_SZ, 34, ""},   // the terminator is counted
        {"HARDWARE", 34, ERROR_SUCCESS, REG_SZ, 34, le16({u"Velmar X7, rev 2\0", 17})},   // names ignore case
        {"Hardware", 33, ERROR_MORE_DATA, REG_SZ, 34, ""},
        {"FlashType", 4, ERROR_SUCCESS, REG_DWORD, 4, std::string("\3\0\0\0", 4)},
        {"Blob", 8, ERROR_SUCCESS, REG_BINARY, 3, "\x01\x02\xff"},
        {"Names", 64, ERROR_SUCCESS, REG_MULTI_SZ, 12, le16({u"a\0bc\0\0", 6})},
        {"Empty", 0, ERROR_SUCCESS, REG_SZ, 2, ""},
    };
    BYTE buf[64];
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.value) + " into " + std::to_string(c.capacity));
        DWORD type = 99, size = c.capacity ? c.capacity : 12345;
        SetLastError(0);
        EXPECT_EQ(c.result, query(key, c.value, c.capacity ? buf : nullptr, &size, &type));
        EXPECT_EQ(c.type, type);
        EXPECT_EQ(c.size, size);
        EXPECT_EQ(DWORD(c.result), GetLastError());
        EXPECT_EQ(c.data, std::string(reinterpret_cast<char *>(buf), c.data.size()));
    }
    DWORD size = 64;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, query(key, "Missing", buf, &size));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, query(key, "Hardware", buf, nullptr));
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    EXPECT_EQ(ERROR_INVALID_HANDLE, query(key, "Hardware", buf, &size));

    // A quoted key path with "\" and a nested table both make subkeys.
    EXPECT_EQ(u"Drivers\\BuiltIn\\FlashDisk", t.dev().registry().stringValue("HKLM\\Drivers\\Active\\01", "key"));
    auto deep = t.dev().registry().value("Information\\Nested", "Deep");
    ASSERT_TRUE(deep.has_value());
    EXPECT_EQ(DWORD(REG_DWORD), deep->type);
}

TEST(SimRegistry, BadProfileValuesAreRefused) {
    for (const char *profile : {
             "[registry.'HKLM\\K']\nB = [1, 256]\n",
             "[registry.'HKLM\\K']\nB = [1, \"x\"]\n",
             "[registry.'HKLM\\K']\nN = 4294967296\n",
             "[registry.'HKLM\\K']\nF = 1.5\n",
             "[registry.'NOROOT\\K']\nA = 1\n",
         }) {
        // A device folder of its own: TestDevice would leave its folder behind when the device throws.
        sim::fs::path folder = sim::fs::temp_directory_path() / ("tarsk-simreg-" + std::to_string(::getpid()));
        sim::fs::create_directories(folder);
        std::ofstream(folder / "device.toml") << profile;
        EXPECT_THROW(sim::Device d(folder), std::runtime_error) << profile;
        sim::fs::remove_all(folder);
    }
}

TEST(SimRegistry, OpenCreateAndClose) {
    TestDevice t(kProfile);
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HKEY key = nullptr;
    struct Case { HKEY from; const char *path; LONG result; } opens[] = {
        {HKEY_LOCAL_MACHINE, "DRIVERS\\active\\01", ERROR_SUCCESS},
        {HKEY_LOCAL_MACHINE, "Velmar", ERROR_FILE_NOT_FOUND},
        {HKEY_LOCAL_MACHINE, "Drivers\\Active\\02", ERROR_FILE_NOT_FOUND},
        {HKEY_CURRENT_USER, "Information", ERROR_FILE_NOT_FOUND},   // each root is its own tree
        {(HKEY)(ULONG_PTR)0x1234, "Information", ERROR_INVALID_HANDLE},
        {(HKEY)event, "Information", ERROR_INVALID_HANDLE},
    };
    for (const Case &c : opens) {
        LONG r = RegOpenKeyExW(c.from, W(c.path).c_str(), 0, KEY_READ, &key);
        EXPECT_EQ(c.result, r) << c.path;
        if (r == ERROR_SUCCESS) { EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key)); }
    }
    EXPECT_FALSE(t.dev().registry().exists("Velmar"));

    DWORD disposition = 0;
    ASSERT_EQ(ERROR_SUCCESS,
              RegCreateKeyExW(HKEY_LOCAL_MACHINE, u"Velmar\\Sub", 0, nullptr, 0, 0, nullptr, &key, &disposition));
    EXPECT_EQ(DWORD(REG_CREATED_NEW_KEY), disposition);
    EXPECT_TRUE(t.dev().registry().exists("HKLM\\Velmar\\Sub"));
    // Opened again relative to an open handle.
    HKEY parent = openKey("velmar"), again;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(parent, u"SUB", 0, nullptr, 0, 0, nullptr, &again, &disposition));
    EXPECT_EQ(DWORD(REG_OPENED_EXISTING_KEY), disposition);
    EXPECT_EQ(std::vector<std::string>{"Sub"}, t.dev().registry().subkeyNames("Velmar"));

    // Closing: each key handle once; a handle that is not a key stays open; the roots need no closing.
    size_t open = t.dev().objects().count();
    for (HKEY k : {again, parent, key}) EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(k));
    EXPECT_EQ(open - 3, t.dev().objects().count());
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegCloseKey(key));
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegCloseKey((HKEY)event));
    EXPECT_TRUE(CloseHandle(event));
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(HKEY_LOCAL_MACHINE));
}

TEST(SimRegistry, SetValueReplacesValueAndTypeUnderAnyCase) {
    TestDevice t(kProfile);
    HKEY key = openKey("Information");
    DWORD n = 5, type = 0, out = 0, size = 4;
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, u"hardware", 0, REG_DWORD, (const BYTE *)&n, 4));
    ASSERT_EQ(ERROR_SUCCESS, query(key, "Hardware", &out, &size, &type));
    EXPECT_EQ(DWORD(REG_DWORD), type);
    EXPECT_EQ(5u, out);
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, u"Nothing", 0, REG_SZ, nullptr, 0));
    size = 100;
    ASSERT_EQ(ERROR_SUCCESS, query(key, "Nothing", nullptr, &size));
    EXPECT_EQ(0u, size);   // an empty value
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegSetValueExW(key, u"x", 0, REG_DWORD, (const BYTE *)&n, 4));
}

TEST(SimRegistry, EnumKeysInCreationOrder) {
    TestDevice t;
    for (const char *k : {"Drivers\\Active\\05", "HKLM\\Drivers\\Active\\01", "Drivers\\Active\\Longer"})
        t.dev().registry().setDword(k, "Hnd", 1);
    HKEY key = openKey("Drivers\\Active");
    struct Case { DWORD index, capacity; LONG result; const char *name; } cases[] = {
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
        if (c.result != ERROR_SUCCESS) continue;
        EXPECT_EQ(c.name, U(buf));
        EXPECT_EQ(std::strlen(c.name), cch);
    }
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
}

TEST(SimRegistry, RemovedKeyFailsThroughOpenHandle) {
    TestDevice t(kProfile);
    HKEY key = openKey("Drivers\\Active\\01");
    t.dev().registry().remove("Drivers\\ACTIVE\\01");
    DWORD size = 0;
    EXPECT_EQ(1018, query(key, "Key", nullptr, &size));   // ERROR_KEY_DELETED
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"Drivers\\Active\\01", 0, 0, &key));
    EXPECT_TRUE(t.dev().registry().exists("Drivers\\Active"));
    // Made again, it is a new key.
    t.dev().registry().setString("Drivers\\Active\\01", "Name", u"DSK1:");
    EXPECT_FALSE(t.dev().registry().value("Drivers\\Active\\01", "Key").has_value());
}

TEST(SimRegistry, InjectedFailure) {
    TestDevice t(std::string(kProfile) + "\n[fail]\nRegOpenKeyExW = 5\n");
    HKEY key;
    EXPECT_EQ(ERROR_ACCESS_DENIED, RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"Information", 0, KEY_READ, &key));
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
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"Drivers\\Active\\02", 0, KEY_READ, &key) == ERROR_SUCCESS) {
            WCHAR buf[16];
            DWORD size = sizeof buf;
            LONG r = query(key, "Name", buf, &size);
            EXPECT_TRUE(r == ERROR_SUCCESS || r == ERROR_FILE_NOT_FOUND || r == 1018) << r;
            EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
        }
    }
    driver.join();
    EXPECT_FALSE(reg.exists("Drivers\\Active\\02"));
    EXPECT_EQ(std::vector<std::string>{"01"}, reg.subkeyNames("Drivers\\Active"));
}
