// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"
#include "PlaybackSearch.h"
#include "Progress.h"
#include "TYLosses.h"
#include "TYRunDropper.h"
#include "TYStorePath.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <thread>

// Problem: deleting a row leaves its bytes in the file. SQLite only marks them as free; when it
// moves rows between pages, copies of them stay behind; and earlier versions of each page stay in
// the write-ahead log. Meanwhile the service adds records, and may not be kept waiting.
//
// Idea: list the matching runs once; what arrives later stays. Then, in short transactions with
// secure_delete on, which overwrites deleted rows and freed pages with zeros:
//
//   1. Overwrite the texts and images of the contexts in place, while no row moves. From here on,
//      rows that SQLite moves contain nothing but zeros and identifiers.
//   2. Drop the runs with the service's own primitive.
//
// Overwriting takes space in the log before it frees any. On a full disk, a transaction that fails
// is repeated with an empty log, and then with fewer rows.
//
// After that, cut the free pages off the file, copy the log into the file and truncate the log.
//
// This has a limit: rows that SQLite moved earlier may have left copies in the unused part of a
// page. Only VACUUM, which rewrites the whole file, clears them. It locks the store for as long
// as that takes, so the caller has to ask for it.
//
// Always true:
// - Each transaction leaves a correct store, and what it leaves of the selection is still selected:
//   an interrupted command can simply be run again.
// - No record that stays loses its context. A context is overwritten only if none of its runs
//   stays, and the service adds none: after a commit of another connection, it starts new contexts.
// - A transaction drops at most kRecordsAtOnce records and ends after about kLongest. Between two,
//   the command sleeps as long as the last one took, so that the service gets its turn.
// - What was dropped is counted as forgotten in the same transaction, without naming its
//   application.
// - EXIT_OK means that the log was truncated: no old version of a page is left in it. It also means
//   that no recovery from a damaged store was under way, which could bring records back.

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::int64_t kRecordsAtOnce = 4096;
constexpr std::chrono::milliseconds kLongest{50};
constexpr std::size_t kRowsAtOnce = 1024;
constexpr const char* kFreePages = "PRAGMA incremental_vacuum(";
constexpr int kLockWaitMs = 5000;
constexpr std::chrono::seconds kPatience{5};
constexpr int kAttemptMs = 100;

constexpr const char* kSelect =
    "SELECT r.first, r.last - r.first + 1, r.context FROM runs r JOIN contexts c ON c.id = "
    "r.context "
    "JOIN playbacks p ON p.id = c.playback WHERE ";

// Zeros of the same length as a text: SQLite then overwrites the row in place.
std::string Blank(const std::string& column) {
    return column + " = CAST(zeroblob(length(CAST(" + column + " AS BLOB))) AS TEXT), ";
}

// Leaves the columns by which records are selected. Parameters: the context, the last run listed,
// and the time from which on records stay.
std::string SqlToBlank() {
    return "UPDATE contexts SET " + Blank("url") + Blank("channel_id") + Blank("title") +
           Blank("genre") + Blank("custom_info") +
           "common = zeroblob(length(common)) WHERE id = ?1 AND NOT EXISTS (SELECT 1 FROM runs "
           "WHERE context = ?1 AND (first > ?2 OR arrival >= ?3))";
}

struct Listed {
    std::int64_t first;  ///< identifies the run
    std::int64_t records;
};

/// Deletes the selected records of one store.
class CForgetter {
  public:
    CForgetter(const Context& context, const ForgetOptions& options)
        : m_Context(context), m_Options(options), m_Database(OpenForWriting(context)) {
        m_Database.WaitForLocks(kLockWaitMs);
        m_Database.Execute("PRAGMA foreign_keys = ON");
        m_Database.Execute("PRAGMA secure_delete = ON");
    }

    int Run() {
        if (const auto status = CompletePlayback()) {
            return *status;
        }
        List();
        if (!m_Options.yes && !IsConfirmed()) {
            m_Context.errors << "tallyra: nothing was forgotten\n";
            return EXIT_FAILED;
        }
        const bool isLogEmpty = Delete();
        m_Progress.reset();
        PrintResult();
        const bool isComplete = !IsRecovering() && isLogEmpty;
        return isComplete ? EXIT_OK : EXIT_FAILED;
    }

  private:
    /// @return the exit code unless exactly one playback begins as told
    std::optional<int> CompletePlayback() {
        if (!m_Options.playback) {
            return std::nullopt;
        }
        const auto found = FindPlaybacks(m_Database, *m_Options.playback);
        if (found.size() != 1) {
            return ReportSearch(m_Context, *m_Options.playback, found);
        }
        m_Options.playback = found.front();
        return std::nullopt;
    }

