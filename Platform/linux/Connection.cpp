// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DefaultRoute.h"
#include "RouteMonitor.h"

#include "connection.h"

#include <mutex>
#include <new>
#include <utility>
#include <vector>

/// A user of the network state. The mutex guards both members and is not held while a monitor is
/// waited for.
struct connection_s {
    std::mutex mutex;
    std::shared_ptr<CRouteMonitor> pMonitor;
    /// Monitors that were told to stop; their last callback may still run.
    std::vector<std::shared_ptr<CRouteMonitor>> stopping;
};

namespace {

// Room for it was made when the monitor was set: telling it to stop must not fail.
bool MoveToStopping(connection_h hConnection) {
    const std::lock_guard lock(hConnection->mutex);
    if (hConnection->pMonitor == nullptr) {
        return false;
    }
    hConnection->pMonitor->RequestStop();
    hConnection->stopping.push_back(std::move(hConnection->pMonitor));
    hConnection->pMonitor = nullptr;
    return true;
}

// None where all have ended, but for one whose callback this is.
std::shared_ptr<CRouteMonitor> FindToJoin(connection_h hConnection) {
    const std::lock_guard lock(hConnection->mutex);
    for (const auto& pMonitor : hConnection->stopping) {
        if (!pMonitor->RunsHere() && !pMonitor->HasEnded()) {
            return pMonitor;
        }
    }
    return nullptr;
}

// Also waits for a callback that has already unset itself, or that somebody else is waiting for.
bool StopMonitor(connection_h hConnection) {
    const bool wasSet = MoveToStopping(hConnection);
    while (const auto pMonitor = FindToJoin(hConnection)) {
        pMonitor->Join();
    }
    return wasSet;
}

// What is left there runs this very callback.
void ForgetJoined(connection_h hConnection) {
    const std::lock_guard lock(hConnection->mutex);
    std::erase_if(hConnection->stopping, [](const auto& pMonitor) { return pMonitor->HasEnded(); });
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
    for (const auto& pMonitor : connection->stopping) {
        pMonitor->LetGo();
    }
    delete connection;
    return CONNECTION_ERROR_NONE;
}

int connection_set_network_monitor_cb(connection_h connection,
                                      connection_network_monitor_cb callback, void* user_data) {
    if (connection == nullptr || callback == nullptr) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    const std::lock_guard lock(connection->mutex);
    if (connection->pMonitor != nullptr) {
        return CONNECTION_ERROR_ALREADY_REGISTERED;
    }
    try {
        connection->stopping.reserve(connection->stopping.size() + 1);
        connection->pMonitor = CRouteMonitor::Start(callback, user_data);
    } catch (const std::bad_alloc&) {
        return CONNECTION_ERROR_OUT_OF_MEMORY;
    }
    return connection->pMonitor != nullptr ? CONNECTION_ERROR_NONE
                                           : CONNECTION_ERROR_OPERATION_FAILED;
}

int connection_unset_network_monitor_cb(connection_h connection) {
    if (connection == nullptr) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    const bool wasSet = StopMonitor(connection);
    ForgetJoined(connection);
    return wasSet ? CONNECTION_ERROR_NONE : CONNECTION_ERROR_NOT_REGISTERED;
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
