// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-latency-player": makes calls at a fixed pace on a separate thread and
// measures each. It defines the platform's log.
//
//     tallyra-latency-player FILE CALLS PACE LOG DESCRIPTOR USED
//
// Writes a byte to DESCRIPTOR once it delivers records, and starts when it reads a byte. PACE and
// LOG are microseconds: from call to call, and for each log line. USED is 1 for a player that has
// used its memory before, 0 for one that gets new pages.

#include "LatencySamples.h"

#include <tallyra/ITYDataCollector.h>

#include "logsvc.h"

#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::nanoseconds;

// Warm-up, not measured: the program and the library are still being loaded, and memory is new.
constexpr int kFirstCalls = 150;
constexpr int kFirstCode = 100;
constexpr auto kFreeError = static_cast<TY_ERROR_TYPE>(210);
constexpr int kPositionStepMs = 180000;
constexpr std::chrono::seconds kPatience{60};
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

struct Settings {
    std::string file;
    int calls = 0;
    microseconds pace{0};
    microseconds log{0};
    int fd = -1;
    bool usedMemory = true;
};

// With a real-time priority no other program and no thread of the library preempts a call, so only
// the call itself and its waiting are measured.
bool BecomeUrgent() {
    const sched_param lowest{1};
    return pthread_setschedparam(pthread_self(), SCHED_FIFO, &lowest) == 0;
}

// A player that has run for a while reuses memory. Otherwise each record that is queued under a
// fault would take new pages, which the kernel clears first. The allocator keeps a thread's freed
// memory for that thread.
void UseMemoryOnce(std::size_t records) {
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    std::vector<std::unique_ptr<std::array<char, kRecordBytes>>> used(records);
    for (auto& pRecord : used) {
        pRecord = std::make_unique<std::array<char, kRecordBytes>>();
    }
}

class CMeasuredPlayer {
  public:
    explicit CMeasuredPlayer(const Settings& settings) : m_Settings(settings) {
        m_Samples.reserve(static_cast<std::size_t>(settings.calls));
        std::string url = "https://vod.example.org/films/night-train/master.m3u8?token=0123456789";
        CTYContentInfo content(&url, 0);
        content.SetTitle("Night Train");
        content.SetGenre("Drama");
        m_pCollector->SetContentInfo(&content);
    }

    void AwaitDelivery() const {
        const Clock::time_point deadline = Clock::now() + kPatience;
        while (!g_bDelivers) {
            if (Clock::now() > deadline) {
                throw std::runtime_error("the library does not find the service");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    void Play() {
        m_Header.urgent = BecomeUrgent() ? 1 : 0;
        if (m_Settings.usedMemory) {
            UseMemoryOnce(static_cast<std::size_t>(kFirstCalls + m_Settings.calls));
        }
        m_pCollector->SendMediaEvent(TY_EVENT_START, 0, 0);
        m_pCollector->SendMediaEvent(TY_EVENT_RENDER_START, 0, 0);
        Clock::time_point next = Clock::now();
        for (int i = 0; i < kFirstCalls + m_Settings.calls; ++i) {
            // A late call does not shorten the next pause.
            next = std::max(next + m_Settings.pace, Clock::now());
            std::this_thread::sleep_until(next);
            const LatencySample sample = Measure(i);
            if (i >= kFirstCalls) {
                m_Samples.push_back(sample);
            }
        }
        m_Header.logLines = t_nLogLines;
        m_Header.logMicros = std::chrono::duration_cast<microseconds>(t_inLog.time).count();
    }

    void Finish() {
        m_pCollector->SendMediaEvent(TY_EVENT_STOP, 0, 0);
        m_pCollector.reset();
    }

    void Write() const {
        std::ofstream file(m_Settings.file, std::ios::binary);
        file.write(reinterpret_cast<const char*>(&m_Header), sizeof(m_Header));
        file.write(reinterpret_cast<const char*>(m_Samples.data()),
                   static_cast<std::streamsize>(m_Samples.size() * sizeof(LatencySample)));
        if (!file.flush()) {
            throw std::runtime_error("cannot write " + m_Settings.file);
        }
    }

  private:
    LatencySample Measure(int index) {
        const auto call = static_cast<MeasuredCall>(index % 3);
        const Spent inLog = t_inLog;
        const Spent begin = Spent::Now();
        Make(call, index / 3);
        // Reads the time first, because counting the switches takes time.
        const Clock::time_point end = Clock::now();
        Spent spent = Spent::Now() - begin - (t_inLog - inLog);
        spent.time = end.time_since_epoch() - begin.time - (t_inLog.time - inLog.time);
        return {call, static_cast<std::uint32_t>(spent.time.count()),
                static_cast<std::uint32_t>(spent.waits)};
    }

    void Make(MeasuredCall call, int index) {
        switch (call) {
            case MeasuredCall::EVENT:
                SendEvent(index);
                break;
            case MeasuredCall::ERROR:
                m_pCollector->SendMediaError(kFreeError);
                break;
            case MeasuredCall::EXECUTE:
                m_Header.executed +=
                    m_pCollector->Execute(kFirstCode + index % 50, index, "bitrate") ? 1 : 0;
                break;
        }
    }

    // Each event becomes a record; a position does as well, because each is a heartbeat.
    void SendEvent(int index) {
        static constexpr std::array kEvents = {TY_EVENT_PLAYBACK_TIME, TY_EVENT_BUFFERING_START,
                                               TY_EVENT_BUFFERING_END, TY_EVENT_SEEK,
                                               TY_EVENT_SEEK_COMPLETE};
        const int round = index / static_cast<int>(kEvents.size());
        m_pCollector->SendMediaEvent(kEvents[static_cast<std::size_t>(index) % kEvents.size()],
                                     round * kPositionStepMs, 0);
    }

    const Settings m_Settings;
    std::unique_ptr<ITYDataCollector> m_pCollector{
        GetTYDataCollectorInstance("org.example.latency", TY_PLAYER_NATIVE)};
    LatencyHeader m_Header{};
    std::vector<LatencySample> m_Samples;
};

void SayReadyAndAwaitGo(int fd) {
    char byte = 'r';
    if (write(fd, &byte, 1) != 1 || read(fd, &byte, 1) != 1) {
        throw std::runtime_error("nobody says when to begin");
    }
}

void Play(const Settings& settings) {
    CMeasuredPlayer player(settings);
    player.AwaitDelivery();
    SayReadyAndAwaitGo(settings.fd);
    g_nLogMicros = settings.log.count();
    std::thread([&player] { player.Play(); }).join();
    g_nLogMicros = 0;
    player.Write();
    SayReadyAndAwaitGo(settings.fd);
    player.Finish();
}

}  // namespace

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

int main(int argc, char** argv) try {
    if (argc != 7) {
        throw std::runtime_error("six arguments are due");
    }
    Play({argv[1], std::atoi(argv[2]), microseconds(std::atoi(argv[3])),
          microseconds(std::atoi(argv[4])), std::atoi(argv[5]), std::atoi(argv[6]) != 0});
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-latency-player: %s\n", error.what());
    return 2;
}
