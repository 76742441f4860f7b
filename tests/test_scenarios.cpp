// Scenario tests: each device folder under tests/scenarios/ is copied to a temporary folder, its
// descriptor is sealed into the program's folder with the built tarsk-pack, and the built tarsk-sim
// runs the engine on it. The checks read what a user would see afterwards: the journal, the tag
// reports, the files left on the device and the run's summary.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <tuple>
#include <vector>

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const std::string kPack = TARSK_BINARY_DIR "/tarsk-pack";
const std::string kSim = TARSK_BINARY_DIR "/tarsk-sim";

std::string quote(const std::string &s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// Runs a command line with stdout and stderr into files; returns the exit code.
int run(const std::string &cmd, const fs::path &out, const fs::path &err) {
    int status = std::system((cmd + " >" + quote(out.string()) + " 2>" + quote(err.string())).c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string slurp(const fs::path &p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<json> journal(const fs::path &file) {
    std::vector<json> out;
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line))
        if (!line.empty()) out.push_back(json::parse(line));
    return out;
}

std::vector<json> eventsOf(const std::vector<json> &all, const std::string &name, const std::string &code = "") {
    std::vector<json> out;
    for (const json &e : all)
        if (e.value("event", "") == name && (code.empty() || e.value("code", "") == code)) out.push_back(e);
    return out;
}

// Little-endian words as the journal shows input bytes.
std::string words(std::initializer_list<uint32_t> ws) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (uint32_t w : ws)
        for (int b = 0; b < 4; ++b) {
            unsigned byte = (w >> (8 * b)) & 0xFF;
            out += digits[byte >> 4];
            out += digits[byte & 15];
        }
    return out;
}

// The image request record: UpgradeType, UpgradeVia, UpgradeFormat and three reserved zero words.
std::string request(uint32_t type, uint32_t via, uint32_t format) { return words({type, via, format, 0, 0, 0}); }

// The serial number field: UTF-16LE text padded with zeros to 40 bytes.
std::string serialField(const std::string &ascii) {
    std::string out;
    for (char c : ascii) out += words({uint32_t(uint8_t(c))}).substr(0, 4);
    while (out.size() < 80) out += "00";
    return out;
}

const char *kCheckUBoot = "\r\n====CHECK UBoot UPGRADE CONDITION...====\r\n";
const char *kCheckKernel = "\r\n====CHECK Kernel UPGRADE CONDITION...====\r\n";
const char *kBegin = "\r\n===BEGION UPGRADING...===\r\n";
const char *kNothing = "CANN'T FIND THE UPGRADE PACKAGES\r\n";

std::string ubootTag(const char *way, const char *from, const char *to, const char *hwType, const char *hwVersion) {
    return std::string("UBoot upgrade way: ") + way + "\r\n" + "UBoot version: Upgrade from (" + from + ") to (" + to +
           ")\r\n" + "UBoot HW Type: Upgrade from (X7) to (" + hwType + ")\r\n" +
           "UBoot HW Version: Upgrade from (3) to (" + hwVersion + ")\r\n";
}

std::string kernelTag(const char *way, const char *format, const char *from, const char *to, const char *hwType,
                      const char *hwVersion) {
    return std::string("Kernel upgrade way: ") + way + "\r\n" + "Kernel upgrade Format: " + format + "\r\n" +
           "Kernel version: Upgrade from (" + from + ") to (" + to + ")\r\n" +
           "Kernel HW Type: Upgrade from (X7) to (" + hwType + ")\r\n" + "Kernel HW Version: Upgrade from (3) to (" +
           hwVersion + ")\r\n";
}

struct Scenario {
    std::string name;
    std::string programFolder;                 // under fs/: where the package is put
    std::string key;                           // sealing key; empty: the build's
    int exitCode;
    std::optional<std::string> request;        // the image request's input; nullopt: none sent
    bool requestAccepted;
    std::vector<std::string> progress;         // every progress text, in order
    std::optional<std::string> ubootTag;       // nullopt: the tag file must not exist
    std::optional<std::string> kernelTag;
    bool packageKept;
    std::string serial;                        // the serial number request's text; empty: none sent
    int hiddenFormats;                         // hidden-disk format requests
    bool visibleFormat;                        // sector 0 of the flash disk written
    std::string summary;                       // a line the run's summary must hold
};

void PrintTo(const Scenario &s, std::ostream *os) { *os << s.name; }

const std::vector<Scenario> kScenarios = {
    {"kernel_internal", "My Flash Disk", "", 0, request(0, 2, 1), true,
     {kCheckUBoot, "UBoot: Bypass\r\n", kCheckKernel, "Kernel: Pass\r\n", "FORMAT Upgrade: Yes\r\n", kBegin},
     ubootTag("Normal upgrade", "V2.00.0000", "V2.00.0000", "X7", "HW2"),
     kernelTag("Normal upgrade", "Yes", "V3.00.0000", "V4.00.0000", "X7", "HW2"),
     false, "", 0, false, "kernel request: UpgradeType 0, UpgradeVia 2, UpgradeFormat 1 (accepted)"},

    {"all_from_card", "Storage Card", "", 0, request(3, 1, 0), true,
     {kCheckUBoot, "UBoot: Pass\r\n", kCheckKernel, "Kernel: Pass\r\n", "FORMAT Upgrade: No\r\n",
      "Writing Serial Number... ...\r\n", "Written Serial Number: OK\r\n", "Formatting Hidden Disk... ...\r\n",
      "Formatted Hidden Disk: OK\r\n", "Formatting Disk... ...\r\n", "Formatted Disk: OK\r\n", kBegin},
     ubootTag("Normal upgrade", "V2.00.0000", "V3.00.0000", "X7", ""),
     kernelTag("Normal upgrade", "No", "V3.00.0000", "V5.00.0000", "X7", ""),
     true, "SN-0042", 1, true, "kernel request: UpgradeType 3, UpgradeVia 1, UpgradeFormat 0 (accepted)"},

    // Equal versions are not newer; nothing passes, so nothing is requested.
    {"nothing_newer", "My Flash Disk", "", 0, std::nullopt, false,
     {kCheckUBoot, "UBoot: Bypass\r\n", kCheckKernel, "Kernel: Bypass\r\n", kNothing},
     ubootTag("Normal upgrade", "V2.00.0000", "V1.00.0000", "X7", ""),
     kernelTag("Normal upgrade", "No", "V3.00.0000", "V3.00.0000", "X7", ""),
     false, "", 0, false, "kernel request: no request"},

    // A hardware version found in the device's kernel text bypasses the image even when it is newer
    // and forced; the forced bootloader alone goes, and its request carries no format.
    {"hw_match_bypass", "My Flash Disk", "", 0, request(1, 2, 0), true,
     {kCheckUBoot, "Force Upgrade: Yes\r\n", "UBoot: Pass\r\n", kCheckKernel, "Kernel: Bypass\r\n", kBegin},
     ubootTag("Force upgrade", "V2.00.0000", "V2.00.0000", "X7", ""),
     kernelTag("Force upgrade", "No", "V3.00.0000", "V9.00.0000", "X7", "HW1"),
     false, "", 0, false, "kernel request: UpgradeType 1, UpgradeVia 2, UpgradeFormat 0 (accepted)"},

    {"kernel_refused", "My Flash Disk", "", 1, request(0, 2, 0), false,
     {kCheckUBoot, "UBoot: Bypass\r\n", kCheckKernel, "Kernel: Pass\r\n", "FORMAT Upgrade: No\r\n", kBegin},
     ubootTag("Normal upgrade", "V2.00.0000", "V1.00.0000", "X7", ""),
     kernelTag("Normal upgrade", "No", "V3.00.0000", "V4.00.0000", "X7", ""),
     false, "", 0, false, "UpgradeType 0, UpgradeVia 2, UpgradeFormat 0 (refused, error 31)"},

    // Region alone: the kernel's code for selection 4 is 6.
    {"region_only", "My Flash Disk", "", 0, request(6, 2, 0), true,
     {kCheckUBoot, "UBoot: Bypass\r\n", kCheckKernel, "Kernel: Bypass\r\n", "Writing Serial Number... ...\r\n",
      "Written Serial Number: OK\r\n", kBegin},
     ubootTag("Normal upgrade", "V2.00.0000", "V2.00.0000", "X7", ""),
     kernelTag("Normal upgrade", "No", "V3.00.0000", "V3.00.0000", "X7", ""),
     false, "A1B2C3", 0, false, "kernel request: UpgradeType 6, UpgradeVia 2, UpgradeFormat 0 (accepted)"},

    // Sealed with another key: the descriptor deciphers to garbage, every record stays zero, and the
    // region (whose reader needs a region element) is not decided at all.
    {"garbage_package", "My Flash Disk", "0123456789ABCDEF0123456789ABCDEF", 0, std::nullopt, false,
     {kCheckUBoot, "UBoot: Bypass\r\n", kCheckKernel, "Kernel: Bypass\r\n", kNothing},
     ubootTag("Normal upgrade", "V2.00.0000", "V0.00.0000", "", ""),
     kernelTag("Normal upgrade", "No", "V3.00.0000", "V0.00.0000", "", ""),
     false, "", 0, false, "kernel request: no request"},

    // An empty package is no package: nothing is said, written or deleted.
    {"empty_package", "My Flash Disk", "", 0, std::nullopt, false, {}, std::nullopt, std::nullopt, true, "", 0,
     false, "kernel request: no request"},
};

class ScenarioTest : public ::testing::TestWithParam<Scenario> {
protected:
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "tarsk-scenario-XXXXXX").string();
        std::vector<char> name(tmpl.begin(), tmpl.end());
        name.push_back('\0');
        ASSERT_NE(::mkdtemp(name.data()), nullptr);
        m_work = name.data();
        m_device = m_work / "device";
        fs::copy(fs::path(TARSK_SOURCE_DIR) / "tests" / "scenarios" / GetParam().name, m_device,
                 fs::copy_options::recursive);
    }
    void TearDown() override {
        std::error_code ec;
        if (HasFailure()) std::cerr << "scenario left in " << m_work << "\n";
        else fs::remove_all(m_work, ec);
    }
    fs::path m_work, m_device;
};

