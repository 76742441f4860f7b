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

// UTF-16LE bytes of a text with its terminator.
std::string le16z(const std::string &s) {
    std::string out;
    for (char16_t c : W(s) + u'\0') out += {char(c & 0xFF), char(c >> 8)};
    return out;
}

nlohmann::json lastIoctl(TestDevice &td) {
    auto events = td.events("ioctl");
    EXPECT_FALSE(events.empty());
    return events.empty() ? nlohmann::json() : events.back();
}

}  // namespace

TEST(SimKernel, QueriesAnswerFromTheProfileCutToTheOutputSize) {
    TestDevice td(kProfile);
    std::string record(804, '\0');   // the type text leads, the region word is at 452, the rest zero
    record.replace(0, 6, le16z("X7"));
    record[452] = 4;
    // answer: what is written and counted; nothing after it is touched
    struct Case { DWORD code, outSize; std::string answer; };
    const Case cases[] = {
        {0x8000208C, 512, le16z("V3.10 HW1")},
        {0x8000208C, 8, le16z("V3.")},   // room for three characters and the terminator
        {0x80002090, 256, std::string("UB2", 4)},
        {0x80002090, 2, std::string("U", 2)},
        {0x80002E90, 804, record},
        {0x80002E90, 900, record},
        {0x80002E90, 100, record.substr(0, 100)},
        {IOCTL_HAL_READ_HW_VERSION, 4, std::string("\3\0\0\0", 4)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(sim::hexCode(c.code) + " into " + std::to_string(c.outSize));
        BYTE out[1024];
        std::memset(out, 0xCC, sizeof out);
        DWORD got = 0;
        ASSERT_TRUE(KernelIoControl(c.code, NULL, 0, out, c.outSize, &got));
        EXPECT_EQ(got, c.answer.size());
        EXPECT_EQ(std::string(reinterpret_cast<char *>(out), c.answer.size()), c.answer);
        EXPECT_EQ(out[c.answer.size()], 0xCC);
        auto e = lastIoctl(td);
        EXPECT_EQ(e["code"], sim::hexCode(c.code));
        EXPECT_TRUE(e["ok"] == true && e["error"] == 0 && e["input"] == "") << e;
    }
    EXPECT_EQ(td.events("ioctl").size(), std::size(cases));

    // The query's input is journaled; too small an output for any answer fails.
    BYTE query[16] = {3}, out[804];
    ASSERT_TRUE(KernelIoControl(0x80002E90, query, sizeof query, out, sizeof out, NULL));
    EXPECT_EQ(lastIoctl(td)["input"], "03000000000000000000000000000000");
    SetLastError(0);
    EXPECT_FALSE(KernelIoControl(IOCTL_HAL_READ_HW_VERSION, NULL, 0, out, 3, NULL));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INSUFFICIENT_BUFFER));
}

TEST(SimKernel, LongHardwareTypeStopsBeforeTheRegionWord) {
    TestDevice td("[kernel]\nhardware_type = '" + std::string(400, 'H') + "'\nregion_version = 0x01020304\n");
    BYTE out[804];
    ASSERT_TRUE(KernelIoControl(0x80002E90, NULL, 0, out, sizeof out, NULL));
    std::string text(reinterpret_cast<char *>(out), 456);
    EXPECT_EQ(text, le16z(std::string(225, 'H')) + "\x04\x03\x02\x01");
}

