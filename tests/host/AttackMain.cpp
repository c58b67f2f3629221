// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Each attack is a function that runs in a process of its own. The log of the process is the
// platform double's; all other platform calls go to the Linux platform.

#include "Eventually.h"
#include "HostDescriptors.h"
#include "Player.h"
#include "Proc.h"
#include "doubles/PlatformDouble.h"

#include <dlfcn.h>
#include <glib.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

Collector g_Collector;
bool g_bChild = false;
int g_nReadyFd = -1;
std::atomic<std::promise<void>*> g_pConnecting{nullptr};
std::promise<void> g_Connect;

}  // namespace

// LeakSanitizer calls this before it checks. A forked child does not free inherited collectors.
extern "C" int __lsan_is_turned_off() {
    return g_bChild ? 1 : 0;
}

// Replaces connect for libdbus. Blocks until the test continues, if the test has asked for that.
int connect(int socket, const sockaddr* pAddress, socklen_t length) {
    using Function = int (*)(int, const sockaddr*, socklen_t);
    static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "connect"));
    if (std::promise<void>* pConnecting = g_pConnecting.exchange(nullptr)) {
        pConnecting->set_value();
        g_Connect.get_future().wait_for(kPatience);
    }
    return next(socket, pAddress, length);
}

namespace {

/// Reports a condition that does not hold on standard error.
/// @return the condition
bool Holds(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "does not hold: %s\n", what);
    }
    return condition;
}

/// @return whether `count` log lines with that text came within kPatience
bool AwaitLog(const std::string& text, std::size_t count = 1) {
    return CPlatformDouble::Instance().WaitForLog(text, count, kPatience);
}

/// @return the number of error lines in the log
std::size_t CountErrors() {
    const auto log = CPlatformDouble::Instance().Log();
    return static_cast<std::size_t>(std::count_if(
        log.begin(), log.end(), [](const auto& line) { return line.priority == LOGSVC_ERROR; }));
}

/// Makes a collector, and waits until its sender runs.
Collector CollectorThatCollects() {
    Collector collector = MakeCollector();
    if (!Holds(AwaitLog("Sender thread start done"), "the sender starts")) {
        std::_Exit(1);
    }
    return collector;
}

/// @return whether the collector was deleted within four seconds
bool DeletesInTime(Collector collector) {
    const auto begin = std::chrono::steady_clock::now();
    collector.reset();
    return Holds(std::chrono::steady_clock::now() - begin <= std::chrono::seconds(4),
                 "the collector is deleted within 4 s");
}

