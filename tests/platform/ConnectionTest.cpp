// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Callbacks.h"
#include "ChildScenario.h"
#include "HostDescriptors.h"
#include "Sanitizers.h"
#include "TemporaryFolder.h"

#include "connection.h"

#include <sched.h>

using testing::ElementsAre;

namespace {

/// Runs the command ip. @return whether it succeeded
bool Ip(const std::string& words) {
    return std::system(("ip " + words).c_str()) == 0;
}

bool AddRoute() {
    return Ip("route add default via 10.77.1.2 dev va");
}
bool DeleteRoute() {
    return Ip("route del default");
}

/// Two veth pairs in a network namespace, without a default route.
class CConnectionTest : public testing::Test {
  protected:
    void SetUp() override {
        if (!EnterOwnNetwork()) {
            GTEST_SKIP() << "no right to create a network namespace";
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

    int Monitor(CCallbacks& callbacks) {
        return connection_set_network_monitor_cb(m_hConnection, &CCallbacks::OnNetwork, &callbacks);
    }
    int Unset() { return connection_unset_network_monitor_cb(m_hConnection); }

    /// Removes the monitor while its callback blocks.
    void ExpectToOutlastACallback(bool unsetInCallback, int (*remove)(connection_h), int result) {
        CBlockingWork work;
        CCallbacks callbacks([&] {
            if (unsetInCallback) {
                Unset();
            }
            work.Run();
        });
        ASSERT_EQ(Monitor(callbacks), 0);
        ASSERT_TRUE(AddRoute() && work.WaitUntilEntered());
        EXPECT_TRUE(work.Outlasts([&] { EXPECT_EQ(remove(m_hConnection), result); }));
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
    CCallbacks m_Callbacks;

  private:
    // Once for the process: later threads are in the same namespace.
    static bool EnterOwnNetwork() {
        static const bool entered = [] {
            const std::string uid = std::to_string(getuid());
            if (unshare(CLONE_NEWNET) == 0) {
                return true;
            }
            return unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 &&
                   static_cast<bool>(std::ofstream("/proc/self/uid_map")
                                     << "0 " + uid + " 1" << std::flush);
        }();
        return entered;
    }
};

TEST_F(CConnectionTest, ReachableDefaultRouteConnects) {
    const auto expectToBe = [this](bool connected) {
        EXPECT_EQ(HasGateway(), connected);
        EXPECT_EQ(Type(), connected ? CONNECTION_TYPE_ETHERNET : CONNECTION_TYPE_DISCONNECTED);
    };
    expectToBe(false);
    ASSERT_TRUE(AddRoute());
    expectToBe(true);
    ASSERT_TRUE(DeleteRoute() && Ip("route add unreachable default metric 7"));
    expectToBe(false);
    ASSERT_TRUE(Ip("route del unreachable default metric 7"));
    ASSERT_TRUE(Ip("-6 addr add fd77::1/64 dev va nodad"));
    ASSERT_TRUE(Ip("-6 route add default via fd77::2 dev va"));
    expectToBe(true);
}

TEST_F(CConnectionTest, MonitorReportsThatTheRouteAppearsMovesAndDisappears) {
    ASSERT_EQ(Monitor(m_Callbacks), 0);
    ASSERT_TRUE(AddRoute() && m_Callbacks.WaitFor(1));
    ASSERT_TRUE(Ip("route replace default via 10.77.2.2 dev vc") && m_Callbacks.WaitFor(2));
    ASSERT_TRUE(DeleteRoute() && m_Callbacks.WaitFor(3));
    EXPECT_THAT(m_Callbacks.Reports(), ElementsAre("GATEWAY 0", "GATEWAY 0", "GATEWAY -2"));
}

TEST_F(CConnectionTest, MonitorReportsThatTheLinkOfTheRouteGoesDown) {
    ASSERT_TRUE(AddRoute());
    ASSERT_EQ(Monitor(m_Callbacks), 0);
    ASSERT_TRUE(Ip("link set va down") && m_Callbacks.WaitFor(1));
    EXPECT_THAT(m_Callbacks.Reports(), ElementsAre("GATEWAY -2"));
}

TEST_F(CConnectionTest, MonitorIsSetOnceAndReportsNothingAfterUnset) {
    ASSERT_EQ(Monitor(m_Callbacks), 0);
    EXPECT_EQ(Monitor(m_Callbacks), CONNECTION_ERROR_ALREADY_REGISTERED);
    EXPECT_EQ(Unset(), 0);
    EXPECT_EQ(Unset(), CONNECTION_ERROR_NOT_REGISTERED);
    ASSERT_TRUE(AddRoute());
    EXPECT_TRUE(HasGateway());
    EXPECT_TRUE(m_Callbacks.Reports().empty());
}

TEST_F(CConnectionTest, CallbackMayUnsetItsMonitor) {
    CCallbacks callbacks([this] { Unset(); });
    ASSERT_EQ(Monitor(callbacks), 0);
    ASSERT_TRUE(AddRoute() && callbacks.WaitFor(1));
    EXPECT_EQ(Unset(), CONNECTION_ERROR_NOT_REGISTERED);
}

TEST_F(CConnectionTest, UnsetAndDestroyWaitForARunningCallback) {
    const struct {
        const char* name;
        bool unsetInCallback;
        int (*remove)(connection_h);
        int result;
    } cases[] = {
        {"unset", false, &connection_unset_network_monitor_cb, 0},
        {"unset after the callback has unset itself", true, &connection_unset_network_monitor_cb,
         CONNECTION_ERROR_NOT_REGISTERED},
        {"destroy", false, &connection_destroy, 0},
    };
    for (const auto& [name, unsetInCallback, remove, result] : cases) {
        SCOPED_TRACE(name);
        ExpectToOutlastACallback(unsetInCallback, remove, result);
        ASSERT_TRUE(DeleteRoute());
    }
    ASSERT_EQ(connection_create(&m_hConnection), 0);
}

TEST_F(CConnectionTest, CallbackMayDestroyItsConnection) {
    CCallbacks callbacks([this] { connection_destroy(m_hConnection); });
    ASSERT_EQ(Monitor(callbacks), 0);
    ASSERT_TRUE(AddRoute() && callbacks.WaitFor(1));
    ASSERT_EQ(connection_create(&m_hConnection), 0);
    ASSERT_EQ(Monitor(m_Callbacks), 0);
    ASSERT_TRUE(DeleteRoute());
    EXPECT_TRUE(m_Callbacks.WaitFor(1));
    // Setting a monitor joins the first one's thread, which has ended by now.
    EXPECT_EQ(Unset(), 0);
    EXPECT_EQ(Monitor(m_Callbacks), 0);
}

TEST(Connection, RejectsInvalidParameters) {
    EXPECT_EQ(connection_create(nullptr), CONNECTION_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(connection_destroy(nullptr), CONNECTION_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(connection_get_type(nullptr, nullptr), CONNECTION_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(connection_profile_check_default_gateway(nullptr),
              CONNECTION_ERROR_INVALID_PARAMETER);
}

/// Hosts that run out of descriptors, close the platform's, or fork. Each new process has a network
/// namespace of its own.
class CNetworkDescriptorsTest : public CConnectionTest {
  protected:
    /// @return whether the monitor reports two further changes and can be unset
    bool MonitorContinues() {
        return DeleteRoute() && m_Callbacks.WaitFor(2) && AddRoute() && m_Callbacks.WaitFor(3) &&
               Unset() == 0;
    }

    CTemporaryFolder m_Folder;
};

TEST_F(CNetworkDescriptorsTest, NumbersUsedAgainAreNotTouchedByTheMonitorWhichContinuesOrEnds) {
    if (kUnderThreadSanitizer) {
        GTEST_SKIP() << "a host that closes another thread's descriptors is a race";
    }
    for (const int turn : {0, 1, 2}) {
        for (const bool changes : {false, true}) {
            SCOPED_TRACE(std::to_string(turn) + (changes ? " with changes" : " without changes"));
            ExpectInNewProcess([&] {
                const bool before =
                    Monitor(m_Callbacks) == 0 && AddRoute() && m_Callbacks.WaitFor(1);
                const CHostDescriptors descriptors(m_Folder.Path(), turn);
                const bool worked =
                    changes ? MonitorContinues() : connection_destroy(m_hConnection) == 0;
                return before && worked && descriptors.AreUntouched();
            });
        }
    }
}

TEST_F(CNetworkDescriptorsTest, MonitorIsRefusedWithoutDescriptors) {
    if (kUnderUndefinedBehaviourSanitizer) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    ExpectInNewProcess([this] {
        CHostDescriptors::RefuseMore();
        return Monitor(m_Callbacks) != 0 && connection_destroy(m_hConnection) == 0;
    });
}

TEST_F(CNetworkDescriptorsTest, ForkedChildMayDestroyTheConnection) {
    ExpectInNewProcess([this] {
        Monitor(m_Callbacks);
        const auto destroy = [this] { return connection_destroy(m_hConnection) == 0 ? 0 : 1; };
        return RunForked(destroy).exitCode == 0 && AddRoute() && m_Callbacks.WaitFor(1);
    });
}

}  // namespace
