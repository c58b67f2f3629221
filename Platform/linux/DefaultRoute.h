// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_DEFAULTROUTE_H
#define TALLYRA_PLATFORM_DEFAULTROUTE_H

#include <netlink/socket.h>

#include <memory>

struct NlSocketFree {
    void operator()(nl_sock* pSocket) const { nl_socket_free(pSocket); }
};
using NlSocketPtr = std::unique_ptr<nl_sock, NlSocketFree>;

/// Looks for the default route of this thread's network namespace: the best metric, IPv4 before
/// IPv6.
/// @param pLink  filled with the index of the link that carries it, 0 when there is no such route
/// @return whether the kernel has told
bool FindDefaultRoute(int* pLink);

/// @return a value of connection_type for a link
int TypeOfLink(int link);

#endif  // TALLYRA_PLATFORM_DEFAULTROUTE_H
