// A fault-injection sweep over whole boots. Each reference device is booted once to count the CE
// calls the program makes, by name (the journal's "end" event holds the counts); then it is booted
// again for each call of each name with that one call failing ([fail] Name = { error, nth }). Every
// run must end, with a time-out only where a failed power subscription, read or start message
// explains it;
// raise no exception; keep the package on the card; leave no upgrade.xml behind; and journal its
// end.
//
// `make test` fails the first and the last call of each name; TARSK_SWEEP=full (`make sweep`) fails
// every call. TARSK_SWEEP_JOBS sets how many boots run at once (default 2).
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace {

using namespace tool_test;
using nlohmann::json;

const std::string kSim = TARSK_BINARY_DIR "/tarsk-sim";

struct Reference {
    const char *name;
    std::string tables;    // added to the profile
    const char *program;   // the program's folder below fs/, where the package lies
    bool package;
};

std::string profile(const Reference &r) {
    return std::string("[device]\nprogram = '\\") + r.program + "\\tarsk.exe'\n" +
           "[kernel]\nversion = 'V3.10 HW1'\nbootloader_version = 'UB2'\nhardware_type = 'X7'\n"
           "region_version = 4\nhardware_version = 3\n"
           "[registry.'HKLM\\Information']\nInternal = '\\My Flash Disk'\nExternal1 = '\\Storage Card'\n"
           "[storage.'\\Storage Card']\ntotal = 2147483648\nfree = 1073741824\n" + r.tables;
}

// Calls that never fail on the device (they pass on what the window procedure or the system gives):
// not swept.
const std::set<std::string> kCannotFail = {"DefWindowProcW", "DispatchMessageW", "SendMessageW",
                                           "ShowWindow", "Sleep", "TranslateMessage"};

// Calls whose failure leaves the program waiting for a power notification, which never comes in a
// simulated boot (on a device the next one runs the session): the subscription, the read of a
// notification or of the power status, and the posted start or close message.
const std::set<std::string> kWaitsForPower = {"CreateMsgQueue", "GetSystemPowerStatusEx2", "PostMessageW",
                                              "ReadMsgQueue", "RequestPowerNotifications"};

// The error a failed call reports: what the device would most likely say for it.
DWORD errorFor(const std::string &call) {
    static const std::map<std::string, DWORD> kErrors = {
        {"HeapAlloc", 8}, {"HeapCreate", 8}, {"LocalAlloc", 8}, {"CreateThread", 8}, {"CreateWindowExW", 8},
        {"CreateFileW", 5}, {"DeleteFileW", 5}, {"WriteFile", 112}, {"ReadFile", 30}, {"RegOpenKeyExW", 2},
        {"RegQueryValueExW", 2}, {"LoadLibraryW", 126}, {"GetProcAddressW", 127}};
    auto it = kErrors.find(call);
    return it == kErrors.end() ? 31 : it->second;   // ERROR_GEN_FAILURE
}

struct Boot {
    int rc = -1;
    std::vector<json> journal;   // a torn last line (a crash while writing) is left out
    bool cardPackage = false, descriptorLeft = false;
};

Boot boot(const Reference &r, const std::string &package, const std::string &fail, const fs::path &device) {
    fs::create_directories(device / "fs" / r.program);
    std::ofstream(device / "device.toml") << profile(r) << fail;
    if (r.package) std::ofstream(device / "fs" / r.program / "upgrade.bin", std::ios::binary) << package;
    Boot b;
    // The host's time-out only turns a hang into a failure; device time is deterministic.
    b.rc = run("timeout 120 " + kSim + " run " + quote(device.string()) + " --timeout 700",
               device / "out", device / "err");
    std::ifstream in(device / "run" / "journal.jsonl");
    for (std::string line; std::getline(in, line);) {
        json e = json::parse(line, nullptr, false);
        if (!e.is_discarded()) b.journal.push_back(e);
    }
    b.cardPackage = fs::exists(device / "fs" / "Storage Card" / "upgrade.bin");
    b.descriptorLeft = fs::exists(device / "fs" / r.program / "upgrade.xml");
    return b;
}

// What is wrong with one boot whose call `call` failed; empty when nothing is.
std::string problems(const Reference &r, const std::string &call, const Boot &b) {
    std::string out;
    auto add = [&out](const std::string &p) { out += (out.empty() ? "" : "; ") + p; };
    const std::string end = b.journal.empty() ? "" : b.journal.back().value("reason", "");
    if (b.rc == 124) add("hung");
    else if (b.rc != (end == "crash" || end == "timeout" ? 1 : 0)) add("exit code " + std::to_string(b.rc));
    if (b.journal.empty() || b.journal.back().value("event", "") != "end") add("journal without an end");
    if (end == "timeout" && !kWaitsForPower.count(call)) add("timed out");
    if (end == "crash" || !eventsOf(b.journal, "exception").empty()) add("exception");
    if (std::string(r.program) == "Storage Card" && !b.cardPackage) add("the card's package was deleted");
    if (b.descriptorLeft && call != "DeleteFileW") add("upgrade.xml left behind");
    return out;
}

bool full() {
    const char *v = std::getenv("TARSK_SWEEP");
    return v && std::string(v) == "full";
}

unsigned jobs() {
    const char *v = std::getenv("TARSK_SWEEP_JOBS");
    return v && std::atoi(v) > 0 ? unsigned(std::atoi(v)) : 2u;
}

}  // namespace

