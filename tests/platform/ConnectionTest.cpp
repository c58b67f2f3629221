// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "NetworkFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

using testing::ElementsAre;

namespace {

/// A monitor's callback that stays a while after it is released.
class CStayingCallback {
  public:
    enum class UnsetsItself { NO, YES };

    CStayingCallback(connection_h hConnection, UnsetsItself unsetsItself)
        : m_hConnection(hConnection), m_UnsetsItself(unsetsItself) {}

    /// Has the callback run. @return whether it does
    bool Enter() {
        return connection_set_network_monitor_cb(m_hConnection, &CStayingCallback::OnState, this) ==
                   0 &&
               Ip("route add default via 10.77.1.2 dev va") &&
               m_Entered.get_future().wait_for(std::chrono::seconds(30)) ==
                   std::future_status::ready;
    }

    void Release() { m_Release.set_value(); }
    bool HasLeft() const { return m_bLeft; }

  private:
    static void OnState(connection_error_e /*result*/, char* /*name*/, void* pState) {
        auto* pThis = static_cast<CStayingCallback*>(pState);
        if (pThis->m_UnsetsItself == UnsetsItself::YES) {
            connection_unset_network_monitor_cb(pThis->m_hConnection);
        }
        pThis->m_Entered.set_value();
        pThis->m_Release.get_future().wait();
        // Time for whoever fails to wait to be seen failing.
        pThis->m_Never.get_future().wait_for(std::chrono::milliseconds(50));
        pThis->m_bLeft = true;
    }

