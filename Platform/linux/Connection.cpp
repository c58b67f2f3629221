// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DefaultRoute.h"
#include "RouteMonitor.h"

#include "connection.h"

#include <mutex>
#include <new>
#include <utility>

/// A user of the network state. The mutex guards the monitor and is not held while one is stopped.
struct connection_s {
    std::mutex mutex;
    std::shared_ptr<CRouteMonitor> pMonitor;
};

namespace {

bool StopMonitor(connection_h hConnection) {
    std::shared_ptr<CRouteMonitor> pMonitor;
    {
        const std::lock_guard lock(hConnection->mutex);
        pMonitor = std::move(hConnection->pMonitor);
        hConnection->pMonitor = nullptr;
    }
    if (pMonitor != nullptr) {
        pMonitor->Stop();
    }
    return pMonitor != nullptr;
}

}  // namespace

int connection_create(connection_h* connection) {
    if (connection == nullptr) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    *connection = new (std::nothrow) connection_s;
    return *connection != nullptr ? CONNECTION_ERROR_NONE : CONNECTION_ERROR_OUT_OF_MEMORY;
}

int connection_destroy(connection_h connection) {
    if (connection == nullptr) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    StopMonitor(connection);
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
