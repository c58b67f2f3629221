// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_HOST_HOSTFIXTURE_H
#define TALLYRA_TESTS_HOST_HOSTFIXTURE_H

#include "ChildScenario.h"
#include "PrivateBus.h"
#include "TemporaryFolder.h"
#include "receiver/Receiver.h"

#include <tallyra/ITYDataCollector.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>

using Collector = std::unique_ptr<ITYDataCollector>;

/// A host with a private bus, a receiver, and a settings file that switches collection on.
class CHostTest : public testing::Test {
  protected:
    CHostTest() {
        m_Folder.Write("regdb.ini", "[db/tallyra]\nlog_on=1\n");
        setenv("REGDB_FILE", (m_Folder.Path() / "regdb.ini").c_str(), 1);
        setenv("LOGSVC_OUTPUT", "stderr", 1);
        setenv("LOGSVC_LEVEL", "off", 1);
        m_Bus.BecomeSystemBus();
        m_Service.OwnName();
    }

    static Collector MakeCollector() {
        return Collector(GetTYDataCollectorInstance("org.example.host", TY_PLAYER_NATIVE));
    }

    /// Plays a short playback, from START to STOP.
    static void Play(ITYDataCollector& collector) {
        constexpr auto freeEvent = static_cast<TY_EVENT_TYPE>(99);
        std::string url = "film.mp4";
        CTYContentInfo content(&url, 0);
        content.SetTitle("Film");
        collector.SetContentInfo(&content);
        collector.SendMediaEvent(TY_EVENT_START, 0, 0);
        for (int i = 0; i < 20; ++i) {
            collector.SendMediaEvent(freeEvent, i, 0);
        }
        collector.Execute(100, 1, "text");
        collector.SendMediaEvent(TY_EVENT_STOP, 0, 0);
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

    /// Runs a host in a new process, with its own bus and receiver, and expects it to return true.
    template <class Host>
    static void ExpectHost(Host host) {
        constexpr unsigned seconds = 150;
        ExpectInNewProcess(host, seconds);
    }

    CTemporaryFolder m_Folder;
    CPrivateBus m_Bus;
    receiver::CReceiver m_Service{m_Bus.Address()};
};

#endif  // TALLYRA_TESTS_HOST_HOSTFIXTURE_H
