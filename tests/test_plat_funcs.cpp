// Hardware information: hardware version, memory fitted, model numbers.
#include "test_device.h"

#include "platform/plat_funcs.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <cstdio>

using namespace testing_support;

namespace {

std::string memoryProfile(DWORD store, DWORD phys) {
    char text[128];
    std::snprintf(text, sizeof text, "[memory]\nstore_size = %u\ntotal_phys = %u\n", store, phys);
    return text;
}

DWORD lookup(const std::string &name) { return sys_getModelNumber(W(name).c_str()); }

}  // namespace

TEST(HardwareMemory, RoundsUpToTheNext8MB) {
    struct Case { DWORD store, phys; bool storeFails; DWORD size; const char *line; } cases[] = {
        {0x00700000, 0x01800000, false, 0x02000000, "0x1f00000 (approx 31.0 MB)"},
        {0x00800000, 0x01800000, false, 0x02800000, "0x2000000 (approx 32.0 MB)"},   // exact multiple: one more
        {0x00000000, 0x01F80000, false, 0x02000000, "0x1f80000 (approx 31.524288 MB)"},   // raw remainder
        {0x00000000, 0x00000000, false, 0x00800000, "0x0 (approx 0.0 MB)"},
        {0x01000000, 0x027FFFFF, false, 0x03800000, "0x37fffff (approx 55.1048575 MB)"},
        {0x00800000, 0x01F00000, true, 0x02000000, "0x1f00000 (approx 31.0 MB)"},   // a failed store query counts 0
    };
    for (const Case &c : cases) {
        TestDevice t(memoryProfile(c.store, c.phys) + (c.storeFails ? "[fail]\nGetStoreInformation = 31\n" : ""));
        os_setLastError(0);
        DWORD size = 0xDEADBEEF;
        EXPECT_EQ(1, sys_getHardwareMemory(&size));
        EXPECT_EQ(c.size, size) << std::hex << c.store << " " << c.phys;
        EXPECT_TRUE(logged(std::string("Total physical RAM in the order of: ") + c.line)) << logText();
        EXPECT_EQ(c.storeFails ? 31u : 0u, os_getLastError());
        if (c.storeFails) {
            EXPECT_TRUE(logged("ERROR, sys_getHardwareMemory(): GetStoreInformation() failed, error 31"));
        }
    }
}

TEST(HardwareVersion, FromTheKernel) {
    const std::string line = "sys_getHardwareVersion(): KernelIoControl(IOCTL_HAL_READ_HW_VERSION) ";
    struct Case { const char *profile; DWORD version, lastError; std::string line; } cases[] = {
        {"[kernel]\nhardware_version = 3\n", 3, 0, line + "returned 3"},
        {"", 0, ERROR_NOT_SUPPORTED, line + "failed, error 50"},   // no answer: the query fails
        {"[kernel]\nhardware_version = 3\n[kernel.fail]\n'0x01012028' = 31\n", 0, 31, line + "failed, error 31"},
    };
    for (const Case &c : cases) {
        TestDevice t(c.profile);
        os_setLastError(0);
        EXPECT_EQ(c.version, sys_getHardwareVersion()) << c.profile;
        EXPECT_EQ(c.lastError, os_getLastError()) << c.profile;
        EXPECT_TRUE(logged(c.line)) << logText();
        auto calls = t.events("ioctl");
        ASSERT_EQ(1u, calls.size()) << c.profile;
        EXPECT_EQ("0x01012028", calls[0]["code"]);
        EXPECT_EQ("", calls[0]["input"]);
    }
}

// Every row by its own name, then the match rules: upper-cased first, a prefix over the row's full
// length, a substring anywhere for the short names, table order first, 259 characters searched.
TEST(ModelNumber, RowsAndMatchRules) {
    struct Case { std::string name; DWORD number; } rows[] = {
        {"VESKA320XL", 21}, {"VESKA320", 20}, {"VESKA220", 19}, {"VESKA120", 17}, {"VESKAMINI", 22},
        {"VESKACITY", 23}, {"VESKAPRO", 24},
        {"DRIVELO500T", 31}, {"DRIVELO500", 30}, {"DRIVELO300", 29}, {"DRIVELO100", 28},
        {"TREKNOVA7", 7}, {"TREKNOVA8", 8}, {"TREKNOVA9", 9}, {"TREKNOVA10", 10},
        {"MAPPO2CF", 11}, {"MAPPODEV", 12}, {"MAPPOLAB", 13},
        {"WAYRO15", 15}, {"WAYRO16", 16}, {"WAYRO25", 25}, {"WAYRO35", 26}, {"WAYRO45", 27},
        {"CITYNAV40", 32}, {"CITYNAV42", 33}, {"CITYNAV44", 34}, {"CITYNAV46", 35},
        {"ROADLYNXA", 36}, {"ROADLYNXB", 37}, {"ROADLYNXC", 38},
        {"ALTURA600", 39}, {"ALTURA650", 40}, {"ALTURA700", 41}, {"ALTURA750", 42},
        {"ZENTO3", 43}, {"ZENTO5", 44}, {"ZENTO7", 45}, {"KX2", 46}, {"KX4", 47},
        {"Q5", 48}, {"M2", 49}, {"N9", 50}, {"T8", 51}, {"X7", 52},
        {"X70", 52},   // never 53: the earlier row "X7" is found in it first
        {"R3", 54}, {"V6", 59}, {"P1", 60},
        {"veska320xl", 21}, {"x7", 52},
        {"VESKA320XLT", 21},       // prefix over the row's full length
        {"VESKA320X", 20},         // the longer row does not match, the next one does
        {"VESKA", 0},              // the family word alone is no model
        {"VESKAX7", 0},            // a family name never falls through to the substring rows
        {"MYDRIVELO500TX", 31},    // a substring anywhere
        {"X7Q5", 48},              // table order decides, not the position in the name
        {"TREKNOVA1", 0}, {"", 0}, {"UNKNOWN", 0},
        {std::string(257, 'A') + "X7", 52},   // ends at character 259
        {std::string(258, 'A') + "X7", 0},    // only the first 259 characters are searched
    };
    for (const Case &c : rows) EXPECT_EQ(c.number, lookup(c.name)) << c.name;
    EXPECT_EQ(0u, sys_getModelNumber(NULL));
}
