// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYKeyWatch.h"

namespace {

using Ignore = CPlatformDouble::Ignore;

/// One entry of the watch.
struct Watcher {
    std::atomic<int> calls{0};
    /// Runs inside the callback.
    std::function<void()> inside;
};

/// Runs on both kinds of platform: one removes all registrations at once, the other the oldest.
class CKeyWatchTest : public CTableTest<CPlatformTest, Ignore> {
  protected:
    CKeyWatchTest() { m_Platform.ignore = Case(); }

    static void OnChanged(struct _keynode_t* /*pNode*/, void* pData) {
        auto* pWatcher = static_cast<Watcher*>(pData);
        ++pWatcher->calls;
        if (pWatcher->inside) {
            pWatcher->inside();
        }
    }

    void FireAndExpectCalls(int first, int second) {
        m_Platform.FireKeyChanged();
        EXPECT_EQ(m_First.calls, first);
        EXPECT_EQ(m_Second.calls, second);
    }

    /// Adds an entry, and removes it while its callback runs.
    /// @return timeout when the removal did not return before the callback did
    std::future_status RemoveDuringItsCallback(Watcher& watcher) {
        std::promise<void> entered;
        std::promise<void> removed;
        std::future_status duringCallback = std::future_status::ready;
        watcher.inside = [&] {
            entered.set_value();
            duringCallback = removed.get_future().wait_for(kShortWhile);
        };
        m_Watch.Add(&watcher);
        std::thread firing([this] { m_Platform.FireKeyChanged(); });
        entered.get_future().wait();
        m_Watch.Remove(&watcher);
        removed.set_value();
        firing.join();
        return duringCallback;
    }

    CTYKeyWatch m_Watch{&OnChanged};
    Watcher m_First;
    Watcher m_Second;
};

const Named<Ignore> kPlatforms[] = {{"RemovesAll", Ignore::ALL}, {"RemovesOldest", Ignore::OLDEST}};
INSTANTIATE_TEST_SUITE_P(Platform, CKeyWatchTest, testing::ValuesIn(kPlatforms), kByName);

TEST_P(CKeyWatchTest, EntriesShareOneRegistrationUntilTheLastIsRemoved) {
    EXPECT_EQ(m_Watch.Add(&m_First), 0);
    EXPECT_EQ(m_Watch.Add(&m_Second), 0);
    EXPECT_EQ(m_Watch.Add(&m_Second), 0) << "which has no effect";
    EXPECT_EQ(m_Platform.KeyWatchers(), 1U);
    FireAndExpectCalls(1, 1);
    EXPECT_EQ(m_Watch.Remove(&m_First), 0);
    EXPECT_EQ(m_Platform.Calls("regdb_ignore_key_changed"), 0U);
    FireAndExpectCalls(1, 2);
    EXPECT_EQ(m_Watch.Remove(&m_Second), 0);
    EXPECT_EQ(m_Platform.Calls("regdb_ignore_key_changed"), 1U);
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
    m_Watch.Add(&m_First);
    FireAndExpectCalls(2, 2);
    m_Watch.Remove(&m_First);
}

TEST_P(CKeyWatchTest, RefusedRegistrationIsReturnedAndTriedAgainByTheNext) {
    m_Platform.notifyResult = -4;
    EXPECT_EQ(m_Watch.Add(&m_First), -4);
    m_Platform.notifyResult = 0;
    EXPECT_EQ(m_Watch.Add(&m_Second), 0);
    FireAndExpectCalls(0, 1);
    m_Watch.Remove(&m_Second);
}

TEST_P(CKeyWatchTest, RefusedRemovalIsReturnedAndTheEntryIsNotCalledAgain) {
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

TEST_P(CKeyWatchTest, RemovingAnUnknownEntryLeavesTheOthers) {
    m_Watch.Add(&m_First);
    EXPECT_EQ(m_Watch.Remove(&m_Second), 0);
    FireAndExpectCalls(1, 0);
    m_Watch.Remove(&m_First);
}

TEST_P(CKeyWatchTest, RemoveOfTheOnlyEntryWaitsForItsCallback) {
    EXPECT_EQ(RemoveDuringItsCallback(m_Second), std::future_status::timeout);
}

// With two entries the platform is not called, so only the watch itself can wait.
TEST_P(CKeyWatchTest, RemoveOfOneOfTwoEntriesWaitsForItsCallback) {
    m_Watch.Add(&m_First);
    EXPECT_EQ(RemoveDuringItsCallback(m_Second), std::future_status::timeout);
    m_Watch.Remove(&m_First);
}

TEST_P(CKeyWatchTest, RemoveDoesNotWaitForTheCallbackOfAnotherEntry) {
    CBarrier barrier;
    m_First.inside = [&] { barrier.Pass(); };
    m_Watch.Add(&m_First);
    m_Watch.Add(&m_Second);
    std::thread firing([this] { m_Platform.FireKeyChanged(); });
    EXPECT_TRUE(barrier.AwaitThread());
    auto first = std::async(std::launch::async, [this] { m_Watch.Remove(&m_First); });
    EXPECT_EQ(first.wait_for(kShortWhile), std::future_status::timeout);
    auto second = std::async(std::launch::async, [this] { m_Watch.Remove(&m_Second); });
    EXPECT_EQ(second.wait_for(kPatience / 2), std::future_status::ready);
    barrier.Open();
    firing.join();
}

TEST_F(CCollectorTest, CollectorsCanBeMadeAndDeletedWhileTheKeyChanges) {
    std::atomic<bool> stop{false};
    std::thread changer([&] {
        for (int change = 0; !stop; ++change) {
            m_Platform.ChangeKey(change % 2);
        }
    });
    for (int i = 0; i < 50; ++i) {
        MakeCollector();
        // Delete half of them with a watch on the key, the others on the way to it.
        if (i % 2 == 0) {
            EXPECT_TRUE(m_Platform.WaitForLog("service is connected!", 1));
            m_Platform.ClearLog();
        }
        m_pCollector.reset();
    }
    stop = true;
    changer.join();
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
    EXPECT_EQ(m_Bus.Count("Close"), 50U);
}

}  // namespace
