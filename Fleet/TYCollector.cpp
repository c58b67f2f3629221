// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYCollector.h"

#include "TYLog.h"
#include "TYSubjects.h"
#include "TYWatermarkMessage.h"

#include <algorithm>
#include <utility>

// Problem: messages come in any order, repeatedly, from many devices, and some are malformed or
// hostile. The database may be down for a while, and this process may be killed at any time. What
// was stored has to be stored once, and nothing may be forgotten.
//
// Idea: acknowledge after the commit. What was not acknowledged is delivered again, and the
// database drops what it has. If the database is down, the messages in hand are kept and tried
// again, and no more are taken; the stream fills up, then devices wait.
//
// A message that cannot be decoded or stored goes to a stream of its own with the reason, and is
// counted. If it says which ids it was about, they are covered, or its device would send it for
// ever.
//
// Devices ask how far they are stored. The answer also says how far the stream has been processed:
// a batch that was processed and is not stored is lost, and one that was not processed is on its
// way. The stream is asked before the database, so that what was processed is stored.
//
// Always true:
// - A message is acknowledged only when its records are committed, or when it is in the stream of
//   bad messages.

#define TY_LOG_TAG "TALLYRA_FLEET"

namespace {

using std::chrono::milliseconds;

// How long it waits for messages; questions wait as long.
constexpr milliseconds kFetchTime{200};
constexpr milliseconds kShortestPause{100};
constexpr milliseconds kLongestPause{5000};
constexpr std::chrono::seconds kStateAge{1};
// How long questions stay without answers after the servers did not tell.
constexpr std::chrono::seconds kStatePause{5};
constexpr std::chrono::seconds kRefusalLogPeriod{10};
constexpr std::chrono::minutes kMaintenancePeriod{1};
// Questions answered between two fetches.
constexpr int kMostQuestions = 1024;
// How often a batch is delivered that has to wait for those before it: once a second, for longer
// than the stream waits for a killed collector that holds them. After that it is dropped, and its
// device, whose watermark does not move, sends all of them again.
constexpr std::uint64_t kMostReturns = 45;

}  // namespace

CTYCollector::CTYCollector(ITYFleetDatabase& database, ITYFleetLink& link, ITYRecordStream& stream,
                           IsStopped isStopped, Sleep sleep)
    : m_Database(database),
      m_Link(link),
      m_Stream(stream),
      m_IsStopped(std::move(isStopped)),
      m_Sleep(std::move(sleep)) {}

void CTYCollector::Run() {
    while (!m_IsStopped()) {
        MaintainIfDue();
        Step();
    }
}

void CTYCollector::Step() {
    const Deliveries deliveries = m_Stream.Fetch(kFetchTime);
    std::vector<Bad> bad;
    Batches batches = Decode(deliveries, bad);
    if (!batches.batches.empty()) {
        SetEarlyAside(deliveries, batches);
        Store(deliveries, batches);
    }
    // Last, so that bad messages hold up none that can be stored.
    for (const Bad& each : bad) {
        Refuse(deliveries[each.index], each.index, each.reason);
    }
    AnswerQuestions();
}

/// Tries again while the database is unavailable.
/// @return false if it was stopped meanwhile
template <class Operation>
bool CTYCollector::Insist(Operation operation) {
    for (milliseconds pause = kShortestPause; !m_IsStopped();
         pause = std::min(2 * pause, kLongestPause)) {
        try {
            operation();
            return true;
        } catch (const CTYDatabaseUnavailable& error) {
            if (pause == kShortestPause) {
                TY_LOG_ERROR("the database is unavailable: %s; trying again", error.what());
            }
        }
        m_Sleep(pause);
    }
    return false;
}

CTYCollector::Batches CTYCollector::Decode(const Deliveries& deliveries, std::vector<Bad>& bad) {
    Batches batches;
    for (std::size_t i = 0; i < deliveries.size(); ++i) {
        try {
            batches.batches.push_back(m_Codec.Decode(deliveries[i].message));
            batches.indices.push_back(i);
        } catch (const CTYBadMessage& error) {
            bad.push_back({i, error.what()});
        }
    }
    return batches;
}

void CTYCollector::Refuse(const ITYRecordStream::Delivery& delivery, std::size_t index,
                          const std::string& reason) {
    LogRefusal(delivery.message, reason);
    m_Stream.PutAside(delivery.message, reason);
    const bool isCounted = Insist([&] {
        std::int64_t last = 0;
        try {
            const TYForwardedBatch range = m_Codec.DecodeRange(delivery.message, last);
            m_Database.Refuse(reason, &range, last);
        } catch (const CTYBadMessage&) {
            m_Database.Refuse(reason, nullptr, 0);
        }
    });
    if (isCounted) {
        m_Stream.Acknowledge(index);
    }
}

