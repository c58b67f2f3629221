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

/// A call of the platform that fails: how, what is logged, and whether records still arrive.
struct Fault {
    const char* call;
    void (*prepare)(CPlatformDouble&);
    const char* tag;
    const char* line;  ///< null where nobody looks at the result
    bool arrives;
};

void PrintTo(const Fault& fault, std::ostream* pOut) {
    *pOut << fault.call;
}

std::vector<Fault> Faults() {
    return {
        {"regdb_get_bool", [](auto& p) { p.keyResult = -1; }, kTag,
         "regdb_get_bool REGDBKEY_TYLOG_ONOFF failed -1", false},
        {"regdb_notify_key_changed", [](auto& p) { p.notifyResult = -1; }, kTag,
         "regdb_notify_key_changed REGDBKEY_TYLOG_ONOFF error : -1", true},
        {"regdb_ignore_key_changed", [](auto& p) { p.ignoreResult = -1; }, kTag,
         "regdb_ignore_key_changed REGDBKEY_TYLOG_ONOFF error : -1", true},
        {"appcat_appinfo_get_usr_appinfo", [](auto& p) { p.appInfoResult = -1; }, kTag,
         "appcat_appinfo_get_usr_appinfo error : -1", true},
        {"appcat_appinfo_get_pkgid", [](auto& p) { p.pkgIdResult = -1; }, kTag,
         "appcat_appinfo_get_pkgid error : -1", true},
        {"appcat_pkginfo_get_pkginfo", [](auto& p) { p.pkgInfoResult = -1; }, kTag,
         "appcat_pkginfo_get_pkginfo error : -1", true},
        {"appcat_pkginfo_get_version", [](auto& p) { p.versionResult = -1; }, kTag,
         "appcat_pkginfo_get_version error : -1", true},
        {"connection_create", [](auto& p) { p.connectionCreateResult = -1; }, kUtil,
         "connection_create is fail!!!", true},
        {"connection_set_network_monitor_cb", [](auto& p) { p.monitorResult = -1; }, kUtil,
         "connection_set_network_monitor_cb is fail!!!", true},
        {"connection_get_type", [](auto& p) { p.connectionTypeResult = -1; }, kUtil,
         "connection_get_type error", true},
        {"connection_profile_check_default_gateway", [](auto& p) { p.gatewayResult = -1; }, kUtil,
         "Network Disconnect : connection_profile_check_default_gateway return fail : -1", true},
        {"connection_destroy", [](auto& p) { p.connectionDestroyResult = -1; }, kUtil,
         "Failed to destroy connection", true},
        {"wifi_manager_initialize", [](auto& p) { p.wifiResult = -1; }, kUtil,
         "wifi_initialize error : -1!!!", true},
        {"wifi_manager_get_connected_ap", [](auto& p) { p.apResult = -1; }, kUtil,
         "wifi_get_connected_ap error : -1!!!", true},
        {"wifi_manager_ap_get_rssi", [](auto& p) { p.rssiResult = -1; }, kUtil,
         "wifi_ap_get_rssi error : -1!!!", true},
        {"appcat_appinfo_destroy_appinfo", nullptr, "", nullptr, true},
        {"appcat_pkginfo_destroy_pkginfo", nullptr, "", nullptr, true},
        {"connection_unset_network_monitor_cb", nullptr, "", nullptr, true},
        {"wifi_manager_deinitialize", nullptr, "", nullptr, true},
        {"wifi_manager_ap_destroy", nullptr, "", nullptr, true},
        {"logsvc_print", nullptr, "", nullptr, true},
    };
}

class CPlatformFaultTest : public CPipelineTest, public testing::WithParamInterface<Fault> {
  protected:
    CPlatformFaultTest() {
        m_Platform.connectionType = CONNECTION_TYPE_WIFI;
        if (GetParam().prepare != nullptr) {
            GetParam().prepare(m_Platform);
        } else {
            m_Platform.unheeded = GetParam().call;
        }
    }

    bool WasCalled() {
        // The double's journal has no room for the log.
        return GetParam().call == std::string("logsvc_print")
                   ? !m_Platform.Log().empty()
                   : m_Platform.Calls(GetParam().call) > 0;
    }

    /// The platform's handle stays where the platform does not take it back.
    void MakeCollectorThatMayKeepItsHandle() {
        std::optional<CUnfreedByDesign> unfreed;
        if (m_Platform.connectionDestroyResult != 0) {
            unfreed.emplace();
        }
        MakeCollector();
    }

    /// A session that uses every call of the platform.
    void PlayToTheEnd() {
        StartService();
        MakeCollectorThatMayKeepItsHandle();
        ASSERT_TRUE(WaitForLog(GetParam().arrives ? "Sender thread start done"
                                                  : "Analyzer join terminate"));
        SetContent();
        Event(TY_EVENT_START);
        Event(TY_EVENT_BUFFERING_START);
        m_pCollector.reset();
    }
};

TEST_P(CPlatformFaultTest, IsLoggedAndThePlayerGoesOn) {
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

INSTANTIATE_TEST_SUITE_P(Calls, CPlatformFaultTest, testing::ValuesIn(Faults()),
                         [](const auto& fault) { return std::string(fault.param.call); });

}  // namespace
