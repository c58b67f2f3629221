// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MODEL_SESSION_H
#define TALLYRA_TESTS_FUZZ_MODEL_SESSION_H

#include "model/Delivery.h"
#include "model/Network.h"
#include "model/Playback.h"
#include "model/World.h"

#include <optional>
#include <string>

namespace model {

/// A collector from its making on: the player's calls, and what the platform and the service do.
class CSession {
  public:
    /// @param appId  nothing where the player gave none
    CSession(const World& world, const std::optional<std::string>& appId, int playerID);

    // The player's calls.
    void SendEvent(int event, std::int32_t param1, std::int32_t param2);
    void SendError(int error);
    bool Execute(int code, std::int32_t value, const std::string& text);
    void SetServiceVersion(const std::string& version) { m_strVersion = Cut(version, 12); }
    CPlayback& Playback() { return m_Playback; }

    /// Some time has passed; the world's clock shows it.
    void Pass(std::int64_t milliseconds);
    /// Those who watch the key are told that it has changed.
    void KeyChanged();
    void NetworkChanged(int result, const std::string& state) { m_Network.Hear(result, state); }

    const CDelivery& Delivery() const { return m_Delivery; }

  private:
    enum class Link { AWAITED, FOUND, GIVEN_UP };

    void Collect(const Event& event);
    void Deliver(Record record);
    void LookForService();
    void ServiceFound();
    void GiveUp();
    void AskForPolicy() { m_bOn = m_World.policyAllows; }

    const World& m_World;
    CNetwork m_Network;
    CPlayback m_Playback;
    CDelivery m_Delivery;
    std::string m_strApp;
    std::string m_strVersion;
    int m_nPlayerID;
    bool m_bOn;
    Link m_Link = Link::AWAITED;
    std::int64_t m_nUntilLook;
};

}  // namespace model

#endif  // TALLYRA_TESTS_FUZZ_MODEL_SESSION_H
