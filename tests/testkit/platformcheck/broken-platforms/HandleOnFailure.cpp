// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Clears the handle although there is no Wi-Fi.

#include "Next.h"

#include "wifi_manager.h"

int wifi_manager_initialize(wifi_manager_h* wifi) {
    const int result = NEXT(wifi_manager_initialize)(wifi);
    if (result != 0 && wifi != nullptr) {
        *wifi = nullptr;
    }
    return result;
}
