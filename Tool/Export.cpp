// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"
#include "OutputFile.h"
#include "PlaybackSearch.h"
#include "Progress.h"
#include "Records.h"

#include <charconv>

// An export ends with a cursor, the epoch of the store and the id of the last record exported:
// "EPOCH:ID". A later export goes on behind it. Ids never repeat within a store, so a cursor stays
// valid whatever the service drops meanwhile; those records are counted as missed.
//
// A copy of a store has its epoch. If an old copy is restored, the service gives some ids again, to
// other records. Then a cursor that was given after the copy was made points behind the newest id
// of the store, until it has as many records; such a cursor is refused.

namespace {

constexpr const char* kStart = "start";

/// A cursor that this store cannot go on from.
class CWrongCursor : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

std::optional<std::int64_t> ParseId(std::string_view text) {
    std::int64_t id = 0;
    const char* pEnd = text.data() + text.size();
    const auto [pStopped, error] = std::from_chars(text.data(), pEnd, id);
    if (error != std::errc() || pStopped != pEnd || id < 0) {
        return std::nullopt;
    }
    return id;
}

/// Exports the records behind a cursor.
class CExport {
  public:
    CExport(const Context& context, const ExportOptions& options)
        : m_Context(context), m_Database(OpenForReading(context)) {
        // All statements read the same state of the store.
        m_Database.Execute("BEGIN");
        m_strEpoch = EpochOf(m_Database);
        if (options.after) {
            m_nLast = Start(*options.after);
        }
        Filter filter = options.filter;
        m_Status = CompletePlayback(context, m_Database, filter);
        // Behind a cursor, the limit selects the next records and not the newest ones.
        m_pQuery = std::make_unique<CRecordQuery>(m_Database, filter, true,
                                                  Order{options.after ? "id" : "", false});
    }

    /// @return the exit code if nothing can be exported
    std::optional<int> Status() const { return m_Status; }

    /// @param sink  what the output is connected to
    void Write(std::ostream& out, Sink sink) {
        RowStyle style = StyleOf(m_Context);
        style.sink = sink;
        const auto pWriter = MakeRowWriter(out, CRecordQuery::Columns(true), style);
        CProgress progress(m_Context.errors, "exporting records", style.sink == Sink::PROGRAM);
        m_pQuery->Begin(m_nLast);
        while (out.good() && m_pQuery->Step()) {
            pWriter->Add(m_pQuery->Get());
            m_nLast = m_pQuery->Id();
            progress.Count();
        }
        if (out.good()) {
            pWriter->End(Cursor());
            WriteEnd(out, pWriter->Rows());
        }
    }

    /// Prints the cursor if the output does not hold it.
    void ReportCursor() const {
        if (m_Context.format != Format::JSONL) {
            m_Context.errors << "cursor: " << Printable(Cursor()) << "\n";
        }
    }

  private:
    std::string Cursor() const { return m_strEpoch + ":" + std::to_string(m_nLast); }

    // @return the id to start behind
    std::int64_t Start(const std::string& cursor) {
        if (cursor == kStart) {
            return 0;
        }
        const std::size_t colon = cursor.rfind(':');
        const auto id = ParseId(std::string_view(cursor).substr(colon + 1));
        if (colon == std::string::npos || !id) {
            throw CWrongCursor("not a cursor: " + cursor + "; the last line of an export has it");
        }
        if (cursor.substr(0, colon) != m_strEpoch) {
            throw CWrongCursor("the cursor is of another store, this one has the epoch " +
                               m_strEpoch + "; begin again with --after start");
        }
        const std::int64_t newest = NewestId(m_Database);
        if (*id > newest) {
            throw CWrongCursor("the cursor is after the newest record, " + std::to_string(newest) +
                               ": an old copy of the store was restored; begin again with "
                               "--after start");
        }
        ReportMissed(*id);
        return *id;
    }

    void ReportMissed(std::int64_t after) {
        const std::int64_t missed = CountGone(m_Database, after, NewestId(m_Database));
        if (missed > 0) {
            m_Context.errors << "tallyra: " << missed
                             << " records were dropped before they were exported\n";
        }
    }

    // Marks the end, so that a reader can recognise a complete export. JSON has one of its own.
    void WriteEnd(std::ostream& out, std::size_t rows) {
        if (m_Context.format == Format::CSV) {
            out << "# end of export: " << rows << " rows\r\n";
        }
        out.flush();
    }

    const Context& m_Context;
    CTYDatabase m_Database;
    std::string m_strEpoch;
    std::int64_t m_nLast = 0;  ///< id of the last record that was exported, now or before
    std::optional<int> m_Status;
    std::unique_ptr<CRecordQuery> m_pQuery;
};

int WriteTo(const Context& context, const ExportOptions& options, CExport& records) {
    if (options.output == "-") {
        // main() reports a failure of standard output, as for every command.
        records.Write(context.out, context.sink);
        if (context.out.good()) {
            records.ReportCursor();
        }
        return EXIT_OK;
    }
    try {
        COutputFile file(options.output, options.mode, context.db);
        records.Write(file.Stream(), file.IsTerminal() ? Sink::TERMINAL : Sink::PROGRAM);
        file.Commit();
        records.ReportCursor();
        return EXIT_OK;
    } catch (const COutputError& error) {
        context.errors << "tallyra: cannot write " << Printable(options.output) << ": "
                       << error.what() << "\n";
        return EXIT_FAILED;
    }
}

}  // namespace

int Export(const Context& context, const ExportOptions& options) {
    try {
        CExport records(context, options);
        return records.Status() ? *records.Status() : WriteTo(context, options, records);
    } catch (const CWrongCursor& error) {
        context.errors << "tallyra: " << Printable(error.what()) << "\n";
        return EXIT_USAGE;
    }
}
