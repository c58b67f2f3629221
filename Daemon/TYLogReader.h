// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYLOGREADER_H
#define TALLYRA_TYLOGREADER_H

#include <string>

/// Finds the process whose read transaction keeps the log of an open database from being emptied.
///
/// Once used, it holds a descriptor of the log's index. Closing that descriptor drops the locks of
/// the whole process on the index, so destroy this object only after every connection of this
/// process to the database.
///
/// Threads: one.
class CTYLogReader {
  public:
    explicit CTYLogReader(const std::string& database) : m_strIndex(database + "-shm") {}
    ~CTYLogReader();
    CTYLogReader(const CTYLogReader&) = delete;
    CTYLogReader& operator=(const CTYLogReader&) = delete;

    /// @return the process that reads the oldest state, such as "process 4711 (sqlite3)"; empty if
    ///         no other process reads
    std::string Find();

  private:
    const std::string m_strIndex;
    int m_nFd = -1;
};

#endif  // TALLYRA_TYLOGREADER_H
