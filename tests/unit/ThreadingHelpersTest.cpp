// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYCallbackGate.h"
#include "TYKeyWatch.h"
#include "TYSleeper.h"
#include "TYThread.h"
#include "ThreadSafeQueue.h"

#include <csignal>
#include <future>
#include <thread>

namespace {

/// How long something that must not happen gets to happen. A slow machine makes such a test blind,
/// never red.
constexpr std::chrono::milliseconds SHORT_WHILE{100};

TEST(ThreadSafeQueue, IsFirstInFirstOut) {
    CThreadSafeQueue<int*> queue;
    int values[2] = {};
    queue.push(&values[0]);
    queue.push(&values[1]);
    EXPECT_EQ(queue.size(), 2U);
    EXPECT_EQ(queue.front(), &values[0]);
    queue.pop();
    EXPECT_EQ(queue.take(), &values[1]);
    EXPECT_EQ(queue.size(), 0U);
}

TEST(ThreadSafeQueue, EmptyFrontThrows) {
    CThreadSafeQueue<int*> queue;
    try {
        queue.front();
        FAIL() << "no exception";
    } catch (const std::range_error& error) {
        EXPECT_STREQ(error.what(), "queue empty");
    }
    EXPECT_THROW(queue.take(), std::range_error);
}

TEST(ThreadSafeQueue, EmptyPopEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CThreadSafeQueue<int*> queue;
    EXPECT_DEATH(queue.pop(),
                 "Assertion `false && \"Trying pop\\(\\) to empty queue. Should check "
                 "queue size\"' failed");
}

TEST(ThreadSafeQueue, RefusedFrontStays) {
    CThreadSafeQueue<int*> queue;
    int value = 0;
    queue.push(&value);
    EXPECT_FALSE(queue.take_if([](int*) { return false; }));
    EXPECT_EQ(queue.size(), 1U);
    EXPECT_EQ(queue.take_if([](int*) { return true; }), &value);
}

TEST(ThreadSafeQueue, NothingToTakeAConditionOnThrows) {
    CThreadSafeQueue<int*> queue;
    EXPECT_THROW(queue.take_if([](int*) { return true; }), std::range_error);
}

TEST(ThreadSafeQueue, FreesNothingThatItHolds) {
    auto value = std::make_unique<int>(7);
    {
        CThreadSafeQueue<int*> queue;
        queue.push(value.get());
    }
    EXPECT_EQ(*value, 7);
}

TEST(ThreadSafeQueue, ElementsOfSeveralThreadsAreTakenOnceEach) {
    constexpr std::size_t PER_THREAD = 500;
    std::vector<int> values(2 * PER_THREAD, 0);
    CThreadSafeQueue<int*> queue;
    const auto work = [&](std::size_t first) {
        for (std::size_t i = first; i < first + PER_THREAD; ++i) {
            queue.push(&values[i]);
            ++*queue.take();
        }
    };
    std::thread other(work, 0);
    work(PER_THREAD);
    other.join();
    EXPECT_EQ(values, std::vector<int>(2 * PER_THREAD, 1));
    EXPECT_EQ(queue.size(), 0U);
}

TEST(CallbackGate, ClosedGateLetsNobodyIn) {
    CTYCallbackGate gate;
    EXPECT_TRUE(static_cast<bool>(CTYCallbackGate::CPass(gate)));
    gate.Close();
    EXPECT_FALSE(static_cast<bool>(CTYCallbackGate::CPass(gate)));
}

TEST(CallbackGate, ClosingWaitsForWhoIsInside) {
    CTYCallbackGate gate;
    std::atomic<bool> closed{false};
    auto pass = std::make_unique<CTYCallbackGate::CPass>(gate);
    std::thread closing([&] {
        gate.Close();
        closed = true;
    });
    while (static_cast<bool>(CTYCallbackGate::CPass(gate))) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(closed);
    pass.reset();
    closing.join();
    EXPECT_TRUE(closed);
}

TEST(CallbackGate, ClosingWaitsForTheLastOfSeveral) {
    CTYCallbackGate gate;
    auto first = std::make_unique<CTYCallbackGate::CPass>(gate);
    auto last = std::make_unique<CTYCallbackGate::CPass>(gate);
    ASSERT_TRUE(static_cast<bool>(*first) && static_cast<bool>(*last));
    std::promise<void> closed;
    std::future<void> closing = closed.get_future();
    std::thread thread([&] {
        gate.Close();
        closed.set_value();
    });
    first.reset();
    EXPECT_EQ(closing.wait_for(SHORT_WHILE), std::future_status::timeout);
    last.reset();
    thread.join();
}

TEST(CallbackGate, ClosingTwiceIsClosingOnce) {
    CTYCallbackGate gate;
    gate.Close();
    gate.Close();
    EXPECT_FALSE(static_cast<bool>(CTYCallbackGate::CPass(gate)));
}

TEST(Sleeper, SleepsTheWholeTime) {
    CFakeClock clock;
    CTYSleeper sleeper(clock);
    std::thread sleeping([&] { sleeper.SleepFor(std::chrono::milliseconds(500)); });
    ASSERT_TRUE(clock.AwaitWaiter(std::chrono::milliseconds(500)));
    clock.Advance(std::chrono::milliseconds(499));
    EXPECT_EQ(clock.Waiters(), 1U);
    clock.Advance(std::chrono::milliseconds(1));
    sleeping.join();
}

TEST(Sleeper, InterruptionEndsItsSleepAndTheNext) {
    CFakeClock clock;
    CTYSleeper sleeper(clock);
    std::thread sleeping([&] { sleeper.SleepFor(std::chrono::hours(1)); });
    ASSERT_TRUE(clock.AwaitWaiter(std::chrono::hours(1)));
    sleeper.Interrupt();
    sleeping.join();
    sleeper.SleepFor(std::chrono::hours(1));
    EXPECT_EQ(clock.Waiters(), 0U);
}

TEST(Sleeper, ResetLetsItSleepAgain) {
    CFakeClock clock;
    CTYSleeper sleeper(clock);
    sleeper.Interrupt();
    sleeper.Reset();
    std::thread sleeping([&] { sleeper.SleepFor(std::chrono::seconds(1)); });
    ASSERT_TRUE(clock.AwaitWaiter(std::chrono::seconds(1)));
    clock.Advance(std::chrono::seconds(1));
    sleeping.join();
}

TEST(Sleeper, NoTimeIsNoSleep) {
    CFakeClock clock;
    CTYSleeper sleeper(clock);
    sleeper.SleepFor(std::chrono::milliseconds(0));
    sleeper.SleepFor(std::chrono::milliseconds(-5));
    EXPECT_EQ(clock.Waiters(), 0U);
}

TEST(StartThread, ThreadBlocksAllSignalsAndTheCallerDoesNot) {
    std::thread thread;
    sigset_t inside;
    ASSERT_TRUE(StartThread(thread, [&] { pthread_sigmask(SIG_BLOCK, nullptr, &inside); }));
    JoinThread(thread);
    EXPECT_EQ(sigismember(&inside, SIGTERM), 1);
    sigset_t outside;
    pthread_sigmask(SIG_BLOCK, nullptr, &outside);
    EXPECT_EQ(sigismember(&outside, SIGTERM), 0);
}

TEST(StartThread, ThreadDoesNotTakeTheProcessorFromWhomeverWakesIt) {
    std::thread thread;
    int inside = -1;
    ASSERT_TRUE(StartThread(thread, [&] { inside = sched_getscheduler(0); }));
    JoinThread(thread);
    EXPECT_EQ(inside, SCHED_BATCH);
    EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
}

TEST(StartThread, ThreadDoesNotInheritARealTimePriority) {
    int inside = -1;
    bool allowed = false;
    std::thread player([&] {
        const sched_param priority{1};
        allowed = pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority) == 0;
        std::thread thread;
        ASSERT_TRUE(StartThread(thread, [&] { inside = sched_getscheduler(0); }));
        JoinThread(thread);
    });
    player.join();
    if (!allowed) {
        GTEST_SKIP() << "no right to a real-time priority";
    }
    EXPECT_EQ(inside, SCHED_BATCH);
}

