// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYDELAYLINE_H
#define TALLYRA_GST_TYDELAYLINE_H

#include "TYGstEvent.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <variant>

/// Holds events for kReportDelay, in the order of their times, and shows those to come. Events of a
/// playback that started late are all as late.
///
/// Threads: one.
class CTYDelayLine {
  public:
    /// How long after an event it is reported.
    static constexpr std::int64_t kReportDelay = 250'000;
    /// The observer waits this long for the bus, and somewhat less in practice.
    static constexpr std::int64_t kMostLate = 5'000'000;

    /// Adds an event, after those of the same time.
    void Insert(TYGstEvent event);

    /// @return the next event if it happened at least kReportDelay before `now`
    std::optional<TYGstEvent> TakeDue(std::int64_t now);
    /// @return when to call TakeDue again; empty without an event. Samples may wait for kSlack, so
    ///   that the next look takes them along.
    std::optional<std::int64_t> NextDue() const;
    /// From now on, an event is reported this much later, in microseconds; at most kMostLate.
    void SetLate(std::int64_t late);
    /// @return how late the next event is
    std::int64_t LateBy(std::int64_t now) const;

    /// Looks at the events that follow the one just taken.
    /// @param until  the latest time to look at
    /// @return the first event of this kind for which `isWanted` is true; null if there is none
    template <class What, class Wanted>
    const TYGstEvent* Find(std::int64_t until, Wanted isWanted) const {
        for (const TYGstEvent& event : m_Events) {
            if (event.time > until) {
                return nullptr;
            }
            const What* pWhat = std::get_if<What>(&event.what);
            if (pWhat != nullptr && isWanted(*pWhat)) {
                return &event;
            }
        }
        return nullptr;
    }

    /// @return the first event of this kind up to `until`; null if there is none
    template <class What>
    const TYGstEvent* FindAny(std::int64_t until) const {
        return Find<What>(until, [](const What&) { return true; });
    }

    const std::deque<TYGstEvent>& Ahead() const { return m_Events; }

  private:
    static constexpr std::int64_t kSlack = 5'000;

    std::int64_t DueOf(const TYGstEvent& event) const {
        return event.time + kReportDelay + m_nLate;
    }

    std::deque<TYGstEvent> m_Events;
    std::int64_t m_nLate = 0;
};

#endif  // TALLYRA_GST_TYDELAYLINE_H
