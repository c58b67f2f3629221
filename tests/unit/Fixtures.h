// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_UNIT_FIXTURES_H
#define TALLYRA_TESTS_UNIT_FIXTURES_H

#include "TYMediaData.h"
#include "doubles/FakeBus.h"
#include "doubles/FakeClock.h"
#include "doubles/PlatformDouble.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

constexpr const char* kTag = "TALLYRA";
constexpr const char* kTagUtil = "TALLYRA_UTIL";

/// A test over the platform double, which starts afresh.
class CPlatformTest : public testing::Test {
  protected:
    CPlatformTest() { m_Platform.Reset(); }

    /// @return whether exactly one line with this priority, tag and text was logged
    testing::AssertionResult Logged(int priority, const std::string& tag, const std::string& text);
    /// @return whether nothing with this text was logged
    testing::AssertionResult NotLogged(const std::string& text);
    /// @return whether exactly one line with all of this was logged
    testing::AssertionResult LoggedAt(int priority, const std::string& tag, const std::string& file,
                                      const std::string& function, int line,
                                      const std::string& text);

    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
};

/// A test with a bus and a clock of its own as well.
class CSeamTest : public CPlatformTest {
  protected:
    /// @return the records of all "SendData" calls so far, in order, as their images say
    std::vector<TYMediaData> SentRecords();
    /// @return the event codes of SentRecords
    std::vector<int> SentEvents();
    /// @return the URLs of all "SendData" calls so far, in order
    std::vector<std::string> SentUrls();

    CFakeBus m_Bus;
    CFakeClock m_Clock;
};

/// @return a new record, the caller's
TYMediaRecord* NewRecord(int event, std::int32_t param1 = 0, std::int32_t param2 = 0,
                         const std::string& url = "film.mp4");

#endif  // TALLYRA_TESTS_UNIT_FIXTURES_H
