// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYCallbackGate.h"
#include "TYSystemClock.h"
#include "TYThread.h"
#include "ThreadSafeQueue.h"

#include <pthread.h>
#include <sched.h>

#include <ctime>

namespace {

/// A thread of the library that runs what the test says.
class CThreadTest : public CPlatformTest {
  public:
    void DoNothing() {}

  protected:
    ~CThreadTest() override { m_Thread.Join(); }

    bool Run(std::function<void()> body) {
        m_Thread.Join();
        m_Body = std::move(body);
        return m_Thread.Start<&CThreadTest::Body>(this);
    }

    CTYThread m_Thread;

  private:
    void Body() { m_Body(); }

    std::function<void()> m_Body;
};

// The kernel kills a process for a blocked fault, past the host's crash handler.
TEST_F(CThreadTest, BlocksSignalsButNoFaultAndLeavesItsStartersMask) {
    sigset_t inside;
    ASSERT_TRUE(Run([&] { pthread_sigmask(SIG_BLOCK, nullptr, &inside); }));
    m_Thread.Join();
    sigset_t outside;
    pthread_sigmask(SIG_BLOCK, nullptr, &outside);
    for (const int signal : {SIGTERM, SIGINT, SIGUSR1, SIGALRM, SIGPIPE, SIGCHLD, SIGRTMAX}) {
        EXPECT_EQ(sigismember(&inside, signal), 1) << signal;
        EXPECT_EQ(sigismember(&outside, signal), 0) << signal;
    }
    for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS}) {
        EXPECT_EQ(sigismember(&inside, fault), 0) << fault;
    }
}

// Unblocking a fault that the host blocks would deliver one that is pending, and end the host.
TEST_F(CThreadTest, LeavesAFaultThatIsPendingOnItsStarterPending) {
    sigset_t trap;
    sigset_t inside;
    sigset_t before;
    sigemptyset(&trap);
    sigaddset(&trap, SIGTRAP);
    pthread_sigmask(SIG_BLOCK, &trap, &before);
    pthread_kill(pthread_self(), SIGTRAP);
    ASSERT_TRUE(Run([&] { pthread_sigmask(SIG_BLOCK, nullptr, &inside); }));
    m_Thread.Join();
    const timespec now{};
    EXPECT_EQ(sigtimedwait(&trap, nullptr, &now), SIGTRAP);
    EXPECT_EQ(sigismember(&inside, SIGTRAP), 0);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(CThreadTest, HasAStackOfItsOwnSizeWhateverTheDefault) {
    pthread_attr_t before;
    pthread_attr_t tiny;
    pthread_getattr_default_np(&before);
    pthread_attr_init(&tiny);
    pthread_attr_setstacksize(&tiny, PTHREAD_STACK_MIN);
    pthread_setattr_default_np(&tiny);
    std::size_t size = 0;
    const bool started = Run([&] {
        pthread_attr_t own;
        pthread_getattr_np(pthread_self(), &own);
        pthread_attr_getstacksize(&own, &size);
        pthread_attr_destroy(&own);
    });
    m_Thread.Join();
    pthread_setattr_default_np(&before);
    EXPECT_TRUE(started);
    EXPECT_GE(size, std::size_t{256} << 10);
}

TEST_F(CThreadTest, IsScheduledBehindThePlayerThatWakesIt) {
    int inside = -1;
    ASSERT_TRUE(Run([&] { inside = sched_getscheduler(0); }));
    m_Thread.Join();
    EXPECT_EQ(inside, SCHED_BATCH);
    EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
}

TEST_F(CThreadTest, IsJoinedBeforeTheNextOneStarts) {
    std::promise<void> release;
    ASSERT_TRUE(Run([&] { release.get_future().wait(); }));
    EXPECT_TRUE(m_Thread.IsJoinable());
    release.set_value();
    ASSERT_TRUE(Run([] {}));
    m_Thread.Join();
    EXPECT_FALSE(m_Thread.IsJoinable());
}

TEST_F(CThreadTest, EndsTheProcessWhenItIsDestroyedUnjoined) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            CTYThread unjoined;
            unjoined.Start<&CThreadTest::DoNothing>(this);
        },
        "terminate called");
}

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

TEST(ThreadSafeQueue, FreesNothingThatItHolds) {
    auto value = std::make_unique<int>(7);
    {
        CThreadSafeQueue<int*> queue;
        queue.push(value.get());
    }
    EXPECT_EQ(*value, 7);
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

// A narrower clock would fail from the year 2038 on, and that ends the process.
static_assert(std::numeric_limits<decltype(timespec::tv_sec)>::max() >
              std::numeric_limits<std::int32_t>::max());

TEST(SystemClock, ReadsTheWallClock) {
    timespec before{};
    timespec read{};
    timespec after{};
    ASSERT_EQ(clock_gettime(CLOCK_REALTIME, &before), 0);
    ASSERT_EQ(SystemClock().GetRealTime(&read), 0);
    ASSERT_EQ(clock_gettime(CLOCK_REALTIME, &after), 0);
    EXPECT_LE(before.tv_sec, read.tv_sec);
    EXPECT_LE(read.tv_sec, after.tv_sec);
}

}  // namespace
