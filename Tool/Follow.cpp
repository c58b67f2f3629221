// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Records.h"

#include "Interruption.h"

#include <algorithm>

// Problem: a follower runs for weeks. Meanwhile the service drops records, perhaps before the
// follower has read them; it is restarted; its file is moved away or set aside as damaged, and a
// new one takes its place. And the reader of the follower's output may pause for hours.
//
// Idea: ids never repeat within a store, and each store has an epoch, a UUID. So the id of the last
// record read and the epoch say where to go on. An id that was given to a record, lies behind the
// last one read and is not in the store any more belongs to a record that was dropped unread.
//
// Each poll reads a few rows in one snapshot, ends it, and only then prints: while a snapshot is
// open, the service cannot empty its log, and printing blocks for as long as the output's reader
// pauses.
//
// When the file has moved, the follower opens whatever has its name now. It keeps reading the old
// file until that succeeds, since the service may add to it up to that moment.
//
// Always true:
// - Each record of a followed store is printed once, in the order of ids, or counted as missed.
// - In a store with another epoch, reading starts with its first record. In a copy of the same
//   store, such as a restored one, it goes on behind the last record read.
// - Errors after the start end nothing: the first is reported, and the next poll tries again.

namespace {

constexpr int kPeriodMs = 250;
constexpr std::size_t kRowsAtOnce = 256;

/// While alive, all statements read the same state of the store, whatever others commit.
class CSnapshot {
  public:
    explicit CSnapshot(CTYDatabase& database) : m_Database(database) { database.Execute("BEGIN"); }
    ~CSnapshot() {
        // Fails only if SQLite has ended the transaction itself.
        sqlite3_exec(m_Database.Handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
    CSnapshot(const CSnapshot&) = delete;
    CSnapshot& operator=(const CSnapshot&) = delete;

  private:
    CTYDatabase& m_Database;
};

bool HasMoved(const CTYDatabase& database) {
    int moved = 0;
    return sqlite3_file_control(database.Handle(), "main", SQLITE_FCNTL_HAS_MOVED, &moved) ==
               SQLITE_OK &&
           moved != 0;
}

Filter WithoutLimit(Filter filter) {
    filter.limit = -1;
    return filter;
}

/// A connection to a store, with the query for its new records.
struct Source {
    Source(const Context& context, const Filter& filter, bool all)
        : database(OpenForReading(context)),
          query(database, WithoutLimit(filter), all),
          epoch(EpochOf(database)) {}

    CTYDatabase database;
    CRecordQuery query;
    std::string epoch;
};

class CFollower {
  public:
    CFollower(const Context& context, const Filter& filter)
        : m_Context(context),
          m_Filter(filter),
          m_bAll(context.format != Format::TABLE),
          m_pSource(std::make_unique<Source>(context, filter, m_bAll)),
          m_pWriter(MakeWriter(context, CRecordQuery::Columns(m_bAll))) {
        FindStart();
    }

    void Run() {
        do {
            Poll();
        } while (m_Context.out.good() && !m_Interruption.Wait(kPeriodMs));
        m_pWriter->End();
    }

  private:
    // Starts before the oldest of the existing records that the limit selects.
    void FindStart() {
        CTYDatabase& database = m_pSource->database;
        const CSnapshot snapshot(database);
        m_nNewest = NewestId(database);
        m_nAfter = m_Filter.limit < 0 ? 0 : m_nNewest;
        if (m_Filter.limit > 0) {
            CRecordQuery present(database, m_Filter, m_bAll);
            present.Begin(0);
            m_nAfter = present.Step() ? present.Id() - 1 : m_nNewest;
        }
    }

    void Poll() {
        std::unique_ptr<Source> pNext;
        if (m_pSource == nullptr || HasMoved(m_pSource->database)) {
            pNext = TryOpen();
        }
        PrintAll();
        if (pNext != nullptr) {
            Follow(std::move(pNext));
            PrintAll();
        }
    }

    std::unique_ptr<Source> TryOpen() {
        try {
            return std::make_unique<Source>(m_Context, m_Filter, m_bAll);
        } catch (const CTYDatabaseError& error) {
            Report(error.what());
            return nullptr;
        }
    }

    void Follow(std::unique_ptr<Source> pSource) {
        const bool isNew = pSource->epoch != m_strEpoch;
        m_pSource = std::move(pSource);
        m_bWaiting = false;
        isNew ? BeginNewStore() : StayBehindNewest();
    }

    void BeginNewStore() {
        m_strEpoch = m_pSource->epoch;
        m_nAfter = 0;
        m_nNewest = 0;
        m_Context.errors << "tallyra: following the new store\n";
    }

    // A restored copy may have given fewer ids than the store that was followed.
    void StayBehindNewest() {
        const std::int64_t newest = NewestId(m_pSource->database);
        m_nAfter = std::min(m_nAfter, newest);
        m_nNewest = std::min(m_nNewest, newest);
    }

    void PrintAll() {
        try {
            while (m_pSource != nullptr && PrintSome() && m_Context.out.good() &&
                   !m_Interruption.Wait(0)) {
            }
        } catch (const CTYDatabaseError& error) {
            // A lock passes; after any other error the connection may be of no more use.
            if (error.Kind() != SQLITE_BUSY) {
                Report("cannot read " + m_Context.db + ": " + error.what());
                m_pSource.reset();
            }
        }
    }

    // Returns whether there is more to print.
    bool PrintSome() {
        std::vector<Row> rows;
        const std::int64_t missed = Read(rows);
        if (missed > 0) {
            m_Context.errors << "tallyra: missed " << missed
                             << " records, which were dropped before they were read\n";
        }
        for (const Row& row : rows) {
            m_pWriter->Add(row);
        }
        m_pWriter->Flush();
        return rows.size() == kRowsAtOnce;
    }

    // Reads the next rows. Returns the number of records that are gone.
    std::int64_t Read(std::vector<Row>& rows) {
        CTYDatabase& database = m_pSource->database;
        const CSnapshot snapshot(database);
        // The content may have been replaced within the same file.
        if (const std::string epoch = EpochOf(database); epoch != m_pSource->epoch) {
            m_pSource->epoch = epoch;
            BeginNewStore();
        }
        std::int64_t last = NewestId(database);
        CRecordQuery& query = m_pSource->query;
        query.Begin(m_nAfter);
        while (rows.size() < kRowsAtOnce && query.Step()) {
            rows.push_back(query.Get());
            last = rows.size() == kRowsAtOnce ? query.Id() : last;
        }
        query.End();
        // What was gone before the follower started is not its loss.
        const std::int64_t from = std::max(m_nAfter, m_nNewest);
        const std::int64_t missed = last > from ? CountGone(database, from, last) : 0;
        m_nAfter = last;
        return missed;
    }

    // Reports the first error until the store can be read again: others may follow from it.
    void Report(const std::string& text) {
        if (!m_bWaiting) {
            m_bWaiting = true;
            m_Context.errors << "tallyra: " << Printable(text) << "; waiting for it\n";
        }
    }

    const Context& m_Context;
    const Filter m_Filter;
    const bool m_bAll;
    const CInterruption m_Interruption;
    std::unique_ptr<Source> m_pSource;  ///< null after an error, until the store can be opened
    const std::unique_ptr<IRowWriter> m_pWriter;
    std::string m_strEpoch = m_pSource->epoch;
    std::int64_t m_nAfter = 0;   ///< id of the last record read
    std::int64_t m_nNewest = 0;  ///< newest id when this store was first read
    bool m_bWaiting = false;     ///< whether an error was reported since the store was opened
};

}  // namespace

std::string EpochOf(CTYDatabase& database) {
    CTYStatement epoch(database, "SELECT epoch FROM store");
    return epoch.Step() ? std::string(epoch.Text(0)) : "";
}

std::int64_t NewestId(CTYDatabase& database) {
    return database.Number("SELECT seq FROM sqlite_sequence WHERE name = 'entries'");
}

std::int64_t CountGone(CTYDatabase& database, std::int64_t after, std::int64_t last) {
    CTYStatement count(database, "SELECT count(*) FROM entries WHERE id > ? AND id <= ?");
    return last - after - count.First(after, last).value_or(0);
}

void FollowRecords(const Context& context, const Filter& filter) {
    CFollower(context, filter).Run();
}
