// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYInterruptions.h"

#include <cstdlib>

namespace {

// After PLAYING, sinks may take this long until the position moves.
constexpr std::int64_t kStartOfMovement = 300'000;
// A stall that begins this soon after a seek belongs to it.
constexpr std::int64_t kAfterSeek = 500'000;
// A refused seek has no effect, and nothing on the bus tells that.
constexpr std::int64_t kRefusedAfter = 1'000'000;

constexpr auto kLow = [](const TYBuffering& buffering) { return buffering.isLow; };
constexpr auto kFull = [](const TYBuffering& buffering) { return !buffering.isLow; };
constexpr auto kToPlaying = [](const TYStateChange& change) {
    return change.now == TYPipelineState::PLAYING;
};
// Sinks that lose their state wait for the first data from the new position.
constexpr auto kLost = [](const TYStateChange& change) {
    return change.before >= TYPipelineState::PAUSED && change.now == TYPipelineState::PAUSED &&
           change.pending >= TYPipelineState::PAUSED;
};

}  // namespace

void CTYInterruptions::Begin(std::int64_t now) {
    m_nMovingSince = now;
    m_StallCause = TY_STALL_CONNECTION;
    m_nSeekEnd = 0;
    m_nSeekTime = 0;
}

void CTYInterruptions::OnState(std::int64_t now, const TYStateChange& change) {
    m_Pending = change.pending;
    m_bLost = m_bLost || kLost(change);
    // Nothing tells that a buffer is full if the pipeline was stopped before.
    m_bLow = m_bLow && change.now >= TYPipelineState::PAUSED;
    const bool wasPlaying = m_bPlaying;
    m_bPlaying = change.now == TYPipelineState::PLAYING;
    if (!m_Report.IsStarted()) {
        return;
    }
    if (m_bPlaying && !wasPlaying) {
        OnPlaying(now);
    } else if (wasPlaying && change.now == TYPipelineState::PAUSED) {
        OnPaused(now);
    }
}

void CTYInterruptions::OnPlaying(std::int64_t now) {
    m_nMovingSince = now;
    if (m_Report.IsSeeking()) {
        if (m_bFlushing && !m_bPrerolled && !IsRefused(now)) {
            return;
        }
        CompleteSeek(now);
    }
    if (!m_Report.IsRendered()) {
        m_Report.Render();
    } else if (m_Report.IsPaused()) {
        m_Report.Resume(now);
    }
    m_Report.EndStall(now, m_StallCause);
}

// A flushing seek in PLAYING comes here, too, and so does an application that pauses for a seek.
void CTYInterruptions::OnPaused(std::int64_t now) {
    if (m_Report.IsSeeking() && IsRefused(now)) {
        CompleteSeek(now);
    }
    const bool isTeardown =
        m_Pending == TYPipelineState::READY || m_Pending == TYPipelineState::NULL_STATE;
    const bool isLost = m_Pending >= TYPipelineState::PAUSED;
    if (!m_Report.IsRendered() || m_Report.IsSeeking() || isTeardown || isLost || SeeksSoon(now)) {
        return;
    }
    if (!m_bLow && !IsLowSoon(now)) {
        m_Report.EndStall(now, m_StallCause);
        m_Report.Pause(now);
    } else if (!m_Report.IsStalled() && !PlaysBy(now + kShortestStall)) {
        m_StallCause = CauseNow(now);
        m_Report.BeginStall(now);
    }
}

void CTYInterruptions::OnBuffering(std::int64_t now, const TYBuffering& buffering) {
    m_bLow = buffering.isLow;
    if (!m_Report.IsRendered()) {
        return;
    }
    if (m_bLow) {
        const bool isNested = m_Report.IsSeeking() && !m_Report.IsPaused();
        if (isNested && !IsFullBy(now + kShortestStall)) {
            m_Report.BeginStall(now);
        }
        return;
    }
    const bool isWaiting = m_Report.IsStalled() && (!m_Report.IsSeeking() || m_bPrerolled);
    const bool staysPaused = m_Pending == TYPipelineState::VOID_PENDING && !m_bPlaying;
    if (isWaiting && staysPaused && !PlaysBy(now + CTYDelayLine::kReportDelay)) {
        StayPaused(now);
    }
}

// The pipeline could play on, and the application does not let it.
void CTYInterruptions::StayPaused(std::int64_t now) {
    if (m_Report.IsSeeking()) {
        CompleteSeek(now);
    }
    m_Report.EndStall(now, m_StallCause);
    if (m_Report.IsRendered() && !m_Report.IsPaused()) {
        m_Report.Pause(now);
    }
}

