// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "NetworkFixture.h"

#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

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

}  // namespace

bool Ip(const std::string& words) {
    return std::system(("ip " + words).c_str()) == 0;
}

void CConnectionTest::SetUp() {
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

void CConnectionTest::TearDown() {
    if (m_hConnection != nullptr) {
        connection_destroy(m_hConnection);
        Ip("link del va");
        Ip("link del vc");
    }
}
