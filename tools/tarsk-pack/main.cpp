// tarsk-pack: the packaging side of the upgrade package.
//
//   tarsk-pack seal DESCRIPTOR.xml -o upgrade.bin [--key HEX]   encipher a descriptor
//   tarsk-pack open upgrade.bin -o upgrade.xml [--key HEX]      decipher a package
//   tarsk-pack inspect upgrade.bin [--key HEX] [--json]         show what the device will read
//
// Exit codes: 0 done, 1 the operation failed, 2 bad usage or bad input (nothing is written then).
#include "inspect.h"
#include "tarsk_package.h"

#include <CLI/CLI.hpp>

#include <iostream>

using namespace tarsk_tools;

namespace {

const char *kTool = "tarsk-pack";

// Thrown by a command for the one-line error of exit code 2 (or 1).
struct Failure {
    int code;
    std::string text;
};

[[noreturn]] void fail(int code, const std::string &text) { throw Failure{code, text}; }

// The key given with --key, else the build's.
std::optional<std::string> g_keyText;

PackageKey keyFrom() {
    if (!g_keyText) return buildKey();
    const std::string &text = *g_keyText;
    auto key = parseKey(text);
    if (!key) fail(2, "malformed key '" + text + "': expected 32 hex digits (k0 k1 k2 k3, eight each)");
    return *key;
}

Bytes input(const std::string &file) {
    std::string why;
    auto data = readFile(file, why);
    if (!data) fail(2, "cannot read " + file + ": " + why);
    if (!fitsDevice(*data)) fail(1, file + " is too large for the device (4 GiB or more)");
    return *data;
}

void output(const std::string &file, const Bytes &data) {
    std::string why;
    if (!writeFileAtomic(file, data, why)) fail(2, "cannot write " + file + ": " + why);
}

int cmdSeal(const std::string &in, const std::string &out) {
    PackageKey key = keyFrom();
    Bytes data = input(in);
    tarsk_tools::seal(data, key);
    output(out, data);
    return 0;
}

int cmdOpen(const std::string &in, const std::string &out) {
    PackageKey key = keyFrom();
    Bytes data = input(in);
    unseal(data, key);
    output(out, data);
    return 0;
}

int cmdInspect(const std::string &in, bool json) {
    PackageKey key = keyFrom();
    Bytes data = input(in);
    unseal(data, key);
    Inspection inspection;
    std::string why;
    int rc = inspectPackage(data, inspection, why);
    if (rc == 2) fail(1, why);
    if (json) {
        nlohmann::ordered_json j = {{"package", in}, {"bytes", data.size()}, {"key", g_keyText ? "given" : "build"}};
        j.update(inspectionJson(inspection));
        // The descriptor's texts are not necessarily UTF-8: what is not becomes U+FFFD.
        std::cout << j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
    } else {
        printInspection(inspection, in + ": " + std::to_string(data.size()) + " bytes, deciphered with " +
                                        (g_keyText ? "the given key" : "the build's key"),
                        std::cout);
    }
    return rc;
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"The upgrade package tool: seals a descriptor into upgrade.bin with the package key, "
                 "opens one, and shows what the device will read from it.\n"
                 "Exit codes: 0 done, 1 the operation failed, 2 bad usage or bad input.",
                 kTool};
    app.require_subcommand(1);

    std::string in, out, key;
    const char *keyHelp = "the package key, 32 hex digits (k0 k1 k2 k3, eight each); default: the build's key";

    CLI::App *sealCmd = app.add_subcommand("seal", "encipher a descriptor into a package (upgrade.bin)");
    sealCmd->add_option("descriptor", in, "the descriptor XML")->required();
    sealCmd->add_option("-o,--output", out, "the package to write")->required();
    std::vector<CLI::Option *> keyOptions;
    keyOptions.push_back(sealCmd->add_option("--key", key, keyHelp));

    CLI::App *openCmd = app.add_subcommand("open", "decipher a package into its descriptor (upgrade.xml)");
    openCmd->add_option("package", in, "the package (upgrade.bin)")->required();
    openCmd->add_option("-o,--output", out, "the descriptor to write")->required();
    keyOptions.push_back(openCmd->add_option("--key", key, keyHelp));

    CLI::App *inspectCmd = app.add_subcommand(
        "inspect", "print the bootloader, kernel and region records as the device reads them, with a "
                   "warning for each value the device reads differently from how it is written; exit 1 "
                   "when the device can use nothing in the package");
    inspectCmd->add_option("package", in, "the package (upgrade.bin)")->required();
    keyOptions.push_back(inspectCmd->add_option("--key", key, keyHelp));
    bool json = false;
    inspectCmd->add_flag("--json", json, "print the report as one JSON object");

    if (int code = parseCommandLine(app, argc, argv, kTool); code >= 0) return code;

    try {
        for (const CLI::Option *opt : keyOptions)
            if (opt->count()) g_keyText = key;
        if (sealCmd->parsed()) return cmdSeal(in, out);
        if (openCmd->parsed()) return cmdOpen(in, out);
        return cmdInspect(in, json);
    } catch (const Failure &f) {
        std::cerr << kTool << ": error: " << f.text << "\n";
        return f.code;
    }
}
