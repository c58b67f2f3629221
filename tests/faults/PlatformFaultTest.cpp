// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PipelineFixture.h"
#include "TableTest.h"

using testing::ElementsAre;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

// Of RefusedThreads.cpp: from here on, pthread_create fails with EAGAIN, or works again.
void RefuseThreads(bool refuse);

// Null unless the leak checker is linked.
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

namespace {

/// @return an object while which lives the leak checker ignores allocations of the calling thread.
///         Only for memory that the library does not free under a fault, by design
std::shared_ptr<void> UnfreedByDesign() {
    if (__lsan_disable == nullptr) {
        return nullptr;
    }
    __lsan_disable();
    return {nullptr, [](void* /*none*/) { __lsan_enable(); }};
}

constexpr const char* kTag = "TALLYRA";
constexpr const char* kUtil = "TALLYRA_UTIL";
constexpr const char* kNoThread = "can't start a thread. error : Resource temporarily unavailable";

/// Whether records still arrive, and the error line that the library logs for the failing call.
struct Fault {
    bool arrives;
    const char* tag;
    const char* line;  ///< null if the library ignores the result
};

constexpr Named<Fault> kFaults[] = {
    {"regdb_get_bool", {false, kTag, "regdb_get_bool REGDBKEY_TYLOG_ONOFF failed -1"}},
    {"regdb_notify_key_changed",
     {true, kTag, "regdb_notify_key_changed REGDBKEY_TYLOG_ONOFF error : -1"}},
    {"regdb_ignore_key_changed",
     {true, kTag, "regdb_ignore_key_changed REGDBKEY_TYLOG_ONOFF error : -1"}},
    {"appcat_appinfo_get_usr_appinfo", {true, kTag, "appcat_appinfo_get_usr_appinfo error : -1"}},
    {"appcat_appinfo_get_pkgid", {true, kTag, "appcat_appinfo_get_pkgid error : -1"}},
    {"appcat_pkginfo_get_pkginfo", {true, kTag, "appcat_pkginfo_get_pkginfo error : -1"}},
    {"appcat_pkginfo_get_version", {true, kTag, "appcat_pkginfo_get_version error : -1"}},
    {"connection_create", {true, kUtil, "connection_create is fail!!!"}},
    {"connection_set_network_monitor_cb",
     {true, kUtil, "connection_set_network_monitor_cb is fail!!!"}},
    {"connection_get_type", {true, kUtil, "connection_get_type error"}},
    {"connection_profile_check_default_gateway",
     {true, kUtil,
      "Network Disconnect : connection_profile_check_default_gateway return fail : -1"}},
    {"connection_destroy", {true, kUtil, "Failed to destroy connection"}},
    {"wifi_manager_initialize", {true, kUtil, "wifi_initialize error : -1!!!"}},
    {"wifi_manager_get_connected_ap", {true, kUtil, "wifi_get_connected_ap error : -1!!!"}},
    {"wifi_manager_ap_get_rssi", {true, kUtil, "wifi_ap_get_rssi error : -1!!!"}},
    {"appcat_appinfo_destroy_appinfo", {true, kTag, nullptr}},
    {"appcat_pkginfo_destroy_pkginfo", {true, kTag, nullptr}},
    {"connection_unset_network_monitor_cb", {true, kTag, nullptr}},
    {"wifi_manager_deinitialize", {true, kTag, nullptr}},
    {"wifi_manager_ap_destroy", {true, kTag, nullptr}},
    {"logsvc_print", {true, kTag, nullptr}},
};

class CPlatformFaultTest : public CTableTest<CPipelineTest, Fault> {
  protected:
    CPlatformFaultTest() {
        m_Platform.connectionType = CONNECTION_TYPE_WIFI;
        m_Platform.failing = GetParam().name;
    }

    // The journal of calls leaves out the log.
    bool WasCalled() {
        return m_Platform.failing == "logsvc_print" ? !m_Platform.Log().empty()
                                                    : m_Platform.Calls(m_Platform.failing) > 0;
    }

