// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ServiceProcess.h"

#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{60};
constexpr std::chrono::milliseconds kPeriod{1};

// Where the two processor times stand, counted from behind the process's name.
constexpr int kFieldsBeforeTimes = 11;

std::vector<std::string> Arguments(const std::string& program, const std::string& address,
                                   const std::vector<std::string>& options) {
    std::vector<std::string> arguments{program, "--address", address, "--rate", "0"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return arguments;
}

}  // namespace

CServiceProcess::CServiceProcess(const std::string& program, const std::string& address,
                                 const std::vector<std::string>& options)
    : m_Process(Arguments(program, address, options)) {}

void CServiceProcess::WaitUntilServing(CBatchSender& bus) {
    const Clock::time_point deadline = Clock::now() + kPatience;
    while (!bus.IsServed()) {
        // Waiting for the end of the process is the pause between two looks at the bus.
        if (m_Process.WaitForExit(kPeriod) || Clock::now() >= deadline) {
            throw std::runtime_error("the service does not start");
        }
    }
}

void CServiceProcess::Terminate() {
    m_Process.Signal(SIGTERM);
    const std::optional<int> status = m_Process.WaitForExit(kPatience);
    if (status != 0) {
        throw std::runtime_error(status ? "the service ended with status " + std::to_string(*status)
                                        : "the service does not end");
    }
}

double CServiceProcess::CpuSeconds() const {
    std::ifstream file("/proc/" + std::to_string(Pid()) + "/stat");
    std::string ignored;
    std::getline(file, ignored, ')');
    for (int i = 0; i < kFieldsBeforeTimes; ++i) {
        file >> ignored;
    }
    double user = 0;
    double system = 0;
    if (!(file >> user >> system)) {
        throw std::runtime_error("cannot read the service's processor time");
    }
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long CServiceProcess::MemoryKib(const std::string& name) const {
    std::ifstream file("/proc/" + std::to_string(Pid()) + "/status");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string word;
        long value = 0;
        if (words >> word >> value && word == name + ":") {
            return value;
        }
    }
    throw std::runtime_error("the service has no " + name);
}
