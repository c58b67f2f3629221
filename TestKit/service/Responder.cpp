// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Responder.h"

#include <algorithm>
#include <array>

namespace {

using receiver::Call;
using receiver::Response;
using receiver::Value;

constexpr const char* kBatch = "SendData";
constexpr const char* kPolicy = "GetPolicyInfo";

// In turn: nothing, no status, a value too many, and a text for the answer.
const std::array<std::vector<Value>, 4> kMalformed = {
    std::vector<Value>{}, {"status"}, {1, 1, 1}, {1, "answer"}};

}  // namespace

Response CResponder::Answer(const Call& call) {
    Response response{.values = receiver::RegularReply(call)};
    if (call.strFunction == kPolicy && IsRefused(std::get<std::string>(call.values.front()))) {
        response.values = {1, 0};
    }
    const bool misbehaves = Misbehaves(call);
    m_nBatches += call.strFunction == kBatch ? 1 : 0;
    if (!misbehaves) {
        return response;
    }
    if (m_What.refuse && call.strFunction == kBatch) {
        response.values = {1, 0};
    }
    if (m_What.malformed) {
        response.values = kMalformed.at(m_nMalformed++ % kMalformed.size());
    }
    response.kind = m_What.gone     ? Response::Kind::LEAVE
                    : m_What.silent ? Response::Kind::SILENT
                                    : Response::Kind::REPLY;
    response.delay = std::chrono::milliseconds(m_What.slowMs);
    return response;
}

bool CResponder::Misbehaves(const Call& call) const {
    if (m_nBatches < m_What.after) {
        return false;
    }
    switch (m_What.on) {
        case Calls::BATCHES:
            return call.strFunction == kBatch;
        case Calls::POLICY:
            return call.strFunction == kPolicy;
        case Calls::ALL:
            return true;
    }
    return false;
}

bool CResponder::IsRefused(const std::string& application) const {
    return std::ranges::any_of(m_What.refusedApplications, [&](const std::string& refused) {
        return refused == "*" || refused == application;
    });
}
