// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTORE_H
#define TALLYRA_TYSTORE_H

#include "TYDatabase.h"
#include "TYMediaData.h"

#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// Who is at the other end of the bus, as the bus driver tells it.
struct TYPeerIdentity {
    std::string bus;   ///< identifier of the bus, new with each of its starts
    std::string name;  ///< unique name, as in ":1.42"
    std::optional<std::int64_t> uid;
    std::optional<std::int64_t> pid;
};

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

    /// Drops the oldest playbacks while there are too many, and notes how many it dropped.
    void Prune(std::int64_t now);

    /// @return bytes that the database uses in its file
    std::int64_t UsedBytes();

  private:
    // A player's records have one context, or two when it is asked for its network or content.
    static constexpr std::size_t CONTEXTS_KEPT = 4;

    struct Context {
        std::string common;
        std::optional<std::string> url;
        std::int64_t playback;
        std::int64_t id;
    };
    struct Sender {
        std::int64_t id = 0;
        std::list<Context> contexts;  ///< the last used first
    };
    struct Totals;

    Sender& SenderOf(const TYBatch& batch);
    const Context& ContextOf(Sender& sender, const TYBatch& batch, std::size_t index);
    std::int64_t PlaybackOf(const Sender& sender, const std::string& playbackId,
                            const std::string& serviceId, std::int64_t arrival);
    std::int64_t InsertContext(std::int64_t playback, const TYMediaData& record,
                               const std::optional<std::string>& url, const std::string& common);
    void InsertEntry(std::int64_t context, std::int64_t arrival, const TYMediaData& record);
    void AddTotals(std::int64_t playback, std::int64_t arrival, const Totals& totals);
    void Insert(const TYBatch& batch);
    bool DropOldest(std::int64_t now, const char* pReason, std::int64_t before);

    TYStoreLimits m_Limits;
    CTYDatabase m_Database;
    bool m_bMigrated;
    CTYStatement m_FindSender;
    CTYStatement m_InsertSender;
    CTYStatement m_FindPlayback;
    CTYStatement m_InsertPlayback;
    CTYStatement m_UpdatePlayback;
    CTYStatement m_InsertContext;
    CTYStatement m_InsertEntry;
    CTYStatement m_FindPolicy;
    std::map<std::string, Sender> m_Senders;
};

#endif  // TALLYRA_TYSTORE_H
