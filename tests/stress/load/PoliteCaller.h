// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_STRESS_LOAD_POLITECALLER_H
#define TALLYRA_TESTS_STRESS_LOAD_POLITECALLER_H

#include "RawPeer.h"
#include "Sanitizers.h"

#include <chrono>
#include <map>
#include <thread>

/// Calls at a fixed period on a thread of its own, and measures.
class CPoliteCaller {
  public:
    CPoliteCaller(const std::string& address, GVariant* pBody, const char* pExpected,
                  std::chrono::milliseconds period, const RawAddress& to = {})
        : m_Peer(address), m_Message(pBody, true, to), m_strExpected(pExpected), m_Period(period) {
        m_Peer.Join();
    }

    void Start() {
        m_Thread = std::jthread([this](const std::stop_token& stop) { Run(stop); });
    }
    void Stop() { m_Thread = {}; }

    // After Stop.
    std::size_t Calls() const { return m_Times.size(); }
    int Expected() const { return m_nExpected; }
    const std::map<std::string, int>& Unexpected() const { return m_Unexpected; }
    /// @return the time within which this share of the calls was answered
    double Milliseconds(double share) {
        std::ranges::sort(m_Times);
        const auto index = static_cast<std::size_t>(share * static_cast<double>(Calls()));
        return m_Times.empty() ? 1e9 : m_Times.at(std::min(index, Calls() - 1)).count();
    }

  private:
    void Run(const std::stop_token& stop) {
        auto next = std::chrono::steady_clock::now();
        while (!stop.stop_requested()) {
            const auto begin = std::chrono::steady_clock::now();
            const std::string answer = m_Peer.Call(m_Message);
            m_Times.emplace_back(std::chrono::steady_clock::now() - begin);
            ++(answer == m_strExpected ? m_nExpected : m_Unexpected[answer]);
            next = std::max(next + m_Period, std::chrono::steady_clock::now());
            std::this_thread::sleep_until(next);
        }
        if (kWithSanitizersAllocator) {
            // The bus refuses calls for a service that is slower than a flood.
            m_Unexpected.erase("org.freedesktop.DBus.Error.LimitsExceeded");
        }
    }

    CRawPeer m_Peer;
    CRawMessage m_Message;
    const std::string m_strExpected;
    const std::chrono::milliseconds m_Period;
    std::vector<std::chrono::duration<double, std::milli>> m_Times;
    int m_nExpected = 0;
    std::map<std::string, int> m_Unexpected;
    // Last, since the thread uses the members above.
    std::jthread m_Thread;
};

#endif  // TALLYRA_TESTS_STRESS_LOAD_POLITECALLER_H
