// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "SoakService.h"

#include "receiver/Receiver.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace {

constexpr std::chrono::seconds kPatience{60};
constexpr std::chrono::milliseconds kPeriod{2};
constexpr std::uint8_t kStop = 2;

}  // namespace

CSoakService::CSoakService(std::string program, std::string address, std::filesystem::path file)
    : m_strProgram(std::move(program)),
      m_strAddress(std::move(address)),
      m_File(std::move(file)),
      m_Watcher(receiver::kInterface, receiver::kServiceName, SystemBus()) {}

void CSoakService::Start() {
    m_Process.emplace(std::vector<std::string>{m_strProgram, "--serve", m_strAddress, "--folder",
                                               m_File.string()});
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!m_Watcher.IsConnected()) {
        // Waiting for the end of the process is the pause between two looks at the bus.
        if (m_Process->WaitForExit(kPeriod) || std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("the receiving service does not start");
        }
    }
}

void CSoakService::Stop() {
    m_Process->Signal(SIGTERM);
    if (m_Process->WaitForExit(kPatience) != 0) {
        throw std::runtime_error("the receiving service does not end as it should");
    }
    m_Process.reset();
    std::ifstream file(m_File);
    Totals got;
    if (!(file >> got.records >> got.stops >> got.problems)) {
        throw std::runtime_error("the receiving service does not say what it has got");
    }
    m_Totals.records += got.records;
    m_Totals.stops += got.stops;
    m_Totals.problems += got.problems;
}

int CSoakService::Serve(const std::string& address, const std::string& file) {
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    // Before the first thread, so that none of them takes it.
    sigprocmask(SIG_BLOCK, &end, nullptr);
    receiver::CReceiver service(address);
    service.OwnName();
    int received = 0;
    sigwait(&end, &received);
    service.ReleaseName();
    const auto records = service.Records();
    const auto stops = std::count_if(records.begin(), records.end(), [](const auto& record) {
        return record.record.event == kStop;
    });
    std::ofstream stream(file);
    stream << records.size() << ' ' << stops << ' ' << service.Problems().size() << '\n';
    return stream.flush() ? 0 : 1;
}
