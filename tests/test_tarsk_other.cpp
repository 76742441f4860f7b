// Serial number, hidden-disk format and visible-disk format.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

using namespace engine_test;

namespace {

const std::string kFlashDisk = "[flash_disk]\nloaded = true\nname = 'DSK1:'\nsectors = 8\nbytes_per_sector = 512\n";

std::vector<std::string> boxes(const TestDevice &td) {
    std::vector<std::string> out;
    for (auto &ev : td.events("message_box"))
        out.push_back(ev["caption"].get<std::string>() + ": " + ev["text"].get<std::string>());
    return out;
}

}  // namespace

// Each step asked for is shown, and the result is 0 only when all three were asked for and all
// failed. The hidden format shows the serial number's result. The visible format fails when no
// flash disk is fitted; the serial number and hidden format when the kernel refuses.
TEST(TarskOther, UpgradeOtherStepsAndResult) {
    // *Shown: the result the panel shows for the step, nullptr when the step is not shown.
    struct Row { const char *serial; DWORD hidden, visible; bool serialFails, hiddenFails, disk;
                 const char *serialShown, *hiddenShown, *visibleShown; DWORD result; const char *log; } rows[] = {
        {"SN1", 1, 1, true, true, false, "FAILED!", "FAILED!", "FAILED!", 0, "UpdateWhat = 0x7, bFormatVisibleAreaFail = 1"},
        {"SN1", 1, 1, true, true, true, "FAILED!", "FAILED!", "OK", 1, "UpdateWhat = 0x7, bFormatVisibleAreaFail = 0"},
        {"SN1", 1, 1, false, true, false, "OK", "OK", "FAILED!", 1, nullptr},
        {"SN1", 1, 1, true, false, false, "FAILED!", "FAILED!", "FAILED!", 1, nullptr},
        {"", 1, 1, false, true, false, nullptr, "OK", "FAILED!", 1, "UpdateWhat = 0x6, bFormatVisibleAreaFail = 1"},
        {"SN1", 1, 0, true, true, false, "FAILED!", "FAILED!", nullptr, 1, nullptr},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(::testing::Message() << row.serial << row.hidden << row.visible << " fail " << row.serialFails
                                          << row.hiddenFails << " disk " << row.disk);
        TestDevice td(profile(std::string("[kernel.fail]\n") + (row.serialFails ? "'0x80002098' = 31\n" : "") +
                              (row.hiddenFails ? "'0x80002EB4' = 31\n" : "") + (row.disk ? kFlashDisk : "")));
        g_vlLogSettings.level = LOG_INFO;
        Engine e;
        RegionDescriptor r;
        std::memset(&r, 0, sizeof r);
        std::u16string s = W(row.serial);
        std::copy(s.begin(), s.end(), r.serialNumber);
        r.serialNumberPresent = s.empty() ? 0 : 1;
        r.formatHidden = row.hidden;
        r.formatVisible = row.visible;
        EXPECT_EQ(Tarsk_UpgradeOther(e.e, &r), row.result);

        std::vector<std::string> shown;
        auto step = [&shown](const char *doing, const char *done, const char *result) {
            if (result) shown.insert(shown.end(), {std::string(doing) + "... ...\r\n", std::string(done) + ": " + result + "\r\n"});
        };
        step("Writing Serial Number", "Written Serial Number", row.serialShown);
        step("Formatting Hidden Disk", "Formatted Hidden Disk", row.hiddenShown);
        step("Formatting Disk", "Formatted Disk", row.visibleShown);
        EXPECT_EQ(progressLines(), shown);

        auto serials = ioctls(td, "0x80002098"), hiddens = ioctls(td, "0x80002EB4");
        ASSERT_EQ(serials.size(), s.empty() ? 0u : 1u) << "an empty serial number is never sent";
        if (!s.empty()) {
            EXPECT_EQ(serials[0]["input"], "53004e003100" + std::string(80 - 12, '0')) << "the 40-byte field";
        }
        ASSERT_EQ(hiddens.size(), size_t(row.hidden));
        if (row.hidden) {
            EXPECT_EQ(hiddens[0]["input"], std::string(8192, '0')) << "4096 zero bytes";
        }
        if (row.log) {
            EXPECT_NE(logText().find(std::string("Tarsk_UpgradeOther: ") + row.log), std::string::npos) << logText();
        }
    }
}

TEST(TarskOther, VisibleFormatZeroesSectorZeroOnly) {
    TestDevice td(profile(kFlashDisk));
    EXPECT_EQ(tarsk_formatVisibleDisk(), 1u);
    const std::string image = tool_test::slurp(td.folder() / "run" / "flashdisk.img");
    ASSERT_GE(image.size(), 1024u);
    EXPECT_EQ(image.substr(0, 512), std::string(512, '\0'));
    EXPECT_EQ(image.substr(512, 512), std::string(512, '\xFF')) << "only sector 0 written";
    EXPECT_TRUE(td.exists("\\HDD"));
}

// Each wait for "\HDD" to come or go tests, then sleeps a second up to ten times before it gives up;
// the device time each outcome takes is exact.
TEST(TarskOther, VisibleFormatOutcomes) {
    const std::string notLoaded = "[flash_disk]\nloaded = false\nname = 'DSK1:'\n";
    struct Row { const char *name; std::string extra; DWORD result; std::vector<std::string> boxes;
                 size_t deactivations, activations; DWORD ms; } rows[] = {
        {"formats", kFlashDisk, 1, {}, 1, 1, 0},
        {"never leaves", kFlashDisk + "hdd_never_leaves = true\n", 0, {"FAILED: Format Visible Failed"}, 1, 0,
         10000},   // ten sleeps, not eleven; gave up before activating again
        {"never returns", kFlashDisk + "hdd_never_returns = true\n", 0, {"FAILED: Format Visible Failed"}, 1, 1,
         10000},
        {"goes and returns late", kFlashDisk + "hdd_delay_ms = 3500\n", 1, {}, 1, 1, 8000},   // 4 + 4 sleeps
        // no sector size: the write fails too; the format goes on
        {"getinfo fails", kFlashDisk + "[flash_disk.fail]\ngetinfo = 31\n", 1,
         {"ERROR: DISK_IOCTL_GETINFO", "ERROR: DISK_IOCTL_WRITE"}, 1, 1, 0},
        {"write fails", kFlashDisk + "[flash_disk.fail]\nwrite = 31\n", 1, {"ERROR: DISK_IOCTL_WRITE"}, 1, 1, 0},
        // activated, then the wait is for "\HDD" to be gone: a driver that mounts at once gives up
        {"not loaded", notLoaded, 0, {"FAILED: Format Visible Failed"}, 0, 1, 10000},
        // no "\HDD", found nowhere: 0 without a box
        {"cannot activate", notLoaded + "[flash_disk.fail]\nactivate = 31\n", 0, {}, 0, 1, 0},
        {"no flash disk", "", 0, {}, 0, 1, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        TestDevice td(profile(row.extra));
        const DWORD before = GetTickCount();
        EXPECT_EQ(tarsk_formatVisibleDisk(), row.result);
        EXPECT_EQ(GetTickCount() - before, row.ms) << "device milliseconds";
        EXPECT_EQ(boxes(td), row.boxes);
        EXPECT_EQ(td.events("deactivate_device").size(), row.deactivations);
        EXPECT_EQ(td.events("activate_device").size(), row.activations);
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
}