TEST(SimKernel, MissingAnswersUnknownCodesAndWrongRequestSizesFail) {
    // error 0: the call succeeds
    struct Case { const char *profile; DWORD code, inSize, error; };
    const Case cases[] = {
        {"", 0x8000208C, 0, ERROR_NOT_SUPPORTED},
        {"", 0x80002090, 0, ERROR_NOT_SUPPORTED},
        {"", 0x80002E90, 0, ERROR_NOT_SUPPORTED},
        {"", IOCTL_HAL_READ_HW_VERSION, 0, ERROR_NOT_SUPPORTED},
        {"[kernel]\nregion_version = 2\n", 0x80002E90, 0, 0},   // one of the two is enough for the record
        {"[kernel]\nversion = 'V1'\n", 0x80002090, 0, ERROR_NOT_SUPPORTED},
        {kProfile, 0x8000ABCD, 0, ERROR_NOT_SUPPORTED},
        {kProfile, 0x00000000, 0, ERROR_NOT_SUPPORTED},
        {kProfile, 0x80002E78, 23, ERROR_INVALID_PARAMETER}, {kProfile, 0x80002E78, 25, ERROR_INVALID_PARAMETER},
        {kProfile, 0x80002E78, 0, ERROR_INVALID_PARAMETER},  {kProfile, 0x80002098, 38, ERROR_INVALID_PARAMETER},
        {kProfile, 0x80002098, 42, ERROR_INVALID_PARAMETER}, {kProfile, 0x80002EB4, 4095, ERROR_INVALID_PARAMETER},
        {kProfile, 0x80002EB4, 0, ERROR_INVALID_PARAMETER},
    };
    std::vector<BYTE> input(5000, 0);
    for (const Case &c : cases) {
        SCOPED_TRACE(sim::hexCode(c.code) + " input " + std::to_string(c.inSize) + " with profile: " + c.profile);
        TestDevice td(c.profile);
        BYTE out[804];
        SetLastError(0);
        EXPECT_EQ(KernelIoControl(c.code, c.inSize ? input.data() : NULL, c.inSize, out, sizeof out, NULL), c.error == 0);
        EXPECT_EQ(GetLastError(), c.error);
        auto e = lastIoctl(td);
        EXPECT_EQ(e["code"], sim::hexCode(c.code));
        EXPECT_EQ(e["ok"], c.error == 0);
        EXPECT_EQ(e["error"], c.error);
        sim::Kernel &k = td.dev().kernel();
        EXPECT_TRUE(k.acceptedImageRequests().empty() && k.acceptedSerialNumbers().empty());
        EXPECT_EQ(k.acceptedHiddenFormats(), 0);
    }
}

TEST(SimKernel, RequestsAreAcceptedAndRecorded) {
    TestDevice td(kProfile);
    sim::Kernel &k = td.dev().kernel();
    BYTE record[24] = {4, 0, 0, 0, 2, 0, 0, 0, 1};   // UpgradeType, UpgradeVia, UpgradeFormat
    ASSERT_TRUE(KernelIoControl(0x80002E78, record, sizeof record, NULL, 0, NULL));
    EXPECT_EQ(lastIoctl(td)["input"], "040000000200000001000000000000000000000000000000");
    auto requests = k.acceptedImageRequests();
    ASSERT_EQ(requests.size(), 1u);
    const sim::Kernel::ImageRequest &r = requests[0];
    EXPECT_EQ((std::vector<DWORD>{r.upgradeType, r.upgradeVia, r.upgradeFormat}), (std::vector<DWORD>{4, 2, 1}));
    EXPECT_EQ(std::memcmp(r.bytes.data(), record, 24), 0);

    WCHAR serial[20] = {u'S', u'N', u'-', u'0', u'0', u'4', u'2'};
    ASSERT_TRUE(KernelIoControl(0x80002098, serial, sizeof serial, NULL, 0, NULL));
    EXPECT_EQ(lastIoctl(td)["input"].get<std::string>().substr(0, 16), "53004e002d003000");
    EXPECT_EQ(k.acceptedSerialNumbers(), std::vector<std::u16string>{u"SN-0042"});

    std::vector<BYTE> zeros(4096, 0);
    ASSERT_TRUE(KernelIoControl(0x80002EB4, zeros.data(), 4096, NULL, 0, NULL));
    EXPECT_EQ(lastIoctl(td)["input"], std::string(8192, '0'));
    EXPECT_EQ(k.acceptedHiddenFormats(), 1);
}

