// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ConfiguredBus.h"
#include "OtherUser.h"
#include "Program.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <optional>
#include <string>

namespace {

constexpr const char* kDenied = "org.freedesktop.DBus.Error.AccessDenied";

// The packaged policy, with a user that every system has in the place of its own: that one is made
// when the package is installed.
std::string PolicyFor(uid_t user) {
    std::string policy = ReadFile(PACKAGING "/dbus/org.veltra.tv.tallyra.service.conf");
    const std::string own = "<policy user=\"tallyra\">";
    const std::size_t at = policy.find(own);
    if (at == std::string::npos || policy.find(own, at + 1) != std::string::npos) {
        throw std::runtime_error("the policy does not name its user once");
    }
    return policy.replace(at, own.size(), "<policy user=\"" + std::to_string(user) + "\">");
}

// A bus with the packaged policy, the service as one user, and a player as another.
class CBusPolicyTest : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can be several users";
        }
        const auto service = UserCalled("daemon");
        const auto player = UserCalled("games");
        if (!service || !player) {
            GTEST_SKIP() << "there are no users daemon and games here";
        }
        m_nService = *service;
        m_nPlayer = *player;
        m_Folder.Write("policy.conf", PolicyFor(m_nService));
        m_Bus.emplace("<include>" + (m_Folder.Path() / "policy.conf").string() + "</include>");
    }

    void StartService() {
        if (!MayRun(m_nService, TALLYRA_SERVICE)) {
            GTEST_SKIP() << "other users may not run what is built here: " << TALLYRA_SERVICE;
        }
        const std::string user = std::to_string(m_nService);
        m_Service.emplace(std::vector<std::string>{"setpriv", "--reuid=" + user, "--regid=" + user,
                                                   "--clear-groups", TALLYRA_SERVICE, "--address",
                                                   m_Bus->Address(), "--db", ":memory:"});
        ASSERT_TRUE(Eventually([this] { return IsOwned(m_Bus->Address()); }));
    }

    CTemporaryFolder m_Folder;
    uid_t m_nService = 0;
    uid_t m_nPlayer = 0;
    std::optional<CConfiguredBus> m_Bus;
    std::optional<CProgram> m_Service;
};

TEST_F(CBusPolicyTest, LetsAnyUserCallTheOneMethod) {
    ASSERT_NO_FATAL_FAILURE(StartService());
    if (IsSkipped()) {
        return;
    }
    EXPECT_EQ(CallAs(m_nPlayer, m_Bus->Address()), "status 1");
    EXPECT_EQ(CallAs(m_nService, m_Bus->Address()), "status 1");
    EXPECT_EQ(CallAs(0, m_Bus->Address()), "status 1");
}

TEST_F(CBusPolicyTest, RefusesEveryOtherCallToTheService) {
    ASSERT_NO_FATAL_FAILURE(StartService());
    if (IsSkipped()) {
        return;
    }
    const Method others[] = {{Method().path, "org.freedesktop.DBus.Introspectable", "Introspect"},
                             {Method().path, "org.freedesktop.DBus.Peer", "Ping"},
                             {Method().path, Method().interface, "TYOtherFunction"},
                             {Method().path, "org.veltra.tv.tallyra.other", Method().member},
                             {"/", Method().interface, Method().member}};
    for (const Method& method : others) {
        for (const uid_t user : {m_nPlayer, uid_t{0}}) {
            EXPECT_EQ(CallAs(user, m_Bus->Address(), method), kDenied) << method.member << user;
        }
    }
}

TEST_F(CBusPolicyTest, LetsOnlyTheServicesUserOwnTheName) {
    EXPECT_EQ(OwnNameAs(m_nPlayer, m_Bus->Address()), kDenied);
    EXPECT_EQ(OwnNameAs(0, m_Bus->Address()), kDenied);
    EXPECT_EQ(OwnNameAs(m_nService, m_Bus->Address()), "owner");
}

// What the tests above would not see: a bus that allows or refuses everything anyhow.
TEST_F(CBusPolicyTest, IsWhatTheBusDecidesBy) {
    const CConfiguredBus bus("");
    EXPECT_EQ(OwnNameAs(m_nService, bus.Address()), kDenied);
}

}  // namespace
