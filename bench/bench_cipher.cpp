// The package cipher on a 16 MiB package: the engine's tarsk_decipher beside a plain textbook loop
// of the same rounds (native signed shifts, words copied with memcpy), in the same binary.
#include "tarsklib/tarsklib.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

constexpr size_t kPackageBytes = 16u << 20;
const DWORD kKey[4] = {0x5EC0A11Bu, 0x9E3779B9u, 0x4F1BBCDCu, 0x27D4EB2Fu};

std::vector<BYTE> package() {
    std::vector<BYTE> data(kPackageBytes);
    uint32_t x = 12345;
    for (auto &b : data) {
        x = x * 1103515245u + 12345u;
        b = BYTE(x >> 16);
    }
    return data;
}

// The textbook form: the compiler's arithmetic shift of int32_t (defined since C++20, and what
// every compiler of this workstation does anyway).
void textbookDecipher(BYTE *data, size_t size, const DWORD k[4]) {
    for (size_t off = 0; off + 8 <= size; off += 8) {
        int32_t y, z;
        std::memcpy(&y, data + off, 4);
        std::memcpy(&z, data + off + 4, 4);
        uint32_t sum = 0x9E3779B9u * 16;
        for (int i = 0; i < 16; ++i) {
            z = int32_t(uint32_t(z) - ((uint32_t(y >> 5) ^ (uint32_t(y) << 4)) + (sum ^ uint32_t(y)) + k[(sum >> 11) & 3]));
            sum -= 0x9E3779B9u;
            y = int32_t(uint32_t(y) - ((uint32_t(z >> 5) ^ (uint32_t(z) << 4)) + (sum ^ uint32_t(z)) + k[sum & 3]));
        }
        std::memcpy(data + off, &y, 4);
        std::memcpy(data + off + 4, &z, 4);
    }
}

void BM_TarskDecipher(benchmark::State &state) {
    std::vector<BYTE> data = package();
    for (auto _ : state) {
        tarsk_decipher(data.data(), DWORD(data.size()), kKey);
        benchmark::DoNotOptimize(data.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kPackageBytes));
    state.counters["target"] = 1.0;
}

void BM_TextbookDecipher(benchmark::State &state) {
    std::vector<BYTE> data = package();
    // The key reaches the loop as data, as it reaches the engine's function, not as constants the
    // compiler could fold into an inlined copy.
    DWORD key[4];
    std::memcpy(key, kKey, sizeof key);
    benchmark::DoNotOptimize(key);
    for (auto _ : state) {
        textbookDecipher(data.data(), data.size(), key);
        benchmark::DoNotOptimize(data.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kPackageBytes));
}

// Both must compute the same thing, or the comparison means nothing.
bool sameResult() {
    std::vector<BYTE> a = package(), b = a;
    tarsk_decipher(a.data(), DWORD(a.size()), kKey);
    textbookDecipher(b.data(), b.size(), kKey);
    return a == b;
}

void BM_CheckSameResult(benchmark::State &state) {
    const bool same = sameResult();
    for (auto _ : state) benchmark::DoNotOptimize(same);
    if (!same) state.SkipWithError("the engine's cipher and the textbook loop disagree");
}

}  // namespace

BENCHMARK(BM_CheckSameResult)->Name("cipher/check")->Iterations(1);
BENCHMARK(BM_TarskDecipher)->Name("cipher/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TextbookDecipher)->Name("cipher/reference")->Unit(benchmark::kMillisecond);
