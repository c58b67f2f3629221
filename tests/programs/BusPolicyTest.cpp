// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DaemonFixture.h"
#include "Program.h"

#include <pwd.h>

using testing::HasSubstr;
using testing::IsSupersetOf;

namespace {

constexpr const char* kDenied = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* kOwner = "(1,)";
constexpr const char* kActivation = PACKAGING_BUILT "/org.veltra.tv.tallyra.service.service";

// The default policy of a system bus: nobody may own a name or call a method.
constexpr const char* kSystemPolicy = R"(
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
)";

std::optional<uid_t> FindUser(const char* pName) {
    const passwd* pUser = getpwnam(pName);
    return pUser != nullptr ? std::optional(pUser->pw_uid) : std::nullopt;
}

std::string KickAs(uid_t user, const CPrivateBus& bus, const Method& method = {}) {
    return CCaller(bus.Address(), user).Kick(method);
}

std::string OwnNameAs(uid_t user, const CPrivateBus& bus) {
    return CCaller(bus.Address(), user)
        .Call(g_variant_new("(su)", receiver::kServiceName, 4U), OfTheBus("RequestName"));
}

// The packaged policy for another user: the user "tallyra" exists only once it is installed.
std::string PackagedPolicyFor(uid_t user) {
    std::string policy = ReadFile(PACKAGING "/dbus/org.veltra.tv.tallyra.service.conf");
    const std::string own = "<policy user=\"tallyra\">";
    const std::size_t at = policy.find(own);
    EXPECT_NE(at, std::string::npos);
    EXPECT_EQ(policy.find(own, at + 1), std::string::npos);
    return policy.replace(at, own.size(), "<policy user=\"" + std::to_string(user) + "\">");
}

// A system bus with the packaged policy, the service as one user and a player as another.
class BusPolicy : public testing::Test {
  protected:
    void SetUp() override {
        const auto service = FindUser("daemon");
        const auto player = FindUser("games");
        if (geteuid() != 0 || !service || !player) {
            GTEST_SKIP() << "takes root, to connect as the users daemon and games";
        }
        m_nService = *service;
        m_nPlayer = *player;
        m_Folder.Write("policy.conf", PackagedPolicyFor(m_nService));
        m_Bus.emplace(std::string(kSystemPolicy) + "<include>" +
                      (m_Folder.Path() / "policy.conf").string() + "</include>");
    }

    bool CanRunService() const {
        const CAsUser as(m_nService);
        return eaccess(TALLYRA_SERVICE, X_OK) == 0;
    }
    void StartService() {
        const std::string user = std::to_string(m_nService);
        m_Service.emplace(std::vector<std::string>{"setpriv", "--reuid=" + user, "--regid=" + user,
                                                   "--clear-groups", TALLYRA_SERVICE, "--address",
                                                   m_Bus->Address(), "--db", ":memory:"});
        CCaller caller(m_Bus->Address());
        ASSERT_TRUE(Eventually([&] { return caller.IsServiceOwned(); }));
    }

    CTemporaryFolder m_Folder;
    uid_t m_nService = 0;
    uid_t m_nPlayer = 0;
    std::optional<CPrivateBus> m_Bus;
    std::optional<CProgram> m_Service;
};

TEST_F(BusPolicy, AllowsEveryUserTheOneMethodAndNoOtherCall) {
    if (!CanRunService()) {
        GTEST_SKIP() << "other users cannot reach " << TALLYRA_SERVICE;
    }
    ASSERT_NO_FATAL_FAILURE(StartService());
    const Method others[] = {
        {.pMember = "Introspect", .pInterface = "org.freedesktop.DBus.Introspectable"},
        {.pMember = "Ping", .pInterface = "org.freedesktop.DBus.Peer"},
        {.pMember = "TYOtherFunction"},
        {.pInterface = "org.veltra.tv.tallyra.other"},
        {.pPath = "/"}};
    EXPECT_EQ(KickAs(m_nService, *m_Bus), kAlive);
    for (const uid_t user : {m_nPlayer, uid_t{0}}) {
        SCOPED_TRACE(user);
        EXPECT_EQ(KickAs(user, *m_Bus), kAlive);
        for (const Method& method : others) {
            EXPECT_EQ(KickAs(user, *m_Bus, method), kDenied) << method.pMember;
        }
    }
}

TEST_F(BusPolicy, AllowsOnlyTheServicesUserToOwnTheName) {
    EXPECT_EQ(OwnNameAs(m_nPlayer, *m_Bus), kDenied);
    EXPECT_EQ(OwnNameAs(0, *m_Bus), kDenied);
    EXPECT_EQ(OwnNameAs(m_nService, *m_Bus), kOwner);
    // Without the packaged policy the bus allows nobody.
    EXPECT_EQ(OwnNameAs(m_nService, CPrivateBus(kSystemPolicy)), kDenied);
}

/// @return the packaged file, but with the service that was built, on that bus
std::string ActivationOf(const CPrivateBus& bus) {
    std::string file;
    for (const std::string& line : LinesOf(ReadFile(kActivation))) {
        file += line.starts_with("Exec=")
                    ? "Exec=" TALLYRA_SERVICE " --db :memory: --address " + bus.Address()
                    : line;
        file += '\n';
    }
    return file;
}

TEST(Activation, StartsTheServiceForItsFirstCaller) {
    if (CPrivateBus::IsBroker()) {
        GTEST_SKIP() << "dbus-broker starts services only through systemd";
    }
    const CTemporaryFolder services;
    const CPrivateBus bus(
        std::string(kSystemPolicy) +
            "<policy context=\"default\"><allow own=\"*\"/><allow send_destination=\"*\"/></policy>"
            "<servicedir>" +
            services.Path().string() + "</servicedir>",
        "session");
    services.Write("org.veltra.tv.tallyra.service.service", ActivationOf(bus));
    CCaller caller(bus.Address());
    ASSERT_FALSE(caller.IsServiceOwned());
    EXPECT_EQ(caller.Kick({}, G_DBUS_CALL_FLAGS_NONE), kAlive);
    EXPECT_TRUE(caller.IsServiceOwned());
}

TEST(Activation, NamesTheInstalledUnitAndUser) {
    EXPECT_THAT(LinesOf(ReadFile(kActivation)),
                IsSupersetOf({"Name=org.veltra.tv.tallyra.service", "User=tallyra",
                              "SystemdService=tallyra-service.service"}));
    EXPECT_THAT(LinesOf(ReadFile(PACKAGING_BUILT "/tallyra-service.service")),
                IsSupersetOf({"Type=notify", "User=tallyra"}));
    EXPECT_THAT(ReadFile(PACKAGING "/systemd/tallyra-sysusers.conf"), HasSubstr("\nu tallyra - "));
}

}  // namespace
