// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_TESTPLATFORM_STATE_H
#define TALLYRA_TESTKIT_TESTPLATFORM_STATE_H

#include "Callbacks.h"

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

/// The functions that can be counted and made to fail.
inline constexpr std::array<std::string_view, 21> kFunctions = {
    "logsvc_print",
    "regdb_get_bool",
    "regdb_notify_key_changed",
    "regdb_ignore_key_changed",
    "appcat_appinfo_get_usr_appinfo",
    "appcat_appinfo_get_pkgid",
    "appcat_appinfo_destroy_appinfo",
    "appcat_pkginfo_get_pkginfo",
    "appcat_pkginfo_get_version",
    "appcat_pkginfo_destroy_pkginfo",
    "connection_create",
    "connection_destroy",
    "connection_set_network_monitor_cb",
    "connection_unset_network_monitor_cb",
    "connection_get_type",
    "connection_profile_check_default_gateway",
    "wifi_manager_initialize",
    "wifi_manager_deinitialize",
    "wifi_manager_get_connected_ap",
    "wifi_manager_ap_get_rssi",
    "wifi_manager_ap_destroy"};

/// Which calls of a function fail.
struct Failure {
    unsigned nth = 0;  ///< how many calls until the one that fails, with it; 0 for all
    int error = 0;     ///< 0: none
};

/// What the platform answers.
struct Answers {
    std::map<std::string, int> keys;
    int network;
    bool gateway;
    int rssi;
    std::map<std::string, std::optional<std::string>> versions{};
    std::optional<std::string> otherVersion;  ///< of applications that are not in `versions`
    std::array<Failure, kFunctions.size()> failures{};
};

struct LogLine {
    int buffer;
    int priority;
    std::string tag;
    std::string text;
};

/// The state of the platform in one process.
///
/// Threads: any. The mutex guards all members but the two CCallbacks, which guard themselves and
/// are entered with the mutex held only to report, so that reports keep the order of the changes.
class CTestPlatform {
  public:
    CTestPlatform();
    static CTestPlatform& Instance();

    void Reset();

    /// Counts a call. @return the error that it has to return; 0 if it works
    int Begin(std::string_view function);
    /// @return whether there is such a function
    bool Fail(std::string_view function, Failure failure);
    /// @return the number of calls; -1 if there is no such function
    long Calls(std::string_view function);

    void SetKey(const std::string& key, std::optional<int> value);
    std::optional<int> Key(const std::string& key);
    void SetNetwork(int type);
    void SetGateway(bool connected);
    int Network();
    bool Gateway();
    void SetRssi(int dbm);
    int Rssi();
    /// @param app  empty for all that have no version of their own
    void SetVersion(const std::string& app, std::optional<std::string> version);
    std::optional<std::string> Version(const std::string& app);

    void Keep(LogLine line);
    std::size_t Lines();
    /// @return null if there is no such line; valid until Reset
    const LogLine* Line(std::size_t index);
    /// @return its number; nothing if it did not come in time
    std::optional<std::size_t> AwaitLine(std::string_view part, std::size_t first,
                                         std::chrono::milliseconds time);

    CCallbacks& Settings() { return m_Settings; }
    CCallbacks& Monitors() { return m_Monitors; }

  private:
    const Answers m_Initial;
    std::FILE* const m_pLogFile;  ///< null, or open as long as the process

    std::mutex m_Mutex;
    std::condition_variable m_Logged;
    Answers m_Answers = m_Initial;
    std::array<long, kFunctions.size()> m_Calls{};
    std::deque<LogLine> m_Log;  // a deque, so that lines stay where they are

    CCallbacks m_Settings;
    CCallbacks m_Monitors;
};

#endif  // TALLYRA_TESTKIT_TESTPLATFORM_STATE_H
