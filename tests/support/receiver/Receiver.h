// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVER_H
#define TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVER_H

#include "receiver/Wire.h"

#include <gio/gio.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace receiver {

constexpr const char* kServiceName = "org.veltra.tv.tallyra.service";
constexpr const char* kServicePath = "/org/veltra/tv/tallyra/service";
constexpr const char* kInterface = "org.veltra.tv.tallyra.client";
constexpr const char* kMember = "TYCallFunction";

/// A reply to calls of a function.
struct Reply {
    enum class Kind { ByRules, Body, Error, Never };

    Kind kind = Kind::ByRules;
    std::shared_ptr<GVariant> pBody = nullptr;  ///< a tuple, for Kind::Body
    std::string strErrorName{};                 ///< for Kind::Error, as the text
    std::string strErrorText{};
    std::chrono::milliseconds delay{0};

    /// The regular reply: a status, then the policy for "GetPolicyInfo" or the acceptance for
    /// "SendData". A malformed call gets a D-Bus error.
    static Reply ByRules() { return {}; }
    /// Any body.
    /// @param pBody  a tuple; sinks a floating reference
    static Reply WithBody(GVariant* pBody) {
        return {Kind::Body, {g_variant_ref_sink(pBody), g_variant_unref}};
    }
    /// The values as triples.
    static Reply WithValues(const std::vector<Value>& values) {
        return WithBody(EncodeBody(values));
    }
    /// A D-Bus error.
    static Reply WithError(const std::string& strName, const std::string& strText) {
        return {Kind::Error, nullptr, strName, strText};
    }
    /// No reply: the caller times out.
    static Reply Never() { return {Kind::Never}; }

    /// @return the same reply, sent after a delay, which does not delay replies to other calls
    Reply After(std::chrono::milliseconds later) const {
        Reply reply = *this;
        reply.delay = later;
        return reply;
    }
};

/// A receiving service on a bus: owns the service's name, answers calls and keeps what arrives.
///
/// Threads: it serves on GDBus's worker thread; all operations may be called from any other thread.
class CReceiver {
  public:
    /// Called with each call and its records once they are noted, on GDBus's worker thread, until
    /// the receiver is destroyed. It must not call the receiver.
    using Observer = std::function<void(const Call&, const std::vector<ReceivedRecord>&)>;

    /// Connects; owns no name yet.
    /// @throws std::runtime_error  when the bus cannot be reached
    explicit CReceiver(const std::string& strAddress, Observer observer = {});
    /// Releases the name and disconnects. Delayed replies that are not due yet are not sent.
    ~CReceiver();

    CReceiver(const CReceiver&) = delete;
    CReceiver& operator=(const CReceiver&) = delete;

    /// Takes the service's name.
    /// @throws std::runtime_error  when another connection owns it or the bus refuses
    void OwnName();
    /// Releases the service's name if this connection owns it.
    void ReleaseName();

    /// Sets the reply to calls of a function that arrive from now on.
    void SetReply(const std::string& strFunction, const Reply& reply);
    /// Sets the policy in regular replies to "GetPolicyInfo"; 1 until set.
    void SetPolicy(std::int32_t nPolicy);

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

#endif  // TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVER_H
