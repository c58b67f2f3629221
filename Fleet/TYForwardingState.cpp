// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYForwardingState.h"

// Three numbers order the entries of a device:
//
//   1 ... stored ... sent ... end of the last batch ... last entry
//
// Always true between transactions:
// - stored <= sent. Batches do not overlap, and each begins behind the end of the one before.
// - Every entry between stored and the end of the last batch is in a batch, or may not leave the
//   device.

CTYForwardingState::CTYForwardingState(CTYDatabase& database)
    : m_Database(database),
      m_Add(database,
            "INSERT INTO forwarding_batches(first, last, after, sequence) VALUES(?, ?, ?, NULL)"),
      m_FindUnsent(database,
                   "SELECT after, first, last FROM forwarding_batches WHERE sequence IS NULL "
                   "ORDER BY first LIMIT ?"),
      m_Acknowledge(database,
                    "UPDATE forwarding_batches SET sequence = ? WHERE first = ? AND "
                    "sequence IS NULL"),
      m_UpdateSent(database,
                   "UPDATE forwarding SET sent = max(stored, coalesce("
                   "(SELECT min(after) FROM forwarding_batches WHERE sequence IS NULL), "
                   "(SELECT max(last) FROM forwarding_batches), stored))"),
      m_MoveStored(database, "UPDATE forwarding SET stored = ?1 WHERE stored < ?1"),
      m_DropStored(database, "DELETE FROM forwarding_batches WHERE last <= ?") {
    if (Number("SELECT count(*) FROM forwarding") == 0) {
        database.Execute("INSERT OR IGNORE INTO forwarding(id) VALUES(1)");
    }
}

std::int64_t CTYForwardingState::Stored() {
    return Number("SELECT stored FROM forwarding");
}

std::int64_t CTYForwardingState::Sent() {
    return Number("SELECT sent FROM forwarding");
}

std::int64_t CTYForwardingState::LastBatch() {
    return Number(
        "SELECT coalesce((SELECT last FROM forwarding_batches ORDER BY first DESC LIMIT 1), "
        "stored) "
        "FROM forwarding");
}

void CTYForwardingState::Add(const CTYSpool::Bounds& bounds) {
    m_Add.Run(bounds.first, bounds.last, bounds.after);
}

std::vector<CTYSpool::Bounds> CTYForwardingState::Unsent(int atMost) {
    std::vector<CTYSpool::Bounds> unsent;
    m_FindUnsent.Begin(atMost);
    while (m_FindUnsent.Step()) {
        unsent.push_back({m_FindUnsent.Int(0), m_FindUnsent.Int(1), m_FindUnsent.Int(2)});
    }
    m_FindUnsent.Reset();
    return unsent;
}

bool CTYForwardingState::IsUnstored() {
    return Number("SELECT EXISTS(SELECT 1 FROM forwarding_batches WHERE sequence IS NOT NULL)") !=
           0;
}

void CTYForwardingState::Acknowledge(std::int64_t first, std::uint64_t sequence) {
    m_Acknowledge.Run(static_cast<std::int64_t>(sequence), first);
    UpdateSent();
}

void CTYForwardingState::UpdateSent() {
    m_UpdateSent.Run();
}

void CTYForwardingState::MoveStored(std::int64_t stored) {
    m_MoveStored.Run(stored);
    m_DropStored.Run(stored);
    UpdateSent();
}

int CTYForwardingState::GoBack(std::int64_t stored, const TYStreamState& stream) {
    const bool isOlder = stored < Stored();
    if (isOlder) {
        CTYStatement(m_Database, "UPDATE forwarding SET stored = ?").Run(stored);
        m_Database.Execute("DELETE FROM forwarding_batches");
    }
    MoveStored(stored);
    CTYStatement(m_Database,
                 "UPDATE forwarding_batches SET sequence = NULL WHERE sequence IS NOT NULL AND "
                 "(sequence <= ? OR ? <> (SELECT stream FROM forwarding))")
        .Run(stream.processedUpTo, stream.id);
    const int again = m_Database.Changes();
    CTYStatement(m_Database, "UPDATE forwarding SET stream = ?1 WHERE stream <> ?1").Run(stream.id);
    UpdateSent();
    return again;
}

std::int64_t CTYForwardingState::BytesAt(std::int64_t day) {
    CTYStatement bytes(m_Database, "SELECT bytes FROM forwarding WHERE day = ?");
    return bytes.First(day).value_or(0);
}

void CTYForwardingState::AddBytes(std::int64_t day, std::int64_t bytes) {
    CTYStatement(m_Database, "UPDATE forwarding SET bytes = iif(day = ?1, bytes, 0) + ?2, day = ?1")
        .Run(day, bytes);
}
