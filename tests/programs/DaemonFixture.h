// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_PROGRAMS_DAEMONFIXTURE_H
#define TALLYRA_TESTS_PROGRAMS_DAEMONFIXTURE_H

#include "AsUser.h"
#include "PrivateBus.h"
#include "ServiceProcess.h"
#include "StoreFixture.h"
#include "receiver/Wire.h"

#include <gio/gio.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

constexpr const char* kServiceName = "org.veltra.tv.tallyra.service";

/// Where a method call goes.
struct Method {
    const char* pMember = "TYCallFunction";
    const char* pPath = "/org/veltra/tv/tallyra/service";
    const char* pInterface = "org.veltra.tv.tallyra.client";
    const char* pDestination = kServiceName;
};

/// @return a method of the bus itself
constexpr Method OfTheBus(const char* pMember) {
    return {pMember, "/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus"};
}

/// A caller on the bus, over GDBus, which shares no code with the service.
class CCaller {
  public:
    /// Connects, as another user if the process is root's.
    explicit CCaller(const std::string& address, uid_t user = geteuid());
    ~CCaller() { g_object_unref(m_pConnection); }
    CCaller(const CCaller&) = delete;
    CCaller& operator=(const CCaller&) = delete;

    /// Calls a method without starting its service, unless told to.
    /// @return the reply in GVariant's text format, or the name of the error
    std::string Call(GVariant* pBody, const Method& method = {},
                     GDBusCallFlags flags = G_DBUS_CALL_FLAGS_NO_AUTO_START);
    std::string Call(const std::vector<receiver::Value>& values) {
        return Call(receiver::EncodeBody(values));
    }
    std::string Kick(const Method& method = {}) {
        return Call(receiver::EncodeBody({"Kick", "Kick"}), method);
    }
    /// @return whether the service's name has an owner
    bool IsServiceOwned() {
        return Call(g_variant_new("(s)", kServiceName), OfTheBus("NameHasOwner")) == "(true,)";
    }
    /// Sends a call without waiting for its reply.
    void Begin(const std::vector<receiver::Value>& values);
    /// Sends a call that wants no reply.
    void Send(const std::vector<receiver::Value>& values);
    /// Waits for the replies to all calls begun.
    /// @return the number of replies with this text
    std::size_t CountAnswers(const std::string& text);
    /// Waits until the bus has forwarded everything sent before.
    void WaitForTheBus();

    std::string Name() const { return g_dbus_connection_get_unique_name(m_pConnection); }

  private:
    static void OnAnswer(GObject* pSource, GAsyncResult* pResult, gpointer pUserData);

    GDBusConnection* m_pConnection = nullptr;
    std::size_t m_nBegun = 0;
    std::vector<std::string> m_Answers;
};

/// @return the arguments of SendData with one record for each code
std::vector<receiver::Value> MakeCall(const std::string& playback, const std::vector<int>& codes);

constexpr const char* kAlive = "(0, 0, 1)";  ///< the reply to Kick
constexpr const char* kAccepted = "(0, 0, 1, 1, 0, 1)";
constexpr const char* kRefused = "(0, 0, 0)";
constexpr const char* kRefusedBatch = "(0, 0, 1, 1, 0, 0)";

/// A bus, the service's program, its file and a caller, all real.
class CDaemonTest : public CStoreTest {
  protected:
    /// Starts the service and waits until it is ready.
    void Start(const std::vector<std::string>& more = {}) { StartOn(m_File, more); }
    void StartOn(const std::string& file, const std::vector<std::string>& more = {});
    /// @return what the service has logged since its start
    std::string Log() const { return m_Folder.Read("log"); }
    /// @return whether the service logs the text `count` times, within the patience
    bool Logs(const std::string& text, std::size_t count = 1) const;

    CPrivateBus m_Bus;
    std::unique_ptr<CServiceProcess> m_pDaemon;
    CCaller m_Caller{m_Bus.Address()};
};

#endif  // TALLYRA_TESTS_PROGRAMS_DAEMONFIXTURE_H
