// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTORE_H
#define TALLYRA_TYSTORE_H

#include "TYDatabase.h"
#include "TYMediaData.h"
#include "TYPeerIdentity.h"

#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// The records of one SendData call.
struct TYBatch {
    TYPeerIdentity sender;
    std::int64_t arrival = 0;  ///< nanoseconds since the epoch
    std::vector<TYMediaData> records;
    std::vector<std::optional<std::string>> urls;  ///< one per record; nullopt if not sent
};

/// Limits of the store. Prune drops the oldest playbacks beyond them.
struct TYStoreLimits {
    std::chrono::hours age{24 * 30};
    std::int64_t bytes = std::int64_t{512} << 20;
};

/// The service's records and policies in an SQLite database.
///
/// Every operation throws CTYDatabaseError when SQLite fails, and is then rolled back. The store
/// stays usable.
///
/// Threads: one.
class CTYStore {
  public:
    /// Opens the file; creates it or upgrades its schema if needed.
    explicit CTYStore(const std::string& path, TYStoreLimits limits = {});

    /// Stores a batch in one transaction. Once Add returns, the records survive a crash of the
    /// process.
    void Add(const TYBatch& batch);

    /// @return the application's policy; if it has none, the one of "*"; without that, 1
    int Policy(const std::string& application);

    /// Drops some of the oldest playbacks while the store exceeds a limit, and counts them in the
    /// table losses. The work of one call is bounded, so that senders are not blocked.
    /// @param now  nanoseconds since the epoch
    /// @return whether to call again, because the store may still exceed a limit
    bool Prune(std::int64_t now);

    /// @return whether enough was added since the last Prune to call it again
    bool HasGrown() const { return m_nAdded >= m_Limits.bytes / kGrowthShare; }

    /// Sets how long operations wait for locks of other processes.
    void WaitForLocks(int milliseconds) { m_Database.WaitForLocks(milliseconds); }

    /// Moves all commits from the write-ahead log into the database file and truncates the log.
    /// Fails while another connection reads an older snapshot.
    void EmptyLog();

    /// @return bytes of the file in use, free pages not counted
    std::int64_t UsedBytes();

  private:
    // A player's records share one context until its network or content changes.
    static constexpr std::size_t kContextsKept = 4;
    // HasGrown is true once m_Limits.bytes / kGrowthShare were added: the store may exceed its
    // limit by that much.
    static constexpr std::int64_t kGrowthShare = 16;

    struct Context {
        std::string common;
        std::optional<std::string> url;
        std::int64_t playback;
        std::int64_t id;

        bool IsOf(const TYBatch& batch, std::size_t index) const;
    };
    struct Sender {
        std::int64_t id = 0;
        std::list<Context> contexts;  ///< most recently used first
    };
    struct Totals;
    using Records = std::span<const TYMediaData>;
    struct Loss {
        std::int64_t playbacks = 0;
        std::int64_t records = 0;
    };

    Sender& SenderOf(const TYBatch& batch);
    const Context& ContextOf(Sender& sender, const TYBatch& batch, std::size_t index);
    std::int64_t PlaybackOf(const Sender& sender, const std::string& playbackId,
                            const std::string& serviceId, std::int64_t arrival);
    std::int64_t InsertContext(std::int64_t playback, const TYMediaData& record,
                               const std::optional<std::string>& url, const std::string& common);
    void InsertRun(std::int64_t context, std::int64_t arrival, Records records);
    static void InsertEntries(CTYStatement& statement, std::int64_t context, std::int64_t arrival,
                              Records records);
    void AddTotals(std::int64_t playback, std::int64_t arrival, const Totals& totals);
    void Insert(const TYBatch& batch);
    bool DropOldest(std::int64_t now, Loss& byAge, Loss& bySize);
    void Drop(std::int64_t playback, std::int64_t sender);
    void NoteLoss(std::int64_t now, const char* pReason, const Loss& loss);
    bool ReturnFreePages();

    TYStoreLimits m_Limits;
    CTYDatabase m_Database;
    bool m_bMigrated;
    CTYStatement m_FindSender;
    CTYStatement m_InsertSender;
    CTYStatement m_CountBatch;
    CTYStatement m_FindPlayback;
    CTYStatement m_InsertPlayback;
    CTYStatement m_UpdatePlayback;
    CTYStatement m_InsertContext;
    CTYStatement m_InsertEntry;
    CTYStatement m_InsertEntries;
    CTYStatement m_InsertRun;
    CTYStatement m_FindPolicy;
    std::map<std::string, Sender> m_Senders;
    std::int64_t m_nAdded = 0;  ///< estimated bytes since the last Prune
};

#endif  // TALLYRA_TYSTORE_H
