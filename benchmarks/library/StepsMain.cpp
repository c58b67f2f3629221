// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-bench-steps": measures single steps of the pipeline. docs/cost.md adds them
// up. It links the library's classes, which the shared library does not export.

#include "Benchmark.h"
#include "TYDbusPort.h"
#include "TYEventAnalyzer.h"
#include "TYLog.h"
#include "TYMediaData.h"
#include "ThreadSafeQueue.h"
#include "Timing.h"
#include "Wire.h"
#include "tallyra/TYTypes.h"

#include <cstdlib>
#include <memory>

#define TY_LOG_TAG TY_TAG

namespace {

/// Makes the compiler compute the value.
template <class T>
void Keep(const T& value) {
    asm volatile("" : : "r"(&value) : "memory");
}

/// @return nanoseconds of processor time of a step, repeated for this time
template <class Step>
double Time(int milliseconds, Step step) {
    for (std::int64_t count = 1;; count *= 2) {
        const double begin = ProcessorTime();
        for (std::int64_t i = 0; i < count; ++i) {
            step();
        }
        const double passed = ProcessorTime() - begin;
        if (passed >= milliseconds * kNsPerMs) {
            return passed / static_cast<double>(count);
        }
    }
}

TYMediaRecord MakeRecord() {
    TYMediaRecord record;
    record.event = TY_EVENT_RESUME;
    CopyText(record.content.title, "Night Train");
    record.pUrl = std::make_shared<const std::string>(kUrl);
    return record;
}

std::vector<CDbusValue> ValuesOf(const TYMediaRecord& record) {
    const auto* pImage = reinterpret_cast<const char*>(static_cast<const TYMediaData*>(&record));
    std::vector<CDbusValue> values;
    values.reserve(std::size_t{2} * kBatchRecords);
    for (int i = 0; i < kBatchRecords; ++i) {
        values.push_back(CDbusValue::OfBinary(pImage, sizeof(TYMediaData)));
    }
    for (int i = 0; i < kBatchRecords; ++i) {
        values.push_back(CDbusValue::OfString(std::string(record.Url())));
    }
    return values;
}

/// Builds messages from values as the bus client does.
class CWriter : public CDbusPort {
  public:
    using CDbusPort::ListToMessage;
    bool IsReady() override { return true; }
};

void AddRun(int milliseconds, Series& steps) {
    TYMediaRecord record = MakeRecord();
    CTYEventAnalyzer analyzer;
    CThreadSafeQueue<TYMediaRecord*> queue;
    std::vector<CDbusValue> values = ValuesOf(record);
    CWriter writer;
    const auto add = [&](const char* pName, auto step) {
        steps[pName].push_back(Time(milliseconds, step));
    };
    add("CopyOfARecord", [&] {
        const std::unique_ptr<TYMediaRecord> copy(analyzer.CopyData(&record, TY_EVENT_STOP));
        Keep(*copy);
    });
    add("DisabledLogLine", [] { TY_LOG_DEBUG("[EXCUTE] event type : %d", TY_EVENT_RESUME); });
    add("MessageOfABatch", [&] {
        const MessagePtr message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL));
        writer.ListToMessage(message.get(), 1, values);
    });
    add("NewRecord", [] { Keep(*std::make_unique<TYMediaRecord>()); });
    add("PrintOfARecord", [&] { analyzer.PrintData(&record); });
    add("QueuePushAndTake", [&] {
        queue.push(&record);
        Keep(queue.take());
    });
    add("ValuesOfABatch", [&] { Keep(ValuesOf(record)); });
}

// The amount is the least milliseconds of each step.
void Measure(const Options& options, const CResults& results) {
    setenv("LOGSVC_LEVEL", "off", 1);
    Series steps;
    for (int run = 0; run < options.runs; ++run) {
        AddRun(options.amount, steps);
    }
    for (const auto& [name, runs] : steps) {
        results.AddDetail("step: " + name, "ns", runs);
    }
}

}  // namespace

int main(int argc, char** argv) {
    return RunBenchmark(argc, argv, {{"steps", &Measure}});
}
