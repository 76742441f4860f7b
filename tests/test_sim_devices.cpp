// The simulated device manager: the flash-disk driver's activation and its Drivers\Active entry, the
// "\HDD" folder coming and going, the device name, disk information and sector writes.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "devices.h"
#include "test_device.h"

using testing_support::TestDevice;
using testing_support::W;

namespace {

const char *kLoaded = "[flash_disk]\nloaded = true\nname = 'DSK1:'\nsectors = 2048\nbytes_per_sector = 512\n";
const char *kUnloaded = "[flash_disk]\nloaded = false\n";
const std::u16string kFdsk = u"Drivers\\BuiltIn\\FDSK";

bool hdd(TestDevice &td) { return sim::fs::is_directory(td.folder() / "fs" / "HDD"); }

std::vector<std::string> activeKeys(TestDevice &td) { return td.dev().registry().subkeyNames("HKLM\\Drivers\\Active"); }

std::string readImage(TestDevice &td) {
    std::ifstream in(td.dev().devices().imageFile(), std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

HANDLE openDisk(const std::u16string &name = u"DSK1:") {
    HANDLE h = INVALID_HANDLE_VALUE;
    if (!sim::openDeviceName(name, GENERIC_READ, &h)) return INVALID_HANDLE_VALUE;
    return h;
}

// One buffer of one sector at `sector`.
struct Write {
    SG_REQ req;
    std::vector<BYTE> data;
    Write(DWORD sector, DWORD bytes, BYTE fill) : data(bytes, fill) {
        std::memset(&req, 0, sizeof req);
        req.sr_start = sector;
        req.sr_num_sec = 1;
        req.sr_num_sg = 1;
        req.sr_sglist[0].sb_buf = data.data();
        req.sr_sglist[0].sb_len = bytes;
    }
    BOOL send(HANDLE h, DWORD size = sizeof(SG_REQ)) {
        return DeviceIoControl(h, DISK_IOCTL_WRITE, &req, size, NULL, 0, NULL, NULL);
    }
};

// Waits (in device time) until "\HDD" is as wanted; false when it never gets so.
bool waitHdd(TestDevice &td, bool present, DWORD deviceMs = 20000) {
    for (DWORD waited = 0; waited <= deviceMs; waited += 100) {
        if (hdd(td) == present && !td.dev().devices().hddChangePending()) return true;
        td.dev().clock().sleep(100);
    }
    return false;
}

}  // namespace

TEST(SimDevices, LoadedDriverHasItsActiveEntryAndDisk) {
    TestDevice td(kLoaded);
    ASSERT_EQ(activeKeys(td), std::vector<std::string>{"01"});
    EXPECT_EQ(td.dev().registry().stringValue("Drivers\\Active\\01", "Key"), W("Drivers\\BuiltIn\\FDSK"));
    EXPECT_TRUE(hdd(td));
    EXPECT_TRUE(td.events("activate_device").empty());   // the start is not a call

    // As the device program finds it: enumerate the Active keys, read Key, Name and Hnd.
    HKEY active = NULL;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"Drivers\\Active", 0, 0, &active), ERROR_SUCCESS);
    WCHAR sub[64];
    DWORD len = 64;
    ASSERT_EQ(RegEnumKeyExW(active, 0, sub, &len, NULL, NULL, NULL, NULL), ERROR_SUCCESS);
    HKEY key = NULL;
    ASSERT_EQ(RegOpenKeyExW(active, sub, 0, 0, &key), ERROR_SUCCESS);
    WCHAR name[130];
    DWORD size = sizeof name, type = 0;
    ASSERT_EQ(RegQueryValueExW(key, u"Name", NULL, &type, reinterpret_cast<BYTE *>(name), &size), ERROR_SUCCESS);
    EXPECT_EQ(type, DWORD(REG_SZ));
    EXPECT_EQ(std::u16string(name), W("DSK1:"));
    DWORD hndValue = 0;
    size = 4;
    ASSERT_EQ(RegQueryValueExW(key, u"Hnd", NULL, &type, reinterpret_cast<BYTE *>(&hndValue), &size), ERROR_SUCCESS);
    EXPECT_EQ(type, DWORD(REG_DWORD));
    EXPECT_EQ(hndValue, td.dev().devices().activeHandle());
    EXPECT_NE(hndValue, 0u);
    len = 64;
    EXPECT_EQ(RegEnumKeyExW(active, 1, sub, &len, NULL, NULL, NULL, NULL), ERROR_NO_MORE_ITEMS);
    RegCloseKey(key);
    RegCloseKey(active);

