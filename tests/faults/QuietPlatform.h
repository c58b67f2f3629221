// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FAULTS_QUIETPLATFORM_H
#define TALLYRA_TESTS_FAULTS_QUIETPLATFORM_H

#include "doubles/PlatformDouble.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

/// The platform double without allocations, for hosts whose memory runs out. Everything works, and
/// each log line goes to standard error at once.
class CQuietPlatform {
  public:
    /// Makes the double ready. Call before memory runs out.
    static void Start() {
        CPlatformDouble::Instance().connectionType = CONNECTION_TYPE_WIFI;
        CPlatformDouble::Instance().StopAllocating([](const char* line) {
            if (DecidesTheConnection(line)) {
                s_bDecided = true;
            }
        });
    }

    /// Waits at most ten seconds until a collector delivers or has given up.
    static void AwaitDecision() {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!s_bDecided && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    /// Expects the decision of another collector from here on.
    static void Forget() { s_bDecided = false; }

    /// Sets the key and calls its watchers on the calling thread. An exception from a watcher ends
    /// the process.
    static void ChangeKey(int value) noexcept { CPlatformDouble::Instance().ChangeKey(value); }

  private:
    // The last line of each path that the connection check may take, or of one that never ends.
    static bool DecidesTheConnection(const char* line) {
        constexpr std::array decisions = {"Sender thread start done", "drop collected data",
                                          "Connection is not ready", "No more free store space"};
        return std::any_of(decisions.begin(), decisions.end(), [line](const char* decision) {
            return std::strstr(line, decision) != nullptr;
        });
    }

    static inline std::atomic<bool> s_bDecided{false};
};

#endif  // TALLYRA_TESTS_FAULTS_QUIETPLATFORM_H
