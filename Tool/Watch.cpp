// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"
#include "EventNames.h"
#include "Interruption.h"
#include "ServiceState.h"
#include "TYEventCodes.h"
#include "TYPlaybackScan.h"
#include "TYWallClock.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <sstream>

// Problem: the library sends records about every 20 s, and positions only every three minutes. The
// last record tells what a playback did then, not what it does now.
//
// Idea: what a playback did with its last record, it does until now. A record without meaning at
// the present time ends the timeline there, so a stall that lasts is counted, and the position goes
// on while the picture moves.
//
// Each refresh opens the store again, so watching goes on when the service replaces its file, and
// no snapshot keeps the service from emptying its log.

namespace {

constexpr int kMillisecondsASecond = 1000;
constexpr std::int64_t kNanosecondsAMillisecond = 1'000'000;
// Lines of the screen that are not playbacks: the head line, the columns and the cursor's line.
constexpr int kOtherLines = 3;

// The oldest first, so that rows stay where they are.
constexpr const char* kSelect = R"sql(
SELECT p.id, p.playback_id, p.service_id, p.last_arrival, c.title, c.url, c.duration,
       c.network_type
FROM playbacks p LEFT JOIN contexts c ON c.id =
         coalesce(p.context, (SELECT min(id) FROM contexts WHERE playback = p.id))
WHERE p.playback_id <> '' AND p.ended_sec IS NULL AND p.last_arrival > ?1 AND p.last_arrival < ?3
  AND (?2 = '' OR p.service_id = ?2)
ORDER BY p.id)sql";

// A time of the player's clock is used if the record arrived this soon after it.
constexpr std::int64_t kLongestDelay = 60'000'000'000;
// A code that means nothing to the analysis.
constexpr int kNoEvent = 199;
// On a narrower terminal, identifiers are left out.
constexpr std::size_t kWide = 120;

enum Column { ID, PLAYBACK, APPLICATION, LAST_ARRIVAL, TITLE, URL, DURATION, NETWORK };

const char* PhaseOf(const TYTimeline& timeline) {
    return NameOf(timeline.phases.empty() ? TYPhaseKind::UNKNOWN : timeline.phases.back().kind);
}

Cell LengthOf(const std::optional<std::int64_t>& milliseconds) {
    return milliseconds ? Cell(LengthCell{*milliseconds}) : Cell();
}

/// The records of a playback that has not ended, and when the last one was made.
struct Latest {
    std::vector<TYTimelineRecord> records;
    std::int64_t made;   ///< as the record says, in nanoseconds since the epoch
    std::int64_t since;  ///< milliseconds from then until now
};

Latest LatestOf(std::vector<TYTimelineRecord> records, std::int64_t arrival, std::int64_t now) {
    const std::int64_t made =
        records.empty() ? arrival : records.back().time * kNanosecondsAMillisecond;
    const bool isTrusted = made <= arrival && made >= arrival - kLongestDelay;
    const std::int64_t since =
        std::max<std::int64_t>(0, now - (isTrusted ? made : arrival)) / kNanosecondsAMillisecond;
    return {std::move(records), made, since};
}

std::vector<TYTimelineRecord> UntilNow(const Latest& latest) {
    std::vector<TYTimelineRecord> records = latest.records;
    if (!records.empty()) {
        const TYTimelineRecord& last = records.back();
        records.push_back({last.id + 1, last.time + latest.since, kNoEvent, 0, 0});
    }
    return records;
}

// The position in the content that a record tells.
std::optional<std::int64_t> PositionIn(const TYTimelineRecord& record) {
    const bool isTold = IsPosition(record) || record.event == TY_EVENT_BUFFERING_START ||
                        record.event == TY_EVENT_PAUSE;
    if (record.event == TY_EVENT_SEEK) {
        return record.param2;
    }
    return isTold && record.param1 >= 0 ? std::optional<std::int64_t>(record.param1) : std::nullopt;
}

// The last position, and the time of playing since.
std::optional<std::int64_t> PositionOf(const std::vector<TYTimelineRecord>& records,
                                       const TYTimeline& timeline) {
    for (std::size_t i = std::min(records.size(), timeline.offsets.size()); i-- > 0;) {
        auto position = PositionIn(records[i]);
        if (!position) {
            continue;
        }
        for (const TYPhase& phase : timeline.phases) {
            const std::int64_t begin = std::max(phase.begin, timeline.offsets[i]);
            const bool isPlaying = phase.kind == TYPhaseKind::PLAYING;
            *position +=
                isPlaying ? std::max<std::int64_t>(0, phase.begin + phase.length - begin) : 0;
        }
        return *position;
    }
    return std::nullopt;
}

std::vector<std::string> Columns(bool isTable, bool isWide) {
    if (!isTable) {
        return {"time",   "application", "title",      "phase", "startup_ms", "position_ms",
                "stalls", "stalled_ms",  "last_event", "as_of", "age_ms",     "playback"};
    }
    std::vector<std::string> columns = {"application", "title",       "phase",
                                        "startup_ms",  "position_ms", "stalls",
                                        "stalled_ms",  "last_event",  "age_ms"};
    columns.insert(columns.end(), isWide ? 1 : 0, "playback");
    return columns;
}

class CWatch {
  public:
    CWatch(const Context& context, const WatchOptions& options)
        : m_Context(context),
          m_Options(options),
          m_bTable(context.format == Format::TABLE),
          m_bWide(WidthOfOutput(context) == 0 || WidthOfOutput(context) >= kWide) {
        if (!m_bTable) {
            m_pWriter = MakeWriter(context, Columns(false, true));
        }
    }