    // CreateFileW hands the name to the driver.
    HANDLE h = CreateFileW(name, GENERIC_READ, 0, NULL, OPEN_EXISTING, 0, NULL);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    DISK_INFO info;
    EXPECT_TRUE(DeviceIoControl(h, DISK_IOCTL_GETINFO, NULL, 0, &info, sizeof info, NULL, NULL));
    EXPECT_TRUE(CloseHandle(h));
    ASSERT_TRUE(DeactivateDevice(reinterpret_cast<HANDLE>(uintptr_t(hndValue))));
    SetLastError(0);
    EXPECT_EQ(CreateFileW(name, GENERIC_READ, 0, NULL, OPEN_EXISTING, 0, NULL), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_FILE_NOT_FOUND));
}

TEST(SimDevices, NoFlashDiskWithoutItsTable) {
    TestDevice td;
    EXPECT_TRUE(activeKeys(td).empty());
    EXPECT_FALSE(hdd(td));
    SetLastError(0);
    EXPECT_EQ(ActivateDevice(kFdsk.c_str(), 0), (HANDLE)NULL);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_FILE_NOT_FOUND));
}

TEST(SimDevices, ActivateAndDeactivateMoveTheEntryAndTheDisk) {
    TestDevice td(std::string("[registry.'HKLM\\Drivers\\Active\\01']\nKey = 'Drivers\\BuiltIn\\Serial'\n") + kUnloaded);
    EXPECT_FALSE(hdd(td));
    ASSERT_EQ(activeKeys(td), std::vector<std::string>{"01"});

    HANDLE h = ActivateDevice(u"drivers\\builtin\\fdsk", 0);   // registry paths ignore case
    ASSERT_NE(h, (HANDLE)NULL);
    EXPECT_EQ(activeKeys(td), (std::vector<std::string>{"01", "02"}));   // the next free number
    sim::Registry &reg = td.dev().registry();
    EXPECT_EQ(reg.stringValue("Drivers\\Active\\02", "Key"), W("Drivers\\BuiltIn\\FDSK"));
    EXPECT_TRUE(hdd(td));
    auto a = td.events("activate_device");
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(a[0]["key"], "drivers\\builtin\\fdsk");
    EXPECT_EQ(a[0]["ok"], true);

    // What is on the disk survives its deactivation.
    std::ofstream(td.folder() / "fs" / "HDD" / "keep.txt") << "data";
    ASSERT_TRUE(DeactivateDevice(h));
    EXPECT_EQ(activeKeys(td), std::vector<std::string>{"01"});
    EXPECT_FALSE(hdd(td));
    auto d = td.events("deactivate_device");
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0]["ok"], true);
    EXPECT_EQ(d[0]["handle"], sim::hexCode(DWORD(reinterpret_cast<uintptr_t>(h))));

    HANDLE again = ActivateDevice(kFdsk.c_str(), 0);
    ASSERT_NE(again, (HANDLE)NULL);
    EXPECT_NE(again, h);
    EXPECT_EQ(activeKeys(td), (std::vector<std::string>{"01", "02"}));
    EXPECT_TRUE(hdd(td));
    std::ifstream in(td.folder() / "fs" / "HDD" / "keep.txt");
    std::string text;
    in >> text;
    EXPECT_EQ(text, "data");
}

