// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYNETWORKMANAGER_H
#define TALLYRA_TYNETWORKMANAGER_H

#include "TYAtomic.h"
#include "TYEventCodes.h"

#include "connection.h"
#include "wifi_manager.h"

/// Result of GetWiFiSignalStrength on any failure, in dBm. No radio measures a value this low.
constexpr int TY_RSSI_ERROR = -200;

/// Reports the type of the device's network and the strength of its Wi-Fi signal.
///
/// Threads: the constructor and the platform's monitor callback write m_NetworkType; any thread may
/// read it. Several threads may call GetWiFiSignalStrength at once. No lock is taken.
/// ReleaseNetworkManager and the destructor must not run concurrently with other calls.
class CTYNetworkManager {
  public:
    /// Creates the connection handle, watches the network and sets m_NetworkType.
    CTYNetworkManager();
    /// Destroys all handles. m_NetworkType keeps its value.
    ~CTYNetworkManager();
    CTYNetworkManager(const CTYNetworkManager&) = delete;
    CTYNetworkManager& operator=(const CTYNetworkManager&) = delete;

    /// Creates the connection handle and registers the monitor callback.
    /// @return false when there is a connection handle already, or the platform refuses
    bool InitNetworkManager();

    /// Destroys all platform handles.
    /// @return false when there is no connection handle, or the platform cannot destroy the handle,
    ///         which is then kept
    bool ReleaseNetworkManager();

    /// @return the platform's connection type; 0 on failure
    int GetConnectionType();

    /// Sets m_NetworkType: to disconnected when `isConnect` is false, else from the platform's
    /// connection type.
    void UpdateNetworkType(bool isConnect);

    /// The platform's network monitor callback; `pUserData` is the manager.
    static void NetworkChangeCallback(connection_error_e result, char* name, void* pUserData);

    /// @return whether the device has a default gateway
    bool IsNetworkConnected();

    /// Makes the platform's thread call `pCallback` with `pUserData` whenever a gateway appears. Do
    /// not replace a callback while the platform may call it: callback and data are stored one
    /// after the other.
    void RegistConnectedCallback(void (*pCallback)(void*), void* pUserData);

    /// Reads the current signal strength of the access point that was connected at the first call.
    /// Both Wi-Fi handles are kept until ReleaseNetworkManager.
    /// @return the RSSI in dBm, or TY_RSSI_ERROR
    int GetWiFiSignalStrength();

    /// One per process; the last writer wins. Unknown until the first manager is constructed.
    static CTYAtomic<signed char> m_NetworkType;

  private:
    wifi_manager_h WifiManager();
    wifi_manager_ap_h ConnectedAp(wifi_manager_h hWifiManager);

    connection_h m_hConnection = nullptr;
    CTYAtomic<wifi_manager_h> m_hWifiManager{nullptr};
    CTYAtomic<wifi_manager_ap_h> m_hConnectedAp{nullptr};
    CTYAtomic<void*> m_pConnectedUserData{nullptr};
    CTYAtomic<void (*)(void*)> m_pConnectedCallback{nullptr};
};

#endif  // TALLYRA_TYNETWORKMANAGER_H
