// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_SAMPLES_H
#define TALLYRA_TESTS_SERVICE_SAMPLES_H

#include "TYStore.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

/// @return a record of the application "org.example.app", all else zero
TYMediaData MakeRecord(int event, const std::string& playback = "p1", std::int32_t param1 = 0,
                       std::int32_t param2 = 0);

/// @return a batch of the peer ":1.1", each record with the URL "film.mp4"
TYBatch MakeBatch(std::vector<TYMediaData> records, std::int64_t arrival = 1000);

/// @return a batch of one record of a playback
TYBatch BatchOf(const std::string& playback, std::int64_t arrival = 1000);

/// Looks into a database file from outside, over a connection of its own.
class CFileReader {
  public:
    explicit CFileReader(const std::filesystem::path& file,
                         CTYDatabase::Mode mode = CTYDatabase::Mode::READ_ONLY)
        : m_Database(file.string(), mode) {}

    std::int64_t Number(const char* pSql) { return m_Database.Number(pSql); }
    /// @return the first column of all rows, as text
    std::vector<std::string> Column(const char* pSql);
    void Execute(const char* pSql) { m_Database.Execute(pSql); }

  private:
    CTYDatabase m_Database;
};

#endif  // TALLYRA_TESTS_SERVICE_SAMPLES_H