/// Forks. The child runs `body` and exits.
/// @return whether `body` returned true, in time
bool ChildSucceeds(const std::function<bool()>& body) {
    constexpr unsigned kChildSeconds = 70;
    const pid_t child = fork();
    if (child == 0) {
        g_bChild = true;
        alarm(kChildSeconds);
        std::exit(body() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return Holds(status == 0, "the child exits with 0");
}

/// The child must not affect the parent's collector.
bool ParentContinues(Collector collector) {
    StartPlayback(*collector, 30);
    return Holds(AwaitLog("result : 1", 1), "the parent's records are accepted") &&
           DeletesInTime(std::move(collector));
}

/// Fires the send timer's source, the first one of the process, in the host's main context.
/// @return whether the source is gone then
bool TimerEnds() {
    constexpr guint kFirstSource = 1;
    GSource* pTimer = g_main_context_find_source_by_id(nullptr, kFirstSource);
    if (pTimer == nullptr) {
        return false;
    }
    g_source_set_ready_time(pTimer, 0);
    g_main_context_iteration(nullptr, FALSE);
    return g_main_context_find_source_by_id(nullptr, kFirstSource) == nullptr;
}

bool ReportMuch(ITYDataCollector& collector) {
    constexpr long kMaxChildGrowthKib = 4096;
    const long before = ReadProcKib(getpid(), "VmRSS");
    for (int i = 0; i < 100000; ++i) {
        collector.SendMediaEvent(kFreeEvent, i, 0);
    }
    collector.SetDuration(7);
    collector.SendMediaError(static_cast<TY_ERROR_TYPE>(31));
    const bool taken = collector.Execute(100, 1, "text");
    const bool flat = ReadProcKib(getpid(), "VmRSS") - before < kMaxChildGrowthKib;
    return Holds(!taken, "Execute refuses") && Holds(flat, "memory stays flat");
}

bool MayDeleteTheCollectorInAForkedChild() {
    Collector collector = CollectorThatCollects();
    StartPlayback(*collector, 5);
    const bool child = ChildSucceeds([&] {
        collector.reset();
        return Holds(TimerEnds(), "the inherited send timer ends");
    });
    return child && ParentContinues(std::move(collector));
}

bool MayExitAForkedChildWithAGlobalCollector() {
    g_Collector = CollectorThatCollects();
    StartPlayback(*g_Collector, 5);
    const bool child = ChildSucceeds([] { return true; });
    return child && ParentContinues(std::move(g_Collector));
}

bool MayReportInAForkedChild() {
    Collector collector = CollectorThatCollects();
    StartPlayback(*collector, 5);
    const bool child = ChildSucceeds([&] {
        const bool result = ReportMuch(*collector);
        static_cast<void>(collector.release());
        return result;
    });
    return child && ParentContinues(std::move(collector));
}

// A player that forks worker processes: each may have its own collector.
bool MayMakeACollectorInAForkedChild() {
    Collector collector = CollectorThatCollects();
    const bool child = ChildSucceeds([&] {
        static_cast<void>(collector.release());
        Collector own = MakeCollector();
        if (!AwaitLog("Sender thread start done", 2)) {
            return false;
        }
        StartPlayback(*own, 30);
        return AwaitLog("result : 1") && DeletesInTime(std::move(own));
    });
    return child && ParentContinues(std::move(collector));
}

void* MakeAndDelete(void* pMade) {
    for (;;) {
        MakeCollector().reset();
        ++*static_cast<std::atomic<int>*>(pMade);
        pthread_testcancel();
    }
    return nullptr;
}

/// @return whether the cancellation ended the thread
bool CancelOne(int microseconds) {
    std::atomic<int> made{0};
    pthread_t thread{};
    pthread_create(&thread, nullptr, &MakeAndDelete, &made);
    while (made == 0) {
        sched_yield();
    }
    usleep(static_cast<useconds_t>(microseconds));
    pthread_cancel(thread);
    void* pResult = nullptr;
    pthread_join(thread, &pResult);
    return pResult == PTHREAD_CANCELED;
}

void ExitWithSuccess(int /*signal*/) {
    _exit(0);
}

void Ignore(int /*signal*/) {}

bool MayCancelAThreadThatMakesAndDeletesCollectors() {
    for (int round = 0; round < 50; ++round) {
        if (!Holds(CancelOne(round * 100), "the cancellation ends the thread")) {
            return false;
        }
    }
    return true;
}

bool MayHaveATinyDefaultStack() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, PTHREAD_STACK_MIN);
    pthread_setattr_default_np(&attributes);
    Collector collector = CollectorThatCollects();
    StartPlayback(*collector);
    const bool accepted = Holds(AwaitLog("result : 1"), "records are accepted");
    return DeletesInTime(std::move(collector)) && accepted;
}

// The alternate stack is for this thread only; a library thread runs the handler on its own stack.
bool MayHandleAFaultOnALibraryThread() {
    static std::array<char, 65536> stack;
    const stack_t alternate{stack.data(), 0, stack.size()};
    sigaltstack(&alternate, nullptr);
    struct sigaction action {};
    action.sa_handler = &ExitWithSuccess;
    action.sa_flags = SA_ONSTACK;
    sigaction(SIGSEGV, &action, nullptr);
    CPlatformDouble::Instance().onLog = [](const PlatformLogLine& line) {
        if (line.text == "CTYDataSender thread sleep....") {
            *reinterpret_cast<volatile int*>(std::uintptr_t{8}) = 1;
        }
    };
    const Collector collector = MakeCollector();
    AwaitLog("CTYDataSender thread wake up!!");
    return false;
}

bool MaySetItsSigpipeHandlerWhileAnotherThreadConnects() {
    signal(SIGPIPE, SIG_DFL);
    std::promise<void> connecting;
    g_pConnecting = &connecting;
    std::thread making([] { MakeCollector().reset(); });
    connecting.get_future().wait_for(kPatience);
    signal(SIGPIPE, &Ignore);
    g_Connect.set_value();
    making.join();
    return Holds(signal(SIGPIPE, SIG_DFL) == &Ignore, "the host's handler is kept");
}

