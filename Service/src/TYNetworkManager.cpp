// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYNetworkManager.h"

#include "TYLog.h"

#include <cstring>

#define TY_LOG_TAG TY_TAG_UTIL

namespace {

constexpr int kPlatformWifi = 1;
constexpr int kPlatformEthernet = 3;

}  // namespace

CTYAtomic<signed char> CTYNetworkManager::m_NetworkType{TY_NETWORK_UNKNOWN};

CTYNetworkManager::CTYNetworkManager() {
    InitNetworkManager();
    UpdateNetworkType(IsNetworkConnected());
}

CTYNetworkManager::~CTYNetworkManager() {
    ReleaseNetworkManager();
}

bool CTYNetworkManager::InitNetworkManager() {
    if (m_hConnection != nullptr) {
        TY_LOG_ERROR("m_hConnection was already created!!!");
        return false;
    }
    if (connection_create(&m_hConnection) != 0) {
        TY_LOG_ERROR("connection_create is fail!!!");
        m_hConnection = nullptr;
        return false;
    }
    TY_LOG_DEBUG("connection_create success : %p", static_cast<void*>(m_hConnection));
    if (connection_set_network_monitor_cb(m_hConnection, &NetworkChangeCallback, this) != 0) {
        TY_LOG_ERROR("connection_set_network_monitor_cb is fail!!!");
        return false;
    }
    TY_LOG_DEBUG("connection_set_network_monitor_cb success");
    return true;
}

bool CTYNetworkManager::ReleaseNetworkManager() {
    if (m_hConnectedAp != nullptr) {
        wifi_manager_ap_destroy(m_hConnectedAp);
        m_hConnectedAp = nullptr;
    }
    if (m_hWifiManager != nullptr) {
        wifi_manager_deinitialize(m_hWifiManager);
        m_hWifiManager = nullptr;
    }
    if (m_hConnection == nullptr) {
        TY_LOG_ERROR("m_hConnection is NULL");
        return false;
    }
    connection_unset_network_monitor_cb(m_hConnection);
    if (connection_destroy(m_hConnection) != 0) {
        TY_LOG_ERROR("Failed to destroy connection");
        return false;
    }
    TY_LOG_DEBUG("Connection destroyed successfully");
    m_hConnection = nullptr;
    return true;
}

int CTYNetworkManager::GetConnectionType() {
    int type = 0;
    if (connection_get_type(m_hConnection, &type) != 0) {
        TY_LOG_ERROR("connection_get_type error");
    }
    return type;
}

void CTYNetworkManager::UpdateNetworkType(bool isConnect) {
    signed char networkType = TY_NETWORK_DISCONNECTED;
    if (isConnect) {
        const int type = GetConnectionType();
        networkType = type == kPlatformWifi       ? TY_NETWORK_WIFI
                      : type == kPlatformEthernet ? TY_NETWORK_ETHERNET
                                                  : TY_NETWORK_UNKNOWN;
    }
    m_NetworkType = networkType;
    TY_LOG_DEBUG("isConnect : %d, m_NetworkType : %d", isConnect, networkType);
}

void CTYNetworkManager::NetworkChangeCallback(connection_error_e result, char* name,
                                              void* pUserData) {
    if (name == nullptr || pUserData == nullptr) {
        TY_LOG_ERROR("Invalid Network state callback!!!");
        return;
    }
    TY_LOG_DEBUG("[%s] State callback Result : [%d]", name, static_cast<int>(result));
    if (std::strcmp(name, "GATEWAY") != 0) {
        return;
    }
    auto* pThis = static_cast<CTYNetworkManager*>(pUserData);
    if (result != 0) {
        pThis->UpdateNetworkType(false);
        TY_LOG_DEBUG("Gateway connected fail!!!");
        return;
    }
    pThis->UpdateNetworkType(true);
    void (*pCallback)(void*) = pThis->m_pConnectedCallback;
    if (pCallback == nullptr) {
        TY_LOG_ERROR("m_pConnectedCallback is NULL!!!");
        return;
    }
    pCallback(pThis->m_pConnectedUserData);
    TY_LOG_DEBUG("Gateway connected success");
}

bool CTYNetworkManager::IsNetworkConnected() {
    bool connected = false;
    const int result = connection_profile_check_default_gateway(&connected);
    if (result == 0 && connected) {
        TY_LOG_DEBUG("Network Connect!");
        return true;
    }
    TY_LOG_ERROR("Network Disconnect : connection_profile_check_default_gateway return fail : %d",
                 result);
    return false;
}

// Stores the data first, so that a thread that sees the new callback also sees its data.
void CTYNetworkManager::RegistConnectedCallback(void (*pCallback)(void*), void* pUserData) {
    m_pConnectedUserData = pUserData;
    m_pConnectedCallback = pCallback;
}

int CTYNetworkManager::GetWiFiSignalStrength() {
    wifi_manager_h hWifiManager = WifiManager();
    if (hWifiManager == nullptr) {
        return TY_RSSI_ERROR;
    }
    wifi_manager_ap_h hConnectedAp = ConnectedAp(hWifiManager);
    if (hConnectedAp == nullptr) {
        return TY_RSSI_ERROR;
    }
    int rssi = 0;
    const int result = wifi_manager_ap_get_rssi(hConnectedAp, &rssi);
    if (result != 0) {
        TY_LOG_ERROR("wifi_ap_get_rssi error : %d!!!", result);
        return TY_RSSI_ERROR;
    }
    return rssi;
}

// Two threads may find no handle and create one each. The second destroys its own.
wifi_manager_h CTYNetworkManager::WifiManager() {
    wifi_manager_h hKept = m_hWifiManager;
    if (hKept != nullptr) {
        return hKept;
    }
    wifi_manager_h hMade = nullptr;
    const int result = wifi_manager_initialize(&hMade);
    if (result != 0 || hMade == nullptr) {
        TY_LOG_ERROR("wifi_initialize error : %d!!!", result);
        return nullptr;
    }
    hKept = m_hWifiManager.CompareExchange(nullptr, hMade);
    if (hKept == nullptr) {
        return hMade;
    }
    wifi_manager_deinitialize(hMade);
    return hKept;
}

wifi_manager_ap_h CTYNetworkManager::ConnectedAp(wifi_manager_h hWifiManager) {
    wifi_manager_ap_h hKept = m_hConnectedAp;
    if (hKept != nullptr) {
        return hKept;
    }
    wifi_manager_ap_h hMade = nullptr;
    const int result = wifi_manager_get_connected_ap(hWifiManager, &hMade);
    if (result != 0 || hMade == nullptr) {
        TY_LOG_ERROR("wifi_get_connected_ap error : %d!!!", result);
        return nullptr;
    }
    hKept = m_hConnectedAp.CompareExchange(nullptr, hMade);
    if (hKept == nullptr) {
        return hMade;
    }
    wifi_manager_ap_destroy(hMade);
    return hKept;
}
