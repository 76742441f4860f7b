// What tarsk-sim reports about a run: each fact gathered once, here, and then printed as text, as
// one JSON object, or taken by the fleet for its row.
#pragma once

#include "device.h"
#include "tarsklib/tarsklib.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace tarsk_sim {

using ordered_json = nlohmann::ordered_json;

// The engine's decisions: the three images and the kernel's format.
struct Decisions {
    bool bootloader = false, kernel = false, region = false, format = false;
};
Decisions decisionsOf(const TarskEngine &engine);
const char *passText(bool pass);   // "Pass" or "Bypass"

// An image request the kernel received (the journal's "ioctl" events of its control code).
struct ImageRequest {
    std::string hex;   // the 24-byte record as the journal holds it
    DWORD upgradeType = 0, upgradeVia = 0, upgradeFormat = 0;
    bool accepted = false;
    int error = 0;
    // The decisions the record stands for: UpgradeType names the images (it is never sent for none,
    // so 0 is the kernel alone), UpgradeFormat the kernel's format. nullopt for a type the engine
    // never sends.
    std::optional<Decisions> decisions() const;
    std::string outcome() const;   // "accepted" or "refused, error N"
};
std::vector<ImageRequest> imageRequests(const sim::Journal &journal);
// "request" (hex or null), "request_accepted" and "request_error" (null without a request) of the
// first request into j.
void addRequest(ordered_json &j, const std::vector<ImageRequest> &requests);

// A program start the device was asked for.
struct ProcessStart {
    std::string path;
    bool ok = false;
    int error = 0;
};

// A whole run of the device program, when it has ended.
struct RunSummary {
    std::string end;        // exit, reset, handed-over, crash, timeout
    UINT code = 0;          // the exit code (exit) or the exception code (crash)
    DWORD ticks = 0;        // device time at the end
    Decisions decisions;
    std::vector<ImageRequest> requests;
    std::vector<ProcessStart> starts;
    std::vector<std::string> warnings;
    std::string journal;
    // The pictures of the screen written at the end (tarsk-sim run): one summary line each.
    std::vector<std::string> screens;
    // The follow-up program that started (the first start that succeeded), or empty.
    std::string started() const;
};

// Gathers the summary at the end of a run. The decisions come from the engine itself while it lives
// (the program's g_pTarsk: a run that was handed over, timed out, crashed or was reset). When the
// program has returned, its engine is gone; the session then ran to its end, so the image request
// in the journal says what was decided (the engine sends it whenever anything passed, with the
// images and the format in the record), and no request means nothing passed. The panel and the tag
// reports are not used: ShowInfo hides the panel's decision lines, and tag files stay on the device
// from earlier runs.
RunSummary summarizeRun(sim::Device &dev, UINT code, const std::string &reason);
void printRunSummary(const RunSummary &s, const std::string &panel, const std::string &folderNote);
// The run's object; the fleet's row is its "device" and the decision fields of it.
ordered_json runJson(const RunSummary &s, const std::string &device, const std::string &panel);

// With --json, stdout must hold exactly one JSON object: from construction on, whatever the command
// and the device print to stdout (the panel echo, notes) goes to stderr, and print() writes the
// object to the real stdout.
class JsonStdout {
public:
    JsonStdout();
    ~JsonStdout();
    JsonStdout(const JsonStdout &) = delete;
    JsonStdout &operator=(const JsonStdout &) = delete;
    void print(const ordered_json &j);
private:
    int m_out = -1;
};

}  // namespace tarsk_sim
