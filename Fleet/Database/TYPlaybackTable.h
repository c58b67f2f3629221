// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPLAYBACKTABLE_H
#define TALLYRA_TYPLAYBACKTABLE_H

#include "TYPlaybackRow.h"

#include <map>
#include <pqxx/pqxx>
#include <string>
#include <utility>
#include <vector>

/// What a transaction adds to the table playbacks. See TYPlaybackTable.cpp.
///
/// Threads: one.
class CTYPlaybackTable {
  public:
    using Records = std::vector<TYNewRecord>;

    /// @return where the new records of a playback are collected; valid as long as this object
    Records& Of(int device, const std::string& playbackId) { return m_New[{device, playbackId}]; }

    /// Brings the rows of the playbacks up to date. The transaction holds the locks of the devices.
    void Write(pqxx::transaction_base& transaction);

  private:
    using Key = std::pair<int, std::string>;

    void Take(pqxx::transaction_base& transaction, std::vector<CTYPlaybackRow>& rows);

    std::map<Key, Records> m_New;
};

#endif  // TALLYRA_TYPLAYBACKTABLE_H
