// The simulated device manager: the flash-disk driver's activation and its Drivers\Active entry, the
// "\HDD" folder coming and going, the device name, disk information and sector writes.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
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

HANDLE activeHandle(TestDevice &td) { return reinterpret_cast<HANDLE>(uintptr_t(td.dev().devices().activeHandle())); }

std::string readImage(TestDevice &td) {
    std::ifstream in(td.dev().devices().imageFile(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// CreateFileW hands a device name to the driver.
HANDLE openDisk(const std::u16string &name = u"DSK1:") {
    return CreateFileW(name.c_str(), GENERIC_READ, 0, NULL, OPEN_EXISTING, 0, NULL);
}

BOOL getInfo(HANDLE h, DISK_INFO *info, DWORD size = sizeof(DISK_INFO), DWORD *got = NULL) {
    return DeviceIoControl(h, DISK_IOCTL_GETINFO, NULL, 0, info, size, got, NULL);
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
    sim::Registry &reg = td.dev().registry();
    ASSERT_EQ(activeKeys(td), std::vector<std::string>{"01"});
    EXPECT_EQ(reg.stringValue("Drivers\\Active\\01", "Key"), W("Drivers\\BuiltIn\\FDSK"));
    EXPECT_EQ(reg.stringValue("Drivers\\Active\\01", "Name"), W("DSK1:"));
    auto hnd = reg.value("Drivers\\Active\\01", "Hnd");
    ASSERT_TRUE(hnd && hnd->type == REG_DWORD && hnd->data.size() == 4);
    DWORD hndValue;
    std::memcpy(&hndValue, hnd->data.data(), 4);
    EXPECT_EQ(hndValue, td.dev().devices().activeHandle());
    EXPECT_NE(hndValue, 0u);
    EXPECT_TRUE(hdd(td));
    EXPECT_TRUE(td.events("activate_device").empty());   // the start is not a call
    EXPECT_TRUE(DeactivateDevice(reinterpret_cast<HANDLE>(uintptr_t(hndValue))));   // the value is the handle
}

TEST(SimDevices, ActivateAndDeactivateMoveTheEntryAndTheDisk) {
    TestDevice td(std::string("[registry.'HKLM\\Drivers\\Active\\01']\nKey = 'Drivers\\BuiltIn\\Serial'\n") + kUnloaded);
    ASSERT_EQ(activeKeys(td), std::vector<std::string>{"01"});

    HANDLE h = ActivateDevice(u"drivers\\builtin\\fdsk", 0);   // registry paths ignore case
    ASSERT_NE(h, (HANDLE)NULL);
    EXPECT_EQ(activeKeys(td), (std::vector<std::string>{"01", "02"}));   // the next free number
    EXPECT_EQ(td.dev().registry().stringValue("Drivers\\Active\\02", "Key"), W("Drivers\\BuiltIn\\FDSK"));
    auto a = td.events("activate_device");
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(a[0]["key"], "drivers\\builtin\\fdsk");
    EXPECT_EQ(a[0]["ok"], true);

    // What is on the disk survives its deactivation.
    std::ofstream(td.folder() / "fs" / "HDD" / "keep.txt") << "data";
    ASSERT_TRUE(DeactivateDevice(h));
    EXPECT_EQ(activeKeys(td), std::vector<std::string>{"01"});
    auto d = td.events("deactivate_device");
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0]["ok"], true);
    EXPECT_EQ(d[0]["handle"], sim::hexCode(DWORD(reinterpret_cast<uintptr_t>(h))));

    HANDLE again = ActivateDevice(kFdsk.c_str(), 0);
    ASSERT_NE(again, (HANDLE)NULL);
    EXPECT_NE(again, h);
    EXPECT_EQ(activeKeys(td), (std::vector<std::string>{"01", "02"}));
    EXPECT_EQ(td.get("\\HDD\\keep.txt"), "data");
}

TEST(SimDevices, ActivationAndDeactivationFailures) {
    struct Case { std::string profile; std::u16string key; bool deactivateFirst; DWORD error; };
    const Case cases[] = {
        {"", kFdsk, false, ERROR_FILE_NOT_FOUND},   // no flash disk without its table
        {kLoaded, u"Drivers\\BuiltIn\\Other", true, ERROR_FILE_NOT_FOUND},
        {kLoaded, u"Drivers\\BuiltIn\\FDSK\\", true, ERROR_FILE_NOT_FOUND},
        {kLoaded, kFdsk, false, 2404},   // already active
        {std::string(kUnloaded) + "[flash_disk.fail]\nactivate = 2\n", kFdsk, false, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.profile + " " + sim::utf8(c.key));
        TestDevice td(c.profile);
        if (c.deactivateFirst) { ASSERT_TRUE(DeactivateDevice(activeHandle(td))); }
        bool hadHdd = hdd(td);
        auto keysBefore = activeKeys(td);
        if (c.profile.empty()) { EXPECT_TRUE(keysBefore.empty() && !hadHdd); }
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
    HANDLE h = activeHandle(td);
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

TEST(SimDevices, HddFollowsTheDriverUnlessTheProfileSaysOtherwise) {
    // hddAfterDeactivate / hddAfterActivate: whether "\HDD" is there after each call
    struct Case { const char *option; bool hddAfterDeactivate, hddAfterActivate; };
    const Case cases[] = {
        {"", false, true},
        {"hdd_never_leaves = true\n", true, true},
        {"hdd_never_returns = true\n", false, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.option);
        TestDevice td(std::string(kLoaded) + c.option);
        EXPECT_TRUE(hdd(td));   // present from the start in every case
        ASSERT_TRUE(DeactivateDevice(activeHandle(td)));
        EXPECT_TRUE(activeKeys(td).empty());   // the driver is gone all the same
        EXPECT_EQ(hdd(td), c.hddAfterDeactivate);
        ASSERT_NE(ActivateDevice(kFdsk.c_str(), 0), (HANDLE)NULL);
        EXPECT_EQ(activeKeys(td).size(), 1u);
        EXPECT_EQ(hdd(td), c.hddAfterActivate);
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
    SetLastError(0);
    EXPECT_EQ(openDisk(u"DSK2:"), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_FILE_NOT_FOUND));
    HANDLE h = openDisk(u"dsk1:");   // names ignore case
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(DeactivateDevice(activeHandle(td)));
    SetLastError(0);
    EXPECT_EQ(openDisk(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_FILE_NOT_FOUND));
    // A handle of the old activation is dead, also once the driver is back.
    DISK_INFO info;
    SetLastError(0);
    EXPECT_FALSE(getInfo(h, &info));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
    ASSERT_NE(ActivateDevice(kFdsk.c_str(), 0), (HANDLE)NULL);
    EXPECT_FALSE(getInfo(h, &info));
    EXPECT_TRUE(CloseHandle(h));
}

TEST(SimDevices, GetInfo) {
    TestDevice td("[flash_disk]\nsectors = 4096\nbytes_per_sector = 2048\n");
    HANDLE h = openDisk();
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    DISK_INFO info;
    std::memset(&info, 0xCC, sizeof info);
    DWORD got = 0;
    ASSERT_TRUE(getInfo(h, &info, sizeof info, &got));
    EXPECT_EQ(got, 24u);
    EXPECT_EQ(info.di_total_sectors, 4096u);
    EXPECT_EQ(info.di_bytes_per_sect, 2048u);
    auto e = td.events("disk_ioctl");
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0]["device"], "DSK1:");
    EXPECT_EQ(e[0]["code"], "0x00071C00");
    EXPECT_EQ(e[0]["ok"], true);

    SetLastError(0);
    EXPECT_FALSE(getInfo(h, &info, 23));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));
    EXPECT_FALSE(DeviceIoControl(h, 0x12345, NULL, 0, &info, sizeof info, &got, NULL));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_NOT_SUPPORTED));
    EXPECT_FALSE(getInfo(reinterpret_cast<HANDLE>(uintptr_t(0x7777)), &info));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
    CloseHandle(h);
}

