// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_STOREFIXTURE_H
#define TALLYRA_TESTS_SERVICE_STOREFIXTURE_H

#include "TYEventCodes.h"
#include "TYStore.h"
#include "TemporaryFolder.h"
#include "Test.h"

#include <fstream>

/// @return a record of the application "org.example.app", all else zero
inline TYMediaData MakeRecord(int event, const std::string& playback = "p1",
                              std::int32_t param1 = 0, std::int32_t param2 = 0) {
    TYMediaData record{};
    std::copy_n(playback.begin(), std::min(playback.size(), sizeof(record.playbackID)),
                record.playbackID);
    CopyText(record.serviceID, "org.example.app");
    record.event = static_cast<std::uint8_t>(event);
    record.param1 = param1;
    record.param2 = param2;
    return record;
}

/// @return a batch of the peer ":1.1", each record with the URL "film.mp4"
inline TYBatch MakeBatch(std::vector<TYMediaData> records, std::int64_t arrival = 1000) {
    TYBatch batch;
    batch.sender = {"bus", ":1.1", 1000, 4711};
    batch.arrival = arrival;
    batch.urls.resize(records.size(), "film.mp4");
    batch.records = std::move(records);
    return batch;
}

/// @return a batch with the START of a playback
inline TYBatch BatchOf(const std::string& playback, std::int64_t arrival = 1000) {
    return MakeBatch({MakeRecord(TY_EVENT_START, playback)}, arrival);
}

/// Clocks that a test moves. Must outlive the stores that read them.
class CFakeTimes {
  public:
    static constexpr std::int64_t kSecond = 1'000'000'000;
    static constexpr std::int64_t kHour = 3600 * kSecond;

    /// Lets the machine run, by nanoseconds.
    void Pass(std::int64_t time) {
        m_Now.boottime += time;
        m_Now.wall += time;
    }
    /// Sets the wall clock forward or back, by nanoseconds.
    void Step(std::int64_t time) { m_Now.wall += time; }
    /// Restarts the machine, nanoseconds ago.
    void Reboot(std::int64_t uptime = 0) { m_Now = {m_Now.boot + "'", uptime, m_Now.wall}; }

    const TYTimes& Now() const { return m_Now; }
    TYReadTimes Reader() const {
        return [this] { return m_Now; };
    }

  private:
    TYTimes m_Now{"boot", 100 * kHour, 500'000 * kHour};
};

/// Makes all records of a store older, as if its machine had run for so long.
inline void MakeOlder(const std::filesystem::path& file, std::chrono::hours age) {
    CFakeTimes times;
    times.Reboot(std::chrono::nanoseconds(age).count());
    const CTYStore store(file, {}, times.Reader());
}

/// A second connection to a database file.
class CFileReader : public CTYDatabase {
  public:
    explicit CFileReader(const std::filesystem::path& file, Mode mode = Mode::READ_ONLY)
        : CTYDatabase(file.string(), mode) {}

    /// @return the first column of all rows, as text
    std::vector<std::string> Column(const std::string& sql) {
        std::vector<std::string> values;
        CTYStatement statement(*this, sql);
        while (statement.Step()) {
            values.emplace_back(statement.Text(0));
        }
        return values;
    }
};

/// Makes a store from the text of an older version's database.
inline void WriteStore(const std::filesystem::path& file, const std::filesystem::path& text) {
    std::ifstream stream(text);
    const std::string sql{std::istreambuf_iterator<char>(stream), {}};
    CTYDatabase database(file, CTYDatabase::Mode::READ_WRITE);
    database.Execute("PRAGMA auto_vacuum = INCREMENTAL");
    database.Execute("PRAGMA journal_mode = WAL");
    database.Execute("PRAGMA synchronous = OFF");
    database.Execute(sql.c_str());
}

/// A folder with the file of a store, which the test creates.
class CStoreTest : public testing::Test {
  protected:
    CFileReader Read() const { return CFileReader(m_File); }
    /// Changes the file behind the store's back.
    void Execute(const char* pSql) const {
        CFileReader(m_File, CTYDatabase::Mode::READ_WRITE).Execute(pSql);
    }
    std::int64_t Number(const std::string& sql) const { return Read().Number(sql.c_str()); }
    std::vector<std::string> Column(const std::string& sql) const { return Read().Column(sql); }
    std::int64_t Stored() const { return Number("SELECT count(*) FROM records"); }

    CTemporaryFolder m_Folder;
    const std::filesystem::path m_File = m_Folder.Path() / "tallyra.db";
};

#endif  // TALLYRA_TESTS_SERVICE_STOREFIXTURE_H
