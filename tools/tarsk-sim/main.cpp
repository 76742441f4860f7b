// tarsk-sim: runs the upgrade engine against a simulated device and shows what the device would show
// and do.
//
//   tarsk-sim check [DEVICE] [--time-scale S] [--journal FILE] [--seal]
//   tarsk-sim new DIR
//
// Without DEVICE, check runs on a fresh copy of the built-in default device (devices/default) with
// its sample descriptor sealed into the program's folder. Exit codes: 0 the engine ran (whatever it
// decided), 1 the engine reported a failed request, 2 bad usage or a bad device folder.
#include "../tarsk-pack/tarsk_package.h"

#include "device.h"
#include "tarsklib/tarsklib.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <unistd.h>

#ifndef TARSK_SOURCE_DIR
#error "TARSK_SOURCE_DIR must name the source tree (it holds devices/default)"
#endif

using namespace tarsk_tools;

namespace {

const char *kTool = "tarsk-sim";
const char *kDefaultProgram = "\\My Flash Disk\\tarsk.exe";

struct Failure {
    int code;
    std::string text;
};

[[noreturn]] void fail(int code, const std::string &text) { throw Failure{code, text}; }

fs::path defaultDeviceFolder() { return fs::path(TARSK_SOURCE_DIR) / "devices" / "default"; }

// The CE folder of a program path: everything before its last "\".
std::u16string ceFolderOf(const std::u16string &program) {
    size_t slash = program.rfind(u'\\');
    return slash == std::u16string::npos ? std::u16string() : program.substr(0, slash);
}

// The host path of "upgrade.bin" in the program's folder of the device folder.
fs::path packagePath(const fs::path &device, const std::u16string &program) {
    sim::FileSystem files(device / "fs");
    auto host = files.resolve(ceFolderOf(program) + u"\\upgrade.bin");
    if (!host) fail(2, device.string() + ": the program path '" + sim::utf8(program) + "' is not absolute");
    return *host;
}

// Seals DEVICE/upgrade.xml with the build's key into upgrade.bin in the program's folder.
fs::path sealSample(const fs::path &device, const std::u16string &program) {
    fs::path descriptor = device / "upgrade.xml";
    std::string why;
    auto data = readFile(descriptor, why);
    if (!data) fail(2, "cannot read " + descriptor.string() + ": " + why);
    seal(*data, buildKey());
    fs::path out = packagePath(device, program);
    std::error_code ec;
    fs::create_directories(out.parent_path(), ec);
    if (!writeFileAtomic(out, *data, why)) fail(2, "cannot write " + out.string() + ": " + why);
    return out;
}

// Copies the default device (profile, sample descriptor, file system) into an empty folder and seals
// its package there.
void writeDefaultDevice(const fs::path &dest) {
    fs::path from = defaultDeviceFolder();
    if (!fs::is_regular_file(from / "device.toml"))
        fail(2, "the default device is missing: no " + (from / "device.toml").string());
    std::error_code ec;
    fs::create_directories(dest, ec);
    if (ec) fail(2, "cannot make " + dest.string() + ": " + ec.message());
    fs::copy(from, dest, fs::copy_options::recursive, ec);
    if (ec) fail(2, "cannot copy the default device into " + dest.string() + ": " + ec.message());
    fs::remove_all(dest / "run", ec);   // anything a run left in the source tree is not part of it

    toml::table profile;
    try {
        profile = toml::parse_file((dest / "device.toml").string());
    } catch (const toml::parse_error &e) {
        fail(2, (dest / "device.toml").string() + ": " + std::string(e.description()));
    }
    std::u16string program = sim::fromUtf8(sim::profileString(profile, "device.program").value_or(kDefaultProgram));
    sealSample(dest, program);
}

// ---------------------------------------------------------------- the run

sim::Device *g_device = nullptr;

// The engine's panel callback: each text to the terminal and to the journal.
void onProgress(LPCWSTR line) {
    std::string text = sim::utf8(line);
    std::string shown;
    for (char c : text)
        if (c != '\r') shown.push_back(c);
    std::fputs(shown.c_str(), stdout);
    std::fflush(stdout);
    if (g_device) g_device->journal().write("progress", {{"text", text}});
}

// The profile is checked here first so that a syntax error is reported with its line.
void checkProfileSyntax(const fs::path &file) {
    try {
        (void)toml::parse_file(file.string());
    } catch (const toml::parse_error &e) {
        const auto &at = e.source().begin;
        fail(2, file.string() + " line " + std::to_string(at.line) + ", column " + std::to_string(at.column) +
                    ": " + std::string(e.description()));
    }
}

// Makes the device. The simulated device prints its own complaints about the profile to stderr before
// it throws; they are held back here so that a bad profile gives one error line, and passed on when
// the device was made (they are then only warnings).
std::unique_ptr<sim::Device> makeDevice(const fs::path &folder, const fs::path &journal) {
    std::fflush(stderr);
    int saved = ::dup(2);
    FILE *held = std::tmpfile();
    if (saved >= 0 && held) ::dup2(::fileno(held), 2);
    std::unique_ptr<sim::Device> dev;
    std::string error;
    try {
        dev = std::make_unique<sim::Device>(folder, journal);
    } catch (const std::exception &e) {
        error = e.what();
    }
    std::fflush(stderr);
    std::string warnings;
    if (saved >= 0 && held) {
        ::dup2(saved, 2);
        std::rewind(held);
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, held)) > 0) warnings.append(buf, n);
    }
    if (saved >= 0) ::close(saved);
    if (held) std::fclose(held);
    if (!dev) {
        if (error.rfind("device.toml: ", 0) == 0) error = error.substr(13);
        fail(2, (folder / "device.toml").string() + ": " + error);
    }
    std::fputs(warnings.c_str(), stderr);
    return dev;
}

