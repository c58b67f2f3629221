// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Holds a lock around callbacks that the removal takes as well.

#include "Next.h"

#include "connection.h"

#include <mutex>

namespace {

struct Monitor {
    connection_network_monitor_cb callback;
    void* pUserData;
};

std::mutex g_mutex;

void CallLocked(connection_error_e result, char* name, void* pMonitor) {
    const std::lock_guard lock(g_mutex);
    const auto* pThis = static_cast<Monitor*>(pMonitor);
    pThis->callback(result, name, pThis->pUserData);
}

}  // namespace

int connection_set_network_monitor_cb(connection_h connection,
                                      connection_network_monitor_cb callback, void* user_data) {
    // Never freed: nobody can know when the last callback has ended.
    return NEXT(connection_set_network_monitor_cb)(
        connection, callback == nullptr ? nullptr : &CallLocked, new Monitor{callback, user_data});
}

int connection_unset_network_monitor_cb(connection_h connection) {
    { const std::lock_guard lock(g_mutex); }
    return NEXT(connection_unset_network_monitor_cb)(connection);
}
