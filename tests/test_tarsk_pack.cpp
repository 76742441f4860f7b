// tarsk-pack, run as built: sealing and opening (against the engine's own deciphering), the key
// option, the error paths that must leave no output behind, and inspect's reading of a descriptor.
#include "tarsk_key.h"
#include "tarsklib/tarsklib.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

const std::string kPack = TARSK_BINARY_DIR "/tarsk-pack";
const char *kOtherKey = "0123456789abcdef0123456789ABCDEF";

std::string quote(const std::string &s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::string slurp(const fs::path &p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write(const fs::path &p, const std::string &bytes) { std::ofstream(p, std::ios::binary) << bytes; }

class PackTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "tarsk-pack-test-XXXXXX").string();
        std::vector<char> name(tmpl.begin(), tmpl.end());
        name.push_back('\0');
        ASSERT_NE(::mkdtemp(name.data()), nullptr);
        m_dir = name.data();
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(m_dir, ec);
    }
    // Runs tarsk-pack with the arguments; stdout and stderr land in m_out and m_err.
    int pack(const std::string &args) {
        fs::path out = m_dir / ".stdout", err = m_dir / ".stderr";
        int status = std::system((kPack + " " + args + " >" + quote(out.string()) + " 2>" + quote(err.string())).c_str());
        m_out = slurp(out);
        m_err = slurp(err);
        fs::remove(out);
        fs::remove(err);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string at(const std::string &name) const { return quote((m_dir / name).string()); }
    // The folder's files, apart from the captured output.
    std::vector<std::string> files() const {
        std::vector<std::string> out;
        for (const auto &e : fs::directory_iterator(m_dir)) out.push_back(e.path().filename().string());
        std::sort(out.begin(), out.end());
        return out;
    }
    fs::path m_dir;
    std::string m_out, m_err;
};

std::string randomBytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string out;
    for (size_t i = 0; i < n; ++i) out.push_back(char(gen() & 0xFF));
    return out;
}

std::string decipherOnDevice(std::string bytes) {
    DWORD key[4];
    tarsk_packageKey(key);
    tarsk_decipher(reinterpret_cast<BYTE *>(bytes.data()), DWORD(bytes.size()), key);
    return bytes;
}

TEST_F(PackTest, SealOpenRoundTripIsByteExactAndTheDeviceDeciphersIt) {
    for (size_t size : {0u, 7u, 8u, 13u}) {
        SCOPED_TRACE(size);
        std::string plain = randomBytes(size, unsigned(size) + 1);
        write(m_dir / "in.xml", plain);
        ASSERT_EQ(pack("seal " + at("in.xml") + " -o " + at("upgrade.bin")), 0) << m_err;
        std::string sealed = slurp(m_dir / "upgrade.bin");
        ASSERT_EQ(sealed.size(), size);
        // Whole blocks are enciphered; the tail shorter than 8 bytes is stored as it is.
        size_t whole = size / 8 * 8;
        EXPECT_EQ(sealed.substr(whole), plain.substr(whole));
        if (whole) {
            EXPECT_NE(sealed.substr(0, whole), plain.substr(0, whole));
        }
        // What the device's engine makes of it with the build's key.
        EXPECT_EQ(decipherOnDevice(sealed), plain);

        ASSERT_EQ(pack("open " + at("upgrade.bin") + " -o " + at("out.xml")), 0) << m_err;
        EXPECT_EQ(slurp(m_dir / "out.xml"), plain);
    }
}

TEST_F(PackTest, KeyOptionOverridesTheBuildKey) {
    std::string plain = "<device><kernel><upgrade><version>V5</version></upgrade></kernel></device>\n";
    write(m_dir / "in.xml", plain);

    // The build's key written out (k0 k1 k2 k3) seals exactly as the default does.
    ASSERT_EQ(pack("seal " + at("in.xml") + " -o " + at("default.bin")), 0) << m_err;
    ASSERT_EQ(pack("seal " + at("in.xml") + " -o " + at("explicit.bin") + " --key " + TARSK_PACKAGE_KEY_TEXT), 0) << m_err;
    EXPECT_EQ(slurp(m_dir / "explicit.bin"), slurp(m_dir / "default.bin"));

    // Another key: the package differs, opens with its own key, and gives garbage with the build's.
    ASSERT_EQ(pack("seal " + at("in.xml") + " -o " + at("other.bin") + " --key " + kOtherKey), 0) << m_err;
    EXPECT_NE(slurp(m_dir / "other.bin"), slurp(m_dir / "default.bin"));
    ASSERT_EQ(pack("open " + at("other.bin") + " -o " + at("right.xml") + " --key " + kOtherKey), 0) << m_err;
    EXPECT_EQ(slurp(m_dir / "right.xml"), plain);
    ASSERT_EQ(pack("open " + at("other.bin") + " -o " + at("wrong.xml")), 0) << m_err;
    std::string wrong = slurp(m_dir / "wrong.xml");
    EXPECT_EQ(wrong.size(), plain.size());
    EXPECT_NE(wrong.substr(0, plain.size() / 8 * 8), plain.substr(0, plain.size() / 8 * 8));
}

