// The package cipher: round trip, untouched tail, the arithmetic shift, known-answer vectors.
#include "tarsklib/tarsklib.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

const DWORD kKey[4] = {0x01234567u, 0x89ABCDEFu, 0xFEDCBA98u, 0x76543210u};

std::vector<BYTE> bytesOf(const std::string &hex) {
    std::vector<BYTE> v;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) v.push_back(BYTE(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return v;
}

// The same rounds with the usual logical right shift: what the cipher must NOT be.
void decipherLogical(BYTE *p, const DWORD k[4]) {
    uint32_t y, z, sum = 0x9E3779B9u * 16;
    std::memcpy(&y, p, 4);
    std::memcpy(&z, p + 4, 4);
    for (int i = 0; i < 16; ++i) {
        z -= ((y >> 5) ^ (y << 4)) + (sum ^ y) + k[(sum >> 11) & 3];
        sum -= 0x9E3779B9u;
        y -= ((z >> 5) ^ (z << 4)) + (sum ^ z) + k[sum & 3];
    }
    std::memcpy(p, &y, 4);
    std::memcpy(p + 4, &z, 4);
}

}  // namespace

TEST(TarskCipher, RoundTripsEverySizeAndLeavesTheTailAsItIs) {
    for (size_t n : {0u, 1u, 7u, 8u, 9u, 15u, 16u, 17u, 63u, 64u, 1000u, 4099u}) {
        std::mt19937 rng(unsigned(n) + 1);
        std::vector<BYTE> plain(n);
        for (BYTE &b : plain) b = BYTE(rng());
        std::vector<BYTE> data = plain;
        tarsk_encipher(data.data(), DWORD(n), kKey);
        EXPECT_TRUE(std::equal(data.begin() + n / 8 * 8, data.end(), plain.begin() + n / 8 * 8)) << "tail, size " << n;
        tarsk_decipher(data.data(), DWORD(n), kKey);
        EXPECT_EQ(data, plain) << "size " << n;
    }
}

TEST(TarskCipher, ShiftsDataWordsArithmetically) {
    // Both words with the top bit set: a logical-shift variant of the same rounds gives another result.
    std::vector<BYTE> block = bytesOf("ffffffff00000080"), logical = block;
    tarsk_decipher(block.data(), 8, kKey);
    decipherLogical(logical.data(), kKey);
    EXPECT_NE(block, logical);
}

TEST(TarskCipher, KnownAnswerVectors) {
    // Recorded once from an independent statement of the rounds; the packaging side depends on them.
    // The last one: blocks are enciphered each on its own, and a short tail stays as it is.
    const std::pair<std::string, std::string> kat[] = {
        {"746172736b2d3031", "22cae856440f858f"},   // "tarsk-01"
        {"ffffffff00000080", "37e5afdf823b7c2b"},
        {"746172736b2d3031ffffffff00000080746172736b2d3031abcdef",
         "22cae856440f858f37e5afdf823b7c2b22cae856440f858fabcdef"},
    };
    for (const auto &[plainHex, cipherHex] : kat) {
        std::vector<BYTE> data = bytesOf(plainHex);
        tarsk_encipher(data.data(), DWORD(data.size()), kKey);
        EXPECT_EQ(data, bytesOf(cipherHex)) << plainHex;
        tarsk_decipher(data.data(), DWORD(data.size()), kKey);
        EXPECT_EQ(data, bytesOf(plainHex)) << cipherHex;
    }
}