TEST(SimDevices, ActivationAndDeactivationFailures) {
    struct Case { std::string profile; std::u16string key; bool deactivateFirst; DWORD error; };
    const Case cases[] = {
        {kLoaded, u"Drivers\\BuiltIn\\Other", true, ERROR_FILE_NOT_FOUND},
        {kLoaded, u"Drivers\\BuiltIn\\FDSK\\", true, ERROR_FILE_NOT_FOUND},
        {kLoaded, kFdsk, false, 2404},   // already active
        {std::string(kUnloaded) + "[flash_disk.fail]\nactivate = 2\n", kFdsk, false, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.profile + " " + sim::utf8(c.key));
        TestDevice td(c.profile);
        if (c.deactivateFirst) {
            ASSERT_TRUE(DeactivateDevice(reinterpret_cast<HANDLE>(uintptr_t(td.dev().devices().activeHandle()))));
        }
        bool hadHdd = hdd(td);
        auto keysBefore = activeKeys(td);
        SetLastError(0);
        EXPECT_EQ(ActivateDevice(c.key.c_str(), 0), (HANDLE)NULL);
        EXPECT_EQ(GetLastError(), c.error);
        EXPECT_EQ(activeKeys(td), keysBefore);
        EXPECT_EQ(hdd(td), hadHdd);
        auto a = td.events("activate_device");
        ASSERT_FALSE(a.empty());
        EXPECT_EQ(a.back()["ok"], false);
        EXPECT_EQ(a.back()["error"], c.error);
    }

    TestDevice td(std::string(kLoaded) + "[flash_disk.fail]\ndeactivate = 31\n");
    HANDLE h = reinterpret_cast<HANDLE>(uintptr_t(td.dev().devices().activeHandle()));
    SetLastError(0);
    EXPECT_FALSE(DeactivateDevice(reinterpret_cast<HANDLE>(uintptr_t(0x1234))));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(DeactivateDevice(h));
    EXPECT_EQ(GetLastError(), 31u);
    EXPECT_EQ(activeKeys(td).size(), 1u);
    EXPECT_TRUE(hdd(td));
    td.dev().devices().setFailure("deactivate", std::nullopt);
    EXPECT_TRUE(DeactivateDevice(h));
    EXPECT_FALSE(DeactivateDevice(h));   // only once
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
}

TEST(SimDevices, HddThatNeverLeavesOrNeverReturns) {
    {
        TestDevice td(std::string(kLoaded) + "hdd_never_leaves = true\n");
        ASSERT_TRUE(DeactivateDevice(reinterpret_cast<HANDLE>(uintptr_t(td.dev().devices().activeHandle()))));
        EXPECT_TRUE(activeKeys(td).empty());   // the driver is gone all the same
        EXPECT_TRUE(hdd(td));
        ASSERT_NE(ActivateDevice(kFdsk.c_str(), 0), (HANDLE)NULL);
        EXPECT_TRUE(hdd(td));
    }
    {
        TestDevice td(std::string(kLoaded) + "hdd_never_returns = true\n");
        EXPECT_TRUE(hdd(td));   // present from the start
        ASSERT_TRUE(DeactivateDevice(reinterpret_cast<HANDLE>(uintptr_t(td.dev().devices().activeHandle()))));
        EXPECT_FALSE(hdd(td));
        ASSERT_NE(ActivateDevice(kFdsk.c_str(), 0), (HANDLE)NULL);
        EXPECT_EQ(activeKeys(td).size(), 1u);
        EXPECT_FALSE(hdd(td));
    }
}

TEST(SimDevices, HddChangesAfterTheDelay) {
    TestDevice td(std::string(kUnloaded) + "hdd_delay_ms = 3000\n");
    HANDLE h = ActivateDevice(kFdsk.c_str(), 0);
    ASSERT_NE(h, (HANDLE)NULL);
    EXPECT_FALSE(hdd(td));   // 3000 device ms are 30 ms here: not yet
    EXPECT_TRUE(td.dev().devices().hddChangePending());
    EXPECT_EQ(activeKeys(td).size(), 1u);   // the driver itself is there at once
    EXPECT_TRUE(waitHdd(td, true));

    ASSERT_TRUE(DeactivateDevice(h));
    EXPECT_TRUE(hdd(td));
    EXPECT_TRUE(waitHdd(td, false));
}

