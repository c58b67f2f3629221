// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateBus.h"
#include "receiver/Receiver.h"

#include <tallyra/ITYDataCollector.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

using testing::ExitedWithCode;

namespace {

#if defined(__has_feature)
#if __has_feature(undefined_behavior_sanitizer)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif
#else
constexpr bool SANITIZED = false;
#endif

using Collector = std::unique_ptr<ITYDataCollector>;

Collector MakeCollector() {
    return Collector(GetTYDataCollectorInstance("org.example.host", TY_PLAYER_NATIVE));
}

/// A short playback, from START to STOP.
void Play(ITYDataCollector& collector) {
    std::string url = "film.mp4";
    CTYContentInfo content(&url, 0);
    content.SetTitle("Film");
    collector.SetContentInfo(&content);
    collector.SendMediaEvent(TY_EVENT_START, 0, 0);
    for (int i = 0; i < 20; ++i) {
        collector.SendMediaEvent(static_cast<TY_EVENT_TYPE>(99), i, 0);
    }
    collector.Execute(100, 1, "text");
    collector.SendMediaEvent(TY_EVENT_STOP, 0, 0);
}

/// A host in a process of its own: each test's scenario ends it.
class CHostTest : public testing::Test {
  protected:
    CHostTest() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        std::ofstream(m_Settings) << "[db/tallyra]\nlog_on=1\n";
        setenv("REGDB_FILE", m_Settings.c_str(), 1);
        setenv("LOGSVC_OUTPUT", "stderr", 1);
        setenv("LOGSVC_LEVEL", "off", 1);
        m_Bus.BecomeSystemBus();
        m_Service.OwnName();
    }
    ~CHostTest() override { std::filesystem::remove(m_Settings); }

    /// Plays until the service was sent something.
    void PlayUntilItArrives(ITYDataCollector& collector) {
        for (int i = 0; i < 100 && !m_Service.WaitForRecords(1, std::chrono::milliseconds(300));
             ++i) {
            Play(collector);
        }
    }

    const std::string m_Settings =
        std::filesystem::temp_directory_path() / ("tallyra-host-" + std::to_string(getpid()));
    CPrivateBus m_Bus;
    receiver::CReceiver m_Service{m_Bus.Address()};
};

TEST_F(CHostTest, MayExitWithALiveCollector) {
    const auto scenario = [this] {
        ITYDataCollector* pCollector = MakeCollector().release();
        PlayUntilItArrives(*pCollector);
        std::exit(m_Service.Records().empty() ? 1 : 0);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

ITYDataCollector* g_pCollector = nullptr;

TEST_F(CHostTest, MayDeleteItsCollectorInAnExitHandler) {
    const auto scenario = [this] {
        g_pCollector = MakeCollector().release();
        PlayUntilItArrives(*g_pCollector);
        std::atexit([] { delete g_pCollector; });
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
    if (SANITIZED && GetParam() < 20) {
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

TEST_F(CHostTest, MayCallWithAnything) {
    const auto scenario = [] {
        const Collector collector(
            GetTYDataCollectorInstance(nullptr, static_cast<TY_PLAYER_ID>(-12345)));
        collector->SetServiceVersion(nullptr);
        collector->SetContentInfo(nullptr);
        collector->SetDrmType(static_cast<TY_DRM_TYPE>(1 << 30));
        collector->SetContentType(static_cast<TY_CONTENT_TYPE>(-1));
        collector->SetDuration(-1);
        collector->SendMediaEvent(static_cast<TY_EVENT_TYPE>(-7), -1, -1);
        collector->SendMediaError(static_cast<TY_ERROR_TYPE>(1 << 20));
        collector->GetVersion(nullptr, nullptr);
        _exit(collector->Execute(-1, 0, std::string(1 << 20, '\xff')) ? 1 : 0);
    };
    EXPECT_EXIT(scenario(), ExitedWithCode(0), "");
}

}  // namespace
