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

TEST_P(CKeyWatchTest, RemovingWaitsForACallbackThatRuns) {
    struct State {
        std::promise<void> entered;
        std::promise<void> release;
        std::atomic<bool> left{false};
    } state;
    m_Watch.Add(
        [](struct _keynode_t*, void* pState) {
            auto* s = static_cast<State*>(pState);
            s->entered.set_value();
            s->release.get_future().wait();
            s->left = true;
        },
        &state);
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