TEST(StartThread, ReplacedThreadIsJoinedFirst) {
    std::thread thread;
    std::promise<void> release;
    ASSERT_TRUE(StartThread(thread, [&] { release.get_future().wait(); }));
    release.set_value();
    ASSERT_TRUE(StartThread(thread, [] {}));
    JoinThread(thread);
    EXPECT_FALSE(thread.joinable());
}

class CKeyWatchTest : public CPlatformTest, public testing::WithParamInterface<int> {
  protected:
    CKeyWatchTest() { m_Platform.ignore = static_cast<CPlatformDouble::Ignore>(GetParam()); }

    static void OnChanged(struct _keynode_t* /*pNode*/, void* pCalls) {
        ++*static_cast<std::atomic<int>*>(pCalls);
    }

    CTYKeyWatch& m_Watch = CTYKeyWatch::Instance();
    std::atomic<int> m_nFirst{0};
    std::atomic<int> m_nSecond{0};
};

TEST_P(CKeyWatchTest, RemovingOneWatcherLeavesTheOther) {
    EXPECT_EQ(m_Watch.Add(&OnChanged, &m_nFirst), 0);
    EXPECT_EQ(m_Watch.Add(&OnChanged, &m_nSecond), 0);
    EXPECT_EQ(m_Watch.Remove(&m_nFirst), 0);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_nFirst, 0);
    EXPECT_EQ(m_nSecond, 1);
    EXPECT_EQ(m_Watch.Remove(&m_nSecond), 0);
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
}

