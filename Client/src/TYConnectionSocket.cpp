// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYConnectionSocket.h"

void CTYConnectionSocket::Remember(DBusConnection* pConnection) {
    struct stat status {};
    m_Bus.Stat(m_Bus.GetSocket(pConnection), &status);
    m_pConnection = pConnection;
    m_Device = status.st_dev;
    m_Inode = status.st_ino;
}

bool CTYConnectionSocket::IsOurs() const {
    return m_Bus.IsConnected(m_pConnection) && !IsLost();
}

bool CTYConnectionSocket::IsLost() const {
    if (!m_Bus.IsConnected(m_pConnection)) {
        return false;
    }
    struct stat status {};
    return !m_Bus.Stat(m_Bus.GetSocket(m_pConnection), &status) || status.st_dev != m_Device ||
           status.st_ino != m_Inode;
}

bool CTYConnectionSocket::HasUnread() const {
    return IsOurs() && m_Bus.Unread(m_Bus.GetSocket(m_pConnection)) > 0;
}

bool CTYConnectionSocket::AwaitReady(int timeMs) const {
    if (!IsOurs()) {
        return false;
    }
    const bool writes = m_Bus.HasMessagesToSend(m_pConnection);
    pollfd waited{m_Bus.GetSocket(m_pConnection),
                  static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0};
    m_Bus.Poll(&waited, timeMs);
    return IsOurs();
}
