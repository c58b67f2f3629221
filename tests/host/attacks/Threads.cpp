// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Attack.h"

#include "Proc.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <future>
#include <string>
#include <thread>

namespace {

std::atomic<std::promise<void>*> g_pConnecting{nullptr};
std::promise<void> g_Connect;

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

}  // namespace

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

int MayCancelAThreadThatMakesAndDeletesCollectors() {
    for (int round = 0; round < 50; ++round) {
        if (!Holds(CancelOne(round * 100), "the cancellation ends the thread")) {
            return 1;
        }
    }
    return 0;
}

int MayHaveATinyDefaultStack() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, PTHREAD_STACK_MIN);
    pthread_setattr_default_np(&attributes);
    Collector collector = CollectorThatCollects();
    StartPlayback(*collector);
    const bool accepted = Holds(AwaitLog("result : 1"), "records are accepted");
    return DeletesInTime(std::move(collector)) && accepted ? 0 : 1;
}

// The alternate stack is for this thread only; a library thread runs the handler on its own stack.
int MayHandleAFaultOnALibraryThread() {
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
    return 1;
}

int MaySetItsSigpipeHandlerWhileAnotherThreadConnects() {
    signal(SIGPIPE, SIG_DFL);
    std::promise<void> connecting;
    g_pConnecting = &connecting;
    std::thread making([] { MakeCollector().reset(); });
    connecting.get_future().wait_for(kPatience);
    signal(SIGPIPE, &Ignore);
    g_Connect.set_value();
    making.join();
    return Holds(signal(SIGPIPE, SIG_DFL) == &Ignore, "the host's handler is kept") ? 0 : 1;
}

// Without a service the records stay queued, so all of them are in memory at once.
int MayPlayAUrlOfFiveMebibytes() {
    constexpr long kMaxGrowthKib = 64 * 1024;
    Collector collector = MakeCollector();
    const long before = ReadProcKib(getpid(), "VmHWM");
    StartPlayback(*collector, 150, "data:video/mp4;base64," + std::string(5 << 20, 'u'));
    const bool analysed = Holds(AwaitLog("param1 149."), "all records are analysed");
    const bool flat =
        Holds(ReadProcKib(getpid(), "VmHWM") - before < kMaxGrowthKib, "all records share the URL");
    return DeletesInTime(std::move(collector)) && analysed && flat ? 0 : 1;
}
