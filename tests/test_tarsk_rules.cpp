// Decision rules: the device facts, Pass/Bypass per image kind, the format decision, the tag report.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

using namespace engine_test;

TEST(TarskRules, DiskSizeRoundsToTheNext256MiBAlwaysUp) {
    struct { DWORD size, rounded; } cases[] = {
        {0, 0x10000000u}, {1, 0x10000000u}, {0x0FFFFFFFu, 0x10000000u},
        {0x10000000u, 0x20000000u}, {0x7A120000u, 0x80000000u}, {0xF0000000u, 0u},
    };
    for (const auto &c : cases) EXPECT_EQ(tarsk_roundDiskSize(c.size), c.rounded) << std::hex << c.size;
}

// The versions, hardware type and number and region version are pinned by the decisions and tags below.
TEST(TarskRules, GathersTheDeviceFacts) {
    TestDevice td(profile("[storage.'\\My Flash Disk']\ntotal = 4831838208\n"   // 0x1_2000_0000
                          "[registry.'HKLM\\Information']\nFlashType = 3\n"));
    Engine e;
    EXPECT_EQ(U(e->m_szInternalPath), "\\My Flash Disk");
    EXPECT_EQ(U(e->m_szExternalPath), "\\Storage Card");
    EXPECT_EQ(e->m_bUpgradeFromSDCard, 0u);
    EXPECT_EQ(e->m_dwFlashType, 3u);
    EXPECT_EQ(e->m_dwInternalDiskSize, 0x30000000u) << "low 32 bits, then rounded up";
    EXPECT_EQ(e->m_dwHardwareRecordSize, DWORD(TARSK_HW_RECORD_BYTES));
    auto all = td.events("ioctl");
    ASSERT_EQ(all.size(), 4u);
    const char *codes[] = {"0x8000208C", "0x80002090", "0x01012028", "0x80002E90"};   // in this order
    for (int i = 0; i < 4; ++i) EXPECT_EQ(all[i]["code"], codes[i]);
    EXPECT_EQ(all[3]["input"], "03000000000000000000000000000000");
}

TEST(TarskRules, RegistryPathsAndTheCard) {
    TestDevice td(profile("[registry.'HKLM\\Information']\nInternal = '\\ResidentFlash'\nExternal1 = '\\SD Card'\n",
                          "V1", "1", "\\sd card\\tarsk.exe"));
    Engine e;
    EXPECT_EQ(U(e->m_szInternalPath), "\\ResidentFlash");
    EXPECT_EQ(U(e->m_szExternalPath), "\\SD Card");
    EXPECT_EQ(e->m_bUpgradeFromSDCard, 1u) << "compared without regard to case";
}

TEST(TarskRules, FailedQueriesLeaveZeroVersions) {
    TestDevice td(profile("[kernel.fail]\n'0x8000208C' = 31\n'0x80002090' = 31\n'0x80002E90' = 31\n"));
    g_vlLogSettings.level = LOG_ERROR;
    Engine e;
    EXPECT_EQ(e->m_adwDeviceKernelVersion[0], 0u);
    EXPECT_EQ(e->m_adwDeviceBootVersion[0], 0u);
    EXPECT_EQ(e->m_dwHardwareRecordSize, 0u);
    EXPECT_NE(logText().find("ERROR, KernelIoControl return False"), std::string::npos) << logText();
    // any descriptor version from 1 up is newer than a device that did not answer
    DeviceDescriptor one = descriptor(1), zero = descriptor(0);
    EXPECT_EQ(checkUpgradeSettings(e.e, TEXT("Kernel"), &one), 1u);
    EXPECT_EQ(checkUpgradeSettings(e.e, TEXT("Kernel"), &zero), 0u);
}

