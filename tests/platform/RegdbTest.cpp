// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ChildScenario.h"
#include "RegdbFixture.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

TEST_F(CRegdbTest, ReadsAnyInteger) {
    for (const int expected : {0, 1, 2, -3}) {
        int value = 99;
        Store(expected);
        EXPECT_EQ(regdb_get_bool(kKey, &value), REGDB_ERROR_NONE);
        EXPECT_EQ(value, expected);
    }
}

TEST_F(CRegdbTest, EachFailureHasItsCodeAndKeepsTheValue) {
    int value = 99;
    EXPECT_EQ(regdb_get_bool(kKey, &value), REGDB_ERROR_NO_FILE);
    const struct {
        std::string text;
        int code;
    } cases[] = {
        {"[db/tallyra]\nother=1\n", REGDB_ERROR_NO_KEY},
        {"[db/other]\nlog_on=1\n", REGDB_ERROR_NO_KEY},
        {"no store at all", REGDB_ERROR_MALFORMED_FILE},
        {StoreText(""), REGDB_ERROR_MALFORMED_VALUE},
        {StoreText("yes"), REGDB_ERROR_MALFORMED_VALUE},
        {StoreText("1x"), REGDB_ERROR_MALFORMED_VALUE},
        {StoreText("1.0"), REGDB_ERROR_MALFORMED_VALUE},
        {StoreText("99999999999"), REGDB_ERROR_MALFORMED_VALUE},
        {StoreText("true"), REGDB_ERROR_MALFORMED_VALUE},
    };
    for (const auto& [text, code] : cases) {
        Store(text);
        EXPECT_EQ(regdb_get_bool(kKey, &value), code) << text;
    }
    EXPECT_EQ(value, 99);
}

TEST_F(CRegdbTest, FolderInPlaceOfTheStoreIsUnreadable) {
    int value = 99;
    std::filesystem::create_directories(m_Folder.Path() / kStoreName);
    EXPECT_EQ(regdb_get_bool(kKey, &value), REGDB_ERROR_UNREADABLE);
}

TEST_F(CRegdbTest, RejectsInvalidParameters) {
    int value = 99;
    for (const char* key : {"", "log_on", "/log_on", "db/", "db/a=b", "d[b/a", "db/a\n"}) {
        EXPECT_EQ(regdb_get_bool(key, &value), REGDB_ERROR_INVALID_PARAMETER) << key;
    }
    EXPECT_EQ(regdb_get_bool(nullptr, &value), REGDB_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(regdb_get_bool(kKey, nullptr), REGDB_ERROR_INVALID_PARAMETER);
}

TEST_F(CRegdbTest, WatchReportsReplacementWriteInPlaceAndRemovalOfTheKey) {
    Store(0);
    ASSERT_EQ(Watch(m_Callbacks), 0);
    Store(1);
    EXPECT_TRUE(m_Callbacks.WaitFor(1));
    m_Folder.Write(kStoreName, StoreText("2"));
    EXPECT_TRUE(m_Callbacks.WaitFor(2));
    Store("[db/tallyra]\n");
    EXPECT_TRUE(m_Callbacks.WaitFor(3));
    EXPECT_EQ(Ignore(), 0);
}

TEST_F(CRegdbTest, WatchReportsAStoreCreatedLater) {
    ASSERT_EQ(Watch(m_Callbacks), 0);
    Store(1);
    EXPECT_TRUE(m_Callbacks.WaitFor(1));
}

TEST_F(CRegdbTest, WatchReportsFoldersCreatedAndRemovedAboveTheStore) {
    const std::string deep = "a/b/c/regdb.ini";
    setenv("REGDB_FILE", (m_Folder.Path() / deep).c_str(), 1);
    ASSERT_EQ(Watch(m_Callbacks), 0);
    for (std::size_t calls = 1; calls < 20; calls += 2) {
        m_Folder.Write(deep, StoreText("1"));
        EXPECT_TRUE(m_Callbacks.WaitFor(calls));
        std::filesystem::remove_all(m_Folder.Path() / "a");
        EXPECT_TRUE(m_Callbacks.WaitFor(calls + 1));
    }
}

TEST_F(CRegdbTest, StoreIsNotReadBeforeItsWriterClosesIt) {
    Store(1);
    ASSERT_EQ(Watch(m_Callbacks), 0);
    std::ofstream file(m_Folder.Path() / kStoreName);
    EXPECT_FALSE(m_Callbacks.WaitFor(1, std::chrono::milliseconds(100)));
    file << StoreText("0");
    file.close();
    EXPECT_TRUE(m_Callbacks.WaitFor(1));
    EXPECT_EQ(m_Callbacks.Reports().size(), 1U);
}

TEST_F(CRegdbTest, WatchIgnoresOtherKeys) {
    CCallbacks other;
    Store(1);
    ASSERT_EQ(Watch(m_Callbacks), 0);
    ASSERT_EQ(regdb_notify_key_changed("db/tallyra/other", &CCallbacks::OnKey, &other), 0);
    Store(StoreText("1") + "other=5\n");
    EXPECT_TRUE(other.WaitFor(1));
    EXPECT_TRUE(m_Callbacks.Reports().empty());
    EXPECT_EQ(regdb_ignore_key_changed("db/tallyra/other", &CCallbacks::OnKey), 0);
}

TEST_F(CRegdbTest, IgnoreRemovesAllRegistrationsOfTheCallback) {
    CCallbacks second;
    Store(0);
    Watch(m_Callbacks);
    Watch(second);
    EXPECT_EQ(Ignore(), REGDB_ERROR_NONE);
    EXPECT_EQ(Ignore(), REGDB_ERROR_NOT_REGISTERED);
    Store(1);
    EXPECT_TRUE(m_Callbacks.Reports().empty() && second.Reports().empty());
}

TEST_F(CRegdbTest, IgnoreWaitsForARunningCallback) {
    CBlockingWork work;
    CCallbacks callbacks([&] { work.Run(); });
    Store(0);
    Watch(callbacks);
    Store(1);
    ASSERT_TRUE(work.WaitUntilEntered());
    EXPECT_TRUE(work.Outlasts([] { Ignore(); }));
}

TEST_F(CRegdbTest, CallbackMayRemoveItself) {
    CCallbacks callbacks([] { Ignore(); });
    Store(0);
    Watch(callbacks);
    Store(1);
    EXPECT_TRUE(callbacks.WaitFor(1));
    EXPECT_EQ(Ignore(), REGDB_ERROR_NOT_REGISTERED);
}

TEST_F(CRegdbTest, ProcessMayExitWhileItWatches) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::exit(Watch(m_Callbacks)), testing::ExitedWithCode(REGDB_ERROR_NONE), "");
}

}  // namespace
