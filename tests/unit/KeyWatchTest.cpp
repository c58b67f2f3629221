// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYKeyWatch.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

namespace {

/// How long something that must not happen gets to happen. A slow machine makes such a test blind,
/// never red.
constexpr std::chrono::milliseconds kShortWhile{100};

/// Somebody who watches the key.
struct Watcher {
    std::atomic<int> calls{0};
    /// Runs inside the callback.
    std::function<void()> inside;
};

class CKeyWatchTest : public CPlatformTest, public testing::WithParamInterface<int> {
  protected:
    CKeyWatchTest() { m_Platform.ignore = static_cast<CPlatformDouble::Ignore>(GetParam()); }

    static void OnChanged(struct _keynode_t* /*pNode*/, void* pData) {
        auto* pWatcher = static_cast<Watcher*>(pData);
        ++pWatcher->calls;
        if (pWatcher->inside) {
            pWatcher->inside();
        }
    }

    CTYKeyWatch m_Watch{&OnChanged};
    Watcher m_First;
    Watcher m_Second;
};

TEST_P(CKeyWatchTest, RemovingOneWatcherLeavesTheOther) {
    EXPECT_EQ(m_Watch.Add(&m_First), 0);
    EXPECT_EQ(m_Watch.Add(&m_Second), 0);
    EXPECT_EQ(m_Watch.Remove(&m_First), 0);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_First.calls, 0);
    EXPECT_EQ(m_Second.calls, 1);
    EXPECT_EQ(m_Watch.Remove(&m_Second), 0);
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
}

TEST_P(CKeyWatchTest, WatcherThatComesTwiceIsCalledOnce) {
    m_Watch.Add(&m_First);
    m_Watch.Add(&m_First);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_First.calls, 1);
    m_Watch.Remove(&m_First);
}

TEST_P(CKeyWatchTest, PlatformsRefusalIsHandedBackAndTriedAgainByTheNext) {
    m_Platform.notifyResult = -4;
    EXPECT_EQ(m_Watch.Add(&m_First), -4);
    m_Platform.notifyResult = 0;
    EXPECT_EQ(m_Watch.Add(&m_Second), 0);
    m_Platform.ignoreResult = -5;
    EXPECT_EQ(m_Watch.Remove(&m_Second), -5);
}

TEST_P(CKeyWatchTest, SeveralWatchersAreOneRegistration) {
    m_Watch.Add(&m_First);
    m_Watch.Add(&m_Second);
    EXPECT_EQ(m_Platform.KeyWatchers(), 1U);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_First.calls, 1);
    EXPECT_EQ(m_Second.calls, 1);
    m_Watch.Remove(&m_First);
    EXPECT_EQ(m_Platform.Calls("regdb_ignore_key_changed"), 0U);
    m_Watch.Remove(&m_Second);
    EXPECT_EQ(m_Platform.Calls("regdb_ignore_key_changed"), 1U);
}

TEST_P(CKeyWatchTest, WatcherThatThePlatformRefusedIsNotCalled) {
    m_Platform.notifyResult = -4;
    m_Watch.Add(&m_First);
    m_Platform.notifyResult = 0;
    m_Watch.Add(&m_Second);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_First.calls, 0);
    EXPECT_EQ(m_Second.calls, 1);
    m_Watch.Remove(&m_Second);
}

TEST_P(CKeyWatchTest, RemovingAStrangerLeavesTheOthers) {
    m_Watch.Add(&m_First);
    EXPECT_EQ(m_Watch.Remove(&m_Second), 0);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_First.calls, 1);
    m_Watch.Remove(&m_First);
}

TEST_P(CKeyWatchTest, WatcherWhoseRemovalThePlatformRefusedIsNotCalledAnyMore) {
    m_Watch.Add(&m_First);
    m_Platform.ignoreResult = -5;
    EXPECT_EQ(m_Watch.Remove(&m_First), -5);
    m_Platform.ignoreResult = 0;
    m_Watch.Add(&m_Second);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_First.calls, 0);
    EXPECT_GE(m_Second.calls, 1);
    m_Watch.Remove(&m_Second);
}

TEST_P(CKeyWatchTest, WatcherCanComeBack) {
    m_Watch.Add(&m_First);
    m_Watch.Remove(&m_First);
    m_Watch.Add(&m_First);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_First.calls, 1);
    m_Watch.Remove(&m_First);
}

// The platform is not asked while another watches, so nothing but the watch itself can wait here.
TEST_P(CKeyWatchTest, RemovingOneOfTwoWaitsForItsCallback) {
    std::promise<void> entered;
    std::promise<void> removed;
    std::future_status duringCallback = std::future_status::ready;
    m_Second.inside = [&] {
        entered.set_value();
        duringCallback = removed.get_future().wait_for(kShortWhile);
    };
    m_Watch.Add(&m_First);
    m_Watch.Add(&m_Second);
    std::thread firing([this] { m_Platform.FireKeyChanged(); });
    entered.get_future().wait();
    m_Watch.Remove(&m_Second);
    EXPECT_EQ(duringCallback, std::future_status::timeout);
    removed.set_value();
    firing.join();
    m_Watch.Remove(&m_First);
}

TEST_P(CKeyWatchTest, WatchersComeAndGoWhileTheKeyChanges) {
    std::thread firing([this] {
        for (int i = 0; i < 50; ++i) {
            m_Platform.FireKeyChanged();
        }
    });
    for (int i = 0; i < 100; ++i) {
        const auto watcher = std::make_unique<Watcher>();
        EXPECT_EQ(m_Watch.Add(watcher.get()), 0);
        EXPECT_EQ(m_Watch.Remove(watcher.get()), 0);
    }
    firing.join();
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
}

TEST_P(CKeyWatchTest, RemovingWaitsForACallbackThatRuns) {
    std::promise<void> entered;
    std::promise<void> release;
    std::atomic<bool> left{false};
    m_First.inside = [&] {
        entered.set_value();
        release.get_future().wait();
        left = true;
    };
    m_Watch.Add(&m_First);
    std::thread firing([this] { m_Platform.FireKeyChanged(); });
    entered.get_future().wait();
    std::thread removing([&] {
        m_Watch.Remove(&m_First);
        EXPECT_TRUE(left);
    });
    release.set_value();
    removing.join();
    firing.join();
}

INSTANTIATE_TEST_SUITE_P(BothPlatforms, CKeyWatchTest, testing::Values(0, 1));

}  // namespace
