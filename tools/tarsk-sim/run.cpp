// tarsk-sim run: the whole device program (its entry, WinMain) on a device folder, as one process.
//
// The panel is echoed as it is appended (by the simulated window manager); at the end the panel's
// final text is written to DEVICE/run/panel.txt (UTF-8, "\r\n" kept) and a short summary is printed
// (with --json: one JSON object on stdout, the panel echoed to stderr).
// The run ends: "exit" when the program returns, "reset" on a reset request, "handed-over" when the
// kernel has accepted the image request and the window thread next waits for a message, "crash"
// when an exception ended the process, "timeout" at the time-out (device seconds).
//
// The screen as the run ends is drawn into DEVICE/run/screen.png; each --screen-at MS takes the
// window manager's state at that device time (a clock event) and draws it, at the end, into
// DEVICE/run/screen-at-MS.png.
#include "simtool.h"

#include "screen.h"
#include "windows.h"
#include "tarskupgrade/tarskupgrade.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <optional>

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

// Draws a picture into its file; what the summary says of it.
std::string writeScreen(const ScreenState &state, const fs::path &file) {
    std::string error, why;
    const std::string png = screenPng(state, error);
    if (png.empty()) return "not drawn: " + error;
    if (!tarsk_tools::writeFileAtomic(file, tarsk_tools::Bytes(png.begin(), png.end()), why))
        return "not written: " + why;
    return file.string();
}

// The program's entry, called below a reserved stretch of stack. On the device the process ends
// the moment WinMain returns; here another device thread (the power monitor, whose callback record
// lives in WinMain's frame) may still run for a moment while the end is written. What runs after
// the entry uses the stack above the reserve, so WinMain's frame keeps its contents until the
// process ends.
__attribute__((noinline)) int enterProgram() {
    volatile char reserve[256 * 1024];
    reserve[0] = 0;
    static WCHAR commandLine[] = {0};
    const int code = TarskEntry(reinterpret_cast<HINSTANCE>(uintptr_t(0x10000)), commandLine, SW_SHOW);
    reserve[1] = 0;   // after the call, so the call is not made as a tail call that gives the reserve up
    return code;
}

}  // namespace

void bootDevice(sim::Device &d, double timeoutSeconds, std::function<int(RunSummary &summary)> onEnd) {
    d.setEndAtHandOver(true);
    d.setEndHandler([&d, onEnd](UINT code, const std::string &reason) {
        RunSummary summary = summarizeRun(d, code, reason);
        return onEnd(summary);
    });
    const uint64_t timeoutMs = uint64_t(std::llround(timeoutSeconds * 1000.0));
    d.clock().at(timeoutMs, [&d] {
        // Ends from whatever thread moved the time on; the end handler reads no clock state.
        d.endProcess(0, "timeout");
    });
    d.install();

    std::fflush(stdout);
    int code = enterProgram();
    d.endProcess(UINT(code), "exit");
}

int run(const RunOptions &o) {
    if (!(o.timeoutSeconds > 0) || o.timeoutSeconds > 4.0e6)
        fail(2, "--timeout must be a number of device seconds above 0");
    for (double at : o.screenAtMs)
        if (!(at >= 0 && at <= 4.0e9)) fail(2, "--screen-at must be a device time in ms from 0 to 4000000000");
    // Lives until the process ends: the end handler prints through it.
    static std::optional<JsonStdout> json;
    if (o.json) json.emplace();
    Prepared p = prepareDevice(o);
    sim::Device &d = *p.dev;
    const fs::path panel = d.runDir() / "panel.txt";
    const std::string folderNote = o.device.empty() ? p.folder.string() : std::string();
    const std::vector<std::string> warnings = p.warnings;
    const std::string folder = p.folder.string();

    // The pictures asked for: each taken by a clock event (on whichever thread moves the time on),
    // all drawn by the end handler.
    auto shots = std::make_shared<std::vector<ScreenShot>>();
    auto shotsMutex = std::make_shared<std::mutex>();
    for (double at : o.screenAtMs) {
        const uint64_t ms = uint64_t(std::llround(at));
        shots->push_back({ms, d.runDir() / ("screen-at-" + std::to_string(ms) + ".png"), false, {}});
    }
    for (size_t i = 0; i < shots->size(); ++i)
        d.clock().at((*shots)[i].ms, [&d, shots, shotsMutex, i] {
            std::lock_guard<std::mutex> lock(*shotsMutex);
            (*shots)[i].state = screenState(d.windows());
            (*shots)[i].taken = true;
        });

    bootDevice(d, o.timeoutSeconds, [&d, panel, folderNote, warnings, folder, shots, shotsMutex](RunSummary &s) {
        writePanel(d, panel);
        s.warnings = warnings;
        s.screens.push_back("screen:         " + writeScreen(screenState(d.windows()), d.runDir() / "screen.png"));
        {
            std::lock_guard<std::mutex> lock(*shotsMutex);
            for (const ScreenShot &shot : *shots)
                s.screens.push_back("screen at " + std::to_string(shot.ms) + " ms: " +
                                    (shot.taken ? writeScreen(shot.state, shot.file)
                                                : "not reached (the run ended first)"));
        }
        if (json) json->print(runJson(s, folder, panel.string()));
        else printRunSummary(s, panel.string(), folderNote);
        return exitCodeFor(s.end);
    });
}

}  // namespace tarsk_sim
