// Scenario tests: each device folder under tests/scenarios/ is copied to a temporary folder, its
// descriptor is sealed into the program's folder with the built tarsk-pack, and the built tarsk-sim
// runs the engine on it. The checks read what a user would see afterwards: the journal, the tag
// reports, the files left on the device and the run's summary.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

namespace {

using namespace tool_test;
using nlohmann::json;

const std::string kPack = TARSK_BINARY_DIR "/tarsk-pack";
const std::string kSim = TARSK_BINARY_DIR "/tarsk-sim";

// The image request record as the journal shows its bytes: UpgradeType, UpgradeVia, UpgradeFormat
// (little-endian words) and three reserved zero words.
std::string request(unsigned type, unsigned via, unsigned format) {
    char hex[49];
    std::snprintf(hex, sizeof hex, "%02x000000%02x000000%02x000000%024d", type, via, format, 0);
    return hex;
}

const char *kCheckUBoot = "\r\n====CHECK UBoot UPGRADE CONDITION...====\r\n";
const char *kCheckKernel = "\r\n====CHECK Kernel UPGRADE CONDITION...====\r\n";
const char *kBegin = "\r\n===BEGION UPGRADING...===\r\n";
const char *kNothing = "CANN'T FIND THE UPGRADE PACKAGES\r\n";

// A tag report; every scenario device is hardware type X7, hardware version 3. The bootloader's has
// no format line (format nullptr).
std::string tag(const char *kind, const char *way, const char *format, const char *from, const char *to,
                const char *hwType, const char *hwVersion) {
    const std::string k = kind;
    return k + " upgrade way: " + way + "\r\n" + (format ? k + " upgrade Format: " + format + "\r\n" : "") + k +
           " version: Upgrade from (" + from + ") to (" + to + ")\r\n" + k + " HW Type: Upgrade from (X7) to (" +
           hwType + ")\r\n" + k + " HW Version: Upgrade from (3) to (" + hwVersion + ")\r\n";
}

struct Scenario {
    std::string name, programFolder, key;              // the package goes to fs/programFolder; key empty: the build's
    int exitCode;
    std::optional<std::string> request;                // the image request's input; nullopt: none sent
    std::vector<std::string> progress;                 // every progress text, in order
    std::optional<std::string> ubootTag, kernelTag;    // nullopt: the tag file must not exist
    bool packageKept;
    std::string summary;                               // a line the run's summary must hold
};

void PrintTo(const Scenario &s, std::ostream *os) { *os << s.name; }

const std::vector<Scenario> kScenarios = {
    {"kernel_internal", "My Flash Disk", "", 0, request(0, 2, 1),
     {kCheckUBoot, "UBoot: Bypass\r\n", kCheckKernel, "Kernel: Pass\r\n", "FORMAT Upgrade: Yes\r\n", kBegin},
     tag("UBoot", "Normal upgrade", nullptr, "V2.00.0000", "V2.00.0000", "X7", "HW2"),
     tag("Kernel", "Normal upgrade", "Yes", "V3.00.0000", "V4.00.0000", "X7", "HW2"),
     false, "kernel request: UpgradeType 0, UpgradeVia 2, UpgradeFormat 1 (accepted)"},

    {"all_from_card", "Storage Card", "", 0, request(3, 1, 0),
     {kCheckUBoot, "UBoot: Pass\r\n", kCheckKernel, "Kernel: Pass\r\n", "FORMAT Upgrade: No\r\n",
      "Writing Serial Number... ...\r\n", "Written Serial Number: OK\r\n", "Formatting Hidden Disk... ...\r\n",
      "Formatted Hidden Disk: OK\r\n", "Formatting Disk... ...\r\n", "Formatted Disk: OK\r\n", kBegin},
     tag("UBoot", "Normal upgrade", nullptr, "V2.00.0000", "V3.00.0000", "X7", ""),
     tag("Kernel", "Normal upgrade", "No", "V3.00.0000", "V5.00.0000", "X7", ""),
     true, "kernel request: UpgradeType 3, UpgradeVia 1, UpgradeFormat 0 (accepted)"},

    // Equal versions are not newer; nothing passes, so nothing is requested.
    {"nothing_newer", "My Flash Disk", "", 0, std::nullopt,
     {kCheckUBoot, "UBoot: Bypass\r\n", kCheckKernel, "Kernel: Bypass\r\n", kNothing},
     tag("UBoot", "Normal upgrade", nullptr, "V2.00.0000", "V1.00.0000", "X7", ""),
     tag("Kernel", "Normal upgrade", "No", "V3.00.0000", "V3.00.0000", "X7", ""),
     false, "kernel request: no request"},

    // A hardware version found in the device's kernel text bypasses the image even when it is newer
    // and forced; the forced bootloader alone goes, and its request carries no format.
    {"hw_match_bypass", "My Flash Disk", "", 0, request(1, 2, 0),
     {kCheckUBoot, "Force Upgrade: Yes\r\n", "UBoot: Pass\r\n", kCheckKernel, "Kernel: Bypass\r\n", kBegin},
     tag("UBoot", "Force upgrade", nullptr, "V2.00.0000", "V2.00.0000", "X7", ""),
     tag("Kernel", "Force upgrade", "No", "V3.00.0000", "V9.00.0000", "X7", "HW1"),
     false, "kernel request: UpgradeType 1, UpgradeVia 2, UpgradeFormat 0 (accepted)"},

    {"kernel_refused", "My Flash Disk", "", 1, request(0, 2, 0),
     {kCheckUBoot, "UBoot: Bypass\r\n", kCheckKernel, "Kernel: Pass\r\n", "FORMAT Upgrade: No\r\n", kBegin},
     tag("UBoot", "Normal upgrade", nullptr, "V2.00.0000", "V1.00.0000", "X7", ""),
     tag("Kernel", "Normal upgrade", "No", "V3.00.0000", "V4.00.0000", "X7", ""),
     false, "UpgradeType 0, UpgradeVia 2, UpgradeFormat 0 (refused, error 31)"},

    // Region alone: the kernel's code for selection 4 is 6.
    {"region_only", "My Flash Disk", "", 0, request(6, 2, 0),
     {kCheckUBoot, "UBoot: Bypass\r\n", kCheckKernel, "Kernel: Bypass\r\n", "Writing Serial Number... ...\r\n",
      "Written Serial Number: OK\r\n", kBegin},
     tag("UBoot", "Normal upgrade", nullptr, "V2.00.0000", "V2.00.0000", "X7", ""),
     tag("Kernel", "Normal upgrade", "No", "V3.00.0000", "V3.00.0000", "X7", ""),
     false, "kernel request: UpgradeType 6, UpgradeVia 2, UpgradeFormat 0 (accepted)"},

    // Sealed with another key: the descriptor deciphers to garbage, every record stays zero, and the
    // region (whose reader needs a region element) is not decided at all.
    {"garbage_package", "My Flash Disk", "0123456789ABCDEF0123456789ABCDEF", 0, std::nullopt,
     {kCheckUBoot, "UBoot: Bypass\r\n", kCheckKernel, "Kernel: Bypass\r\n", kNothing},
     tag("UBoot", "Normal upgrade", nullptr, "V2.00.0000", "V0.00.0000", "", ""),
     tag("Kernel", "Normal upgrade", "No", "V3.00.0000", "V0.00.0000", "", ""),
     false, "kernel request: no request"},

    // An empty package is no package: nothing is said, written or deleted.
    {"empty_package", "My Flash Disk", "", 0, std::nullopt, {}, std::nullopt, std::nullopt, true,
     "kernel request: no request"},
};

class ScenarioTest : public ::testing::TestWithParam<Scenario> {
protected:
    void TearDown() override {
        std::error_code ec;
        if (HasFailure()) std::cerr << "scenario left in " << m_work << "\n";
        else fs::remove_all(m_work, ec);
    }
    fs::path m_work;
};

TEST_P(ScenarioTest, RunsAsTheDeviceWould) {
    const Scenario &s = GetParam();
    ASSERT_FALSE((m_work = tempFolder("tarsk-scenario")).empty());
    const fs::path device = m_work / "device", program = device / "fs" / s.programFolder, package = program / "upgrade.bin";
    fs::copy(fs::path(TARSK_SOURCE_DIR) / "tests" / "scenarios" / s.name, device, fs::copy_options::recursive);
    fs::create_directories(program);
    ASSERT_EQ(run(kPack + " seal " + quote((device / "upgrade.xml").string()) + " -o " + quote(package.string()) +
                      (s.key.empty() ? "" : " --key " + s.key), m_work / "seal.out", m_work / "seal.err"), 0)
        << slurp(m_work / "seal.err");
    const std::string sealed = slurp(package);
    ASSERT_EQ(sealed.size(), fs::file_size(device / "upgrade.xml"));

    EXPECT_EQ(run(kSim + " check " + quote(device.string()), m_work / "sim.out", m_work / "sim.err"),
              s.exitCode) << slurp(m_work / "sim.err");
    EXPECT_NE(slurp(m_work / "sim.out").find(s.summary), std::string::npos) << slurp(m_work / "sim.out");

    std::vector<json> all = readJournal(device / "run" / "journal.jsonl");
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.back().value("event", ""), "end");
    EXPECT_EQ(all.back().value("reason", ""), "exit");