TEST_P(CKeyWatchTest, WatcherThatComesTwiceIsCalledOnce) {
    m_Watch.Add(&OnChanged, &m_nFirst);
    m_Watch.Add(&OnChanged, &m_nFirst);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_nFirst, 1);
    m_Watch.Remove(&m_nFirst);
}

TEST_P(CKeyWatchTest, PlatformsRefusalIsHandedBackAndTriedAgainByTheNext) {
    m_Platform.notifyResult = -4;
    EXPECT_EQ(m_Watch.Add(&OnChanged, &m_nFirst), -4);
    m_Platform.notifyResult = 0;
    EXPECT_EQ(m_Watch.Add(&OnChanged, &m_nSecond), 0);
    m_Platform.ignoreResult = -5;
    EXPECT_EQ(m_Watch.Remove(&m_nSecond), -5);
}

TEST_P(CKeyWatchTest, SeveralWatchersAreOneRegistration) {
    m_Watch.Add(&OnChanged, &m_nFirst);
    m_Watch.Add(&OnChanged, &m_nSecond);
    EXPECT_EQ(m_Platform.KeyWatchers(), 1U);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_nFirst, 1);
    EXPECT_EQ(m_nSecond, 1);
    m_Watch.Remove(&m_nFirst);
    EXPECT_EQ(m_Platform.Calls("regdb_ignore_key_changed"), 0U);
    m_Watch.Remove(&m_nSecond);
    EXPECT_EQ(m_Platform.Calls("regdb_ignore_key_changed"), 1U);
}

TEST_P(CKeyWatchTest, WatcherThatThePlatformRefusedIsNotCalled) {
    m_Platform.notifyResult = -4;
    m_Watch.Add(&OnChanged, &m_nFirst);
    m_Platform.notifyResult = 0;
    m_Watch.Add(&OnChanged, &m_nSecond);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_nFirst, 0);
    EXPECT_EQ(m_nSecond, 1);
    m_Watch.Remove(&m_nSecond);
}

