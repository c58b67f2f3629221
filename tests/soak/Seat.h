// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SOAK_SEAT_H
#define TALLYRA_TESTS_SOAK_SEAT_H

#include "TYDataCollector.h"

#include <memory>
#include <random>

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

    CSeat(int number, Habit habit, unsigned seed, ITYClock& clock);

    /// Plays for a second.
    void Step();

    /// Aborts the playback and creates a new collector, as a restarted player does.
    void Restart();

    /// @return playbacks begun
    int Playbacks() const { return m_nPlaybacks; }
    /// @return playbacks that ended with a STOP
    int Ends() const { return m_nEnds; }
    /// @return collectors deleted
    int Deletions() const { return m_nDeletions; }

  private:
    void MakeCollector();
    void ReplaceCollector();
    void Begin();
    void End();
    void PlayOn();
    void Happen(int chance);
    void Report(int event, int param1 = 0, int param2 = 0);
    int OneOf(int count);

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