    int Run() {
        Show(Read(WallClockNow()), WallClockNow());
        while (!m_Options.once && m_Context.out.good() &&
               !m_Interruption.Wait(m_Options.interval * kMillisecondsASecond)) {
            Refresh();
        }
        if (m_pWriter != nullptr) {
            m_pWriter->End();
        }
        return EXIT_OK;
    }

  private:
    // An error after the start may pass: a lock, or a store that is being replaced.
    void Refresh() {
        const std::int64_t now = WallClockNow();
        try {
            Show(Read(now), now);
            m_bFailed = false;
        } catch (const CTYDatabaseError& error) {
            if (!m_bFailed) {
                m_Context.errors << "tallyra: " << Printable(error.what()) << "; waiting for it\n";
            }
            m_bFailed = true;
        }
    }

    std::vector<Row> Read(std::int64_t now) const {
        CTYDatabase database = OpenForReading(m_Context);
        CTYStatement playing(database, kSelect);
        playing.Begin(now - kLostAfter, m_Options.application, now + kLostAfter);
        std::vector<Row> rows;
        while (playing.Step()) {
            rows.push_back(RowOf(database, playing, now));
        }
        return rows;
    }

    Row RowOf(CTYDatabase& database, const CTYStatement& s, std::int64_t now) const {
        const Latest latest =
            LatestOf(ReadRecordsOf(database, s.Int(ID)), s.Int(LAST_ARRIVAL), now);
        const std::vector<TYTimelineRecord> records = UntilNow(latest);
        const TYTimeline timeline = AnalyzePlayback(records);
        const TYPlaybackFigures figures = FiguresOf(
            records, timeline, {s.Int32(DURATION), s.Int(NETWORK) == TY_NETWORK_WIFI, true});
        const std::vector<std::int64_t>& stalls = figures.stalls;
        Row row;
        if (!m_bTable) {
            row.emplace_back(TimeCell{now});
        }
        row.emplace_back(std::string(s.Text(APPLICATION)));
        row.emplace_back(std::string(s.Text(s.Text(TITLE).empty() ? URL : TITLE)));
        row.emplace_back(std::string(PhaseOf(timeline)));
        row.push_back(LengthOf(figures.startUp));
        row.push_back(LengthOf(PositionOf(records, timeline)));
        row.emplace_back(static_cast<std::int64_t>(stalls.size()));
        row.emplace_back(
            LengthCell{std::accumulate(stalls.begin(), stalls.end(), std::int64_t{0})});
        AddLatest(latest, row);
        if (!m_bTable || m_bWide) {
            row.emplace_back(std::string(s.Text(PLAYBACK)));
        }
        return row;
    }

    void AddLatest(const Latest& latest, Row& row) const {
        row.emplace_back(latest.records.empty() ? "" : EventName(latest.records.back().event));
        if (!m_bTable) {
            row.emplace_back(TimeCell{latest.made});
        }
        row.emplace_back(LengthCell{latest.since});
    }

    // Asks for the service only if nothing plays: then that may be why.
    std::string HintAt(std::size_t active) const {
        if (active > 0) {
            return "";
        }
        const ServiceState service = FindService(m_Options.address);
        if (service.pid) {
            return "";
        }
        return service.error.empty()
                   ? "; tallyra-service does not run on " + service.bus
                   : "; whether tallyra-service runs is unknown: " + service.error;
    }

    void Show(const std::vector<Row>& rows, std::int64_t now) {
        if (m_bTable) {
            m_Context.sink == Sink::PROGRAM || m_Options.once ? Append(rows, now)
                                                              : Redraw(rows, now);
            return;
        }
        for (const Row& row : rows) {
            m_pWriter->Add(row);
        }
        m_pWriter->Flush();
    }

    std::string TableOf(const std::vector<Row>& rows, std::int64_t now, std::size_t most) const {
        std::ostringstream text;
        text << FormatTime(now, m_Context.zone) << "  " << rows.size() << " active"
             << Printable(HintAt(rows.size()))
             << (rows.size() > most ? ", the newest " + std::to_string(most) : "") << "\n";
        const auto pWriter = MakeRowWriter(text, Columns(true, m_bWide), StyleOf(m_Context));
        for (std::size_t i = rows.size() - std::min(most, rows.size()); i < rows.size(); ++i) {
            pWriter->Add(rows[i]);
        }
        pWriter->End();
        return text.str();
    }

    void Append(const std::vector<Row>& rows, std::int64_t now) {
        m_Context.out << (m_bShown ? "\n" : "") << TableOf(rows, now, rows.size());
        m_Context.out.flush();
        m_bShown = true;
    }

    // Writes over the old lines, clears what is left of each, and never wraps a line: clearing the
    // whole screen first would make it flicker.
    void Redraw(const std::vector<Row>& rows, std::int64_t now) {
        winsize size{};
        const bool isKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
        const std::size_t most =
            isKnown ? static_cast<std::size_t>(std::max(1, size.ws_row - kOtherLines))
                    : rows.size();
        std::istringstream lines(TableOf(rows, now, most));
        m_Context.out << "\033[?7l\033[H";
        for (std::string line; std::getline(lines, line);) {
            m_Context.out << line << "\033[K\n";
        }
        m_Context.out << "\033[J\033[?7h" << std::flush;
    }

    const Context& m_Context;
    const WatchOptions& m_Options;
    const bool m_bTable;
    const bool m_bWide;  ///< whether a table has identifiers
    const CInterruption m_Interruption;
    std::unique_ptr<IRowWriter> m_pWriter;  ///< null for tables, each of which has its own
    bool m_bShown = false;                  ///< whether a snapshot was printed
    bool m_bFailed = false;                 ///< whether the last refresh failed
};

}  // namespace

int Watch(const Context& context, const WatchOptions& options) {
    return CWatch(context, options).Run();
}