    /// A session that uses every call of the platform.
    void PlayToTheEnd() {
        StartService();
        {
            // The handle leaks if the platform refuses to destroy it.
            const auto unfreed =
                m_Platform.failing == "connection_destroy" ? UnfreedByDesign() : nullptr;
            MakeCollector();
        }
        ASSERT_TRUE(
            WaitForLog(Case().arrives ? "Sender thread start done" : "Analyzer join terminate"));
        StartPlayback();
        Event(TY_EVENT_BUFFERING_START);
        m_pCollector.reset();
    }
};

TEST_P(CPlatformFaultTest, IsLoggedAndThePlayerContinues) {
    PlayToTheEnd();
    if (Case().arrives) {
        EXPECT_THAT(Arrived(), ElementsAre(TY_EVENT_START, TY_EVENT_BUFFERING_START));
    } else {
        EXPECT_THAT(Arrived(), IsEmpty());
    }
    EXPECT_TRUE(WasCalled());
    if (Case().line != nullptr) {
        EXPECT_GE(m_Platform.CountLog(LOGSVC_ERROR, Case().tag, Case().line), 1U);
    }
}

INSTANTIATE_TEST_SUITE_P(Calls, CPlatformFaultTest, testing::ValuesIn(kFaults), kByName);

/// A system that refuses a thread at a certain moment.
class CThreadFaultTest : public CPipelineTest {
  protected:
    ~CThreadFaultTest() override {
        m_Platform.onLog = nullptr;
        RefuseThreads(false);
    }

    /// Refuses threads from the first log line with that text until the library logs a refused
    /// thread.
    void RefuseThreadAfter(const std::string& line) {
        m_Platform.onLog = [this, line](const CPlatformDouble::LogLine& logged) {
            if (logged.text == line && !m_bLogged.exchange(true)) {
                RefuseThreads(true);
            } else if (logged.text.starts_with("can't start a thread.")) {
                RefuseThreads(false);
            }
        };
    }

    void Play() {
        StartPlayback();
        Events(5);
    }

    std::atomic<bool> m_bLogged{false};
};

/// When a thread is refused, the line after which the player plays, and a line that follows.
struct RefusedThread {
    const char* after;
    const char* decision;
    const char* consequence;
    bool leaks = false;
};
using CRefusedThreadTest = CTableTest<CThreadFaultTest, RefusedThread>;

TEST_P(CRefusedThreadTest, NothingArrives) {
    RefuseThreadAfter(Case().after);
    StartService();
    MakeCollector();
    EXPECT_TRUE(WaitForLog(Case().decision));
    {
        const auto unfreed = Case().leaks ? UnfreedByDesign() : nullptr;
        Play();
    }
    EXPECT_TRUE(WaitForLog(Case().consequence));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, kTag, kNoThread), 1U);
    m_pCollector.reset();
    EXPECT_THAT(Arrived(), IsEmpty());
}

constexpr Named<RefusedThread> kRefusedThreads[] = {
    // No thread takes the records, and deleting the collector does not free them.
    {"WithoutAnAnalyzer",
     {"CTYDataCollector Create >>", "Sender thread start done", kNoThread, true}},
    {"WithoutAConnectionCheck",
     {"Analyzer thread start done", "Can't connect to service. Stop logging", kNoThread}},
    {"WithoutASender",
     {"result : 1, pInfo : 1 ", "drop collected data", "m_isDataCollectOn : [0]"}},
};
INSTANTIATE_TEST_SUITE_P(ThreadFaults, CRefusedThreadTest, testing::ValuesIn(kRefusedThreads),
                         kByName);

TEST_F(CThreadFaultTest, WithoutAWakerDeletionEndsAndNothingIsLost) {
    RefuseThreadAfter("Event Analyzer terminate");
    Connect();
    Play();
    const auto begin = Clock::now();
    m_pCollector.reset();
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, kTag, kNoThread), 1U);
    EXPECT_THAT(Arrived(), ElementsAre(TY_EVENT_START, 99, 99, 99, 99, 99));
}

// The analyzer has looked for work and does not wait yet when its owner asks it to end. A lost
// wake-up would cost 20 s.
TEST_F(CThreadFaultTest, WithoutAWakerTheOnlyWakeUpIsNotLost) {
    std::atomic<bool> isHeld = true;
    std::atomic<bool> isRefused = false;
    RefuseThreadAfter("Event Analyzer terminate");
    m_Platform.onLog = [&, refuse = m_Platform.onLog](const CPlatformDouble::LogLine& line) {
        refuse(line);
        if (line.text.starts_with("can't start a thread.")) {
            isRefused = true;
        } else if (line.text == "CTYEventAnalyzer thread sleep...." && !isHeld.exchange(true)) {
            Eventually([&] { return isRefused.load(); }, std::chrono::milliseconds(500));
        }
    };
    Connect();
    isHeld = false;
    StartPlayback();
    ASSERT_TRUE(Eventually([&] { return isHeld.load(); }));
    const auto begin = Clock::now();
    m_pCollector.reset();
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10));
    EXPECT_TRUE(isRefused);
}

}  // namespace
