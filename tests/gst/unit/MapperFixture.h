// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "TYPlaybackMapper.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

/// Keeps what is reported, as texts with the time of the event in milliseconds.
class CFakeCollector final : public ITYDataCollector {
  public:
    void SetServiceVersion(const char* /*pServiceVersion*/) override {}
    void SetContentInfo(CTYContentInfo* pContentInfo) override;
    void SetDuration(int duration) override;
    void SetDrmType(TY_DRM_TYPE drmType) override;
    void SetContentType(TY_CONTENT_TYPE contentType) override;
    TY_DRM_TYPE GetDrmType() override { return TY_DRM_NOT_SET; }
    TY_CONTENT_TYPE GetContentType() override { return TY_CONTENT_NOT_SET; }
    void SendMediaEvent(TY_EVENT_TYPE event, int param1, int param2) override;
    void SendMediaError(TY_ERROR_TYPE error) override;
    bool Execute(int code, int value, std::string text) override;
    bool GetVersion(int* /*pMajor*/, int* /*pMinor*/) override { return false; }

    int m_nNow = 0;
    std::vector<std::string> m_Events;     ///< all but positions
    std::vector<std::string> m_Positions;  ///< PLAYBACK_TIME
    /// Content, with what differs from content of which nothing is known, and its changes.
    std::vector<std::string> m_Contents;
    std::vector<std::string> m_All;  ///< names of all events, in their order
};

/// Plays events to a mapper. All times are milliseconds.
class CMapperTest : public testing::Test {
  protected:
    using Texts = std::vector<std::string>;

    void At(int time, TYGstEvent::What what);
    /// Adds a change of state of the pipeline.
    void State(int time, TYPipelineState before, TYPipelineState now,
               TYPipelineState pending = TYPipelineState::VOID_PENDING);
    void Play(int time) { State(time, TYPipelineState::PAUSED, TYPipelineState::PLAYING); }
    void Pause(int time) { State(time, TYPipelineState::PLAYING, TYPipelineState::PAUSED); }
    /// Adds a source at 0, and PLAYING at 1000.
    void StartPlayback(const std::string& uri = "http://example.org/a/film.mp4");
    void Seek(int time, int target, std::uint32_t seqnum, bool isFlushing = true);
    /// Adds what a pipeline posts on a flushing seek that it got while it played.
    void FlushAndPreroll(int from, int until);
    /// Adds samples every 100 ms, from `from` on and before `until`.
    /// @param position  at `from`
    /// @param rate      0: the position stands
    void Samples(int from, int until, int position, int rate = 1);
    /// Reports all that happened until this time, each when it is due.
    void RunUntil(int time);
    /// @return the events reported so far, without positions, and forgets them
    Texts Reported();

    CFakeCollector m_Collector;
    CTYPlaybackMapper m_Mapper{m_Collector};

  private:
    std::int64_t m_nNow = 0;  ///< microseconds
};
