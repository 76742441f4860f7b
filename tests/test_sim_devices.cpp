// The simulated device manager: the flash-disk driver's activation and its Drivers\Active entry, the
// "\HDD" folder coming and going, the device name, disk information and sector writes.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>

#include "devices.h"
#include "test_device.h"

using namespace testing_support;

namespace {

const char *kLoaded = "[flash_disk]\nloaded = true\nname = 'DSK1:'\nsectors = 2048\nbytes_per_sector = 512\n";
const char *kUnloaded = "[flash_disk]\nloaded = false\n";
const std::u16string kFdsk = u"Drivers\\BuiltIn\\FDSK";
typedef std::vector<std::string> Keys;

bool hdd(TestDevice &td) { return sim::fs::is_directory(td.folder() / "fs" / "HDD"); }
bool hddAfter(TestDevice &td, DWORD deviceMs) { Sleep(deviceMs); return hdd(td); }
Keys activeKeys(TestDevice &td) { return td.dev().registry().subkeyNames("HKLM\\Drivers\\Active"); }
HANDLE activeHandle(TestDevice &td) { return reinterpret_cast<HANDLE>(uintptr_t(td.dev().devices().activeHandle())); }
bool imageMade(TestDevice &td) { return sim::fs::exists(td.dev().devices().imageFile()); }
HANDLE activate() { return ActivateDevice(kFdsk.c_str(), 0); }
HANDLE openDisk(LPCWSTR name = u"DSK1:") { return CreateFileW(name, GENERIC_READ, 0, NULL, OPEN_EXISTING, 0, NULL); }
BOOL getInfo(HANDLE h, DISK_INFO *info, DWORD size = sizeof(DISK_INFO), DWORD *got = NULL) {
    return DeviceIoControl(h, DISK_IOCTL_GETINFO, NULL, 0, info, size, got, NULL);
}

// One buffer of one sector at `sector`.
struct Write {
    std::vector<BYTE> data;
    SG_REQ req;
    Write(DWORD sector, DWORD bytes, BYTE fill) : data(bytes, fill), req{sector, 1, 1, 0, NULL, {{data.data(), bytes}}} {}
    BOOL send(HANDLE h, DWORD size = sizeof(SG_REQ)) {
        return DeviceIoControl(h, DISK_IOCTL_WRITE, &req, size, NULL, 0, NULL, NULL);
    }
};

}  // namespace

TEST(SimDevices, EntryDiskAndDeviceNameFollowTheDriver) {
    TestDevice td(std::string("[registry.'HKLM\\Drivers\\Active\\01']\nKey = 'Drivers\\BuiltIn\\Serial'\n") + kLoaded);
    sim::Registry &reg = td.dev().registry();
    ASSERT_EQ(activeKeys(td), (Keys{"01", "02"}));   // the loaded driver's entry: the next free number
    EXPECT_EQ(reg.stringValue("Drivers\\Active\\02", "Key"), W("Drivers\\BuiltIn\\FDSK"));
    EXPECT_EQ(reg.stringValue("Drivers\\Active\\02", "Name"), W("DSK1:"));
    auto hnd = reg.value("Drivers\\Active\\02", "Hnd");
    ASSERT_TRUE(hnd && hnd->type == REG_DWORD && hnd->data.size() == 4);
    DWORD hndValue;
    std::memcpy(&hndValue, hnd->data.data(), 4);
    EXPECT_TRUE(hndValue != 0 && hndValue == td.dev().devices().activeHandle()) << hndValue;
    EXPECT_TRUE(td.events("activate_device").empty());   // the start is not a call
    EXPECT_FAILS(openDisk(u"DSK2:") != INVALID_HANDLE_VALUE, ERROR_FILE_NOT_FOUND);
    HANDLE disk = openDisk(u"dsk1:");   // names ignore case
    ASSERT_NE(disk, INVALID_HANDLE_VALUE);

    std::ofstream(td.folder() / "fs" / "HDD" / "keep.txt") << "data";   // survives the deactivation
    HANDLE h = reinterpret_cast<HANDLE>(uintptr_t(hndValue));   // the value is the handle
    ASSERT_TRUE(DeactivateDevice(h));
    EXPECT_EQ(activeKeys(td), Keys{"01"});
    EXPECT_FAILS(openDisk() != INVALID_HANDLE_VALUE, ERROR_FILE_NOT_FOUND);
    DISK_INFO info;   // a handle of the old activation is dead, also once the driver is back
    EXPECT_FAILS(getInfo(disk, &info), ERROR_INVALID_HANDLE);

    HANDLE again = ActivateDevice(u"drivers\\builtin\\fdsk", 0);   // registry paths ignore case
    EXPECT_TRUE(again != NULL && again != h);
    EXPECT_EQ(activeKeys(td), (Keys{"01", "02"}));
    EXPECT_EQ(td.get("\\HDD\\keep.txt"), "data");
    EXPECT_FAILS(getInfo(disk, &info), ERROR_INVALID_HANDLE);
    EXPECT_TRUE(CloseHandle(disk));
    auto a = td.events("activate_device"), d = td.events("deactivate_device");
    ASSERT_TRUE(a.size() == 1 && d.size() == 1);
    EXPECT_TRUE(a[0]["key"] == "drivers\\builtin\\fdsk" && a[0]["ok"] == true) << a[0];
    EXPECT_TRUE(d[0]["ok"] == true && d[0]["handle"] == sim::hexCode(hndValue)) << d[0];
}

