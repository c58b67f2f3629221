// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

#include "EventNames.h"
#include "PlaybackSearch.h"
#include "PlaybackSummary.h"
#include "Progress.h"
#include "RecordText.h"
#include "Records.h"
#include "TYEventCodes.h"
#include "TYPlaybackScan.h"

#include <algorithm>
#include <utility>

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
// How much of a text the head of a timeline shows.
constexpr std::size_t kHeadWidth = 100;
// Selects those that the key figures count as completed, whatever their end.
constexpr const char* kCompleted = "completed";

// If the START was lost, the content is that of the playback's first context.
constexpr const char* kColumns =
    "SELECT p.playback_id, p.service_id, p.started_sec, p.first_arrival, p.last_arrival, "
    "p.records, ";
constexpr const char* kTables =
    R"sql( AS all_errors, c.title, c.url, s.name, p.id, c.custom_info, nullif(p.uid, -1), s.pid,
       c.duration, c.content_type, c.network_type
FROM playbacks p JOIN senders s ON s.id = p.sender
     LEFT JOIN contexts c ON c.id =
         coalesce(p.context, (SELECT min(id) FROM contexts WHERE playback = p.id))
)sql";

// The total in the table also counts the library's remarks.
std::string Select(const std::string& rest) {
    const std::string errors =
        "iif(p.errors = 0, 0, (SELECT count(*) FROM contexts x JOIN runs r ON r.context = x.id "
        "CROSS JOIN entries e ON e.id BETWEEN r.first AND r.last WHERE x.playback = p.id AND " +
        SqlForErrors("e.event") + "))";
    return kColumns + errors + kTables + rest;
}

// In the order of ids: a wall clock that was ahead puts nothing in front.
std::string ListOf(const Filter& filter) {
    std::string sql = "WHERE p.playback_id <> '' AND p.last_arrival >= ?1 AND p.first_arrival < ?2";
    sql += filter.application.empty() ? "" : " AND p.service_id = ?4";
    sql += filter.uid ? " AND p.uid = ?5" : "";
    sql += filter.title.empty() ? "" : " AND contains_text(c.title, ?6)";
    sql += filter.errors ? " AND all_errors > 0" : "";
    sql += filter.network ? " AND EXISTS (SELECT 1 FROM contexts n WHERE n.playback = p.id "
                            "AND n.network_type = ?7)"
                          : "";
    return sql + " ORDER BY p.last_entry DESC LIMIT ?3";
}

// Binds what ListOf names; texts must outlive the statement's steps.
void BindFilter(CTYStatement& statement, const Filter& filter) {
    statement.Begin(filter.since.value_or(INT64_MIN), filter.until.value_or(INT64_MAX),
                    filter.limit);
    const auto bind = [&statement](int index, bool wanted, const auto& value) {
        if (wanted) {
            statement.Bind(index, value);
        }
    };
    bind(4, !filter.application.empty(), filter.application);
    bind(5, filter.uid.has_value(), filter.uid);
    bind(6, !filter.title.empty(), filter.title);
    // The store has the byte of the record.
    bind(7, filter.network.has_value(), filter.network.value_or(0) & 0xff);
}

constexpr const char* kOne = "WHERE p.playback_id = ?1 ORDER BY p.id";

enum Column {
    PLAYBACK_ID,
    SERVICE_ID,
    STARTED,
    FIRST_ARRIVAL,
    LAST_ARRIVAL,
    RECORDS,
    ERRORS,
    TITLE,
    URL,
    SENDER,
    NUMBER,
    CUSTOM_INFO,
    UID,
    PID,
    DURATION,
    CONTENT_TYPE,
    NETWORK_TYPE,
};

PlaybackSummary SummaryOf(const Context& context, CTYDatabase& database, const CTYStatement& s) {
    return Summarize(
        database, s.Int(NUMBER),
        {s.Int32(DURATION), s.Int(NETWORK_TYPE) == TY_NETWORK_WIFI,
         IsRecent(s.Int(LAST_ARRIVAL), context.now), s.Int(CONTENT_TYPE) != TY_CONTENT_LIVE});
}

