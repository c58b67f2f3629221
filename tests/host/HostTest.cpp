// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "HostFixture.h"

#include "Proc.h"
#include "Sanitizers.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <clocale>

#if TALLYRA_TEST_THREAD_SANITIZER
// Some hosts exit with live collectors on purpose. The threads of these are never joined.
extern "C" const char* __tsan_default_options() {
    return "report_thread_leaks=0";
}
#endif

namespace {

TEST_F(CHostTest, MayExitWithALiveCollector) {
    ExpectHost(
        [this]() -> bool { std::exit(PlayUntilItArrives(*MakeCollector().release()) ? 0 : 1); });
}

ITYDataCollector* g_pCollector = nullptr;
std::atomic<int> g_nSignals{0};

TEST_F(CHostTest, MayDeleteItsCollectorInAnExitHandler) {
    ExpectHost([this]() -> bool {
        g_pCollector = MakeCollector().release();
        PlayUntilItArrives(*g_pCollector);
        std::atexit([] { delete g_pCollector; });
        std::exit(0);
    });
}

// Constructed before the library's first call, so destroyed after everything the library
// constructs.
std::unique_ptr<ITYDataCollector> g_pOldest;

TEST_F(CHostTest, MayHoldItsCollectorInAnObjectOlderThanTheLibrarys) {
    ExpectHost([this]() -> bool {
        g_pOldest = MakeCollector();
        PlayUntilItArrives(*g_pOldest);
        std::exit(0);
    });
}

TEST_F(CHostTest, MayExitFromAnotherThread) {
    ExpectHost([this] {
        PlayUntilItArrives(*MakeCollector().release());
        std::thread([] { std::exit(0); }).join();
        return false;
    });
}

TEST_F(CHostTest, MayLoadAndUnloadTheLibraryAHundredTimes) {
    EXPECT_EQ(std::system(LOADER " " LIBTALLYRA " 100"), 0);
}

TEST_F(CHostTest, MayForkAndExecWhileThreadsRun) {
    ExpectHost([] {
        const Collector collector = MakeCollector();
        int failed = 0;
        for (int i = 0; i < 50; ++i) {
            Play(*collector);
            const pid_t child = fork();
            if (child == 0) {
                execl("/bin/true", "true", nullptr);
                _exit(1);
            }
            int status = 1;
            waitpid(child, &status, 0);
            failed += status == 0 ? 0 : 1;
        }
        return failed == 0;
    });
}

void CountSignal(int /*number*/) {
    ++g_nSignals;
}

/// @return the number of threads of this process that do not block a signal
std::ptrdiff_t ThreadsThatTake(int signal) {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::count_if(begin(tasks), end(tasks),
                         [signal](const auto& task) { return !ThreadBlocks(task.path(), signal); });
}

TEST_F(CHostTest, MayBlockNoSignalAndBeInterruptedEveryMillisecond) {
    ExpectHost([this] {
        struct sigaction action {};
        action.sa_handler = &CountSignal;
        sigaction(SIGALRM, &action, nullptr);
        const itimerval period{{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &period, nullptr);
        for (int i = 0; i < 5; ++i) {
            PlayUntilItArrives(*MakeCollector());
        }
        return g_nSignals > 0 && !m_Service.Records().empty();
    });
}

TEST_F(CHostTest, KeepsItsSignalsForItsOwnThreads) {
    ExpectHost([this] {
        PlayUntilItArrives(*MakeCollector());
        const std::ptrdiff_t before = ThreadsThatTake(SIGUSR1);
        const Collector collector = MakeCollector();
        PlayUntilItArrives(*collector);
        return before > 0 && ThreadsThatTake(SIGUSR1) == before;
    });
}

TEST_F(CHostTest, MayCallFromAThreadWithSixtyFourKibibytesOfStack) {
    const auto playOnThread = [](void* /*unused*/) -> void* {
        Play(*MakeCollector());
        return nullptr;
    };
    ExpectHost([&] {
        pthread_attr_t attributes;
        pthread_t thread{};
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, std::size_t{64} * 1024);
        if (pthread_create(&thread, &attributes, playOnThread, nullptr) != 0) {
            return false;
        }
        pthread_join(thread, nullptr);
        return true;
    });
}

class CFewDescriptorsTest : public CHostTest, public testing::WithParamInterface<rlim_t> {};

TEST_P(CFewDescriptorsTest, MayRunOutOfFileDescriptors) {
    if (kUnderUndefinedBehaviourSanitizer && GetParam() < 20) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    ExpectHost([] {
        const rlimit few{GetParam(), GetParam()};
        setrlimit(RLIMIT_NOFILE, &few);
        Play(*MakeCollector());
        return true;
    });
}

INSTANTIATE_TEST_SUITE_P(Limits, CFewDescriptorsTest, testing::Values(3, 12, 14, 16, 18, 20));

TEST_F(CHostTest, MayHaveSigpipeAtDefaultWhenTheBusDies) {
    ExpectHost([this] {
        signal(SIGPIPE, SIG_DFL);
        Collector collector = MakeCollector();
        PlayUntilItArrives(*collector);
        m_Bus.Stop();
        Play(*collector);
        collector.reset();
        return signal(SIGPIPE, SIG_DFL) == SIG_DFL;
    });
}

/// Calls with invalid arguments.
void CallWithInvalidArguments(ITYDataCollector& collector) {
    CTYContentInfo noUrl(nullptr, -1);
    int number = 0;
    collector.SetServiceVersion(nullptr);
    collector.SetContentInfo(nullptr);
    collector.SetContentInfo(&noUrl);
    collector.SetDrmType(static_cast<TY_DRM_TYPE>(1 << 30));
    collector.SetContentType(static_cast<TY_CONTENT_TYPE>(-1));
    collector.SetDuration(-1);
    collector.SendMediaEvent(static_cast<TY_EVENT_TYPE>(-7), -1, -1);
    collector.SendMediaError(static_cast<TY_ERROR_TYPE>(1 << 20));
    collector.GetVersion(nullptr, &number);
    collector.GetDrmType();
    collector.GetContentType();
    static_cast<void>(collector.Execute(-1, 0, std::string(1 << 16, '\xff')));
}

TEST_F(CHostTest, MayCallWithInvalidArguments) {
    ExpectHost([] {
        const Collector collector(
            GetTYDataCollectorInstance(nullptr, static_cast<TY_PLAYER_ID>(-12345)));
        CallWithInvalidArguments(*collector);
        return !collector->Execute(-1, 0, std::string(1 << 20, '\xff'));
    });
}

TEST_F(CHostTest, MayCallWithInvalidArgumentsFromManyThreads) {
    ExpectHost([this] {
        const Collector collector = MakeCollector();
        std::vector<std::thread> threads;
        threads.reserve(16);
        for (int i = 0; i < 16; ++i) {
            threads.emplace_back([&] {
                for (int call = 0; call < 100; ++call) {
                    CallWithInvalidArguments(*collector);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        return PlayUntilItArrives(*collector) && m_Service.Problems().empty();
    });
}

/// A locale with a decimal comma and grouped digits.
class CForeignLocaleTest : public CHostTest {
  protected:
    bool CanMakeLocale() const {
        const std::string command =
            "localedef -i de_DE -f UTF-8 " + (m_Folder.Path() / "foreign").string();
        return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
    }

    bool EnterLocale() const {
        setenv("LOCPATH", m_Folder.Path().c_str(), 1);
        return std::setlocale(LC_ALL, "foreign") != nullptr &&
               std::string(std::localeconv()->decimal_point) == ",";
    }
};

TEST_F(CForeignLocaleTest, ChangesNothingInWhatIsSent) {
    if (!CanMakeLocale()) {
        GTEST_SKIP() << "this machine has no locale sources";
    }
    ExpectHost([this] {
        if (!EnterLocale() || !CanPlay()) {
            return false;
        }
        const auto records = m_Service.Records();
        const std::string playback = records.at(0).record.playbackId;
        const bool isNumber = playback.find_first_not_of("0123456789") == std::string::npos;
        return playback.size() == 24 && isNumber;
    });
}

}  // namespace
