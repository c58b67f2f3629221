// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_ROUTEMONITOR_H
#define TALLYRA_PLATFORM_ROUTEMONITOR_H

#include "DefaultRoute.h"

#include "connection.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

/// Follows the default route on a thread of its own and reports when it comes, moves or goes.
///
/// Life: made by Start, ended by RequestStop and Join. The callback may request the stop; whoever
/// joins then waits for that callback, and Join from inside of it does nothing.
///
/// Threads: any. The join mutex lets several wait for the thread's end.
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
    /// Has no other callback start.
    void RequestStop();
    /// @return whether the calling thread is the monitor's own: its callback runs
    bool RunsHere() const;
    /// Waits until the thread has ended; from inside the callback it returns at once.
    void Join();
    /// @return whether somebody has joined the thread
    bool HasEnded();
    /// From inside the callback: lets the thread end on its own, since nobody will join it.
    void LetGo();

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
    std::mutex m_JoinMutex;
    std::thread m_Thread;
};

#endif  // TALLYRA_PLATFORM_ROUTEMONITOR_H
