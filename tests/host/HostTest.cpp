// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "HostFixture.h"

#include "Sanitizers.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using testing::ExitedWithCode;

namespace {

TEST_F(CHostTest, MayExitWithALiveCollector) {
    const auto scenario = [this] {
        ITYDataCollector* pCollector = MakeCollector().release();
        PlayUntilItArrives(*pCollector);
        std::exit(m_Service.Records().empty() ? 1 : 0);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

ITYDataCollector* g_pCollector = nullptr;
std::atomic<int> g_nSignals{0};

TEST_F(CHostTest, MayDeleteItsCollectorInAnExitHandler) {
    const auto scenario = [this] {
        g_pCollector = MakeCollector().release();
        PlayUntilItArrives(*g_pCollector);
        std::atexit([] { delete g_pCollector; });
        std::exit(0);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

// Made before the library was first called, and so destroyed after all that the library makes.
std::unique_ptr<ITYDataCollector> g_pOldest;

TEST_F(CHostTest, MayHoldItsCollectorInAnObjectThatIsOlder) {
    const auto scenario = [this] {
        g_pOldest = MakeCollector();
        PlayUntilItArrives(*g_pOldest);
        std::exit(0);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_F(CHostTest, MayReturnFromAThreadAndExitFromAnother) {
    const auto scenario = [this] {
        ITYDataCollector* pCollector = MakeCollector().release();
        PlayUntilItArrives(*pCollector);
        std::thread([] { std::exit(0); }).join();
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_F(CHostTest, MayLoadAndUnloadTheLibraryAHundredTimes) {
    EXPECT_EQ(std::system(LOADER " " LIBTALLYRA " 100"), 0);
}

TEST_F(CHostTest, MayForkAndExecWhileThreadsRun) {
    const auto scenario = [] {
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
        _exit(failed);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_F(CHostTest, MayBlockAllSignals) {
    const auto scenario = [this] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        PlayUntilItArrives(*MakeCollector());
        _exit(m_Service.Records().empty() ? 1 : 0);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

void CountSignal(int /*number*/) {
    ++g_nSignals;
}

/// @return how many threads of this process do not block a signal
int ThreadsThatTake(int signal) {
    int taking = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(task.path() / "status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.rfind("SigBlk:", 0) == 0) {
                const auto blocked = std::stoull(line.substr(7), nullptr, 16);
                taking += (blocked >> (signal - 1) & 1U) == 0 ? 1 : 0;
            }
        }
    }
    return taking;
}

TEST_F(CHostTest, MayBlockNoSignalAndBeInterruptedEveryMillisecond) {
    const auto scenario = [this] {
        struct sigaction action {};
        action.sa_handler = &CountSignal;
        sigaction(SIGALRM, &action, nullptr);
        const itimerval period{{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &period, nullptr);
        for (int i = 0; i < 5; ++i) {
            PlayUntilItArrives(*MakeCollector());
        }
        _exit(g_nSignals > 0 && !m_Service.Records().empty() ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_F(CHostTest, KeepsItsSignalsForItsOwnThreads) {
    const auto scenario = [this] {
        PlayUntilItArrives(*MakeCollector());
        const int before = ThreadsThatTake(SIGUSR1);
        const Collector collector = MakeCollector();
        PlayUntilItArrives(*collector);
        _exit(before > 0 && ThreadsThatTake(SIGUSR1) == before ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

void* PlayOnThisThread(void* /*unused*/) {
    Play(*MakeCollector());
    return nullptr;
}

TEST_F(CHostTest, MayCallFromAThreadWithSixtyFourKibibytesOfStack) {
    const auto scenario = [] {
        pthread_attr_t attributes;
        pthread_t thread{};
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, std::size_t{64} * 1024);
        if (pthread_create(&thread, &attributes, &PlayOnThisThread, nullptr) != 0) {
            _exit(1);
        }
        pthread_join(thread, nullptr);
        _exit(0);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

class CFewDescriptorsTest : public CHostTest, public testing::WithParamInterface<rlim_t> {};

TEST_P(CFewDescriptorsTest, MayRunOutOfFileDescriptors) {
    if (kUnderUndefinedBehaviourSanitizer && GetParam() < 20) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    const auto scenario = [] {
        const rlimit few{GetParam(), GetParam()};
        setrlimit(RLIMIT_NOFILE, &few);
        Play(*MakeCollector());
        _exit(0);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(Limits, CFewDescriptorsTest, testing::Values(3, 12, 14, 16, 18, 20));

TEST_F(CHostTest, MayHaveSigpipeAtDefaultWhenTheBusDies) {
    const auto scenario = [this] {
        signal(SIGPIPE, SIG_DFL);
        Collector collector = MakeCollector();
        PlayUntilItArrives(*collector);
        m_Bus.Stop();
        Play(*collector);
        collector.reset();
        _exit(signal(SIGPIPE, SIG_DFL) == SIG_DFL ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

/// Calls with what no player should call with.
void CallWithAnything(ITYDataCollector& collector) {
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

TEST_F(CHostTest, MayCallWithAnything) {
    const auto scenario = [] {
        const Collector collector(
            GetTYDataCollectorInstance(nullptr, static_cast<TY_PLAYER_ID>(-12345)));
        CallWithAnything(*collector);
        _exit(collector->Execute(-1, 0, std::string(1 << 20, '\xff')) ? 1 : 0);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

TEST_F(CHostTest, MayCallWithAnythingFromManyThreadsAtOnce) {
    const auto scenario = [this] {
        const Collector collector = MakeCollector();
        std::vector<std::thread> threads;
        threads.reserve(16);
        for (int i = 0; i < 16; ++i) {
            threads.emplace_back([&] {
                for (int call = 0; call < 100; ++call) {
                    CallWithAnything(*collector);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        PlayUntilItArrives(*collector);
        _exit(m_Service.Problems().empty() && !m_Service.Records().empty() ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

/// A locale in which numbers are written with a comma, and in groups.
class CForeignLocaleTest : public CHostTest {
  protected:
    ~CForeignLocaleTest() override { std::filesystem::remove_all(m_Folder); }

    bool CanMakeLocale() const {
        std::filesystem::create_directories(m_Folder);
        const std::string command = "localedef -i de_DE -f UTF-8 " + m_Folder + "/foreign";
        return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
    }

    bool EnterLocale() const {
        setenv("LOCPATH", m_Folder.c_str(), 1);
        return std::setlocale(LC_ALL, "foreign") != nullptr &&
               std::string(std::localeconv()->decimal_point) == ",";
    }

    const std::string m_Folder = m_Settings + ".locales";
};

TEST_F(CForeignLocaleTest, ChangesNothingInWhatIsSent) {
    if (!CanMakeLocale()) {
        GTEST_SKIP() << "this machine has no sources of locales";
    }
    const auto scenario = [this] {
        if (!EnterLocale()) {
            _exit(2);
        }
        PlayUntilItArrives(*MakeCollector());
        const auto records = m_Service.Records();
        const std::string playback = records.at(0).record.playbackId;
        const bool isNumber = playback.find_first_not_of("0123456789") == std::string::npos;
        _exit(m_Service.Problems().empty() && playback.size() == 24 && isNumber ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

}  // namespace
