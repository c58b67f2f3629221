// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_STRESS_ACCOUNTS_H
#define TALLYRA_TESTS_STRESS_ACCOUNTS_H

#include "BatchSender.h"

#include <cstdint>
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
    std::string Url(std::size_t batch) const;
    /// @return the records of a batch; their parameters are the batch's and the record's number
    std::vector<TYMediaData> Records(std::size_t batch, int size) const;
};

/// What the store holds.
struct Audit {
    std::int64_t accepted = 0;        ///< batches
    std::int64_t refused = 0;         ///< batches
    std::int64_t unanswered = 0;      ///< batches
    std::int64_t unansweredKept = 0;  ///< those in the store
    std::int64_t records = 0;
    std::vector<std::string> faults;
};

/// Compares what was sent with the store. An accepted batch must be there once, an unanswered one
/// once or not at all, a refused one not at all; no batch in part, and nothing else.
Audit Compare(const std::vector<Account>& accounts, const std::string& db);

#endif  // TALLYRA_TESTS_STRESS_ACCOUNTS_H