// A decision; "not checked" when the engine found no descriptor to decide on.
const char *passText(DWORD exists, DWORD decision) {
    return !exists ? "not checked" : decision ? "Pass" : "Bypass";
}

DWORD wordAt(const std::string &hex, size_t index) {
    DWORD v = 0;
    for (int b = 3; b >= 0; --b) {
        size_t at = (index * 4 + size_t(b)) * 2;
        if (at + 2 > hex.size()) return 0;
        v = (v << 8) | DWORD(std::strtoul(hex.substr(at, 2).c_str(), nullptr, 16));
    }
    return v;
}

void printSummary(const TarskEngine *e, sim::Device &dev) {
    std::printf("\n---- summary ----\n");
    std::printf("bootloader:     %s\n", passText(e->m_bUbootExists, e->m_bUpgradeBboot));
    std::printf("kernel:         %s, format %s\n", passText(e->m_bKernelExists, e->m_bUpgradeKernel),
                e->m_bFormatKernel ? "Yes" : "No");
    std::printf("region:         %s\n", passText(e->m_bRegionExists, e->m_bUpgradeRegion));
    const RegionDescriptor &r = e->m_RegionDescriptor;
    if (r.serialNumberPresent || r.formatHidden || r.formatVisible) {
        std::string work;
        auto add = [&](const char *what, DWORD asked, DWORD failed) {
            if (!asked) return;
            work += std::string(work.empty() ? "" : ", ") + what + (failed ? " FAILED" : " OK");
        };
        add("serial number", r.serialNumberPresent, e->m_bSerialNumberFail);
        add("hidden format", r.formatHidden, e->m_bFormatHiddenFail);
        add("visible format", r.formatVisible, e->m_bFormatVisibleAreaFail);
        std::printf("region work:    %s\n", work.c_str());
    }
    std::printf("package:        %s (%s)\n", e->m_bUpgradeFromSDCard ? "from the card" : "from internal flash",
                sim::utf8(e->m_szProgramFolder).c_str());

    int requests = 0;
    for (const auto &ev : dev.journal().events("ioctl")) {
        if (ev.value("code", "") != sim::hexCode(IOCTL_QRV_SYS_TARSK_IMAGE_UPGRADE)) continue;
        std::string input = ev.value("input", "");
        std::string outcome = ev.value("ok", false) ? "accepted"
                                                     : "refused, error " + std::to_string(ev.value("error", 0));
        std::printf("kernel request: UpgradeType %u, UpgradeVia %u, UpgradeFormat %u (%s)\n",
                    unsigned(wordAt(input, 0)), unsigned(wordAt(input, 1)), unsigned(wordAt(input, 2)),
                    outcome.c_str());
        ++requests;
    }
    if (!requests) std::printf("kernel request: no request\n");
}

