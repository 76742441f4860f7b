// tarsk-sim's device folders: the default device, sealing its sample package, making the device.
#include "simtool.h"

#include <cstdio>
#include <sys/mman.h>
#include <unistd.h>

namespace tarsk_sim {

using namespace tarsk_tools;

const char *kTool = "tarsk-sim";
static const char *kDefaultProgram = "\\My Flash Disk\\tarsk.exe";

[[noreturn]] void fail(int code, const std::string &text) { throw Failure{code, text}; }

// The default device, found from the tool's own location: installed, PREFIX/bin/tarsk-sim reads
// PREFIX/share/tarsk/devices/default; in the build folder, BUILD/tarsk-sim reads
// BUILD/share/tarsk/devices/default (a link to the source tree's copy, made at configure time).
static fs::path defaultDeviceFolder() {
    std::error_code ec;
    fs::path bin = fs::read_symlink("/proc/self/exe", ec).parent_path();
    if (ec) fail(2, "cannot find the default device: /proc/self/exe: " + ec.message());
    const fs::path rel = fs::path("share") / "tarsk" / "devices" / "default";
    for (const fs::path &base : {bin.parent_path(), bin}) {
        fs::path folder = fs::canonical(base / rel, ec);
        if (!ec && fs::is_regular_file(folder / "device.toml", ec)) return folder;
    }
    fail(2, "the default device is missing: no " + (bin.parent_path() / rel / "device.toml").string() + " nor " +
                (bin / rel / "device.toml").string());
}

// The CE folder of a program path: everything before its last "\".
static std::u16string ceFolderOf(const std::u16string &program) {
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
    std::error_code ec;
    fs::create_directories(dest, ec);
    if (ec) fail(2, "cannot make " + dest.string() + ": " + ec.message());
    fs::copy(from, dest, fs::copy_options::recursive, ec);
    if (ec) fail(2, "cannot copy the default device into " + dest.string() + ": " + ec.message());
    fs::remove_all(dest / "run", ec);   // anything a run left in the default device is not part of it

    toml::table profile;
    try {
        profile = toml::parse_file((dest / "device.toml").string());
    } catch (const toml::parse_error &e) {
        fail(2, (dest / "device.toml").string() + ": " + std::string(e.description()));
    }
    std::u16string program = sim::fromUtf8(sim::profileString(profile, "device.program").value_or(kDefaultProgram));
    sealSample(dest, program);
}

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
std::unique_ptr<sim::Device> makeDevice(const fs::path &folder, const fs::path &journal,
                                        std::vector<std::string> *warningLines) {
    std::fflush(stderr);
    int saved = ::dup(2);
    // In memory: a temporary file on disk costs a boot of the fleet more than the rest of its set-up.
    const int heldFd = ::memfd_create("tarsk-sim-held", MFD_CLOEXEC);
    FILE *held = heldFd >= 0 ? ::fdopen(heldFd, "w+") : std::tmpfile();
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
    if (warningLines) {
        size_t from = 0;
        for (size_t nl; (nl = warnings.find('\n', from)) != std::string::npos; from = nl + 1)
            warningLines->push_back(warnings.substr(from, nl - from));
    }
    return dev;
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


fs::path prepareFolder(const std::string &deviceArg) {
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
    return folder;
}

std::string packageNote(const fs::path &folder, sim::Device &dev) {
    fs::path package = packagePath(folder, dev.programPath());
    if (fs::exists(package)) return {};
    return "no package: " + package.string() + " does not exist, so the engine will find nothing" +
           (fs::exists(folder / "upgrade.xml") ? " (--seal seals upgrade.xml into it)" : "");
}

Prepared prepareDevice(const RunOptions &o) {
    Prepared p;
    p.folder = prepareFolder(o.device);
    p.dev = makeDevice(p.folder, o.journal, &p.warnings);
    if (o.timeScale >= 0) p.dev->clock().setScale(o.timeScale);
    if (o.seal) {
        fs::path sealed = sealSample(p.folder, p.dev->programPath());
        std::printf("%s: sealed %s into %s\n", kTool, (p.folder / "upgrade.xml").c_str(), sealed.c_str());
    }
    std::string note = packageNote(p.folder, *p.dev);
    if (!note.empty()) {
        std::printf("%s: %s\n", kTool, note.c_str());
        p.warnings.push_back(note);
    }
    return p;
}

}  // namespace tarsk_sim
