// tarsk-sim check: the upgrade engine alone on a device folder (check, then the image request).
#include "simtool.h"

#include "tarsklib/tarsklib.h"

#include <cstdio>
#include <cstdlib>

namespace tarsk_sim {

namespace {

sim::Device *g_device = nullptr;

// The engine's panel callback: each text to the terminal and to the journal.
BOOL onProgress(LPCWSTR line) {
    std::string text = sim::utf8(line);
    std::string shown;
    for (char c : text)
        if (c != '\r') shown.push_back(c);
    std::fputs(shown.c_str(), stdout);
    std::fflush(stdout);
    if (g_device) g_device->journal().write("progress", {{"text", text}});
    return TRUE;
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

}  // namespace

// Prepares the device folder and the device for a command: the time scale, the sealing, the note on
// a missing package.
std::unique_ptr<sim::Device> prepareDevice(const RunOptions &o, fs::path &folder) {
    folder = prepareFolder(o.device);
    std::unique_ptr<sim::Device> dev = makeDevice(folder, o.journal);
    if (o.timeScale >= 0) dev->clock().setScale(o.timeScale);
    if (o.seal) {
        fs::path sealed = sealSample(folder, dev->programPath());
        std::printf("%s: sealed %s into %s\n", kTool, (folder / "upgrade.xml").c_str(), sealed.c_str());
    }
    notePackage(folder, *dev);
    return dev;
}

int check(const RunOptions &o) {
    fs::path folder;
    std::unique_ptr<sim::Device> dev = prepareDevice(o, folder);
    dev->install();
    g_device = dev.get();

    int rc = 0;
    TarskEngine *engine = new TarskEngine(onProgress);
    if (!engine || !engine->IsConstructed()) {
        std::fprintf(stderr, "%s: error: the engine could not be created\n", kTool);
        rc = 1;
    } else {
        if (engine->CheckForUpgrade(1) == 1 && !engine->BeginUpgrading()) rc = 1;
        printSummary(engine, *dev);
    }
    delete engine;
    std::printf("journal:        %s\n", dev->journal().file().c_str());
    if (o.device.empty()) std::printf("device folder:  %s\n", folder.c_str());

    dev->journal().write("end", {{"reason", "exit"}});
    g_device = nullptr;
    dev->uninstall();
    return rc;
}

}  // namespace tarsk_sim
