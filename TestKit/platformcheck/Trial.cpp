// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Trial.h"

#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <system_error>

namespace {

constexpr int kThreads = 4;

}  // namespace

void CTrial::ExpectError(const char* pFunction, int result, const std::string& situation,
                         std::initializer_list<int> promised) {
    if (std::ranges::find(promised, result) != promised.end()) {
        return;
    }
    std::string codes;
    for (const int code : promised) {
        codes += (codes.empty() ? "" : " or ") + std::to_string(code);
    }
    Broken(std::string(pFunction) + " returned " + std::to_string(result) + situation +
           " instead of " + codes);
}

void CTrial::SetKey(int value) {
    if (m_Settings.changeKey.empty()) {
        NotTried("needs --change-key, a command that sets " + m_Settings.key);
    }
    Run("--change-key", m_Settings.changeKey + " " + std::to_string(value));
}

void CTrial::SetNetwork(bool up) {
    if (m_Settings.changeNetwork.empty()) {
        NotTried("needs --change-network, a command that takes the network down and up");
    }
    Run("--change-network", m_Settings.changeNetwork + (up ? " up" : " down"));
}

// Threads that run already must not be destroyed, so the error stays here.
std::thread CTrial::Start(const std::function<void()>& work) {
    try {
        return std::thread(work);
    } catch (const std::system_error& error) {
        NotTried(std::string("no thread can be started: ") + error.what());
    }
}

void CTrial::AtOnce(const std::function<void()>& work) {
    const auto end = std::chrono::steady_clock::now() + kRush;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.push_back(Start([&] {
            while (std::chrono::steady_clock::now() < end) {
                work();
            }
        }));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

std::string CTrial::Run(const char* pOption, const std::string& command) {
    const CProgress::CMark mark(m_Progress, pOption);
    std::string output;
    FILE* pPipe = popen(command.c_str(), "re");
    if (pPipe == nullptr) {
        NotTried(std::string("the command of ") + pOption + " cannot be started");
    }
    std::array<char, 4096> part{};
    for (std::size_t size = 0; (size = fread(part.data(), 1, part.size(), pPipe)) > 0;) {
        output.append(part.data(), size);
    }
    const int status = pclose(pPipe);
    if (status != 0) {
        NotTried(std::string("the command of ") + pOption + " failed: " + command);
    }
    return output;
}
