// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Attack.h"

#include "logsvc.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

std::function<void(const std::string& text)> g_OnLog;

namespace {

struct Log {
    std::mutex mutex;
    std::condition_variable written;
    std::vector<std::pair<int, std::string>> lines;
};

// Never destroyed: the library logs for as long as a collector lives.
Log& TheLog() {
    static Log& log = *new Log;
    return log;
}

struct Attack {
    const char* name;
    int (*run)(int argument);
};

template <int (*Run)()>
int WithoutArgument(int /*argument*/) {
    return Run();
}

constexpr std::array<Attack, 12> kAttacks{{
    {"fork-delete", &WithoutArgument<&MayDeleteTheCollectorInAForkedChild>},
    {"fork-exit", &WithoutArgument<&MayExitAForkedChildWithAGlobalCollector>},
    {"fork-report", &WithoutArgument<&MayReportInAForkedChild>},
    {"fork-make", &WithoutArgument<&MayMakeACollectorInAForkedChild>},
    {"close-all", &WithoutArgument<&MayCloseAllDescriptors>},
    {"reuse-numbers", &WithoutArgument<&MayReuseTheNumbersOfClosedDescriptors>},
    {"use-up", &MayUseUpAllDescriptors},
    {"cancel", &WithoutArgument<&MayCancelAThreadThatMakesAndDeletesCollectors>},
    {"tiny-stack", &WithoutArgument<&MayHaveATinyDefaultStack>},
    {"fault", &WithoutArgument<&MayHandleAFaultOnALibraryThread>},
    {"sigpipe-handler", &WithoutArgument<&MaySetItsSigpipeHandlerWhileAnotherThreadConnects>},
    {"long-url", &WithoutArgument<&MayPlayAUrlOfFiveMebibytes>},
}};

}  // namespace

// The library's own lines, in place of the platform's log: "file: function(line) > text".
int logsvc_print(int /*buffer*/, int priority, const char* /*tag*/, const char* format, ...) {
    std::array<char, 1024> line{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    const char* pText = std::strstr(line.data(), " > ");
    const std::string text = pText != nullptr ? pText + 3 : line.data();
    if (g_OnLog) {
        g_OnLog(text);
    }
    Log& log = TheLog();
    const std::lock_guard lock(log.mutex);
    log.lines.emplace_back(priority, text);
    log.written.notify_all();
    return 0;
}

bool AwaitLog(const std::string& text, std::size_t count) {
    Log& log = TheLog();
    std::unique_lock lock(log.mutex);
    return log.written.wait_for(lock, kPatience, [&] {
        const auto found = std::count_if(log.lines.begin(), log.lines.end(),
                                         [&](const auto& line) { return line.second == text; });
        return static_cast<std::size_t>(found) >= count;
    });
}

std::size_t CountLog(int priority) {
    Log& log = TheLog();
    const std::lock_guard lock(log.mutex);
    const auto found = std::count_if(log.lines.begin(), log.lines.end(),
                                     [&](const auto& line) { return line.first == priority; });
    return static_cast<std::size_t>(found);
}

Collector MakeCollector() {
    return Collector(GetTYDataCollectorInstance("org.example.host", TY_PLAYER_NATIVE));
}

Collector CollectorThatCollects() {
    Collector collector = MakeCollector();
    if (!Holds(AwaitLog("Sender thread start done"), "the sender starts")) {
        std::_Exit(1);
    }
    return collector;
}

void Play(ITYDataCollector& collector, int events, const std::string& url) {
    std::string copy = url;
    CTYContentInfo content(&copy, 0);
    content.SetTitle("Film");
    collector.SetContentInfo(&content);
    collector.SendMediaEvent(TY_EVENT_START, 0, 0);
    for (int i = 0; i < events; ++i) {
        collector.SendMediaEvent(static_cast<TY_EVENT_TYPE>(99), i, 0);
    }
}

bool DeletesInTime(Collector collector) {
    const auto begin = std::chrono::steady_clock::now();
    collector.reset();
    return Holds(std::chrono::steady_clock::now() - begin <= std::chrono::seconds(4),
                 "the collector is deleted within 4 s");
}

bool Holds(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "does not hold: %s\n", what);
    }
    return ok;
}

/// Usage: tallyra-attack NAME [FD]
int main(int argc, char** argv) {
    alarm(150);
    for (const Attack& attack : kAttacks) {
        if (argc > 1 && std::strcmp(argv[1], attack.name) == 0) {
            return attack.run(argc > 2 ? std::atoi(argv[2]) : -1);
        }
    }
    return 2;
}
