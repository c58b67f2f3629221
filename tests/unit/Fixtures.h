// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_UNIT_FIXTURES_H
#define TALLYRA_TESTS_UNIT_FIXTURES_H

#include "TYEventCodes.h"
#include "TYMediaData.h"
#include "TableTest.h"
#include "doubles/FakeBus.h"
#include "doubles/FakeClock.h"
#include "doubles/PlatformDouble.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

constexpr const char* kTag = "TALLYRA";
constexpr const char* kTagUtil = "TALLYRA_UTIL";
constexpr const char* kNoMemory =
    "bad_alloc!! No more free store space available. error : std::bad_alloc";

/// How long a test watches for what must not happen. On a slow machine such a test may miss a
/// mistake; it never fails for nothing.
constexpr std::chrono::milliseconds kShortWhile{100};
constexpr std::chrono::seconds kPatience{30};

/// An event and an error that have no name.
constexpr int kFreeEvent = 99;
constexpr auto kFreeError = static_cast<TY_ERROR_TYPE>(31);

/// An event or error: what a test reports, or expects to arrive.
struct Report {
    int event;
    int param1 = 0;
    int param2 = 0;

    bool operator==(const Report&) const = default;
};
using Reports = std::vector<Report>;
void PrintTo(const Report& report, std::ostream* pOut);
/// @return event and parameters of each record
Reports ToReports(const std::vector<TYMediaData>& records);

/// Fails every `new` of this many bytes or more on this thread, for the rest of the process. Has no
/// effect under ThreadSanitizer.
void FailAllocationsFrom(std::size_t bytes);

/// Does the same until it is destroyed.
class CAllocationLimit {
  public:
    explicit CAllocationLimit(std::size_t bytes) { FailAllocationsFrom(bytes); }
    ~CAllocationLimit() { FailAllocationsFrom(SIZE_MAX); }
    CAllocationLimit(const CAllocationLimit&) = delete;
    CAllocationLimit& operator=(const CAllocationLimit&) = delete;
};

/// Stops the first thread that passes until it is opened.
class CBarrier {
  public:
    /// Lets a failed test go on.
    ~CBarrier() { Open(); }

    void Pass() {
        if (!m_bReached.exchange(true)) {
            m_Reached.set_value();
            m_Opened.get_future().wait_for(kPatience);
        }
    }
    bool AwaitThread() { return m_ReachedFuture.wait_for(kPatience) == std::future_status::ready; }
    void Open() {
        if (!m_bOpen.exchange(true)) {
            m_Opened.set_value();
        }
    }

  private:
    std::atomic<bool> m_bReached{false};
    std::atomic<bool> m_bOpen{false};
    std::promise<void> m_Reached;
    std::promise<void> m_Opened;
    std::future<void> m_ReachedFuture = m_Reached.get_future();
};

/// @return the lowest free file descriptor
int FreeFd();

/// A test over the platform double, which it resets.
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

/// A test that also has a fake bus and a fake clock.
class CSeamTest : public CPlatformTest {
  protected:
    /// @return the records of all "SendData" calls so far, in order, read from their images
    std::vector<TYMediaData> SentRecords();
    /// @return the event codes of SentRecords
    std::vector<int> SentEvents();
    /// @return the URLs of all "SendData" calls so far, in order
    std::vector<std::string> SentUrls();

    CFakeBus m_Bus;
    CFakeClock m_Clock;
};

/// @return a new record, which the caller owns
TYMediaRecord* NewRecord(int event, std::int32_t param1 = 0, std::int32_t param2 = 0,
                         const std::string& url = "film.mp4");

#endif  // TALLYRA_TESTS_UNIT_FIXTURES_H
