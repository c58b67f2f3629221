// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_PLATFORM_NETWORKFIXTURE_H
#define TALLYRA_TESTS_PLATFORM_NETWORKFIXTURE_H

#include "connection.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

/// Runs the command ip. @return whether it succeeded
bool Ip(const std::string& words);

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

/// Two veth pairs in a network namespace; no default route to begin with.
class CConnectionTest : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

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

#endif  // TALLYRA_TESTS_PLATFORM_NETWORKFIXTURE_H
