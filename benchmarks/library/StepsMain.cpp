// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-steps": measures single steps of the pipeline with Google Benchmark.
// docs/cost.md adds them up.

#include "TYDbusPort.h"
#include "TYEventAnalyzer.h"
#include "TYLog.h"
#include "TYMediaData.h"
#include "ThreadSafeQueue.h"
#include "tallyra/TYTypes.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>

#define TY_LOG_TAG TY_TAG

namespace {

constexpr int kBatch = 36;
constexpr const char* kUrl =
    "https://vod.example.org/films/night-train/season-2/episode-07/master.m3u8?session=4f9a01c7";

TYMediaRecord MakeRecord() {
    TYMediaRecord record;
    record.event = TY_EVENT_RESUME;
    CopyText(record.content.title, "Night Train");
    record.pUrl = std::make_shared<const std::string>(kUrl);
    return record;
}

void DisabledLogLine(benchmark::State& state) {
    while (state.KeepRunning()) {
        TY_LOG_DEBUG("[EXCUTE] event type : %d", TY_EVENT_RESUME);
    }
}
BENCHMARK(DisabledLogLine);

void PrintOfARecord(benchmark::State& state) {
    const TYMediaRecord record = MakeRecord();
    CTYEventAnalyzer analyzer;
    while (state.KeepRunning()) {
        analyzer.PrintData(&record);
    }
}
BENCHMARK(PrintOfARecord);

void QueuePushAndTake(benchmark::State& state) {
    TYMediaRecord record = MakeRecord();
    CThreadSafeQueue<TYMediaRecord*> queue;
    while (state.KeepRunning()) {
        queue.push(&record);
        benchmark::DoNotOptimize(queue.take());
    }
}
BENCHMARK(QueuePushAndTake);

void NewRecord(benchmark::State& state) {
    while (state.KeepRunning()) {
        auto record = std::make_unique<TYMediaRecord>();
        benchmark::DoNotOptimize(record.get());
    }
}
BENCHMARK(NewRecord);

void CopyOfARecord(benchmark::State& state) {
    const TYMediaRecord record = MakeRecord();
    CTYEventAnalyzer analyzer;
    while (state.KeepRunning()) {
        const std::unique_ptr<TYMediaRecord> copy(analyzer.CopyData(&record, TY_EVENT_STOP));
        benchmark::DoNotOptimize(copy.get());
    }
}
BENCHMARK(CopyOfARecord);

std::vector<CDbusValue> ValuesOf(const TYMediaRecord& record) {
    std::vector<CDbusValue> values;
    values.reserve(std::size_t{2} * kBatch);
    for (int i = 0; i < kBatch; ++i) {
        const auto* pImage = static_cast<const TYMediaData*>(&record);
        values.push_back(
            CDbusValue::OfBinary(reinterpret_cast<const char*>(pImage), sizeof(TYMediaData)));
    }
    for (int i = 0; i < kBatch; ++i) {
        values.push_back(CDbusValue::OfString(std::string(record.Url())));
    }
    return values;
}

void ValuesOfABatch(benchmark::State& state) {
    const TYMediaRecord record = MakeRecord();
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(ValuesOf(record));
    }
}
BENCHMARK(ValuesOfABatch);

/// Builds messages from values as the bus client does.
class CWriter : public CDbusPort {
  public:
    using CDbusPort::ListToMessage;
    bool IsReady() override { return true; }
};

void MessageOfABatch(benchmark::State& state) {
    std::vector<CDbusValue> values = ValuesOf(MakeRecord());
    CWriter writer;
    while (state.KeepRunning()) {
        DBusMessage* pMessage = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL);
        writer.ListToMessage(pMessage, 1, values);
        dbus_message_unref(pMessage);
    }
}
BENCHMARK(MessageOfABatch);

}  // namespace

int main(int argc, char** argv) {
    setenv("LOGSVC_LEVEL", "off", 1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
