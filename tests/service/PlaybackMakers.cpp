// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlaybackMakers.h"

#include "Recording.h"
#include "TYEventCodes.h"
#include "model/Session.h"

#include <array>
#include <climits>
#include <fstream>
#include <utility>

namespace {

constexpr std::int64_t kBegin = 1'795'234'190'000;
constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr int kDay = 24 * 3600 * 1000;

std::string NameOf(int number) {
    return "p" + std::to_string(number);
}

/// The library, as its reference model describes it, with a clock.
class CModel {
  public:
    CModel() {
        m_World.serviceIsThere = true;
        m_World.connectionType = 1;
        m_World.rssi = -60;
        m_World.realNs = kBegin * kNsPerMs;
        model::Content content;
        content.url = "film.mp4";
        m_Session.Playback().Set(content);
        m_Session.Pass(kDay);
    }

    void Pass(std::int64_t milliseconds) { m_World.realNs += milliseconds * kNsPerMs; }
    void Send(int event, int param1, int param2) { m_Session.SendEvent(event, param1, param2); }
    void Fail(int error) { m_Session.SendError(error); }
    void Execute(int code, int value) { m_Session.Execute(code, value, ""); }

    /// @return the records of the first playback
    Playback Records(int number) const {
        Playback playback;
        for (const model::Record& record : m_Session.Delivery().Sent()) {
            if (record.playbackID == m_Session.Delivery().Sent().front().playbackID) {
                playback.push_back(
                    {NameOf(number),
                     record.time.sec * std::int64_t{1000} + record.time.nsec / kNsPerMs,
                     record.event, record.param1, record.param2});
            }
        }
        return playback;
    }

  private:
    model::World m_World;
    model::CSession m_Session{m_World, "org.example.app", TY_PLAYER_NATIVE};
};

void LoseSome(CDice& dice, Playback& playback) {
    if (dice.Percent(15)) {
        playback.erase(playback.begin(),
                       playback.begin() + dice.Between(1, 3) % static_cast<int>(playback.size()));
    }
    if (dice.Percent(30)) {
        std::erase_if(playback, [&](const PlaybackRecord&) { return dice.Percent(10); });
    }
}

// Times near those that the rules name, and others.
std::int64_t AnyStep(CDice& dice) {
    constexpr std::array kSteps = {0,      1,       500,      8999,     9000, 9001,
                                   20'000, 180'000, kDay - 1, kDay + 1, -1,   -20'000};
    return dice.Percent(30) ? dice.Pick(kSteps) : dice.Between(0, 4000);
}

}  // namespace

Playback RecordedPlayback(const std::filesystem::path& recording, int number) {
    std::ifstream source(recording);
    CModel library;
    long long passed = 0;
    for (const Step& step : ReadRecording(source, recording.string()).steps) {
        library.Pass(step.milliseconds - std::exchange(passed, step.milliseconds));
        switch (step.kind) {
            case Step::Kind::EVENT:
                library.Send(step.code, step.first, step.second);
                break;
            case Step::Kind::ERROR_REPORT:
                library.Fail(step.code);
                break;
            case Step::Kind::EXECUTE:
                library.Execute(step.code, step.first);
        }
    }
    return library.Records(number);
}

Playback ViewedPlayback(CDice& dice, int number) {
    Playback playback;
    for (const TYMediaData& record : MakeSession(dice, number, kBegin).records) {
        playback.push_back({NameOf(number),
                            record.time.sec * std::int64_t{1000} + record.time.nsec / kNsPerMs,
                            record.event, record.param1, record.param2});
    }
    return playback;
}

Playback ShuffledPlayback(CDice& dice, int number) {
    constexpr std::array kEvents = {3, 4, 4, 5, 5, 6, 7, 8, 8, 8, 9, 9, 10, 10, 30, 31};
    CModel library;
    library.Send(TY_EVENT_START, 0, 0);
    int position = 0;
    for (int calls = dice.Between(0, 36); calls > 0; --calls) {
        const int passed = dice.Percent(10) ? dice.Around(180'000) : dice.Around(700);
        library.Pass(passed);
        position += dice.Percent(80) ? passed : dice.Between(-200'000, 400'000);
        const int event = dice.Percent(1) ? TY_EVENT_STOP : dice.Pick(kEvents);
        if (dice.Percent(3)) {
            library.Fail(dice.Between(200, 255));
        }
        library.Send(event, event == TY_EVENT_PLAYBACK_TIME ? position : 0, dice.Between(0, 5));
    }
    Playback playback = library.Records(number);
    LoseSome(dice, playback);
    return playback;
}

Playback HostilePlayback(CDice& dice, int number) {
    constexpr std::array kEvents = {1, 3, 4, 5, 6, 7, 8, 9, 10, 20, 21, 22, 30, 202, 204, 240};
    constexpr std::array kNumbers = {-1, 0, 1, 2, 3, 4, 5, 179'999, 180'000, INT_MAX, INT_MIN};
    Playback playback;
    std::int64_t time = kBegin;
    for (int left = dice.Between(1, 36); left > 0; --left) {
        const int rare = dice.Percent(80) ? TY_EVENT_STOP : dice.Between(0, 255);
        playback.push_back({NameOf(number), time, dice.Percent(2) ? rare : dice.Pick(kEvents),
                            dice.Pick(kNumbers), dice.Pick(kNumbers)});
        time += AnyStep(dice);
    }
    return playback;
}
