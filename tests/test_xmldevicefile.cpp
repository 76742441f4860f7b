// The device descriptor readers: version rule, number rule, cuts, and the "always 1" contract.
#include "framework/xmldevicefile.h"
#include "platform/platform.h"
#include "test_device.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using namespace testing_support;

namespace {

const char kPath[] = "\\My Flash Disk\\upgrade.xml";
const DWORD kPattern = 0x5A5A5A5A;

std::string el(const std::string &name, const std::string &text) { return "<" + name + ">" + text + "</" + name + ">"; }

// A descriptor for one image kind below a wrapper element, after the other kind's element as a decoy.
std::string imageXml(const std::string &kind, const std::string &upgradeBody) {
    const std::string decoy = el(kind == "kernel" ? "bootloader" : "kernel",
                                 el("upgrade", el("version", "99") + el("force", "1") + el("format", "1")));
    return "<?xml version=\"1.0\"?>\n<package><files>" + el("device", decoy + el(kind, el("upgrade", upgradeBody))) +
           "</files></package>\n";
}

// Every byte 0x5A, so that "left as it was" can be seen.
DeviceDescriptor patterned() {
    DeviceDescriptor d;
    std::memset(&d, 0x5A, sizeof d);
    return d;
}

}  // namespace

TEST(XmlDeviceFile, VersionAndNumberRules) {
    struct { const char *text; DWORD major; } versions[] = {   // only the first run of digits counts
        {"2.10.0005", 2}, {"V1.02.0003", 1}, {"12", 12}, {"V5", 5}, {"no digits", 0}, {"", 0}, {"x 42abc7", 42},
    };
    for (const auto &c : versions) EXPECT_EQ(xmldevice_parseVersion(W(c.text).c_str()), c.major) << c.text;

    struct { std::string text; LONG value; } numbers[] = {   // every character converts
        {"1", 1}, {"0", 0}, {"-1", -1}, {"0x10", 16}, {"0X1f", 31}, {"", 0}, {"-", 0}, {"0x", 0},
        {"Y", 34}, {"y", 34}, {"A", 10}, {"true", 32014}, {"false", 162394}, {"1.5", 1 * 100 - 9 * 10 + 5},
        {"-12", -12}, {" 1", 1 - 23 * 10},
        // The position counter is 8-bit signed: up to 128 characters convert; 129 to 256 start it
        // negative and give 0; 257 start it at 0 again, so only the first character counts.
        {std::string(127, '0') + "3", 3}, {std::string(120, '0') + "12345678", 12345678},
        {"9" + std::string(127, '0'), 0},   // 9 * 10^127 wraps to 0
        {std::string(129, '1'), 0}, {std::string(200, '1'), 0}, {std::string(256, '1'), 0}, {"7" + std::string(256, '1'), 7},
        // with "0x" or "-" the digits start later, but the counter still starts from the length
        {"0x" + std::string(127, '1'), 0}, {"-" + std::string(128, '1'), 0},
        // past 256 the counter wraps again: 1025 characters convert the first, 1026 the first two,
        // 1200 start it at -81
        {"3" + std::string(1024, '9'), 3}, {"42" + std::string(1024, '9'), 42}, {std::string(1200, '1'), 0},
    };
    for (const auto &c : numbers)
        EXPECT_EQ(xmldevice_convertNumber(W(c.text).c_str()), c.value) << '"' << c.text << '"';
}

TEST(XmlDeviceFile, KernelVersionAndHardwareTexts) {
    TestDevice td;
    DeviceDescriptor d = {};   // kept from file to file: the shorter texts must be terminated
    d.version[1] = d.version[2] = d.force = d.format = kPattern;
    struct { std::string version, type, hwVersion; DWORD major; } cases[] = {
        {"2.10.0005", std::string(300, 'T'), std::string(260, 'v'), 2},   // cut at 259 characters
        {"no digits", "QX7", "HW2", 0},
        {std::string(1500, 'V') + "7", std::string(1024, 'T'), std::string(5000, 'v'), 7},   // read whole
    };
    for (const auto &c : cases) {
        td.put(kPath, imageXml("kernel", el("version", c.version) +
                                             el("hardware", el("type", c.type) + el("version", c.hwVersion))));
        EXPECT_EQ(GetKernelXMLSettings(W(kPath).c_str(), &d), 1);
        EXPECT_EQ(std::vector<DWORD>(d.version, d.version + 3), std::vector<DWORD>({c.major, 0, 0})) << c.version;
        EXPECT_EQ(U(d.hardwareType), c.type.substr(0, 259));
        EXPECT_EQ(U(d.hardwareVersion), c.hwVersion.substr(0, 259));
        EXPECT_EQ(std::vector<DWORD>({d.force, d.format}), std::vector<DWORD>(2, kPattern)) << "absent: left as they were";
    }
}

