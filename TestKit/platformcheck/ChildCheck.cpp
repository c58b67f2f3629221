// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ChildCheck.h"

#include "EndSignals.h"

#include <malloc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <system_error>
#include <thread>

namespace {

constexpr std::chrono::milliseconds kPollPeriod{5};

// Calls of a check, and its waits for callbacks, come to less than this many times the patience.
constexpr int kWholeCheck = 8;

// Freed memory is filled with this byte, so that a string that was freed too early reads as
// rubbish instead of its old text.
constexpr int kFreedByte = 0xA5;

struct Unmap {
    void operator()(CProgress* pProgress) const { munmap(pProgress, sizeof(CProgress)); }
};

std::unique_ptr<CProgress, Unmap> MakeShared() {
    void* pMemory =
        mmap(nullptr, sizeof(CProgress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (pMemory == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    return std::unique_ptr<CProgress, Unmap>(new (pMemory) CProgress);
}

// A group of its own, so that a hanging command of the check ends with it. Handlers of this program
// would hide a crash.
void PrepareChild() {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    ReleaseEndSignals();
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        std::signal(signal, SIG_DFL);
    }
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    mallopt(M_PERTURB, kFreedByte);
}

std::string Seconds(std::chrono::milliseconds time) {
    const auto count = time.count();
    return count % 1000 == 0 ? std::to_string(count / 1000) + " s" : std::to_string(count) + " ms";
}

bool IsCommand(const CProgress::Call& call) {
    return call.name.starts_with("--");
}

std::optional<Outcome> FindHang(const CProgress& progress, std::chrono::milliseconds patience,
                                CProgress::Clock::duration age) {
    const auto call = progress.OldestCall();
    if (call && call->age > patience + progress.Allowed()) {
        return Outcome{IsCommand(*call) ? Verdict::NOT_TRIED : Verdict::BROKEN,
                       (IsCommand(*call) ? "the command of " : "") + call->name +
                           " did not return within " + Seconds(patience)};
    }
    const auto whole = patience * kWholeCheck + kQuiet + kRush;
    if (age > whole) {
        return Outcome{Verdict::BROKEN, "the check did not end within " + Seconds(whole)};
    }
    return std::nullopt;
}

Outcome DescribeEnd(const CProgress& progress, int status) {
    if (progress.Found() != Verdict::NOT_ENDED) {
        return {progress.Found(), progress.Text()};
    }
    const auto call = progress.OldestCall();
    const std::string where = call ? call->name : "a thread of the platform";
    if (WIFSIGNALED(status)) {
        return {Verdict::BROKEN, where + " crashed: " + strsignal(WTERMSIG(status))};
    }
    return {Verdict::BROKEN,
            where + " ended the process with status " + std::to_string(WEXITSTATUS(status))};
}

void Kill(pid_t child) {
    kill(-child, SIGKILL);
    waitpid(child, nullptr, 0);
}

void Sleep(pid_t child, AtSignal atSignal) {
    if (atSignal == AtSignal::GO_ON) {
        std::this_thread::sleep_for(kPollPeriod);
    } else if (const int signal = AwaitEndSignal(kPollPeriod); signal != 0) {
        Kill(child);
        throw Interruption{signal};
    }
}

Outcome Await(pid_t child, const CProgress& progress, std::chrono::milliseconds patience,
              AtSignal atSignal) {
    const auto begin = CProgress::Clock::now();
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (const auto hang = FindHang(progress, patience, CProgress::Clock::now() - begin)) {
            Kill(child);
            return *hang;
        }
        Sleep(child, atSignal);
    }
    return DescribeEnd(progress, status);
}

// What the check itself lacks, such as memory, is no fault of the platform, whose functions cannot
// throw past their call.
[[noreturn]] void RunToVerdict(const std::function<void(CProgress&)>& check, CProgress& progress) {
    try {
        check(progress);
    } catch (const std::exception& error) {
        progress.End(Verdict::NOT_TRIED, std::string("the check failed: ") + error.what());
    }
    progress.End(Verdict::HOLDS, "");
}

}  // namespace

Outcome RunInChild(const std::function<void(CProgress&)>& check, std::chrono::milliseconds patience,
                   AtSignal atSignal) {
    const auto pProgress = MakeShared();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        PrepareChild();
        RunToVerdict(check, *pProgress);
    }
    setpgid(child, child);
    return Await(child, *pProgress, patience, atSignal);
}
