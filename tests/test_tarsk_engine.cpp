// CheckForUpgrade on the simulated device, for what the scenario tests do not reach: no package,
// the with-region flag, a store that cannot take the descriptor, and no callback.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

using namespace engine_test;

namespace {

const char kBin[] = "\\My Flash Disk\\upgrade.bin";
const char kXml[] = "\\My Flash Disk\\upgrade.xml";
const char kKernelTag[] = "\\My Flash Disk\\upgrade.winceimg.tag";

// Device kernel 3 (see profile()): the kernel passes, with a format.
const std::string kKernelPackage =
    "<package><device><kernel><upgrade><version>V4</version><format>1</format></upgrade></kernel></device></package>\n";

}  // namespace

TEST(TarskEngine, NoPackageIsNoError) {
    TestDevice td(profile());
    td.put("\\My Flash Disk\\tarsk.exe", "");
    Engine e;
    EXPECT_EQ(CheckForUpgrade(e.e, 1), 0u);
    EXPECT_TRUE(progressLines().empty());
    EXPECT_FALSE(td.exists(kKernelTag));
}

TEST(TarskEngine, RegionIsNeitherReadNorDecidedWithoutTheRegionFlag) {
    TestDevice td(profile());
    td.put(kBin, sealPackage("<package><region><upgrade><serialnum>SN42</serialnum><force>1</force></upgrade></region>"
                             "</package>"));
    Engine e;
    EXPECT_EQ(CheckForUpgrade(e.e, 0), 0u) << "a region-only package without the region flag";
    EXPECT_EQ(e->m_bRegionExists, 0u);
    EXPECT_EQ(U(e->m_RegionDescriptor.serialNumber), "") << "not read";
    EXPECT_TRUE(ioctls(td, "0x80002098").empty());
    EXPECT_EQ(progressLines().back(), "CANN'T FIND THE UPGRADE PACKAGES\r\n");
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

// The package's size is 5 past a whole block: the last 5 bytes travel as they are.
TEST(TarskEngine, WithoutCallbackNothingIsSentAndTheTailStaysPlain) {
    std::string xml = kKernelPackage;
    xml.insert(xml.size() - 11, (13 - xml.size() % 8) % 8, ' ');   // before "</package>\n"
    ASSERT_EQ(xml.size() % 8, 5u);
    const std::string sealed = sealPackage(xml);
    ASSERT_EQ(sealed.substr(sealed.size() - 5), "age>\n");
    TestDevice td(profile());
    td.put(kBin, sealed);
    Engine e(nullptr);
    EXPECT_EQ(CheckForUpgrade(e.e, 1), 1u);
    EXPECT_EQ(e->m_bUpgradeKernel, 1u);
    EXPECT_EQ(e->m_bFormatKernel, 1u);
    EXPECT_TRUE(progressLines().empty());
    EXPECT_FALSE(td.exists(kBin)) << "used once from internal flash";
    EXPECT_FALSE(td.exists(kXml)) << "the plain descriptor is temporary";
}

// Each step of the package's way can fail on the device; none of them may leave upgrade.xml behind
// except a store that refuses to delete it.
TEST(TarskEngine, PackageFailurePaths) {
    // Larger than any other allocation the engine makes, so only the package buffer is refused.
    std::string big = kKernelPackage;
    big.insert(big.size() - 11, 20000, ' ');
    struct Case {
        const char *what;
        std::string extra;        // profile tables
        std::string package;
        DWORD result;
        bool packageKept;
        bool xmlLeft;
        const char *logLine;      // an ERROR line that must appear ("" for none)
    } cases[] = {
        {"package buffer refused", "[memory]\nlargest_allocation = 16384\n", big, 0, true, false, ""},
        {"package unreadable", "[fail]\nReadFile = 5\n", kKernelPackage, 0, true, false, ""},
        {"no region in the package", "", kKernelPackage, 1, false, false,
         "ERROR, CheckForUpgrade(): GetRegionFileSettings(\\My Flash Disk\\upgrade.xml) failed\r\n"},
        {"temporary descriptor not deletable", "[fail]\nDeleteFileW = 5\n", kKernelPackage, 1, true, true,
         "ERROR, Delete temp \\My Flash Disk\\upgrade.xml failed\r\n"},
    };
    for (const Case &c : cases) {
        TestDevice td(profile(c.extra));
        td.put(kBin, sealPackage(c.package));
        Engine e;
        EXPECT_EQ(CheckForUpgrade(e.e, 1), c.result) << c.what;
        EXPECT_EQ(td.exists(kBin), c.packageKept) << c.what;
        EXPECT_EQ(td.exists(kXml), c.xmlLeft) << c.what;
        EXPECT_EQ(e->m_bUpgradeRegion, 0u) << c.what;
        EXPECT_TRUE(!*c.logLine || logText().find(c.logLine) != std::string::npos) << c.what << "\n" << logText();
        EXPECT_TRUE(c.result != 0 || progressLines().empty()) << c.what << ": a failed read says nothing";
    }
}
