// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYBATCHWRITER_H
#define TALLYRA_TYBATCHWRITER_H

#include "TYBatch.h"
#include "TYDatabase.h"
#include "TYPruner.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

struct TYMoment;
struct TYRecordTexts;

/// Writes batches to the tables of a store, see TYBatchWriter.cpp. Keeps the ids of recently used
/// rows, at most about 4 MiB with their texts.
///
/// Throws CTYDatabaseError when SQLite fails. The caller holds a transaction.
///
/// Threads: one, that of the database.
class CTYBatchWriter {
  public:
    /// Longer URLs are cut. In bytes.
    static constexpr std::size_t kMaxUrlBytes = std::size_t{64} << 10;

    explicit CTYBatchWriter(CTYDatabase& database);

    /// Adds a batch to the tables. Call Forget if it throws or if the transaction is not committed.
    /// @return estimated bytes that it takes
    std::int64_t Write(const TYBatch& batch, const TYMoment& now);

    /// Forgets all rows.
    void Forget();
    /// Forgets rows that were dropped.
    void Forget(const TYDroppedRows& rows);

    /// @return bytes of the texts that the cache holds
    std::size_t CachedBytes() const { return m_nCached; }

  private:
    struct Url {
        std::optional<std::string_view> text;
        std::int64_t cut = 0;  ///< bytes cut off
    };
    struct Context {
        std::string common;
        std::optional<std::string> url;
        std::int64_t urlCut;
        std::int64_t playback;
        std::int64_t id;
        std::int64_t newBytes;  ///< estimated bytes, until they are added to the totals

        bool IsOf(const TYBatch& batch, std::size_t index) const;
        std::size_t Bytes() const { return common.size() + (url ? url->size() : 0); }
    };
    struct Sender {
        std::string bus;
        std::string name;
        std::int64_t id;
        std::int64_t uid;
        std::list<Context> contexts;  ///< most recently used first
    };
    struct Totals;
    using Senders = std::list<Sender>;
    using Records = std::span<const TYMediaData>;

    static Url StoredUrl(const TYBatch& batch, std::size_t index);

    Sender& SenderOf(const TYBatch& batch);
    Sender FindOrInsert(const TYBatch& batch);
    void Forget(Senders::iterator sender);
    void MakeRoom();
    Context& ContextOf(Sender& sender, const TYBatch& batch, std::size_t index);
    Context NewContext(const Sender& sender, const TYBatch& batch, std::size_t index);
    void FindOrInsertPlayback(const Sender& sender, const TYRecordTexts& texts,
                              std::int64_t arrival, Context& context);
    std::int64_t InsertRun(std::int64_t context, std::int64_t arrival, std::int64_t clock,
                           Records records);
    static void InsertEntries(CTYStatement& statement, std::int64_t context, std::int64_t arrival,
                              Records records);
    void AddTotals(std::int64_t playback, const TYBatch& batch, std::int64_t wall,
                   const Totals& totals);

    CTYDatabase& m_Database;
    CTYStatement m_FindSender;
    CTYStatement m_InsertSender;
    CTYStatement m_CountBatch;
    CTYStatement m_FindPlayback;
    CTYStatement m_InsertPlayback;
    CTYStatement m_UpdatePlayback;
    CTYStatement m_AddHolding;
    CTYStatement m_InsertContext;
    std::array<CTYStatement, 3> m_InsertEntries;  ///< for each of kEntriesAtOnce
    CTYStatement m_InsertRun;
    Senders m_Senders;  ///< most recently used first
    std::unordered_map<std::string, Senders::iterator> m_ByName;
    std::size_t m_nCached = 0;
};

#endif  // TALLYRA_TYBATCHWRITER_H
