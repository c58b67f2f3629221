// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FleetDevice.h"

#include <array>
#include <cstdio>

namespace {

constexpr std::int64_t kNsPerMs = 1'000'000;

template <class Value>
std::vector<Value> Cut(const std::vector<Value>& values, std::size_t begin, std::size_t count) {
    const auto first = values.begin() + static_cast<std::ptrdiff_t>(begin);
    return {first, first + static_cast<std::ptrdiff_t>(count)};
}

}  // namespace

CFleetDevice::CFleetDevice(int number)
    : m_strName("device-" + std::to_string(number)),
      m_Dice(static_cast<std::uint64_t>(number) + 1),
      // Devices start playbacks at different times, so their identifiers differ.
      m_nSessions(number * 100'000) {
    std::array<char, 64> epoch{};
    std::snprintf(epoch.data(), epoch.size(), "7d0ab0a5-6a11-4a2c-9a30-%012d", number);
    m_strEpoch = epoch.data();
}

TYForwardedBatch CFleetDevice::Next(std::int64_t now, std::size_t records) {
    TYForwardedBatch batch;
    batch.device = m_strName;
    batch.epoch = m_strEpoch;
    batch.after = m_nSent;
    batch.first = m_nSent + 1;
    while (batch.records.size() < records) {
        if (m_nNext == m_Session.records.size()) {
            m_Session = MakeSession(m_Dice, m_nSessions++, now / kNsPerMs);
            m_nNext = 0;
        }
        batch.records.push_back(m_Session.records[m_nNext++]);
        batch.urls.emplace_back(m_Session.url);
        batch.arrivals.push_back(now);
    }
    m_nSent = batch.Last();
    return batch;
}

std::vector<TYForwardedBatch> CFleetDevice::NextBatches(std::size_t count, std::int64_t now) {
    std::vector<TYForwardedBatch> batches;
    for (std::size_t i = 0; i < count; ++i) {
        batches.push_back(Next(now + static_cast<std::int64_t>(i) * kNsPerMs));
    }
    return batches;
}

TYForwardedBatch PartOf(const TYForwardedBatch& batch, std::size_t begin, std::size_t count) {
    TYForwardedBatch part = batch;
    part.records = Cut(batch.records, begin, count);
    part.urls = Cut(batch.urls, begin, count);
    part.arrivals = Cut(batch.arrivals, begin, count);
    part.first = batch.first + static_cast<std::int64_t>(begin);
    part.after = begin == 0 ? batch.after : part.first - 1;
    return part;
}
