// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_PROGRAMS_DAEMONFIXTURE_H
#define TALLYRA_TESTS_PROGRAMS_DAEMONFIXTURE_H

#include "AsUser.h"
#include "PrivateBus.h"
#include "ServiceProcess.h"
#include "StoreFixture.h"
#include "TYRecordImage.h"
#include "receiver/Receiver.h"

/// Where a method call goes.
struct Method {
    const char* pMember = receiver::kMember;
    const char* pPath = receiver::kServicePath;
    const char* pInterface = receiver::kInterface;
    const char* pDestination = receiver::kServiceName;
};

/// @return a method of the bus itself
constexpr Method OfTheBus(const char* pMember) {
    return {pMember, "/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus"};
}

using Values = std::vector<receiver::Value>;

/// A caller on the bus, over GDBus, which shares no code with the service.
class CCaller {
  public:
    /// Connects, as another user if the process is root's.
    // The bus takes the credentials of the process at the time of connecting.
    explicit CCaller(const std::string& address, uid_t user = geteuid()) {
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
    ~CCaller() { g_object_unref(m_pConnection); }
    CCaller(const CCaller&) = delete;
    CCaller& operator=(const CCaller&) = delete;

    /// Calls a method without starting its service, unless told to.
    /// @return the reply in GVariant's text format, or the name of the error
    std::string Call(GVariant* pBody, const Method& method = {},
                     GDBusCallFlags flags = G_DBUS_CALL_FLAGS_NO_AUTO_START) {
        GError* pError = nullptr;
        GVariant* pReply = g_dbus_connection_call_sync(
            m_pConnection, method.pDestination, method.pPath, method.pInterface, method.pMember,
            pBody, nullptr, flags, kCallTimeoutMs, nullptr, &pError);
        return TextOf(pReply, pError);
    }
    std::string Call(const Values& values) { return Call(receiver::EncodeBody(values)); }
    std::string Kick(const Method& method = {},
                     GDBusCallFlags flags = G_DBUS_CALL_FLAGS_NO_AUTO_START) {
        return Call(receiver::EncodeBody({"Kick", "Kick"}), method, flags);
    }
    /// @return whether the service's name has an owner
    bool IsServiceOwned() {
        return Call(g_variant_new("(s)", receiver::kServiceName), OfTheBus("NameHasOwner")) ==
               "(true,)";
    }
    /// Sends a call; wants no reply unless it is told what to do with it.
    void Send(const Values& values, GAsyncReadyCallback onAnswer = nullptr) {
        const Method method;
        g_dbus_connection_call(m_pConnection, method.pDestination, method.pPath, method.pInterface,
                               method.pMember, receiver::EncodeBody(values), nullptr,
                               G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs, nullptr, onAnswer,
                               this);
    }
    /// Sends a call without waiting for its reply.
    void Begin(const Values& values) {
        ++m_nBegun;
        Send(values, &OnAnswer);
    }
    /// Waits for the replies to all calls begun.
    /// @return the number of replies with this text
    std::ptrdiff_t CountAnswers(const std::string& text) {
        while (m_Answers.size() < m_nBegun) {
            g_main_context_iteration(nullptr, TRUE);
        }
        return std::ranges::count(m_Answers, text);
    }
    /// Waits until the bus has forwarded everything sent before.
    void WaitForTheBus() { Call(nullptr, OfTheBus("GetId")); }

    std::string Name() const { return g_dbus_connection_get_unique_name(m_pConnection); }

  private:
    static constexpr int kCallTimeoutMs = 20'000;

    static std::string TextOf(GVariant* pReply, GError* pError) {
        using Text = std::unique_ptr<char, decltype(&g_free)>;
        if (pReply == nullptr) {
            const Text pName(g_dbus_error_get_remote_error(pError), g_free);
            std::string name = pName != nullptr ? pName.get() : pError->message;
            g_error_free(pError);
            return name;
        }
        const Text pText(g_variant_print(pReply, FALSE), g_free);
        g_variant_unref(pReply);
        return pText.get();
    }
    static void OnAnswer(GObject* pSource, GAsyncResult* pResult, gpointer pUserData) {
        GError* pError = nullptr;
        GVariant* pReply =
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(pSource), pResult, &pError);
        static_cast<CCaller*>(pUserData)->m_Answers.push_back(TextOf(pReply, pError));
    }

    GDBusConnection* m_pConnection = nullptr;
    std::size_t m_nBegun = 0;
    std::vector<std::string> m_Answers;
};

/// @return the arguments of SendData with one record for each code
inline Values MakeCall(const std::string& playback, const std::vector<int>& codes) {
    Values values = {"SendData"};
    for (const int code : codes) {
        const TYMediaData record = MakeRecord(code, playback);
        const std::string_view image = ImageOf(record);
        values.emplace_back(receiver::Bytes(image.begin(), image.end()));
    }
    values.insert(values.end(), codes.size(), "film.mp4");
    return values;
}

constexpr const char* kAlive = "(0, 0, 1)";  ///< the reply to Kick
constexpr const char* kAccepted = "(0, 0, 1, 1, 0, 1)";
constexpr const char* kRefused = "(0, 0, 0)";
constexpr const char* kRefusedBatch = "(0, 0, 1, 1, 0, 0)";

/// A bus, the service's program, its file and a caller, all real.
class CDaemonTest : public CStoreTest {
  protected:
    /// Starts the service and waits until it is ready.
    void Start(const std::vector<std::string>& more = {}) { StartOn(m_File, more); }
    void StartOn(const std::string& file, std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"--db", file});
        m_Environment.insert(m_Environment.end(), {"LOGSVC_OUTPUT=stderr", "LOGSVC_LEVEL=info"});
        m_pDaemon = std::make_unique<CServiceProcess>(
            TALLYRA_SERVICE, m_Bus.Address(), more,
            ChildOptions{.environment = m_Environment, .error = m_Folder.Path() / "log"});
        m_pDaemon->WaitUntilReady();
    }
    /// @return what the service has logged since its start
    std::string Log() const { return m_Folder.Read("log"); }
    /// @return whether the service logs the text, within the patience
    bool Logs(const std::string& text) const {
        return Eventually([&] { return Log().find(text) != std::string::npos; });
    }

    std::vector<std::string> m_Environment;  ///< of the service
    CPrivateBus m_Bus;
    std::unique_ptr<CServiceProcess> m_pDaemon;
    CCaller m_Caller{m_Bus.Address()};
};

#endif  // TALLYRA_TESTS_PROGRAMS_DAEMONFIXTURE_H
