// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYNetworkManager.h"

#include <barrier>

namespace {

/// Read before any manager is constructed.
const int kTypeAtFirst{CTYNetworkManager::m_NetworkType};

static_assert(sizeof(CTYNetworkManager::m_NetworkType) == 1);
static_assert(TY_RSSI_ERROR == -200);

class CNetworkManagerTest : public CPlatformTest {
  protected:
    static int NetworkType() { return CTYNetworkManager::m_NetworkType; }
};

TEST_F(CNetworkManagerTest, TypeIsUnknownBeforeTheFirstManagerAndStaysAfterTheLast) {
    EXPECT_EQ(kTypeAtFirst, -1);
    { const CTYNetworkManager manager; }
    EXPECT_EQ(NetworkType(), TY_NETWORK_ETHERNET);
    EXPECT_EQ(m_Platform.NetworkMonitors(), 0U);
}

TEST_F(CNetworkManagerTest, ConstructorWatchesTheNetworkAndLogsItsSteps) {
    const CTYNetworkManager manager;
    EXPECT_EQ(m_Platform.NetworkMonitors(), 1U);
    const CPlatformDouble::LogLine line = m_Platform.Log().at(0);
    EXPECT_EQ(line.priority, LOGSVC_DEBUG);
    EXPECT_EQ(line.tag, kTagUtil);
    EXPECT_EQ(line.file, "TYNetworkManager.cpp");
    EXPECT_EQ(line.function, "InitNetworkManager");
    EXPECT_EQ(line.text.find("connection_create success : 0x"), 0U) << line.text;
    EXPECT_TRUE(UtilDebug("connection_set_network_monitor_cb success"));
    EXPECT_TRUE(UtilDebug("Network Connect!"));
}

/// What the platform answers, the type that follows, and a line at error or debug priority.
struct Network {
    bool gateway;
    int gatewayResult;
    int platformType;
    int platformTypeResult;
    int type;
    int priority;
    const char* line;
};
using CNetworkTypeTest = CTableTest<CNetworkManagerTest, Network>;

TEST_P(CNetworkTypeTest, FollowsThePlatform) {
    m_Platform.gatewayConnected = Case().gateway;
    m_Platform.gatewayResult = Case().gatewayResult;
    m_Platform.connectionType = Case().platformType;
    m_Platform.connectionTypeResult = Case().platformTypeResult;
    CTYNetworkManager manager;
    EXPECT_EQ(NetworkType(), Case().type);
    EXPECT_TRUE(Logged(Case().priority, kTagUtil, Case().line));
    if (Case().platformTypeResult != 0) {
        EXPECT_EQ(manager.GetConnectionType(), 0);
    }
}

constexpr const char* kUnknown = "isConnect : 1, m_NetworkType : -1";
const Named<Network> kNetworks[] = {
    {"None", {true, 0, 0, 0, -1, LOGSVC_DEBUG, kUnknown}},
    {"Wifi", {true, 0, 1, 0, 2, LOGSVC_DEBUG, "isConnect : 1, m_NetworkType : 2"}},
    {"Cellular", {true, 0, 2, 0, -1, LOGSVC_DEBUG, kUnknown}},
    {"Ethernet", {true, 0, 3, 0, 1, LOGSVC_DEBUG, "isConnect : 1, m_NetworkType : 1"}},
    {"Other", {true, 0, 9, 0, -1, LOGSVC_DEBUG, kUnknown}},
    {"Unreadable", {true, 0, 1, -1, -1, LOGSVC_ERROR, "connection_get_type error"}},
    {"NoGateway",
     {false, 0, 1, 0, 0, LOGSVC_ERROR,
      "Network Disconnect : connection_profile_check_default_gateway return fail : 0"}},
    {"GatewayUnreadable",
     {true, -5, 1, 0, 0, LOGSVC_ERROR,
      "Network Disconnect : connection_profile_check_default_gateway return fail : -5"}},
};
INSTANTIATE_TEST_SUITE_P(Table, CNetworkTypeTest, testing::ValuesIn(kNetworks), kByName);

TEST_F(CNetworkManagerTest, SecondInitIsRefused) {
    CTYNetworkManager manager;
    EXPECT_FALSE(manager.InitNetworkManager());
    EXPECT_TRUE(UtilError("m_hConnection was already created!!!"));
    EXPECT_EQ(m_Platform.Calls("connection_create"), 1U);
}

TEST_F(CNetworkManagerTest, FailedMonitorKeepsTheHandle) {
    m_Platform.monitorResult = -1;
    CTYNetworkManager manager;
    EXPECT_TRUE(UtilError("connection_set_network_monitor_cb is fail!!!"));
    EXPECT_TRUE(manager.ReleaseNetworkManager());
    EXPECT_TRUE(UtilDebug("Connection destroyed successfully"));
}

TEST_F(CNetworkManagerTest, ReleaseDestroysTheHandlesInOrderAndMayBeRepeatedWhenItFails) {
    CTYNetworkManager manager;
    manager.GetWiFiSignalStrength();
    const std::size_t before = m_Platform.Journal().size();
    m_Platform.connectionDestroyResult = -1;
    EXPECT_FALSE(manager.ReleaseNetworkManager());
    EXPECT_TRUE(UtilError("Failed to destroy connection"));
    m_Platform.connectionDestroyResult = 0;
    EXPECT_TRUE(manager.ReleaseNetworkManager());
    const auto journal = m_Platform.Journal();
    EXPECT_THAT(std::vector(journal.begin() + static_cast<long>(before), journal.end()),
                testing::ElementsAre("wifi_manager_ap_destroy", "wifi_manager_deinitialize",
                                     "connection_unset_network_monitor_cb", "connection_destroy",
                                     "connection_unset_network_monitor_cb", "connection_destroy"));
}

TEST_F(CNetworkManagerTest, ReleaseWithoutAConnectionStillDestroysTheWifiHandles) {
    m_Platform.connectionCreateResult = -1;
    CTYNetworkManager manager;
    EXPECT_TRUE(UtilError("connection_create is fail!!!"));
    EXPECT_EQ(NetworkType(), TY_NETWORK_UNKNOWN);
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -55);
    EXPECT_FALSE(manager.ReleaseNetworkManager());
    EXPECT_EQ(m_Platform.Calls("wifi_manager_ap_destroy"), 1U);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_deinitialize"), 1U);
    EXPECT_TRUE(UtilError("m_hConnection is NULL"));
}

