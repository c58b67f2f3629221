// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SOAK_SEAT_H
#define TALLYRA_TESTS_SOAK_SEAT_H

#include "TYDataCollector.h"

#include <array>
#include <memory>
#include <random>
#include <string>

/// A player that plays contents of 8 s to 15 min one after the other, with stalls, pauses, seeks,
/// errors and aborted playbacks.
///
/// Threads: the one that created it.
class CSeat {
  public:
    enum class Habit {
        KEEPS_COLLECTOR,  ///< one collector for all playbacks
        MAKES_COLLECTOR,  ///< a new collector for each playback
    };

    CSeat(int number, Habit habit, unsigned seed, ITYClock& clock)
        : m_nNumber(number), m_Habit(habit), m_Clock(clock), m_Random(seed) {
        MakeCollector();
    }

    /// Plays for a second.
    void Step() {
        if (m_nSecond == 0) {
            Begin();
        } else if (m_nSecond >= m_nLength) {
            End();
            return;
        } else {
            PlayOn();
        }
        ++m_nSecond;
    }

    /// Aborts the playback and creates a new collector, as a restarted player does.
    void Restart() {
        m_nSecond = 0;
        ReplaceCollector();
    }

    /// @return playbacks begun
    int Playbacks() const { return m_nPlaybacks; }
    /// @return playbacks that ended with a STOP
    int Ends() const { return m_nEnds; }
    /// @return collectors deleted
    int Deletions() const { return m_nDeletions; }

  private:
    // Lengths of playbacks in seconds.
    static constexpr std::array kLengths = {900, 400, 180, 25, 8};
    static constexpr int kRenderSecond = 2;
    static constexpr int kSeekMs = 30000;
    static constexpr int kBitrateCode = 100;
    static constexpr auto kNetworkError = static_cast<TY_ERROR_TYPE>(210);

    void MakeCollector() {
        const std::string application = "org.example.seat" + std::to_string(m_nNumber);
        m_pCollector = std::make_unique<CTYDataCollector>(application.c_str(), TY_PLAYER_NATIVE,
                                                          SystemBus(), m_Clock);
    }

    void ReplaceCollector() {
        m_pCollector.reset();
        ++m_nDeletions;
        MakeCollector();
    }

    void Begin() {
        if (m_Habit == Habit::MAKES_COLLECTOR && m_nPlaybacks > 0) {
            ReplaceCollector();
        }
        ++m_nPlaybacks;
        m_nLength = kLengths[static_cast<std::size_t>(OneOf(kLengths.size()))] + OneOf(20);
        m_nPosition = 0;
        m_bStalled = m_bPaused = false;
        std::string url = "https://vod.example.org/" + std::to_string(m_nNumber) + "/" +
                          std::to_string(m_nPlaybacks) + "/master.m3u8";
        CTYContentInfo content(&url, 0);
        content.SetTitle("Title " + std::to_string(m_nPlaybacks));
        content.SetCustomInfo(std::string(static_cast<std::size_t>(OneOf(4000)), 'c'));
        content.SetDuration(m_nLength * 1000);
        m_pCollector->SetContentInfo(&content);
        Report(TY_EVENT_START);
    }

    void End() {
        if (OneOf(10) == 0) {
            m_pCollector->SendMediaError(kNetworkError);
        }
        Report(TY_EVENT_STOP);
        ++m_nEnds;
        m_nSecond = 0;
    }

    void PlayOn() {
        if (m_nSecond == kRenderSecond) {
            Report(TY_EVENT_RENDER_START);
        }
        Happen(OneOf(60));
        if (!m_bStalled && !m_bPaused) {
            m_nPosition += 1000;
        }
        Report(TY_EVENT_PLAYBACK_TIME, m_nPosition);
        m_pCollector->Execute(kBitrateCode + OneOf(4), m_nPosition, "bitrate");
    }

    void Happen(int chance) {
        if (chance < 4 || (m_bStalled && chance < 20)) {
            m_bStalled = !m_bStalled;
            Report(m_bStalled ? TY_EVENT_BUFFERING_START : TY_EVENT_BUFFERING_END);
        } else if (chance == 21 || (m_bPaused && chance < 30)) {
            m_bPaused = !m_bPaused;
            Report(m_bPaused ? TY_EVENT_PAUSE : TY_EVENT_RESUME);
        } else if (chance == 31) {
            m_nPosition += kSeekMs;
            Report(TY_EVENT_SEEK, m_nPosition);
            Report(TY_EVENT_SEEK_COMPLETE, m_nPosition);
        }
    }

    void Report(int event, int param1 = 0, int param2 = 0) {
        m_pCollector->SendMediaEvent(static_cast<TY_EVENT_TYPE>(event), param1, param2);
    }

    int OneOf(int count) { return std::uniform_int_distribution<int>(0, count - 1)(m_Random); }

    const int m_nNumber;
    const Habit m_Habit;
    ITYClock& m_Clock;
    std::mt19937 m_Random;
    std::unique_ptr<CTYDataCollector> m_pCollector;
    int m_nPlaybacks = 0;
    int m_nEnds = 0;
    int m_nDeletions = 0;

    int m_nSecond = 0;
    int m_nLength = 0;
    int m_nPosition = 0;
    bool m_bStalled = false;
    bool m_bPaused = false;
};

#endif  // TALLYRA_TESTS_SOAK_SEAT_H
