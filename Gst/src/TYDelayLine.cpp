// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDelayLine.h"

#include <algorithm>
#include <utility>

// Why reports are late
//
// Some events can only be understood with what follows them. A pipeline that goes to PAUSED was
// paused by the viewer, or by an application that waits for its buffer: BUFFERING comes before or
// after the change of state. A position that stands still shows that the picture stopped only when
// the next position is the same. BUFFERING that is over after 7 ms was a change of the variant, and
// nobody saw it.
//
// The library stamps a record when it is reported, so an event cannot be reported later than
// others. The observer therefore reports every event exactly kReportDelay after it happened. The
// distances between records are exact, and while an event waits, the observer sees what came after
// it. What it finds out from later events, it inserts at the time at which it happened.
//
// At the start, the observer may wait for the bus. A playback that therefore starts late is
// reported as late to its end: otherwise its start-up would seem to take no time.
//
// This must hold:
// - Events leave in the order of their times.
// - An event that is inserted while another is processed does not lie before that one. Otherwise it
//   is reported late.
// - An observer that is detached during a playback waits until the end of that playback is due. A
//   session that lost its last quarter of a second would be shorter than it was.

void CTYDelayLine::Insert(TYGstEvent event) {
    const auto place = std::upper_bound(
        m_Events.begin(), m_Events.end(), event.time,
        [](std::int64_t time, const TYGstEvent& each) { return time < each.time; });
    m_Events.insert(place, std::move(event));
}

std::optional<TYGstEvent> CTYDelayLine::TakeDue(std::int64_t now) {
    if (m_Events.empty() || DueOf(m_Events.front()) > now) {
        return std::nullopt;
    }
    std::optional<TYGstEvent> next(std::move(m_Events.front()));
    m_Events.pop_front();
    return next;
}

std::optional<std::int64_t> CTYDelayLine::NextDue() const {
    if (m_Events.empty()) {
        return std::nullopt;
    }
    const std::int64_t latest = DueOf(m_Events.front()) + kSlack;
    for (const TYGstEvent& event : m_Events) {
        if (!std::holds_alternative<TYSample>(event.what)) {
            return std::min(DueOf(event), latest);
        }
    }
    return latest;
}

void CTYDelayLine::SetLate(std::int64_t late) {
    m_nLate = std::clamp(late, std::int64_t{0}, kMostLate);
}

std::int64_t CTYDelayLine::LateBy(std::int64_t now) const {
    return m_Events.empty() ? 0 : now - m_Events.front().time - kReportDelay;
}