Cell NumberCell(const CTYStatement& s, int column) {
    return s.IsNull(column) ? Cell() : Cell(s.Int(column));
}

Cell LengthIn(std::optional<std::int64_t> length) {
    return length ? Cell(LengthCell{*length}) : Cell();
}

std::vector<std::string> PlaybackColumns(Format format) {
    if (format == Format::TABLE) {
        return {"start",      "application", "title", "watched_ms", "startup_ms", "stalls",
                "stalled_ms", "errors",      "end",   "records",    "playback",   "uid"};
    }
    return {"start",      "application", "title", "watched_media_ms", "startup_ms", "stalls",
            "stalled_ms", "errors",      "end",   "stop_reason",      "records",    "playback",
            "uid"};
}

Cell ReasonIn(const PlaybackSummary& summary) {
    return summary.reason.empty() ? Cell() : Cell(summary.reason);
}

Row PlaybackRow(const Context& context, const CTYStatement& s, const PlaybackSummary& summary) {
    const std::int64_t start =
        s.IsNull(STARTED) ? s.Int(FIRST_ARRIVAL) : s.Int32(STARTED) * kSecond;
    Row row = {TimeCell{start},
               std::string(s.Text(SERVICE_ID)),
               std::string(s.Text(s.Text(TITLE).empty() ? URL : TITLE)),
               LengthIn(summary.watched),
               LengthIn(summary.startUp),
               summary.stalls,
               LengthIn(summary.stalled),
               s.Int(ERRORS)};
    if (context.format == Format::TABLE) {
        row.emplace_back(summary.end);
    } else {
        row.insert(row.end(), {summary.endClass, ReasonIn(summary)});
    }
    row.insert(row.end(), {s.Int(RECORDS), std::string(s.Text(PLAYBACK_ID)), NumberCell(s, UID)});
    return row;
}

std::string DescribeSender(const CTYStatement& s) {
    const std::string user = s.IsNull(UID) ? "" : ", user " + std::to_string(s.Int(UID));
    return user + (s.IsNull(PID) ? "" : ", process " + std::to_string(s.Int(PID)));
}

void PrintHead(const Context& context, const CTYStatement& s, const PlaybackSummary& summary,
               bool whole) {
    std::ostream& out = context.out;
    const std::string url = Printable(s.Text(URL));
    out << "playback     " << Printable(s.Text(PLAYBACK_ID)) << "\n"
        << "application  " << Printable(s.Text(SERVICE_ID)) << "\n"
        << "title        " << Printable(s.Text(TITLE)) << "\n"
        << "url          " << (whole ? url : Shortened(url, kHeadWidth)) << "\n"
        << "sender       " << Printable(s.Text(SENDER)) << DescribeSender(s) << "\n"
        << "end          " << summary.ending << "\n"
        << "watched      " << FormatLength(summary.watched) << "\n";
    if (summary.startUp) {
        out << "start-up     " << FormatLength(*summary.startUp) << "\n";
    }
    out << "stalls       " << summary.stalls << ", " << FormatLength(summary.stalled) << "\n"
        << "errors       " << s.Int(ERRORS) << "\n\n";
}

std::vector<std::string> TimelineColumns(const Context& context) {
    if (context.format == Format::TABLE) {
        return {"time", "event", "kind", "what"};
    }
    std::vector<std::string> columns = RecordColumns();
    columns.insert(columns.end(), {"offset_ms", "watched_media_ms", "startup_ms", "stalls",
                                   "stalled_ms", "errors", "end", "stop_reason"});
    return columns;
}

