// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "model/Analysis.h"

namespace model {

namespace {

// A position of -1 is none.
std::optional<std::int32_t> Position(std::int32_t position) {
    return position == -1 ? std::nullopt : std::optional(position);
}

// Numbers wrap around in 32 bits.
std::int32_t Wrapped(std::int64_t number) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(number));
}

// Whole milliseconds from one reading to another. What is left below one is cut off: seconds are
// whole and the fraction is never negative.
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

// Lengths end when they are looked at, and begin with the stamp of the record that opened them.
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
            // A stop ends the stall and keeps the anchor, a pause the other way round.
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

}  // namespace model
