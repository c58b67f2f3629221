// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPlaybackMapper.h"

#include "TYGstErrors.h"
#include "TYPublicText.h"
#include "TYStallWatch.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <variant>

namespace {

// The last sample before the end of the stream is at most this old.
constexpr int kNearEndMs = 1000;

// The observer's thread is a little late for every event.
constexpr std::int64_t kNoticeablyLate = 20'000;

}  // namespace

CTYPlaybackMapper::CTYPlaybackMapper(ITYDataCollector& collector)
    : m_Report(collector), m_Content(collector), m_Interruptions(m_Line, m_Report) {}

void CTYPlaybackMapper::Add(TYGstEvent event) {
    m_Line.Insert(std::move(event));
}

void CTYPlaybackMapper::Advance(std::int64_t now) {
    KeepLate(now);
    while (const auto event = m_Line.TakeDue(now)) {
        Process(*event);
        KeepLate(now);
    }
}

// Between two playbacks nothing has to keep its distance.
void CTYPlaybackMapper::KeepLate(std::int64_t now) {
    if (!m_Report.IsStarted()) {
        const std::int64_t late = m_Line.LateBy(now);
        m_Line.SetLate(late > kNoticeablyLate ? late : 0);
    }
}

bool CTYPlaybackMapper::IsFinished() const {
    return !m_Report.IsStarted() && m_Line.FindAny<TYSourceReady>(INT64_MAX) == nullptr;
}

void CTYPlaybackMapper::Process(const TYGstEvent& event) {
    m_nNow = std::max(m_nNow, event.time);
    if (HoldForNext(event.what)) {
        return;
    }
    std::visit([this](const auto& what) { On(what); }, event.what);
    m_Report.ReportRendition(m_nNow);
}

// What comes after the source of the next content describes that one, also if it comes before its
// stream. Only the picture is still that of this content, until just before the next begins.
bool CTYPlaybackMapper::HoldForNext(const TYGstEvent::What& what) {
    const bool isOfSource = std::holds_alternative<TYTags>(what) ||
                            std::holds_alternative<TYProtection>(what) ||
                            std::holds_alternative<TYVariant>(what);
    const bool isOfPicture =
        std::holds_alternative<TYPictureSize>(what) &&
        m_Line.FindAny<TYStreamStart>(m_nNow + CTYDelayLine::kReportDelay) != nullptr;
    const bool isOfNext = m_NextUri && m_Report.IsRendered() && (isOfSource || isOfPicture);
    if (isOfNext) {
        m_OfNext.push_back(what);
    }
    return isOfNext;
}

// The playbin makes the source of the next content while this one still plays, and before it plays
// if all of it is read by then. The application's handler of about-to-finish may run before ours,
// so the announcement may follow the source. While the playbin is torn down after an error, it may
// ask for the next content, which it never plays.
void CTYPlaybackMapper::On(const TYSourceReady& source) {
    if (m_Report.IsStarted()) {
        const std::int64_t soon = m_nNow + CTYDelayLine::kReportDelay;
        const bool isAnnounced =
            m_bAboutToFinish || m_Line.FindAny<TYAboutToFinish>(soon) != nullptr;
        if (m_Report.IsRendered() || isAnnounced) {
            m_NextUri = source.uri;
        }
        return;
    }
    if (!m_bFailed || !m_bAboutToFinish) {
        if (m_bUsed) {
            Forget();
        }
        Start(source.uri, 0);
    }
}

void CTYPlaybackMapper::On(const TYStateChange& change) {
    const bool isReset =
        change.now == TYPipelineState::READY || change.now == TYPipelineState::NULL_STATE;
    if (isReset) {
        Stop(TY_STOP_USER);
        Forget();
        m_bFailed = m_bEnded = m_bAboutToFinish = false;
    }
    m_Interruptions.OnState(m_nNow, change);
}

void CTYPlaybackMapper::On(const TYBuffering& buffering) {
    m_Interruptions.OnBuffering(m_nNow, buffering);
}

void CTYPlaybackMapper::On(const TYAsyncDone& /*done*/) {
    m_Interruptions.OnAsyncDone(m_nNow);
}

// One seek reaches each sink. After the end of the stream, it plays the content once more.
void CTYPlaybackMapper::On(const TYSeek& seek) {
    if (!IsNewSeek(seek.seqnum)) {
        return;
    }
    const int target = TargetOf(seek);
    if (m_Report.IsStarted()) {
        m_Interruptions.OnSeek(m_nNow, seek, target);
    } else if (m_bEnded && seek.isFlushing) {
        Start(std::string(m_Content.GetUri()), std::max(target, 0));
        m_Report.Track().SetRate(m_nNow, seek.rate);
    }
}

void CTYPlaybackMapper::On(const TYSegment& /*segment*/) {
    m_Interruptions.OnSegment(m_nNow);
}

// Some demuxers post STREAM_START at each change of the variant: only one after a new source
// matters.
void CTYPlaybackMapper::On(const TYStreamStart& /*start*/) {
    if (!m_Report.IsRendered() || !m_NextUri) {
        return;
    }
    const std::string uri = *m_NextUri;
    const std::vector<TYGstEvent::What> ofNext = std::exchange(m_OfNext, {});
    Stop(m_bAboutToFinish ? TY_STOP_END_OF_CONTENT : TY_STOP_REPLACED,
         m_bAboutToFinish ? EndPosition() : kGstUnknown);
    m_Content.Forget();
    m_Report.Rendition().Continue();
    Start(uri, 0);
    for (const TYGstEvent::What& what : ofNext) {
        std::visit([this](const auto& each) { On(each); }, what);
    }
    m_Report.Render();
}