// Device: kernel text "WinCE V3.10 HW2 build" (3 -> 3000000), bootloader 2.
TEST(TarskRules, DecisionTable) {
    TestDevice td(profile());
    Engine e;
    struct { const char *kind; DWORD version, force; const char *hw; DWORD result; const char *why; } rows[] = {
        {"Kernel", 4, 0, "", 1, "no hw, newer"},
        {"Kernel", 4, 1, "", 1, "no hw, newer, forced"},
        {"Kernel", 3, 0, "", 0, "no hw, equal is not newer"},
        {"Kernel", 3, 1, "", 1, "no hw, equal, forced"},
        {"Kernel", 2, 1, "", 1, "no hw, older, forced"},
        {"Kernel", 2, 0, "", 0, "no hw, older"},
        {"Kernel", 9, 1, "HW2", 0, "hw found in the device text: bypassed whatever the version"},
        {"Kernel", 1, 0, "HW2", 0, "hw found, older"},
        {"Kernel", 9, 0, "3.10", 0, "any substring of the device text counts"},
        {"Kernel", 4, 0, "HW9", 1, "hw not found: version decides, newer"},
        {"Kernel", 3, 0, "HW9", 0, "hw not found, equal"},
        {"Kernel", 3, 1, "HW9", 1, "hw not found, equal, forced"},
        {"Kernel", 4, 0, "hw2", 1, "the search is case-sensitive"},
        {"Kernel", 4294, 0, "", 1, "4294 packs below the wrap"},
        {"Kernel", 4295, 0, "", 0, "4295 wraps to 32704, below the device"},
        {"Kernel", 4295, 1, "", 1, "wrapped but forced"},
        {"UBoot", 3, 0, "", 1, "the bootloader compares with bootloader version 2"},
        {"UBoot", 2, 0, "", 0, "equal to the bootloader"},
        {"uboot", 2, 1, "", 1, "kind compared without regard to case"},
        {"KERNEL", 3, 0, "", 0, "kind compared without regard to case"},
    };
    for (const auto &r : rows) {
        DeviceDescriptor d = descriptor(r.version, r.force, r.hw);
        EXPECT_EQ(checkUpgradeSettings(e.e, W(r.kind).c_str(), &d), r.result) << r.why;
    }
}

// The log says the reverse of what the hardware test does, and prints packed values as %d. (The
// panel lines are pinned by the scenario tests.)
TEST(TarskRules, DecisionLogLines) {
    TestDevice td(profile());
    g_vlLogSettings.level = LOG_INFO;
    Engine e;
    DeviceDescriptor forced = descriptor(3, 1, "HW9"), matched = descriptor(5, 0, "HW2"), big = descriptor(4000);
    EXPECT_EQ(checkUpgradeSettings(e.e, TEXT("Kernel"), &forced), 1u);
    EXPECT_EQ(checkUpgradeSettings(e.e, TEXT("UBoot"), &matched), 0u);
    checkUpgradeSettings(e.e, TEXT("Kernel"), &big);
    const std::string log = logText();
    for (const char *line : {
             "INFO, checkUpgradeSettings(Kernel): HW Version doesn't match (HW9 != WinCE V3.10 HW2 build), cancel upgrade\r\n",
             "INFO, checkUpgradeSettings(Kernel): Force upgrade: 3000000 <= 3000000\r\n",
             "INFO, Upgrade Kernel: PASS\r\n",
             "checkUpgradeSettings(UBoot): HW Version matches (HW2 == WinCE V3.10 HW2 build), allow upgrade\r\n",
             "checkUpgradeSettings(UBoot): Upgrade required: 5000000 >= 2000000\r\n",
             "Upgrade UBoot: FAILED\r\n",
             "checkUpgradeSettings(Kernel): Upgrade required: -294967296 >= 3000000\r\n",
         }) {
        EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
    }
}

// Device: kernel 3, bootloader 2, region 4. Packing is (major * 100 + minor) * 10000 + build.
TEST(TarskRules, FormatDecision) {
    TestDevice td(profile());
    Engine e;
    struct Row { const char *kind; DWORD flash[3]; DWORD format; DWORD result; const char *why; } rows[] = {
        {"Kernel", {0, 0, 0}, 1, 1, "no flash version: the format flag"},
        {"Kernel", {0, 0, 0}, 0, 0, "no flash version: the format flag"},
        {"Kernel", {4, 0, 0}, 0, 1, "device 3000000 < flash 4000000"},
        {"Kernel", {3, 0, 0}, 1, 0, "equal is no format, whatever the flag"},
        {"Kernel", {0, 0, 1}, 0, 0, "flash 1 below the device"},
        {"Kernel", {3, 0, 1}, 0, 1, "flash 3000001: the build counts"},
        {"Kernel", {2, 99, 9999}, 0, 0, "flash 2999999: minor weighs 10000"},
        {"UBoot", {3, 0, 0}, 0, 1, "bootloader 2000000 < 3000000"},
        {"UBoot", {2, 0, 0}, 0, 0, "bootloader equal"},
        {"Region", {5, 0, 0}, 0, 1, "region 4 * 1000000 < 5000000"},
        {"Region", {4, 0, 0}, 0, 0, "region equal"},
    };
    for (const Row &r : rows) {
        DeviceDescriptor d = descriptor(1, 0, "", r.format);
        std::copy(r.flash, r.flash + 3, d.flashVersion);
        EXPECT_EQ(checkFormatSettings(e.e, W(r.kind).c_str(), &d), r.result) << r.kind << ": " << r.why;
    }
}

