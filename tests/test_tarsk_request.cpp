// The image upgrade request: the record, its codes, BeginUpgrading and the failure path.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

using namespace engine_test;

static const std::string kReserved(24, '0');   // the record's three reserved words, as journal hex

// Every selection, as the 24-byte record built and as it goes out to the kernel.
TEST(TarskRequest, EachSelectionGoesOutAsOne24ByteRecord) {
    TestDevice td(profile());
    Engine e;
    struct { DWORD boot, kernel, region, viaCard, format; const char *hex; } rows[] = {
        {1, 0, 0, 0, 0, "010000000200000000000000"},
        {0, 1, 0, 1, 1, "000000000100000001000000"},   // kernel only is 0, as nothing is
        {1, 1, 0, 0, 1, "020000000200000001000000"},
        {0, 0, 1, 1, 0, "060000000100000000000000"},
        {1, 0, 1, 0, 0, "050000000200000000000000"},
        {0, 1, 1, 0, 0, "040000000200000000000000"},
        {1, 1, 1, 1, 1, "030000000100000001000000"},
        {0, 0, 0, 0, 0, "000000000200000000000000"},
        {1, 0, 0, 0, 7, "010000000200000001000000"},   // any set flag counts as 1
    };
    size_t sent = 0;
    for (const auto &r : rows) {
        SCOPED_TRACE(r.hex);
        EXPECT_EQ(tarsk_callUpgrade(e.e, r.boot, r.kernel, r.region, r.viaCard, r.format), 1u);
        auto requests = ioctls(td, "0x80002E78");
        ASSERT_EQ(requests.size(), ++sent);
        EXPECT_EQ(requests.back()["input"], r.hex + kReserved);
        TarskUpgradeRequest req;
        std::memset(&req, 0xAB, sizeof req);
        tarsk_buildUpgradeRequest(&req, r.boot, r.kernel, r.region, r.viaCard, r.format);
        EXPECT_EQ(req.reserved[0] | req.reserved[1] | req.reserved[2], 0u) << "zeroed before filling";
    }
}

// With a callback: the begin line, then a pause of 2500 ms. Nothing selected sends no request. The log
// line ends with the bare name of the format flag; a refused request is logged and fails.
TEST(TarskRequest, BeginUpgrading) {
    const std::string refused = "ERROR, tarsk_callUpgrade(): ";
    struct {
        const char *extra;
        bool callback;
        DWORD boot, kernel, region, viaCard, format, result, ms, error;
        const char *request;   // the record sent (nullptr: none)
        std::vector<std::string> logLines;
    } rows[] = {
        {"", true, 0, 0, 0, 1, 1, 1, 2500, 0, nullptr, {}},
        {"", false, 1, 0, 1, 1, 1, 1, 0, 0, "050000000100000001000000",
         {"INFO, Upgrade for User: m_bUpgradeBboot = 1, m_bUpgradeKernel = 0, m_bUpgradeRegion = 1, "
          "m_bUpgradeFromSDCard = 1, m_bFormatKernel\r"}},
        {"[kernel.fail]\n'0x80002E78' = 31\n", false, 1, 1, 0, 1, 0, 0, 0, 31, "020000000100000000000000",
         {refused + "UpgradeType = 2, UpgradeVia = 1, UpgradeFormat = 0\r",
          refused + "KernelIoControl(IOCTL_QRV_SYS_TARSK_IMAGE_UPGRADE) failed, error 31\r\n"}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.extra);
        TestDevice td(profile(r.extra));
        g_vlLogSettings.level = LOG_INFO;
        Engine e(r.callback ? recordProgress : nullptr);
        e->m_bUpgradeBboot = r.boot, e->m_bUpgradeKernel = r.kernel, e->m_bUpgradeRegion = r.region;
        e->m_bUpgradeFromSDCard = r.viaCard, e->m_bFormatKernel = r.format;
        os_setLastError(0);
        const DWORD before = GetTickCount();
        EXPECT_EQ(BeginUpgrading(e.e), r.result);
        EXPECT_EQ(GetTickCount() - before, r.ms);
        EXPECT_EQ(os_getLastError(), r.error);
        EXPECT_EQ(progressLines(), r.callback ? std::vector<std::string>{"\r\n===BEGION UPGRADING...===\r\n"}
                                              : std::vector<std::string>{});
        auto requests = ioctls(td, "0x80002E78");
        ASSERT_EQ(requests.size(), r.request ? 1u : 0u);
        if (r.request) { EXPECT_EQ(requests[0]["input"], r.request + kReserved); }
        for (const std::string &line : r.logLines) EXPECT_NE(logText().find(line), std::string::npos) << logText();
    }
}
