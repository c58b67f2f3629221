// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYASIDE_H
#define TALLYRA_TYASIDE_H

#include <cstdint>
#include <string>
#include <vector>

/// Renames the files of a store: a damaged database, and a log whose database was moved away.
///
/// Threads: one.
class CTYAside {
  public:
    /// @param path  the database, no symbolic link
    explicit CTYAside(std::string path);

    /// Renames the database with its log, and marks the renamed file for recovery.
    /// @return its new name
    /// @throws std::system_error  if a file cannot be renamed; call again later
    std::string SetAside() const;

    /// Finishes a SetAside that was interrupted.
    /// @return the renamed databases that are marked for recovery, oldest first
    /// @throws std::system_error  if a file cannot be renamed
    std::vector<std::string> Marked() const;
    /// Removes the mark of a renamed database.
    void Unmark(const std::string& aside) const;

    /// Gets logs out of the way of a new database: renames them if they have records. Call it only
    /// while the store is closed.
    /// @param files  the names of a log (-wal) and its index (-shm); either may be missing
    void LeaveLog(const std::vector<std::string>& files) const;
    /// Does that with the log of a database that is not there any more.
    void LeaveOrphanedLog() const;

    /// @return the size of all renamed files in bytes
    std::int64_t Bytes() const;

  private:
    std::string NameAside(const char* pWhy) const;
    void MoveTo(const std::string& aside) const;

    std::string m_strPath;
};

#endif  // TALLYRA_TYASIDE_H
