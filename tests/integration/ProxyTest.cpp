// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateBus.h"
#include "TYServiceProxy.h"
#include "Test.h"
#include "doubles/PlatformDouble.h"
#include "receiver/Receiver.h"

#include <sys/time.h>

using std::chrono::milliseconds;

namespace {

/// The service's proxy on a real bus, with a service that may take its time.
class CProxyTest : public testing::Test {
  protected:
    CProxyTest() {
        m_Platform.Reset();
        m_Bus.BecomeSystemBus();
        m_Service.OwnName();
    }

    static CPrivateBus& TheBus() {
        static CPrivateBus bus;
        return bus;
    }

    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    CPrivateBus& m_Bus = TheBus();
    receiver::CReceiver m_Service{m_Bus.Address()};
};

// Connects to a halted bus and looks for the service on one, as libdbus itself waits there.
TEST_F(CProxyTest, HostsSignalsDoNotLengthenTheWaitForASilentBus) {
    static std::atomic<int> s_nSignals = 0;
    CTYServiceProxy connected;
    signal(SIGALRM, [](int) { ++s_nSignals; });
    const timeval period{0, 100000};
    const itimerval often{period, period};
    setitimer(ITIMER_REAL, &often, nullptr);
    m_Bus.Pause();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(CTYServiceProxy().IsConnected());
    EXPECT_FALSE(connected.IsConnected());
    const auto time = std::chrono::steady_clock::now() - begin;
    m_Bus.Resume();
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE(time, milliseconds(5800));
    EXPECT_LT(time, milliseconds(9000));
    EXPECT_GT(s_nSignals, 0);
    EXPECT_TRUE(connected.IsConnected());
}

TEST_F(CProxyTest, HostsWayWithSigpipeStaysAndABusThatDiesIsSurvived) {
    signal(SIGPIPE, SIG_DFL);
    CTYServiceProxy proxy;
    m_Bus.Stop();
    EXPECT_FALSE(proxy.Kick());
    EXPECT_FALSE(proxy.Kick());
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

}  // namespace
