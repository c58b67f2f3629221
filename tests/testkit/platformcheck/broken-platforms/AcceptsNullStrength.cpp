// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Is always connected to one access point, and says that it has stored its strength although there
// is no place for it.

#include "wifi_manager.h"

namespace {

template <class Handle>
int Make(Handle* pHandle) {
    if (pHandle == nullptr) {
        return WIFI_MANAGER_ERROR_INVALID_PARAMETER;
    }
    static char one;
    *pHandle = reinterpret_cast<Handle>(&one);
    return WIFI_MANAGER_ERROR_NONE;
}

int Destroy(const void* pHandle) {
    return pHandle == nullptr ? WIFI_MANAGER_ERROR_INVALID_PARAMETER : WIFI_MANAGER_ERROR_NONE;
}

}  // namespace

int wifi_manager_initialize(wifi_manager_h* wifi) {
    return Make(wifi);
}

int wifi_manager_deinitialize(wifi_manager_h wifi) {
    return Destroy(wifi);
}

int wifi_manager_get_connected_ap(wifi_manager_h wifi, wifi_manager_ap_h* ap) {
    return wifi == nullptr ? WIFI_MANAGER_ERROR_INVALID_PARAMETER : Make(ap);
}

int wifi_manager_ap_get_rssi(wifi_manager_ap_h ap, int* rssi) {
    if (ap == nullptr) {
        return WIFI_MANAGER_ERROR_INVALID_PARAMETER;
    }
    if (rssi != nullptr) {
        *rssi = -55;
    }
    return WIFI_MANAGER_ERROR_NONE;
}

int wifi_manager_ap_destroy(wifi_manager_ap_h ap) {
    return Destroy(ap);
}
