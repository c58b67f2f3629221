// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYINTERRUPTIONS_H
#define TALLYRA_GST_TYINTERRUPTIONS_H

#include "TYDelayLine.h"
#include "TYGstEvent.h"
#include "TYPlaybackReport.h"

#include <cstdint>

/// Tells the viewer's pauses, seeks and stalls from one another. All three stop the picture, and an
/// application that waits for its buffer pauses the pipeline as a viewer does.
///
/// Threads: one.
class CTYInterruptions {
  public:
    /// A shorter stall is not reported: nobody sees it, and each change of the variant makes one.
    static constexpr std::int64_t kShortestStall = 100'000;

    CTYInterruptions(const CTYDelayLine& line, CTYPlaybackReport& report)
        : m_Line(line), m_Report(report) {}

    /// A playback starts.
    void Begin(std::int64_t now);

    void OnState(std::int64_t now, const TYStateChange& change);
    void OnBuffering(std::int64_t now, const TYBuffering& buffering);
    void OnSeek(std::int64_t now, const TYSeek& seek, int target);
    void OnAsyncDone(std::int64_t now);
    void OnSegment(std::int64_t now);
    void OnSample(std::int64_t now, const TYSample& sample);
    void OnStandstill(std::int64_t now, const TYStandstill& standstill);

    /// @return whether the pipeline is in PLAYING
    bool IsPlaying() const { return m_bPlaying; }
    /// @return whether the stall watch shall look for the beginning of a stall, or its end
    bool WantsWatch(std::int64_t now) const;

  private:
    void OnPlaying(std::int64_t now);
    void OnPaused(std::int64_t now);
    void StayPaused(std::int64_t now);
    void CompleteSeek(std::int64_t now);
    bool IsRefused(std::int64_t now) const;
    bool IsLowSoon(std::int64_t now) const;
    bool IsFullBy(std::int64_t until) const;
    bool PlaysBy(std::int64_t until) const;
    bool SeeksSoon(std::int64_t now) const;
    TY_STALL_CAUSE CauseNow(std::int64_t now) const;

    const CTYDelayLine& m_Line;
    CTYPlaybackReport& m_Report;

    bool m_bPlaying = false;
    bool m_bLow = false;
    TYPipelineState m_Pending = TYPipelineState::VOID_PENDING;
    std::int64_t m_nMovingSince = 0;
    TY_STALL_CAUSE m_StallCause = TY_STALL_CONNECTION;
    // The seek in progress, or the last one.
    bool m_bFlushing = false;
    bool m_bPrerolled = false;
    bool m_bLost = false;  ///< whether the sinks have lost their state since the seek
    std::int64_t m_nSeekTime = 0;
    std::int64_t m_nSeekEnd = 0;
    int m_nSeekPosition = kGstUnknown;  ///< at the first look after the seek
};

#endif  // TALLYRA_GST_TYINTERRUPTIONS_H