    void PrintResult() const {
        if (m_Context.format == Format::TABLE) {
            m_Context.out << "forgot " << m_nRecords << " records\n";
            return;
        }
        const auto pWriter = MakeWriter(m_Context, {"records"});
        pWriter->Add({m_nRecords});
        pWriter->End();
    }

    /// @return whether the log is empty as well
    bool Delete() {
        m_Progress.emplace(m_Context.errors, "forgetting records");
        for (std::size_t next = 0; next < m_Contexts.size();) {
            Fit([&] { next = BlankSome(next); });
        }
        for (std::size_t next = 0; next < m_Runs.size();) {
            Fit([&] { next = DropSome(next); });
        }
        RemoveNames();
        ReturnFreePages();
        return Vacuum() && EmptyLog();
    }

    void List() {
        CTYStatement runs(m_Database, kSelect + Condition() + " ORDER BY r.first");
        BindTo(runs);
        while (runs.Step()) {
            m_Runs.push_back({runs.Int(0), runs.Int(1)});
            m_Contexts.push_back(runs.Int(2));
            m_nListed += runs.Int(1);
        }
        std::sort(m_Contexts.begin(), m_Contexts.end());
        m_Contexts.erase(std::unique(m_Contexts.begin(), m_Contexts.end()), m_Contexts.end());
    }

    std::string Condition() const {
        if (m_Options.application) {
            return "c.service_id = ?";
        }
        if (m_Options.playback) {
            return "p.playback_id = ?";
        }
        if (m_Options.uid) {
            return "p.uid = ?";
        }
        return m_Options.before ? "r.arrival < ?" : "1";
    }

    void BindTo(CTYStatement& statement) const {
        if (m_Options.application) {
            statement.Bind(1, *m_Options.application);
        } else if (m_Options.playback) {
            statement.Bind(1, *m_Options.playback);
        } else if (m_Options.uid || m_Options.before) {
            statement.Bind(1, m_Options.uid ? *m_Options.uid : *m_Options.before);
        }
    }

    bool IsConfirmed() const {
        if (isatty(STDIN_FILENO) == 0) {
            m_Context.errors << "tallyra: without a terminal to ask on, forget needs --yes\n";
            return false;
        }
        m_Context.errors << "Delete " << m_nListed << " records from " << m_Context.db
                         << " for good? [y/N] ";
        std::string answer;
        return std::getline(std::cin, answer) && (answer == "y" || answer == "Y");
    }

    // SQLite does not queue writers: without this, the service might wait until the end.
    static void GiveTurn(Clock::time_point begin) {
        std::this_thread::sleep_for(Clock::now() - begin);
    }

    // Runs a transaction. While the disk is too full for it, empties the log and reduces m_nAtOnce.
    template <class Step>
    void Fit(Step step) {
        for (bool isLogEmpty = false;; isLogEmpty = true) {
            try {
                step();
                return;
            } catch (const CTYDatabaseError& error) {
                if (error.Kind() != SQLITE_FULL || (isLogEmpty && m_nAtOnce == 1)) {
                    throw;
                }
            }
            m_nAtOnce = isLogEmpty ? (m_nAtOnce + 3) / 4 : m_nAtOnce;
            m_Database.WaitForLocks(kAttemptMs);
            m_Database.Execute("PRAGMA wal_checkpoint(TRUNCATE)");
            m_Database.WaitForLocks(kLockWaitMs);
        }
    }

    // Each returns where to go on.
    std::size_t BlankSome(std::size_t next) {
        const Clock::time_point begin = Clock::now();
        CTYTransaction transaction(m_Database);
        CTYStatement blank(m_Database, SqlToBlank());
        const std::size_t end = std::min(m_Contexts.size(), next + m_nAtOnce);
        do {
            blank.Run(m_Contexts[next++], m_Runs.back().first,
                      m_Options.before.value_or(INT64_MAX));
        } while (next < end && Clock::now() - begin < kLongest);
        transaction.Commit();
        GiveTurn(begin);
        return next;
    }

