// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYTimeline.h"

#include <algorithm>
#include <utility>

// Problem: records tell moments, such as BUFFERING_START. Key figures need the times between them:
// how long the viewer watched, waited for a seek, or waited for the network. Buffering means
// something else before the first frame, after a seek and during a pause. Records may be missing.
//
// Idea: a state machine over the records in the order of their ids. The state after a record holds
// until the next one; equal neighbours are one phase. Of several states at a time, the first of
// this list counts:
//   START_UP  before the first frame
//   PAUSED    from PAUSE to RESUME; SEEKING while a seek runs in it. Buffering costs nothing then.
//   STALLED   from BUFFERING_START to BUFFERING_END or STOP
//   SEEKING   from SEEK until the picture is back: the first position, RENDER_START or
//             BUFFERING_END after SEEK_COMPLETE that does not leave buffering open. If the player
//             never reports positions, until SEEK_COMPLETE.
//   PLAYING   otherwise
//
// A position report is a PLAYBACK_TIME, a PLAYBACK_TIME_JUMP or a heartbeat: a PLAYING_TIME of
// three minutes or more. The library records none before RENDER_START and none during a pause.
//
// Missing records:
// - BUFFERING_END missing (the next record about buffering is another BUFFERING_START, or there is
//   a heartbeat more than kSettled later): UNKNOWN.
// - SEEK_COMPLETE missing (there is a heartbeat more than kSettled after the last SEEK): UNKNOWN.
// - RESUME missing: a position report ends the pause.
// - RENDER_START missing: a position report shows that there was a first frame.
// - START missing: the playback counts as rendered; its start-up is unknown.
// - STOP missing: the last phase ends with the last record.
//
// The cause of a stall is the one that BUFFERING_END tells. If it tells none, or START: START if
// buffering began before the first frame, or, in a playback without START, before any position;
// SEEK if it began during a seek; otherwise CONNECTION. START is not believed, because no figure
// counts such a stall: a player that always tells it would seem never to stall.
//
// Several threads make records, so one may be stored after another that has a later time. Steps
// back of less than kThreadOrder come from that, and count as 0.
//
// The wall clock may be set during a playback. Time that runs further backwards, or jumps by more
// than kLongestGap, counts as 0. The start-up is then unknown if it was measured with this clock.
//
// The view `phases` in TYSchema.cpp says the same in SQL. A test compares both; change them
// together.

namespace {

// A player that plays records its position every three minutes. Only a pause can last this long.
constexpr std::int64_t kLongestGap = 24LL * 3600 * 1000;

constexpr std::int64_t kThreadOrder = 1000;

// A position that the player reported before it began to buffer may be recorded a little later.
constexpr std::int64_t kSettled = 9000;

// The position in records that were made before the first position report.
constexpr std::int32_t kNoPosition = -1;

// Whether a record shows that the picture moves again after a seek.
bool ShowsPicture(const TYTimelineRecord& record) {
    return IsPosition(record) || record.event == TY_EVENT_RENDER_START ||
           record.event == TY_EVENT_BUFFERING_END;
}

class CReplay {
  public:
    explicit CReplay(std::span<const TYTimelineRecord> records)
        : m_Records(UpToStop(records)),
          m_bReportsPositions(std::ranges::any_of(m_Records, IsPosition)) {}

    TYTimeline Run() {
        m_Timeline.hasStart = !m_Records.empty() && m_Records.front().event == TY_EVENT_START;
        m_Timeline.rendered = !m_Records.empty() && !m_Timeline.hasStart;
        for (std::size_t i = 0; i < m_Records.size(); ++i) {
            Advance(i);
            Apply(m_Records[i]);
            if (IsSeekOver(m_Records[i])) {
                EndSeek(true);
            }
            if (!m_Timeline.hasStop) {
                EnterPhase();
            }
        }
        EndStall(TY_STALL_NOT_TOLD);
        EndSeek(false);
        return std::move(m_Timeline);
    }

