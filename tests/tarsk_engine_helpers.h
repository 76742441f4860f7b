// Helpers shared by the engine's and the tools' tests: progress lines, log text, device profiles,
// descriptor records, packages, and running a built tool in a temporary folder.
#pragma once

#include "tarsklib/tarsklib.h"
#include "platform/platform.h"
#include "test_device.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace engine_test {

using testing_support::TestDevice;
using testing_support::U;
using testing_support::W;

// The progress lines the engine has sent, in order.
inline std::vector<std::string> &progressLines() {
    static std::vector<std::string> lines;
    return lines;
}
inline BOOL recordProgress(LPCWSTR line) {
    progressLines().push_back(U(line));
    return TRUE;
}

using testing_support::logText;

// The journal's kernel requests with one control code.
inline std::vector<nlohmann::json> ioctls(const TestDevice &td, const std::string &code) {
    std::vector<nlohmann::json> out;
    for (auto &ev : td.events("ioctl"))
        if (ev["code"] == code) out.push_back(ev);
    return out;
}

// A device running kernel "kernelText" and bootloader "bootText", program in the internal flash
// unless programPath says otherwise; extra tables appended as they are.
inline std::string profile(const std::string &extra = "", const std::string &kernelText = "WinCE V3.10 HW2 build",
                           const std::string &bootText = "U-Boot 2.0", const std::string &programPath = "") {
    std::string p = programPath.empty() ? "" : "[device]\nprogram = '" + programPath + "'\n";
    return p + "[kernel]\nversion = '" + kernelText + "'\nbootloader_version = '" + bootText +
           "'\nhardware_type = 'QX7'\nregion_version = 4\nhardware_version = 17\n" + extra;
}

// A descriptor record with version major, force, format and hardware texts.
inline DeviceDescriptor descriptor(DWORD major, DWORD force = 0, const std::string &hwVersion = "",
                                   DWORD format = 0, const std::string &hwType = "") {
    DeviceDescriptor d;
    std::memset(&d, 0, sizeof d);
    d.version[0] = major;
    d.force = force;
    d.format = format;
    std::u16string v = W(hwVersion), t = W(hwType);
    std::copy(v.begin(), v.end(), d.hardwareVersion);
    std::copy(t.begin(), t.end(), d.hardwareType);
    return d;
}

// An engine made on the current device, with the progress lines cleared after construction.
struct Engine {
    TarskEngine *e;
    explicit Engine(TarskProgressCallback cb = recordProgress) : e(new TarskEngine(cb)) { progressLines().clear(); }
    ~Engine() { delete e; }
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;
    TarskEngine *operator->() { return e; }
};

// The package file: the descriptor text enciphered with the build's key.
inline std::string sealPackage(std::string bytes) {
    DWORD key[4];
    tarsk_packageKey(key);
    tarsk_encipher(reinterpret_cast<BYTE *>(&bytes[0]), DWORD(bytes.size()), key);
    return bytes;
}

}  // namespace engine_test

// Running the built tools.
namespace tool_test {

namespace fs = std::filesystem;

inline std::string quote(const std::string &s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

inline std::string slurp(const fs::path &p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Runs a command line with stdout and stderr into files; returns the exit code. A sanitizer's report
// on the tool's stderr fails the test, whatever the exit code.
inline int run(const std::string &cmd, const fs::path &out, const fs::path &err) {
    int status = std::system((cmd + " >" + quote(out.string()) + " 2>" + quote(err.string())).c_str());
    const std::string errText = slurp(err);
    if (errText.find("Sanitizer") != std::string::npos) ADD_FAILURE() << cmd << "\n" << errText;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The events of a journal file, in order.
inline std::vector<nlohmann::json> readJournal(const fs::path &file) {
    std::vector<nlohmann::json> out;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) out.push_back(nlohmann::json::parse(line));
    return out;
}

// The events of a journal with one name (and one control code, when given).
inline std::vector<nlohmann::json> eventsOf(const std::vector<nlohmann::json> &all, const std::string &name,
                                            const std::string &code = "") {
    std::vector<nlohmann::json> out;
    for (const nlohmann::json &e : all)
        if (e.value("event", "") == name && (code.empty() || e.value("code", "") == code)) out.push_back(e);
    return out;
}

// A fresh folder under the system's temporary folder (empty path when it cannot be made).
inline fs::path tempFolder(const std::string &prefix) {
    std::string tmpl = (fs::temp_directory_path() / (prefix + "-XXXXXX")).string();
    return ::mkdtemp(tmpl.data()) ? fs::path(tmpl) : fs::path();
}

}  // namespace tool_test
