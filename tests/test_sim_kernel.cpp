// The simulated kernel: KernelIoControl answers and requests, failure injection, the journal,
// store information, memory status and message boxes.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <vector>

#include "kernel.h"
#include "test_device.h"

using testing_support::TestDevice;
using testing_support::W;

namespace {

const char *kProfile = R"(
[kernel]
version = 'V3.10 HW1'
bootloader_version = 'UB2'
hardware_type = 'X7'
region_version = 4
hardware_version = 3
)";

DWORD word(const BYTE *p) { return DWORD(p[0]) | DWORD(p[1]) << 8 | DWORD(p[2]) << 16 | DWORD(p[3]) << 24; }

std::u16string wideAt(const BYTE *p, size_t maxChars) {
    std::u16string s;
    for (size_t i = 0; i < maxChars; ++i) {
        char16_t c = char16_t(p[2 * i] | p[2 * i + 1] << 8);
        if (!c) break;
        s.push_back(c);
    }
    return s;
}

nlohmann::json lastIoctl(TestDevice &td) {
    auto events = td.events("ioctl");
    EXPECT_FALSE(events.empty());
    return events.empty() ? nlohmann::json() : events.back();
}

}  // namespace

TEST(SimKernel, QueriesAnswerFromTheProfile) {
    TestDevice td(kProfile);
    BYTE out[1024];
    DWORD got = 0;

    std::memset(out, 0xCC, sizeof out);
    ASSERT_TRUE(KernelIoControl(0x8000208C, NULL, 0, out, 512, &got));
    EXPECT_EQ(wideAt(out, 256), W("V3.10 HW1"));
    EXPECT_EQ(got, 20u);   // nine characters and the terminator

    std::memset(out, 0xCC, sizeof out);
    ASSERT_TRUE(KernelIoControl(0x80002090, NULL, 0, out, 256, &got));
    EXPECT_STREQ(reinterpret_cast<char *>(out), "UB2");

    BYTE query[16] = {3};
    std::memset(out, 0xCC, sizeof out);
    ASSERT_TRUE(KernelIoControl(0x80002E90, query, sizeof query, out, 804, &got));
    EXPECT_EQ(got, 804u);
    EXPECT_EQ(wideAt(out, 226), W("X7"));
    EXPECT_EQ(word(out + 452), 4u);
    EXPECT_EQ(out[803], 0);   // the whole record is written, the rest zero
    EXPECT_EQ(lastIoctl(td)["input"], "03000000000000000000000000000000");

    ASSERT_TRUE(KernelIoControl(IOCTL_HAL_READ_HW_VERSION, NULL, 0, out, 4, &got));
    EXPECT_EQ(word(out), 3u);
    EXPECT_EQ(got, 4u);

    auto e = lastIoctl(td);
    EXPECT_EQ(e["code"], "0x01012028");
    EXPECT_EQ(e["ok"], true);
    EXPECT_EQ(e["error"], 0);
    EXPECT_EQ(e["input"], "");
    EXPECT_EQ(td.events("ioctl").size(), 4u);
}

TEST(SimKernel, AnswersAreCutToTheOutputSize) {
    TestDevice td(kProfile);
    BYTE out[900];
    DWORD got = 0;

    std::memset(out, 0xCC, sizeof out);
    ASSERT_TRUE(KernelIoControl(0x8000208C, NULL, 0, out, 8, &got));   // room for three characters
    EXPECT_EQ(wideAt(out, 4), W("V3."));
    EXPECT_EQ(got, 8u);
    EXPECT_EQ(out[8], 0xCC);

    std::memset(out, 0xCC, sizeof out);
    ASSERT_TRUE(KernelIoControl(0x80002090, NULL, 0, out, 2, &got));
    EXPECT_STREQ(reinterpret_cast<char *>(out), "U");
    EXPECT_EQ(out[2], 0xCC);

    std::memset(out, 0xCC, sizeof out);
    ASSERT_TRUE(KernelIoControl(0x80002E90, NULL, 0, out, 100, &got));
    EXPECT_EQ(got, 100u);
    EXPECT_EQ(out[100], 0xCC);

    // A larger buffer than the record still gets 804 bytes.
    ASSERT_TRUE(KernelIoControl(0x80002E90, NULL, 0, out, sizeof out, &got));
    EXPECT_EQ(got, 804u);

    // Too small for any answer.
    SetLastError(0);
    EXPECT_FALSE(KernelIoControl(IOCTL_HAL_READ_HW_VERSION, NULL, 0, out, 3, &got));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INSUFFICIENT_BUFFER));
}

TEST(SimKernel, LongHardwareTypeStopsBeforeTheRegionWord) {
    TestDevice td("[kernel]\nhardware_type = '" + std::string(400, 'H') + "'\nregion_version = 0x01020304\n");
    BYTE out[804];
    DWORD got = 0;
    ASSERT_TRUE(KernelIoControl(0x80002E90, NULL, 0, out, sizeof out, &got));
    EXPECT_EQ(wideAt(out, 402).size(), 225u);
    EXPECT_EQ(word(out + 452), 0x01020304u);
}

