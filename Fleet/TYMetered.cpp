// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYMetered.h"

#include <gio/gio.h>

bool IsNetworkMetered() {
    GNetworkMonitor* pMonitor = g_network_monitor_get_default();
    // Changes arrive as signals, and this program has no main loop that would read them.
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    return g_network_monitor_get_network_metered(pMonitor) != FALSE;
}