void CTYPlaybackMapper::On(const TYAboutToFinish& /*announced*/) {
    m_bAboutToFinish = true;
}

void CTYPlaybackMapper::On(const TYEndOfStream& /*end*/) {
    if (m_Report.IsStarted()) {
        Stop(TY_STOP_END_OF_CONTENT, EndPosition());
        m_bEnded = true;
    }
}

// All of this content was read when the next one was asked for: its source has no errors any more.
void CTYPlaybackMapper::On(const TYGstError& error) {
    if (m_Report.IsStarted() && m_NextUri && error.domain == kGstResourceErrors) {
        const std::string uri = *m_NextUri;
        Stop(TY_STOP_REPLACED);
        Start(uri, 0);
    }
    if (m_Report.IsStarted()) {
        m_Report.Fail(WithoutSecrets(error));
        Stop(TY_STOP_FATAL_ERROR);
        m_bFailed = true;
        m_bAboutToFinish = false;
    }
}

// Messages quote what the application set, also if that is no URI.
TYGstError CTYPlaybackMapper::WithoutSecrets(TYGstError error) const {
    const std::string_view uri = m_Content.GetUri();
    const auto at = uri.empty() ? std::string::npos : error.message.find(uri);
    if (at != std::string::npos) {
        error.message.replace(at, uri.size(), PublicUri(uri));
    }
    return error;
}

void CTYPlaybackMapper::On(const TYTags& tags) {
    m_Content.SetTags(tags);
    m_Report.Rendition().SetTags(tags);
}

void CTYPlaybackMapper::On(const TYDescription& description) {
    m_Content.Describe(description);
}

void CTYPlaybackMapper::On(const TYProtection& protection) {
    m_Content.SetProtection(protection);
}

void CTYPlaybackMapper::On(const TYVariant& variant) {
    m_Report.Rendition().SetVariant(m_nNow, variant.kbps);
}

void CTYPlaybackMapper::On(const TYPictureSize& size) {
    m_Report.Rendition().SetPicture(size);
}

void CTYPlaybackMapper::On(const TYRate& rate) {
    m_Report.Track().SetRate(m_nNow, rate.rate);
}

void CTYPlaybackMapper::On(const TYSample& sample) {
    if (!m_Report.IsStarted()) {
        return;
    }
    m_Content.SetSample(sample);
    if (sample.isStopped && !m_Report.IsRendered()) {
        Stop(TY_STOP_USER);
        return;
    }
    m_Interruptions.OnSample(m_nNow, sample);
    if (m_Interruptions.IsPlaying()) {
        m_Report.SetSample(m_nNow, sample);
        Watch(sample);
    }
}

// The end of the content is no stall, although the position stands there until EOS.
void CTYPlaybackMapper::Watch(const TYSample& sample) {
    if (sample.position == kGstUnknown || !m_Interruptions.WantsWatch(m_nNow)) {
        return;
    }
    const bool isStalled = m_Report.IsStalled();
    const double rate = m_Report.Track().GetRate();
    const auto change = isStalled ? CTYStallWatch::FindMove(m_Line, m_nNow, sample, rate)
                                  : CTYStallWatch::FindStop(m_Line, m_nNow, sample, rate);
    const int duration = m_Content.GetDuration();
    const bool isAtEnd = duration > 0 && rate > 0 && sample.position + kNearEndMs / 4 >= duration;
    if (change && (isStalled || !isAtEnd)) {
        m_Line.Insert({*change, TYStandstill{!isStalled}});
    }
}

void CTYPlaybackMapper::On(const TYStandstill& standstill) {
    m_Interruptions.OnStandstill(m_nNow, standstill);
}

void CTYPlaybackMapper::On(const TYClosed& /*closed*/) {
    Stop(TY_STOP_APPLICATION_CLOSED);
}

void CTYPlaybackMapper::Start(const std::string& uri, int startTime) {
    m_NextUri.reset();
    m_bAboutToFinish = m_bFailed = m_bEnded = false;
    m_bUsed = true;
    m_Content.Begin(uri, startTime);
    m_Interruptions.Begin(m_nNow);
    m_Report.Start();
}

// A pipeline that is no playbin tells its tags and its picture before it is known to start.
void CTYPlaybackMapper::Forget() {
    m_bUsed = false;
    m_Content.Forget();
    m_Report.Rendition().Reset();
}

void CTYPlaybackMapper::Stop(TY_STOP_REASON reason, int position) {
    if (m_Report.IsStarted()) {
        m_Report.Stop(m_nNow, reason, position);
        m_Content.End();
        m_NextUri.reset();
        m_OfNext.clear();
    }
}

int CTYPlaybackMapper::EndPosition() const {
    const int duration = m_Content.GetDuration();
    const int position = m_Report.Track().At(m_nNow);
    const bool isNear = duration > 0 && position != kGstUnknown && position > duration - kNearEndMs;
    return isNear ? duration : position;
}

int CTYPlaybackMapper::TargetOf(const TYSeek& seek) const {
    switch (seek.target) {
        case TYSeek::Target::POSITION:
            return seek.position;
        case TYSeek::Target::END:
            return m_Content.GetDuration();
        case TYSeek::Target::SAME_PLACE:
            break;
    }
    return kGstUnknown;
}

bool CTYPlaybackMapper::IsNewSeek(std::uint32_t seqnum) {
    if (std::ranges::find(m_LastSeeks, seqnum) != m_LastSeeks.end()) {
        return false;
    }
    m_LastSeeks[m_nLastSeek] = seqnum;
    m_nLastSeek = (m_nLastSeek + 1) % m_LastSeeks.size();
    return true;
}