TEST(SimKernel, MissingAnswersAndUnknownCodesFail) {
    struct Case { const char *profile; DWORD code; DWORD error; };
    const Case cases[] = {
        {"", 0x8000208C, ERROR_NOT_SUPPORTED},
        {"", 0x80002090, ERROR_NOT_SUPPORTED},
        {"", 0x80002E90, ERROR_NOT_SUPPORTED},
        {"", IOCTL_HAL_READ_HW_VERSION, ERROR_NOT_SUPPORTED},
        {"[kernel]\nregion_version = 2\n", 0x80002E90, 0},   // one of the two is enough for the record
        {"[kernel]\nversion = 'V1'\n", 0x80002090, ERROR_NOT_SUPPORTED},
        {kProfile, 0x8000ABCD, ERROR_NOT_SUPPORTED},
        {kProfile, 0x00000000, ERROR_NOT_SUPPORTED},
    };
    for (const Case &c : cases) {
        TestDevice td(c.profile);
        BYTE out[804];
        DWORD got = 0xDEAD;
        SetLastError(0);
        BOOL ok = KernelIoControl(c.code, NULL, 0, out, sizeof out, &got);
        SCOPED_TRACE(sim::hexCode(c.code) + " with profile: " + c.profile);
        EXPECT_EQ(ok, c.error == 0);
        auto e = lastIoctl(td);
        EXPECT_EQ(e["code"], sim::hexCode(c.code));
        EXPECT_EQ(e["ok"], c.error == 0);
        EXPECT_EQ(e["error"], c.error);
        if (c.error) {
            EXPECT_EQ(GetLastError(), c.error);
        }
    }
}

TEST(SimKernel, RequestsAreAcceptedAndRecorded) {
    TestDevice td(kProfile);
    sim::Kernel &k = td.dev().kernel();

    BYTE record[24] = {};
    record[0] = 4;    // UpgradeType
    record[4] = 2;    // UpgradeVia
    record[8] = 1;    // UpgradeFormat
    ASSERT_TRUE(KernelIoControl(0x80002E78, record, sizeof record, NULL, 0, NULL));
    auto e = lastIoctl(td);
    EXPECT_EQ(e["code"], "0x80002E78");
    EXPECT_EQ(e["input"], "040000000200000001000000000000000000000000000000");
    EXPECT_EQ(e["ok"], true);
    auto requests = k.acceptedImageRequests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].upgradeType, 4u);
    EXPECT_EQ(requests[0].upgradeVia, 2u);
    EXPECT_EQ(requests[0].upgradeFormat, 1u);
    EXPECT_EQ(std::memcmp(requests[0].bytes.data(), record, 24), 0);

    WCHAR serial[20] = {};
    std::u16string text = W("SN-0042");
    std::copy(text.begin(), text.end(), serial);
    ASSERT_TRUE(KernelIoControl(0x80002098, serial, sizeof serial, NULL, 0, NULL));
    EXPECT_EQ(lastIoctl(td)["input"].get<std::string>().substr(0, 16), "53004e002d003000");
    ASSERT_EQ(k.acceptedSerialNumbers().size(), 1u);
    EXPECT_EQ(k.acceptedSerialNumbers()[0], text);

    std::vector<BYTE> zeros(4096, 0);
    ASSERT_TRUE(KernelIoControl(0x80002EB4, zeros.data(), 4096, NULL, 0, NULL));
    EXPECT_EQ(lastIoctl(td)["input"], std::string(8192, '0'));
    EXPECT_EQ(k.acceptedHiddenFormats(), 1);
}

TEST(SimKernel, RequestsWithAWrongInputSizeAreRefused) {
    struct Case { DWORD code; DWORD size; };
    const Case cases[] = {
        {0x80002E78, 23}, {0x80002E78, 25}, {0x80002E78, 0},
        {0x80002098, 38}, {0x80002098, 42},
        {0x80002EB4, 4095}, {0x80002EB4, 0},
    };
    TestDevice td(kProfile);
    std::vector<BYTE> input(5000, 0);
    for (const Case &c : cases) {
        SCOPED_TRACE(sim::hexCode(c.code) + " size " + std::to_string(c.size));
        SetLastError(0);
        EXPECT_FALSE(KernelIoControl(c.code, c.size ? input.data() : NULL, c.size, NULL, 0, NULL));
        EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_PARAMETER));
        EXPECT_EQ(lastIoctl(td)["error"], 87);
    }
    EXPECT_TRUE(td.dev().kernel().acceptedImageRequests().empty());
    EXPECT_TRUE(td.dev().kernel().acceptedSerialNumbers().empty());
    EXPECT_EQ(td.dev().kernel().acceptedHiddenFormats(), 0);
}