  private:
    static std::span<const TYTimelineRecord> UpToStop(std::span<const TYTimelineRecord> records) {
        const auto stop = std::ranges::find(records, TY_EVENT_STOP, &TYTimelineRecord::event);
        return stop == records.end() ? records : std::span(records.begin(), stop + 1);
    }

    // Adds the time since the previous record to the current phase.
    void Advance(std::size_t i) {
        const std::int64_t passed = i == 0 ? 0 : m_Records[i].time - m_Records[i - 1].time;
        const bool isStep = passed <= -kThreadOrder || passed > kLongestGap;
        m_Timeline.clockSteps += isStep ? 1 : 0;
        m_nOffset += isStep ? 0 : std::max<std::int64_t>(passed, 0);
        m_Timeline.offsets.push_back(m_nOffset);
        if (!m_Timeline.phases.empty()) {
            TYPhase& phase = m_Timeline.phases.back();
            phase.length = m_nOffset - phase.begin;
        }
    }

    void Apply(const TYTimelineRecord& record) {
        switch (record.event) {
            case TY_EVENT_STOP:
                m_Timeline.hasStop = true;
                break;
            case TY_EVENT_PAUSE:
            case TY_EVENT_RESUME:
                m_bPaused = record.event == TY_EVENT_PAUSE;
                break;
            case TY_EVENT_BUFFERING_START:
                BeginStall(record);
                break;
            case TY_EVENT_BUFFERING_END:
                EndStall(record.param2);
                break;
            case TY_EVENT_RENDER_START:
                Render(record);
                break;
            case TY_EVENT_PLAYBACK_TIME:
            case TY_ERROR_PLAYBACK_TIME_JUMP:
                ShowPosition();
                break;
            case TY_EVENT_PLAYING_TIME:
                Beat(record);
                break;
            case TY_EVENT_SEEK:
                BeginSeek(record.id);
                break;
            case TY_EVENT_SEEK_COMPLETE:
                m_bSeekComplete = true;
                break;
            default:
                break;
        }
    }

    // Steps back that count as 0 made the offset too large.
    void Render(const TYTimelineRecord& record) {
        if (!m_Timeline.rendered && m_Timeline.clockSteps == 0) {
            m_Timeline.startUp = std::max<std::int64_t>(record.time - m_Records.front().time, 0);
        }
        m_Timeline.rendered = true;
    }

    void ShowPosition() {
        m_Timeline.rendered = true;
        m_bPaused = false;
    }

    // The position advances: what should have ended before has ended unnoticed.
    void Beat(const TYTimelineRecord& record) {
        if (!IsHeartbeat(record)) {
            return;
        }
        ShowPosition();
        if (m_nOffset - m_nStallBegin > kSettled) {
            ForgetStall();
        }
        if (m_nSeek != 0 && !m_bSeekComplete && m_nOffset - m_nLastSeek > kSettled) {
            ForEachPhase(m_nSeekPhase, TYPhaseKind::SEEKING, m_nSeek,
                         [](TYPhase& phase) { phase.kind = TYPhaseKind::UNKNOWN; });
            EndSeek(false);
        }
    }

    void BeginStall(const TYTimelineRecord& record) {
        ForgetStall();
        m_nStall = record.id;
        m_nStallBegin = m_nOffset;
        m_nStallPhase = m_Timeline.phases.size();
        m_LikelyCause = LikelyCause(record);
    }

    TY_STALL_CAUSE LikelyCause(const TYTimelineRecord& record) const {
        const bool hasPosition = m_Timeline.hasStart || record.param1 != kNoPosition;
        if (!m_Timeline.rendered || !hasPosition) {
            return TY_STALL_START;
        }
        return m_nSeek != 0 ? TY_STALL_SEEK : TY_STALL_CONNECTION;
    }

    void EndStall(std::int32_t told) {
        if (m_nStall == 0) {
            return;
        }
        const bool isTold = told >= TY_STALL_SEEK && told <= TY_STALL_RENDITION_SWITCH;
        const auto cause = isTold ? static_cast<TY_STALL_CAUSE>(told) : m_LikelyCause;
        ForEachPhase(m_nStallPhase, TYPhaseKind::STALLED, m_nStall,
                     [cause](TYPhase& phase) { phase.cause = cause; });
        m_nStall = 0;
    }

