// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// A host that runs out of memory: plays a session in which the NTH allocation fails, or that one
// and all later ones, then a second session with memory. Standard error is the library's log; the
// exit status says what happened. When no allocation failed, standard output has the number of
// allocations made by the end of each phase of the session.
//
//   tallyra-memory-host NTH once|for-good

#include "Eventually.h"
#include "doubles/PlatformDouble.h"

#include <tallyra/ITYDataCollector.h>

#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

namespace {

// Allocations of all threads count, in the order in which they are made. Constant-initialised: the
// first allocations precede all constructors.
std::atomic<bool> g_bArmed{false};
std::atomic<bool> g_bForGood{false};
std::atomic<bool> g_bFailed{false};
std::atomic<long> g_nNth{0};
std::atomic<long> g_nCount{0};

/// Counts an allocation. @return whether it must fail
bool FailsNow() {
    if (!g_bArmed) {
        return false;
    }
    const long number = ++g_nCount;
    const bool fails = number == g_nNth || (g_bForGood && g_nNth > 0 && number > g_nNth);
    g_bFailed = g_bFailed || fails;
    return fails;
}

}  // namespace

#if defined(FAILING_MALLOC)

// Replaces the C library's allocation functions for the whole process. operator new, libdbus and
// GLib all end up here. free remains the C library's.
extern "C" {

void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pMemory, std::size_t bytes);

static void* NoMemory() {
    errno = ENOMEM;
    return nullptr;
}

void* malloc(std::size_t bytes) {
    return FailsNow() ? NoMemory() : __libc_malloc(bytes);
}

void* calloc(std::size_t count, std::size_t size) {
    return FailsNow() ? NoMemory() : __libc_calloc(count, size);
}

void* realloc(void* pMemory, std::size_t bytes) {
    return FailsNow() ? NoMemory() : __libc_realloc(pMemory, bytes);
}

}  // extern "C"

#else

// Replaces operator new for the whole program. It calls malloc, so the sanitizers still see every
// allocation.
void* operator new(std::size_t bytes, const std::nothrow_t& /*tag*/) noexcept {
    return FailsNow() ? nullptr : std::malloc(bytes == 0 ? 1 : bytes);
}

void* operator new(std::size_t bytes) {
    void* pMemory = operator new(bytes, std::nothrow);
    if (pMemory == nullptr) {
        throw std::bad_alloc();
    }
    return pMemory;
}

void* operator new[](std::size_t bytes) {
    return operator new(bytes);
}

void operator delete(void* pMemory) noexcept {
    std::free(pMemory);
}

void operator delete[](void* pMemory) noexcept {
    std::free(pMemory);
}

void operator delete(void* pMemory, std::size_t /*bytes*/) noexcept {
    std::free(pMemory);
}

void operator delete[](void* pMemory, std::size_t /*bytes*/) noexcept {
    std::free(pMemory);
}

#endif

namespace {

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
    Eventually([] { return g_bDecided.load(); }, std::chrono::seconds(10));
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

ITYDataCollector* MakeCollector() noexcept {
    return GetTYDataCollectorInstance("org.example.app", TY_PLAYER_NATIVE);
}

/// The life of a collector. The texts are made before memory runs out: they are the player's.
class CSession {
  public:
    void Run() noexcept {
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
        CPlatformDouble::Instance().ChangeKey(0);
        EndPhase();
        CPlatformDouble::Instance().ChangeKey(1);
        EndPhase();
        delete pCollector;
        EndPhase();
    }

    void PrintPhases() const {
        for (const long count : m_PhaseEnds) {
            std::printf("%ld\n", count);
        }
        std::fflush(stdout);
    }

  private:
    void EndPhase() { m_PhaseEnds.at(m_nPhases++) = g_nCount; }

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

int main(int /*argc*/, char** argv) {
    g_nNth = std::atol(argv[1]);
    g_bForGood = std::string_view(argv[2]) == "for-good";
    CSession session;
    CPlatformDouble::Instance().connectionType = CONNECTION_TYPE_WIFI;
    CPlatformDouble::Instance().StopAllocating(&OnLine);
    g_bArmed = true;
    session.Run();
    g_bArmed = false;
    if (!g_bFailed) {
        session.PrintPhases();
        _exit(kNothingFailed);
    }
    g_bDecided = false;
    LiveOn(g_nNth);
    _exit(0);
}
