// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_PLATFORM_PLATFORMHOST_H
#define TALLYRA_TESTS_PLATFORM_PLATFORMHOST_H

#include "TemporaryFolder.h"

#include "regdb.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

constexpr const char* kWatchedKey = "db/tallyra/log_on";

/// A host of the platform with a settings file of its own. EXPECT_EXIT runs each scenario in a
/// process of its own.
///
/// Threads: the test's and the settings thread, which runs the work; the mutex guards the count.
class CPlatformHostTest : public testing::Test {
  protected:
    CPlatformHostTest();
    ~CPlatformHostTest() override;

    /// Replaces the settings file by one with another value of the key.
    void Store(int value) const;
    /// Registers a callback that runs `work`, if there is one, and counts.
    int Watch(std::function<void()> work = nullptr);
    static int Ignore();
    /// @return whether `calls` callbacks have returned within 30 seconds
    bool WaitForCalls(int calls);

    CTemporaryFolder m_Folder;

  private:
    static void OnChanged(struct _keynode_t* pNode, void* pThis);

    std::function<void()> m_Work;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    int m_nCalls = 0;
};

#endif  // TALLYRA_TESTS_PLATFORM_PLATFORMHOST_H
