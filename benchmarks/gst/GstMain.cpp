// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-gst": measures the processor time of a GStreamer player with the
// observer against the same player without it. The two play the same content in turns, in real
// time and without window and sound. The processor time counts the whole process: the decoder's
// threads, the observer's and the library's.

#include "Benchmark.h"
#include "ChildProcess.h"
#include "PrivateBus.h"
#include "ServiceProcess.h"
#include "TemporaryFolder.h"

#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

namespace {

constexpr std::chrono::minutes kLongest{2};

double ChildrensProcessorTime() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    const timeval& user = usage.ru_utime;
    const timeval& system = usage.ru_stime;
    return static_cast<double>(user.tv_sec + system.tv_sec) +
           static_cast<double>(user.tv_usec + system.tv_usec) / 1e6;
}

// Only this child ends meanwhile, so the time is its own.
double Play(const std::vector<std::string>& player) {
    const double before = ChildrensProcessorTime();
    CChildProcess process(player, {.output = "/dev/null"});
    if (process.WaitForExit(kLongest) != 0) {
        throw std::runtime_error("the player failed: " + player.front());
    }
    return ChildrensProcessorTime() - before;
}

// The service has a processor time of its own, on the device as well as here.
void Measure(const CResults& results, int runs, const std::string& service,
             const std::vector<std::string>& observed, const std::vector<std::string>& unobserved) {
    const CTemporaryFolder folder;
    folder.Write("regdb.ini", "[db/tallyra]\nlog_on=1\n");
    setenv("REGDB_FILE", (folder.Path() / "regdb.ini").c_str(), 1);
    const CPrivateBus bus;
    bus.BecomeSystemBus();
    CServiceProcess process(service, bus.Address(), {"--db", folder.Path() / "store.db"});
    process.WaitUntilReady();
    Play(unobserved);
    Series times;
    for (int run = 0; run < runs; ++run) {
        times["with"].push_back(Play(observed));
        times["without"].push_back(Play(unobserved));
    }
    results.Add({"processor time of a player, observed", "the same, unobserved", "x"},
                Ratios(times["with"], times["without"]), Goal::AtMost(1.02));
    results.AddDetail("30 s of a film, observed", "s", times["with"]);
    results.AddDetail("30 s of a film, unobserved", "s", times["without"]);
}

}  // namespace

// Arguments: "gst", folder of the results, runs, not used, service, player, URI
int main(int argc, char** argv) {
    if (argc != 8) {
        std::cerr << "run script/bench gst\n";
        return 2;
    }
    const std::string player = argv[6];
    const std::string uri = argv[7];
    try {
        Measure(CResults(argv[2]), std::atoi(argv[3]), argv[5], {player, uri},
                {player, "--unobserved", uri});
    } catch (const std::exception& error) {
        std::cerr << "tallyra-bench-gst: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
