// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "receiver/ReceiverState.h"

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
        call.strProblem = "value 0 has to be the name of a function";
    }
    call.values = std::move(body.values);
    return call;
}

bool IsOneText(const std::vector<Value>& values) {
    return values.size() == 1 && std::holds_alternative<std::string>(values.front());
}

std::string CheckArguments(const Call& call) {
    if (call.strFunction == kGetPolicyInfo) {
        return IsOneText(call.values) ? "" : "the only argument has to be a text";
    }
    if (call.strFunction == kKick) {
        return IsOneText(call.values) && std::get<std::string>(call.values.front()) == kKick
                   ? ""
                   : "the only argument has to be the text \"Kick\"";
    }
    return call.strFunction == kSendData ? "" : "there is no such function";
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
        if (call.strFunction == kSendData) {
            const std::size_t nBatch = m_nBatches++;
            for (ReceivedRecord& record : records) {
                record.nBatch = nBatch;
            }
        }
        Note(call, records);
        const auto planned = m_replies.find(call.strFunction);
        reply = planned == m_replies.end() ? Reply::ByRules() : planned->second;
        if (reply.kind == Reply::Kind::ByRules) {
            reply = AnswerByRules(call).After(reply.delay);
        }
    }
    if (m_observer) {
        m_observer(call, records);
    }
    return reply;
}

void CReceiverState::Note(const Call& call, const std::vector<ReceivedRecord>& records) {
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
    m_changed.notify_all();
}

void CReceiverState::SetDisconnected() {
    const std::lock_guard lock(m_mutex);
    m_bDisconnected = true;
    m_changed.notify_all();
}

bool CReceiverState::IsDisconnected() const {
    const std::lock_guard lock(m_mutex);
    return m_bDisconnected;
}

bool CReceiverState::WaitForDisconnect(std::chrono::milliseconds within) const {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, within, [&] { return m_bDisconnected; });
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

std::vector<ReceivedRecord> CReceiverState::Records() const {
    const std::lock_guard lock(m_mutex);
    return m_records;
}

std::vector<std::string> CReceiverState::Problems() const {
    const std::lock_guard lock(m_mutex);
    return m_problems;
}

bool CReceiverState::WaitUntil(const Condition& condition, std::chrono::milliseconds within) const {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, within, [&] { return condition(m_calls, m_records); });
}

}  // namespace receiver
