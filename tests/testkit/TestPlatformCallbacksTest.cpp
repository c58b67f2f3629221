// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The promises that a platform makes about callbacks, kept by the test platform.

#include "Sanitizers.h"
#include "TableTest.h"
#include "TestPlatformFixture.h"

#include <sys/wait.h>

#include <latch>

namespace {

/// A registration of either kind, and what its callback saw.
struct Watch {
    std::function<void()> onCall{};
    std::atomic<int> calls = 0;
    std::atomic<int> result = 0;
    std::thread::id thread{};
    connection_h connection = nullptr;

    void Run() {
        ++calls;
        thread = std::this_thread::get_id();
        if (onCall) {
            onCall();
        }
    }
};

void OnKey(struct _keynode_t* /*node*/, void* pWatch) {
    static_cast<Watch*>(pWatch)->Run();
}

void OnNetwork(connection_error_e result, char* name, void* pWatch) {
    EXPECT_STREQ(name, "GATEWAY");
    static_cast<Watch*>(pWatch)->result = result;
    static_cast<Watch*>(pWatch)->Run();
}

/// How one kind of callback is registered, caused and removed.
struct Kind {
    int (*add)(Watch& watch);
    void (*change)(int number);
    int (*remove)(Watch& watch);
    int gone;
};

constexpr Named<Kind> kKinds[] = {
    {"Key",
     {[](Watch& watch) { return regdb_notify_key_changed(kKey, &OnKey, &watch); },
      [](int number) { tallyra_testplatform_set_key(kKey, number % 2); },
      [](Watch& /*watch*/) { return regdb_ignore_key_changed(kKey, &OnKey); },
      REGDB_ERROR_NOT_REGISTERED}},
    {"Network",
     {[](Watch& watch) {
          return connection_set_network_monitor_cb(watch.connection, &OnNetwork, &watch);
      },
      [](int number) { tallyra_testplatform_set_network(number % 4); },
      [](Watch& watch) { return connection_unset_network_monitor_cb(watch.connection); },
      CONNECTION_ERROR_NOT_REGISTERED}}};

class CCallbackTest : public CTableTest<CTestPlatformTest, Kind> {
  protected:
    CCallbackTest() { EXPECT_EQ(connection_create(&m_Watch.connection), 0); }
    ~CCallbackTest() override { EXPECT_EQ(connection_destroy(m_Watch.connection), 0); }

    void Add() { ASSERT_EQ(Case().add(m_Watch), 0); }