void CTYInterruptions::OnSeek(std::int64_t now, const TYSeek& seek, int target) {
    // Sinks that have lost their state do not lose it a second time.
    m_bLost = m_bLost && m_Report.IsSeeking() && !m_bPrerolled;
    m_Report.Seek(now, target);
    m_Report.Track().SetRate(now, seek.rate);
    m_bFlushing = seek.isFlushing;
    m_bPrerolled = false;
    m_nSeekTime = now;
    m_nSeekPosition = kGstUnknown;
    const bool isNested = m_Report.IsRendered() && !m_Report.IsPaused();
    if (m_bLow && isNested && !IsFullBy(now + kShortestStall)) {
        m_Report.BeginStall(now);
    }
}

void CTYInterruptions::OnAsyncDone(std::int64_t now) {
    if (!m_Report.IsSeeking() || !m_bFlushing) {
        return;
    }
    m_bPrerolled = true;
    const bool staysPaused =
        m_Pending == TYPipelineState::VOID_PENDING && !PlaysBy(now + CTYDelayLine::kReportDelay);
    const bool waits = m_bLow || IsLowSoon(now);
    if (m_Report.IsPaused() || (staysPaused && !waits)) {
        StayPaused(now);
    }
}

void CTYInterruptions::OnSegment(std::int64_t now) {
    if (m_Report.IsSeeking() && !m_bFlushing) {
        CompleteSeek(now);
    }
}

// A seek that had an effect would have stopped the picture by then, or was completed.
void CTYInterruptions::OnSample(std::int64_t now, const TYSample& sample) {
    if (!m_Report.IsSeeking() || !m_bPlaying || sample.position == kGstUnknown) {
        return;
    }
    if (m_nSeekPosition == kGstUnknown) {
        m_nSeekPosition = sample.position;
        return;
    }
    const bool isMoving = std::abs(sample.position - m_nSeekPosition) > 0;
    if (isMoving && now - m_nSeekTime >= kRefusedAfter) {
        CompleteSeek(now);
    }
}

void CTYInterruptions::OnStandstill(std::int64_t now, const TYStandstill& standstill) {
    if (!m_bPlaying || m_Report.IsSeeking() || m_Report.IsPaused() || !m_Report.IsRendered()) {
        return;
    }
    if (!standstill.begins) {
        m_nMovingSince = now - kStartOfMovement;
        m_Report.EndStall(now, m_StallCause);
    } else if (!m_Report.IsStalled()) {
        m_StallCause = CauseNow(now);
        m_Report.BeginStall(now);
    }
}

void CTYInterruptions::CompleteSeek(std::int64_t now) {
    m_nSeekEnd = now;
    m_Report.CompleteSeek(now);
}

// Sinks that get a flush tell soon that they lose their state, or else that they are done.
bool CTYInterruptions::IsRefused(std::int64_t now) const {
    const std::int64_t until = now + CTYDelayLine::kReportDelay;
    return m_bFlushing && !m_bPrerolled && !m_bLost &&
           m_Line.Find<TYStateChange>(until, kLost) == nullptr &&
           m_Line.FindAny<TYAsyncDone>(until) == nullptr;
}

bool CTYInterruptions::WantsWatch(std::int64_t now) const {
    const bool isInterrupted = m_Report.IsSeeking() || m_Report.IsPaused();
    return m_bPlaying && m_Report.IsRendered() && !isInterrupted &&
           now - m_nMovingSince >= kStartOfMovement;
}

bool CTYInterruptions::IsLowSoon(std::int64_t now) const {
    return m_Line.Find<TYBuffering>(now + CTYDelayLine::kReportDelay, kLow) != nullptr;
}

bool CTYInterruptions::IsFullBy(std::int64_t until) const {
    return m_Line.Find<TYBuffering>(until, kFull) != nullptr;
}

bool CTYInterruptions::PlaysBy(std::int64_t until) const {
    return m_Line.Find<TYStateChange>(until, kToPlaying) != nullptr;
}

// A pause that a seek follows at once, before the pipeline plays again, is part of that seek.
bool CTYInterruptions::SeeksSoon(std::int64_t now) const {
    const std::int64_t until = now + CTYDelayLine::kReportDelay;
    const TYGstEvent* pSeek = m_Line.FindAny<TYSeek>(until);
    return pSeek != nullptr && !PlaysBy(pSeek->time);
}

TY_STALL_CAUSE CTYInterruptions::CauseNow(std::int64_t now) const {
    return m_nSeekEnd != 0 && now - m_nSeekEnd < kAfterSeek ? TY_STALL_SEEK : TY_STALL_CONNECTION;
}