TEST(SimKernel, InjectedFailuresRefuseTheCode) {
    TestDevice td(std::string(kProfile) + "[kernel.fail]\n'0x80002E78' = 31\n'0x8000208c' = 5\n");
    BYTE record[24] = {1}, out[512];
    SetLastError(0);
    EXPECT_FALSE(KernelIoControl(0x80002E78, record, sizeof record, NULL, 0, NULL));
    EXPECT_EQ(GetLastError(), 31u);
    auto e = lastIoctl(td);
    EXPECT_EQ(e["ok"], false);
    EXPECT_EQ(e["error"], 31);
    EXPECT_EQ(e["input"], "010000000000000000000000000000000000000000000000");
    EXPECT_TRUE(td.dev().kernel().acceptedImageRequests().empty());
    EXPECT_FALSE(KernelIoControl(0x8000208C, NULL, 0, out, sizeof out, NULL));
    EXPECT_EQ(GetLastError(), 5u);

    // Other codes still answer; a failure set in code can be cleared.
    EXPECT_TRUE(KernelIoControl(0x80002090, NULL, 0, out, sizeof out, NULL));
    td.dev().kernel().setFailure(0x80002E78, std::nullopt);
    EXPECT_TRUE(KernelIoControl(0x80002E78, record, sizeof record, NULL, 0, NULL));
    EXPECT_EQ(td.dev().kernel().acceptedImageRequests().size(), 1u);
}

TEST(SimKernel, BadKernelProfileIsReported) {
    for (const char *p : {
             "[kernel]\nversion = 3\n",
             "[kernel]\nhardware_version = 'three'\n",
             "[kernel]\nregion_version = -1\n",
             "[kernel]\nhardware_version = 0x100000000\n",
             "[kernel.fail]\nimage = 31\n",
             "[kernel.fail]\n'0x80002E78' = 'no'\n",
             "kernel = 1\n",
             "[memory]\ntotal_phys = 'lots'\n",
         }) {
        SCOPED_TRACE(p);
        EXPECT_THROW(TestDevice td(p), std::runtime_error);
    }
}

TEST(SimKernel, StoreInformationAndMemoryStatus) {
    {
        TestDevice td;   // the default: a 64 MB device, split between the store and the program memory
        STORE_INFORMATION si = {};
        MEMORYSTATUS ms = {};
        ASSERT_TRUE(GetStoreInformation(&si));
        GlobalMemoryStatus(&ms);
        EXPECT_EQ(ms.dwLength, sizeof ms);
        EXPECT_TRUE(si.dwFreeSize <= si.dwStoreSize && ms.dwAvailPhys <= ms.dwTotalPhys && ms.dwMemoryLoad <= 100);
        uint64_t ram = uint64_t(si.dwStoreSize) + ms.dwTotalPhys;
        EXPECT_TRUE(si.dwStoreSize > 0 && ram > (56u << 20) && ram <= (64u << 20)) << ram;
    }
    {
        TestDevice td("[memory]\nstore_size = 0x00F00000\nstore_free = 0x00100000\ntotal_phys = 0x01000000\n"
                      "avail_phys = 0x00400000\ntotal_virtual = 0x02000000\navail_virtual = 0x01000000\n");
        STORE_INFORMATION si = {};
        ASSERT_TRUE(GetStoreInformation(&si));
        MEMORYSTATUS ms;
        std::memset(&ms, 0xCC, sizeof ms);
        GlobalMemoryStatus(&ms);
        // The load comes from the physical figures when not given; there is no page file.
        EXPECT_EQ((std::vector<uint64_t>{si.dwStoreSize, si.dwFreeSize, ms.dwTotalPhys, ms.dwAvailPhys, ms.dwTotalVirtual,
                                         ms.dwAvailVirtual, ms.dwMemoryLoad, ms.dwTotalPageFile}),
                  (std::vector<uint64_t>{0x00F00000, 0x00100000, 0x01000000, 0x00400000, 0x02000000, 0x01000000, 75, 0}));
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
    EXPECT_EQ(MessageBoxW(NULL, u"DISK_IOCTL_WRITE", u"ERROR", MB_OK), IDOK);
    EXPECT_EQ(MessageBoxW(NULL, u"Format Visible Failed", u"FAILED", MB_OKCANCEL), IDOK);
    auto boxes = td.events("message_box");
    ASSERT_EQ(boxes.size(), 2u);
    EXPECT_EQ(boxes[0]["text"], "DISK_IOCTL_WRITE");
    EXPECT_EQ(boxes[0]["caption"], "ERROR");
    EXPECT_EQ(boxes[1]["text"], "Format Visible Failed");
    EXPECT_EQ(boxes[1]["caption"], "FAILED");
}
