// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Sessions.h"

#include "TYEventCodes.h"

#include <algorithm>
#include <array>
#include <cstdio>

// A player that reports to the library, and the records that the library makes of it. Some
// applications, versions and networks are worse than others, so that comparing them shows
// something.

namespace {

constexpr int kHeartbeat = 180'000;
constexpr int kSecond = 1000;
constexpr std::array kApplications = {"org.example.tv", "org.example.movies", "org.example.news",
                                      "org.example.kids"};
constexpr std::array kVersions = {"1.9.0", "2.4.0", "2.4.1", "3.0.0-beta"};
constexpr std::array kTitles = {"The Long Way Home", "Evening News",  "A Winter in Lisbon",
                                "Harbour Lights",    "Small Wonders", "Night Train"};
constexpr std::array kRenditions = {800, 1600, 3200, 6000, 9500};

class CPlayer {
  public:
    CPlayer(CDice& dice, int number, std::int64_t begin) : m_Dice(dice), m_nNow(begin) {
        Describe(number);
        m_Session.url = "https://cdn.example/" + std::to_string(number % 300) + "/index.mpd";
    }

    Session Play() {
        const bool started = StartUp();
        for (int acts = started ? m_Dice.Between(2, 13) : 0; acts > 0 && !m_bOver; --acts) {
            Act();
        }
        if (!m_Dice.Percent(3)) {
            Stop();
        }
        return std::move(m_Session);
    }

  private:
    void Describe(int number) {
        const int application = m_Dice.Between(0, 99);
        const int which = application < 55 ? 0 : application < 80 ? 1 : application < 95 ? 2 : 3;
        m_bWifi = m_Dice.Percent(60);
        m_nVersion = m_Dice.Between(0, 3);
        m_Base.playerID = static_cast<std::int8_t>(m_Dice.Between(TY_PLAYER_NATIVE, 3));
        m_Base.networkType = m_bWifi ? TY_NETWORK_WIFI : TY_NETWORK_ETHERNET;
        std::array<char, 25> id{};
        std::snprintf(id.data(), id.size(), "%05d%010d%09d", 4711, static_cast<int>(m_nNow / 1000),
                      number);
        std::copy(id.begin(), id.end() - 1, m_Base.playbackID);
        CopyText(m_Base.serviceID, kApplications.at(which));
        CopyText(m_Base.serviceVersion, kVersions.at(m_nVersion));
        m_bLive = which == 2;
        TYContentBlock& content = m_Base.content;
        content.duration = m_bLive ? 0 : m_Dice.Between(20, 130) * 60 * kSecond;
        content.contentType = m_bLive ? TY_CONTENT_LIVE : TY_CONTENT_VOD;
        content.drmType = static_cast<std::uint8_t>(m_Dice.Between(TY_DRM_NONE, TY_DRM_WIDEVINE));
        CopyText(content.title, m_Dice.Pick(kTitles));
        CopyText(content.genre, m_bLive ? "News" : "Drama");
    }

    // Better networks and later versions start and play better.
    int Badness() const { return (m_bWifi ? 3 : 1) + (m_nVersion == 3 ? 4 : 0); }

    void Send(int event, std::int32_t param1 = 0, std::int32_t param2 = 0) {
        TYMediaData record = m_Base;
        record.event = static_cast<std::uint8_t>(event);
        record.param1 = param1;
        record.param2 = param2;
        record.time = {static_cast<std::int32_t>(m_nNow / 1000),
                       static_cast<std::int32_t>(m_nNow % 1000 * 1'000'000)};
        m_Session.records.push_back(record);
    }

    void BeginStall() {
        Send(TY_EVENT_BUFFERING_START, m_nPosition, m_bWifi ? -m_Dice.Between(45, 82) : 0);
    }

    void EndStall(int length, TY_STALL_CAUSE cause) {
        const int told = m_nVersion >= 2 ? cause : TY_STALL_NOT_TOLD;
        m_nNow += length;
        Send(TY_EVENT_BUFFERING_END, 0, told);
        Send(TY_EVENT_BUFFERING_TIME, length, told);
    }

    /// @return whether the first frame came
    bool StartUp() {
        Send(TY_EVENT_START);
        m_nNow += m_Dice.Around(80);
        BeginStall();
        if (m_Dice.Percent(Badness())) {
            m_nNow += m_Dice.Around(6000);
            Fail();
            return false;
        }
        const int length = m_Dice.Around(500 + 150 * Badness());
        EndStall(length, TY_STALL_START);
        Send(TY_EVENT_RENDER_START);
        Send(TY_EVENT_START_UP_TIME, length + 80);
        Switch();
        m_nPosition = 0;
        ReportFirst();
        return true;
    }