TEST_F(CNetworkManagerTest, ReleasedManagerCanBeInitialisedAgainAndKeepsItsCallback) {
    CTYNetworkManager manager;
    int calls = 0;
    manager.RegistConnectedCallback([](void* pCalls) { ++*static_cast<int*>(pCalls); }, &calls);
    manager.GetWiFiSignalStrength();
    manager.ReleaseNetworkManager();
    EXPECT_TRUE(manager.InitNetworkManager());
    EXPECT_EQ(m_Platform.NetworkMonitors(), 1U);
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -55);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_initialize"), 2U);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_get_connected_ap"), 2U);
    m_Platform.FireNetwork(0, "GATEWAY");
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(UtilDebug("Gateway connected success"));
    EXPECT_TRUE(NotLogged("m_pConnectedCallback is NULL!!!"));
}

/// A network event on a device whose Ethernet has become Wi-Fi.
struct NetworkEvent {
    const char* name;
    int result;
    int type;
    std::vector<std::string> debugLines;
    std::size_t missingCallbacks;
};
using CNetworkEventTest = CTableTest<CNetworkManagerTest, NetworkEvent>;

TEST_P(CNetworkEventTest, SetsTheTypeIfItIsTheGateways) {
    const CTYNetworkManager manager;
    m_Platform.connectionType = CONNECTION_TYPE_WIFI;
    m_Platform.FireNetwork(Case().result, Case().name);
    EXPECT_EQ(NetworkType(), Case().type);
    for (const std::string& line : Case().debugLines) {
        EXPECT_TRUE(UtilDebug(line));
    }
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, kTagUtil, "m_pConnectedCallback is NULL!!!"),
              Case().missingCallbacks);
    EXPECT_EQ(m_Platform.CountLog("Gateway connected fail!!!"), Case().type == 0 ? 1U : 0U);
}

const Named<NetworkEvent> kEvents[] = {
    {"GatewayUp", {"GATEWAY", 0, 2, {"[GATEWAY] State callback Result : [0]"}, 1}},
    {"GatewayDown", {"GATEWAY", -2, 0, {"[GATEWAY] State callback Result : [-2]"}, 0}},
    {"OtherState", {"PROXY", 0, 1, {"[PROXY] State callback Result : [0]"}, 0}},
    {"LowerCase", {"gateway", -1, 1, {"[gateway] State callback Result : [-1]"}, 0}},
    {"TrailingBlank", {"GATEWAY ", -1, 1, {}, 0}},
    {"Empty", {"", -1, 1, {}, 0}},
};
INSTANTIATE_TEST_SUITE_P(Table, CNetworkEventTest, testing::ValuesIn(kEvents), kByName);

