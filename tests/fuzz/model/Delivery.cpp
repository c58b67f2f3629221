// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Delivery.h"

namespace model {

namespace {

// Without an analyzer thread at most that many records are queued.
constexpr std::size_t kMostNotAnalysed = 200;

void Move(std::deque<Record>& from, std::vector<Record>& to) {
    to.insert(to.end(), from.begin(), from.end());
    from.clear();
}

// -1 is no position.
std::optional<std::int32_t> Position(std::int32_t position) {
    return position == -1 ? std::nullopt : std::optional(position);
}

// Truncates to 32 bits.
std::int32_t Wrapped(std::int64_t number) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(number));
}

// Milliseconds between two times, rounded down: the fraction of a second is never negative.
std::int32_t Milliseconds(Time from, Time to) {
    std::int64_t seconds = std::int64_t{to.sec} - from.sec;
    std::int64_t fraction = std::int64_t{to.nsec} - from.nsec;
    if (fraction < 0) {
        seconds -= 1;
        fraction += 1'000'000'000;
    }
    return Wrapped(seconds * 1000 + fraction / 1'000'000);
}

Record Copy(const Record& record, int event, Time now) {
    Record copy = record;
    copy.event = event;
    copy.time = now;
    return copy;
}

}  // namespace

std::int32_t CAnalysis::SinceAnchor(std::int32_t position) const {
    return m_Anchor ? Wrapped(std::int64_t{position} - *m_Anchor) : 0;
}

// A length begins at the time of the record that opened it and ends now.
std::optional<Record> CAnalysis::Measure(const Record& record, Time now) {
    if (record.event == 6) {
        Record startUp = Copy(record, 21, now);
        startUp.param1 = Milliseconds(m_Started, now);
        return startUp;
    }
    if (record.event == 5 && m_StallBegan) {
        Record stall = Copy(record, 22, now);
        stall.param1 = Milliseconds(*m_StallBegan, now);
        m_StallBegan.reset();
        return stall;
    }
    const bool unpaired = record.event == 5 || m_StallBegan.has_value();
    if (record.event == 4) {
        m_StallBegan = record.time;
    }
    return unpaired ? std::optional(Copy(record, 202, now)) : std::nullopt;
}

std::optional<Record> CAnalysis::Derive(const Record& record, Time now) {
    switch (record.event) {
        case 1:
            m_Started = record.time;
            m_Anchor.reset();
            return std::nullopt;
        case 2:
        case 3: {
            Record played = Copy(record, 20, now);
            played.param2 = SinceAnchor(record.param1);
            // STOP ends the stall and keeps the anchor; PAUSE keeps the stall and drops the anchor.
            if (record.event == 2) {
                m_StallBegan.reset();
            } else {
                m_Anchor.reset();
            }
            return played;
        }
        case 4:
        case 5:
        case 6:
            return Measure(record, now);
        case 8:
            m_Anchor = m_Anchor ? m_Anchor : Position(record.param1);
            return std::nullopt;
        case 20:
        case 204:
            m_Anchor = Position(record.param1);
            return std::nullopt;
        default:
            return std::nullopt;
    }
}

void CDelivery::Push(const Record& record, Time now) {
    if (m_bAnalyzes) {
        Analyse(record, now);
    } else if (m_NotAnalysed.size() < kMostNotAnalysed) {
        m_NotAnalysed.push_back(record);
    }
}

void CDelivery::Analyse(const Record& record, Time now) {
    PassOn(record);
    if (const auto derived = m_Analysis.Derive(record, now)) {
        PassOn(*derived);
    }
}

void CDelivery::PassOn(const Record& record) {
    switch (m_Sender) {
        case Sender::NOT_STARTED:
            m_Waiting.push_back(record);
            break;
        case Sender::RUNNING:
            m_Sent.push_back(record);
            break;
        default:
            m_MaybeSent.push_back(record);
    }
}

// A started sender sends what it did not get before its end.
void CDelivery::StartAnalyzer(Time now) {
    Move(m_MaybeSent, m_Sent);
    if (!m_bAnalyzes) {
        for (const Record& record : m_NotAnalysed) {
            Analyse(record, now);
        }
        m_NotAnalysed.clear();
    }
}

void CDelivery::StartSender() {
    if (m_Sender == Sender::NOT_STARTED) {
        m_Sender = Sender::RUNNING;
        Move(m_Waiting, m_Sent);
    }
}

void CDelivery::EndSender() {
    if (m_Sender == Sender::RUNNING) {
        m_Sender = Sender::ENDED;
    }
}

}  // namespace model
