// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYPOSITIONTRACK_H
#define TALLYRA_GST_TYPOSITIONTRACK_H

#include "TYGstEvent.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>

/// The last known position, and where the picture is between two looks at it.
///
/// Threads: one.
class CTYPositionTrack {
  public:
    /// Forgets the position, as at the start of a content.
    void Reset() { *this = CTYPositionTrack(); }

    /// Sets the position at this time. It moves from there on if `isMoving`.
    void Set(std::int64_t time, int position, bool isMoving) {
        m_nTime = time;
        m_nPosition = position;
        m_bMoving = isMoving;
    }

    /// The picture stops or moves on at this time.
    void SetMoving(std::int64_t time, bool isMoving) {
        if (IsKnown()) {
            Set(time, At(time), isMoving);
        }
    }

    /// The picture moves at another rate from this time on.
    void SetRate(std::int64_t time, double rate) {
        SetMoving(time, m_bMoving);
        m_dRate = rate;
    }
    double GetRate() const { return m_dRate; }
    bool IsKnown() const { return m_nPosition != kGstUnknown; }

    /// @return the position in milliseconds; kGstUnknown if none is known
    int At(std::int64_t time) const {
        if (!IsKnown() || !m_bMoving || time <= m_nTime) {
            return m_nPosition;
        }
        const double moved = static_cast<double>(time - m_nTime) / 1000 * m_dRate;
        return static_cast<int>(
            std::clamp(std::round(m_nPosition + moved), 0.0, static_cast<double>(INT_MAX)));
    }

  private:
    std::int64_t m_nTime = 0;
    int m_nPosition = kGstUnknown;
    bool m_bMoving = false;
    double m_dRate = 1;
};

#endif  // TALLYRA_GST_TYPOSITIONTRACK_H
