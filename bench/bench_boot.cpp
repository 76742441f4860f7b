// Whole-boot rehearsals, in deterministic device time, as boots per second of real time and per
// second of the runs' own CPU time (steadier on a busy machine):
//   boot/ours   the built `tarsk-sim run` on a fresh copy of the default device. A run is a process of
//               its own, so its start (dynamic linking, reading the profile) counts as the device's
//               boot does not; there is no reference to set it against.
//   fleet/ours  the built `tarsk-sim fleet` with the default package on 120 devices of mixed kernel
//               versions, hardware texts and bootloaders (one process per boot, forked, one per core).
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

namespace fs = std::filesystem;

const std::string kSim = std::string(TARSK_BINARY_DIR) + "/tarsk-sim";

// Runs tarsk-sim with args, its output thrown away; its exit code, or -1. Adds its CPU seconds to *cpu.
int runSim(const std::vector<std::string> &args, double *cpu = nullptr) {
    std::vector<char *> argv;
    std::string program = kSim;
    argv.push_back(program.data());
    std::vector<std::string> copies(args);
    for (std::string &a : copies) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    int rc = posix_spawn(&pid, kSim.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return -1;
    int status = 0;
    struct rusage usage = {};
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status)) return -1;
    if (cpu) {
        *cpu += double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
    }
    return WEXITSTATUS(status);
}

// A fresh temporary folder holding the default device as "pristine" (empty path after an error).
fs::path withDefaultDevice(benchmark::State &state, const std::string &prefix) {
    std::string tmpl = (fs::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (!::mkdtemp(tmpl.data())) {
        state.SkipWithError("no temporary folder");
        return {};
    }
    if (runSim({"new", (fs::path(tmpl) / "pristine").string()}) != 0) state.SkipWithError("tarsk-sim new failed");
    return tmpl;
}

void BM_BootRehearsal(benchmark::State &state) {
    const fs::path base = withDefaultDevice(state, "tarsk-bench-boot");
    if (base.empty()) return;
    const fs::path pristine = base / "pristine", work = base / "work";
    double cpu = 0;
    for (auto _ : state) {
        if (state.error_occurred()) break;
        state.PauseTiming();   // a fresh copy: a run consumes the package and writes its journal
        std::error_code ec;
        fs::remove_all(work, ec);
        fs::copy(pristine, work, fs::copy_options::recursive, ec);
        state.ResumeTiming();
        if (ec || runSim({"run", work.string()}, &cpu) != 0) state.SkipWithError("tarsk-sim run failed");
    }
    std::error_code ec;
    fs::remove_all(base, ec);
    state.counters["boots_per_second"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
    if (cpu > 0) state.counters["boots_per_cpu_second"] = double(state.iterations()) / cpu;
}

constexpr int kFleetDevices = 120;

void BM_FleetRehearsal(benchmark::State &state) {
    const fs::path base = withDefaultDevice(state, "tarsk-bench-fleet");
    if (base.empty()) return;
    const fs::path pristine = base / "pristine", fleet = base / "fleet";
    const fs::path package = pristine / "fs" / "My Flash Disk" / "upgrade.bin";
    // Kernels V1 to V5, hardware HW1 to HW3 (HW2 bypasses the package's images), bootloaders 1 to 3:
    // boots that hand over with each kind of request and boots that find nothing to do.
    std::ifstream in(pristine / "device.toml");
    const std::string profile((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (int i = 0; i < kFleetDevices && !state.error_occurred(); ++i) {
        const fs::path device = fleet / ("d" + std::to_string(1000 + i));
        std::error_code ec;
        fs::create_directories(device, ec);
        fs::copy(pristine / "fs", device / "fs", fs::copy_options::recursive, ec);
        std::string text = profile;
        bool found = true;
        auto replace = [&text, &found](const std::string &from, const std::string &to) {
            size_t at = text.find(from);
            if (at == std::string::npos) found = false;
            else text.replace(at, from.size(), to);
        };
        replace("version = 'V3.10 HW1'", "version = 'V" + std::to_string(1 + i % 5) + ".10 HW" +
                                             std::to_string(1 + i / 5 % 3) + "'");
        replace("bootloader_version = 'UB2'", "bootloader_version = 'UB" + std::to_string(1 + i / 15 % 3) + "'");
        std::ofstream(device / "device.toml") << text;
        if (ec || !found) state.SkipWithError("cannot make the fleet's devices");
    }
    double cpu = 0;
    for (auto _ : state) {
        if (state.error_occurred()) break;
        if (runSim({"fleet", package.string(), fleet.string()}, &cpu) != 0) state.SkipWithError("tarsk-sim fleet failed");
    }
    std::error_code ec;
    fs::remove_all(base, ec);
    const double boots = double(state.iterations()) * kFleetDevices;
    state.counters["boots_per_second"] = benchmark::Counter(boots, benchmark::Counter::kIsRate);
    if (cpu > 0) state.counters["boots_per_cpu_second"] = boots / cpu;
}

}  // namespace

BENCHMARK(BM_BootRehearsal)->Name("boot/ours")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FleetRehearsal)->Name("fleet/ours")->Unit(benchmark::kMillisecond)->UseRealTime();
