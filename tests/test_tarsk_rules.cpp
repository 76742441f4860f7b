// Decision rules: the device facts, Pass/Bypass per image kind, the format decision, the tag report.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

using namespace engine_test;

TEST(TarskRules, VersionPackingWrapsAt32Bits) {
    struct { DWORD v[3]; DWORD packed; } cases[] = {
        {{3, 0, 0}, 3000000u},
        {{1, 2, 3}, 1020003u},
        {{4294, 0, 0}, 4294000000u},
        {{4295, 0, 0}, 32704u},            // 4295000000 - 2^32
        {{0, 0, 0}, 0u},
    };
    for (const auto &c : cases) EXPECT_EQ(tarsk_packVersion(c.v), c.packed) << c.v[0];
}

TEST(TarskRules, DiskSizeRoundsToTheNext256MiBAlwaysUp) {
    struct { DWORD size, rounded; } cases[] = {
        {0, 0x10000000u}, {1, 0x10000000u}, {0x0FFFFFFFu, 0x10000000u},
        {0x10000000u, 0x20000000u}, {0x7A120000u, 0x80000000u}, {0xF0000000u, 0u},
    };
    for (const auto &c : cases) EXPECT_EQ(tarsk_roundDiskSize(c.size), c.rounded) << std::hex << c.size;
}

TEST(TarskRules, GathersTheDeviceFacts) {
    TestDevice td(profile("[storage.'\\My Flash Disk']\ntotal = 4831838208\n"   // 0x1_2000_0000
                          "[registry.'HKLM\\Information']\nFlashType = 3\n"));
    td.put("\\My Flash Disk\\tarsk.exe", "");
    Engine e;
    EXPECT_EQ(U(e->m_szProgramFolder), "\\My Flash Disk");
    EXPECT_EQ(U(e->m_szPackagePath), "\\My Flash Disk\\upgrade.bin");
    EXPECT_EQ(U(e->m_szKernelPath), "\\My Flash Disk\\upgrade.xml");
    EXPECT_EQ(U(e->m_szInternalPath), "\\My Flash Disk");
    EXPECT_EQ(U(e->m_szExternalPath), "\\Storage Card");
    EXPECT_EQ(e->m_bUpgradeFromSDCard, 0u);
    EXPECT_EQ(U(e->m_szKernelVersion), "WinCE V3.10 HW2 build");
    EXPECT_EQ(e->m_adwDeviceKernelVersion[0], 3u);
    EXPECT_EQ(e->m_adwDeviceBootVersion[0], 2u);
    EXPECT_EQ(e->m_dwHardwareVersion, 17u);
    EXPECT_EQ(e->m_dwFlashType, 3u);
    EXPECT_EQ(e->m_dwInternalDiskSize, 0x30000000u) << "low 32 bits, then rounded up";
    EXPECT_EQ(e->m_dwHardwareRecordSize, DWORD(TARSK_HW_RECORD_BYTES));
    EXPECT_EQ(tarsk_deviceRegionVersion(e.e), 4u);
    WCHAR type[64];
    tarsk_deviceHardwareType(e.e, type, 64);
    EXPECT_EQ(U(type), "QX7");
    // the three queries, with their inputs
    auto ioctls = td.events("ioctl");
    std::vector<std::string> codes;
    for (auto &ev : ioctls) codes.push_back(ev["code"]);
    EXPECT_EQ(codes, (std::vector<std::string>{"0x8000208C", "0x80002090", "0x01012028", "0x80002E90"}));
    EXPECT_EQ(ioctls[3]["input"], "03000000000000000000000000000000");
}

