// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// A host that runs out of memory: plays a session in which the NTH allocation fails, or that one
// and all later ones, then a second session with memory. Standard error is the library's log; the
// exit status says what happened. When no allocation failed, standard output has the number of
// allocations made by the end of each phase of the session.
//
//   tallyra-memory-host NTH once|for-good

#include "FailingMemory.h"
#include "doubles/PlatformDouble.h"

#include <tallyra/ITYDataCollector.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace {

constexpr int kWentOn = 0;
constexpr int kUsage = 2;
constexpr int kNothingFailed = 77;

constexpr auto kFreeEvent = static_cast<TY_EVENT_TYPE>(99);
/// Reported when memory is back; its first parameter is NTH.
constexpr auto kLastEvent = static_cast<TY_EVENT_TYPE>(200);

std::atomic<bool> g_bDecided{false};

// The last line of each path that the connection check may take, or of one that never ends.
void OnLine(const char* pLine) {
    constexpr std::array kDecisions = {"Sender thread start done", "drop collected data",
                                       "Connection is not ready", "No more free store space"};
    if (std::ranges::any_of(kDecisions,
                            [pLine](const char* pText) { return std::strstr(pLine, pText); })) {
        g_bDecided = true;
    }
}

/// Waits at most ten seconds until a collector delivers or has given up.
void AwaitDecision() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!g_bDecided && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// The calls of the player are noexcept: an exception that leaves the library aborts the host.
void SetContent(ITYDataCollector& collector, std::string& url, const std::string& title) noexcept {
    CTYContentInfo content(&url, 0);
    content.SetTitle(title);
    content.SetGenre(url);
    content.SetChannelID(url);
    content.SetCustomInfo(url);
    collector.SetContentInfo(&content);
}

void Event(ITYDataCollector& collector, TY_EVENT_TYPE event, int position = 0) noexcept {
    collector.SendMediaEvent(event, position, 0);
}

// Contains every event that the analyzer derives a record from, or measures with.
void Play(ITYDataCollector& collector) noexcept {
    for (const TY_EVENT_TYPE event :
         {TY_EVENT_START, TY_EVENT_RENDER_START, TY_EVENT_PLAYBACK_TIME, TY_EVENT_BUFFERING_START,
          TY_EVENT_BUFFERING_END, TY_EVENT_BUFFERING_END, TY_EVENT_SEEK, TY_EVENT_SEEK_COMPLETE,
          TY_EVENT_PAUSE, TY_EVENT_RESUME}) {
        Event(collector, event, 1000);
    }
    collector.SendMediaError(static_cast<TY_ERROR_TYPE>(150));
    collector.Execute(100, 1, "text");
    Event(collector, kFreeEvent, 0);
    Event(collector, kFreeEvent, 1);
    Event(collector, TY_EVENT_STOP);
}

// Calls the key's watchers on this thread.
void ChangeKey(int value) noexcept {
    CPlatformDouble::Instance().ChangeKey(value);
}

void Delete(ITYDataCollector* pCollector) noexcept {
    delete pCollector;
}

ITYDataCollector* MakeCollector() noexcept {
    return GetTYDataCollectorInstance("org.example.app", TY_PLAYER_NATIVE);
}

/// The life of a collector. The texts are made before memory runs out: they are the player's.
class CSession {
  public:
    void Run() {
        ITYDataCollector* pCollector = MakeCollector();
        EndPhase();
        if (pCollector == nullptr) {
            return;
        }
        AwaitDecision();
        EndPhase();
        SetContent(*pCollector, m_strUrl, m_strTitle);
        Play(*pCollector);
        EndPhase();
        SetContent(*pCollector, m_strUrl, "");
        Event(*pCollector, TY_EVENT_START);
        SetContent(*pCollector, m_strUrl, "");
        EndPhase();
        ChangeKey(0);
        EndPhase();
        ChangeKey(1);
        EndPhase();
        Delete(pCollector);
        EndPhase();
    }

    void PrintPhases() const {
        for (const long count : m_PhaseEnds) {
            std::printf("%ld\n", count);
        }
        std::fflush(stdout);
    }

  private:
    void EndPhase() { m_PhaseEnds.at(m_nPhases++) = CFailingMemory::Count(); }

    std::string m_strUrl = "https://vod.example.org/films/night-train/master.m3u8?token=1";
    std::string m_strTitle = "A title that is longer than what a string holds in itself";
    std::array<long, 7> m_PhaseEnds{};
    std::size_t m_nPhases = 0;
};

// Once memory is back, a new collector must deliver.
void LiveOn(long nth) {
    const std::unique_ptr<ITYDataCollector> collector(MakeCollector());
    std::string url = "after.mp4";
    SetContent(*collector, url, "After");
    Event(*collector, TY_EVENT_START);
    AwaitDecision();
    Event(*collector, kLastEvent, static_cast<int>(nth));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return kUsage;
    }
    const long nth = std::atol(argv[1]);
    CSession session;
    CPlatformDouble::Instance().connectionType = CONNECTION_TYPE_WIFI;
    CPlatformDouble::Instance().StopAllocating(&OnLine);
    CFailingMemory::Arm(nth, std::string_view(argv[2]) == "for-good");
    session.Run();
    CFailingMemory::Disarm();
    if (!CFailingMemory::HasFailed()) {
        session.PrintPhases();
        _exit(kNothingFailed);
    }
    g_bDecided = false;
    LiveOn(nth);
    _exit(kWentOn);
}
