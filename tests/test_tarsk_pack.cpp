// tarsk-pack, run as built: sealing and opening (against the engine's own deciphering), the key
// option, the error paths that must leave no output behind, and inspect's reading of a descriptor.
#include "tarsk_engine_helpers.h"
#include "tarsk_key.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace tool_test;

const std::string kPack = TARSK_BINARY_DIR "/tarsk-pack";
const char *kOtherKey = "0123456789abcdef0123456789ABCDEF";

void write(const fs::path &p, const std::string &bytes) { std::ofstream(p, std::ios::binary) << bytes; }

class PackTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE((m_dir = tempFolder("tarsk-pack-test")).empty()); }
    void TearDown() override { std::error_code ec; fs::remove_all(m_dir, ec); }
    // Runs tarsk-pack with the arguments; stdout and stderr land in m_out and m_err.
    int pack(const std::string &args) {
        const fs::path out = m_dir / ".stdout", err = m_dir / ".stderr";
        const int rc = run(kPack + " " + args, out, err);
        m_out = slurp(out);
        m_err = slurp(err);
        return fs::remove(out) && fs::remove(err) ? rc : -1;
    }
    std::string at(const std::string &name) const { return quote((m_dir / name).string()); }
    std::string seal(const std::string &in, const std::string &out) { return "seal " + at(in) + " -o " + at(out); }
    long files() const { return std::distance(fs::directory_iterator(m_dir), fs::directory_iterator()); }
    fs::path m_dir;
    std::string m_out, m_err;
};

TEST_F(PackTest, SealOpenRoundTripIsByteExactAndTheDeviceDeciphersIt) {
    DWORD key[4];
    tarsk_packageKey(key);
    const std::string bytes("<x>\xff\x80\x00\x7f\x01\n\tabc", 13);
    for (size_t size : {0u, 7u, 8u, 13u}) {
        SCOPED_TRACE(size);
        const std::string plain = bytes.substr(0, size);
        write(m_dir / "in.xml", plain);
        ASSERT_EQ(pack(seal("in.xml", "upgrade.bin")), 0) << m_err;
        std::string sealed = slurp(m_dir / "upgrade.bin");
        ASSERT_EQ(sealed.size(), size);
        tarsk_decipher(reinterpret_cast<BYTE *>(sealed.data()), DWORD(size), key);
        EXPECT_EQ(sealed, plain) << "what the device makes of it with the build's key";
        ASSERT_EQ(pack("open " + at("upgrade.bin") + " -o " + at("out.xml")), 0) << m_err;
        EXPECT_EQ(slurp(m_dir / "out.xml"), plain);
    }
}

TEST_F(PackTest, KeyOptionOverridesTheBuildKey) {
    std::string plain = "<device><kernel><upgrade><version>V5</version></upgrade></kernel></device>\n";
    write(m_dir / "in.xml", plain);
    // The build's key written out (k0 k1 k2 k3) seals exactly as the default does.
    ASSERT_EQ(pack(seal("in.xml", "default.bin")), 0) << m_err;
    ASSERT_EQ(pack(seal("in.xml", "explicit.bin") + " --key " + TARSK_PACKAGE_KEY_TEXT), 0) << m_err;
    EXPECT_EQ(slurp(m_dir / "explicit.bin"), slurp(m_dir / "default.bin"));
    // Another key: the package differs, opens with its own key, and gives garbage with the build's.
    ASSERT_EQ(pack(seal("in.xml", "other.bin") + " --key " + kOtherKey), 0) << m_err;
    EXPECT_NE(slurp(m_dir / "other.bin"), slurp(m_dir / "default.bin"));
    ASSERT_EQ(pack("open " + at("other.bin") + " -o " + at("right.xml") + " --key " + kOtherKey), 0) << m_err;
    EXPECT_EQ(slurp(m_dir / "right.xml"), plain);
    ASSERT_EQ(pack("open " + at("other.bin") + " -o " + at("wrong.xml")), 0) << m_err;
    EXPECT_NE(slurp(m_dir / "wrong.xml"), plain);
}

