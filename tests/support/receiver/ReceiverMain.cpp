// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-receiver": replies to the library as a collection service does and prints
// code and URL of each record. SIGTERM or SIGINT ends it with a summary.

#include "receiver/Receiver.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <map>
#include <string_view>

namespace {

// The receiver's observer writes it; the main thread reads it after the receiver's end.
struct Summary {
    std::map<int, std::size_t> codes{};
    std::size_t records = 0;
    std::size_t malformed = 0;

    void Add(const receiver::Call& call) {
        for (const receiver::ReceivedRecord& received : call.records) {
            ++codes[received.record.event];
            std::printf("%d %s\n", received.record.event, received.strUrl.c_str());
        }
        std::fflush(stdout);
        records += call.records.size();
        malformed += call.strProblem.empty() ? 0 : 1;
    }
    void Print() const {
        std::printf("summary: %zu records\n", records);
        for (const auto& [code, count] : codes) {
            std::printf("  %d records %zu\n", code, count);
        }
        std::printf("  malformed %zu\n", malformed);
    }
};

void Serve(const char* pAddress) {
    // Blocked in all threads, so that they wait for sigwait.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    Summary summary;
    {
        receiver::CReceiver service(
            pAddress, [&](const receiver::Call& call, const auto&) { summary.Add(call); });
        service.OwnName();
        std::printf("ready on %s\n", receiver::kServiceName);
        std::fflush(stdout);
        int nSignal = 0;
        sigwait(&ends, &nSignal);
    }
    summary.Print();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 || std::string_view(argv[1]) != "--address") {
        std::fputs("usage: tallyra-receiver --address ADDRESS\n", stderr);
        return 2;
    }
    try {
        Serve(argv[2]);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tallyra-receiver: %s\n", error.what());
        return 1;
    }
}
