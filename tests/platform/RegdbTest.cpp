// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The settings store, its watch, and the watch's thread in a host's process: descriptors, forks,
// signals and stack.

#include "Callbacks.h"
#include "ChildScenario.h"
#include "HostDescriptors.h"
#include "Proc.h"
#include "Sanitizers.h"
#include "TemporaryFolder.h"

#include "regdb.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>

namespace {

constexpr const char* kKey = "db/tallyra/log_on";
constexpr const char* kStoreName = "store/regdb.ini";

std::string StoreText(const std::string& value) {
    return "[db/tallyra]\nlog_on=" + value + "\n";
}

/// A host with a settings store of its own, and callbacks that watch its key.
class CRegdbTest : public testing::Test {
  protected:
    CRegdbTest() { setenv("REGDB_FILE", (m_Folder.Path() / kStoreName).c_str(), 1); }
    ~CRegdbTest() override { Ignore(); }

    /// Replaces the store.
    void Store(const std::string& text) const { m_Folder.Replace(kStoreName, text); }
    void Store(int value) const { Store(StoreText(std::to_string(value))); }

    static int Watch(CCallbacks& callbacks) {
        return regdb_notify_key_changed(kKey, &CCallbacks::OnKey, &callbacks);
    }
    static int Ignore() { return regdb_ignore_key_changed(kKey, &CCallbacks::OnKey); }

