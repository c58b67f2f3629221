// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Target "calls": any sequence of a player's calls while key, service, network and clock change.
// The records on the wire equal those of the reference model, byte for byte.

#include "Bytes.h"
#include "Rig.h"
#include "Target.h"

#include <array>
#include <string>

namespace {

constexpr int kMostSteps = 200;
constexpr int kMostRepeated = 600;
constexpr std::int64_t kNsPerSec = 1'000'000'000;

/// Reads a sequence of calls from the input and makes them.
class CSequence {
  public:
    explicit CSequence(CBytes& bytes) : m_Bytes(bytes), m_Rig(MakeRig()) {}

    void Play() {
        for (int i = 0; i < kMostSteps && !m_Bytes.AtEnd(); ++i) {
            Step();
        }
        m_Rig.Finish();
    }

  private:
    template <class Value, std::size_t Size>
    Value Pick(const std::array<Value, Size>& values) {
        return values.at(m_Bytes.Byte() % Size);
    }

    bool Flip() { return m_Bytes.Byte() % 2 != 0; }
    /// A platform result, mostly 0.
    int Result() { return Pick(std::array{0, 0, 0, -1, 1}); }

    std::int64_t WallClock() {
        std::int64_t sec = Pick(std::array{1'700'000'000, 1, 45, 2'147'483'640, 0});
        sec = sec == 0 ? m_Bytes.Int() & 0x7FFFFFFF : sec;
        return sec * kNsPerSec + Pick(std::array{0, 999'999'999, 5, 500'000'000});
    }

    model::World MakeWorld() {
        model::World world;
        const std::uint8_t usual = m_Bytes.Byte();
        world.realNs = WallClock();
        world.version = "1.2.3";
        world.connectionType = 3;
        world.rssi = -55;
        world.serviceIsThere = usual % 8 != 1;
        world.keyValue = usual % 8 == 2 ? 0 : 1;
        world.policyAllows = usual % 8 != 3;
        if (usual % 8 >= 4) {
            ChangeNetwork(world);
        }
        return world;
    }

    CRig MakeRig() {
        const model::World world = MakeWorld();
        const int player = m_Bytes.Int();
        const std::uint8_t app = m_Bytes.Byte();
        if (app % 8 == 0) {
            return CRig(world, std::nullopt, player);
        }
        const std::string appId = app % 8 == 1 ? m_Bytes.Text() : "org.example.app";
        return CRig(world, appId, player, app % 8 != 2);
    }

    void Step() {
        using T = CSequence;
        static constexpr void (T::*kSteps[])() = {&T::SendNamedEvent,
                                                  &T::SendNamedEvent,
                                                  &T::SendPosition,
                                                  &T::SendPosition,
                                                  &T::SendAnyEvent,
                                                  &T::SendError,
                                                  &T::Execute,
                                                  &T::SetContent,
                                                  &T::SetOther,
                                                  &T::Pass,
                                                  &T::ChangeKey,
                                                  &T::ChangeService,
                                                  &T::ChangeNetworkAndTell,
                                                  &T::WithoutClock,
                                                  &T::Repeat,
                                                  &T::Ask};
        (this->*kSteps[m_Bytes.Byte() % std::size(kSteps)])();
    }

    int Code() {
        const std::uint8_t byte = m_Bytes.Byte();
        return byte == 255 ? m_Bytes.Int() : byte;
    }

    int Number() {
        const int kind = m_Bytes.Byte() % 4;
        if (kind == 1) {
            return -1;
        }
        return kind == 3 ? m_Bytes.Int() : m_Bytes.Byte() * (kind == 2 ? 1000 : 1);
    }

    void SendAnyEvent() { SendEvent(m_Bytes.Int()); }
    void SendError() { m_Rig.SendError(Code()); }
    void SendNamedEvent() {
        SendEvent(Pick(std::array{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 20, 204, 1, 6, 4, 5}));
    }

    void SendEvent(int event) {
        const int param1 = Number();
        const int param2 = Number();
        m_Rig.SendEvent(event, param1, param2);
    }

