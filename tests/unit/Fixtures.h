// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_UNIT_FIXTURES_H
#define TALLYRA_TESTS_UNIT_FIXTURES_H

#include "TYDataCollector.h"
#include "TYDataSender.h"
#include "TYEventCodes.h"
#include "TYMediaData.h"
#include "TableTest.h"
#include "doubles/FakeBus.h"
#include "doubles/FakeClock.h"
#include "doubles/PlatformDouble.h"

#include <semaphore>

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

/// Stops the first thread that passes until it is opened.
class CBarrier {
  public:
    /// Lets a failed test go on.
    ~CBarrier() { Open(); }

    void Pass() {
        if (!m_bReached.exchange(true)) {
            m_Reached.release();
            m_Opened.try_acquire_for(kPatience);
        }
    }
    bool AwaitThread() { return m_Reached.try_acquire_for(kPatience); }
    void Open() { m_Opened.release(); }

  private:
    std::atomic<bool> m_bReached{false};
    std::counting_semaphore<> m_Reached{0};
    std::counting_semaphore<> m_Opened{0};
};

/// @return the lowest free file descriptor
int FreeFd();

/// A test over the platform double, which it resets.
class CPlatformTest : public testing::Test {
  protected:
    CPlatformTest() { m_Platform.Reset(); }

    /// @return whether exactly one line with this priority, tag and text was logged
    testing::AssertionResult Logged(int priority, const std::string& tag, const std::string& text);
    // The same for each priority, with the tag of the library, then of its helpers.
    auto Error(const std::string& text) { return Logged(LOGSVC_ERROR, kTag, text); }
    auto Info(const std::string& text) { return Logged(LOGSVC_INFO, kTag, text); }
    auto Debug(const std::string& text) { return Logged(LOGSVC_DEBUG, kTag, text); }
    auto UtilError(const std::string& text) { return Logged(LOGSVC_ERROR, kTagUtil, text); }
    auto UtilInfo(const std::string& text) { return Logged(LOGSVC_INFO, kTagUtil, text); }
    auto UtilDebug(const std::string& text) { return Logged(LOGSVC_DEBUG, kTagUtil, text); }
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

/// A collector over doubles. The service is present and accepts everything.
class CCollectorTest : public CSeamTest {
  protected:
    CCollectorTest() { m_Clock.SetRealTime(kNow, 5); }

    /// Constructs a collector, without waiting for its connection.
    void MakeCollector(const char* appId = "org.example.app");
    /// @return the collector; the first call constructs it and waits until it collects
    CTYDataCollector& Collector();
    /// Constructs a collector whose service is absent, and waits until it sleeps before its next
    /// poll.
    CTYDataCollector& CollectorWithoutService();
    /// Constructs a collector that is told not to collect, and waits until it has stopped.
    CTYDataCollector& CollectorThatStops();

    /// Sets content with a URL and a title.
    void SetContent(const std::string& url = "film.mp4", const std::string& title = "Film",
                    unsigned startTime = 0);
    /// Sets content that fills every field of a record.
    void SetFullContent();
    /// Sets content and reports START.
    void StartPlayback(unsigned startTime = 0);
    /// Starts a playback and reports its first frame, so that positions are recorded.
    void StartRendering();

    void Event(int event, int param1 = 0, int param2 = 0) {
        Collector().SendMediaEvent(static_cast<TY_EVENT_TYPE>(event), param1, param2);
    }
    void ReportAll(const Reports& reports);

    /// Deletes the collector, which delivers everything.
    /// @return the records that arrived, without those that the analyzer derived
    std::vector<TYMediaData> Reported();
    /// The same, events and parameters only.
    Reports ReportedEvents() { return ToReports(Reported()); }

    static constexpr int kNow = 1000000;
    std::unique_ptr<CTYDataCollector> m_pCollector;
};

/// A test of the service link, whose log lines have a fixed file, function and line.
class CLinkTest : public CSeamTest {
  protected:
    testing::AssertionResult LinkLine(int priority, const std::string& function, int line,
                                      const std::string& text) {
        return LoggedAt(priority, kTag, FileOf(function), function, line, text);
    }

    /// @return the error lines since the last call, joined by "; ": each as "function(line) text",
    ///         those without a fixed place as the text alone
    std::string TakeErrors() {
        std::string errors;
        for (const CPlatformDouble::LogLine& line : m_Platform.Log()) {
            if (line.priority == LOGSVC_ERROR) {
                errors += (errors.empty() ? "" : "; ") + PlaceOf(line) + line.text;
            }
        }
        m_Platform.ClearLog();
        return errors;
    }

    const CFakeBus::Reply m_Answer = CFakeBus::Status(1, 1);
    /// An error of the bus, and the lines of the client about it.
    const CFakeBus::Reply m_Gone{{}, "gone"};
    const std::string m_strGone =
        "SendMessage(112) CLIENT > Dbus error: gone; SendMessage(119) REPLY IS NULL!";

  private:
    static std::string PlaceOf(const CPlatformDouble::LogLine& line) {
        if (line.tag != kTag) {
            return "";
        }
        EXPECT_EQ(line.file, FileOf(line.function));
        return line.function + "(" + std::to_string(line.line) + ") ";
    }

    static std::string FileOf(const std::string& function) {
        const bool ofProxy =
            function == "SendData" || function == "GetPolicyInfo" || function == "Kick";
        return ofProxy ? "TYServiceProxy.cpp" : "TYDbusClient.cpp";
    }
};

/// A sender over a fake bus and a fake clock, without a thread until a test starts it.
class CSenderTest : public CSeamTest {
  protected:
    // A sender does not free what is still queued when it goes.
    ~CSenderTest() override {
        if (m_Sender != nullptr) {
            m_Sender->StopConnectionCheck();
            m_Sender->ClearCollectedData();
        }
    }

    /// Queues records that are numbered on in param1.
    void Queue(int records, int event = TY_EVENT_RESUME, const std::string& url = "film.mp4") {
        for (int i = 0; i < records; ++i) {
            m_Sender->InsertData(NewRecord(event, m_nQueued++, 0, url));
        }
    }

    /// @return whether the sender's thread sleeps: from now on it hears every notification
    bool Sleeps() { return m_Clock.AwaitWaiter(std::chrono::seconds(20)); }

    /// Starts the thread and waits until it sleeps.
    void StartAndSleep() {
        m_Sender->Start();
        ASSERT_TRUE(Sleeps());
    }

    /// @return whether the thread was notified within a time; the fake clock does not move
    /// meanwhile
    bool Wakes(std::chrono::milliseconds within = kPatience) {
        return m_Platform.WaitForLog("CTYDataSender thread wake up!!", 1, within);
    }

    std::unique_ptr<CTYDataSender> m_Sender = std::make_unique<CTYDataSender>(m_Bus, m_Clock);
    int m_nQueued = 0;
};

#endif  // TALLYRA_TESTS_UNIT_FIXTURES_H
