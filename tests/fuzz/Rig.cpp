// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Rig.h"

#include "LockstepClock.h"
#include "Target.h"

#include <unistd.h>

#include <set>
#include <utility>
#include <variant>

namespace {

constexpr std::size_t kMostRecords = 36;

/// A record on the wire: its image and its URL.
using Wired = std::pair<std::string, std::string>;

// The wire format, read a second time. A call that breaks it aborts.

/// @return the payloads of a call's triples
CFakeBus::Arguments Payloads(const CFakeBus::Call& call) {
    Require(call.destination == "org.veltra.tv.tallyra.service" &&
                call.path == "/org/veltra/tv/tallyra/service" &&
                call.interface == "org.veltra.tv.tallyra.client" && call.member == "TYCallFunction",
            "every call goes to the service's method");
    CFakeBus::Arguments payloads;
    CFakeBus::Arguments triples;
    for (std::size_t i = 2; i < call.arguments.size(); i += 3) {
        const CFakeBus::Argument& payload = call.arguments[i];
        triples.insert(triples.end(), {static_cast<std::int32_t>(i / 3),
                                       static_cast<std::int32_t>(payload.index()), payload});
        payloads.push_back(payload);
    }
    Require(call.arguments == triples, "a body is made of triples: index, type and payload");
    return payloads;
}

/// Aborts unless all images stand before all URLs.
void AppendRecords(const CFakeBus::Arguments& payloads, std::vector<Wired>& records) {
    const std::size_t count = (payloads.size() - 1) / 2;
    Require(payloads.size() % 2 == 1 && count > 0 && count <= kMostRecords,
            "a batch has some records, and a URL for each");
    for (std::size_t i = 1; i <= count; ++i) {
        const auto& image = std::get<std::vector<char>>(payloads[i]);
        records.emplace_back(std::string(image.begin(), image.end()),
                             std::get<std::string>(payloads[i + count]));
    }
}

/// @return whether the service accepted a batch: the status and the value behind it are not zero
bool IsAccepted(const CFakeBus::Reply& reply) {
    const CFakeBus::Argument zero(std::int32_t{0});
    return reply.error.empty() && reply.body.size() == 6 && reply.body[2] != zero &&
           reply.body[5] != zero;
}

/// The records that arrived, and behind how many of them others may be missing: a full call that
/// was refused ends there, and the rest of its batch was dropped.
std::pair<std::vector<Wired>, std::set<std::size_t>> Arrivals(CFakeBus& bus) {
    std::vector<Wired> found;
    std::set<std::size_t> gaps;
    for (const CFakeBus::Call& call : bus.Calls()) {
        const CFakeBus::Arguments payloads = Payloads(call);
        if (call.Function() != "SendData") {
            continue;
        }
        AppendRecords(payloads, found);
        if (payloads.size() == 2 * kMostRecords + 1 && !IsAccepted(call.reply)) {
            gaps.insert(found.size());
        }
    }
    return {found, gaps};
}

CTYContentInfo ContentInfo(const model::Content& content) {
    std::string url = content.url;
    CTYContentInfo info(&url, static_cast<unsigned>(content.startTime));
    info.SetDuration(content.duration);
    info.SetDrmType(static_cast<TY_DRM_TYPE>(content.drmType));
    info.SetContentType(static_cast<TY_CONTENT_TYPE>(content.contentType));
    info.SetChannelID(content.channelID);
    info.SetTitle(content.title);
    info.SetGenre(content.genre);
    info.SetCustomInfo(content.customInfo);
    info.SetCustomData("key", "value");
    return info;
}

}  // namespace

CRig::CRig(const model::World& world, const std::optional<std::string>& appId, int playerID,
           bool bConnects)
    : m_World(world), m_bConnects(bConnects), m_pClock(std::make_unique<CLockstepClock>()) {
    m_World.thread = static_cast<unsigned>(gettid());
    m_Platform.onLog = [this](const CPlatformDouble::LogLine& line) { m_pClock->OnLog(line.text); };
    m_Bus.connectError = bConnects ? "" : "no bus";
    // Without the service at first, the connection check waits on the clock, which counts it.
    const bool isThere = m_World.serviceIsThere;
    m_World.serviceIsThere = false;
    Apply();
    m_Session.emplace(m_World, appId, playerID);
    m_pCollector = std::make_unique<CTYDataCollector>(
        appId ? appId->c_str() : nullptr, static_cast<TY_PLAYER_ID>(playerID), m_Bus, *m_pClock);
    // The analyzer and the connection check.
    m_pClock->AwaitThreads(2);
    m_World.serviceIsThere = isThere;
    Apply();
}