    std::size_t DropSome(std::size_t next) {
        const Clock::time_point begin = Clock::now();
        CTYTransaction transaction(m_Database);
        CTYRunDropper dropper(m_Database);
        CTYLosses losses;
        std::int64_t left = kRecordsAtOnce;
        std::int64_t records = 0;
        const std::size_t end = std::min(m_Runs.size(), next + m_nAtOnce);
        do {
            const TYDroppedRun dropped = dropper.Drop(m_Runs[next].first);
            losses.Count(TYLossReason::FORGOTTEN, "", dropped.records, dropped.playback ? 1 : 0);
            records += dropped.records;
            left -= m_Runs[next++].records;
        } while (next < end && m_Runs[next].records <= left && Clock::now() - begin < kLongest);
        WriteLosses(m_Database, losses, m_Context.now);
        transaction.Commit();
        m_nRecords += records;
        GiveTurn(begin);
        return next;
    }

    // The names of applications stand in two more places: a playback keeps that of its first
    // record, and losses are counted for each.
    void RemoveNames() {
        if (!m_Options.application && !m_Options.all) {
            return;
        }
        CTYTransaction transaction(m_Database);
        CTYStatement(m_Database,
                     "UPDATE playbacks SET service_id = (SELECT service_id FROM contexts "
                     "WHERE playback = playbacks.id ORDER BY id LIMIT 1) WHERE service_id = ?1 "
                     "AND id IN (SELECT playback FROM contexts) AND NOT EXISTS (SELECT 1 FROM "
                     "contexts WHERE playback = playbacks.id AND service_id = ?1)")
            .Run(m_Options.application);
        CTYStatement(m_Database,
                     "UPDATE losses SET application = '' WHERE ?1 IS NULL OR application = ?1")
            .Run(m_Options.application);
        transaction.Commit();
    }

    void ReturnFreePages() {
        const std::int64_t pages = m_Database.Number("PRAGMA freelist_count");
        std::int64_t atOnce = 0;
        for (std::int64_t returned = 0; returned < pages; returned += atOnce) {
            const Clock::time_point begin = Clock::now();
            Fit([&] {
                atOnce = static_cast<std::int64_t>(m_nAtOnce);
                m_Database.Execute((kFreePages + std::to_string(atOnce) + ")").c_str());
            });
            GiveTurn(begin);
        }
    }

    // The log is emptied first: VACUUM writes the whole store to it.
    bool Vacuum() {
        if (!m_Options.vacuum) {
            return true;
        }
        if (!EmptyLog()) {
            return false;
        }
        m_Database.Execute("VACUUM");
        return true;
    }

    // Truncating blocks all writers while it copies. So the first copy is a passive one, which does
    // not, and attempts are short.
    bool EmptyLog() {
        m_Database.Execute("PRAGMA wal_checkpoint(PASSIVE)");
        m_Database.WaitForLocks(kAttemptMs);
        const Clock::time_point deadline = Clock::now() + kPatience;
        while (m_Database.Number("PRAGMA wal_checkpoint(TRUNCATE)") != 0) {
            if (Clock::now() >= deadline) {
                m_Progress.reset();
                m_Context.errors << "tallyra: the records are deleted, but their bytes are still "
                                    "in the log, which another program reads: run the command "
                                    "again when that has ended\n";
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(kAttemptMs));
        }
        m_Database.WaitForLocks(kLockWaitMs);
        return true;
    }

    // Names the files that the service has set aside. They are the administrator's, and may be the
    // only copies of the records in them. While the service still copies records from one of them,
    // what was forgotten may come back.
    bool IsRecovering() const {
        namespace fs = std::filesystem;
        const fs::path db = fs::absolute(FollowLinks(m_Context.db));
        const std::string name = db.filename().string();
        bool isRecovering = false;
        std::error_code ignored;
        for (const auto& entry : fs::directory_iterator(db.parent_path(), ignored)) {
            const std::string file = entry.path().filename().string();
            if (file.starts_with(name + ".damaged-") || file.starts_with(name + ".left-")) {
                m_Context.errors << "tallyra: not searched: " << entry.path().string() << "\n";
            }
            isRecovering = isRecovering || file.starts_with(name + ".recover-");
        }
        if (isRecovering) {
            m_Context.errors << "tallyra: the service is copying records from a damaged store: "
                                "run the command again when that has ended\n";
        }
        return isRecovering;
    }

    const Context& m_Context;
    ForgetOptions m_Options;
    CTYDatabase m_Database;
    std::optional<CProgress> m_Progress;   ///< while records are deleted
    std::vector<Listed> m_Runs;            ///< in the order of ids
    std::vector<std::int64_t> m_Contexts;  ///< those of the runs
    std::size_t m_nAtOnce = kRowsAtOnce;   ///< rows or pages in a transaction
    std::int64_t m_nListed = 0;
    std::int64_t m_nRecords = 0;
};

}  // namespace

int Forget(const Context& context, const ForgetOptions& options) {
    return CForgetter(context, options).Run();
}
