// The INI enumeration of a 1 MiB settings file: CIniFile::enumSections/enumKeys on the simulated
// device beside inih's ini_parse of the same file on the host, in the same binary.
#include "platform/inifile.h"
#include "test_device.h"

#include <benchmark/benchmark.h>
#include <ini.h>

#include <string>

namespace {

const char *const kIniPath = "\\My Flash Disk\\bench.ini";

// Sections of 40 keys with lines of about 25 bytes, as the device settings are written.
std::string settingsText() {
    std::string text;
    for (int s = 0; text.size() < (1u << 20); ++s) {
        text += "[Section" + std::to_string(s) + "]\r\n";
        for (int k = 0; k < 40; ++k)
            text += "key" + std::to_string(k) + " name=" + std::to_string(s * 977 + k * 31) + " on\r\n";
    }
    return text;
}

struct Tally {
    long sections = 0, keys = 0, bytes = 0;
};
Tally g_tally;

int countKey(CIniFile *, const char *, const char *key, const char *value) {
    ++g_tally.keys;
    g_tally.bytes += long(strlen(key) + strlen(value));
    return 1;
}

int countSection(void *, CIniFile *ini, const char *) {
    ++g_tally.sections;
    ini->enumKeys(NULL, countKey);
    return 1;
}

int countInih(void *user, const char *section, const char *key, const char *value) {
    Tally *t = static_cast<Tally *>(user);
    ++t->keys;
    t->bytes += long(strlen(key) + strlen(value));
    return 1;
}

struct Files {
    testing_support::TestDevice device;
    std::string host;
    Files() {
        device.put(kIniPath, settingsText());
        host = device.host(kIniPath).string();
    }
};

Files &files() {
    static Files f;
    return f;
}

void BM_IniEnumOurs(benchmark::State &state) {
    const std::u16string name = testing_support::W(kIniPath);
    files();
    for (auto _ : state) {
        CIniFile ini;
        g_tally = Tally();
        if (!ini.open(name.c_str())) state.SkipWithError("open failed");
        ini.enumSections(countSection, NULL);
        ini.close();
        benchmark::DoNotOptimize(g_tally);
    }
    state.counters["keys"] = double(g_tally.keys);
    state.counters["target"] = 1.5;
}

void BM_IniEnumReference(benchmark::State &state) {
    const std::string &host = files().host;
    Tally t;
    for (auto _ : state) {
        t = Tally();
        if (ini_parse(host.c_str(), countInih, &t) != 0) state.SkipWithError("ini_parse failed");
        benchmark::DoNotOptimize(t);
    }
    state.counters["keys"] = double(t.keys);
}

// Both must see the same keys, or the comparison means nothing.
void BM_CheckSameKeys(benchmark::State &state) {
    files();
    CIniFile ini;
    g_tally = Tally();
    ini.open(testing_support::W(kIniPath).c_str());
    ini.enumSections(countSection, NULL);
    Tally t;
    ini_parse(files().host.c_str(), countInih, &t);
    for (auto _ : state) benchmark::DoNotOptimize(t);
    if (g_tally.keys != t.keys || g_tally.bytes != t.bytes || g_tally.keys < 40000)
        state.SkipWithError("the enumeration and inih see different keys");
}

}  // namespace

BENCHMARK(BM_CheckSameKeys)->Name("ini_enum/check")->Iterations(1);
BENCHMARK(BM_IniEnumOurs)->Name("ini_enum/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IniEnumReference)->Name("ini_enum/reference")->Unit(benchmark::kMillisecond);