    connection_h m_hConnection;
    const UnsetsItself m_UnsetsItself;
    std::promise<void> m_Entered;
    std::promise<void> m_Release;
    std::promise<void> m_Never;
    std::atomic<bool> m_bLeft{false};
};

TEST_F(CConnectionTest, DeviceIsConnectedWhileThereIsADefaultRoute) {
    EXPECT_FALSE(HasGateway());
    EXPECT_EQ(Type(), CONNECTION_TYPE_DISCONNECTED);
    ASSERT_TRUE(Ip("route add default via 10.77.1.2 dev va"));
    EXPECT_TRUE(HasGateway());
    EXPECT_EQ(Type(), CONNECTION_TYPE_ETHERNET);
    ASSERT_TRUE(Ip("route del default"));
    EXPECT_FALSE(HasGateway());
}

TEST_F(CConnectionTest, Ipv6DefaultRouteConnectsToo) {
    ASSERT_TRUE(Ip("-6 addr add fd77::1/64 dev va nodad"));
    ASSERT_TRUE(Ip("-6 route add default via fd77::2 dev va"));
    EXPECT_TRUE(HasGateway());
    EXPECT_EQ(Type(), CONNECTION_TYPE_ETHERNET);
}

TEST_F(CConnectionTest, UnreachableDefaultRouteConnectsNothing) {
    ASSERT_TRUE(Ip("route add unreachable default metric 7"));
    EXPECT_FALSE(HasGateway());
    ASSERT_TRUE(Ip("route del unreachable default metric 7"));
}

TEST_F(CConnectionTest, MonitorReportsTheRouteComingMovingAndGoing) {
    ASSERT_EQ(connection_set_network_monitor_cb(m_hConnection, &CMonitor::OnState, &m_Monitor), 0);
    ASSERT_TRUE(Ip("route add default via 10.77.1.2 dev va"));
    ASSERT_TRUE(m_Monitor.WaitFor(1));
    ASSERT_TRUE(Ip("route replace default via 10.77.2.2 dev vc"));
    ASSERT_TRUE(m_Monitor.WaitFor(2));
    ASSERT_TRUE(Ip("route del default"));
    ASSERT_TRUE(m_Monitor.WaitFor(3));
    EXPECT_THAT(m_Monitor.Reports(), ElementsAre("GATEWAY 0", "GATEWAY 0", "GATEWAY -2"));
}

TEST_F(CConnectionTest, MonitorReportsThatTheLinkUnderTheRouteWentDown) {
    ASSERT_TRUE(Ip("route add default via 10.77.1.2 dev va"));
    ASSERT_EQ(connection_set_network_monitor_cb(m_hConnection, &CMonitor::OnState, &m_Monitor), 0);
    ASSERT_TRUE(Ip("link set va down"));
    ASSERT_TRUE(m_Monitor.WaitFor(1));
    EXPECT_THAT(m_Monitor.Reports(), ElementsAre("GATEWAY -2"));
}

TEST_F(CConnectionTest, MonitorThatIsUnsetReportsNothingMore) {
    ASSERT_EQ(connection_set_network_monitor_cb(m_hConnection, &CMonitor::OnState, &m_Monitor), 0);
    EXPECT_EQ(connection_set_network_monitor_cb(m_hConnection, &CMonitor::OnState, &m_Monitor),
              CONNECTION_ERROR_ALREADY_REGISTERED);
    EXPECT_EQ(connection_unset_network_monitor_cb(m_hConnection), 0);
    EXPECT_EQ(connection_unset_network_monitor_cb(m_hConnection), CONNECTION_ERROR_NOT_REGISTERED);
    ASSERT_TRUE(Ip("route add default via 10.77.1.2 dev va"));
    EXPECT_TRUE(HasGateway());
    EXPECT_TRUE(m_Monitor.Reports().empty());
}

TEST_F(CConnectionTest, MonitorMayUnsetItselfFromItsCallback) {
    struct State {
        connection_h hConnection;
        CMonitor monitor;
    } state{m_hConnection, {}};
    const connection_network_monitor_cb callback = [](connection_error_e result, char* name,
                                                      void* pState) {
        connection_unset_network_monitor_cb(static_cast<State*>(pState)->hConnection);
        CMonitor::OnState(result, name, &static_cast<State*>(pState)->monitor);
    };
    ASSERT_EQ(connection_set_network_monitor_cb(m_hConnection, callback, &state), 0);
    ASSERT_TRUE(Ip("route add default via 10.77.1.2 dev va"));
    ASSERT_TRUE(state.monitor.WaitFor(1));
    EXPECT_EQ(connection_unset_network_monitor_cb(m_hConnection), CONNECTION_ERROR_NOT_REGISTERED);
}

TEST_F(CConnectionTest, UnsettingWaitsForACallbackThatRuns) {
    CStayingCallback callback(m_hConnection, CStayingCallback::UnsetsItself::NO);
    ASSERT_TRUE(callback.Enter());
    std::thread unsetting([&] {
        EXPECT_EQ(connection_unset_network_monitor_cb(m_hConnection), 0);
        EXPECT_TRUE(callback.HasLeft());
    });
    callback.Release();
    unsetting.join();
}

TEST_F(CConnectionTest, UnsettingWaitsForACallbackThatHasUnsetItself) {
    CStayingCallback callback(m_hConnection, CStayingCallback::UnsetsItself::YES);
    ASSERT_TRUE(callback.Enter());
    std::thread unsetting([&] {
        EXPECT_EQ(connection_unset_network_monitor_cb(m_hConnection),
                  CONNECTION_ERROR_NOT_REGISTERED);
        EXPECT_TRUE(callback.HasLeft());
    });
    callback.Release();
    unsetting.join();
}

TEST_F(CConnectionTest, DestroyingWaitsForACallbackThatRuns) {
    CStayingCallback callback(m_hConnection, CStayingCallback::UnsetsItself::NO);
    ASSERT_TRUE(callback.Enter());
    std::thread destroying([&] {
        EXPECT_EQ(connection_destroy(m_hConnection), 0);
        EXPECT_TRUE(callback.HasLeft());
    });
    callback.Release();
    destroying.join();
    ASSERT_EQ(connection_create(&m_hConnection), 0);
}

TEST_F(CConnectionTest, ConnectionMayBeDestroyedInItsCallback) {
    struct State {
        connection_h hConnection;
        CMonitor monitor;
    } state{m_hConnection, {}};
    const connection_network_monitor_cb callback = [](connection_error_e result, char* name,
                                                      void* pState) {
        connection_destroy(static_cast<State*>(pState)->hConnection);
        CMonitor::OnState(result, name, &static_cast<State*>(pState)->monitor);
    };
    ASSERT_EQ(connection_set_network_monitor_cb(m_hConnection, callback, &state), 0);
    ASSERT_TRUE(Ip("route add default via 10.77.1.2 dev va"));
    ASSERT_TRUE(state.monitor.WaitFor(1));
    ASSERT_EQ(connection_create(&m_hConnection), 0);
    ASSERT_EQ(connection_set_network_monitor_cb(m_hConnection, &CMonitor::OnState, &m_Monitor), 0);
    ASSERT_TRUE(Ip("route del default"));
    EXPECT_TRUE(m_Monitor.WaitFor(1));
    // Joins the first monitor's thread, which has ended by now.
    EXPECT_EQ(connection_unset_network_monitor_cb(m_hConnection), 0);
    EXPECT_EQ(connection_set_network_monitor_cb(m_hConnection, &CMonitor::OnState, &m_Monitor), 0);
}

TEST(Connection, WrongArgumentsAreRefused) {
    EXPECT_EQ(connection_create(nullptr), CONNECTION_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(connection_destroy(nullptr), CONNECTION_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(connection_get_type(nullptr, nullptr), CONNECTION_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(connection_profile_check_default_gateway(nullptr),
              CONNECTION_ERROR_INVALID_PARAMETER);
}

}  // namespace