TEST(XmlDeviceFile, FlagsComeFromTheNumberRule) {
    TestDevice td;
    struct { std::string text; DWORD flag; } cases[] = {
        {"1", 1}, {"0", 0}, {"-1", 0}, {"0x10", 1}, {"true", 1}, {"false", 1}, {"", 0}, {std::string(129, '1'), 0},
        {"1" + std::string(1024, '0'), 1}, {std::string(1200, '1'), 0}, {"1" + std::string(32512, '0'), 1},
        {"1" + std::string(32768, '0'), kPattern},   // over 32768 characters: unreadable, left as it was
    };
    for (const auto &c : cases) {
        td.put(kPath, imageXml("bootloader", el("force", c.text) + el("format", c.text)));
        DeviceDescriptor d = patterned();
        EXPECT_EQ(GetUbootXMLSettings(W(kPath).c_str(), &d), 1);
        EXPECT_EQ(d.force, c.flag) << c.text;
        EXPECT_EQ(d.format, c.flag) << c.text;
        EXPECT_EQ(d.version[0], kPattern) << "no version element: left as it was";
    }
}

TEST(XmlDeviceFile, ImageReadersReportSuccessForAnythingUnreadable) {
    TestDevice td;
    const DeviceDescriptor before = patterned();
    struct { const char *what; const char *content; } cases[] = {
        {"missing file", nullptr},
        {"not xml", "\x12\x99garbage<<"},
        {"no device", "<?xml version=\"1.0\"?><package><kernel><upgrade><version>5</version></upgrade></kernel></package>"},
        {"no kind", "<?xml version=\"1.0\"?><device><region/></device>"},
        {"no upgrade", "<?xml version=\"1.0\"?><device><kernel><version>5</version></kernel></device>"},
    };
    for (const auto &c : cases) {
        if (c.content) td.put(kPath, c.content);
        DeviceDescriptor d = before;
        EXPECT_EQ(GetKernelXMLSettings(W(c.content ? kPath : "\\My Flash Disk\\none.xml").c_str(), &d), 1) << c.what;
        EXPECT_EQ(std::memcmp(&d, &before, sizeof d), 0) << c.what;
    }
}

TEST(XmlDeviceFile, RegionReader) {
    TestDevice td;
    const std::string head = "<?xml version=\"1.0\"?><package><device/>";
    td.put(kPath, head + el("region", el("upgrade", el("serialnum", "SN0123456789ABCDEFGHIJKLM") + el("formatHidden", "1") +
                                                        el("formatVisible", "0x1") + el("force", "0"))) +
                      "</package>");
    RegionDescriptor r = {};
    r.force = 1;
    EXPECT_EQ(GetRegionFileSettings(W(kPath).c_str(), &r), 1);
    EXPECT_EQ(U(r.serialNumber), "SN0123456789ABCDEFG") << "25 characters cut to 19";
    // hidden, visible, force; the present flag is not the reader's business
    EXPECT_EQ(std::vector<DWORD>({r.formatHidden, r.formatVisible, r.force, r.serialNumberPresent}),
              std::vector<DWORD>({1, 1, 0, 0}));

    // Texts of 1024 characters and more are read whole, then cut or converted.
    r.formatHidden = 0;
    td.put(kPath, head + el("region", el("upgrade", el("serialnum", std::string(1024, 'S')) +
                                                        el("formatHidden", "1" + std::string(1024, '0')) +
                                                        el("formatVisible", std::string(1200, '1')))) + "</package>");
    EXPECT_EQ(GetRegionFileSettings(W(kPath).c_str(), &r), 1);
    EXPECT_EQ(U(r.serialNumber), std::string(19, 'S'));
    EXPECT_EQ(std::vector<DWORD>({r.formatHidden, r.formatVisible, r.force}), std::vector<DWORD>({1, 0, 0}));

    // "region" without "upgrade" is still found: 1, nothing changed.
    td.put(kPath, head + "<region/></package>");
    const RegionDescriptor kept = r;
    EXPECT_EQ(GetRegionFileSettings(W(kPath).c_str(), &r), 1);
    EXPECT_EQ(std::memcmp(&r, &kept, sizeof r), 0);

    // No "region" at all, or no file: 0.
    td.put(kPath, head + "</package>");
    EXPECT_EQ(GetRegionFileSettings(W(kPath).c_str(), &r), 0);
    EXPECT_EQ(GetRegionFileSettings(W("\\My Flash Disk\\none.xml").c_str(), &r), 0);
}

TEST(XmlDeviceFile, DebugLinesNameTheTextsAndTheirLengths) {
    TestDevice td;
    td.put(kDeviceSettingsFile, "");
    td.put(kPath, imageXml("kernel", el("version", "2.10.0005") + el("force", "true") + el("hardware", el("type", "QX7"))));
    g_vlLogSettings.level = LOG_DEBUG;
    DeviceDescriptor d = patterned();
    GetKernelXMLSettings(W(kPath).c_str(), &d);
    const std::string log = U(vl_ringBuffer(nullptr, nullptr));   // all of it: nothing else logs here
    for (const char *line : {"xmldevicefile.cpp(", "DEBUG, Data: (9) 2.10.0005\r\n", "DEBUG, Force upgrade: (4) true\r\n",
                             "DEBUG, Hardware type: (3) QX7\r\n"})
        EXPECT_NE(log.find(line), std::string::npos) << line << " not in: " << log;
    EXPECT_EQ(log.find("Format flash"), std::string::npos) << "no element, no line";
}