    CTemporaryFolder m_Folder;
    CCallbacks m_Callbacks;
};

const std::pair<std::string, int> kStores[] = {
    {"[db/tallyra]\nother=1\n", REGDB_ERROR_NO_KEY},
    {"[db/other]\nlog_on=1\n", REGDB_ERROR_NO_KEY},
    {"no store at all", REGDB_ERROR_MALFORMED_FILE},
    {StoreText(""), REGDB_ERROR_MALFORMED_VALUE},
    {StoreText("yes"), REGDB_ERROR_MALFORMED_VALUE},
    {StoreText("1x"), REGDB_ERROR_MALFORMED_VALUE},
    {StoreText("1.0"), REGDB_ERROR_MALFORMED_VALUE},
    {StoreText("99999999999"), REGDB_ERROR_MALFORMED_VALUE},
    {StoreText("true"), REGDB_ERROR_MALFORMED_VALUE},
    {StoreText("-3"), REGDB_ERROR_NONE},
};

TEST_F(CRegdbTest, ReadsAnIntegerOrHasACodeForTheFailureAndKeepsTheValue) {
    int value = 99;
    EXPECT_EQ(regdb_get_bool(kKey, &value), REGDB_ERROR_NO_FILE);
    for (const auto& [text, code] : kStores) {
        Store(text);
        EXPECT_EQ(regdb_get_bool(kKey, &value), code) << text;
        EXPECT_EQ(value, code == REGDB_ERROR_NONE ? -3 : 99) << text;
    }
    std::filesystem::remove(m_Folder.Path() / kStoreName);
    std::filesystem::create_directory(m_Folder.Path() / kStoreName);
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

class CDescriptorsTest : public CRegdbTest {
  protected:
    CDescriptorsTest() { Store(0); }

    /// Watches the key and has one change reported.
    bool WatchOneChange() {
        Watch(m_Callbacks);
        Store(1);
        return m_Callbacks.WaitFor(1);
    }
};

TEST_F(CDescriptorsTest, WatchWithoutDescriptorsPollsAndEnds) {
    if (kUnderUndefinedBehaviourSanitizer) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    ExpectInNewProcess([this] {
        const rlimit before = CHostDescriptors::RefuseMore();
        const bool ended = Watch(m_Callbacks) == 0 && Ignore() == 0;
        const bool watched = Watch(m_Callbacks) == 0;
        setrlimit(RLIMIT_NOFILE, &before);
        Store(1);
        return ended && watched && m_Callbacks.WaitFor(1) && Ignore() == 0;
    });
}

TEST_F(CDescriptorsTest, WatchContinuesWhenTheHostHasClosedItsDescriptors) {
    ExpectInNewProcess([this] {
        const bool before = WatchOneChange();
        closefrom(3);
        Store(2);
        const bool after = m_Callbacks.WaitFor(2);
        Store(3);
        return before && after && m_Callbacks.WaitFor(3) && Ignore() == 0;
    });
}

TEST_F(CDescriptorsTest, NumbersUsedAgainAreNotTouchedByTheWatchWhichContinuesOrEnds) {
    if (kUnderThreadSanitizer) {
        GTEST_SKIP() << "a host that closes another thread's descriptors is a race";
    }
    for (const int turn : {0, 1, 2}) {
        for (const bool changes : {false, true}) {
            SCOPED_TRACE(std::to_string(turn) + (changes ? " with changes" : " without changes"));
            ExpectInNewProcess([&] {
                const bool before = WatchOneChange();
                const CHostDescriptors descriptors(m_Folder.Path(), turn);
                if (changes) {
                    Store(2);
                }
                const bool continues = !changes || m_Callbacks.WaitFor(2);
                return before && continues && Ignore() == 0 && descriptors.AreUntouched();
            });
        }
    }
}

class CForkedChildTest : public CDescriptorsTest {
  protected:
    void SetUp() override {
        if (kUnderThreadSanitizer) {
            GTEST_SKIP() << "the sanitizer lets no forked child of several threads start one";
        }
    }

    /// @return whether a forked child can watch the key
    bool ChildCanWatch() {
        return RunForked([this] {
                   CCallbacks own;
                   const bool watched = Watch(own) == 0;
                   Store(2);
                   return watched && own.WaitFor(1) && Ignore() == 0 ? 0 : 1;
               }).exitCode == 0;
    }
};

TEST_F(CForkedChildTest, MayWatchToo) {
    ExpectInNewProcess(
        [this] { return WatchOneChange() && ChildCanWatch() && m_Callbacks.WaitFor(2); });
}

TEST_F(CForkedChildTest, ForkedInACallbackMayWatchToo) {
    ExpectInNewProcess([this] {
        bool watched = false;
        CCallbacks callbacks([&] { watched = watched || ChildCanWatch(); });
        Watch(callbacks);
        Store(1);
        return callbacks.WaitFor(1) && Ignore() == 0 && watched;
    });
}

class CPlatformThreadsTest : public CRegdbTest {
  protected:
    /// Runs work in a callback, on the settings thread. @return whether the callback returned
    bool RunOnPlatformThread(std::function<void()> work) {
        CCallbacks callbacks(std::move(work));
        Store(0);
        Watch(callbacks);
        Store(1);
        return callbacks.WaitFor(1) && Ignore() == 0;
    }
};

TEST_F(CPlatformThreadsTest, BlockAllSignalsButSynchronousFaults) {
    const int faults[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS};
    const int others[] = {SIGUSR1, SIGCHLD, SIGALRM, SIGPROF, SIGTERM, SIGURG, SIGRTMIN};
    const auto checkMask = [&] {
        for (const int signal : faults) {
            EXPECT_FALSE(ThreadBlocks("/proc/thread-self", signal)) << signal;
        }
        for (const int signal : others) {
            EXPECT_TRUE(ThreadBlocks("/proc/thread-self", signal)) << signal;
        }
    };
    EXPECT_TRUE(RunOnPlatformThread(checkMask));
}

void WriteToAProtectedPage() {
    void* pPage = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile char*>(pPage) = 1;
}

TEST_F(CPlatformThreadsTest, LeaveAFaultToTheHostsHandler) {
    ExpectInNewProcess([this] {
        struct sigaction action {};
        action.sa_handler = [](int /*number*/) { _exit(0); };
        action.sa_flags = SA_ONSTACK;
        sigaction(SIGSEGV, &action, nullptr);
        RunOnPlatformThread(&WriteToAProtectedPage);
        return false;
    });
}

void UseSixtyFourKibibytesOfStack() {
    std::array<volatile char, std::size_t{64} * 1024> bytes;
    for (volatile char& byte : bytes) {
        byte = 1;
    }
}

TEST_F(CPlatformThreadsTest, HaveAStackThatDoesNotDependOnTheHostsDefault) {
    if (kWithSanitizersAllocator) {
        GTEST_SKIP() << "the sanitizer's own threads need more stack than the host's default";
    }
    ExpectInNewProcess([this] {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, PTHREAD_STACK_MIN);
        pthread_setattr_default_np(&attributes);
        return RunOnPlatformThread(&UseSixtyFourKibibytesOfStack);
    });
}

}  // namespace
