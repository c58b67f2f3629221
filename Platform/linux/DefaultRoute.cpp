// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DefaultRoute.h"

#include "connection.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/addr.h>
#include <netlink/cache.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <fstream>
#include <string>

namespace {

struct CacheFree {
    void operator()(nl_cache* pCache) const { nl_cache_free(pCache); }
};

/// Keeps the best default route of those passed to Consider.
struct Search {
    int link = 0;
    bool ipv6 = true;
    std::uint32_t metric = UINT32_MAX;

    void Consider(rtnl_route* pRoute) {
        nl_addr* pDestination = rtnl_route_get_dst(pRoute);
        if (rtnl_route_get_table(pRoute) != RT_TABLE_MAIN ||
            rtnl_route_get_type(pRoute) != RTN_UNICAST || rtnl_route_get_nnexthops(pRoute) == 0 ||
            (pDestination != nullptr && nl_addr_get_prefixlen(pDestination) != 0)) {
            return;
        }
        const bool routeIpv6 = rtnl_route_get_family(pRoute) == AF_INET6;
        const std::uint32_t routeMetric = rtnl_route_get_priority(pRoute);
        if (link != 0 && (routeIpv6 > ipv6 || (routeIpv6 == ipv6 && routeMetric >= metric))) {
            return;
        }
        link = rtnl_route_nh_get_ifindex(rtnl_route_nexthop_n(pRoute, 0));
        ipv6 = routeIpv6;
        metric = routeMetric;
    }
};

}  // namespace

bool FindDefaultRoute(int* pLink) {
    const NlSocketPtr socket(nl_socket_alloc());
    nl_cache* pRoutes = nullptr;
    if (socket == nullptr || nl_connect(socket.get(), NETLINK_ROUTE) < 0 ||
        rtnl_route_alloc_cache(socket.get(), AF_UNSPEC, 0, &pRoutes) < 0) {
        return false;
    }
    const std::unique_ptr<nl_cache, CacheFree> routes(pRoutes);
    Search search;
    nl_cache_foreach(
        pRoutes,
        [](nl_object* pObject, void* pSearch) {
            static_cast<Search*>(pSearch)->Consider(reinterpret_cast<rtnl_route*>(pObject));
        },
        &search);
    *pLink = search.link;
    return true;
}

// The kernel writes the kind of a network device into its uevent file. Ethernet has no DEVTYPE.
int TypeOfLink(int link) {
    std::array<char, IF_NAMESIZE> name{};
    if (if_indextoname(static_cast<unsigned>(link), name.data()) == nullptr) {
        return CONNECTION_TYPE_ETHERNET;
    }
    std::ifstream events(std::string("/sys/class/net/") + name.data() + "/uevent");
    for (std::string line; std::getline(events, line);) {
        if (line == "DEVTYPE=wlan") {
            return CONNECTION_TYPE_WIFI;
        }
        if (line == "DEVTYPE=wwan") {
            return CONNECTION_TYPE_CELLULAR;
        }
    }
    return CONNECTION_TYPE_ETHERNET;
}
