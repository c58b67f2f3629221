// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Attack.h"

#include "Proc.h"

#include <glib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

namespace {

constexpr unsigned kChildSeconds = 70;
constexpr long kMaxChildGrowthKib = 4096;

Collector g_Collector;
bool g_bChild = false;

/// Forks. The child runs `body` and exits with its result.
/// @return whether that was 0, in time
bool ChildSucceeds(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        g_bChild = true;
        alarm(kChildSeconds);
        std::exit(body());
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

int ReportMuch(ITYDataCollector& collector) {
    const long before = ReadProcKib(getpid(), "VmRSS");
    for (int i = 0; i < 100000; ++i) {
        collector.SendMediaEvent(kFreeEvent, i, 0);
    }
    collector.SetDuration(7);
    collector.SendMediaError(static_cast<TY_ERROR_TYPE>(31));
    const bool taken = collector.Execute(100, 1, "text");
    return Holds(!taken, "Execute refuses") &&
                   Holds(ReadProcKib(getpid(), "VmRSS") - before < kMaxChildGrowthKib,
                         "memory stays flat")
               ? 0
               : 1;
}

}  // namespace

// LeakSanitizer calls this before it checks. A forked child does not free inherited collectors.
extern "C" int __lsan_is_turned_off() {  // NOLINT: the sanitizer's name for it
    return g_bChild ? 1 : 0;
}

int MayDeleteTheCollectorInAForkedChild() {
    Collector collector = CollectorThatCollects();
    StartPlayback(*collector, 5);
    const bool child = ChildSucceeds([&] {
        collector.reset();
        return Holds(TimerEnds(), "the inherited send timer ends") ? 0 : 1;
    });
    return child && ParentContinues(std::move(collector)) ? 0 : 1;
}

int MayExitAForkedChildWithAGlobalCollector() {
    g_Collector = CollectorThatCollects();
    StartPlayback(*g_Collector, 5);
    const bool child = ChildSucceeds([] { return 0; });
    return child && ParentContinues(std::move(g_Collector)) ? 0 : 1;
}

int MayReportInAForkedChild() {
    Collector collector = CollectorThatCollects();
    StartPlayback(*collector, 5);
    const bool child = ChildSucceeds([&] {
        const int result = ReportMuch(*collector);
        static_cast<void>(collector.release());
        return result;
    });
    return child && ParentContinues(std::move(collector)) ? 0 : 1;
}

// A player that forks worker processes: each may have its own collector.
int MayMakeACollectorInAForkedChild() {
    Collector collector = CollectorThatCollects();
    const bool child = ChildSucceeds([&] {
        static_cast<void>(collector.release());
        Collector own = MakeCollector();
        if (!AwaitLog("Sender thread start done", 2)) {
            return 1;
        }
        StartPlayback(*own, 30);
        return AwaitLog("result : 1") && DeletesInTime(std::move(own)) ? 0 : 1;
    });
    return child && ParentContinues(std::move(collector)) ? 0 : 1;
}