TEST_P(ScenarioTest, RunsAsTheDeviceWould) {
    const Scenario &s = GetParam();
    fs::path program = m_device / "fs" / s.programFolder;
    fs::create_directories(program);
    fs::path package = program / "upgrade.bin";

    std::string seal = kPack + " seal " + quote((m_device / "upgrade.xml").string()) + " -o " + quote(package.string());
    if (!s.key.empty()) seal += " --key " + s.key;
    ASSERT_EQ(run(seal, m_work / "seal.out", m_work / "seal.err"), 0) << slurp(m_work / "seal.err");
    std::string sealed = slurp(package);
    ASSERT_EQ(sealed.size(), fs::file_size(m_device / "upgrade.xml"));

    int rc = run(kSim + " check " + quote(m_device.string()) + " --time-scale 0.001", m_work / "sim.out",
                 m_work / "sim.err");
    EXPECT_EQ(rc, s.exitCode) << slurp(m_work / "sim.err");
    EXPECT_NE(slurp(m_work / "sim.out").find(s.summary), std::string::npos) << slurp(m_work / "sim.out");

    std::vector<json> all = journal(m_device / "run" / "journal.jsonl");
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.back().value("event", ""), "end");
    EXPECT_EQ(all.back().value("reason", ""), "exit");

    // The image request: exactly one, with the expected record, or none.
    std::vector<json> requests = eventsOf(all, "ioctl", "0x80002E78");
    if (s.request) {
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_EQ(requests[0].value("input", ""), *s.request);
        EXPECT_EQ(requests[0].value("ok", !s.requestAccepted), s.requestAccepted);
        if (!s.requestAccepted) {
            EXPECT_EQ(requests[0].value("error", 0), 31);
        }
    } else {
        EXPECT_TRUE(requests.empty());
    }

    std::vector<std::string> progress;
    for (const json &e : eventsOf(all, "progress")) progress.push_back(e.value("text", ""));
    EXPECT_EQ(progress, s.progress);

    // The region work.
    std::vector<json> serials = eventsOf(all, "ioctl", "0x80002098");
    if (s.serial.empty()) {
        EXPECT_TRUE(serials.empty());
    } else {
        ASSERT_EQ(serials.size(), 1u);
        EXPECT_EQ(serials[0].value("input", ""), serialField(s.serial));
    }
    EXPECT_EQ(eventsOf(all, "ioctl", "0x80002EB4").size(), size_t(s.hiddenFormats));
    bool sectorZeroWritten = false;
    for (const json &e : eventsOf(all, "disk_ioctl", "0x00000003"))
        if (e.value("ok", false) && e.value("sector", -1) == 0) sectorZeroWritten = true;
    EXPECT_EQ(sectorZeroWritten, s.visibleFormat);
    if (s.visibleFormat) {
        EXPECT_EQ(eventsOf(all, "deactivate_device").size(), 1u);
        EXPECT_EQ(eventsOf(all, "activate_device").size(), 1u);
    }

    // The tag reports, byte for byte.
    for (auto [file, expected] : {std::pair{"upgrade.uboot.tag", s.ubootTag}, std::pair{"upgrade.winceimg.tag", s.kernelTag}}) {
        SCOPED_TRACE(file);
        if (expected) {
            ASSERT_TRUE(fs::exists(program / file));
            EXPECT_EQ(slurp(program / file), *expected);
        } else {
            EXPECT_FALSE(fs::exists(program / file));
        }
    }

    // The package stays on the card (and after an empty one); from internal flash it is used once.
    if (s.packageKept) {
        ASSERT_TRUE(fs::exists(package));
        EXPECT_EQ(slurp(package), sealed);
    } else {
        EXPECT_FALSE(fs::exists(package));
    }
    EXPECT_FALSE(fs::exists(program / "upgrade.xml"));
}

