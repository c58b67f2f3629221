// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYOrigins.h"

#include <algorithm>
#include <optional>
#include <string_view>

// Problem: recovered records get new ids in a store with a new epoch, but a collector may have some
// of them already, by the epoch and ids of the damaged store. It must not count them twice.
//
// Idea: write down for each recovered entry where it was. A store may be damaged more than once:
// an entry that has an origin keeps it, because that is the key by which it was sent first.
//
// An entry costs no row of its own: as long as ids follow each other on both sides, the last row is
// extended, also across batches.
//
// Always true:
// - Each entry has at most one origin: ranges do not overlap.
// - Every epoch that is written is a UUID, and every id positive, whatever the damaged store says.

namespace {

bool IsEpoch(std::string_view text) {
    constexpr std::string_view kForm = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    constexpr std::string_view kDigits = "0123456789abcdef";
    return std::ranges::equal(text, kForm, [&](char given, char form) {
        return form == 'x' ? kDigits.find(given) != kDigits.npos : given == form;
    });
}

bool IsDevice(std::string_view text) {
    constexpr std::size_t kLongest = 64;
    return text.size() <= kLongest && std::ranges::all_of(text, [](char one) {
               return (one >= '0' && one <= '9') || (one >= 'A' && one <= 'Z') ||
                      (one >= 'a' && one <= 'z') || one == '_' || one == '-';
           });
}

bool IsSound(const TYOrigin& row) {
    return row.first > 0 && row.last >= row.first && row.origin > 0 &&
           row.origin <= INT64_MAX - (row.last - row.first) && IsEpoch(row.epoch) &&
           IsDevice(row.device);
}

bool Continues(const TYOrigin& before, const TYOrigin& next) {
    return next.first == before.last + 1 && next.device == before.device &&
           next.epoch == before.epoch &&
           next.origin == before.origin + (before.last - before.first) + 1;
}

}  // namespace

CTYOrigins::CTYOrigins(CTYDatabase& damaged) : m_Damaged(damaged) {
    try {
        CTYStatement row(damaged, "SELECT epoch FROM store");
        if (row.Step() && IsEpoch(row.Text(0))) {
            m_strEpoch = row.Text(0);
        }
    } catch (const CTYDatabaseError&) {
        m_strEpoch.clear();
    }
}

std::vector<TYOrigin> CTYOrigins::Of(const std::vector<std::int64_t>& ids) {
    std::vector<TYOrigin> origins;
    const std::vector<TYOrigin> older = ids.empty() ? origins : Older(ids.front(), ids.back());
    auto row = older.begin();
    for (std::int64_t i = 0; const std::int64_t id : ids) {
        row = std::find_if(row, older.end(), [&](const TYOrigin& one) { return one.last >= id; });
        const bool isOlder = row != older.end() && row->first <= id;
        const TYOrigin one =
            isOlder ? TYOrigin{i, i, row->device, row->epoch, row->origin + (id - row->first)}
                    : TYOrigin{i, i, "", m_strEpoch, id};
        ++i;
        if (one.epoch.empty() || one.origin <= 0) {
            continue;
        }
        if (!origins.empty() && Continues(origins.back(), one)) {
            origins.back().last = one.last;
        } else {
            origins.push_back(one);
        }
    }
    return origins;
}

/// @return the origins that entries from `first` to `last` have already
std::vector<TYOrigin> CTYOrigins::Older(std::int64_t first, std::int64_t last) {
    std::vector<TYOrigin> older;
    try {
        CTYStatement rows(m_Damaged,
                          "SELECT first, last, device, epoch, origin FROM origins WHERE first "
                          "BETWEEN coalesce((SELECT max(first) FROM origins WHERE first <= ?1), "
                          "?1) AND ?2 ORDER BY first");
        rows.Begin(first, last);
        while (rows.Step()) {
            TYOrigin row{rows.Int(0), rows.Int(1), std::string(rows.Text(2)),
                         std::string(rows.Text(3)), rows.Int(4)};
            if (IsSound(row)) {
                older.push_back(std::move(row));
            }
        }
    } catch (const CTYDatabaseError&) {
        // An older version does not have the table. Of a damaged one, what was read counts.
        return older;
    }
    return older;
}

void WriteOrigins(CTYDatabase& store, const std::vector<TYOrigin>& origins, std::int64_t first) {
    CTYStatement extend(store,
                        "UPDATE origins SET last = ?1 WHERE first = (SELECT max(first) FROM "
                        "origins) AND last = ?2 - 1 AND device = ?3 AND epoch = ?4 AND "
                        "origin + (last - first) + 1 = ?5");
    CTYStatement insert(store,
                        "INSERT INTO origins(last, first, device, epoch, origin) "
                        "VALUES(?, ?, ?, ?, ?)");
    for (const TYOrigin& one : origins) {
        extend.Run(first + one.last, first + one.first, one.device, one.epoch, one.origin);
        if (store.Changes() == 0) {
            insert.Run(first + one.last, first + one.first, one.device, one.epoch, one.origin);
        }
    }
}