CRig::~CRig() {
    m_pCollector.reset();
    m_Platform.Reset();
}

void CRig::Apply() {
    m_World.serviceIsThere = m_World.serviceIsThere && m_bConnects;
    m_Platform.keyResult = m_World.keyResult;
    m_Platform.keyValue = m_World.keyValue;
    m_Platform.version = m_World.version;
    m_Platform.gatewayConnected = m_World.gateway;
    m_Platform.gatewayResult = m_World.gatewayResult;
    m_Platform.connectionType = m_World.connectionType;
    m_Platform.connectionTypeResult = m_World.connectionTypeResult;
    m_Platform.wifiResult = m_World.wifiResult;
    m_Platform.apResult = m_World.apResult;
    m_Platform.rssiResult = m_World.rssiResult;
    m_Platform.rssi = m_World.rssi;
    m_Bus.SetOwner(m_World.serviceIsThere);
    m_Bus.SetReply("GetPolicyInfo", CFakeBus::Status(1, m_World.policyAllows ? 1 : 0));
    m_pClock->SetRealTime(m_World.realNs, m_World.clockFails);
}

void CRig::SendEvent(int event, int param1, int param2) {
    if (event == 1 && !m_Session->Playback().MayStart()) {
        return;
    }
    m_Session->SendEvent(event, param1, param2);
    m_bRecordsGiven = true;
    m_pCollector->SendMediaEvent(static_cast<TY_EVENT_TYPE>(event), param1, param2);
}

void CRig::Execute(int code, int value, const std::string& text) {
    m_bRecordsGiven = true;
    Require(m_pCollector->Execute(code, value, text) == m_Session->Execute(code, value, text),
            "a free record is accepted by the rules");
}

void CRig::SetContent(const model::Content& content) {
    if (!m_Session->Playback().MaySet(content)) {
        return;
    }
    m_Session->Playback().Set(content);
    CTYContentInfo info = ContentInfo(content);
    m_pCollector->SetContentInfo(&info);
}

// Only records give the threads work.
void CRig::Settle() {
    if (m_bRecordsGiven) {
        m_pClock->Settle();
        m_bRecordsGiven = false;
    }
}

// Derived records carry the time of their derivation, so all are derived before time passes.
void CRig::Pass(std::chrono::milliseconds time) {
    Settle();
    m_World.realNs += std::chrono::nanoseconds(time).count();
    m_Session->Pass(time.count());
    m_pClock->Advance(time);
}

// A worker that is still ending cannot be started again, so it must have ended first.
void CRig::FireKeyChanged() {
    Settle();
    m_Session->KeyChanged();
    m_Platform.FireKeyChanged();
    m_pClock->Settle();
}

// Each time the key goes on, some leftover records are sent. Records never sent would be leaks.
void CRig::Finish() {
    while (m_Session->Delivery().HasLeftovers()) {
        ChangeWorld([](model::World& world) {
            world.keyResult = 0;
            world.keyValue = 1;
            world.policyAllows = true;
        });
        FireKeyChanged();
    }
    m_pCollector.reset();
    Compare();
}

// After a refused full call an unknown number of records is missing, the rest of the batch. Records
// may also be equal. So the comparison follows all places at which the next record may be.
void CRig::Compare() {
    const auto& [found, gaps] = Arrivals(m_Bus);
    const model::CDelivery& delivery = m_Session->Delivery();
    std::vector<Wired> expected;
    for (const model::Record& record : delivery.Sent()) {
        expected.emplace_back(ImageOf(record), record.url);
    }
    const std::size_t certain = expected.size();
    for (const model::Record& record : delivery.MaybeSent()) {
        expected.emplace_back(ImageOf(record), record.url);
    }
    std::set<std::size_t> places{0};
    const auto addMissing = [&places, &gaps = gaps](std::size_t arrived, std::size_t last) {
        for (std::size_t at = *places.begin(); gaps.contains(arrived) && at <= last; ++at) {
            places.insert(at);
        }
    };
    for (std::size_t i = 0; i < found.size(); ++i) {
        addMissing(i, expected.size());
        std::set<std::size_t> after;
        for (const std::size_t place : places) {
            if (place < expected.size() && expected[place] == found[i]) {
                after.insert(place + 1);
            }
        }
        places = std::move(after);
        Require(!places.empty(), "the records are those of the model, in order");
    }
    addMissing(found.size(), certain);
    Require(*places.rbegin() >= certain, "no record is lost");
}
