// The whole device program, rehearsed by the built tarsk-sim run on device folders made here: what
// the panel shows, how the run ends, what the device was asked to do (the journal) and the files left
// on it.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

#include <map>

namespace {

using namespace tool_test;
using nlohmann::json;

const std::string kSim = TARSK_BINARY_DIR "/tarsk-sim";

// The default device's answers; extra registry lines go into HKLM\Information, extra tables after it.
std::string profile(const std::string &tables = "", const std::string &registry = "") {
    return "[device]\nprogram = '\\My Flash Disk\\tarsk.exe'\n"
           "[kernel]\nversion = 'V3.10 HW1'\nbootloader_version = 'UB2'\nhardware_type = 'X7'\n"
           "region_version = 4\nhardware_version = 3\n"
           "[registry.'HKLM\\Information']\nHardware = 'Velmar X7, rev 2'\nInternal = '\\My Flash Disk'\n"
           "External1 = '\\Storage Card'\n" + registry + tables;
}

const std::string kLogToFile = "[Tarsk]\r\nDebugToFile=TRUE\r\nDebugFile=\\My Flash Disk\\tarsk.log\r\nDebugToASCII=true\r\n";

// A sealed package that passes the kernel (V4 over the device's V3).
std::string package() {
    return engine_test::sealPackage(slurp(fs::path(TARSK_SOURCE_DIR) / "devices" / "default" / "upgrade.xml"));
}

struct Boot {
    int rc = -1;
    fs::path device;
    std::vector<json> journal;
    std::string panel, out;
    std::vector<json> events(const std::string &name) const { return eventsOf(journal, name); }
    std::string end() const { return journal.empty() ? "" : journal.back().value("reason", ""); }
    std::string file(const std::string &hostPath) const { return slurp(device / "fs" / hostPath); }
};

// Makes a device folder from a profile and files (host paths below fs/) and runs the program on it.
Boot runProgram(const std::string &toml, const std::map<std::string, std::string> &files = {},
               const std::string &args = "--timeout 20") {
    Boot r;
    r.device = tempFolder("tarsk-app");
    std::ofstream(r.device / "device.toml") << toml;
    for (const auto &[path, bytes] : files) {
        fs::create_directories((r.device / "fs" / path).parent_path());
        std::ofstream(r.device / "fs" / path, std::ios::binary) << bytes;
    }
    r.rc = run(kSim + " run " + quote(r.device.string()) + " " + args, r.device / "out", r.device / "err");
    r.out = slurp(r.device / "out");
    r.journal = readJournal(r.device / "run" / "journal.jsonl");
    r.panel = slurp(r.device / "run" / "panel.txt");
    return r;
}

const std::string kAnalyse = "==============ANALYSIZE THE SYSTEM...===============\r\n";
const std::string kCheck = "\r\n=============CHECK THE UPGRADE CONDITION============\r\n";
const std::string kPrepare = "===PREPARE FOR UPGRADING... ===\r\n";
const std::string kCancel = "CANCEL UPGRADE...\r\n";
const std::string kNavigation = "Starting Navigation...\r\n";
const std::string kUsb = "Starting USBScreen...\r\n";
const std::string kStarted = "Started Navigation\r\n";
std::string battery(int percent) {
    return "=================BATTERY CHECKING...=================\r\nBattery remained: " + std::to_string(percent) +
           "\r\nIt is too low to finish the upgrade, please connect AC to continue\r\n";
}
const std::string kNav = "My Flash Disk/nav/go.exe";

std::vector<std::string> starts(const Boot &r) {
    std::vector<std::string> out;
    for (const json &e : r.events("process_start"))
        out.push_back(e.value("path", "") + (e.value("ok", false) ? " ok" : " " + std::to_string(e.value("error", 0))));
    return out;
}

}  // namespace

