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

/// Finds the default route in the calling thread's network namespace. Prefers IPv4 routes to IPv6
/// routes, and then the route with the lowest metric.
/// @param pLink  receives the index of the route's link, or 0 without a default route
/// @return false when the routes could not be read from the kernel
bool FindDefaultRoute(int* pLink);

/// @return the connection_type of a link
int TypeOfLink(int link);

#endif  // TALLYRA_PLATFORM_DEFAULTROUTE_H
