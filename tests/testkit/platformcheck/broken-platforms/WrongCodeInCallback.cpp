// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Reports a network that has gone down as a call that failed.

#include "Next.h"

#include "connection.h"

namespace {

struct Monitor {
    connection_network_monitor_cb callback;
    void* pUserData;
};

void Report(connection_error_e result, char* name, void* pMonitor) {
    const auto* pThis = static_cast<Monitor*>(pMonitor);
    pThis->callback(result == CONNECTION_ERROR_NONE ? result : CONNECTION_ERROR_OPERATION_FAILED,
                    name, pThis->pUserData);
}

}  // namespace

int connection_set_network_monitor_cb(connection_h connection,
                                      connection_network_monitor_cb callback, void* user_data) {
    // Never freed: nobody can know when the last callback has ended.
    return NEXT(connection_set_network_monitor_cb)(
        connection, callback == nullptr ? nullptr : &Report, new Monitor{callback, user_data});
}
