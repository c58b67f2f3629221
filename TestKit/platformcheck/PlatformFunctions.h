// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_PLATFORMFUNCTIONS_H
#define TALLYRA_TESTKIT_PLATFORMFUNCTIONS_H

#include "Progress.h"

#include "appcat.h"
#include "connection.h"
#include "logsvc.h"
#include "regdb.h"
#include "wifi_manager.h"

#include <string>
#include <vector>

/// A function of the platform. A call of a function that is missing ends the check as not tried.
///
/// Threads: any.
template <class Function>
class CPlatformFunction {
  public:
    explicit CPlatformFunction(const char* pName) : m_pName(pName) {}

    const char* Name() const { return m_pName; }
    bool IsThere() const { return m_pFunction != nullptr; }
    void Find(CProgress& progress, void* pSymbol) {
        m_pProgress = &progress;
        m_pFunction = reinterpret_cast<Function*>(pSymbol);
    }

    template <class... Arguments>
    int operator()(Arguments... arguments) const {
        if (m_pFunction == nullptr) {
            m_pProgress->End(Verdict::NOT_TRIED, std::string(m_pName) + " is missing");
        }
        const CProgress::CMark mark(*m_pProgress, m_pName);
        return Call(m_pFunction, arguments...);
    }

  private:
    // A function of C that throws ends the process, with the mark above.
    template <class... Arguments>
    static int Call(Function* pFunction, Arguments... arguments) noexcept {
        return pFunction(arguments...);
    }

    const char* const m_pName;
    CProgress* m_pProgress = nullptr;
    Function* m_pFunction = nullptr;
};

// The functions that the library calls, by header.
#define TALLYRA_LOGSVC_FUNCTIONS(X) X(logsvc_print)
#define TALLYRA_REGDB_FUNCTIONS(X) \
    X(regdb_get_bool)              \
    X(regdb_notify_key_changed)    \
    X(regdb_ignore_key_changed)
#define TALLYRA_APPCAT_FUNCTIONS(X)   \
    X(appcat_appinfo_get_usr_appinfo) \
    X(appcat_appinfo_get_pkgid)       \
    X(appcat_appinfo_destroy_appinfo) \
    X(appcat_pkginfo_get_pkginfo)     \
    X(appcat_pkginfo_get_version)     \
    X(appcat_pkginfo_destroy_pkginfo)
#define TALLYRA_CONNECTION_FUNCTIONS(X)    \
    X(connection_create)                   \
    X(connection_destroy)                  \
    X(connection_set_network_monitor_cb)   \
    X(connection_unset_network_monitor_cb) \
    X(connection_get_type)                 \
    X(connection_profile_check_default_gateway)
#define TALLYRA_WIFI_FUNCTIONS(X)    \
    X(wifi_manager_initialize)       \
    X(wifi_manager_deinitialize)     \
    X(wifi_manager_get_connected_ap) \
    X(wifi_manager_ap_get_rssi)      \
    X(wifi_manager_ap_destroy)

/// The 21 functions of the platform.
struct PlatformFunctions {
    // Spelled out, since the attribute of its declaration cannot be part of a template argument.
    CPlatformFunction<int(int, int, const char*, const char*, ...)> logsvc_print{"logsvc_print"};
// NOLINTNEXTLINE(bugprone-macro-parentheses): a member's name takes none
#define TALLYRA_MEMBER(name) CPlatformFunction<decltype(::name)> name{#name};
    TALLYRA_REGDB_FUNCTIONS(TALLYRA_MEMBER)
    TALLYRA_APPCAT_FUNCTIONS(TALLYRA_MEMBER)
    TALLYRA_CONNECTION_FUNCTIONS(TALLYRA_MEMBER)
    TALLYRA_WIFI_FUNCTIONS(TALLYRA_MEMBER)
#undef TALLYRA_MEMBER

    /// Loads the libraries in this order and looks the functions up in them. Ends the check if a
    /// library cannot be loaded.
    void Load(CProgress& progress, const std::vector<std::string>& libraries);
};

#endif  // TALLYRA_TESTKIT_PLATFORMFUNCTIONS_H
