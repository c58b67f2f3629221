// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_HOST_HOSTFIXTURE_H
#define TALLYRA_TESTS_HOST_HOSTFIXTURE_H

#include "ChildScenario.h"
#include "Eventually.h"
#include "Player.h"
#include "PrivateBus.h"
#include "TableTest.h"
#include "TemporaryFolder.h"
#include "receiver/Receiver.h"

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

inline std::size_t EntriesOf(const char* folder) {
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

#endif  // TALLYRA_TESTS_HOST_HOSTFIXTURE_H
