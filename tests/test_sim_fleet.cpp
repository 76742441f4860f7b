// tarsk-sim fleet, run as built on device folders made here: every row as the device gives it alone
// under `tarsk-sim run`, the given folders left as they were, the output formats and the exit codes;
// and the JSON summaries of run and check.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

#include <map>

namespace {

using namespace tool_test;
using nlohmann::json;

const std::string kSim = TARSK_BINARY_DIR "/tarsk-sim";
const std::string kDefault = TARSK_SOURCE_DIR "/devices/default";
const std::string kProgramFolder = "fs/My Flash Disk";

// A device of the default kind with the kernel's and bootloader's version texts given.
std::string profile(const std::string &kernel, const std::string &bootloader, const std::string &tables = "") {
    return "[device]\nprogram = '\\My Flash Disk\\tarsk.exe'\n[kernel]\nversion = '" + kernel +
           "'\nbootloader_version = '" + bootloader + "'\nhardware_type = 'X7'\nregion_version = 4\n"
           "hardware_version = 3\n[registry.'HKLM\\Information']\nInternal = '\\My Flash Disk'\n"
           "External1 = '\\Storage Card'\n" + tables;
}

void makeDevice(const fs::path &dir, const std::string &toml, const std::map<std::string, std::string> &files = {}) {
    fs::create_directories(dir / kProgramFolder);
    std::ofstream(dir / "device.toml") << toml;
    for (const auto &[path, bytes] : files) {
        fs::create_directories((dir / "fs" / path).parent_path());
        std::ofstream(dir / "fs" / path, std::ios::binary) << bytes;
    }
}

// Every file and folder below root with its bytes (folders: "/").
std::map<std::string, std::string> snapshot(const fs::path &root) {
    std::map<std::string, std::string> out;
    for (const auto &e : fs::recursive_directory_iterator(root))
        out[fs::relative(e.path(), root).string()] = e.is_directory() ? "/" : slurp(e.path());
    return out;
}

struct Output {
    int rc;
    std::string out, err;
};

Output sim(const fs::path &work, const std::string &args) {
    Output o;
    o.rc = run(kSim + " " + args, work / "out", work / "err");
    o.out = slurp(work / "out");
    o.err = slurp(work / "err");
    return o;
}

class FleetTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE((m_work = tempFolder("tarsk-fleet-test")).empty());
        m_package = m_work / "upgrade.bin";
        std::ofstream(m_package, std::ios::binary)
            << engine_test::sealPackage(slurp(fs::path(kDefault) / "upgrade.xml"));
    }
    void TearDown() override {
        if (!HasFailure()) fs::remove_all(m_work);
    }
    // The device alone: a copy with the package in its program's folder, under `run --json`.
    json alone(const fs::path &device) {
        const fs::path copy = m_work / ("alone-" + device.filename().string());
        fs::copy(device, copy, fs::copy_options::recursive);
        fs::copy_file(m_package, copy / kProgramFolder / "upgrade.bin", fs::copy_options::overwrite_existing);
        Output o = sim(m_work, "run --json --timeout 20 " + quote(copy.string()));
        return json::parse(o.out);
    }
    fs::path m_work, m_package;
};

