// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ChildProcess.h"
#include "HostFixture.h"
#include "Sanitizers.h"

#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <clocale>

#if TALLYRA_TEST_THREAD_SANITIZER
// Some hosts exit with live collectors on purpose. The threads of these are never joined.
extern "C" const char* __tsan_default_options() {
    return "report_thread_leaks=0";
}
#endif

namespace {

// Constructed before the library's first call, so destroyed after everything the library
// constructs.
std::unique_ptr<ITYDataCollector> g_pOldest;

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

const Named<Scenario> kHosts[] = {
    {"ExitWithALiveCollector",
     [](CHostTest& host) -> bool {
         std::exit(host.PlayUntilItArrives(*MakeCollector().release()) ? 0 : 1);
     }},
    {"DeleteItsCollectorInAnExitHandler",
     [](CHostTest& host) -> bool {
         static ITYDataCollector* const s_pCollector = MakeCollector().release();
         host.PlayUntilItArrives(*s_pCollector);
         std::atexit([] { delete s_pCollector; });
         std::exit(0);
     }},
    {"HoldItsCollectorInAnObjectOlderThanTheLibrarys",
     [](CHostTest& host) -> bool {
         g_pOldest = MakeCollector();
         host.PlayUntilItArrives(*g_pOldest);
         std::exit(0);
     }},
    {"ExitFromAnotherThread",
     [](CHostTest& host) {
         host.PlayUntilItArrives(*MakeCollector().release());
         std::thread([] { std::exit(0); }).join();
         return false;
     }},
    {"BlockNoSignalAndBeInterruptedEveryMillisecond",
     [](CHostTest& host) {
         static std::atomic<int> s_nSignals{0};
         struct sigaction action {};
         action.sa_handler = [](int /*number*/) { ++s_nSignals; };
         sigaction(SIGALRM, &action, nullptr);
         const itimerval period{{0, 1000}, {0, 1000}};
         setitimer(ITIMER_REAL, &period, nullptr);
         for (int i = 0; i < 5; ++i) {
             host.PlayUntilItArrives(*MakeCollector());
         }
         return s_nSignals > 0 && !host.m_Service.Records().empty();
     }},
    {"CallFromAThreadWithSixtyFourKibibytesOfStack",
     [](CHostTest& /*host*/) {
         pthread_attr_t attributes;
         pthread_t thread{};
         pthread_attr_init(&attributes);
         pthread_attr_setstacksize(&attributes, std::size_t{64} * 1024);
         const auto play = [](void* /*unused*/) -> void* {
             Play(*MakeCollector());
             return nullptr;
         };
         return pthread_create(&thread, &attributes, play, nullptr) == 0 &&
                pthread_join(thread, nullptr) == 0;
     }},
    {"CallWithInvalidArgumentsFromManyThreads",
     [](CHostTest& host) {
         const Collector collector(
             GetTYDataCollectorInstance(nullptr, static_cast<TY_PLAYER_ID>(-12345)));
         std::vector<std::thread> threads;
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
         return !collector->Execute(-1, 0, std::string(1 << 20, '\xff')) &&
                host.PlayUntilItArrives(*collector) && host.m_Service.Problems().empty();
     }},
};

TEST_P(CHostMayTest, InAProcessOfItsOwn) {
    ExpectInNewProcess([this] { return Case()(*this); }, kSecondsOfAScenario);
}

INSTANTIATE_TEST_SUITE_P(Hosts, CHostMayTest, testing::ValuesIn(kHosts), kByName);

class CFewDescriptorsTest : public CHostTest, public testing::WithParamInterface<rlim_t> {};

TEST_P(CFewDescriptorsTest, MayRunOutOfFileDescriptors) {
    if (kUnderUndefinedBehaviourSanitizer && GetParam() < 20) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    ExpectInNewProcess(
        [] {
            const rlimit few{GetParam(), GetParam()};
            setrlimit(RLIMIT_NOFILE, &few);
            Play(*MakeCollector());
            return true;
        },
        kSecondsOfAScenario);
}

INSTANTIATE_TEST_SUITE_P(Limits, CFewDescriptorsTest, testing::Values(3, 12, 14, 16, 18, 20));

TEST_F(CHostTest, MayLoadAndUnloadTheLibraryAHundredTimes) {
    EXPECT_EQ(std::system(LOADER " " LIBTALLYRA), 0);
}

// A locale with a decimal comma and grouped digits.
TEST_F(CHostTest, ForeignLocaleChangesNothingInWhatIsSent) {
    const std::string command =
        "localedef -i de_DE -f UTF-8 " + (m_Folder.Path() / "foreign").string();
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0) {
        GTEST_SKIP() << "this machine has no locale sources";
    }
    ExpectInNewProcess(
        [this] {
            setenv("LOCPATH", m_Folder.Path().c_str(), 1);
            if (std::setlocale(LC_ALL, "foreign") == nullptr ||
                std::string(std::localeconv()->decimal_point) != "," || !CanPlay()) {
                return false;
            }
            const std::string playback = m_Service.Records().at(0).record.playbackId;
            return playback.size() == 24 &&
                   playback.find_first_not_of("0123456789") == std::string::npos;
        },
        kSecondsOfAScenario);
}

/// Runs the program that attacks the library, see AttackMain.cpp. It reports on standard error
/// what does not hold.
class CAttackTest : public CHostTest {
  protected:
    static int Wait(CChildProcess&& attack) {
        return attack.WaitForExit(std::chrono::seconds(160)).value_or(-1);
    }
    static int Attack(const std::string& name) { return Wait(CChildProcess({ATTACK, name})); }
};

class CEachAttackTest : public CAttackTest, public testing::WithParamInterface<const char*> {};

TEST_P(CEachAttackTest, LeavesTheHostUnharmed) {
    if (kWithSanitizersAllocator && std::string(GetParam()) == "fork-make") {
        GTEST_SKIP() << "a fork leaves locks of the sanitizer's allocator held";
    }
    EXPECT_EQ(Attack(GetParam()), 0);
    EXPECT_TRUE(m_Service.Problems().empty());
}

INSTANTIATE_TEST_SUITE_P(Of, CEachAttackTest,
                         testing::Values("fork-delete", "fork-exit", "fork-make", "close-all",
                                         "reuse-numbers", "cancel"));

TEST_F(CAttackTest, MayReportInAForkedChildAndNothingOfItArrives) {
    EXPECT_EQ(Attack("fork-report"), 0);
    EXPECT_TRUE(m_Service.Problems().empty());
    // START and 5 events before the fork; after it START again, which is an error, and 30 events.
    EXPECT_EQ(m_Service.Records().size(), 37U);
}

TEST_F(CAttackTest, MayPlayAUrlOfFiveMebibytes) {
    m_Service.ReleaseName();
    EXPECT_EQ(Attack("long-url"), 0);
}

TEST_F(CAttackTest, MayUseUpAllDescriptorsBeforeTheServiceAppears) {
    if (kUnderUndefinedBehaviourSanitizer) {
        GTEST_SKIP() << "the sanitizer needs descriptors of its own";
    }
    m_Service.ReleaseName();
    std::array<int, 2> ready{};
    ASSERT_EQ(pipe2(ready.data(), O_CLOEXEC), 0);
    CChildProcess attack({ATTACK, "use-up", std::to_string(ready[1])}, {.keepFds = {ready[1]}});
    pollfd waited{ready[0], POLLIN, 0};
    EXPECT_EQ(poll(&waited, 1, 30000), 1);
    m_Service.OwnName();
    EXPECT_EQ(Wait(std::move(attack)), 0);
    close(ready[0]);
    close(ready[1]);
}

}  // namespace