TEST(TarskRules, RegistryPathsAndTheCard) {
    TestDevice td(profile("[registry.'HKLM\\Information']\nInternal = '\\ResidentFlash'\nExternal1 = '\\SD Card'\n",
                          "V1", "1", "\\sd card\\tarsk.exe"));
    td.put("\\SD Card\\tarsk.exe", "");
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
    DeviceDescriptor one = descriptor(1);
    EXPECT_EQ(checkUpgradeSettings(e.e, TEXT("Kernel"), &one), 1u);
    DeviceDescriptor zero = descriptor(0);
    EXPECT_EQ(checkUpgradeSettings(e.e, TEXT("Kernel"), &zero), 0u);
}

// Device: kernel text "WinCE V3.10 HW2 build" (3 -> 3000000), bootloader 2.
TEST(TarskRules, DecisionTable) {
    TestDevice td(profile());
    Engine e;
    struct Row {
        const char *kind;
        DWORD version, force;
        const char *hw;
        DWORD result;
        const char *why;
    } rows[] = {
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
    for (const Row &r : rows) {
        DeviceDescriptor d = descriptor(r.version, r.force, r.hw);
        EXPECT_EQ(checkUpgradeSettings(e.e, W(r.kind).c_str(), &d), r.result) << r.why;
    }
}

TEST(TarskRules, DecisionProgressAndLogLines) {
    TestDevice td(profile());
    g_vlLogSettings.level = LOG_INFO;
    Engine e;
    DeviceDescriptor forced = descriptor(3, 1, "HW9");
    EXPECT_EQ(checkUpgradeSettings(e.e, TEXT("Kernel"), &forced), 1u);
    EXPECT_EQ(progressLines(), (std::vector<std::string>{"\r\n====CHECK Kernel UPGRADE CONDITION...====\r\n",
                                                          "Force Upgrade: Yes\r\n", "Kernel: Pass\r\n"}));
    std::string log = logText();
    EXPECT_NE(log.find("INFO, checkUpgradeSettings(Kernel): HW Version doesn't match (HW9 != WinCE V3.10 HW2 build), "
                       "cancel upgrade\r\n"), std::string::npos) << log;
    EXPECT_NE(log.find("INFO, checkUpgradeSettings(Kernel): Force upgrade: 3000000 <= 3000000\r\n"), std::string::npos);
    EXPECT_NE(log.find("INFO, Upgrade Kernel: PASS\r\n"), std::string::npos);

    progressLines().clear();
    DeviceDescriptor matched = descriptor(5, 0, "HW2");
    EXPECT_EQ(checkUpgradeSettings(e.e, TEXT("UBoot"), &matched), 0u);
    EXPECT_EQ(progressLines(), (std::vector<std::string>{"\r\n====CHECK UBoot UPGRADE CONDITION...====\r\n",
                                                          "UBoot: Bypass\r\n"}));
    log = logText();
    EXPECT_NE(log.find("checkUpgradeSettings(UBoot): HW Version matches (HW2 == WinCE V3.10 HW2 build), allow upgrade"),
              std::string::npos) << log;
    EXPECT_NE(log.find("checkUpgradeSettings(UBoot): Upgrade required: 5000000 >= 2000000"), std::string::npos);
    EXPECT_NE(log.find("Upgrade UBoot: FAILED"), std::string::npos);

    // the wrapped value is printed as the device prints a %d
    DeviceDescriptor big = descriptor(4000);
    checkUpgradeSettings(e.e, TEXT("Kernel"), &big);
    EXPECT_NE(logText().find("Upgrade required: -294967296 >= 3000000"), std::string::npos) << logText();
}

TEST(TarskRules, NoLogLinesBelowInfo) {
    TestDevice td(profile());
    g_vlLogSettings.level = LOG_WARNING;
    Engine e(nullptr);
    const std::string before = logText();
    DeviceDescriptor d = descriptor(4);
    EXPECT_EQ(checkUpgradeSettings(e.e, TEXT("Kernel"), &d), 1u);
    EXPECT_EQ(logText(), before);
    EXPECT_TRUE(progressLines().empty()) << "no callback, nothing sent";
}

TEST(TarskRules, FormatDecision) {
    TestDevice td(profile());   // kernel 3, bootloader 2, region 4
    Engine e;
    struct Row { const char *kind; DWORD flash[3]; DWORD format; DWORD result; const char *why; } rows[] = {
        {"Kernel", {0, 0, 0}, 1, 1, "no flash version: the format flag"},
        {"Kernel", {0, 0, 0}, 0, 0, "no flash version: the format flag"},
        {"Kernel", {4, 0, 0}, 0, 1, "device 3000000 < flash 4000000"},
        {"Kernel", {3, 0, 0}, 1, 0, "equal is no format, whatever the flag"},
        {"Kernel", {0, 0, 1}, 0, 0, "flash 1 below the device"},
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

TEST(TarskRules, TagFilesByteForByte) {
    TestDevice td(profile());
    td.put("\\My Flash Disk\\tarsk.exe", "");
    Engine e;
    e->m_bUbootExists = 1;
    e->m_bKernelExists = 1;
    e->m_UbootDescriptor = descriptor(5, 0, "HW3", 0, "QX8");
    e->m_KernelDescriptor = descriptor(12, 1, "", 1, "QX7");
    e->m_KernelDescriptor.version[1] = 3;
    e->m_KernelDescriptor.version[2] = 45;
    e->m_bFormatKernel = 1;
    tarsk_writeTagReport(e.e);
    EXPECT_EQ(td.get("\\My Flash Disk\\upgrade.uboot.tag"),
              "UBoot upgrade way: Normal upgrade\r\n"
              "UBoot version: Upgrade from (V2.00.0000) to (V5.00.0000)\r\n"
              "UBoot HW Type: Upgrade from (QX7) to (QX8)\r\n"
              "UBoot HW Version: Upgrade from (17) to (HW3)\r\n");
    EXPECT_EQ(td.get("\\My Flash Disk\\upgrade.winceimg.tag"),
              "Kernel upgrade way: Force upgrade\r\n"
              "Kernel upgrade Format: Yes\r\n"
              "Kernel version: Upgrade from (V3.00.0000) to (V12.03.0045)\r\n"
              "Kernel HW Type: Upgrade from (QX7) to (QX7)\r\n"
              "Kernel HW Version: Upgrade from (17) to ()\r\n");
}

TEST(TarskRules, TagFileWhenNothingExisted) {
    TestDevice td(profile());
    td.put("\\My Flash Disk\\tarsk.exe", "");
    Engine e;
    tarsk_writeTagReport(e.e);
    EXPECT_EQ(td.get("\\My Flash Disk\\upgrade.winceimg.tag"),
              "Failed! Don't find any upgrade files except tarsk.exe, so give up upgrading\r\n");
    EXPECT_FALSE(td.exists("\\My Flash Disk\\upgrade.uboot.tag"));

    // only the region existed: no tag file at all
    td.put("\\My Flash Disk\\upgrade.winceimg.tag", "old");
    e->m_bRegionExists = 1;
    tarsk_writeTagReport(e.e);
    EXPECT_EQ(td.get("\\My Flash Disk\\upgrade.winceimg.tag"), "old");
}

TEST(TarskRules, TagFilesOnAReadOnlyFolderAreSkipped) {
    TestDevice td(profile("[storage.'\\My Flash Disk']\nread_only = true\n"));
    td.put("\\My Flash Disk\\tarsk.exe", "");
    Engine e;
    e->m_bUbootExists = 1;
    e->m_bKernelExists = 1;
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
        EXPECT_EQ(tarsk_decideRegion(e.e), r.decision);
        EXPECT_EQ(e->m_bUpgradeRegion, r.decision);
        EXPECT_EQ(e->m_RegionDescriptor.serialNumberPresent, r.present);
    }
    // the serial numbers were written at once, one per non-empty serial
    EXPECT_EQ(td.events("ioctl").back()["code"], "0x80002098");
}
