// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Contract.h"
#include "TYEventCodes.h"

#include <algorithm>

// Problem: players report the position about once a second, but the library records few positions:
// the first one after START, RESUME and SEEK_COMPLETE, one in three minutes, and the last reported
// one with PAUSE, BUFFERING_START, SEEK and STOP.
//
// Idea: between two of them, the position advances as far as the picture moves. The timeline of
// the key figures says for how long it moved. A position that stays behind by more than
// kPositionTolerance was not reported often enough, or in another unit; so reports that are up to
// nine seconds apart cannot be told from one a second. A position that is further ahead than a
// player at twice the speed can reach was skipped to without SEEK.

namespace {

constexpr std::int64_t kLargestSpeed = 2;
constexpr std::int32_t kNoPosition = -1;
constexpr std::int64_t kPerSecond = 1000;

// Reports up to a second old may be lower than the position before.
constexpr std::int64_t kBackwards = 1000;

std::string Seconds(std::int64_t milliseconds) {
    return std::to_string(milliseconds / kPerSecond) + "." +
           std::to_string(std::abs(milliseconds) % kPerSecond / 100) + " s";
}

class CPositions {
  public:
    CPositions(std::span<const SessionRecord> records, const TYTimeline& timeline,
               Complaints& complaints)
        : m_Records(records), m_Timeline(timeline), m_Complaints(complaints) {}

    // Offsets end with STOP, and so do the records that count.
    void Follow() {
        for (std::size_t i = 0; i < m_Timeline.offsets.size(); ++i) {
            const SessionRecord& record = m_Records[i];
            if (IsPosition(record.timeline)) {
                Reach(i);
                m_Awaited.reset();
                m_bStale = false;
            } else if (HasLastPosition(record.Code())) {
                ExpectReport(i);
                Reach(i);
            }
            Begin(i);
        }
    }

  private:
    void Complain(std::vector<std::size_t> lines, std::string text) {
        m_Complaints.push_back({std::move(lines), std::move(text)});
    }

    /// @return milliseconds between two records in which the picture moved
    std::int64_t MovingBetween(std::size_t first, std::size_t last, bool withSeeks) const {
        std::int64_t moving = 0;
        for (const TYPhase& phase : m_Timeline.phases) {
            const bool moves = phase.kind == TYPhaseKind::PLAYING ||
                               (withSeeks && phase.kind == TYPhaseKind::SEEKING);
            const std::int64_t begin = std::max(phase.begin, m_Timeline.offsets[first]);
            const std::int64_t end = std::min(phase.begin + phase.length, m_Timeline.offsets[last]);
            moving += moves ? std::max<std::int64_t>(end - begin, 0) : 0;
        }
        return moving;
    }

    // After these events the library records the next position.
    void Begin(std::size_t i) {
        switch (m_Records[i].Code()) {
            case TY_EVENT_RENDER_START:
            case TY_EVENT_RESUME:
            case TY_EVENT_SEEK_COMPLETE:
                m_Awaited = i;
                break;
            case TY_EVENT_PAUSE:
            case TY_EVENT_SEEK:
                m_Awaited.reset();
                m_Reached.reset();
                m_bStale = true;
                break;
            default:
                break;
        }
    }

    void ExpectReport(std::size_t i) {
        if (!m_Awaited) {
            return;
        }
        const std::int64_t moving = MovingBetween(*m_Awaited, i, true);
        if (moving > kPositionTolerance) {
            Complain({m_Records[*m_Awaited].line, m_Records[i].line},
                     "no position in " + Seconds(moving) + " after " + m_Records[*m_Awaited].name +
                         ": send PLAYBACK_TIME about once a second while the picture moves");
            m_Awaited.reset();
            m_Reached.reset();
        }
    }

    void Reach(std::size_t i) {
        const std::int32_t position = m_Records[i].timeline.param1;
        if (position == kNoPosition || (m_bStale && !IsPosition(m_Records[i].timeline))) {
            return;
        }
        if (m_Reached && !m_bInSeconds) {
            Compare(*m_Reached, i);
        }
        CompareWithDuration(m_Records[i]);
        m_Reached = i;
    }

    void Compare(std::size_t from, std::size_t to) {
        const std::int64_t moving = MovingBetween(from, to, false);
        const std::int64_t advanced =
            std::int64_t{m_Records[to].timeline.param1} - m_Records[from].timeline.param1;
        const std::string seen = "the position advances by " + Seconds(advanced) + " in " +
                                 Seconds(moving) + " of playing: ";
        if (moving - advanced > kPositionTolerance && advanced >= 0) {
            m_bInSeconds = IsInSeconds(advanced, moving);
            Complain(
                {m_Records[from].line, m_Records[to].line},
                seen + (m_bInSeconds ? "pass positions in milliseconds"
                                     : "send PLAYBACK_TIME about once a second while the picture "
                                       "moves, and PAUSE or BUFFERING_START when it stops"));
        } else if (IsJump(to, advanced, moving)) {
            Complain({m_Records[from].line, m_Records[to].line},
                     seen + "send SEEK and SEEK_COMPLETE when the viewer jumps");
        }
    }

    static bool IsInSeconds(std::int64_t advanced, std::int64_t moving) {
        return advanced > 0 &&
               std::abs(advanced * kPerSecond - moving) <= kPositionTolerance + moving / 10;
    }

    // The library has measured what a heartbeat tells. A live channel may skip after a stall.
    bool IsJump(std::size_t to, std::int64_t advanced, std::int64_t moving) const {
        if (IsHeartbeat(m_Records[to].timeline) || m_Records[to].contentType == TY_CONTENT_LIVE) {
            return false;
        }
        return advanced < -kBackwards || advanced > moving * kLargestSpeed + kPositionTolerance;
    }

    void CompareWithDuration(const SessionRecord& record) {
        if (!m_bBeyond && record.duration > 0 && record.contentType != TY_CONTENT_LIVE &&
            record.timeline.param1 > record.duration + kPositionTolerance) {
            m_bBeyond = true;
            Complain({record.line}, "the position " + Seconds(record.timeline.param1) +
                                        " is behind the end of the content, " +
                                        Seconds(record.duration) +
                                        ": pass the duration in milliseconds, or 0");
        }
    }

    const std::span<const SessionRecord> m_Records;
    const TYTimeline& m_Timeline;
    Complaints& m_Complaints;
    std::optional<std::size_t> m_Awaited;  ///< the record after which no position came yet
    std::optional<std::size_t> m_Reached;  ///< the last record with a position
    /// There was a PAUSE or SEEK, and no position since: the last one tells nothing.
    bool m_bStale = false;
    bool m_bInSeconds = false;  ///< said once
    bool m_bBeyond = false;     ///< said once
};

}  // namespace

void CheckPositions(const Playback& playback, Complaints& complaints) {
    std::vector<TYTimelineRecord> records;
    std::ranges::transform(playback.records, std::back_inserter(records), &SessionRecord::timeline);
    const TYTimeline timeline = AnalyzePlayback(records);
    CPositions(playback.records, timeline, complaints).Follow();
}
