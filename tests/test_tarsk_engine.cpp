// CheckForUpgrade end to end on the simulated device: package found, deciphered, read, decided.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

#include <random>

using namespace engine_test;

namespace {

const char kBin[] = "\\My Flash Disk\\upgrade.bin";
const char kXml[] = "\\My Flash Disk\\upgrade.xml";
const char kUbootTag[] = "\\My Flash Disk\\upgrade.uboot.tag";
const char kKernelTag[] = "\\My Flash Disk\\upgrade.winceimg.tag";

std::vector<nlohmann::json> ioctls(const TestDevice &td, const std::string &code) {
    std::vector<nlohmann::json> out;
    for (auto &ev : td.events("ioctl"))
        if (ev["code"] == code) out.push_back(ev);
    return out;
}

// Device: kernel 3, bootloader 2 (see profile()).
const std::string kKernelPackage = packageXml(imageSection("bootloader", 2) + imageSection("kernel", 4, 0, 1, "HW9"));

}  // namespace

TEST(TarskEngine, NoPackageIsNoError) {
    TestDevice td(profile());
    td.put("\\My Flash Disk\\tarsk.exe", "");
    Engine e;
    EXPECT_EQ(CheckForUpgrade(e.e, 1), 0u);
    EXPECT_TRUE(progressLines().empty());
    EXPECT_FALSE(td.exists(kKernelTag));
}

TEST(TarskEngine, EmptyPackageReturnsAtOnce) {
    TestDevice td(profile());
    td.put(kBin, "");
    Engine e;
    EXPECT_EQ(CheckForUpgrade(e.e, 1), 0u);
    EXPECT_FALSE(td.exists(kXml));
    EXPECT_FALSE(td.exists(kKernelTag));
    EXPECT_TRUE(progressLines().empty());
}

TEST(TarskEngine, KernelPackageFromInternalFlash) {
    TestDevice td(profile());
    td.put(kBin, sealPackage(kKernelPackage));
    Engine e;
    EXPECT_EQ(CheckForUpgrade(e.e, 1), 1u);
    EXPECT_EQ(progressLines(), (std::vector<std::string>{
                                   "\r\n====CHECK UBoot UPGRADE CONDITION...====\r\n", "UBoot: Bypass\r\n",
                                   "\r\n====CHECK Kernel UPGRADE CONDITION...====\r\n", "Kernel: Pass\r\n",
                                   "FORMAT Upgrade: Yes\r\n"}));
    EXPECT_EQ(e->m_bUpgradeBboot, 0u);
    EXPECT_EQ(e->m_bUpgradeKernel, 1u);
    EXPECT_EQ(e->m_bFormatKernel, 1u);
    EXPECT_EQ(e->m_bUpgradeRegion, 0u);
    EXPECT_EQ(e->m_KernelDescriptor.version[0], 4u);
    EXPECT_EQ(U(e->m_KernelDescriptor.hardwareVersion), "HW9");
    EXPECT_FALSE(td.exists(kBin)) << "used once from internal flash";
    EXPECT_FALSE(td.exists(kXml)) << "the plain descriptor is temporary";
    EXPECT_EQ(td.get(kKernelTag).substr(0, 60), "Kernel upgrade way: Normal upgrade\r\nKernel upgrade Format: Y");
    EXPECT_TRUE(td.exists(kUbootTag));

    // A second start finds nothing.
    Engine again;
    EXPECT_EQ(CheckForUpgrade(again.e, 1), 0u);
}

TEST(TarskEngine, PackageOnTheCardIsKept) {
    TestDevice td(profile("", "WinCE V3.10 HW2 build", "U-Boot 2.0", "\\Storage Card\\tarsk.exe"));
    const std::string sealed = sealPackage(kKernelPackage);
    td.put("\\Storage Card\\upgrade.bin", sealed);
    Engine e;
    ASSERT_EQ(e->m_bUpgradeFromSDCard, 1u);
    EXPECT_EQ(CheckForUpgrade(e.e, 1), 1u);
    EXPECT_EQ(td.get("\\Storage Card\\upgrade.bin"), sealed);
    EXPECT_FALSE(td.exists("\\Storage Card\\upgrade.xml"));
    EXPECT_TRUE(td.exists("\\Storage Card\\upgrade.winceimg.tag"));
}

