// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "LatencyPlayer.h"

#include <tallyra/ITYDataCollector.h>

#include "logsvc.h"

#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;

// Warm-up, not measured: the library is still being loaded, and memory is new.
constexpr int kFirstCalls = 150;
constexpr auto kFreeError = static_cast<TY_ERROR_TYPE>(210);
constexpr int kPositionStepMs = 180000;
constexpr microseconds kPace{1000};
// A record, its URL and the overhead of the allocator.
constexpr std::size_t kRecordBytes = 5200;

std::atomic<bool> g_bDelivers{false};
std::atomic<std::int64_t> g_nLogMicros{0};

/// The use of a thread so far.
struct Spent {
    nanoseconds time{0};
    long waits = 0;  ///< voluntary context switches

    static Spent Now() {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return {Clock::now().time_since_epoch(), usage.ru_nvcsw};
    }

    Spent operator-(const Spent& other) const { return {time - other.time, waits - other.waits}; }
    Spent operator+(const Spent& other) const { return {time + other.time, waits + other.waits}; }
};

thread_local Spent t_inLog;
thread_local std::int64_t t_nLogLines = 0;

// With a real-time priority no other program and no thread of the library preempts a call, so only
// the call itself and its waiting are measured.
bool BecomeUrgent() {
    const sched_param lowest{1};
    return pthread_setschedparam(pthread_self(), SCHED_FIFO, &lowest) == 0;
}

// A player that has run for a while reuses memory. Otherwise each record that is queued under a
// fault would take new pages, which the kernel clears first. The allocator keeps a thread's freed
// memory for that thread.
void UseMemoryOnce(int records) {
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    std::vector<std::unique_ptr<std::array<char, kRecordBytes>>> used(
        static_cast<std::size_t>(records));
    for (auto& pRecord : used) {
        pRecord = std::make_unique<std::array<char, kRecordBytes>>();
    }
}

// Each event becomes a record; a position does as well, because each is a heartbeat.
void SendEvent(ITYDataCollector& collector, int index) {
    static constexpr std::array kEvents = {TY_EVENT_PLAYBACK_TIME, TY_EVENT_BUFFERING_START,
                                           TY_EVENT_BUFFERING_END, TY_EVENT_SEEK,
                                           TY_EVENT_SEEK_COMPLETE};
    const int round = index / static_cast<int>(kEvents.size());
    collector.SendMediaEvent(kEvents[static_cast<std::size_t>(index) % kEvents.size()],
                             round * kPositionStepMs, 0);
}

void Call(ITYDataCollector& collector, int index, LatencyRound& round) {
    const int number = index / static_cast<int>(kCallNames.size());
    switch (index % kCallNames.size()) {
        case 0:
            SendEvent(collector, number);
            break;
        case 1:
            collector.SendMediaError(kFreeError);
            break;
        default:
            round.executed +=
                collector.Execute(kFirstCode + number % kCodes, number, "bitrate") ? 1 : 0;
            break;
    }
}

LatencySample Measure(ITYDataCollector& collector, int index, LatencyRound& round) {
    const Spent inLog = t_inLog;
    const Spent begin = Spent::Now();
    Call(collector, index, round);
    // Reads the time first, because counting the switches takes time.
    const nanoseconds end = Clock::now().time_since_epoch();
    const Spent spent = Spent::Now() - begin - (t_inLog - inLog);
    return {(end - begin.time - (t_inLog.time - inLog.time)).count(), spent.waits};
}

void Play(ITYDataCollector& collector, LatencyRound& round) {
    round.urgent = BecomeUrgent();
    if (!round.newMemory) {
        UseMemoryOnce(kFirstCalls + round.calls);
    }
    collector.SendMediaEvent(TY_EVENT_START, 0, 0);
    collector.SendMediaEvent(TY_EVENT_RENDER_START, 0, 0);
    Clock::time_point next = Clock::now();
    for (int i = 0; i < kFirstCalls + round.calls; ++i) {
        // A late call does not shorten the next pause.
        next = std::max(next + kPace, Clock::now());
        std::this_thread::sleep_until(next);
        const LatencySample sample = Measure(collector, i, round);
        if (i >= kFirstCalls) {
            round.samples.at(static_cast<std::size_t>(i - kFirstCalls)) = sample;
        }
    }
    round.logLines = t_nLogLines;
    round.inLogMicros = std::chrono::duration_cast<microseconds>(t_inLog.time).count();
}

}  // namespace

void PlayLatency(LatencyRound& round) {
    AwaitStep(round, Step::SERVICE_RUNS);
    const std::unique_ptr<ITYDataCollector> pCollector(
        GetTYDataCollectorInstance("org.example.player", TY_PLAYER_NATIVE));
    std::string url = "https://vod.example.org/films/night-train/master.m3u8?token=0123456789";
    CTYContentInfo content(&url, 0);
    content.SetTitle("Night Train");
    content.SetGenre("Drama");
    pCollector->SetContentInfo(&content);
    Await([] { return g_bDelivers.load(); }, "the library does not find the service",
          std::chrono::milliseconds(1));
    round.step = Step::DELIVERS;
    AwaitStep(round, Step::MEASURE);
    g_nLogMicros = round.logMicros;
    std::thread([&] { Play(*pCollector, round); }).join();
    g_nLogMicros = 0;
    round.step = Step::MEASURED;
    AwaitStep(round, Step::FINISH);
    pCollector->SendMediaEvent(TY_EVENT_STOP, 0, 0);
}

extern "C" int logsvc_print(int /*buffer*/, int /*priority*/, const char* /*tag*/,
                            const char* format, ...) {
    const Spent begin = Spent::Now();
    std::array<char, 1024> text{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    if (!g_bDelivers && std::strstr(text.data(), "Sender thread start done") != nullptr) {
        g_bDelivers = true;
    }
    if (g_nLogMicros != 0) {
        std::this_thread::sleep_for(microseconds(g_nLogMicros));
    }
    ++t_nLogLines;
    t_inLog = t_inLog + (Spent::Now() - begin);
    return 0;
}
