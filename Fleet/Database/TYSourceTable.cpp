// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYSourceTable.h"

#include "TYPostgresConnection.h"
#include "TYSqlText.h"

#include <algorithm>

// Problem: two collectors store records of the same device at once, and each record must be stored
// once.
//
// Idea: a transaction first locks the rows of all devices that it writes about, then reads what is
// covered. All transactions lock in the order of the rows, so none waits for one that waits for
// it. The lock is on the device, not on the source, because a playback may have records from two
// stores of its device.
//
// Always true:
// - The second statement has a snapshot of its own, which is taken when all locks are held: it
//   shows what the last holder of the lock has stored.
// - A source is never deleted, so its row may be remembered.

namespace {

constexpr std::size_t kMostKnown = 100'000;

constexpr const char* kInsertDevices =
    "INSERT INTO devices(name) SELECT DISTINCT w.name FROM unnest($1::text[]) AS w(name) "
    "WHERE NOT EXISTS(SELECT FROM devices d WHERE d.name = w.name) ORDER BY 1 "
    "ON CONFLICT DO NOTHING";

constexpr const char* kLockDevices =
    "SELECT id FROM devices WHERE id = ANY($1::integer[]) ORDER BY id FOR NO KEY UPDATE";

constexpr const char* kInsertSources =
    "INSERT INTO sources(device, epoch) SELECT d.id, w.epoch "
    "FROM unnest($1::text[], $2::uuid[]) WITH ORDINALITY AS w(name, epoch, number) "
    "JOIN devices d ON d.name = w.name WHERE NOT EXISTS(SELECT FROM sources s "
    "WHERE s.device = d.id AND s.epoch = w.epoch) ORDER BY d.id, w.number ON CONFLICT DO NOTHING";

constexpr const char* kFindSources =
    "SELECT w.name, w.given, s.id, s.device FROM unnest($1::text[], $2::text[]) AS w(name, given) "
    "JOIN devices d ON d.name = w.name "
    "JOIN sources s ON s.device = d.id AND s.epoch = w.given::uuid";

constexpr const char* kReadCoverage =
    "SELECT id, covered::text FROM sources WHERE id = ANY($1::integer[])";

constexpr const char* kFindTooMany =
    "SELECT FROM sources s JOIN devices d ON d.id = s.device WHERE d.name = ANY($1::text[]) "
    "GROUP BY s.device HAVING count(*) > $2";

constexpr const char* kReadStored =
    "SELECT source, range_agg(int8range(id, id + 1))::text FROM entries "
    "WHERE source = ANY($1::integer[]) GROUP BY source";

constexpr const char* kSaveCoverage =
    "UPDATE sources s SET covered = w.covered "
    "FROM unnest($1::integer[], $2::int8multirange[]) AS w(id, covered) WHERE s.id = w.id";

constexpr const char* kFindCoverage =
    "SELECT s.covered::text FROM sources s JOIN devices d ON d.id = s.device "
    "WHERE d.name = $1 AND s.epoch = $2::uuid";

}  // namespace

void CTYSourceTable::Register(pqxx::connection& connection,
                              const std::vector<TYSourceName>& names) {
    if (m_Known.size() > kMostKnown) {
        Forget();
    }
    std::vector<TYSourceName> unknown;
    std::ranges::copy_if(names, std::back_inserter(unknown),
                         [this](const TYSourceName& name) { return !m_Known.contains(name); });
    if (!unknown.empty()) {
        Insert(connection, unknown);
    }
}

void CTYSourceTable::Insert(pqxx::connection& connection, const std::vector<TYSourceName>& names) {
    std::vector<std::string> devices;
    std::vector<std::string> epochs;
    for (const TYSourceName& name : names) {
        devices.push_back(name.device);
        epochs.push_back(name.epoch);
    }
    const std::string deviceArray = ArrayText(devices);
    const std::string epochArray = ArrayText(epochs);
    pqxx::work work(connection);
    work.exec_params0(kInsertDevices, deviceArray);
    // Others that make the same sources wait here.
    work.exec_params(
        "SELECT id FROM devices WHERE name = ANY($1::text[]) ORDER BY id "
        "FOR NO KEY UPDATE",
        deviceArray);
    const pqxx::result inserted = work.exec_params0(kInsertSources, deviceArray, epochArray);
    if (inserted.affected_rows() > 0 &&
        !work.exec_params(kFindTooMany, deviceArray, kMostEpochs).empty()) {
        throw CTYBadBatch("too many epochs");
    }
    const pqxx::result rows = work.exec_params(kFindSources, deviceArray, epochArray);
    work.commit();
    for (const pqxx::row& row : rows) {
        m_Known[{row[0].as<std::string>(), row[1].as<std::string>()}] = {row[2].as<int>(),
                                                                         row[3].as<int>()};
    }
}

CTYSourceTable::Coverages CTYSourceTable::Lock(pqxx::transaction_base& transaction,
                                               const std::vector<TYSource>& sources) {
    std::set<int> devices;
    std::set<int> ids;
    for (const TYSource& source : sources) {
        devices.insert(source.device);
        ids.insert(source.id);
    }
    transaction.exec_params(kLockDevices, ArrayText(devices));
    Coverages coverages;
    for (const pqxx::row& row : transaction.exec_params(kReadCoverage, ArrayText(ids))) {
        coverages.emplace(row[0].as<int>(), CTYCoverage(std::string_view(row[1].c_str())));
    }
    return coverages;
}

void CTYSourceTable::Restore(pqxx::transaction_base& transaction, Coverages& coverages) {
    std::vector<int> ids;
    for (const auto& [id, coverage] : coverages) {
        ids.push_back(id);
    }
    for (const pqxx::row& row : transaction.exec_params(kReadStored, ArrayText(ids))) {
        coverages.at(row[0].as<int>()).Add(CTYCoverage(std::string_view(row[1].c_str())));
    }
}

void CTYSourceTable::Save(pqxx::transaction_base& transaction, const Coverages& coverages) {
    std::vector<int> ids;
    std::vector<std::string> texts;
    for (const auto& [id, coverage] : coverages) {
        ids.push_back(id);
        texts.push_back(coverage.Text());
    }
    transaction.exec_params0(kSaveCoverage, ArrayText(ids), ArrayText(texts));
}

CTYCoverage CTYSourceTable::Read(pqxx::transaction_base& transaction, const TYSourceName& name) {
    const pqxx::result rows = transaction.exec_params(kFindCoverage, name.device, name.epoch);
    return rows.empty() ? CTYCoverage() : CTYCoverage(std::string_view(rows[0][0].c_str()));
}

bool CTYSourceTable::IsEpoch(std::string_view text) {
    constexpr std::string_view kForm = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    constexpr std::string_view kDigits = "0123456789abcdef";
    return text.size() == kForm.size() && std::ranges::equal(text, kForm, [&](char c, char form) {
               return form == '-' ? c == '-' : kDigits.find(c) != std::string_view::npos;
           });
}
