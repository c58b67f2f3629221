// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYPLAYBACKMAPPER_H
#define TALLYRA_GST_TYPLAYBACKMAPPER_H

#include "TYDelayLine.h"
#include "TYGstContent.h"
#include "TYGstEvent.h"
#include "TYInterruptions.h"
#include "TYPlaybackReport.h"

#include "tallyra/ITYDataCollector.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// Makes reports from the events of one pipeline. Has no clock and no GStreamer: events carry their
/// times, and Advance says what time it is.
///
/// Reported is a playback from the source that is made for it to the first of: end of the stream,
/// error, PAUSED to READY, the next stream of a gapless list, and the end of the observer.
///
/// Threads: one, which calls the collector.
class CTYPlaybackMapper {
  public:
    /// @param collector  must live as long as this object
    explicit CTYPlaybackMapper(ITYDataCollector& collector);

    /// Takes an event, in any order of times.
    void Add(TYGstEvent event);
    /// Reports all events that happened at least CTYDelayLine::kReportDelay before `now`.
    void Advance(std::int64_t now);
    /// @return whether no playback is in progress, and none is about to start
    bool IsFinished() const;

    /// @return when Advance has something to report; empty while there is nothing
    std::optional<std::int64_t> NextDue() const { return m_Line.NextDue(); }
    /// @return whether a playback is in progress
    bool IsStarted() const { return m_Report.IsStarted(); }
    /// @return whether the content's duration is unknown
    bool WantsDuration() const { return m_Content.GetDuration() == 0; }

  private:
    void Process(const TYGstEvent& event);

    void On(const TYSourceReady& source);
    void On(const TYStateChange& change);
    void On(const TYBuffering& buffering);
    void On(const TYAsyncDone& done);
    void On(const TYSeek& seek);
    void On(const TYSegment& segment);
    void On(const TYStreamStart& start);
    void On(const TYAboutToFinish& announced);
    void On(const TYEndOfStream& end);
    void On(const TYGstError& error);
    void On(const TYTags& tags);
    void On(const TYDescription& description);
    void On(const TYProtection& protection);
    void On(const TYVariant& variant);
    void On(const TYPictureSize& size);
    void On(const TYRate& rate);
    void On(const TYSample& sample);
    void On(const TYStandstill& standstill);
    void On(const TYClosed& closed);

    void Start(const std::string& uri, int startTime);
    void Stop(TY_STOP_REASON reason, int position = kGstUnknown);
    void Forget();
    int EndPosition() const;
    int TargetOf(const TYSeek& seek) const;
    void KeepLate(std::int64_t now);
    TYGstError WithoutSecrets(TYGstError error) const;
    bool IsNewSeek(std::uint32_t seqnum);
    void Watch(const TYSample& sample);
    bool HoldForNext(const TYGstEvent::What& what);

    CTYDelayLine m_Line;
    CTYPlaybackReport m_Report;
    CTYGstContent m_Content;
    CTYInterruptions m_Interruptions;

    std::int64_t m_nNow = 0;  ///< the time of the event that is processed
    std::optional<std::string> m_NextUri;
    std::vector<TYGstEvent::What> m_OfNext;  ///< what is known of the next content
    bool m_bUsed = false;                    ///< a playback started with what the stream told
    bool m_bAboutToFinish = false;
    bool m_bFailed = false;  ///< an error ended the last playback, and the pipeline is not reset
    bool m_bEnded = false;   ///< the content played to its end, and the pipeline is not reset
    std::array<std::uint32_t, 4> m_LastSeeks{};
    std::size_t m_nLastSeek = 0;
};

#endif  // TALLYRA_GST_TYPLAYBACKMAPPER_H
