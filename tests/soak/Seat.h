// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SOAK_SEAT_H
#define TALLYRA_TESTS_SOAK_SEAT_H

#include "TYDataCollector.h"

#include <memory>
#include <random>

/// A player that plays one thing after the other: films, live streams, a few seconds of a channel;
/// with stalls, pauses, seeks, errors and playbacks that are broken off.
///
/// Threads: the one that made it.
class CSeat {
  public:
    enum class Habit {
        KEEPS_COLLECTOR,  ///< one collector for all that it plays
        MAKES_COLLECTOR,  ///< a new one for each playback, as a player that is started for it
    };

    CSeat(int number, Habit habit, unsigned seed, ITYClock& clock);

    /// Plays on for a second.
    void Step();

    /// Breaks off the playback and takes a new collector, as a player does that is started again.
    void Restart();

    /// @return playbacks that began
    int Playbacks() const { return m_nPlaybacks; }
    /// @return playbacks that came to their end
    int Ends() const { return m_nEnds; }
    /// @return collectors that were deleted
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
