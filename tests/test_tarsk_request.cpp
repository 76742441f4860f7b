// The image upgrade request: the record, its codes, BeginUpgrading and the failure path.
#include "tarsk_engine_helpers.h"

#include <gtest/gtest.h>

using namespace engine_test;

namespace {

std::vector<nlohmann::json> imageRequests(const TestDevice &td) {
    std::vector<nlohmann::json> out;
    for (auto &ev : td.events("ioctl"))
        if (ev["code"] == "0x80002E78") out.push_back(ev);
    return out;
}

std::string word(DWORD v) {
    char buf[9];
    std::snprintf(buf, sizeof buf, "%02x%02x%02x%02x", v & 0xFF, (v >> 8) & 0xFF, (v >> 16) & 0xFF, v >> 24);
    return buf;
}

std::string recordHex(DWORD type, DWORD via, DWORD format) {
    return word(type) + word(via) + word(format) + std::string(24, '0');
}

}  // namespace

TEST(TarskRequest, UpgradeTypeOfEverySelection) {
    struct { DWORD boot, kernel, region, type; } rows[] = {
        {1, 0, 0, 1}, {0, 1, 0, 0}, {1, 1, 0, 2}, {0, 0, 1, 6},
        {1, 0, 1, 5}, {0, 1, 1, 4}, {1, 1, 1, 3}, {0, 0, 0, 0},
    };
    for (const auto &r : rows) {
        TarskUpgradeRequest req;
        std::memset(&req, 0xAB, sizeof req);
        tarsk_buildUpgradeRequest(&req, r.boot, r.kernel, r.region, 0, 0);
        EXPECT_EQ(req.UpgradeType, r.type) << r.boot << r.kernel << r.region;
        EXPECT_EQ(req.reserved[0] | req.reserved[1] | req.reserved[2], 0u) << "zeroed before filling";
    }
    EXPECT_EQ(sizeof(TarskUpgradeRequest), 24u);
    EXPECT_EQ(DWORD(IOCTL_QRV_SYS_TARSK_IMAGE_UPGRADE), 0x80002E78u);
}

TEST(TarskRequest, EachRequestGoesOutAsOne24ByteRecord) {
    TestDevice td(profile());
    Engine e;
    struct { DWORD boot, kernel, region, viaCard, format; const char *hex; } rows[] = {
        {1, 0, 0, 0, 0, "010000000200000000000000"},
        {0, 1, 0, 1, 1, "000000000100000001000000"},
        {1, 1, 0, 0, 1, "020000000200000001000000"},
        {0, 0, 1, 1, 0, "060000000100000000000000"},
        {1, 0, 1, 0, 0, "050000000200000000000000"},
        {0, 1, 1, 0, 0, "040000000200000000000000"},
        {1, 1, 1, 1, 1, "030000000100000001000000"},
        {1, 0, 0, 0, 7, "010000000200000001000000"},   // any set flag counts as 1
    };
    size_t sent = 0;
    for (const auto &r : rows) {
        EXPECT_EQ(tarsk_callUpgrade(e.e, r.boot, r.kernel, r.region, r.viaCard, r.format), 1u);
        auto requests = imageRequests(td);
        ASSERT_EQ(requests.size(), ++sent);
        EXPECT_EQ(requests.back()["input"], std::string(r.hex) + std::string(24, '0'));
    }
}

TEST(TarskRequest, BeginUpgradingSendsTheDecisions) {
    TestDevice td(profile());
    Engine e;
    e->m_bUpgradeKernel = 1;
    e->m_bFormatKernel = 1;
    e->m_bUpgradeFromSDCard = 0;
    const DWORD before = GetTickCount();
    EXPECT_EQ(BeginUpgrading(e.e), 1u);
    EXPECT_GE(GetTickCount() - before, 2500u) << "the pause before the request";
    EXPECT_EQ(progressLines(), std::vector<std::string>{"\r\n===BEGION UPGRADING...===\r\n"});
    auto requests = imageRequests(td);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0]["input"], recordHex(0, 2, 1)) << "kernel only is type 0, internal flash is via 2";
}

TEST(TarskRequest, BeginUpgradingWithNothingSelectedSendsNothing) {
    TestDevice td(profile());
    Engine e;
    e->m_bFormatKernel = 1;
    e->m_bUpgradeFromSDCard = 1;
    EXPECT_EQ(BeginUpgrading(e.e), 1u);
    EXPECT_TRUE(imageRequests(td).empty());
    EXPECT_EQ(progressLines().size(), 1u);
}

TEST(TarskRequest, NoPauseWithoutACallback) {
    TestDevice td(profile());
    Engine e(nullptr);
    e->m_bUpgradeBboot = 1;
    const DWORD before = GetTickCount();
    EXPECT_EQ(BeginUpgrading(e.e), 1u);
    EXPECT_LT(GetTickCount() - before, 2500u);
    auto requests = imageRequests(td);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0]["input"], recordHex(1, 2, 0));
}

TEST(TarskRequest, TheUserLogLineEndsWithTheBareName) {
    TestDevice td(profile());
    g_vlLogSettings.level = LOG_INFO;
    Engine e(nullptr);
    e->m_bUpgradeBboot = 1;
    e->m_bUpgradeRegion = 1;
    e->m_bFormatKernel = 1;
    BeginUpgrading(e.e);
    EXPECT_NE(logText().find("INFO, Upgrade for User: m_bUpgradeBboot = 1, m_bUpgradeKernel = 0, m_bUpgradeRegion = 1, "
                             "m_bUpgradeFromSDCard = 0, m_bFormatKernel\r"),
              std::string::npos)
        << logText();
}

TEST(TarskRequest, ARefusedRequestIsLoggedAndFails) {
    TestDevice td(profile("[kernel.fail]\n'0x80002E78' = 31\n"));
    g_vlLogSettings.level = LOG_ERROR;
    Engine e(nullptr);
    e->m_bUpgradeBboot = 1;
    e->m_bUpgradeKernel = 1;
    e->m_bUpgradeFromSDCard = 1;
    os_setLastError(0);
    EXPECT_EQ(BeginUpgrading(e.e), 0u);
    EXPECT_EQ(os_getLastError(), 31u);
    auto requests = imageRequests(td);
    ASSERT_EQ(requests.size(), 1u) << "no retry";
    EXPECT_EQ(requests[0]["ok"], false);
    const std::string log = logText();
    EXPECT_NE(log.find("ERROR, tarsk_callUpgrade(): UpgradeType = 2, UpgradeVia = 1, UpgradeFormat = 0\r"),
              std::string::npos) << log;
    EXPECT_NE(log.find("ERROR, tarsk_callUpgrade(): KernelIoControl(IOCTL_QRV_SYS_TARSK_IMAGE_UPGRADE) failed, error 31\r\n"),
              std::string::npos) << log;
}
