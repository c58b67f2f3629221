// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "receiver/ReceiverState.h"

#include <algorithm>
#include <utility>

namespace receiver {
namespace {

constexpr const char* kGetPolicyInfo = "GetPolicyInfo";
constexpr const char* kSendData = "SendData";
constexpr const char* kKick = "Kick";

Call ReadCall(GVariant* pBody, const std::string& strSender) {
    Body body = DecodeBody(pBody);
    Call call;
    call.arrival = std::chrono::system_clock::now();
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
                           0, call.strSender, call.arrival});
    }
    return records;
}

}  // namespace

Reply Reply::WithBody(GVariant* pBody) {
    Reply reply;
    reply.kind = Kind::Body;
    reply.pBody = std::shared_ptr<GVariant>(g_variant_ref_sink(pBody), g_variant_unref);
    return reply;
}

Reply Reply::WithValues(const std::vector<Value>& values) {
    return WithBody(EncodeBody(values));
}

Reply Reply::WithError(const std::string& strName, const std::string& strText) {
    Reply reply;
    reply.kind = Kind::Error;
    reply.strErrorName = strName;
    reply.strErrorText = strText;
    return reply;
}

Reply Reply::Never() {
    Reply reply;
    reply.kind = Kind::Never;
    return reply;
}

Reply Reply::After(std::chrono::milliseconds later) const {
    Reply reply = *this;
    reply.delay = later;
    return reply;
}

Reply CReceiverState::Take(GVariant* pBody, const std::string& strSender) {
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
        const std::lock_guard lock(m_mutex);
        Note(call, records);
        reply = m_replies[call.strFunction];
        if (reply.kind == Reply::Kind::ByRules) {
            reply = AnswerByRules(call).After(reply.delay);
        }
    }
    if (m_observer) {
        m_observer(call, records);
    }
    return reply;
}

void CReceiverState::Note(const Call& call, std::vector<ReceivedRecord>& records) {
    if (call.strFunction == kSendData) {
        for (ReceivedRecord& record : records) {
            record.nBatch = m_nBatches;
        }
        ++m_nBatches;
    }
    m_calls.push_back(call);
    m_records.insert(m_records.end(), records.begin(), records.end());
    if (!call.strProblem.empty()) {
        m_problems.push_back(call.strFunction + " from " + call.strSender + ": " + call.strProblem);
    }
    m_changed.notify_all();
}

Reply CReceiverState::AnswerByRules(const Call& call) const {
    if (!call.strProblem.empty()) {
        return Reply::WithError("org.freedesktop.DBus.Error.InvalidArgs", call.strProblem);
    }
    const auto status = m_statuses.find(call.strFunction);
    std::vector<Value> values = {status == m_statuses.end() ? 1 : status->second};
    if (call.strFunction == kGetPolicyInfo) {
        values.emplace_back(m_nPolicy);
    } else if (call.strFunction == kSendData) {
        values.emplace_back(m_nAccepted);
    }
    return Reply::WithValues(values);
}

void CReceiverState::AddProblem(const std::string& strText) {
    const std::lock_guard lock(m_mutex);
    m_problems.push_back(strText);
}

void CReceiverState::SetPolicy(std::int32_t nPolicy) {
    const std::lock_guard lock(m_mutex);
    m_nPolicy = nPolicy;
}

void CReceiverState::SetAccepted(std::int32_t nAccepted) {
    const std::lock_guard lock(m_mutex);
    m_nAccepted = nAccepted;
}

void CReceiverState::SetStatus(const std::string& strFunction, std::int32_t nStatus) {
    const std::lock_guard lock(m_mutex);
    m_statuses[strFunction] = nStatus;
}

void CReceiverState::SetReply(const std::string& strFunction, const Reply& reply) {
    const std::lock_guard lock(m_mutex);
    m_replies[strFunction] = reply;
}

std::vector<Call> CReceiverState::Calls() const {
    const std::lock_guard lock(m_mutex);
    return m_calls;
}

std::vector<Call> CReceiverState::Calls(const std::string& strFunction) const {
    std::vector<Call> calls = Calls();
    std::erase_if(calls, [&](const Call& call) { return call.strFunction != strFunction; });
    return calls;
}

std::vector<ReceivedRecord> CReceiverState::Records() const {
    const std::lock_guard lock(m_mutex);
    return m_records;
}

std::vector<std::string> CReceiverState::Problems() const {
    const std::lock_guard lock(m_mutex);
    return m_problems;
}

bool CReceiverState::WaitForRecords(std::size_t nCount, std::chrono::milliseconds within) const {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, within, [&] { return m_records.size() >= nCount; });
}

bool CReceiverState::WaitForEvent(std::uint8_t event, std::size_t nCount,
                                  std::chrono::milliseconds within) const {
    const auto hasEvent = [&](const ReceivedRecord& one) { return one.record.event == event; };
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, within, [&] {
        return std::ranges::count_if(m_records, hasEvent) >= static_cast<std::ptrdiff_t>(nCount);
    });
}

bool CReceiverState::WaitForCalls(const std::string& strFunction, std::size_t nCount,
                                  std::chrono::milliseconds within) const {
    const auto isOfFunction = [&](const Call& call) { return call.strFunction == strFunction; };
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, within, [&] {
        return std::ranges::count_if(m_calls, isOfFunction) >= static_cast<std::ptrdiff_t>(nCount);
    });
}

}  // namespace receiver
