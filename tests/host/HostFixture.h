// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_HOST_HOSTFIXTURE_H
#define TALLYRA_TESTS_HOST_HOSTFIXTURE_H

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

/// Gives each test a private bus with a receiver, and a settings file that has collection on.
/// Each scenario is a host in a process of its own, which it ends: EXPECT_EXIT runs it.
class CHostTest : public testing::Test {
  protected:
    CHostTest();
    ~CHostTest() override;

    /// Plays until the service has received something.
    void PlayUntilItArrives(ITYDataCollector& collector);

    const std::string m_Settings;
    CPrivateBus m_Bus;
    receiver::CReceiver m_Service{m_Bus.Address()};
};

#endif  // TALLYRA_TESTS_HOST_HOSTFIXTURE_H
