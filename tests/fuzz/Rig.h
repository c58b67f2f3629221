// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_RIG_H
#define TALLYRA_TESTS_FUZZ_RIG_H

#include "TYDataCollector.h"
#include "Target.h"
#include "doubles/FakeBus.h"
#include "doubles/PlatformDouble.h"
#include "model/Session.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

class CLockstepClock;

/// A collector over doubles and its reference model, with the same inputs. Compares what both
/// return and what the collector sends with what the model sends.
///
/// Threads: one.
class CRig {
  public:
    /// @param world      is copied: change it with ChangeWorld
    /// @param bConnects  tells whether the bus can be reached
    CRig(const model::World& world, const std::optional<std::string>& appId, int playerID,
         bool bConnects = true);
    ~CRig();
    CRig(const CRig&) = delete;
    CRig& operator=(const CRig&) = delete;

    CFakeBus& Bus() { return m_Bus; }

    // A player's calls. Calls that would fail an assertion are not made.
    void SendEvent(int event, int param1, int param2);
    void SendError(int error) {
        m_Session->SendError(error);
        m_bRecordsGiven = true;
        m_pCollector->SendMediaError(static_cast<TY_ERROR_TYPE>(error));
    }
    void Execute(int code, int value, const std::string& text);
    void SetContent(const model::Content& content);
    void SetServiceVersion(const std::string& version) {
        m_Session->SetServiceVersion(version);
        m_pCollector->SetServiceVersion(version.c_str());
    }
    void SetDuration(int duration) {
        m_Session->Playback().SetDuration(duration);
        m_pCollector->SetDuration(duration);
    }
    void SetDrmType(int drmType) {
        m_Session->Playback().SetDrmType(drmType);
        m_pCollector->SetDrmType(static_cast<TY_DRM_TYPE>(drmType));
    }
    void SetContentType(int contentType) {
        m_Session->Playback().SetContentType(contentType);
        m_pCollector->SetContentType(static_cast<TY_CONTENT_TYPE>(contentType));
    }
    void CompareTypes() {
        Require(m_pCollector->GetDrmType() == m_Session->Playback().DrmType(),
                "the DRM type is the last one set");
        Require(m_pCollector->GetContentType() == m_Session->Playback().ContentType(),
                "the content type is the last one set");
    }
    CTYDataCollector& Collector() { return *m_pCollector; }

    // What happens around the collector.
    void Pass(std::chrono::milliseconds time);
    /// Changes what the platform and the service return.
    template <class Change>
    void ChangeWorld(Change change) {
        change(m_World);
        Apply();
    }
    /// Changes the wall clock, once all derived records have their time.
    template <class Change>
    void ChangeClock(Change change) {
        Settle();
        ChangeWorld(change);
    }
    void FireKeyChanged();
    void FireNetwork(int result, const std::string& state) {
        m_Session->Playback().NetworkChanged(result, state);
        m_Platform.FireNetwork(result, state.c_str());
    }

    /// Deletes the collector. Aborts unless it sent what the model sent.
    void Finish();

  private:
    void Apply();
    void Settle();
    void Compare();

    model::World m_World;
    const bool m_bConnects;
    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    const std::unique_ptr<CLockstepClock> m_pClock;
    CFakeBus m_Bus;
    std::optional<model::CSession> m_Session;
    bool m_bRecordsGiven = false;
    std::unique_ptr<CTYDataCollector> m_pCollector;
};

#endif  // TALLYRA_TESTS_FUZZ_RIG_H
