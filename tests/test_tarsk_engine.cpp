// CheckForUpgrade on the simulated device, for what the scenario tests do not reach: no package,
// the with-region flag, a store that cannot take the descriptor, no callback, and each step of the
// package's way failing.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

using namespace engine_test;

namespace {

const char kBin[] = "\\My Flash Disk\\upgrade.bin";
const char kXml[] = "\\My Flash Disk\\upgrade.xml";
const char kKernelTag[] = "\\My Flash Disk\\upgrade.winceimg.tag";
const char kNothing[] = "CANN'T FIND THE UPGRADE PACKAGES\r\n";

// Device kernel 3 (see profile()): the kernel passes, with a format.
const std::string kKernelPackage =
    "<package><device><kernel><upgrade><version>V4</version><format>1</format></upgrade></kernel></device></package>\n";

// The kernel package padded before "</package>\n" to size bytes.
std::string padded(size_t size) {
    return std::string(kKernelPackage).insert(kKernelPackage.size() - 11, size - kKernelPackage.size(), ' ');
}

}  // namespace

// None of the failures may leave upgrade.xml behind except a store that refuses to delete it; a
// package that cannot be read says nothing and writes no tag.
TEST(TarskEngine, CheckForUpgradeOutcomes) {
    const std::string regionOnly =
        "<package><region><upgrade><serialnum>SN42</serialnum><force>1</force></upgrade></region></package>";
    struct Case {
        const char *what;
        std::string extra, package;   // profile tables; the package's plain text ("": none)
        DWORD withRegion, result;
        bool callback, packageKept, xmlLeft, tag;
        const char *said;      // the last progress line (nullptr: nothing said)
        const char *logLine;   // an ERROR line that must appear ("" for none)
    } cases[] = {
        {"no package", "", "", 1, 0, true, false, false, false, nullptr, ""},
        {"region-only package without the region flag: neither read nor decided", "", regionOnly, 0, 0, true, false,
         false, true, kNothing, ""},
        {"read-only store: no descriptor, the package kept", "[storage.'\\My Flash Disk']\nread_only = true\n",
         kKernelPackage, 1, 0, true, true, false, false, kNothing, "ERROR, UpgradeValidate, written bytes: 0"},
        // 5 bytes past a whole block: the tail travels as it is
        {"no callback: nothing sent", "", padded(kKernelPackage.size() / 8 * 8 + 13), 1, 1, false,
         false, false, true, nullptr, ""},
        // larger than any other allocation the engine makes, so only the package buffer is refused
        {"package buffer refused", "[memory]\nlargest_allocation = 16384\n", padded(20100), 1, 0, true, true, false,
         false, nullptr, ""},
        {"package unreadable", "[fail]\nReadFile = 5\n", kKernelPackage, 1, 0, true, true, false, false, nullptr, ""},
        {"no region in the package", "", kKernelPackage, 1, 1, true, false, false, true, "FORMAT Upgrade: Yes\r\n",
         "ERROR, CheckForUpgrade(): GetRegionFileSettings(\\My Flash Disk\\upgrade.xml) failed\r\n"},
        {"temporary descriptor not deletable", "[fail]\nDeleteFileW = 5\n", kKernelPackage, 1, 1, true, true, true,
         true, "FORMAT Upgrade: Yes\r\n", "ERROR, Delete temp \\My Flash Disk\\upgrade.xml failed\r\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TestDevice td(profile(c.extra));
        if (!c.package.empty()) td.put(kBin, sealPackage(c.package));
        g_vlLogSettings.level = LOG_ERROR;
        Engine e(c.callback ? recordProgress : nullptr);
        EXPECT_EQ(CheckForUpgrade(e.e, c.withRegion), c.result);
        EXPECT_EQ(e->m_bUpgradeKernel, c.result);
        EXPECT_EQ(e->m_bFormatKernel, c.result);
        EXPECT_EQ(td.exists(kBin), c.packageKept);
        EXPECT_EQ(td.exists(kXml), c.xmlLeft);
        EXPECT_EQ(td.exists(kKernelTag), c.tag);
        EXPECT_EQ(e->m_bUpgradeRegion, 0u);
        EXPECT_EQ(U(e->m_RegionDescriptor.serialNumber), "");
        EXPECT_TRUE(ioctls(td, "0x80002098").empty());
        EXPECT_EQ(progressLines().empty() ? "(none)" : progressLines().back(), c.said ? c.said : "(none)");
        EXPECT_TRUE(!*c.logLine || logText().find(c.logLine) != std::string::npos) << logText();
    }
}
