// The simulated kernel: KernelIoControl answers and requests, failure injection, the journal,
// store information, memory status and message boxes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "kernel.h"
#include "test_device.h"

using namespace testing_support;

namespace {

const std::string kProfile = R"(
[kernel]
version = 'V3.10 HW1'
bootloader_version = 'UB2'
hardware_type = 'X7'
region_version = 4
hardware_version = 3
)";

// UTF-16LE bytes of a text with its terminator.
std::string le16z(const std::string &s) { return testing_support::utf16le(s + '\0'); }

// The last error a call that should fail leaves (0 when it succeeds).
DWORD errorOf(BOOL ok) { return ok ? 0 : GetLastError(); }

nlohmann::json lastIoctl(TestDevice &td) {   // null when there is none, which fails any check
    auto events = td.events("ioctl");
    return events.empty() ? nlohmann::json() : events.back();
}

}  // namespace

// Each call on a device of its own: the answer is cut to the output size and nothing after it is
// touched; a missing answer, an unknown code or a request of the wrong size fails; each is journaled.
TEST(SimKernel, QueriesAnswerFromTheProfileElseFailAndAreJournaled) {
    // The hardware record: the type text leads, the region word is at 452, the rest is zero.
    const std::string record = le16z("X7") + std::string(446, '\0') + "\4" + std::string(351, '\0');
    const std::string longType =
        "[kernel]\nhardware_type = '" + std::string(400, 'H') + "'\nregion_version = 0x01020304\n";
    const std::string regionOnly = "[kernel]\nregion_version = 2\n";   // either of the two is enough for the record
    struct Row { std::string profile; DWORD code, inSize, outSize, error; std::string answer; };
    const DWORD kHw = IOCTL_HAL_READ_HW_VERSION, kNo = ERROR_NOT_SUPPORTED, kBad = ERROR_INVALID_PARAMETER;
    const Row rows[] = {
        {kProfile, 0x8000208C, 0, 512, 0, le16z("V3.10 HW1")},
        {kProfile, 0x8000208C, 0, 8, 0, le16z("V3.")},   // room for three characters and the terminator
        {kProfile, 0x80002090, 0, 256, 0, std::string("UB2", 4)}, {kProfile, 0x80002090, 0, 2, 0, std::string("U", 2)},
        {kProfile, 0x80002E90, 0, 804, 0, record},      {kProfile, 0x80002E90, 0, 900, 0, record},
        {kProfile, 0x80002E90, 0, 100, 0, record.substr(0, 100)},
        {kProfile, 0x80002E90, 16, 804, 0, record},     // the record's input is not checked, but journaled
        {longType, 0x80002E90, 0, 804, 0, le16z(std::string(225, 'H')) + "\4\3\2\1" + std::string(348, '\0')},
        {regionOnly, 0x80002E90, 0, 804, 0, std::string(452, '\0') + "\2" + std::string(351, '\0')},
        {kProfile, kHw, 0, 4, 0, std::string("\3\0\0\0", 4)}, {kProfile, kHw, 0, 3, ERROR_INSUFFICIENT_BUFFER, ""},
        {"", 0x8000208C, 0, 804, kNo, ""}, {"", 0x80002090, 0, 804, kNo, ""}, {"", 0x80002E90, 0, 804, kNo, ""},
        {"", kHw, 0, 804, kNo, ""},        {"[kernel]\nversion = 'V1'\n", 0x80002090, 0, 804, kNo, ""},
        {kProfile, 0x8000ABCD, 0, 804, kNo, ""},   {kProfile, 0x00000000, 0, 804, kNo, ""},
        {kProfile, 0x80002E78, 23, 804, kBad, ""}, {kProfile, 0x80002E78, 25, 804, kBad, ""},
        {kProfile, 0x80002E78, 0, 804, kBad, ""},  {kProfile, 0x80002098, 38, 804, kBad, ""},
        {kProfile, 0x80002098, 42, 804, kBad, ""}, {kProfile, 0x80002EB4, 4095, 804, kBad, ""},
        {kProfile, 0x80002EB4, 0, 804, kBad, ""},
    };
    std::vector<BYTE> input(5000, 0);
    for (const Row &r : rows) {
        SCOPED_TRACE("row " + std::to_string(&r - rows) + ": " + sim::hexCode(r.code));
        TestDevice td(r.profile);
        BYTE out[1024];
        std::memset(out, 0xCC, sizeof out);
        DWORD got = 0;
        SetLastError(0);
        BOOL ok = KernelIoControl(r.code, r.inSize ? input.data() : NULL, r.inSize, out, r.outSize, &got);
        EXPECT_EQ(ok, r.error == 0);
        EXPECT_EQ(GetLastError(), r.error);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(out), std::min<DWORD>(got, sizeof out)), r.answer);
        EXPECT_EQ(out[r.answer.size()], 0xCC);
        ASSERT_EQ(td.events("ioctl").size(), 1u);
        auto e = lastIoctl(td);
        EXPECT_TRUE(e["code"] == sim::hexCode(r.code) && e["ok"] == (r.error == 0) && e["error"] == r.error &&
                    e["input"] == std::string(2 * r.inSize, '0')) << e;
        sim::Kernel &k = td.dev().kernel();
        EXPECT_TRUE(k.acceptedImageRequests().empty() && k.acceptedSerialNumbers().empty());
        EXPECT_EQ(k.acceptedHiddenFormats(), 0);
    }
}

