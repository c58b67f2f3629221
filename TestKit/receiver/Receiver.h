// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_RECEIVER_RECEIVER_H
#define TALLYRA_TESTKIT_RECEIVER_RECEIVER_H

#include "receiver/Wire.h"

#include <gio/gio.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace receiver {

constexpr const char* kServiceName = "org.veltra.tv.tallyra.service";
constexpr const char* kServicePath = "/org/veltra/tv/tallyra/service";
constexpr const char* kInterface = "org.veltra.tv.tallyra.client";
constexpr const char* kMember = "TYCallFunction";

/// What the receiver does about a well-formed call.
struct Response {
    enum class Kind {
        REPLY,   ///< replies with the values
        SILENT,  ///< never replies
        LEAVE,   ///< leaves the bus, and does not reply
    };
    Kind kind = Kind::REPLY;
    std::vector<Value> values{};
    /// Before the reply. Needs a running main loop of GLib's default context.
    std::chrono::milliseconds delay{0};
};

/// @return a status, then the policy 1 for "GetPolicyInfo" or the acceptance for "SendData"
std::vector<Value> RegularReply(const Call& call);

/// A receiving service on a bus: owns the service's name, answers calls and keeps what arrives.
///
/// Threads: it serves on GDBus's worker thread; all operations may be called from any other thread.
class CReceiver {
  public:
    /// Called with each call and its records once they are noted, on GDBus's worker thread, until
    /// the receiver is destroyed. It must not call the receiver.
    using Observer = std::function<void(const Call&, const std::vector<ReceivedRecord>&)>;
    /// Decides on a call, after the observer and on the same terms.
    using Responder = std::function<Response(const Call&)>;

    /// Connects; owns no name yet.
    /// @throws std::runtime_error  when the bus cannot be reached
    /// @param responder  without one, all calls get the regular reply or that of SetReply. With
    ///                   one, no call, record or problem is kept: the receiver may serve for days
    explicit CReceiver(const std::string& strAddress, Observer observer = {},
                       Responder responder = {});
    /// Releases the name and disconnects.
    ~CReceiver();

    CReceiver(const CReceiver&) = delete;
    CReceiver& operator=(const CReceiver&) = delete;

    /// Takes the service's name.
    /// @throws std::runtime_error  when another connection owns it or the bus refuses
    void OwnName();
    /// Releases the service's name if this connection owns it.
    void ReleaseName();

    /// Sets the values of replies to calls of a function from now on; nullopt restores the regular
    /// reply. A malformed call always gets a D-Bus error.
    void SetReply(const std::string& strFunction, std::optional<std::vector<Value>> values);

    /// @return the calls of one function in the order of arrival, including malformed ones
    std::vector<Call> Calls(const std::string& strFunction) const;
    /// @return the records of all batches in the order of arrival, including refused batches
    std::vector<ReceivedRecord> Records() const;
    /// @return what was wrong with calls and records, in the order of arrival
    std::vector<std::string> Problems() const;

    /// @return whether at least `nCount` records arrived before the time was over
    bool WaitForRecords(std::size_t nCount, std::chrono::milliseconds within) const;
    /// @return whether at least `nCount` records of an event arrived before the time was over
    bool WaitForEvent(std::uint8_t event, std::size_t nCount,
                      std::chrono::milliseconds within) const;
    /// @return whether at least `nCount` calls of a function arrived before the time was over
    bool WaitForCalls(const std::string& strFunction, std::size_t nCount,
                      std::chrono::milliseconds within) const;

  private:
    struct State;

    static GDBusMessage* OnMessage(GDBusConnection* pConnection, GDBusMessage* pMessage,
                                   gboolean bIncoming, gpointer pState);
    guint32 CallBus(const char* pMethod, GVariant* pArguments) const;

    const std::shared_ptr<State> m_pState;
    GDBusConnection* m_pConnection = nullptr;
    guint m_nFilter = 0;
};

}  // namespace receiver

#endif  // TALLYRA_TESTKIT_RECEIVER_RECEIVER_H