TEST(FaultSweep, EveryFailedCallEndsTheBootCleanly) {
    const Reference refs[] = {
        {"no package", "", "My Flash Disk", false},
        {"package in internal flash", "", "My Flash Disk", true},
        {"package on the card", "", "Storage Card", true},
        {"kernel refuses the request", "[kernel.fail]\n'0x80002E78' = 31\n", "My Flash Disk", true},
    };
    const std::string package = engine_test::sealPackage(
        slurp(fs::path(TARSK_SOURCE_DIR) / "devices" / "default" / "upgrade.xml"));
    const fs::path work = tempFolder("tarsk-sweep");
    ASSERT_FALSE(work.empty());

    struct Run { const Reference *ref; std::string call; unsigned nth; };
    std::vector<Run> runs;
    for (const Reference &r : refs) {
        Boot base = boot(r, package, "", work / (std::string("base ") + r.name));
        ASSERT_EQ(problems(r, "", base), "") << r.name;
        ASSERT_FALSE(base.journal.empty());
        const json calls = base.journal.back().value("calls", json::object());
        ASSERT_FALSE(calls.empty()) << r.name;
        for (const auto &[call, count] : calls.items()) {
            if (kCannotFail.count(call)) continue;
            const unsigned n = count.get<unsigned>();
            for (unsigned nth = 1; nth <= n; ++nth)
                if (full() || nth == 1 || nth == n) runs.push_back({&r, call, nth});
        }
    }

    std::atomic<size_t> next{0};
    std::mutex lock;
    std::vector<std::string> found;
    auto worker = [&] {
        for (size_t i; (i = next++) < runs.size();) {
            const Run &u = runs[i];
            const std::string what = std::string(u.ref->name) + ", " + u.call + " #" + std::to_string(u.nth);
            const fs::path device = work / std::to_string(i);
            Boot b = boot(*u.ref, package, "[fail]\n" + u.call + " = { error = " + std::to_string(errorFor(u.call)) +
                                               ", nth = " + std::to_string(u.nth) + " }\n", device);
            const std::string p = problems(*u.ref, u.call, b);
            if (p.empty()) {
                std::error_code ec;
                fs::remove_all(device, ec);
            } else {
                std::lock_guard<std::mutex> hold(lock);
                found.push_back(what + ": " + p + " (left in " + device.string() + ")");
            }
        }
    };
    std::vector<std::thread> pool;
    for (unsigned j = 0; j < jobs(); ++j) pool.emplace_back(worker);
    for (std::thread &t : pool) t.join();

    std::printf("sweep: %zu boots with one failed call (%s)\n", runs.size(), full() ? "every call" : "first and last");
    RecordProperty("boots", int(runs.size()));
    std::string report;
    for (const std::string &f : found) report += f + "\n";
    EXPECT_TRUE(found.empty()) << found.size() << " boots went wrong:\n" << report;
    if (found.empty()) {
        std::error_code ec;
        fs::remove_all(work, ec);
    }
}