    void ReportFirst() {
        m_nNow += m_Dice.Between(5, kSecond);
        Send(TY_EVENT_PLAYBACK_TIME, m_nPosition);
        m_nReference = m_nReference < 0 ? m_nPosition : m_nReference;
    }

    void Watch(int length) {
        while (length > 0) {
            const int step =
                std::min(length, std::max(kHeartbeat - (m_nPosition - m_nReference), 1));
            m_nNow += step;
            m_nPosition += step;
            length -= step;
            if (m_nPosition - m_nReference >= kHeartbeat) {
                Send(TY_EVENT_PLAYING_TIME, m_nPosition, m_nPosition - m_nReference);
                m_nReference = m_nPosition;
            }
            m_bOver = m_Base.content.duration > 0 && m_nPosition >= m_Base.content.duration;
        }
    }

    void Act() {
        Watch(m_Dice.Around(150 * kSecond));
        const int act = m_Dice.Between(1, 100);
        if (act <= 4 * Badness()) {
            BeginStall();
            EndStall(m_Dice.Around(300 * Badness()), TY_STALL_CONNECTION);
        } else if (act <= 45) {
            Seek();
        } else if (act <= 65) {
            Pause();
        } else if (act <= 97) {
            Switch();
        } else {
            Fail();
        }
    }

    void Seek() {
        const int most = m_bLive ? m_nPosition + kSecond : m_Base.content.duration;
        const int target = m_Dice.Between(0, most);
        Send(TY_EVENT_SEEK, m_nPosition, target);
        m_nNow += m_Dice.Around(20);
        const bool buffers = m_Dice.Percent(60);
        if (buffers) {
            BeginStall();
        }
        m_nNow += m_Dice.Around(120);
        Send(TY_EVENT_SEEK_COMPLETE);
        if (buffers) {
            EndStall(m_Dice.Around(100 * Badness()), TY_STALL_SEEK);
        }
        m_nPosition = target;
        ReportFirst();
        if (target < m_nReference || target - m_nReference > kHeartbeat + 9 * kSecond) {
            Send(TY_ERROR_PLAYBACK_TIME_JUMP, target, m_nReference);
            m_nReference = target;
        }
    }

    void Pause() {
        Send(TY_EVENT_PAUSE, m_nPosition);
        Send(TY_EVENT_PLAYING_TIME, m_nPosition, m_nPosition - m_nReference);
        m_nNow += m_Dice.Around(90 * kSecond);
        Send(TY_EVENT_RESUME);
        m_nReference = -1;
        ReportFirst();
    }

    void Switch() {
        const int rendition = m_Dice.Between(0, static_cast<int>(kRenditions.size()) - 1);
        Send(TY_EVENT_RENDITION, kRenditions.at(rendition),
             TYFrameSize(640 + 320 * rendition, 360 + 180 * rendition));
    }

    void Fail() {
        Send(TY_ERROR_FIRST_OF_PLAYER + m_Dice.Between(0, 12));
        m_bFailed = true;
        m_bOver = true;
    }

    TY_STOP_REASON Reason() {
        if (m_bFailed) {
            return TY_STOP_FATAL_ERROR;
        }
        return m_bOver ? TY_STOP_END_OF_CONTENT
                       : m_Dice.Pick(std::array{TY_STOP_USER, TY_STOP_USER, TY_STOP_REPLACED,
                                                TY_STOP_APPLICATION_CLOSED});
    }

    void Stop() {
        m_nNow += m_Dice.Between(1, 800);
        if (m_nPosition >= 0) {
            Send(TY_EVENT_DROPPED_FRAMES, m_Dice.Between(0, 40 * Badness()), m_nPosition / 40);
        }
        Send(TY_EVENT_STOP, m_nPosition, m_nVersion >= 1 ? Reason() : TY_STOP_NOT_TOLD);
        Send(TY_EVENT_PLAYING_TIME, m_nPosition, std::max(m_nPosition - m_nReference, 0));
    }

    CDice& m_Dice;
    std::int64_t m_nNow;
    Session m_Session;
    TYMediaData m_Base{};
    bool m_bWifi = false;
    bool m_bLive = false;
    int m_nVersion = 0;
    int m_nPosition = -1;
    int m_nReference = -1;
    bool m_bFailed = false;
    bool m_bOver = false;
};

}  // namespace

Session MakeSession(CDice& dice, int number, std::int64_t begin) {
    return CPlayer(dice, number, begin).Play();
}