/// Prints the records of one playback as a timeline.
class CTimeline {
  public:
    CTimeline(const Context& context, CTYDatabase& database, const CTYStatement& playback,
              const PlaybackSummary& summary)
        : m_Context(context),
          m_Figures{LengthIn(summary.watched), LengthIn(summary.startUp), summary.stalls,
                    LengthIn(summary.stalled), playback.Int(ERRORS),      summary.endClass,
                    ReasonIn(summary)},
          m_strContentText(playback.Text(CUSTOM_INFO)),
          m_strLastText(m_strContentText),
          m_Records(database, {.number = playback.Int(NUMBER)}, true) {}

    void Print(IRowWriter& writer) {
        m_Records.Begin(0);
        while (m_Records.Step()) {
            writer.Add(NextRow(m_Records.Fields()));
        }
        writer.Flush();
    }

  private:
    Row NextRow(RecordFields fields) {
        m_First = m_First.value_or(fields.time);
        const std::int64_t offset = (fields.time - *m_First) / 1'000'000;
        std::string what = What(fields);
        if (m_Context.format == Format::TABLE) {
            return {(offset < 0 ? "" : "+") + FormatLength(offset), EventName(fields.code),
                    EventKind(fields.code), std::move(what)};
        }
        Row row = RecordRow(std::move(fields), std::move(what));
        row.emplace_back(LengthCell{offset});
        row.insert(row.end(), m_Figures.begin(), m_Figures.end());
        return row;
    }

    // Appends custom text that came with Execute or with a change of the content.
    std::string What(const RecordFields& fields) {
        std::string what = DescribeRecord(fields.code, fields.param1, fields.param2);
        const std::string& text = fields.customInfo;
        if (!text.empty() && text != m_strContentText && text != m_strLastText) {
            what += (what.empty() ? "" : ", ") + text;
        }
        m_strLastText = text;
        return what;
    }

    const Context& m_Context;
    const Row m_Figures;  ///< of the playback: every row has them
    const std::string m_strContentText;
    std::string m_strLastText;
    std::optional<std::int64_t> m_First;
    CRecordQuery m_Records;
};

/// Prints the playbacks that a statement yields. Identifiers are unique only for their sender, so
/// several may match. As a table, each gets its own header; in other formats all rows form one
/// list.
int ShowEach(const Context& context, CTYDatabase& database, CTYStatement& playbacks, bool whole) {
    RowStyle style = StyleOf(context);
    style.wholeTexts = whole;
    std::unique_ptr<IRowWriter> pWriter;
    while (playbacks.Step()) {
        const PlaybackSummary summary = SummaryOf(context, database, playbacks);
        if (context.format == Format::TABLE) {
            context.out << (pWriter != nullptr ? "\n" : "");
            PrintHead(context, playbacks, summary, whole);
            pWriter.reset();
        }
        if (pWriter == nullptr) {
            pWriter = MakeRowWriter(context.out, TimelineColumns(context), style);
        }
        CTimeline(context, database, playbacks, summary).Print(*pWriter);
    }
    if (pWriter == nullptr) {
        return EXIT_NOT_FOUND;
    }
    pWriter->End();
    return EXIT_OK;
}

int ShowLast(const Context& context, CTYDatabase& database, const ShowOptions& options) {
    Filter filter;
    filter.application = options.application;
    filter.limit = 1;
    CTYStatement statement(database, Select(ListOf(filter)));
    BindFilter(statement, filter);
    const int status = ShowEach(context, database, statement, options.whole);
    if (status == EXIT_NOT_FOUND) {
        context.errors << "tallyra: no playbacks match\n";
    }
    return status;
}

// The names that --sort takes.
std::vector<std::string> SortColumnsOf(Format format) {
    std::vector<std::string> columns = PlaybackColumns(format);
    std::ranges::transform(columns, columns.begin(), NameInTables);
    std::ranges::replace(columns, std::string("watched_media"), std::string("watched"));
    return columns;
}

/// The rows of a list: those that the SQL filter left, further selected and sorted.
class CPlaybackList {
  public:
    CPlaybackList(const Context& context, CTYDatabase& database, const PlaybacksOptions& options)
        : m_Context(context), m_Database(database), m_Options(options) {}

