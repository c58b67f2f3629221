// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPlaybackRow.h"

#include "TYEventCodes.h"
#include "TYRecordImage.h"
#include "TYSqlText.h"

#include <algorithm>
#include <string_view>
#include <utility>

// A playback is described as the store of a device describes it (see TYPlaybackScan.cpp), whatever
// the order in which its records come:
//
// - The application is that of the first record.
// - The content, player and network are those of the last START, otherwise of the first record.
// - It began with its first START, otherwise with the first arrival.
// - It was alive last when its last record arrived. A device whose clock was wrong for a time and
//   then set back has earlier arrivals for later records, so this is not the greatest arrival.
//
// The marks of the log tell which records these are.

namespace {

// Positions of columns in kNames: looking up names takes longer than reading the values.
enum Column : pqxx::row::size_type {
    kTimeline = 0,
    kDevice = 1,
    kPlaybackId = 2,
    kUrl = 6,
    kFirstArrival = 13,
    kLastArrival = 14,
    kRecords = 15,
    kEnded = 17,
};

constexpr std::int64_t kNsPerSecond = 1'000'000'000;

std::string Text(std::int64_t number) {
    return std::to_string(number);
}

std::string Text(bool isSo) {
    return isSo ? "t" : "f";
}

int Signed(std::uint8_t byte) {
    return byte > INT8_MAX ? byte - (UINT8_MAX + 1) : byte;
}

/// Collects the texts of a row.
class CColumns {
  public:
    CColumns(CTYPlaybackRow::Columns& columns, std::vector<std::string>& texts)
        : m_Columns(columns), m_Texts(texts) {
        m_Texts.clear();
        // The columns point into the vector.
        m_Texts.reserve(CTYPlaybackRow::kColumns);
    }

    void Add(std::string text) {
        m_Texts.push_back(std::move(text));
        m_Columns.at(m_nNext++) = m_Texts.back().c_str();
    }
    void Add(std::int64_t number) { Add(Text(number)); }
    void Add(bool isSo) { Add(Text(isSo)); }
    void Add(std::size_t) = delete;
    void Add(int number) { Add(std::int64_t{number}); }
    void Add(const std::vector<std::int64_t>& numbers) { Add(ArrayText(numbers)); }
    void AddNull() { m_Columns.at(m_nNext++) = nullptr; }
    template <class Value>
    void Add(const std::optional<Value>& value) {
        value ? Add(*value) : AddNull();
    }

  private:
    CTYPlaybackRow::Columns& m_Columns;
    std::vector<std::string>& m_Texts;
    std::size_t m_nNext = 0;
};

void AddFigures(const TYPlaybackFigures& figures, CColumns& columns) {
    const bool hasEnded = HasEnded(figures);
    columns.Add(hasEnded ? std::optional<std::string>(NameOf(figures.end)) : std::nullopt);
    columns.Add(static_cast<int>(figures.reason));
    columns.Add(figures.started);
    columns.Add(figures.startUp);
    columns.Add(figures.stalls);
    columns.Add(figures.unmeasuredStalls);
    columns.Add(figures.seekStalls);
    columns.Add(figures.switchStalls);
    columns.Add(figures.seeks);
    for (const std::int64_t each : {figures.playing, figures.paused, figures.watchedMedia}) {
        columns.Add(each);
    }
    columns.Add(figures.lastPosition);
    columns.Add(figures.completed);
    columns.Add(figures.averageKbps);
    columns.Add(figures.renditionTime);
    for (const auto& each :
         {figures.switches, figures.framesDropped, figures.framesRendered, figures.signal}) {
        columns.Add(each);
    }
    columns.Add(figures.errors);
    columns.Add(figures.clockSteps);
}

void AddPhases(const TYTimeline& timeline, CColumns& columns) {
    std::vector<std::int64_t> begins;
    std::vector<std::int64_t> kinds;
    std::vector<std::int64_t> causes;
    for (const TYPhase& phase : timeline.phases) {
        begins.push_back(phase.begin);
        kinds.push_back(static_cast<int>(phase.kind));
        causes.push_back(phase.cause);
    }
    columns.Add(timeline.offsets.empty() ? std::int64_t{0} : timeline.offsets.back());
    columns.Add(begins);
    columns.Add(kinds);
    columns.Add(causes);
}

std::int64_t Number(const pqxx::field& field) {
    return field.as<std::int64_t>();
}

std::optional<std::int64_t> OptionalNumber(const pqxx::field& field) {
    return field.is_null() ? std::nullopt : std::optional(Number(field));
}

std::optional<bool> OptionalFlag(const pqxx::field& field) {
    return field.is_null() ? std::nullopt : std::optional(field.as<bool>());
}

std::vector<std::int64_t> Numbers(const pqxx::field& field) {
    return NumbersOf(field.c_str());
}

TYPlaybackEnd EndNamed(const pqxx::field& field) {
    for (int end = 0; end < static_cast<int>(TYPlaybackEnd::COUNT); ++end) {
        const auto each = static_cast<TYPlaybackEnd>(end);
        if (!field.is_null() && std::string_view(field.c_str()) == NameOf(each)) {
            return each;
        }
    }
    return TYPlaybackEnd::LOST;
}

}  // namespace

