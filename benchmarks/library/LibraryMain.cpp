// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-library", and its two shortest benchmarks: an idle collector, and the
// size of the library.

#include "Benchmarks.h"
#include "Stage.h"

#include <sys/resource.h>

namespace {

/// The use of all threads except the calling one, which is the player's.
struct Uses {
    Uses() {
        rusage all{};
        rusage player{};
        getrusage(RUSAGE_SELF, &all);
        getrusage(RUSAGE_THREAD, &player);
        switches = static_cast<double>(all.ru_nvcsw - player.ru_nvcsw);
        nanoseconds = ProcessorTimeOf(getpid()) - ProcessorTime();
    }

    double switches;  ///< voluntary context switches
    double nanoseconds;
};

std::vector<double> Watch(int seconds) {
    constexpr std::chrono::seconds kSettle{2};
    const CStage stage;
    const CPlayer player(stage);
    std::this_thread::sleep_for(kSettle);
    const Uses before;
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const Uses after;
    const double minutes = seconds / 60.0;
    return {(after.switches - before.switches) / minutes,
            (after.nanoseconds - before.nanoseconds) / kNsPerMs / minutes};
}

/// Measures an idle connected collector, in several processes at once. The amount is seconds.
void MeasureIdle(const Options& options, const CResults& results) {
    std::vector<std::unique_ptr<CChild>> children;
    for (int i = 0; i < options.runs; ++i) {
        children.push_back(std::make_unique<CChild>([&] { return Watch(options.amount); }));
    }
    Series runs;
    for (const auto& pChild : children) {
        const std::vector<double> result = pChild->Result();
        runs["wake-ups"].push_back(result.at(0));
        runs["milliseconds"].push_back(result.at(1));
    }
    results.Add({"idle connected collector, wake-ups", "", "/min"}, runs["wake-ups"],
                Goal::AtMost(8));
    results.Add({"idle connected collector, processor", "", "ms/min"}, runs["milliseconds"],
                Goal::AtMost(1));
}

/// @return resident KiB of a bare C++ process that loads a library, of the mapped files whose path
///         contains the name
double ResidentKib(const std::string& library, const std::string& name) {
    const std::string command =
        "LD_BIND_NOW=1 LD_PRELOAD='libstdc++.so.6 " + library + "' awk '/^[0-9a-f]+-/ { own = /" +
        name + "/ } /^Rss:/ && own { sum += $2 } END { print sum }' /proc/self/smaps";
    const std::unique_ptr<FILE, int (*)(FILE*)> output(popen(command.c_str(), "r"), &pclose);
    double kib = 0;
    if (output == nullptr || std::fscanf(output.get(), "%lf", &kib) != 1 || kib == 0) {
        throw std::runtime_error("cannot measure a process with " + library);
    }
    return kib;
}

/// Measures the size of the library, and the memory that it adds to a player. Settings: its path,
/// its bytes without symbols, and the number of its relocations.
void MeasureFootprint(const Options& options, const CResults& results) {
    constexpr double kBytesPerKb = 1000;
    const std::string& library = options.settings.at(0);
    results.Add({"libtallyra.so, stripped", "", "KB"},
                {std::stod(options.settings.at(1)) / kBytesPerKb}, Goal::AtMost(150));
    results.Add({"libtallyra.so, relocations", "", ""}, {std::stod(options.settings.at(2))});
    Series runs;
    for (int run = 0; run < options.runs; ++run) {
        runs["own"].push_back(ResidentKib(library, "libtallyra\\.so"));
        runs["all"].push_back(ResidentKib(library, "") - ResidentKib("", ""));
    }
    results.Add({"resident memory, the library's own pages", "", "KiB"}, runs["own"]);
    results.Add({"resident memory, with all that it links to", "", "KiB"}, runs["all"]);
}

}  // namespace

int main(int argc, char** argv) {
    return RunBenchmark(argc, argv,
                        {{"events", &MeasureEvents},
                         {"pipeline", &MeasurePipeline},
                         {"players", &MeasurePlayers},
                         {"queue", &MeasureQueue},
                         {"idle", &MeasureIdle},
                         {"life", &MeasureLife},
                         {"footprint", &MeasureFootprint}});
}