TEST_F(CNetworkManagerTest, EventWithoutANameOrAManagerIsLogged) {
    char name[] = "GATEWAY";
    CTYNetworkManager manager;
    CTYNetworkManager::NetworkChangeCallback(CONNECTION_ERROR_NONE, nullptr, &manager);
    CTYNetworkManager::NetworkChangeCallback(CONNECTION_ERROR_NONE, name, nullptr);
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, kTagUtil, "Invalid Network state callback!!!"), 2U);
    EXPECT_EQ(m_Platform.Calls("connection_get_type"), 1U);
}

TEST_F(CNetworkManagerTest, SignalStrengthKeepsItsTwoHandles) {
    CTYNetworkManager manager;
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -55);
    m_Platform.rssi = -70;
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -70);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_initialize"), 1U);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_get_connected_ap"), 1U);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_ap_get_rssi"), 2U);
}

/// A Wi-Fi call that fails, by its code or for want of a handle.
struct WifiFailure {
    void (*pFail)(CPlatformDouble& platform);
    const char* line;
    /// Calls of the first and the second step, when all works again.
    std::size_t initialized;
    std::size_t connected;
};
using CWifiFailureTest = CTableTest<CNetworkManagerTest, WifiFailure>;

TEST_P(CWifiFailureTest, GivesTheErrorValueAndIsTriedAgain) {
    CTYNetworkManager manager;
    Case().pFail(m_Platform);
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -200);
    EXPECT_TRUE(UtilError(Case().line));
    m_Platform.wifiResult = m_Platform.apResult = m_Platform.rssiResult = 0;
    m_Platform.wifiNull = m_Platform.apNull = false;
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -55);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_initialize"), Case().initialized);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_get_connected_ap"), Case().connected);
}

using Platform = CPlatformDouble;
const Named<WifiFailure> kWifiFailures[] = {
    {"Manager", {[](Platform& p) { p.wifiResult = -1; }, "wifi_initialize error : -1!!!", 2, 1}},
    {"NoManager", {[](Platform& p) { p.wifiNull = true; }, "wifi_initialize error : 0!!!", 2, 1}},
    {"AccessPoint",
     {[](Platform& p) { p.apResult = -2; }, "wifi_get_connected_ap error : -2!!!", 1, 2}},
    {"NoAccessPoint",
     {[](Platform& p) { p.apNull = true; }, "wifi_get_connected_ap error : 0!!!", 1, 2}},
    {"Signal", {[](Platform& p) { p.rssiResult = -3; }, "wifi_ap_get_rssi error : -3!!!", 1, 1}},
};
INSTANTIATE_TEST_SUITE_P(Of, CWifiFailureTest, testing::ValuesIn(kWifiFailures), kByName);

TEST_F(CNetworkManagerTest, HandlesOfConcurrentReadersAreAllDestroyed) {
    for (int round = 0; round < 50; ++round) {
        CTYNetworkManager manager;
        std::barrier start(2);
        const auto ask = [&] {
            start.arrive_and_wait();
            EXPECT_EQ(manager.GetWiFiSignalStrength(), -55);
        };
        std::thread other(ask);
        ask();
        other.join();
    }
    EXPECT_EQ(m_Platform.Calls("wifi_manager_initialize"),
              m_Platform.Calls("wifi_manager_deinitialize"));
    EXPECT_EQ(m_Platform.Calls("wifi_manager_get_connected_ap"),
              m_Platform.Calls("wifi_manager_ap_destroy"));
}

TEST_F(CNetworkManagerTest, ManagersShareTheType) {
    CTYNetworkManager first;
    CTYNetworkManager second;
    second.UpdateNetworkType(false);
    EXPECT_EQ(NetworkType(), TY_NETWORK_DISCONNECTED);
    EXPECT_TRUE(UtilDebug("isConnect : 0, m_NetworkType : 0"));
    first.UpdateNetworkType(true);
    EXPECT_EQ(NetworkType(), TY_NETWORK_ETHERNET);
}

}  // namespace