// Which tag files are written, and the kernel's byte for byte with a minor and build version and
// the device's hardware type and number. (The scenario tests pin both files for whole packages.)
TEST(TarskRules, TagReport) {
    const std::string uboot = "\\My Flash Disk\\upgrade.uboot.tag", kernel = "\\My Flash Disk\\upgrade.winceimg.tag";
    TestDevice td(profile());
    td.put("\\My Flash Disk\\tarsk.exe", "");
    Engine e;
    tarsk_writeTagReport(e.e);
    EXPECT_EQ(td.get(kernel), "Failed! Don't find any upgrade files except tarsk.exe, so give up upgrading\r\n");
    EXPECT_FALSE(td.exists(uboot));

    td.put(kernel, "old");
    e->m_bRegionExists = 1;
    tarsk_writeTagReport(e.e);
    EXPECT_EQ(td.get(kernel), "old") << "only the region existed: no tag file at all";

    e->m_bKernelExists = 1;
    e->m_KernelDescriptor = descriptor(12, 1, "", 1, "QX8");
    e->m_KernelDescriptor.version[1] = 3;
    e->m_KernelDescriptor.version[2] = 45;
    e->m_bFormatKernel = 1;
    tarsk_writeTagReport(e.e);
    EXPECT_EQ(td.get(kernel), "Kernel upgrade way: Force upgrade\r\n"
                              "Kernel upgrade Format: Yes\r\n"
                              "Kernel version: Upgrade from (V3.00.0000) to (V12.03.0045)\r\n"
                              "Kernel HW Type: Upgrade from (QX7) to (QX8)\r\n"
                              "Kernel HW Version: Upgrade from (17) to ()\r\n");
    EXPECT_FALSE(td.exists(uboot));
}

TEST(TarskRules, TagFilesOnAReadOnlyFolderAreSkipped) {
    TestDevice td(profile("[storage.'\\My Flash Disk']\nread_only = true\n"));
    td.put("\\My Flash Disk\\tarsk.exe", "");
    Engine e;
    e->m_bUbootExists = e->m_bKernelExists = 1;
    tarsk_writeTagReport(e.e);
    EXPECT_FALSE(td.exists("\\My Flash Disk\\upgrade.uboot.tag"));
    EXPECT_FALSE(td.exists("\\My Flash Disk\\upgrade.winceimg.tag"));
}

TEST(TarskRules, RegionDecisionIsTheForceFlag) {
    TestDevice td(profile());
    Engine e;
    struct { const char *serial; DWORD force, decision, present; } rows[] = {
        {"", 0, 0, 0}, {"", 1, 1, 0}, {"SN1", 0, 0, 1}, {"SN1", 1, 1, 1},
    };
    for (const auto &r : rows) {
        std::memset(&e->m_RegionDescriptor, 0, sizeof(RegionDescriptor));
        std::u16string s = W(r.serial);
        std::copy(s.begin(), s.end(), e->m_RegionDescriptor.serialNumber);
        e->m_RegionDescriptor.force = r.force;
        EXPECT_EQ(tarsk_decideRegion(e.e), r.decision) << r.serial << r.force;
        EXPECT_EQ(e->m_bUpgradeRegion, r.decision);
        EXPECT_EQ(e->m_RegionDescriptor.serialNumberPresent, r.present);
    }
    EXPECT_EQ(ioctls(td, "0x80002098").size(), 2u) << "the region work ran at once, once per serial number";
}
