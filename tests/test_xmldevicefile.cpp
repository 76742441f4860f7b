// The device descriptor readers: version rule, number rule, cuts, and the "always 1" contract.
#include "framework/xmldevicefile.h"
#include "platform/platform.h"
#include "test_device.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using testing_support::TestDevice;
using testing_support::U;
using testing_support::W;

namespace {

const char kPath[] = "\\My Flash Disk\\upgrade.xml";

std::string imageXml(const std::string &kind, const std::string &upgradeBody) {
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<package><device><" + kind + "><upgrade>" +
           upgradeBody + "</upgrade></" + kind + "></device></package>\n";
}

std::string element(const std::string &name, const std::string &text) {
    return "<" + name + ">" + text + "</" + name + ">";
}

// A record filled with a pattern, so that "left as it was" can be seen.
DeviceDescriptor patterned() {
    DeviceDescriptor d;
    std::memset(&d, 0, sizeof d);
    d.version[0] = 7; d.version[1] = 8; d.version[2] = 9;
    d.force = 1;
    d.format = 1;
    std::u16string t = W("old-type"), v = W("old-version");
    std::copy(t.begin(), t.end(), d.hardwareType);
    std::copy(v.begin(), v.end(), d.hardwareVersion);
    return d;
}

bool sameRecord(const DeviceDescriptor &a, const DeviceDescriptor &b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace

TEST(XmlDeviceFile, VersionTakesTheFirstRunOfDigitsOnly) {
    TestDevice td;
    struct { const char *text; DWORD major; } cases[] = {
        {"2.10.0005", 2}, {"V1.02.0003", 1}, {"12", 12}, {"V5", 5}, {"no digits", 0}, {"", 0}, {"x 42abc7", 42},
    };
    for (const auto &c : cases) {
        td.put(kPath, imageXml("kernel", element("version", c.text)));
        DeviceDescriptor d = patterned();
        EXPECT_EQ(GetKernelXMLSettings(W(kPath).c_str(), &d), 1);
        EXPECT_EQ(d.version[0], c.major) << c.text;
        EXPECT_EQ(d.version[1], 0u) << c.text;
        EXPECT_EQ(d.version[2], 0u) << c.text;
        EXPECT_EQ(d.force, 1u) << "an absent element leaves its field";
    }
}

TEST(XmlDeviceFile, NumberRuleConvertsEveryCharacter) {
    struct { const char *text; LONG value; } cases[] = {
        {"1", 1}, {"0", 0}, {"-1", -1}, {"0x10", 16}, {"0X1f", 31}, {"", 0}, {"-", 0}, {"0x", 0},
        {"Y", 34}, {"y", 34}, {"A", 10}, {"true", 32014}, {"false", 162394}, {"1.5", 1 * 100 - 9 * 10 + 5},
        {"-12", -12}, {" 1", 1 - 23 * 10},
    };
    for (const auto &c : cases)
        EXPECT_EQ(xmldevice_convertNumber(W(c.text).c_str()), c.value) << '"' << c.text << '"';
}

TEST(XmlDeviceFile, NumberRulePositionCounterIsEightBitSigned) {
    // Up to 128 characters convert; 129 to 256 start the counter negative and give 0; 257 starts it
    // at 0 again, so only the first character counts.
    EXPECT_EQ(xmldevice_convertNumber(W(std::string(127, '0') + "3").c_str()), 3);
    EXPECT_EQ(xmldevice_convertNumber(W("9" + std::string(127, '0')).c_str()), 0) << "9 * 10^127 wraps to 0";
    EXPECT_EQ(xmldevice_convertNumber(W(std::string(120, '0') + "12345678").c_str()), 12345678);
    for (size_t n : {129u, 130u, 200u, 255u, 256u})
        EXPECT_EQ(xmldevice_convertNumber(W(std::string(n, '1')).c_str()), 0) << n;
    EXPECT_EQ(xmldevice_convertNumber(W("7" + std::string(256, '1')).c_str()), 7);
    // With "0x" or "-" the digits start later, but the counter still starts from the length.
    EXPECT_EQ(xmldevice_convertNumber(W("0x" + std::string(127, '1')).c_str()), 0);
    EXPECT_EQ(xmldevice_convertNumber(W("-" + std::string(128, '1')).c_str()), 0);
}

TEST(XmlDeviceFile, FlagsComeFromTheNumberRule) {
    TestDevice td;
    struct { const char *text; DWORD flag; } cases[] = {
        {"1", 1}, {"0", 0}, {"-1", 0}, {"0x10", 1}, {"true", 1}, {"false", 1}, {"", 0},
    };
    for (const auto &c : cases) {
        td.put(kPath, imageXml("bootloader", element("force", c.text) + element("format", c.text)));
        DeviceDescriptor d = patterned();
        d.force = 7;
        d.format = 7;
        EXPECT_EQ(GetUbootXMLSettings(W(kPath).c_str(), &d), 1);
        EXPECT_EQ(d.force, c.flag) << c.text;
        EXPECT_EQ(d.format, c.flag) << c.text;
        EXPECT_EQ(d.version[0], 7u) << "no version element: left as it was";
    }
    td.put(kPath, imageXml("bootloader", element("force", std::string(129, '1'))));
    DeviceDescriptor d = patterned();
    GetUbootXMLSettings(W(kPath).c_str(), &d);
    EXPECT_EQ(d.force, 0u) << "a 129-character text converts to 0";
}

TEST(XmlDeviceFile, HardwareTextsAreCutAt259Characters) {
    TestDevice td;
    const std::string type300(300, 'T'), version260(260, 'v');
    td.put(kPath, imageXml("kernel", "<hardware>" + element("type", type300) + element("version", version260) +
                                         "</hardware>"));
    DeviceDescriptor d = patterned();
    GetKernelXMLSettings(W(kPath).c_str(), &d);
    EXPECT_EQ(U(d.hardwareType), std::string(259, 'T'));
    EXPECT_EQ(U(d.hardwareVersion), std::string(259, 'v'));

    td.put(kPath, imageXml("kernel", "<hardware>" + element("type", "QX7") + element("version", "HW2") + "</hardware>"));
    GetKernelXMLSettings(W(kPath).c_str(), &d);
    EXPECT_EQ(U(d.hardwareType), "QX7");
    EXPECT_EQ(U(d.hardwareVersion), "HW2");
}

TEST(XmlDeviceFile, EachReaderReadsItsOwnKind) {
    TestDevice td;
    td.put(kPath, "<?xml version=\"1.0\"?><root><x><device>"
                  "<bootloader><upgrade><version>3</version></upgrade></bootloader>"
                  "<kernel><upgrade><version>9</version><format>1</format></upgrade></kernel>"
                  "</device></x></root>");
    DeviceDescriptor boot, kernel;
    std::memset(&boot, 0, sizeof boot);
    std::memset(&kernel, 0, sizeof kernel);
    GetUbootXMLSettings(W(kPath).c_str(), &boot);
    GetKernelXMLSettings(W(kPath).c_str(), &kernel);
    EXPECT_EQ(boot.version[0], 3u);
    EXPECT_EQ(boot.format, 0u);
    EXPECT_EQ(kernel.version[0], 9u);
    EXPECT_EQ(kernel.format, 1u);
    EXPECT_EQ(kernel.flashVersion[0], 0u) << "never read from the file";
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
        EXPECT_TRUE(sameRecord(d, before)) << c.what;
    }
}

TEST(XmlDeviceFile, RegionReader) {
    TestDevice td;
    const std::string head = "<?xml version=\"1.0\"?><package><device/>";
    td.put(kPath, head + "<region><upgrade>" + element("serialnum", "SN0123456789ABCDEFGHIJKLM") +
                      element("formatHidden", "1") + element("formatVisible", "0x1") + element("force", "0") +
                      "</upgrade></region></package>");
    RegionDescriptor r;
    std::memset(&r, 0, sizeof r);
    r.force = 1;
    EXPECT_EQ(GetRegionFileSettings(W(kPath).c_str(), &r), 1);
    EXPECT_EQ(U(r.serialNumber), "SN0123456789ABCDEFG") << "25 characters cut to 19";
    EXPECT_EQ(r.formatHidden, 1u);
    EXPECT_EQ(r.formatVisible, 1u);
    EXPECT_EQ(r.force, 0u);
    EXPECT_EQ(r.serialNumberPresent, 0u) << "not the reader's business";

    // "region" without "upgrade" is still found: 1, nothing changed.
    td.put(kPath, head + "<region/></package>");
    RegionDescriptor kept = r;
    EXPECT_EQ(GetRegionFileSettings(W(kPath).c_str(), &r), 1);
    EXPECT_EQ(std::memcmp(&r, &kept, sizeof r), 0);

    // No "region" at all, or no file: 0.
    td.put(kPath, head + "</package>");
    EXPECT_EQ(GetRegionFileSettings(W(kPath).c_str(), &r), 0);
    EXPECT_EQ(GetRegionFileSettings(W("\\My Flash Disk\\none.xml").c_str(), &r), 0);
}

TEST(XmlDeviceFile, DebugLinesNameTheTextsAndTheirLengths) {
    TestDevice td;
    td.put(kPath, imageXml("kernel", element("version", "2.10.0005") + element("force", "true") +
                                         "<hardware>" + element("type", "QX7") + "</hardware>"));
    g_vlLogSettings.level = LOG_DEBUG;
    DeviceDescriptor d = patterned();
    GetKernelXMLSettings(W(kPath).c_str(), &d);
    int position = 0;
    BOOL wrapped = FALSE;
    const std::string log = U(vl_ringBuffer(&position, &wrapped));
    EXPECT_NE(log.find("xmldevicefile.cpp("), std::string::npos) << log;
    EXPECT_NE(log.find("DEBUG, Data: (9) 2.10.0005\r\n"), std::string::npos) << log;
    EXPECT_NE(log.find("DEBUG, Force upgrade: (4) true\r\n"), std::string::npos) << log;
    EXPECT_NE(log.find("DEBUG, Hardware type: (3) QX7\r\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("Format flash"), std::string::npos) << "no element, no line";
}
