// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYLosses.h"

#include <chrono>

namespace {

constexpr std::chrono::hours kPeriod{1};
constexpr std::int64_t kMaxRows = 4096;

// A row dated in the future, from a clock that was wrong, is not added to: it would take all losses
// until that time.
constexpr const char* kAddToRow =
    "UPDATE losses SET records = records + ?1, playbacks = playbacks + ?2 "
    "WHERE at > ?3 AND at <= ?4 AND id = (SELECT id FROM losses WHERE reason = ?5 AND "
    "application = ?6 ORDER BY id DESC LIMIT 1)";

constexpr const char* kAddRow =
    "INSERT INTO losses(at, reason, application, records, playbacks) VALUES(?, ?, ?, ?, ?)";

// Parameter 1 is the last of the rows to be merged. The oldest row of each reason takes the sums.
constexpr const char* kMergeRows =
    "UPDATE losses AS l SET (at, application, records, playbacks) = "
    "(SELECT max(at), '', sum(records), sum(playbacks) FROM losses WHERE id <= ?1 AND "
    "reason = l.reason) "
    "WHERE id IN (SELECT min(id) FROM losses WHERE id <= ?1 GROUP BY reason)";
constexpr const char* kDropMergedRows =
    "DELETE FROM losses WHERE id <= ?1 AND id NOT IN "
    "(SELECT min(id) FROM losses WHERE id <= ?1 GROUP BY reason)";

void WriteLoss(CTYDatabase& database, const CTYLosses::Key& key, const CTYLosses::Loss& loss,
               std::int64_t wall) {
    const auto& [reason, application] = key;
    const std::int64_t hourAgo = wall - std::chrono::nanoseconds(kPeriod).count();
    CTYStatement(database, kAddToRow)
        .Run(loss.records, loss.playbacks, hourAgo, wall, TextOf(reason), application);
    if (database.Changes() == 0) {
        CTYStatement(database, kAddRow)
            .Run(wall, TextOf(reason), application, loss.records, loss.playbacks);
    }
}

void MergeOldRows(CTYDatabase& database) {
    if (database.Number("SELECT count(*) FROM losses") <= kMaxRows) {
        return;
    }
    CTYStatement middle(database, "SELECT id FROM losses ORDER BY id LIMIT 1 OFFSET ?");
    middle.Begin(kMaxRows / 2);
    middle.Step();
    const std::int64_t last = middle.Int(0);
    middle.Reset();
    CTYStatement(database, kMergeRows).Run(last);
    CTYStatement(database, kDropMergedRows).Run(last);
}

}  // namespace

const char* TextOf(TYLossReason reason) {
    switch (reason) {
        case TYLossReason::RATE:
            return "rate";
        case TYLossReason::BYTES:
            return "bytes";
        case TYLossReason::BUSY:
            return "busy";
        case TYLossReason::FULL:
            return "full";
        case TYLossReason::POLICY:
            return "policy";
        case TYLossReason::BINDING:
            return "binding";
        case TYLossReason::BAD_BATCH:
            return "bad_batch";
        case TYLossReason::SENDER:
            return "sender";
        case TYLossReason::AGE:
            return "age";
        case TYLossReason::ROOM:
            return "room";
        case TYLossReason::DAMAGED:
            return "damaged";
        case TYLossReason::FORGOTTEN:
            return "forgotten";
        case TYLossReason::COUNT:
            break;
    }
    return "";
}

void CTYLosses::Count(TYLossReason reason, const std::string& application, std::int64_t records,
                      std::int64_t playbacks) {
    if (records == 0 && playbacks == 0) {
        return;
    }
    const bool isKept = application.empty() || m_Applications.contains(application) ||
                        m_Applications.size() < kMaxApplications;
    if (isKept && !application.empty()) {
        m_Applications.insert(application);
    }
    Loss& loss = m_Losses[{reason, isKept ? application : std::string()}];
    loss.records += records;
    loss.playbacks += playbacks;
}

void CTYLosses::Clear() {
    m_Losses.clear();
    m_Applications.clear();
}

void WriteLosses(CTYDatabase& database, const CTYLosses& losses, std::int64_t wall) {
    if (losses.IsEmpty()) {
        return;
    }
    for (const auto& [key, loss] : losses.All()) {
        WriteLoss(database, key, loss, wall);
    }
    MergeOldRows(database);
}