// Bad input: exit 2, one error line naming the problem, and no output (an existing output is left
// as it was, and no temporary file stays behind).
TEST_F(PackTest, BadInputLeavesNoOutput) {
    write(m_dir / "in.xml", "<device/>\n");
    write(m_dir / "kept.bin", "previous package");
    fs::create_directory(m_dir / "adir");
    struct Case {
        const char *name;
        std::string args;
        std::string mentions;
    } cases[] = {
        {"short key", "seal " + at("in.xml") + " -o " + at("kept.bin") + " --key 0123456789ABCDEF0123456789ABCDE",
         "malformed key"},
        {"long key", "seal " + at("in.xml") + " -o " + at("kept.bin") + " --key 0123456789ABCDEF0123456789ABCDEF0",
         "malformed key"},
        {"non-hex key", "open " + at("in.xml") + " -o " + at("kept.bin") + " --key 0123456789ABCDEF0123456789ABCDEG",
         "malformed key"},
        {"prefixed key", "seal " + at("in.xml") + " -o " + at("kept.bin") + " --key 0x23456789ABCDEF0123456789ABCDEF",
         "malformed key"},
        {"empty key", "seal " + at("in.xml") + " -o " + at("kept.bin") + " --key ''", "malformed key"},
        {"missing input", "seal " + at("nosuch.xml") + " -o " + at("kept.bin"), "nosuch.xml"},
        {"input is a folder", "open " + at("adir") + " -o " + at("kept.bin"), "adir"},
        {"no output folder", "seal " + at("in.xml") + " -o " + at("nodir/upgrade.bin"), "nodir/upgrade.bin"},
        {"output is a folder", "seal " + at("in.xml") + " -o " + at("adir"), "adir"},
        {"inspect missing", "inspect " + at("nosuch.bin"), "nosuch.bin"},
    };
    std::vector<std::string> before = files();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(pack(c.args), 2);
        EXPECT_EQ(m_err.rfind("tarsk-pack: error: ", 0), 0u) << m_err;
        EXPECT_NE(m_err.find(c.mentions), std::string::npos) << m_err;
        EXPECT_EQ(std::count(m_err.begin(), m_err.end(), '\n'), 1) << m_err;
        EXPECT_EQ(files(), before);
        EXPECT_EQ(slurp(m_dir / "kept.bin"), "previous package");
        EXPECT_TRUE(fs::is_empty(m_dir / "adir"));
    }
}

TEST_F(PackTest, UsageErrorsAndHelp) {
    EXPECT_EQ(pack(""), 2);
    EXPECT_EQ(m_err.rfind("tarsk-pack: error: ", 0), 0u) << m_err;
    EXPECT_EQ(pack("seal " + at("x.xml")), 2);   // no -o
    EXPECT_EQ(pack("open"), 2);
    EXPECT_EQ(pack("inspect " + at("x.bin") + " --bogus"), 2);
    for (const char *cmd : {"", "seal ", "open ", "inspect "}) {
        SCOPED_TRACE(cmd);
        EXPECT_EQ(pack(std::string(cmd) + "--help"), 0);
        EXPECT_NE(m_out.find("Usage: tarsk-pack"), std::string::npos) << m_out;
        EXPECT_NE(m_out.find("--help"), std::string::npos);
    }
}

// The line of a record field in inspect's report: "  name  "text"  -> value".
std::string fieldLine(const std::string &report, const std::string &section, const std::string &field) {
    size_t at = report.find("\n" + section + " (");
    if (at == std::string::npos) return "";
    size_t end = report.find("\n\n", at + 1);
    std::istringstream lines(report.substr(at + 1, end == std::string::npos ? std::string::npos : end - at - 1));
    std::string line;
    while (std::getline(lines, line))
        if (line.rfind("  " + field + " ", 0) == 0) return line;
    return "";
}

std::string valueOf(const std::string &line) {
    size_t arrow = line.rfind(" -> ");
    return arrow == std::string::npos ? "" : line.substr(arrow + 4);
}