INSTANTIATE_TEST_SUITE_P(Devices, ScenarioTest, ::testing::ValuesIn(kScenarios),
                         [](const ::testing::TestParamInfo<Scenario> &info) { return info.param.name; });

// A second start from internal flash finds no package (the first deleted it) and says nothing; on the
// card the package is examined again and requested again.
TEST(ScenarioRepeat, SecondStartFindsThePackageOnlyOnTheCard) {
    for (auto [name, folder, requestsAfterTwo] :
         {std::tuple{"kernel_internal", "My Flash Disk", 1u}, std::tuple{"all_from_card", "Storage Card", 2u}}) {
        SCOPED_TRACE(name);
        std::string tmpl = (fs::temp_directory_path() / "tarsk-scenario-XXXXXX").string();
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        ASSERT_NE(::mkdtemp(buf.data()), nullptr);
        fs::path work = buf.data(), device = work / "device";
        fs::copy(fs::path(TARSK_SOURCE_DIR) / "tests" / "scenarios" / name, device, fs::copy_options::recursive);
        fs::path program = device / "fs" / folder;
        fs::create_directories(program);
        ASSERT_EQ(run(kPack + " seal " + quote((device / "upgrade.xml").string()) + " -o " +
                          quote((program / "upgrade.bin").string()),
                      work / "o", work / "e"),
                  0);
        fs::path journal1 = work / "first.jsonl", journal2 = work / "second.jsonl";
        ASSERT_EQ(run(kSim + " check " + quote(device.string()) + " --time-scale 0.001 --journal " +
                          quote(journal1.string()),
                      work / "o", work / "e"),
                  0);
        ASSERT_EQ(run(kSim + " check " + quote(device.string()) + " --time-scale 0.001 --journal " +
                          quote(journal2.string()),
                      work / "o", work / "e"),
                  0);
        size_t requests = eventsOf(journal(journal1), "ioctl", "0x80002E78").size() +
                          eventsOf(journal(journal2), "ioctl", "0x80002E78").size();
        EXPECT_EQ(requests, requestsAfterTwo);
        if (requestsAfterTwo == 1) {
            EXPECT_TRUE(eventsOf(journal(journal2), "progress").empty());
        }
        std::error_code ec;
        fs::remove_all(work, ec);
    }
}

// A bad device folder is reported on one line with exit code 2, and nothing runs.
TEST(ScenarioBadDevice, BadFoldersGiveOneErrorLine) {
    std::string tmpl = (fs::temp_directory_path() / "tarsk-scenario-XXXXXX").string();
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    ASSERT_NE(::mkdtemp(buf.data()), nullptr);
    fs::path work = buf.data();
    struct Case {
        const char *name;
        const char *profile;     // nullptr: no folder at all; "": a folder without device.toml
        const char *mentions;
    } cases[] = {
        {"missing", nullptr, "no device folder"},
        {"noprofile", "", "no device.toml"},
        {"syntax", "[kernel\nversion = 'V3'\n", "line 1"},
        {"kerneltype", "[kernel]\nversion = 3\n", "kernel.version"},
        {"failcode", "[kernel.fail]\n'IMAGE' = 31\n", "kernel.fail"},
    };
    for (const Case &c : cases) {
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
        EXPECT_TRUE(journal(dev / "run" / "journal.jsonl").empty());
    }
    std::error_code ec;
    fs::remove_all(work, ec);
}

}  // namespace
