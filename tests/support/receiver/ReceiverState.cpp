// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "receiver/ReceiverState.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <utility>

namespace receiver {
namespace {

constexpr const char* kGetPolicyInfo = "GetPolicyInfo";
constexpr const char* kSendData = "SendData";
constexpr const char* kKick = "Kick";

Call ReadCall(GVariant* pBody, const std::string& strSender) {
    Body body = DecodeBody(pBody);
    Call call;
    call.strSender = strSender;
    call.strSignature = pBody == nullptr ? "()" : g_variant_get_type_string(pBody);
    call.strProblem = std::move(body.strProblem);
    if (!body.values.empty() && std::holds_alternative<std::string>(body.values.front())) {
        call.strFunction = std::get<std::string>(body.values.front());
        body.values.erase(body.values.begin());
    } else if (call.strProblem.empty()) {
        call.strProblem = "value 0 must be the name of a function";
    }
    call.values = std::move(body.values);
    return call;
}

bool IsOneString(const std::vector<Value>& values) {
    return values.size() == 1 && std::holds_alternative<std::string>(values.front());
}

std::string CheckArguments(const Call& call) {
    if (call.strFunction == kGetPolicyInfo) {
        return IsOneString(call.values) ? "" : "the only argument must be a string";
    }
    if (call.strFunction == kKick) {
        return IsOneString(call.values) && std::get<std::string>(call.values.front()) == kKick
                   ? ""
                   : "the only argument must be the string \"Kick\"";
    }
    return call.strFunction == kSendData ? "" : "unknown function";
}

std::vector<ReceivedRecord> ReadRecords(Call& call) {
    std::vector<ReceivedRecord> records;
    Batch batch = DecodeBatch(call.values);
    call.strProblem = batch.strProblem;
    for (std::size_t n = 0; call.strProblem.empty() && n < batch.images.size(); ++n) {
        Record record = DecodeRecord(batch.images[n]);
        if (!record.strProblem.empty()) {
            call.strProblem = "record " + std::to_string(n) + ": " + record.strProblem;
        }
        records.push_back({std::move(record), std::move(batch.urls[n]), std::move(batch.images[n]),
                           0, call.strSender});
    }
    return records;
}

Reply AnswerByRules(const Call& call, std::int32_t nPolicy) {
    if (!call.strProblem.empty()) {
        return Reply::WithError("org.freedesktop.DBus.Error.InvalidArgs", call.strProblem);
    }
    if (call.strFunction == kKick) {
        return Reply::WithValues({1});
    }
    return Reply::WithValues({1, call.strFunction == kGetPolicyInfo ? nPolicy : 1});
}

}  // namespace

struct CReceiverState::Shared {
    Observer observer;

    std::mutex mutex{};  // guards all below
    std::condition_variable changed{};
    std::vector<Call> calls{};
    std::vector<ReceivedRecord> records{};
    std::vector<std::string> problems{};
    std::size_t batches = 0;
    std::int32_t policy = 1;
    std::map<std::string, Reply> replies{};

    explicit Shared(Observer called) : observer(std::move(called)) {}

    void Note(const Call& call, std::vector<ReceivedRecord>& noted) {
        for (ReceivedRecord& record : noted) {
            record.nBatch = batches;
        }
        batches += call.strFunction == kSendData ? 1 : 0;
        calls.push_back(call);
        records.insert(records.end(), noted.begin(), noted.end());
        if (!call.strProblem.empty()) {
            problems.push_back(call.strFunction + " from " + call.strSender + ": " +
                               call.strProblem);
        }
        changed.notify_all();
    }

    template <class List>
    List Copy(const List& list) {
        const std::lock_guard lock(mutex);
        return list;
    }

    template <class List, class Condition>
    bool WaitFor(const List& list, Condition condition, std::size_t nCount,
                 std::chrono::milliseconds within) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, within, [&] {
            return std::ranges::count_if(list, condition) >= static_cast<std::ptrdiff_t>(nCount);
        });
    }
};

CReceiverState::CReceiverState(Observer observer)
    : m_p(std::make_shared<Shared>(std::move(observer))) {}

Reply CReceiverState::Take(GVariant* pBody, const std::string& strSender) const {
    Call call = ReadCall(pBody, strSender);
    std::vector<ReceivedRecord> records;
    if (call.strProblem.empty()) {
        call.strProblem = CheckArguments(call);
    }
    if (call.strProblem.empty() && call.strFunction == kSendData) {
        records = ReadRecords(call);
    }
    Reply reply;
    {
        const std::lock_guard lock(m_p->mutex);
        m_p->Note(call, records);
        reply = m_p->replies[call.strFunction];
        if (reply.kind == Reply::Kind::ByRules) {
            reply = AnswerByRules(call, m_p->policy).After(reply.delay);
        }
    }
    if (m_p->observer) {
        m_p->observer(call, records);
    }
    return reply;
}

void CReceiverState::AddProblem(const std::string& strText) const {
    const std::lock_guard lock(m_p->mutex);
    m_p->problems.push_back(strText);
}

void CReceiverState::SetPolicy(std::int32_t nPolicy) const {
    const std::lock_guard lock(m_p->mutex);
    m_p->policy = nPolicy;
}

void CReceiverState::SetReply(const std::string& strFunction, const Reply& reply) const {
    const std::lock_guard lock(m_p->mutex);
    m_p->replies[strFunction] = reply;
}

std::vector<Call> CReceiverState::Calls() const {
    return m_p->Copy(m_p->calls);
}

std::vector<Call> CReceiverState::Calls(const std::string& strFunction) const {
    std::vector<Call> calls = Calls();
    std::erase_if(calls, [&](const Call& call) { return call.strFunction != strFunction; });
    return calls;
}

std::vector<ReceivedRecord> CReceiverState::Records() const {
    return m_p->Copy(m_p->records);
}

std::vector<std::string> CReceiverState::Problems() const {
    return m_p->Copy(m_p->problems);
}

bool CReceiverState::WaitForRecords(std::size_t nCount, std::chrono::milliseconds within) const {
    return m_p->WaitFor(
        m_p->records, [](const auto&) { return true; }, nCount, within);
}

bool CReceiverState::WaitForEvent(std::uint8_t event, std::size_t nCount,
                                  std::chrono::milliseconds within) const {
    const auto isEvent = [&](const ReceivedRecord& one) { return one.record.event == event; };
    return m_p->WaitFor(m_p->records, isEvent, nCount, within);
}

bool CReceiverState::WaitForCalls(const std::string& strFunction, std::size_t nCount,
                                  std::chrono::milliseconds within) const {
    const auto isOfFunction = [&](const Call& call) { return call.strFunction == strFunction; };
    return m_p->WaitFor(m_p->calls, isOfFunction, nCount, within);
}

}  // namespace receiver
