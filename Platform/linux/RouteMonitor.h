// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_ROUTEMONITOR_H
#define TALLYRA_PLATFORM_ROUTEMONITOR_H

#include "DefaultRoute.h"

#include "connection.h"

#include <atomic>
#include <memory>
#include <thread>

/// Follows the default route on a thread of its own and reports when it comes, moves or goes.
///
/// Life: made by Start, ended by Stop, after which no callback runs and none will start. Stop from
/// inside the callback lets that callback end, and the thread with it.
class CRouteMonitor {
  public:
    CRouteMonitor(connection_network_monitor_cb pCallback, void* pUserData)
        : m_pCallback(pCallback), m_pUserData(pUserData) {}
    ~CRouteMonitor();
    CRouteMonitor(const CRouteMonitor&) = delete;
    CRouteMonitor& operator=(const CRouteMonitor&) = delete;

    /// Starts to follow the routes of the calling thread's network namespace.
    /// @return null when the system gives no socket or thread
    static std::shared_ptr<CRouteMonitor> Start(connection_network_monitor_cb pCallback,
                                                void* pUserData);
    void Stop();

  private:
    bool Open();
    void Run();
    bool AwaitChange() const;
    void Report();

    const connection_network_monitor_cb m_pCallback;
    void* const m_pUserData;
    NlSocketPtr m_pSocket;
    int m_nStopFd = -1;
    std::atomic<bool> m_bStop{false};
    int m_nLink = 0;
    std::thread m_Thread;
};

#endif  // TALLYRA_PLATFORM_ROUTEMONITOR_H
