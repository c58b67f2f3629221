// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Stage.h"

#include <sys/prctl.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

const std::string kUrl =
    "https://vod.example.org/films/night-train/season-2/episode-07/master.m3u8?session=4f9a01c7";

std::atomic<std::int64_t> CPlayer::s_nCaused = 0;
std::atomic<std::int64_t> CPlayer::s_nForeign = 0;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{30};
constexpr std::chrono::milliseconds kNudgePeriod{100};
constexpr std::chrono::microseconds kLookPeriod{20};

void Write(const std::filesystem::path& path, const char* pText) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path);
    file << pText;
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

// Writes the settings and the metadata of the player's package, so that looking up its version
// costs the same on every machine.
void Furnish(const std::filesystem::path& folder) {
    Write(folder / "settings.ini", "[db/tallyra]\nlog_on=1\n");
    Write(folder / "share/metainfo/org.example.player.metainfo.xml",
          "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
          "<component type=\"desktop-application\">\n"
          "  <id>org.example.player</id>\n"
          "  <name>Player</name>\n"
          "  <pkgname>example-player</pkgname>\n"
          "  <releases><release version=\"2.4.1\" date=\"2026-01-01\"/></releases>\n"
          "</component>\n");
    setenv("REGDB_FILE", (folder / "settings.ini").c_str(), 1);
    setenv("XDG_DATA_HOME", (folder / "share").c_str(), 1);
    setenv("LOGSVC_LEVEL", "off", 1);
    setenv("LOGSVC_OUTPUT", "stderr", 1);
}

bool BecomesTrue(const std::function<bool()>& condition, Clock::duration within) {
    const Clock::time_point deadline = Clock::now() + within;
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(kLookPeriod);
    }
    return true;
}

void Describe(ITYDataCollector& collector) {
    std::string url = kUrl;
    CTYContentInfo content(&url, 0);
    content.SetTitle("Night Train");
    content.SetChannelID("films-1");
    content.SetGenre("Drama");
    content.SetCustomInfo("subscription=premium;region=north;device=panel-55");
    content.SetDuration(5460000);
    collector.SetContentInfo(&content);
}

}  // namespace

CStage::CStage() : m_Sink(m_Bus.Address()) {
    // By default the kernel adds up to 50 µs to each sleep.
    prctl(PR_SET_TIMERSLACK, 1);
    m_Bus.BecomeSystemBus();
    // The bus removes its folder when it stops.
    const std::string socket = m_Bus.Address().substr(m_Bus.Address().find('/'));
    Furnish(std::filesystem::path(socket).parent_path());
}

CPlayer::CPlayer(const CStage& stage) : m_Stage(stage) {
    const std::int64_t policies = stage.Sink().Count().policies;
    m_pCollector.reset(GetTYDataCollectorInstance("org.example.player", TY_PLAYER_NATIVE));
    Await([&] { return stage.Sink().Count().policies > policies; }, "the collector is not ready");
    Describe(*m_pCollector);
}

void CPlayer::Begin() {
    m_pCollector->SendMediaEvent(TY_EVENT_START, 0, 0);
    ++m_nSent;
}

void CPlayer::End() {
    m_pCollector->SendMediaEvent(TY_EVENT_STOP, 0, 0);
    m_nSent += 2;
    Note();
}

void CPlayer::Note() {
    s_nCaused += m_nSent;
    m_nSent = 0;
}

void CPlayer::AwaitAccepted() {
    std::int64_t before = -1;
    const Clock::time_point deadline = Clock::now() + kPatience;
    while (!BecomesTrue([&] { return Accepted() >= Caused(); }, kNudgePeriod)) {
        if (Clock::now() >= deadline) {
            throw std::runtime_error("the service did not get every record");
        }
        if (before == Accepted()) {
            Begin();
            End();
        }
        before = Accepted();
    }
}

void Await(const std::function<bool()>& condition, const char* what) {
    if (!BecomesTrue(condition, kPatience)) {
        throw std::runtime_error(what);
    }
}