// A device may send thousands.
void CTYCollector::LogRefusal(const TYMessage& message, const std::string& reason) {
    ++m_nRefusalsNotLogged;
    if (Clock::now() >= m_NextRefusalLog) {
        TY_LOG_ERROR("%lld messages cannot be stored, the last one on %s: %s",
                     static_cast<long long>(m_nRefusalsNotLogged), message.subject.c_str(),
                     reason.c_str());
        m_NextRefusalLog = Clock::now() + kRefusalLogPeriod;
        m_nRefusalsNotLogged = 0;
    }
}

void CTYCollector::SetEarlyAside(const Deliveries& deliveries, Batches& batches) {
    std::vector<std::size_t> early;
    if (!Insist([&] { early = m_Database.TooEarly(batches.batches); })) {
        return;
    }
    std::ranges::sort(early, std::greater<>());
    for (const std::size_t i : early) {
        const std::size_t index = batches.indices[i];
        if (deliveries[index].times < kMostReturns) {
            m_Stream.Return(index);
        } else {
            m_Stream.Acknowledge(index);
        }
        batches.batches.erase(batches.batches.begin() + static_cast<std::ptrdiff_t>(i));
        batches.indices.erase(batches.indices.begin() + static_cast<std::ptrdiff_t>(i));
    }
}

void CTYCollector::Store(const Deliveries& deliveries, const Batches& batches) {
    std::vector<TYWatermark> watermarks;
    try {
        if (!Insist([&] { watermarks = m_Database.Add(batches.batches); })) {
            return;
        }
    } catch (const std::exception& error) {
        if (batches.batches.size() == 1) {
            Refuse(deliveries[batches.indices[0]], batches.indices[0], error.what());
        } else {
            StoreEach(deliveries, batches);
        }
        return;
    }
    for (const std::size_t index : batches.indices) {
        m_Stream.Acknowledge(index);
    }
    Tell(watermarks);
}

/// One of them cannot be stored.
void CTYCollector::StoreEach(const Deliveries& deliveries, const Batches& batches) {
    for (std::size_t i = 0; i < batches.batches.size() && !m_IsStopped(); ++i) {
        Store(deliveries, {{batches.batches[i]}, {batches.indices[i]}});
    }
}

void CTYCollector::Tell(const std::vector<TYWatermark>& watermarks) {
    for (const TYWatermark& watermark : watermarks) {
        m_Link.Publish({.subject = TYSubjects::Stored(watermark.device),
                        .body = TYWatermarkMessage{watermark.epoch, watermark.stored}.Text()});
    }
}

void CTYCollector::AnswerQuestions() {
    for (int i = 0; i < kMostQuestions; ++i) {
        const std::optional<TYMessage> question = m_Link.Next(milliseconds(0));
        if (!question) {
            return;
        }
        Answer(*question);
    }
}

/// A question that cannot be answered now gets no answer: the device asks again.
void CTYCollector::Answer(const TYMessage& question) {
    const std::string device(TYSubjects::Part(question.subject, 2));
    if (!TYSubjects::IsDeviceName(device) || !CTYForwardMessage::IsEpoch(question.body)) {
        return;
    }
    const std::optional<TYStreamState>& state = State();
    if (!state) {
        return;
    }
    try {
        const std::int64_t stored = m_Database.StoredUpTo(device, question.body);
        m_Link.Publish({.subject = TYSubjects::Stored(device),
                        .body = TYWatermarkMessage{question.body, stored, state}.Text()});
    } catch (const CTYLinkLost&) {
        throw;
    } catch (const std::exception& error) {
        TY_LOG_ERROR("no answer for %s: %s", device.c_str(), error.what());
    }
}

const std::optional<TYStreamState>& CTYCollector::State() {
    if (Clock::now() >= m_NextState) {
        try {
            m_State = m_Stream.State();
            m_NextState = Clock::now() + kStateAge;
        } catch (const CTYLinkLost& error) {
            // Servers that elect a leader do not answer. If the connection is lost, Fetch says so.
            TY_LOG_ERROR("no answers for devices: %s", error.what());
            m_State.reset();
            m_NextState = Clock::now() + kStatePause;
        }
    }
    return m_State;
}

void CTYCollector::MaintainIfDue() {
    if (Clock::now() < m_NextMaintenance) {
        return;
    }
    m_NextMaintenance = Clock::now() + kMaintenancePeriod;
    try {
        m_Database.Maintain();
    } catch (const std::exception& error) {
        TY_LOG_ERROR("maintenance failed: %s", error.what());
    }
}
