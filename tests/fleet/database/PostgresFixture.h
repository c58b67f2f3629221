// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FLEET_DATABASE_POSTGRESFIXTURE_H
#define TALLYRA_TESTS_FLEET_DATABASE_POSTGRESFIXTURE_H

#include "FleetDevice.h"
#include "PrivatePostgres.h"
#include "TYPostgresDatabase.h"
#include "TYWallClock.h"
#include "Test.h"

using Batches = std::vector<TYForwardedBatch>;

/// A test with a database of its own in the server that all tests of the program share.
class CPostgresTest : public testing::Test {
  protected:
    static CPrivatePostgres& Server() {
        static CPrivatePostgres server;
        return server;
    }

    void SetUp() override {
        if (!CPrivatePostgres::IsInstalled()) {
            GTEST_SKIP() << "this machine has no PostgreSQL server";
        }
        static int number = 0;
        m_strDatabase = "test_" + std::to_string(++number);
        Server().CreateDatabase(m_strDatabase);
    }

    std::string Url() const { return Server().Url(m_strDatabase); }

    pqxx::result Query(const std::string& sql) const {
        pqxx::connection connection(Url());
        return pqxx::nontransaction(connection).exec(sql);
    }
    std::int64_t Number(const std::string& sql) const {
        return Query(sql)[0][0].as<std::int64_t>();
    }
    /// @return the first column of all rows
    std::vector<std::string> Column(const std::string& sql) const {
        std::vector<std::string> values;
        for (const pqxx::row& row : Query(sql)) {
            values.emplace_back(row[0].c_str());
        }
        return values;
    }
    std::int64_t Stored() const { return Number("SELECT count(*) FROM records"); }
    std::int64_t StoredTwice() const {
        return Number("SELECT count(*) - count(DISTINCT (device, epoch, id)) FROM records");
    }
    /// @return all that is known about each playback
    std::vector<std::string> Playbacks() const {
        return Column("SELECT p::text FROM playbacks p ORDER BY device, playback_id");
    }

    static std::int64_t RecordsIn(const Batches& batches) {
        std::int64_t records = 0;
        for (const TYForwardedBatch& batch : batches) {
            records += static_cast<std::int64_t>(batch.records.size());
        }
        return records;
    }

    const std::int64_t m_nNow = WallClockNow();

  private:
    std::string m_strDatabase;
};

#endif  // TALLYRA_TESTS_FLEET_DATABASE_POSTGRESFIXTURE_H
