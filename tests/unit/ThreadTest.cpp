// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYThread.h"

#include <pthread.h>
#include <sched.h>

#include <climits>
#include <csignal>
#include <functional>
#include <future>
#include <thread>

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

TEST_F(CThreadTest, DoesNotInheritARealTimePriority) {
    int inside = -1;
    bool allowed = false;
    std::thread player([&] {
        const sched_param priority{1};
        allowed = pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority) == 0;
        ASSERT_TRUE(Run([&] { inside = sched_getscheduler(0); }));
        m_Thread.Join();
    });
    player.join();
    if (!allowed) {
        GTEST_SKIP() << "no right to a real-time priority";
    }
    EXPECT_EQ(inside, SCHED_BATCH);
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

}  // namespace
