// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYBatchStorer.h"

#include "TYPostgresConnection.h"
#include "TYRecordImage.h"

#include <array>
#include <cstring>
#include <string_view>
#include <tuple>

namespace {

constexpr std::array kColumns = {"id",     "context",  "arrival",   "day",     "source", "param1",
                                 "param2", "time_sec", "time_nsec", "padding", "event"};

// Far below the greatest number, so that ranges can be computed.
constexpr std::int64_t kGreatestId = std::int64_t{1} << 62U;

// Records of one content differ between these bytes only.
bool HasSameContent(const TYForwardedBatch& batch, std::size_t a, std::size_t b) {
    constexpr std::size_t kHead = offsetof(TYMediaData, event);
    const TYMediaData& first = batch.records[a];
    const TYMediaData& second = batch.records[b];
    return std::memcmp(&first, &second, kHead) == 0 &&
           std::memcmp(&first.content, &second.content, sizeof(first.content)) == 0 &&
           batch.urls[a] == batch.urls[b];
}

std::int32_t PaddingOf(const TYMediaData& record) {
    std::int32_t padding = 0;
    std::memcpy(&padding, record.padding2, sizeof(record.padding2));
    return padding;
}

std::string PlaybackOf(const TYMediaData& record) {
    return ValidText(
        std::string_view(record.playbackID, strnlen(record.playbackID, sizeof(record.playbackID))));
}

}  // namespace

/// Records of a batch with one content.
struct CTYBatchStorer::Run {
    std::int64_t context = 0;
    CTYPlaybackTable::Records* pPlayback = nullptr;  ///< null: the records belong to none
    std::size_t last = 0;                            ///< index of its last record
    bool isOpen = false;
};

CTYBatchStorer::CTYBatchStorer(pqxx::transaction_base& transaction, const std::string& day,
                               const CTYSourceTable& sources, CTYSourceTable::Coverages& covered,
                               CTYContextTable& contexts)
    : m_Transaction(transaction),
      m_strDay(day),
      m_Sources(sources),
      m_Covered(covered),
      m_Contexts(contexts) {
    m_Contexts.Begin(day);
}

void CTYBatchStorer::Check(const TYForwardedBatch& batch) {
    const bool hasIds = batch.after >= 0 && batch.first > batch.after && batch.KeyFirst() > 0 &&
                        batch.first < kGreatestId && batch.KeyFirst() < kGreatestId;
    const bool isWhole =
        batch.urls.size() == batch.records.size() && batch.arrivals.size() == batch.records.size();
    const bool hasEpochs =
        CTYSourceTable::IsEpoch(batch.epoch) && CTYSourceTable::IsEpoch(batch.KeyEpoch());
    if (!hasIds || !isWhole || !hasEpochs) {
        throw CTYBadBatch("a batch has impossible ids");
    }
}

bool CTYBatchStorer::IsRange(std::int64_t after, std::int64_t last) {
    return after >= 0 && after < last && last < kGreatestId;
}

void CTYBatchStorer::Cover(const TYForwardedBatch& batch, const CTYSourceTable& sources,
                           CTYSourceTable::Coverages& covered) {
    const auto count = static_cast<std::int64_t>(batch.records.size());
    covered.at(sources.Find({batch.device, batch.KeyEpoch()}).id)
        .Add(batch.KeyFirst(), batch.KeyFirst() + count - 1);
    covered.at(sources.Find({batch.device, batch.epoch}).id).Add(batch.after + 1, batch.Last());
}

void CTYBatchStorer::BeginRun(const TYForwardedBatch& batch, std::size_t index, int device,
                              Run& run) {
    const TYMediaData& record = batch.records[index];
    run.context = m_Contexts.IdOf(m_Transaction, device, record, batch.urls[index]);
    const std::string playback = PlaybackOf(record);
    run.pPlayback = playback.empty() ? nullptr : &m_Playbacks.Of(device, playback);
    run.isOpen = true;
}

void CTYBatchStorer::Add(const TYForwardedBatch& batch) {
    const TYSource& source = m_Sources.Find({batch.device, batch.KeyEpoch()});
    const CTYCoverage& covered = m_Covered.at(source.id);
    Run run;
    for (std::size_t i = 0; i < batch.records.size(); ++i) {
        const TYRecordKey key{source.id, batch.KeyFirst() + static_cast<std::int64_t>(i)};
        if (covered.Has(key.id)) {
            continue;
        }
        if (!run.isOpen || !HasSameContent(batch, run.last, i)) {
            BeginRun(batch, i, source.device, run);
        }
        run.last = i;
        m_Entries.push_back({key, run.context, batch.arrivals[i], &batch.records[i]});
        if (run.pPlayback != nullptr) {
            run.pPlayback->push_back({key, batch.arrivals[i], &batch.records[i], &batch.urls[i]});
        }
    }
    Cover(batch, m_Sources, m_Covered);
}

void CTYBatchStorer::Write() {
    m_Contexts.Write(m_Transaction);
    WriteEntries();
    m_Playbacks.Write(m_Transaction);
    CTYSourceTable::Save(m_Transaction, m_Covered);
}

void CTYBatchStorer::WriteEntries() {
    if (m_Entries.empty()) {
        return;
    }
    pqxx::stream_to rows(m_Transaction, "entries", kColumns);
    for (const Entry& entry : m_Entries) {
        const TYMediaData& record = *entry.pRecord;
        rows << std::tuple(entry.key.id, entry.context, entry.arrival, m_strDay.c_str(),
                           entry.key.source, record.param1, record.param2, record.time.sec,
                           record.time.nsec, PaddingOf(record), static_cast<int>(record.event));
    }
    rows.complete();
}
