// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MODEL_SESSION_H
#define TALLYRA_TESTS_FUZZ_MODEL_SESSION_H

#include "Delivery.h"
#include "Playback.h"
#include "World.h"

#include <optional>
#include <string>

namespace model {

/// A collector from its construction: the player's calls, the platform and the service.
class CSession {
  public:
    /// @param appId  is empty when the player passed null
    CSession(const World& world, const std::optional<std::string>& appId, int playerID);

    // The player's calls.
    void SendEvent(int event, std::int32_t param1, std::int32_t param2);
    void SendError(int error);
    bool Execute(int code, std::int32_t value, const std::string& text);
    void SetServiceVersion(const std::string& version) { m_strVersion = Cut(version, 12); }
    CPlayback& Playback() { return m_Playback; }

    /// Handles the passing of time; the world's clock is already moved.
    void Pass(std::int64_t milliseconds);
    /// Handles the notification of a changed key.
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
