// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Samples.h"

#include <algorithm>
#include <utility>

TYMediaData MakeRecord(int event, const std::string& playback, std::int32_t param1,
                       std::int32_t param2) {
    TYMediaData record{};
    std::copy_n(playback.begin(), std::min(playback.size(), sizeof(record.playbackID)),
                record.playbackID);
    CopyText(record.serviceID, "org.example.app");
    record.event = static_cast<std::uint8_t>(event);
    record.param1 = param1;
    record.param2 = param2;
    return record;
}

TYBatch MakeBatch(std::vector<TYMediaData> records, std::int64_t arrival) {
    TYBatch batch;
    batch.sender = {"bus", ":1.1", 1000, 4711};
    batch.arrival = arrival;
    batch.urls.resize(records.size(), "film.mp4");
    batch.records = std::move(records);
    return batch;
}

TYBatch BatchOf(const std::string& playback, std::int64_t arrival) {
    return MakeBatch({MakeRecord(1, playback)}, arrival);
}

std::vector<std::string> CFileReader::Column(const char* pSql) {
    std::vector<std::string> values;
    CTYStatement statement(m_Database, pSql);
    while (statement.Step()) {
        values.emplace_back(statement.Text(0));
    }
    return values;
}
