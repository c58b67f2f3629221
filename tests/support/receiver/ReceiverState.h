// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVERSTATE_H
#define TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVERSTATE_H

#include "receiver/Wire.h"

#include <gio/gio.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
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
    std::chrono::system_clock::time_point arrival;
};

/// One record that arrived.
struct ReceivedRecord {
    Record record;
    std::string strUrl;
    Bytes image;             ///< as received
    std::size_t nBatch = 0;  ///< counts from 0
    std::string strSender;   ///< unique bus name
    std::chrono::system_clock::time_point arrival;
};

/// A reply to calls of a function.
struct Reply {
    enum class Kind { ByRules, Body, Error, Never };

    Kind kind = Kind::ByRules;
    std::shared_ptr<GVariant> pBody;  ///< a tuple, for Kind::Body
    std::string strErrorName;         ///< for Kind::Error, as the text
    std::string strErrorText;
    std::chrono::milliseconds delay{0};

    /// The regular reply: a status, then the policy for "GetPolicyInfo" or the acceptance for
    /// "SendData". A malformed call gets a D-Bus error.
    static Reply ByRules() { return {}; }
    /// Any body.
    /// @param pBody  a tuple; sinks a floating reference
    static Reply WithBody(GVariant* pBody);
    /// The values as triples.
    static Reply WithValues(const std::vector<Value>& values);
    /// A D-Bus error.
    static Reply WithError(const std::string& strName, const std::string& strText);
    /// No reply: the caller times out.
    static Reply Never();

    /// @return the same reply, sent after a delay, which does not delay replies to other calls
    Reply After(std::chrono::milliseconds later) const;
};

/// Called with each call and its records once they are noted.
using Observer = std::function<void(const Call&, const std::vector<ReceivedRecord>&)>;

/// What a receiver has received and how it replies, without a bus.
///
/// Threads: any; one lock guards everything. The observer runs without the lock, on the thread that
/// calls Take.
class CReceiverState {
  public:
    explicit CReceiverState(Observer observer) : m_observer(std::move(observer)) {}

    /// Notes one call and its records.
    /// @param pBody  the call's body; null is an empty one
    /// @return the reply; its kind is never Kind::ByRules
    Reply Take(GVariant* pBody, const std::string& strSender);

    /// Notes a problem outside of a call's body.
    void AddProblem(const std::string& strText);

    void SetPolicy(std::int32_t nPolicy);
    void SetAccepted(std::int32_t nAccepted);
    void SetStatus(const std::string& strFunction, std::int32_t nStatus);
    void SetReply(const std::string& strFunction, const Reply& reply);

    std::vector<Call> Calls() const;
    std::vector<Call> Calls(const std::string& strFunction) const;
    std::vector<ReceivedRecord> Records() const;
    std::vector<std::string> Problems() const;

    bool WaitForRecords(std::size_t nCount, std::chrono::milliseconds within) const;
    bool WaitForEvent(std::uint8_t event, std::size_t nCount,
                      std::chrono::milliseconds within) const;
    bool WaitForCalls(const std::string& strFunction, std::size_t nCount,
                      std::chrono::milliseconds within) const;

  private:
    void Note(const Call& call, std::vector<ReceivedRecord>& records);
    Reply AnswerByRules(const Call& call) const;

    const Observer m_observer;

    mutable std::mutex m_mutex;  // guards all below
    mutable std::condition_variable m_changed;
    std::vector<Call> m_calls;
    std::vector<ReceivedRecord> m_records;
    std::vector<std::string> m_problems;
    std::size_t m_nBatches = 0;
    std::int32_t m_nPolicy = 1;
    std::int32_t m_nAccepted = 1;
    std::map<std::string, std::int32_t> m_statuses;
    std::map<std::string, Reply> m_replies;
};

}  // namespace receiver

#endif  // TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVERSTATE_H