    std::vector<json> requests = eventsOf(all, "ioctl", "0x80002E78");
    ASSERT_EQ(requests.size(), s.request ? 1u : 0u);
    if (s.request) {
        EXPECT_EQ(requests[0].value("input", ""), *s.request);
    }
    std::vector<std::string> progress;
    for (const json &e : eventsOf(all, "progress")) progress.push_back(e.value("text", ""));
    EXPECT_EQ(progress, s.progress);

    for (auto [file, expected] : {std::pair{"upgrade.uboot.tag", s.ubootTag}, std::pair{"upgrade.winceimg.tag", s.kernelTag}}) {
        EXPECT_EQ(fs::exists(program / file), expected.has_value()) << file;
        if (expected) {
            EXPECT_EQ(slurp(program / file), *expected) << file;
        }
    }
    // The package stays on the card (and after an empty one); from internal flash it is used once.
    EXPECT_EQ(fs::exists(package), s.packageKept);
    if (s.packageKept) {
        EXPECT_EQ(slurp(package), sealed);
    }
    EXPECT_FALSE(fs::exists(program / "upgrade.xml"));
}

INSTANTIATE_TEST_SUITE_P(Devices, ScenarioTest, ::testing::ValuesIn(kScenarios),
                         [](const ::testing::TestParamInfo<Scenario> &info) { return info.param.name; });

