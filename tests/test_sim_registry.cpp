// The simulated registry against the CE registry API's documented behaviour.
#include "test_device.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

using namespace testing_support;

namespace {

const char *kProfile = R"(
[registry.'HKLM\Information']
Hardware = "Velmar X7, rev 2"
FlashType = 3
Blob = [1, 2, 255]
Names = ["a", "bc"]
Empty = ""
Replaced = "text"
[registry.'HKLM\Drivers\Active\01']
Key = "Drivers\\BuiltIn\\FlashDisk"
[registry.HKLM.Information.Nested]
Deep = 7
)";

HKEY openKey(const char *path, HKEY from = HKEY_LOCAL_MACHINE) {
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, RegOpenKeyExW(from, W(path).c_str(), 0, KEY_READ, &key)) << path;
    return key;
}

LONG query(HKEY key, const char *name, void *data, DWORD *size, DWORD *type = nullptr) {
    return RegQueryValueExW(key, W(name).c_str(), nullptr, type, static_cast<BYTE *>(data), size);
}

}  // namespace

TEST(SimRegistry, QueriesAndSetsGiveValuesWithTheirTypesAndSizes) {
    TestDevice t(kProfile);
    HKEY key = openKey("information");
    // Setting replaces the value and its type under any case of its name; no data is an empty value.
    const DWORD five = 5;
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, u"REPLACED", 0, REG_DWORD, (const BYTE *)&five, 4));
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, u"Nothing", 0, REG_SZ, nullptr, 0));
    // capacity: the buffer in bytes (0: a size query without one); size: the size given back
    struct Row { const char *value; DWORD capacity; LONG result; DWORD type, size; std::string data; };
    const Row rows[] = {
        {"Hardware", 0, ERROR_SUCCESS, REG_SZ, 34, ""},   // the terminator is counted
        {"HARDWARE", 34, ERROR_SUCCESS, REG_SZ, 34, utf16le({"Velmar X7, rev 2\0", 17})},   // names ignore case
        {"Hardware", 33, ERROR_MORE_DATA, REG_SZ, 34, ""},
        {"FlashType", 4, ERROR_SUCCESS, REG_DWORD, 4, std::string("\3\0\0\0", 4)},
        {"Blob", 8, ERROR_SUCCESS, REG_BINARY, 3, "\x01\x02\xff"},
        {"Names", 64, ERROR_SUCCESS, REG_MULTI_SZ, 12, utf16le({"a\0bc\0\0", 6})},
        {"Empty", 0, ERROR_SUCCESS, REG_SZ, 2, ""},
        {"replaced", 4, ERROR_SUCCESS, REG_DWORD, 4, std::string("\5\0\0\0", 4)},
        {"Nothing", 8, ERROR_SUCCESS, REG_SZ, 0, ""},
    };
    BYTE buf[64];
    for (const Row &r : rows) {
        SCOPED_TRACE(std::string(r.value) + " into " + std::to_string(r.capacity));
        DWORD type = 99, size = r.capacity ? r.capacity : 12345;
        SetLastError(0);
        EXPECT_EQ(r.result, query(key, r.value, r.capacity ? buf : nullptr, &size, &type));
        EXPECT_EQ(r.type, type);
        EXPECT_EQ(r.size, size);
        EXPECT_EQ(DWORD(r.result), GetLastError());
        EXPECT_EQ(r.data, std::string(reinterpret_cast<char *>(buf), r.data.size()));
    }
    DWORD size = 64;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, query(key, "Missing", buf, &size));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, query(key, "Hardware", buf, nullptr));
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    EXPECT_EQ(ERROR_INVALID_HANDLE, query(key, "Hardware", buf, &size));
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegSetValueExW(key, u"x", 0, REG_DWORD, (const BYTE *)&five, 4));

    // A quoted key path with "\" and a nested table both make subkeys.
    sim::Registry &reg = t.dev().registry();
    EXPECT_EQ(u"Drivers\\BuiltIn\\FlashDisk", reg.stringValue("HKLM\\Drivers\\Active\\01", "key"));
    EXPECT_EQ(DWORD(REG_DWORD), reg.value("Information\\Nested", "Deep").value_or(sim::Registry::Value()).type);
}

