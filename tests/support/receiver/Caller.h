// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_RECEIVER_CALLER_H
#define TALLYRA_TESTS_SUPPORT_RECEIVER_CALLER_H

#include "receiver/Receiver.h"

#include <string>

namespace receiver {

/// A caller on the bus over GDBus, which shares no code with the library or the service.
///
/// Threads: one.
class CCaller {
  public:
    /// Connects. Without a bus every call returns an error.
    explicit CCaller(const std::string& strAddress) : m_pConnection(Connect(strAddress)) {}

    /// Calls a method of the service.
    /// @param pBody  a tuple; sinks a floating reference
    /// @return the reply in GVariant's text form, or the text of the error
    std::string Call(GVariant* pBody, int nTimeoutMs = kTimeoutMs, const char* pMember = kMember,
                     const char* pPath = kServicePath, const char* pInterface = kInterface,
                     const char* pDestination = kServiceName) {
        GError* pError = nullptr;
        GVariant* pReply = g_dbus_connection_call_sync(
            m_pConnection.get(), pDestination, pPath, pInterface, pMember, pBody, nullptr,
            G_DBUS_CALL_FLAGS_NONE, nTimeoutMs, nullptr, &pError);
        return pReply == nullptr ? TakeError(pError) : TakeText(pReply);
    }
    /// @param pText  a tuple in GVariant's text form
    std::string Call(const char* pText, int nTimeoutMs = kTimeoutMs) {
        return Call(g_variant_new_parsed(pText), nTimeoutMs);
    }

    /// @return whether the bus itself replies
    bool ReachesBus(int nTimeoutMs = kTimeoutMs) {
        return m_pConnection != nullptr &&
               Call(static_cast<GVariant*>(nullptr), nTimeoutMs, "GetId", "/org/freedesktop/DBus",
                    "org.freedesktop.DBus", "org.freedesktop.DBus")
                   .starts_with("('");
    }

    std::string Name() const { return g_dbus_connection_get_unique_name(m_pConnection.get()); }

    /// @return the name of a D-Bus error, or the text of another one; frees it
    static std::string TakeError(GError* pError) {
        char* pName = g_dbus_error_get_remote_error(pError);
        std::string strName = pName != nullptr ? pName : pError->message;
        g_free(pName);
        g_error_free(pError);
        return strName;
    }
    /// @return the text form of a reply; frees it
    static std::string TakeText(GVariant* pReply) {
        char* pText = g_variant_print(pReply, FALSE);
        std::string strText = pText;
        g_free(pText);
        g_variant_unref(pReply);
        return strText;
    }

  private:
    static constexpr int kTimeoutMs = 20'000;

    const ConnectionPtr m_pConnection;
};

}  // namespace receiver

#endif  // TALLYRA_TESTS_SUPPORT_RECEIVER_CALLER_H
