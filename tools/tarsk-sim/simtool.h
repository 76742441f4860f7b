// tarsk-sim's shared pieces: device folders (the default device, sealing its sample package),
// making the simulated device with clear errors, and the commands' entry points.
#pragma once

#include "../tarsk-pack/tarsk_package.h"

#include "device.h"
#include "summary.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tarsk_sim {

using tarsk_tools::fs::path;
namespace fs = std::filesystem;

extern const char *kTool;

// A failure that ends the command: exit code and one line for stderr.
struct Failure {
    int code;
    std::string text;
};
[[noreturn]] void fail(int code, const std::string &text);

// The device folder to run on: DEVICE as given (checked), or, when empty, a fresh temporary copy of
// the default device with its sample package sealed (a line on stdout says where).
fs::path prepareFolder(const std::string &deviceArg);
// Seals DEVICE/upgrade.xml with the build's key into upgrade.bin in the program's folder.
fs::path sealSample(const fs::path &device, const std::u16string &program);
// The host path of "upgrade.bin" in the program's folder of the device folder.
fs::path packagePath(const fs::path &device, const std::u16string &program);
// Copies the default device into an empty folder and seals its package there.
void writeDefaultDevice(const fs::path &dest);
// The profile's syntax, checked first so that an error is reported with its line (exit 2).
void checkProfileSyntax(const fs::path &file);
// Makes the device (the profile's syntax errors and bad values give one error line, exit 2). The
// profile's complaints that did not stop it go to stderr and, when given, into warnings.
std::unique_ptr<sim::Device> makeDevice(const fs::path &folder, const fs::path &journal,
                                        std::vector<std::string> *warnings = nullptr);
// The note for a program's folder that holds no package, else empty.
std::string packageNote(const fs::path &folder, sim::Device &dev);

struct RunOptions {
    std::string device, journal;
    double timeScale = -1;     // below 0: the profile's (default 0, deterministic)
    double timeoutSeconds = 600;
    bool seal = false;
    bool json = false;
    std::vector<double> screenAtMs;   // run only: device times to picture the screen at, besides the end
};
// The device folder and the device for a command: the time scale, --seal, the note on a missing
// package (printed, and kept in warnings with the profile's complaints).
struct Prepared {
    fs::path folder;
    std::unique_ptr<sim::Device> dev;
    std::vector<std::string> warnings;
};
Prepared prepareDevice(const RunOptions &options);
int check(const RunOptions &options);
int run(const RunOptions &options);
int makeNew(const std::string &dir);

// A whole boot of the device program on a device made for it, in the way `run` does it: the run
// ends at the hand-over, at the time-out (device seconds) or when the program ends; onEnd receives
// the run's summary and gives the process's exit code. Never returns.
[[noreturn]] void bootDevice(sim::Device &dev, double timeoutSeconds,
                             std::function<int(RunSummary &summary)> onEnd);

struct FleetOptions {
    std::string package;
    std::vector<std::string> devices;
    bool seal = false, json = false, csv = false;
    double timeoutSeconds = 600;
    unsigned jobs = 0;         // 0: one per core
};
int fleet(const FleetOptions &options);

struct SettingsOptions {
    std::string device;
    bool json = false;
};
// Shows device_settings.ini as the device reads it; exit 1 when the device finds no such file.
int settings(const SettingsOptions &options);

}  // namespace tarsk_sim
