// tarsk-sim settings, run as built on a small device folder: the JSON object of what the device reads
// (its library's answers, the sections applied, the values as held, the warnings) and the exit codes.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

namespace {

using namespace tool_test;

// Runs the tool on a device whose library reports hardware version 3 and GPS chip 4 and whose
// paths.xml puts the settings in "\My Flash Disk\data", holding ini (no file when empty).
int settings(const std::string &ini, std::string &out, std::string &err) {
    fs::path dir = tempFolder("tarsk-settings"), disk = dir / "fs" / "My Flash Disk";
    std::ofstream(dir / "device.toml") << "[registry.'HKLM\\Information']\nInternal = '\\My Flash Disk'\n"
                                          "[library.'device.dll']\nconstruct = 1\ngetHardwareVersion = 3\n"
                                          "getGPSType = 4\n";
    fs::create_directories(disk / "data");
    std::ofstream(disk / "device.dll") << "";
    std::ofstream(disk / "paths.xml") << "<filegroup><name>settings</name><basepath>data</basepath></filegroup>";
    if (!ini.empty()) std::ofstream(disk / "data" / "device_settings.ini", std::ios::binary) << ini;
    int rc = run(TARSK_BINARY_DIR "/tarsk-sim settings --json " + quote(dir.string()), dir / "out", dir / "err");
    out = slurp(dir / "out");
    err = slurp(dir / "err");
    fs::remove_all(dir);
    return rc;
}

TEST(SimSettingsTool, JsonShowsWhatTheDeviceReadsAndExitCodes) {
    std::string out, err;
    ASSERT_EQ(settings("[Default]\r\ngps baud rate=0x2580\r\nSharedMemHeap=TRUE \r\n[GPS=SIRF]\r\ngps port=COM1\r\n"
                       "[gps=atheros]\r\ngps port=COM1234567X\r\n[KEYMAP]\r\nMenu=12 \r\n", out, err), 0) << err;
    nlohmann::json j = nlohmann::json::parse(out);
    EXPECT_EQ(j["file"], "\\My Flash Disk\\data\\device_settings.ini");
    EXPECT_EQ(j["hardware_version"].dump() + " " + j["hardware_section"].dump() + " " + j["gps_section"].dump(),
              "3 \"HWVersion=3\" \"GPS=ATHEROS\"");
    EXPECT_EQ(j["sections"], nlohmann::json({"Default", "gps=atheros", "KEYMAP"}));
    EXPECT_EQ(j["settings"]["gps baud rate"], 9600);
    EXPECT_EQ(j["settings"]["gps port"], "COM1234567");
    EXPECT_EQ(j["settings"].size(), 44u);
    EXPECT_EQ(j["keymap"].size(), 23u);
    EXPECT_EQ(j["keymap"]["Menu"], 97);
    // one warning each, in file order: the blank after TRUE, the other chip, the full port, "12 "
    const std::vector<std::string> about = {"SharedMemHeap", "[GPS=SIRF]", "gps port", "Menu"};
    ASSERT_EQ(j["warnings"].size(), about.size()) << j["warnings"].dump(1);
    for (size_t i = 0; i < about.size(); ++i)
        EXPECT_NE(j["warnings"][i].get<std::string>().find(about[i]), std::string::npos) << j["warnings"][i];

    // No settings file: 1, naming it; no device folder: 2.
    EXPECT_EQ(settings("", out, err), 1);
    EXPECT_EQ(out, "");
    EXPECT_NE(err.find("\\My Flash Disk\\data\\device_settings.ini"), std::string::npos) << err;
    EXPECT_EQ(run(TARSK_BINARY_DIR "/tarsk-sim settings /nonexistent/device", "/dev/null", "/dev/null"), 2);
}

}  // namespace
