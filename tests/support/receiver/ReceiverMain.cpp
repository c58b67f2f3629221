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

// The receiver's thread counts; the main thread reads after that thread has ended.
class CCounts {
  public:
    void Add(const std::vector<receiver::ReceivedRecord>& records) {
        for (const receiver::ReceivedRecord& received : records) {
            ++m_Codes[received.record.event];
            std::printf("%d %s\n", received.record.event, received.strUrl.c_str());
        }
        std::fflush(stdout);
        m_nRecords += records.size();
    }
    void Print(std::size_t problems) const {
        std::printf("summary: %zu records\n", m_nRecords);
        for (const auto& [code, count] : m_Codes) {
            std::printf("  %d records %zu\n", code, count);
        }
        std::printf("  malformed %zu\n", problems);
    }

  private:
    std::map<int, std::size_t> m_Codes;
    std::size_t m_nRecords = 0;
};

void Serve(const char* pAddress) {
    // Blocked in all threads, so that they wait for sigwait.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    CCounts counts;
    std::size_t problems = 0;
    {
        receiver::CReceiver service(
            pAddress, [&](const auto& /*call*/, const auto& records) { counts.Add(records); });
        service.OwnName();
        std::printf("ready on %s\n", receiver::kServiceName);
        std::fflush(stdout);
        int nSignal = 0;
        sigwait(&ends, &nSignal);
        problems = service.Problems().size();
    }
    counts.Print(problems);
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
