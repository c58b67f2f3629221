// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_ROUTEMONITOR_H
#define TALLYRA_PLATFORM_ROUTEMONITOR_H

#include "GuestDescriptors.h"
#include "PlatformThread.h"

#include "connection.h"

#include <memory>
#include <mutex>

/// Watches the default route on its own thread, and calls back when the route appears, moves to
/// another link or disappears. RouteMonitor.cpp explains how it ends.
///
/// Life: Start, RequestStop, Join. The callback may request the stop. Join on another thread then
/// waits for that callback; Join inside the callback does nothing.
///
/// Threads: any. The join mutex serialises callers that wait for the thread's end. The descriptors
/// and the link belong to the monitor's thread once it runs.
class CRouteMonitor {
  public:
    CRouteMonitor(connection_network_monitor_cb pCallback, void* pUserData)
        : m_pCallback(pCallback), m_pUserData(pUserData) {}
    CRouteMonitor(const CRouteMonitor&) = delete;
    CRouteMonitor& operator=(const CRouteMonitor&) = delete;

    /// Starts a monitor in the calling thread's network namespace.
    /// @return null when the system refuses a socket or a thread
    static std::shared_ptr<CRouteMonitor> Start(connection_network_monitor_cb pCallback,
                                                void* pUserData);
    /// From here on, no callback starts. Does not wait for one that runs.
    void RequestStop() { m_Thread.RequestStop(); }
    /// @return whether Join would wait; false in the monitor's own callback and in a forked child
    bool CanBeJoined() const { return m_Thread.IsStarted() && !m_Thread.RunsHere(); }
    /// Waits until the thread has ended. Returns at once when CanBeJoined is false.
    void Join();
    /// Joins the thread if it has ended; does not wait.
    /// @return whether the monitor may be destroyed
    bool TryJoin();
    /// @return whether the thread is joined, and so the monitor may be destroyed
    bool IsOver() const { return m_Thread.IsOver(); }

  private:
    bool Open();
    void Run();
    bool WaitForMessage() const;
    bool UpdateRoute();
    void Report();

    const connection_network_monitor_cb m_pCallback;
    void* const m_pUserData;
    CGuestDescriptors m_Descriptors;
    int m_nLink = 0;
    std::mutex m_JoinMutex;
    CPlatformThread m_Thread;
};

#endif  // TALLYRA_PLATFORM_ROUTEMONITOR_H