TEST(SimRegistry, KeysOpenCreateEnumerateInCreationOrderAndClose) {
    TestDevice t(kProfile);
    sim::Registry &reg = t.dev().registry();
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HKEY key = nullptr, lm = HKEY_LOCAL_MACHINE;
    struct Open { HKEY from; const char *path; LONG result; } opens[] = {
        {lm, "DRIVERS\\active\\01", ERROR_SUCCESS}, {lm, "Velmar", ERROR_FILE_NOT_FOUND},
        {lm, "Drivers\\Active\\02", ERROR_FILE_NOT_FOUND},
        {HKEY_CURRENT_USER, "Information", ERROR_FILE_NOT_FOUND},   // each root is its own tree
        {(HKEY)(ULONG_PTR)0x1234, "Information", ERROR_INVALID_HANDLE},
        {(HKEY)event, "Information", ERROR_INVALID_HANDLE},
    };
    for (const Open &o : opens) {
        LONG result = RegOpenKeyExW(o.from, W(o.path).c_str(), 0, KEY_READ, &key);
        EXPECT_EQ(o.result, result) << o.path;
        if (result == ERROR_SUCCESS) { EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key)); }
    }
    EXPECT_FALSE(reg.exists("Velmar"));

    DWORD disposition = 0;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(lm, u"Velmar\\Sub", 0, nullptr, 0, 0, nullptr, &key, &disposition));
    EXPECT_EQ(DWORD(REG_CREATED_NEW_KEY), disposition);
    HKEY parent = openKey("velmar"), again;   // opened again relative to an open handle
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(parent, u"SUB", 0, nullptr, 0, 0, nullptr, &again, &disposition));
    EXPECT_EQ(DWORD(REG_OPENED_EXISTING_KEY), disposition);
    EXPECT_EQ(std::vector<std::string>{"Sub"}, reg.subkeyNames("Velmar"));

    // Subkeys enumerate in creation order ("01" is the profile's), not in name order.
    for (const char *k : {"Drivers\\Active\\Longer", "HKLM\\Drivers\\Active\\05"}) reg.setDword(k, "Hnd", 1);
    HKEY active = openKey("Drivers\\Active");
    struct Enum { DWORD index, capacity; LONG result; const char *name; } enums[] = {
        {0, 3, ERROR_SUCCESS, "01"},      // two characters and the terminator fit exactly
        {1, 6, ERROR_MORE_DATA, ""},      // "Longer" needs 7 with its terminator
        {1, 7, ERROR_SUCCESS, "Longer"}, {2, 16, ERROR_SUCCESS, "05"}, {3, 16, ERROR_NO_MORE_ITEMS, ""},
    };
    for (const Enum &e : enums) {
        WCHAR buf[16] = {};
        DWORD cch = e.capacity;
        EXPECT_EQ(e.result, RegEnumKeyExW(active, e.index, buf, &cch, nullptr, nullptr, nullptr, nullptr)) << e.index;
        if (e.result == ERROR_SUCCESS) { EXPECT_EQ(e.name, U(buf)); EXPECT_EQ(std::strlen(e.name), cch); }
    }

    // Closing: each key handle once; a handle that is not a key stays open; the roots need no closing.
    size_t open = t.dev().objects().count();
    for (HKEY k : {active, again, parent, key}) EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(k));
    EXPECT_EQ(open - 4, t.dev().objects().count());
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegCloseKey(key));
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegCloseKey((HKEY)event));
    EXPECT_TRUE(CloseHandle(event));
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(lm));

    t.dev().setFailure("RegOpenKeyExW", ERROR_ACCESS_DENIED);
    EXPECT_EQ(ERROR_ACCESS_DENIED, RegOpenKeyExW(lm, u"Information", 0, KEY_READ, &key));
    EXPECT_EQ(DWORD(ERROR_ACCESS_DENIED), GetLastError());
}

TEST(SimRegistry, RemovedDriverKeysFailThroughOpenHandlesEvenWhileOthersRead) {
    TestDevice t(kProfile);
    sim::Registry &reg = t.dev().registry();
    HKEY key = openKey("Drivers\\Active\\01");
    std::weak_ptr<sim::Registry::Key> removed =
        reg.open(reg.root(HKEY_LOCAL_MACHINE), u"Drivers\\Active\\01", false)->shared_from_this();
    reg.remove("Drivers\\ACTIVE\\01");
    DWORD size = 0;
    EXPECT_EQ(1018, query(key, "Key", nullptr, &size));   // ERROR_KEY_DELETED
    EXPECT_FALSE(removed.expired()) << "the open handle holds it";
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    EXPECT_TRUE(removed.expired()) << "freed with its last handle: a driver restarted all day does not grow";
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"Drivers\\Active\\01", 0, 0, &key));
    reg.setString("Drivers\\Active\\01", "Name", u"DSK1:");   // made again, it is a new key
    EXPECT_FALSE(reg.value("Drivers\\Active\\01", "Key").has_value());

    std::atomic<bool> stop{false};
    std::thread driver([&] {
        for (int i = 0; i < 300; ++i) {
            reg.setString("Drivers\\Active\\02", "Name", u"DSK2:");
            reg.setDword("Drivers\\Active\\02", "Hnd", DWORD(i));
            reg.remove("Drivers\\Active\\02");
        }
        stop = true;
    });
    WCHAR buf[16];
    while (!stop) {
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"Drivers\\Active\\02", 0, KEY_READ, &key) != ERROR_SUCCESS) continue;
        size = sizeof buf;
        LONG r = query(key, "Name", buf, &size);
        EXPECT_TRUE(r == ERROR_SUCCESS || r == ERROR_FILE_NOT_FOUND || r == 1018) << r;
        EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    }
    driver.join();
    EXPECT_EQ(std::vector<std::string>{"01"}, reg.subkeyNames("Drivers\\Active"));
}
