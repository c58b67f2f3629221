// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYPLAYBACKREPORT_H
#define TALLYRA_GST_TYPLAYBACKREPORT_H

#include "TYGstEvent.h"
#include "TYPositionTrack.h"
#include "TYRendition.h"

#include "tallyra/ITYDataCollector.h"

#include <cstdint>

/// Reports one playback after another, and knows what it has reported: it starts a stall once, ends
/// only one that has started, and closes what is open at the end.
///
/// Threads: one.
class CTYPlaybackReport {
  public:
    explicit CTYPlaybackReport(ITYDataCollector& collector) : m_Collector(collector) {}

    void Start();
    void Render();
    void Pause(std::int64_t now);
    void Resume(std::int64_t now);
    void BeginStall(std::int64_t now);
    void EndStall(std::int64_t now, TY_STALL_CAUSE cause);
    /// @param target  in milliseconds; kGstUnknown is the present position
    void Seek(std::int64_t now, int target);
    void CompleteSeek(std::int64_t now);
    void Fail(const TYGstError& error);
    /// @param position  the last one; kGstUnknown takes the position at this time
    void Stop(std::int64_t now, TY_STOP_REASON reason, int position = kGstUnknown);

    /// Notes a sample. Reports the position once a second while the picture moves, and the frames
    /// once a minute.
    void SetSample(std::int64_t now, const TYSample& sample);
    /// Reports the rendition if it changed since.
    void ReportRendition(std::int64_t now);

    bool IsStarted() const { return m_bStarted; }
    bool IsRendered() const { return m_bRendered; }
    bool IsPaused() const { return m_bPaused; }
    bool IsStalled() const { return m_bStalled; }
    bool IsSeeking() const { return m_bSeeking; }
    /// @return whether the picture moves
    bool IsMoving() const { return m_bRendered && !m_bPaused && !m_bStalled && !m_bSeeking; }

    CTYPositionTrack& Track() { return m_Track; }
    const CTYPositionTrack& Track() const { return m_Track; }
    CTYRendition& Rendition() { return m_Rendition; }

  private:
    void ReportPosition(std::int64_t now, int position);
    void ReportFrames();
    void Send(TY_EVENT_TYPE event, int param1, int param2);

    ITYDataCollector& m_Collector;

    CTYPositionTrack m_Track;
    CTYRendition m_Rendition;
    bool m_bStarted = false;
    bool m_bRendered = false;
    bool m_bPaused = false;
    bool m_bStalled = false;
    bool m_bSeeking = false;
    std::int64_t m_nPositionReported = 0;
    std::int64_t m_nFramesReported = 0;
    // Of the whole life of the pipeline, now and at START.
    int m_nDropped = 0;
    int m_nRendered = 0;
    int m_nDroppedBefore = 0;
    int m_nRenderedBefore = 0;
};

#endif  // TALLYRA_GST_TYPLAYBACKREPORT_H
