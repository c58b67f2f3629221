// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYNetworkManager.h"

#include <barrier>
#include <thread>

namespace {

/// Read before any manager can be there.
const int kTypeAtFirst{CTYNetworkManager::m_NetworkType};

static_assert(sizeof(CTYNetworkManager::m_NetworkType) == 1);
static_assert(kRssiError == -200);

class CNetworkManagerTest : public CPlatformTest {
  protected:
    static int NetworkType() { return CTYNetworkManager::m_NetworkType; }

    testing::AssertionResult Debug(const std::string& text) {
        return Logged(LOGSVC_DEBUG, kTagUtil, text);
    }
    testing::AssertionResult Error(const std::string& text) {
        return Logged(LOGSVC_ERROR, kTagUtil, text);
    }
};

TEST_F(CNetworkManagerTest, ConstructionWatchesTheNetworkAndSetsTheType) {
    const CTYNetworkManager manager;
    EXPECT_EQ(NetworkType(), TY_NETWORK_ETHERNET);
    EXPECT_EQ(m_Platform.NetworkMonitors(), 1U);
    EXPECT_TRUE(Debug("connection_set_network_monitor_cb success"));
    EXPECT_TRUE(Debug("Network Connect!"));
    EXPECT_TRUE(Debug("isConnect : 1, m_NetworkType : 1"));
}

TEST_F(CNetworkManagerTest, TypeIsUnknownBeforeTheFirstManager) {
    EXPECT_EQ(kTypeAtFirst, -1);
}

TEST_F(CNetworkManagerTest, LinesNameTheirFileAndFunction) {
    const CTYNetworkManager manager;
    const CPlatformDouble::LogLine line = m_Platform.Log().at(0);
    EXPECT_EQ(line.priority, LOGSVC_DEBUG);
    EXPECT_EQ(line.tag, kTagUtil);
    EXPECT_EQ(line.file, "TYNetworkManager.cpp");
    EXPECT_EQ(line.function, "InitNetworkManager");
    EXPECT_EQ(line.text.find("connection_create success : 0x"), 0U) << line.text;
}

TEST_F(CNetworkManagerTest, TypeFollowsThePlatforms) {
    const std::vector<std::pair<int, int>> expected = {{0, -1}, {1, 2}, {2, -1}, {3, 1}, {9, -1}};
    for (const auto& [platformType, type] : expected) {
        m_Platform.connectionType = platformType;
        const CTYNetworkManager manager;
        EXPECT_EQ(NetworkType(), type) << platformType;
    }
}

TEST_F(CNetworkManagerTest, CellularConnectionIsUnknown) {
    m_Platform.connectionType = CONNECTION_TYPE_CELLULAR;
    const CTYNetworkManager manager;
    EXPECT_EQ(NetworkType(), TY_NETWORK_UNKNOWN);
    EXPECT_TRUE(Debug("isConnect : 1, m_NetworkType : -1"));
}

TEST_F(CNetworkManagerTest, NoGatewayIsDisconnected) {
    m_Platform.gatewayConnected = false;
    const CTYNetworkManager manager;
    EXPECT_EQ(NetworkType(), TY_NETWORK_DISCONNECTED);
    EXPECT_TRUE(
        Error("Network Disconnect : connection_profile_check_default_gateway return fail : 0"));
}

TEST_F(CNetworkManagerTest, GatewayCheckThatFailsIsDisconnected) {
    m_Platform.gatewayResult = -5;
    const CTYNetworkManager manager;
    EXPECT_EQ(NetworkType(), TY_NETWORK_DISCONNECTED);
    EXPECT_TRUE(
        Error("Network Disconnect : connection_profile_check_default_gateway return fail : -5"));
}

TEST_F(CNetworkManagerTest, TypeThatCannotBeReadIsUnknown) {
    m_Platform.connectionTypeResult = -1;
    CTYNetworkManager manager;
    EXPECT_EQ(NetworkType(), TY_NETWORK_UNKNOWN);
    EXPECT_TRUE(Error("connection_get_type error"));
    EXPECT_EQ(manager.GetConnectionType(), 0);
}

TEST_F(CNetworkManagerTest, SecondInitIsRefused) {
    CTYNetworkManager manager;
    EXPECT_FALSE(manager.InitNetworkManager());
    EXPECT_TRUE(Error("m_hConnection was already created!!!"));
    EXPECT_EQ(m_Platform.Calls("connection_create"), 1U);
}

TEST_F(CNetworkManagerTest, FailedCreationLeavesAUsableManager) {
    m_Platform.connectionCreateResult = -1;
    CTYNetworkManager manager;
    EXPECT_TRUE(Error("connection_create is fail!!!"));
    EXPECT_EQ(NetworkType(), TY_NETWORK_UNKNOWN);
    EXPECT_FALSE(manager.ReleaseNetworkManager());
    EXPECT_TRUE(Error("m_hConnection is NULL"));
}

TEST_F(CNetworkManagerTest, FailedMonitorKeepsTheHandle) {
    m_Platform.monitorResult = -1;
    CTYNetworkManager manager;
    EXPECT_TRUE(Error("connection_set_network_monitor_cb is fail!!!"));
    EXPECT_TRUE(manager.ReleaseNetworkManager());
    EXPECT_TRUE(Debug("Connection destroyed successfully"));
}

TEST_F(CNetworkManagerTest, FailedDestroyKeepsTheHandle) {
    CTYNetworkManager manager;
    m_Platform.connectionDestroyResult = -1;
    EXPECT_FALSE(manager.ReleaseNetworkManager());
    EXPECT_TRUE(Error("Failed to destroy connection"));
    m_Platform.connectionDestroyResult = 0;
    EXPECT_TRUE(manager.ReleaseNetworkManager());
}

TEST_F(CNetworkManagerTest, ReleaseGivesTheHandlesBackInOrder) {
    CTYNetworkManager manager;
    manager.GetWiFiSignalStrength();
    const std::size_t before = m_Platform.Journal().size();
    EXPECT_TRUE(manager.ReleaseNetworkManager());
    const auto journal = m_Platform.Journal();
    EXPECT_EQ(
        std::vector<std::string>(journal.begin() + static_cast<long>(before), journal.end()),
        (std::vector<std::string>{"wifi_manager_ap_destroy", "wifi_manager_deinitialize",
                                  "connection_unset_network_monitor_cb", "connection_destroy"}));
}

TEST_F(CNetworkManagerTest, ReleasedManagerCanBeginAnew) {
    CTYNetworkManager manager;
    manager.GetWiFiSignalStrength();
    manager.ReleaseNetworkManager();
    EXPECT_TRUE(manager.InitNetworkManager());
    EXPECT_EQ(m_Platform.NetworkMonitors(), 1U);
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -55);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_initialize"), 2U);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_get_connected_ap"), 2U);
}

