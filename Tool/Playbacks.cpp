// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

#include "EventNames.h"
#include "Records.h"
#include "TYEventCodes.h"
#include "TimeText.h"

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
// A playback without records for this long is over: players report play time every three minutes.
constexpr std::int64_t kSilence = 600 * kSecond;

// If the START was lost, the content is that of the playback's first context.
constexpr const char* kSelect = R"sql(
SELECT p.playback_id, p.service_id, p.started_sec, p.first_arrival, p.last_arrival, p.ended_sec,
       p.records, p.watched_ms, p.startup_ms, p.stalls, p.stalled_ms, p.errors, c.title, c.url,
       s.name, p.id, c.custom_info, nullif(p.uid, -1), s.pid
FROM playbacks p JOIN senders s ON s.id = p.sender
     LEFT JOIN contexts c ON c.id =
         coalesce(p.context, (SELECT min(id) FROM contexts WHERE playback = p.id))
)sql";

// In the order of ids: a wall clock that was ahead puts nothing in front.
constexpr const char* kList = R"sql(
WHERE p.playback_id <> '' AND (?1 IS NULL OR p.service_id = ?1)
  AND p.last_arrival >= ?2 AND p.first_arrival < ?3
ORDER BY p.last_entry DESC LIMIT ?4)sql";

constexpr const char* kOne = "WHERE p.playback_id = ?1 ORDER BY p.id";

enum Column {
    PLAYBACK_ID,
    SERVICE_ID,
    STARTED,
    FIRST_ARRIVAL,
    LAST_ARRIVAL,
    ENDED,
    RECORDS,
    WATCHED,
    STARTUP,
    STALLS,
    STALLED,
    ERRORS,
    TITLE,
    URL,
    SENDER,
    NUMBER,
    CUSTOM_INFO,
    UID,
    PID,
};

std::string EndOf(const CTYStatement& s, std::int64_t now) {
    if (!s.IsNull(ENDED)) {
        return "stopped";
    }
    if (now - s.Int(LAST_ARRIVAL) < kSilence) {
        return "playing";
    }
    return s.Int(ERRORS) > 0 ? "failed" : "lost";
}

Cell LengthCell(const Context& context, const CTYStatement& s, int column) {
    if (s.IsNull(column)) {
        return std::monostate();
    }
    if (context.format != Format::TABLE) {
        return s.Int(column);
    }
    return FormatLength(s.Int(column));
}

Cell NumberCell(const CTYStatement& s, int column) {
    return s.IsNull(column) ? Cell() : Cell(s.Int(column));
}

Row PlaybackRow(const Context& context, const CTYStatement& s) {
    const std::int64_t start = s.IsNull(STARTED) ? s.Int(FIRST_ARRIVAL) : s.Int(STARTED) * kSecond;
    return {FormatTime(start),
            std::string(s.Text(SERVICE_ID)),
            std::string(s.Text(s.Text(TITLE).empty() ? URL : TITLE)),
            LengthCell(context, s, WATCHED),
            LengthCell(context, s, STARTUP),
            s.Int(STALLS),
            LengthCell(context, s, STALLED),
            s.Int(ERRORS),
            EndOf(s, context.now),
            s.Int(RECORDS),
            std::string(s.Text(PLAYBACK_ID)),
            NumberCell(s, UID)};
}

std::string DescribeNumbers(std::int64_t param1, std::int64_t param2) {
    if (param1 == 0 && param2 == 0) {
        return "";
    }
    return std::to_string(param1) + ", " + std::to_string(param2);
}

// Explains the parameters of a record, for the column "what".
std::string Describe(int event, std::int64_t param1, std::int64_t param2) {
    std::string position = param1 == -1 ? "before any position" : "at " + FormatLength(param1);
    switch (event) {
        case TY_EVENT_START:
            return "from " + std::to_string(param1);
        case TY_EVENT_STOP:
        case TY_EVENT_PAUSE:
        case TY_EVENT_PLAYBACK_TIME:
            return position;
        case TY_EVENT_BUFFERING_START:
            return param2 == 0 ? position : position + ", signal " + std::to_string(param2);
        case TY_EVENT_SEEK:
            return position + " to " + FormatLength(param2);
        case TY_EVENT_PLAYING_TIME:
            return position + ", played " + FormatLength(param2);
        case TY_EVENT_START_UP_TIME:
        case TY_EVENT_BUFFERING_TIME:
            return "took " + FormatLength(param1);
        case TY_ERROR_PLAYBACK_TIME_JUMP:
            return position + ", was at " + FormatLength(param2);
        default:
            return DescribeNumbers(param1, param2);
    }
}

std::string DescribeSender(const CTYStatement& s) {
    const std::string user = s.IsNull(UID) ? "" : ", user " + std::to_string(s.Int(UID));
    return user + (s.IsNull(PID) ? "" : ", process " + std::to_string(s.Int(PID)));
}