// The longest first: libpqxx copies what comes after a column once for each column.
const CTYPlaybackRow::Columns CTYPlaybackRow::kNames = {"timeline",
                                                        "device",
                                                        "playback_id",
                                                        "application",
                                                        "version",
                                                        "title",
                                                        "url",
                                                        "player_id",
                                                        "network_type",
                                                        "content_type",
                                                        "drm_type",
                                                        "duration_ms",
                                                        "begin_ns",
                                                        "first_arrival_ns",
                                                        "last_arrival_ns",
                                                        "records",
                                                        "timeline_cut",
                                                        "ended",
                                                        "stop_reason",
                                                        "started",
                                                        "startup_ms",
                                                        "stalls_ms",
                                                        "unmeasured_stalls",
                                                        "seek_stalls_ms",
                                                        "switch_stalls_ms",
                                                        "seeks_ms",
                                                        "playing_ms",
                                                        "paused_ms",
                                                        "watched_media_ms",
                                                        "last_position_ms",
                                                        "completed",
                                                        "average_kbps",
                                                        "rendition_ms",
                                                        "switches",
                                                        "frames_dropped",
                                                        "frames_rendered",
                                                        "signal_dbm",
                                                        "errors",
                                                        "clock_steps",
                                                        "length_ms",
                                                        "phase_begins_ms",
                                                        "phase_kinds",
                                                        "phase_causes"};

CTYPlaybackRow::CTYPlaybackRow(int device, std::string playbackId) : m_nDevice(device) {
    m_Playback.playbackId = std::move(playbackId);
}

CTYPlaybackRow::CTYPlaybackRow(const pqxx::row& row)
    : m_nDevice(row[kDevice].as<int>()),
      m_Playback(PlaybackIn(row)),
      m_bHasUrl(!row[kUrl].is_null()),
      m_nFirstArrival(Number(row[kFirstArrival])),
      m_nRecords(Number(row[kRecords])),
      m_Log(LogIn(row)) {}

void CTYPlaybackRow::Add(const TYNewRecord& record) {
    const CTYPlaybackLog::Marks before = m_Log.GetMarks();
    m_Log.Add(record.key, *record.pRecord);
    const CTYPlaybackLog::Marks& marks = m_Log.GetMarks();
    ++m_nRecords;
    if (marks.first != before.first) {
        m_nFirstArrival = record.arrival;
        m_Playback.application = ValidText(std::string_view(
            record.pRecord->serviceID,
            strnlen(record.pRecord->serviceID, sizeof(record.pRecord->serviceID))));
    }
    if (marks.lastStart != before.lastStart || (marks.first != before.first && !marks.lastStart)) {
        TakeContent(record);
    }
    if (marks.last != before.last) {
        m_Playback.lastArrival = record.arrival;
    }
    if (marks.firstStart != before.firstStart) {
        m_Playback.begin = record.pRecord->time.sec * kNsPerSecond;
    } else if (!marks.firstStart) {
        m_Playback.begin = m_nFirstArrival;
    }
}