TEST(SimKernel, InjectedFailuresRefuseTheCode) {
    TestDevice td(std::string(kProfile) + "[kernel.fail]\n'0x80002E78' = 31\n'0x8000208c' = 5\n");
    BYTE record[24] = {1};
    SetLastError(0);
    EXPECT_FALSE(KernelIoControl(0x80002E78, record, sizeof record, NULL, 0, NULL));
    EXPECT_EQ(GetLastError(), 31u);
    auto e = lastIoctl(td);
    EXPECT_EQ(e["ok"], false);
    EXPECT_EQ(e["error"], 31);
    EXPECT_EQ(e["input"], "010000000000000000000000000000000000000000000000");
    EXPECT_TRUE(td.dev().kernel().acceptedImageRequests().empty());

    BYTE out[512];
    EXPECT_FALSE(KernelIoControl(0x8000208C, NULL, 0, out, sizeof out, NULL));
    EXPECT_EQ(GetLastError(), 5u);

    // Other codes still answer; a failure set in code can be cleared.
    EXPECT_TRUE(KernelIoControl(0x80002090, NULL, 0, out, sizeof out, NULL));
    td.dev().kernel().setFailure(0x80002E78, std::nullopt);
    EXPECT_TRUE(KernelIoControl(0x80002E78, record, sizeof record, NULL, 0, NULL));
    EXPECT_EQ(td.dev().kernel().acceptedImageRequests().size(), 1u);
}

TEST(SimKernel, BadKernelProfileIsReported) {
    const char *profiles[] = {
        "[kernel]\nversion = 3\n",
        "[kernel]\nhardware_version = 'three'\n",
        "[kernel]\nregion_version = -1\n",
        "[kernel]\nhardware_version = 0x100000000\n",
        "[kernel.fail]\nimage = 31\n",
        "[kernel.fail]\n'0x80002E78' = 'no'\n",
        "kernel = 1\n",
        "[memory]\ntotal_phys = 'lots'\n",
    };
    for (const char *p : profiles) {
        SCOPED_TRACE(p);
        EXPECT_THROW(TestDevice td(p), std::runtime_error);
    }
}

TEST(SimKernel, StoreInformationAndMemoryStatus) {
    {
        TestDevice td;   // the default: a 64 MB device
        STORE_INFORMATION si = {};
        ASSERT_TRUE(GetStoreInformation(&si));
        MEMORYSTATUS ms = {};
        GlobalMemoryStatus(&ms);
        EXPECT_EQ(ms.dwLength, sizeof ms);
        EXPECT_GT(si.dwStoreSize, 0u);
        EXPECT_LE(si.dwFreeSize, si.dwStoreSize);
        EXPECT_LE(ms.dwAvailPhys, ms.dwTotalPhys);
        EXPECT_LE(ms.dwMemoryLoad, 100u);
        uint64_t ram = uint64_t(si.dwStoreSize) + ms.dwTotalPhys;
        EXPECT_GT(ram, 56u << 20);
        EXPECT_LE(ram, 64u << 20);
    }
    {
        TestDevice td(R"(
[memory]
store_size = 0x00F00000
store_free = 0x00100000
total_phys = 0x01000000
avail_phys = 0x00400000
total_virtual = 0x02000000
avail_virtual = 0x01000000
)");
        STORE_INFORMATION si = {};
        ASSERT_TRUE(GetStoreInformation(&si));
        EXPECT_EQ(si.dwStoreSize, 0x00F00000u);
        EXPECT_EQ(si.dwFreeSize, 0x00100000u);
        MEMORYSTATUS ms;
        std::memset(&ms, 0xCC, sizeof ms);
        GlobalMemoryStatus(&ms);
        EXPECT_EQ(ms.dwTotalPhys, 0x01000000u);
        EXPECT_EQ(ms.dwAvailPhys, 0x00400000u);
        EXPECT_EQ(ms.dwTotalVirtual, 0x02000000u);
        EXPECT_EQ(ms.dwAvailVirtual, 0x01000000u);
        EXPECT_EQ(ms.dwMemoryLoad, 75u);   // from the physical figures when not given
        EXPECT_EQ(ms.dwTotalPageFile, 0u);
    }
    {
        TestDevice td("[memory]\nmemory_load = 42\n[fail]\nGetStoreInformation = 5\n");
        STORE_INFORMATION si = {7, 7};
        SetLastError(0);
        EXPECT_FALSE(GetStoreInformation(&si));
        EXPECT_EQ(GetLastError(), 5u);
        EXPECT_EQ(si.dwStoreSize, 7u);   // untouched
        MEMORYSTATUS ms = {};
        GlobalMemoryStatus(&ms);
        EXPECT_EQ(ms.dwMemoryLoad, 42u);
    }
}

TEST(SimKernel, MessageBoxIsJournaledAndAnsweredOk) {
    TestDevice td;
    EXPECT_EQ(MessageBoxW(NULL, W("DISK_IOCTL_WRITE").c_str(), W("ERROR").c_str(), MB_OK), IDOK);
    EXPECT_EQ(MessageBoxW(NULL, W("Format Visible Failed").c_str(), W("FAILED").c_str(), MB_OKCANCEL), IDOK);
    auto boxes = td.events("message_box");
    ASSERT_EQ(boxes.size(), 2u);
    EXPECT_EQ(boxes[0]["text"], "DISK_IOCTL_WRITE");
    EXPECT_EQ(boxes[0]["caption"], "ERROR");
    EXPECT_EQ(boxes[1]["text"], "Format Visible Failed");
    EXPECT_EQ(boxes[1]["caption"], "FAILED");
}