TEST_P(CKeyWatchTest, RemovingAStrangerLeavesTheOthers) {
    m_Watch.Add(&OnChanged, &m_nFirst);
    EXPECT_EQ(m_Watch.Remove(&m_nSecond), 0);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_nFirst, 1);
    m_Watch.Remove(&m_nFirst);
}

TEST_P(CKeyWatchTest, WatcherWhoseRemovalThePlatformRefusedIsNotCalledAnyMore) {
    m_Watch.Add(&OnChanged, &m_nFirst);
    m_Platform.ignoreResult = -5;
    EXPECT_EQ(m_Watch.Remove(&m_nFirst), -5);
    m_Platform.ignoreResult = 0;
    m_Watch.Add(&OnChanged, &m_nSecond);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_nFirst, 0);
    EXPECT_GE(m_nSecond, 1);
    m_Watch.Remove(&m_nSecond);
}

TEST_P(CKeyWatchTest, WatcherCanComeBack) {
    m_Watch.Add(&OnChanged, &m_nFirst);
    m_Watch.Remove(&m_nFirst);
    m_Watch.Add(&OnChanged, &m_nFirst);
    m_Platform.FireKeyChanged();
    EXPECT_EQ(m_nFirst, 1);
    m_Watch.Remove(&m_nFirst);
}

// The platform is not asked while another watches, so nothing but the watch itself can wait here.
TEST_P(CKeyWatchTest, RemovingOneOfTwoWaitsForItsCallback) {
    struct State {
        std::promise<void> entered;
        std::promise<void> removed;
        std::future_status duringCallback = std::future_status::ready;
    } state;
    m_Watch.Add(&OnChanged, &m_nFirst);
    m_Watch.Add(
        [](struct _keynode_t*, void* pState) {
            auto* s = static_cast<State*>(pState);
            s->entered.set_value();
            s->duringCallback = s->removed.get_future().wait_for(SHORT_WHILE);
        },
        &state);
    std::thread firing([this] { m_Platform.FireKeyChanged(); });
    state.entered.get_future().wait();
    m_Watch.Remove(&state);
    EXPECT_EQ(state.duringCallback, std::future_status::timeout);
    state.removed.set_value();
    firing.join();
    m_Watch.Remove(&m_nFirst);
}

TEST_P(CKeyWatchTest, WatchersComeAndGoWhileTheKeyChanges) {
    std::thread firing([this] {
        for (int i = 0; i < 50; ++i) {
            m_Platform.FireKeyChanged();
        }
    });
    for (int i = 0; i < 100; ++i) {
        auto pCalls = std::make_unique<std::atomic<int>>(0);
        EXPECT_EQ(m_Watch.Add(&OnChanged, pCalls.get()), 0);
        EXPECT_EQ(m_Watch.Remove(pCalls.get()), 0);
    }
    firing.join();
    EXPECT_EQ(m_Platform.KeyWatchers(), 0U);
}

/// A callback of the key's watch that stays until it is released.
struct StayingCallback {
    std::promise<void> entered;
    std::promise<void> release;
    std::atomic<bool> left{false};

    static void OnChanged(struct _keynode_t*, void* pState) {
        auto* pThis = static_cast<StayingCallback*>(pState);
        pThis->entered.set_value();
        pThis->release.get_future().wait();
        pThis->left = true;
    }
};

TEST_P(CKeyWatchTest, RemovingWaitsForACallbackThatRuns) {
    StayingCallback state;
    m_Watch.Add(&StayingCallback::OnChanged, &state);
    std::thread firing([this] { m_Platform.FireKeyChanged(); });
    state.entered.get_future().wait();
    std::thread removing([&] {
        m_Watch.Remove(&state);
        EXPECT_TRUE(state.left);
    });
    state.release.set_value();
    removing.join();
    firing.join();
}

INSTANTIATE_TEST_SUITE_P(BothPlatforms, CKeyWatchTest, testing::Values(0, 1));

}  // namespace
