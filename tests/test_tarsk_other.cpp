// Serial number, hidden-disk format and visible-disk format.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

using namespace engine_test;

namespace {

const char kFlashDisk[] = "[flash_disk]\nloaded = true\nname = 'DSK1:'\nsectors = 8\nbytes_per_sector = 512\n";

RegionDescriptor region(const std::string &serial, DWORD hidden, DWORD visible) {
    RegionDescriptor r;
    std::memset(&r, 0, sizeof r);
    std::u16string s = W(serial);
    std::copy(s.begin(), s.end(), r.serialNumber);
    r.serialNumberPresent = serial.empty() ? 0 : 1;
    r.formatHidden = hidden;
    r.formatVisible = visible;
    return r;
}

std::vector<nlohmann::json> ioctls(const TestDevice &td, const std::string &code) {
    std::vector<nlohmann::json> out;
    for (auto &ev : td.events("ioctl"))
        if (ev["code"] == code) out.push_back(ev);
    return out;
}

std::vector<std::string> boxes(const TestDevice &td) {
    std::vector<std::string> out;
    for (auto &ev : td.events("message_box")) out.push_back(ev["caption"].get<std::string>() + ": " + ev["text"].get<std::string>());
    return out;
}

std::string flashImage(const TestDevice &td) {
    std::ifstream in(td.folder() / "run" / "flashdisk.img", std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

TEST(TarskOther, EmptySerialNumberSendsNothing) {
    TestDevice td(profile());
    Engine e;
    RegionDescriptor r = region("", 0, 0);
    EXPECT_EQ(Tarsk_UpgradeOther(e.e, &r), 1u);
    EXPECT_TRUE(ioctls(td, "0x80002098").empty());
    EXPECT_TRUE(progressLines().empty());
}

TEST(TarskOther, SerialNumberGoesOutAsThe40ByteField) {
    TestDevice td(profile());
    Engine e;
    RegionDescriptor r = region("SN1", 0, 0);
    EXPECT_EQ(Tarsk_UpgradeOther(e.e, &r), 1u);
    auto sent = ioctls(td, "0x80002098");
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0]["input"], "53004e003100" + std::string(80 - 12, '0'));
    EXPECT_EQ(progressLines(), (std::vector<std::string>{"Writing Serial Number... ...\r\n", "Written Serial Number: OK\r\n"}));
    EXPECT_EQ(e->m_bSerialNumberFail, 0u);
}

TEST(TarskOther, HiddenFormatShowsTheSerialNumbersResult) {
    struct Row { const char *fail; const char *serialText; const char *hiddenText; DWORD serialFail, hiddenFail; } rows[] = {
        {"'0x80002EB4' = 31\n", "OK", "OK", 0, 1},                          // hidden failed, shown OK
        {"'0x80002098' = 31\n", "FAILED!", "FAILED!", 1, 0},                // hidden fine, shown FAILED!
        {"", "OK", "OK", 0, 0},
    };
    for (const Row &row : rows) {
        TestDevice td(profile(std::string("[kernel.fail]\n") + row.fail));
        Engine e;
        RegionDescriptor r = region("SN1", 1, 0);
        EXPECT_EQ(Tarsk_UpgradeOther(e.e, &r), 1u);
        EXPECT_EQ(progressLines(), (std::vector<std::string>{
                                       "Writing Serial Number... ...\r\n",
                                       std::string("Written Serial Number: ") + row.serialText + "\r\n",
                                       "Formatting Hidden Disk... ...\r\n",
                                       std::string("Formatted Hidden Disk: ") + row.hiddenText + "\r\n"}))
            << row.fail;
        EXPECT_EQ(e->m_bSerialNumberFail, row.serialFail);
        EXPECT_EQ(e->m_bFormatHiddenFail, row.hiddenFail);
        auto hidden = ioctls(td, "0x80002EB4");
        ASSERT_EQ(hidden.size(), 1u);
        EXPECT_EQ(hidden[0]["input"], std::string(8192, '0')) << "4096 zero bytes";
    }
}

TEST(TarskOther, VisibleFormatZeroesSectorZeroAndRestartsTheDriver) {
    TestDevice td(profile(kFlashDisk));
    g_vlLogSettings.level = LOG_INFO;
    Engine e;
    RegionDescriptor r = region("", 0, 1);
    EXPECT_EQ(Tarsk_UpgradeOther(e.e, &r), 1u);
    EXPECT_EQ(progressLines(), (std::vector<std::string>{"Formatting Disk... ...\r\n", "Formatted Disk: OK\r\n"}));
    EXPECT_TRUE(boxes(td).empty());
    const std::string image = flashImage(td);
    ASSERT_GE(image.size(), 1024u);
    EXPECT_EQ(image.substr(0, 512), std::string(512, '\0'));
    EXPECT_EQ(image.substr(512, 512), std::string(512, '\xFF')) << "only sector 0 written";
    ASSERT_EQ(td.events("deactivate_device").size(), 1u);
    ASSERT_EQ(td.events("activate_device").size(), 1u);
    EXPECT_TRUE(td.exists("\\HDD"));
    EXPECT_NE(logText().find("Tarsk_UpgradeOther: UpdateWhat = 0x4, bFormatVisibleAreaFail = 0"), std::string::npos)
        << logText();
}

TEST(TarskOther, HddThatNeverLeavesGivesUpAfterTenSleeps) {
    TestDevice td(profile(std::string(kFlashDisk) + "hdd_never_leaves = true\n"));
    const DWORD before = GetTickCount();
    EXPECT_EQ(tarsk_formatVisibleDisk(), 0u);
    const DWORD waited = GetTickCount() - before;
    EXPECT_GE(waited, 10000u);
    EXPECT_LT(waited, 11000u + 2000u) << "ten sleeps of a second, not eleven";
    EXPECT_EQ(boxes(td), std::vector<std::string>{"FAILED: Format Visible Failed"});
    EXPECT_TRUE(td.events("activate_device").empty()) << "gave up before activating again";
}

TEST(TarskOther, HddThatNeverReturnsGivesUp) {
    TestDevice td(profile(std::string(kFlashDisk) + "hdd_never_returns = true\n"));
    EXPECT_EQ(tarsk_formatVisibleDisk(), 0u);
    EXPECT_EQ(boxes(td), std::vector<std::string>{"FAILED: Format Visible Failed"});
    EXPECT_EQ(td.events("activate_device").size(), 1u);
}

TEST(TarskOther, HddThatComesBackLateIsWaitedFor) {
    TestDevice td(profile(std::string(kFlashDisk) + "hdd_delay_ms = 3500\n"));
    EXPECT_EQ(tarsk_formatVisibleDisk(), 1u);
    EXPECT_TRUE(boxes(td).empty());
}

TEST(TarskOther, DiskRequestFailuresAreShownAndTheFormatGoesOn) {
    struct Row { const char *fail; std::vector<std::string> boxes; } rows[] = {
        {"getinfo = 31\n", {"ERROR: DISK_IOCTL_GETINFO", "ERROR: DISK_IOCTL_WRITE"}},   // no sector size: the write fails too
        {"write = 31\n", {"ERROR: DISK_IOCTL_WRITE"}},
    };
    for (const Row &row : rows) {
        TestDevice td(profile(std::string(kFlashDisk) + "[flash_disk.fail]\n" + row.fail));
        EXPECT_EQ(tarsk_formatVisibleDisk(), 1u) << row.fail;
        EXPECT_EQ(boxes(td), row.boxes) << row.fail;
        EXPECT_EQ(td.events("deactivate_device").size(), 1u);
        EXPECT_EQ(td.events("activate_device").size(), 1u);
    }
}

TEST(TarskOther, DriverNotLoaded) {
    // Activated, then the wait is for "\HDD" to be gone, as the format has always done: a driver that
    // mounts at once makes the wait give up.
    {
        TestDevice td(profile("[flash_disk]\nloaded = false\nname = 'DSK1:'\n"));
        EXPECT_EQ(tarsk_formatVisibleDisk(), 0u);
        EXPECT_EQ(td.events("activate_device").size(), 1u);
        EXPECT_EQ(boxes(td), std::vector<std::string>{"FAILED: Format Visible Failed"});
    }
    // A driver that cannot be activated: no "\HDD", found nowhere, 0 without a box.
    {
        TestDevice td(profile("[flash_disk]\nloaded = false\nname = 'DSK1:'\n[flash_disk.fail]\nactivate = 31\n"));
        EXPECT_EQ(tarsk_formatVisibleDisk(), 0u);
        EXPECT_TRUE(boxes(td).empty());
    }
    // No flash disk at all.
    {
        TestDevice td(profile());
        EXPECT_EQ(tarsk_formatVisibleDisk(), 0u);
        EXPECT_TRUE(boxes(td).empty());
    }
}

TEST(TarskOther, FindsTheDriverByItsExactKey) {
    TestDevice td(profile("[registry.'HKLM\\Drivers\\Active\\00']\nKey = 'Drivers\\BuiltIn\\fdsk'\nName = 'XXX1:'\nHnd = 66\n"
                          "[registry.'HKLM\\Drivers\\Active\\02']\nKey = 'Drivers\\BuiltIn\\FDSK'\nName = 'DSK9:'\nHnd = 77\n"));
    WCHAR name[130] = {0};
    DWORD handle = 0;
    tarsk_findFlashDiskDriver(name, sizeof name, &handle);
    EXPECT_EQ(U(name), "DSK9:") << "the lower-case key is not the flash disk";
    EXPECT_EQ(handle, 77u);

    td.dev().registry().remove("HKLM\\Drivers\\Active\\02");
    WCHAR none[130] = {0};
    handle = 0;
    tarsk_findFlashDiskDriver(none, sizeof none, &handle);
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(U(none), "");
}

TEST(TarskOther, ResultIsZeroOnlyWhenAllThreeFailed) {
    // The visible format fails without a flash disk; serial and hidden fail when the kernel refuses.
    struct Row { bool serial, hidden, visible; bool serialFails, hiddenFails, disk; DWORD result; } rows[] = {
        {true, true, true, true, true, false, 0},
        {true, true, true, true, true, true, 1},
        {true, true, true, false, true, false, 1},
        {true, true, true, true, false, false, 1},
        {false, true, true, false, true, false, 1},
        {true, true, false, true, true, false, 1},
        {false, false, false, false, false, false, 1},
    };
    for (const Row &row : rows) {
        std::string extra = "[kernel.fail]\n";
        if (row.serialFails) extra += "'0x80002098' = 31\n";
        if (row.hiddenFails) extra += "'0x80002EB4' = 31\n";
        if (row.disk) extra += kFlashDisk;
        TestDevice td(profile(extra));
        g_vlLogSettings.level = LOG_INFO;
        Engine e;
        RegionDescriptor r = region(row.serial ? "SN1" : "", row.hidden, row.visible);
        EXPECT_EQ(Tarsk_UpgradeOther(e.e, &r), row.result)
            << row.serial << row.hidden << row.visible << row.serialFails << row.hiddenFails << row.disk;
    }
    EXPECT_NE(logText().find("Tarsk_UpgradeOther: UpdateWhat = 0x0, bFormatVisibleAreaFail = 0"), std::string::npos);
}
