// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVERSTATE_H
#define TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVERSTATE_H

#include "receiver/Wire.h"

#include <gio/gio.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace receiver {

/// One call that arrived.
struct Call {
    std::string strFunction;    ///< value 0; empty when that is not a string
    std::vector<Value> values;  ///< the other values
    std::string strSignature;   ///< the D-Bus signature of the body
    std::string strSender;      ///< unique bus name
    std::string strProblem;     ///< what is malformed; empty for a valid call
};

/// One record that arrived.
struct ReceivedRecord {
    Record record;
    std::string strUrl;
    Bytes image;             ///< as received
    std::size_t nBatch = 0;  ///< counts from 0
    std::string strSender;   ///< unique bus name
};

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

/// Called with each call and its records once they are noted.
using Observer = std::function<void(const Call&, const std::vector<ReceivedRecord>&)>;

/// What a receiver has received and how it replies, without a bus. Copies share one state.
///
/// Threads: any; one lock guards everything. The observer runs without the lock, on the thread that
/// calls Take.
class CReceiverState {
  public:
    explicit CReceiverState(Observer observer);

    /// Notes one call and its records.
    /// @param pBody  the call's body; null is an empty one
    /// @return the reply; its kind is never Kind::ByRules
    Reply Take(GVariant* pBody, const std::string& strSender) const;
    /// Notes a problem outside of a call's body.
    void AddProblem(const std::string& strText) const;

    /// Sets the reply to calls of a function that arrive from now on.
    void SetReply(const std::string& strFunction, const Reply& reply) const;
    /// Sets the policy in regular replies to "GetPolicyInfo"; 1 until set.
    void SetPolicy(std::int32_t nPolicy) const;

    /// @return all calls in the order of arrival, including malformed ones
    std::vector<Call> Calls() const;
    /// @return the calls of one function in the order of arrival
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
    struct Shared;

    std::shared_ptr<Shared> m_p;
};

}  // namespace receiver

#endif  // TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVERSTATE_H
