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
    std::string strFunction;    ///< value 0; empty when that is no text
    std::vector<Value> values;  ///< the arguments behind it
    std::string strSignature;   ///< the D-Bus signature of the body
    std::string strSender;      ///< unique bus name
    std::string strProblem;     ///< what is wrong with it; empty when nothing is
    std::chrono::system_clock::time_point arrival;
};

/// One record that arrived.
struct ReceivedRecord {
    Record record;
    std::string strUrl;
    Bytes image;             ///< as it travelled
    std::size_t nBatch = 0;  ///< counts from 0
    std::string strSender;   ///< unique bus name
    std::chrono::system_clock::time_point arrival;
};

/// How a function is answered.
struct Reply {
    enum class Kind { ByRules, Body, Error, Never };

    Kind kind = Kind::ByRules;
    std::shared_ptr<GVariant> pBody;  ///< a tuple, for Kind::Body
    std::string strErrorName;         ///< for Kind::Error, as the text
    std::string strErrorText;
    std::chrono::milliseconds delay{0};

    /// By the rules: a status, then the policy for "GetPolicyInfo" and the acceptance for
    /// "SendData". What is malformed is refused with a D-Bus error.
    static Reply ByRules() { return {}; }
    /// With any body.
    /// @param pBody  a tuple; a floating reference is taken over
    static Reply WithBody(GVariant* pBody);
    /// With the values as triples.
    static Reply WithValues(const std::vector<Value>& values);
    /// With a D-Bus error.
    static Reply WithError(const std::string& strName, const std::string& strText);
    /// Never. The caller waits for its timeout.
    static Reply Never();

    /// @return the same reply, sent so much later; calls that arrive meanwhile are not held up
    Reply After(std::chrono::milliseconds later) const;
};

/// Is told each call when it has been noted, with the records that came with it.
using Observer = std::function<void(const Call&, const std::vector<ReceivedRecord>&)>;

/// What a receiver has got and how it answers, without a bus.
///
/// Threads: all operations may be called from any thread; one lock guards everything. The observer
/// runs outside of it, on the thread that calls Take.
class CReceiverState {
  public:
    explicit CReceiverState(Observer observer) : m_observer(std::move(observer)) {}

    /// Notes one call and its records.
    /// @param pBody  the call's body; null stands for an empty one
    /// @return the answer; never of Kind::ByRules
    Reply Take(GVariant* pBody, const std::string& strSender);

    /// Notes that something else is wrong.
    void AddProblem(const std::string& strText);

    /// Notes that the bus is gone.
    void SetDisconnected();
    bool IsDisconnected() const;
    bool WaitForDisconnect(std::chrono::milliseconds within) const;

    void SetPolicy(std::int32_t nPolicy);
    void SetAccepted(std::int32_t nAccepted);
    void SetStatus(const std::string& strFunction, std::int32_t nStatus);
    void SetReply(const std::string& strFunction, const Reply& reply);

    std::vector<Call> Calls() const;
    std::vector<ReceivedRecord> Records() const;
    std::vector<std::string> Problems() const;

    /// Waits until a condition holds. It is asked under the lock after every change, so it must
    /// not call this object.
    /// @return whether it held in time
    using Condition =
        std::function<bool(const std::vector<Call>&, const std::vector<ReceivedRecord>&)>;
    bool WaitUntil(const Condition& condition, std::chrono::milliseconds within) const;

  private:
    void Note(const Call& call, const std::vector<ReceivedRecord>& records);
    Reply AnswerByRules(const Call& call) const;

    const Observer m_observer;

    mutable std::mutex m_mutex;  // guards all below
    mutable std::condition_variable m_changed;
    std::vector<Call> m_calls;
    std::vector<ReceivedRecord> m_records;
    std::vector<std::string> m_problems;
    std::size_t m_nBatches = 0;
    bool m_bDisconnected = false;
    std::int32_t m_nPolicy = 1;
    std::int32_t m_nAccepted = 1;
    std::map<std::string, std::int32_t> m_statuses;
    std::map<std::string, Reply> m_replies;
};

}  // namespace receiver

#endif  // TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVERSTATE_H