TEST(TarskEngine, TrailingPartOfABlockStaysPlain) {
    // The enciphered part is whole blocks; the last size mod 8 bytes travel as they are.
    std::string xml = kKernelPackage + "\n\n\n\n\n\n\n";
    while (xml.size() % 8 != 5) xml += "\n";
    TestDevice td(profile());
    const std::string sealed = sealPackage(xml);
    ASSERT_EQ(sealed.substr(sealed.size() - 5), xml.substr(xml.size() - 5));
    td.put(kBin, sealed);
    Engine e;
    EXPECT_EQ(CheckForUpgrade(e.e, 1), 1u);
    EXPECT_EQ(e->m_bUpgradeKernel, 1u);
}

TEST(TarskEngine, RegionOnlyWhenAskedFor) {
    const std::string xml = packageXml("", regionSection("SN42", 1));
    {
        TestDevice td(profile());
        td.put(kBin, sealPackage(xml));
        Engine e;
        EXPECT_EQ(CheckForUpgrade(e.e, 0), 0u) << "a region-only package without the region flag";
        EXPECT_EQ(e->m_bRegionExists, 0u);
        EXPECT_EQ(U(e->m_RegionDescriptor.serialNumber), "") << "not read";
        EXPECT_TRUE(ioctls(td, "0x80002098").empty());
        EXPECT_EQ(progressLines().back(), "CANN'T FIND THE UPGRADE PACKAGES\r\n");
    }
    {
        TestDevice td(profile());
        td.put(kBin, sealPackage(xml));
        Engine e;
        EXPECT_EQ(CheckForUpgrade(e.e, 1), 1u);
        EXPECT_EQ(e->m_bUpgradeRegion, 1u);
        EXPECT_EQ(e->m_RegionDescriptor.serialNumberPresent, 1u);
        ASSERT_EQ(ioctls(td, "0x80002098").size(), 1u) << "the serial number is written during the check";
        EXPECT_EQ(progressLines(), (std::vector<std::string>{
                                       "\r\n====CHECK UBoot UPGRADE CONDITION...====\r\n", "UBoot: Bypass\r\n",
                                       "\r\n====CHECK Kernel UPGRADE CONDITION...====\r\n", "Kernel: Bypass\r\n",
                                       "Writing Serial Number... ...\r\n", "Written Serial Number: OK\r\n"}));
        EXPECT_TRUE(ioctls(td, "0x80002E78").empty()) << "the image request is BeginUpgrading's";
    }
}

TEST(TarskEngine, GarbageDecipheringToNoDescriptorBypassesEverything) {
    std::mt19937 rng(7);
    std::string junk(1000, '\0');
    for (char &c : junk) c = char(rng());
    const std::string wrongKey = [&] {
        std::string bytes = kKernelPackage;
        const DWORD key[4] = {1, 2, 3, 4};
        tarsk_encipher(reinterpret_cast<BYTE *>(&bytes[0]), DWORD(bytes.size()), key);
        return bytes;
    }();
    for (const std::string &package : {junk, wrongKey, kKernelPackage /* not enciphered */}) {
        TestDevice td(profile());
        td.put(kBin, package);
        Engine e;
        EXPECT_EQ(CheckForUpgrade(e.e, 1), 0u);
        ASSERT_FALSE(progressLines().empty());
        EXPECT_EQ(progressLines().back(), "CANN'T FIND THE UPGRADE PACKAGES\r\n");
        EXPECT_FALSE(td.exists(kXml));
        // upgrade.xml could be written, so the reports say what was compared
        const std::string head =
            "UBoot upgrade way: Normal upgrade\r\nUBoot version: Upgrade from (V2.00.0000) to (V0.00.0000)\r\n";
        EXPECT_EQ(td.get(kUbootTag).substr(0, head.size()), head);
        EXPECT_TRUE(td.exists(kKernelTag));
    }
}

TEST(TarskEngine, UnwritableFolderGivesNoDescriptor) {
    TestDevice td(profile("[storage.'\\My Flash Disk']\nread_only = true\n"));
    td.put(kBin, sealPackage(kKernelPackage));
    g_vlLogSettings.level = LOG_ERROR;
    Engine e;
    EXPECT_EQ(CheckForUpgrade(e.e, 1), 0u);
    EXPECT_NE(logText().find("ERROR, UpgradeValidate, written bytes: 0"), std::string::npos) << logText();
    EXPECT_EQ(progressLines().back(), "CANN'T FIND THE UPGRADE PACKAGES\r\n");
    EXPECT_TRUE(td.exists(kBin)) << "a read-only store keeps it";
    EXPECT_FALSE(td.exists(kKernelTag));
}

TEST(TarskEngine, WithoutCallbackNothingIsSent) {
    TestDevice td(profile());
    td.put(kBin, sealPackage(kKernelPackage));
    Engine e(nullptr);
    EXPECT_EQ(CheckForUpgrade(e.e, 1), 1u);
    EXPECT_TRUE(progressLines().empty());
}
