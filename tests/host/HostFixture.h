// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_HOST_HOSTFIXTURE_H
#define TALLYRA_TESTS_HOST_HOSTFIXTURE_H

#include "ChildScenario.h"
#include "PrivateBus.h"
#include "receiver/Receiver.h"

#include <tallyra/ITYDataCollector.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

using Collector = std::unique_ptr<ITYDataCollector>;

Collector MakeCollector();

/// Plays a short playback, from START to STOP.
void Play(ITYDataCollector& collector);

/// A host with a private bus, a receiver, and a settings file that switches collection on.
class CHostTest : public testing::Test {
  protected:
    CHostTest();
    ~CHostTest() override;

    /// Plays until the service has received something. @return whether it has
    bool PlayUntilItArrives(ITYDataCollector& collector);
    /// @return whether a new collector's records arrive without protocol errors
    bool CanPlay();

    /// Runs a host in a new process, with its own bus and receiver, and expects it to return true.
    template <class Host>
    static void ExpectHost(Host host) {
        constexpr unsigned seconds = 150;
        ExpectInNewProcess(host, seconds);
    }

    const std::string m_Settings;
    CPrivateBus m_Bus;
    receiver::CReceiver m_Service{m_Bus.Address()};
};

#endif  // TALLYRA_TESTS_HOST_HOSTFIXTURE_H
