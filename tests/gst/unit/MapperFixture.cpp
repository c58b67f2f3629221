// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "MapperFixture.h"

#include "TYEventCodes.h"

#include <utility>

namespace {

std::string NameOf(int event) {
    return std::string(NameOfCode(event).value_or("event"));
}

std::string Text(int first, int second) {
    return "(" + std::to_string(first) + ", " + std::to_string(second) + ")";
}

std::string Named(const std::string& name, const std::string& value) {
    return value.empty() ? "" : " " + name + " " + value;
}

std::string NamedIf(const std::string& name, int value, int usual) {
    return Named(name, value == usual ? "" : std::to_string(value));
}

}  // namespace

void CFakeCollector::SetContentInfo(CTYContentInfo* pContentInfo) {
    const CTYContentInfo& info = *pContentInfo;
    m_Contents.push_back(
        info.GetURL() + " '" + info.GetTitle() + "' " + std::to_string(info.GetStartTime()) +
        Named("genre", info.GetGenre()) + Named("channel", info.GetChannelID()) +
        Named("custom", info.GetCustomInfo()) + NamedIf("duration", info.GetDuration(), 0) +
        NamedIf("DRM", info.GetDrmType(), TY_DRM_NONE) +
        NamedIf("type", info.GetContentType(), TY_CONTENT_VOD));
}

void CFakeCollector::SetDuration(int duration) {
    m_Contents.push_back("duration " + std::to_string(duration));
}

void CFakeCollector::SetDrmType(TY_DRM_TYPE drmType) {
    m_Contents.push_back("DRM " + std::to_string(drmType));
}

void CFakeCollector::SetContentType(TY_CONTENT_TYPE contentType) {
    m_Contents.push_back("type " + std::to_string(contentType));
}

void CFakeCollector::SendMediaEvent(TY_EVENT_TYPE event, int param1, int param2) {
    m_All.push_back(NameOf(event));
    if (event == TY_EVENT_PLAYBACK_TIME) {
        m_Positions.push_back(std::to_string(m_nNow) + ": " + std::to_string(param1));
        return;
    }
    const bool isPlain = param1 == 0 && param2 == 0;
    m_Events.push_back(std::to_string(m_nNow) + " " + NameOf(event) +
                       (isPlain ? "" : Text(param1, param2)));
}

void CFakeCollector::SendMediaError(TY_ERROR_TYPE error) {
    m_Events.push_back(std::to_string(m_nNow) + " error " + std::to_string(error));
}

bool CFakeCollector::Execute(int code, int value, std::string text) {
    m_Events.push_back(std::to_string(m_nNow) + " " + Text(code, value) + " " + text);
    return true;
}

void CMapperTest::At(int time, TYGstEvent::What what) {
    m_Mapper.Add({std::int64_t{1000} * time, std::move(what)});
}

void CMapperTest::State(int time, TYPipelineState before, TYPipelineState now,
                        TYPipelineState pending) {
    At(time, TYStateChange{before, now, pending});
}

void CMapperTest::StartPlayback(const std::string& uri) {
    At(0, TYSourceReady{uri});
    Play(1000);
}

void CMapperTest::Seek(int time, int target, std::uint32_t seqnum, bool isFlushing) {
    At(time, TYSeek{seqnum, TYSeek::Target::POSITION, target, isFlushing, 1});
}

void CMapperTest::FlushAndPreroll(int from, int until) {
    using enum TYPipelineState;
    State(from, PAUSED, PAUSED, PAUSED);
    State(until, PAUSED, PAUSED, PLAYING);
    At(until, TYAsyncDone{});
}

void CMapperTest::Samples(int from, int until, int position, int rate) {
    for (int time = from; time < until; time += 100) {
        TYSample sample;
        sample.position = position + (time - from) * rate;
        At(time, sample);
    }
}

void CMapperTest::RunUntil(int time) {
    const std::int64_t end = std::int64_t{1000} * time + CTYDelayLine::kReportDelay;
    for (; m_nNow <= end; m_nNow += 1000) {
        m_Collector.m_nNow = static_cast<int>((m_nNow - CTYDelayLine::kReportDelay) / 1000);
        m_Mapper.Advance(m_nNow);
    }
}

CMapperTest::Texts CMapperTest::Reported() {
    return std::exchange(m_Collector.m_Events, {});
}
