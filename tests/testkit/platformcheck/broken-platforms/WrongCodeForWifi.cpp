// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Does not tell a device that is missing from a call that failed.

#include "Next.h"

#include "wifi_manager.h"

int wifi_manager_initialize(wifi_manager_h* wifi) {
    const int result = NEXT(wifi_manager_initialize)(wifi);
    return result == WIFI_MANAGER_ERROR_NO_DEVICE ? WIFI_MANAGER_ERROR_OPERATION_FAILED : result;
}
