// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSPOOL_H
#define TALLYRA_TYSPOOL_H

#include "TYDatabase.h"
#include "TYForwardedBatch.h"
#include "TYPolicies.h"

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Reads the entries of a device's store as batches.
///
/// Throws CTYDatabaseError when SQLite fails, or if what is stored cannot be a record.
///
/// Threads: one, that of the database.
class CTYSpool {
  public:
    /// Entries that one batch covers: all between `after` and `last`.
    struct Bounds {
        std::int64_t after = 0;
        std::int64_t first = 0;
        std::int64_t last = 0;
    };
    /// Records by application that may not leave the device.
    using Withheld = std::map<std::string, std::int64_t>;

    /// @param keepQueries  whether URLs are sent as they are stored, see StrippedUrl
    CTYSpool(CTYDatabase& database, std::string device, bool keepQueries);

    const std::string& Epoch() const { return m_strEpoch; }

    /// @return the id of the last entry; 0 if there never was one
    std::int64_t LastId();

    /// Finds the next entries that make a batch: consecutive ids, of applications whose policy is
    /// not 0, with consecutive ids in one other store if they were recovered. Passes over the
    /// entries of applications whose policy is 0.
    /// @param after   end of the batch before
    /// @param passed  where to begin to look, at least `after`; gets the last id that was passed
    /// over
    /// @param withheld  gets the entries that were passed over
    /// @return nothing if there is no such entry
    std::optional<Bounds> Find(std::int64_t after, std::int64_t& passed, Withheld& withheld);

    /// Reads what is left of the entries of a batch. Retention may have dropped some of them.
    /// @return batches with consecutive ids that together cover the bounds. If the last entries are
    ///         gone, the last batch is empty and says so by its `after`.
    std::vector<TYForwardedBatch> Read(const Bounds& bounds);

    /// @return the value of the policy of all applications that have none of their own: 0 says that
    ///         nothing may leave the device
    int DefaultPolicy();

  private:
    struct Context {
        std::int64_t id;
        std::string common;
        std::optional<std::string> url;
        std::string application;
    };
    const Context& ContextOf(std::int64_t id);
    std::optional<TYForwardedBatch::Origin> OriginOf(std::int64_t id);
    bool Continues(const Bounds& bounds, std::int64_t id);
    TYForwardedBatch NewBatch(std::int64_t after, std::int64_t first) const;

    const std::string m_strDevice;
    const bool m_bKeepQueries;
    std::string m_strEpoch;
    CTYPolicies m_Policies;
    CTYStatement m_FindEntries;
    CTYStatement m_ReadEntries;
    CTYStatement m_FindContext;
    CTYStatement m_FindOrigin;
    CTYStatement m_FindLast;
    std::list<Context> m_Contexts;  ///< the ones used last in this call
};

/// @return the URL without user information, query and fragment
std::string StrippedUrl(std::string_view url);

#endif  // TALLYRA_TYSPOOL_H