// A bad device folder is reported on one line with exit code 2, and nothing runs.
TEST(ScenarioBadDevice, BadFoldersGiveOneErrorLine) {
    fs::path work = tempFolder("tarsk-scenario");
    ASSERT_FALSE(work.empty());
    // profile nullptr: no folder at all; "": a folder without device.toml
    struct { const char *name, *profile, *mentions; } cases[] = {
        {"missing", nullptr, "no device folder"},
        {"noprofile", "", "no device.toml"},
        {"syntax", "[kernel\nversion = 'V3'\n", "line 1"},
        {"kerneltype", "[kernel]\nversion = 3\n", "kernel.version"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fs::path dev = work / c.name;
        if (c.profile) {
            fs::create_directories(dev);
            if (*c.profile) std::ofstream(dev / "device.toml") << c.profile;
        }
        EXPECT_EQ(run(kSim + " check " + quote(dev.string()), work / "o", work / "e"), 2);
        std::string err = slurp(work / "e");
        EXPECT_EQ(err.rfind("tarsk-sim: error: ", 0), 0u) << err;
        EXPECT_NE(err.find(c.mentions), std::string::npos) << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
        EXPECT_TRUE(readJournal(dev / "run" / "journal.jsonl").empty());
    }
    std::error_code ec;
    fs::remove_all(work, ec);
}

}  // namespace
