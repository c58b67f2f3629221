// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "RouteMonitor.h"

#include "SignalsBlocked.h"

#include <linux/rtnetlink.h>
#include <netlink/netlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <system_error>

namespace {

// The monitor whose thread this is.
thread_local const CRouteMonitor* t_pRunning = nullptr;

}  // namespace

CRouteMonitor::~CRouteMonitor() {
    if (m_nStopFd >= 0) {
        close(m_nStopFd);
    }
}

std::shared_ptr<CRouteMonitor> CRouteMonitor::Start(connection_network_monitor_cb pCallback,
                                                    void* pUserData) {
    auto monitor = std::make_shared<CRouteMonitor>(pCallback, pUserData);
    if (!monitor->Open()) {
        return nullptr;
    }
    const CSignalsBlocked signalsBlocked;
    try {
        // The thread keeps the monitor: its own callback may give the last handle of it back.
        monitor->m_Thread = std::thread([monitor] { monitor->Run(); });
        return monitor;
    } catch (const std::system_error&) {
        return nullptr;
    }
}

// The socket listens before the state is read: no change falls between the two.
bool CRouteMonitor::Open() {
    m_nStopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_pSocket.reset(nl_socket_alloc());
    if (m_nStopFd < 0 || m_pSocket == nullptr) {
        return false;
    }
    nl_socket_disable_seq_check(m_pSocket.get());
    return nl_connect(m_pSocket.get(), NETLINK_ROUTE) == 0 &&
           nl_socket_add_memberships(m_pSocket.get(), RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE,
                                     RTNLGRP_LINK, 0) == 0 &&
           nl_socket_set_nonblocking(m_pSocket.get()) == 0 && FindDefaultRoute(&m_nLink);
}

void CRouteMonitor::RequestStop() {
    m_bStop = true;
    eventfd_write(m_nStopFd, 1);
}

bool CRouteMonitor::RunsHere() const {
    return t_pRunning == this;
}

void CRouteMonitor::Join() {
    if (RunsHere()) {
        return;
    }
    const std::lock_guard lock(m_JoinMutex);
    if (m_Thread.joinable()) {
        m_Thread.join();
    }
}

bool CRouteMonitor::HasEnded() {
    const std::unique_lock lock(m_JoinMutex, std::try_to_lock);
    return lock.owns_lock() && !m_Thread.joinable();
}

void CRouteMonitor::LetGo() {
    const std::lock_guard lock(m_JoinMutex);
    if (RunsHere() && m_Thread.joinable()) {
        m_Thread.detach();
    }
}

void CRouteMonitor::Run() {
    t_pRunning = this;
    while (AwaitChange()) {
        int link = 0;
        if (FindDefaultRoute(&link) && link != m_nLink) {
            m_nLink = link;
            Report();
        }
    }
}

// What the messages say does not matter, the state is read afresh; also when some were lost.
bool CRouteMonitor::AwaitChange() const {
    const int socketFd = nl_socket_get_fd(m_pSocket.get());
    std::array<pollfd, 2> fds = {pollfd{socketFd, POLLIN, 0}, pollfd{m_nStopFd, POLLIN, 0}};
    while (!m_bStop && poll(fds.data(), fds.size(), -1) < 0 && errno == EINTR) {
    }
    std::array<char, 8192> messages;
    while (!m_bStop && recv(socketFd, messages.data(), messages.size(), 0) > 0) {
    }
    return !m_bStop;
}

void CRouteMonitor::Report() {
    std::string name = "GATEWAY";
    m_pCallback(m_nLink != 0 ? CONNECTION_ERROR_NONE : CONNECTION_ERROR_NO_CONNECTION, name.data(),
                m_pUserData);
}
