// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPartitions.h"

#include "TYPostgresSchema.h"

#include <algorithm>
#include <array>
#include <vector>

// Problem: making and dropping a partition the plain way locks the whole table, and every
// collector then waits for the longest query of an analyst.
//
// Idea: a new partition is made as a table of its own, and then attached, which disturbs neither
// readers nor writers. Detaching needs the lock, but only for a moment: the collector waits half a
// second for it and otherwise leaves the partition for the next minute.
//
// Always true:
// - Records are stored under today's date, so what a device sends after weeks offline is as young
//   as everything else that arrives.
// - Partitions are made some days ahead: a collector that does not get the lock has time.
// - A clock that runs ahead drops nothing by itself: the partitions to keep are counted from the
//   newest day that has records, if that is earlier than today. After records were stored under a
//   wrong day, old partitions go slowly, kMostDrops a call.

namespace {

constexpr std::array kTables = {"entries", "contexts"};
constexpr int kDaysAhead = 3;
constexpr int kMostDrops = 2;

// Few contexts would exceed the size from which PostgreSQL compresses.
constexpr std::array kStorage = {"", " WITH (toast_tuple_target = 128)"};

std::string NameOf(const std::string& table, const std::string& day) {
    return table + '_' + day.substr(0, 4) + day.substr(5, 2) + day.substr(8, 2);
}

void Lock(pqxx::transaction_base& transaction) {
    transaction.exec_params("SELECT pg_advisory_xact_lock($1, $2)", kAdvisorySpace,
                            static_cast<int>(TYAdvisoryLock::PARTITIONS));
}

// Of the session. If dropping fails, the connection ends, and the lock with it.
bool CallLock(pqxx::connection& connection, const std::string& function) {
    return pqxx::nontransaction(connection)
        .exec_params1("SELECT " + function + "($1, $2)", kAdvisorySpace,
                      static_cast<int>(TYAdvisoryLock::PARTITIONS))[0]
        .as<bool>();
}

void MakeOne(pqxx::transaction_base& transaction, std::size_t table, const std::string& day) {
    const std::string parent = kTables.at(table);
    const std::string name = NameOf(parent, day);
    if (!transaction.exec_params1("SELECT to_regclass($1) IS NULL", name)[0].as<bool>()) {
        return;
    }
    transaction.exec0("CREATE TABLE " + name + "(LIKE " + parent + " INCLUDING ALL)" +
                      kStorage.at(table));
    transaction.exec0("ALTER TABLE " + parent + " ATTACH PARTITION " + name +
                      " FOR VALUES FROM ('" + day + "') TO (date '" + day + "' + 1)");
}

/// A partition, and the table that it belongs to.
struct Partition {
    std::string table;
    std::string name;
};

std::string DayAfter(pqxx::transaction_base& transaction, int days) {
    return transaction.exec_params1("SELECT current_date + $1::integer", days)[0].as<std::string>();
}

// As 20261123. The names of partitions end with their day.
std::string DigitsOf(const std::string& day) {
    return NameOf("", day).substr(1);
}

/// @return the partitions before a day, the oldest first
/// @param day  as 20261123
std::vector<Partition> FindBefore(pqxx::transaction_base& transaction, const std::string& day) {
    std::vector<Partition> found;
    const pqxx::result rows = transaction.exec_params(
        "SELECT p.relname, c.relname FROM pg_inherits i JOIN pg_class c ON c.oid = i.inhrelid "
        "JOIN pg_class p ON p.oid = i.inhparent "
        "WHERE p.oid IN (to_regclass('entries'), to_regclass('contexts')) AND c.relname ~ "
        "'_[0-9]{8}$' "
        "AND right(c.relname, 8) < $1 ORDER BY right(c.relname, 8), 1 DESC",
        day);
    for (const pqxx::row& row : rows) {
        found.push_back({row[0].as<std::string>(), row[1].as<std::string>()});
    }
    return found;
}

/// @return the newest day that has records, as 20261123; "" if there are none
std::string NewestDay(pqxx::transaction_base& transaction) {
    std::vector<Partition> all = FindBefore(transaction, "99999999");
    std::erase_if(all, [](const Partition& partition) { return partition.table != kTables[0]; });
    const auto newest = std::ranges::find_if(all.rbegin(), all.rend(), [&](const Partition& each) {
        return transaction.exec1("SELECT EXISTS(SELECT FROM " + each.name + ")")[0].as<bool>();
    });
    return newest == all.rend() ? "" : newest->name.substr(newest->name.size() - 8);
}

std::vector<Partition> FindOld(pqxx::connection& connection, int shift, int keepDays) {
    pqxx::nontransaction transaction(connection);
    const std::string day = DigitsOf(DayAfter(transaction, shift - keepDays));
    std::vector<Partition> found = FindBefore(transaction, day);
    const std::string newest = found.empty() ? "" : NewestDay(transaction);
    if (newest.empty()) {
        return found;
    }
    const std::string kept =
        transaction
            .exec_params1("SELECT to_char($1::date - $2::integer, 'YYYYMMDD')", newest, keepDays)[0]
            .as<std::string>();
    return FindBefore(transaction, std::min(day, kept));
}

void Drop(pqxx::connection& connection, const Partition& partition) {
    pqxx::work work(connection);
    work.exec0("SET LOCAL lock_timeout = '500ms'");
    work.exec0("ALTER TABLE " + partition.table + " DETACH PARTITION " + partition.name);
    work.exec0("DROP TABLE " + partition.name);
    work.commit();
}

}  // namespace

std::string CTYPartitions::Today(pqxx::connection& connection) {
    std::string day = [&] {
        pqxx::nontransaction reading(connection);
        return DayAfter(reading, m_nShift);
    }();
    if (!m_Days.contains(day)) {
        Make(connection);
    }
    return day;
}

void CTYPartitions::Make(pqxx::connection& connection) {
    pqxx::work work(connection);
    Lock(work);
    std::set<std::string> days;
    for (int ahead = 0; ahead <= kDaysAhead; ++ahead) {
        const std::string day = DayAfter(work, m_nShift + ahead);
        for (std::size_t table = 0; table < kTables.size(); ++table) {
            MakeOne(work, table, day);
        }
        days.insert(day);
    }
    work.commit();
    m_Days = days;
}

void CTYPartitions::DropOld(pqxx::connection& connection, int keepDays) const {
    if (!CallLock(connection, "pg_try_advisory_lock")) {
        return;
    }
    int dropped = 0;
    for (const Partition& partition : FindOld(connection, m_nShift, keepDays)) {
        try {
            Drop(connection, partition);
            ++dropped;
        } catch (const pqxx::sql_error&) {
            // A query reads it, or somebody's view depends on it. PostgreSQL logs which.
        }
        if (dropped == kMostDrops) {
            break;
        }
    }
    CallLock(connection, "pg_advisory_unlock");
}
