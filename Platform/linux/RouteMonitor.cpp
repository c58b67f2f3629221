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

namespace {

// Its place in the group of descriptors, which has no other.
constexpr std::size_t kRoutes = 0;

// Not libnl's: that closes its number, whatever it names by then.
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

// The socket listens before the state is read: no change falls between the two.
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
        if (!watching || !Await()) {
            m_Thread.Pause();
        }
        if (!m_Thread.IsStopping()) {
            watching = Look();
        }
    }
}

// What the messages say does not matter, the state is read afresh; also when some were lost.
bool CRouteMonitor::Await() const {
    const CPlatformThread::Wait result = m_Thread.AwaitReadable(m_Descriptors);
    std::array<char, 8192> messages;
    while (result == CPlatformThread::Wait::READABLE &&
           recv(m_Descriptors.At(kRoutes), messages.data(), messages.size(), 0) > 0) {
    }
    return result != CPlatformThread::Wait::IMPOSSIBLE;
}

// @return whether there is nothing more to see before the socket tells
bool CRouteMonitor::Look() {
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
