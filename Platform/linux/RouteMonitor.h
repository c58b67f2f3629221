// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_ROUTEMONITOR_H
#define TALLYRA_PLATFORM_ROUTEMONITOR_H

#include "GuestDescriptors.h"
#include "PlatformThread.h"

#include "connection.h"

#include <memory>
#include <mutex>

/// Follows the default route on a thread of its own and reports when it comes, moves or goes.
///
/// Life: made by Start, ended by RequestStop and Join. The callback may request the stop; Join on
/// another thread then waits for that callback, and Join from inside of it does nothing. A monitor
/// whose descriptors the host has closed opens new ones, and tries so once a second.
///
/// Threads: any. The join mutex lets several wait for the thread's end; the descriptors and the
/// link are the thread's own.
class CRouteMonitor {
  public:
    CRouteMonitor(connection_network_monitor_cb pCallback, void* pUserData)
        : m_pCallback(pCallback), m_pUserData(pUserData) {}
    CRouteMonitor(const CRouteMonitor&) = delete;
    CRouteMonitor& operator=(const CRouteMonitor&) = delete;

    /// Starts to follow the routes of the calling thread's network namespace.
    /// @return null when the system gives no socket or thread
    static std::shared_ptr<CRouteMonitor> Start(connection_network_monitor_cb pCallback,
                                                void* pUserData);
    /// Has no other callback start.
    void RequestStop() { m_Thread.RequestStop(); }
    /// @return whether Join would wait: not in the monitor's own callback, nor in a forked child
    bool CanBeJoined() const { return m_Thread.IsStarted() && !m_Thread.RunsHere(); }
    /// Waits until the thread has ended, where that can be.
    void Join();
    /// Joins the thread if it has ended. @return whether the monitor may be destroyed
    bool TryJoin();
    /// @return whether the thread is joined, and so the monitor may be destroyed
    bool IsOver() const { return m_Thread.IsOver(); }

  private:
    bool Open();
    void Run();
    bool Await() const;
    bool Look();
    void Report();

    const connection_network_monitor_cb m_pCallback;
    void* const m_pUserData;
    CGuestDescriptors m_Descriptors;
    int m_nLink = 0;
    std::mutex m_JoinMutex;
    CPlatformThread m_Thread;
};

#endif  // TALLYRA_PLATFORM_ROUTEMONITOR_H