TEST_F(CNetworkManagerTest, RegisteredCallbackOutlivesARelease) {
    CTYNetworkManager manager;
    int calls = 0;
    manager.RegistConnectedCallback([](void* pCalls) { ++*static_cast<int*>(pCalls); }, &calls);
    manager.ReleaseNetworkManager();
    manager.InitNetworkManager();
    m_Platform.FireNetwork(0, "GATEWAY");
    EXPECT_EQ(calls, 1);
}

TEST_F(CNetworkManagerTest, ReleaseWithoutAConnectionStillGivesTheWifiHandlesBack) {
    m_Platform.connectionCreateResult = -1;
    CTYNetworkManager manager;
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -55);
    EXPECT_FALSE(manager.ReleaseNetworkManager());
    EXPECT_EQ(m_Platform.Calls("wifi_manager_ap_destroy"), 1U);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_deinitialize"), 1U);
    EXPECT_TRUE(Error("m_hConnection is NULL"));
}

TEST_F(CNetworkManagerTest, GatewayEventSetsTheTypeAndMissesACallback) {
    const CTYNetworkManager manager;
    m_Platform.connectionType = CONNECTION_TYPE_WIFI;
    m_Platform.FireNetwork(0, "GATEWAY");
    EXPECT_EQ(NetworkType(), TY_NETWORK_WIFI);
    EXPECT_TRUE(Debug("[GATEWAY] State callback Result : [0]"));
    EXPECT_TRUE(Error("m_pConnectedCallback is NULL!!!"));
}

TEST_F(CNetworkManagerTest, GatewayEventCallsTheRegisteredCallback) {
    CTYNetworkManager manager;
    int calls = 0;
    manager.RegistConnectedCallback([](void* pCalls) { ++*static_cast<int*>(pCalls); }, &calls);
    m_Platform.FireNetwork(0, "GATEWAY");
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(Debug("Gateway connected success"));
    EXPECT_TRUE(NotLogged("m_pConnectedCallback is NULL!!!"));
}

