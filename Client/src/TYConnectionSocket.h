// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCONNECTIONSOCKET_H
#define TALLYRA_TYCONNECTIONSOCKET_H

#include "ITYBus.h"

/// Remembers the socket of a bus connection by device and inode.
///
/// A host may close descriptors that it does not own: some programs close all from 3 up before they
/// exec. The host's next socket may then get the number that libdbus still reads, writes and
/// closes. libdbus cannot notice that, so the connection's owner asks this class first. If the host
/// closes the descriptor in the microseconds between that check and the system call, nothing
/// notices.
///
/// Threads: one at a time.
class CTYConnectionSocket {
  public:
    explicit CTYConnectionSocket(ITYBus& bus) : m_Bus(bus) {}

    /// Remembers the socket of a connection that was just opened. A connection without a socket
    /// counts as lost.
    void Remember(DBusConnection* pConnection);

    /// @return whether the connection is open and its number still means the same socket
    bool IsOurs() const;

    /// @return whether the connection's number means another file now, or none; false when libdbus
    ///         itself has closed the socket
    bool IsLost() const;

    /// @return whether the socket is ours and holds bytes to read
    bool HasUnread() const;

    /// Waits until the socket can be read, or written when messages are queued; at most `timeMs`
    /// milliseconds.
    /// @return IsOurs
    bool AwaitReady(int timeMs) const;

  private:
    ITYBus& m_Bus;
    DBusConnection* m_pConnection = nullptr;
    dev_t m_Device = 0;
    ino_t m_Inode = 0;
};

#endif  // TALLYRA_TYCONNECTIONSOCKET_H
