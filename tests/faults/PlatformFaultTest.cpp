// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PipelineFixture.h"
#include "UnfreedByDesign.h"

#include <optional>
#include <ostream>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kTag = "TALLYRA";
constexpr const char* kUtil = "TALLYRA_UTIL";

/// A failing platform call, the error line that the library logs, and whether records still arrive.
struct Fault {
    const char* call;
    bool arrives;
    const char* tag;
    const char* line;  ///< null if the library ignores the result
};

void PrintTo(const Fault& fault, std::ostream* pOut) {
    *pOut << fault.call;
}

constexpr Fault kFaults[] = {
    {"regdb_get_bool", false, kTag, "regdb_get_bool REGDBKEY_TYLOG_ONOFF failed -1"},
    {"regdb_notify_key_changed", true, kTag,
     "regdb_notify_key_changed REGDBKEY_TYLOG_ONOFF error : -1"},
    {"regdb_ignore_key_changed", true, kTag,
     "regdb_ignore_key_changed REGDBKEY_TYLOG_ONOFF error : -1"},
    {"appcat_appinfo_get_usr_appinfo", true, kTag, "appcat_appinfo_get_usr_appinfo error : -1"},
    {"appcat_appinfo_get_pkgid", true, kTag, "appcat_appinfo_get_pkgid error : -1"},
    {"appcat_pkginfo_get_pkginfo", true, kTag, "appcat_pkginfo_get_pkginfo error : -1"},
    {"appcat_pkginfo_get_version", true, kTag, "appcat_pkginfo_get_version error : -1"},
    {"connection_create", true, kUtil, "connection_create is fail!!!"},
    {"connection_set_network_monitor_cb", true, kUtil,
     "connection_set_network_monitor_cb is fail!!!"},
    {"connection_get_type", true, kUtil, "connection_get_type error"},
    {"connection_profile_check_default_gateway", true, kUtil,
     "Network Disconnect : connection_profile_check_default_gateway return fail : -1"},
    {"connection_destroy", true, kUtil, "Failed to destroy connection"},
    {"wifi_manager_initialize", true, kUtil, "wifi_initialize error : -1!!!"},
    {"wifi_manager_get_connected_ap", true, kUtil, "wifi_get_connected_ap error : -1!!!"},
    {"wifi_manager_ap_get_rssi", true, kUtil, "wifi_ap_get_rssi error : -1!!!"},
    {"appcat_appinfo_destroy_appinfo", true, kTag, nullptr},
    {"appcat_pkginfo_destroy_pkginfo", true, kTag, nullptr},
    {"connection_unset_network_monitor_cb", true, kTag, nullptr},
    {"wifi_manager_deinitialize", true, kTag, nullptr},
    {"wifi_manager_ap_destroy", true, kTag, nullptr},
    {"logsvc_print", true, kTag, nullptr},
};

class CPlatformFaultTest : public CPipelineTest, public testing::WithParamInterface<Fault> {
  protected:
    CPlatformFaultTest() {
        m_Platform.connectionType = CONNECTION_TYPE_WIFI;
        m_Platform.failing = GetParam().call;
    }

    // The journal of calls leaves out the log.
    bool WasCalled() {
        return m_Platform.failing == "logsvc_print" ? !m_Platform.Log().empty()
                                                    : m_Platform.Calls(m_Platform.failing) > 0;
    }

    /// The handle leaks if the platform refuses to destroy it.
    void MakeCollectorThatMayLeakItsHandle() {
        std::optional<CUnfreedByDesign> unfreed;
        if (m_Platform.failing == "connection_destroy") {
            unfreed.emplace();
        }
        MakeCollector();
    }

    /// A session that uses every call of the platform.
    void PlayToTheEnd() {
        StartService();
        MakeCollectorThatMayLeakItsHandle();
        ASSERT_TRUE(WaitForLog(GetParam().arrives ? "Sender thread start done"
                                                  : "Analyzer join terminate"));
        SetContent();
        Event(TY_EVENT_START);
        Event(TY_EVENT_BUFFERING_START);
        m_pCollector.reset();
    }
};

TEST_P(CPlatformFaultTest, IsLoggedAndThePlayerContinues) {
    PlayToTheEnd();
    if (GetParam().arrives) {
        EXPECT_THAT(Arrived(), ElementsAre(TY_EVENT_START, TY_EVENT_BUFFERING_START));
    } else {
        EXPECT_THAT(Arrived(), IsEmpty());
    }
    EXPECT_TRUE(WasCalled());
    if (GetParam().line != nullptr) {
        EXPECT_GE(m_Platform.CountLog(LOGSVC_ERROR, GetParam().tag, GetParam().line), 1U);
    }
}

INSTANTIATE_TEST_SUITE_P(Calls, CPlatformFaultTest, testing::ValuesIn(kFaults),
                         [](const auto& fault) { return std::string(fault.param.call); });

}  // namespace
