// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTORESPACE_H
#define TALLYRA_TYSTORESPACE_H

#include "TYLogReader.h"
#include "TYStore.h"
#include "TYStoreFile.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

/// Keeps an open store and its log within their size and within their file system, see
/// TYStoreSpace.cpp. Destroy it after the store, because of the CTYLogReader.
///
/// Threads: one.
class CTYStoreSpace {
  public:
    using Clock = std::chrono::steady_clock;

    /// Space that always stays free on the file system.
    static constexpr std::int64_t kReserve = std::int64_t{1} << 20;

    /// @param aside  size of the files that were set aside, which stay on the file system
    /// @return the smaller of the limit and three quarters of the rest of the file system, in
    /// bytes;
    ///         less than that if the rest is below 8 MiB, because kReserve must fit beside it
    static std::int64_t LimitFor(const CTYStoreFile& file, std::int64_t aside, std::int64_t limit);

    /// @param limit    maximum size of database and log in bytes
    /// @param longest  size at which SQLite empties the log, in bytes
    CTYStoreSpace(const CTYStoreFile& file, std::int64_t limit, std::int64_t longest);

    /// Checks that a batch may be added, and empties the log if not. Tries that at most ten times a
    /// second.
    /// @throws CTYDatabaseError  SQLITE_FULL if the disk has no space, SQLITE_BUSY if a reader
    ///                           keeps the log from being emptied
    void Provide(CTYStore& store, Clock::time_point now);

    /// Drops records that exceed the limits, also on a full disk, but not while the log is too
    /// long.
    /// @return whether to call again
    bool Prune(CTYStore& store) const;

    /// @return whether the log has grown so much that no batch may be added
    bool IsLogTooLong(CTYStore& store) const;

  private:
    static void EmptyLog(CTYStore& store);
    static bool ReturnPages(CTYStore& store);
    bool IsDiskFull() const;
    CTYDatabaseError Refusal(bool isDiskFull);

    const CTYStoreFile& m_File;
    const std::int64_t m_nLimit;
    const std::int64_t m_nLongest;
    CTYLogReader m_Reader;
    Clock::time_point m_NextAttempt;
    std::optional<CTYDatabaseError> m_Refusal;  ///< what the last attempt ended with
};

#endif  // TALLYRA_TYSTORESPACE_H