void CTYPlaybackRow::TakeContent(const TYNewRecord& record) {
    const TYMediaData& image = *record.pRecord;
    const TYRecordTexts texts = TextsOf(image);
    m_Playback.version = texts.serviceVersion;
    m_Playback.title = texts.title;
    m_bHasUrl = record.pUrl->has_value();
    m_Playback.url = m_bHasUrl ? ValidText(**record.pUrl) : "";
    m_Playback.player = static_cast<std::uint8_t>(image.playerID);
    m_Playback.network = Signed(image.networkType);
    m_Playback.contentType = Signed(image.content.contentType);
    m_Playback.drm = Signed(image.content.drmType);
    m_Playback.duration = image.content.duration;
}

TYPlaybackFacts CTYPlaybackRow::FactsOf(const TYStoredPlayback& playback) {
    return {playback.duration, playback.network == TY_NETWORK_WIFI, false,
            playback.contentType != TY_CONTENT_LIVE};
}

CTYPlaybackRow::Columns CTYPlaybackRow::Compute(std::vector<std::string>& texts) const {
    const std::vector<TYTimelineRecord> records = m_Log.Records();
    const TYTimeline timeline = AnalyzePlayback(records);
    Columns all{};
    CColumns columns(all, texts);
    columns.Add(ByteaText(m_Log.Pack()));
    columns.Add(m_nDevice);
    for (const std::string* pText : {&m_Playback.playbackId, &m_Playback.application,
                                     &m_Playback.version, &m_Playback.title}) {
        columns.Add(*pText);
    }
    columns.Add(m_bHasUrl ? std::optional(m_Playback.url) : std::nullopt);
    for (const int each :
         {m_Playback.player, m_Playback.network, m_Playback.contentType, m_Playback.drm}) {
        columns.Add(each);
    }
    for (const std::int64_t each : {m_Playback.duration, m_Playback.begin, m_nFirstArrival,
                                    m_Playback.lastArrival, m_nRecords}) {
        columns.Add(each);
    }
    columns.Add(m_Log.IsCut());
    AddFigures(FiguresOf(records, timeline, FactsOf(m_Playback)), columns);
    AddPhases(timeline, columns);
    return all;
}

TYStoredPlayback CTYPlaybackRow::PlaybackIn(const pqxx::row& row) {
    TYStoredPlayback playback;
    pqxx::row::size_type column = kPlaybackId;
    for (std::string* pText : {&playback.playbackId, &playback.application, &playback.version,
                               &playback.title, &playback.url}) {
        *pText = row[column++].c_str();
    }
    for (int* pNumber :
         {&playback.player, &playback.network, &playback.contentType, &playback.drm}) {
        *pNumber = row[column++].as<int>();
    }
    playback.duration = Number(row[column++]);
    playback.begin = Number(row[column]);
    playback.lastArrival = Number(row[kLastArrival]);
    return playback;
}

TYPlaybackFigures CTYPlaybackRow::FiguresIn(const pqxx::row& row) {
    TYPlaybackFigures figures;
    pqxx::row::size_type column = kEnded;
    figures.end = EndNamed(row[column++]);
    figures.reason = static_cast<TY_STOP_REASON>(row[column++].as<int>());
    figures.started = row[column++].as<bool>();
    figures.startUp = OptionalNumber(row[column++]);
    figures.stalls = Numbers(row[column++]);
    figures.unmeasuredStalls = Number(row[column++]);
    for (auto* pTimes : {&figures.seekStalls, &figures.switchStalls, &figures.seeks}) {
        *pTimes = Numbers(row[column++]);
    }
    for (auto* pTime : {&figures.playing, &figures.paused, &figures.watchedMedia}) {
        *pTime = Number(row[column++]);
    }
    figures.lastPosition = OptionalNumber(row[column++]);
    figures.completed = OptionalFlag(row[column++]);
    figures.averageKbps = OptionalNumber(row[column++]);
    figures.renditionTime = Number(row[column++]);
    for (auto* pNumber :
         {&figures.switches, &figures.framesDropped, &figures.framesRendered, &figures.signal}) {
        *pNumber = OptionalNumber(row[column++]);
    }
    figures.errors = Number(row[column++]);
    figures.clockSteps = Number(row[column]);
    return figures;
}

CTYPlaybackLog CTYPlaybackRow::LogIn(const pqxx::row& row) {
    const pqxx::binarystring packed(row[kTimeline]);
    return CTYPlaybackLog(std::string_view(packed.get(), packed.size()));
}
