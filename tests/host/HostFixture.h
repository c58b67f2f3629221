// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_HOST_HOSTFIXTURE_H
#define TALLYRA_TESTS_HOST_HOSTFIXTURE_H

#include "ChildScenario.h"
#include "Eventually.h"
#include "PrivateBus.h"
#include "TableTest.h"
#include "TemporaryFolder.h"
#include "receiver/Receiver.h"

#include <tallyra/ITYDataCollector.h>

using Collector = std::unique_ptr<ITYDataCollector>;

/// An event whose meaning is left to the player.
constexpr auto kFreeEvent = static_cast<TY_EVENT_TYPE>(99);

inline Collector MakeCollector() {
    return Collector(GetTYDataCollectorInstance("org.example.host", TY_PLAYER_NATIVE));
}

/// Sets content, reports START and `events` further events.
inline void StartPlayback(ITYDataCollector& collector, int events = 20,
                          std::string url = "film.mp4") {
    CTYContentInfo content(&url, 0);
    content.SetTitle("Film");
    collector.SetContentInfo(&content);
    collector.SendMediaEvent(TY_EVENT_START, 0, 0);
    for (int i = 0; i < events; ++i) {
        collector.SendMediaEvent(kFreeEvent, i, 0);
    }
}

/// Plays a short playback, from START to STOP.
inline void Play(ITYDataCollector& collector) {
    StartPlayback(collector);
    collector.Execute(100, 1, "text");
    collector.SendMediaEvent(TY_EVENT_STOP, 0, 0);
}

/// A host with a private bus, a receiver, and a settings file that switches collection on.
class CHostTest : public testing::Test {
  public:
    CHostTest() {
        m_Folder.Write("regdb.ini", "[db/tallyra]\nlog_on=1\n");
        setenv("REGDB_FILE", (m_Folder.Path() / "regdb.ini").c_str(), 1);
        setenv("LOGSVC_OUTPUT", "stderr", 1);
        setenv("LOGSVC_LEVEL", "off", 1);
        m_Bus.BecomeSystemBus();
        m_Service.OwnName();
    }

    /// Plays until the service has received something. @return whether it has
    bool PlayUntilItArrives(ITYDataCollector& collector) {
        for (int i = 0; i < 100 && !m_Service.WaitForRecords(1, std::chrono::milliseconds(300));
             ++i) {
            Play(collector);
        }
        return !m_Service.Records().empty();
    }

    /// @return whether a new collector's records arrive without protocol errors
    bool CanPlay() { return PlayUntilItArrives(*MakeCollector()) && m_Service.Problems().empty(); }

    CTemporaryFolder m_Folder;
    CPrivateBus m_Bus;
    receiver::CReceiver m_Service{m_Bus.Address()};
};

/// What a host does in a process of its own, with its own bus and receiver.
/// @return whether it went well
using Scenario = bool (*)(CHostTest& host);
constexpr unsigned kSecondsOfAScenario = 150;

/// HostTest.cpp runs the tables of both sources.
using CHostMayTest = CTableTest<CHostTest, Scenario>;

inline std::size_t EntriesOf(const char* folder) {
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

#endif  // TALLYRA_TESTS_HOST_HOSTFIXTURE_H
