// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPlaybackScan.h"

#include "TYEventCodes.h"

#include <algorithm>
#include <limits>
#include <unordered_map>
#include <utility>

// Problem: key figures of many playbacks need every record of theirs. One query for each playback
// costs several index look-ups for each of its runs.
//
// Idea: read the entries once, in the order of their ids, and collect them by playback. A STOP
// completes a playback, so only the records of unfinished playbacks are in memory.

namespace {

// If the START was lost, the content is that of the playback's first context. The network of the
// first context is that of the start: contexts change with the network.
constexpr const char* kPlaybacks = R"sql(
SELECT p.id, p.playback_id, p.service_id, c.service_version, c.title, c.url,
       coalesce(max(min(p.started_sec, 2147483647), -2147483648) * 1000000000,
                p.first_arrival) AS begin, p.last_arrival,
       c.player_id, c.network_type, c.content_type, c.drm_type, c.duration
FROM playbacks p LEFT JOIN contexts c ON c.id =
     coalesce(p.context, (SELECT min(id) FROM contexts WHERE playback = p.id))
WHERE p.playback_id <> '' AND begin >= ?1 AND begin < ?2 AND (?3 IS NULL OR p.service_id = ?3)
)sql";

constexpr const char* kContexts = "SELECT id, playback FROM contexts";

constexpr const char* kEntries =
    "SELECT context, id, event, param1, param2, time_sec, time_nsec FROM entries "
    "WHERE id BETWEEN ? AND ? ORDER BY id";

constexpr const char* kRangeOfContext = "SELECT min(first), max(last) FROM runs WHERE context = ?";

constexpr const char* kEntriesOfOne =
    "SELECT e.context, e.id, e.event, e.param1, e.param2, e.time_sec, e.time_nsec FROM contexts c "
    "JOIN runs r ON r.context = c.id CROSS JOIN entries e ON e.id BETWEEN r.first AND r.last "
    "WHERE c.playback = ? ORDER BY e.id";

TYStoredPlayback PlaybackOf(const CTYStatement& s) {
    int column = 0;
    TYStoredPlayback playback;
    playback.id = s.Int(column++);
    for (std::string* pText : {&playback.playbackId, &playback.application, &playback.version,
                               &playback.title, &playback.url}) {
        *pText = s.Text(column++);
    }
    playback.begin = s.Int(column++);
    playback.lastArrival = s.Int(column++);
    // The store has the bytes of the record: a player up to 255, and 255 for what is not known, -1.
    playback.player = static_cast<std::uint8_t>(s.Int(column++));
    for (int* pNumber : {&playback.network, &playback.contentType, &playback.drm}) {
        const auto byte = static_cast<std::uint8_t>(s.Int(column++));
        *pNumber = byte > INT8_MAX ? byte - (UINT8_MAX + 1) : byte;
    }
    playback.duration = s.Int32(column);
    return playback;
}

TYTimelineRecord RecordOf(const CTYStatement& s) {
    return {s.Int(1), s.Int32(5) * std::int64_t{1000} + s.Int32(6) / 1'000'000,
            static_cast<int>(s.Int(2)), static_cast<std::int32_t>(s.Int(3)),
            static_cast<std::int32_t>(s.Int(4))};
}

class CScan {
  public:
    CScan(CTYDatabase& database, std::int64_t now,
          const std::function<void(const TYAnalyzedPlayback&)>& visit)
        : m_Database(database), m_nNow(now), m_Visit(visit) {}

    void Select(const TYPlaybackSelection& selection) {
        CTYStatement playbacks(m_Database, kPlaybacks);
        playbacks.Begin(selection.since, selection.until, nullptr);
        if (!selection.application.empty()) {
            playbacks.Bind(3, selection.application);
        }
        while (playbacks.Step()) {
            m_Playbacks.emplace_back().playback = PlaybackOf(playbacks);
        }
        FindContexts();
        if (!selection.IsAll()) {
            FindRange();
        }
    }