void PrintHead(const Context& context, const CTYStatement& s) {
    std::ostream& out = context.out;
    out << "playback     " << Printable(s.Text(PLAYBACK_ID)) << "\n"
        << "application  " << Printable(s.Text(SERVICE_ID)) << "\n"
        << "title        " << Printable(s.Text(TITLE)) << "\n"
        << "url          " << Printable(s.Text(URL)) << "\n"
        << "sender       " << Printable(s.Text(SENDER)) << DescribeSender(s) << "\n"
        << "end          " << EndOf(s, context.now) << "\n"
        << "watched      " << FormatLength(s.Int(WATCHED)) << "\n";
    if (!s.IsNull(STARTUP)) {
        out << "start-up     " << FormatLength(s.Int(STARTUP)) << "\n";
    }
    out << "stalls       " << s.Int(STALLS) << ", " << FormatLength(s.Int(STALLED)) << "\n"
        << "errors       " << s.Int(ERRORS) << "\n\n";
}

std::vector<std::string> TimelineColumns(const Context& context) {
    if (context.format == Format::TABLE) {
        return {"time", "event", "what"};
    }
    return {"sender", "time", "offset_ms", "event", "code", "param1", "param2", "what", "uid"};
}

/// Prints the records of one playback as a timeline.
class CTimeline {
  public:
    CTimeline(const Context& context, CTYDatabase& database, const CTYStatement& playback)
        : m_Context(context),
          m_strSender(playback.Text(SENDER)),
          m_Uid(NumberCell(playback, UID)),
          m_strContentText(playback.Text(CUSTOM_INFO)),
          m_strLastText(m_strContentText),
          m_Records(database,
                    "SELECT event, param1, param2, time_sec, time_nsec, custom_info "
                    "FROM records_by_playback WHERE playback = ? ORDER BY id") {
        m_Records.Begin(playback.Int(NUMBER));
    }

    void Print(IRowWriter& writer) {
        while (m_Records.Step()) {
            writer.Add(NextRow());
        }
        writer.Flush();
    }

  private:
    Row NextRow() {
        const auto event = static_cast<int>(m_Records.Int(0));
        const std::int64_t time = m_Records.Int(3) * kSecond + m_Records.Int(4);
        m_First = m_First.value_or(time);
        const std::int64_t offset = (time - *m_First) / 1'000'000;
        const std::string what = What(event);
        if (m_Context.format == Format::TABLE) {
            return {(offset < 0 ? "" : "+") + FormatLength(offset), EventName(event), what};
        }
        return {m_strSender,
                FormatTime(time),
                offset,
                EventName(event),
                std::int64_t{event},
                m_Records.Int(1),
                m_Records.Int(2),
                what,
                m_Uid};
    }

    // Appends custom text that came with Execute or with a change of the content.
    std::string What(int event) {
        std::string what = Describe(event, m_Records.Int(1), m_Records.Int(2));
        const std::string text(m_Records.Text(5));
        if (!text.empty() && text != m_strContentText && text != m_strLastText) {
            what += (what.empty() ? "" : ", ") + text;
        }
        m_strLastText = text;
        return what;
    }

    const Context& m_Context;
    const std::string m_strSender;
    const Cell m_Uid;
    const std::string m_strContentText;
    std::string m_strLastText;
    std::optional<std::int64_t> m_First;
    CTYStatement m_Records;
};

// Playback identifiers are unique only for their sender, so several may match. As a table, each
// gets its own header; in other formats all rows form one list.
int ShowEach(const Context& context, CTYDatabase& database, CTYStatement& playbacks) {
    std::unique_ptr<IRowWriter> pWriter;
    while (playbacks.Step()) {
        if (context.format == Format::TABLE) {
            context.out << (pWriter != nullptr ? "\n" : "");
            PrintHead(context, playbacks);
            pWriter.reset();
        }
        if (pWriter == nullptr) {
            pWriter = MakeWriter(context, TimelineColumns(context));
        }
        CTimeline(context, database, playbacks).Print(*pWriter);
    }
    if (pWriter == nullptr) {
        return EXIT_NOT_FOUND;
    }
    pWriter->End();
    return EXIT_OK;
}

}  // namespace

int PrintPlaybacks(const Context& context, const Filter& filter) {
    CTYDatabase database = OpenForReading(context);
    CTYStatement statement(database, std::string(kSelect) + kList);
    statement.Begin(nullptr, filter.since.value_or(INT64_MIN), filter.until.value_or(INT64_MAX),
                    filter.limit);
    if (!filter.application.empty()) {
        statement.Bind(1, filter.application);
    }
    const auto pWriter =
        MakeWriter(context, {"start", "application", "title", "watched", "startup", "stalls",
                             "stalled", "errors", "end", "records", "playback", "uid"});
    while (statement.Step()) {
        pWriter->Add(PlaybackRow(context, statement));
    }
    pWriter->End();
    return EXIT_OK;
}

int ShowPlayback(const Context& context, const std::string& playback) {
    CTYDatabase database = OpenForReading(context);
    CTYStatement statement(database, std::string(kSelect) + kOne);
    statement.Begin(playback);
    const int status = ShowEach(context, database, statement);
    if (status == EXIT_NOT_FOUND) {
        context.errors << "tallyra: no playback " << playback << "\n";
    }
    return status;
}
