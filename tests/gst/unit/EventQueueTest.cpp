// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FailingAllocations.h"
#include "Sanitizers.h"
#include "TYEventQueue.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <variant>

namespace {

TEST(CTYEventQueueTest, NothingFollowsTheLastEvent) {
    CTYEventQueue queue;
    queue.Push(TYAsyncDone{});
    queue.Close();
    queue.Push(TYAsyncDone{});
    queue.Close();
    const auto events = queue.Wait(CTYEventQueue::Now());
    ASSERT_EQ(events.size(), 2U);
    EXPECT_TRUE(std::holds_alternative<TYClosed>(events.back().what));
}

TEST(CTYEventQueueTest, AnEventWithoutMemoryIsCounted) {
    if (kUnderThreadSanitizer) {
        GTEST_SKIP() << "the sanitizer does not let a program replace operator new";
    }
    CTYEventQueue queue;
    FailAllocationsFrom(1);
    queue.Handle([&] { queue.Push(TYSourceReady{std::string(100, 'a')}); });
    queue.Handle([&] { queue.Push(TYAsyncDone{}); });
    queue.Close();
    FailAllocationsFrom(SIZE_MAX);
    EXPECT_EQ(queue.Lost(), 2U);
    EXPECT_EQ(queue.Wait(CTYEventQueue::Now()).size(), 1U) << "the last event needs none";
}

TEST(CTYEventQueueTest, AFloodOfEventsIsBounded) {
    CTYEventQueue queue;
    for (std::size_t i = 0; i < CTYEventQueue::kMostWaiting + 2; ++i) {
        queue.Push(TYAsyncDone{});
    }
    EXPECT_EQ(queue.Lost(), 2U);
    EXPECT_EQ(queue.Wait(CTYEventQueue::Now()).size(), CTYEventQueue::kMostWaiting);
}

TEST(CTYEventQueueTest, NothingIsKeptOnceNobodyWaits) {
    CTYEventQueue queue;
    queue.Push(TYAsyncDone{});
    queue.Abandon();
    queue.Push(TYAsyncDone{});
    EXPECT_TRUE(queue.Wait(CTYEventQueue::Now()).empty());
}

TEST(CTYEventQueueTest, AForkedChildHandlesAndPushesNothing) {
    CTYEventQueue queue;
    const pid_t child = fork();
    if (child == 0) {
        queue.Handle([] { _exit(100); });
        queue.Push(TYAsyncDone{});
        _exit(static_cast<int>(queue.Wait(CTYEventQueue::Now()).size()));
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace
