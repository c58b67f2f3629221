// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Load.h"

#include <array>

namespace {

constexpr std::int32_t kBeginOfTime = 1'790'000'000;
// Events in the middle of a playback, reported and derived.
constexpr std::array<std::uint8_t, 6> kEvents = {8, 4, 5, 22, 9, 10};
constexpr std::uint8_t kStart = 1;
constexpr std::uint8_t kStop = 2;

// A batch of a sender and its position in the playback.
struct Place {
    int sender;
    int playback;
    int batch;
    bool first;
    bool last;
};

std::uint8_t EventAt(const Place& place, int index) {
    if (place.first && index == 0) {
        return kStart;
    }
    return place.last && index == kFullBatch - 1
               ? kStop
               : kEvents[static_cast<std::size_t>(index) % kEvents.size()];
}

CBatchSender::MessagePtr MakeBatch(CBatchSender& sender, const Place& place, bool distinct) {
    const std::string application = "org.example.player" + std::to_string(place.sender % 8);
    const std::string playback =
        std::string("p") + std::to_string(place.sender) + "-" + std::to_string(place.playback);
    TYMediaData record = MakeRecord(application, playback);
    std::vector<TYMediaData> records;
    std::vector<std::string> urls;
    for (int i = 0; i < kFullBatch; ++i) {
        const int number = place.batch * kFullBatch + i;
        record.event = EventAt(place, i);
        record.param1 = number * 1000;
        record.param2 = i;
        record.time = {kBeginOfTime + number, number * 1000 % 1'000'000'000};
        records.push_back(record);
        urls.push_back("https://video.example.org/" + playback + "/index.mpd" +
                       (distinct ? "?n=" + std::to_string(number) : ""));
    }
    return sender.MakeCall(records, urls);
}

CBatchSender::MessagePtr MakeBatch(CBatchSender& bus, const LoadKind& kind, int sender, int batch) {
    const int inPlayback = batch % kind.batchesOfPlayback;
    const Place place{sender, batch / kind.batchesOfPlayback, batch, inPlayback == 0,
                      inPlayback == kind.batchesOfPlayback - 1};
    return MakeBatch(bus, place, kind.distinct);
}

}  // namespace

CLoad::CLoad(const std::string& address, const LoadKind& kind, std::int64_t wanted)
    : m_nWanted(wanted) {
    for (int i = 0; i < kind.senders; ++i) {
        m_Senders.emplace_back([this, address, kind, i] { Run(address, kind, i); });
    }
}

CLoad::~CLoad() {
    Stop();
}

void CLoad::Stop() {
    m_bStop = true;
    for (std::thread& sender : m_Senders) {
        sender.join();
    }
    m_Senders.clear();
}

void CLoad::Run(const std::string& address, const LoadKind& kind, int sender) {
    CBatchSender bus(address);
    std::vector<CBatchSender::MessagePtr> prepared;
    prepared.reserve(static_cast<std::size_t>(kind.prepared));
    for (int i = 0; i < kind.prepared; ++i) {
        prepared.push_back(MakeBatch(bus, kind, sender, i));
    }
    for (int next = 0; TakeTurn(); ++next) {
        if (prepared.empty()) {
            Send(bus, MakeBatch(bus, kind, sender, next).get());
        } else {
            Send(bus, prepared[static_cast<std::size_t>(next) % prepared.size()].get());
        }
    }
}

void CLoad::Send(CBatchSender& bus, const DBusMessage* pCall) {
    const bool accepted = bus.Send(pCall) == Answer::kAccepted;
    ++(accepted ? m_nAccepted : m_nFailed);
}
