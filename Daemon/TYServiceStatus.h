// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSERVICESTATUS_H
#define TALLYRA_TYSERVICESTATUS_H

#include "TYStoreKeeper.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>

/// Tells the service manager that the service is alive, and what it has stored.
///
/// Threads: one.
class CTYServiceStatus {
  public:
    using Clock = std::chrono::steady_clock;
    /// Sends an assignment, such as "WATCHDOG=1", to the service manager.
    using Notify = std::function<void(const std::string& assignment)>;

    /// @param watchdog  time after which the manager ends a silent service; zero for none
    CTYServiceStatus(Notify notify, std::chrono::microseconds watchdog)
        : m_Notify(std::move(notify)), m_AlivePeriod(watchdog / 2) {}

    /// Sends what is due: WATCHDOG at half of the watchdog's time, and the status every 10 s if it
    /// has changed.
    void Update(const TYKeeperState& state, Clock::time_point now);

    /// @return when to call Update at the latest
    Clock::time_point Next() const;

    /// @return such as "12,345 records stored, 0 refused, 3.1 MiB"
    static std::string TextOf(const TYKeeperState& state);

  private:
    const Notify m_Notify;
    const std::chrono::microseconds m_AlivePeriod;
    Clock::time_point m_NextAlive;
    Clock::time_point m_NextText;
    std::string m_strText;  ///< what was sent last
};

#endif  // TALLYRA_TYSERVICESTATUS_H
