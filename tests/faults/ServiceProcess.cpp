// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ServiceProcess.h"

#include <fstream>
#include <functional>
#include <stdexcept>
#include <thread>

namespace {

constexpr std::chrono::seconds kStartLimit{30};

/// Looks until it is so; the service writes a file, and nobody tells when.
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds within) {
    const auto end = std::chrono::steady_clock::now() + within;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

int CountLines(const std::filesystem::path& path, const std::string& text) {
    std::ifstream file(path);
    std::string line;
    int count = 0;
    while (std::getline(file, line)) {
        count += line.find(text) == std::string::npos ? 0 : 1;
    }
    return count;
}

// The state of a process as the kernel gives it behind the process's name: T is stopped.
bool IsHalted(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string ignored;
    char state = 0;
    std::getline(stat, ignored, ')') >> state;
    return state == 'T';
}

}  // namespace

CServiceProcess::CServiceProcess(const std::string& address)
    : m_Process(std::make_unique<CChildProcess>(
          std::vector<std::string>{"/bin/sh", "-c", R"(exec "$0" --address "$1" > "$2")", RECEIVER,
                                   address, m_Folder.Path() / "output"})) {
    const auto isReady = [this] { return CountLines(m_Folder.Path() / "output", "ready on ") > 0; };
    if (!WaitUntil(isReady, kStartLimit)) {
        throw std::runtime_error("the receiver does not start");
    }
}

void CServiceProcess::Halt() {
    m_Process->Signal(SIGSTOP);
    WaitUntil([this] { return IsHalted(m_Process->Pid()); }, kStartLimit);
}

bool CServiceProcess::WaitForRecords(int count, std::chrono::milliseconds within) const {
    return WaitUntil([&] { return Records() >= count; }, within);
}

int CServiceProcess::Records() const {
    return CountLines(m_Folder.Path() / "output", " film.mp4");
}
