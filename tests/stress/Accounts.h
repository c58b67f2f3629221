// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_STRESS_ACCOUNTS_H
#define TALLYRA_TESTS_STRESS_ACCOUNTS_H

#include "BatchSender.h"
#include "TYDatabase.h"

#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

/// A batch that was sent, and its answer.
struct SentBatch {
    int size;
    Answer answer;
};

/// What one sender sent. Batches and their records are numbered from 0, so that every record of all
/// senders is unique.
struct Account {
    int sender;
    std::vector<SentBatch> batches;

    std::string Playback() const { return "sender-" + std::to_string(sender); }

    /// Every fourth batch has a URL of its own, the others share one.
    std::string Url(std::size_t batch) const {
        return Playback() + "/" + (batch % 4 == 0 ? std::to_string(batch) : "all");
    }

    /// @return the records of a batch; their parameters are the batch's and the record's number
    std::vector<TYMediaData> Records(std::size_t batch, int size) const {
        TYMediaData record = MakeRecord("org.example.stress", Playback());
        std::vector<TYMediaData> records;
        for (int i = 0; i < size; ++i) {
            record.event = static_cast<std::uint8_t>(1 + i % 10);
            record.param1 = static_cast<std::int32_t>(batch);
            record.param2 = i;
            records.push_back(record);
        }
        return records;
    }
};

/// Compares what was sent with the store. An accepted batch must be there once, an unanswered one
/// once or not at all, a refused one not at all; no batch in part, and nothing else.
class CAudit {
  public:
    CAudit(const std::vector<Account>& accounts, const std::string& db)
        : m_Database(db, CTYDatabase::Mode::READ_ONLY) {
        for (const Account& account : accounts) {
            Judge(account);
        }
        CTYStatement check(m_Database, "PRAGMA integrity_check");
        Check(check.Step() && check.Text(0) == "ok", "the database has lost its integrity");
        const std::int64_t all = m_Database.Number("SELECT count(*) FROM records");
        Check(all == records, "some stored records are no sender's");
        Check(m_Database.Number("SELECT total(records) FROM playbacks") == all,
              "the playbacks' totals differ from their records");
    }

    std::int64_t accepted = 0;        ///< batches
    std::int64_t refused = 0;         ///< batches
    std::int64_t unanswered = 0;      ///< batches
    std::int64_t unansweredKept = 0;  ///< those in the store
    std::int64_t records = 0;
    std::int64_t faults = 0;

  private:
    // Prints the first faults.
    void Check(bool holds, const std::string& fault) {
        constexpr int kFaultsPrinted = 20;
        if (!holds && ++faults <= kFaultsPrinted) {
            std::printf("FAULT %s\n", fault.c_str());
        }
    }

    void Judge(const Account& account) {
        const std::set<std::size_t> stored = StoredBatches(account);
        for (std::size_t batch = 0; batch < account.batches.size(); ++batch) {
            const Answer answer = account.batches[batch].answer;
            const bool isStored = stored.contains(batch);
            const std::string place = account.Playback() + " batch " + std::to_string(batch);
            accepted += answer == Answer::kAccepted ? 1 : 0;
            refused += answer == Answer::kRefused ? 1 : 0;
            unanswered += answer == Answer::NONE ? 1 : 0;
            unansweredKept += answer == Answer::NONE && isStored ? 1 : 0;
            Check(answer != Answer::kAccepted || isStored, place + " was accepted and is lost");
            Check(answer != Answer::kRefused || !isStored, place + " was refused and is stored");
        }
    }

    /// @return the batches in the store; those stored in part, twice or changed are faults
    std::set<std::size_t> StoredBatches(const Account& account) {
        // How many records, how many different ones, and whether all have the batch's URL and their
        // number's event.
        CTYStatement row(m_Database,
                         "SELECT param1, count(*), count(DISTINCT param2), min(param2), "
                         "max(param2), min(url), max(url), sum(event != 1 + param2 % 10) "
                         "FROM records WHERE playback_id = ? GROUP BY param1");
        std::set<std::size_t> stored;
        const std::string playback = account.Playback();
        row.Begin(playback);
        while (row.Step()) {
            const auto batch = static_cast<std::size_t>(row.Int(0));
            records += row.Int(1);
            Check(batch < account.batches.size() && IsWhole(account, batch, row),
                  playback + " batch " + std::to_string(batch) +
                      " was never sent, or is stored in part, twice or changed");
            stored.insert(batch);
        }
        return stored;
    }

    /// @return whether a row has every record of the batch once, as it was sent
    static bool IsWhole(const Account& account, std::size_t batch, const CTYStatement& row) {
        const std::int64_t size = account.batches[batch].size;
        const std::string url = account.Url(batch);
        return row.Int(1) == size && row.Int(2) == size && row.Int(3) == 0 &&
               row.Int(4) == size - 1 && row.Text(5) == url && row.Text(6) == url &&
               row.Int(7) == 0;
    }

    CTYDatabase m_Database;
};

#endif  // TALLYRA_TESTS_STRESS_ACCOUNTS_H