TEST(SimDevices, DeviceGoesWithAChangePending) {
    sim::fs::path folder;
    {
        TestDevice td(std::string(kUnloaded) + "hdd_delay_ms = 600000\n", /*keep=*/true);
        folder = td.folder();
        ASSERT_NE(ActivateDevice(kFdsk.c_str(), 0), (HANDLE)NULL);
        EXPECT_TRUE(td.dev().devices().hddChangePending());
    }   // the timer is stopped and joined, not left to fire on a dead device
    EXPECT_FALSE(sim::fs::exists(folder / "fs" / "HDD"));
    std::error_code ec;
    sim::fs::remove_all(folder, ec);
}

TEST(SimDevices, DeviceNameOpensOnlyWhileActive) {
    TestDevice td(kLoaded);
    HANDLE h = openDisk(u"dsk1:");   // names ignore case
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CloseHandle(h));
    EXPECT_EQ(openDisk(u"DSK2:"), INVALID_HANDLE_VALUE);

    h = openDisk();
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(DeactivateDevice(reinterpret_cast<HANDLE>(uintptr_t(td.dev().devices().activeHandle()))));
    EXPECT_EQ(openDisk(), INVALID_HANDLE_VALUE);
    // A handle of the old activation is dead.
    DISK_INFO info;
    SetLastError(0);
    EXPECT_FALSE(DeviceIoControl(h, DISK_IOCTL_GETINFO, NULL, 0, &info, sizeof info, NULL, NULL));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
    ASSERT_NE(ActivateDevice(kFdsk.c_str(), 0), (HANDLE)NULL);
    EXPECT_FALSE(DeviceIoControl(h, DISK_IOCTL_GETINFO, NULL, 0, &info, sizeof info, NULL, NULL));
    CloseHandle(h);
}

TEST(SimDevices, GetInfo) {
    TestDevice td("[flash_disk]\nsectors = 4096\nbytes_per_sector = 2048\n");
    HANDLE h = openDisk();
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    DISK_INFO info;
    std::memset(&info, 0xCC, sizeof info);
    DWORD got = 0;
    ASSERT_TRUE(DeviceIoControl(h, DISK_IOCTL_GETINFO, NULL, 0, &info, sizeof info, &got, NULL));
    EXPECT_EQ(got, 24u);
    EXPECT_EQ(info.di_total_sectors, 4096u);
    EXPECT_EQ(info.di_bytes_per_sect, 2048u);
    auto e = td.events("disk_ioctl");
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0]["device"], "DSK1:");
    EXPECT_EQ(e[0]["code"], "0x00071C00");
    EXPECT_EQ(e[0]["ok"], true);

    SetLastError(0);
    EXPECT_FALSE(DeviceIoControl(h, DISK_IOCTL_GETINFO, NULL, 0, &info, 23, &got, NULL));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));
    EXPECT_FALSE(DeviceIoControl(h, 0x12345, NULL, 0, &info, sizeof info, &got, NULL));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_NOT_SUPPORTED));
    EXPECT_FALSE(DeviceIoControl(reinterpret_cast<HANDLE>(uintptr_t(0x7777)), DISK_IOCTL_GETINFO, NULL, 0, &info,
                                 sizeof info, &got, NULL));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
    CloseHandle(h);
}

TEST(SimDevices, WriteGoesToTheSectorImage) {
    TestDevice td(kLoaded);
    HANDLE h = openDisk();
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(sim::fs::exists(td.dev().devices().imageFile()));   // made on first use

    Write zero(0, 512, 0x00);
    zero.req.sr_status = 99;
    ASSERT_TRUE(zero.send(h));
    EXPECT_EQ(zero.req.sr_status, 0u);
    std::string image = readImage(td);
    ASSERT_EQ(image.size(), 2048u * 512u);
    EXPECT_EQ(image.substr(0, 512), std::string(512, '\0'));
    EXPECT_EQ(image.substr(512), std::string(image.size() - 512, '\xFF'));

    Write last(2047, 512, 0x5A);
    ASSERT_TRUE(last.send(h));
    image = readImage(td);
    EXPECT_EQ(image.substr(2047 * 512), std::string(512, '\x5A'));
    EXPECT_EQ(image.substr(0, 512), std::string(512, '\0'));   // the earlier write stays

    auto e = td.events("disk_ioctl");
    ASSERT_EQ(e.size(), 2u);
    EXPECT_EQ(e[0]["code"], "0x00000003");
    EXPECT_EQ(e[0]["device"], "DSK1:");
    EXPECT_EQ(e[0]["ok"], true);
    CloseHandle(h);
}

