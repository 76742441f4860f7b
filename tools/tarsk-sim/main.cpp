// tarsk-sim: runs the device program, or its upgrade engine alone, against a simulated device and
// shows what the device would show and do.
//
//   tarsk-sim run [DEVICE] [--time-scale S] [--timeout SECONDS] [--journal FILE] [--seal] [--screen-at MS]
//                 [--json]
//   tarsk-sim check [DEVICE] [--time-scale S] [--journal FILE] [--seal] [--json]
//   tarsk-sim settings [DEVICE] [--json]
//   tarsk-sim fleet PACKAGE DEVICE... [--seal] [--json | --csv] [--timeout SECONDS] [--jobs N]
//   tarsk-sim new DIR
//
// Without DEVICE, run, check and settings work on a fresh copy of the built-in default device
// (share/tarsk/devices/default beside the tool's bin/ folder, or in the build folder) with its sample
// descriptor sealed into the program's folder.
#include "simtool.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <iostream>

using namespace tarsk_sim;

namespace {

std::string nonNegative(const std::string &text) {
    char *end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    return (end && !*end && v >= 0) ? std::string() : "must be a number, 0 or above, not '" + text + "'";
}

// The options run and check share.
void addDeviceOptions(CLI::App *cmd, RunOptions &o) {
    cmd->add_option("device", o.device, "the device folder (device.toml, fs/, run/)");
    cmd->add_option("--time-scale", o.timeScale,
                    "device time against real time: 0 deterministic device time (the default unless the "
                    "profile says otherwise), 1 real time, 0.01 a hundred times faster")
        ->check(nonNegative);
    cmd->add_option("--journal", o.journal, "the journal file (default DEVICE/run/journal.jsonl)");
    cmd->add_flag("--seal", o.seal,
                  "first seal DEVICE/upgrade.xml with the build's key into upgrade.bin in the program's folder");
    cmd->add_flag("--json", o.json,
                  "print the summary as one JSON object on stdout; the panel and notes go to stderr");
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"Runs the device program, or its upgrade engine alone, against a simulated device.", kTool};
    app.require_subcommand(1);

    RunOptions runOptions, checkOptions;
    SettingsOptions settingsOptions;
    std::string dir;

    CLI::App *runCmd = app.add_subcommand(
        "run", "run the whole device program on the device folder; without DEVICE, on a fresh copy of the "
               "default device. Exit codes: 0 it ended by exit, reset or hand-over, 1 by a crash or the "
               "time-out, 2 bad usage or a bad device folder");
    addDeviceOptions(runCmd, runOptions);
    runCmd->add_option("--timeout", runOptions.timeoutSeconds, "end the run after this many device seconds (600)")
        ->check(nonNegative);
    runCmd->add_option("--screen-at", runOptions.screenAtMs,
                       "also picture the screen as it is at this device time (ms), into DEVICE/run/screen-at-MS.png "
                       "(DEVICE/run/screen.png always shows the end); may be repeated")
        ->check(nonNegative);

    CLI::App *checkCmd = app.add_subcommand(
        "check", "run the engine's check and, when anything passes, its upgrade request; without DEVICE, on a "
                 "fresh copy of the default device. Exit codes: 0 the engine ran (whatever it decided), 1 it "
                 "reported a failed request, 2 bad usage or a bad device folder");
    addDeviceOptions(checkCmd, checkOptions);

    CLI::App *settingsCmd = app.add_subcommand(
        "settings", "show device_settings.ini as the device reads it: where it is, the sections applied, every "
                    "setting and key code, and what the device reads differently from how it looks; without "
                    "DEVICE, on a fresh copy of the default device. Exit codes: 0 shown, 1 the device finds no "
                    "such file, 2 bad usage or a bad device folder");
    settingsCmd->add_option("device", settingsOptions.device, "the device folder (device.toml, fs/, run/)");
    settingsCmd->add_flag("--json", settingsOptions.json, "print one JSON object instead of the text");

    FleetOptions fleetOptions;
    CLI::App *fleetCmd = app.add_subcommand(
        "fleet", "rehearse a whole boot of every device with the package in its program's folder, each on a "
                 "copy of the device (the given folders are left as they are), several at a time, and print "
                 "one row per device: its decisions, the image request, how the boot ended. Exit codes: 0 no "
                 "device crashed, 1 one crashed, 2 bad usage or bad input (a missing package, a folder that "
                 "is no device, a bad profile)");
    fleetCmd->add_option("package", fleetOptions.package, "the sealed package (upgrade.bin), or with --seal a "
                                                          "descriptor XML")->required();
    fleetCmd->add_option("devices", fleetOptions.devices, "device folders, or folders of device folders")
        ->required();
    fleetCmd->add_flag("--seal", fleetOptions.seal, "PACKAGE is a descriptor: seal it with the build's key first");
    CLI::Option *fleetJson = fleetCmd->add_flag("--json", fleetOptions.json, "print a JSON list, one object a device");
    fleetCmd->add_flag("--csv", fleetOptions.csv, "print the rows as CSV with a header")->excludes(fleetJson);
    fleetCmd->add_option("--timeout", fleetOptions.timeoutSeconds,
                         "end each boot after this many device seconds (600)")->check(nonNegative);
    fleetCmd->add_option("-j,--jobs", fleetOptions.jobs, "boots at a time (default: one per core)")
        ->check(CLI::Range(1u, 1024u));

    CLI::App *newCmd = app.add_subcommand("new", "write the default device, with its sealed package, into DIR");
    newCmd->add_option("dir", dir, "the folder to make (must not exist or be empty)")->required();

    if (int code = tarsk_tools::parseCommandLine(app, argc, argv, kTool); code >= 0) return code;

    try {
        if (runCmd->parsed()) return run(runOptions);
        if (checkCmd->parsed()) return check(checkOptions);
        if (settingsCmd->parsed()) return settings(settingsOptions);
        if (fleetCmd->parsed()) return fleet(fleetOptions);
        return makeNew(dir);
    } catch (const Failure &f) {
        std::fflush(stdout);
        std::cerr << kTool << ": error: " << f.text << "\n";
        return f.code;
    }
}
