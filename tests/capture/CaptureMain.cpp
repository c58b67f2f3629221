// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-capture": writes to a file every message that fixed sessions send, with
// every call of the library and every kind of record, and with the numbers, times and texts that
// machines might encode differently. The sessions move the clock, so the bytes are the same in
// every run and on every machine of the same byte order.

#include "Driver.h"
#include "TYMediaData.h"

#include <array>
#include <climits>
#include <cstdio>
#include <fstream>

namespace {

// The thread number that is part of each playback's identifier.
std::atomic<pid_t> g_ThreadId{1};

}  // namespace

extern "C" pid_t gettid() noexcept {
    return g_ThreadId;
}

namespace {

constexpr std::int64_t kToday = 1700000000;
constexpr std::int64_t kEndOf31Bits = 2147483647;
constexpr std::int64_t kEndOf32Bits = 4294967295;
constexpr const char* kApplication = "org.example.player";

struct Content {
    std::string url = "film.mp4";
    unsigned startTime = 0;
    std::string title = "Film";
    std::string genre{};
    std::string channel{};
    std::string custom{};
    int duration = 0;
    int drmType = TY_DRM_NOT_SET;
    int contentType = TY_CONTENT_NOT_SET;
};

void SetContent(CDriver& driver, const Content& content) {
    std::string url = content.url;
    CTYContentInfo info(&url, content.startTime);
    info.SetTitle(content.title);
    info.SetGenre(content.genre);
    info.SetChannelID(content.channel);
    info.SetCustomInfo(content.custom);
    info.SetDuration(content.duration);
    info.SetDrmType(static_cast<TY_DRM_TYPE>(content.drmType));
    info.SetContentType(static_cast<TY_CONTENT_TYPE>(content.contentType));
    driver.Collector().SetContentInfo(&info);
}

void BeginFilm(CDriver& driver) {
    SetContent(driver, {.url = "https://vod.example.org/films/night-train/master.m3u8?token=1",
                        .startTime = 7000,
                        .title = "Night Train \xE2\x80\x93 Nachtzug",
                        .genre = "Drama",
                        .channel = "films",
                        .custom = "{\"season\":1}",
                        .duration = 5460000,
                        .drmType = TY_DRM_WIDEVINE,
                        .contentType = TY_CONTENT_VOD});
    driver.At(kToday, 123456789);
    driver.Event(TY_EVENT_START, 1, 2);
    driver.At(kToday + 1, 373456789);
    driver.Event(TY_EVENT_RENDER_START, 3, 4);
    driver.Event(TY_EVENT_PLAYBACK_TIME, 7000, 5);
    driver.At(kToday + 3, 999999999);
    driver.Event(TY_EVENT_BUFFERING_START, 0, 6);
    driver.At(kToday + 5, 1);
    driver.Event(TY_EVENT_BUFFERING_END, 7, 8);
    driver.Flush();
}

// Play time at heartbeats, at a pause and at a stop; a jump.
void PlayFilm(CDriver& driver) {
    driver.Event(TY_EVENT_PAUSE, 9, 0);
    driver.Event(TY_EVENT_RESUME, 10, 11);
    driver.Event(TY_EVENT_PLAYBACK_TIME, 8000);
    driver.Event(TY_EVENT_SEEK, 600000, 0);
    driver.Event(TY_EVENT_SEEK_COMPLETE, 600000, 12);
    driver.Event(TY_EVENT_PLAYBACK_TIME, 600000);
    driver.Flush();
    driver.Event(TY_EVENT_PLAYBACK_TIME, 789000);
    driver.Collector().SendMediaEvent(TY_EVENT_PLAYBACK_TIME, 790000, 0);
    driver.Event(TY_EVENT_PLAYBACK_TIME, 969001);
    driver.Event(TY_EVENT_PLAYBACK_TIME, 1000);
    driver.Event(TY_EVENT_START, 13, 14);
    driver.Event(TY_EVENT_RENDER_START, 15, 16);
    driver.Stop();
}

void PlayFilmSession(CFakeBus& bus) {
    g_ThreadId = 4711;
    CDriver driver(bus, kApplication, TY_PLAYER_NATIVE);
    BeginFilm(driver);
    PlayFilm(driver);
}

// Numbers at the limits of their ranges, and codes wider than a byte.
void ReportNumbers(CDriver& driver) {
    driver.Event(42, INT_MIN, INT_MAX);
    driver.Event(257, -1, INT_MIN);
    driver.Event(-1, 0, -1);
    driver.Error(255);
    driver.Error(INT_MIN);
    driver.Collector().SetDuration(INT_MIN);
    driver.Collector().SetDrmType(static_cast<TY_DRM_TYPE>(INT_MAX));
    driver.Collector().SetContentType(static_cast<TY_CONTENT_TYPE>(-128));
    driver.Execute(0, INT_MIN, "");
    driver.Execute(255, INT_MAX, "bitrate");
    driver.Flush();
}

// Texts that are truncated, are not UTF-8 or contain a NUL.
void ReportTexts(CDriver& driver) {
    driver.Execute(100, -1, std::string(5000, 'x'));
    driver.Execute(101, 1, "caf\xE9");
    driver.Execute(102, 2, std::string("be\0hind", 7));
    driver.Flush();
    driver.Collector().SetServiceVersion("10.20.30-beta.4");
    driver.Event(TY_EVENT_BUFFERING_END);
    driver.Event(TY_EVENT_BUFFERING_START);
    driver.Event(TY_EVENT_BUFFERING_START);
    driver.Stop();
}

void PlayEdgesSession(CFakeBus& bus) {
    g_ThreadId = 4194303;
    CDriver driver(bus, std::string(60, 'a').c_str(), TY_PLAYER_OTHER);
    SetContent(driver, {.url = "http://server/caf\xE9.mp4" + std::string(100000, 'u'),
                        .startTime = UINT_MAX,
                        .title = std::string(300, 't'),
                        .genre = std::string(67, 'g') + "\xC3\xA9",
                        .channel = std::string(256, 'c'),
                        .custom = std::string(4094, 'i') + "\xC3\xA9",
                        .duration = INT_MAX,
                        .drmType = 127,
                        .contentType = TY_CONTENT_OTHER});
    driver.At(kToday, 999999999);
    driver.Error(1);
    driver.Event(TY_EVENT_START, INT_MAX, INT_MIN);
    ReportNumbers(driver);
    ReportTexts(driver);
}

// Playbacks in the first second of 1970, across 2038 and across 2106, and a clock that fails.
void PlayTimesSession(CFakeBus& bus) {
    g_ThreadId = 65536;
    CDriver driver(bus, nullptr, 255);
    for (const std::int64_t start : {std::int64_t{0}, kEndOf31Bits, kEndOf32Bits}) {
        SetContent(driver, {});
        driver.At(start, 500000000);
        driver.Event(TY_EVENT_START);
        driver.At(start + 1, 250000000);
        driver.Event(TY_EVENT_RENDER_START);
        driver.Event(TY_EVENT_BUFFERING_START);
        driver.At(start + 60, 0);
        driver.Event(TY_EVENT_BUFFERING_END);
        driver.Execute(7, 7, "a minute later");
        driver.FailClock(true);
        driver.Event(TY_EVENT_RESUME);
        driver.FailClock(false);
        driver.Flush();
        driver.Stop();
    }
}

void PlayNetworksSession(CFakeBus& bus) {
    auto& platform = CPlatformDouble::Instance();
    CDriver driver(bus, kApplication, TY_PLAYER_WEB);
    SetContent(driver, {.url = "http://server/live/channel.mpd?x=1", .title = ""});
    driver.Event(TY_EVENT_START);
    for (const int type : {int{CONNECTION_TYPE_WIFI}, int{CONNECTION_TYPE_ETHERNET}, 99}) {
        platform.connectionType = type;
        char gateway[] = "GATEWAY";
        platform.FireNetwork(0, gateway);
        driver.Event(TY_EVENT_BUFFERING_START, 0, 77);
        driver.Event(TY_EVENT_BUFFERING_END);
        driver.Flush();
    }
    platform.FireNetwork(1, "GATEWAY");
    driver.Stop();
    platform.connectionType = CONNECTION_TYPE_ETHERNET;
}

// While the service delays its reply, records queue up and make full batches.
void PlayCrowdSession(CFakeBus& bus) {
    CDriver driver(bus, kApplication, TY_PLAYER_AUDIO);
    SetContent(driver, {.url = "http://server/song.ogg"});
    driver.At(kToday, 0);
    driver.Event(TY_EVENT_START);
    driver.FlushAndHold();
    for (int i = 0; i < 100; ++i) {
        driver.At(kToday + i, i);
        driver.Event(30 + i, i, -i);
    }
    driver.Release();
    driver.Stop();
}

// Queued records are sent when the key goes off; the policy is requested again when it goes on. The
// last record is sent when the collector is deleted.
void PlayKeySession(CFakeBus& bus) {
    auto& platform = CPlatformDouble::Instance();
    {
        CDriver driver(bus, kApplication, TY_PLAYER_BROADCAST);
        SetContent(driver, {.url = "dvb://1.2.3"});
        driver.Event(TY_EVENT_START);
        platform.ChangeKey(0);
        platform.ChangeKey(1);
    }
    CDriver driver(bus, kApplication, TY_PLAYER_ADAPTIVE);
    SetContent(driver, {.url = "http://server/last.mp4"});
    driver.Event(TY_EVENT_START);
}

void PlayRefusedSession(CFakeBus& bus) {
    auto& platform = CPlatformDouble::Instance();
    platform.ClearLog();
    bus.SetReply("GetPolicyInfo", CFakeBus::Status(1, 0));
    CFakeClock clock;
    CTYDataCollector collector("org.example.refused", TY_PLAYER_NATIVE, bus, clock);
    if (!platform.WaitForLog("drop collected data")) {
        throw std::runtime_error("the refusal had no effect");
    }
}

void PlaySessions(CFakeBus& bus) {
    PlayFilmSession(bus);
    PlayEdgesSession(bus);
    PlayTimesSession(bus);
    PlayNetworksSession(bus);
    PlayCrowdSession(bus);
    PlayKeySession(bus);
    PlayRefusedSession(bus);
}

/// The events of players and those that the library derives.
constexpr std::array kCodes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 20, 21, 22, 202, 203, 204};
constexpr std::array kFunctions{"Kick", "GetPolicyInfo", "SendData"};

