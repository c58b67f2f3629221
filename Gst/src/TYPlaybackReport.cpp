// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPlaybackReport.h"

#include "TYGstErrors.h"

#include <algorithm>

namespace {

// A little less than a second: samples do not come exactly every 100 ms.
constexpr std::int64_t kPositionPeriod = 950'000;
constexpr std::int64_t kFramesPeriod = 60'000'000;

}  // namespace

void CTYPlaybackReport::Start() {
    m_bStarted = true;
    m_bRendered = m_bPaused = m_bStalled = m_bSeeking = false;
    m_nDroppedBefore = m_nDropped;
    m_nRenderedBefore = m_nRendered;
    m_nPositionReported = 0;
    m_nFramesReported = 0;
    m_Track.Reset();
    Send(TY_EVENT_START, 0, 0);
}

void CTYPlaybackReport::Render() {
    m_bRendered = true;
    Send(TY_EVENT_RENDER_START, 0, 0);
}

void CTYPlaybackReport::Pause(std::int64_t now) {
    ReportPosition(now, m_Track.At(now));
    m_bPaused = true;
    m_Track.SetMoving(now, false);
    Send(TY_EVENT_PAUSE, 0, 0);
}

void CTYPlaybackReport::Resume(std::int64_t now) {
    m_bPaused = false;
    m_Track.SetMoving(now, true);
    Send(TY_EVENT_RESUME, 0, 0);
}

void CTYPlaybackReport::BeginStall(std::int64_t now) {
    if (m_bStalled) {
        return;
    }
    m_bStalled = true;
    m_Track.SetMoving(now, false);
    Send(TY_EVENT_BUFFERING_START, 0, 0);
}

void CTYPlaybackReport::EndStall(std::int64_t now, TY_STALL_CAUSE cause) {
    if (!m_bStalled) {
        return;
    }
    m_bStalled = false;
    m_Track.SetMoving(now, IsMoving());
    Send(TY_EVENT_BUFFERING_END, 0, cause);
}

void CTYPlaybackReport::Seek(std::int64_t now, int target) {
    const int position = m_Track.At(now);
    ReportPosition(now, position);
    EndStall(now, m_bSeeking ? TY_STALL_SEEK : TY_STALL_CONNECTION);
    m_bSeeking = true;
    const int reported = target == kGstUnknown ? std::max(position, 0) : target;
    m_Track.Set(now, reported, false);
    m_Rendition.Flush();
    Send(TY_EVENT_SEEK, reported, 0);
}

void CTYPlaybackReport::CompleteSeek(std::int64_t now) {
    EndStall(now, TY_STALL_SEEK);
    m_bSeeking = false;
    m_nPositionReported = 0;
    m_Track.SetMoving(now, IsMoving());
    Send(TY_EVENT_SEEK_COMPLETE, 0, 0);
}

void CTYPlaybackReport::Fail(const TYGstError& error) {
    const TY_ERROR_TYPE code = CodeOfGstError(error);
    m_Collector.SendMediaError(code);
    m_Collector.Execute(code, error.httpStatus, TextOfGstError(error));
}

void CTYPlaybackReport::Stop(std::int64_t now, TY_STOP_REASON reason, int position) {
    ReportPosition(now, position == kGstUnknown ? m_Track.At(now) : position);
    EndStall(now, m_bSeeking ? TY_STALL_SEEK : TY_STALL_CONNECTION);
    ReportFrames();
    m_bStarted = m_bRendered = false;
    Send(TY_EVENT_STOP, 0, reason);
}

void CTYPlaybackReport::SetSample(std::int64_t now, const TYSample& sample) {
    m_nDropped = sample.framesDropped;
    m_nRendered = sample.framesRendered;
    if (!IsMoving()) {
        return;
    }
    if (sample.position != kGstUnknown) {
        m_Track.Set(now, sample.position, true);
        if (now - m_nPositionReported >= kPositionPeriod) {
            ReportPosition(now, sample.position);
        }
    }
    if (m_nFramesReported == 0) {
        m_nFramesReported = now;
    } else if (now - m_nFramesReported >= kFramesPeriod) {
        m_nFramesReported = now;
        ReportFrames();
    }
}

void CTYPlaybackReport::ReportRendition(std::int64_t now) {
    if (!m_bRendered) {
        return;
    }
    if (const auto rendition = m_Rendition.TakeChange(now)) {
        Send(TY_EVENT_RENDITION, rendition->kbps, rendition->size);
    }
}

// The library ignores positions before the first frame and during a pause.
void CTYPlaybackReport::ReportPosition(std::int64_t now, int position) {
    if (m_bRendered && !m_bPaused && !m_bSeeking && position != kGstUnknown) {
        m_nPositionReported = now;
        Send(TY_EVENT_PLAYBACK_TIME, position, 0);
    }
}

void CTYPlaybackReport::ReportFrames() {
    if (m_bRendered && m_nRendered > m_nRenderedBefore) {
        Send(TY_EVENT_DROPPED_FRAMES, m_nDropped - m_nDroppedBefore,
             m_nRendered - m_nRenderedBefore);
    }
}

void CTYPlaybackReport::Send(TY_EVENT_TYPE event, int param1, int param2) {
    m_Collector.SendMediaEvent(event, param1, param2);
}
