// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Says that it lacks memory for a second monitor.

#include "Next.h"

#include "connection.h"

int connection_set_network_monitor_cb(connection_h connection,
                                      connection_network_monitor_cb callback, void* user_data) {
    const int result = NEXT(connection_set_network_monitor_cb)(connection, callback, user_data);
    return result == CONNECTION_ERROR_ALREADY_REGISTERED ? CONNECTION_ERROR_OUT_OF_MEMORY : result;
}