// The package of the default device (bootloader V2, kernel V4 with format, both for hardware other
// than HW2; region not forced) on devices of mixed kernel versions and hardware texts.
TEST_F(FleetTest, RowsAreWhatEachDeviceGivesAloneAndTheFoldersStayAsTheyWere) {
    const std::string usb = "windows/USBScreen.exe";
    const char *kernelOnly = "000000000200000001000000000000000000000000000000";
    struct Row { const char *name; std::string toml; std::map<std::string, std::string> files;
                 const char *bootloader, *kernel; int format; const char *request, *end, *started; } rows[] = {
        {"kernel_newer", profile("V3.10 HW1", "UB2"), {}, "Bypass", "Pass", 1, kernelOnly, "handed-over", nullptr},
        {"both_newer", profile("V1 HW1", "UB1"), {}, "Pass", "Pass", 1,
         "020000000200000001000000000000000000000000000000", "handed-over", nullptr},
        {"hw_match", profile("V1 HW2", "UB1"), {{usb, "x"}}, "Bypass", "Bypass", 0, nullptr, "exit",
         "\\windows\\USBScreen.exe"},
        // the engine is gone when the program has returned: the request still tells its decisions
        {"refused", profile("V3.10 HW1", "UB2", "[kernel.fail]\n'0x80002E78' = 31\n"), {}, "Bypass", "Pass", 1,
         kernelOnly, "exit", nullptr},
        {"low_battery", profile("V1 HW1", "UB1", "[power]\nac_line = 0\nbattery_percent = 5\n"), {}, "Bypass",
         "Bypass", 0, nullptr, "timeout", nullptr},
        {"crash", profile("V1 HW1", "UB1", "[crash]\nCreateFontIndirectW = 1\n"), {}, "Bypass", "Bypass", 0,
         nullptr, "crash", nullptr},
    };
    // One device given on its own, the others in a folder of devices (with a folder that is none).
    const fs::path group = m_work / "group", single = m_work / rows[0].name;
    makeDevice(single, rows[0].toml, rows[0].files);
    for (size_t i = 1; i < std::size(rows); ++i) makeDevice(group / rows[i].name, rows[i].toml, rows[i].files);
    fs::create_directories(group / "notes");
    std::ofstream(single / kProgramFolder / "upgrade.bin") << "the device's own package";
    const auto before = snapshot(m_work);

    Output o = sim(m_work, "fleet --json --timeout 20 -j 2 " + quote(m_package.string()) + " " +
                               quote(single.string()) + " " + quote(group.string()));
    EXPECT_EQ(o.rc, 1) << "a device crashed\n" << o.err;
    fs::remove(m_work / "out");
    fs::remove(m_work / "err");
    EXPECT_EQ(snapshot(m_work), before) << "the given folders are left as they were";
    const json list = json::parse(o.out);
    ASSERT_EQ(list.size(), std::size(rows));

    // The rows come in the order given, a folder's devices by name.
    std::map<std::string, const Row *> byName;
    for (const Row &row : rows) byName[row.name] = &row;
    std::vector<std::string> order = {rows[0].name};
    for (const auto &[name, row] : byName)
        if (name != rows[0].name) order.push_back(name);
    for (size_t i = 0; i < list.size(); ++i) {
        const Row &row = *byName[order[i]];
        SCOPED_TRACE(row.name);
        const json &got = list[i];
        const fs::path folder = i == 0 ? single : group / row.name;
        EXPECT_EQ(got["device"], folder.string());
        EXPECT_EQ(got["bootloader"], json(row.bootloader));
        EXPECT_EQ(got["kernel"], json(row.kernel));
        EXPECT_EQ(got["region"], "Bypass");
        EXPECT_EQ(got["format"], row.format);
        EXPECT_EQ(got["request"], row.request ? json(row.request) : json());
        EXPECT_EQ(got["end"], json(row.end));
        EXPECT_EQ(got["started"], row.started ? json(row.started) : json());
        const json one = alone(folder);
        for (const char *key : {"bootloader", "kernel", "region", "format", "request", "end", "started"})
            EXPECT_EQ(got[key], one[key]) << key;
    }
}