    void Print(CTYStatement& statement, IRowWriter& writer) {
        Read(statement, writer);
        Sort();
        for (const Row& row : m_Rows) {
            writer.Add(row);
        }
    }

    /// @return whether the SQL filter may apply the limit
    static bool LimitsRows(const PlaybacksOptions& options) {
        return options.ends.empty() && options.order.column.empty();
    }

  private:
    void Read(CTYStatement& statement, IRowWriter& writer) {
        CProgress progress(m_Context.errors, "reading playbacks", !IsStreamed());
        while (!IsFull(writer) && statement.Step()) {
            const PlaybackSummary summary = SummaryOf(m_Context, m_Database, statement);
            if (!IsWanted(summary)) {
                continue;
            }
            progress.Count();
            Row row = PlaybackRow(m_Context, statement, summary);
            if (IsStreamed()) {
                writer.Add(row);
            } else {
                m_Rows.push_back(std::move(row));
            }
        }
    }

    bool IsStreamed() const { return m_Options.order.column.empty() && !m_Options.order.reverse; }

    bool IsWanted(const PlaybackSummary& summary) const {
        const std::vector<std::string>& ends = m_Options.ends;
        const auto isWanted = [&ends](const std::string& end) {
            return std::ranges::find(ends, end) != ends.end();
        };
        return ends.empty() || isWanted(summary.end) || isWanted(summary.endClass) ||
               (summary.completed && isWanted(kCompleted));
    }

    bool IsFull(const IRowWriter& writer) const {
        const std::int64_t limit = m_Options.filter.limit;
        return m_Options.order.column.empty() && limit >= 0 &&
               writer.Rows() + m_Rows.size() >= static_cast<std::size_t>(limit);
    }

    void Sort() {
        const Order& order = m_Options.order;
        if (order.column.empty()) {
            std::reverse(m_Rows.begin(), m_Rows.end());
            return;
        }
        SortRows(m_Rows, SortColumnsOf(m_Context.format), order.column, order.reverse);
        if (const std::int64_t limit = m_Options.filter.limit; limit >= 0) {
            m_Rows.resize(std::min(m_Rows.size(), static_cast<std::size_t>(limit)));
        }
    }

    const Context& m_Context;
    CTYDatabase& m_Database;
    const PlaybacksOptions& m_Options;
    std::vector<Row> m_Rows;  ///< unless they are printed as they are read
};

}  // namespace

std::vector<std::string> PlaybackSortColumns() {
    return SortColumnsOf(Format::TABLE);
}

std::vector<std::string> PlaybackEnds() {
    return {"stopped",          "playing",           "exited",  "failed", "lost", "start_failure",
            "playback_failure", "exit_before_start", kCompleted};
}

int PrintPlaybacks(const Context& context, const PlaybacksOptions& options) {
    CTYDatabase database = OpenForReading(context);
    Filter filter = options.filter;
    filter.limit = CPlaybackList::LimitsRows(options) ? filter.limit : -1;
    CTYStatement statement(database, Select(ListOf(filter)));
    BindFilter(statement, filter);
    const auto pWriter = MakeWriter(context, PlaybackColumns(context.format));
    CPlaybackList(context, database, options).Print(statement, *pWriter);
    EndRows(context, *pWriter, "no playbacks match");
    return EXIT_OK;
}

int ShowPlayback(const Context& context, const ShowOptions& options) {
    CTYDatabase database = OpenForReading(context);
    if (options.last) {
        return ShowLast(context, database, options);
    }
    const auto identifiers = FindPlaybacks(database, options.playback);
    if (identifiers.size() != 1) {
        return ReportSearch(context, options.playback, identifiers);
    }
    CTYStatement statement(database, Select(kOne));
    statement.Begin(identifiers.front());
    return ShowEach(context, database, statement, options.whole);
}
