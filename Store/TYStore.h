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

/// What one call delivers.
struct TYBatch {
    TYPeerIdentity sender;
    std::int64_t arrival = 0;  ///< nanoseconds since the epoch
    std::vector<TYMediaData> records;
    std::vector<std::optional<std::string>> urls;  ///< as many as records; nothing: none came
};

/// How much is kept.
struct TYStoreLimits {
    std::chrono::hours age{24 * 30};
    std::int64_t bytes = std::int64_t{512} << 20;
};

/// The service's records and policies in an SQLite database.
///
/// Every operation throws CTYDatabaseError when the database fails; nothing of the operation has
/// happened then. A store whose database failed can be used again.
///
/// Threads: one.
class CTYStore {
  public:
    /// Opens the file, makes it or brings it to this build's schema.
    explicit CTYStore(const std::string& path, TYStoreLimits limits = {});

    /// Stores a batch in a transaction of its own. It outlives the process when the call returns.
    void Add(const TYBatch& batch);

    /// @return the application's policy, else the default one, else 1
    int Policy(const std::string& application);

    /// Drops some of the oldest playbacks when too much is kept, and notes how many it dropped. It
    /// takes a bounded time, so that nobody who calls waits long.
    /// @return whether there is more to do
    bool Prune(std::int64_t now);

    /// @return whether so much was added since the last Prune that another one is due
    bool HasGrown() const { return m_nAdded >= m_Limits.bytes / kGrowthShare; }

    /// Changes how long a lock of another process is waited for.
    void WaitForLocks(int milliseconds) { m_Database.WaitForLocks(milliseconds); }

    /// Brings everything that was committed into the database file itself, unless somebody reads an
    /// older state of it.
    void EmptyLog();

    /// @return bytes that the database uses in its file
    std::int64_t UsedBytes();

  private:
    // A player's records have one context, or two when it is asked for its network or content.
    static constexpr std::size_t kContextsKept = 4;
    // The limit may be passed by this share of it.
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
        std::list<Context> contexts;  ///< the last used first
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
    bool GiveBackPages();

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
    std::int64_t m_nAdded = 0;  ///< bytes since the last Prune, roughly
};

#endif  // TALLYRA_TYSTORE_H
