// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MODEL_NETWORK_H
#define TALLYRA_TESTS_FUZZ_MODEL_NETWORK_H

#include "model/World.h"

#include <string>

namespace model {

/// What is known of the device's network.
class CNetwork {
  public:
    explicit CNetwork(const World& world) : m_World(world) {}

    /// Looks at the network for the first time.
    void LookUp() { SetConnected(m_World.gatewayResult == 0 && m_World.gateway); }

    /// Hears of a change of a network state.
    void Hear(int result, const std::string& state) {
        if (state == "GATEWAY") {
            SetConnected(result == 0);
        }
    }

    /// @return -1 unknown, 0 none, 1 Ethernet, 2 Wi-Fi
    int Type() const { return m_nType; }
    bool IsWifi() const { return m_nType == 2; }

    /// @return the signal of the access point that was connected when it was first asked for
    int SignalStrength() {
        constexpr int kNoSignal = -200;
        m_bWifiOpen = m_bWifiOpen || m_World.wifiResult == 0;
        if (!m_bWifiOpen) {
            return kNoSignal;
        }
        m_bApOpen = m_bApOpen || m_World.apResult == 0;
        return m_bApOpen && m_World.rssiResult == 0 ? m_World.rssi : kNoSignal;
    }

  private:
    // The platform's numbers for what a connection is made of.
    static constexpr int kPlatformWifi = 1;
    static constexpr int kPlatformEthernet = 3;

    void SetConnected(bool connected) {
        const int type = m_World.connectionTypeResult == 0 ? m_World.connectionType : 0;
        m_nType = !connected ? 0 : type == kPlatformWifi ? 2 : type == kPlatformEthernet ? 1 : -1;
    }

    const World& m_World;
    int m_nType = -1;
    bool m_bWifiOpen = false;
    bool m_bApOpen = false;
};

}  // namespace model

#endif  // TALLYRA_TESTS_FUZZ_MODEL_NETWORK_H
