// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Accounts.h"

#include "TYDatabase.h"

#include <set>

namespace {

constexpr std::size_t kBatchesPerUrl = 4;
constexpr int kEvents = 10;
constexpr std::size_t kFaultsKept = 20;

// What the store holds of each batch of a sender: how many records, how many different ones, and
// whether all have the batch's URL and their number's event.
constexpr const char* kBatches =
    "SELECT param1, count(*), count(DISTINCT param2), min(param2), max(param2), min(url), "
    "max(url), "
    "sum(event != 1 + param2 % 10) FROM records WHERE playback_id = ? GROUP BY param1";

// Every event of a player in turn.
std::uint8_t EventAt(int index) {
    return static_cast<std::uint8_t>(1 + index % kEvents);
}

std::string Place(const Account& account, std::size_t batch) {
    return account.Playback() + " batch " + std::to_string(batch);
}

void AddFault(Audit& audit, const std::string& fault) {
    if (audit.faults.size() < kFaultsKept) {
        audit.faults.push_back(fault);
    }
}

/// @return whether a row of kBatches has every record of the batch once, as it was sent
bool IsWhole(const Account& account, std::size_t batch, const CTYStatement& row) {
    const std::int64_t size = account.batches[batch].size;
    const std::string url = account.Url(batch);
    return row.Int(1) == size && row.Int(2) == size && row.Int(3) == 0 && row.Int(4) == size - 1 &&
           row.Text(5) == url && row.Text(6) == url && row.Int(7) == 0;
}

/// @return the batches in the store; those stored in part, twice or changed are faults
std::set<std::size_t> StoredBatches(const Account& account, CTYDatabase& database, Audit& audit) {
    CTYStatement row(database, kBatches);
    std::set<std::size_t> stored;
    const std::string playback = account.Playback();
    row.Begin(playback);
    while (row.Step()) {
        const auto batch = static_cast<std::size_t>(row.Int(0));
        audit.records += row.Int(1);
        if (batch >= account.batches.size()) {
            AddFault(audit, playback + " never sent batch " + std::to_string(row.Int(0)));
        } else if (!IsWhole(account, batch, row)) {
            AddFault(audit, Place(account, batch) + " is stored in part, twice or changed");
        }
        stored.insert(batch);
    }
    return stored;
}

void JudgeBatch(const Account& account, std::size_t batch, bool stored, Audit& audit) {
    const Answer answer = account.batches[batch].answer;
    audit.accepted += answer == Answer::kAccepted ? 1 : 0;
    audit.refused += answer == Answer::kRefused ? 1 : 0;
    audit.unanswered += answer == Answer::NONE ? 1 : 0;
    audit.unansweredKept += answer == Answer::NONE && stored ? 1 : 0;
    if (answer == Answer::kAccepted && !stored) {
        AddFault(audit, Place(account, batch) + " was accepted and is lost");
    } else if (answer == Answer::kRefused && stored) {
        AddFault(audit, Place(account, batch) + " was refused and is stored");
    }
}

void Judge(const Account& account, CTYDatabase& database, Audit& audit) {
    const std::set<std::size_t> stored = StoredBatches(account, database, audit);
    for (std::size_t batch = 0; batch < account.batches.size(); ++batch) {
        JudgeBatch(account, batch, stored.contains(batch), audit);
    }
}

void CheckDatabase(CTYDatabase& database, Audit& audit) {
    CTYStatement check(database, "PRAGMA integrity_check");
    if (!check.Step() || check.Text(0) != "ok") {
        AddFault(audit, "integrity_check: " + std::string(check.Text(0)));
    }
    const std::int64_t all = database.Number("SELECT count(*) FROM records");
    if (all != audit.records) {
        AddFault(audit, std::to_string(all) + " records are stored, of which " +
                            std::to_string(audit.records) + " are a sender's");
    }
    if (database.Number("SELECT total(records) FROM playbacks") != all) {
        AddFault(audit, "the playbacks' totals differ from their records");
    }
}

}  // namespace

std::string Account::Url(std::size_t batch) const {
    return Playback() +
           (batch % kBatchesPerUrl == 0 ? "/" + std::to_string(batch) : std::string("/all"));
}

std::vector<TYMediaData> Account::Records(std::size_t batch, int size) const {
    TYMediaData record = MakeRecord("org.example.stress", Playback());
    std::vector<TYMediaData> records;
    for (int i = 0; i < size; ++i) {
        record.event = EventAt(i);
        record.param1 = static_cast<std::int32_t>(batch);
        record.param2 = i;
        records.push_back(record);
    }
    return records;
}

Audit Compare(const std::vector<Account>& accounts, const std::string& db) {
    Audit audit;
    CTYDatabase database(db, CTYDatabase::Mode::READ_ONLY);
    for (const Account& account : accounts) {
        Judge(account, database, audit);
    }
    CheckDatabase(database, audit);
    return audit;
}
