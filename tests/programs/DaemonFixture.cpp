// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DaemonFixture.h"

#include "TYRecordImage.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

namespace {

constexpr int kCallTimeoutMs = 20'000;

std::string TextOf(GVariant* pReply, GError* pError) {
    if (pReply == nullptr) {
        char* pName = g_dbus_error_get_remote_error(pError);
        std::string name = pName != nullptr ? pName : pError->message;
        g_free(pName);
        g_error_free(pError);
        return name;
    }
    char* pText = g_variant_print(pReply, FALSE);
    std::string text = pText;
    g_free(pText);
    g_variant_unref(pReply);
    return text;
}

}  // namespace

// The bus takes the credentials of the process at the time of connecting.
CCaller::CCaller(const std::string& address, uid_t user) {
    const CAsUser as(user);
    m_pConnection = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    if (m_pConnection == nullptr) {
        throw std::runtime_error("cannot connect to " + address);
    }
}

std::string CCaller::Call(GVariant* pBody, const Method& method, GDBusCallFlags flags) {
    GError* pError = nullptr;
    GVariant* pReply = g_dbus_connection_call_sync(
        m_pConnection, method.pDestination, method.pPath, method.pInterface, method.pMember, pBody,
        nullptr, flags, kCallTimeoutMs, nullptr, &pError);
    return TextOf(pReply, pError);
}

void CCaller::Begin(const std::vector<receiver::Value>& values) {
    const Method method;
    ++m_nBegun;
    g_dbus_connection_call(m_pConnection, method.pDestination, method.pPath, method.pInterface,
                           method.pMember, receiver::EncodeBody(values), nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs, nullptr, &OnAnswer,
                           this);
}

void CCaller::Send(const std::vector<receiver::Value>& values) {
    const Method method;
    GDBusMessage* pMessage = g_dbus_message_new_method_call(method.pDestination, method.pPath,
                                                            method.pInterface, method.pMember);
    g_dbus_message_set_body(pMessage, receiver::EncodeBody(values));
    g_dbus_message_set_flags(pMessage, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    g_dbus_connection_send_message(m_pConnection, pMessage, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                   nullptr);
    g_object_unref(pMessage);
}

void CCaller::OnAnswer(GObject* pSource, GAsyncResult* pResult, gpointer pUserData) {
    GError* pError = nullptr;
    GVariant* pReply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(pSource), pResult, &pError);
    static_cast<CCaller*>(pUserData)->m_Answers.push_back(TextOf(pReply, pError));
}

std::size_t CCaller::CountAnswers(const std::string& text) {
    while (m_Answers.size() < m_nBegun) {
        g_main_context_iteration(nullptr, TRUE);
    }
    return static_cast<std::size_t>(std::count(m_Answers.begin(), m_Answers.end(), text));
}

void CCaller::WaitForTheBus() {
    g_dbus_connection_flush_sync(m_pConnection, nullptr, nullptr);
    Call(nullptr, OfTheBus("GetId"));
}

std::vector<receiver::Value> MakeCall(const std::string& playback, const std::vector<int>& codes) {
    std::vector<receiver::Value> values = {"SendData"};
    for (const int code : codes) {
        const TYMediaData record = MakeRecord(code, playback);
        const std::string_view image = ImageOf(record);
        values.emplace_back(receiver::Bytes(image.begin(), image.end()));
    }
    values.insert(values.end(), codes.size(), "film.mp4");
    return values;
}

void CDaemonTest::StartOn(const std::string& file, const std::vector<std::string>& more) {
    std::vector<std::string> arguments = {"--db", file};
    arguments.insert(arguments.end(), more.begin(), more.end());
    m_pDaemon = std::make_unique<CServiceProcess>(
        TALLYRA_SERVICE, m_Bus.Address(), arguments,
        ChildOptions{.environment = {"LOGSVC_OUTPUT=stderr", "LOGSVC_LEVEL=info"},
                     .error = m_Folder.Path() / "log"});
    ASSERT_TRUE(m_pDaemon->BecomesReady()) << Log();
}

bool CDaemonTest::Logs(const std::string& text, std::size_t count) const {
    return Eventually([&] {
        const std::string log = Log();
        std::size_t found = 0;
        for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            ++found;
        }
        return found >= count;
    });
}
