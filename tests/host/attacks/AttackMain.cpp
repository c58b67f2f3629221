// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Attack.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

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

bool AwaitLog(const std::string& text, std::size_t count) {
    return CPlatformDouble::Instance().WaitForLog(text, count, kPatience);
}

std::size_t CountErrors() {
    const auto log = CPlatformDouble::Instance().Log();
    return static_cast<std::size_t>(std::count_if(
        log.begin(), log.end(), [](const auto& line) { return line.priority == LOGSVC_ERROR; }));
}

Collector CollectorThatCollects() {
    Collector collector = MakeCollector();
    if (!Holds(AwaitLog("Sender thread start done"), "the sender starts")) {
        std::_Exit(1);
    }
    return collector;
}

bool DeletesInTime(Collector collector) {
    const auto begin = std::chrono::steady_clock::now();
    collector.reset();
    return Holds(std::chrono::steady_clock::now() - begin <= std::chrono::seconds(4),
                 "the collector is deleted within 4 s");
}

bool Holds(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "does not hold: %s\n", what);
    }
    return condition;
}

/// Usage: tallyra-attack NAME [FD]
int main(int argc, char** argv) {
    constexpr std::size_t longestLine = 1024;
    alarm(150);
    // Lines contain the URL, which may be 5 MiB long.
    CPlatformDouble::Instance().longestLine = longestLine;
    for (const Attack& attack : kAttacks) {
        if (argc > 1 && std::strcmp(argv[1], attack.name) == 0) {
            return attack.run(argc > 2 ? std::atoi(argv[2]) : -1);
        }
    }
    return 2;
}
