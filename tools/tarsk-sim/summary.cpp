// The facts of a run's summary, gathered once for the text, the JSON object and the fleet's rows.
#include "summary.h"

#include "kernel.h"
#include "tarskupgrade/tarskupgrade.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace tarsk_sim {

Decisions decisionsOf(const TarskEngine &e) {
    Decisions d;
    d.bootloader = e.m_bUpgradeBboot != 0;
    d.kernel = e.m_bUpgradeKernel != 0;
    d.region = e.m_bUpgradeRegion != 0;
    d.format = e.m_bFormatKernel != 0;
    return d;
}

const char *passText(bool pass) { return pass ? "Pass" : "Bypass"; }

namespace {

// The little-endian word at index of a hex record.
DWORD wordAt(const std::string &hex, size_t index) {
    DWORD v = 0;
    for (int b = 3; b >= 0; --b) {
        size_t at = (index * 4 + size_t(b)) * 2;
        if (at + 2 > hex.size()) return 0;
        v = (v << 8) | DWORD(std::strtoul(hex.substr(at, 2).c_str(), nullptr, 16));
    }
    return v;
}

}  // namespace

std::optional<Decisions> ImageRequest::decisions() const {
    // UpgradeType by selection (1 bootloader + 2 kernel + 4 region), as the engine maps it.
    static const DWORD kTypeOfSelection[8] = {0xFFFFFFFF, 1, 0, 2, 6, 5, 4, 3};
    for (unsigned selection = 1; selection < 8; ++selection) {
        if (kTypeOfSelection[selection] != upgradeType) continue;
        Decisions d;
        d.bootloader = selection & 1;
        d.kernel = selection & 2;
        d.region = selection & 4;
        d.format = upgradeFormat != 0;
        return d;
    }
    return std::nullopt;
}

std::string ImageRequest::outcome() const {
    return accepted ? "accepted" : "refused, error " + std::to_string(error);
}

std::vector<ImageRequest> imageRequests(const sim::Journal &journal) {
    std::vector<ImageRequest> out;
    const std::string code = sim::hexCode(sim::kIoctlImageUpgrade);
    for (const auto &ev : journal.events("ioctl")) {
        if (ev.value("code", "") != code) continue;
        ImageRequest r;
        r.hex = ev.value("input", "");
        r.upgradeType = wordAt(r.hex, 0);
        r.upgradeVia = wordAt(r.hex, 1);
        r.upgradeFormat = wordAt(r.hex, 2);
        r.accepted = ev.value("ok", false);
        r.error = ev.value("error", 0);
        out.push_back(r);
    }
    return out;
}

void addRequest(ordered_json &j, const std::vector<ImageRequest> &requests) {
    if (requests.empty()) {
        j["request"] = nullptr;
        j["request_accepted"] = nullptr;
        j["request_error"] = nullptr;
        return;
    }
    j["request"] = requests[0].hex;
    j["request_accepted"] = requests[0].accepted;
    j["request_error"] = requests[0].error;
}

std::string RunSummary::started() const {
    for (const ProcessStart &p : starts)
        if (p.ok) return p.path;
    return {};
}

RunSummary summarizeRun(sim::Device &dev, UINT code, const std::string &reason) {
    RunSummary s;
    s.end = reason;
    s.code = code;
    s.ticks = dev.clock().ticks();
    s.requests = imageRequests(dev.journal());
    if (g_pTarsk) {
        s.decisions = decisionsOf(*g_pTarsk);
    } else if (!s.requests.empty()) {
        s.decisions = s.requests[0].decisions().value_or(Decisions());
    }
    for (const auto &ev : dev.journal().events("process_start"))
        s.starts.push_back({ev.value("path", ""), ev.value("ok", false), ev.value("error", 0)});
    s.journal = dev.journal().file().string();
    return s;
}

void printRunSummary(const RunSummary &s, const std::string &panel, const std::string &folderNote) {
    std::printf("\n---- summary ----\n");
    std::printf("ended:          %s", s.end.c_str());
    if (s.end == "exit") std::printf(", code %u", s.code);
    if (s.end == "crash") std::printf(", exception 0x%08X", s.code);
    std::printf(" at %u ms of device time\n", s.ticks);
    std::printf("decisions:      bootloader %s, kernel %s, region %s, format %s\n", passText(s.decisions.bootloader),
                passText(s.decisions.kernel), passText(s.decisions.region), s.decisions.format ? "Yes" : "No");
    for (const ImageRequest &r : s.requests) {
        if (r.accepted)
            std::printf("kernel request: UpgradeType %u, UpgradeVia %u, UpgradeFormat %u (accepted)\n", r.upgradeType,
                        r.upgradeVia, r.upgradeFormat);
        else
            std::printf("kernel request: refused, error %d\n", r.error);
    }
    if (s.requests.empty()) std::printf("kernel request: none\n");
    for (const ProcessStart &p : s.starts)
        std::printf("started:        %s (%s)\n", p.path.c_str(),
                    p.ok ? "ok" : ("failed, error " + std::to_string(p.error)).c_str());
    std::printf("panel:          %s\n", panel.c_str());
    for (const std::string &line : s.screens) std::printf("%s\n", line.c_str());
    std::printf("journal:        %s\n", s.journal.c_str());
    if (!folderNote.empty()) std::printf("device folder:  %s\n", folderNote.c_str());
}

ordered_json runJson(const RunSummary &s, const std::string &device, const std::string &panel) {
    ordered_json j = ordered_json::object();
    j["device"] = device;
    j["bootloader"] = passText(s.decisions.bootloader);
    j["kernel"] = passText(s.decisions.kernel);
    j["region"] = passText(s.decisions.region);
    j["format"] = s.decisions.format ? 1 : 0;
    addRequest(j, s.requests);
    j["end"] = s.end;
    const std::string started = s.started();
    j["started"] = started.empty() ? ordered_json(nullptr) : ordered_json(started);
    j["code"] = s.end == "exit" || s.end == "crash" ? ordered_json(s.code) : ordered_json(nullptr);
    j["time_ms"] = s.ticks;
    ordered_json starts = ordered_json::array();
    for (const ProcessStart &p : s.starts) starts.push_back({{"path", p.path}, {"ok", p.ok}, {"error", p.error}});
    j["starts"] = starts;
    j["warnings"] = s.warnings;
    j["panel"] = panel;
    j["screens"] = s.screens;
    j["journal"] = s.journal;
    return j;
}

JsonStdout::JsonStdout() {
    std::fflush(stdout);
    m_out = ::dup(1);
    if (m_out >= 0) ::dup2(2, 1);
}

JsonStdout::~JsonStdout() {
    std::fflush(stdout);
    if (m_out >= 0) {
        ::dup2(m_out, 1);
        ::close(m_out);
    }
}

void JsonStdout::print(const ordered_json &j) {
    std::fflush(stdout);
    // Texts from the device are not necessarily UTF-8: what is not becomes U+FFFD.
    const std::string text = j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    const int fd = m_out >= 0 ? m_out : 1;
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n <= 0) break;
        done += size_t(n);
    }
}

}  // namespace tarsk_sim