TEST(SimKernel, RequestsAreAcceptedAndRecordedUnlessAFailureIsInjected) {
    TestDevice td(kProfile + "[kernel.fail]\n'0x80002E78' = 31\n'0x8000208c' = 5\n");
    sim::Kernel &k = td.dev().kernel();
    BYTE record[24] = {4, 0, 0, 0, 2, 0, 0, 0, 1}, out[512];   // UpgradeType, UpgradeVia, UpgradeFormat
    const std::string recordHex = "040000000200000001000000000000000000000000000000";
    EXPECT_EQ(errorOf(KernelIoControl(0x80002E78, record, sizeof record, NULL, 0, NULL)), 31u);
    auto e = lastIoctl(td);
    EXPECT_TRUE(e["ok"] == false && e["error"] == 31 && e["input"] == recordHex) << e;
    EXPECT_TRUE(k.acceptedImageRequests().empty());
    EXPECT_EQ(errorOf(KernelIoControl(0x8000208C, NULL, 0, out, sizeof out, NULL)), 5u);
    EXPECT_TRUE(KernelIoControl(0x80002090, NULL, 0, out, sizeof out, NULL));   // other codes still answer

    k.setFailure(0x80002E78, std::nullopt);
    // [fail] KernelIoControl fails a call by its number, whatever the code
    td.dev().setFailure("KernelIoControl", 21, td.dev().callCount("KernelIoControl") + 1);
    EXPECT_EQ(errorOf(KernelIoControl(0x80002090, NULL, 0, out, sizeof out, NULL)), 21u);
    ASSERT_TRUE(KernelIoControl(0x80002E78, record, sizeof record, NULL, 0, NULL));
    EXPECT_EQ(lastIoctl(td)["input"], recordHex);
    ASSERT_EQ(k.acceptedImageRequests().size(), 1u);
    const sim::Kernel::ImageRequest r = k.acceptedImageRequests()[0];
    EXPECT_TRUE(r.upgradeType == 4 && r.upgradeVia == 2 && r.upgradeFormat == 1);
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

// The device reads every part's tables at start: a value of the wrong type or out of range, a misspelt
// key or a value where a table belongs stops it with an error that names the profile.
TEST(SimDevice, BadProfilesAreRefused) {
    std::string manyExports = "[library.'big.dll']\n";   // more exports than the device has slots
    for (int i = 0; i <= 64; ++i) manyExports += "e" + std::to_string(i) + " = " + std::to_string(i) + "\n";
    const std::string bad[] = {
        "[kernel]\nversion = 3\n", "[kernel]\nhardware_version = 'three'\n", "[kernel]\nregion_version = -1\n",
        "[kernel]\nhardware_version = 0x100000000\n", "[kernel.fail]\nimage = 31\n",
        "[kernel.fail]\n'0x80002E78' = 'no'\n", "kernel = 1\n", "[memory]\ntotal_phys = 'lots'\n",
        "[registry.'HKLM\\K']\nB = [1, 256]\n", "[registry.'HKLM\\K']\nB = [1, \"x\"]\n",
        "[registry.'HKLM\\K']\nN = 4294967296\n", "[registry.'HKLM\\K']\nF = 1.5\n", "[registry.'NOROOT\\K']\nA = 1\n",
        "[flash_disk]\nbytes_per_sector = 0\n", "[flash_disk]\nsectors = 0\n",
        "[flash_disk]\nsectors = 0x800000\nbytes_per_sector = 1024\n",   // 8 GB
        "[flash_disk]\nname = 'DSK1'\n", "[flash_disk]\nloaded = 1\n", "[flash_disk]\nhdd_delay_ms = -5\n",
        "[flash_disk.fail]\nformat = 31\n", "flash_disk = true\n",
        "power = {battery_percent = 256}", "power = {ac_line = 'on'}", "power = {batery_percent = 5}",
        "power.events = [{at_ms = 10, type = 'suspend'}]", "power.events = [{at_ms = -1, type = 'status'}]",
        "power.events = [{type = 'status'}]", "power.events = {at_ms = 1, type = 'status'}", "card = {present = 1}",
        "card.events = [{at_ms = 10}]", "card.events = [{at_ms = 1, attached = true, name = ''}]",
        "[screen]\nwidth = 'wide'\n", "[screen]\nheight = 0\n", "screen = 3\n", "[input]\npress_button_at_ms = -5\n",
        "[input]\npress_button_at_ms = 1.5\n", manyExports,
    };
    for (const std::string &p : bad) {
        try {
            TestDevice td(p);
            ADD_FAILURE() << "accepted: " << p;
        } catch (const std::runtime_error &e) {
            EXPECT_EQ(std::string(e.what()).rfind("device.toml: ", 0), 0u) << e.what();
        }
    }
}

TEST(SimKernel, StoreInformationAndMemoryStatus) {
    STORE_INFORMATION si = {};
    MEMORYSTATUS ms;
    {
        TestDevice td("[memory]\nmemory_load = 42\n");   // else the default: 64 MB, store and program memory
        ASSERT_TRUE(GetStoreInformation(&si));
        GlobalMemoryStatus(&ms);
        const uint64_t ram = uint64_t(si.dwStoreSize) + ms.dwTotalPhys;
        EXPECT_TRUE(ms.dwLength == sizeof ms && si.dwFreeSize <= si.dwStoreSize && ms.dwAvailPhys <= ms.dwTotalPhys &&
                    ms.dwMemoryLoad == 42 && si.dwStoreSize > 0 && ram > (56u << 20) && ram <= (64u << 20)) << ram;
        td.dev().setFailure("GetStoreInformation", 5);
        si = {7, 7};
        EXPECT_EQ(errorOf(GetStoreInformation(&si)), 5u);
        EXPECT_EQ(si.dwStoreSize, 7u);   // untouched
    }
    TestDevice td("[memory]\nstore_size = 0x00F00000\nstore_free = 0x00100000\ntotal_phys = 0x01000000\n"
                  "avail_phys = 0x00400000\ntotal_virtual = 0x02000000\navail_virtual = 0x01000000\n");
    ASSERT_TRUE(GetStoreInformation(&si));
    std::memset(&ms, 0xCC, sizeof ms);
    GlobalMemoryStatus(&ms);
    // The load comes from the physical figures when not given; there is no page file.
    EXPECT_EQ((std::vector<uint64_t>{si.dwStoreSize, si.dwFreeSize, ms.dwTotalPhys, ms.dwAvailPhys, ms.dwTotalVirtual,
                                     ms.dwAvailVirtual, ms.dwMemoryLoad, ms.dwTotalPageFile}),
              (std::vector<uint64_t>{0xF00000, 0x100000, 0x1000000, 0x400000, 0x2000000, 0x1000000, 75, 0}));
}

TEST(SimKernel, MessageBoxIsJournaledAndAnsweredOk) {
    TestDevice td;
    EXPECT_EQ(MessageBoxW(NULL, u"DISK_IOCTL_WRITE", u"ERROR", MB_OK), IDOK);
    EXPECT_EQ(MessageBoxW(NULL, u"Format Visible Failed", u"FAILED", MB_OKCANCEL), IDOK);
    std::vector<std::string> boxes;
    for (const auto &b : td.events("message_box")) boxes.push_back(b.value("caption", "") + ": " + b.value("text", ""));
    EXPECT_EQ(boxes, (std::vector<std::string>{"ERROR: DISK_IOCTL_WRITE", "FAILED: Format Visible Failed"}));
}
