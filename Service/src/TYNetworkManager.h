// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYNETWORKMANAGER_H
#define TALLYRA_TYNETWORKMANAGER_H

#include "TYAtomic.h"
#include "TYEventCodes.h"

#include "connection.h"
#include "wifi_manager.h"

/// What GetWiFiSignalStrength returns for any failure; no radio measures so little.
constexpr int kRssiError = -200;

/// Tells which network the device uses, and how strong its Wi-Fi signal is.
///
/// Threads: m_NetworkType is written by the constructor and by the platform's monitor callback, and
/// read anywhere. GetWiFiSignalStrength may be called from several threads. No lock is taken;
/// ReleaseNetworkManager and the destructor must not run beside other calls.
class CTYNetworkManager {
  public:
    /// Creates the connection handle, watches the network and sets m_NetworkType.
    CTYNetworkManager();
    /// Gives back all handles. m_NetworkType keeps its value.
    ~CTYNetworkManager();
    CTYNetworkManager(const CTYNetworkManager&) = delete;
    CTYNetworkManager& operator=(const CTYNetworkManager&) = delete;

    /// @return false when there is a connection handle already, or the platform refuses
    bool InitNetworkManager();

    /// Gives back every platform handle.
    /// @return false when there was no connection handle, or it could not be destroyed and is kept
    bool ReleaseNetworkManager();

    /// @return the platform's connection type; 0 on failure
    int GetConnectionType();

    /// Sets m_NetworkType from the platform's connection type; to disconnected when `isConnect` is
    /// false.
    void UpdateNetworkType(bool isConnect);

    /// The platform's network monitor callback; `pUserData` is the manager.
    static void NetworkChangeCallback(connection_error_e result, char* name, void* pUserData);

    /// @return whether the device has a default gateway
    bool IsNetworkConnected();

    /// Has `pCallback` called with `pUserData` whenever a gateway comes up, on the platform's
    /// thread. Not to be replaced by another while that may happen: the two are stored apart.
    void RegistConnectedCallback(void (*pCallback)(void*), void* pUserData);

    /// The signal strength of the access point that was connected at the first call: both Wi-Fi
    /// handles are kept until ReleaseNetworkManager.
    /// @return the RSSI in dBm, or kRssiError
    int GetWiFiSignalStrength();

    /// One for the whole process; the last writer wins. Unknown until the first manager is made.
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