    void Run() {
        CTYStatement entries(m_Database, kEntries);
        entries.Begin(m_nFirst, m_nLast);
        std::int64_t context = 0;
        Unfinished* pUnfinished = nullptr;
        while (entries.Step()) {
            if (entries.Int(0) != context) {
                context = entries.Int(0);
                const auto known = m_ByContext.find(context);
                pUnfinished = known == m_ByContext.end() ? nullptr : known->second;
            }
            if (pUnfinished != nullptr) {
                Add(RecordOf(entries), *pUnfinished);
            }
        }
        for (Unfinished& unfinished : m_Playbacks) {
            if (!unfinished.isDone) {
                Finish(unfinished);
            }
        }
    }

  private:
    struct Unfinished {
        TYStoredPlayback playback;
        std::vector<TYTimelineRecord> records;
        bool isDone = false;
    };

    void FindContexts() {
        std::unordered_map<std::int64_t, Unfinished*> byId;
        for (Unfinished& unfinished : m_Playbacks) {
            byId[unfinished.playback.id] = &unfinished;
        }
        CTYStatement contexts(m_Database, kContexts);
        contexts.Begin();
        while (contexts.Step()) {
            if (const auto known = byId.find(contexts.Int(1)); known != byId.end()) {
                m_ByContext[contexts.Int(0)] = known->second;
            }
        }
    }

    // Few playbacks of a large store are often neighbours.
    void FindRange() {
        m_nFirst = std::numeric_limits<std::int64_t>::max();
        m_nLast = 0;
        CTYStatement range(m_Database, kRangeOfContext);
        for (const auto& [context, pUnfinished] : m_ByContext) {
            range.Begin(context);
            if (range.Step() && !range.IsNull(0)) {
                m_nFirst = std::min(m_nFirst, range.Int(0));
                m_nLast = std::max(m_nLast, range.Int(1));
            }
        }
    }

    void Add(const TYTimelineRecord& record, Unfinished& unfinished) {
        if (unfinished.isDone) {
            return;
        }
        unfinished.records.push_back(record);
        if (record.event == TY_EVENT_STOP) {
            Finish(unfinished);
        }
    }

    void Finish(Unfinished& unfinished) {
        const TYStoredPlayback& playback = unfinished.playback;
        const TYTimeline timeline = AnalyzePlayback(unfinished.records);
        const TYPlaybackFigures figures = FiguresOf(
            unfinished.records, timeline,
            {playback.duration, playback.network == TY_NETWORK_WIFI,
             IsRecent(playback.lastArrival, m_nNow), playback.contentType != TY_CONTENT_LIVE});
        m_Visit({playback, unfinished.records, timeline, figures});
        unfinished.isDone = true;
        unfinished.records = {};
    }

    CTYDatabase& m_Database;
    const std::int64_t m_nNow;
    const std::function<void(const TYAnalyzedPlayback&)>& m_Visit;
    std::int64_t m_nFirst = 0;  ///< all entries of the selected playbacks are in this range
    std::int64_t m_nLast = std::numeric_limits<std::int64_t>::max();
    std::vector<Unfinished> m_Playbacks;
    std::unordered_map<std::int64_t, Unfinished*> m_ByContext;
};

}  // namespace

std::int64_t AgeOf(std::int64_t arrival, std::int64_t now) {
    if (arrival >= now) {
        return 0;
    }
    // Unsigned, because the difference of two 64-bit numbers may have 65 bits.
    const std::uint64_t age = static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(arrival);
    return static_cast<std::int64_t>(std::min<std::uint64_t>(age, INT64_MAX));
}

// A clock that was set back leaves arrivals in the future. Those that are far ahead tell nothing.
bool IsRecent(std::int64_t arrival, std::int64_t now) {
    return AgeOf(arrival, now) < kLostAfter && AgeOf(now, arrival) < kLostAfter;
}

void ScanPlaybacks(CTYDatabase& database, const TYPlaybackSelection& selection, std::int64_t now,
                   const std::function<void(const TYAnalyzedPlayback&)>& visit) {
    CScan scan(database, now, visit);
    CTYTransaction snapshot(database, "BEGIN");
    scan.Select(selection);
    scan.Run();
}

std::vector<TYTimelineRecord> ReadRecordsOf(CTYDatabase& database, std::int64_t playback) {
    CTYStatement entries(database, kEntriesOfOne);
    entries.Begin(playback);
    std::vector<TYTimelineRecord> records;
    while (entries.Step()) {
        records.push_back(RecordOf(entries));
    }
    return records;
}