TEST_F(PackTest, InspectShowsTheDevicesReadingAndWarns) {
    std::string longType(300, 'T');
    write(m_dir / "in.xml",
          "<?xml version=\"1.0\"?>\n<package>\n<device>\n"
          " <kernel><upgrade><version>V1.02</version><force>true</force><format>1</format>\n"
          "  <hardware><type>" + longType + "</type><version>HW7</version></hardware></upgrade></kernel>\n"
          " <bootloader><upgrade><version>4300</version><force>-1</force><format>0</format></upgrade></bootloader>\n"
          "</device>\n"
          "<region><upgrade><serialnum>ABCDEFGHIJKLMNOPQRSTUVWXY</serialnum><force>0x10</force>"
          "<formatHidden>false</formatHidden></upgrade></region>\n</package>\n");
    ASSERT_EQ(pack("seal " + at("in.xml") + " -o " + at("upgrade.bin")), 0) << m_err;
    ASSERT_EQ(pack("inspect " + at("upgrade.bin")), 0) << m_err;
    const std::string &r = m_out;
    EXPECT_NE(r.find("carries: bootloader, kernel, region"), std::string::npos) << r;

    struct Field {
        const char *section, *field, *written, *read;
    } fields[] = {
        {"kernel", "version", "\"V1.02\"", "1"},
        {"kernel", "force", "\"true\"", "1"},
        {"kernel", "format", "\"1\"", "1"},
        {"kernel", "hardware version", "\"HW7\"", "\"HW7\""},
        {"bootloader", "version", "\"4300\"", "4300"},
        {"bootloader", "force", "\"-1\"", "0"},
        {"bootloader", "hardware type", "(missing)", "\"\""},
        {"region", "serialnum", "\"ABCDEFGHIJKLMNOPQRSTUVWXY\"", "\"ABCDEFGHIJKLMNOPQRS\""},
        {"region", "force", "\"0x10\"", "1"},
        {"region", "formatHidden", "\"false\"", "1"},
        {"region", "formatVisible", "(missing)", "0"},
    };
    for (const Field &f : fields) {
        SCOPED_TRACE(std::string(f.section) + " " + f.field);
        std::string line = fieldLine(r, f.section, f.field);
        ASSERT_FALSE(line.empty()) << r;
        EXPECT_NE(line.find(f.written), std::string::npos) << line;
        EXPECT_EQ(valueOf(line), f.read) << line;
    }

    for (const char *warning : {
             "warning: kernel version \"V1.02\" holds more than one number: the device reads only the first, 1",
             "warning: kernel force \"true\" is not \"0\" or \"1\": the device reads it as 1",
             "warning: kernel hardware type has 300 characters: the device keeps the first 259",
             "warning: kernel hardware version \"HW7\": a device whose kernel version text contains it BYPASSES",
             "warning: bootloader version 4300 wraps",
             "warning: bootloader force \"-1\" is not \"0\" or \"1\": the device reads it as 0",
             "warning: region serialnum has 25 characters: the device keeps the first 19",
             "warning: region formatHidden \"false\" is not \"0\" or \"1\": the device reads it as 1",
         }) {
        EXPECT_NE(r.find(warning), std::string::npos) << "missing: " << warning << "\n" << r;
    }
    // Plain values draw no warning.
    EXPECT_EQ(r.find("kernel format \"1\""), std::string::npos) << r;
    EXPECT_EQ(r.find("bootloader format"), std::string::npos) << r;
}

TEST_F(PackTest, InspectOfAnUnusablePackageFails) {
    write(m_dir / "in.xml", "<package><device><kernel><upgrade><version>V5</version></upgrade></kernel></device></package>");
    ASSERT_EQ(pack("seal " + at("in.xml") + " -o " + at("upgrade.bin") + " --key " + kOtherKey), 0) << m_err;
    // Read with the build's key it is garbage: nothing the device can use, every image bypassed.
    EXPECT_EQ(pack("inspect " + at("upgrade.bin")), 1);
    EXPECT_NE(m_out.find("carries: nothing the device can use"), std::string::npos) << m_out;
    EXPECT_NE(m_out.find("warning: the descriptor is not XML"), std::string::npos) << m_out;
    EXPECT_EQ(valueOf(fieldLine(m_out, "kernel", "version")), "0") << m_out;
    // With its own key it reads.
    EXPECT_EQ(pack("inspect " + at("upgrade.bin") + " --key " + kOtherKey), 0);
    EXPECT_EQ(valueOf(fieldLine(m_out, "kernel", "version")), "5") << m_out;
    EXPECT_NE(m_out.find("carries: kernel\n"), std::string::npos) << m_out;
    EXPECT_NE(m_out.find("warning: no region element"), std::string::npos) << m_out;

    // XML without a device or region element: readable, but nothing to use.
    write(m_dir / "other.xml", "<catalog><item>1</item></catalog>");
    ASSERT_EQ(pack("seal " + at("other.xml") + " -o " + at("other.bin")), 0) << m_err;
    EXPECT_EQ(pack("inspect " + at("other.bin")), 1);
    EXPECT_NE(m_out.find("warning: no device element"), std::string::npos) << m_out;
}

}  // namespace