    Watch m_Watch;
};
INSTANTIATE_TEST_SUITE_P(Of, CCallbackTest, testing::ValuesIn(kKinds), kByName);

TEST_P(CCallbackTest, RunsOnAThreadOfThePlatform) {
    Add();
    Case().change(2);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(m_Watch.calls, 1);
    EXPECT_NE(m_Watch.thread, std::this_thread::get_id());
}

TEST_P(CCallbackTest, DoesNotRunAfterItsRemoval) {
    Add();
    EXPECT_EQ(Case().remove(m_Watch), 0);
    Case().change(2);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(m_Watch.calls, 0);
    EXPECT_EQ(Case().remove(m_Watch), Case().gone);
}

// Changes come on another thread meanwhile, so that some are queued when the callback is removed.
TEST_P(CCallbackTest, IsNotRunningOnceItsRemovalHasReturned) {
    std::atomic<bool> registered = false;
    std::atomic<int> late = 0;
    m_Watch.onCall = [&] {
        late += registered ? 0 : 1;
        std::this_thread::yield();
        late += registered ? 0 : 1;
    };
    const std::jthread changes([&](const std::stop_token& stop) {
        for (int i = 0; !stop.stop_requested(); ++i) {
            Case().change(i);
        }
    });
    for (int i = 0; i < 100; ++i) {
        registered = true;
        Add();
        const int before = m_Watch.calls;
        ASSERT_TRUE(Eventually([&] { return m_Watch.calls > before; }));
        EXPECT_EQ(Case().remove(m_Watch), 0);
        registered = false;
    }
    EXPECT_EQ(late, 0);
}

TEST_P(CCallbackTest, IsWaitedForByItsRemoval) {
    std::promise<void> entered;
    std::promise<void> gate;
    m_Watch.onCall = [&] {
        entered.set_value();
        gate.get_future().wait();
    };
    Add();
    Case().change(2);
    entered.get_future().wait();
    auto removal = std::async(std::launch::async, [&] { return Case().remove(m_Watch); });
    EXPECT_EQ(removal.wait_for(kShortWhile), std::future_status::timeout);
    gate.set_value();
    EXPECT_EQ(removal.get(), 0);
}

TEST_P(CCallbackTest, IsWaitedForEvenIfItHasRemovedItself) {
    std::promise<void> entered;
    std::promise<void> gate;
    m_Watch.onCall = [&] {
        EXPECT_EQ(Case().remove(m_Watch), 0);
        entered.set_value();
        gate.get_future().wait();
    };
    Add();
    Case().change(2);
    entered.get_future().wait();
    auto removal = std::async(std::launch::async, [&] { return Case().remove(m_Watch); });
    EXPECT_EQ(removal.wait_for(kShortWhile), std::future_status::timeout);
    gate.set_value();
    EXPECT_EQ(removal.get(), Case().gone);
}

TEST_P(CCallbackTest, MayRemoveItselfAndIsThenCalledNoMore) {
    m_Watch.onCall = [&] { EXPECT_EQ(Case().remove(m_Watch), 0); };
    Add();
    Case().change(2);
    Case().change(3);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(m_Watch.calls, 1);
}

TEST_P(CCallbackTest, MayRegisterItselfAgain) {
    m_Watch.onCall = [&] {
        EXPECT_EQ(Case().remove(m_Watch), 0);
        EXPECT_EQ(Case().add(m_Watch), 0);
    };
    Add();
    for (int i = 2; i < 5; ++i) {
        Case().change(i);
        ASSERT_TRUE(Settle());
    }
    EXPECT_EQ(m_Watch.calls, 3);
    EXPECT_EQ(Case().remove(m_Watch), 0);
}

TEST_P(CCallbackTest, IsForgottenByAReset) {
    Add();
    tallyra_testplatform_reset();
    Case().change(2);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(m_Watch.calls, 0);
    EXPECT_EQ(Case().remove(m_Watch), Case().gone);
}

TEST_P(CCallbackTest, CannotWaitForItself) {
    std::atomic<int> result = 0;
    m_Watch.onCall = [&] { result = tallyra_testplatform_wait_for_callbacks(kPatienceMs); };
    Add();
    Case().change(2);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(result, TALLYRA_TESTPLATFORM_ERROR_TIMEOUT);
}

TEST_P(CCallbackTest, IsRemovedEvenByACallThatFails) {
    tallyra_testplatform_fail("regdb_ignore_key_changed", 0, -9);
    tallyra_testplatform_fail("connection_unset_network_monitor_cb", 0, -9);
    Add();
    EXPECT_EQ(Case().remove(m_Watch), -9);
    Case().change(2);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(m_Watch.calls, 0);
}

TEST_P(CCallbackTest, BelongsToTheProcessThatRegisteredIt) {
    Add();
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        Case().change(2);
        const bool isSilent = Settle() && m_Watch.calls == 0;
        const bool isGone = Case().remove(m_Watch) == Case().gone;
        // ThreadSanitizer allows no thread in a forked child.
        const bool canAdd = kUnderThreadSanitizer || Case().add(m_Watch) == 0;
        _exit(isSilent && isGone && canAdd ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

using CKeyCallback = CTestPlatformTest;

TEST_F(CKeyCallback, ThatIsRegisteredTwiceRunsTwiceAndIsRemovedOnce) {
    Watch first;
    Watch second;
    ASSERT_EQ(regdb_notify_key_changed(kKey, &OnKey, &first), 0);
    ASSERT_EQ(regdb_notify_key_changed(kKey, &OnKey, &second), 0);
    tallyra_testplatform_set_key(kKey, 0);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(regdb_ignore_key_changed(kKey, &OnKey), 0);
    tallyra_testplatform_set_key(kKey, 1);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(second.calls, 1);
    EXPECT_EQ(regdb_ignore_key_changed(kKey, &OnKey), REGDB_ERROR_NOT_REGISTERED);
}

TEST_F(CKeyCallback, RunsOnlyIfItsOwnKeyChanges) {
    Watch watch;
    ASSERT_EQ(regdb_notify_key_changed(kKey, &OnKey, &watch), 0);
    tallyra_testplatform_set_key("db/tallyra/other", 1);
    tallyra_testplatform_set_key(kKey, 1);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(watch.calls, 0);
    tallyra_testplatform_remove_key(kKey);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(watch.calls, 1);
}

using CNetworkCallback = CTestPlatformTest;

TEST_F(CNetworkCallback, MayDestroyItsHandle) {
    Watch watch;
    watch.onCall = [&] { EXPECT_EQ(connection_destroy(watch.connection), 0); };
    ASSERT_EQ(connection_create(&watch.connection), 0);
    ASSERT_EQ(connection_set_network_monitor_cb(watch.connection, &OnNetwork, &watch), 0);
    tallyra_testplatform_set_network(CONNECTION_TYPE_WIFI);
    tallyra_testplatform_set_network(CONNECTION_TYPE_DISCONNECTED);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(watch.calls, 1);
}

// The two kinds of callbacks run on two threads: each would wait for the other one.
TEST_F(CTestPlatformTest, MayBeResetByTwoCallbacksAtOnce) {
    std::latch both(2);
    Watch key;
    Watch network;
    key.onCall = network.onCall = [&] {
        both.arrive_and_wait();
        EXPECT_EQ(tallyra_testplatform_wait_for_callbacks(kPatienceMs),
                  TALLYRA_TESTPLATFORM_ERROR_TIMEOUT);
        EXPECT_EQ(tallyra_testplatform_reset(), 0);
    };
    ASSERT_EQ(regdb_notify_key_changed(kKey, &OnKey, &key), 0);
    ASSERT_EQ(connection_create(&network.connection), 0);
    ASSERT_EQ(connection_set_network_monitor_cb(network.connection, &OnNetwork, &network), 0);
    tallyra_testplatform_set_key(kKey, 0);
    tallyra_testplatform_set_network(CONNECTION_TYPE_WIFI);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(key.calls + network.calls, 2);
    EXPECT_EQ(connection_destroy(network.connection), 0);
}

TEST_F(CNetworkCallback, HearsOfTheGateway) {
    Watch watch;
    ASSERT_EQ(connection_create(&watch.connection), 0);
    ASSERT_EQ(connection_set_network_monitor_cb(watch.connection, &OnNetwork, &watch), 0);
    EXPECT_EQ(connection_set_network_monitor_cb(watch.connection, &OnNetwork, &watch),
              CONNECTION_ERROR_ALREADY_REGISTERED);
    tallyra_testplatform_set_network(CONNECTION_TYPE_DISCONNECTED);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(watch.result, CONNECTION_ERROR_NO_CONNECTION);
    tallyra_testplatform_set_network(CONNECTION_TYPE_WIFI);
    ASSERT_TRUE(Settle());
    EXPECT_EQ(watch.result, CONNECTION_ERROR_NONE);
    tallyra_testplatform_report_network(CONNECTION_ERROR_OPERATION_FAILED, "GATEWAY");
    ASSERT_TRUE(Settle());
    EXPECT_EQ(watch.result, CONNECTION_ERROR_OPERATION_FAILED);
    EXPECT_EQ(connection_destroy(watch.connection), 0);
}

}  // namespace
