// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TemporaryFolder.h"

#include "regdb.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

namespace {

constexpr const char* kKey = "db/tallyra/log_on";
constexpr const char* kFileName = "store/regdb.ini";

std::string StoreWith(const std::string& value) {
    return "[db/tallyra]\nlog_on=" + value + "\n";
}

/// Counts callbacks, and lets a test wait for them.
class CCounter {
  public:
    static void OnChanged(struct _keynode_t* /*pNode*/, void* pCounter) {
        auto* pThis = static_cast<CCounter*>(pCounter);
        const std::lock_guard lock(pThis->m_Mutex);
        ++pThis->m_nCalls;
        pThis->m_Changed.notify_all();
    }

    bool WaitFor(int calls, std::chrono::milliseconds time = std::chrono::seconds(30)) {
        std::unique_lock lock(m_Mutex);
        return m_Changed.wait_for(lock, time, [&] { return m_nCalls >= calls; });
    }

    int Calls() {
        const std::lock_guard lock(m_Mutex);
        return m_nCalls;
    }

  private:
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    int m_nCalls = 0;
};

class CRegdbTest : public testing::Test {
  protected:
    CRegdbTest() { setenv("REGDB_FILE", (m_Folder.Path() / kFileName).c_str(), 1); }

    void Store(const std::string& text) { m_Folder.Replace(kFileName, text); }

    int Get(int* pValue) { return regdb_get_bool(kKey, pValue); }

