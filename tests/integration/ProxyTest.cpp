// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateBus.h"
#include "TYDbusClient.h"
#include "TYServiceProxy.h"
#include "doubles/PlatformDouble.h"
#include "receiver/Receiver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

using receiver::Reply;
using std::chrono::milliseconds;
using testing::Contains;
using testing::Field;
using testing::StartsWith;

namespace {

/// The service's proxy on a real bus, with a service that may take its time.
class CProxyTest : public testing::Test {
  protected:
    CProxyTest() {
        m_Platform.Reset();
        m_Bus.BecomeSystemBus();
        m_Service.OwnName();
    }

    bool SendBatch(CTYServiceProxy& proxy) {
        std::vector<TYMediaData> records(1);
        std::vector<std::string> urls(1);
        return proxy.SendData(records, urls);
    }

    /// @return how long something takes while the bus is silent
    template <class Function>
    std::chrono::steady_clock::duration TimeOnASilentBus(Function function) {
        m_Bus.Pause();
        const auto begin = std::chrono::steady_clock::now();
        function();
        const auto time = std::chrono::steady_clock::now() - begin;
        m_Bus.Resume();
        return time;
    }

    static CPrivateBus& TheBus() {
        static CPrivateBus bus;
        return bus;
    }

    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    CPrivateBus& m_Bus = TheBus();
    receiver::CReceiver m_Service{m_Bus.Address()};
};

TEST_F(CProxyTest, CallBeforeAnyKickWaitsForASlowService) {
    m_Service.SetReply("SendData", Reply::ByRules().After(milliseconds(600)));
    CTYServiceProxy proxy;
    EXPECT_TRUE(SendBatch(proxy));
}

TEST_F(CProxyTest, CallBehindAKickIsCutOffAtItsShortTime) {
    m_Service.SetReply("SendData", Reply::ByRules().After(milliseconds(600)));
    CTYServiceProxy proxy;
    ASSERT_TRUE(proxy.Kick());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(SendBatch(proxy));
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(waited, milliseconds(190));
    EXPECT_LT(waited, milliseconds(600));
    EXPECT_THAT(m_Platform.Log(), Contains(Field(&CPlatformDouble::LogLine::text,
                                                 StartsWith("CLIENT > Dbus error: "))));
}

TEST_F(CProxyTest, ConnectingToASilentBusGivesUpAfterThreeSeconds) {
    const auto time = TimeOnASilentBus([] { EXPECT_FALSE(CTYServiceProxy().IsConnected()); });
    EXPECT_GE(time, milliseconds(2900));
    EXPECT_LT(time, milliseconds(4500));
}

TEST_F(CProxyTest, HostsSignalsDoNotLengthenTheWaitForASilentBus) {
    static std::atomic<int> s_nSignals = 0;
    signal(SIGALRM, [](int) { ++s_nSignals; });
    const timeval period{0, 100000};
    const itimerval often{period, period};
    setitimer(ITIMER_REAL, &often, nullptr);
    const auto time = TimeOnASilentBus([] { EXPECT_FALSE(CTYServiceProxy().IsConnected()); });
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_LT(time, milliseconds(4500));
    EXPECT_GT(s_nSignals, 0);
}

TEST_F(CProxyTest, LookingForTheServiceOnASilentBusGivesUpAfterThreeSeconds) {
    CTYServiceProxy proxy;
    EXPECT_TRUE(proxy.IsConnected());
    const auto time = TimeOnASilentBus([&] { EXPECT_FALSE(proxy.IsConnected()); });
    EXPECT_GE(time, milliseconds(2900));
    EXPECT_LT(time, milliseconds(4500));
    EXPECT_TRUE(proxy.IsConnected());
}

TEST_F(CProxyTest, HostsWayWithSigpipeStaysAndABusThatDiesIsSurvived) {
    signal(SIGPIPE, SIG_DFL);
    CTYServiceProxy proxy;
    m_Bus.Stop();
    EXPECT_FALSE(SendBatch(proxy));
    EXPECT_FALSE(SendBatch(proxy));
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
    m_Bus.Restart();
}

TEST_F(CProxyTest, HostsWayWithSigpipeStaysWhenSeveralConnectAtOnce) {
    signal(SIGPIPE, SIG_DFL);
    const auto connect = [] {
        for (int i = 0; i < 30; ++i) {
            EXPECT_TRUE(CTYServiceProxy().IsConnected());
        }
    };
    std::thread other(connect);
    connect();
    other.join();
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
}

void SendSignals(const std::string& address, const std::string& to, int count) {
    GDBusConnection* pPeer = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    for (int i = 0; i < count; ++i) {
        g_dbus_connection_emit_signal(pPeer, to.c_str(), "/noise", "org.example.Noise", "Noise",
                                      nullptr, nullptr);
    }
    g_dbus_connection_flush_sync(pPeer, nullptr, nullptr);
    g_object_unref(pPeer);
}

/// Shows the connection.
class COpenClient : public CDbusClient {
  public:
    COpenClient() : CDbusClient(receiver::kInterface, receiver::kServiceName, SystemBus()) {}
    DBusConnection* Connection() const { return m_pConnection; }
};

TEST_F(CProxyTest, MessagesThatNobodyAskedForAreNotKept) {
    COpenClient client;
    const std::string name = dbus_bus_get_unique_name(client.Connection());
    SendSignals(m_Bus.Address(), name, 1000);
    // What comes together with a reply is dropped with the next call.
    bool empty = false;
    for (int calls = 0; calls < 1000 && !empty; ++calls) {
        EXPECT_TRUE(client.IsConnected());
        empty = dbus_connection_get_dispatch_status(client.Connection()) == DBUS_DISPATCH_COMPLETE;
    }
    EXPECT_TRUE(empty);
}

}  // namespace