    void ForgetStall() {
        if (m_nStall == 0) {
            return;
        }
        ForEachPhase(m_nStallPhase, TYPhaseKind::STALLED, m_nStall,
                     [](TYPhase& phase) { phase.kind = TYPhaseKind::UNKNOWN; });
        m_nStall = 0;
    }

    template <class Change>
    void ForEachPhase(std::size_t first, TYPhaseKind kind, std::int64_t opener,
                      const Change& change) {
        for (TYPhase& phase : std::span(m_Timeline.phases).subspan(first)) {
            if (phase.kind == kind && phase.opener == opener) {
                change(phase);
            }
        }
    }

    // A seek before the first frame is part of the start-up.
    void BeginSeek(std::int64_t id) {
        m_bSeekComplete = false;
        m_nLastSeek = m_nOffset;
        if (m_Timeline.rendered && m_nSeek == 0) {
            m_nSeek = id;
            m_nSeekBegin = m_nOffset;
            m_nSeekPhase = m_Timeline.phases.size();
        }
    }

    bool IsSeekOver(const TYTimelineRecord& record) const {
        if (m_nSeek == 0 || !m_bSeekComplete) {
            return false;
        }
        return m_bPaused || !m_bReportsPositions || (ShowsPicture(record) && m_nStall == 0);
    }

    void EndSeek(bool complete) {
        if (m_nSeek != 0) {
            m_Timeline.seeks.push_back({m_nSeek, m_nOffset - m_nSeekBegin, complete});
        }
        m_nSeek = 0;
    }

    // Starts a phase unless the current one goes on.
    void EnterPhase() {
        const auto [kind, opener] = Current();
        std::vector<TYPhase>& phases = m_Timeline.phases;
        if (phases.empty() || phases.back().kind != kind || phases.back().opener != opener) {
            phases.push_back({kind, TY_STALL_NOT_TOLD, m_nOffset, 0, opener});
        }
    }

    std::pair<TYPhaseKind, std::int64_t> Current() const {
        if (!m_Timeline.rendered) {
            return {TYPhaseKind::START_UP, 0};
        }
        if (m_nStall != 0 && !m_bPaused) {
            return {TYPhaseKind::STALLED, m_nStall};
        }
        if (m_nSeek != 0) {
            return {TYPhaseKind::SEEKING, m_nSeek};
        }
        return {m_bPaused ? TYPhaseKind::PAUSED : TYPhaseKind::PLAYING, 0};
    }

    const std::span<const TYTimelineRecord> m_Records;
    const bool m_bReportsPositions;
    TYTimeline m_Timeline;
    std::int64_t m_nOffset = 0;
    bool m_bPaused = false;

    // Of the open stall; those of the last one if none is open.
    std::int64_t m_nStall = 0;  ///< id of its BUFFERING_START, or 0
    std::int64_t m_nStallBegin = 0;
    std::size_t m_nStallPhase = 0;  ///< its phases have this index or a higher one
    TY_STALL_CAUSE m_LikelyCause = TY_STALL_NOT_TOLD;

    std::int64_t m_nSeek = 0;  ///< id of the SEEK that opened the current seek, or 0
    std::int64_t m_nSeekBegin = 0;
    std::size_t m_nSeekPhase = 0;  ///< as m_nStallPhase
    std::int64_t m_nLastSeek = 0;  ///< when the last SEEK came
    bool m_bSeekComplete = false;
};

}  // namespace

const char* NameOf(TYPhaseKind kind) {
    switch (kind) {
        case TYPhaseKind::START_UP:
            return "start-up";
        case TYPhaseKind::PLAYING:
            return "playing";
        case TYPhaseKind::PAUSED:
            return "paused";
        case TYPhaseKind::SEEKING:
            return "seeking";
        case TYPhaseKind::STALLED:
            return "stalled";
        case TYPhaseKind::UNKNOWN:
            break;
    }
    return "unknown";
}

TYTimeline AnalyzePlayback(std::span<const TYTimelineRecord> records) {
    return CReplay(records).Run();
}
