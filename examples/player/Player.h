// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_EXAMPLES_PLAYER_H
#define TALLYRA_EXAMPLES_PLAYER_H

#include "Recording.h"

#include <tallyra/ITYDataCollector.h>

#include <glib.h>

#include <cstddef>
#include <memory>

/// Replays a recorded session on a GLib main loop and reports it to a collector, as a player does.
///
/// Threads: only the main loop's thread may use it.
class CPlayer {
  public:
    /// @param collector   receives the reports; must outlive the player
    /// @param speed       divides the recorded times; greater than 0
    /// @param onEnd       called once as onEnd(pOnEndData), after the last step or from Stop
    CPlayer(ITYDataCollector& collector, Recording recording, double speed, GSourceFunc onEnd,
            gpointer pOnEndData);
    ~CPlayer();
    CPlayer(const CPlayer&) = delete;
    CPlayer& operator=(const CPlayer&) = delete;

    /// Describes the content to the collector and schedules the first step.
    void Play();
    /// Ends the session early. Reports STOP if a playback is in progress.
    void Stop();

  private:
    void DescribeContent();
    void ScheduleNext();
    void Report(const Step& step);
    void End();
    static gboolean OnDue(gpointer pPlayer);

    ITYDataCollector& m_Collector;
    const Recording m_Recording;
    const double m_Speed;
    const GSourceFunc m_OnEnd;
    gpointer m_pOnEndData;
    std::size_t m_Next = 0;
    gint64 m_StartTime = 0;
    guint m_Timer = 0;
    bool m_bPlaying = false;
    bool m_bEnded = false;
};

#endif  // TALLYRA_EXAMPLES_PLAYER_H