TEST(SimDevices, WriteGoesToTheSectorImage) {
    TestDevice td(kLoaded);
    HANDLE h = openDisk();
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(sim::fs::exists(td.dev().devices().imageFile()));   // made on first use

    Write zero(0, 512, 0x00), last(2047, 512, 0x5A);
    zero.req.sr_status = 99;
    ASSERT_TRUE(zero.send(h));
    EXPECT_EQ(zero.req.sr_status, 0u);
    ASSERT_TRUE(last.send(h));
    std::string image = readImage(td);
    ASSERT_EQ(image.size(), 2048u * 512u);   // the full disk, unwritten sectors 0xFF
    EXPECT_EQ(image.substr(0, 512), std::string(512, '\0'));
    EXPECT_EQ(image.substr(512, 2046 * 512), std::string(2046 * 512, '\xFF'));
    EXPECT_EQ(image.substr(2047 * 512), std::string(512, '\x5A'));

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
    EXPECT_FALSE(getInfo(h, &info));
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
    for (const char *p : {
             "[flash_disk]\nbytes_per_sector = 0\n",
             "[flash_disk]\nsectors = 0\n",
             "[flash_disk]\nsectors = 0x800000\nbytes_per_sector = 1024\n",   // 8 GB
             "[flash_disk]\nname = 'DSK1'\n",
             "[flash_disk]\nloaded = 1\n",
             "[flash_disk]\nhdd_delay_ms = -5\n",
             "[flash_disk.fail]\nformat = 31\n",
             "flash_disk = true\n",
         }) {
        SCOPED_TRACE(p);
        EXPECT_THROW(TestDevice td(p), std::runtime_error);
    }
}
