// tarsk-sim check: the upgrade engine alone on a device folder (check, then the image request).
#include "simtool.h"

#include "tarsklib/tarsklib.h"

#include <cstdio>
#include <cstdlib>
#include <optional>

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
const char *decisionText(DWORD exists, DWORD decision) { return !exists ? "not checked" : passText(decision); }

// What check reports, gathered once for the text and the JSON object.
struct CheckSummary {
    const char *bootloader, *kernel, *region;
    bool format;
    std::vector<std::pair<std::string, bool>> regionWork;   // asked for: what, failed
    bool fromCard;
    std::string programFolder;
    std::vector<ImageRequest> requests;
};

CheckSummary summarize(const TarskEngine *e, sim::Device &dev) {
    CheckSummary s;
    s.bootloader = decisionText(e->m_bUbootExists, e->m_bUpgradeBboot);
    s.kernel = decisionText(e->m_bKernelExists, e->m_bUpgradeKernel);
    s.region = decisionText(e->m_bRegionExists, e->m_bUpgradeRegion);
    s.format = e->m_bFormatKernel != 0;
    const RegionDescriptor &r = e->m_RegionDescriptor;
    if (r.serialNumberPresent) s.regionWork.push_back({"serial number", e->m_bSerialNumberFail != 0});
    if (r.formatHidden) s.regionWork.push_back({"hidden format", e->m_bFormatHiddenFail != 0});
    if (r.formatVisible) s.regionWork.push_back({"visible format", e->m_bFormatVisibleAreaFail != 0});
    s.fromCard = e->m_bUpgradeFromSDCard != 0;
    s.programFolder = sim::utf8(e->m_szProgramFolder);
    s.requests = imageRequests(dev.journal());
    return s;
}

void printSummary(const CheckSummary &s) {
    std::printf("\n---- summary ----\n");
    std::printf("bootloader:     %s\n", s.bootloader);
    std::printf("kernel:         %s, format %s\n", s.kernel, s.format ? "Yes" : "No");
    std::printf("region:         %s\n", s.region);
    if (!s.regionWork.empty()) {
        std::string work;
        for (const auto &[what, failed] : s.regionWork)
            work += std::string(work.empty() ? "" : ", ") + what + (failed ? " FAILED" : " OK");
        std::printf("region work:    %s\n", work.c_str());
    }
    std::printf("package:        %s (%s)\n", s.fromCard ? "from the card" : "from internal flash",
                s.programFolder.c_str());
    for (const ImageRequest &r : s.requests)
        std::printf("kernel request: UpgradeType %u, UpgradeVia %u, UpgradeFormat %u (%s)\n", unsigned(r.upgradeType),
                    unsigned(r.upgradeVia), unsigned(r.upgradeFormat), r.outcome().c_str());
    if (s.requests.empty()) std::printf("kernel request: no request\n");
}

ordered_json checkJson(const CheckSummary &s) {
    ordered_json j = ordered_json::object();
    j["bootloader"] = s.bootloader;
    j["kernel"] = s.kernel;
    j["region"] = s.region;
    j["format"] = s.format ? 1 : 0;
    ordered_json work = ordered_json::object();
    for (const auto &[what, failed] : s.regionWork) work[what] = failed ? "FAILED" : "OK";
    j["region_work"] = work;
    j["from_card"] = s.fromCard;
    j["program_folder"] = s.programFolder;
    addRequest(j, s.requests);
    return j;
}

}  // namespace

int check(const RunOptions &o) {
    std::optional<JsonStdout> json;
    if (o.json) json.emplace();
    Prepared p = prepareDevice(o);
    sim::Device &dev = *p.dev;
    dev.install();
    g_device = &dev;

    int rc = 0;
    ordered_json j = ordered_json::object();
    j["device"] = p.folder.string();
    TarskEngine *engine = new TarskEngine(onProgress);
    if (!engine || !engine->IsConstructed()) {
        std::fprintf(stderr, "%s: error: the engine could not be created\n", kTool);
        rc = 1;
    } else {
        if (engine->CheckForUpgrade(1) == 1 && !engine->BeginUpgrading()) rc = 1;
        CheckSummary s = summarize(engine, dev);
        if (json) j.update(checkJson(s));
        else printSummary(s);
    }
    delete engine;
    j["warnings"] = p.warnings;
    j["journal"] = dev.journal().file().string();
    if (json) {
        json->print(j);
    } else {
        std::printf("journal:        %s\n", dev.journal().file().c_str());
        if (o.device.empty()) std::printf("device folder:  %s\n", p.folder.c_str());
    }

    dev.journal().write("end", {{"reason", "exit"}});
    g_device = nullptr;
    dev.uninstall();
    return rc;
}

}  // namespace tarsk_sim
