// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using testing::ElementsAre;

namespace {

bool WriteFile(const std::string& path, const std::string& text) {
    return static_cast<bool>(std::ofstream(path) << text << std::flush);
}

// Once for the process: everything in it, later threads too, lives in a network of its own.
bool EnterOwnNetwork() {
    static const bool entered = [] {
        const std::string uid = std::to_string(getuid());
        if (unshare(CLONE_NEWNET) == 0) {
            return true;
        }
        return unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 &&
               WriteFile("/proc/self/uid_map", "0 " + uid + " 1");
    }();
    return entered;
}

bool Ip(const std::string& words) {
    return std::system(("ip " + words).c_str()) == 0;
}

/// Keeps what the monitor reports.
class CMonitor {
  public:
    static void OnState(connection_error_e result, char* name, void* pMonitor) {
        auto* pThis = static_cast<CMonitor*>(pMonitor);
        const std::lock_guard lock(pThis->m_Mutex);
        pThis->m_Reports.push_back(std::string(name) + " " + std::to_string(result));
        pThis->m_Changed.notify_all();
    }

    bool WaitFor(std::size_t reports) {
        std::unique_lock lock(m_Mutex);
        return m_Changed.wait_for(lock, std::chrono::seconds(30),
                                  [&] { return m_Reports.size() >= reports; });
    }

    std::vector<std::string> Reports() {
        const std::lock_guard lock(m_Mutex);
        return m_Reports;
    }

  private:
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::vector<std::string> m_Reports;
};

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

/// Two veth pairs in a network namespace; no default route to begin with.
class CConnectionTest : public testing::Test {
  protected:
    void SetUp() override {
        if (!EnterOwnNetwork()) {
            GTEST_SKIP() << "this machine lets us have no network namespace";
        }
        ASSERT_TRUE(Ip("link set lo up"));
        ASSERT_TRUE(Ip("link add va type veth peer name vb"));
        ASSERT_TRUE(Ip("link add vc type veth peer name vd"));
        ASSERT_TRUE(Ip("addr add 10.77.1.1/24 dev va") && Ip("addr add 10.77.2.1/24 dev vc"));
        for (const char* link : {"va", "vb", "vc", "vd"}) {
            ASSERT_TRUE(Ip(std::string("link set ") + link + " up"));
        }
        ASSERT_EQ(connection_create(&m_hConnection), 0);
    }

    void TearDown() override {
        if (m_hConnection != nullptr) {
            connection_destroy(m_hConnection);
            Ip("link del va");
            Ip("link del vc");
        }
    }

    static bool HasGateway() {
        bool connected = false;
        EXPECT_EQ(connection_profile_check_default_gateway(&connected), 0);
        return connected;
    }

    int Type() {
        int type = -1;
        EXPECT_EQ(connection_get_type(m_hConnection, &type), 0);
        return type;
    }

    connection_h m_hConnection = nullptr;
    CMonitor m_Monitor;
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

TEST(Connection, WrongArgumentsAreRefused) {
    EXPECT_EQ(connection_create(nullptr), CONNECTION_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(connection_destroy(nullptr), CONNECTION_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(connection_get_type(nullptr, nullptr), CONNECTION_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(connection_profile_check_default_gateway(nullptr),
              CONNECTION_ERROR_INVALID_PARAMETER);
}

}  // namespace
