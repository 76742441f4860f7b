// tarsk-sim run: the whole device program (its entry, WinMain) on a device folder, as one process.
//
// The panel is echoed as it is appended (by the simulated window manager); at the end the panel's
// final text is written to DEVICE/run/panel.txt (UTF-8, "\r\n" kept) and a short summary is printed.
// The run ends: "exit" when the program returns, "reset" on a reset request, "handed-over" when the
// kernel has accepted the image request and the window thread next waits for a message, "crash"
// when an exception ended the process, "timeout" at the time-out (device seconds).
//
// The screen as the run ends is drawn into DEVICE/run/screen.png; each --screen-at MS takes the
// window manager's state at that device time (a clock event) and draws it, at the end, into
// DEVICE/run/screen-at-MS.png.
#include "simtool.h"

#include "screen.h"

#include "power.h"
#include "windows.h"
#include "kernel.h"
#include "tarskupgrade/tarskupgrade.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <mutex>

namespace tarsk_sim {

namespace {

// Exit codes of the tool for each way the run ends.
int exitCodeFor(const std::string &reason) {
    return reason == "exit" || reason == "reset" || reason == "handed-over" ? 0 : 1;
}

void writePanel(sim::Device &dev, const fs::path &file) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << sim::utf8(dev.windows().panelText());
}

// The screen at a device time: taken by a clock event, drawn at the end.
struct ScreenShot {
    uint64_t ms;
    fs::path file;
    bool taken = false;
    ScreenState state;
};

// Draws a picture into its file; the line for the summary.
std::string writeScreen(const ScreenState &state, const fs::path &file) {
    std::string error, why;
    const std::string png = screenPng(state, error);
    if (png.empty()) return "not drawn: " + error;
    if (!tarsk_tools::writeFileAtomic(file, tarsk_tools::Bytes(png.begin(), png.end()), why))
        return "not written: " + why;
    return file.string();
}

void printSummary(sim::Device &dev, UINT code, const std::string &reason, const fs::path &panel,
                  const std::vector<std::string> &screens, const std::string &folderNote) {
    std::printf("\n---- summary ----\n");
    std::printf("ended:          %s", reason.c_str());
    if (reason == "exit") std::printf(", code %u", code);
    if (reason == "crash") std::printf(", exception 0x%08X", code);
    std::printf(" at %u ms of device time\n", dev.clock().ticks());
    int requests = 0;
    for (const auto &r : dev.kernel().acceptedImageRequests()) {
        std::printf("kernel request: UpgradeType %u, UpgradeVia %u, UpgradeFormat %u (accepted)\n", r.upgradeType,
                    r.upgradeVia, r.upgradeFormat);
        ++requests;
    }
    for (const auto &ev : dev.journal().events("ioctl"))
        if (ev.value("code", "") == sim::hexCode(sim::kIoctlImageUpgrade) && !ev.value("ok", false)) {
            std::printf("kernel request: refused, error %d\n", ev.value("error", 0));
            ++requests;
        }
    if (!requests) std::printf("kernel request: none\n");
    for (const auto &ev : dev.journal().events("process_start"))
        std::printf("started:        %s (%s)\n", ev.value("path", "").c_str(),
                    ev.value("ok", false) ? "ok" : ("failed, error " + std::to_string(ev.value("error", 0))).c_str());
    std::printf("panel:          %s\n", panel.c_str());
    for (const std::string &line : screens) std::printf("%s\n", line.c_str());
    std::printf("journal:        %s\n", dev.journal().file().c_str());
    if (!folderNote.empty()) std::printf("device folder:  %s\n", folderNote.c_str());
}

}  // namespace

int run(const RunOptions &o) {
    if (!(o.timeoutSeconds > 0) || o.timeoutSeconds > 4.0e6)
        fail(2, "--timeout must be a number of device seconds above 0");
    fs::path folder;
    std::unique_ptr<sim::Device> dev = prepareDevice(o, folder);
    sim::Device &d = *dev;
    const fs::path panel = d.runDir() / "panel.txt";
    const std::string folderNote = o.device.empty() ? folder.string() : std::string();

    // The pictures asked for: each taken by a clock event (on whichever thread moves the time on),
    // all drawn by the end handler.
    auto shots = std::make_shared<std::vector<ScreenShot>>();
    auto shotsMutex = std::make_shared<std::mutex>();
    for (double at : o.screenAtMs) {
        if (!(at <= 4.0e9)) fail(2, "--screen-at must be a device time in ms from 0 to 4000000000");
        const uint64_t ms = uint64_t(std::llround(at));
        shots->push_back({ms, d.runDir() / ("screen-at-" + std::to_string(ms) + ".png"), false, {}});
    }
    for (size_t i = 0; i < shots->size(); ++i)
        d.clock().at((*shots)[i].ms, [&d, shots, shotsMutex, i] {
            std::lock_guard<std::mutex> lock(*shotsMutex);
            (*shots)[i].state = screenState(d.windows());
            (*shots)[i].taken = true;
        });

    d.setEndAtHandOver(true);
    d.setEndHandler([&d, panel, folderNote, shots, shotsMutex](UINT code, const std::string &reason) {
        writePanel(d, panel);
        std::vector<std::string> screens = {"screen:         " + writeScreen(screenState(d.windows()),
                                                                             d.runDir() / "screen.png")};
        std::lock_guard<std::mutex> lock(*shotsMutex);
        for (const ScreenShot &shot : *shots)
            screens.push_back("screen at " + std::to_string(shot.ms) + " ms: " +
                              (shot.taken ? writeScreen(shot.state, shot.file) : "not reached (the run ended first)"));
        printSummary(d, code, reason, panel, screens, folderNote);
        return exitCodeFor(reason);
    });
    const uint64_t timeoutMs = uint64_t(std::llround(o.timeoutSeconds * 1000.0));
    d.clock().at(timeoutMs, [&d] {
        // Ends from whatever thread moved the time on; the end handler reads no clock state.
        d.endProcess(0, "timeout");
    });
    d.install();

    std::fflush(stdout);
    static WCHAR commandLine[] = {0};
    int code = TarskEntry(reinterpret_cast<HINSTANCE>(uintptr_t(0x10000)), commandLine, SW_SHOW);
    d.endProcess(UINT(code), "exit");
}

}  // namespace tarsk_sim