    CTemporaryFolder m_Folder;
};

TEST_F(CRegdbTest, IntegersAreReadAsTheyAre) {
    for (const int expected : {0, 1, 2, -3}) {
        int value = 99;
        Store(StoreWith(std::to_string(expected)));
        EXPECT_EQ(Get(&value), REGDB_ERROR_NONE);
        EXPECT_EQ(value, expected);
    }
}

TEST_F(CRegdbTest, EachFailureHasItsCodeAndTouchesNothing) {
    int value = 99;
    EXPECT_EQ(Get(&value), REGDB_ERROR_NO_FILE);
    Store("[db/tallyra]\nother=1\n");
    EXPECT_EQ(Get(&value), REGDB_ERROR_NO_KEY);
    Store("[db/other]\nlog_on=1\n");
    EXPECT_EQ(Get(&value), REGDB_ERROR_NO_KEY);
    Store("no store at all");
    EXPECT_EQ(Get(&value), REGDB_ERROR_MALFORMED_FILE);
    for (const char* text : {"", "yes", "1x", "1.0", "99999999999", "true"}) {
        Store(StoreWith(text));
        EXPECT_EQ(Get(&value), REGDB_ERROR_MALFORMED_VALUE) << text;
    }
    EXPECT_EQ(value, 99);
}

TEST_F(CRegdbTest, StoreThatIsAFolderIsUnreadable) {
    int value = 99;
    std::filesystem::create_directories(m_Folder.Path() / kFileName);
    EXPECT_EQ(Get(&value), REGDB_ERROR_UNREADABLE);
}

TEST_F(CRegdbTest, TextThatIsNoKeyIsRefused) {
    int value = 99;
    for (const char* key : {"", "log_on", "/log_on", "db/", "db/a=b", "d[b/a", "db/a\n"}) {
        EXPECT_EQ(regdb_get_bool(key, &value), REGDB_ERROR_INVALID_PARAMETER) << key;
    }
    EXPECT_EQ(regdb_get_bool(nullptr, &value), REGDB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(regdb_get_bool(kKey, nullptr), REGDB_ERROR_INVALID_PARAMETER);
}

TEST_F(CRegdbTest, WatcherIsToldOfChangesInPlaceAndByReplacement) {
    CCounter counter;
    Store(StoreWith("0"));
    ASSERT_EQ(regdb_notify_key_changed(kKey, &CCounter::OnChanged, &counter), 0);
    Store(StoreWith("1"));
    EXPECT_TRUE(counter.WaitFor(1));
    m_Folder.Write(kFileName, StoreWith("2"));
    EXPECT_TRUE(counter.WaitFor(2));
    EXPECT_EQ(regdb_ignore_key_changed(kKey, &CCounter::OnChanged), 0);
}

TEST_F(CRegdbTest, WatcherIsToldWhenTheKeyGoes) {
    CCounter counter;
    Store(StoreWith("1"));
    ASSERT_EQ(regdb_notify_key_changed(kKey, &CCounter::OnChanged, &counter), 0);
    Store("[db/tallyra]\n");
    EXPECT_TRUE(counter.WaitFor(1));
    regdb_ignore_key_changed(kKey, &CCounter::OnChanged);
}

TEST_F(CRegdbTest, WatcherIsToldWhenTheStoreComesLater) {
    CCounter counter;
    ASSERT_EQ(regdb_notify_key_changed(kKey, &CCounter::OnChanged, &counter), 0);
    Store(StoreWith("1"));
    EXPECT_TRUE(counter.WaitFor(1));
    regdb_ignore_key_changed(kKey, &CCounter::OnChanged);
}

TEST_F(CRegdbTest, WatcherIsToldWhenFoldersAboveTheStoreComeAndGo) {
    CCounter counter;
    const std::string deep = "a/b/c/regdb.ini";
    setenv("REGDB_FILE", (m_Folder.Path() / deep).c_str(), 1);
    ASSERT_EQ(regdb_notify_key_changed(kKey, &CCounter::OnChanged, &counter), 0);
    for (int calls = 1; calls < 20; calls += 2) {
        m_Folder.Write(deep, StoreWith("1"));
        EXPECT_TRUE(counter.WaitFor(calls));
        std::filesystem::remove_all(m_Folder.Path() / "a");
        EXPECT_TRUE(counter.WaitFor(calls + 1));
    }
    regdb_ignore_key_changed(kKey, &CCounter::OnChanged);
}

TEST_F(CRegdbTest, StoreIsNotReadBeforeItsWriterClosesIt) {
    CCounter counter;
    Store(StoreWith("1"));
    ASSERT_EQ(regdb_notify_key_changed(kKey, &CCounter::OnChanged, &counter), 0);
    std::ofstream file(m_Folder.Path() / kFileName);
    EXPECT_FALSE(counter.WaitFor(1, std::chrono::milliseconds(100)));
    file << StoreWith("0");
    file.close();
    EXPECT_TRUE(counter.WaitFor(1));
    EXPECT_EQ(counter.Calls(), 1);
    regdb_ignore_key_changed(kKey, &CCounter::OnChanged);
}

TEST_F(CRegdbTest, WatcherHearsNothingOfOtherKeys) {
    CCounter other;
    CCounter counter;
    Store(StoreWith("1"));
    ASSERT_EQ(regdb_notify_key_changed(kKey, &CCounter::OnChanged, &counter), 0);
    ASSERT_EQ(regdb_notify_key_changed("db/tallyra/other", &CCounter::OnChanged, &other), 0);
    Store(StoreWith("1") + "other=5\n");
    EXPECT_TRUE(other.WaitFor(1));
    EXPECT_EQ(counter.Calls(), 0);
    regdb_ignore_key_changed(kKey, &CCounter::OnChanged);
    regdb_ignore_key_changed("db/tallyra/other", &CCounter::OnChanged);
}

TEST_F(CRegdbTest, IgnoringRemovesAllRegistrationsOfTheCallback) {
    CCounter first;
    CCounter second;
    Store(StoreWith("0"));
    regdb_notify_key_changed(kKey, &CCounter::OnChanged, &first);
    regdb_notify_key_changed(kKey, &CCounter::OnChanged, &second);
    EXPECT_EQ(regdb_ignore_key_changed(kKey, &CCounter::OnChanged), REGDB_ERROR_NONE);
    EXPECT_EQ(regdb_ignore_key_changed(kKey, &CCounter::OnChanged), REGDB_ERROR_NOT_REGISTERED);
    Store(StoreWith("1"));
    EXPECT_EQ(first.Calls() + second.Calls(), 0);
}

TEST_F(CRegdbTest, IgnoringWaitsForACallbackThatRuns) {
    struct State {
        std::mutex mutex;
        std::condition_variable entered;
        bool inside = false;
        bool release = false;
        bool left = false;
    } state;
    const regdb_key_changed_cb callback = [](struct _keynode_t*, void* pState) {
        auto* s = static_cast<State*>(pState);
        std::unique_lock lock(s->mutex);
        s->inside = true;
        s->entered.notify_all();
        s->entered.wait(lock, [s] { return s->release; });
        s->left = true;
    };
    Store(StoreWith("0"));
    regdb_notify_key_changed(kKey, callback, &state);
    Store(StoreWith("1"));
    std::unique_lock lock(state.mutex);
    ASSERT_TRUE(
        state.entered.wait_for(lock, std::chrono::seconds(30), [&] { return state.inside; }));
    lock.unlock();
    std::thread ignoring([&] { regdb_ignore_key_changed(kKey, callback); });
    lock.lock();
    EXPECT_FALSE(state.left);
    state.release = true;
    state.entered.notify_all();
    lock.unlock();
    ignoring.join();
    EXPECT_TRUE(state.left);
}

TEST_F(CRegdbTest, CallbackMayRemoveItself) {
    CCounter counter;
    static regdb_key_changed_cb callback;
    callback = [](struct _keynode_t* pNode, void* pData) {
        regdb_ignore_key_changed(kKey, callback);
        CCounter::OnChanged(pNode, pData);
    };
    Store(StoreWith("0"));
    regdb_notify_key_changed(kKey, callback, &counter);
    Store(StoreWith("1"));
    EXPECT_TRUE(counter.WaitFor(1));
    EXPECT_EQ(regdb_ignore_key_changed(kKey, callback), REGDB_ERROR_NOT_REGISTERED);
}

TEST_F(CRegdbTest, ProcessThatExitsWhileItWatchesEndsInPeace) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto watchAndExit = [] {
        CCounter counter;
        std::exit(regdb_notify_key_changed(kKey, &CCounter::OnChanged, &counter));
    };
    EXPECT_EXIT(watchAndExit(), testing::ExitedWithCode(REGDB_ERROR_NONE), "");
}

}  // namespace
