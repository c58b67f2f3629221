// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "RouteMonitor.h"

#include "DefaultRoute.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <exception>
#include <string>

// A monitor runs in a process whose host may close any descriptor, fork, or destroy the connection
// inside the callback. Three problems follow from that: how the thread learns of a change, how it
// is stopped, and who joins it.
//
// The thread polls a netlink socket that is subscribed to route and link messages. It reads and
// discards the messages, then queries the kernel for the default route. Only the arrival of a
// message matters, so the kernel may drop messages when the socket's buffer is full. The callback
// runs if the query finds another link than the last report. If the socket is missing, the thread
// opens and subscribes it before the query. If that succeeds, every change after the query leaves a
// message in the socket.
//
// The host may close the socket, or reuse its number for a file of its own. CGuestDescriptors
// notices that, and the monitor opens a new socket. While it has none, or a query fails, it retries
// once a second.
//
// A stop is requested with a cancellation that the thread accepts only inside poll, see
// CPlatformThread. The thread is never detached. It is joined
//
// - by connection_unset_network_monitor_cb and connection_destroy, on any other thread;
// - if one of these runs inside the callback, by the next of them on another thread, because a
//   thread cannot join itself;
// - if the connection was destroyed inside the callback, by the next call that sets a monitor.
//
// What must always hold: when unset or destroy has returned on another thread, no callback runs and
// none starts. A monitor is freed only after its thread was joined; in a forked child, where the
// thread does not exist, an inherited monitor is never freed. dlclose does not unload this library,
// and an exiting process destroys nothing that the thread uses, so a monitor that is still set
// at exit runs safely until the process ends.

namespace {

// The socket's index in m_Descriptors.
constexpr std::size_t kRoutes = 0;

// Not libnl's socket: libnl would close its number even if the host has reused it by then.
int OpenRoutes() {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
    if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

std::shared_ptr<CRouteMonitor> CRouteMonitor::Start(connection_network_monitor_cb pCallback,
                                                    void* pUserData) {
    auto monitor = std::make_shared<CRouteMonitor>(pCallback, pUserData);
    if (!monitor->Open() || !FindDefaultRoute(&monitor->m_nLink) ||
        !monitor->m_Thread.Start([](void* pThis) { static_cast<CRouteMonitor*>(pThis)->Run(); },
                                 monitor.get())) {
        return nullptr;
    }
    return monitor;
}

bool CRouteMonitor::Open() {
    if (!m_Descriptors.IsEmpty() && m_Descriptors.AreOurs()) {
        return true;
    }
    m_Descriptors.Close();
    return m_Descriptors.Add(OpenRoutes());
}

void CRouteMonitor::Join() {
    if (!CanBeJoined()) {
        return;
    }
    const std::lock_guard lock(m_JoinMutex);
    m_Thread.Join();
}

bool CRouteMonitor::TryJoin() {
    if (CanBeJoined()) {
        const std::lock_guard lock(m_JoinMutex);
        m_Thread.TryJoin();
    }
    return IsOver();
}

void CRouteMonitor::Run() {
    bool watching = true;
    while (!m_Thread.IsStopping()) {
        if (!watching || !WaitForMessage()) {
            m_Thread.Pause();
        }
        if (!m_Thread.IsStopping()) {
            watching = UpdateRoute();
        }
    }
}

// @return false when poll fails; the caller then retries after one second
bool CRouteMonitor::WaitForMessage() const {
    const CPlatformThread::Wait result = m_Thread.AwaitReadable(m_Descriptors);
    std::array<char, 8192> messages;
    while (result == CPlatformThread::Wait::READABLE &&
           recv(m_Descriptors.At(kRoutes), messages.data(), messages.size(), 0) > 0) {
    }
    return result != CPlatformThread::Wait::IMPOSSIBLE;
}

// @return whether the next change will arrive as a message; if false, the caller retries
bool CRouteMonitor::UpdateRoute() {
    bool opened = false;
    int link = 0;
    try {
        opened = Open();
        if (!FindDefaultRoute(&link)) {
            return false;
        }
    } catch (const std::exception&) {
        return false;
    }
    if (link != m_nLink) {
        m_nLink = link;
        Report();
    }
    return opened;
}

void CRouteMonitor::Report() {
    std::string name = "GATEWAY";
    m_pCallback(m_nLink != 0 ? CONNECTION_ERROR_NONE : CONNECTION_ERROR_NO_CONNECTION, name.data(),
                m_pUserData);
}
