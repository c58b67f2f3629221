// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FLEET_DATABASE_STOREEXPORT_H
#define TALLYRA_TESTS_FLEET_DATABASE_STOREEXPORT_H

#include "StoreFixture.h"
#include "TYForwardedBatch.h"
#include "TYRecordImage.h"

/// @return the record of a row with the columns common, event, param1, param2, time_sec, time_nsec
///         and padding from column 3 on
inline TYMediaData RecordOfRow(const CTYStatement& row) {
    TYMediaData record = RecordFromCommonPart(row.Text(3)).value();
    record.event = static_cast<std::uint8_t>(row.Int(4));
    record.param1 = row.Int32(5);
    record.param2 = row.Int32(6);
    record.time = {row.Int32(7), row.Int32(8)};
    const auto padding = static_cast<std::uint32_t>(row.Int(9));
    std::memcpy(record.padding2, &padding, sizeof(record.padding2));
    return record;
}

/// @return all records of a store, as its device forwards them
inline std::vector<TYForwardedBatch> BatchesOfStore(CTYDatabase& store, const std::string& device) {
    CTYStatement epoch(store, "SELECT epoch FROM store");
    epoch.Step();
    std::vector<TYForwardedBatch> batches;
    CTYStatement rows(store,
                      "SELECT id, arrival, url, common, event, param1, param2, time_sec, "
                      "time_nsec, padding FROM records ORDER BY id");
    while (rows.Step()) {
        const bool follows = !batches.empty() && batches.back().Last() + 1 == rows.Int(0) &&
                             batches.back().records.size() < 24;
        if (!follows) {
            TYForwardedBatch batch;
            batch.device = device;
            batch.epoch = epoch.Text(0);
            batch.after = batches.empty() ? 0 : batches.back().Last();
            batch.first = rows.Int(0);
            batches.push_back(batch);
        }
        batches.back().records.push_back(RecordOfRow(rows));
        batches.back().arrivals.push_back(rows.Int(1));
        batches.back().urls.push_back(rows.IsNull(2) ? std::nullopt
                                                     : std::optional<std::string>(rows.Text(2)));
    }
    return batches;
}

#endif  // TALLYRA_TESTS_FLEET_DATABASE_STOREEXPORT_H