TEST_F(CNetworkManagerTest, GatewayFailureDisconnects) {
    const CTYNetworkManager manager;
    m_Platform.FireNetwork(-2, "GATEWAY");
    EXPECT_EQ(NetworkType(), TY_NETWORK_DISCONNECTED);
    EXPECT_TRUE(Debug("[GATEWAY] State callback Result : [-2]"));
    EXPECT_TRUE(Debug("Gateway connected fail!!!"));
}

TEST_F(CNetworkManagerTest, OtherEventsAreLoggedOnly) {
    const CTYNetworkManager manager;
    m_Platform.connectionType = CONNECTION_TYPE_WIFI;
    m_Platform.FireNetwork(0, "PROXY");
    EXPECT_EQ(NetworkType(), TY_NETWORK_ETHERNET);
    EXPECT_TRUE(Debug("[PROXY] State callback Result : [0]"));
    EXPECT_TRUE(NotLogged("m_pConnectedCallback is NULL!!!"));
}

TEST_F(CNetworkManagerTest, OnlyTheWholeNameIsTheGateway) {
    const CTYNetworkManager manager;
    for (const char* name : {"gateway", "GATEWAY ", "GATEWA", ""}) {
        m_Platform.FireNetwork(-1, name);
        EXPECT_EQ(NetworkType(), TY_NETWORK_ETHERNET) << name;
    }
    EXPECT_TRUE(NotLogged("Gateway connected fail!!!"));
}

TEST_F(CNetworkManagerTest, DisconnectingAsksThePlatformNothing) {
    CTYNetworkManager manager;
    const std::size_t before = m_Platform.Journal().size();
    manager.UpdateNetworkType(false);
    EXPECT_EQ(m_Platform.Journal().size(), before);
    EXPECT_TRUE(Debug("isConnect : 0, m_NetworkType : 0"));
}

TEST_F(CNetworkManagerTest, EventWithoutANameOrAManagerIsInvalid) {
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

TEST_F(CNetworkManagerTest, AnyFailingWifiStepGivesTheErrorValue) {
    CTYNetworkManager manager;
    m_Platform.wifiResult = -1;
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -200);
    EXPECT_TRUE(Error("wifi_initialize error : -1!!!"));
    m_Platform.wifiResult = 0;
    m_Platform.apResult = -2;
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -200);
    EXPECT_TRUE(Error("wifi_get_connected_ap error : -2!!!"));
    m_Platform.apResult = 0;
    m_Platform.rssiResult = -3;
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -200);
    EXPECT_TRUE(Error("wifi_ap_get_rssi error : -3!!!"));
}

TEST_F(CNetworkManagerTest, WifiStepThatGivesNoHandleHasFailed) {
    CTYNetworkManager manager;
    m_Platform.wifiNull = true;
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -200);
    EXPECT_TRUE(Error("wifi_initialize error : 0!!!"));
    m_Platform.wifiNull = false;
    m_Platform.apNull = true;
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -200);
    EXPECT_TRUE(Error("wifi_get_connected_ap error : 0!!!"));
    EXPECT_EQ(m_Platform.Calls("wifi_manager_ap_get_rssi"), 0U);
}

TEST_F(CNetworkManagerTest, WifiStepThatFailedIsTriedAgainAndWhatWorkedIsKept) {
    CTYNetworkManager manager;
    m_Platform.apResult = -2;
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -200);
    m_Platform.apResult = 0;
    m_Platform.rssiResult = -3;
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -200);
    m_Platform.rssiResult = 0;
    EXPECT_EQ(manager.GetWiFiSignalStrength(), -55);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_initialize"), 1U);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_get_connected_ap"), 2U);
}

TEST_F(CNetworkManagerTest, HandlesOfPlayersWhoAskAtOnceAreAllGivenBack) {
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

TEST_F(CNetworkManagerTest, TwoManagersSeeTheTypeThatEitherWrote) {
    CTYNetworkManager first;
    CTYNetworkManager second;
    second.UpdateNetworkType(false);
    EXPECT_EQ(NetworkType(), TY_NETWORK_DISCONNECTED);
    first.UpdateNetworkType(true);
    EXPECT_EQ(NetworkType(), TY_NETWORK_ETHERNET);
}

TEST_F(CNetworkManagerTest, TypeOutlivesTheLastManager) {
    { const CTYNetworkManager manager; }
    EXPECT_EQ(NetworkType(), TY_NETWORK_ETHERNET);
    EXPECT_EQ(m_Platform.NetworkMonitors(), 0U);
}

}  // namespace
