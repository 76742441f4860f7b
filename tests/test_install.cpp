// The tools as installed: cmake --install into a temporary prefix, the prefix moved elsewhere, and
// both tools run from there. They find the default device from their own location, never through a
// path into the source or build tree.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

namespace {

using namespace tool_test;

TEST(Install, ToolsRunFromAMovedPrefix) {
    fs::path tmp = tempFolder("tarsk-install");
    ASSERT_FALSE(tmp.empty());
    fs::path staged = tmp / "staged", prefix = tmp / "moved", device = tmp / "device";
    ASSERT_EQ(run(quote(TARSK_CMAKE_COMMAND) + " --install " + quote(TARSK_BINARY_DIR) + " --prefix " +
                      quote(staged.string()),
                  tmp / "out", tmp / "err"),
              0)
        << slurp(tmp / "err");
    fs::rename(staged, prefix);

    // The tools and the default device, and nothing of a run or of the tests.
    std::vector<std::string> bin;
    for (const auto &e : fs::directory_iterator(prefix / "bin")) bin.push_back(e.path().filename());
    std::sort(bin.begin(), bin.end());
    EXPECT_EQ(bin, (std::vector<std::string>{"tarsk-pack", "tarsk-sim"}));
    fs::path installed = prefix / "share" / "tarsk" / "devices" / "default";
    EXPECT_TRUE(fs::is_regular_file(installed / "device.toml"));
    EXPECT_FALSE(fs::exists(installed / "run"));

    // Without DEVICE, run works on a copy in the temporary folder (TMPDIR).
    const std::string sim = "TMPDIR=" + quote(tmp.string()) + " " + quote((prefix / "bin" / "tarsk-sim").string());
    const std::string pack = quote((prefix / "bin" / "tarsk-pack").string());
    const std::string package = (device / "fs" / "My Flash Disk" / "upgrade.bin").string();
    struct Step {
        std::string command;
        int rc;
        std::string out;   // a part of what the tool prints
    } steps[] = {
        {sim + " new " + quote(device.string()), 0, "wrote the default device to " + device.string()},
        {pack + " inspect " + quote(package), 0, "deciphered with the build's key"},
        {sim + " run " + quote(device.string()), 0, "handed-over"},   // the run takes the package
        {sim + " run", 0, "the default device, copied to " + tmp.string() + "/tarsk-sim-"},
    };
    for (const Step &s : steps) {
        int rc = run(s.command, tmp / "out", tmp / "err");
        std::string out = slurp(tmp / "out");
        EXPECT_EQ(rc, s.rc) << s.command << "\n" << out << slurp(tmp / "err");
        EXPECT_NE(out.find(s.out), std::string::npos) << s.command << "\n" << out;
    }

    // Without its share/ folder the tool says where it looked for the default device.
    fs::remove_all(prefix / "share");
    EXPECT_EQ(run(sim + " new " + quote((tmp / "other").string()), tmp / "out", tmp / "err"), 2);
    EXPECT_NE(slurp(tmp / "err").find("default device is missing: no " + (installed / "device.toml").string()),
              std::string::npos)
        << slurp(tmp / "err");
    EXPECT_FALSE(fs::exists(tmp / "other"));
    fs::remove_all(tmp);
}

}  // namespace
