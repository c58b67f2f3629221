// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCONNECTIONCHECK_H
#define TALLYRA_TYCONNECTIONCHECK_H

#include "ITYClock.h"
#include "TYAtomic.h"
#include "TYServiceProxy.h"
#include "TYSleeper.h"
#include "TYThread.h"

#include <functional>

/// Polls once a second, on a thread of its own, until the collection service is reachable.
///
/// Life: Start begins a check and ends the one before; Stop ends it. The owner calls Stop before it
/// goes. A check calls its callback exactly once: with true when the service answers; with false
/// when more than TYLimits::kMaxWaitingRecords wait first, after Stop, on an allocation failure, or
/// when the system gives no thread. After false it drops what waits.
///
/// Threads: the owner calls Start and Stop, one at a time; the callback and both functions of
/// Backlog run on the check's thread, or in Start when there is none.
class CTYConnectionCheck {
  public:
    /// The records that wait for the service meanwhile.
    struct Backlog {
        std::function<std::size_t()> size;
        std::function<void()> drop;
    };

    CTYConnectionCheck(Backlog backlog, ITYClock& clock);
    CTYConnectionCheck(const CTYConnectionCheck&) = delete;
    CTYConnectionCheck& operator=(const CTYConnectionCheck&) = delete;

    /// @param proxy  outlives the check; gets the usual reply timeout when the service answers
    void Start(CTYServiceProxy& proxy, std::function<void(bool)> callback);

    /// Ends the check. Returns when its thread, the callback included, is done.
    void Stop();

  private:
    void CheckConnection();
    void ReportNoService();
    bool AwaitService();
    bool GiveUpWaiting();

    const Backlog m_Backlog;

    // Set before the thread starts.
    CTYServiceProxy* m_pProxy = nullptr;
    std::function<void(bool)> m_Callback;

    CTYThread m_Thread;
    CTYSleeper m_Sleeper;
    CTYAtomic<bool> m_bStopConnectionCheck{false};
};

#endif  // TALLYRA_TYCONNECTIONCHECK_H
