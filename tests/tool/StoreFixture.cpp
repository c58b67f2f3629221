// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreFixture.h"

#include <chrono>
#include <stdexcept>

std::vector<Step> WholePlayback() {
    return {{0, 1},
            {1480, 6},
            {1480, 21, 1480},
            {1600, 8, 0},
            {61600, 4, 60000, -61},
            {64100, 5},
            {64100, 22, 2500},
            {184100, 20, 180000, 180000},
            {185000, 204, 500000, 180000},
            {215000, 3, 530000},
            {215000, 20, 530000, 30000},
            {300000, 7},
            {300100, 8, 530000},
            {305000, 4, 535000, -64},
            {306250, 5},
            {306250, 22, 1250},
            {311000, 9, 540000, 900000},
            {331000, 2, 560000},
            {331000, 20, 560000, 30000}};
}

void CStoreTest::Store(const Script& script, const std::vector<Step>& steps, std::int64_t arrival) {
    std::vector<TYMediaData> records;
    records.reserve(steps.size());
    for (const Step& step : steps) {
        records.push_back(RecordOf(script, step));
    }
    StoreBatch(records, std::vector<std::string>(records.size(), script.url), arrival,
               script.sender);
}

void CStoreTest::StoreBatch(const std::vector<TYMediaData>& records,
                            const std::vector<std::string>& urls, std::int64_t arrival,
                            const std::string& sender) {
    TYBatch batch;
    batch.sender = {"8f1b", sender, 1000, 4242};
    batch.arrival = arrival;
    batch.records = records;
    batch.urls.assign(urls.begin(), urls.end());
    CTYStore(Db()).Add(batch);
}

void CStoreTest::Damage(const char* pSql) {
    CTYDatabase(Db(), CTYDatabase::Mode::READ_WRITE).Execute(pSql);
}

TYMediaData CStoreTest::RecordOf(const Script& script, const Step& step) {
    TYMediaData record{};
    record.playerID = 1;
    record.networkType = 2;
    CopyText(record.playbackID, script.playback.c_str());
    CopyText(record.serviceVersion, "2.4.1");
    CopyText(record.serviceID, script.application.c_str());
    record.event = static_cast<std::uint8_t>(step.event);
    record.param1 = step.param1;
    record.param2 = step.param2;
    record.content.duration = 6912000;
    CopyText(record.content.title, script.title.c_str());
    record.time = {kStartSecond + step.offsetMs / 1000, step.offsetMs % 1000 * 1'000'000};
    return record;
}

std::vector<std::string> CStoreTest::Command(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), TALLYRA_COMMAND);
    arguments.insert(arguments.end(), {"--db", Db()});
    return arguments;
}

Result CStoreTest::Run(const std::vector<std::string>& arguments, const std::string& input) const {
    return RunProgram(Command(arguments), input);
}

nlohmann::json CStoreTest::RunForJson(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--format", "json"});
    const Result result = Run(arguments);
    EXPECT_EQ(result.code, 0) << result.err;
    return nlohmann::json::parse(result.out);
}

std::vector<std::vector<std::string>> ParseCsv(const std::string& text) {
    std::vector<std::vector<std::string>> rows(1, {""});
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::string& field = rows.back().back();
        if (quoted && text[i] == '"' && text.compare(i, 2, "\"\"") == 0) {
            field += text[i++];
        } else if (text[i] == '"') {
            quoted = !quoted;
        } else if (!quoted && text[i] == ',') {
            rows.back().emplace_back();
        } else if (!quoted && text.compare(i, 2, "\r\n") == 0) {
            rows.push_back({""});
            ++i;
        } else {
            field += text[i];
        }
    }
    if (quoted || rows.back() != std::vector<std::string>{""}) {
        throw std::runtime_error("the CSV is cut off");
    }
    rows.pop_back();
    return rows;
}

std::int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}
