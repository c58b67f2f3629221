// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCONNECTIONSOCKET_H
#define TALLYRA_TYCONNECTIONSOCKET_H

#include <dbus/dbus.h>

/// Knows the socket that a bus connection opened, by device and inode.
///
/// A host may close descriptors that are not its own, all from 3 up as some do before they exec.
/// Its next socket may then get the number that libdbus still reads, writes and closes. Nothing
/// tells libdbus; so the connection's owner asks here first. What the host closes between the
/// question and the system call stays undetected, a window of some microseconds.
///
/// Threads: any; one at a time for a connection.
class CTYConnectionSocket {
  public:
    /// Remembers the socket of a connection that was just opened. A connection without a socket
    /// counts as lost.
    /// @return false on allocation failure
    static bool Remember(DBusConnection* pConnection);

    /// @return whether the connection is open and its number still means the same socket
    static bool IsOurs(DBusConnection* pConnection);

    /// @return whether the connection's number means something else now, or nothing; not so when
    ///         libdbus itself has closed the socket
    static bool IsLost(DBusConnection* pConnection);

    /// @return whether the socket is ours and holds bytes to read
    static bool HasUnread(DBusConnection* pConnection);

    /// Waits until the socket can be read, or written when messages are queued; at most `timeMs`
    /// milliseconds.
    /// @return IsOurs
    static bool AwaitReady(DBusConnection* pConnection, int timeMs);
};

#endif  // TALLYRA_TYCONNECTIONSOCKET_H