// Without a service the records stay queued, so all of them are in memory at once.
bool MayPlayAUrlOfFiveMebibytes() {
    constexpr long kMaxGrowthKib = 64 * 1024;
    Collector collector = MakeCollector();
    const long before = ReadProcKib(getpid(), "VmHWM");
    StartPlayback(*collector, 150, "data:video/mp4;base64," + std::string(5 << 20, 'u'));
    const bool analysed = Holds(AwaitLog("param1 149."), "all records are analysed");
    const bool flat =
        Holds(ReadProcKib(getpid(), "VmHWM") - before < kMaxGrowthKib, "all records share the URL");
    return DeletesInTime(std::move(collector)) && analysed && flat;
}

bool MayCloseAllDescriptors() {
    Collector collector = CollectorThatCollects();
    closefrom(3);
    StartPlayback(*collector);
    const bool failed = Holds(AwaitLog("SendData failed, data clear"), "the batch fails");
    return DeletesInTime(std::move(collector)) && failed;
}

bool MayReuseTheNumbersOfClosedDescriptors() {
    constexpr int kNumbers = 255;
    Collector collector = CollectorThatCollects();
    const CHostDescriptors sockets("", 0, kNumbers);
    StartPlayback(*collector);
    bool ok = Holds(AwaitLog("SendData failed, data clear"), "the batch fails");
    ok = Holds(sockets.AreUntouched(), "the sender does not touch the host's sockets") && ok;
    ok = DeletesInTime(std::move(collector)) && ok;
    return Holds(sockets.AreUntouched(), "deletion does not touch the host's sockets") && ok;
}

// The test starts the service when it reads a byte from g_nReadyFd.
bool MayUseUpAllDescriptors() {
    const rlimit few{64, 64};
    setrlimit(RLIMIT_NOFILE, &few);
    std::atomic<std::size_t> errors{0};
    CPlatformDouble::Instance().onLog = [&errors](const PlatformLogLine& line) {
        if (line.text == "service is connected!") {
            errors = CountErrors();
        }
    };
    Collector collector = MakeCollector();
    StartPlayback(*collector, 5);
    bool ok = Holds(AwaitLog("IsConnected returns 0"), "the service is not up yet");
    std::vector<int> taken;
    for (int fd = dup(0); fd >= 0; fd = dup(0)) {
        taken.push_back(fd);
    }
    static_cast<void>(write(g_nReadyFd, "x", 1));
    ok = Holds(AwaitLog("Analyzer thread finished"), "collection stays off") && ok;
    ok = Holds(AwaitLog("drop collected data"), "queued records are dropped") && ok;
    // One line for the key that cannot be read, one for the dropped records.
    ok = Holds(CountErrors() == errors + 2, "one error line gives the reason") && ok;
    for (const int fd : taken) {
        close(fd);
    }
    ok = Holds(AwaitLog("m_isDataCollectOn : [1]"),
               "the key is watched once descriptors are free") &&
         ok;
    return DeletesInTime(std::move(collector)) && ok;
}

struct Attack {
    const char* name;
    bool (*run)();
};

constexpr Attack kAttacks[] = {
    {"fork-delete", &MayDeleteTheCollectorInAForkedChild},
    {"fork-exit", &MayExitAForkedChildWithAGlobalCollector},
    {"fork-report", &MayReportInAForkedChild},
    {"fork-make", &MayMakeACollectorInAForkedChild},
    {"close-all", &MayCloseAllDescriptors},
    {"reuse-numbers", &MayReuseTheNumbersOfClosedDescriptors},
    {"use-up", &MayUseUpAllDescriptors},
    {"cancel", &MayCancelAThreadThatMakesAndDeletesCollectors},
    {"tiny-stack", &MayHaveATinyDefaultStack},
    {"fault", &MayHandleAFaultOnALibraryThread},
    {"sigpipe-handler", &MaySetItsSigpipeHandlerWhileAnotherThreadConnects},
    {"long-url", &MayPlayAUrlOfFiveMebibytes},
};

}  // namespace

/// Usage: tallyra-attack NAME [FD]
int main(int argc, char** argv) {
    constexpr std::size_t longestLine = 1024;
    alarm(150);
    // Lines contain the URL, which may be 5 MiB long.
    CPlatformDouble::Instance().longestLine = longestLine;
    g_nReadyFd = argc > 2 ? std::atoi(argv[2]) : -1;
    for (const Attack& attack : kAttacks) {
        if (argc > 1 && attack.name == std::string(argv[1])) {
            return attack.run() ? 0 : 1;
        }
    }
    return 2;
}