// The output formats, and exit 2 for bad input with one error line.
TEST_F(FleetTest, FormatsAndBadInput) {
    const fs::path device = m_work / "dev", bad = m_work / "bad", empty = m_work / "empty";
    makeDevice(device, profile("V3.10 HW1", "UB2"));
    makeDevice(bad, profile("V3.10 HW1", "UB2") + "[kernel\n");
    fs::create_directories(empty);
    const std::string pkg = quote(m_package.string()), dev = quote(device.string());
    const std::string row = device.string() + ",Bypass,Pass,Bypass,1,000000000200000001000000000000000000000000000000,"
                                              "handed-over,\n";
    struct Case { const char *name; std::string args; int rc; std::string out, error; } cases[] = {
        {"csv", "--csv " + pkg + " " + dev, 0, "device,bootloader,kernel,region,format,request,end,started\n" + row, ""},
        {"descriptor sealed here", "--csv --seal " + quote(kDefault + "/upgrade.xml") + " " + dev, 0,
         "device,bootloader,kernel,region,format,request,end,started\n" + row, ""},
        {"table", pkg + " " + dev, 0, "1 device: 1 handed-over\n", ""},
        {"missing package", quote((m_work / "none.bin").string()) + " " + dev, 2, "", "none.bin"},
        {"no device", pkg + " " + quote(empty.string()), 2, "", "empty"},
        {"no folder", pkg + " " + quote((m_work / "gone").string()), 2, "", "gone"},
        {"bad profile", "--csv " + pkg + " " + quote(bad.string()), 2,
         ",,,,,,error,\n", (bad / "device.toml").string() + " line "},
        {"json and csv", "--json --csv " + pkg + " " + dev, 2, "", "--csv"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Output o = sim(m_work, "fleet " + c.args);
        EXPECT_EQ(o.rc, c.rc) << o.err;
        EXPECT_GE(o.out.size(), c.out.size());
        EXPECT_EQ(o.out.substr(o.out.size() - std::min(o.out.size(), c.out.size())), c.out) << o.out;
        if (c.error.empty()) {
            EXPECT_EQ(o.err, "");
        } else {
            EXPECT_EQ(o.err.rfind("tarsk-sim: error: ", 0), 0u) << o.err;
            EXPECT_NE(o.err.find(c.error), std::string::npos) << o.err;
            EXPECT_EQ(std::count(o.err.begin(), o.err.end(), '\n'), 1) << o.err;
        }
    }
}

// run --json and check --json: stdout is one JSON object (the panel and the notes go to stderr).
TEST_F(FleetTest, RunAndCheckPrintOneJsonObject) {
    const fs::path device = m_work / "dev";
    makeDevice(device, profile("V3.10 HW1", "UB2"));
    struct Case { const char *command; bool package; std::map<std::string, json> fields; const char *warning; } cases[] = {
        {"run", true, {{"kernel", "Pass"}, {"format", 1}, {"end", "handed-over"}, {"request_accepted", true},
                       {"time_ms", 2500}, {"panel", (device / "run" / "panel.txt").string()}}, nullptr},
        {"run", false, {{"kernel", "Bypass"}, {"request", nullptr}, {"end", "exit"}, {"code", 0}}, "no package"},
        {"check", true, {{"bootloader", "Bypass"}, {"kernel", "Pass"}, {"region", "Bypass"}, {"from_card", false},
                         {"request_error", 0}}, nullptr},
        {"check", false, {{"kernel", "not checked"}, {"request", nullptr}}, "no package"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.command) + (c.package ? " with the package" : " without"));
        if (c.package) fs::copy_file(m_package, device / kProgramFolder / "upgrade.bin");
        Output o = sim(m_work, std::string(c.command) + " --json " + quote(device.string()));
        EXPECT_EQ(o.rc, 0) << o.err;
        const json j = json::parse(o.out);
        EXPECT_EQ(j["device"], device.string());
        EXPECT_EQ(j["journal"], (device / "run" / "journal.jsonl").string());
        for (const auto &[key, value] : c.fields) EXPECT_EQ(j[key], value) << key;
        ASSERT_EQ(j["warnings"].size(), c.warning ? 1u : 0u) << j.dump(1);
        if (c.warning) {
            EXPECT_NE(j["warnings"][0].get<std::string>().find(c.warning), std::string::npos);
        }
        if (c.package) {
            EXPECT_NE(o.err.find("Kernel: Pass"), std::string::npos) << "the panel, on stderr";
        }
    }
}

}  // namespace