    // Positions near the last one, near the heartbeat and near its limit.
    void SendPosition() {
        const std::int64_t ahead = Pick(std::array{1000, 0, 180'000, 189'000, -1000, 60'000});
        const auto off = static_cast<std::int8_t>(m_Bytes.Byte());
        m_nPosition = static_cast<int>(m_nPosition + ahead + off);
        m_Rig.SendEvent(8, m_nPosition, m_Bytes.Byte());
    }

    void Execute() {
        const int code = Code();
        const int value = Number();
        m_Rig.Execute(code, value, std::string(m_Bytes.Some()));
    }

    void SetContent() {
        model::Content content;
        const std::uint8_t what = m_Bytes.Byte();
        constexpr std::array kUrls{"http://server/a/b.ts?x=1", "/media/c.mp4?y", "http://server",
                                   "film.mp4"};
        content.url = what % 8 < 4 ? kUrls.at(what % 4) : m_Bytes.Some();
        content.title = (what & 8) != 0 ? m_Bytes.Some() : std::string_view();
        if ((what & 16) != 0) {
            content.startTime = m_Bytes.Int();
            content.duration = m_Bytes.Int();
            content.drmType = m_Bytes.Int();
            content.contentType = m_Bytes.Int();
        }
        if ((what & 32) != 0) {
            content.channelID = m_Bytes.Some();
            content.genre = m_Bytes.Some();
            content.customInfo = m_Bytes.Some();
        }
        m_Rig.SetContent(content);
    }

    void SetOther() {
        switch (m_Bytes.Byte() % 6) {
            case 0:
                return m_Rig.SetServiceVersion(std::string(m_Bytes.Some()));
            case 1:
                return m_Rig.Collector().SetServiceVersion(nullptr);
            case 2:
                return m_Rig.SetDuration(m_Bytes.Int());
            case 3:
                return m_Rig.SetDrmType(m_Bytes.Int());
            case 4:
                return m_Rig.SetContentType(m_Bytes.Int());
            default:
                return m_Rig.Collector().SetContentInfo(nullptr);
        }
    }

    void Pass() {
        constexpr std::array kTimes{1,      400,    1000,   1001,   5000,    10'000,
                                    11'000, 20'000, 59'000, 60'000, 180'000, 4'000'000};
        if (m_Bytes.Byte() % 4 == 0) {
            m_Rig.ChangeClock([this](model::World& world) { world.realNs = WallClock(); });
        }
        m_Rig.Pass(std::chrono::milliseconds(Pick(kTimes)));
    }

    void ChangeKey() {
        m_Rig.ChangeWorld([this](model::World& world) {
            world.keyValue = Pick(std::array{1, 0, 1, 2, -1});
            world.keyResult = Result();
        });
        // Without a notification the library sees the change when it reads the key next.
        if (m_Bytes.Byte() % 4 != 0) {
            m_Rig.FireKeyChanged();
        }
    }

    void ChangeService() {
        m_Rig.ChangeWorld([this](model::World& world) {
            world.serviceIsThere = Flip();
            world.policyAllows = Flip();
        });
        const int status = m_Bytes.Byte() % 2;
        m_Rig.Bus().SetReply("SendData", CFakeBus::Status(status, m_Bytes.Byte() % 2));
    }

    void ChangeNetwork(model::World& world) {
        world.gateway = m_Bytes.Byte() % 4 != 0;
        world.gatewayResult = Result();
        world.connectionType = m_Bytes.Byte() % 5;
        world.connectionTypeResult = Result();
        world.wifiResult = Result();
        world.apResult = Result();
        world.rssiResult = Result();
        world.rssi = Number();
    }

    void ChangeNetworkAndTell() {
        m_Rig.ChangeWorld([this](model::World& world) { ChangeNetwork(world); });
        const std::string state = Pick(std::array{"GATEWAY", "GATEWAY", "gateway", ""});
        m_Rig.FireNetwork(Result(), state);
    }

    // Derived records need the clock, so only codes that nothing is derived from.
    void WithoutClock() {
        m_Rig.ChangeClock([](model::World& world) { world.clockFails = true; });
        if (Flip()) {
            m_Rig.SendEvent(Pick(std::array{1, 8, 9, 10, 7, 99}), m_nPosition, 0);
        } else {
            m_Rig.Execute(50 + m_Bytes.Byte() % 4, 0, "no clock");
        }
        m_Rig.ChangeClock([](model::World& world) { world.clockFails = false; });
    }

    void Repeat() {
        const int event = Pick(std::array{99, 2, 3, 4, 5, 6, 7});
        const int count = m_Bytes.Byte();
        for (int i = 0; i < count && m_nRepeated < kMostRepeated; ++i, ++m_nRepeated) {
            m_Rig.SendEvent(event, i, -i);
        }
    }

    void Ask() {
        m_Rig.CompareTypes();
        m_Bytes.Byte();  // The corpus counts on this byte.
    }

    CBytes& m_Bytes;
    int m_nPosition = 0;
    int m_nRepeated = 0;
    CRig m_Rig;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size) {
    CBytes bytes(pData, size);
    CSequence(bytes).Play();
    return 0;
}