// Incomplete captures of two builds would be equal too.
void RequireAll(CFakeBus& bus) {
    std::set<int> codes;
    for (const CFakeBus::Call& call : bus.Calls("SendData")) {
        for (const CFakeBus::Argument& argument : call.arguments) {
            if (const auto* pImage = std::get_if<std::vector<char>>(&argument)) {
                codes.insert(static_cast<unsigned char>(pImage->at(offsetof(TYMediaData, event))));
            }
        }
    }
    for (const int code : kCodes) {
        if (!codes.contains(code)) {
            throw std::runtime_error("no record of event " + std::to_string(code));
        }
    }
    for (const char* pFunction : kFunctions) {
        if (bus.Calls(pFunction).empty()) {
            throw std::runtime_error(std::string("no call of ") + pFunction);
        }
    }
}

void Capture(const char* pPath) {
    CFakeBus bus;
    PlaySessions(bus);
    RequireAll(bus);
    std::ofstream file(pPath, std::ios::binary | std::ios::trunc);
    for (const CFakeBus::Call& call : bus.Calls()) {
        file << call.bytes;
    }
    file.close();
    if (!file) {
        throw std::runtime_error(std::string("cannot write ") + pPath);
    }
    std::printf("%zu messages\n", bus.Calls().size());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: tallyra-capture FILE\n", stderr);
        return 2;
    }
    try {
        Capture(argv[1]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tallyra-capture: %s\n", error.what());
        return 1;
    }
    return 0;
}
