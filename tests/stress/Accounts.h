// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_STRESS_ACCOUNTS_H
#define TALLYRA_TESTS_STRESS_ACCOUNTS_H

#include "BatchSender.h"

#include <cstdint>
#include <string>
#include <vector>

/// A batch that was sent, and what came of it.
struct SentBatch {
    int size;
    Answer answer;
};

/// What one sender sent. Its batches are numbered from 0, and their records too: each record of all
/// senders is one of its kind.
struct Account {
    int sender;
    std::vector<SentBatch> batches;

    std::string Playback() const { return "sender-" + std::to_string(sender); }
    /// Every fourth batch has a URL of its own; the others leave it to the parameters.
    std::string Url(std::size_t batch) const;
    /// @return the records of a batch: its number and the record's are its parameters
    std::vector<TYMediaData> Records(std::size_t batch, int size) const;
};

/// What the store was found to hold.
struct Audit {
    std::int64_t accepted = 0;        ///< batches
    std::int64_t refused = 0;         ///< batches
    std::int64_t unanswered = 0;      ///< batches
    std::int64_t unansweredKept = 0;  ///< of which are in the store all the same
    std::int64_t records = 0;
    std::vector<std::string> faults;
};

/// Compares what was sent with what is there: an accepted batch once, one without an answer once or
/// not at all, a refused one not; never a part of one, and nothing else.
Audit Compare(const std::vector<Account>& accounts, const std::string& db);

#endif  // TALLYRA_TESTS_STRESS_ACCOUNTS_H