TEST(SimDevices, BadWritesChangeNothing) {
    TestDevice td(kLoaded);
    HANDLE h = openDisk();
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    struct Case { const char *what; DWORD sector, sectors, bufferBytes, inSize, numSg; bool nullBuffer; };
    const Case cases[] = {
        {"past the end", 2048, 1, 512, sizeof(SG_REQ), 1, false},
        {"runs past the end", 2047, 2, 1024, sizeof(SG_REQ), 1, false},
        {"the device's own size", 0, 1, 512, 28, 1, false},
        {"no sectors", 0, 0, 512, sizeof(SG_REQ), 1, false},
        {"buffer too short", 0, 1, 511, sizeof(SG_REQ), 1, false},
        {"no buffers", 0, 1, 512, sizeof(SG_REQ), 0, false},
        {"more buffers than given", 0, 1, 512, sizeof(SG_REQ), 2, false},
        {"null buffer", 0, 1, 512, sizeof(SG_REQ), 1, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Write w(c.sector, c.bufferBytes, 0x11);
        w.req.sr_num_sec = c.sectors;
        w.req.sr_num_sg = c.numSg;
        if (c.nullBuffer) w.req.sr_sglist[0].sb_buf = NULL;
        SetLastError(0);
        EXPECT_FALSE(w.send(h, c.inSize));
        EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));
    }
    EXPECT_FALSE(DeviceIoControl(h, DISK_IOCTL_WRITE, NULL, sizeof(SG_REQ), NULL, 0, NULL, NULL));
    EXPECT_FALSE(sim::fs::exists(td.dev().devices().imageFile()));
    CloseHandle(h);
}

TEST(SimDevices, FailuresFromTheProfile) {
    TestDevice td(std::string(kLoaded) + "[flash_disk.fail]\ngetinfo = 31\nwrite = 5\n");
    HANDLE h = openDisk();
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    DISK_INFO info;
    EXPECT_FALSE(DeviceIoControl(h, DISK_IOCTL_GETINFO, NULL, 0, &info, sizeof info, NULL, NULL));
    EXPECT_EQ(GetLastError(), 31u);
    Write w(0, 512, 0);
    EXPECT_FALSE(w.send(h));
    EXPECT_EQ(GetLastError(), 5u);
    EXPECT_EQ(w.req.sr_status, 5u);
    EXPECT_FALSE(sim::fs::exists(td.dev().devices().imageFile()));
    auto e = td.events("disk_ioctl");
    ASSERT_EQ(e.size(), 2u);
    EXPECT_EQ(e[0]["ok"], false);
    EXPECT_EQ(e[0]["error"], 31);
    EXPECT_EQ(e[1]["error"], 5);
    CloseHandle(h);
}

TEST(SimDevices, BadFlashDiskProfileIsReported) {
    const char *profiles[] = {
        "[flash_disk]\nbytes_per_sector = 0\n",
        "[flash_disk]\nsectors = 0\n",
        "[flash_disk]\nsectors = 0x800000\nbytes_per_sector = 1024\n",   // 8 GB
        "[flash_disk]\nname = 'DSK1'\n",
        "[flash_disk]\nloaded = 1\n",
        "[flash_disk]\nhdd_delay_ms = -5\n",
        "[flash_disk.fail]\nformat = 31\n",
        "flash_disk = true\n",
    };
    for (const char *p : profiles) {
        SCOPED_TRACE(p);
        EXPECT_THROW(TestDevice td(p), std::runtime_error);
    }
}
