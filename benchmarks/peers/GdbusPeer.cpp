// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Peers.h"

#include <gio/gio.h>

namespace {

class CGdbusPeer : public IPeer {
  public:
    explicit CGdbusPeer(const std::string& address)
        : m_pConnection(g_dbus_connection_new_for_address_sync(
              address.c_str(),
              static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
              nullptr, nullptr, nullptr)) {
        if (m_pConnection == nullptr) {
            throw std::runtime_error("GDBus does not connect");
        }
    }
    ~CGdbusPeer() override {
        g_dbus_connection_close_sync(m_pConnection, nullptr, nullptr);
        g_object_unref(m_pConnection);
    }

    void Send() override {
        constexpr int kTimeoutMs = 20'000;
        GVariant* pImage = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, m_strRecord.data(),
                                                     m_strRecord.size(), 1);
        g_dbus_connection_call(
            m_pConnection, kServiceName, kServicePath, kServiceInterface, kServiceMethod,
            g_variant_new("(iisii@ayiis)", 0, kStringType, "SendData", 1, kBinaryType, pImage, 2,
                          kStringType, kUrl.c_str()),
            nullptr, G_DBUS_CALL_FLAGS_NONE, kTimeoutMs, nullptr, &OnAnswer, this);
        ++m_nSent;
    }

    // Every call is answered or times out.
    void Settle() override {
        while (m_nAnswered < m_nSent) {
            g_main_context_iteration(nullptr, TRUE);
        }
        CPlayer::NoteForeign(m_nTaken - std::exchange(m_nNoted, m_nTaken));
        if (m_nTaken != m_nSent) {
            throw std::runtime_error("the service did not accept every call of GDBus");
        }
    }

  private:
    static void OnAnswer(GObject* pConnection, GAsyncResult* pResult, gpointer pThis) {
        auto& self = *static_cast<CGdbusPeer*>(pThis);
        ++self.m_nAnswered;
        GVariant* pAnswer =
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(pConnection), pResult, nullptr);
        if (pAnswer != nullptr) {
            ++self.m_nTaken;
            g_variant_unref(pAnswer);
        }
    }

    GDBusConnection* m_pConnection;
    std::int64_t m_nAnswered = 0;
    std::int64_t m_nNoted = 0;
};

}  // namespace

std::unique_ptr<IPeer> MakeGdbusPeer(const CStage& stage) {
    return std::make_unique<CGdbusPeer>(stage.Bus().Address());
}
