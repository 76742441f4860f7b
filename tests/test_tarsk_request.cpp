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

// With a callback: the begin line, then a pause of 2500 ms. Nothing selected sends no request.
TEST(TarskRequest, BeginUpgradingWithNothingSelectedPausesAndSendsNothing) {
    TestDevice td(profile());
    Engine e;
    e->m_bFormatKernel = e->m_bUpgradeFromSDCard = 1;
    const DWORD before = GetTickCount();
    EXPECT_EQ(BeginUpgrading(e.e), 1u);
    EXPECT_EQ(GetTickCount() - before, 2500u);
    EXPECT_EQ(progressLines(), std::vector<std::string>{"\r\n===BEGION UPGRADING...===\r\n"});
    EXPECT_TRUE(ioctls(td, "0x80002E78").empty());
}

// Without a callback: no pause. The log line ends with the bare name of the format flag.
TEST(TarskRequest, BeginUpgradingWithoutACallbackSendsAtOnce) {
    TestDevice td(profile());
    g_vlLogSettings.level = LOG_INFO;
    Engine e(nullptr);
    e->m_bUpgradeBboot = e->m_bUpgradeRegion = e->m_bUpgradeFromSDCard = e->m_bFormatKernel = 1;
    const DWORD before = GetTickCount();
    EXPECT_EQ(BeginUpgrading(e.e), 1u);
    EXPECT_EQ(GetTickCount() - before, 0u);
    auto requests = ioctls(td, "0x80002E78");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0]["input"], "050000000100000001000000" + kReserved);
    EXPECT_NE(logText().find("INFO, Upgrade for User: m_bUpgradeBboot = 1, m_bUpgradeKernel = 0, m_bUpgradeRegion = 1, "
                             "m_bUpgradeFromSDCard = 1, m_bFormatKernel\r"),
              std::string::npos) << logText();
}

TEST(TarskRequest, ARefusedRequestIsLoggedAndFails) {
    TestDevice td(profile("[kernel.fail]\n'0x80002E78' = 31\n"));
    g_vlLogSettings.level = LOG_ERROR;
    Engine e(nullptr);
    e->m_bUpgradeBboot = e->m_bUpgradeKernel = e->m_bUpgradeFromSDCard = 1;
    os_setLastError(0);
    EXPECT_EQ(BeginUpgrading(e.e), 0u);
    EXPECT_EQ(os_getLastError(), 31u);
    const std::string log = logText();
    EXPECT_NE(log.find("ERROR, tarsk_callUpgrade(): UpgradeType = 2, UpgradeVia = 1, UpgradeFormat = 0\r"),
              std::string::npos) << log;
    EXPECT_NE(log.find("ERROR, tarsk_callUpgrade(): KernelIoControl(IOCTL_QRV_SYS_TARSK_IMAGE_UPGRADE) failed, error 31\r\n"),
              std::string::npos) << log;
}