// The battery rule, the cancel branch of a boot without package and the follow-up program.
TEST(AppRun, BatteryRuleAndCancelBranch) {
    const std::string cancel = kAnalyse + kCheck + kCancel + kNavigation;
    const std::string navDefault = "\\Program Files\\Velmar\\AppStartupSec.exe";
    struct Row { const char *name; std::string tables, registry; std::map<std::string, std::string> files;
                 std::string end, panel; std::vector<std::string> starts; } rows[] = {
        {"19 on battery: refused, retried at each notification only", "[power]\nac_line = 0\nbattery_percent = 19\n",
         "", {}, "timeout", battery(19), {}},
        {"20 on battery: enough", "[power]\nac_line = 0\nbattery_percent = 20\n", "", {}, "exit",
         cancel + kUsb + kStarted, {navDefault + " 2", "\\windows\\USBScreen.exe 2"}},
        {"unknown charge on battery", "[power]\nac_line = 0\nbattery_percent = 255\n", "", {}, "exit",
         cancel + kUsb + kStarted, {navDefault + " 2", "\\windows\\USBScreen.exe 2"}},
        {"5 with the charger, the USB screen started", "[power]\nac_line = 1\nbattery_percent = 5\n", "",
         {{"windows/USBScreen.exe", "x"}}, "exit", cancel + kUsb + "Started USBscreen\r\n" + kStarted,
         {navDefault + " 2", "\\windows\\USBScreen.exe ok"}},
        {"charger connected later", "[power]\nac_line = 0\nbattery_percent = 19\n[[power.events]]\nat_ms = 5000\n"
         "type = 'status'\nac_line = 1\n", "", {}, "exit", battery(19) + cancel + kUsb + kStarted,
         {navDefault + " 2", "\\windows\\USBScreen.exe 2"}},
        {"registry names the program; a trailing backslash is cut", "",
         "DefaultPath = '\\My Flash Disk\\nav\\'\nDefaultFile = 'go.exe'\n", {{kNav, "x"}}, "exit", cancel + kStarted,
         {"\\My Flash Disk\\nav\\go.exe ok"}},
        {"paths.xml names the program", "", "",
         {{kNav, "x"}, {"My Flash Disk/paths.xml", "<paths><app><name>appstartupsec</name><basepath>\\My Flash "
           "Disk\\nav</basepath><files><file>go.exe</file></files></app></paths>"}},
         "exit", cancel + kStarted, {"\\My Flash Disk\\nav\\go.exe ok"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Boot r = runProgram(profile(row.tables, row.registry), row.files);
        EXPECT_EQ(r.rc, row.end == "exit" ? 0 : 1) << r.out;
        EXPECT_EQ(r.end(), row.end);
        EXPECT_EQ(r.panel, row.panel);
        EXPECT_EQ(starts(r), row.starts);
        if (row.end == "exit") {
            ASSERT_EQ(r.events("exit").size(), 1u);
            EXPECT_EQ(r.events("exit")[0]["code"], 0);
        }
        if (!HasFailure()) fs::remove_all(r.device);
    }
}

// The cancel branch saves the panel less its last character, UTF-16LE without byte-order mark, shows
// the reboot button over the panel's last rows, and looks for paths.xml on the card for ten tries of
// 100 ms before it starts the follow-up program. A click on the button resets the device.
TEST(AppRun, ErrorLogButtonCardWaitAndReboot) {
    Boot r = runProgram(profile(), {{"My Flash Disk/upgrade.error.log", "an older log"}});
    const std::string saved = kAnalyse + kCheck + kCancel;
    EXPECT_EQ(r.file("My Flash Disk/upgrade.error.log"), testing_support::utf16le(saved.substr(0, saved.size() - 1)))
        << "ends with the carriage return";
    auto windows = r.events("create_window");
    ASSERT_EQ(windows.size(), 3u);
    json button = windows[2];
    button.erase("t");
    EXPECT_EQ(button, json::parse(R"({"event": "create_window", "class": "BUTTON", "style": 1350567680,
        "title": "ERROR OCCURS! PRESS HERE to REBOOT", "x": 2, "y": 240, "width": 478, "height": 270})"));
    auto panel = r.events("panel"), started = r.events("process_start");
    ASSERT_EQ(started.size(), 2u);
    EXPECT_EQ(started[0]["t"].get<unsigned>() - panel[2]["t"].get<unsigned>(), 1000u) << "ten tries of 100 ms";
    fs::remove_all(r.device);

    // clicked while the card is waited for: the click is taken before the window closes
    r = runProgram(profile("[input]\npress_button_at_ms = 500\n"));
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.end(), "reset");
    ASSERT_EQ(r.events("set_power_state").size(), 1u);
    EXPECT_EQ(r.events("set_power_state")[0]["state"], 0x00800000);
    EXPECT_EQ(r.events("set_power_state")[0]["flags"], 0x00001000);
    if (!HasFailure()) fs::remove_all(r.device);
}

// An accepted request leaves the program open; a refused one cancels. ShowInfo off hides the ordinary
// lines but not the headings.
TEST(AppRun, UpgradeHandedOverOrRefused) {
    const std::string engine = "\r\n====CHECK UBoot UPGRADE CONDITION...====\r\nUBoot: Bypass\r\n\r\n====CHECK Kernel "
                               "UPGRADE CONDITION...====\r\nKernel: Pass\r\nFORMAT Upgrade: Yes\r\n";
    const std::string begin = "\r\n===BEGION UPGRADING...===\r\n";
    const std::string pkg = "My Flash Disk/upgrade.bin", hide = "My Flash Disk/debug.ini";
    struct Row { const char *name; std::string tables; std::map<std::string, std::string> files; std::string end,
                 panel; size_t requests; } rows[] = {
        {"accepted", "", {{pkg, package()}}, "handed-over", kAnalyse + kCheck + engine + kPrepare + begin, 1},
        {"refused", "[kernel.fail]\n'0x80002E78' = 31\n", {{pkg, package()}}, "exit",
         kAnalyse + kCheck + engine + kPrepare + begin + kCancel + kNavigation + kUsb + kStarted, 1},
        {"ShowInfo off", "", {{pkg, package()}, {hide, "[Tarsk]\r\nShowInfo=no\r\n"}}, "handed-over",
         kAnalyse + kPrepare, 1},
        {"ShowInfo off, battery low", "[power]\nac_line = 0\nbattery_percent = 7\n",
         {{hide, "[Tarsk]\r\nShowInfo=0\r\nBatteryThreshold=8\r\n"}}, "timeout", battery(7), 0},
        {"ShowInfo off, nothing to do", "", {{hide, "[tarsk]\r\nShowInfo=1\r\n"}}, "exit", kAnalyse, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Boot r = runProgram(profile(row.tables), row.files);
        EXPECT_EQ(r.end(), row.end);
        EXPECT_EQ(r.panel, row.panel);
        EXPECT_EQ(eventsOf(r.journal, "ioctl", "0x80002E78").size(), row.requests);
        if (!HasFailure()) fs::remove_all(r.device);
    }
}

// The panel's font and the controls' geometry follow the screen: exactly 800 and exactly 320 wide.
TEST(AppRun, FontsAndGeometryPerScreen) {
    struct Row { int w, h, fontHeight, weight; } rows[] = {{320, 240, -9, 400}, {480, 272, -12, 400},
                                                          {800, 480, -14, 600}, {799, 480, -12, 400}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.w);
        Boot r = runProgram(profile("[screen]\nwidth = " + std::to_string(row.w) + "\nheight = " +
                                   std::to_string(row.h) + "\n"));
        auto w = r.events("create_window");
        ASSERT_EQ(w.size(), 3u);
        auto geometry = [](const json &e) {
            return std::vector<int>{e["x"], e["y"], e["width"], e["height"], e["style"]};
        };
        EXPECT_EQ(geometry(w[0]), (std::vector<int>{0, 0, row.w, row.h, 0x10000000}));
        EXPECT_EQ(geometry(w[1]), (std::vector<int>{0, 0, row.w, row.h - 30, 0x50A01804}));
        EXPECT_EQ(geometry(w[2]), (std::vector<int>{2, row.h - 32, row.w - 2, row.h - 2, 0x50800700}));
        ASSERT_EQ(r.events("font").size(), 1u);
        EXPECT_EQ(r.events("font")[0]["face"], "Tahoma");
        EXPECT_EQ(r.events("font")[0]["height"], row.fontHeight);
        EXPECT_EQ(r.events("font")[0]["weight"], row.weight);
        if (!HasFailure()) fs::remove_all(r.device);
    }
}

// Start-up failures end the program with 0 and a log line; a fault in a message handler is reported
// by both guards and leaves the empty marker file.
TEST(AppRun, StartUpFailuresAndCrash) {
    const std::string log = "My Flash Disk/tarsk.log", ini = "My Flash Disk/debug.ini";
    struct Row { const char *name; std::string tables, end, logged; int exceptions; } rows[] = {
        {"window", "[fail]\nCreateWindowExW = 8\n", "exit",
         "InitInstance(): CreateWindow(TARSK_UPGRADE_CLS, TARSK_UPGRADE) failed, error 8", 0},
        {"power thread", "[fail]\nCreateThread = 8\n", "exit", "create power manager thread failed!!, errornum: 8", 0},
        // the report's own "\r\n" gets one more carriage return in the log's sinks
        {"fault in WM_CREATE", "[crash]\nCreateFontIndirectW = 1\n", "crash", "ERROR, Exception: ErrorCode: "
         "0xc0000005\r\r\nExceptionCode: 0xc0000005\r\r\nExceptionAddress: 0x", 2},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Boot r = runProgram(profile(row.tables), {{ini, kLogToFile}, {"My Flash Disk/upgrade.winceimg.BAD.log", "old"}});
        EXPECT_EQ(r.rc, row.end == "exit" ? 0 : 1);
        EXPECT_EQ(r.end(), row.end);
        const std::string text = r.file(log);
        EXPECT_EQ(testing_support::occurrences(text, "Exception: "), row.exceptions) << text;
        EXPECT_NE(text.find(row.logged), std::string::npos) << text;
        EXPECT_EQ(r.file("My Flash Disk/upgrade.winceimg.BAD.log"), row.exceptions ? "" : "old");
        if (row.exceptions) {
            ASSERT_EQ(r.events("exception").size(), 1u);
            EXPECT_EQ(r.events("exception")[0]["code"], 0xC0000005u);
        }
        if (!HasFailure()) fs::remove_all(r.device);
    }
}

// A boot organises the memory once, at the program's first allocation: the division is asked for from
// the smallest store that keeps what it holds (1170 pages for 4 MiB used) until the kernel takes one.
// The device settings are read through the device library: its hardware version picks the section.
TEST(AppRun, MemoryOrganisedOnceAndSettingsReadByHardwareVersion) {
    const std::string settings = "My Flash Disk/Program Files/Velmar/Waylume_CE/UserData/device_settings.ini";
    Boot r = runProgram(profile("[memory]\nstore_size = 16777216\nstore_free = 12582912\n"
                                "[memory.division]\nset_result = [3, 0]\n"
                                "[library.'device.dll']\nconstruct = 1\ngetHardwareVersion = 5\n"),
                        {{"My Flash Disk/device.dll", "MZ"}, {"My Flash Disk/debug.ini", kLogToFile},
                         {settings, "[HWVersion=3]\r\nthree=3\r\n[HWVersion=5]\r\nfive=5\r\n"}});
    std::vector<std::pair<int, int>> requests;
    for (const json &e : r.events("memory_division")) requests.emplace_back(e["storage_pages"], e["result"]);
    EXPECT_EQ(requests, (std::vector<std::pair<int, int>>{{1170, 3}, {1171, 0}}));
    const std::string log = r.file("My Flash Disk/tarsk.log");
    EXPECT_EQ(testing_support::occurrences(log, "Dumping memory stats before reorganising memory"), 1) << log;
    EXPECT_NE(log.find("Unknown key five = 5"), std::string::npos) << log;
    EXPECT_EQ(log.find("Unknown key three"), std::string::npos) << log;
    EXPECT_EQ(r.end(), "exit");
    if (!HasFailure()) fs::remove_all(r.device);
}

// A second copy on the same device exits at once with 0 and touches nothing.
TEST(AppRun, SecondInstanceExitsAtOnce) {
    fs::path device = tempFolder("tarsk-app");
    std::ofstream(device / "device.toml") << profile();
    {
        sim::Device first(device, device / "run" / "first.jsonl");
        first.install();
        HANDLE mutex = CreateMutexW(nullptr, FALSE, u"{77907ACE-42FA-4be5-8967-4101B08B1CCE}");
        ASSERT_NE(mutex, nullptr);
        EXPECT_EQ(run(kSim + " run " + quote(device.string()), device / "out", device / "err"), 0);
        CloseHandle(mutex);
    }
    std::vector<std::string> events;
    for (const json &e : readJournal(device / "run" / "journal.jsonl")) events.push_back(e.value("event", ""));
    EXPECT_EQ(events, (std::vector<std::string>{"exit", "end"})) << "no window, no file, no kernel query";
    EXPECT_FALSE(fs::exists(device / "run" / "panel.txt") && !slurp(device / "run" / "panel.txt").empty());
    std::vector<fs::path> files;
    for (const auto &e : fs::recursive_directory_iterator(device / "fs")) files.push_back(e.path());
    EXPECT_TRUE(files.empty());
    if (!HasFailure()) fs::remove_all(device);
}
