// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_PLATFORM_NETWORKFIXTURE_H
#define TALLYRA_TESTS_PLATFORM_NETWORKFIXTURE_H

#include "Callbacks.h"

#include "connection.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

/// Runs the command ip. @return whether it succeeded
inline bool Ip(const std::string& words) {
    return std::system(("ip " + words).c_str()) == 0;
}

inline bool AddRoute() {
    return Ip("route add default via 10.77.1.2 dev va");
}
inline bool DeleteRoute() {
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

#endif  // TALLYRA_TESTS_PLATFORM_NETWORKFIXTURE_H
