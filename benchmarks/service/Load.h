// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_SERVICE_LOAD_H
#define TALLYRA_BENCHMARKS_SERVICE_LOAD_H

#include "BatchSender.h"
#include "TYEventCodes.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

/// The batches of a load.
struct LoadKind {
    int senders = 4;
    /// Whether each record has its own URL; otherwise the records of a playback differ as a
    /// player's do, in event, parameters and time.
    bool distinct = false;
    /// Batches that a sender prepares and then repeats. 0: it makes each batch when it sends it, so
    /// that no playback repeats.
    int prepared = 32;
};

/// @return the event of a record by its number in a playback, of which it has as many records
inline std::uint8_t EventAt(int index, int records) {
    // Events in the middle of a playback, reported and derived.
    constexpr std::array<std::uint8_t, 6> kEvents = {
        TY_EVENT_PLAYBACK_TIME, TY_EVENT_BUFFERING_START,
        TY_EVENT_BUFFERING_END, TY_EVENT_BUFFERING_TIME,
        TY_EVENT_SEEK,          TY_EVENT_SEEK_COMPLETE};
    if (index == 0) {
        return TY_EVENT_START;
    }
    if (index == records - 1) {
        return TY_EVENT_STOP;
    }
    return kEvents[static_cast<std::size_t>(index % kFullBatch) % kEvents.size()];
}

/// @param batch  counts the batches of this sender
inline CBatchSender::MessagePtr MakeBatch(CBatchSender& bus, const LoadKind& kind, int sender,
                                          int batch) {
    constexpr std::int32_t kBeginOfTime = 1'790'000'000;
    constexpr int kBatchesOfPlayback = 8;
    const int inPlayback = batch % kBatchesOfPlayback;
    const std::string playback =
        "p" + std::to_string(sender) + "-" + std::to_string(batch / kBatchesOfPlayback);
    TYMediaData record = MakeRecord("org.example.player" + std::to_string(sender % 8), playback);
    std::vector<TYMediaData> records;
    std::vector<std::string> urls;
    for (int i = 0; i < kFullBatch; ++i) {
        const int number = batch * kFullBatch + i;
        record.event = EventAt(inPlayback * kFullBatch + i, kBatchesOfPlayback * kFullBatch);
        record.param1 = number * 1000;
        record.param2 = i;
        record.time = {kBeginOfTime + number, number * 1000 % 1'000'000'000};
        records.push_back(record);
        urls.push_back("https://video.example.org/" + playback + "/index.mpd" +
                       (kind.distinct ? "?n=" + std::to_string(number) : ""));
    }
    return bus.MakeCall(records, urls);
}

/// Senders that deliver full batches, each as soon as the previous one was answered, until the
/// object is destroyed or the wanted number was sent.
///
/// Threads: one, besides its own.
class CLoad {
  public:
    /// @param wanted  number of batches of all senders together
    CLoad(const std::string& address, const LoadKind& kind, std::int64_t wanted = INT64_MAX)
        : m_nWanted(wanted) {
        for (int i = 0; i < kind.senders; ++i) {
            m_Senders.emplace_back([this, address, kind, i] { Run(address, kind, i); });
        }
    }
    ~CLoad() { Stop(); }
    CLoad(const CLoad&) = delete;
    CLoad& operator=(const CLoad&) = delete;

    /// Lets the senders finish their current batch and joins them.
    void Stop() {
        m_bStop = true;
        m_Senders.clear();
    }

    /// @return batches accepted so far
    std::int64_t Accepted() const { return m_nAccepted; }
    /// @return batches that failed so far
    std::int64_t Failed() const { return m_nFailed; }

  private:
    void Run(const std::string& address, const LoadKind& kind, int sender) {
        CBatchSender bus(address);
        std::vector<CBatchSender::MessagePtr> prepared;
        for (int i = 0; i < kind.prepared; ++i) {
            prepared.push_back(MakeBatch(bus, kind, sender, i));
        }
        for (int next = 0; !m_bStop && m_nTurns++ < m_nWanted; ++next) {
            if (kind.prepared == 0) {
                prepared.resize(1);
                prepared[0] = MakeBatch(bus, kind, sender, next);
            }
            const auto& call = prepared[static_cast<std::size_t>(next) % prepared.size()];
            ++(bus.Send(call.get()) == Answer::kAccepted ? m_nAccepted : m_nFailed);
        }
    }

    const std::int64_t m_nWanted;
    std::atomic<bool> m_bStop = false;
    std::atomic<std::int64_t> m_nTurns = 0;
    std::atomic<std::int64_t> m_nAccepted = 0;
    std::atomic<std::int64_t> m_nFailed = 0;
    std::vector<std::jthread> m_Senders;
};

#endif  // TALLYRA_BENCHMARKS_SERVICE_LOAD_H
