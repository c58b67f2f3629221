// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MODEL_WORLD_H
#define TALLYRA_TESTS_FUZZ_MODEL_WORLD_H

#include "Record.h"

#include <cstdint>
#include <string>

namespace model {

/// The state around the library that decides about records. The rig sets the doubles to it.
struct World {
    std::int64_t realNs = 0;  // of the wall clock
    bool clockFails = false;

    int keyResult = 0;
    int keyValue = 1;

    bool serviceIsThere = false;
    bool policyAllows = true;

    std::string version;  // of the application's package

    bool gateway = true;
    int gatewayResult = 0;
    int connectionType = 0;
    int connectionTypeResult = 0;

    int wifiResult = 0;
    int apResult = 0;
    int rssiResult = 0;
    int rssi = 0;

    unsigned thread = 0;  // number of the player's thread

    /// @return the wall clock's time; zero when the clock fails
    Time Now() const {
        constexpr std::int64_t kNsPerSec = 1'000'000'000;
        return clockFails ? Time{}
                          : Time{static_cast<std::int32_t>(realNs / kNsPerSec),
                                 static_cast<std::int32_t>(realNs % kNsPerSec)};
    }
    bool IsKeyOn() const { return keyResult == 0 && keyValue == 1; }
};

/// What the collector knows of the network.
class CNetwork {
  public:
    explicit CNetwork(const World& world) : m_World(world) {}

    /// Reads the network's state at construction.
    void LookUp() { SetConnected(m_World.gatewayResult == 0 && m_World.gateway); }

    /// Handles the platform's notification of a changed network state.
    void Hear(int result, const std::string& state) {
        if (state == "GATEWAY") {
            SetConnected(result == 0);
        }
    }

    /// @return -1 unknown, 0 none, 1 Ethernet, 2 Wi-Fi
    int Type() const { return m_nType; }
    bool IsWifi() const { return m_nType == 2; }

    /// @return the signal of the access point that was connected at the first call
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
    // The platform's connection types.
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

#endif  // TALLYRA_TESTS_FUZZ_MODEL_WORLD_H
