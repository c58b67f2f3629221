// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "WireBus.h"

#include "Target.h"

#include <utility>

namespace {

constexpr std::size_t kMostRecords = 36;

void CheckAddress(const CFakeBus::Call& call) {
    Require(call.destination == "org.veltra.tv.tallyra.service" &&
                call.path == "/org/veltra/tv/tallyra/service" &&
                call.interface == "org.veltra.tv.tallyra.client" && call.member == "TYCallFunction",
            "every call goes to the service's method");
}

/// @return the payloads of a body's triples
CFakeBus::Arguments Payloads(const CFakeBus::Arguments& body) {
    CFakeBus::Arguments payloads;
    Require(body.size() % 3 == 0, "a body is made of triples");
    for (std::size_t i = 0; i < body.size(); i += 3) {
        const auto* pIndex = std::get_if<std::int32_t>(&body[i]);
        const auto* pType = std::get_if<std::int32_t>(&body[i + 1]);
        Require(pIndex != nullptr && *pIndex == static_cast<std::int32_t>(i / 3),
                "indices run through");
        Require(pType != nullptr && *pType == static_cast<std::int32_t>(body[i + 2].index()),
                "a type is that of its payload");
        payloads.push_back(body[i + 2]);
    }
    return payloads;
}

void AppendRecords(const CFakeBus::Arguments& payloads, std::vector<model::Record>& records) {
    const std::size_t count = (payloads.size() - 1) / 2;
    Require(payloads.size() % 2 == 1 && count > 0 && count <= kMostRecords,
            "a batch has some records, and a URL for each");
    for (std::size_t i = 1; i <= count; ++i) {
        const auto* pImage = std::get_if<std::vector<char>>(&payloads[i]);
        const auto* pUrl = std::get_if<std::string>(&payloads[i + count]);
        Require(pImage != nullptr && pUrl != nullptr, "URLs stand behind the images");
        std::string problem;
        records.push_back(model::FromImage({pImage->data(), pImage->size()}, *pUrl, &problem));
        Require(problem.empty(), problem.c_str());
    }
}

/// @return whether the service accepted a batch: the status and the value behind it are not zero
bool IsAccepted(const CFakeBus::Reply& reply) {
    const CFakeBus::Argument zero(std::int32_t{0});
    return reply.error.empty() && reply.body.size() == 6 && reply.body[2] != zero &&
           reply.body[5] != zero;
}

/// @return the payloads of each call of a function
std::vector<CFakeBus::Arguments> Bodies(CFakeBus& bus, const std::string& function) {
    std::vector<CFakeBus::Arguments> bodies;
    for (const CFakeBus::Call& call : bus.Calls()) {
        CheckAddress(call);
        CFakeBus::Arguments payloads = Payloads(call.arguments);
        Require(!payloads.empty() && std::holds_alternative<std::string>(payloads.front()),
                "a call names its function");
        if (std::get<std::string>(payloads.front()) == function) {
            bodies.push_back(std::move(payloads));
        }
    }
    return bodies;
}

}  // namespace

std::set<std::size_t> CWireBus::Gaps() {
    std::set<std::size_t> gaps;
    std::size_t records = 0;
    for (const Call& call : Calls("SendData")) {
        const std::size_t carried = (call.arguments.size() / 3 - 1) / 2;
        records += carried;
        if (carried == kMostRecords && !IsAccepted(call.reply)) {
            gaps.insert(records);
        }
    }
    return gaps;
}

std::vector<model::Record> CWireBus::Records() {
    std::vector<model::Record> records;
    for (const Arguments& payloads : Bodies(*this, "SendData")) {
        AppendRecords(payloads, records);
    }
    return records;
}

std::vector<std::string> CWireBus::PolicyNames() {
    std::vector<std::string> names;
    for (const Arguments& payloads : Bodies(*this, "GetPolicyInfo")) {
        Require(payloads.size() == 2 && std::holds_alternative<std::string>(payloads[1]),
                "a policy is asked for with a name");
        names.push_back(std::get<std::string>(payloads[1]));
    }
    return names;
}
