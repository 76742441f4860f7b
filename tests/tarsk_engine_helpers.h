// Helpers shared by the engine's tests: the progress lines the engine sent, the log text, device
// profiles, package building and descriptor records.
#pragma once

#include "tarsklib/tarsklib.h"
#include "platform/platform.h"
#include "test_device.h"

#include <cstring>
#include <string>
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
inline void recordProgress(LPCWSTR line) { progressLines().push_back(U(line)); }

// The log text written so far (the writer's ring of the last 2047 characters).
inline std::string logText() {
    int position = 0;
    BOOL wrapped = FALSE;
    const WCHAR *ring = vl_ringBuffer(&position, &wrapped);
    if (!wrapped) return U(ring);
    return U(ring + position + 1) + U(ring);
}

// A profile: a device running kernel "kernelText" and bootloader "bootText", program in the
// internal flash unless programPath says otherwise; extra tables appended as they are.
inline std::string profile(const std::string &extra = "", const std::string &kernelText = "WinCE V3.10 HW2 build",
                           const std::string &bootText = "U-Boot 2.0", const std::string &programPath = "") {
    std::string p;
    if (!programPath.empty()) p += "[device]\nprogram = '" + programPath + "'\n";
    p += "[kernel]\nversion = '" + kernelText + "'\nbootloader_version = '" + bootText +
         "'\nhardware_type = 'QX7'\nregion_version = 4\nhardware_version = 17\n";
    p += extra;
    return p;
}

// A descriptor record with version major, force, format and hardware version text.
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
    explicit Engine(TarskProgressCallback cb = recordProgress) : e(Tarsk_CreateEngine(cb)) { progressLines().clear(); }
    ~Engine() { Tarsk_DestroyEngine(e); }
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;
    TarskEngine *operator->() { return e; }
};

// The package file: the descriptor text enciphered with the build's key.
inline std::string sealPackage(const std::string &xml) {
    std::string bytes = xml;
    DWORD key[4];
    tarsk_packageKey(key);
    tarsk_encipher(reinterpret_cast<BYTE *>(&bytes[0]), DWORD(bytes.size()), key);
    return bytes;
}

inline std::string imageSection(const std::string &kind, int version, int force = 0, int format = 0,
                                const std::string &hwVersion = "", const std::string &hwType = "QX7") {
    return "<" + kind + "><upgrade><version>V" + std::to_string(version) + "</version><force>" +
           std::to_string(force) + "</force><format>" + std::to_string(format) +
           "</format><hardware><type>" + hwType + "</type><version>" + hwVersion +
           "</version></hardware></upgrade></" + kind + ">";
}

inline std::string regionSection(const std::string &serial, int force, int hidden = 0, int visible = 0) {
    return "<region><upgrade><serialnum>" + serial + "</serialnum><formatHidden>" + std::to_string(hidden) +
           "</formatHidden><formatVisible>" + std::to_string(visible) + "</formatVisible><force>" +
           std::to_string(force) + "</force></upgrade></region>";
}

inline std::string packageXml(const std::string &deviceBody, const std::string &region = "") {
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<package><device>" + deviceBody + "</device>" + region +
           "</package>\n";
}

}  // namespace engine_test
