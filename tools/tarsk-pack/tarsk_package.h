// The package side shared by the host tools: the package key, whole-file reading, writing an output
// through a temporary file beside it (so a failure never leaves a partial file), and sealing/opening
// a descriptor with the engine's own cipher.
#pragma once

#include "tarsklib/tarsklib.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace tarsk_tools {

namespace fs = std::filesystem;

using Bytes = std::vector<BYTE>;

struct PackageKey {
    DWORD k[4];
};

// The build's key (the one the device program deciphers with).
inline PackageKey buildKey() {
    PackageKey key;
    tarsk_packageKey(key.k);
    return key;
}

// 32 hex digits: k0 k1 k2 k3, eight digits each, most significant first.
inline std::optional<PackageKey> parseKey(const std::string &text) {
    if (text.size() != 32) return std::nullopt;
    PackageKey key{};
    for (size_t i = 0; i < 32; ++i) {
        char c = text[i];
        DWORD digit;
        if (c >= '0' && c <= '9') digit = DWORD(c - '0');
        else if (c >= 'a' && c <= 'f') digit = DWORD(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F') digit = DWORD(c - 'A' + 10);
        else return std::nullopt;
        key.k[i / 8] = (key.k[i / 8] << 4) | digit;
    }
    return key;
}

// Parses the command line. Returns -1 when the tool is to go on, else the exit code: 0 after
// printing the help, 2 after a one-line usage error.
inline int parseCommandLine(CLI::App &app, int argc, char **argv, const char *tool) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        std::cerr << tool << ": error: " << e.what() << " (see " << tool << " --help)\n";
        return 2;
    }
    return -1;
}

inline std::string systemError(int err) { return std::strerror(err); }

// The whole file; nullopt with the reason in why when it cannot be read.
inline std::optional<Bytes> readFile(const fs::path &file, std::string &why) {
    std::error_code ec;
    if (fs::is_directory(file, ec)) {
        why = "is a directory";
        return std::nullopt;
    }
    FILE *in = std::fopen(file.c_str(), "rb");
    if (!in) {
        why = systemError(errno);
        return std::nullopt;
    }
    Bytes data;
    BYTE chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, in)) > 0) data.insert(data.end(), chunk, chunk + n);
    bool bad = std::ferror(in) != 0;
    int err = errno;
    std::fclose(in);
    if (bad) {
        why = systemError(err);
        return std::nullopt;
    }
    return data;
}

// Writes data to a temporary file in the output's folder and renames it over the output. On any
// failure the temporary file is removed, the output is left as it was, and why says what failed.
inline bool writeFileAtomic(const fs::path &out, const Bytes &data, std::string &why) {
    fs::path dir = out.parent_path();
    if (dir.empty()) dir = ".";
    std::string tmpl = (dir / ("." + out.filename().string() + ".tmp-XXXXXX")).string();
    std::vector<char> name(tmpl.begin(), tmpl.end());
    name.push_back('\0');
    int fd = ::mkstemp(name.data());
    if (fd < 0) {
        why = systemError(errno);
        return false;
    }
    // mkstemp makes the file private; give it the permissions an ordinary new file would get.
    mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);

    bool ok = true;
    size_t done = 0;
    while (ok && done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            why = systemError(errno);
            ok = false;
        } else {
            done += size_t(n);
        }
    }
    if (::close(fd) != 0 && ok) {
        why = systemError(errno);
        ok = false;
    }
    if (ok && std::rename(name.data(), out.c_str()) != 0) {
        why = systemError(errno);
        ok = false;
    }
    if (!ok) ::unlink(name.data());
    return ok;
}

// The engine's cipher works on a 32-bit size.
inline bool fitsDevice(const Bytes &data) { return data.size() <= 0xFFFFFFFFull; }

inline void seal(Bytes &data, const PackageKey &key) {
    if (!data.empty()) tarsk_encipher(data.data(), DWORD(data.size()), key.k);
}

inline void unseal(Bytes &data, const PackageKey &key) {
    if (!data.empty()) tarsk_decipher(data.data(), DWORD(data.size()), key.k);
}

}  // namespace tarsk_tools