// Bad input or usage: exit 2, one error line naming the problem, and no output (an existing output
// is left as it was, and no temporary file stays behind).
TEST_F(PackTest, BadInputLeavesNoOutput) {
    write(m_dir / "in.xml", "<device/>\n");
    write(m_dir / "kept.bin", "previous package");
    fs::create_directory(m_dir / "adir");
    const std::string sealKept = seal("in.xml", "kept.bin") + " --key ";
    struct Case { const char *name; std::string args, mentions; } cases[] = {
        {"short key", sealKept + "0123456789ABCDEF0123456789ABCDE", "malformed key"},
        {"long key", sealKept + "0123456789ABCDEF0123456789ABCDEF0", "malformed key"},
        {"non-hex key", "open " + at("in.xml") + " -o " + at("kept.bin") + " --key 0123456789ABCDEF0123456789ABCDEG",
         "malformed key"},
        {"prefixed key", sealKept + "0x23456789ABCDEF0123456789ABCDEF", "malformed key"},
        {"empty key", sealKept + "''", "malformed key"},
        {"missing input", seal("nosuch.xml", "kept.bin"), "nosuch.xml"},
        {"input is a folder", "open " + at("adir") + " -o " + at("kept.bin"), "adir"},
        {"no output folder", seal("in.xml", "nodir/upgrade.bin"), "nodir/upgrade.bin"},
        {"output is a folder", seal("in.xml", "adir"), "adir"},
        {"inspect missing", "inspect " + at("nosuch.bin"), "nosuch.bin"},
        {"no command", "", "subcommand"},
        {"no output", "seal " + at("in.xml"), "--output"},
        {"no package", "open", "package"},
        {"unknown option", "inspect " + at("kept.bin") + " --bogus", "--bogus"},
    };
    const long before = files();
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

TEST_F(PackTest, Help) {
    for (const char *cmd : {"", "seal ", "open ", "inspect "}) {
        EXPECT_EQ(pack(std::string(cmd) + "--help"), 0) << cmd;
        EXPECT_NE(m_out.find("Usage: tarsk-pack"), std::string::npos) << m_out;
        EXPECT_NE(m_out.find("--help"), std::string::npos);
    }
}

// A record field's line in inspect's report: "  name  "text"  -> value", under "section (".
std::string fieldLine(const std::string &report, const std::string &section, const std::string &name) {
    size_t at = report.find("\n" + section + " (");
    at = at == std::string::npos ? at : report.find("\n  " + name + " ", at);
    return at == std::string::npos ? "" : report.substr(at + 1, report.find('\n', at + 1) - at - 1);
}
std::string valueOf(const std::string &line) {
    const size_t arrow = line.rfind(" -> ");
    return arrow == std::string::npos ? "(none)" : line.substr(arrow + 4);
}

TEST_F(PackTest, InspectShowsTheDevicesReadingAndWarns) {
    write(m_dir / "in.xml",
          "<?xml version=\"1.0\"?>\n<package>\n<device>\n"
          " <kernel><upgrade><version>V1.02</version><force>true</force><format>1</format>\n"
          "  <hardware><type>" + std::string(300, 'T') + "</type><version>HW7</version></hardware></upgrade></kernel>\n"
          " <bootloader><upgrade><version>4300</version><force>-1</force><format>0</format></upgrade></bootloader>\n"
          "</device>\n"
          "<region><upgrade><serialnum>ABCDEFGHIJKLMNOPQRSTUVWXY</serialnum><force>0x10</force>"
          "<formatHidden>false</formatHidden></upgrade></region>\n</package>\n");
    ASSERT_EQ(pack(seal("in.xml", "upgrade.bin")), 0) << m_err;
    ASSERT_EQ(pack("inspect " + at("upgrade.bin")), 0) << m_err;
    const std::string &r = m_out;
    EXPECT_NE(r.find("carries: bootloader, kernel, region"), std::string::npos) << r;

    struct { const char *section, *field, *written, *read; } fields[] = {
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
    const std::string text = r;
    ASSERT_EQ(pack("inspect --json " + at("upgrade.bin")), 0) << m_err;
    const nlohmann::json j = nlohmann::json::parse(m_out);
    EXPECT_EQ(j["carries"], nlohmann::json({"bootloader", "kernel", "region"}));
    for (const auto &f : fields) {
        SCOPED_TRACE(std::string(f.section) + " " + f.field);
        const std::string line = fieldLine(text, f.section, f.field);
        EXPECT_NE(line.find(f.written), std::string::npos) << text;
        EXPECT_EQ(valueOf(line), f.read) << line;
        // The same in the JSON object: missing is null, texts unquoted.
        const nlohmann::json &field = j[f.section]["fields"][f.field];
        EXPECT_EQ(field["written"].is_null() ? "(missing)" : field["written"].dump(), f.written);
        EXPECT_EQ(field["read"].dump(), f.read);
    }
    EXPECT_EQ(j["warnings"].size(), size_t(testing_support::occurrences(text, "\nwarning: ")));
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
        EXPECT_NE(text.find(warning), std::string::npos) << "missing: " << warning << "\n" << text;
    }
    // Plain values draw no warning.
    EXPECT_EQ(text.find("kernel format \"1\""), std::string::npos) << text;
    EXPECT_EQ(text.find("bootloader format"), std::string::npos) << text;
}

TEST_F(PackTest, InspectOfAnUnusablePackageFails) {
    write(m_dir / "in.xml", "<package><device><kernel><upgrade><version>V5</version></upgrade></kernel></device></package>");
    ASSERT_EQ(pack(seal("in.xml", "upgrade.bin") + " --key " + kOtherKey), 0) << m_err;
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
    ASSERT_EQ(pack(seal("other.xml", "other.bin")), 0) << m_err;
    EXPECT_EQ(pack("inspect " + at("other.bin")), 1);
    EXPECT_NE(m_out.find("warning: no device element"), std::string::npos) << m_out;
}

}  // namespace
