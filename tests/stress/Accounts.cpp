// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Accounts.h"

#include "TYDatabase.h"

#include <map>

namespace {

constexpr std::size_t kBatchesPerUrl = 4;
constexpr int kEvents = 10;
constexpr std::size_t kFaultsKept = 20;

// Number of copies of each record, by the number of the batch.
using Copies = std::map<std::int64_t, std::vector<int>>;

// Every event of a player in turn.
std::int64_t EventAt(std::int64_t index) {
    return 1 + index % kEvents;
}

std::string Place(const Account& account, std::size_t batch) {
    return account.Playback() + " batch " + std::to_string(batch);
}

void AddFault(Audit& audit, const std::string& fault) {
    if (audit.faults.size() < kFaultsKept) {
        audit.faults.push_back(fault);
    }
}

// Counts one record of the sender; a record that the sender did not send is a fault.
void CountRow(const Account& account, const CTYStatement& row, Copies& copies, Audit& audit) {
    const std::int64_t batch = row.Int(0);
    const std::int64_t index = row.Int(1);
    ++audit.records;
    if (batch < 0 || batch >= static_cast<std::int64_t>(account.batches.size()) || index < 0 ||
        index >= account.batches[static_cast<std::size_t>(batch)].size) {
        AddFault(audit, account.Playback() + " never sent batch " + std::to_string(batch) +
                            " record " + std::to_string(index));
        return;
    }
    const auto place = static_cast<std::size_t>(batch);
    if (row.Text(2) != account.Url(place) || row.Int(3) != EventAt(index)) {
        AddFault(audit, Place(account, place) + " differs from what was sent");
    }
    std::vector<int>& counts = copies[batch];
    counts.resize(static_cast<std::size_t>(account.batches[place].size));
    ++counts[static_cast<std::size_t>(index)];
}

Copies ReadCopies(const Account& account, CTYDatabase& database, Audit& audit) {
    CTYStatement rows(database,
                      "SELECT param1, param2, url, event FROM records WHERE playback_id = ?");
    Copies copies;
    const std::string playback = account.Playback();
    rows.Begin(playback);
    while (rows.Step()) {
        CountRow(account, rows, copies, audit);
    }
    return copies;
}

/// @return 0 or 1 if every record of the batch is there that many times; else -1
int TimesThere(const Copies& copies, std::size_t batch) {
    const auto found = copies.find(static_cast<std::int64_t>(batch));
    if (found == copies.end()) {
        return 0;
    }
    for (const int count : found->second) {
        if (count != 1) {
            return -1;
        }
    }
    return 1;
}

void JudgeBatch(const Account& account, std::size_t batch, int times, Audit& audit) {
    const Answer answer = account.batches[batch].answer;
    audit.accepted += answer == Answer::kAccepted ? 1 : 0;
    audit.refused += answer == Answer::kRefused ? 1 : 0;
    audit.unanswered += answer == Answer::NONE ? 1 : 0;
    audit.unansweredKept += answer == Answer::NONE && times == 1 ? 1 : 0;
    if (times < 0) {
        AddFault(audit, Place(account, batch) + " is stored in part or more than once");
    } else if (answer == Answer::kAccepted && times == 0) {
        AddFault(audit, Place(account, batch) + " was accepted and is lost");
    } else if (answer == Answer::kRefused && times == 1) {
        AddFault(audit, Place(account, batch) + " was refused and is stored");
    }
}

void Judge(const Account& account, CTYDatabase& database, Audit& audit) {
    const Copies copies = ReadCopies(account, database, audit);
    for (std::size_t batch = 0; batch < account.batches.size(); ++batch) {
        JudgeBatch(account, batch, TimesThere(copies, batch), audit);
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
        record.event = static_cast<std::uint8_t>(EventAt(i));
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
