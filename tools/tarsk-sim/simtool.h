// tarsk-sim's shared pieces: device folders (the default device, sealing its sample package),
// making the simulated device with clear errors, and the commands' entry points.
#pragma once

#include "../tarsk-pack/tarsk_package.h"

#include "device.h"

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
// Makes the device (the profile's syntax errors and bad values give one error line, exit 2).
std::unique_ptr<sim::Device> makeDevice(const fs::path &folder, const fs::path &journal);
// Prints a note when the program's folder holds no package.
void notePackage(const fs::path &folder, sim::Device &dev);

struct RunOptions {
    std::string device, journal;
    double timeScale = -1;     // below 0: the profile's (default 0, deterministic)
    double timeoutSeconds = 600;
    bool seal = false;
    std::vector<double> screenAtMs;   // run only: device times to picture the screen at, besides the end
};
// The device folder and the device for a command: the time scale, --seal, the note on a missing
// package. folder receives the folder run on.
std::unique_ptr<sim::Device> prepareDevice(const RunOptions &options, fs::path &folder);
int check(const RunOptions &options);
int run(const RunOptions &options);
int makeNew(const std::string &dir);

struct SettingsOptions {
    std::string device;
    bool json = false;
};
// Shows device_settings.ini as the device reads it; exit 1 when the device finds no such file.
int settings(const SettingsOptions &options);

}  // namespace tarsk_sim