int check(const std::string &deviceArg, double timeScale, const std::string &journalArg, bool sealFirst) {
    fs::path folder;
    if (deviceArg.empty()) {
        std::string tmpl = (fs::temp_directory_path() / "tarsk-sim-XXXXXX").string();
        std::vector<char> name(tmpl.begin(), tmpl.end());
        name.push_back('\0');
        if (!::mkdtemp(name.data())) fail(2, "cannot make a temporary folder in " + fs::temp_directory_path().string());
        folder = name.data();
        writeDefaultDevice(folder);
        std::printf("%s: the default device, copied to %s\n", kTool, folder.c_str());
    } else {
        folder = deviceArg;
        std::error_code ec;
        if (!fs::is_directory(folder, ec)) fail(2, "no device folder " + folder.string());
        if (!fs::is_regular_file(folder / "device.toml", ec))
            fail(2, "not a device folder (no device.toml): " + folder.string());
    }
    checkProfileSyntax(folder / "device.toml");

    std::unique_ptr<sim::Device> dev = makeDevice(folder, journalArg);
    if (timeScale > 0) dev->clock().setScale(timeScale);
    if (sealFirst) {
        fs::path sealed = sealSample(folder, dev->programPath());
        std::printf("%s: sealed %s into %s\n", kTool, (folder / "upgrade.xml").c_str(), sealed.c_str());
    }
    fs::path package = packagePath(folder, dev->programPath());
    if (!fs::exists(package))
        std::printf("%s: no package: %s does not exist, so the engine will find nothing%s\n", kTool, package.c_str(),
                    fs::exists(folder / "upgrade.xml") ? " (--seal seals upgrade.xml into it)" : "");

    dev->install();
    g_device = dev.get();

    int rc = 0;
    TarskEngine *engine = Tarsk_CreateEngine(onProgress);
    if (!engine) {
        std::fprintf(stderr, "%s: error: the engine could not be created\n", kTool);
        rc = 1;
    } else {
        if (CheckForUpgrade(engine, 1) == 1 && !BeginUpgrading(engine)) rc = 1;
        printSummary(engine, *dev);
        Tarsk_DestroyEngine(engine);
    }
    std::printf("journal:        %s\n", dev->journal().file().c_str());
    if (deviceArg.empty()) std::printf("device folder:  %s\n", folder.c_str());

    dev->journal().write("end", {{"reason", "exit"}});
    g_device = nullptr;
    dev->uninstall();
    return rc;
}

int makeNew(const std::string &dirArg) {
    fs::path dir = dirArg;
    std::error_code ec;
    if (fs::exists(dir, ec)) {
        if (!fs::is_directory(dir, ec)) fail(2, dir.string() + " exists and is not a folder");
        if (!fs::is_empty(dir, ec)) fail(2, dir.string() + " exists and is not empty");
    }
    writeDefaultDevice(dir);
    std::printf("%s: wrote the default device to %s\n"
                "  edit %s (the device) and %s (the package's descriptor),\n"
                "  then run: %s check %s --seal\n",
                kTool, dir.c_str(), (dir / "device.toml").c_str(), (dir / "upgrade.xml").c_str(), kTool, dir.c_str());
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"Runs the upgrade engine against a simulated device.\n"
                 "Exit codes: 0 the engine ran (whatever it decided), 1 the engine reported a failed "
                 "request, 2 bad usage or a bad device folder.",
                 kTool};
    app.require_subcommand(1);

    std::string device, journal, dir;
    double timeScale = 0;
    bool sealFirst = false;

    CLI::App *checkCmd = app.add_subcommand(
        "check", "run the engine's check and, when anything passes, its upgrade request; without DEVICE, "
                 "on a fresh copy of the default device");
    checkCmd->add_option("device", device, "the device folder (device.toml, fs/, run/)");
    checkCmd->add_option("--time-scale", timeScale, "device time against real time (0.01: 100 times faster)")
        ->check([](const std::string &text) -> std::string {
            char *end = nullptr;
            double v = std::strtod(text.c_str(), &end);
            return (end && !*end && v > 0) ? std::string() : "must be a number above 0, not '" + text + "'";
        });
    checkCmd->add_option("--journal", journal, "the journal file (default DEVICE/run/journal.jsonl)");
    checkCmd->add_flag("--seal", sealFirst,
                       "first seal DEVICE/upgrade.xml with the build's key into upgrade.bin in the program's folder");

    CLI::App *newCmd = app.add_subcommand("new", "write the default device, with its sealed package, into DIR");
    newCmd->add_option("dir", dir, "the folder to make (must not exist or be empty)")->required();

    if (int code = parseCommandLine(app, argc, argv, kTool); code >= 0) return code;

    try {
        if (checkCmd->parsed()) return check(device, timeScale, journal, sealFirst);
        return makeNew(dir);
    } catch (const Failure &f) {
        std::fflush(stdout);
        std::cerr << kTool << ": error: " << f.text << "\n";
        return f.code;
    }
}