TEST(SimDevices, ActivationAndDeactivationFailures) {
    struct Case { std::string profile; std::u16string key; bool deactivateFirst; DWORD error; };
    const Case cases[] = {
        {"", kFdsk, false, ERROR_FILE_NOT_FOUND},   // no flash disk without its table
        {kLoaded, u"Drivers\\BuiltIn\\Other", true, ERROR_FILE_NOT_FOUND},
        {kLoaded, u"Drivers\\BuiltIn\\FDSK\\", true, ERROR_FILE_NOT_FOUND},
        {kLoaded, kFdsk, false, 2404},   // already active
        {std::string(kUnloaded) + "[flash_disk.fail]\nactivate = 2\n", kFdsk, false, 2}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.profile + " " + sim::utf8(c.key));
        TestDevice td(c.profile);
        if (c.deactivateFirst) { ASSERT_TRUE(DeactivateDevice(activeHandle(td))); }
        bool hadHdd = hdd(td);
        Keys keysBefore = activeKeys(td);
        if (c.profile.empty()) { EXPECT_TRUE(keysBefore.empty() && !hadHdd); }
        EXPECT_FAILS(ActivateDevice(c.key.c_str(), 0), c.error);
        EXPECT_EQ(std::make_pair(activeKeys(td), hdd(td)), std::make_pair(keysBefore, hadHdd));
        auto a = td.events("activate_device");
        EXPECT_TRUE(!a.empty() && a.back()["ok"] == false && a.back()["error"] == c.error);
    }

    TestDevice td(std::string(kLoaded) + "[flash_disk.fail]\ndeactivate = 31\n");
    HANDLE h = activeHandle(td);
    EXPECT_FAILS(DeactivateDevice(reinterpret_cast<HANDLE>(uintptr_t(0x1234))), ERROR_INVALID_HANDLE);
    EXPECT_FAILS(DeactivateDevice(h), 31);
    EXPECT_TRUE(activeKeys(td).size() == 1 && hdd(td));
    td.dev().devices().setFailure("deactivate", std::nullopt);
    EXPECT_TRUE(DeactivateDevice(h));
    EXPECT_FAILS(DeactivateDevice(h), ERROR_INVALID_HANDLE);   // only once
}

TEST(SimDevices, HddFollowsTheDriverAfterItsDelayUnlessTheProfileSaysOtherwise) {
    // whether "\HDD" is there once the change is due, after each call
    struct Case { const char *option; bool hddAfterDeactivate, hddAfterActivate, delayed; };
    const Case cases[] = {
        {"", false, true, false}, {"hdd_never_leaves = true\n", true, true, false},
        {"hdd_never_returns = true\n", false, false, false}, {"hdd_delay_ms = 3000\n", false, true, true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.option);
        TestDevice td(std::string(kLoaded) + c.option);
        EXPECT_TRUE(hdd(td));   // present from the start in every case
        ASSERT_TRUE(DeactivateDevice(activeHandle(td)));
        EXPECT_TRUE(activeKeys(td).empty());   // the driver itself goes at once
        EXPECT_EQ(hddAfter(td, 2990), c.delayed || c.hddAfterDeactivate);
        EXPECT_EQ(hddAfter(td, 20), c.hddAfterDeactivate);
        ASSERT_NE(activate(), (HANDLE)NULL);
        EXPECT_EQ(activeKeys(td).size(), 1u);
        EXPECT_EQ(td.dev().devices().hddChangePending(), c.delayed);
        EXPECT_EQ(hddAfter(td, 2990), !c.delayed && c.hddAfterActivate);
        EXPECT_EQ(hddAfter(td, 20), c.hddAfterActivate);
    }
}

