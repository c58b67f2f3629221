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
    EXPECT_EQ(m_Platform.KeyWatchers(), 1U);
    FireAndExpectCalls(1, 1);
    EXPECT_EQ(m_Watch.Remove(&m_First), 0);
    EXPECT_EQ(m_Platform.Calls("regdb_ignore_key_changed"), 0U);
    FireAndExpectCalls(1, 2);
    EXPECT_EQ(m_Watch.Remove(&m_Second), 0);
    EXPECT_EQ(m_Platform.Calls("regdb_ignore_key_changed"), 1U);
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
}

TEST_P(CKeyWatchTest, EntryAddedTwiceIsCalledOnce) {
    m_Watch.Add(&m_First);
    m_Watch.Add(&m_First);
    FireAndExpectCalls(1, 0);
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

TEST_P(CKeyWatchTest, RemovedEntryCanBeAddedAgain) {
    m_Watch.Add(&m_First);
    m_Watch.Remove(&m_First);
    m_Watch.Add(&m_First);
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

TEST_P(CKeyWatchTest, EntriesCanBeAddedAndRemovedWhileTheKeyChanges) {
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

/// Many collectors in one process, all of which watch the key.
class CCollectorsTest : public CCollectorTest {
  protected:
    void MakeCollectors(std::size_t count) {
        while (m_Collectors.size() < count) {
            MakeCollector();
            m_Collectors.push_back(std::move(m_pCollector));
        }
        ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done", count));
    }

    /// @return how many collectors read the key when it changes
    std::size_t Readers() {
        m_Platform.ClearLog();
        m_Platform.FireKeyChanged();
        return m_Platform.CountLog("m_isDataCollectOn : [1]");
    }

    std::vector<std::unique_ptr<CTYDataCollector>> m_Collectors;
};

TEST_F(CCollectorsTest, DeletionDoesNotWaitForAnotherCollectorsCallback) {
    MakeCollectors(1);  // its callback comes first
    MakeCollectors(2);
    CBarrier answer;
    m_Bus.onCall = [&](const CFakeBus::Call& call) {
        if (call.Function() == "GetPolicyInfo") {
            answer.Pass();
        }
    };
    std::thread platform([&] { m_Platform.FireKeyChanged(); });
    EXPECT_TRUE(answer.AwaitThread());
    std::thread blocked([&] { m_Collectors[0].reset(); });
    EXPECT_TRUE(m_Platform.WaitForLog("Sender join terminate"));
    auto free = std::async(std::launch::async, [&] { m_Collectors[1].reset(); });
    EXPECT_EQ(free.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    answer.Open();
    platform.join();
    blocked.join();
}

/// Chooses the next collector to delete.
using Order = std::size_t (*)(std::size_t left);
using CDeletionOrderTest = CTableTest<CCollectorsTest, Order>;

TEST_P(CDeletionOrderTest, LeavesTheOthersWatching) {
    for (const Ignore ignore : {Ignore::ALL, Ignore::OLDEST}) {
        for (const std::size_t count : {2U, 20U}) {
            SCOPED_TRACE(std::to_string(count) + (ignore == Ignore::ALL ? ", all" : ", oldest"));
            m_Platform.Reset();
            m_Platform.ignore = ignore;
            MakeCollectors(count);
            EXPECT_EQ(Readers(), count);
            while (!m_Collectors.empty()) {
                const auto next = static_cast<std::ptrdiff_t>(Case()(m_Collectors.size()));
                m_Collectors.erase(m_Collectors.begin() + next);
                EXPECT_EQ(Readers(), m_Collectors.size());
            }
            EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
            MakeCollectors(1);
            EXPECT_EQ(Readers(), 1U) << "a collector that comes after all others have gone";
            EXPECT_EQ(m_Platform.KeyWatchers(), 1U);
            m_Collectors.clear();
        }
    }
}

const Named<Order> kOrders[] = {
    {"OldestFirst", [](std::size_t /*left*/) -> std::size_t { return 0; }},
    {"YoungestFirst", [](std::size_t left) { return left - 1; }},
    {"MiddleFirst", [](std::size_t left) { return left / 2; }},
};
INSTANTIATE_TEST_SUITE_P(Table, CDeletionOrderTest, testing::ValuesIn(kOrders), kByName);

TEST_F(CCollectorsTest, CollectorCanBeDeletedAfterAHundredChangesOfTheKey) {
    MakeCollectors(1);
    for (int change = 0; change < 100; ++change) {
        m_Platform.ChangeKey(change % 2);
    }
    EXPECT_EQ(m_Platform.CountLog("m_isDataCollectOn : [1]"), 50U);
    m_Collectors.clear();
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
    EXPECT_EQ(m_Bus.Count("Close"), 1U);
}

TEST_F(CCollectorsTest, CollectorsCanBeMadeAndDeletedWhileTheKeyChanges) {
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
