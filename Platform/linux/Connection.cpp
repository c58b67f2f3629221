// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DefaultRoute.h"
#include "PerProcess.h"
#include "RouteMonitor.h"

#include "connection.h"

#include <exception>
#include <list>
#include <memory>
#include <mutex>
#include <new>

using Monitors = std::list<std::shared_ptr<CRouteMonitor>>;

/// A user of the network state. The mutex guards both lists. It is not held while a thread is
/// joined.
struct connection_s {
    std::mutex mutex;
    /// The monitor that is set, or nothing.
    Monitors current;
    /// Monitors whose stop was requested. Their last callback may still run.
    Monitors stopping;
};

namespace {

/// Monitors whose connection was destroyed in the monitor's own callback. They outlive it, because
/// a thread cannot join itself. Their threads end after that callback, and the next call that sets
/// a monitor joins them. In a forked child, the monitors inherited from the parent stay here.
struct Orphans {
    std::mutex mutex;
    Monitors monitors;
};

Orphans& ProcessOrphans() {
    static CPerProcess<Orphans> orphans;
    return orphans.Get();
}

void JoinEndedOrphans() {
    Orphans& orphans = ProcessOrphans();
    const std::lock_guard lock(orphans.mutex);
    orphans.monitors.remove_if([](const auto& pMonitor) { return pMonitor->TryJoin(); });
}

// Allocates nothing, because a request to stop must not fail.
bool MoveToStopping(connection_h hConnection) {
    const std::lock_guard lock(hConnection->mutex);
    if (hConnection->current.empty()) {
        return false;
    }
    hConnection->current.front()->RequestStop();
    hConnection->stopping.splice(hConnection->stopping.end(), hConnection->current);
    return true;
}

std::shared_ptr<CRouteMonitor> FindJoinable(connection_h hConnection) {
    const std::lock_guard lock(hConnection->mutex);
    for (const auto& pMonitor : hConnection->stopping) {
        if (pMonitor->CanBeJoined()) {
            return pMonitor;
        }
    }
    return nullptr;
}

// Also waits for a monitor that its own callback has unset, and for one that another thread joins.
bool StopMonitor(connection_h hConnection) {
    const bool wasSet = MoveToStopping(hConnection);
    while (const auto pMonitor = FindJoinable(hConnection)) {
        pMonitor->Join();
    }
    const std::lock_guard lock(hConnection->mutex);
    hConnection->stopping.remove_if([](const auto& pMonitor) { return pMonitor->IsOver(); });
    return wasSet;
}

// @return whether the caller may delete the connection; if not, it leaks, because monitors still
// run
bool HandOverToOrphans(connection_h hConnection) {
    if (hConnection->stopping.empty()) {
        return true;
    }
    try {
        Orphans& orphans = ProcessOrphans();
        const std::lock_guard lock(orphans.mutex);
        orphans.monitors.splice(orphans.monitors.end(), hConnection->stopping);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace

int connection_create(connection_h* connection) {
    if (connection == nullptr) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    auto* pMade = new (std::nothrow) connection_s;
    if (pMade == nullptr) {
        return CONNECTION_ERROR_OUT_OF_MEMORY;
    }
    *connection = pMade;
    return CONNECTION_ERROR_NONE;
}

int connection_destroy(connection_h connection) {
    if (connection == nullptr) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    StopMonitor(connection);
    if (HandOverToOrphans(connection)) {
        delete connection;
    }
    return CONNECTION_ERROR_NONE;
}

int connection_set_network_monitor_cb(connection_h connection,
                                      connection_network_monitor_cb callback, void* user_data) {
    if (connection == nullptr || callback == nullptr) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    const std::lock_guard lock(connection->mutex);
    if (!connection->current.empty()) {
        return CONNECTION_ERROR_ALREADY_REGISTERED;
    }
    try {
        JoinEndedOrphans();
        Monitors monitor{CRouteMonitor::Start(callback, user_data)};
        if (monitor.front() == nullptr) {
            return CONNECTION_ERROR_OPERATION_FAILED;
        }
        connection->current.splice(connection->current.end(), monitor);
        return CONNECTION_ERROR_NONE;
    } catch (const std::exception&) {
        return CONNECTION_ERROR_OUT_OF_MEMORY;
    }
}

int connection_unset_network_monitor_cb(connection_h connection) {
    if (connection == nullptr) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    return StopMonitor(connection) ? CONNECTION_ERROR_NONE : CONNECTION_ERROR_NOT_REGISTERED;
}

int connection_get_type(connection_h connection, int* type) {
    if (connection == nullptr || type == nullptr) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    try {
        int link = 0;
        if (!FindDefaultRoute(&link)) {
            return CONNECTION_ERROR_OPERATION_FAILED;
        }
        *type = link != 0 ? TypeOfLink(link) : static_cast<int>(CONNECTION_TYPE_DISCONNECTED);
        return CONNECTION_ERROR_NONE;
    } catch (const std::bad_alloc&) {
        return CONNECTION_ERROR_OUT_OF_MEMORY;
    }
}

int connection_profile_check_default_gateway(bool* connected) {
    int link = 0;
    if (connected == nullptr) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    if (!FindDefaultRoute(&link)) {
        return CONNECTION_ERROR_OPERATION_FAILED;
    }
    *connected = link != 0;
    return CONNECTION_ERROR_NONE;
}
