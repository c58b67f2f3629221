// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYCallbackGate.h"
#include "TYSleeper.h"
#include "ThreadSafeQueue.h"

#include <future>
#include <memory>
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

TEST(ThreadSafeQueue, FreesNothingThatItHolds) {
    auto value = std::make_unique<int>(7);
    {
        CThreadSafeQueue<int*> queue;
        queue.push(value.get());
    }
    EXPECT_EQ(*value, 7);
}

TEST(ThreadSafeQueue, ElementsOfSeveralThreadsAreTakenOnceEach) {
    constexpr std::size_t kPerThread = 500;
    std::vector<int> values(2 * kPerThread, 0);
    CThreadSafeQueue<int*> queue;
    const auto work = [&](std::size_t first) {
        for (std::size_t i = first; i < first + kPerThread; ++i) {
            queue.push(&values[i]);
            ++*queue.take();
        }
    };
    std::thread other(work, 0);
    work(kPerThread);
    other.join();
    EXPECT_EQ(values, std::vector<int>(2 * kPerThread, 1));
    EXPECT_EQ(queue.size(), 0U);
}

TEST(CallbackGate, ClosedGateLetsNoThreadIn) {
    CTYCallbackGate gate;
    EXPECT_TRUE(static_cast<bool>(CTYCallbackGate::CPass(gate)));
    for (int times = 0; times < 2; ++times) {
        gate.Close();
        EXPECT_FALSE(static_cast<bool>(CTYCallbackGate::CPass(gate)));
    }
}

TEST(CallbackGate, ClosingWaitsForTheLastThreadInside) {
    CTYCallbackGate gate;
    auto first = std::make_unique<CTYCallbackGate::CPass>(gate);
    auto last = std::make_unique<CTYCallbackGate::CPass>(gate);
    ASSERT_TRUE(static_cast<bool>(*first) && static_cast<bool>(*last));
    const auto closing = std::async(std::launch::async, [&] { gate.Close(); });
    while (static_cast<bool>(CTYCallbackGate::CPass(gate))) {
        std::this_thread::yield();
    }
    first.reset();
    EXPECT_EQ(closing.wait_for(kShortWhile), std::future_status::timeout);
    last.reset();
    closing.wait();
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

TEST(Sleeper, InterruptionEndsItsSleepAndTheNextUntilReset) {
    CFakeClock clock;
    CTYSleeper sleeper(clock);
    std::thread sleeping([&] { sleeper.SleepFor(std::chrono::hours(1)); });
    ASSERT_TRUE(clock.AwaitWaiter(std::chrono::hours(1)));
    sleeper.Interrupt();
    sleeping.join();
    sleeper.SleepFor(std::chrono::hours(1));
    EXPECT_EQ(clock.Waiters(), 0U);
    sleeper.Reset();
    std::thread again([&] { sleeper.SleepFor(std::chrono::seconds(1)); });
    ASSERT_TRUE(clock.AwaitWaiter(std::chrono::seconds(1)));
    clock.Advance(std::chrono::seconds(1));
    again.join();
}

TEST(Sleeper, NoTimeIsNoSleep) {
    CFakeClock clock;
    CTYSleeper sleeper(clock);
    sleeper.SleepFor(std::chrono::milliseconds(0));
    sleeper.SleepFor(std::chrono::milliseconds(-5));
    EXPECT_EQ(clock.Waiters(), 0U);
}

}  // namespace
