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

/// Polls once a second, on a thread of its own, until the collection service owns its bus name.
///
/// Life: Start ends the previous check and begins a new one; Stop ends it. The owner calls Stop
/// before it destroys the check. Each check calls its callback exactly once: with true when the
/// service owns its name; with false if more than TYLimits::kMaxWaitingRecords wait before that,
/// after Stop, on an allocation failure, or if no thread can be started. After a callback with
/// false, the check drops the waiting records.
///
/// Threads: the owner calls Start and Stop, one at a time. The callback and both functions of
/// Backlog run on the check's thread, or in Start if no thread can be started.
class CTYConnectionCheck {
  public:
    /// Access to the records that wait for the service.
    struct Backlog {
        std::function<std::size_t()> size;
        std::function<void()> drop;
    };

    CTYConnectionCheck(Backlog backlog, ITYClock& clock);
    CTYConnectionCheck(const CTYConnectionCheck&) = delete;
    CTYConnectionCheck& operator=(const CTYConnectionCheck&) = delete;

    /// @param proxy  must outlive the check. Its reply timeout is set to TYLimits::kReplyTimeoutMs
    ///               when the service owns its name.
    void Start(CTYServiceProxy& proxy, std::function<void(bool)> callback);

    /// Ends the check. Blocks until its thread has ended, and with it the callback.
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
