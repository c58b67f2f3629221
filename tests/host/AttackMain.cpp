// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Each attack is a function that runs in a process of its own, without a test's bus and receiver in
// it. The log of the process is the platform double's; all other platform calls go to the Linux
// platform.

#include "HostDescriptors.h"
#include "HostFixture.h"
#include "Proc.h"
#include "doubles/PlatformDouble.h"

#include <pthread.h>
#include <sys/wait.h>

namespace {

Collector g_Collector;
bool g_bChild = false;
int g_nReadyFd = -1;

}  // namespace

// LeakSanitizer calls this before it checks. A forked child does not free inherited collectors.
extern "C" int __lsan_is_turned_off() {
    return g_bChild ? 1 : 0;
}

namespace {

void ExpectLog(const std::string& text, std::size_t count = 1) {
    EXPECT_TRUE(CPlatformDouble::Instance().WaitForLog(text, count, kPatience)) << text;
}

/// @return the number of error lines in the log
std::ptrdiff_t CountErrors() {
    return std::ranges::count(CPlatformDouble::Instance().Log(), LOGSVC_ERROR,
                              &PlatformLogLine::priority);
}

/// Makes a collector, and waits until its sender runs.
Collector CollectorThatCollects() {
    Collector collector = MakeCollector();
    ExpectLog("Sender thread start done");
    return collector;
}

void DeleteInTime(Collector collector) {
    const auto begin = std::chrono::steady_clock::now();
    collector.reset();
    EXPECT_LE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
}

/// Forks. The child runs `body` and exits; the parent's collector must not be affected.
void Fork(Collector& collector, const std::function<void()>& body) {
    constexpr unsigned kChildSeconds = 70;
    const pid_t child = fork();
    if (child == 0) {
        g_bChild = true;
        alarm(kChildSeconds);
        body();
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    StartPlayback(*collector, 30);
    ExpectLog("result : 1");
    DeleteInTime(std::move(collector));
}

Collector PlayingCollector() {
    Collector collector = CollectorThatCollects();
    StartPlayback(*collector, 5);
    return collector;
}

void DeleteTheCollectorInAForkedChild() {
    Collector collector = PlayingCollector();
    Fork(collector, [&] {
        collector.reset();
        // The inherited send timer, the first source of the process, ends when it fires.
        constexpr guint kFirstSource = 1;
        GSource* pTimer = g_main_context_find_source_by_id(nullptr, kFirstSource);
        ASSERT_NE(pTimer, nullptr);
        g_source_set_ready_time(pTimer, 0);
        g_main_context_iteration(nullptr, FALSE);
        EXPECT_EQ(g_main_context_find_source_by_id(nullptr, kFirstSource), nullptr);
    });
}

void ExitAForkedChildWithAGlobalCollector() {
    g_Collector = PlayingCollector();
    Fork(g_Collector, [] {});
}

void ReportInAForkedChild() {
    constexpr long kMaxGrowthKib = 4096;
    Collector collector = PlayingCollector();
    Fork(collector, [&] {
        const long before = ReadProcKib(getpid(), "VmRSS");
        for (int i = 0; i < 100000; ++i) {
            collector->SendMediaEvent(kFreeEvent, i, 0);
        }
        collector->SetDuration(7);
        collector->SendMediaError(static_cast<TY_ERROR_TYPE>(31));
        EXPECT_FALSE(collector->Execute(100, 1, "text"));
        EXPECT_LT(ReadProcKib(getpid(), "VmRSS"), before + kMaxGrowthKib);
        static_cast<void>(collector.release());
    });
}

// A player that forks worker processes: each may have its own collector.
void MakeACollectorInAForkedChild() {
    Collector collector = CollectorThatCollects();
    Fork(collector, [&] {
        static_cast<void>(collector.release());
        Collector own = MakeCollector();
        ExpectLog("Sender thread start done", 2);
        StartPlayback(*own, 30);
        ExpectLog("result : 1");
        DeleteInTime(std::move(own));
    });
}

void CancelAThreadThatMakesAndDeletesCollectors() {
    const auto makeAndDelete = [](void* pMade) -> void* {
        for (;; pthread_testcancel()) {
            MakeCollector().reset();
            ++*static_cast<std::atomic<int>*>(pMade);
        }
    };
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> made{0};
        pthread_t thread{};
        pthread_create(&thread, nullptr, makeAndDelete, &made);
        while (made == 0) {
            sched_yield();
        }
        usleep(static_cast<useconds_t>(round) * 100);
        pthread_cancel(thread);
        void* pResult = nullptr;
        pthread_join(thread, &pResult);
        ASSERT_EQ(pResult, PTHREAD_CANCELED);
    }
}

// Without a service the records stay queued, so all of them are in memory at once.
void PlayAUrlOfFiveMebibytes() {
    constexpr long kMaxGrowthKib = 64 * 1024;
    Collector collector = MakeCollector();
    const long before = ReadProcKib(getpid(), "VmHWM");
    StartPlayback(*collector, 150, "data:video/mp4;base64," + std::string(5 << 20, 'u'));
    ExpectLog("param1 149.");
    EXPECT_LT(ReadProcKib(getpid(), "VmHWM"), before + kMaxGrowthKib);
    DeleteInTime(std::move(collector));
}

void CloseAllDescriptors() {
    Collector collector = CollectorThatCollects();
    closefrom(3);
    StartPlayback(*collector);
    ExpectLog("SendData failed, data clear");
    DeleteInTime(std::move(collector));
}

void ReuseTheNumbersOfClosedDescriptors() {
    constexpr int kNumbers = 255;
    Collector collector = CollectorThatCollects();
    const CHostDescriptors sockets("", 0, kNumbers);
    StartPlayback(*collector);
    ExpectLog("SendData failed, data clear");
    EXPECT_TRUE(sockets.AreUntouched());
    DeleteInTime(std::move(collector));
    EXPECT_TRUE(sockets.AreUntouched());
}

// The test starts the service when it reads a byte from g_nReadyFd.
void UseUpAllDescriptors() {
    const rlimit few{64, 64};
    setrlimit(RLIMIT_NOFILE, &few);
    std::atomic<std::ptrdiff_t> errors{0};
    CPlatformDouble::Instance().onLog = [&errors](const PlatformLogLine& line) {
        if (line.text == "service is connected!") {
            errors = CountErrors();
        }
    };
    Collector collector = MakeCollector();
    StartPlayback(*collector, 5);
    ExpectLog("IsConnected returns 0");
    std::vector<int> taken;
    for (int fd = dup(0); fd >= 0; fd = dup(0)) {
        taken.push_back(fd);
    }
    EXPECT_EQ(write(g_nReadyFd, "x", 1), 1);
    ExpectLog("Analyzer thread finished");
    ExpectLog("drop collected data");
    // One line for the key that cannot be read, one for the dropped records.
    EXPECT_EQ(CountErrors(), errors + 2);
    std::ranges::for_each(taken, &close);
    // The key is watched once descriptors are free.
    ExpectLog("m_isDataCollectOn : [1]");
    DeleteInTime(std::move(collector));
}

const std::map<std::string, void (*)()> kAttacks = {
    {"fork-delete", &DeleteTheCollectorInAForkedChild},
    {"fork-exit", &ExitAForkedChildWithAGlobalCollector},
    {"fork-report", &ReportInAForkedChild},
    {"fork-make", &MakeACollectorInAForkedChild},
    {"close-all", &CloseAllDescriptors},
    {"reuse-numbers", &ReuseTheNumbersOfClosedDescriptors},
    {"use-up", &UseUpAllDescriptors},
    {"cancel", &CancelAThreadThatMakesAndDeletesCollectors},
    {"long-url", &PlayAUrlOfFiveMebibytes},
};

}  // namespace

/// Usage: tallyra-attack NAME [FD]
int main(int argc, char** argv) {
    testing::InitGoogleTest();
    alarm(150);
    // Lines contain the URL, which may be 5 MiB long.
    CPlatformDouble::Instance().longestLine = 1024;
    g_nReadyFd = argc > 2 ? std::atoi(argv[2]) : -1;
    kAttacks.at(argv[1])();
    return testing::Test::HasFailure() ? 1 : 0;
}