TEST(SimDevices, DeviceGoesWithAChangePending) {
    sim::fs::path folder;
    {
        TestDevice td(std::string(kUnloaded) + "hdd_delay_ms = 600000\n", /*keep=*/true);
        folder = td.folder();
        ASSERT_NE(activate(), (HANDLE)NULL);
        EXPECT_TRUE(td.dev().devices().hddChangePending());
    }   // the timer is stopped and joined, not left to fire on a dead device
    EXPECT_FALSE(sim::fs::exists(folder / "fs" / "HDD"));
    std::error_code ec;
    sim::fs::remove_all(folder, ec);
}

TEST(SimDevices, GetInfoAndWritesToTheSectorImageAndTheirFailures) {
    TestDevice td("[flash_disk]\nsectors = 1024\nbytes_per_sector = 1024\n[flash_disk.fail]\ngetinfo = 31\nwrite = 5\n");
    HANDLE h = openDisk();
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    DISK_INFO info;
    std::memset(&info, 0xCC, sizeof info);
    DWORD got = 0;
    EXPECT_FAILS(getInfo(h, &info), 31);
    Write failed(0, 1024, 0);
    EXPECT_FAILS(failed.send(h), 5);
    EXPECT_EQ(failed.req.sr_status, 5u);
    td.dev().devices().setFailure("getinfo", std::nullopt);
    td.dev().devices().setFailure("write", std::nullopt);

    ASSERT_TRUE(getInfo(h, &info, sizeof info, &got));
    EXPECT_EQ(std::make_tuple(got, info.di_total_sectors, info.di_bytes_per_sect), std::make_tuple(24u, 1024u, 1024u));
    EXPECT_FAILS(getInfo(h, &info, 23), ERROR_INVALID_PARAMETER);
    EXPECT_FAILS(DeviceIoControl(h, 0x12345, NULL, 0, &info, sizeof info, &got, NULL), ERROR_NOT_SUPPORTED);
    EXPECT_FAILS(getInfo(reinterpret_cast<HANDLE>(uintptr_t(0x7777)), &info), ERROR_INVALID_HANDLE);

    struct Case { const char *what; DWORD sector, sectors, bufferBytes, inSize, numSg; bool nullBuffer; };
    const DWORD req = sizeof(SG_REQ);
    const Case cases[] = {
        {"past the end", 1024, 1, 1024, req, 1, false},         {"runs past the end", 1023, 2, 2048, req, 1, false},
        {"the device's own size", 0, 1, 1024, 28, 1, false},    {"no sectors", 0, 0, 1024, req, 1, false},
        {"buffer too short", 0, 1, 1023, req, 1, false},        {"no buffers", 0, 1, 1024, req, 0, false},
        {"more buffers than given", 0, 1, 1024, req, 2, false}, {"null buffer", 0, 1, 1024, req, 1, true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Write w(c.sector, c.bufferBytes, 0x11);
        w.req.sr_num_sec = c.sectors;
        w.req.sr_num_sg = c.numSg;
        if (c.nullBuffer) w.req.sr_sglist[0].sb_buf = NULL;
        EXPECT_FAILS(w.send(h, c.inSize), ERROR_INVALID_PARAMETER);
    }
    EXPECT_FAILS(DeviceIoControl(h, DISK_IOCTL_WRITE, NULL, req, NULL, 0, NULL, NULL), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(imageMade(td));   // nothing written yet: made on first use

    Write zero(0, 1024, 0x00), last(1023, 1024, 0x5A);
    zero.req.sr_status = 99;
    ASSERT_TRUE(zero.send(h) && last.send(h));
    EXPECT_EQ(zero.req.sr_status, 0u);
    std::ifstream in(td.dev().devices().imageFile(), std::ios::binary);
    std::string image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // the full disk, unwritten sectors erased flash
    EXPECT_TRUE(image == std::string(1024, '\0') + std::string(1022 * 1024, '\xFF') + std::string(1024, '\x5A'))
        << image.size();

    auto e = td.events("disk_ioctl");   // the failed calls too
    ASSERT_EQ(e.size(), 17u);
    EXPECT_TRUE(e[0]["device"] == "DSK1:" && e[0]["code"] == "0x00071C00" && e[0]["error"] == 31) << e[0];
    EXPECT_TRUE(e[2]["ok"] == true && e[1]["error"] == 5 && e[15]["code"] == "0x00000003") << e[2] << e[15];
    CloseHandle(h);
}

