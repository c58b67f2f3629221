// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Takes a monitor that cannot be called.

#include "Next.h"

#include "connection.h"

int connection_set_network_monitor_cb(connection_h connection,
                                      connection_network_monitor_cb callback, void* user_data) {
    if (connection != nullptr && callback == nullptr) {
        return CONNECTION_ERROR_NONE;
    }
    return NEXT(connection_set_network_monitor_cb)(connection, callback, user_data);
}
