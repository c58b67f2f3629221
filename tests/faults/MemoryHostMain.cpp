// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// A host whose memory runs out: plays a session in which one allocation fails, or that one and all
// behind it, and tells by its end what came of it. Its output is the library's log.
//
//   tallyra-memory-host NTH once|for-good DESCRIPTOR

#include "FailingMemory.h"
#include "QuietPlatform.h"

#include <tallyra/ITYDataCollector.h>

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace {

constexpr int kWentOn = 0;
constexpr int kNothingFailed = 77;
constexpr int kUsage = 2;

constexpr int kFreeEvent = 99;
/// What tells that the host has lived on.
constexpr int kLastEvent = 200;

// No exception of the library may come out here: it would end the process.
void SetContent(ITYDataCollector& collector, std::string& url, const std::string& title) noexcept {
    CTYContentInfo content(&url, 0);
    content.SetTitle(title);
    content.SetGenre(url);
    content.SetChannelID(url);
    content.SetCustomInfo(url);
    collector.SetContentInfo(&content);
}

void Event(ITYDataCollector& collector, int event, int position = 0) noexcept {
    collector.SendMediaEvent(static_cast<TY_EVENT_TYPE>(event), position, 0);
}

// Every event that derives something is in there, and so are those that measure.
void Play(ITYDataCollector& collector) noexcept {
    constexpr std::array events = {TY_EVENT_START,         TY_EVENT_RENDER_START,
                                   TY_EVENT_PLAYBACK_TIME, TY_EVENT_BUFFERING_START,
                                   TY_EVENT_BUFFERING_END, TY_EVENT_BUFFERING_END,
                                   TY_EVENT_SEEK,          TY_EVENT_SEEK_COMPLETE,
                                   TY_EVENT_PAUSE,         TY_EVENT_RESUME};
    for (const TY_EVENT_TYPE event : events) {
        Event(collector, event, 1000);
    }
    collector.SendMediaError(static_cast<TY_ERROR_TYPE>(150));
    collector.Execute(100, 1, "text");
    for (int i = 0; i < 2; ++i) {
        Event(collector, kFreeEvent, i);
    }
    Event(collector, TY_EVENT_STOP);
}

void Delete(ITYDataCollector* pCollector) noexcept {
    delete pCollector;
}

ITYDataCollector* MakeCollector() noexcept {
    return GetTYDataCollectorInstance("org.example.app", TY_PLAYER_NATIVE);
}

/// A whole life of a collector, made ready before memory runs out: what a player needs for itself
/// is none of the library's business.
class CSession {
  public:
    void Run() {
        ITYDataCollector* pCollector = MakeCollector();
        if (pCollector == nullptr) {
            return;
        }
        CQuietPlatform::AwaitDecision();
        SetContent(*pCollector, m_strUrl, m_strTitle);
        Play(*pCollector);
        SetContent(*pCollector, m_strUrl, m_strNoTitle);
        Event(*pCollector, TY_EVENT_START);
        SetContent(*pCollector, m_strUrl, m_strNoTitle);
        CQuietPlatform::ChangeKey(0);
        CQuietPlatform::ChangeKey(1);
        Delete(pCollector);
    }

  private:
    std::string m_strUrl = "https://vod.example.org/films/night-train/master.m3u8?token=1";
    std::string m_strTitle = "A title that is longer than what a string holds in itself";
    std::string m_strNoTitle;
};

/// Once there is memory again, a collector has to deliver as ever.
void LiveOn(long nth) {
    const std::unique_ptr<ITYDataCollector> collector(MakeCollector());
    std::string url = "after.mp4";
    SetContent(*collector, url, "After");
    Event(*collector, TY_EVENT_START);
    CQuietPlatform::AwaitDecision();
    Event(*collector, kLastEvent, static_cast<int>(nth));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 || dup2(std::atoi(argv[3]), STDERR_FILENO) < 0) {
        return kUsage;
    }
    const long nth = std::atol(argv[1]);
    CSession session;
    CQuietPlatform::Start();
    CFailingMemory::Arm(nth, std::string_view(argv[2]) == "for-good");
    session.Run();
    CFailingMemory::Disarm();
    if (!CFailingMemory::HasFailed()) {
        _exit(kNothingFailed);
    }
    CQuietPlatform::Forget();
    LiveOn(nth);
    _exit(kWentOn);
}
