// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_TESTKIT_TESTPLATFORMFIXTURE_H
#define TALLYRA_TESTS_TESTKIT_TESTPLATFORMFIXTURE_H

#include "tallyra-testkit/testplatform.h"

#include "Eventually.h"
#include "Test.h"

#include "appcat.h"
#include "connection.h"
#include "logsvc.h"
#include "regdb.h"
#include "wifi_manager.h"

constexpr const char* kKey = TALLYRA_TESTPLATFORM_LOG_ON;
constexpr int kPatienceMs = 60'000;
constexpr int kShortWhileMs = 100;

/// The test platform in its initial state.
class CTestPlatformTest : public testing::Test {
  protected:
    CTestPlatformTest() { tallyra_testplatform_reset(); }
    ~CTestPlatformTest() override { tallyra_testplatform_reset(); }

    /// @return whether all callbacks have returned
    static bool Settle() { return tallyra_testplatform_wait_for_callbacks(kPatienceMs) == 0; }
};

#endif  // TALLYRA_TESTS_TESTKIT_TESTPLATFORMFIXTURE_H
