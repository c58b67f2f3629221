// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTOREFILE_H
#define TALLYRA_TYSTOREFILE_H

#include "TYDatabase.h"

#include <cstdint>
#include <optional>
#include <string>

/// The database file of a store as the file system shows it: its owner, its size and its space.
///
/// Threads: any; the object does not change.
class CTYStoreFile {
  public:
    /// A file system, in bytes.
    struct Space {
        std::int64_t total;
        std::int64_t free;  ///< what this process may still use
    };

    /// Smallest file system that a store can live on.
    static constexpr std::int64_t kSmallestDisk = std::int64_t{8} << 20;

    /// @param path  no symbolic link; ":memory:" stands for no file
    explicit CTYStoreFile(std::string path);

    const std::string& Path() const { return m_strPath; }
    bool IsInMemory() const;
    bool Exists() const;

    /// Checks that the service may open the path: there is no file, an empty regular file, or a
    /// store of this service, damaged or not. Changes no file. Call it only while the store is
    /// closed.
    /// @throws CTYDatabaseError  SQLITE_MISMATCH if the file belongs to another application or to a
    ///                           newer version, is no regular file, or its file system has less
    ///                           than kSmallestDisk bytes; SQLITE_CORRUPT if it is a store without
    ///                           a version; SQLite's error if the file cannot be read
    void CheckUsable() const;

    /// @return whether CheckUsable would say that the file belongs to another application
    bool IsForeign() const;

    /// @return the size of the database in bytes; 0 if there is none
    std::int64_t Bytes() const;
    /// @return the size of the log in bytes; 0 if there is none
    std::int64_t LogBytes() const;
    /// @return the space of its file system; nothing in memory, or if the system cannot tell
    std::optional<Space> DiskSpace() const;

  private:
    void CheckOwner() const;
    void CheckDisk() const;
    bool IsJustCreated(CTYDatabase& file) const;

    std::string m_strPath;
    std::string m_strFolder;
};

#endif  // TALLYRA_TYSTOREFILE_H
